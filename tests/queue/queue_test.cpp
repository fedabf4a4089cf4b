// Every queue. Message queues on host queues: sizes, order, names, leftovers, host limits, waits and their
// deadlines. Framed queues over them: layout and offsets, order, full slots, flush, the lock, log lines, the
// timer thread. The dispatcher's queue class, once through CM_QueueFunction and once through the stand-alone
// handlers. The queue list store: both ends, the node pool, the list lock and the receive gate.
#include <mqueue.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <thread>
#include <tuple>

#include "queue/queue_internal.h"
#include "support/dlog_capture.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

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

uint32_t g_storage[64];

TEST_F(KernelTest, MessageQueueChecksComeInOrderAndSizeOrderAndWaitAsDocumented) {
  LX_QUEUE q = nullptr, empty = nullptr;
  uint32_t m[16] = {7};
  EXPECT_EQ((Statuses{_lx_QueueCreate(nullptr, "q", 3, nullptr, 0), _lx_QueueCreate(&q, "q", 3, nullptr, 0),
                      _lx_QueueCreate(&q, "q", 0, g_storage, 256), _lx_QueueCreate(&q, "q", 3, g_storage, 256),
                      _lx_QueueCreate(&q, "q", 32, g_storage, 256), _lx_QueueCreate(&q, "q", 16, g_storage, 63)}),
            (Statuses{LX_QUEUE_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR}));
  EXPECT_EQ(q, nullptr);
  ASSERT_EQ(_lx_QueueCreate(&q, "q", 16, g_storage, 64), LX_SUCCESS);
  EXPECT_EQ((Statuses{_lx_QueueSend(&q, m, 0), _lx_QueueSend(&q, m, 0), _lx_QueueSend(&q, nullptr, 0),
                      _lx_QueueReceive(&q, nullptr, 0), _lx_QueueSend(nullptr, m, 0), _lx_QueueReceive(&empty, m, 0),
                      _lx_QueueFlush(&empty), _lx_QueueFlush(nullptr)}),
            (Statuses{0, LX_QUEUE_FULL, LX_PTR_ERROR, LX_PTR_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR,
                      LX_QUEUE_ERROR}));
  LX_QUEUE order = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&order, "order", 2, g_storage, 87), LX_SUCCESS);  // 10 messages of 8 bytes (the host's default most)
  for (uint32_t i = 0; i < 10; ++i) ASSERT_EQ(_lx_QueueSend(&order, m, LX_NO_WAIT), LX_SUCCESS) << i;
  auto start = Clock::now();
  EXPECT_EQ((Statuses{_lx_QueueSend(&order, m, 0), _lx_QueueSend(&order, m, 3)}), (Statuses{LX_QUEUE_FULL, LX_QUEUE_FULL}));
  EXPECT_GE(Since(start), 0.03);
  EXPECT_EQ((Statuses{_lx_QueueFlush(&order), _lx_QueueReceive(&order, m, 0)}), (Statuses{0, LX_QUEUE_EMPTY}));
  for (auto [word, send] : {std::pair{'A', 0}, {'B', 1}, {'C', 2}, {'D', 2}, {'E', 3}}) {
    uint32_t message[2] = {static_cast<uint32_t>(word), 0};
    ASSERT_EQ(send == 3   ? LP_QueueSend(&order, message, 0, 5)  // below the back priority
              : send == 2 ? _lx_QueueFrontSend(&order, message, send == 2 ? 5 : 0)
                          : _lx_QueueSend(&order, message, send == 1 ? LX_WAIT_FOREVER : 0), LX_SUCCESS);
  }
  for (char expected : {'C', 'D', 'A', 'B', 'E'}) {
    ASSERT_EQ(_lx_QueueReceive(&order, m, LX_NO_WAIT), LX_SUCCESS);
    EXPECT_EQ(m[0], static_cast<uint32_t>(expected));
  }
  LX_QUEUE timed = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&timed, "timed", 1, g_storage, 4), LX_SUCCESS);
  for (uint32_t ticks : {0u, 5u, 101u}) {
    start = Clock::now();
    EXPECT_EQ(_lx_QueueReceive(&timed, m, ticks), LX_QUEUE_EMPTY);
    EXPECT_GE(Since(start), ticks / 100.0 - 0.001) << ticks;
    EXPECT_LT(Since(start), ticks / 100.0 + 1.0) << ticks;
  }
  std::thread sender([&] {
    std::this_thread::sleep_for(50ms);
    uint32_t late = 9;
    _lx_QueueSend(&timed, &late, LX_NO_WAIT);
  });
  start = Clock::now();
  EXPECT_EQ(_lx_QueueReceive(&timed, m, 500), LX_SUCCESS);
  EXPECT_EQ(m[0], 9u);
  EXPECT_LT(Since(start), 3.0);
  sender.join();
  // A suspended wait keeps its deadline.
  static LX_QUEUE* const suspended = &timed;
  Waiters waiters;
  Waiter& waiter = waiters.Start([] { return _lx_QueueReceive(suspended, g_storage, 100); });
  std::this_thread::sleep_for(100ms);
  start = Clock::now();
  ASSERT_EQ(_lx_ThreadSuspend(&waiter.handle), LX_SUCCESS);
  std::this_thread::sleep_for(1500ms);  // beyond its deadline
  EXPECT_FALSE(waiter.Done());
  ASSERT_EQ(_lx_ThreadResume(&waiter.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_QUEUE_EMPTY);
  EXPECT_LT(Since(start), 2.3);  // not a fresh second after the resume
}

