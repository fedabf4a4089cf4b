// Thread services: sleep, resume, suspend, wait abort, terminate, delete and
// information.
//
// Suspend, terminate and wait abort of another thread go through the
// dispatcher in the caller's own request block; they need a caller that is a
// thread of the system and answer LX_THREAD_ERROR otherwise. Their wait
// option is set to LX_NO_WAIT, so a value left by an earlier request never
// gets them refused on the timer thread.
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "cm/trace.h"
#include "thread/thread_internal.h"

namespace quorvin::detail {
namespace {

// How long a delete waits for a terminated thread to end before it gives up
// with LX_DELETE_ERROR (a thread that never reaches a cancellation point).
constexpr time_t kDeleteJoinSeconds = 1;

LX_STATUS Submit(LX_THREAD* target, uint16_t service) {
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (TcbOf(caller) == nullptr) return LX_THREAD_ERROR;
  return IssueOwnRequest(caller, service, nullptr, LX_NO_WAIT, target);
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_ThreadSleep(uint32_t u32Ticks) {
  unsigned seconds = u32Ticks / 100;
  while (seconds > 0) seconds = ::sleep(seconds);
  ::usleep(static_cast<useconds_t>(u32Ticks % 100) * 10000);  // not resumed if interrupted
  return LX_SUCCESS;
}

LX_STATUS _lx_ThreadResume(LX_THREAD* psThread) {
  ThreadControlBlock* target = TcbOf(psThread);
  if (target == nullptr) return LX_THREAD_ERROR;
  if (pthread_kill(LoadThreadId(*target), SIGUSR1) != 0) return LX_THREAD_ERROR;
  return LX_SUCCESS;
}

LX_STATUS _lx_ThreadSuspend(LX_THREAD* psThread) {
  ThreadControlBlock* target = TcbOf(psThread);
  if (target == nullptr) return LX_THREAD_ERROR;
  if (psThread == _lx_ThreadIdentify()) {
    // The handler runs at once and returns after the resume.
    StoreState(*target, LX_STATE_SUSPENDED);
    pthread_kill(pthread_self(), SIGUSR2);
    return LX_SUCCESS;
  }
  return Submit(psThread, CM_THREAD_SUSPEND);
}

LX_STATUS _lx_ThreadWaitAbort(LX_THREAD* psThread) {
  if (TcbOf(psThread) == nullptr) return LX_THREAD_ERROR;
  return Submit(psThread, CM_THREAD_WAIT_ABORT);
}

LX_STATUS _lx_ThreadTerminate(LX_THREAD* psThread) {
  ThreadControlBlock* target = TcbOf(psThread);
  if (target == nullptr) return LX_THREAD_ERROR;
  if (psThread == _lx_ThreadIdentify()) {
    StoreState(*target, LX_STATE_TERMINATED);
    QV_TRACE1(thread__terminated, psThread);
    pthread_exit(nullptr);
  }
  if (TcbOf(_lx_ThreadIdentify()) == nullptr) return LX_THREAD_ERROR;
  if (LoadService(target->sRequest) != 0) {
    // End a wait in progress first, so the target is cancelled in the open.
    StoreService(target->sRequest, 0);
    for (int i = 0; i < 4; ++i) sched_yield();
    if (LoadState(*target) != LX_STATE_READY) _lx_ThreadWaitAbort(psThread);
  }
  return Submit(psThread, CM_THREAD_TERMINATE);
}

LX_STATUS _lx_ThreadDelete(LX_THREAD* psThread) {
  ThreadControlBlock* target = TcbOf(psThread);
  if (target == nullptr) return LX_THREAD_ERROR;
  if (LoadState(*target) != LX_STATE_TERMINATED) return LX_DELETE_ERROR;
  ThreadRecord& record = RecordOf(*target);
  PosixMutex poolMutex(G_sThreadPoolLock);
  // One delete at a time joins a thread: a second join of the same id could
  // meet another thread that has been given the id since the first ended.
  {
    SystemSection section;
    std::lock_guard pool(poolMutex);
    if (record.deleting || TcbOf(psThread) != target || PoolFindLocked(psThread, false) < 0) {
      return LX_DELETE_ERROR;
    }
    record.deleting = true;
  }
  // The thread must have ended before its entry leaves the pool and its block
  // is released for reuse; one that never reaches a cancellation point is not waited for
  // beyond a second.
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += kDeleteJoinSeconds;
  const bool joined = pthread_timedjoin_np(LoadThreadId(*target), nullptr, &deadline) == 0;
  {
    SystemSection section;
    std::lock_guard pool(poolMutex);
    if (!joined) {
      record.deleting = false;
      return LX_DELETE_ERROR;
    }
    // The id may be handed to a new thread from now on: no look-up may find it here.
    StoreThreadId(*target, pthread_t{});
    const int32_t index = PoolFindLocked(psThread, false);
    if (index < 0) {
      std::printf("%s: Error!  Unable to find thread to delete!\n", "_lx_ThreadDelete");
      return LX_DELETE_ERROR;
    }
    PoolRemoveAtLocked(index);
    RecycleRecordLocked(RecordOf(*target));
  }
  QV_TRACE1(thread__deleted, psThread);
  return LX_SUCCESS;
}

LX_STATUS _lx_ThreadInfoGet(LX_THREAD* psThread, char** ppcName, uint16_t* pu16State, uint32_t* pu32RunCount,
                            uint16_t* pu16Priority, uint16_t* pu16PreemptThreshold, uint32_t* pu32TimeSlice,
                            LX_THREAD** ppsNextThread, LX_THREAD** ppsNextSuspended) {
  ThreadControlBlock* target = TcbOf(psThread);
  if (target == nullptr) return LX_THREAD_ERROR;
  if (ppcName == nullptr || pu16State == nullptr || pu32RunCount == nullptr || pu16Priority == nullptr ||
      pu16PreemptThreshold == nullptr || pu32TimeSlice == nullptr || ppsNextThread == nullptr ||
      ppsNextSuspended == nullptr) {
    return LX_PTR_ERROR;
  }
  *ppcName = target->acName;
  *pu16State = LoadState(*target);
  *pu32RunCount = 0;
  *pu16Priority = LoadRelaxed(target->u16Priority);
  *pu16PreemptThreshold = LoadRelaxed(target->u16PreemptThreshold);
  *pu32TimeSlice = target->u16TimeSlice;
  *ppsNextThread = nullptr;
  *ppsNextSuspended = nullptr;
  return LX_SUCCESS;
}
