// Every queue. Message queues on POSIX queues: sizes, order, names, leftovers,
// host limits, waits and their deadlines. Framed queues over them: buffer
// layout and offsets, order, full slots, flush, the lock, log lines, the timer
// thread, a bigger queue under the same name and a many-thread stress. The
// dispatcher's queue class: hand-over, waiting senders and receivers,
// time-outs, aborts, prioritize, flush and delete, every case once through
// CM_QueueFunction and once through the stand-alone handlers. The queue list
// store: order at both ends, the node pool, the list lock and the receive gate.
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kernel/platform.h"
#include "queue/queue_internal.h"
#include "support/dlog_capture.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

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

// Runs work with no room left for host queues (their byte limit at 0).
LX_STATUS WithoutQueueRoom(const std::function<LX_STATUS()>& work) {
  rlimit saved{};
  ::getrlimit(RLIMIT_MSGQUEUE, &saved);
  const rlimit none{0, saved.rlim_max};
  ::setrlimit(RLIMIT_MSGQUEUE, &none);
  const LX_STATUS status = work();
  ::setrlimit(RLIMIT_MSGQUEUE, &saved);
  return status;
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
  const int descriptors = QueueDescriptors();
  LX_QUEUE q = nullptr;
  EXPECT_EQ(WithoutQueueRoom([&] { return _lx_QueueCreate(&q, "refused", 1, storage_, 16); }), LX_QUEUE_ERROR);
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
  EXPECT_EQ(WithoutQueueRoom([&] { return QueueCreate(&queue_, "refused", 4, 2, buffer_.data(), 0, 0); }),
            LX_QUEUE_ERROR);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{kLine269}));
}

TEST_F(FramedQueueTest, TheTimerThreadGetsItsLockRefusedAndTheMessageSurvives) {
  Make("timer", 4, 2, 1);
  ASSERT_EQ(Send("keep"), LX_SUCCESS);
  static FramedQueueCtrl fromTimer{};
  static uint8_t timerBuffer[64];
  std::string got(4, '\0');
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {QueueSend(&queue_, "ring", 0, 1), QueueFlush(&queue_), QueueReceive(&queue_, got.data(), 5),
                      QueueCreate(&fromTimer, "timer2", 4, 2, timerBuffer, 0, 1), QueueSend(&queue_, "ring", 1, 1)};
            }),
            (Statuses{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, 0}));
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

// The class reached through the stand-alone handlers.
void StandAloneHandlers(uint16_t service, CmServiceRequest* request) {
  switch (service) {
    case CM_QUEUE_DELETE: CM_QueueDelete(request); break;
    case CM_QUEUE_FLUSH: CM_QueueFlush(request); break;
    case CM_QUEUE_PRIORITIZE: CM_QueuePrioritize(request); break;
    case CM_QUEUE_RECEIVE: CM_QueueReceive(request); break;
    case CM_QUEUE_SEND:
    case CM_QUEUE_FRONT_SEND: CM_QueueSend(service, request); break;
    default: CompleteLocked(*request, LX_NOT_AVAILABLE);
  }
}

class CmQueueTest : public KernelTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (GetParam()) ReplaceClassEntry(ClassIndex(CM_CLASS_QUEUE), {&StandAloneHandlers, &CM_QueueWakeUp});
  }
  void TearDown() override {
    waiters_.JoinAll();
    EXPECT_TRUE(queue_ == nullptr || CmQueueDelete(&queue_) == LX_SUCCESS);
  }
  void Make(uint32_t capacity) { ASSERT_EQ(CmQueueCreate(&queue_, capacity, 1, nullptr), LX_SUCCESS); }
  // (suspend count, free slots) as the dispatcher left them.
  std::tuple<int32_t, uint32_t> Level() {
    std::lock_guard lock(CmLock());
    return {queue_->sSuspendCtrl.i32SuspendCount, queue_->u32FreeSlots};
  }
  int32_t Count() { return Waiting(queue_->sSuspendCtrl); }
  LX_THREAD* FirstWaiter() { return test::FirstWaiter(queue_->sSuspendCtrl); }
  // A thread that issues one request and is parked on the queue when this returns.
  Waiter& Park(uint16_t service, uint32_t message, uint32_t wait = LX_WAIT_FOREVER, uint16_t priority = 32) {
    uint32_t* slot = &slots_.emplace_back(message);
    Waiter& waiter = waiters_.StartOn(
        queue_->sSuspendCtrl, [this, service, slot, wait] { return CmQueueIssue(&queue_, service, slot, wait); },
        priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_QUEUE_WAIT);
    return waiter;
  }
  LX_STATUS Send(uint32_t message, uint16_t service = CM_QUEUE_SEND) {
    return CmQueueIssue(&queue_, service, &message, LX_NO_WAIT);
  }
  // The front message, or the receive's status plus 1000.
  uint32_t Receive() {
    uint32_t message = 0;
    const LX_STATUS status = CmQueueReceive(&queue_, &message, LX_NO_WAIT);
    return status == LX_SUCCESS ? message : 1000 + status;
  }

  CM_QUEUE queue_ = nullptr;
  std::deque<uint32_t> slots_;
  Waiters waiters_;
};

