// Message queues on POSIX queues: sizes, order, names, leftovers, host limits,
// waits and their deadlines.
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "queue/queue_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using Clock = std::chrono::steady_clock;
using Words2 = std::array<uint32_t, 2>;

// Whether a queue of n messages may be created here: root may exceed
// fs.mqueue.msg_max; otherwise the namespace's own limit is raised if the
// kernel lets us.
bool RoomForMessages(long n) {
  mq_attr attr{};
  attr.mq_maxmsg = n;
  attr.mq_msgsize = 4;
  auto probe = [&] {
    const mqd_t des = ::mq_open("/probe_room", O_CREAT | O_RDWR, 0600, &attr);
    if (des == -1) return false;
    ::mq_close(des);
    ::mq_unlink("/probe_room");
    return true;
  };
  if (probe()) return true;
  std::ofstream("/proc/sys/fs/mqueue/msg_max") << n;
  return probe();
}

#define REQUIRE_MESSAGE_ROOM(n) \
  if (!RoomForMessages(n)) GTEST_SKIP() << "fs.mqueue.msg_max below " << (n) << " and cannot be raised here"

// Open descriptors of host queues (other descriptors come and go with the
// kernel's threads).
int QueueDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char target[256] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (::readlink(link.c_str(), target, sizeof target - 1) > 0 && std::strncmp(target, "/mq_", 4) == 0) ++count;
  }
  return count;
}

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

class MessageQueueTest : public KernelTest {
 protected:
  uint32_t storage_[64] = {};
};

TEST_F(MessageQueueTest, CreationChecksComeInOrderAndSizeTheQueue) {
  LX_QUEUE q = nullptr;
  EXPECT_EQ(_lx_QueueCreate(nullptr, "q", 3, nullptr, 0), LX_QUEUE_ERROR);
  EXPECT_EQ(_lx_QueueCreate(&q, "q", 3, nullptr, 0), LX_PTR_ERROR);
  for (uint16_t words : {0, 3, 5, 32}) EXPECT_EQ(_lx_QueueCreate(&q, "q", words, storage_, 256), LX_SIZE_ERROR);
  EXPECT_EQ(_lx_QueueCreate(&q, "q", 16, storage_, 63), LX_SIZE_ERROR);
  EXPECT_EQ(q, nullptr);
  ASSERT_EQ(_lx_QueueCreate(&q, "q", 16, storage_, 64), LX_SUCCESS);
  mq_attr attr{};
  ASSERT_EQ(::mq_getattr(q->i32MqDes, &attr), 0);
  EXPECT_EQ(attr.mq_msgsize, 64);
  EXPECT_EQ(attr.mq_maxmsg, 1);
  uint32_t message[16] = {7};
  EXPECT_EQ(_lx_QueueSend(&q, message, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueSend(&q, message, LX_NO_WAIT), LX_QUEUE_FULL);
  EXPECT_EQ(_lx_QueueSend(&q, nullptr, LX_NO_WAIT), LX_PTR_ERROR);
  LX_QUEUE empty = nullptr;
  for (LX_QUEUE* bad : {static_cast<LX_QUEUE*>(nullptr), &empty}) {
    EXPECT_EQ(_lx_QueueSend(bad, message, LX_NO_WAIT), LX_QUEUE_ERROR);
    EXPECT_EQ(_lx_QueueReceive(bad, message, LX_NO_WAIT), LX_QUEUE_ERROR);
    EXPECT_EQ(_lx_QueueFlush(bad), LX_QUEUE_ERROR);
  }
}

TEST_F(MessageQueueTest, FrontMessagesOvertakeInTheirOwnOrderAndAFullQueueRefusesAtOnce) {
  REQUIRE_MESSAGE_ROOM(12);
  LX_QUEUE q = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&q, "order", 2, storage_, 100), LX_SUCCESS);
  for (uint32_t i = 0; i < 12; ++i) {
    Words2 m{i, ~i};
    ASSERT_EQ(_lx_QueueSend(&q, m.data(), LX_NO_WAIT), LX_SUCCESS) << i;
  }
  Words2 m{};
  EXPECT_EQ(_lx_QueueSend(&q, m.data(), LX_NO_WAIT), LX_QUEUE_FULL);
  const auto start = Clock::now();
  EXPECT_EQ(_lx_QueueSend(&q, m.data(), 3), LX_QUEUE_FULL);
  EXPECT_GE(SecondsSince(start), 0.03);
  EXPECT_EQ(_lx_QueueFlush(&q), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&q, m.data(), LX_NO_WAIT), LX_QUEUE_EMPTY);
  Words2 a{'A', 1}, b{'B', 2}, c{'C', 3}, d{'D', 4};
  ASSERT_EQ(_lx_QueueSend(&q, a.data(), LX_NO_WAIT), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueSend(&q, b.data(), LX_WAIT_FOREVER), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueFrontSend(&q, c.data(), 5), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueFrontSend(&q, d.data(), LX_NO_WAIT), LX_SUCCESS);
  ASSERT_EQ(LP_QueueSend(&q, a.data(), LX_NO_WAIT, 5), LX_SUCCESS);  // below the back priority
  for (const Words2& expected : {c, d, a, b, a}) {
    ASSERT_EQ(_lx_QueueReceive(&q, m.data(), LX_NO_WAIT), LX_SUCCESS);
    EXPECT_EQ(m, expected);
  }
}

