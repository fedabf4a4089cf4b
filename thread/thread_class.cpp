// The dispatcher's thread class: sleep, suspend, terminate and wait abort.
//
// Suspend and terminate complete their requester before they signal or cancel
// the target, so the requester may run again before the target has stopped.
// A wait abort is routed by the target's state to the wait-abort handler of
// the class it waits on.
#include <signal.h>

#include <utility>

#include "cm/cm_internal.h"
#include "cm/trace.h"
#include "quorvin/lx_mutex.h"
#include "quorvin/lx_pool.h"
#include "quorvin/lx_queue.h"
#include "sync/sync_internal.h"

namespace quorvin::detail {
namespace {

// Wait-abort handler of each waiting state whose class is built in.
constexpr std::pair<uint16_t, void (*)(CmServiceRequest*)> kWaitAborts[] = {
    {LX_STATE_BLOCK_POOL_WAIT, &CM_BlockWaitAbort},
    {LX_STATE_BYTE_POOL_WAIT, &CM_ByteWaitAbort},
    {LX_STATE_MUTEX_WAIT, &CM_MutexWaitAbort},
    {LX_STATE_QUEUE_WAIT, &CM_QueueWaitAbort},
    {LX_STATE_SEMAPHORE_WAIT, &SemaphoreClassWaitAbort},
    {LX_STATE_EVENT_FLAGS_WAIT, &EventFlagsClassWaitAbort},
};

void AbortWait(CmServiceRequest& request, ThreadControlBlock& target) noexcept {
  const uint16_t state = LoadState(target);
  if (state == LX_STATE_SLEEPING) {
    CmServiceRequest& sleeping = target.sRequest;
    SleepAgentRemoveRequest(&sleeping);
    StoreInSleepAgent(sleeping, 0);
    StoreState(target, LX_STATE_READY);
    CompleteLocked(sleeping, LX_WAIT_ABORTED);
  } else {
    for (const auto& [waitState, abort] : kWaitAborts) {
      if (waitState == state) abort(&request);
    }
  }
  CompleteLocked(request, LoadState(target) == LX_STATE_SUSPENDED ? LX_WAIT_ABORT_ERROR : LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

void CM_ThreadFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  CmServiceRequest& request = *psRequest;
  if (u16Service != CM_THREAD_SLEEP && u16Service != CM_THREAD_SUSPEND &&
      u16Service != CM_THREAD_TERMINATE && u16Service != CM_THREAD_WAIT_ABORT) {
    CompleteLocked(request, LX_NOT_AVAILABLE);
    return;
  }
  ThreadControlBlock* target = TcbOf(request.psTarget);
  if (target == nullptr) {  // the handle word names no thread
    CompleteLocked(request, LX_THREAD_ERROR);
    return;
  }
  switch (u16Service) {
    case CM_THREAD_SLEEP:
      // Left unanswered: the sleep agent's time-out (or a wait abort) ends it.
      StoreState(*target, LX_STATE_SLEEPING);
      target->sRequest.u16Status = LX_SUCCESS;
      SleepAgentAddRequest(&request);
      return;
    case CM_THREAD_SUSPEND:
      CompleteLocked(request, LX_SUCCESS);
      StoreState(*target, LX_STATE_SUSPENDED);
      pthread_kill(LoadRelaxed(target->hThread), SIGUSR2);
      return;
    case CM_THREAD_TERMINATE:
      CompleteLocked(request, LX_SUCCESS);
      StoreState(*target, LX_STATE_TERMINATED);
      QV_TRACE1(thread__terminated, request.psTarget);
      pthread_cancel(LoadRelaxed(target->hThread));
      // A suspended thread, or one whose suspension was deferred to the end
      // of a locked section, waits for signal 10 with cancellation off: the
      // resume lets it go on to its next cancellation point.
      pthread_kill(LoadRelaxed(target->hThread), SIGUSR1);
      return;
    default:
      AbortWait(request, *target);
  }
}