TEST_P(CmQueueTest, WaitersAreServedByHandOverWithoutChangingTheFillLevel) {
  Make(2);
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  ASSERT_EQ(Send('B'), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(0, 0u));
  Waiter& c = Park(CM_QUEUE_SEND, 'C');
  EXPECT_EQ(Level(), std::tuple(1, 0u));
  EXPECT_EQ(Receive(), 'A');  // C's message takes the freed place at the back
  EXPECT_EQ(Waiters::StatusOf(c), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(0, 0u));
  EXPECT_EQ(Receive(), 'B');
  EXPECT_EQ(Receive(), 'C');
  EXPECT_EQ(Receive(), 1000 + LX_QUEUE_EMPTY);
  uint32_t first = 0, second = 0;
  Waiter& r1 = waiters_.Start([&] { return CmQueueReceive(&queue_, &first, LX_WAIT_FOREVER); },
                              [&] { return Count() == -1; });
  Waiter& r2 = waiters_.Start([&] { return CmQueueReceive(&queue_, &second, LX_WAIT_FOREVER); },
                              [&] { return Count() == -2; });
  ASSERT_EQ(Send('X'), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(r1), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(-1, 2u));
  ASSERT_EQ(Send('Y', CM_QUEUE_FRONT_SEND), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(r2), LX_SUCCESS);
  EXPECT_EQ(std::tuple(first, second), std::tuple(uint32_t{'X'}, uint32_t{'Y'}));
  EXPECT_EQ(Level(), std::tuple(0, 2u));
}

TEST_P(CmQueueTest, AFrontSenderWaitsAheadAndItsMessageIsStoredAtTheFront) {
  Make(2);
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  ASSERT_EQ(Send('B'), LX_SUCCESS);
  Waiter& back = Park(CM_QUEUE_SEND, 'C');
  Waiter& front = Park(CM_QUEUE_FRONT_SEND, 'F');
  EXPECT_EQ(FirstWaiter(), &front.handle);
  EXPECT_EQ(Receive(), 'A');
  EXPECT_EQ(Waiters::StatusOf(front), LX_SUCCESS);
  EXPECT_FALSE(back.Done());
  EXPECT_EQ(Receive(), 'F');
  EXPECT_EQ(Waiters::StatusOf(back), LX_SUCCESS);
  EXPECT_EQ(Receive(), 'B');
  EXPECT_EQ(Receive(), 'C');
}

