// Threads and locks of the utility library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "vxproxy/types.h"

// Base of every worker object: owns one thread that runs the derived class's
// body. The slot order of the virtual operations is part of the host
// interface.
class VX_EXPORT CThreadEx {
 public:
  CThreadEx();
  virtual ~CThreadEx();                     // slot 0
  virtual bool isRunning();                 // slot 1
  virtual bool Stop();                      // slot 2
  virtual bool Stop(unsigned long timeout); // slot 3
  virtual bool Start();                     // slot 4
  virtual void Kill();                      // slot 5
  virtual DWORD Run() = 0;                  // slot 6: the thread body

  // Destroys a worker. A worker whose thread was killed while its body still
  // runs is not freed here: its own thread frees it when the body returns, so
  // nothing the body still touches goes away under it.
  static void Dispose(CThreadEx* thread);

  CThreadEx(const CThreadEx&) = delete;
  CThreadEx& operator=(const CThreadEx&) = delete;

 private:
  struct State;
  static void Trampoline(CThreadEx* self, std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

// Abstract lock.
class VX_EXPORT CSynchronizationBase {
 public:
  CSynchronizationBase() = default;
  CSynchronizationBase(const CSynchronizationBase&) = default;
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
  // Member-wise copies exist for compatibility; a copy is a fresh lock.
  CCriticalSectionEx(const CCriticalSectionEx& other);
  CCriticalSectionEx& operator=(const CCriticalSectionEx& other);
  ~CCriticalSectionEx() override;
  void Enter();
  void Leave();
  unsigned long Lock(unsigned long timeout) override;
  unsigned long Lock() override;
  void UnLock() override;

 private:
  std::unique_ptr<std::recursive_timed_mutex> mutex_;
};

namespace os { struct NamedSemaphore; }

// Named semaphore with one unit, shared by all processes that use the name.
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

// A waitable signal (auto-reset event): Signal wakes one waiter, or lets the
// next wait pass at once when nobody waits.
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
  CAutoSync(const CAutoSync&) = default;
  CAutoSync& operator=(const CAutoSync&) = default;
  virtual ~CAutoSync();
  unsigned long GetStatus() const { return status_; }

 private:
  CSynchronizationBase* lock_;
  unsigned long status_;
};
