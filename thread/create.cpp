// Thread creation and start.
//
// Start protocol. The creator registers the block under G_sThreadPoolLock,
// then calls pthread_create under G_sThreadCreateLock and stores the new id in
// hThread before it releases that lock. The new thread:
//   1. names itself and appends its pid-list line;
//   2. start section: takes G_sThreadInitLock, then G_sThreadCreateLock
//      (so hThread is set before it ever identifies itself), blocks the
//      thread signals, installs the SIGUSR2 action, and releases both;
//   3. holds back while G_u8ThreadLock is set;
//   4. with auto-start 0, waits for its first resume (signal 10 or 14);
//   5. applies its preemption threshold, then its priority;
//   6. runs its entry.
// Steps 3 and 4 may wait for a long time, so they run outside the start
// section's locks: a creator may create any number of threads before it
// resumes one or clears G_u8ThreadLock, and no creation ever waits for another
// thread's first resume. Step 5 runs after both waits and before the entry,
// so no entry runs before its threshold and priority are applied. Since no
// thread holds G_sThreadInitLock across a wait, the tick thread's one release
// of it has nothing to release (ReleaseStartLockForTick).
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "cm/trace.h"
#include "kernel/platform.h"
#include "quorvin/lx_log.h"
#include "thread/thread_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace quorvin::detail {
namespace {

pid_t KernelTid() noexcept { return static_cast<pid_t>(::syscall(SYS_gettid)); }

void* StartRoutine(void* argument) { return ChildThreadEntry(static_cast<ThreadControlBlock*>(argument)); }

// Waits while the application holds new threads back. The back-off counter is
// shared and never reset; it is read once on entry and carried from pass to
// pass, each pass yielding that many times.
void HoldBack() noexcept {
  if (LoadRelaxed(G_u8ThreadLock) == 0) return;
  uint8_t spins = LoadRelaxed(S_u8ThreadLockSpin);
  while (LoadRelaxed(G_u8ThreadLock) != 0) {
    const uint8_t next = static_cast<uint8_t>(spins + 2);
    StoreRelaxed(S_u8ThreadLockSpin, next);
    for (unsigned i = 0; i < spins; ++i) sched_yield();
    spins = next;
  }
}

// Takes one of the thread signals (10 or 14) with sigwait.
int TakeThreadSignal() {
  int signal = 0;
  while (sigwait(&G_sSignalMasktTble, &signal) != 0) {
  }
  return signal;
}

// Set while the thread waits for a resume. A suspension that arrives then
// (signal 12 during a deferred suspension or before the first resume) finds
// the thread suspended already and does nothing: one resume always ends the
// wait, as suspensions are not counted. Initial-exec TLS: read by the handler.
[[gnu::tls_model("initial-exec")]] thread_local bool t_awaitingResume = false;

// The suspension itself: waits for signal 10 (a signal 14 taken meanwhile is
// consumed and ignored), then marks the thread ready. Serves suspensions
// (inside the signal's handler), deferred suspensions and the wait for a
// first resume.
//
// A terminate must not cancel the thread here: inside the handler the
// unwinding would leave it into whatever code the signal interrupted, which
// need not be a cancellation point. Cancellation is off while the thread
// waits; a terminate resumes the thread instead, and it is cancelled at its
// next cancellation point. The type is made deferred first and left so: the
// signal mostly interrupts a blocking call, which runs with the asynchronous
// type and sets its own type back as it returns, while going back to the
// asynchronous type here would act on the terminate's cancellation at once,
// inside the handler.
void WaitForResume() noexcept {
  struct Awaiting {
    Awaiting() noexcept { t_awaitingResume = true; }
    ~Awaiting() { t_awaitingResume = false; }
  } awaiting;
  int state = PTHREAD_CANCEL_ENABLE;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  LX_THREAD* self = _lx_ThreadIdentify();
  QV_TRACE1(thread__suspended, self);
  while (TakeThreadSignal() != SIGUSR1) {
  }
  QV_TRACE1(thread__resumed, self);
  SetThreadState(self, LX_STATE_READY);
  pthread_setcancelstate(state, nullptr);
}

}  // namespace

// The tick thread's single release of G_sThreadInitLock: under this start
// protocol no thread holds the lock across a wait, so there is nothing to
// release, and a mutex that no thread holds is never unlocked.
void ReleaseStartLockForTick() noexcept {}

}  // namespace quorvin::detail

