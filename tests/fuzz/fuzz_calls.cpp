// One random call per service family, with random and hostile arguments.
//
// Handles are drawn from what a service can tell apart: the classes with a
// registry (mutexes, event-flag groups, pools) also get another class's handle
// and the address of a word holding garbage; the others get NULL, a NULL
// word, live and deleted objects (see "Hostile arguments" in
// docs/decisions.md for what no service can detect and is therefore not fed).
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "fuzz/fuzz.h"

namespace quorvin::fuzz {
namespace {

constexpr uint32_t kBaseSizes[] = {0, 1, 3, 4, 7, 8, 9, 12, 64, 99, 100, 101, 4096, 0x7FFFFFFF, 0x80000000u,
                                   0xFFFFFFFFu};

// Words that hold garbage, for handles the registries must refuse. One set per
// thread: the victims draw handles too.
thread_local uintptr_t t_garbage[4];

template <typename T, size_t N>
T* Slot(Rng& rng, T (&words)[N]) {
  return &words[rng.Below(N)];
}

// A handle for a class with a registry: mostly one of its own slots, else
// NULL, another class's handle or a garbage word.
template <typename T, size_t N>
T* RegistryHandle(Rng& rng, T (&words)[N]) {
  World& w = TheWorld();
  switch (rng.Below(10)) {
    case 0: return nullptr;
    case 1: return reinterpret_cast<T*>(&w.semaphores[rng.Below(kSlots)]);
    case 2: return reinterpret_cast<T*>(rng.Percent(50) ? static_cast<void*>(&w.mutexes[rng.Below(kSlots)])
                                                        : static_cast<void*>(&w.blockPools[rng.Below(kSlots)]));
    case 3: {
      uintptr_t& word = t_garbage[rng.Below(4)];
      word = rng.Percent(50) ? static_cast<uintptr_t>(rng.Next()) : 0;
      return reinterpret_cast<T*>(&word);
    }
    default: return Slot(rng, words);
  }
}

// A handle for a class without a registry: NULL or one of its own slots
// (whose word may be NULL).
template <typename T, size_t N>
T* PlainHandle(Rng& rng, T (&words)[N]) {
  return rng.Percent(10) ? nullptr : Slot(rng, words);
}

// An empty slot to create in (never a word that names a live object), or NULL.
template <typename T, size_t N>
T* CreationHandle(Rng& rng, T (&words)[N]) {
  if (rng.Percent(15)) return nullptr;
  for (T& word : words) {
    if (LoadWord(word) == nullptr) return &word;
  }
  return nullptr;
}

const char* Name(Rng& rng) {
  static const char* const kNames[] = {"fz", "a-name-much-longer-than-nineteen", "", "x y", nullptr};
  return kNames[rng.Below(5)];
}

// An output pointer that is NULL now and then.
template <typename T>
T* Out(Rng& rng, T& out) {
  return rng.Percent(8) ? nullptr : &out;
}

// Room for the largest message of any queue the driver makes: 65,535 words
// of a host queue (framed queues stay under 400 bytes). A smaller buffer was
// overrun by large messages, into the thread's own descriptor next to its
// thread-local storage.
thread_local uint8_t t_message[65535 * 4];

void* Buffer(Rng& rng) { return rng.Percent(8) ? nullptr : t_message; }

// ---- Mutexes ----
void MutexCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  switch (r.Below(6)) {
    case 0:
      c.Check("_lx_MutexCreate",
              _lx_MutexCreate(CreationHandle(r, w.mutexes), Name(r), static_cast<uint16_t>(r.Percent(70) ? r.Below(2) : r.Size())),
              Statuses({LX_SUCCESS, LX_MUTEX_ERROR, LX_INHERIT_ERROR}));
      break;
    case 1:
      c.Check("_lx_MutexGet", _lx_MutexGet(RegistryHandle(r, w.mutexes), c.RefusedWait()),
              Statuses({LX_SUCCESS, LX_NOT_AVAILABLE, LX_WAIT_ABORTED, LX_DELETED, LX_MUTEX_ERROR, LX_CALLER_ERROR}));
      break;
    case 2:
      c.Check("_lx_MutexPut", _lx_MutexPut(RegistryHandle(r, w.mutexes)),
              Statuses({LX_SUCCESS, LX_MUTEX_ERROR, LX_CALLER_ERROR}));
      break;
    case 3:
      if (r.Percent(30)) {
        c.Check("_lx_MutexDelete", _lx_MutexDelete(RegistryHandle(r, w.mutexes)),
                Statuses({LX_SUCCESS, LX_MUTEX_ERROR, LX_CALLER_ERROR}));
      }
      break;
    case 4:
      c.Check("_lx_MutexPrioritize", _lx_MutexPrioritize(RegistryHandle(r, w.mutexes)),
              Statuses({LX_SUCCESS, LX_MUTEX_ERROR, LX_NOT_AVAILABLE, LX_CALLER_ERROR}));
      break;
    default: {
      char* name;
      uint32_t count, suspended;
      LX_THREAD* owner;
      SuspendNode* first;
      LX_MUTEX* next;
      c.Check("_lx_MutexInfoGet",
              _lx_MutexInfoGet(RegistryHandle(r, w.mutexes), Out(r, name), Out(r, count), Out(r, owner),
                               Out(r, first), Out(r, suspended), Out(r, next)),
              Statuses({LX_SUCCESS, LX_MUTEX_ERROR, LX_PTR_ERROR}));
    }
  }
}

// ---- Event-flag groups (never deleted: the delete is not implemented) ----
void GroupCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  const uint32_t flags = r.Percent(20) ? 0 : static_cast<uint32_t>(r.Next()) & 0x7FFFFFFFu;
  switch (r.Below(6)) {
    case 0:
      c.Check("_lx_EventFlagsCreate", _lx_EventFlagsCreate(CreationHandle(r, w.groups), Name(r)),
              Statuses({LX_SUCCESS, LX_GROUP_ERROR, LX_CALLER_ERROR}));
      break;
    case 1: {
      uint32_t actual = 0;
      const auto option = static_cast<uint16_t>(r.Percent(80) ? r.Below(4) : r.Size());
      c.Check("_lx_EventFlagsGet",
              _lx_EventFlagsGet(RegistryHandle(r, w.groups), flags, option, Out(r, actual), c.RefusedWait()),
              Statuses({LX_SUCCESS, LX_NO_EVENTS, LX_GROUP_ERROR, LX_PTR_ERROR, LX_OPTION_ERROR, LX_WAIT_ERROR,
                        LX_CALLER_ERROR}));
      break;
    }
    case 2:
      c.Check("_lx_EventFlagsSet",
              _lx_EventFlagsSet(RegistryHandle(r, w.groups), flags,
                                static_cast<uint16_t>(r.Percent(80) ? r.Below(2) * 2 : r.Size())),
              Statuses({LX_SUCCESS, LX_GROUP_ERROR, LX_OPTION_ERROR}));
      break;
    case 3: {
      char* name;
      uint32_t current, count;
      LX_THREAD* first;
      LX_EVENT_FLAGS* next;
      c.Check("_lx_EventFlagsInfoGet",
              _lx_EventFlagsInfoGet(RegistryHandle(r, w.groups), Out(r, name), Out(r, current), Out(r, first),
                                    Out(r, count), Out(r, next)),
              Statuses({LX_SUCCESS, LX_GROUP_ERROR, LX_PTR_ERROR}));
      break;
    }
    case 4:
      c.Check("_lx_EventFlagsDelete", _lx_EventFlagsDelete(RegistryHandle(r, w.groups)), Statuses({LX_SUCCESS}));
      break;
    default: {
      const uint32_t current = r.Percent(20) ? 0 : static_cast<uint32_t>(r.Next());
      const uint32_t result = EventFlagCmp(current, flags, static_cast<uint16_t>(r.Size()));
      const bool zero = current == 0 || flags == 0;
      c.Check("EventFlagCmp", result <= 1 && !(zero && result == 1) ? LX_SUCCESS : LX_OPTION_ERROR,
              Statuses({LX_SUCCESS}));
    }
  }
}