TEST_F(KernelTest, MessageQueueNamesKeep26CharactersAndAQueueFoundAgainIsEmptiedAndKeepsItsSize) {
  const std::string first(40, 'n');
  std::string second = first;
  second[26] = 'x';  // the 27th character
  LX_QUEUE a = nullptr, b = nullptr, left = nullptr;
  uint32_t word = 42;
  ASSERT_EQ(_lx_QueueCreate(&a, first.c_str(), 1, g_storage, 16), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueSend(&a, &word, LX_NO_WAIT), LX_SUCCESS);
  ASSERT_EQ(_lx_QueueCreate(&b, second.c_str(), 1, g_storage, 16), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&a, &word, LX_NO_WAIT), LX_QUEUE_EMPTY);  // one queue, emptied
  ASSERT_EQ(_lx_QueueSend(&b, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::tuple(_lx_QueueReceive(&a, &word, LX_NO_WAIT), a != b), std::tuple(LX_SUCCESS, true));
  EXPECT_EQ((Statuses{_lx_QueueDelete(&a), _lx_QueueInfoGet(&a, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                      _lx_QueuePrioritize(&a), _lx_QueueSend(&a, &word, LX_NO_WAIT)}),  // still works after the delete
            (Statuses{0, 0, 0, 0}));
  mq_attr attr{.mq_flags = 0, .mq_maxmsg = 3, .mq_msgsize = 64, .mq_curmsgs = 0};
  const mqd_t leftover = ::mq_open("/mq_left", O_CREAT | O_RDWR, 0600, &attr);
  char old[64] = "from an earlier run", in[64], out[64] = {};
  ASSERT_EQ(::mq_send(leftover, old, sizeof old, 10), 0);
  ASSERT_EQ(_lx_QueueCreate(&left, "left", 1, g_storage, 8), LX_SUCCESS);
  std::memset(in, 0x5c, sizeof in);
  EXPECT_EQ((Statuses{_lx_QueueReceive(&left, out, 0), _lx_QueueSend(&left, in, 0), _lx_QueueReceive(&left, out, 0)}),
            (Statuses{LX_QUEUE_EMPTY, 0, 0}));
  EXPECT_EQ(std::tuple(MessageBytesOf(&left), std::memcmp(in, out, sizeof in)), std::tuple(64u, 0));
  ::mq_close(leftover);
  // A host limit refuses creation and leaves an error block, without a descriptor.
  const int descriptors = OpenDescriptorCount();
  LX_QUEUE refused = nullptr;
  EXPECT_EQ(WithoutQueueRoom([&] { return _lx_QueueCreate(&refused, "refused", 1, g_storage, 16); }), LX_QUEUE_ERROR);
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(std::tuple(refused->i32MqDes, OpenDescriptorCount()), std::tuple(-1, descriptors));
  EXPECT_EQ((Statuses{_lx_QueueSend(&refused, &word, 0), _lx_QueueReceive(&refused, &word, 5), _lx_QueueFlush(&refused),
                      _lx_QueueCreate(&refused, "refused", 1, g_storage, 16)}),
            (Statuses{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_SUCCESS}));
  // Calls without a wait never turn a concurrent endless wait into a failure.
  std::atomic<uint32_t> failures{0};
  std::thread receiver([&] {
    for (uint32_t i = 0, got = 0; i < 400; ++i) failures += _lx_QueueReceive(&refused, &got, LX_WAIT_FOREVER) != 0 || got != i;
  });
  for (uint32_t i = 0; i < 400;) i += _lx_QueueSend(&refused, &i, LX_NO_WAIT) == LX_SUCCESS;
  receiver.join();
  EXPECT_EQ(failures.load(), 0u);
}

const std::string kLine294 = "2 1 Error in QueueReceive Line :294\n", kLine269 = "2 1 Error in QueueReceive Line :269\n";
// The lock semaphore is never freed, so the record naming it lives as long as the process.
FramedQueueCtrl g_framed{};

class FramedQueueTest : public KernelTest {
 protected:
  // A buffer of exactly QueueCalcSize bytes on the heap (overruns show under AddressSanitizer), marked first.
  void Make(const char* name, uint16_t size, uint8_t slots, int32_t locked) {
    buffer_.assign(QueueCalcSize(size, slots), 0xAB);
    ASSERT_EQ(QueueCreate(&g_framed, name, size, slots, buffer_.data(), 0, locked), LX_SUCCESS);
  }
  LX_STATUS Send(const std::string& m, int32_t placement = 1, int32_t noWait = 1) {
    return QueueSend(&g_framed, m.data(), noWait, placement);
  }
  std::string Receive(uint32_t wait = LX_NO_WAIT, LX_STATUS expected = LX_SUCCESS) {
    std::string m(g_framed.u16MessageSize, '\0');
    EXPECT_EQ(QueueReceive(&g_framed, m.data(), wait), expected);
    return m;
  }
  uint8_t State(uint32_t slot) const { return buffer_[slot * (g_framed.u16MessageSize + 1u)]; }
  std::vector<uint8_t> buffer_;
};

TEST_F(FramedQueueTest, OffsetsTravelAsWordsFrontMessagesOvertakeAndFullSlotsRefuseWithoutWaiting) {
  for (auto [size, slots, bytes] : {std::tuple{10, 4, 64u}, {3, 3, 28u}, {2, 5, 36u}, {0, 1, 8u}, {65535, 255, 16712704u}}) {
    EXPECT_EQ(QueueCalcSize(static_cast<uint16_t>(size), static_cast<uint8_t>(slots)), bytes) << size;
  }
  Make("order", 3, 3, 0);
  EXPECT_EQ((Statuses{Send("AAA"), Send("BBB"), Send("CCC", 0), Send("DDD", 1, 0)}), (Statuses{0, 0, 0, LX_QUEUE_FULL}));
  for (const char* m : {"CCC", "AAA", "BBB"}) EXPECT_EQ(Receive(), m);
  Receive(LX_NO_WAIT, LX_QUEUE_EMPTY);
  ASSERT_EQ(Send("EEE"), LX_SUCCESS);
  EXPECT_EQ(QueueFlush(&g_framed), LX_SUCCESS);
  Receive(LX_NO_WAIT, LX_QUEUE_EMPTY);
  EXPECT_EQ(std::count(buffer_.begin(), buffer_.begin() + 12, 0), 12);
  Make("empty", 0, 3, 1);  // 1-byte slots: the state byte alone
  EXPECT_EQ((Statuses{QueueSend(&g_framed, nullptr, 1, 1), QueueSend(&g_framed, nullptr, 1, 1), State(1),
                      QueueReceive(&g_framed, nullptr, 0), QueueReceive(&g_framed, nullptr, 5), QueueReceive(&g_framed, nullptr, 0)}),
            (Statuses{0, 0, 1, 0, 0, LX_QUEUE_EMPTY}));
  std::vector<uint8_t> marked(64, 0xAB);
  FramedQueueCtrl untouched{};
  EXPECT_EQ((Statuses{QueueCreate(nullptr, "bad", 4, 1, marked.data(), 0, 0), QueueCreate(&untouched, "bad", 4, 0, marked.data(), 0, 0),
                      QueueCreate(&untouched, "bad", 4, 1, nullptr, 0, 0), QueueSend(nullptr, marked.data(), 1, 1),
                      QueueReceive(&untouched, marked.data(), 0), QueueFlush(nullptr)}),
            (Statuses(6, LX_QUEUE_ERROR)));
  EXPECT_EQ(std::tuple(untouched.pu8SlotArea, std::count(marked.begin(), marked.end(), 0xAB)), std::tuple(nullptr, 64));
  EXPECT_TRUE(TakeDiagLines().empty());  // an empty queue is not an error
}

TEST_F(FramedQueueTest, ABusyLockFailsTheSendAStaleOffsetIsLoggedAndTheTimerThreadIsRefusedItsLock) {
  Make("busy", 4, 2, 1);
  ASSERT_EQ((Statuses{Send("old1"), Send("new2", 0), QueueSend(&g_framed, nullptr, 1, 1), QueueReceive(&g_framed, nullptr, 0)}),
            (Statuses{0, 0, LX_PTR_ERROR, LX_PTR_ERROR}));
  ASSERT_EQ(_lx_SemaphoreGet(&g_framed.psLockSemaphore, LX_NO_WAIT), LX_SUCCESS);  // someone holds the lock
  const auto start = Clock::now();
  EXPECT_EQ((Statuses{Send("xxxx"), Send("xxxx", 1, 0)}), (Statuses{LX_WAIT_ERROR, LX_WAIT_ERROR}));
  EXPECT_GE(Since(start), 0.99);  // the second after the send's 100 ticks
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);  // took new2's offset, could not lock: gives it back
  ASSERT_EQ(_lx_SemaphorePut(&g_framed.psLockSemaphore), LX_SUCCESS);
  EXPECT_EQ((std::tuple{Receive(), Receive()}), std::tuple("new2", "old1"));
  EXPECT_TRUE(TakeDiagLines().empty());
  static uint8_t timerBuffer[64];
  static FramedQueueCtrl fromTimer{};
  ASSERT_EQ(Send("keep"), LX_SUCCESS);
  std::string got(4, '\0');
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {QueueSend(&g_framed, "ring", 0, 1), QueueFlush(&g_framed), QueueReceive(&g_framed, got.data(), 5),
                      QueueCreate(&fromTimer, "timer2", 4, 2, timerBuffer, 0, 1), QueueSend(&g_framed, "ring", 1, 1)};
            }),
            (Statuses{LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, LX_QUEUE_ERROR, 0}));
  EXPECT_EQ(Receive(), "keep");  // given back at the front
  EXPECT_EQ(Receive(), "ring");
  Make("stale", 4, 2, 0);
  ASSERT_EQ(Send("gone"), LX_SUCCESS);
  uint32_t offset = 0, odd = 3;  // 3: not the start of a slot
  ASSERT_EQ(_lx_QueueReceive(&g_framed.psMsgQueue, &offset, LX_NO_WAIT), LX_SUCCESS);  // a receiver took it,
  ASSERT_EQ(QueueFlush(&g_framed), LX_SUCCESS);                                       // then the flush came
  for (uint32_t* word : {&offset, &odd}) {
    ASSERT_EQ(_lx_QueueSend(&g_framed.psMsgQueue, word, LX_NO_WAIT), LX_SUCCESS);
    Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  }
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{kLine294, kLine294}));
  EXPECT_EQ(WithoutQueueRoom([&] { return QueueCreate(&g_framed, "refused", 4, 2, buffer_.data(), 0, 0); }), LX_QUEUE_ERROR);
  Receive(LX_NO_WAIT, LX_QUEUE_ERROR);
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{kLine269}));
  mq_attr attr{.mq_flags = 0, .mq_maxmsg = 4, .mq_msgsize = 256, .mq_curmsgs = 0};  // a bigger queue, same name
  const mqd_t big = ::mq_open("/mq_reused", O_CREAT | O_RDWR, 0600, &attr);
  Make("reused", 5, 3, 1);
  EXPECT_EQ((Statuses{Send("hello"), Send("world", 0)}), (Statuses{0, 0}));
  EXPECT_EQ(Receive(), "world");
  EXPECT_EQ(Receive(), "hello");
  ::mq_close(big);
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
  // (suspend count, free slots) as the dispatcher left them.
  std::tuple<int32_t, uint32_t> Level() {
    std::lock_guard lock(CmLock());
    return {queue_->sSuspendCtrl.i32SuspendCount, queue_->u32FreeSlots};
  }
  // A thread that issues one request and is parked on the queue when this returns; its message is kept.
  Waiter& Park(uint16_t service, uint32_t message, uint32_t wait = LX_WAIT_FOREVER, uint16_t priority = 32) {
    uint32_t* slot = &slots_.emplace_back(message);
    Waiter& waiter = waiters_.StartOn(
        queue_->sSuspendCtrl, [this, service, slot, wait] { return CmQueueIssue(&queue_, service, slot, wait); }, priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_QUEUE_WAIT);
    return waiter;
  }
  LX_STATUS Send(uint32_t message, uint16_t service = CM_QUEUE_SEND) { return CmQueueIssue(&queue_, service, &message, 0); }
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