using namespace quorvin::detail;

void _lx_ThreadInitialize(void) {
  static bool initialised = false;  // one "Scheduler" entry and one dispatcher
  PosixMutex initMutex(G_sThreadInitLock);
  std::lock_guard init(initMutex);
  if (initialised) return;
  initialised = true;

  auto* record = static_cast<ThreadRecord*>(std::calloc(1, sizeof(ThreadRecord)));
  if (record == nullptr) std::exit(0);
  ThreadControlBlock& tcb = record->tcb;
  StoreThreadId(tcb, pthread_self());
  tcb.psSelf = &S_psScheduler;
  BoundedCopy(tcb.acName, "Scheduler", sizeof tcb.acName);
  record->kernelTid = KernelTid();
  std::atomic_ref<ThreadControlBlock*>(S_psScheduler).store(&tcb, std::memory_order_release);
  {
    PosixMutex poolMutex(G_sThreadPoolLock);
    std::lock_guard pool(poolMutex);
    PoolAppendLocked(&tcb);
  }

  sigemptyset(&G_sSignalMasktTble);
  sigaddset(&G_sSignalMasktTble, SIGUSR1);
  sigaddset(&G_sSignalMasktTble, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &G_sSignalMasktTble, nullptr);

  sigemptyset(&S_sThreadSignalAction.sa_mask);
  S_sThreadSignalAction.sa_flags = 0;
  S_sThreadSignalAction.sa_handler = ThreadSignalServiceRoutine;

  CM_Initial();
}

LX_STATUS _lx_ThreadCreate(LX_THREAD* psThread, const char* pcName, LX_THREAD_ENTRY pfnEntry,
                           uint64_t u64EntryInput, void*, uint32_t, uint16_t u16Priority,
                           uint16_t u16PreemptThreshold, uint32_t u32TimeSlice, uint16_t u16AutoStart) {
  if (psThread == nullptr) return LX_THREAD_ERROR;
  if (u16Priority > LX_MAX_PRIORITY) return LX_PRIORITY_ERROR;
  if (u16AutoStart > 1) return LX_NO_MEMORY;

  SystemSection section;
  PosixMutex poolMutex(G_sThreadPoolLock);
  ThreadControlBlock* tcb = nullptr;
  {
    std::lock_guard pool(poolMutex);
    if (PoolFindLocked(psThread, true) >= 0) return LX_THREAD_ERROR;
    if (pfnEntry == nullptr) return LX_PTR_ERROR;
    if (u16Priority < u16PreemptThreshold) return LX_THRESH_ERROR;
    if (PoolCountLocked() > LX_THREAD_POOL_SLOTS - 2) return LX_THREAD_ERROR;
    ThreadRecord* record = TakeRecordLocked();
    if (record == nullptr) return LX_THREAD_ERROR;
    tcb = &record->tcb;
    tcb->pfnEntry = pfnEntry;
    tcb->u64EntryInput = u64EntryInput;
    tcb->u16AutoStart = u16AutoStart;
    tcb->u16TimeSlice = static_cast<uint16_t>(u32TimeSlice);
    tcb->u16Priority = u16Priority;
    tcb->u16PreemptThreshold = u16PreemptThreshold;
    tcb->psSelf = psThread;
    tcb->u32PoolIndex = static_cast<uint32_t>(PoolCountLocked());
    if (pcName != nullptr) BoundedCopy(tcb->acName, pcName, sizeof tcb->acName);
    std::atomic_ref<ThreadControlBlock*>(*psThread).store(tcb, std::memory_order_release);
    PoolAppendLocked(tcb);
  }

  int created;
  {
    PosixMutex createMutex(G_sThreadCreateLock);
    std::lock_guard create(createMutex);
    // The new thread starts with the thread signals blocked and the SIGUSR2
    // action in place, so a resume or suspend sent right after creation can
    // never take the default action (ending the process), whatever the
    // creating thread's own mask.
    __sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &G_sSignalMasktTble, &previous);
    sigaction(SIGUSR2, &S_sThreadSignalAction, nullptr);
    pthread_t id;
    created = pthread_create(&id, nullptr, StartRoutine, tcb);
    if (created == 0) StoreThreadId(*tcb, id);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }
  if (created == 0) QV_TRACE2(thread__created, psThread, tcb->acName);
  if (created == 0) return LX_SUCCESS;

  {
    std::lock_guard pool(poolMutex);
    const int32_t index = PoolFindLocked(psThread, false);
    if (index >= 0) {
      PoolRemoveAtLocked(index);
    } else {
      std::printf("%s: Error!  Unable to find thread to delete!\n", "_lx_ThreadCreate");
    }
    // The handle word never keeps the address of the released block.
    ThreadControlBlock* expected = tcb;
    std::atomic_ref<ThreadControlBlock*>(*psThread).compare_exchange_strong(expected, nullptr);
    RecycleRecordLocked(RecordOf(*tcb));
  }
  return LX_THREAD_ERROR;
}

