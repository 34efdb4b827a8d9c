#include "vxproxy/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "../support/process.h"

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

// A worker whose body waits until the test lets it go.
class GatedWorker : public CThreadEx {
 public:
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<int> runs{0};

  DWORD Run() override {
    runs.fetch_add(1);
    entered = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
  }
};

TEST(ThreadLifecycle, RunningFromStartUntilBodyReturns) {
  GatedWorker worker;
  EXPECT_FALSE(worker.isRunning());
  ASSERT_TRUE(worker.Start());
  EXPECT_TRUE(worker.isRunning());
  ASSERT_TRUE(Eventually([&] { return worker.entered.load(); }));
  EXPECT_FALSE(worker.Start());  // one thread at a time
  worker.release = true;
  EXPECT_TRUE(worker.Stop());
  EXPECT_FALSE(worker.isRunning());
  EXPECT_EQ(1, worker.runs.load());
}

TEST(ThreadLifecycle, StopWithTimeOutReportsStillRunning) {
  GatedWorker worker;
  ASSERT_TRUE(worker.Start());
  const auto start = Clock::now();
  EXPECT_FALSE(worker.Stop(100));
  EXPECT_GE(MsSince(start), 95);
  EXPECT_TRUE(worker.isRunning());
  worker.release = true;
  EXPECT_TRUE(worker.Stop(5000));
}

TEST(ThreadLifecycle, StopAfterBodyReturnedIsImmediate) {
  GatedWorker worker;
  worker.release = true;
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(Eventually([&] { return !worker.isRunning(); }));
  const auto start = Clock::now();
  EXPECT_TRUE(worker.Stop());
  EXPECT_TRUE(worker.Stop(0));
  EXPECT_LT(MsSince(start), 100);
}

TEST(ThreadLifecycle, StoppedWorkerCanStartAgain) {
  // The service object's accept thread is started again after a stop.
  GatedWorker worker;
  worker.release = true;
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(worker.Stop());
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(worker.Stop());
  EXPECT_EQ(2, worker.runs.load());
}

TEST(ThreadLifecycle, DestroyingWorkerWhoseBodyEndedNeedsNoStop) {
  // Neither joined nor stopped: the destructor must collect the thread
  // without ending the process.
  auto* worker = new GatedWorker();
  worker->release = true;
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return !worker->isRunning(); }));
  delete worker;
  delete new GatedWorker();  // never started
}

TEST(ThreadLifecycle, WorkerMayFreeItselfFromItsBody) {
  class SelfFreeing : public CThreadEx {
   public:
    explicit SelfFreeing(std::atomic<bool>* freed) : freed_(freed) {}
    ~SelfFreeing() override { *freed_ = true; }
    DWORD Run() override {
      delete this;
      return 0;
    }

   private:
    std::atomic<bool>* freed_;
  };
  std::atomic<bool> freed{false};
  ASSERT_TRUE((new SelfFreeing(&freed))->Start());
  EXPECT_TRUE(Eventually([&] { return freed.load(); }));
}

// A client worker stuck outside its socket calls: when let go, its body
// still writes to the object's own members.
class StuckWorker : public CThreadEx {
 public:
  StuckWorker(std::atomic<bool>* release, std::atomic<bool>* destroyed)
      : release_(release), destroyed_(destroyed), scratch_(4096, 0) {}
  ~StuckWorker() override { *destroyed_ = true; }

  std::atomic<bool> entered{false};

  DWORD Run() override {
    entered = true;
    while (!*release_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (std::size_t i = 0; i < scratch_.size(); ++i) scratch_[i] = static_cast<char>(i);
    note_ = std::string(200, 'x');
    return 0;
  }

 private:
  std::atomic<bool>* release_;
  std::atomic<bool>* destroyed_;
  std::vector<char> scratch_;
  std::string note_;
};

TEST(ThreadKill, KilledWorkerCountsAsEndedAtOnce) {
  std::atomic<bool> release{false};
  std::atomic<bool> destroyed{false};
  auto* worker = new StuckWorker(&release, &destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return worker->entered.load(); }));

  worker->Kill();
  EXPECT_FALSE(worker->isRunning());
  const auto start = Clock::now();
  EXPECT_TRUE(worker->Stop());
  EXPECT_LT(MsSince(start), 100);
  EXPECT_FALSE(worker->Start());  // its old body still runs

  release = true;
  CThreadEx::Dispose(worker);
  EXPECT_TRUE(Eventually([&] { return destroyed.load(); }));
}

