#include "vxproxy/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "../support/process.h"
#include "platform/winnames.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Waits up to five seconds for a condition that another thread makes true.
template <typename Predicate>
bool Eventually(Predicate done) {
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A worker stuck outside its socket calls until the test lets it go; then,
// like a session, its body still writes to the object's own members. The
// flags live outside the object, which a test may no longer touch.
class Worker : public CThreadEx {
 public:
  Worker(std::atomic<bool>& release, std::atomic<bool>& destroyed)
      : release_(release), destroyed_(destroyed), scratch_(4096, 0) {}
  ~Worker() override { destroyed_ = true; }

  std::atomic<bool> entered{false};
  std::atomic<int> runs{0};

  DWORD Run() override {
    runs.fetch_add(1);
    entered = true;
    while (!release_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (std::size_t i = 0; i < scratch_.size(); ++i) scratch_[i] = static_cast<char>(i);
    note_ = std::string(200, 'x');
    return 0;
  }

 private:
  std::atomic<bool>& release_;
  std::atomic<bool>& destroyed_;
  std::vector<char> scratch_;
  std::string note_;
};

TEST(ThreadLifecycle, RunsFromStartUntilItsBodyReturnsAndStartsAgain) {
  std::atomic<bool> release{false}, destroyed{false};
  Worker worker(release, destroyed);
  EXPECT_FALSE(worker.isRunning());
  ASSERT_TRUE(worker.Start());
  EXPECT_TRUE(worker.isRunning());
  ASSERT_TRUE(Eventually([&] { return worker.entered.load(); }));
  EXPECT_FALSE(worker.Start());  // one thread at a time
  auto start = Clock::now();
  EXPECT_FALSE(worker.Stop(100));
  EXPECT_GE(MsSince(start), 95);
  release = true;
  EXPECT_TRUE(worker.Stop());
  EXPECT_FALSE(worker.isRunning());
  // The service object's accept thread is started again after a stop.
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(Eventually([&] { return !worker.isRunning(); }));
  start = Clock::now();
  EXPECT_TRUE(worker.Stop(0));
  EXPECT_LT(MsSince(start), 100);
  EXPECT_EQ(2, worker.runs.load());
}

TEST(ThreadLifecycle, EndedOrNeverStartedWorkerIsDestroyedWithoutStop) {
  std::atomic<bool> release{true}, destroyed{false};
  auto* worker = new Worker(release, destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return !worker->isRunning(); }));
  delete worker;  // neither joined nor stopped: must not end the process
  delete new Worker(release, destroyed);
}

TEST(ThreadLifecycle, WorkerMayFreeItselfFromItsBody) {
  class SelfFreeing : public CThreadEx {
   public:
    explicit SelfFreeing(std::atomic<bool>& freed) : freed_(freed) {}
    ~SelfFreeing() override { freed_ = true; }
    DWORD Run() override {
      delete this;
      return 0;
    }

   private:
    std::atomic<bool>& freed_;
  };
  std::atomic<bool> freed{false};
  ASSERT_TRUE((new SelfFreeing(freed))->Start());
  EXPECT_TRUE(Eventually([&] { return freed.load(); }));
}

TEST(ThreadKill, KilledWorkerCountsAsEndedButLivesUntilItsBodyReturns) {
  // Freeing the object at Dispose would make the body write into freed
  // memory, which AddressSanitizer reports; it must not leak either.
  std::atomic<bool> release{false}, destroyed{false};
  auto* worker = new Worker(release, destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return worker->entered.load(); }));
  worker->Kill();
  EXPECT_FALSE(worker->isRunning());
  const auto start = Clock::now();
  EXPECT_TRUE(worker->Stop());
  EXPECT_LT(MsSince(start), 100);
  EXPECT_FALSE(worker->Start());  // its old body still runs
  CThreadEx::Dispose(worker);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(destroyed.load());
  release = true;
  EXPECT_TRUE(Eventually([&] { return destroyed.load(); }));
}

TEST(ThreadKill, DisposeWaitsForARunningBodyAndFreesAnEndedOneAtOnce) {
  std::atomic<bool> release{false}, destroyed{false}, ended{false};
  auto* worker = new Worker(release, destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return worker->entered.load(); }));
  auto disposer = std::async(std::launch::async, [worker] { CThreadEx::Dispose(worker); });
  EXPECT_EQ(std::future_status::timeout, disposer.wait_for(std::chrono::milliseconds(50)));
  EXPECT_FALSE(destroyed.load());
  release = true;
  disposer.get();
  EXPECT_TRUE(destroyed.load());

  worker = new Worker(release, ended);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return !worker->isRunning(); }));
  worker->Kill();  // too late to change anything
  CThreadEx::Dispose(worker);
  EXPECT_TRUE(ended.load());
  CThreadEx::Dispose(nullptr);
}

