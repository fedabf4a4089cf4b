// Semaphores: the _lx_Semaphore services, served in the calling thread on a
// POSIX unnamed semaphore (private to the process).
//
// The POSIX semaphore does all the locking; this file takes no lock. The
// handle word is written once by create (release) and read by get and put
// (acquire), so a semaphore is never seen half initialised. A waiting thread
// keeps its state READY: the dispatcher's wait abort does not reach it.
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "cm/cm_internal.h"
#include "kernel/deadline.h"
#include "kernel/platform.h"
#include "quorvin/lx_semaphore.h"

namespace quorvin::detail {
namespace {

constexpr int kLogLevel = 3;
constexpr int kLogFlag = 1;

sem_t* SemaphoreOf(LX_SEMAPHORE* handle) noexcept {
  return std::atomic_ref<sem_t*>(*handle).load(std::memory_order_acquire);
}

void LogNotImplemented(const char* service) noexcept {
  DiagLog(kLogLevel, kLogFlag, "%s is not implement\n", service);
}

// A get on a NULL handle word is logged and takes nothing.
[[gnu::noinline, gnu::cold]] LX_STATUS InvalidGet() noexcept {
  DiagLog(kLogLevel, kLogFlag, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  return LX_SUCCESS;
}

// Status of a POSIX wait that returned its errno (0: success).
LX_STATUS WaitStatus(int error) noexcept {
  if (error == 0) return LX_SUCCESS;
  return error == EAGAIN || error == ETIMEDOUT ? LX_NO_INSTANCE : LX_SEMAPHORE_ERROR;
}

// A get that may wait (kept out of line, so the no-wait get stays short).
// Not noexcept: a terminate may cancel the thread in the wait.
[[gnu::noinline]] LX_STATUS WaitingGet(LX_SEMAPHORE* handle, uint32_t wait) {
  if (CallerIsTimerThread()) return LX_WAIT_ERROR;
  sem_t* semaphore = SemaphoreOf(handle);
  if (semaphore == nullptr) return InvalidGet();
  if (wait == LX_WAIT_FOREVER) return WaitStatus(RetryInterrupted([&] { return sem_wait(semaphore); }));
  timespec deadline{};
  if (!DeadlineInTicks(wait, deadline)) return LX_SEMAPHORE_ERROR;
  return WaitStatus(RetryInterrupted([&] { return sem_timedwait(semaphore, &deadline); }));
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_SemaphoreCreate(LX_SEMAPHORE* psSemaphore, const char*, uint32_t u32InitialCount) {
  if (psSemaphore == nullptr) return LX_SEMAPHORE_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;
  auto* semaphore = static_cast<sem_t*>(std::calloc(1, sizeof(sem_t)));
  if (semaphore == nullptr) return LX_SEMAPHORE_ERROR;
  if (sem_init(semaphore, 0, u32InitialCount) != 0) {  // e.g. above SEM_VALUE_MAX
    std::free(semaphore);
    return LX_SEMAPHORE_ERROR;
  }
  KeepBlock(semaphore);  // never freed
  std::atomic_ref<sem_t*>(*psSemaphore).store(semaphore, std::memory_order_release);
  return LX_SUCCESS;
}

LX_STATUS _lx_SemaphoreGet(LX_SEMAPHORE* psSemaphore, uint32_t u32WaitOption) {
  if (psSemaphore == nullptr) return LX_SEMAPHORE_ERROR;
  // Only a get that may wait needs to know its caller.
  if (u32WaitOption != LX_NO_WAIT) return WaitingGet(psSemaphore, u32WaitOption);
  sem_t* semaphore = SemaphoreOf(psSemaphore);
  if (semaphore == nullptr) return InvalidGet();
  return WaitStatus(RetryInterrupted([&] { return sem_trywait(semaphore); }));
}

LX_STATUS _lx_SemaphorePut(LX_SEMAPHORE* psSemaphore) {
  if (psSemaphore == nullptr) return LX_SEMAPHORE_ERROR;
  sem_t* semaphore = SemaphoreOf(psSemaphore);
  if (semaphore == nullptr) {
    DiagLog(kLogLevel, kLogFlag, "%s: Invalid sempaphore to return!", "_lx_SemaphorePut");
    return LX_SUCCESS;
  }
  return sem_post(semaphore) == 0 ? LX_SUCCESS : LX_SEMAPHORE_ERROR;  // EOVERFLOW at SEM_VALUE_MAX
}

LX_STATUS _lx_SemaphoreDelete(LX_SEMAPHORE*) {
  LogNotImplemented("_lx_SemaphoreDelete");
  return LX_SUCCESS;
}

LX_STATUS _lx_SemaphoreInfoGet(LX_SEMAPHORE*, char**, uint32_t*, LX_THREAD**, uint32_t*, LX_SEMAPHORE**) {
  LogNotImplemented("_lx_SemaphoreInfoGet");
  return LX_SUCCESS;
}

LX_STATUS _lx_SemaphorePrioritize(LX_SEMAPHORE*) {
  LogNotImplemented("_lx_SemaphorePrioritize");
  return LX_SUCCESS;
}
