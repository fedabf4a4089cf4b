// Request list and dispatcher thread "CMRH".
//
// A requester appends its request under S_sCmLock, releases the lock, writes
// one wake byte if it found the dispatcher idle, and blocks on the request's
// own reply pipe. The dispatcher holds S_sCmLock for a whole pass and hands every
// queued request, in order, to its class function, which completes it (status,
// then one reply byte) or parks it on a suspend list.
//
// Wake-ups cannot be lost: requests are appended only under the lock, and the
// dispatcher sets S_i8CmIdle before it reads the list; the requester that
// clears the flag owes the one byte, so at most one is ever pending and the
// pass it starts finds every request queued before it.
//
// A mutex, block-pool or byte-pool request issued by an interface service
// that finds the request list empty skips the queue: its thread runs the class
// handler itself under S_sCmLock, which is what the dispatcher, idle between
// passes, would do next. A request answered there needs no pipe and no thread
// switch; one that parks gets its reply pipe before the lock is released and
// waits like any other.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "cm/cm_internal.h"
#include "cm/trace.h"
#include "quorvin/lx_log.h"
#include "quorvin/lx_timer.h"

CmServiceRequest* S_psTop = nullptr;
CmServiceRequest* S_psEnd = nullptr;

namespace quorvin::detail {

pthread_mutex_t S_sCmLock = PTHREAD_MUTEX_INITIALIZER;
int32_t S_i32CmPIPE[2] = {-1, -1};
int8_t S_i8CmIdle = 1;
pthread_t S_sCmThread;
int32_t S_i32CmTid = 0;

namespace {
constinit PosixMutex g_cmLock(S_sCmLock);
}  // namespace

PosixMutex& CmLock() noexcept { return g_cmLock; }

namespace {

constexpr char kWakeByte = 'A';
constexpr char kPipeFailMessage[] = "Create ComponentManagerRequestHandel() pipe fail! \n exit()\n";
constexpr char kThreadFailMessage[] = "Create ComponentManagerRequestHandel() fail! \n exit()\n";
static_assert(sizeof kPipeFailMessage - 1 == 59 && sizeof kThreadFailMessage - 1 == 54);

}  // namespace

bool MoveOneByte(int fd, bool write) {
  // No byte ever moves through a negative descriptor, and poll would wait on
  // one for ever, should a signal handler have left EAGAIN in errno.
  if (fd < 0) return false;
  char byte = kWakeByte;
  for (;;) {
    const ssize_t n = write ? ::write(fd, &byte, 1) : ::read(fd, &byte, 1);
    if (n == 1) return true;
    if (n == 0) return false;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return false;
    pollfd waiter{fd, static_cast<short>(write ? POLLOUT : POLLIN), 0};
    ::poll(&waiter, 1, -1);
  }
}

namespace {

void FatalStartup(const char* message, std::size_t length) {
  FILE* stream = hCM_Error != nullptr ? hCM_Error : stderr;
  std::fwrite(message, 1, length, stream);
  std::fflush(stream);
  std::exit(0);
}

// Appends a request; returns whether the dispatcher is idle and must be sent
// the wake byte (by the caller, once it has released the lock). S_sCmLock held.
bool AppendLocked(CmServiceRequest& request) noexcept {
  CM_RequestAdd(&request);
  QV_TRACE3(request__queued, &request, LoadService(request), request.psThread);
  if (S_i8CmIdle != 1) return false;
  S_i8CmIdle = 0;
  return true;
}

void Dispatch(CmServiceRequest& request) noexcept {
  const uint16_t service = LoadService(request);  // a terminate may clear it meanwhile
  const ClassEntry* entry = FindClass(service);
  QV_TRACE2(request__dispatched, &request, service);
  if (entry != nullptr && entry->function != nullptr) {
    entry->function(service, &request);
  } else {
    CompleteLocked(request, LX_NOT_AVAILABLE);
  }
}

// The request whose class handler the calling thread runs itself, and whether
// the handler has answered it: CM_WakeUpThread notes the answer here instead
// of writing a byte, for such a request has no reply pipe.
[[gnu::tls_model("initial-exec")]] thread_local CmServiceRequest* t_handledHere = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local bool t_answeredHere = false;

// Classes whose handlers act only on their object and on the requests parked
// on it, never on the calling thread itself: their requests may be handled in
// the calling thread.
bool MayRunHere(uint16_t service) noexcept {
  const unsigned index = ClassIndex(service);
  return index == ClassIndex(CM_CLASS_MUTEX) || index == ClassIndex(CM_CLASS_BLOCK_POOL) ||
         index == ClassIndex(CM_CLASS_BYTE_POOL);
}

// Runs a request's class handler in the calling thread, as the dispatcher
// would. Returns whether the request was parked: it then has its reply pipe,
// made before the lock is released, so no release can reach it sooner.
// Otherwise it is finished: answered by its handler without a pipe, or, when
// no pipe can be made for its wait, taken off its suspend list and the sleep
// agent again and refused as CM_Request refuses it. S_sCmLock held.
bool RunHereLocked(CmServiceRequest& request) noexcept {
  StoreInSleepAgent(request, 0);
  request.ai32ReplyPipe[0] = request.ai32ReplyPipe[1] = -1;
  ThreadControlBlock* tcb = TcbOf(request.psThread);
  const uint16_t state = tcb != nullptr ? LoadState(*tcb) : LX_STATE_READY;
  t_handledHere = &request;
  t_answeredHere = false;
  Dispatch(request);
  t_handledHere = nullptr;
  if (!t_answeredHere) {
    if (::pipe2(request.ai32ReplyPipe, O_CLOEXEC) == 0) return true;
    request.ai32ReplyPipe[0] = request.ai32ReplyPipe[1] = -1;
    if (SuspendCtrl* list = ParkedList(request)) {
      CM_RemoveTargetFromSuspendListEx(list, &request.sSuspendNode, CM_REMOVE_UNLINK_ONLY, CM_STATUS_UNUSED);
    }
    if (LoadInSleepAgent(request) != 0) {
      StoreInSleepAgent(request, 0);
      SleepAgentRemoveRequest(&request);
    }
    if (tcb != nullptr) StoreState(*tcb, state);
    request.u16Status = LX_NOT_AVAILABLE;
  }
  StoreService(request, 0);
  return false;
}

// The timer-thread rule: a wait asked for by the timer thread is refused.
// S_sCmLock held.
bool RefuseTimerWaitLocked(CmServiceRequest& request) noexcept {
  if (request.psThread != G_psTimer || LoadWaitOption(request) == LX_NO_WAIT) return false;
  request.u16Status = LX_WAIT_ERROR;
  SetThreadState(request.psThread, LX_STATE_READY);
  return true;
}

// The first half of a request that may be handled here; returns whether it
// must wait for its reply. With the list empty the dispatcher is between
// passes (a pass holds the lock), so running the handler now is what it
// would do next; a request that finds others queued waits its turn behind
// them. Nothing in the section is a cancellation point except the pipe writes
// (a hand-over's reply byte, the wake byte), which hold cancellation off
// themselves, so the common case costs no change of the cancel state.
bool StartHere(CmServiceRequest& request) {
  NoSuspendSection section;
  Enqueued enqueued = Enqueued::kRefused;
  {
    std::lock_guard lock(CmLock());
    if (RefuseTimerWaitLocked(request)) return false;
    if (S_psTop == nullptr) return RunHereLocked(request);
    enqueued = EnqueueLocked(request);
  }
  if (enqueued == Enqueued::kWakeDispatcher) {
    NoCancelScope noCancel;
    WakeDispatcher();
  }
  return enqueued != Enqueued::kRefused;
}

// Both sides of a request. mayRunHere: the caller's own block, issued by an
// interface service (CM_Request itself always queues).
void RequestImpl(CmServiceRequest& request, bool mayRunHere) {
  if (mayRunHere && MayRunHere(LoadService(request))) {
    if (StartHere(request)) AwaitCompletion(request);
    return;
  }
  {
    SystemSection section;
    Enqueued enqueued = Enqueued::kRefused;
    {
      std::lock_guard lock(CmLock());
      if (RefuseTimerWaitLocked(request)) return;
      enqueued = EnqueueLocked(request);
    }
    if (enqueued == Enqueued::kRefused) return;
    if (enqueued == Enqueued::kWakeDispatcher) WakeDispatcher();
  }
  AwaitCompletion(request);
}

}  // namespace

Enqueued EnqueueLocked(CmServiceRequest& request) noexcept {
  StoreInSleepAgent(request, 0);
  if (::pipe2(request.ai32ReplyPipe, O_CLOEXEC) != 0) {
    // No descriptor left for the reply: answer at once, queue nothing.
    request.ai32ReplyPipe[0] = request.ai32ReplyPipe[1] = -1;
    request.u16Status = LX_NOT_AVAILABLE;
    StoreService(request, 0);
    return Enqueued::kRefused;
  }
  return AppendLocked(request) ? Enqueued::kWakeDispatcher : Enqueued::kQueued;
}

// Written after the lock is released: a dispatcher woken while the requester
// still held the lock would only block on it again. The idle flag was cleared
// under the lock, so each idle spell still gets exactly one byte.
void WakeDispatcher() noexcept { MoveOneByte(S_i32CmPIPE[1], true); }

// Runs when the requester is cancelled while it waits for its reply (a
// terminate): takes the request off the request list, its suspend list and
// the sleep list, so no one ever writes to its pipe again, then closes it.
static void AbandonRequest(void* argument) {
  auto& request = *static_cast<CmServiceRequest*>(argument);
  {
    SystemSection section;
    std::lock_guard lock(CmLock());
    CmServiceRequest* previous = nullptr;
    for (CmServiceRequest* r = S_psTop; r != nullptr; previous = r, r = r->psNext) {
      if (r != &request) continue;
      (previous != nullptr ? previous->psNext : S_psTop) = r->psNext;
      if (S_psEnd == r) S_psEnd = previous;
      break;
    }
    if (SuspendCtrl* list = ParkedList(request)) {
      CM_RemoveTargetFromSuspendListEx(list, &request.sSuspendNode, CM_REMOVE_UNLINK_ONLY, CM_STATUS_UNUSED);
    }
    if (LoadInSleepAgent(request) != 0) {
      StoreInSleepAgent(request, 0);
      SleepAgentRemoveRequest(&request);
    }
    StoreService(request, 0);
  }
  ::close(request.ai32ReplyPipe[0]);
  ::close(request.ai32ReplyPipe[1]);
}

void IssueRequest(CmServiceRequest& request) { RequestImpl(request, true); }

void AwaitCompletion(CmServiceRequest& request) {
  // The read is the one place a requester can be cancelled.
  pthread_cleanup_push(AbandonRequest, &request);
  MoveOneByte(request.ai32ReplyPipe[0], false);
  pthread_cleanup_pop(0);
  SystemSection section;
  ::close(request.ai32ReplyPipe[0]);
  ::close(request.ai32ReplyPipe[1]);
  {
    // Once the lock can be had, the pass that completed the request is over:
    // the dispatcher has left the handler and read psNext.
    std::lock_guard lock(CmLock());
  }
  StoreService(request, 0);
}

}  // namespace quorvin::detail

