// The handler shape every object class shares.
//
// A class whose requests wait on suspend lists (mutex, block pool, byte pool,
// event flags, queue, semaphore) supplies one constexpr SuspendClass naming
// what is particular to it; the walk-and-release code of wake-up, wait abort
// and prioritize exists once, here. The mandated CM_<Class>WakeUp,
// CM_<Class>WaitAbort and CM_<Class>Prioritize functions are one-line entry
// points over these. Everything runs on the dispatcher thread with S_sCmLock
// held.
#pragma once

#include "cm/cm_internal.h"

namespace quorvin::detail {

struct SuspendClass {
  // The suspend list of the object that a waiting request's pvObject names,
  // or nullptr when its handle word no longer names an object.
  SuspendCtrl* (*listOf)(void* objectHandle);
  // Status of a wait that timed out, given the list it waited on (the queue
  // class tells senders from receivers by the count's sign).
  uint16_t (*timeoutStatus)(const SuspendCtrl& list);
  // Flags that put a prioritized waiter back at the front of its list.
  uint8_t (*frontFlags)(const SuspendCtrl& list);
};

// Front flags of every class whose waiters count upward.
constexpr uint8_t FrontCountUp(const SuspendCtrl&) noexcept {
  return CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP;
}

// Wait-type branch for a request that cannot be satisfied now: marks the
// caller waiting with the class's unsatisfied status and hands the request to
// the list (which completes it at once for LX_NO_WAIT).
void ParkRequest(CmServiceRequest& request, SuspendCtrl& list, uint16_t waitState, uint16_t status,
                 uint8_t flags) noexcept;

// Wake-up role: ends the wait of the thread named by the driver's psTarget on
// the object its waiting request (the driver's pvObject) names; with the
// time-out code by time-out, otherwise as aborted. Never completes the driver.
void WakeUpWaiter(const SuspendClass& cls, CmServiceRequest& driver) noexcept;

// Wait-abort role: points the abort request at the target's own request and
// runs the wake-up with it as the driver.
void WaitAbortWaiter(const SuspendClass& cls, CmServiceRequest& abort) noexcept;

// The waiter whose thread has the numerically lowest priority below 31,
// visiting nodes from the last end toward the first and keeping the first
// found on a tie; nullptr when none is below 31.
SuspendNode* FindPreferredWaiter(const SuspendCtrl& list) noexcept;

// Prioritize role: moves the preferred waiter to the front without releasing
// it (it keeps its time-out registration and remaining ticks), or answers
// LX_NOT_AVAILABLE when two or more wait and none is below 31; completes the
// requester.
void PrioritizeWaiters(const SuspendClass& cls, CmServiceRequest& request, SuspendCtrl& list) noexcept;

// Number of linked nodes a count stands for.
constexpr uint32_t Waiters(int32_t count) noexcept {
  return count < 0 ? 0u - static_cast<uint32_t>(count) : static_cast<uint32_t>(count);
}

}  // namespace quorvin::detail