void* ChildThreadEntry(ThreadControlBlock* psTcb) {
  ThreadControlBlock& tcb = *psTcb;
  ::prctl(PR_SET_NAME, tcb.acName, 0, 0, 0);
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", tcb.acName, static_cast<long>(KernelTid()));
  {
    SystemSection section;
    PosixMutex initMutex(G_sThreadInitLock);
    PosixMutex createMutex(G_sThreadCreateLock);
    std::lock_guard init(initMutex);
    std::lock_guard create(createMutex);
    pthread_sigmask(SIG_BLOCK, &G_sSignalMasktTble, nullptr);
    sigaction(SIGUSR2, &S_sThreadSignalAction, nullptr);
  }
  HoldBack();
  if (tcb.u16AutoStart == 0) {
    StoreState(tcb, LX_STATE_SUSPENDED);
    TakeThreadSignal();
    StoreState(tcb, LX_STATE_READY);
  }
  uint16_t scratch = 0;
  _lx_ThreadPreemptionChange(tcb.psSelf, LoadRelaxed(tcb.u16PreemptThreshold), &scratch);
  _lx_ThreadPriorityChange(tcb.psSelf, LoadRelaxed(tcb.u16Priority), &scratch);
  StoreRelaxed(RecordOf(tcb).kernelTid, KernelTid());
  QV_TRACE2(thread__started, tcb.psSelf, RecordOf(tcb).kernelTid);
#if defined(__SANITIZE_ADDRESS__)
  // A terminated thread unwinds without AddressSanitizer seeing it, which
  // leaves the scopes of the frames it left marked on the stack; the
  // runtime's own clean-up at thread exit then trips over them. Clearing the
  // marks below this frame as the thread leaves it keeps such builds of
  // firmware that terminates its threads free of false reports.
  // (The runtime's own __asan_handle_no_return cannot be used: it passes
  // a local of its own, in the marked region, to an intercepted call.)
  struct ClearStackOnExit {
    ~ClearStackOnExit() {
      pthread_attr_t attributes;
      if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
      void* low = nullptr;
      size_t size = 0;
      pthread_attr_getstack(&attributes, &low, &size);
      pthread_attr_destroy(&attributes);
      char* const here = static_cast<char*>(__builtin_frame_address(0));
      if (here > low) ASAN_UNPOISON_MEMORY_REGION(low, static_cast<size_t>(here - static_cast<char*>(low)));
    }
  } clearStack;
#endif
  return tcb.pfnEntry(tcb.u64EntryInput);
}

namespace quorvin::detail {

// Runs as a locked section ends (a destructor), so the wait may not be
// cancelled: a terminate resumes the thread, which then ends at its next
// cancellation point.
void RunDeferredSuspension() noexcept {
  NoCancelScope noCancel;
  t_suspensionDeferred = false;
  WaitForResume();
}

}  // namespace quorvin::detail

void ThreadSignalServiceRoutine(int) {
  if (t_awaitingResume) return;  // suspended already
  // A terminated thread runs on to its end. A suspension that was held back
  // while it was suspended (signal 12 is blocked in its own handler) would
  // otherwise stop it again after the terminate's resume, for good.
  if (const ThreadControlBlock* self = TcbOf(_lx_ThreadIdentify());
      self != nullptr && LoadState(*self) == LX_STATE_TERMINATED) {
    return;
  }
  if (t_systemSections > 0) {  // holding a system lock: suspend once it is released
    t_suspensionDeferred = true;
    return;
  }
  const int savedErrno = errno;
  WaitForResume();
  errno = savedErrno;
}