// ---- Block and byte pools ----
alignas(8) thread_local uint8_t t_foreign[64];

// An address no pool handed out: its header holds garbage.
void* ForeignMemory(Rng& rng) {
  for (uint8_t& byte : t_foreign) byte = static_cast<uint8_t>(rng.Next());
  return t_foreign + 16;
}

// A held area of the list (taken out of it), NULL or foreign memory.
void* Releasable(Rng& rng, std::vector<void*>& held) {
  if (!held.empty() && rng.Percent(80)) {
    void*& item = rng.Pick(held);
    void* memory = item;
    item = held.back();
    held.pop_back();
    return memory;
  }
  return rng.Percent(50) ? nullptr : ForeignMemory(rng);
}

void BlockCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  switch (r.Below(6)) {
    case 0: {
      static constexpr uint32_t kBlockSizes[] = {0, 1, 7, 8, 9, 64, 100, 4096, 65536};
      const uint32_t block = kBlockSizes[r.Below(9)];
      const uint32_t pool = r.Percent(50) ? block * r.Below(6) : r.Size();
      c.Check("_lx_BlockPoolCreate",
              _lx_BlockPoolCreate(CreationHandle(r, w.blockPools), Name(r), block, Buffer(r), pool),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_SIZE_ERROR, LX_PTR_ERROR, LX_CALLER_ERROR}));
      break;
    }
    case 1: {
      void* block = nullptr;
      const LX_STATUS status = _lx_BlockAllocate(RegistryHandle(r, w.blockPools), Out(r, block), c.RefusedWait());
      c.Check("_lx_BlockAllocate", status,
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR, LX_WAIT_ERROR, LX_NO_MEMORY, LX_DELETED,
                        LX_WAIT_ABORTED}));
      if (status == LX_SUCCESS) w.blocks.push_back(block);
      break;
    }
    case 2: {
      void* memory = Releasable(r, w.blocks);
      const LX_STATUS status = _lx_BlockRelease(memory);
      c.Check("_lx_BlockRelease", status, Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR}));
      // Refused held memory stays held (a plain thread, say), unless its pool is gone for good.
      if (status == LX_POOL_ERROR && memory != nullptr && memory != t_foreign + 16 && c.caller == Caller::kPlain) {
        w.blocks.push_back(memory);
      }
      break;
    }
    case 3:
      if (r.Percent(25)) {
        c.Check("_lx_BlockPoolDelete", _lx_BlockPoolDelete(RegistryHandle(r, w.blockPools)),
                Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_CALLER_ERROR}));
      }
      break;
    case 4: {
      char* name;
      uint32_t inUse, total, count;
      SuspendNode* first;
      LX_BLOCK_POOL* next;
      c.Check("_lx_BlockPoolInfoGet",
              _lx_BlockPoolInfoGet(RegistryHandle(r, w.blockPools), Out(r, name), Out(r, inUse), Out(r, total),
                                   Out(r, first), Out(r, count), Out(r, next)),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR}));
      break;
    }
    default:
      c.Check("_lx_BlockPoolPrioritize", _lx_BlockPoolPrioritize(RegistryHandle(r, w.blockPools)),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_NOT_AVAILABLE}));
  }
}

void ByteCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  switch (r.Below(6)) {
    case 0:
      c.Check("_lx_BytePoolCreate",
              _lx_BytePoolCreate(CreationHandle(r, w.bytePools), Name(r), Buffer(r),
                                 r.Percent(60) ? 100 + r.Below(1u << 16) : r.Size()),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, LX_CALLER_ERROR}));
      break;
    case 1: {
      void* memory = nullptr;
      const uint64_t size = r.Percent(90) ? r.Below(1u << 12) : (uint64_t{1} << 40) + r.Below(7);
      const LX_STATUS status =
          _lx_ByteAllocate(RegistryHandle(r, w.bytePools), Out(r, memory), size, c.RefusedWait());
      c.Check("_lx_ByteAllocate", status,
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR, LX_CALLER_ERROR, LX_NO_MEMORY, LX_DELETED,
                        LX_WAIT_ABORTED}));
      if (status == LX_SUCCESS) w.bytes.push_back(memory);
      break;
    }
    case 2: {
      void* memory = Releasable(r, w.bytes);
      const LX_STATUS status = _lx_ByteRelease(memory);
      c.Check("_lx_ByteRelease", status, Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR}));
      if (status == LX_POOL_ERROR && memory != nullptr && memory != t_foreign + 16 && c.caller == Caller::kPlain) {
        w.bytes.push_back(memory);
      }
      break;
    }
    case 3:
      if (r.Percent(25)) {
        c.Check("_lx_BytePoolDelete", _lx_BytePoolDelete(RegistryHandle(r, w.bytePools)),
                Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_CALLER_ERROR}));
      }
      break;
    case 4: {
      char* name;
      uint32_t reserved, fragments, count;
      SuspendNode* first;
      LX_BYTE_POOL* next;
      c.Check("_lx_BytePoolInfoGet",
              _lx_BytePoolInfoGet(RegistryHandle(r, w.bytePools), Out(r, name), Out(r, reserved),
                                  Out(r, fragments), Out(r, first), Out(r, count), Out(r, next)),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_PTR_ERROR}));
      break;
    }
    default:
      c.Check("_lx_BytePoolPrioritize", _lx_BytePoolPrioritize(RegistryHandle(r, w.bytePools)),
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_NOT_AVAILABLE}));
  }
}

// ---- Semaphores (the POSIX ones; the dispatcher's class is in RawCall) ----
void SemaphoreCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  LX_SEMAPHORE* handle = PlainHandle(r, w.semaphores);
  switch (r.Below(6)) {
    case 0:
      // A semaphore is never freed: creations are kept rare.
      if (r.Percent(20)) {
        c.Check("_lx_SemaphoreCreate", _lx_SemaphoreCreate(handle, Name(r), r.Percent(80) ? r.Below(3) : r.Size()),
                Statuses({LX_SUCCESS, LX_SEMAPHORE_ERROR, LX_CALLER_ERROR}));
      }
      break;
    case 1:
      c.Check("_lx_SemaphoreGet", _lx_SemaphoreGet(handle, c.RefusedWait()),
              Statuses({LX_SUCCESS, LX_NO_INSTANCE, LX_SEMAPHORE_ERROR, LX_WAIT_ERROR}));
      break;
    case 2:
      c.Check("_lx_SemaphorePut", _lx_SemaphorePut(handle), Statuses({LX_SUCCESS, LX_SEMAPHORE_ERROR}));
      break;
    case 3: c.Check("_lx_SemaphoreDelete", _lx_SemaphoreDelete(handle), Statuses({LX_SUCCESS})); break;
    case 4: c.Check("_lx_SemaphorePrioritize", _lx_SemaphorePrioritize(handle), Statuses({LX_SUCCESS})); break;
    default:
      c.Check("_lx_SemaphoreInfoGet", _lx_SemaphoreInfoGet(handle, nullptr, nullptr, nullptr, nullptr, nullptr),
              Statuses({LX_SUCCESS}));
  }
}

// ---- Message queues on the host's queues ----
bool QueueCreationAllowed() { return TheWorld().queueCreations < 48; }

void QueueCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  LX_QUEUE* handle = PlainHandle(r, w.queues);
  // A wait on the timer thread would stall the tick: only no wait there.
  const uint32_t wait = c.caller == Caller::kTimer ? LX_NO_WAIT : r.Wait();
  switch (r.Below(7)) {
    case 0: {
      if (!QueueCreationAllowed()) break;
      static const char* const kQueueNames[] = {"fz0", "fz1", "bad/name", nullptr};
      const auto words = static_cast<uint16_t>(r.Percent(70) ? 1u << r.Below(5) : r.Size());
      uint32_t bytes = r.Percent(70) ? words * 4u * (1 + r.Below(8)) : r.Size();
      const LX_STATUS status = _lx_QueueCreate(handle, kQueueNames[r.Below(4)], words, Buffer(r), bytes);
      c.Check("_lx_QueueCreate", status, Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR}));
      if (status == LX_SUCCESS) ++w.queueCreations;
      break;
    }
    case 1:
      c.Check("_lx_QueueSend", _lx_QueueSend(handle, Buffer(r), wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_FULL}));
      break;
    case 2:
      c.Check("_lx_QueueFrontSend", _lx_QueueFrontSend(handle, Buffer(r), wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_FULL}));
      break;
    case 3:
      c.Check("LP_QueueSend", LP_QueueSend(handle, Buffer(r), wait, r.Below(40000)),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_FULL}));
      break;
    case 4:
      c.Check("_lx_QueueReceive", _lx_QueueReceive(handle, Buffer(r), wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_EMPTY}));
      break;
    case 5: c.Check("_lx_QueueFlush", _lx_QueueFlush(handle), Statuses({LX_SUCCESS, LX_QUEUE_ERROR})); break;
    default:
      switch (r.Below(3)) {
        case 0: c.Check("_lx_QueueDelete", _lx_QueueDelete(handle), Statuses({LX_SUCCESS})); break;
        case 1: c.Check("_lx_QueuePrioritize", _lx_QueuePrioritize(handle), Statuses({LX_SUCCESS})); break;
        default:
          c.Check("_lx_QueueInfoGet", _lx_QueueInfoGet(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                  Statuses({LX_SUCCESS}));
      }
  }
}

