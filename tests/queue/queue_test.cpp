// Every queue. Message queues on host queues; framed queues over them; the dispatcher's queue class and
// the queue list store under it.
#include <tuple>

#include "queue/queue_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using Clock = std::chrono::steady_clock;
double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }
uint32_t g_storage[64];

TEST_F(KernelTest, MessageQueueChecksSizesOrderFullAndEmptyNamesAndWaitsInTicks) {
  LX_QUEUE q = nullptr, same = nullptr, none = nullptr;
  uint32_t m[16] = {7}, a[2] = {'A'}, b[2] = {'B'}, c[2] = {'C'}, d[2] = {'D'}, e[2] = {'E'};
  const std::string name(40, 'n'), sameName = name.substr(0, 26) + "x";  // differs in the 27th character
  EXPECT_EQ(Statuses(4, LX_SIZE_ERROR),
            (Statuses{_lx_QueueCreate(&q, "q", 0, g_storage, 256), _lx_QueueCreate(&q, "q", 3, g_storage, 256),
                      _lx_QueueCreate(&q, "q", 32, g_storage, 256), _lx_QueueCreate(&q, "q", 16, g_storage, 63)}));
  ASSERT_EQ(_lx_QueueCreate(&q, name.c_str(), 2, g_storage, 87), LX_SUCCESS);  // 10 messages of 8 bytes
  for (uint32_t i = 0; i < 10; ++i) ASSERT_EQ(_lx_QueueSend(&q, m, LX_NO_WAIT), LX_SUCCESS) << i;
  // Created again under its name (the 26 characters kept), the queue is emptied and keeps its message size.
  EXPECT_EQ((Statuses{_lx_QueueSend(&q, m, 3), _lx_QueueReceive(&none, m, 0), _lx_QueueFlush(&none),
                      _lx_QueueCreate(&same, sameName.c_str(), 1, g_storage, 4), _lx_QueueReceive(&same, m, 0)}),
            (Statuses{LX_QUEUE_FULL, LX_QUEUE_ERROR, LX_QUEUE_ERROR, 0, LX_QUEUE_EMPTY}));
  EXPECT_EQ(Statuses(5, LX_SUCCESS),
            (Statuses{_lx_QueueSend(&q, a, 0), _lx_QueueSend(&same, b, LX_WAIT_FOREVER), _lx_QueueFrontSend(&q, c, 5),
                      _lx_QueueFrontSend(&q, d, 0), LP_QueueSend(&q, e, 0, 5)}));  // E: below the back priority
  for (char expected : {'C', 'D', 'A', 'B', 'E'})
    EXPECT_EQ((std::tuple{_lx_QueueReceive(&q, m, LX_NO_WAIT), m[0]}), std::tuple(LX_SUCCESS, uint32_t(expected)));
  for (uint32_t ticks : {5u, 101u}) {
    const auto start = Clock::now();
    EXPECT_EQ(_lx_QueueReceive(&q, m, ticks), LX_QUEUE_EMPTY);
    EXPECT_NEAR(Since(start), ticks / 100.0 + 0.45, 0.451) << ticks;  // never shorter, nor a second longer
  }
}

TEST_F(KernelTest, FramedQueueNSlotsHoldNMessagesFrontOnesOvertakeABusyLockRefusesAndAFlushEmptiesTheQueue) {
  // The lock semaphore is never freed, so the record naming it lives as long as the process; a buffer of exactly
  // QueueCalcSize bytes on the heap: a size too small shows under AddressSanitizer.
  static FramedQueueCtrl framed{}, none{};  // none: never created
  std::vector<uint8_t> buffer(QueueCalcSize(4, 3), 0xAB);
  const auto send = [&](const char* m, int32_t back = 1, int32_t now = 1) { return QueueSend(&framed, m, now, back); };
  const auto receive = [&]() -> std::string {  // the message, or the failure in a word
    std::string m(4, '\0');
    const LX_STATUS status = QueueReceive(&framed, m.data(), LX_NO_WAIT);
    return status == LX_SUCCESS ? m : status == LX_QUEUE_EMPTY ? "empty" : "error " + std::to_string(status);
  };
  EXPECT_EQ(Statuses(5, LX_QUEUE_ERROR),
            (Statuses{QueueCreate(&none, "b", 4, 0, g_storage, 0, 0), QueueCreate(&none, "b", 4, 1, nullptr, 0, 0),
                      QueueSend(&none, "x", 1, 1), QueueReceive(&none, g_storage, 0), QueueFlush(&none)}));
  ASSERT_EQ(QueueCreate(&framed, "busy", 4, 3, buffer.data(), 0, 1), LX_SUCCESS);
  EXPECT_EQ((Statuses{send("old1"), send("new2", 0), send("old3"), send("full", 1, 0)}),
            (Statuses{0, 0, 0, LX_QUEUE_FULL}));
  ASSERT_EQ(_lx_SemaphoreGet(&framed.psLockSemaphore, LX_NO_WAIT), LX_SUCCESS);  // someone holds the lock
  const auto start = Clock::now();
  EXPECT_EQ(std::tuple(LX_WAIT_ERROR, LX_WAIT_ERROR, "error 9", true),  // true: the send waited its 100 ticks
            (std::tuple{send("xxxx"), send("xxxx", 1, 0), receive(), Since(start) >= 0.99}));
  ASSERT_EQ(_lx_SemaphorePut(&framed.psLockSemaphore), LX_SUCCESS);  // the receive gave new2's offset back
  EXPECT_EQ((std::tuple{receive(), receive(), receive(), receive(), send("keep")}),
            std::tuple("new2", "old1", "old3", "empty", LX_SUCCESS));
  EXPECT_EQ(
      OnTimerThread([&] {
        return Statuses{send("ring", 1, 0), QueueFlush(&framed), QueueReceive(&framed, g_storage, 5), send("ring")};
      }),
      (Statuses{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, 0}));
  EXPECT_EQ((std::tuple{receive(), receive(), send("gone"), send("gone", 0), QueueFlush(&framed), receive()}),
            std::tuple("keep", "ring", 0u, 0u, 0u, "empty"));  // keep: given back at the front
}

