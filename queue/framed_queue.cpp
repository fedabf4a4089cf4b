// Framed queues: messages of any fixed size kept in slots of the
// application's buffer, with only the slot's offset going through an
// underlying word queue. Runs in the calling thread.
//
// Slot state bytes are read and written atomically; the body copies are
// ordered by them. A sender fills the body and then marks the slot full
// (release). A receiver claims a full slot by moving its state from 1 to
// kCopying (acquire) -- under the lock when there is one -- copies the body
// out after the lock is released, and frees the slot last (release), so no
// sender reuses the slot before the copy is done. A flush frees every slot
// but one being copied out: that copy finishes intact and frees its slot
// itself.
#include <atomic>
#include <cstring>

#include "cm/cm_internal.h"
#include "kernel/platform.h"
#include "queue/queue_internal.h"
#include "quorvin/lx_framed_queue.h"

namespace quorvin::detail {
namespace {

constexpr uint8_t kFree = 0;
constexpr uint8_t kFull = 1;
constexpr uint8_t kCopying = 2;  // claimed by a receiver that copies it out
constexpr uint32_t kSendWaitTicks = 100;
constexpr int kLogLevel = 2;
constexpr int kLogFlag = 1;
constexpr int kLineReceiveFailed = 269;
constexpr int kLineNotAFullSlot = 294;

static_assert(std::atomic_ref<uint8_t>::is_always_lock_free);

std::atomic_ref<uint8_t> StateAt(const FramedQueueCtrl& queue, uint32_t offset) noexcept {
  return std::atomic_ref<uint8_t>(queue.pu8SlotArea[offset]);
}

constexpr uint32_t Stride(const FramedQueueCtrl& queue) noexcept { return queue.u16MessageSize + 1u; }
constexpr uint32_t UsedBytes(const FramedQueueCtrl& queue) noexcept { return queue.u8SlotCount * Stride(queue); }
// Slot area with filler: the used bytes rounded down to a multiple of 4, plus 4.
constexpr uint32_t SlotAreaBytes(uint16_t size, uint8_t slots) noexcept {
  return ((static_cast<uint32_t>(size) + 1u) * slots & ~3u) + 4u;
}

void LogReceiveError(int line) noexcept { DiagLog(kLogLevel, kLogFlag, "Error in %s Line :%d\n", "QueueReceive", line); }

// The lock around the slot work, a no-op for a queue without one. Not
// noexcept: the wait for the lock is a cancellation point. A thread
// terminated while it holds the lock gives it back as it unwinds.
class SlotLock {
 public:
  SlotLock(FramedQueueCtrl& queue, uint32_t waitOption)
      : queue_(queue), status_(queue.u8Locked != 0 ? _lx_SemaphoreGet(&queue.psLockSemaphore, waitOption) : 0) {}
  ~SlotLock() { Release(); }
  SlotLock(const SlotLock&) = delete;
  SlotLock& operator=(const SlotLock&) = delete;
  LX_STATUS status() const noexcept { return status_; }
  void Release() noexcept {
    if (queue_.u8Locked != 0 && status_ == LX_SUCCESS) _lx_SemaphorePut(&queue_.psLockSemaphore);
    status_ = LX_NOT_AVAILABLE;
  }

