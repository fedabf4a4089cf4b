// Internals shared by the message queues and the framed layer above them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "quorvin/lx_queue.h"

namespace quorvin::detail {

// What a queue handle word really points to: the public record first, then
// the message size read once when the queue was opened (a queue found again
// under its name keeps its own size), and the link that keeps every record
// reachable (records are never freed).
struct MqQueueRecord {
  MqQueueCtrl sCtrl;
  uint32_t u32MessageBytes;
  MqQueueRecord* psNextRecord;
};

// The host queue's real message size behind a handle, 0 for a handle that
// names no open queue.
uint32_t MessageBytesOf(LX_QUEUE* handle) noexcept;

// A buffer of one host message: on the stack for the sizes this library
// creates, on the heap for a bigger queue found again under its name.
class MessageScratch {
 public:
  explicit MessageScratch(std::size_t bytes) noexcept
      : heap_(bytes > sizeof small_ ? new (std::nothrow) unsigned char[bytes]() : nullptr),
        data_(bytes > sizeof small_ ? heap_.get() : small_) {}
  // nullptr when the heap had no room.
  unsigned char* data() noexcept { return data_; }

 private:
  alignas(8) unsigned char small_[64] = {};
  std::unique_ptr<unsigned char[]> heap_;
  unsigned char* data_;
};

}  // namespace quorvin::detail