TEST_F(MessageQueueTest, NamesKeep26CharactersAndCreatingAgainEmptiesTheQueue) {
  const std::string first(40, 'n');
  std::string second = first;
  second[26] = 'x';  // the 27th character
  LX_QUEUE a = nullptr, b = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&a, first.c_str(), 1, storage_, 16), LX_SUCCESS);
  uint32_t word = 42;
  ASSERT_EQ(_lx_QueueSend(&a, &word, LX_NO_WAIT), LX_SUCCESS);
  const std::string system = "/mq_" + first.substr(0, 26);
  const mqd_t direct = ::mq_open(system.c_str(), O_RDWR);
  ASSERT_NE(direct, -1) << system;
  mq_attr attr{};
  ::mq_getattr(direct, &attr);
  EXPECT_EQ(attr.mq_curmsgs, 1);
  ASSERT_EQ(_lx_QueueCreate(&b, second.c_str(), 1, storage_, 16), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&a, &word, LX_NO_WAIT), LX_QUEUE_EMPTY);  // one queue, emptied
  ASSERT_EQ(_lx_QueueSend(&b, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&a, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_NE(a, b);  // each creation gives its handle word a block of its own
  EXPECT_EQ(_lx_QueueDelete(&a), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueInfoGet(&a, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), LX_SUCCESS);
  EXPECT_EQ(_lx_QueuePrioritize(&a), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueSend(&a, &word, LX_NO_WAIT), LX_SUCCESS);  // still works after the delete
  ::mq_close(direct);
}

TEST_F(MessageQueueTest, ALeftoverQueueIsFoundEmptiedAndUsedWithItsOwnMessageSize) {
  mq_attr attr{};
  attr.mq_maxmsg = 3;
  attr.mq_msgsize = 64;
  const mqd_t leftover = ::mq_open("/mq_left", O_CREAT | O_RDWR, 0600, &attr);
  ASSERT_NE(leftover, -1);
  char old[64] = "from an earlier run";
  ASSERT_EQ(::mq_send(leftover, old, sizeof old, 10), 0);
  LX_QUEUE q = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&q, "left", 1, storage_, 8), LX_SUCCESS);
  EXPECT_EQ(detail::MessageBytesOf(&q), 64u);
  char in[64] = {}, out[64] = {};
  EXPECT_EQ(_lx_QueueReceive(&q, out, LX_NO_WAIT), LX_QUEUE_EMPTY);
  std::memset(in, 0x5c, sizeof in);
  ASSERT_EQ(_lx_QueueSend(&q, in, LX_NO_WAIT), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueReceive(&q, out, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::memcmp(in, out, sizeof in), 0);
  ::mq_close(leftover);
}