class CmQueueTest : public KernelTest {
 protected:
  // (suspend count, free slots) as the dispatcher left them.
  std::tuple<int32_t, uint32_t> Level() { return {Waiting(queue_->sSuspendCtrl), Peek(queue_->u32FreeSlots)}; }
  // A thread that issues one request and is parked on the queue when this returns; its message is kept.
  Waiter& Park(uint16_t service, uint32_t message, uint32_t wait = LX_WAIT_FOREVER, uint16_t priority = 32) {
    uint32_t* slot = &slots_.emplace_back(message);
    const auto issue = [=, this] { return CmQueueIssue(&queue_, service, slot, wait); };
    Waiter& waiter = waiters_.StartOn(queue_->sSuspendCtrl, issue, priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_QUEUE_WAIT);
    return waiter;
  }
  LX_STATUS Send(uint32_t message) { return CmQueueSend(&queue_, &message, LX_NO_WAIT); }
  uint32_t Receive() {  // the front message, or the receive's status plus 1000
    uint32_t message = 0, status = CmQueueReceive(&queue_, &message, LX_NO_WAIT);
    return status == LX_SUCCESS ? message : 1000 + status;
  }
  CM_QUEUE queue_ = nullptr;
  std::deque<uint32_t> slots_;
  Waiters waiters_;
};

TEST_F(CmQueueTest, TimeOutsTellSendersFromReceiversAbortsEndEitherWaitAndPrioritizeWorksOnEitherSign) {
  ASSERT_EQ(CmQueueCreate(&queue_, 1, 1, nullptr), LX_SUCCESS);
  for (auto [service, timeout] : {std::pair{CM_QUEUE_RECEIVE, LX_QUEUE_EMPTY}, {CM_QUEUE_SEND, LX_QUEUE_FULL}}) {
    Waiter& timed = Park(service, 'S', 3);
    EXPECT_EQ((Timer().RunPasses(3), StateOf(timed.handle)), LX_STATE_QUEUE_WAIT);  // ends on the pass after its 3
    EXPECT_EQ((Timer().RunPasses(1), Waiters::StatusOf(timed)), timeout);  // the empty queue's, then the full one's
    Waiter& aborted = Park(service, 'T', 50);
    EXPECT_EQ((std::tuple{_lx_ThreadWaitAbort(&aborted.handle), Waiters::StatusOf(aborted), SleepAgentEntries()}),
              std::tuple(0u, LX_WAIT_ABORTED, size_t{0}));
    EXPECT_EQ(Send('A'), timeout == LX_QUEUE_FULL ? LX_QUEUE_FULL : LX_SUCCESS);  // the queue is full now
  }
  EXPECT_EQ(Receive(), 'A');
  Waiter& lone = Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 31);
  Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 32);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_NOT_AVAILABLE);  // none below 31
  Park(CM_QUEUE_RECEIVE, 0, 30, 10);
  Waiter& tied = Park(CM_QUEUE_RECEIVE, 0, 30, 10);  // of equal ones, the one nearest the end
  EXPECT_EQ((std::tuple{CmQueuePrioritize(&queue_), FirstWaiter(queue_->sSuspendCtrl)}), std::tuple(0u, &tied.handle));
  EXPECT_EQ((std::tuple{Send('U'), Waiters::StatusOf(tied), SleepAgentEntries()}), std::tuple(0u, 0u, size_t{1}));
  EXPECT_EQ((Statuses{Send('V'), Send('L'), Send('M'), Send('F'), Waiters::StatusOf(lone)}), Statuses(5, 0));
  Park(CM_QUEUE_SEND, 'P', LX_WAIT_FOREVER, 20);
  Waiter& best = Park(CM_QUEUE_SEND, 'Q', LX_WAIT_FOREVER, 5);
  EXPECT_EQ((std::tuple{CmQueuePrioritize(&queue_), FirstWaiter(queue_->sSuspendCtrl)}), std::tuple(0u, &best.handle));
  EXPECT_EQ((std::tuple{Receive(), Waiters::StatusOf(best), Receive(), Receive()}), std::tuple('F', 0u, 'Q', 'P'));
}

