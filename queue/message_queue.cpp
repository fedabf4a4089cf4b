// Message queues on the host's POSIX message queues: the _lx_Queue services,
// run in the calling thread.
//
// Creation runs under G_sQueueLock. Sends, receives and flushes take no lock:
// the host's queue serialises them. The descriptor stays blocking for good;
// each call chooses its own wait: a timed call with a deadline long past for
// no wait or now + ticks for a finite wait, the untimed call for forever, so calls
// with different wait options on one queue never change each other's mode.
#include <fcntl.h>
#include <mqueue.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "cm/cm_internal.h"
#include "cm/debug_table.h"
#include "kernel/deadline.h"
#include "queue/queue_internal.h"

pthread_mutex_t G_sQueueLock = PTHREAD_MUTEX_INITIALIZER;

namespace quorvin::detail {
namespace {

// Every record ever made, newest first, so that none becomes unreachable
// when a handle word is overwritten by a second creation. G_sQueueLock.
MqQueueRecord* S_psQueueRecords = nullptr;
QV_DEBUG_ENTRY("mqlist", &S_psQueueRecords, offsetof(MqQueueRecord, psNextRecord));
QV_DEBUG_ENTRY("mqbytes", nullptr, offsetof(MqQueueRecord, u32MessageBytes));

constexpr std::size_t kNameBytes = 31;  // "/mq_" and 26 characters of the name
constexpr mode_t kPermissions = 0770;

MqQueueRecord* RecordOf(LX_QUEUE* handle) noexcept {
  if (handle == nullptr) return nullptr;
  // Published by the creation with a release store; the record is never
  // changed afterwards.
  MqQueueCtrl* ctrl = std::atomic_ref<MqQueueCtrl*>(*handle).load(std::memory_order_acquire);
  return reinterpret_cast<MqQueueRecord*>(ctrl);
}

constexpr bool ValidWords(uint16_t words) noexcept {
  return words == 1 || words == 2 || words == 4 || words == 8 || words == 16;
}

// Opens the queue and returns its descriptor and real message size: a new
// queue with the given attributes, or else the existing one as it is.
// found tells the second case. -1 when neither works.
mqd_t OpenQueue(const char* name, mq_attr& attr, bool& found) noexcept {
  found = false;
  mqd_t des = ::mq_open(name, O_CREAT | O_EXCL | O_RDWR, kPermissions, &attr);
  if (des != -1 || errno != EEXIST) return des;
  des = ::mq_open(name, O_RDWR);
  if (des == -1) return des;
  if (::mq_getattr(des, &attr) != 0) {
    ::mq_close(des);
    return -1;
  }
  found = true;
  return des;
}

// Send or receive one message. A deadline of zero lies in the past, so a
// call without wait fails at once when it would block.
// Not noexcept: a terminate may cancel the thread in the wait.
LX_STATUS Transfer(LX_QUEUE* handle, void* buffer, uint32_t waitOption, bool send, uint32_t priority) {
  const MqQueueRecord* queue = RecordOf(handle);
  if (queue == nullptr) return LX_QUEUE_ERROR;
  if (buffer == nullptr) return LX_PTR_ERROR;
  timespec deadline{};
  const timespec* until = &deadline;
  if (waitOption == LX_WAIT_FOREVER) {
    until = nullptr;
  } else if (waitOption != LX_NO_WAIT && !DeadlineInTicks(waitOption, deadline)) {
    return LX_QUEUE_ERROR;
  }
  const mqd_t des = queue->sCtrl.i32MqDes;
  const std::size_t bytes = queue->u32MessageBytes;
  // glibc declares the deadline of the timed calls non-null: forever takes the untimed ones.
  const int error = RetryInterrupted([&] {
    if (send) {
      return until != nullptr ? ::mq_timedsend(des, static_cast<const char*>(buffer), bytes, priority, until)
                              : ::mq_send(des, static_cast<const char*>(buffer), bytes, priority);
    }
    const ssize_t got = until != nullptr ? ::mq_timedreceive(des, static_cast<char*>(buffer), bytes, nullptr, until)
                                         : ::mq_receive(des, static_cast<char*>(buffer), bytes, nullptr);
    if (got > 0) return 0;
    if (got == 0) errno = EMSGSIZE;  // an empty message is no message
    return -1;
  });
  if (error == 0) return LX_SUCCESS;
  if (error == EAGAIN || error == ETIMEDOUT) return send ? LX_QUEUE_FULL : LX_QUEUE_EMPTY;
  return LX_QUEUE_ERROR;
}

LX_STATUS NotImplemented(const char* service) noexcept {
  // printf is a cancellation point, and a terminate may not unwind through
  // a noexcept function: it would end the whole process.
  NoCancelScope noCancel;
  std::printf("%s is not implement\n", service);
  return LX_SUCCESS;
}

}  // namespace

uint32_t MessageBytesOf(LX_QUEUE* handle) noexcept {
  const MqQueueRecord* queue = RecordOf(handle);
  return queue != nullptr ? queue->u32MessageBytes : 0;
}

}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_QueueCreate(LX_QUEUE* psQueue, const char* pcName, uint16_t u16MessageWords, void* pvQueueStart,
                          uint32_t u32QueueBytes) {
  if (psQueue == nullptr) return LX_QUEUE_ERROR;
  if (pvQueueStart == nullptr) return LX_PTR_ERROR;
  if (!ValidWords(u16MessageWords) || u16MessageWords > u32QueueBytes / 4) return LX_SIZE_ERROR;
  SystemSection section;
  PosixMutex queueLock(G_sQueueLock);
  std::lock_guard lock(queueLock);
  const uint32_t messageBytes = u16MessageWords * 4u;
  mq_attr attr{};
  attr.mq_msgsize = messageBytes;
  attr.mq_maxmsg = u32QueueBytes / messageBytes;
  char name[kNameBytes];
  std::snprintf(name, sizeof name, "/mq_%s", pcName != nullptr ? pcName : "");
  auto* record = static_cast<MqQueueRecord*>(std::calloc(1, sizeof(MqQueueRecord)));
  if (record == nullptr) return LX_QUEUE_ERROR;  // handle word untouched, nothing opened
  bool found = false;
  record->sCtrl.i32MqDes = OpenQueue(name, attr, found);
  record->u32MessageBytes = record->sCtrl.i32MqDes != -1 ? static_cast<uint32_t>(attr.mq_msgsize) : 0;
  record->psNextRecord = S_psQueueRecords;
  S_psQueueRecords = record;
  std::atomic_ref<MqQueueCtrl*>(*psQueue).store(&record->sCtrl, std::memory_order_release);
  if (record->sCtrl.i32MqDes == -1) return LX_QUEUE_ERROR;
  if (found) _lx_QueueFlush(psQueue);
  return LX_SUCCESS;
}