TEST_P(CmQueueTest, TimeOutsTellSendersFromReceiversAndAbortsEndEitherWait) {
  Make(1);
  Waiter& receiver = Park(CM_QUEUE_RECEIVE, 0, 3);
  Timer().RunPasses(3);
  EXPECT_EQ(Count(), -1);
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(receiver), LX_QUEUE_EMPTY);
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  Waiter& sender = Park(CM_QUEUE_SEND, 'S', 2);
  Timer().RunPasses(2);
  EXPECT_EQ(Count(), 1);
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(sender), LX_QUEUE_FULL);
  Waiter& abortedSender = Park(CM_QUEUE_SEND, 'T', 50);
  EXPECT_EQ(_lx_ThreadWaitAbort(&abortedSender.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(abortedSender), LX_WAIT_ABORTED);
  EXPECT_EQ(Receive(), 'A');  // neither timed-out nor aborted messages were stored
  EXPECT_EQ(Receive(), 1000 + LX_QUEUE_EMPTY);
  Waiter& abortedReceiver = Park(CM_QUEUE_RECEIVE, 0);
  EXPECT_EQ(_lx_ThreadWaitAbort(&abortedReceiver.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(abortedReceiver), LX_WAIT_ABORTED);
  EXPECT_EQ(Level(), std::tuple(0, 1u));
  EXPECT_EQ(SleepAgentEntries(), 0u);
}

TEST_P(CmQueueTest, FlushReleasesSendersOnlyAndDeleteReleasesEveryone) {
  Make(1);
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  Waiter& s1 = Park(CM_QUEUE_SEND, 'B');
  Waiter& s2 = Park(CM_QUEUE_SEND, 'C', 40);
  EXPECT_EQ(CmQueueFlush(&queue_), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(s1), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(s2), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(0, 1u));
  EXPECT_EQ(Receive(), 1000 + LX_QUEUE_EMPTY);  // their messages were dropped
  Waiter& r1 = Park(CM_QUEUE_RECEIVE, 0);
  Waiter& r2 = Park(CM_QUEUE_RECEIVE, 0, 40);
  EXPECT_EQ(CmQueueFlush(&queue_), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(-2, 1u));  // receivers keep waiting
  EXPECT_EQ(CmQueueDelete(&queue_), LX_SUCCESS);
  EXPECT_EQ(queue_, nullptr);
  EXPECT_EQ(Waiters::StatusOf(r1), LX_DELETED);
  EXPECT_EQ(Waiters::StatusOf(r2), LX_DELETED);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  uint32_t m = 0;
  for (LX_STATUS s : {CmQueueSend(&queue_, &m, LX_NO_WAIT), CmQueueReceive(&queue_, &m, LX_NO_WAIT),
                      CmQueueFlush(&queue_), CmQueuePrioritize(&queue_), CmQueueDelete(&queue_),
                      CmQueueFlush(nullptr)}) {
    EXPECT_EQ(s, LX_QUEUE_ERROR);
  }
}

TEST_P(CmQueueTest, PrioritizeMovesTheBestWaiterToTheFrontOnEitherSign) {
  Make(1);
  Waiter& lone = Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 31);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);  // one waiter: nothing to reorder
  Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 32);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_NOT_AVAILABLE);  // none below 31
  Waiter& urgent = Park(CM_QUEUE_RECEIVE, 0, 30, 10);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(), &urgent.handle);
  EXPECT_EQ(Count(), -3);  // still receivers
  ASSERT_EQ(Send('U'), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(urgent), LX_SUCCESS);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  ASSERT_EQ(Send('L'), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(lone), LX_SUCCESS);
  ASSERT_EQ(Send('M'), LX_SUCCESS);
  ASSERT_EQ(Send('F'), LX_SUCCESS);  // the queue is full now
  Park(CM_QUEUE_SEND, 'P', LX_WAIT_FOREVER, 20);
  Waiter& best = Park(CM_QUEUE_SEND, 'Q', LX_WAIT_FOREVER, 5);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(), &best.handle);
  EXPECT_EQ(Count(), 2);  // still senders
  EXPECT_EQ(Receive(), 'F');
  EXPECT_EQ(Waiters::StatusOf(best), LX_SUCCESS);
  EXPECT_EQ(Receive(), 'Q');
  EXPECT_EQ(Receive(), 'P');
}

