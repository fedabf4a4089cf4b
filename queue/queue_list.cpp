// The queue list store: an in-memory message list over a fixed node pool, the
// message store of the dispatcher's queue class.
//
// The list is circular and doubly linked; node i of the pool always carries
// message slot i of the caller's storage. A send tries sListLock (a flush or
// delete waits for it); a receive tries to close sReceiveGate, a flag that
// every send and every finished receive opens. A send and a receive do not
// exclude each other: the dispatcher, the store's one user, makes one call at
// a time.
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quorvin/lx_log.h"
#include "quorvin/lx_queue.h"

namespace {

constexpr bool ValidWords(uint32_t words) noexcept {
  return words == 1 || words == 2 || words == 4 || words == 8 || words == 16;
}

void OpenGate(QueueGate& gate) noexcept {
  std::atomic_ref<uint32_t>(gate.u32Open).store(1, std::memory_order_release);
}

// Closes an open gate; false when it was closed already.
bool TryCloseGate(QueueGate& gate) noexcept {
  return std::atomic_ref<uint32_t>(gate.u32Open).exchange(0, std::memory_order_acquire) == 1;
}

void ErrorLine(const char* line) noexcept {
  FILE* stream = hCM_Error != nullptr ? hCM_Error : stderr;
  std::fputs(line, stream);
  std::fflush(stream);
}

void* SlotOf(const QueueListCtrl& list, std::size_t index) noexcept {
  return static_cast<unsigned char*>(list.pvStorage) + index * static_cast<std::size_t>(list.i32MessageBytes);
}

// Frees every node in the list and empties it. sListLock held.
void FreeAllLocked(QueueListCtrl& list) noexcept {
  if (list.psHead != nullptr) {
    list.psTail->psNextNode = nullptr;  // cut the circle at the tail
    for (QueueMemNode* node = list.psHead; node != nullptr;) {
      QueueMemNode* next = node->psNextNode;
      QueueMemFree(&list, node);
      node = next;
    }
  }
  list.psHead = nullptr;
  list.psTail = nullptr;
  list.i32Count = 0;
}

}  // namespace

QueueListCtrl* QueueListCreate(uint32_t u32Capacity, uint32_t u32MessageWords, void* pvStorage) {
  if (pvStorage == nullptr || !ValidWords(u32MessageWords) || u32Capacity > INT32_MAX) return nullptr;
  // The record and its node pool are one block, released together.
  auto* list = static_cast<QueueListCtrl*>(std::calloc(1, sizeof(QueueListCtrl) + u32Capacity * sizeof(QueueMemNode)));
  if (list == nullptr) return nullptr;
  static_assert(sizeof(QueueListCtrl) % alignof(QueueMemNode) == 0);
  list->i32Capacity = static_cast<int32_t>(u32Capacity);
  list->i32MessageWords = static_cast<int32_t>(u32MessageWords);
  list->i32MessageBytes = static_cast<int32_t>(u32MessageWords * 4);
  list->pvStorage = pvStorage;
  list->paNodes = reinterpret_cast<QueueMemNode*>(list + 1);
  pthread_mutex_init(&list->sListLock, nullptr);
  list->sReceiveGate.u32Open = 0;
  QueueMemInit(list);
  return list;
}

int32_t QueueMemInit(QueueListCtrl* psList) {
  if (psList == nullptr) return 0;
  for (int32_t i = 0; i < psList->i32Capacity; ++i) psList->paNodes[i] = QueueMemNode{nullptr, nullptr, nullptr, 1};
  return 0;
}

QueueMemNode* QueueMemAlloc(QueueListCtrl* psList) {
  if (psList == nullptr) return nullptr;
  for (int32_t i = 0; i < psList->i32Capacity; ++i) {
    QueueMemNode& node = psList->paNodes[i];
    if (node.u32Free == 1) {
      node.u32Free = 0;
      node.pvSlot = SlotOf(*psList, static_cast<std::size_t>(i));
      return &node;
    }
  }
  ErrorLine(" QueueMemAlloc Fail\n");
  return nullptr;
}