// ---- Framed queues (used by one thread at a time: the driver's batches) ----
void FramedCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  const int index = static_cast<int>(r.Below(kSlots));
  FramedQueueCtrl* queue = r.Percent(8) ? nullptr : &w.framed[index];
  const uint32_t wait = c.caller == Caller::kTimer ? LX_NO_WAIT : r.Wait();
  switch (r.Below(5)) {
    case 0: {
      if (!QueueCreationAllowed()) break;
      const auto size = static_cast<uint16_t>(r.Percent(80) ? r.Below(64) : r.Below(400));
      const auto slots = static_cast<uint8_t>(r.Below(8));
      if (QueueCalcSize(size, slots) > sizeof w.framedBuffers[index]) break;  // the buffer must be large enough
      static const char* const kNames[] = {"fq0", "fq1", "bad/name"};
      const LX_STATUS status = QueueCreate(queue, kNames[r.Below(3)], size, slots,
                                           r.Percent(8) ? nullptr : w.framedBuffers[index], 0, r.Below(2));
      c.Check("QueueCreate", status, Statuses({LX_SUCCESS, LX_QUEUE_ERROR}));
      // A failure after the underlying queue was opened also keeps a descriptor.
      ++w.queueCreations;
      break;
    }
    case 1:
      c.Check("QueueSend",
              QueueSend(queue, Buffer(r), r.Percent(90) ? 1 : 0, r.Percent(70) ? FRAMED_QUEUE_AT_BACK : r.Below(9)),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_FULL, LX_WAIT_ERROR}));
      break;
    case 2:
      c.Check("QueueReceive", QueueReceive(queue, Buffer(r), wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_QUEUE_EMPTY}));
      break;
    case 3: c.Check("QueueFlush", QueueFlush(queue), Statuses({LX_SUCCESS, LX_QUEUE_ERROR})); break;
    default: {
      const auto size = static_cast<uint16_t>(r.Next());
      const auto slots = static_cast<uint8_t>(r.Next());
      const uint32_t bytes = QueueCalcSize(size, slots);
      c.Check("QueueCalcSize", bytes % 4 == 0 && bytes >= 4 + 4u * slots ? LX_SUCCESS : LX_SIZE_ERROR,
              Statuses({LX_SUCCESS}));
    }
  }
}

// ---- Queue list store ----
void ListCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  const int index = static_cast<int>(r.Below(kSlots));
  QueueListCtrl* list = r.Percent(8) ? nullptr : w.lists[index];
  const uint32_t ok = Statuses({0, QUEUE_LIST_EMPTY, QUEUE_LIST_BUSY});
  switch (r.Below(7)) {
    case 0: {
      if (w.lists[index] != nullptr) break;
      const uint32_t words = r.Percent(70) ? 1u << r.Below(5) : r.Size();
      const uint32_t capacity = r.Percent(90) ? r.Below(17) : r.Size();
      // The storage must hold capacity x words; beyond that the store cannot check.
      const bool fits = static_cast<uint64_t>(capacity) * words <= 16 * 16;
      if (!fits) {
        const QueueListCtrl* refused = QueueListCreate(capacity, words, nullptr);
        c.Check("QueueListCreate", refused == nullptr ? 0 : 1, Statuses({0}));
        break;
      }
      void* storage = r.Percent(10) ? nullptr : w.listStorage[index];
      w.lists[index] = QueueListCreate(capacity, words, storage);
      const bool valid = storage != nullptr && (words == 1 || words == 2 || words == 4 || words == 8 || words == 16);
      c.Check("QueueListCreate", (w.lists[index] != nullptr) == valid ? 0 : 1, Statuses({0}));
      break;
    }
    case 1:
      c.Check("QueueListSend", static_cast<uint32_t>(QueueListSend(list, Buffer(r), r.Below(2), 0)), ok);
      break;
    case 2:
      c.Check("QueueListReceive", static_cast<uint32_t>(QueueListReceive(list, Buffer(r), r.Below(2), 0)), ok);
      break;
    case 3: c.Check("QueueListFlush", static_cast<uint32_t>(QueueListFlush(list)), Statuses({0})); break;
    case 4:
      if (list != nullptr && r.Percent(60)) break;
      c.Check("QueueListDelete", static_cast<uint32_t>(QueueListDelete(list)), Statuses({0}));
      if (list != nullptr) w.lists[index] = nullptr;
      break;
    case 5: {
      // A node taken and given back at once; a node of no list is refused.
      QueueMemNode stranger{};
      QueueMemNode* node = r.Percent(70) ? QueueMemAlloc(list) : &stranger;
      if (node == nullptr) break;
      const int32_t result = QueueMemFree(list, node);
      c.Check("QueueMemFree", static_cast<uint32_t>(result),
              node == &stranger || list == nullptr ? Statuses({1}) : Statuses({0}));
      break;
    }
    default:
      // Resets the node pool: only for an empty list, or a NULL one.
      if (list == nullptr || LoadWord(list->i32Count) == 0) {
        c.Check("QueueMemInit", static_cast<uint32_t>(QueueMemInit(list)), Statuses({0}));
      }
  }
}