TEST_P(CmQueueTest, WaitersAreServedByHandOverInTheirOrderAndFrontSendersWaitAhead) {
  ASSERT_EQ(CmQueueCreate(&queue_, 2, 1, nullptr), LX_SUCCESS);
  EXPECT_EQ((Statuses{Send('A'), Send('B')}), (Statuses{0, 0}));
  Waiter& back = Park(CM_QUEUE_SEND, 'C');
  Waiter& front = Park(CM_QUEUE_FRONT_SEND, 'F');
  EXPECT_EQ(std::tuple(Level(), FirstWaiter(queue_->sSuspendCtrl)), std::tuple(std::tuple(2, 0u), &front.handle));
  EXPECT_EQ(Receive(), 'A');  // F takes the freed place, at the front
  EXPECT_EQ(std::tuple(Waiters::StatusOf(front), back.Done(), Level()), std::tuple(0u, false, std::tuple(1, 0u)));
  EXPECT_EQ(Receive(), 'F');
  EXPECT_EQ(std::tuple(Waiters::StatusOf(back), Level()), std::tuple(0u, std::tuple(0, 0u)));
  for (uint32_t expected : {uint32_t{'B'}, uint32_t{'C'}, 1000u + LX_QUEUE_EMPTY}) EXPECT_EQ(Receive(), expected);
  Waiter& r1 = Park(CM_QUEUE_RECEIVE, 0);
  Waiter& r2 = Park(CM_QUEUE_RECEIVE, 0);
  ASSERT_EQ(Send('X'), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(r1), Level()), std::tuple(0u, std::tuple(-1, 2u)));
  ASSERT_EQ(Send('Y', CM_QUEUE_FRONT_SEND), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(r2), slots_[2], slots_[3], Level()),
            std::tuple(0u, uint32_t{'X'}, uint32_t{'Y'}, std::tuple(0, 2u)));
}

