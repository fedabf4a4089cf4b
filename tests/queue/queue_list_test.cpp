// The queue list store: order at both ends, the node pool, the list lock and
// the receive gate.
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "quorvin/quorvin.h"

namespace {

using Message = std::array<uint32_t, 2>;

// Points the error stream at a temporary file for one test and gives back
// what was written.
class ErrorLog {
 public:
  ErrorLog() : saved_(hCM_Error), file_(std::tmpfile()) { hCM_Error = file_; }
  ~ErrorLog() {
    hCM_Error = saved_;
    std::fclose(file_);
  }
  std::string Text() {
    std::fflush(file_);
    std::rewind(file_);
    std::string text;
    for (int c; (c = std::fgetc(file_)) != EOF;) text += static_cast<char>(c);
    return text;
  }

 private:
  FILE* saved_;
  FILE* file_;
};

class QueueListTest : public ::testing::Test {
 protected:
  void SetUp() override { list_ = QueueListCreate(3, 2, storage_); }
  void TearDown() override { EXPECT_EQ(QueueListDelete(list_), 0); }
  int32_t Send(uint32_t tag, int32_t atBack = 1) {
    const Message m{tag, ~tag};
    return QueueListSend(list_, m.data(), atBack, 0);
  }
  // Tag of the received message, or the store's nonzero result negated.
  int64_t Receive(int32_t fromBack = 0) {
    Message m{};
    const int32_t result = QueueListReceive(list_, m.data(), fromBack, 0);
    if (result != 0) return -result;
    EXPECT_EQ(m[1], ~m[0]);
    return m[0];
  }

  uint32_t storage_[6] = {};
  QueueListCtrl* list_ = nullptr;
};

TEST_F(QueueListTest, BothEndsKeepTheirOrderAndTheGateStaysClosedUntilTheFirstSend) {
  ASSERT_NE(list_, nullptr);
  EXPECT_EQ(Receive(), -QUEUE_LIST_BUSY);  // no send yet: the gate is closed
  EXPECT_EQ(list_->sReceiveGate.u32Open, 0u);
  ASSERT_EQ(Send('A'), 0);
  ASSERT_EQ(Send('B'), 0);
  ASSERT_EQ(Send('C', 0), 0);
  EXPECT_EQ(list_->i32Count, 3);
  EXPECT_EQ(list_->psHead->psPrevNode, list_->psTail);  // circular both ways
  EXPECT_EQ(list_->psTail->psNextNode, list_->psHead);
  for (int64_t expected : {'C', 'A', 'B'}) EXPECT_EQ(Receive(), expected);
  EXPECT_EQ(Receive(), -QUEUE_LIST_EMPTY);
  EXPECT_EQ(list_->psHead, nullptr);
  // From the back: the newest appended, else the oldest put at the front.
  ASSERT_EQ(Send('D', 0), 0);
  ASSERT_EQ(Send('E', 0), 0);
  ASSERT_EQ(Send('F'), 0);
  EXPECT_EQ(Receive(1), 'F');
  EXPECT_EQ(Receive(1), 'D');
  EXPECT_EQ(Receive(1), 'E');
  EXPECT_EQ(list_->i32Count, 0);
}

TEST_F(QueueListTest, ExhaustedPoolAndFlushLeaveTheStoreConsistent) {
  ErrorLog log;
  for (uint32_t tag : {1u, 2u, 3u}) ASSERT_EQ(Send(tag), 0);
  EXPECT_EQ(Send(4), QUEUE_LIST_EMPTY);
  EXPECT_EQ(log.Text(), " QueueMemAlloc Fail\n");
  EXPECT_EQ(list_->i32Count, 3);
  ASSERT_EQ(pthread_mutex_trylock(&list_->sListLock), 0);  // released after the failure
  pthread_mutex_unlock(&list_->sListLock);
  EXPECT_EQ(Receive(1), 3);
  EXPECT_EQ(QueueListFlush(list_), 0);
  EXPECT_EQ(list_->i32Count, 0);
  EXPECT_EQ(list_->psHead, nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(list_->paNodes[i].u32Free, 1u) << i;
  ASSERT_EQ(Send(7), 0);
  EXPECT_EQ(list_->psHead, &list_->paNodes[0]);
  EXPECT_EQ(list_->psHead->pvSlot, static_cast<void*>(storage_));
  EXPECT_EQ(storage_[0], 7u);
  QueueMemNode stranger{};
  EXPECT_EQ(QueueMemFree(list_, &stranger), 1);
  EXPECT_EQ(QueueMemFree(list_, &list_->paNodes[1]), 0);  // a free node of the pool: accepted
  EXPECT_EQ(log.Text(), " QueueMemAlloc Fail\n QueueMemFree Fail\n");
}

TEST_F(QueueListTest, AHeldLockOrClosedGateMakesACallBusyWithoutChange) {
  ASSERT_EQ(Send(1), 0);
  pthread_mutex_lock(&list_->sListLock);  // a flush in progress, say
  EXPECT_EQ(Send(2), QUEUE_LIST_BUSY);
  EXPECT_EQ(list_->i32Count, 1);
  const Message held{5, ~5u};
  EXPECT_EQ(QueueListSend(list_, held.data(), 1, 1), 0);  // the caller's hold, given up at the end
  EXPECT_EQ(list_->i32Count, 2);
  ASSERT_EQ(pthread_mutex_trylock(&list_->sListLock), 0);
  pthread_mutex_unlock(&list_->sListLock);
  __atomic_store_n(&list_->sReceiveGate.u32Open, 0u, __ATOMIC_RELAXED);  // a receive in progress elsewhere
  EXPECT_EQ(Receive(), -QUEUE_LIST_BUSY);
  EXPECT_EQ(list_->i32Count, 2);
  Message m{};
  EXPECT_EQ(QueueListReceive(list_, m.data(), 0, 1), 0);  // the caller holds the gate
  EXPECT_EQ(m[0], 1u);
  EXPECT_EQ(list_->sReceiveGate.u32Open, 1u);
  EXPECT_EQ(Send(3), 0);  // opening an open gate changes nothing
  EXPECT_EQ(Receive(), 5);
}

TEST(QueueListCreate, RefusesWhatItCannotCarry) {
  uint32_t storage[16];
  for (uint32_t words : {0u, 3u, 5u, 32u}) EXPECT_EQ(QueueListCreate(1, words, storage), nullptr) << words;
  EXPECT_EQ(QueueListCreate(1, 1, nullptr), nullptr);
  QueueListCtrl* none = QueueListCreate(0, 16, storage);  // a store with no room
  ASSERT_NE(none, nullptr);
  const uint32_t m[16] = {};
  ErrorLog log;
  EXPECT_EQ(QueueListSend(none, m, 1, 0), QUEUE_LIST_EMPTY);
  EXPECT_EQ(QueueListDelete(none), 0);
}

}  // namespace
