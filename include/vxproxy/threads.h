// Threads and locks of the utility library.
#pragma once

#include <atomic>
#include <cstddef>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "vxproxy/types.h"

// Base of every worker object: owns one thread that runs the derived class's
// body. The slot order of the virtual operations is part of the host
// interface.
//
// A thread cannot be ended from outside without risking the locks and the
// memory it uses, so Kill abandons it instead: the worker counts as ended at
// once and its thread runs on until its body returns. Free workers through
// Dispose, which keeps a killed worker's object alive for its body.
class VX_EXPORT CThreadEx {
 public:
  CThreadEx();
  // Waits for a running body to return unless the thread was killed; use
  // Dispose for workers that may have been killed.
  virtual ~CThreadEx();                     // slot 0
  virtual bool isRunning();                 // slot 1
  virtual bool Stop();                      // slot 2
  virtual bool Stop(unsigned long timeout); // slot 3
  virtual bool Start();                     // slot 4
  virtual void Kill();                      // slot 5
  virtual vx::DWORD Run() = 0;              // slot 6: the thread body

  // Destroys a worker. A worker whose thread was killed while its body still
  // runs is not freed here: its own thread frees it when the body returns, so
  // nothing the body still touches goes away under it.
  static void Dispose(CThreadEx* thread);

  // True when the thread has ended and was collected (or never ran); false,
  // without waiting, while it still runs. A worker for which this returned
  // true may be destroyed at once.
  bool TryCollect();

  // How Start runs the body from now on: on a thread with this stack size (0,
  // the default, takes the system's), and with reuse on a thread that ran an
  // earlier body and waits for work, when one is free. A reused thread keeps
  // its id and thread-local state from body to body.
  void SetThreadOptions(std::size_t stackBytes, bool reuse);

  CThreadEx(const CThreadEx&) = delete;
  CThreadEx& operator=(const CThreadEx&) = delete;

 private:
  struct State;
  struct Launch;
  static void Trampoline(void* launch);
  std::shared_ptr<State> state_;
};

// A time-out that never passes.
constexpr unsigned long kWaitForever = 0xFFFFFFFFul;

// Abstract lock.
class VX_EXPORT CSynchronizationBase {
 public:
  CSynchronizationBase() = default;
  [[gnu::noinline]] CSynchronizationBase(const CSynchronizationBase&) = default;
  CSynchronizationBase& operator=(const CSynchronizationBase&) = default;
  virtual ~CSynchronizationBase();                    // slot 0
  virtual unsigned long Lock(unsigned long timeout) = 0;  // slot 1
  virtual unsigned long Lock() = 0;                   // slot 2
  virtual void UnLock() = 0;                          // slot 3
};

// Status of a lock attempt that timed out; any other value means "held".
constexpr unsigned long kLockTimedOut = 1;
constexpr unsigned long kLockAcquired = 0;

// Recursive in-process lock.
class VX_EXPORT CCriticalSectionEx : public CSynchronizationBase {
 public:
  CCriticalSectionEx();
  // Copies exist for compatibility; a copy is a fresh, unowned lock and
  // assignment leaves the lock as it is.
  [[gnu::noinline]] CCriticalSectionEx(const CCriticalSectionEx& other) : CSynchronizationBase(other) {}
  CCriticalSectionEx& operator=(const CCriticalSectionEx& other) {
    CSynchronizationBase::operator=(other);
    return *this;
  }
  ~CCriticalSectionEx() override;
  void Enter();
  void Leave();
  unsigned long Lock(unsigned long timeout) override;
  unsigned long Lock() override;
  void UnLock() override;

 private:
  std::timed_mutex held_;                // held while a thread owns the section
  std::atomic<std::thread::id> owner_;   // that thread, or none
  unsigned long depth_ = 0;              // its entries not yet left; the owner's alone
};

namespace os { struct NamedSemaphore; }

// Named semaphore with one unit, shared by all processes that use the name.
// A process that dies holding the unit gives it back.
class VX_EXPORT CSem : public CSynchronizationBase {
 public:
  explicit CSem(const char* name);
  ~CSem() override;
  unsigned long Lock(unsigned long timeout) override;
  unsigned long Lock() override;
  void UnLock() override;

  CSem(const CSem&) = delete;
  CSem& operator=(const CSem&) = delete;

 private:
  os::NamedSemaphore* sem_;
};

// A waitable signal (an event): Signal wakes a waiter, or lets the next wait
// pass at once when nobody waits. An auto-reset signal lets one wait pass per
// Signal; a manual one stays set. UnLock gives the signal back, so that a
// CLock(1, 1) also serves as a lock that any thread may release.
class VX_EXPORT CLock : public CSynchronizationBase {
 public:
  CLock(int initiallySignalled, int autoReset);
  ~CLock() override;
  unsigned long Lock(unsigned long timeout) override;
  unsigned long Lock() override;
  void UnLock() override;
  void Signal();

  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool signalled_;
  bool autoReset_;
};

// Scoped guard. Status 1 means the lock was not obtained.
class VX_EXPORT CAutoSync {
 public:
  explicit CAutoSync(CSynchronizationBase& lock);
  CAutoSync(CSynchronizationBase& lock, unsigned long timeout);
  // Member-wise copies exist for compatibility; nothing copies a guard.
  [[gnu::noinline]] CAutoSync(const CAutoSync&) = default;
  CAutoSync& operator=(const CAutoSync&) = default;
  virtual ~CAutoSync();
  unsigned long GetStatus() const { return status_; }

 private:
  CSynchronizationBase* lock_;
  unsigned long status_;
};
