// The 50-slot handle registry: look-ups take no lock, so they must stay exact
// while other handles are added and removed around them.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "cm/registry.h"

namespace quorvin::test {
namespace {

using quorvin::detail::HandleRegistry;
using quorvin::detail::kRegistrySlots;

class RegistryTest : public ::testing::Test {
 protected:
  void* slots_[kRegistrySlots] = {};
  int32_t count_ = 0;
  HandleRegistry registry_{slots_, count_};
  int handles_[kRegistrySlots + 1] = {};
};

TEST_F(RegistryTest, ALookUpIsExactAfterRemovalsMoveHandlesAndSlotsAreReused) {
  for (int i = 0; i < kRegistrySlots; ++i) ASSERT_TRUE(registry_.Add(&handles_[i]));
  EXPECT_FALSE(registry_.Add(&handles_[kRegistrySlots]));  // full: nothing past the table
  EXPECT_TRUE(registry_.Full());
  ASSERT_TRUE(registry_.Contains(&handles_[3]));  // leaves a hint at slot 3

  // Removing slot 3 moves the last handle into it; the remembered slot now
  // holds another handle and must not answer for the removed one.
  ASSERT_TRUE(registry_.Remove(&handles_[3]));
  EXPECT_FALSE(registry_.Contains(&handles_[3]));
  EXPECT_EQ(slots_[3], &handles_[kRegistrySlots - 1]);
  EXPECT_EQ(slots_[kRegistrySlots - 1], nullptr);
  EXPECT_TRUE(registry_.Contains(&handles_[kRegistrySlots - 1]));
  EXPECT_FALSE(registry_.Remove(&handles_[3]));

  // A hint left past the count by a removed last slot is ignored.
  ASSERT_TRUE(registry_.Contains(&handles_[kRegistrySlots - 2]));
  ASSERT_TRUE(registry_.Remove(&handles_[kRegistrySlots - 2]));
  EXPECT_FALSE(registry_.Contains(&handles_[kRegistrySlots - 2]));
  EXPECT_EQ(count_, kRegistrySlots - 2);

  // A handle registered twice stays registered until its second removal.
  ASSERT_TRUE(registry_.Add(&handles_[0]));
  ASSERT_TRUE(registry_.Remove(&handles_[0]));
  EXPECT_TRUE(registry_.Contains(&handles_[0]));
  ASSERT_TRUE(registry_.Remove(&handles_[0]));
  EXPECT_FALSE(registry_.Contains(&handles_[0]));
}

// One thread keeps looking up a handle while another registers it last and
// removes the slot below, which moves it down the table. A generation count
// (odd: the handle is registered) tells the reader when a miss is a fault.
TEST_F(RegistryTest, AHandleThatStaysRegisteredIsNeverMissedWhileItMoves) {
  int& moving = handles_[kRegistrySlots];
  constexpr int kOthers = 20;
  std::atomic<unsigned> generation{0};
  std::atomic<bool> stop{false};
  std::atomic<long> misses{0}, checked{0};
  std::thread reader([&] {
    while (!stop.load()) {
      const unsigned before = generation.load();
      if (before % 2 == 0) continue;
      const bool found = registry_.Contains(&moving);
      if (generation.load() != before) continue;
      checked.fetch_add(1);
      if (!found) misses.fetch_add(1);
    }
  });
  for (long round = 0; round < 20000 || (checked.load() < 100000 && round < 20'000'000); ++round) {
    for (int i = 0; i < kOthers; ++i) ASSERT_TRUE(registry_.Add(&handles_[i]));
    ASSERT_TRUE(registry_.Add(&moving));
    generation.fetch_add(1);
    for (int i = 0; i < kOthers; ++i) ASSERT_TRUE(registry_.Remove(&handles_[i]));  // the first moves it to slot 0
    ASSERT_EQ(slots_[0], &moving);
    generation.fetch_add(1);
    ASSERT_TRUE(registry_.Remove(&moving));
  }
  stop.store(true);
  reader.join();
  EXPECT_GE(checked.load(), 100000);
  EXPECT_EQ(misses.load(), 0) << "of " << checked.load() << " look-ups";
}

}  // namespace
}  // namespace quorvin::test
