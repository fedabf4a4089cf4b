// Sleep agent: times out finite waits, one tick per pass.
//
// The sleep list is singly linked through psSleepNext in registration order
// and lives entirely in the request blocks. Registration and removal run on
// the dispatcher under S_sCmLock. A pass runs on the timer thread and works in
// two phases so that it never holds S_sCmLock while it waits for the
// dispatcher:
//   1. Under S_sCmLock, walk the list once: count every wait with ticks left
//      down by one and note, in list order, the waits that have run out.
//   2. For each noted wait, take S_sCmLock again, check that it is still
//      registered with no ticks left, and queue a time-out for it in the timer
//      thread's own request block; release the lock and wait for the
//      dispatcher to handle it before the next one.
// Phase 2 re-finds each wait in the list before touching it: between the two
// phases the dispatcher may have released it (or its thread may be gone), and
// a request released and parked again has fresh ticks, so it is not expired
// by a stale note. Every registered wait is thus visited once per pass, a
// wait registered with N ticks expires on the (N+1)-th pass, and two waits
// registered one after the other with equal ticks expire on the same pass,
// first one first.
#include <array>
#include <mutex>

#include "cm/cm_internal.h"
#include "cm/debug_table.h"
#include "quorvin/lx_timer.h"

namespace quorvin::detail {

CmServiceRequest* S_psSleepTop = nullptr;
CmServiceRequest* S_psSleepEnd = nullptr;
QV_DEBUG_ENTRY("sleep", &S_psSleepTop, 0);
QV_DEBUG_ENTRY("reqtop", &S_psTop, 0);
QV_DEBUG_ENTRY("cmtid", &S_i32CmTid, 0);
QV_DEBUG_ENTRY("timerth", &G_psTimer, 0);

namespace {

// Passes share the timer thread's request block, so they never overlap.
pthread_mutex_t g_passLock = PTHREAD_MUTEX_INITIALIZER;

// Expiries noted in one pass; a wait beyond this stays at zero ticks and
// expires on a later pass. Only pool threads (at most 49) can be registered.
constexpr std::size_t kMaxExpiriesPerPass = 64;

// Stands in for the timer thread's block while no timer thread exists.
CmServiceRequest g_standInRequest;

bool IsRegisteredLocked(const CmServiceRequest* request) noexcept {
  for (const CmServiceRequest* r = S_psSleepTop; r != nullptr; r = r->psSleepNext) {
    if (r == request) return true;
  }
  return false;
}

CmServiceRequest& TimerRequest() noexcept {
  ThreadControlBlock* timer = TcbOf(G_psTimer);
  return timer != nullptr ? timer->sRequest : g_standInRequest;
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

void SleepAgentAddRequest(CmServiceRequest* psRequest) {
  psRequest->psSleepNext = nullptr;
  StoreInSleepAgent(*psRequest, 1);
  if (S_psSleepEnd != nullptr) {
    S_psSleepEnd->psSleepNext = psRequest;
  } else {
    S_psSleepTop = psRequest;
  }
  S_psSleepEnd = psRequest;
}

void SleepAgentRemoveRequest(CmServiceRequest* psRequest) {
  if (S_psSleepTop == nullptr) return;
  if (psRequest == S_psSleepTop) {
    S_psSleepTop = psRequest->psSleepNext;
    psRequest->psSleepNext = nullptr;
    if (S_psSleepTop == nullptr) S_psSleepEnd = nullptr;
    return;
  }
  CmServiceRequest* previous = S_psSleepTop;
  while (previous->psSleepNext != nullptr && previous->psSleepNext != psRequest) {
    previous = previous->psSleepNext;
  }
  if (previous->psSleepNext == nullptr) return;
  previous->psSleepNext = psRequest->psSleepNext;
  if (previous->psSleepNext == nullptr) S_psSleepEnd = previous;
}

void SleepAgentEx(void) {
  SystemSection section;
  PosixMutex passMutex(g_passLock);
  std::lock_guard pass(passMutex);

  std::array<CmServiceRequest*, kMaxExpiriesPerPass> expired;
  std::size_t expiredCount = 0;
  {
    std::lock_guard lock(CmLock());
    for (CmServiceRequest* r = S_psSleepTop; r != nullptr; r = r->psSleepNext) {
      const uint32_t ticks = LoadWaitOption(*r);
      if (ticks > 0) {
        StoreWaitOption(*r, ticks - 1);
      } else if (expiredCount < expired.size()) {
        expired[expiredCount++] = r;
      }
    }
  }

  CmServiceRequest& timeout = TimerRequest();
  for (std::size_t i = 0; i < expiredCount; ++i) {
    CmServiceRequest* request = expired[i];
    Enqueued enqueued = Enqueued::kRefused;
    {
      std::lock_guard lock(CmLock());
      if (!IsRegisteredLocked(request) || LoadWaitOption(*request) != 0) continue;
      StoreService(timeout, CM_OP_TIMEOUT);
      timeout.psTarget = request->psThread;
      timeout.psThread = G_psTimer;
      timeout.pvObject = request;
      // The expiry is queued past CM_Request's timer rule; a wait option left
      // in this block by an expiration function's service plays no part.
      StoreWaitOption(timeout, LX_NO_WAIT);
      if (LoadInSleepAgent(*request) == 0) continue;
      enqueued = EnqueueLocked(timeout);
    }
    if (enqueued == Enqueued::kRefused) continue;  // no pipe now: expires on a later pass
    if (enqueued == Enqueued::kWakeDispatcher) WakeDispatcher();
    AwaitCompletion(timeout);
  }
}
