// Message queues and the framed queue in the soak. Every message carries a
// sequence id of its own, and a ledger keeps one state per id: being sent,
// sent, received. A receive of an id that was never sent, or received
// before, fails at once; at the end every id sent has been received exactly
// once or was discarded by a flush.
//
// The queues' info-get is not implemented, so a flush is counted by the
// host's own count of the queue (mq_getattr on the descriptor the queue's
// control block holds), read at rest: the chaos thread closes the queue's
// gate, waits until no send or receive is in progress (sending or receiving
// itself once to end an endless wait), counts, flushes, and finds the queue
// empty. On the framed queue the full slots must then equal the count.
//
// A queue cannot be deleted (the service only prints a line) and creating
// one again keeps the old descriptor open, so the chaos thread flushes
// instead. Expendable workers only send to and receive from a scratch
// queue, without waiting and without accounting: a thread terminated in a
// send or receive leaves its message's fate unknown.
#include <mqueue.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "soak.h"

namespace soak {
namespace {

struct Message {
  uint64_t id;
  uint32_t queue;
  uint32_t check;
};
static_assert(sizeof(Message) == 16);
constexpr uint16_t kWords = sizeof(Message) / 4;
constexpr uint8_t kDepth = 8;  // within the IPC namespace's default msg_max of 10
constexpr int64_t kFlushMs = 1000;
constexpr int kRestTicks = 300;

uint32_t CheckOf(uint64_t id, uint32_t queue) { return static_cast<uint32_t>(~id) ^ queue * 0x9e3779b9u; }

// --- The ledger of sequence ids. ---

enum : uint8_t { kUnused, kSending, kSent, kReceived };
constexpr uint64_t kIds = uint64_t{1} << 26;  // untouched pages cost nothing
std::atomic<uint8_t>* g_ledger = nullptr;
std::atomic<uint64_t> g_issued{0};

std::atomic<uint8_t>& StateOf(uint64_t id) { return g_ledger[id]; }

// A fresh id marked as being sent; false when the ledger is full.
bool Issue(uint64_t& id) {
  id = g_issued++;
  if (id >= kIds) {
    Fail("queues: more than %" PRIu64 " messages; the ledger is full", kIds);
    return false;
  }
  StateOf(id) = kSending;
  return true;
}

void Sent(uint64_t id, bool ok) {
  uint8_t expected = kSending;
  if (ok) {
    StateOf(id).compare_exchange_strong(expected, kSent);  // else already received
  } else if (!StateOf(id).compare_exchange_strong(expected, kUnused)) {
    Fail("queues: message %" PRIu64 " was received although its send failed", id);
  }
}

struct Queue {
  Queue(const char* queueName, uint32_t queueNumber, Counts& queueCounts)
      : name(queueName), number(queueNumber), counts(queueCounts) {}
  const char* name;
  uint32_t number;
  Counts& counts;
  Gate gate;
  std::atomic<int> endlessSenders{0}, endlessReceivers{0};
  std::atomic<uint64_t> sent{0}, received{0};
  uint64_t flushed = 0, drained = 0, rests = 0;
  int64_t lastFlush = 0;
};

// A received message: its id was sent to this queue and not received before.
void Received(Queue& queue, const Message& message) {
  if (message.queue != queue.number || message.check != CheckOf(message.id, message.queue) ||
      message.id >= g_issued.load()) {
    Fail("%s: received a corrupt message (id %" PRIu64 ", queue %" PRIu32 ")", queue.name, message.id, message.queue);
    return;
  }
  if (InjectOnce("lose-message")) return;
  switch (StateOf(message.id).exchange(kReceived)) {
    case kReceived: Fail("%s: message %" PRIu64 " received twice", queue.name, message.id); break;
    case kUnused: Fail("%s: message %" PRIu64 " received but never sent", queue.name, message.id); break;
    default: ++queue.received;
  }
  if (InjectOnce("duplicate-message")) Received(queue, message);
}

// How the two kinds of queue are driven.
struct Kind {
  LX_STATUS (*send)(Worker* self, Message& message, uint32_t wait);  // self nullptr: chaos thread
  LX_STATUS (*receive)(Message& message, uint32_t wait);
  LX_STATUS (*flush)();
  LX_QUEUE* host;          // the host queue underneath
  uint32_t timeoutStatus;  // of a receive
  bool endlessSends;       // a send may wait forever (the framed queue's waits are bounded)
};

long HostCount(LX_QUEUE* host, long* capacity = nullptr) {
  mq_attr attr{};
  if (mq_getattr((*host)->i32MqDes, &attr) != 0) return -1;
  if (capacity != nullptr) *capacity = attr.mq_maxmsg;
  return attr.mq_curmsgs;
}

// One send, accounted; wait LX_NO_WAIT or what the kind understands.
LX_STATUS SendOne(Queue& queue, const Kind& kind, Worker* self, uint32_t wait) {
  Message message{};
  if (!Issue(message.id)) return LX_QUEUE_ERROR;
  message.queue = queue.number;
  message.check = CheckOf(message.id, message.queue);
  const LX_STATUS status = kind.send(self, message, wait);
  Sent(message.id, status == LX_SUCCESS);
  if (status == LX_SUCCESS) ++queue.sent;
  return status;
}

LX_STATUS ReceiveOne(Queue& queue, const Kind& kind, uint32_t wait) {
  Message message{};
  const LX_STATUS status = kind.receive(message, wait);
  if (status == LX_SUCCESS) Received(queue, message);
  return status;
}

void Work(Worker& self, Queue& queue, const Kind& kind, std::initializer_list<LX_STATUS> sendAllowed,
          std::initializer_list<LX_STATUS> receiveAllowed) {
  if (!queue.gate.Enter()) return;
  const uint32_t wait = RandomWait(self);
  if (self.rng() % 2 == 0) {
    const bool endless = wait == LX_WAIT_FOREVER && kind.endlessSends;
    if (endless) ++queue.endlessSenders;
    Expect(SendOne(queue, kind, &self, wait), sendAllowed, queue.name);
    if (endless) --queue.endlessSenders;
  } else {
    if (wait == LX_WAIT_FOREVER) ++queue.endlessReceivers;
    Message message{};
    const LX_STATUS status = Timed(self, "queue receive", wait, queue.counts, kind.timeoutStatus,
                                   [&] { return kind.receive(message, wait); });
    if (status == LX_SUCCESS) Received(queue, message);
    Expect(status, receiveAllowed, queue.name);
    if (wait == LX_WAIT_FOREVER) --queue.endlessReceivers;
  }
  queue.gate.Leave();
}

// Ends an endless wait that nothing else would end: a send to an empty queue
// with endless receivers, a receive from a full one with endless senders.
void Nudge(Queue& queue, const Kind& kind) {
  long capacity = 0;
  const long count = HostCount(kind.host, &capacity);
  if (queue.endlessReceivers.load() > 0 && count == 0) SendOne(queue, kind, nullptr, LX_NO_WAIT);
  if (queue.endlessSenders.load() > 0 && count == capacity) ReceiveOne(queue, kind, LX_NO_WAIT);
}

const char* LostWakeUp(Queue& queue, const Kind& kind) {
  static char what[96];
  long capacity = 0;
  const long count = HostCount(kind.host, &capacity);
  const int receivers = queue.endlessReceivers.load(), senders = queue.endlessSenders.load();
  if ((receivers > 0 && count > 0) || (senders > 0 && count >= 0 && count < capacity)) {
    std::snprintf(what, sizeof what, "%s holds %ld of %ld messages; %d receivers and %d senders wait forever",
                  queue.name, count, capacity, receivers, senders);
    return what;
  }
  return nullptr;
}

// Takes what is left, then compares the ledger: sent = received + flushed.
void DrainAndAccount(Queue& queue, const Kind& kind) {
  const uint64_t before = queue.received.load();
  while (ReceiveOne(queue, kind, LX_NO_WAIT) == LX_SUCCESS) {
  }
  queue.drained = queue.received.load() - before;
  if (queue.sent.load() != queue.received.load() + queue.flushed) {
    Fail("%s: %" PRIu64 " messages sent, %" PRIu64 " received and %" PRIu64 " flushed", queue.name, queue.sent.load(),
         queue.received.load(), queue.flushed);
  }
}

// --- Message queues. ---

LX_QUEUE g_handle, g_scratch;
uint32_t g_storage[kDepth * kWords];  // the queue area create asks for; never used
Counts g_queueCounts;
Queue g_queue{"queue", 1, g_queueCounts};

LX_STATUS QueueSendOne(Worker* self, Message& message, uint32_t wait) {
  const bool front = self != nullptr && self->rng() % 4 == 0;
  auto send = [&] { return (front ? _lx_QueueFrontSend : _lx_QueueSend)(&g_handle, &message, wait); };
  return self != nullptr ? Timed(*self, front ? "queue front send" : "queue send", wait, g_queueCounts,
                                 LX_QUEUE_FULL, send)
                         : send();
}
LX_STATUS QueueReceiveOne(Message& message, uint32_t wait) { return _lx_QueueReceive(&g_handle, &message, wait); }
LX_STATUS QueueFlushOne() { return _lx_QueueFlush(&g_handle); }
const Kind kQueue{QueueSendOne, QueueReceiveOne, QueueFlushOne, &g_handle, LX_QUEUE_EMPTY, true};

void QueueCreate() {
  g_ledger = static_cast<std::atomic<uint8_t>*>(std::calloc(kIds, 1));
  if (g_ledger == nullptr) Fail("queues: no memory for the ledger");
  Expect(_lx_QueueCreate(&g_handle, "soakq", kWords, g_storage, sizeof g_storage), {LX_SUCCESS}, "queue create");
  Expect(_lx_QueueCreate(&g_scratch, "soakx", kWords, g_storage, sizeof g_storage), {LX_SUCCESS},
         "queue create (scratch)");
}

void QueueWork(Worker& self) {
  if (self.expendable) {
    Message junk{};
    Expect(self.rng() % 2 == 0 ? _lx_QueueSend(&g_scratch, &junk, LX_NO_WAIT)
                               : _lx_QueueReceive(&g_scratch, &junk, LX_NO_WAIT),
           {LX_SUCCESS, LX_QUEUE_FULL, LX_QUEUE_EMPTY}, "scratch queue");
    return;
  }
  Work(self, g_queue, kQueue, {LX_SUCCESS, LX_QUEUE_FULL}, {LX_SUCCESS, LX_QUEUE_EMPTY});
}

// At rest: count, flush, and find the queue empty.
void FlushAtRest(Queue& queue, const Kind& kind, bool slotsToo);

void QueueChaos(std::mt19937_64& rng) {
  if (rng() % 2 == 0) {
    Expect(_lx_QueueFlush(&g_scratch), {LX_SUCCESS}, "scratch queue flush");
    return;
  }
  FlushAtRest(g_queue, kQueue, false);
}

const char* QueueLostWakeUp() { return LostWakeUp(g_queue, kQueue); }
void QueueDrain() { Nudge(g_queue, kQueue); }

// --- The framed queue, with its lock. ---

constexpr uint16_t kFramedBytes = sizeof(Message);
FramedQueueCtrl g_framed;
uint8_t g_framedBuffer[256];
static_assert(((kFramedBytes + 5) * kDepth & ~3u) + 4 <= sizeof g_framedBuffer);
Counts g_framedCounts;
Queue g_framedQueue{"framed queue", 2, g_framedCounts};

// Waits up to 100 ticks for the lock, or not at all.
LX_STATUS FramedSendOne(Worker* self, Message& message, uint32_t wait) {
  const int32_t noWait = wait == LX_NO_WAIT ? 1 : 0;
  const int32_t placement = self != nullptr && self->rng() % 4 == 0 ? 0 : FRAMED_QUEUE_AT_BACK;
  auto send = [&] { return QueueSend(&g_framed, &message, noWait, placement); };
  return self != nullptr ? Timed(*self, "framed queue send", noWait != 0 ? LX_NO_WAIT : 100, g_framedCounts,
                                 LX_WAIT_ERROR, send)
                         : send();
}
LX_STATUS FramedReceiveOne(Message& message, uint32_t wait) { return QueueReceive(&g_framed, &message, wait); }
LX_STATUS FramedFlushOne() { return QueueFlush(&g_framed); }
const Kind kFramed{FramedSendOne, FramedReceiveOne, FramedFlushOne, &g_framed.psMsgQueue, LX_QUEUE_EMPTY, false};

int FullSlots() {
  int full = 0;
  for (uint32_t slot = 0; slot < kDepth; ++slot) {
    full += std::atomic_ref<uint8_t>(g_framedBuffer[slot * (kFramedBytes + 1)]).load() != 0;
  }
  return full;
}

void FramedCreate() {
  Expect(QueueCreate(&g_framed, "soakfq", kFramedBytes, kDepth, g_framedBuffer, 0, 1), {LX_SUCCESS},
         "framed queue create");
}

void FramedWork(Worker& self) {
  if (self.expendable) return;  // a send holds the lock across a cancellation point
  // A receive whose lock wait fails puts its message back: LX_QUEUE_ERROR.
  Work(self, g_framedQueue, kFramed, {LX_SUCCESS, LX_QUEUE_FULL, LX_WAIT_ERROR},
       {LX_SUCCESS, LX_QUEUE_EMPTY, LX_QUEUE_ERROR});
}

void FramedChaos(std::mt19937_64&) { FlushAtRest(g_framedQueue, kFramed, true); }
const char* FramedLostWakeUp() { return LostWakeUp(g_framedQueue, kFramed); }
void FramedDrain() { Nudge(g_framedQueue, kFramed); }

void FlushAtRest(Queue& queue, const Kind& kind, bool slotsToo) {
  if (!Due(queue.lastFlush, kFlushMs)) return;
  if (queue.gate.Close(kRestTicks, [&] { Nudge(queue, kind); })) {
    const long count = HostCount(kind.host);
    const int full = slotsToo ? FullSlots() : 0;
    if (slotsToo && full != count) Fail("%s: %d full slots at rest, %ld messages queued", queue.name, full, count);
    Expect(kind.flush(), {LX_SUCCESS}, "queue flush");
    const long after = HostCount(kind.host);
    if (count < 0 || after != 0 || (slotsToo && FullSlots() != 0)) {
      Fail("%s: %ld messages before the flush, %ld after", queue.name, count, after);
    } else {
      queue.flushed += static_cast<uint64_t>(count);
      ++queue.rests;
    }
  }
  queue.gate.Open();
}

// Both queues drained, then the ledger: no id left being sent, and the ids
// sent but never received are exactly the ones flushed.
void FinalCheck() {
  DrainAndAccount(g_queue, kQueue);
  DrainAndAccount(g_framedQueue, kFramed);
  uint64_t unreceived = 0, unfinished = 0;
  const uint64_t issued = std::min(g_issued.load(), kIds);
  for (uint64_t id = 0; id < issued; ++id) {
    const uint8_t state = StateOf(id).load();
    unreceived += state == kSent;
    unfinished += state == kSending;
  }
  const uint64_t flushed = g_queue.flushed + g_framedQueue.flushed;
  if (unfinished != 0 || unreceived != flushed) {
    Fail("queues: %" PRIu64 " ids never received, %" PRIu64 " flushed, %" PRIu64 " sends never finished", unreceived,
         flushed, unfinished);
  }
}

void Report(const Queue& queue) {
  std::printf("    %s: %" PRIu64 " sent = %" PRIu64 " received (%" PRIu64 " drained at the end) + %" PRIu64
              " flushed in %" PRIu64 " rest checks\n",
              queue.name, queue.sent.load(), queue.received.load(), queue.drained, queue.flushed, queue.rests);
}
void QueueReport() { Report(g_queue); }
void FramedReport() { Report(g_framedQueue); }

Family g_queueFamily{"queue",         g_queueCounts, QueueCreate, QueueWork,  QueueChaos,
                     QueueLostWakeUp, nullptr,       QueueDrain,  FinalCheck, QueueReport};
Register g_queueRegister(g_queueFamily);
Family g_framedFamily{"framed queue",   g_framedCounts, FramedCreate, FramedWork, FramedChaos,
                      FramedLostWakeUp, nullptr,        FramedDrain,  nullptr,    FramedReport};
Register g_framedRegister(g_framedFamily);

}  // namespace
}  // namespace soak