TEST(ThreadKill, DisposedKilledWorkerLivesUntilItsBodyReturns) {
  // Freeing the object here would make the body write into freed memory,
  // which AddressSanitizer reports; the object must also not leak.
  std::atomic<bool> release{false};
  std::atomic<bool> destroyed{false};
  auto* worker = new StuckWorker(&release, &destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return worker->entered.load(); }));
  worker->Kill();
  CThreadEx::Dispose(worker);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(destroyed.load());

  release = true;
  EXPECT_TRUE(Eventually([&] { return destroyed.load(); }));
}

TEST(ThreadKill, KillAfterBodyReturnedChangesNothing) {
  std::atomic<bool> release{true};
  std::atomic<bool> destroyed{false};
  auto* worker = new StuckWorker(&release, &destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return !worker->isRunning(); }));
  worker->Kill();
  CThreadEx::Dispose(worker);
  EXPECT_TRUE(destroyed.load());
  CThreadEx::Dispose(nullptr);
}

TEST(ThreadKill, DisposeOfRunningWorkerWaitsForItsBody) {
  std::atomic<bool> release{false};
  std::atomic<bool> destroyed{false};
  auto* worker = new StuckWorker(&release, &destroyed);
  ASSERT_TRUE(worker->Start());
  ASSERT_TRUE(Eventually([&] { return worker->entered.load(); }));
  auto disposer = std::async(std::launch::async, [worker] { CThreadEx::Dispose(worker); });
  EXPECT_EQ(std::future_status::timeout, disposer.wait_for(std::chrono::milliseconds(50)));
  EXPECT_FALSE(destroyed.load());
  release = true;
  disposer.get();
  EXPECT_TRUE(destroyed.load());
}

// ------------------------------------------------------------------ locks --

TEST(CriticalSection, RecursiveEntriesMustAllBeLeft) {
  CCriticalSectionEx lock;
  lock.Enter();
  lock.Enter();
  lock.Leave();
  auto attempt = [&lock] {
    return std::async(std::launch::async, [&lock] {
      const unsigned long status = lock.Lock(100);
      if (status != kLockTimedOut) lock.UnLock();
      return status;
    }).get();
  };
  EXPECT_EQ(kLockTimedOut, attempt());
  lock.Leave();
  EXPECT_EQ(kLockAcquired, attempt());
}

