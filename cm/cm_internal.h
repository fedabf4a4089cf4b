// Component-manager internals shared by cm/, thread/ and the object classes.
//
// Lock order: S_sCmLock may be taken while holding nothing; a class handler
// running under it may take its own object's lock next. The thread locks
// (G_sThreadInitLock, G_sThreadCreateLock, G_sThreadPoolLock) are never held
// together with S_sCmLock. Nobody holds S_sCmLock while blocking on a pipe.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "quorvin/lx_cm.h"
#include "quorvin/lx_thread.h"
#include "quorvin/lx_timer.h"

namespace quorvin::detail {

// std::lock_guard / std::unique_lock over a pthread mutex.
class PosixMutex {
 public:
  constexpr explicit PosixMutex(pthread_mutex_t& mutex) noexcept : mutex_(mutex) {}
  PosixMutex(const PosixMutex&) = delete;
  PosixMutex& operator=(const PosixMutex&) = delete;
  void lock() noexcept { pthread_mutex_lock(&mutex_); }
  void unlock() noexcept { pthread_mutex_unlock(&mutex_); }
  bool try_lock() noexcept { return pthread_mutex_trylock(&mutex_) == 0; }

 private:
  pthread_mutex_t& mutex_;
};

// Depth of SystemSection scopes on this thread, and whether a suspension
// (signal 12) arrived inside one. Initial-exec TLS: read by the signal handler.
[[gnu::tls_model("initial-exec")]] inline thread_local int t_systemSections = 0;
[[gnu::tls_model("initial-exec")]] inline thread_local bool t_suspensionDeferred = false;

// Waits for the resume of a suspension that arrived inside a SystemSection
// (thread/create.cpp, beside the signal handler).
void RunDeferredSuspension() noexcept;

// A section in which the thread cannot be suspended: a thread suspended while
// it held a system lock would stall everyone who needs the lock, its
// suspender included. A suspension that arrives meanwhile takes effect when
// the outermost section ends. On its own it suits a section that holds a lock
// but reaches no cancellation point (nothing in it can cancel the thread).
class NoSuspendSection {
 public:
  NoSuspendSection() noexcept { ++t_systemSections; }
  ~NoSuspendSection() {
    if (--t_systemSections == 0 && t_suspensionDeferred) RunDeferredSuspension();
  }
  NoSuspendSection(const NoSuspendSection&) = delete;
  NoSuspendSection& operator=(const NoSuspendSection&) = delete;
};

// Cancellation held off for the scope.
class NoCancelScope {
 public:
  NoCancelScope() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~NoCancelScope() { pthread_setcancelstate(previous_, nullptr); }
  NoCancelScope(const NoCancelScope&) = delete;
  NoCancelScope& operator=(const NoCancelScope&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_ENABLE;
};

// A section that holds, or may take, a system lock and may reach a
// cancellation point: the thread can neither be cancelled (it would leave the
// lock held for good) nor suspended. A deferred suspension is served while
// cancellation is still held off.
class SystemSection {
 private:
  NoCancelScope noCancel_;  // declared first: ends last
  NoSuspendSection noSuspend_;
};

// --- Globals of the request engine (cm/request.cpp) and sleep agent. ---
extern pthread_mutex_t S_sCmLock;        // guards the request list, S_i8CmIdle, suspend lists,
                                         // object state changed by handlers, the sleep list
extern int32_t S_i32CmPIPE[2];           // dispatcher wake pipe: read end, write end
extern int8_t S_i8CmIdle;                // 1: the next request must write a wake byte
extern pthread_t S_sCmThread;            // the dispatcher thread
extern int32_t S_i32CmTid;               // its kernel thread id, for debuggers; 0 before it runs
extern CmServiceRequest* S_psSleepTop;   // first registered request (sleep agent)
extern CmServiceRequest* S_psSleepEnd;   // last registered request

PosixMutex& CmLock() noexcept;

// --- Words touched without a lock, accessed atomically (relaxed: each is a
// standalone flag or count; the data it describes is published by the
// component-manager lock or the reply byte plus the lock pass in CM_Request).
static_assert(std::atomic_ref<uint16_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

template <typename T>
inline T LoadRelaxed(const T& word) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}
template <typename T>
inline void StoreRelaxed(T& word, T value) noexcept {
  std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

inline uint16_t LoadService(const CmServiceRequest& r) noexcept { return LoadRelaxed(r.u16Service); }
inline void StoreService(CmServiceRequest& r, uint16_t v) noexcept { StoreRelaxed(r.u16Service, v); }
inline uint64_t LoadInSleepAgent(const CmServiceRequest& r) noexcept {
  return LoadRelaxed(r.u64InSleepAgent);
}
inline void StoreInSleepAgent(CmServiceRequest& r, uint64_t v) noexcept {
  StoreRelaxed(r.u64InSleepAgent, v);
}
inline uint32_t LoadWaitOption(const CmServiceRequest& r) noexcept {
  return LoadRelaxed(r.u32WaitOption);
}
inline void StoreWaitOption(CmServiceRequest& r, uint32_t v) noexcept {
  StoreRelaxed(r.u32WaitOption, v);
}
inline uint16_t LoadState(const ThreadControlBlock& t) noexcept { return LoadRelaxed(t.u16State); }
// Terminated is final: a terminated thread may still run up to its next
// cancellation point, and a request it issues meanwhile must not make it look
// alive again (a delete waits for state 2).
inline void StoreState(ThreadControlBlock& t, uint16_t v) noexcept {
  std::atomic_ref<uint16_t> state(t.u16State);
  uint16_t current = state.load(std::memory_order_relaxed);
  while (current != LX_STATE_TERMINATED && !state.compare_exchange_weak(current, v, std::memory_order_relaxed)) {
  }
}

// The block a thread handle names, or nullptr for a NULL handle or word.
inline ThreadControlBlock* TcbOf(LX_THREAD* handle) noexcept {
  if (handle == nullptr) return nullptr;
  return std::atomic_ref<ThreadControlBlock*>(*handle).load(std::memory_order_acquire);
}

// Whether the calling thread is the timer thread.
inline bool CallerIsTimerThread() noexcept { return _lx_ThreadIdentify() == G_psTimer; }

// Sets the state of the thread a handle names, if there is one.
inline void SetThreadState(LX_THREAD* handle, uint16_t state) noexcept {
  if (ThreadControlBlock* tcb = TcbOf(handle)) StoreState(*tcb, state);
}

// The request of the thread that owns a suspend node, or nullptr.
inline CmServiceRequest* OwnerRequest(const SuspendNode& node) noexcept {
  ThreadControlBlock* tcb = TcbOf(node.psOwner);
  return tcb != nullptr ? &tcb->sRequest : nullptr;
}

// --- Dispatch table (cm/dispatch.cpp). ---
struct ClassEntry {
  CM_CLASS_FUNCTION function;                 // class function; nullptr: unknown class
  void (*wakeUp)(CmServiceRequest* driver);   // time-out handler; nullptr: none
};

inline constexpr unsigned kClassCount = 16;  // classes 0x00 .. 0xF0
inline constexpr unsigned ClassIndex(uint16_t service) noexcept { return service >> 4; }

// The entry of a service code's class, or nullptr for an unknown class.
const ClassEntry* FindClass(uint16_t service) noexcept;

// Replaces one class's entry and returns the previous one. Used by tests to
// reach the suspend-list machinery through a class of their own.
ClassEntry ReplaceClassEntry(unsigned classIndex, ClassEntry entry) noexcept;

// --- Request engine (cm/request.cpp). ---

// Moves exactly one byte through a descriptor (the one-byte primitives).
// Interrupted calls are repeated; a descriptor that would block is waited on
// with poll instead of spinning; end of file or a descriptor that has failed
// for good ends the attempt and gives false.
// A read or a write is a cancellation point: not noexcept, so that a
// cancelled thread unwinds through it.
bool MoveOneByte(int fd, bool write);

// Issues a request of the calling thread's own block, as CM_Request does,
// except that a mutex, block-pool or byte-pool request that finds the request
// list empty runs its class handler in the calling thread (S_sCmLock held):
// it finishes there, or parks and then waits for its reply like any other.
void IssueRequest(CmServiceRequest& request);

// Fills the calling thread's own request block (caller: its handle, a thread
// of the pool) and issues it; returns the completion status. Every interface
// service that goes through the dispatcher ends here.
inline uint16_t IssueOwnRequest(LX_THREAD* caller, uint16_t service, void* object, uint32_t waitOption,
                                LX_THREAD* target = nullptr) {
  CmServiceRequest& request = (*caller)->sRequest;
  StoreService(request, service);
  request.psTarget = target;
  request.psThread = caller;
  request.pvObject = object;
  StoreWaitOption(request, waitOption);
  IssueRequest(request);
  return request.u16Status;
}

// The halves of CM_Request after its timer-thread rule. EnqueueLocked
// (S_sCmLock held) makes the reply pipe and appends the request; when no pipe
// can be made it completes the request at once with LX_NOT_AVAILABLE
// (kRefused). kWakeDispatcher: the dispatcher was idle and the caller owes it
// the wake byte, written by WakeDispatcher once the lock is released.
// AwaitCompletion (lock not held) blocks for the reply byte, closes the pipe,
// passes the lock once and clears the service code.
enum class Enqueued { kRefused, kQueued, kWakeDispatcher };
Enqueued EnqueueLocked(CmServiceRequest& request) noexcept;
void WakeDispatcher() noexcept;
// AwaitCompletion is where a requester may be cancelled: the request is then
// taken off every list and its pipe closed before the thread ends.
void AwaitCompletion(CmServiceRequest& request);

// The suspend list a pool thread's request hangs on, noted by the suspend-list
// operations (nullptr: none, or not a pool thread's request). S_sCmLock held.
void NoteParked(CmServiceRequest& request, SuspendCtrl* list) noexcept;
SuspendCtrl* ParkedList(const CmServiceRequest& request) noexcept;

// Sets the status and writes the reply byte: the end of every handler that
// completes its request. Dispatcher thread, S_sCmLock held.
inline void CompleteLocked(CmServiceRequest& request, uint16_t status) noexcept {
  request.u16Status = status;
  CM_WakeUpThread(&request);
}

}  // namespace quorvin::detail
