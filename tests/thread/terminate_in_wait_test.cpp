// Threads terminated where they wait outside the dispatcher: in a semaphore,
// a host queue, an event-flag group, a framed queue, suspended, or before
// their first resume. Each ends and can be deleted, and the object it waited
// on serves on.
#include <fstream>
#include <string>
#include <thread>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

class TerminateInWaitTest : public KernelTest {
 protected:
  // Starts a thread that makes one blocking call, and returns once the thread
  // sleeps in the kernel (a suspension or a wait, not yet returned).
  // A thread that waits for its first resume has no kernel id on record yet:
  // it is given a moment once it reads suspended.
  LX_THREAD& StartBlocked(std::function<void()> call, uint16_t autoStart = 1) {
    LX_THREAD& handle = handles_.emplace_back();
    EXPECT_EQ(Spawn(&handle, "blocked", std::move(call), 32, 0, autoStart), LX_SUCCESS);
    if (autoStart == 0) {
      EXPECT_TRUE(WaitUntil([&] { return StateOf(handle) == LX_STATE_SUSPENDED; }));
      std::this_thread::sleep_for(20ms);
    } else {
      EXPECT_TRUE(WaitUntil([&] { return Sleeping(handle); })) << "the thread never blocked";
    }
    return handle;
  }
  static bool Sleeping(LX_THREAD thread) {
    const ThreadRecord* record = PooledRecord(thread);
    const pid_t tid = record != nullptr ? Peek(record->kernelTid) : 0;
    if (tid == 0) return false;
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string pid, name, state;
    stat >> pid >> name >> state;  // thread names here have no spaces
    return state == "S";
  }
  static void End(LX_THREAD& handle) {
    EXPECT_EQ(_lx_ThreadTerminate(&handle), LX_SUCCESS);
    EXPECT_EQ(_lx_ThreadDelete(&handle), LX_SUCCESS);  // it has ended: joined
  }
  std::deque<LX_THREAD> handles_;
};

TEST_F(TerminateInWaitTest, ThreadsTerminatedInPosixWaitsEndAndTheObjectsServeOn) {
  LX_SEMAPHORE semaphore = nullptr;
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, "s", 0), LX_SUCCESS);
  End(StartBlocked([&] { _lx_SemaphoreGet(&semaphore, LX_WAIT_FOREVER); }));
  EXPECT_EQ(_lx_SemaphorePut(&semaphore), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);  // the count was not taken by the dead

  static uint8_t area[64];
  LX_QUEUE queue = nullptr;
  ASSERT_EQ(_lx_QueueCreate(&queue, "tw", 1, area, 16), LX_SUCCESS);
  uint32_t out = 7, in = 0;
  End(StartBlocked([&] { _lx_QueueReceive(&queue, &in, 500); }));
  EXPECT_EQ(_lx_QueueSend(&queue, &out, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&queue, &in, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(in, 7u);

  // The dead waiter's record is disarmed: a set does not clear flags for it.
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "g"), LX_SUCCESS);
  for (uint32_t wait : {LX_WAIT_FOREVER, 500u}) {
    End(StartBlocked([&group, wait] {
      uint32_t actual = 0;
      _lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, wait);
    }));
    char* name = nullptr;
    uint32_t flags = 0, waiting = 9;
    LX_THREAD* first = nullptr;
    LX_EVENT_FLAGS* next = nullptr;
    ASSERT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
    EXPECT_EQ(waiting, 0u);
    EXPECT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);
    uint32_t actual = 0;
    EXPECT_EQ(_lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, LX_NO_WAIT), LX_SUCCESS);
  }

  // A framed queue's receiver, waiting for an offset.
  FramedQueueCtrl framed{};
  static uint8_t buffer[128];
  ASSERT_EQ(QueueCreate(&framed, "twf", 4, 2, buffer, 0, 1), LX_SUCCESS);
  End(StartBlocked([&] {
    char got[4];
    QueueReceive(&framed, got, LX_WAIT_FOREVER);
  }));
  const char text[4] = {'a', 'b', 'c', 'd'};
  char got[4] = {};
  EXPECT_EQ(QueueSend(&framed, text, 1, FRAMED_QUEUE_AT_BACK), LX_SUCCESS);
  EXPECT_EQ(QueueReceive(&framed, got, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(std::string(got, 4), "abcd");
}

TEST_F(TerminateInWaitTest, SuspendedAndNeverStartedThreadsCanBeTerminated) {
  // Made directly: a body handed to Spawn would never be freed, as it never runs.
  LX_THREAD& unstarted = handles_.emplace_back();
  const auto never = [](uint64_t) -> void* {
    ADD_FAILURE() << "the entry ran";
    return nullptr;
  };
  ASSERT_EQ(_lx_ThreadCreate(&unstarted, "unstarted", never, 0, nullptr, 0, 32, 0, 0, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return StateOf(unstarted) == LX_STATE_SUSPENDED; }));
  std::this_thread::sleep_for(20ms);
  End(unstarted);
#if !defined(__SANITIZE_THREAD__)
  // Suspended inside a cancellable call, the thread unwinds from its
  // suspension as glibc's own cancellation does; ThreadSanitizer reports the
  // destructors that run on the way as calls inside a signal (docs/testing.md).
  LX_THREAD& suspended = StartBlocked([] { _lx_ThreadSleep(1000); });
  ASSERT_EQ(_lx_ThreadSuspend(&suspended), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return Sleeping(suspended); }));
  End(suspended);
#endif
  // The dispatcher and the thread services serve on.
  LX_THREAD& next = StartBlocked([] { _lx_ThreadSleep(1000); });
  End(next);
}

TEST_F(TerminateInWaitTest, ASuspensionHeldBackDuringASuspensionDoesNotStopATerminatedThread) {
  // The thread is suspended where it cannot be cancelled, and a second
  // suspension waits behind the first; the terminate's resume must let it run
  // on to the point where it can be cancelled.
  std::atomic<bool> inside{false}, leave{false};
  LX_THREAD& thread = StartBlocked([&] {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    inside = true;
    while (!leave) _lx_ThreadSleep(1);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    for (;;) _lx_ThreadSleep(100);
  });
  ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
  ASSERT_EQ(_lx_ThreadSuspend(&thread), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return Sleeping(thread); }));
  std::this_thread::sleep_for(20ms);  // in its suspension now
  ASSERT_EQ(pthread_kill(thread->hThread, SIGUSR2), 0);  // held back by the running handler
  EXPECT_EQ(_lx_ThreadTerminate(&thread), LX_SUCCESS);
  leave = true;
  EXPECT_EQ(_lx_ThreadDelete(&thread), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test
