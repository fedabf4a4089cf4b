// Framed queues: buffer layout and offsets, order, full slots, flush, the
// lock, log lines, the timer thread, a bigger queue under the same name and a
// many-thread stress.
#include <mqueue.h>
#include <sys/resource.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kernel/platform.h"
#include "support/dlog_capture.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

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