int32_t QueueMemFree(QueueListCtrl* psList, QueueMemNode* psNode) {
  for (int32_t i = 0; psList != nullptr && i < psList->i32Capacity; ++i) {
    if (&psList->paNodes[i] == psNode) {
      *psNode = QueueMemNode{nullptr, nullptr, nullptr, 1};
      return 0;
    }
  }
  ErrorLine(" QueueMemFree Fail\n");
  return 1;
}

int32_t QueueListSend(QueueListCtrl* psList, const void* pvSource, int32_t i32AtBack, int32_t i32LockHeld) {
  if (psList == nullptr || pvSource == nullptr) return QUEUE_LIST_EMPTY;
  if (i32LockHeld == 0 && pthread_mutex_trylock(&psList->sListLock) != 0) return QUEUE_LIST_BUSY;
  QueueListCtrl& list = *psList;
  QueueMemNode* node = QueueMemAlloc(&list);
  if (node == nullptr) {  // nothing stored: list, count and gate as they were
    pthread_mutex_unlock(&list.sListLock);
    return QUEUE_LIST_EMPTY;
  }
  std::memcpy(node->pvSlot, pvSource, static_cast<std::size_t>(list.i32MessageBytes));
  ++list.i32Count;
  if (list.psHead == nullptr) {
    node->psPrevNode = node->psNextNode = node;
    list.psHead = list.psTail = node;
  } else {
    node->psPrevNode = list.psTail;
    node->psNextNode = list.psHead;
    list.psHead->psPrevNode = node;
    list.psTail->psNextNode = node;
    (i32AtBack != 0 ? list.psTail : list.psHead) = node;
  }
  pthread_mutex_unlock(&list.sListLock);
  OpenGate(list.sReceiveGate);
  return 0;
}

int32_t QueueListReceive(QueueListCtrl* psList, void* pvDestination, int32_t i32FromBack, int32_t i32LockHeld) {
  if (psList == nullptr || pvDestination == nullptr) return QUEUE_LIST_EMPTY;
  QueueListCtrl& list = *psList;
  if (i32LockHeld == 0 && !TryCloseGate(list.sReceiveGate)) return QUEUE_LIST_BUSY;
  if (list.psHead == nullptr) {
    OpenGate(list.sReceiveGate);
    return QUEUE_LIST_EMPTY;
  }
  --list.i32Count;
  QueueMemNode* node = i32FromBack != 0 ? list.psTail : list.psHead;
  if (node->psNextNode == node) {
    list.psHead = list.psTail = nullptr;
  } else {
    node->psPrevNode->psNextNode = node->psNextNode;
    node->psNextNode->psPrevNode = node->psPrevNode;
    if (i32FromBack != 0) {
      list.psTail = node->psPrevNode;
    } else {
      list.psHead = node->psNextNode;
    }
  }
  std::memcpy(pvDestination, node->pvSlot, static_cast<std::size_t>(list.i32MessageBytes));
  QueueMemFree(&list, node);
  OpenGate(list.sReceiveGate);
  return 0;
}

int32_t QueueListFlush(QueueListCtrl* psList) {
  if (psList == nullptr) return 0;
  pthread_mutex_lock(&psList->sListLock);
  FreeAllLocked(*psList);
  pthread_mutex_unlock(&psList->sListLock);
  return 0;
}

int32_t QueueListDelete(QueueListCtrl* psList) {
  if (psList == nullptr) return 0;
  pthread_mutex_lock(&psList->sListLock);
  FreeAllLocked(*psList);
  pthread_mutex_unlock(&psList->sListLock);
  pthread_mutex_destroy(&psList->sListLock);
  std::free(psList);  // the node pool with it; the storage is the caller's
  return 0;
}