 private:
  FramedQueueCtrl& queue_;
  LX_STATUS status_;
};

// Posts a slot offset through a scratch of the underlying queue's real
// message size, so that a bigger queue found under the same name reads
// nothing beyond it. May wait: not noexcept.
LX_STATUS PostOffset(FramedQueueCtrl& queue, uint32_t offset, bool atBack, uint32_t waitOption) {
  MessageScratch scratch(MessageBytesOf(&queue.psMsgQueue));
  if (scratch.data() == nullptr) return LX_QUEUE_ERROR;
  std::memcpy(scratch.data(), &offset, sizeof offset);
  return atBack ? _lx_QueueSend(&queue.psMsgQueue, scratch.data(), waitOption)
                : _lx_QueueFrontSend(&queue.psMsgQueue, scratch.data(), waitOption);
}

bool Created(const FramedQueueCtrl* queue) noexcept { return queue != nullptr && queue->pu8SlotArea != nullptr; }

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

uint32_t QueueCalcSize(uint16_t u16MessageSize, uint8_t u8SlotCount) {
  return ((static_cast<uint32_t>(u16MessageSize) + 5u) * u8SlotCount & ~3u) + 4u;
}

LX_STATUS QueueCreate(FramedQueueCtrl* psQueue, const char* pcName, uint16_t u16MessageSize, uint8_t u8SlotCount,
                      void* pvBuffer, uint32_t, int32_t i32Locked) {
  if (psQueue == nullptr || u8SlotCount == 0 || pvBuffer == nullptr) return LX_QUEUE_ERROR;
  FramedQueueCtrl& queue = *psQueue;
  queue.pu8SlotArea = static_cast<uint8_t*>(pvBuffer);
  queue.u16MessageSize = u16MessageSize;
  queue.u8SlotCount = u8SlotCount;
  const uint32_t slotArea = SlotAreaBytes(u16MessageSize, u8SlotCount);
  std::memset(pvBuffer, 0, slotArea);
  if (_lx_QueueCreate(&queue.psMsgQueue, pcName, 1, queue.pu8SlotArea + slotArea, 4u * u8SlotCount) != LX_SUCCESS) {
    return LX_QUEUE_ERROR;
  }
  queue.u8Locked = i32Locked != 0 ? 1 : 0;
  if (queue.u8Locked != 0 && _lx_SemaphoreCreate(&queue.psLockSemaphore, pcName, 1) != LX_SUCCESS) {
    _lx_QueueDelete(&queue.psMsgQueue);
    return LX_QUEUE_ERROR;
  }
  return LX_SUCCESS;
}

LX_STATUS QueueSend(FramedQueueCtrl* psQueue, const void* pvSource, int32_t i32NoWait, int32_t i32Placement) {
  if (!Created(psQueue)) return LX_QUEUE_ERROR;
  FramedQueueCtrl& queue = *psQueue;
  const uint32_t size = queue.u16MessageSize;
  if (size > 0 && pvSource == nullptr) return LX_PTR_ERROR;
  const uint32_t waitOption = i32NoWait != 0 ? LX_NO_WAIT : kSendWaitTicks;
  SlotLock lock(queue, waitOption);
  if (lock.status() != LX_SUCCESS) return (lock.status() & 0xFF) == LX_NO_INSTANCE ? LX_WAIT_ERROR : LX_QUEUE_ERROR;
  uint32_t offset = 0;
  while (offset < UsedBytes(queue) && StateAt(queue, offset).load(std::memory_order_acquire) != kFree) {
    offset += Stride(queue);
  }
  if (offset >= UsedBytes(queue)) return LX_QUEUE_FULL;
  if (PostOffset(queue, offset, i32Placement == FRAMED_QUEUE_AT_BACK, waitOption) != LX_SUCCESS) {
    return LX_QUEUE_ERROR;
  }
  if (size > 0) std::memcpy(queue.pu8SlotArea + offset + 1, pvSource, size);
  StateAt(queue, offset).store(kFull, std::memory_order_release);
  return LX_SUCCESS;
}

LX_STATUS QueueReceive(FramedQueueCtrl* psQueue, void* pvDestination, uint32_t u32WaitOption) {
  if (!Created(psQueue)) return LX_QUEUE_ERROR;
  FramedQueueCtrl& queue = *psQueue;
  const uint32_t size = queue.u16MessageSize;
  if (size > 0 && pvDestination == nullptr) return LX_PTR_ERROR;
  MessageScratch scratch(MessageBytesOf(&queue.psMsgQueue));
  if (scratch.data() == nullptr) return LX_QUEUE_ERROR;
  const LX_STATUS received = _lx_QueueReceive(&queue.psMsgQueue, scratch.data(), u32WaitOption);
  if (received == LX_QUEUE_EMPTY) return LX_QUEUE_EMPTY;
  if (received != LX_SUCCESS) {
    LogReceiveError(kLineReceiveFailed);
    return LX_QUEUE_ERROR;
  }
  uint32_t offset = 0;
  std::memcpy(&offset, scratch.data(), sizeof offset);
  // Should the lock not come, the message stays: its offset goes back to the
  // front, where it fits (it was just taken out), without waiting. The same
  // when a terminate cancels the thread in the lock's wait.
  struct PutBack {
    FramedQueueCtrl& queue;
    uint32_t offset;
    bool armed = true;
    ~PutBack() {
      if (!armed) return;
      SystemSection section;
      PostOffset(queue, offset, false, LX_NO_WAIT);
    }
  } putBack{queue, offset};
  SlotLock lock(queue, u32WaitOption);
  if (lock.status() != LX_SUCCESS) return LX_QUEUE_ERROR;
  putBack.armed = false;
  uint8_t expected = kFull;
  const bool claimed = offset < UsedBytes(queue) && offset % Stride(queue) == 0 &&
                       StateAt(queue, offset).compare_exchange_strong(expected, kCopying, std::memory_order_acquire);
  lock.Release();
  if (!claimed) {
    LogReceiveError(kLineNotAFullSlot);
    return LX_QUEUE_ERROR;
  }
  if (size > 0) std::memcpy(pvDestination, queue.pu8SlotArea + offset + 1, size);
  StateAt(queue, offset).store(kFree, std::memory_order_release);
  return LX_SUCCESS;
}

LX_STATUS QueueFlush(FramedQueueCtrl* psQueue) {
  if (!Created(psQueue)) return LX_QUEUE_ERROR;
  FramedQueueCtrl& queue = *psQueue;
  SlotLock lock(queue, LX_WAIT_FOREVER);
  if (lock.status() != LX_SUCCESS) return LX_QUEUE_ERROR;
  if (_lx_QueueFlush(&queue.psMsgQueue) != LX_SUCCESS) return LX_QUEUE_ERROR;
  for (uint32_t offset = 0; offset < UsedBytes(queue); offset += Stride(queue)) {
    uint8_t expected = kFull;
    if (StateAt(queue, offset).compare_exchange_strong(expected, kFree, std::memory_order_acq_rel) ||
        expected == kFree) {
      std::memset(queue.pu8SlotArea + offset + 1, 0, queue.u16MessageSize);
    }
  }
  return LX_SUCCESS;
}
