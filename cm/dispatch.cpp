// The dispatcher's table of service classes, indexed by service code >> 4.
//
// Each object class contributes its class function and its time-out handler
// here. A class without a class function (0x40, 0x90 and above, and classes
// not built into this library) is answered with LX_NOT_AVAILABLE.
#include <array>

#include "cm/cm_internal.h"
#include "quorvin/lx_mutex.h"
#include "quorvin/lx_pool.h"
#include "quorvin/lx_queue.h"
#include "sync/sync_internal.h"

namespace quorvin::detail {
namespace {

void SystemClass(uint16_t service, CmServiceRequest* request) { CM_SystemFunction(service, request); }

std::array<ClassEntry, kClassCount> g_classes = [] {
  std::array<ClassEntry, kClassCount> table{};
  table[ClassIndex(CM_CLASS_SYSTEM)] = {&SystemClass, nullptr};
  table[ClassIndex(CM_CLASS_BLOCK_POOL)] = {&CM_BlockFunction, &CM_BlockWakeUp};
  table[ClassIndex(CM_CLASS_BYTE_POOL)] = {&CM_ByteFunction, &CM_ByteWakeUp};
  table[ClassIndex(CM_CLASS_MUTEX)] = {&CM_MutexFunction, &CM_MutexWakeUp};
  table[ClassIndex(CM_CLASS_QUEUE)] = {&CM_QueueFunction, &CM_QueueWakeUp};
  table[ClassIndex(CM_CLASS_SEMAPHORE)] = {&SemaphoreClassFunction, &SemaphoreClassWakeUp};
  table[ClassIndex(CM_CLASS_EVENT_FLAGS)] = {&EventFlagsClassFunction, &EventFlagsClassWakeUp};
  table[ClassIndex(CM_CLASS_THREAD)] = {&CM_ThreadFunction, nullptr};  // time-outs: CM_SystemFunction
  return table;
}();

}  // namespace

const ClassEntry* FindClass(uint16_t service) noexcept {
  const unsigned index = ClassIndex(service);
  return index < g_classes.size() ? &g_classes[index] : nullptr;
}

ClassEntry ReplaceClassEntry(unsigned classIndex, ClassEntry entry) noexcept {
  if (classIndex >= g_classes.size() || classIndex == ClassIndex(CM_CLASS_SYSTEM)) return {};
  const ClassEntry previous = g_classes[classIndex];
  g_classes[classIndex] = entry;
  return previous;
}

}  // namespace quorvin::detail
