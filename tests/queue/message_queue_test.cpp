// Message queues on POSIX queues (sizes, order, names, leftovers, host limits, waits and their deadlines)
// and the framed queues over them (buffer layout and offsets, order, full slots, flush, the lock, log lines,
// the timer thread, a bigger queue under the same name and a many-thread stress).
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
#include <vector>

#include "kernel/platform.h"
#include "queue/queue_internal.h"
#include "support/dlog_capture.h"
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

const std::string kLine294 = "2 1 Error in QueueReceive Line :294\n";
const std::string kLine269 = "2 1 Error in QueueReceive Line :269\n";

// The lock semaphore is never freed (semaphores have no delete), so the record
// naming it lives as long as the process, as an application's would.
FramedQueueCtrl g_framed{};

class FramedQueueTest : public KernelTest {
 protected:
  // A buffer of exactly QueueCalcSize bytes on the heap, so that any access
  // beyond it shows under AddressSanitizer, filled with a marker first.
  FramedQueueCtrl& Make(const char* name, uint16_t size, uint8_t slots, int32_t locked, LX_STATUS expected = 0) {
    buffer_.assign(QueueCalcSize(size, slots), kMarker);
    EXPECT_EQ(QueueCreate(&queue_, name, size, slots, buffer_.data(), 0, locked), expected);
    return queue_;
  }
  std::string Message(char c) const { return std::string(queue_.u16MessageSize, c); }
  LX_STATUS Send(const std::string& m, int32_t placement = FRAMED_QUEUE_AT_BACK, int32_t noWait = 1) {
    return QueueSend(&queue_, m.data(), noWait, placement);
  }
  std::string Receive(uint32_t wait = LX_NO_WAIT, LX_STATUS expected = LX_SUCCESS) {
    std::string m(queue_.u16MessageSize, '\0');
    EXPECT_EQ(QueueReceive(&queue_, m.data(), wait), expected);
    return m;
  }
  uint8_t StateByte(uint32_t slot) const { return buffer_[slot * (queue_.u16MessageSize + 1u)]; }

  static constexpr uint8_t kMarker = 0xAB;
  FramedQueueCtrl& queue_ = g_framed;
  std::vector<uint8_t> buffer_;
};

TEST(QueueCalcSize, CountsSlotsFillerAndNominalStorageIn32Bits) {
  EXPECT_EQ(QueueCalcSize(10, 4), 64u);
  EXPECT_EQ(QueueCalcSize(3, 3), 28u);
  EXPECT_EQ(QueueCalcSize(2, 5), 36u);
  const uint64_t wide = (65535ull + 5) * 255;
  EXPECT_EQ(QueueCalcSize(65535, 255), (wide & ~3ull) + 4);
  EXPECT_EQ(QueueCalcSize(0, 1), 8u);
}

TEST_F(FramedQueueTest, OffsetsTravelAsWordsAndOnlyTheSlotAreaIsTouched) {
  Make("layout", 10, 4, 1);
  EXPECT_EQ(buffer_[47], 0);                // filler zeroed up to the slot area's end
  for (size_t i = 48; i < 64; ++i) EXPECT_EQ(buffer_[i], kMarker) << i;  // nominal storage
  for (char c : {'a', 'b', 'c'}) ASSERT_EQ(Send(Message(c)), LX_SUCCESS);
  EXPECT_EQ(std::vector<uint8_t>({StateByte(0), StateByte(1), StateByte(2), StateByte(3)}),
            (std::vector<uint8_t>{1, 1, 1, 0}));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&buffer_[23]), 10), Message('c'));
  uint8_t word[3][4] = {};
  for (auto& w : word) ASSERT_EQ(_lx_QueueReceive(&queue_.psMsgQueue, w, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::vector<uint8_t>(word[2], word[2] + 4), (std::vector<uint8_t>{0x16, 0, 0, 0}));
  for (size_t i = 48; i < 64; ++i) EXPECT_EQ(buffer_[i], kMarker) << i;
}