using namespace quorvin::detail;

int32_t CM_WakeUpThreadEx(int32_t i32Fd) {
  MoveOneByte(i32Fd, true);
  return 0;
}

int32_t CM_WaitingSignalEx(int32_t i32Fd) {
  MoveOneByte(i32Fd, false);
  return 0;
}

int32_t CM_WakeUpThread(CmServiceRequest* psRequest) {
  QV_TRACE2(request__completed, psRequest, psRequest->u16Status);
  if (t_handledHere != nullptr) {  // a handler run by a requester itself
    if (psRequest == t_handledHere) {  // its own request: no pipe
      t_answeredHere = true;
      return 0;
    }
    NoCancelScope noCancel;  // S_sCmLock is held
    MoveOneByte(psRequest->ai32ReplyPipe[1], true);
    return 0;
  }
  MoveOneByte(psRequest->ai32ReplyPipe[1], true);
  return 0;
}

int32_t CM_WaitingSignal(CmServiceRequest* psRequest) {
  MoveOneByte(psRequest->ai32ReplyPipe[0], false);
  ::close(psRequest->ai32ReplyPipe[0]);
  ::close(psRequest->ai32ReplyPipe[1]);
  return 0;
}

void CM_Initial(void) {
  static bool started = false;  // one dispatcher per process
  if (started) return;
  started = true;
  S_psSleepTop = nullptr;
  S_psSleepEnd = nullptr;
  S_psTop = nullptr;
  S_psEnd = nullptr;
  {
    std::lock_guard lock(CmLock());
    S_i8CmIdle = 1;
  }
  if (::pipe2(S_i32CmPIPE, O_CLOEXEC) != 0) FatalStartup(kPipeFailMessage, sizeof kPipeFailMessage - 1);
  if (pthread_create(&S_sCmThread, nullptr, ComponentManagerRequestHandle, nullptr) != 0) {
    FatalStartup(kThreadFailMessage, sizeof kThreadFailMessage - 1);
  }
}