// ---- Dispatcher queues ----
void CmQueueCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  CM_QUEUE* handle = PlainHandle(r, w.cmQueues);
  const uint32_t families = Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_PTR_ERROR, LX_WAIT_ERROR, LX_WAIT_ABORTED,
                                      LX_DELETED});
  switch (r.Below(7)) {
    case 0: {
      CM_QUEUE* slot = CreationHandle(r, w.cmQueues);
      const uint32_t capacity = r.Percent(90) ? r.Below(9) : r.Size();
      const uint32_t words = r.Percent(70) ? 1u << r.Below(5) : r.Below(20);
      // Caller storage only where it fits; the queue's own block otherwise,
      // and a capacity the heap can take.
      void* storage = capacity * static_cast<uint64_t>(words) <= 16 * 16 && r.Percent(30) && slot == &w.cmQueues[0]
                          ? w.cmQueueStorage
                          : nullptr;
      if (storage == nullptr && capacity > 4096) break;
      c.Check("CmQueueCreate", CmQueueCreate(slot, capacity, words, storage),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_SIZE_ERROR}));
      break;
    }
    case 1:
      c.Check("CmQueueSend", CmQueueSend(handle, Buffer(r), c.RefusedWait()), families | Statuses({LX_QUEUE_FULL}));
      break;
    case 2:
      c.Check("CmQueueFrontSend", CmQueueFrontSend(handle, Buffer(r), c.RefusedWait()),
              families | Statuses({LX_QUEUE_FULL}));
      break;
    case 3:
      c.Check("CmQueueReceive", CmQueueReceive(handle, Buffer(r), c.RefusedWait()),
              families | Statuses({LX_QUEUE_EMPTY}));
      break;
    case 4: c.Check("CmQueueFlush", CmQueueFlush(handle), Statuses({LX_SUCCESS, LX_QUEUE_ERROR})); break;
    case 5:
      c.Check("CmQueuePrioritize", CmQueuePrioritize(handle), Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_NOT_AVAILABLE}));
      break;
    default:
      if (r.Percent(30)) c.Check("CmQueueDelete", CmQueueDelete(handle), Statuses({LX_SUCCESS, LX_QUEUE_ERROR}));
  }
}

// ---- Application timers and the clock ----
std::atomic<uint32_t> g_expiries{0};
void Expired(uint32_t) { g_expiries.fetch_add(1, std::memory_order_relaxed); }

void TimerCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  LX_TIMER* handle = PlainHandle(r, w.timers);
  const uint32_t ticks = r.Percent(80) ? r.Below(5) : r.Size();
  switch (r.Below(7)) {
    case 0:
      c.Check("_lx_TimerCreate",
              _lx_TimerCreate(r.Percent(50) ? CreationHandle(r, w.timers) : handle, Name(r),
                              r.Percent(8) ? nullptr : Expired, r.Below(9), ticks, r.Below(4),
                              static_cast<uint16_t>(r.Percent(80) ? r.Below(2) : r.Size())),
              Statuses({LX_SUCCESS, LX_TIMER_ERROR, LX_TICK_ERROR, LX_ACTIVATE_ERROR, LX_POOL_ERROR, LX_CALLER_ERROR}));
      break;
    case 1: {
      // Delete only reads the word and compares it with the table, so it may
      // get a garbage word.
      uintptr_t& garbage = t_garbage[0];
      garbage = static_cast<uintptr_t>(r.Next());
      LX_TIMER* target = r.Percent(10) ? reinterpret_cast<LX_TIMER*>(&garbage) : handle;
      c.Check("_lx_TimerDelete", _lx_TimerDelete(target), Statuses({LX_SUCCESS, LX_TIMER_ERROR, LX_CALLER_ERROR}));
      break;
    }
    case 2: c.Check("_lx_TimerActivate", _lx_TimerActivate(handle), Statuses({LX_SUCCESS, LX_TIMER_ERROR})); break;
    case 3:
      c.Check("_lx_TimerDeactivate", _lx_TimerDeactivate(handle), Statuses({LX_SUCCESS, LX_TIMER_ERROR}));
      break;
    case 4:
      c.Check("_lx_TimerChange", _lx_TimerChange(handle, ticks, r.Below(4)),
              Statuses({LX_SUCCESS, LX_TIMER_ERROR, LX_TICK_ERROR}));
      break;
    case 5: {
      char* name;
      uint16_t active;
      uint32_t remaining, reschedule;
      int reserved;
      c.Check("_lx_TimerInfoGet",
              _lx_TimerInfoGet(handle, Out(r, name), Out(r, active), Out(r, remaining), Out(r, reschedule),
                               Out(r, reserved)),
              Statuses({LX_SUCCESS, LX_TIMER_ERROR, LX_PTR_ERROR}));
      break;
    }
    default:
      _lx_TimeGet();
      c.Check("_lx_TimeGet", LX_SUCCESS, Statuses({LX_SUCCESS}));
  }
}

// ---- Threads ----
void* QuickEntry(uint64_t ticks) {
  _lx_ThreadSleep(static_cast<uint32_t>(ticks));
  return nullptr;
}