TEST_F(FramedQueueTest, FrontPlacementOvertakesAndFullSlotsRefuseWithoutWaiting) {
  Make("order", 3, 3, 0);
  ASSERT_EQ(Send("AAA"), LX_SUCCESS);
  ASSERT_EQ(Send("BBB"), LX_SUCCESS);
  ASSERT_EQ(Send("CCC", 0), LX_SUCCESS);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Send("DDD", FRAMED_QUEUE_AT_BACK, 0), LX_QUEUE_FULL);  // the wait does not apply
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  for (const char* m : {"CCC", "AAA", "BBB"}) EXPECT_EQ(Receive(), m);
  Receive(LX_NO_WAIT, LX_QUEUE_EMPTY);
  ASSERT_EQ(Send("EEE"), LX_SUCCESS);
  ASSERT_EQ(Send("FFF"), LX_SUCCESS);
  EXPECT_EQ(QueueFlush(&queue_), LX_SUCCESS);
  Receive(LX_NO_WAIT, LX_QUEUE_EMPTY);
  for (uint32_t slot = 0; slot < 3; ++slot) EXPECT_EQ(StateByte(slot), 0) << slot;
  EXPECT_EQ(std::count(buffer_.begin(), buffer_.begin() + 12, 0), 12);
  EXPECT_TRUE(TakeDiagLines().empty());  // an empty queue is not an error
}

TEST_F(FramedQueueTest, EmptyMessagesCarryOnlyTheStateByte) {
  Make("empty", 0, 3, 1);
  EXPECT_EQ(QueueSend(&queue_, nullptr, 1, 1), LX_SUCCESS);
  EXPECT_EQ(QueueSend(&queue_, nullptr, 1, 1), LX_SUCCESS);
  EXPECT_EQ(StateByte(1), 1);
  EXPECT_EQ(QueueReceive(&queue_, nullptr, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(QueueReceive(&queue_, nullptr, 5), LX_SUCCESS);
  EXPECT_EQ(QueueReceive(&queue_, nullptr, LX_NO_WAIT), LX_QUEUE_EMPTY);
}

TEST_F(FramedQueueTest, BadRecordsAndPointersAreRefusedBeforeAnythingMoves) {
  std::vector<uint8_t> buffer(64, kMarker);
  FramedQueueCtrl untouched{};
  EXPECT_EQ(QueueCreate(nullptr, "bad", 4, 1, buffer.data(), 0, 0), LX_QUEUE_ERROR);
  EXPECT_EQ(QueueCreate(&untouched, "bad", 4, 0, buffer.data(), 0, 0), LX_QUEUE_ERROR);
  EXPECT_EQ(QueueCreate(&untouched, "bad", 4, 1, nullptr, 0, 0), LX_QUEUE_ERROR);
  EXPECT_EQ(untouched.pu8SlotArea, nullptr);
  EXPECT_EQ(std::count(buffer.begin(), buffer.end(), kMarker), 64);
  for (FramedQueueCtrl* q : {static_cast<FramedQueueCtrl*>(nullptr), &untouched}) {
    EXPECT_EQ(QueueSend(q, buffer.data(), 1, 1), LX_QUEUE_ERROR);
    EXPECT_EQ(QueueReceive(q, buffer.data(), 0), LX_QUEUE_ERROR);
    EXPECT_EQ(QueueFlush(q), LX_QUEUE_ERROR);
  }
  Make("pointers", 4, 2, 1);
  ASSERT_EQ(Send("full"), LX_SUCCESS);
  EXPECT_EQ(QueueSend(&queue_, nullptr, 1, 1), LX_PTR_ERROR);
  EXPECT_EQ(QueueReceive(&queue_, nullptr, 0), LX_PTR_ERROR);
  EXPECT_EQ(Receive(), "full");  // nothing was taken by the refused receive
}

TEST_F(FramedQueueTest, ABusyLockFailsTheSendAndATakenOffsetGoesBack) {
  Make("busy", 4, 2, 1);
  ASSERT_EQ(Send("old1"), LX_SUCCESS);
  ASSERT_EQ(Send("new2", 0), LX_SUCCESS);
  ASSERT_EQ(_lx_SemaphoreGet(&queue_.psLockSemaphore, LX_NO_WAIT), LX_SUCCESS);  // someone holds the lock
  EXPECT_EQ(Send("xxxx"), LX_WAIT_ERROR);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Send("xxxx", 1, 0), LX_WAIT_ERROR);  // after the send's 100 ticks
  EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);  // took "new2"'s offset, could not lock: gives it back
  ASSERT_EQ(_lx_SemaphorePut(&queue_.psLockSemaphore), LX_SUCCESS);
  EXPECT_EQ(Receive(), "new2");
  EXPECT_EQ(Receive(), "old1");
  EXPECT_TRUE(TakeDiagLines().empty());
}