LX_STATUS LP_QueueSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption, uint32_t u32Priority) {
  return Transfer(psQueue, pvSource, u32WaitOption, true, u32Priority);
}

LX_STATUS _lx_QueueSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption) {
  return Transfer(psQueue, pvSource, u32WaitOption, true, LX_QUEUE_BACK_PRIORITY);
}

LX_STATUS _lx_QueueFrontSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption) {
  return Transfer(psQueue, pvSource, u32WaitOption, true, LX_QUEUE_FRONT_PRIORITY);
}

LX_STATUS _lx_QueueReceive(LX_QUEUE* psQueue, void* pvDestination, uint32_t u32WaitOption) {
  return Transfer(psQueue, pvDestination, u32WaitOption, false, 0);
}

LX_STATUS _lx_QueueFlush(LX_QUEUE* psQueue) {
  const MqQueueRecord* queue = RecordOf(psQueue);
  if (queue == nullptr || queue->sCtrl.i32MqDes == -1) return LX_QUEUE_ERROR;
  MessageScratch scratch(queue->u32MessageBytes);
  if (scratch.data() == nullptr) return LX_QUEUE_ERROR;
  const timespec past{};
  while (::mq_timedreceive(queue->sCtrl.i32MqDes, reinterpret_cast<char*>(scratch.data()), queue->u32MessageBytes,
                           nullptr, &past) >= 0) {
  }
  return LX_SUCCESS;
}

LX_STATUS _lx_QueueDelete(LX_QUEUE*) { return NotImplemented("_lx_QueueDelete"); }

LX_STATUS _lx_QueueInfoGet(LX_QUEUE*, char**, uint32_t*, uint32_t*, LX_THREAD**, uint32_t*, LX_QUEUE**) {
  return NotImplemented("_lx_QueueInfoGet");
}

LX_STATUS _lx_QueuePrioritize(LX_QUEUE*) { return NotImplemented("_lx_QueuePrioritize"); }
