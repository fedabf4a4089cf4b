#include "support/kernel_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

namespace quorvin::test {

void BootCore() {
  static bool booted = false;
  if (booted) return;
  booted = true;
  RTOS_LogInit();
  _lx_ThreadInitialize();
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

namespace {

void* RunBody(uint64_t input) {
  // Owned here, so a thread terminated inside the body frees it as it unwinds.
  const std::unique_ptr<std::function<void()>> body(reinterpret_cast<std::function<void()>*>(input));
  (*body)();
  return nullptr;
}

}  // namespace

LX_STATUS Spawn(LX_THREAD* handle, const char* name, std::function<void()> body, uint16_t priority,
                uint16_t threshold, uint16_t autoStart) {
  auto* heapBody = new std::function<void()>(std::move(body));
  const LX_STATUS status = _lx_ThreadCreate(handle, name, RunBody, reinterpret_cast<uint64_t>(heapBody),
                                            nullptr, 0, priority, threshold, 0, autoStart);
  if (status != LX_SUCCESS) delete heapBody;
  return status;
}

bool Join(LX_THREAD thread, std::chrono::milliseconds limit) {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(limit.count() / 1000);
  return pthread_timedjoin_np(thread->hThread, nullptr, &deadline) == 0;
}

CmServiceRequest& OwnRequest() {
  LX_THREAD* self = _lx_ThreadIdentify();
  if (self == nullptr || *self == nullptr) {
    ADD_FAILURE() << "calling thread is not in the pool";
    std::abort();
  }
  return (*self)->sRequest;
}

uint16_t Issue(uint16_t service, void* object, uint32_t waitOption, uint64_t value, uint64_t option,
               void* data) {
  CmServiceRequest& request = OwnRequest();
  request.u16Service = service;
  request.psThread = _lx_ThreadIdentify();
  request.pvObject = object;
  request.u32WaitOption = waitOption;
  request.u64Value = value;
  request.u64Option = option;
  request.pvData = data;
  CM_Request(&request);
  return request.u16Status;
}

std::vector<std::string> PidListLines() {
  std::ifstream file(LX_PID_LIST_PATH);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

int OpenDescriptorCount() {
  int count = 0;
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return -1;
  while (dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(directory);
  return count - 1;  // the directory's own descriptor
}

StandInTimer::StandInTimer() {
  if (::pipe2(commands_, O_CLOEXEC) != 0 || ::pipe2(done_, O_CLOEXEC) != 0) std::abort();
  const LX_STATUS status = Spawn(G_psTimer, "TimerISR", [this] {
    for (;;) {
      char command = 0;
      if (::read(commands_[0], &command, 1) != 1) continue;
      if (command == 'P') {
        SleepAgentEx();
      } else {
        work_();
      }
      const char reply = 'D';
      while (::write(done_[1], &reply, 1) != 1) {
      }
    }
  });
  if (status != LX_SUCCESS) ADD_FAILURE() << "stand-in timer thread: status " << status;
}

void StandInTimer::Command(char command) {
  char reply = 0;
  while (::write(commands_[1], &command, 1) != 1) {
  }
  while (::read(done_[0], &reply, 1) != 1) {
  }
}

void StandInTimer::RunPasses(int n) {
  for (int i = 0; i < n; ++i) Command('P');
}

void StandInTimer::Run(const std::function<void()>& work) {
  work_ = work;
  Command('W');
}

std::vector<uint64_t>& RecordedValues() {
  static std::vector<uint64_t> values;
  return values;
}

namespace {

TestObject& ObjectOf(const CmServiceRequest& request) {
  return **static_cast<TestObject**>(request.pvObject);
}

void TestClassFunction(uint16_t service, CmServiceRequest* request) {
  using namespace quorvin::detail;
  request->u16Status = LX_SUCCESS;
  switch (service) {
    case kTestTake: {
      TestObject& object = ObjectOf(*request);
      if (object.u32Available > 0) {
        --object.u32Available;
        CM_WakeUpThread(request);
        return;
      }
      SetThreadState(request->psThread, LX_STATE_SEMAPHORE_WAIT);
      request->u16Status = kTestTimeoutStatus;
      const uint8_t flags = (request->u64Option & kTestFlagsGiven) != 0
                                ? static_cast<uint8_t>(request->u64Option)
                                : CM_SUSPEND_COUNT_UP;
      CM_AddToSuspendList(request, &object.sSuspendCtrl, flags);
      return;
    }
    case kTestGive: {
      TestObject& object = ObjectOf(*request);
      CM_WakeUpThread(request);
      if (object.sSuspendCtrl.i32SuspendCount != 0) {
        CM_RemoveTargetFromSuspendListEx(&object.sSuspendCtrl, object.sSuspendCtrl.psFirstSuspend,
                                         CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
      } else {
        ++object.u32Available;
      }
      return;
    }
    case kTestReleaseAll:
      CM_WakeUpAllThreadInSuspendList(request, &ObjectOf(*request).sSuspendCtrl,
                                      static_cast<uint16_t>(request->u64Value));
      CM_WakeUpThread(request);
      return;
    case kTestMoveToFront: {
      auto* node = static_cast<SuspendNode*>(request->pvData);
      SuspendCtrl& list = ObjectOf(*request).sSuspendCtrl;
      CM_RemoveTargetFromSuspendListEx(&list, node, CM_REMOVE_UNLINK_ONLY, CM_STATUS_UNUSED);
      CmServiceRequest* moved = OwnerRequest(*node);
      CM_AddToSuspendList(moved, &list, CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP);
      CM_WakeUpThread(request);
      return;
    }
    case kTestRecord:
      RecordedValues().push_back(request->u64Value);
      CM_WakeUpThread(request);
      return;
    case kTestRemove:
      CM_RemoveTargetFromSuspendListEx(&ObjectOf(*request).sSuspendCtrl,
                                       static_cast<SuspendNode*>(request->pvData),
                                       static_cast<uint8_t>(request->u64Option),
                                       static_cast<uint16_t>(request->u64Value));
      CM_WakeUpThread(request);
      return;
    default:
      request->u16Status = LX_NOT_AVAILABLE;
      CM_WakeUpThread(request);
  }
}

void TestClassWakeUp(CmServiceRequest* driver) {
  auto* waiting = static_cast<CmServiceRequest*>(driver->pvObject);
  SuspendCtrl& list = ObjectOf(*waiting).sSuspendCtrl;
  if (list.i32SuspendCount == 0) return;
  for (SuspendNode* node = list.psFirstSuspend; node != nullptr; node = node->psNext) {
    if (node->psOwner != driver->psTarget) continue;
    RecordedValues().push_back(reinterpret_cast<uint64_t>(node->psOwner));
    if (driver->u16Service == CM_OP_TIMEOUT) {
      CM_RemoveTargetFromSuspendListEx(&list, node, CM_REMOVE_WITH_STATUS, kTestTimeoutStatus);
    } else {
      CM_RemoveTargetFromSuspendListEx(&list, node, CM_REMOVE_ABORTED, CM_STATUS_UNUSED);
    }
    return;
  }
}

}  // namespace

StandInTimer& Timer() {
  static StandInTimer* const timer = new StandInTimer;
  return *timer;
}

Statuses OnTimerThread(const std::function<Statuses()>& calls) {
  Statuses statuses;
  Timer().Run([&] { statuses = calls(); });
  return statuses;
}

size_t SleepAgentEntries() {
  std::lock_guard lock(quorvin::detail::CmLock());
  size_t n = 0;
  for (auto* r = quorvin::detail::S_psSleepTop; r != nullptr; r = r->psSleepNext) ++n;
  return n;
}

int32_t Waiting(const SuspendCtrl& list) {
  std::lock_guard lock(quorvin::detail::CmLock());
  return list.i32SuspendCount;
}

LX_THREAD* FirstWaiter(const SuspendCtrl& list) {
  std::lock_guard lock(quorvin::detail::CmLock());
  return list.psFirstSuspend != nullptr ? list.psFirstSuspend->psOwner : nullptr;
}

Waiters::Waiter& Waiters::Start(std::function<uint32_t()> call, std::function<bool()> parked, uint16_t priority,
                                const char* name) {
  Waiter& waiter = waiters_.emplace_back();
  EXPECT_EQ(Spawn(&waiter.handle, name, [&waiter, call = std::move(call)] { waiter.status = call(); }, priority),
            LX_SUCCESS);
  if (parked) {
    EXPECT_TRUE(WaitUntil(parked)) << name << " never began to wait";
  }
  return waiter;
}

Waiters::Waiter& Waiters::StartOn(const SuspendCtrl& list, std::function<uint32_t()> call, uint16_t priority) {
  const int32_t before = Waiting(list);
  return Start(std::move(call), [&list, before] { return Waiting(list) != before; }, priority);
}

uint32_t Waiters::StatusOf(const Waiter& waiter, std::chrono::milliseconds limit) {
  WaitUntil([&] { return waiter.Done(); }, limit);
  return waiter.status.load();
}

void Waiters::JoinAll() {
  for (Waiter& waiter : waiters_) {
    if (waiter.handle != nullptr) {
      EXPECT_TRUE(Join(waiter.handle)) << "a waiter never ended";
    }
  }
  waiters_.clear();
}

void InstallTestClass() {
  quorvin::detail::ReplaceClassEntry(quorvin::detail::ClassIndex(kTestClass),
                                     {&TestClassFunction, &TestClassWakeUp});
}

void KernelTest::SetUp() {
  QUORVIN_REQUIRE_ISOLATION();
  BootCore();
  InstallTestClass();
}

}  // namespace quorvin::test