// ------------------------------------------------------------------ locks --

// Takes the lock from a second thread within the time and gives it back.
unsigned long LockFromAnotherThread(CSynchronizationBase& lock, unsigned long timeoutMs) {
  return std::async(std::launch::async, [&lock, timeoutMs] {
    const unsigned long status = lock.Lock(timeoutMs);
    if (status != kLockTimedOut) lock.UnLock();
    return status;
  }).get();
}

TEST(CriticalSection, RecursiveEntriesMustAllBeLeftAndACopyIsAFreshLock) {
  CCriticalSectionEx lock;
  lock.Enter();
  lock.Enter();
  lock.Leave();
  EXPECT_EQ(kLockTimedOut, LockFromAnotherThread(lock, 100));
  CCriticalSectionEx copy(lock);
  EXPECT_EQ(kLockAcquired, LockFromAnotherThread(copy, 50));
  auto waiter = std::async(std::launch::async, [&lock] { return LockFromAnotherThread(lock, 5000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  lock.Leave();
  EXPECT_EQ(kLockAcquired, waiter.get());
}

TEST(Signal, AutoResetLetsOneWaitPassPerSignal) {
  CLock signal(0, 1);
  EXPECT_EQ(kLockTimedOut, signal.Lock(30));
  signal.Signal();
  EXPECT_EQ(kLockAcquired, signal.Lock(0));
  EXPECT_EQ(kLockTimedOut, signal.Lock(30));
  auto waiter = std::async(std::launch::async, [&signal] {
    const auto start = Clock::now();
    return signal.Lock(2000) == kLockAcquired && MsSince(start) < 1000;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  signal.Signal();
  EXPECT_TRUE(waiter.get());
}

// ------------------------------------------------- named semaphore (CSem) --

std::string UniqueSemName(const char* what) {
  return std::string("vxtest-") + what + "-" + std::to_string(Clock::now().time_since_epoch().count());
}

const std::string kSemChild = VX_BINARY_DIR "/tests/sem_child";

TEST(NamedLock, HolderInOtherProcessBlocksUntilKilledWithSigkill) {
  const std::string name = UniqueSemName("killed");
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"hold", name}));
  ASSERT_EQ("locked", child.ReadLine(5000));

  CSem sem(name.c_str());
  auto start = Clock::now();
  {
    CAutoSync guard(sem, 500);
    EXPECT_EQ(kLockTimedOut, guard.GetStatus());
  }
  EXPECT_GE(MsSince(start), 450);
  EXPECT_EQ(kLockTimedOut, sem.Lock(0));  // the guard released nothing
  child.Kill();
  start = Clock::now();
  {
    CAutoSync guard(sem, 3000);
    EXPECT_EQ(kLockAcquired, guard.GetStatus());
  }
  EXPECT_LT(MsSince(start), 2500);
  EXPECT_EQ(128 + 9, child.Wait(5000));
}

TEST(NamedLock, ReleaseInOtherProcessHandsTheUnitOver) {
  const std::string name = UniqueSemName("handover");
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"hold", name, "300"}));
  ASSERT_EQ("locked", child.ReadLine(5000));
  CSem sem(name.c_str());
  const auto start = Clock::now();
  {
    CAutoSync guard(sem, 3000);
    EXPECT_EQ(kLockAcquired, guard.GetStatus());
    EXPECT_GE(MsSince(start), 200);
  }
  EXPECT_EQ("released", child.ReadLine(5000));
  EXPECT_EQ(0, child.Wait(5000));
}

TEST(NamedLock, ThreadsOfOneProcessExcludeEachOther) {
  const std::string name = UniqueSemName("threads");
  CSem shared(name.c_str());
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // Half the threads use their own object for the same name.
      CSem own(name.c_str());
      CSynchronizationBase& lock = (t % 2 == 0) ? static_cast<CSynchronizationBase&>(shared) : own;
      for (int i = 0; i < 50; ++i) {
        CAutoSync guard(lock, 5000);
        ASSERT_EQ(kLockAcquired, guard.GetStatus());
        if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
        std::this_thread::yield();
        inside.fetch_sub(1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, overlaps.load());
}

}  // namespace