// A thread handle: NULL, a NULL word, a fuzzer-made thread, a victim, or the
// caller itself.
LX_THREAD* ThreadHandle(Rng& rng) {
  World& w = TheWorld();
  switch (rng.Below(6)) {
    case 0: return nullptr;
    case 1: return _lx_ThreadIdentify();
    case 2:
    case 3: return Slot(rng, w.victims);
    default: return Slot(rng, w.threads);
  }
}

void ThreadCall(Ctx& c) {
  World& w = TheWorld();
  Rng& r = c.rng;
  LX_THREAD* handle = ThreadHandle(r);
  LX_THREAD* self = _lx_ThreadIdentify();
  const bool other = handle != self;
  const uint32_t family = Statuses({LX_SUCCESS, LX_THREAD_ERROR});
  switch (r.Below(10)) {
    case 0: {
      // A handle in the pool is refused; a fresh thread only goes into an empty slot.
      LX_THREAD* slot = r.Percent(30) ? handle : CreationHandle(r, w.threads);
      const auto priority = static_cast<uint16_t>(r.Percent(80) ? r.Below(33) : r.Size());
      const auto threshold = static_cast<uint16_t>(r.Below(40));
      c.Check("_lx_ThreadCreate",
              _lx_ThreadCreate(slot, Name(r), r.Percent(8) ? nullptr : QuickEntry, r.Below(3), nullptr, r.Size(),
                               priority, threshold, r.Size(), static_cast<uint16_t>(r.Percent(80) ? r.Below(2) : r.Size())),
              family | Statuses({LX_PRIORITY_ERROR, LX_NO_MEMORY, LX_PTR_ERROR, LX_THRESH_ERROR}));
      break;
    }
    case 1:
      c.Check("_lx_ThreadSleep", _lx_ThreadSleep(c.caller == Caller::kTimer ? 0 : r.Below(2)), Statuses({LX_SUCCESS}));
      break;
    case 2: c.Check("_lx_ThreadResume", _lx_ThreadResume(handle), family); break;
    case 3:
      // Suspending oneself lasts until someone resumes: only others.
      if (other) c.Check("_lx_ThreadSuspend", _lx_ThreadSuspend(handle), family);
      break;
    case 4:
      c.Check("_lx_ThreadWaitAbort", _lx_ThreadWaitAbort(handle), family | Statuses({LX_WAIT_ABORT_ERROR}));
      break;
    case 5:
      // Victims are terminated by the driver, which re-creates them.
      if (other && handle != nullptr && handle >= &w.threads[0] && handle < &w.threads[kSlots]) {
        c.Check("_lx_ThreadTerminate", _lx_ThreadTerminate(handle), family);
      }
      break;
    case 6:
      if (handle != nullptr && handle >= &w.threads[0] && handle < &w.threads[kSlots]) {
        const LX_STATUS status = _lx_ThreadDelete(handle);
        c.Check("_lx_ThreadDelete", status, family | Statuses({LX_DELETE_ERROR}));
        // A deleted thread's word must not be used again before a creation.
        if (status == LX_SUCCESS) StoreWord(*handle, static_cast<LX_THREAD>(nullptr));
      }
      break;
    case 7: {
      char* name;
      uint16_t state, priority, threshold;
      uint32_t runs, slice;
      LX_THREAD *next, *nextSuspended;
      c.Check("_lx_ThreadInfoGet",
              _lx_ThreadInfoGet(handle, Out(r, name), Out(r, state), Out(r, runs), Out(r, priority),
                                Out(r, threshold), Out(r, slice), Out(r, next), Out(r, nextSuspended)),
              family | Statuses({LX_PTR_ERROR}));
      break;
    }
    case 8: {
      uint16_t old;
      c.Check("_lx_ThreadPriorityChange",
              _lx_ThreadPriorityChange(handle, static_cast<uint16_t>(r.Percent(70) ? 32 : r.Size()), Out(r, old)),
              family | Statuses({LX_PRIORITY_ERROR, LX_PTR_ERROR, LX_CALLER_ERROR}));
      break;
    }
    default: {
      uint16_t old;
      // A threshold only ever raises a thread's nice value, for good: the
      // long-lived threads get those that change nothing (0 to 2) or are
      // refused (above 32), the fuzzer's short-lived ones any.
      const bool shortLived = handle >= &w.threads[0] && handle < &w.threads[kSlots];
      const uint32_t threshold = shortLived ? r.Below(40) : r.Percent(80) ? r.Below(3) : 33 + r.Below(70000);
      c.Check("_lx_ThreadPreemptionChange",
              _lx_ThreadPreemptionChange(handle, static_cast<uint16_t>(threshold), Out(r, old)),
              family | Statuses({LX_THRESH_ERROR, LX_PTR_ERROR, LX_CALLER_ERROR, LX_PRIORITY_ERROR}));
    }
  }
}

// ---- Raw requests through CM_Request, and the one-byte primitives ----

// The object a raw request names: NULL now and then, else a handle word of
// the class (the event-flags class, which looks its groups up, also gets
// hostile handles).
void* RawObject(Rng& r, uint16_t cls) {
  World& w = TheWorld();
  if (r.Percent(10)) return nullptr;
  switch (cls) {
    case CM_CLASS_BLOCK_POOL: return Slot(r, w.blockPools);
    case CM_CLASS_BYTE_POOL: return Slot(r, w.bytePools);
    case CM_CLASS_EVENT_FLAGS: return RegistryHandle(r, w.groups);
    case CM_CLASS_MUTEX: return Slot(r, w.mutexes);
    case CM_CLASS_QUEUE: return Slot(r, w.cmQueues);
    case CM_CLASS_SEMAPHORE: return Slot(r, w.cmSemaphores);
    default: return nullptr;
  }
}