TEST_F(CmQueueTest, WaitersAreServedInOrderFlushReleasesSendersOnlyDeleteEveryoneAndBadRequestsAreAnswered) {
  ASSERT_EQ(CmQueueCreate(&queue_, 1, 1, nullptr), LX_SUCCESS);
  uint32_t m = 'T', storage[4] = {}, pair[2] = {6, 7}, got[2] = {};
  for (uint16_t code : {0x60, 0x61, 0x65, 0x69, 0x6F}) EXPECT_EQ(Issue(code, &queue_), LX_NOT_AVAILABLE) << code;
  const auto fromTimer = [&] { return Statuses{Send('A'), CmQueueSend(&queue_, &m, 5), CmQueueFlush(&queue_)}; };
  EXPECT_EQ(OnTimerThread(fromTimer), (Statuses{0, LX_WAIT_ERROR, 0}));
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  Waiter& s1 = Park(CM_QUEUE_SEND, 'B', 40);
  Waiter& s2 = Park(CM_QUEUE_FRONT_SEND, 'C');  // waits ahead of s1
  EXPECT_EQ((std::tuple{Receive(), Waiters::StatusOf(s2), Level()}), std::tuple('A', 0u, std::tuple(1, 0u)));
  EXPECT_EQ((std::tuple{CmQueueFlush(&queue_), Waiters::StatusOf(s1), Level(), Receive()}),
            std::tuple(0u, 0u, std::tuple(0, 1u), 1000 + LX_QUEUE_EMPTY));  // C and B were dropped
  Waiter& r1 = Park(CM_QUEUE_RECEIVE, 0);
  Waiter& r2 = Park(CM_QUEUE_RECEIVE, 0, 40);
  EXPECT_EQ((std::tuple{Send('X'), Waiters::StatusOf(r1), slots_[2], r2.Done(), Level()}),
            std::tuple(0u, 0u, 'X', false, std::tuple(-1, 1u)));
  EXPECT_EQ((std::tuple{CmQueueFlush(&queue_), Level()}), std::tuple(0u, std::tuple(-1, 1u)));  // receivers wait on
  EXPECT_EQ((std::tuple{CmQueueDelete(&queue_), queue_, Waiters::StatusOf(r2), SleepAgentEntries()}),
            std::tuple(0u, nullptr, LX_DELETED, size_t{0}));
  EXPECT_EQ((Statuses{CmQueueSend(&queue_, &m, 0), CmQueueFlush(&queue_), CmQueueCreate(nullptr, 1, 1, nullptr),
                      CmQueueCreate(&queue_, 0, 1, nullptr), CmQueueCreate(&queue_, 1, 3, nullptr),
                      CmQueueCreate(&queue_, 2, 2, storage), CmQueueSend(&queue_, pair, 0), storage[1],
                      CmQueueReceive(&queue_, got, 0), got[0] * 10 + got[1]}),  // two words, in the caller's storage
            (Statuses{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR, 0, 0, 7, 0, 67}));
}

TEST(QueueListTest, BothEndsKeepTheirOrderTheGateIsClosedUntilTheFirstSendAndNNodesHoldNMessages) {
  uint32_t storage[3] = {}, got = 0;
  QueueListCtrl* list = QueueListCreate(3, 1, storage);
  const auto send = [&](uint32_t m, int32_t atBack = 1) -> int64_t { return QueueListSend(list, &m, atBack, 0); };
  const auto receive = [&](int32_t fromBack = 0) -> int64_t {  // the message, or the result negated
    const int32_t result = QueueListReceive(list, &got, fromBack, 0);
    return result != 0 ? -int64_t{result} : int64_t{got};
  };
  using Results = std::vector<int64_t>;
  EXPECT_EQ((Results{receive(), send('A'), send('B'), send('C', 0), send('D'), receive(), receive(), receive(),
                     receive(), send('D', 0), send('E', 0), send('F'), receive(1), receive(1), receive(1)}),
            (Results{-QUEUE_LIST_BUSY, 0, 0, 0, QUEUE_LIST_EMPTY, 'C', 'A', 'B', -QUEUE_LIST_EMPTY, 0, 0, 0, 'F', 'D',
                     'E'}));  // the gate is closed until the first send; from the back: the newest appended
  EXPECT_EQ((Results{QueueListFlush(list), send(7), send(8), send(9), send(10), storage[0] + storage[1] + storage[2]}),
            (Results{0, 0, 0, 0, QUEUE_LIST_EMPTY, 24}));  // every node back, node i on slot i of the storage
  EXPECT_EQ((std::tuple{QueueListDelete(list), QueueListCreate(1, 3, storage)}), std::tuple(0, nullptr));
}

}  // namespace
}  // namespace quorvin::test