TEST_P(CmQueueTest, UnknownCodesMissingPointersAndBadCallersAreAnswered) {
  Make(1);
  for (uint16_t code : {0x60, 0x61, 0x65, 0x69, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F}) {
    EXPECT_EQ(Issue(code, &queue_), LX_NOT_AVAILABLE) << code;
  }
  EXPECT_EQ(CmQueueSend(&queue_, nullptr, LX_NO_WAIT), LX_PTR_ERROR);
  EXPECT_EQ(CmQueueReceive(&queue_, nullptr, LX_WAIT_FOREVER), LX_PTR_ERROR);
  EXPECT_EQ(Issue(CM_QUEUE_SEND, nullptr, LX_NO_WAIT, 0, 0, &slots_.emplace_back(1)), LX_QUEUE_ERROR);
  std::thread([&] { EXPECT_EQ(Send(1), LX_QUEUE_ERROR); }).join();  // not a thread of the system
  uint32_t m = 'T';
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {CmQueueSend(&queue_, &m, LX_NO_WAIT), CmQueueSend(&queue_, &m, 5), CmQueueFlush(&queue_)};
            }),
            (Statuses{LX_SUCCESS, LX_WAIT_ERROR, LX_SUCCESS}));
  CM_QUEUE bad = nullptr;
  EXPECT_EQ(CmQueueCreate(nullptr, 1, 1, nullptr), LX_QUEUE_ERROR);
  EXPECT_EQ(CmQueueCreate(&bad, 0, 1, nullptr), LX_SIZE_ERROR);
  EXPECT_EQ(CmQueueCreate(&bad, 1, 3, nullptr), LX_SIZE_ERROR);
  uint32_t storage[4] = {};
  ASSERT_EQ(CmQueueCreate(&bad, 2, 2, storage), LX_SUCCESS);  // the caller's storage
  uint32_t pair[2] = {6, 7};
  ASSERT_EQ(CmQueueSend(&bad, pair, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::tuple(storage[0], storage[1]), std::tuple(6u, 7u));
  EXPECT_EQ(CmQueueDelete(&bad), LX_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Routes, CmQueueTest, ::testing::Bool(),
                         [](const auto& route) { return route.param ? "StandAlone" : "ClassFunction"; });

using Message = std::array<uint32_t, 2>;

// Points the error stream at a temporary file for one test and gives back
// what was written.
class ErrorLog {
 public:
  ErrorLog() : saved_(hCM_Error), file_(std::tmpfile()) { hCM_Error = file_; }
  ~ErrorLog() {
    hCM_Error = saved_;
    std::fclose(file_);
  }
  std::string Text() {
    std::fflush(file_);
    std::rewind(file_);
    std::string text;
    for (int c; (c = std::fgetc(file_)) != EOF;) text += static_cast<char>(c);
    return text;
  }

 private:
  FILE* saved_;
  FILE* file_;
};

class QueueListTest : public ::testing::Test {
 protected:
  void SetUp() override { list_ = QueueListCreate(3, 2, storage_); }
  void TearDown() override { EXPECT_EQ(QueueListDelete(list_), 0); }
  int32_t Send(uint32_t tag, int32_t atBack = 1) {
    const Message m{tag, ~tag};
    return QueueListSend(list_, m.data(), atBack, 0);
  }
  // Tag of the received message, or the store's nonzero result negated.
  int64_t Receive(int32_t fromBack = 0) {
    Message m{};
    const int32_t result = QueueListReceive(list_, m.data(), fromBack, 0);
    if (result != 0) return -result;
    EXPECT_EQ(m[1], ~m[0]);
    return m[0];
  }

  uint32_t storage_[6] = {};
  QueueListCtrl* list_ = nullptr;
};

TEST_F(QueueListTest, BothEndsKeepTheirOrderAndTheGateStaysClosedUntilTheFirstSend) {
  ASSERT_NE(list_, nullptr);
  EXPECT_EQ(Receive(), -QUEUE_LIST_BUSY);  // no send yet: the gate is closed
  EXPECT_EQ(list_->sReceiveGate.u32Open, 0u);
  ASSERT_EQ(Send('A'), 0);
  ASSERT_EQ(Send('B'), 0);
  ASSERT_EQ(Send('C', 0), 0);
  EXPECT_EQ(list_->i32Count, 3);
  EXPECT_EQ(list_->psHead->psPrevNode, list_->psTail);  // circular both ways
  EXPECT_EQ(list_->psTail->psNextNode, list_->psHead);
  for (int64_t expected : {'C', 'A', 'B'}) EXPECT_EQ(Receive(), expected);
  EXPECT_EQ(Receive(), -QUEUE_LIST_EMPTY);
  EXPECT_EQ(list_->psHead, nullptr);
  // From the back: the newest appended, else the oldest put at the front.
  ASSERT_EQ(Send('D', 0), 0);
  ASSERT_EQ(Send('E', 0), 0);
  ASSERT_EQ(Send('F'), 0);
  EXPECT_EQ(Receive(1), 'F');
  EXPECT_EQ(Receive(1), 'D');
  EXPECT_EQ(Receive(1), 'E');
  EXPECT_EQ(list_->i32Count, 0);
}

TEST_F(QueueListTest, ExhaustedPoolAndFlushLeaveTheStoreConsistent) {
  ErrorLog log;
  for (uint32_t tag : {1u, 2u, 3u}) ASSERT_EQ(Send(tag), 0);
  EXPECT_EQ(Send(4), QUEUE_LIST_EMPTY);
  EXPECT_EQ(log.Text(), " QueueMemAlloc Fail\n");
  EXPECT_EQ(list_->i32Count, 3);
  ASSERT_EQ(pthread_mutex_trylock(&list_->sListLock), 0);  // released after the failure
  pthread_mutex_unlock(&list_->sListLock);
  EXPECT_EQ(Receive(1), 3);
  EXPECT_EQ(QueueListFlush(list_), 0);
  EXPECT_EQ(list_->i32Count, 0);
  EXPECT_EQ(list_->psHead, nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(list_->paNodes[i].u32Free, 1u) << i;
  ASSERT_EQ(Send(7), 0);
  EXPECT_EQ(list_->psHead, &list_->paNodes[0]);
  EXPECT_EQ(list_->psHead->pvSlot, static_cast<void*>(storage_));
  EXPECT_EQ(storage_[0], 7u);
  QueueMemNode stranger{};
  EXPECT_EQ(QueueMemFree(list_, &stranger), 1);
  EXPECT_EQ(QueueMemFree(list_, &list_->paNodes[1]), 0);  // a free node of the pool: accepted
  EXPECT_EQ(log.Text(), " QueueMemAlloc Fail\n QueueMemFree Fail\n");
}

TEST_F(QueueListTest, AHeldLockOrClosedGateMakesACallBusyWithoutChange) {
  ASSERT_EQ(Send(1), 0);
  pthread_mutex_lock(&list_->sListLock);  // a flush in progress, say
  EXPECT_EQ(Send(2), QUEUE_LIST_BUSY);
  EXPECT_EQ(list_->i32Count, 1);
  const Message held{5, ~5u};
  EXPECT_EQ(QueueListSend(list_, held.data(), 1, 1), 0);  // the caller's hold, given up at the end
  EXPECT_EQ(list_->i32Count, 2);
  ASSERT_EQ(pthread_mutex_trylock(&list_->sListLock), 0);
  pthread_mutex_unlock(&list_->sListLock);
  __atomic_store_n(&list_->sReceiveGate.u32Open, 0u, __ATOMIC_RELAXED);  // a receive in progress elsewhere
  EXPECT_EQ(Receive(), -QUEUE_LIST_BUSY);
  EXPECT_EQ(list_->i32Count, 2);
  Message m{};
  EXPECT_EQ(QueueListReceive(list_, m.data(), 0, 1), 0);  // the caller holds the gate
  EXPECT_EQ(m[0], 1u);
  EXPECT_EQ(list_->sReceiveGate.u32Open, 1u);
  EXPECT_EQ(Send(3), 0);  // opening an open gate changes nothing
  EXPECT_EQ(Receive(), 5);
}

TEST(QueueListCreate, RefusesWhatItCannotCarry) {
  uint32_t storage[16];
  for (uint32_t words : {0u, 3u, 5u, 32u}) EXPECT_EQ(QueueListCreate(1, words, storage), nullptr) << words;
  EXPECT_EQ(QueueListCreate(1, 1, nullptr), nullptr);
  QueueListCtrl* none = QueueListCreate(0, 16, storage);  // a store with no room
  ASSERT_NE(none, nullptr);
  const uint32_t m[16] = {};
  ErrorLog log;
  EXPECT_EQ(QueueListSend(none, m, 1, 0), QUEUE_LIST_EMPTY);
  EXPECT_EQ(QueueListDelete(none), 0);
}

}  // namespace
}  // namespace quorvin::test