TEST_F(FramedQueueTest, AnOffsetThatNamesNoFullSlotOrAFailedQueueIsLogged) {
  Make("stale", 4, 2, 0);
  ASSERT_EQ(Send("gone"), LX_SUCCESS);
  uint32_t offset = 0;
  ASSERT_EQ(_lx_QueueReceive(&queue_.psMsgQueue, &offset, LX_NO_WAIT), LX_SUCCESS);  // a receiver took it,
  ASSERT_EQ(QueueFlush(&queue_), LX_SUCCESS);                                       // then the flush came
  ASSERT_EQ(_lx_QueueSend(&queue_.psMsgQueue, &offset, LX_NO_WAIT), LX_SUCCESS);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  uint32_t odd = 3;  // not the start of a slot
  ASSERT_EQ(_lx_QueueSend(&queue_.psMsgQueue, &odd, LX_NO_WAIT), LX_SUCCESS);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{kLine294, kLine294}));
  rlimit saved{};
  ::getrlimit(RLIMIT_MSGQUEUE, &saved);
  const rlimit none{0, saved.rlim_max};
  ::setrlimit(RLIMIT_MSGQUEUE, &none);
  Make("refused", 4, 2, 0, LX_QUEUE_ERROR);
  ::setrlimit(RLIMIT_MSGQUEUE, &saved);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{kLine269}));
}

TEST_F(FramedQueueTest, TheTimerThreadGetsItsLockRefusedAndTheMessageSurvives) {
  Make("timer", 4, 2, 1);
  ASSERT_EQ(Send("keep"), LX_SUCCESS);
  static FramedQueueCtrl fromTimer{};
  static uint8_t timerBuffer[64];
  std::vector<LX_STATUS> statuses;
  std::string got(4, '\0');
  Timer().Run([&] {
    statuses = {QueueSend(&queue_, "ring", 0, 1), QueueFlush(&queue_), QueueReceive(&queue_, got.data(), 5),
                QueueCreate(&fromTimer, "timer2", 4, 2, timerBuffer, 0, 1), QueueSend(&queue_, "ring", 1, 1)};
  });
  EXPECT_EQ(statuses, (std::vector<LX_STATUS>{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, 0}));
  EXPECT_EQ(Receive(), "keep");  // given back at the front
  EXPECT_EQ(Receive(), "ring");
}

TEST_F(FramedQueueTest, ABiggerQueueUnderTheSameNameIsUsedWithoutOverrun) {
  mq_attr attr{};
  attr.mq_maxmsg = 4;
  attr.mq_msgsize = 256;
  const mqd_t big = ::mq_open("/mq_reused", O_CREAT | O_RDWR, 0600, &attr);
  ASSERT_NE(big, -1);
  Make("reused", 5, 3, 1);
  ASSERT_EQ(Send("hello"), LX_SUCCESS);
  ASSERT_EQ(Send("world", 0), LX_SUCCESS);
  EXPECT_EQ(Receive(), "world");
  EXPECT_EQ(Receive(), "hello");
  ::mq_close(big);
}

TEST_F(FramedQueueTest, ManyThreadsDeliverEveryMessageOnceAndIntact) {
  Make("stress", 32, 8, 1);
  constexpr int kSenders = 4, kReceivers = 4, kEach = 150;
  std::vector<std::atomic<int>> seen(kSenders * kEach);
  std::atomic<int> received{0}, damaged{0};
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      for (int i = 0; i < kEach;) {
        std::string m(32, static_cast<char>('a' + (i % 26)));
        std::snprintf(m.data(), 12, "%05d", s * kEach + i);
        const LX_STATUS status = QueueSend(&queue_, m.data(), 0, i % 3 == 0 ? 0 : 1);
        if (status == LX_SUCCESS) ++i;
        else std::this_thread::yield();
      }
    });
  }
  for (int r = 0; r < kReceivers; ++r) {
    threads.emplace_back([&] {
      while (received.load() < kSenders * kEach) {
        char m[32];
        if (QueueReceive(&queue_, m, 2) != LX_SUCCESS) continue;
        ++received;
        const int id = std::atoi(m);
        const char fill = static_cast<char>('a' + (id % kEach) % 26);
        if (id < 0 || id >= kSenders * kEach || std::count(m + 12, m + 32, fill) != 20) {
          ++damaged;
        } else {
          ++seen[static_cast<size_t>(id)];
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(damaged.load(), 0);
  EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const auto& n) { return n.load() == 1; }),
            kSenders * kEach);
  EXPECT_TRUE(TakeDiagLines().empty());
}

}  // namespace
}  // namespace quorvin::test