TEST_F(MessageQueueTest, AHostLimitRefusesCreationAndLeavesAnErrorBlockWithoutADescriptor) {
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_MSGQUEUE, &saved), 0);
  const rlimit none{0, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_MSGQUEUE, &none), 0);
  const int descriptors = QueueDescriptors();
  LX_QUEUE q = nullptr;
  const LX_STATUS status = _lx_QueueCreate(&q, "refused", 1, storage_, 16);
  ::setrlimit(RLIMIT_MSGQUEUE, &saved);
  EXPECT_EQ(status, LX_QUEUE_ERROR);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(q->i32MqDes, -1);
  EXPECT_EQ(QueueDescriptors(), descriptors);
  uint32_t word = 0;
  EXPECT_EQ(_lx_QueueSend(&q, &word, LX_NO_WAIT), LX_QUEUE_ERROR);
  EXPECT_EQ(_lx_QueueReceive(&q, &word, 5), LX_QUEUE_ERROR);
  EXPECT_EQ(_lx_QueueFlush(&q), LX_QUEUE_ERROR);
  ASSERT_EQ(_lx_QueueCreate(&q, "refused", 1, storage_, 16), LX_SUCCESS);  // limit back: works
}

TEST_F(MessageQueueTest, NoWaitCallsNeverTurnAConcurrentEndlessWaitIntoAFailure) {
  LX_QUEUE q = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&q, "mixed", 1, storage_, 8), LX_SUCCESS);
  constexpr uint32_t kMessages = 400;
  std::atomic<uint32_t> failures{0};
  std::thread receiver([&] {
    for (uint32_t i = 0; i < kMessages; ++i) {
      uint32_t word = 0;
      if (_lx_QueueReceive(&q, &word, LX_WAIT_FOREVER) != LX_SUCCESS || word != i) failures++;
    }
  });
  for (uint32_t i = 0; i < kMessages;) {
    if (_lx_QueueSend(&q, &i, LX_NO_WAIT) == LX_SUCCESS) ++i;
  }
  receiver.join();
  EXPECT_EQ(failures.load(), 0u);
}

TEST_F(MessageQueueTest, FiniteWaitsNeverEndEarly) {
  LX_QUEUE q = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&q, "timed", 1, storage_, 4), LX_SUCCESS);
  uint32_t word = 0;
  auto start = Clock::now();
  EXPECT_EQ(_lx_QueueReceive(&q, &word, LX_NO_WAIT), LX_QUEUE_EMPTY);
  EXPECT_LT(SecondsSince(start), 0.5);
  for (uint32_t ticks : {5u, 101u}) {
    start = Clock::now();
    EXPECT_EQ(_lx_QueueReceive(&q, &word, ticks), LX_QUEUE_EMPTY);
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, ticks / 100.0 - 0.001) << ticks;
    EXPECT_LT(waited, ticks / 100.0 + 1.0) << ticks;
  }
  // A send within the wait ends it at once.
  std::thread sender([&] {
    std::this_thread::sleep_for(50ms);
    uint32_t late = 9;
    _lx_QueueSend(&q, &late, LX_NO_WAIT);
  });
  start = Clock::now();
  EXPECT_EQ(_lx_QueueReceive(&q, &word, 500), LX_SUCCESS);
  EXPECT_LT(SecondsSince(start), 3.0);
  EXPECT_EQ(word, 9u);
  sender.join();
}

char StateOfTask(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : '?';
}

TEST_F(MessageQueueTest, ASuspendedWaitKeepsItsDeadline) {
  LX_QUEUE q = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&q, "suspended", 1, storage_, 4), LX_SUCCESS);
  std::atomic<pid_t> tid{0};
  Waiters waiters;
  Waiters::Waiter& waiter = waiters.Start([&] {
    tid = static_cast<pid_t>(::syscall(SYS_gettid));
    uint32_t word = 0;
    return _lx_QueueReceive(&q, &word, 100);
  });
  ASSERT_TRUE(WaitUntil([&] { return tid.load() != 0 && StateOfTask(tid) == 'S'; }));
  const auto start = Clock::now();
  ASSERT_EQ(_lx_ThreadSuspend(&waiter.handle), LX_SUCCESS);
  std::this_thread::sleep_for(1500ms);  // beyond its deadline
  EXPECT_FALSE(waiter.Done());
  ASSERT_EQ(_lx_ThreadResume(&waiter.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_QUEUE_EMPTY);
  EXPECT_LT(SecondsSince(start), 2.3);  // not a fresh second after the resume
}

}  // namespace
}  // namespace quorvin::test
