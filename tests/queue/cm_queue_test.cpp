// The dispatcher's queue class: hand-over, waiting senders and receivers,
// time-outs, aborts, prioritize, flush and delete; every case once through
// CM_QueueFunction and once through the stand-alone handlers. And the queue
// list store: order at both ends, the node pool, the list lock and the
// receive gate.
#include <cstdio>
#include <deque>
#include <string>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

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
    Waiter& waiter = waiters_.StartOn(queue_->sSuspendCtrl,
                                      [this, service, slot, wait] { return CmQueueIssue(&queue_, service, slot, wait); },
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
  std::vector<LX_STATUS> fromTimer;
  Timer().Run([&] {
    uint32_t m = 'T';
    fromTimer = {CmQueueSend(&queue_, &m, LX_NO_WAIT), CmQueueSend(&queue_, &m, 5), CmQueueFlush(&queue_)};
  });
  EXPECT_EQ(fromTimer, (std::vector<LX_STATUS>{LX_SUCCESS, LX_WAIT_ERROR, LX_SUCCESS}));
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
