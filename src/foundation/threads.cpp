#include "vxproxy/threads.h"

#include <chrono>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/platform.h"

namespace {

// Time-outs are given in milliseconds, kWaitForever meaning no limit.
bool IsForever(unsigned long timeout) { return timeout >= kWaitForever; }

std::chrono::milliseconds Millis(unsigned long timeout) {
  return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(timeout));
}

// Joins a finished thread; a thread never joins itself.
void Collect(os::NativeThread* thread) {
  if (thread == nullptr) return;
  if (os::IsCurrentThread(thread)) {
    os::DetachThread(thread);
  } else {
    os::JoinThread(thread);
  }
}

}  // namespace

// ---------------------------------------------------------------- CThreadEx --

// Shared between the object and its thread, so the thread can finish its
// bookkeeping after the object is gone.
struct CThreadEx::State {
  std::mutex mutex;
  std::condition_variable ended;
  os::NativeThread* thread = nullptr;  // until joined or detached
  std::size_t stackBytes = 0;
  bool reuseThreads = false;
  bool running = false;        // what isRunning reports
  bool inBody = false;         // the body has not returned yet
  bool killed = false;         // abandoned by Kill while in its body
  bool freeOnReturn = false;   // Dispose left the object to its thread
};

CThreadEx::CThreadEx() : state_(std::make_shared<State>()) {}

CThreadEx::~CThreadEx() {
  os::NativeThread* thread = nullptr;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    thread = std::exchange(state_->thread, nullptr);
  }
  // A killed thread was detached already; any other is waited for.
  Collect(thread);
}

// What a new thread needs: its object, and the state that outlives it.
struct CThreadEx::Launch {
  CThreadEx* self;
  std::shared_ptr<State> state;
};

void CThreadEx::Trampoline(void* raw) {
  std::unique_ptr<Launch> launch(static_cast<Launch*>(raw));
  CThreadEx* const self = launch->self;
  const std::shared_ptr<State> state = std::move(launch->state);
  launch.reset();
  try {
    self->Run();
  } catch (...) {
    // A body that throws has ended like one that returns.
  }
  bool freeSelf = false;
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->inBody = false;
    state->running = false;
    freeSelf = state->freeOnReturn;
    state->ended.notify_all();
  }
  // From here on self belongs to its owner again, unless Dispose handed it
  // over while the body was running after a Kill.
  if (freeSelf) delete self;
}

bool CThreadEx::Start() {
  os::NativeThread* previous = nullptr;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    // Running, or killed but still inside its body.
    if (state_->inBody) return false;
    previous = std::exchange(state_->thread, nullptr);
  }
  Collect(previous);

  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->inBody) return false;
  state_->running = true;
  state_->inBody = true;
  state_->killed = false;
  auto* launch = new (std::nothrow) Launch{this, state_};
  state_->thread = launch != nullptr
                       ? os::StartThread(&CThreadEx::Trampoline, launch, state_->stackBytes,
                                         state_->reuseThreads)
                       : nullptr;
  if (state_->thread == nullptr) {
    delete launch;
    state_->running = false;
    state_->inBody = false;
    return false;
  }
  return true;
}

bool CThreadEx::TryCollect() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->inBody) return false;
  if (!os::TryJoinThread(state_->thread)) return false;
  state_->thread = nullptr;
  return true;
}

void CThreadEx::SetThreadOptions(std::size_t stackBytes, bool reuse) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stackBytes = stackBytes;
  state_->reuseThreads = reuse;
}

bool CThreadEx::isRunning() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->running;
}

bool CThreadEx::Stop() { return Stop(kWaitForever); }

bool CThreadEx::Stop(unsigned long timeout) {
  os::NativeThread* finished = nullptr;
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    // The body cannot wait for its own end.
    if (state_->running && os::IsCurrentThread(state_->thread)) return false;
    const auto ended = [this] { return !state_->running; };
    if (IsForever(timeout)) {
      state_->ended.wait(lock, ended);
    } else if (!state_->ended.wait_for(lock, Millis(timeout), ended)) {
      return false;
    }
    finished = std::exchange(state_->thread, nullptr);
  }
  Collect(finished);
  return true;
}

