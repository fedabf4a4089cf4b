// Application timers, driven tick by tick through the real timer thread.
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "tick_driver.h"

namespace quorvin::test {
namespace {

using Ints = std::vector<int>;
using Fields = std::vector<uint32_t>;

struct Call { uint32_t input; int tick; bool onTimerThread; int32_t pendingTicks; };
std::mutex g_mutex;
std::vector<Call> g_calls;
std::atomic<int> g_tick{0};

void Record(uint32_t input) {
  std::lock_guard lock(g_mutex);
  g_calls.push_back({input, g_tick, _lx_ThreadIdentify() == G_psTimer,
                     __atomic_load_n(&G_i32Ticks, __ATOMIC_RELAXED)});
}
Ints Fired(int input = -1) {  // the inputs in calling order or, given one, its ticks
  std::lock_guard lock(g_mutex);
  Ints found;
  for (const Call& call : g_calls) {
    if (input < 0) found.push_back(static_cast<int>(call.input));
    if (input == static_cast<int>(call.input)) found.push_back(call.tick);
  }
  return found;
}

// {active, remaining as reported, reschedule}, or {status} if refused.
Fields State(LX_TIMER* timer, char** name = nullptr) {
  char* unused = nullptr;
  uint16_t active = 0;
  uint32_t remaining = 0, reschedule = 0;
  int reserved = 0;
  const LX_STATUS status =
      _lx_TimerInfoGet(timer, name ? name : &unused, &active, &remaining, &reschedule, &reserved);
  return status == LX_SUCCESS ? Fields{active, remaining, reschedule} : Fields{status};
}

class AppTimerTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (!IsSkipped()) StartTimerThread();
  }
  static void Tick(int n = 1) {  // works n ticks off, one at a time
    for (int i = 0; i < n; ++i) {
      ++g_tick;
      SignalTicks(1);
      ASSERT_TRUE(TicksDone());
    }
  }
};

void OtherFunction(uint32_t) { Record(99); }

TEST_F(AppTimerTest, FiresOnTheNthTickThenEveryRTicksOrOnceOnTheTimerThread) {
  LX_TIMER periodic = nullptr, once = nullptr, idle = nullptr, broken = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&periodic, "a name of twenty-five chs", Record, 1, 3, 2, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&once, nullptr, Record, 2, 4, 0, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&idle, "idle", Record, 3, 1, 1, 0), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&broken, nullptr, Record, 4, 2, 2, 1), LX_SUCCESS);
  broken->pfnExpirationCheck = OtherFunction;  // mismatching copies: ended without a call
  Tick(10);
  EXPECT_EQ(Fired(1), (Ints{3, 5, 7, 9}));
  EXPECT_EQ(Fired(), (Ints{1, 2, 1, 1, 1}));  // the one-shot on tick 4
  for (const Call& call : g_calls) EXPECT_TRUE(call.onTimerThread);
  char* name = nullptr;
  EXPECT_EQ(State(&periodic, &name), (Fields{1, 1, 2}));
  EXPECT_STREQ(name, "a name of twenty-fi");
  EXPECT_EQ(State(&once, &name), (Fields{0, 0, 0}));
  EXPECT_STREQ(name, "");
  EXPECT_EQ(State(&idle), (Fields{0, 1, 1}));
  EXPECT_EQ(State(&broken), (Fields{0, 0, 2}));
  uint16_t active = 7;
  uint32_t remaining = 7, reschedule = 7;
  EXPECT_EQ(_lx_TimerInfoGet(&periodic, &name, &active, &remaining, &reschedule, nullptr), LX_PTR_ERROR);
  EXPECT_TRUE(active == 7 && remaining == 7 && reschedule == 7);
}

TEST_F(AppTimerTest, CreateRefusalsHandleWordsAndTheTableOf99) {
  LX_TIMER word = nullptr, live = nullptr;
  EXPECT_EQ(_lx_TimerCreate(nullptr, "x", Record, 0, 0, 0, 2), LX_TIMER_ERROR);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", nullptr, 0, 0, 0, 2), LX_TIMER_ERROR);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 0, 0, 0, 2), LX_TICK_ERROR);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 0, 1, 0, 2), LX_ACTIVATE_ERROR);
  ASSERT_EQ(_lx_TimerCreate(&live, "live", Record, 1, 1, 0, 1), LX_SUCCESS);
  TimerControlBlock* const block = live;
  EXPECT_EQ(_lx_TimerCreate(&live, "again", Record, 2, 1, 0, 1), LX_TIMER_ERROR);
  EXPECT_EQ(live, block);
  EXPECT_EQ(_lx_TimerActivate(&word), LX_TIMER_ERROR);
  // A word naming no timer of the table is cleared; freeing this static block would abort.
  static TimerControlBlock foreign{"foreign", Record, Record, 5, 1, 9, 9, 9};
  TimerControlBlock copy;
  std::memcpy(&copy, &foreign, sizeof copy);
  LX_TIMER stray = &foreign;
  EXPECT_EQ(_lx_TimerDelete(&stray), LX_SUCCESS);
  EXPECT_EQ(stray, nullptr);
  EXPECT_EQ(std::memcmp(&foreign, &copy, sizeof copy), 0);
  static LX_TIMER table[97];
  for (LX_TIMER& timer : table) ASSERT_EQ(_lx_TimerCreate(&timer, "t", Record, 0, 1000, 0, 0), LX_SUCCESS);
  stray = &foreign;
  ASSERT_EQ(_lx_TimerCreate(&stray, "new", Record, 3, 1, 0, 1), LX_SUCCESS);  // the 99th
  EXPECT_NE(stray, &foreign);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 0, 1, 0, 1), LX_POOL_ERROR);
  EXPECT_EQ(word, nullptr);
  EXPECT_EQ(_lx_TimerDelete(&table[40]), LX_SUCCESS);
  EXPECT_EQ(_lx_TimerDelete(&table[40]), LX_TIMER_ERROR);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 7, 1, 0, 1), LX_SUCCESS);
  EXPECT_EQ(_lx_TimerCreate(&table[40], "y", Record, 0, 1, 0, 1), LX_POOL_ERROR);
  Tick();
  EXPECT_EQ(Fired(), (Ints{1, 3, 7}));
}

