// Thread internals: the record behind each control block and the pool.
//
// Pool entries and the count are written under G_sThreadPoolLock and read
// without a lock by _lx_ThreadIdentify, so every access is atomic: an entry
// is published with a release store after the block is filled, and removal
// writes the moved entry into its new slot before it clears the old one, so a
// scan from the top down never misses an entry that stays registered.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <type_traits>

#include "cm/cm_internal.h"
#include "quorvin/lx_thread.h"

namespace quorvin::detail {

// The heap block behind every control block the library creates. The public
// block comes first, so the handle word points at it; the tail is private.
struct ThreadRecord {
  ThreadControlBlock tcb;
  pid_t kernelTid;        // set once the thread has applied its start values; 0 before
  SuspendCtrl* parkedOn;  // the suspend list its request hangs on (S_sCmLock)
  bool deleting;          // a delete is joining the thread (G_sThreadPoolLock)
};
static_assert(std::is_standard_layout_v<ThreadRecord> && offsetof(ThreadRecord, tcb) == 0);

inline ThreadRecord& RecordOf(ThreadControlBlock& tcb) noexcept {
  return *reinterpret_cast<ThreadRecord*>(&tcb);
}

extern LX_THREAD S_psScheduler;                 // handle word of the "Scheduler" entry
extern struct sigaction S_sThreadSignalAction;  // SIGUSR2 -> ThreadSignalServiceRoutine
extern uint8_t S_u8ThreadLockSpin;              // back-off counter of the hold-back loop

inline pthread_t LoadThreadId(const ThreadControlBlock& tcb) noexcept { return LoadRelaxed(tcb.hThread); }
inline void StoreThreadId(ThreadControlBlock& tcb, pthread_t id) noexcept { StoreRelaxed(tcb.hThread, id); }

// The tick thread's one release of G_sThreadInitLock (a no-op: see create.cpp).
void ReleaseStartLockForTick() noexcept;

// Pool operations; G_sThreadPoolLock held.
int32_t PoolCountLocked() noexcept;
// Index of the entry whose psSelf is the handle, scanning from the last entry
// down (fromTop) or from the first up; -1 when there is none.
int32_t PoolFindLocked(LX_THREAD* handle, bool fromTop) noexcept;
void PoolAppendLocked(ThreadControlBlock* tcb) noexcept;
void PoolRemoveAtLocked(int32_t index) noexcept;

// Thread records are never returned to the heap: _lx_ThreadIdentify scans the
// pool without a lock and may still read a block whose entry was just
// removed, so a deleted thread's record is kept and reused by a later
// creation (at most one record per slot ever exists). G_sThreadPoolLock held.
// TakeRecordLocked returns a zeroed record, or nullptr when the heap is out.
ThreadRecord* TakeRecordLocked() noexcept;
void RecycleRecordLocked(ThreadRecord& record) noexcept;

// The record of a block registered in the pool, or nullptr (lock-free scan).
ThreadRecord* PooledRecord(const ThreadControlBlock* tcb) noexcept;

}  // namespace quorvin::detail