void CThreadEx::Kill() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (!state_->inBody) return;
  state_->killed = true;
  state_->running = false;
  os::DetachThread(std::exchange(state_->thread, nullptr));
  state_->ended.notify_all();
}

void CThreadEx::Dispose(CThreadEx* thread) {
  if (thread == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(thread->state_->mutex);
    if (thread->state_->killed && thread->state_->inBody) {
      thread->state_->freeOnReturn = true;
      return;
    }
  }
  // A body that still runs must return before the derived parts of the
  // object are destroyed, not only before the base part.
  thread->CThreadEx::Stop();
  delete thread;
}

// ---------------------------------------------------------- lock classes --

CSynchronizationBase::~CSynchronizationBase() = default;

CCriticalSectionEx::CCriticalSectionEx() = default;
CCriticalSectionEx::~CCriticalSectionEx() = default;

void CCriticalSectionEx::Enter() { Lock(kWaitForever); }

// Only the owner ever finds its own id in owner_, so reading it without the
// lock is safe: another thread sees some other id or none.
void CCriticalSectionEx::Leave() {
  // Only the owner leaves; a stray Leave from another thread changes nothing.
  if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return;
  if (--depth_ == 0) {
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    held_.unlock();
  }
}

unsigned long CCriticalSectionEx::Lock(unsigned long timeout) {
  const std::thread::id self = std::this_thread::get_id();
  if (owner_.load(std::memory_order_relaxed) == self) {
    ++depth_;
    return kLockAcquired;
  }
  if (IsForever(timeout)) {
    held_.lock();
  } else if (!held_.try_lock_until(std::chrono::system_clock::now() + Millis(timeout))) {
    // Against the system clock: that wait is pthread_mutex_timedlock, which
    // every tool knows; the steady clock's variant is not seen by the thread
    // checker, which then takes the next unlock for a stray one.
    return kLockTimedOut;
  }
  owner_.store(self, std::memory_order_relaxed);
  depth_ = 1;
  return kLockAcquired;
}

unsigned long CCriticalSectionEx::Lock() { return Lock(kWaitForever); }

void CCriticalSectionEx::UnLock() { Leave(); }

CSem::CSem(const char* name) : sem_(os::OpenNamedSemaphore(name)) {}

CSem::~CSem() { os::CloseNamedSemaphore(sem_); }

unsigned long CSem::Lock(unsigned long timeout) {
  const long limit = IsForever(timeout) ? -1 : static_cast<long>(timeout);
  return os::AcquireNamedSemaphore(sem_, limit) ? kLockAcquired : kLockTimedOut;
}

unsigned long CSem::Lock() { return Lock(kWaitForever); }

void CSem::UnLock() { os::ReleaseNamedSemaphore(sem_); }

CLock::CLock(int initiallySignalled, int autoReset)
    : signalled_(initiallySignalled != 0), autoReset_(autoReset != 0) {}

CLock::~CLock() = default;

unsigned long CLock::Lock(unsigned long timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto set = [this] { return signalled_; };
  if (IsForever(timeout)) {
    cv_.wait(lock, set);
  } else if (!cv_.wait_for(lock, Millis(timeout), set)) {
    return kLockTimedOut;
  }
  if (autoReset_) signalled_ = false;
  return kLockAcquired;
}

unsigned long CLock::Lock() { return Lock(kWaitForever); }

void CLock::UnLock() { Signal(); }

void CLock::Signal() {
  std::lock_guard<std::mutex> lock(mutex_);
  signalled_ = true;
  if (autoReset_) {
    cv_.notify_one();
  } else {
    cv_.notify_all();
  }
}

CAutoSync::CAutoSync(CSynchronizationBase& lock) : lock_(&lock), status_(lock.Lock()) {}

CAutoSync::CAutoSync(CSynchronizationBase& lock, unsigned long timeout)
    : lock_(&lock), status_(lock.Lock(timeout)) {}

CAutoSync::~CAutoSync() {
  if (status_ != kLockTimedOut) lock_->UnLock();
}