TEST_P(CmQueueTest, TimeOutsTellSendersFromReceiversAbortsEndEitherWaitAndPrioritizeWorksOnEitherSign) {
  ASSERT_EQ(CmQueueCreate(&queue_, 1, 1, nullptr), LX_SUCCESS);
  Waiter& receiver = Park(CM_QUEUE_RECEIVE, 0, 3);
  Timer().RunPasses(3);
  EXPECT_FALSE(receiver.Done());
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(receiver), LX_QUEUE_EMPTY);
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  Waiter& sender = Park(CM_QUEUE_SEND, 'S', 2);
  Timer().RunPasses(3);
  EXPECT_EQ(Waiters::StatusOf(sender), LX_QUEUE_FULL);
  Waiter& abortedSender = Park(CM_QUEUE_SEND, 'T', 50);
  EXPECT_EQ(_lx_ThreadWaitAbort(&abortedSender.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(abortedSender), LX_WAIT_ABORTED);
  EXPECT_EQ((std::tuple{Receive(), Receive()}), std::tuple(uint32_t{'A'}, 1000u + LX_QUEUE_EMPTY));
  Waiter& abortedReceiver = Park(CM_QUEUE_RECEIVE, 0);
  EXPECT_EQ(_lx_ThreadWaitAbort(&abortedReceiver.handle), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(abortedReceiver), Level(), SleepAgentEntries()),
            std::tuple(LX_WAIT_ABORTED, std::tuple(0, 1u), size_t{0}));
  Waiter& lone = Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 31);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);  // one waiter: nothing to reorder
  Park(CM_QUEUE_RECEIVE, 0, LX_WAIT_FOREVER, 32);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_NOT_AVAILABLE);  // none below 31
  Waiter& urgent = Park(CM_QUEUE_RECEIVE, 0, 30, 10);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);
  EXPECT_EQ(std::tuple(FirstWaiter(queue_->sSuspendCtrl), Waiting(queue_->sSuspendCtrl)), std::tuple(&urgent.handle, -3));
  ASSERT_EQ(Send('U'), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(urgent), SleepAgentEntries()), std::tuple(0u, size_t{0}));
  for (uint32_t m : {uint32_t{'L'}, uint32_t{'M'}, uint32_t{'F'}}) ASSERT_EQ(Send(m), LX_SUCCESS);  // two receivers served, then full
  EXPECT_EQ(Waiters::StatusOf(lone), LX_SUCCESS);
  Park(CM_QUEUE_SEND, 'P', LX_WAIT_FOREVER, 20);
  Waiter& best = Park(CM_QUEUE_SEND, 'Q', LX_WAIT_FOREVER, 5);
  EXPECT_EQ(CmQueuePrioritize(&queue_), LX_SUCCESS);
  EXPECT_EQ(std::tuple(FirstWaiter(queue_->sSuspendCtrl), Waiting(queue_->sSuspendCtrl)), std::tuple(&best.handle, 2));
  EXPECT_EQ(Receive(), 'F');
  EXPECT_EQ(Waiters::StatusOf(best), LX_SUCCESS);
  EXPECT_EQ(Receive(), 'Q');
  EXPECT_EQ(Receive(), 'P');
}