uint32_t RawStatuses(uint16_t cls) {
  const uint32_t common = Statuses({LX_SUCCESS, LX_NOT_AVAILABLE, LX_WAIT_ERROR, LX_WAIT_ABORTED, LX_DELETED});
  switch (cls) {
    case CM_CLASS_BLOCK_POOL:
    case CM_CLASS_BYTE_POOL: return common | Statuses({LX_POOL_ERROR, LX_NO_MEMORY});
    case CM_CLASS_EVENT_FLAGS: return common | Statuses({LX_GROUP_ERROR, LX_NO_EVENTS, LX_PTR_ERROR, LX_OPTION_ERROR});
    case CM_CLASS_MUTEX: return common | Statuses({LX_MUTEX_ERROR});
    case CM_CLASS_QUEUE: return common | Statuses({LX_QUEUE_ERROR, LX_QUEUE_EMPTY, LX_QUEUE_FULL, LX_PTR_ERROR});
    case CM_CLASS_SEMAPHORE: return common | Statuses({LX_SEMAPHORE_ERROR, LX_NO_INSTANCE});
    case CM_CLASS_THREAD: return common | Statuses({LX_THREAD_ERROR, LX_WAIT_ABORT_ERROR});
    default: return Statuses({LX_NOT_AVAILABLE, LX_WAIT_ERROR});
  }
}

// Operations a raw request may not carry: deletes of the registry classes
// (the registry keeps the handle; only the interface service removes it),
// the expiry of the system class, which names another request, and thread
// operations that would suspend, end or put to sleep a thread other than the
// ones picked for them.
bool RawAllowed(uint16_t service, LX_THREAD* target, LX_THREAD* self, Caller caller) {
  World& w = TheWorld();
  switch (service) {
    case CM_BLOCK_DELETE:
    case CM_BYTE_DELETE:
    case CM_MUTEX_DELETE:
    case CM_OP_TIMEOUT: return false;
    // The timer thread would wait for its own sleep-agent pass.
    case CM_THREAD_SLEEP: return target == self && self != nullptr && caller != Caller::kTimer;
    case CM_THREAD_SUSPEND:
    case CM_THREAD_TERMINATE: return target == nullptr || (target >= &w.threads[0] && target < &w.threads[kSlots]);
    default: return true;
  }
}

void RawCall(Ctx& c) {
  Rng& r = c.rng;
  static constexpr uint16_t kClasses[] = {CM_CLASS_SYSTEM,    CM_CLASS_BLOCK_POOL, CM_CLASS_BYTE_POOL,
                                          CM_CLASS_EVENT_FLAGS, 0x40,              CM_CLASS_MUTEX,
                                          CM_CLASS_QUEUE,      CM_CLASS_SEMAPHORE,  CM_CLASS_THREAD,
                                          0x90,                0xF0};
  const uint16_t cls = kClasses[r.Below(11)];
  const auto service = static_cast<uint16_t>(cls | r.Below(16));
  LX_THREAD* self = _lx_ThreadIdentify();
  LX_THREAD* target = cls == CM_CLASS_THREAD ? ThreadHandle(r) : nullptr;
  if (!RawAllowed(service, target, self, c.caller)) return;
  void* object = RawObject(r, cls);
  // The dispatcher's semaphore blocks are made here: zero-filled, ceiling at least 1.
  if (cls == CM_CLASS_SEMAPHORE && object != nullptr) {
    auto& word = *static_cast<CmSemaphoreControlBlock**>(object);
    if (LoadWord(word) == nullptr && r.Percent(50)) {
      auto* block = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
      block->u32Ceiling = 1 + r.Below(3);
      block->u32Count = r.Below(block->u32Ceiling + 1);
      StoreWord(word, block);
    }
  }
  // A caller outside the pool sends a block of its own, without waiting.
  CmServiceRequest stranger{};
  CmServiceRequest* request = self != nullptr ? &(*self)->sRequest : &stranger;
  const uint32_t wait = self == nullptr ? LX_NO_WAIT : c.RefusedWait();
  std::atomic_ref<uint16_t>(request->u16Service).store(service, std::memory_order_relaxed);
  request->psTarget = target;
  request->psThread = self;
  request->pvObject = object;
  request->pvData = Buffer(r);
  request->u64Value = r.Percent(50) ? r.Below(4096) : r.Next();
  request->u64Option = r.Percent(80) ? r.Below(4) : r.Next();
  std::atomic_ref<uint32_t>(request->u32WaitOption).store(wait, std::memory_order_relaxed);
  CM_Request(request);
  const uint16_t status = request->u16Status;
  c.Check("CM_Request", status, RawStatuses(cls));
  // A deleted dispatcher semaphore leaves its word naming the freed block.
  if (service == CM_SEMAPHORE_DELETE && status == LX_SUCCESS && object != nullptr) {
    StoreWord(*static_cast<CmSemaphoreControlBlock**>(object), static_cast<CmSemaphoreControlBlock*>(nullptr));
  }
}

