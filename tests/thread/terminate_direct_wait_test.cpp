// Terminating a thread that waits inside a service served in its own thread:
// a host message queue, a framed queue, a POSIX semaphore, an event-flag
// group. The cancellation unwinds through the service; the thread ends, the
// process goes on, and the object serves the other threads as before.
#include <thread>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

class TerminateDirectWaitTest : public KernelTest {
 protected:
  // Starts a thread that calls wait, terminates it inside the call, and
  // deletes it: it must have ended without returning from the call.
  void TerminateInside(const std::function<void()>& wait, const char* what) {
    SCOPED_TRACE(what);
    LX_THREAD handle = nullptr;
    std::atomic<int> stage{0};
    ASSERT_EQ(Spawn(&handle, "victim", [&] {
      stage = 1;
      wait();
      stage = 2;
    }),
              LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return stage.load() == 1; }));
    std::this_thread::sleep_for(50ms);  // well inside the wait
    ASSERT_EQ(_lx_ThreadTerminate(&handle), LX_SUCCESS);
    EXPECT_EQ(_lx_ThreadDelete(&handle), LX_SUCCESS);  // joined: it has ended
    EXPECT_EQ(stage.load(), 1);
  }
};

TEST_F(TerminateDirectWaitTest, AThreadTerminatedInAWaitEndsAndTheObjectServesOn) {
  LX_QUEUE queue = nullptr;
  uint32_t storage[4] = {};
  ASSERT_EQ(_lx_QueueCreate(&queue, "terminated", 1, storage, sizeof storage), LX_SUCCESS);
  FramedQueueCtrl framed{};
  uint8_t buffer[64] = {};
  ASSERT_EQ(QueueCreate(&framed, "terminated-framed", 4, 4, buffer, 0, 1), LX_SUCCESS);
  LX_SEMAPHORE semaphore = nullptr;
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, "terminated", 0), LX_SUCCESS);
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "terminated"), LX_SUCCESS);

  for (uint32_t wait : {LX_WAIT_FOREVER, 500u}) {
    SCOPED_TRACE(testing::Message() << "wait " << wait);
    uint32_t word = 0, actual = 0;
    TerminateInside([&] { _lx_QueueReceive(&queue, &word, wait); }, "queue receive");
    TerminateInside([&] { QueueReceive(&framed, &word, wait); }, "framed queue receive");
    TerminateInside([&] { _lx_SemaphoreGet(&semaphore, wait); }, "semaphore get");
    TerminateInside([&] { _lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, wait); }, "event flags get");
  }
  // A full queue: the sender waits.
  uint32_t word = 7;
  for (int i = 0; i < 4; ++i) ASSERT_EQ(_lx_QueueSend(&queue, &word, LX_NO_WAIT), LX_SUCCESS);
  TerminateInside([&] { _lx_QueueSend(&queue, &word, LX_WAIT_FOREVER); }, "queue send");
  ASSERT_EQ(_lx_QueueFlush(&queue), LX_SUCCESS);
  // A framed receiver that took a message and waits for the lock puts it back.
  ASSERT_EQ(QueueSend(&framed, &word, 1, FRAMED_QUEUE_AT_BACK), LX_SUCCESS);
  ASSERT_EQ(_lx_SemaphoreGet(&framed.psLockSemaphore, LX_NO_WAIT), LX_SUCCESS);
  uint32_t taken = 0;
  TerminateInside([&] { QueueReceive(&framed, &taken, LX_WAIT_FOREVER); }, "framed queue receive, lock wait");
  ASSERT_EQ(_lx_SemaphorePut(&framed.psLockSemaphore), LX_SUCCESS);
  EXPECT_EQ(QueueReceive(&framed, &taken, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(taken, word);

  // Nothing of the terminated waits is left behind.
  EXPECT_EQ(_lx_QueueSend(&queue, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&queue, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&queue, &word, LX_NO_WAIT), LX_QUEUE_EMPTY);
  EXPECT_EQ(QueueSend(&framed, &word, 1, FRAMED_QUEUE_AT_BACK), LX_SUCCESS);  // the lock is free
  EXPECT_EQ(QueueReceive(&framed, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphorePut(&semaphore), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_NO_INSTANCE);
  // No armed wait of a dead thread takes the flag or the count.
  char* name = nullptr;
  uint32_t flags = 0, armed = 0;
  LX_THREAD* first = nullptr;
  LX_EVENT_FLAGS* next = nullptr;
  ASSERT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &armed, &next), LX_SUCCESS);
  EXPECT_EQ(armed, 0u);
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);
  uint32_t actual = 0;
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x1, LX_OR, &actual, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(actual, 0x1u);
}

// A new thread on the handle word of a thread terminated in a flag wait gets
// that word's waiter record: no post meant for the dead wait may reach it.
TEST_F(TerminateDirectWaitTest, ANewThreadOnTheWordOfATerminatedFlagWaiterWaitsForItsOwnSet) {
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "terminated"), LX_SUCCESS);
  LX_THREAD handle = nullptr;
  std::atomic<int> stage{0};
  uint32_t actual = 0;
  ASSERT_EQ(Spawn(&handle, "victim", [&] {
    stage = 1;
    _lx_EventFlagsGet(&group, 0x1, LX_OR, &actual, LX_WAIT_FOREVER);
  }),
            LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return stage.load() == 1; }));
  std::this_thread::sleep_for(50ms);
  ASSERT_EQ(_lx_ThreadTerminate(&handle), LX_SUCCESS);
  ASSERT_EQ(_lx_ThreadDelete(&handle), LX_SUCCESS);
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);  // would have satisfied the dead wait
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0, LX_AND), LX_SUCCESS);

  std::atomic<LX_STATUS> status{0xFFFF};
  ASSERT_EQ(Spawn(&handle, "successor", [&] { status = _lx_EventFlagsGet(&group, 0x2, LX_OR, &actual, 20); }),
            LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return status.load() != 0xFFFF; }));
  EXPECT_EQ(status.load(), LX_NO_EVENTS);  // not released by the old set
  EXPECT_TRUE(Join(handle));
}

}  // namespace
}  // namespace quorvin::test