TEST_P(CmQueueTest, FlushReleasesSendersOnlyDeleteReleasesEveryoneAndBadRequestsAreAnswered) {
  ASSERT_EQ(CmQueueCreate(&queue_, 1, 1, nullptr), LX_SUCCESS);
  for (uint16_t code : {0x60, 0x61, 0x65, 0x69, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F}) {
    EXPECT_EQ(Issue(code, &queue_), LX_NOT_AVAILABLE) << code;
  }
  uint32_t m = 'T';
  EXPECT_EQ((Statuses{CmQueueSend(&queue_, nullptr, 0), CmQueueReceive(&queue_, nullptr, LX_WAIT_FOREVER),
                      Issue(CM_QUEUE_SEND, nullptr, 0, 0, 0, &m)}),
            (Statuses{LX_PTR_ERROR, LX_PTR_ERROR, LX_QUEUE_ERROR}));
  std::thread([&] { EXPECT_EQ(Send(1), LX_QUEUE_ERROR); }).join();  // not a thread of the system
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {CmQueueSend(&queue_, &m, LX_NO_WAIT), CmQueueSend(&queue_, &m, 5), CmQueueFlush(&queue_)};
            }),
            (Statuses{LX_SUCCESS, LX_WAIT_ERROR, LX_SUCCESS}));
  ASSERT_EQ(Send('A'), LX_SUCCESS);
  Waiter& s1 = Park(CM_QUEUE_SEND, 'B');
  Waiter& s2 = Park(CM_QUEUE_SEND, 'C', 40);
  EXPECT_EQ(CmQueueFlush(&queue_), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(s1), Waiters::StatusOf(s2), Level(), Receive()),
            std::tuple(0u, 0u, std::tuple(0, 1u), 1000 + LX_QUEUE_EMPTY));  // their messages were dropped
  Waiter& r1 = Park(CM_QUEUE_RECEIVE, 0);
  Waiter& r2 = Park(CM_QUEUE_RECEIVE, 0, 40);
  EXPECT_EQ(CmQueueFlush(&queue_), LX_SUCCESS);
  EXPECT_EQ(Level(), std::tuple(-2, 1u));  // receivers keep waiting
  EXPECT_EQ(CmQueueDelete(&queue_), LX_SUCCESS);
  EXPECT_EQ(std::tuple(queue_, Waiters::StatusOf(r1), Waiters::StatusOf(r2), SleepAgentEntries()),
            std::tuple(nullptr, LX_DELETED, LX_DELETED, size_t{0}));
  for (LX_STATUS s : {CmQueueSend(&queue_, &m, 0), CmQueueReceive(&queue_, &m, 0), CmQueueFlush(&queue_),
                      CmQueuePrioritize(&queue_), CmQueueDelete(&queue_), CmQueueFlush(nullptr),
                      CmQueueCreate(nullptr, 1, 1, nullptr)}) {
    EXPECT_EQ(s, LX_QUEUE_ERROR);
  }
  EXPECT_EQ(std::tuple(CmQueueCreate(&queue_, 0, 1, nullptr), CmQueueCreate(&queue_, 1, 3, nullptr)), std::tuple(5u, 5u));
  uint32_t storage[4] = {}, pair[2] = {6, 7};
  ASSERT_EQ(CmQueueCreate(&queue_, 2, 2, storage), LX_SUCCESS);  // the caller's storage
  ASSERT_EQ(CmQueueSend(&queue_, pair, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::tuple(storage[0], storage[1]), std::tuple(6u, 7u));
}