// The one-byte primitives on descriptors that cannot block: a descriptor
// that is not open, -1, and a pipe of the caller's own with a byte in it.
void PipeCall(Ctx& c) {
  Rng& r = c.rng;
  const int closed = 1 << 20;  // beyond any descriptor limit
  switch (r.Below(3)) {
    case 0:
      c.Check("CM_WakeUpThreadEx", static_cast<uint32_t>(CM_WakeUpThreadEx(r.Percent(50) ? -1 : closed)),
              Statuses({0}));
      c.Check("CM_WaitingSignalEx", static_cast<uint32_t>(CM_WaitingSignalEx(r.Percent(50) ? -1 : closed)),
              Statuses({0}));
      break;
    case 1: {
      CmServiceRequest request{};
      request.ai32ReplyPipe[0] = request.ai32ReplyPipe[1] = -1;
      c.Check("CM_WakeUpThread", static_cast<uint32_t>(CM_WakeUpThread(&request)), Statuses({0}));
      c.Check("CM_WaitingSignal", static_cast<uint32_t>(CM_WaitingSignal(&request)), Statuses({0}));
      break;
    }
    default: {
      // A round trip on a fresh pipe; CM_WaitingSignal closes both ends.
      CmServiceRequest request{};
      if (::pipe(request.ai32ReplyPipe) != 0) break;
      c.Check("CM_WakeUpThreadEx", static_cast<uint32_t>(CM_WakeUpThreadEx(request.ai32ReplyPipe[1])), Statuses({0}));
      c.Check("CM_WakeUpThread", static_cast<uint32_t>(CM_WakeUpThread(&request)), Statuses({0}));
      c.Check("CM_WaitingSignalEx", static_cast<uint32_t>(CM_WaitingSignalEx(request.ai32ReplyPipe[0])), Statuses({0}));
      c.Check("CM_WaitingSignal", static_cast<uint32_t>(CM_WaitingSignal(&request)), Statuses({0}));
      CM_Request(nullptr);
      c.Check("CM_Request(NULL)", 0, Statuses({0}));
    }
  }
}

}  // namespace

uint32_t Rng::Size() { return Percent(60) ? kBaseSizes[Below(16)] : static_cast<uint32_t>(Next()); }

uint32_t Rng::Wait(bool forever) {
  const uint32_t roll = Below(100);
  if (roll < 60) return LX_NO_WAIT;
  if (roll < 95 || !forever) return 1 + Below(3);
  return roll < 98 ? LX_WAIT_FOREVER : Size();
}

void RandomCall(Ctx& ctx) {
  static void (*const kFamilies[])(Ctx&) = {MutexCall,     GroupCall, BlockCall, ByteCall,  SemaphoreCall,
                                            QueueCall,     FramedCall, ListCall, CmQueueCall, TimerCall,
                                            ThreadCall,    RawCall,   PipeCall};
  kFamilies[ctx.rng.Below(sizeof kFamilies / sizeof kFamilies[0])](ctx);
}

void VictimCall(Ctx& c, std::vector<void*>& blocks) {
  World& w = TheWorld();
  Rng& r = c.rng;
  const uint32_t wait = 1 + r.Below(4);
  switch (r.Below(7)) {
    case 0: {
      LX_MUTEX* mutex = Slot(r, w.mutexes);
      const LX_STATUS status = _lx_MutexGet(mutex, wait);
      c.Check("_lx_MutexGet", status,
              Statuses({LX_SUCCESS, LX_NOT_AVAILABLE, LX_WAIT_ABORTED, LX_DELETED, LX_MUTEX_ERROR}));
      if (status == LX_SUCCESS) {
        c.Check("_lx_MutexPut", _lx_MutexPut(mutex), Statuses({LX_SUCCESS, LX_MUTEX_ERROR}));
      }
      break;
    }
    case 1:
      c.Check("_lx_SemaphoreGet", _lx_SemaphoreGet(Slot(r, w.semaphores), wait),
              Statuses({LX_SUCCESS, LX_NO_INSTANCE}));
      break;
    case 2: {
      void* block = nullptr;
      const LX_STATUS status = _lx_BlockAllocate(Slot(r, w.blockPools), &block, wait);
      c.Check("_lx_BlockAllocate", status,
              Statuses({LX_SUCCESS, LX_POOL_ERROR, LX_NO_MEMORY, LX_DELETED, LX_WAIT_ABORTED}));
      if (status == LX_SUCCESS) blocks.push_back(block);
      break;
    }
    case 3:
      if (!blocks.empty()) {
        c.Check("_lx_BlockRelease", _lx_BlockRelease(blocks.back()), Statuses({LX_SUCCESS, LX_POOL_ERROR}));
        blocks.pop_back();  // refused: its pool is gone, and the area with it
      }
      break;
    case 4:
      c.Check("_lx_QueueReceive", _lx_QueueReceive(Slot(r, w.queues), t_message, wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_QUEUE_EMPTY}));
      break;
    case 5:
      c.Check("CmQueueSend", CmQueueSend(Slot(r, w.cmQueues), t_message, wait),
              Statuses({LX_SUCCESS, LX_QUEUE_ERROR, LX_QUEUE_FULL, LX_WAIT_ABORTED, LX_DELETED}));
      break;
    default: c.Check("_lx_ThreadSleep", _lx_ThreadSleep(1), Statuses({LX_SUCCESS}));
  }
}

void ReleaseAll(Ctx& c) {
  World& w = TheWorld();
  for (void* block : w.blocks) {
    c.Check("_lx_BlockRelease", _lx_BlockRelease(block), Statuses({LX_SUCCESS, LX_POOL_ERROR}));
  }
  for (void* memory : w.bytes) {
    c.Check("_lx_ByteRelease", _lx_ByteRelease(memory), Statuses({LX_SUCCESS, LX_POOL_ERROR}));
  }
  w.blocks.clear();
  w.bytes.clear();
}

}  // namespace quorvin::fuzz
