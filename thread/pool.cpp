// The thread pool and thread identification.
#include <signal.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "cm/debug_table.h"
#include "quorvin/lx_thread.h"

#include "thread/thread_internal.h"

ThreadControlBlock* S_paThreadPool[LX_THREAD_POOL_SLOTS] = {};
int32_t S_i32ThreadPoolIndex = 0;
pthread_mutex_t G_sThreadPoolLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t G_sThreadCreateLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t G_sThreadInitLock = PTHREAD_MUTEX_INITIALIZER;
uint8_t G_u8ThreadLock = 0;
__sigset_t G_sSignalMasktTble;

namespace quorvin::detail {

LX_THREAD S_psScheduler = nullptr;
QV_DEBUG_ENTRY("quorvin", nullptr, 1);  // format of the entries
QV_DEBUG_ENTRY("pool", S_paThreadPool, LX_THREAD_POOL_SLOTS);
QV_DEBUG_ENTRY("poolcnt", &S_i32ThreadPoolIndex, 0);
QV_DEBUG_ENTRY("sched", &S_psScheduler, 0);
QV_DEBUG_ENTRY("tcbsize", nullptr, sizeof(ThreadControlBlock));
QV_DEBUG_ENTRY("rectid", nullptr, offsetof(ThreadRecord, kernelTid));
struct sigaction S_sThreadSignalAction;
uint8_t S_u8ThreadLockSpin = 1;

namespace {

ThreadControlBlock* LoadSlot(int32_t index) noexcept {
  return std::atomic_ref<ThreadControlBlock*>(S_paThreadPool[index]).load(std::memory_order_acquire);
}
void StoreSlot(int32_t index, ThreadControlBlock* tcb) noexcept {
  std::atomic_ref<ThreadControlBlock*>(S_paThreadPool[index]).store(tcb, std::memory_order_release);
}
int32_t LoadCount() noexcept {
  const int32_t count = std::atomic_ref<int32_t>(S_i32ThreadPoolIndex).load(std::memory_order_acquire);
  if (count < 0) return 0;
  return count < LX_THREAD_POOL_SLOTS ? count : LX_THREAD_POOL_SLOTS - 1;
}
void StoreCount(int32_t count) noexcept {
  std::atomic_ref<int32_t>(S_i32ThreadPoolIndex).store(count, std::memory_order_release);
}

}  // namespace

int32_t PoolCountLocked() noexcept { return LoadCount(); }

int32_t PoolFindLocked(LX_THREAD* handle, bool fromTop) noexcept {
  const int32_t count = LoadCount();
  for (int32_t k = 0; k < count; ++k) {
    const int32_t i = fromTop ? count - 1 - k : k;
    ThreadControlBlock* tcb = LoadSlot(i);
    if (tcb != nullptr && tcb->psSelf == handle) return i;
  }
  return -1;
}

void PoolAppendLocked(ThreadControlBlock* tcb) noexcept {
  const int32_t count = LoadCount();
  StoreSlot(count, tcb);
  StoreCount(count + 1);
  StoreSlot(count + 1, nullptr);
}

namespace {
ThreadRecord* g_recycled[LX_THREAD_POOL_SLOTS] = {};
int32_t g_recycledCount = 0;
}  // namespace

ThreadRecord* TakeRecordLocked() noexcept {
  if (g_recycledCount == 0) return static_cast<ThreadRecord*>(std::calloc(1, sizeof(ThreadRecord)));
  ThreadRecord* record = g_recycled[--g_recycledCount];
  // Zero everything but the thread id, which a lock-free scan may be reading
  // and which RecycleRecordLocked already cleared atomically.
  auto* bytes = reinterpret_cast<unsigned char*>(record);
  constexpr std::size_t idStart = offsetof(ThreadControlBlock, hThread);
  constexpr std::size_t idEnd = idStart + sizeof(pthread_t);
  std::memset(bytes, 0, idStart);
  std::memset(bytes + idEnd, 0, sizeof(ThreadRecord) - idEnd);
  return record;
}

void RecycleRecordLocked(ThreadRecord& record) noexcept {
  StoreThreadId(record.tcb, pthread_t{});
  if (g_recycledCount < LX_THREAD_POOL_SLOTS) {
    g_recycled[g_recycledCount++] = &record;
  } else {
    std::free(&record);  // cannot happen: no more records exist than slots
  }
}

void PoolRemoveAtLocked(int32_t index) noexcept {
  const int32_t last = LoadCount() - 1;
  StoreSlot(index, LoadSlot(last));
  StoreSlot(last, nullptr);
  StoreCount(last);
}

ThreadRecord* PooledRecord(const ThreadControlBlock* tcb) noexcept {
  if (tcb == nullptr) return nullptr;
  for (int32_t i = LoadCount() - 1; i >= 0; --i) {
    ThreadControlBlock* entry = LoadSlot(i);
    if (entry == tcb) return &RecordOf(*entry);
  }
  return nullptr;
}

namespace {

// The record whose control block holds this request, if it is in the pool.
ThreadRecord* RecordOfRequest(const CmServiceRequest& request) noexcept {
  for (int32_t i = LoadCount() - 1; i >= 0; --i) {
    ThreadControlBlock* entry = LoadSlot(i);
    if (entry != nullptr && &entry->sRequest == &request) return &RecordOf(*entry);
  }
  return nullptr;
}

}  // namespace

void NoteParked(CmServiceRequest& request, SuspendCtrl* list) noexcept {
  if (ThreadRecord* record = RecordOfRequest(request)) record->parkedOn = list;
}

SuspendCtrl* ParkedList(const CmServiceRequest& request) noexcept {
  const ThreadRecord* record = RecordOfRequest(request);
  return record != nullptr ? record->parkedOn : nullptr;
}

}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_THREAD* _lx_ThreadIdentify(void) {
  const pthread_t self = pthread_self();
  for (int32_t i = LoadCount() - 1; i >= 0; --i) {
    ThreadControlBlock* tcb = LoadSlot(i);
    if (tcb != nullptr && pthread_equal(LoadThreadId(*tcb), self)) return tcb->psSelf;
  }
  return nullptr;
}