INSTANTIATE_TEST_SUITE_P(Routes, CmQueueTest, ::testing::Bool(),
                         [](const auto& route) { return route.param ? "StandAlone" : "ClassFunction"; });

TEST(QueueListTest, BothEndsKeepTheirOrderTheGateAndLockMakeCallsBusyAndTheNodePoolIsReused) {
  uint32_t storage[6] = {};
  QueueListCtrl* list = QueueListCreate(3, 2, storage);
  ASSERT_NE(list, nullptr);
  const auto send = [&](uint32_t tag, int32_t atBack = 1, int32_t held = 0) {
    const uint32_t m[2] = {tag, ~tag};
    return QueueListSend(list, m, atBack, held);
  };
  const auto receive = [&](int32_t fromBack = 0, int32_t held = 0) -> int64_t {  // tag, or the result negated
    uint32_t m[2] = {};
    const int32_t result = QueueListReceive(list, m, fromBack, held);
    return result != 0 ? -result : m[1] == ~m[0] ? static_cast<int64_t>(m[0]) : -99;
  };
  EXPECT_EQ(receive(), -QUEUE_LIST_BUSY);  // no send yet: the gate is closed
  EXPECT_EQ((std::vector<int64_t>{send('A'), send('B'), send('C', 0), send('D'), list->i32Count, receive(), receive(),
                                  receive(), receive()}),
            (std::vector<int64_t>{0, 0, 0, QUEUE_LIST_EMPTY, 3, 'C', 'A', 'B', -QUEUE_LIST_EMPTY}));
  EXPECT_EQ(std::tuple(list->psHead, list->i32Count), std::tuple(nullptr, 0));
  EXPECT_EQ((std::vector<int64_t>{send('D', 0), send('E', 0), send('F'), receive(1), receive(1), receive(1)}),
            (std::vector<int64_t>{0, 0, 0, 'F', 'D', 'E'}));  // from the back: the newest appended, else the oldest at the front
  EXPECT_EQ((std::vector<int64_t>{send(1), send(2)}), (std::vector<int64_t>{0, 0}));
  pthread_mutex_lock(&list->sListLock);  // a flush in progress, say
  EXPECT_EQ(std::tuple(send(3), list->i32Count), std::tuple(QUEUE_LIST_BUSY, 2));
  EXPECT_EQ(send(5, 1, 1), 0);  // the caller's hold, given up at the end
  ASSERT_EQ(pthread_mutex_trylock(&list->sListLock), 0);
  pthread_mutex_unlock(&list->sListLock);
  __atomic_store_n(&list->sReceiveGate.u32Open, 0u, __ATOMIC_RELAXED);  // a receive in progress elsewhere
  EXPECT_EQ((std::vector<int64_t>{receive(), receive(0, 1), list->sReceiveGate.u32Open, list->i32Count}),
            (std::vector<int64_t>{-QUEUE_LIST_BUSY, 1, 1, 2}));
  EXPECT_EQ(QueueListFlush(list), 0);
  EXPECT_EQ((std::vector<int64_t>{list->i32Count, send(7), send(8), send(9), send(10), storage[0] + storage[2] + storage[4]}),
            (std::vector<int64_t>{0, 0, 0, 0, QUEUE_LIST_EMPTY, 24}));  // every node back, in the caller's storage
  QueueMemNode stranger{};
  EXPECT_EQ(std::tuple(QueueMemFree(list, &stranger), QueueMemFree(list, &list->paNodes[1])), std::tuple(1, 0));
  EXPECT_EQ(QueueListDelete(list), 0);
  for (uint32_t words : {0u, 3u, 5u, 32u}) EXPECT_EQ(QueueListCreate(1, words, storage), nullptr) << words;
  EXPECT_EQ(QueueListCreate(1, 1, nullptr), nullptr);
  QueueListCtrl* none = QueueListCreate(0, 16, storage);  // a store with no room
  EXPECT_EQ((std::vector<int32_t>{QueueListSend(none, storage, 1, 0), QueueListDelete(none)}), (std::vector<int32_t>{QUEUE_LIST_EMPTY, 0}));
}

}  // namespace
}  // namespace quorvin::test