void CM_Request(CmServiceRequest* psRequest) {
  if (psRequest != nullptr) RequestImpl(*psRequest, false);
}

void CM_RequestAdd(CmServiceRequest* psRequest) {
  if (S_psEnd != nullptr) {
    S_psEnd->psNext = psRequest;
  } else {
    S_psTop = psRequest;
  }
  S_psEnd = psRequest;
  psRequest->psNext = nullptr;
}

void CM_RequestFree(void) {
  if (S_psTop == nullptr) return;
  S_psTop = S_psTop->psNext;
  if (S_psTop == nullptr) S_psEnd = nullptr;
}

void* ComponentManagerRequestHandle(void*) {
  SaveLogFile(LX_PID_LIST_PATH, "Name: CMRH, pid:%ld\n", static_cast<long>(::syscall(SYS_gettid)));
  ::prctl(PR_SET_NAME, "CMRH", 0, 0, 0);
  StoreRelaxed(S_i32CmTid, static_cast<int32_t>(::syscall(SYS_gettid)));
  for (;;) {
    if (!MoveOneByte(S_i32CmPIPE[0], false)) {
      // The wake pipe has failed for good: keep serving, polling once a
      // millisecond, rather than spin or stop answering requests.
      const timespec pause{0, 1000000};
      ::nanosleep(&pause, nullptr);
    }
    std::lock_guard lock(CmLock());
    S_i8CmIdle = 1;
    while (S_psTop != nullptr) {
      CmServiceRequest* request = S_psTop;
      Dispatch(*request);
      S_psTop = request->psNext;
    }
    S_psEnd = nullptr;
  }
  return nullptr;
}

int32_t CM_SystemFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  psRequest->u16Status = LX_SUCCESS;
  if (u16Service != CM_OP_TIMEOUT) {
    psRequest->u16Status = LX_NOT_AVAILABLE;
  } else {
    auto* expired = static_cast<CmServiceRequest*>(psRequest->pvObject);
    const uint16_t expiredClass =
        expired != nullptr ? static_cast<uint16_t>(LoadService(*expired) & 0xFFF0) : 0;
    const ClassEntry* entry = FindClass(expiredClass);
    if (expiredClass == CM_CLASS_THREAD) {
      // A thread waiting on a time-out alone: its status stays as set.
      SleepAgentRemoveRequest(expired);
      StoreInSleepAgent(*expired, 0);
      SetThreadState(expired->psTarget, LX_STATE_READY);
      CM_WakeUpThread(expired);
    } else if (expiredClass != CM_CLASS_SYSTEM && entry != nullptr && entry->wakeUp != nullptr) {
      entry->wakeUp(psRequest);
    } else {
      // Released meanwhile (service code cleared) or a class without one.
      psRequest->u16Status = LX_NOT_AVAILABLE;
    }
  }
  CM_WakeUpThread(psRequest);
  return 0;
}