TEST_F(AppTimerTest, SameTickRunsInTableOrderAndDeletionMovesTheLastTimerIntoTheGap) {
  LX_TIMER a = nullptr, b = nullptr, c = nullptr, d = nullptr, e = nullptr;
  LX_TIMER* const words[] = {&a, &b, &c, &d};
  for (uint32_t i = 0; i < 4; ++i) {
    ASSERT_EQ(_lx_TimerCreate(words[i], nullptr, Record, 'A' + i, 2, 2, 1), LX_SUCCESS);
  }
  ASSERT_EQ(_lx_TimerDelete(&b), LX_SUCCESS);
  Tick(2);
  EXPECT_EQ(Fired(), (Ints{'A', 'D', 'C'}));
  ASSERT_EQ(_lx_TimerDelete(&c), LX_SUCCESS);  // the last one: its slot is just cleared
  ASSERT_EQ(_lx_TimerCreate(&e, nullptr, Record, 'E', 2, 0, 1), LX_SUCCESS);
  Tick(2);
  EXPECT_EQ(Fired(), (Ints{'A', 'D', 'C', 'A', 'D', 'E'}));
}

TEST_F(AppTimerTest, DeactivateKeepsTheCountActivateDoesNotReloadItAndChangeDoes) {
  LX_TIMER timer = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&timer, nullptr, Record, 1, 8, 0, 1), LX_SUCCESS);
  Tick(3);
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  Tick(10);
  EXPECT_EQ(State(&timer), (Fields{0, 5, 0}));
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(Fired(1), Ints{18});
  // An expired one-shot timer activated again counts on from 0 and wraps.
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);
  Tick();
  EXPECT_EQ(timer->u32RemainingTicks, 0xFFFFFFFFu);
  EXPECT_EQ(State(&timer), (Fields{1, 0, 0}));
  Tick();
  EXPECT_EQ(State(&timer), (Fields{1, 0xFFFFFFFE, 0}));
  EXPECT_EQ(_lx_TimerChange(&timer, 0, 5), LX_TICK_ERROR);
  EXPECT_EQ(State(&timer), (Fields{1, 0xFFFFFFFE, 0}));
  ASSERT_EQ(_lx_TimerChange(&timer, 3, 1), LX_SUCCESS);  // counts from the next tick
  Tick(5);
  EXPECT_EQ(Fired(1), (Ints{18, 23, 24, 25}));
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerChange(&timer, 2, 0), LX_SUCCESS);  // leaves it inactive
  Tick(3);
  EXPECT_EQ(State(&timer), (Fields{0, 2, 0}));
}

LX_TIMER g_self = nullptr, g_scratch = nullptr;
std::vector<LX_STATUS> g_statuses;

void Misbehave(uint32_t input) {
  Record(input);
  if (g_statuses.empty()) {
    g_statuses = {_lx_TimerCreate(&g_scratch, "scratch", Record, 2, 1, 0, 1), _lx_TimerDelete(&g_self),
                  _lx_TimerDeactivate(&g_self)};
  }
}

TEST_F(AppTimerTest, CreateAndDeleteAreRefusedInsideAnExpirationFunction) {
  ASSERT_EQ(_lx_TimerCreate(&g_self, nullptr, Misbehave, 1, 1, 3, 1), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(g_statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_SUCCESS}));
  EXPECT_EQ(g_scratch, nullptr);
  EXPECT_EQ(Fired(), Ints{1});
  EXPECT_EQ(State(&g_self), (Fields{0, 3, 3}));  // deactivated from inside, reloaded, still there
}

std::atomic<bool> g_gateOpen{false}, g_held{false};

void HoldUntilTheGateOpens(uint32_t input) {
  Record(input);
  g_held = true;
  while (!g_gateOpen) std::this_thread::sleep_for(1ms);
}

TEST_F(AppTimerTest, NoTickIsLostWhileTheTimerThreadIsHeldUp) {
  LX_TIMER every = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&every, nullptr, HoldUntilTheGateOpens, 1, 1, 1, 1), LX_SUCCESS);
  SignalTicks(1);
  ASSERT_TRUE(WaitUntil([] { return g_held.load(); }));
  SignalTicks(4);
  EXPECT_EQ(PipeBacklog(), 4);
  g_gateOpen = true;
  ASSERT_TRUE(TicksDone());
  std::vector<int32_t> pending;  // one decrement per walk: each tick had a walk of its own
  for (const Call& call : g_calls) {
    if (call.input == 1) pending.push_back(call.pendingTicks);
  }
  EXPECT_EQ(pending, (std::vector<int32_t>{0, 3, 2, 1, 0}));
}

}  // namespace
}  // namespace quorvin::test