TEST(CriticalSection, TimedLockWaitsForRelease) {
  CCriticalSectionEx lock;
  lock.Enter();
  auto waiter = std::async(std::launch::async, [&lock] {
    const unsigned long status = lock.Lock(5000);
    if (status != kLockTimedOut) lock.UnLock();
    return status;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  lock.Leave();
  EXPECT_EQ(kLockAcquired, waiter.get());
}

TEST(CriticalSection, CopyIsAFreshLock) {
  CCriticalSectionEx original;
  original.Enter();
  CCriticalSectionEx copy(original);
  EXPECT_EQ(kLockAcquired, std::async(std::launch::async, [&copy] {
                             const unsigned long status = copy.Lock(50);
                             if (status != kLockTimedOut) copy.UnLock();
                             return status;
                           }).get());
  original.Leave();
}

TEST(Signal, AutoResetLetsOneWaitPassPerSignal) {
  CLock signal(0, 1);
  EXPECT_EQ(kLockTimedOut, signal.Lock(30));
  signal.Signal();
  const auto start = Clock::now();
  EXPECT_EQ(kLockAcquired, signal.Lock(2000));
  EXPECT_LT(MsSince(start), 100);
  EXPECT_EQ(kLockTimedOut, signal.Lock(30));
}

TEST(Signal, WakesTimedWaiter) {
  CLock signal(0, 1);
  auto waiter = std::async(std::launch::async, [&signal] {
    const auto start = Clock::now();
    const unsigned long status = signal.Lock(2000);
    return std::make_pair(status, MsSince(start));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  signal.Signal();
  const auto [status, elapsed] = waiter.get();
  EXPECT_EQ(kLockAcquired, status);
  EXPECT_LT(elapsed, 1000);
}

// Records what a guard does with its lock.
class RecordingLock : public CSynchronizationBase {
 public:
  explicit RecordingLock(unsigned long status) : status_(status) {}
  unsigned long Lock(unsigned long timeout) override {
    lastTimeout = timeout;
    ++timedLocks;
    return status_;
  }
  unsigned long Lock() override {
    ++plainLocks;
    return status_;
  }
  void UnLock() override { ++unlocks; }

  int timedLocks = 0;
  int plainLocks = 0;
  int unlocks = 0;
  unsigned long lastTimeout = 0;

 private:
  unsigned long status_;
};

TEST(AutoSync, ReleasesOnlyWhatItHolds) {
  RecordingLock refusing(kLockTimedOut);
  {
    CAutoSync guard(refusing, 3000);
    EXPECT_EQ(kLockTimedOut, guard.GetStatus());
  }
  EXPECT_EQ(1, refusing.timedLocks);
  EXPECT_EQ(3000u, refusing.lastTimeout);
  EXPECT_EQ(0, refusing.unlocks);

  // Every status other than the time-out means held.
  for (unsigned long status : {0ul, 2ul, 0x80ul}) {
    RecordingLock granting(status);
    { CAutoSync guard(granting, 10); }
    { CAutoSync guard(granting); }
    EXPECT_EQ(1, granting.timedLocks);
    EXPECT_EQ(1, granting.plainLocks);
    EXPECT_EQ(2, granting.unlocks) << status;
  }
}

TEST(AutoSync, NestsOnRecursiveLock) {
  CCriticalSectionEx lock;
  {
    CAutoSync outer(lock);
    CAutoSync inner(lock, 10);
    EXPECT_EQ(kLockAcquired, inner.GetStatus());
  }
  EXPECT_EQ(kLockAcquired, std::async(std::launch::async, [&lock] {
                             CAutoSync guard(lock, 50);
                             return guard.GetStatus();
                           }).get());
}

// ------------------------------------------------- named semaphore (CSem) --

std::string UniqueSemName(const char* what) {
  return std::string("vxtest-") + what + "-" + std::to_string(Clock::now().time_since_epoch().count());
}

const std::string kSemChild = VX_BINARY_DIR "/tests/sem_child";

TEST(NamedLock, HolderInOtherProcessMakesGuardTimeOut) {
  const std::string name = UniqueSemName("live");
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"hold", name}));
  ASSERT_EQ("locked", child.ReadLine(5000));

  CSem sem(name.c_str());
  const auto start = Clock::now();
  {
    CAutoSync guard(sem, 3000);
    EXPECT_EQ(kLockTimedOut, guard.GetStatus());
  }
  EXPECT_GE(MsSince(start), 2900);
  // The guard released nothing: the child still holds the unit.
  EXPECT_EQ(kLockTimedOut, sem.Lock(0));
  child.Kill();
  EXPECT_EQ(128 + 9, child.Wait(5000));
}

TEST(NamedLock, HolderKilledWithSigkillFreesTheUnit) {
  const std::string name = UniqueSemName("killed");
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"hold", name}));
  ASSERT_EQ("locked", child.ReadLine(5000));

  CSem sem(name.c_str());
  EXPECT_EQ(kLockTimedOut, sem.Lock(50));
  child.Kill();
  const auto start = Clock::now();
  {
    CAutoSync guard(sem, 3000);
    EXPECT_NE(kLockTimedOut, guard.GetStatus());
  }
  EXPECT_LT(MsSince(start), 2500);
  EXPECT_EQ(128 + 9, child.Wait(5000));
}

TEST(NamedLock, ReleaseInOtherProcessHandsTheUnitOver) {
  const std::string name = UniqueSemName("handover");
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"hold-for", name, "300"}));
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

TEST(NamedLock, OtherProcessWaitsForThisOne) {
  const std::string name = UniqueSemName("parent");
  CSem sem(name.c_str());
  ASSERT_EQ(kLockAcquired, sem.Lock(0));
  {
    vxtest::ChildProcess child;
    ASSERT_TRUE(child.Start(kSemChild, {"try", name, "200"}));
    EXPECT_EQ("status 1", child.ReadLine(5000));
    EXPECT_EQ(0, child.Wait(5000));
  }
  sem.UnLock();
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(kSemChild, {"try", name, "2000"}));
  EXPECT_EQ("status 0", child.ReadLine(5000));
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
