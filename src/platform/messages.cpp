// Message queues for windows and threads.
//
// Handles are looked up in a registry before use, so posting to a window
// that was destroyed, or to a thread that has ended, fails instead of
// touching freed memory.
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/winnames.h"

namespace os {
namespace {

// A full queue refuses further posts, as a Windows queue does at this size.
constexpr std::size_t kQueueLimit = 10000;

struct Queue {
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<MSG> messages;
  bool closed = false;
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Queue>> windows;
  std::unordered_map<DWORD, std::shared_ptr<Queue>> threads;
  std::uintptr_t nextWindow = 0x10;
};

Registry& Queues() {
  static auto* registry = new Registry();  // used by threads that end after exit starts
  return *registry;
}

std::shared_ptr<Queue> FindWindow(HWND window) {
  Registry& registry = Queues();
  std::lock_guard<std::mutex> guard(registry.mutex);
  const auto found = registry.windows.find(reinterpret_cast<std::uintptr_t>(window));
  return found == registry.windows.end() ? nullptr : found->second;
}

std::shared_ptr<Queue> FindThread(DWORD threadId) {
  Registry& registry = Queues();
  std::lock_guard<std::mutex> guard(registry.mutex);
  const auto found = registry.threads.find(threadId);
  return found == registry.threads.end() ? nullptr : found->second;
}

void Close(const std::shared_ptr<Queue>& queue) {
  std::lock_guard<std::mutex> guard(queue->mutex);
  queue->closed = true;
  queue->messages.clear();
  queue->arrived.notify_all();
}

// Removes the calling thread's queue when the thread ends, so that a later
// thread given the same identifier starts without one.
struct ThreadQueueOwner {
  DWORD threadId = 0;
  ~ThreadQueueOwner() {
    if (threadId == 0) return;
    std::shared_ptr<Queue> queue;
    {
      Registry& registry = Queues();
      std::lock_guard<std::mutex> guard(registry.mutex);
      const auto found = registry.threads.find(threadId);
      if (found == registry.threads.end()) return;
      queue = found->second;
      registry.threads.erase(found);
    }
    Close(queue);
  }
};

thread_local ThreadQueueOwner t_queueOwner;

bool Post(const std::shared_ptr<Queue>& queue, const MSG& message) {
  if (!queue) return false;
  std::lock_guard<std::mutex> guard(queue->mutex);
  if (queue->closed || queue->messages.size() >= kQueueLimit) return false;
  queue->messages.push_back(message);
  queue->arrived.notify_one();
  return true;
}

}  // namespace

DWORD GetCurrentThreadId() {
  thread_local const DWORD id = static_cast<DWORD>(::syscall(SYS_gettid));
  return id;
}

HWND CreateWindowQueue() {
  Registry& registry = Queues();
  std::lock_guard<std::mutex> guard(registry.mutex);
  const std::uintptr_t handle = registry.nextWindow;
  registry.nextWindow += 0x10;
  registry.windows.emplace(handle, std::make_shared<Queue>());
  return reinterpret_cast<HWND>(handle);
}

void DestroyWindowQueue(HWND window) {
  std::shared_ptr<Queue> queue;
  {
    Registry& registry = Queues();
    std::lock_guard<std::mutex> guard(registry.mutex);
    const auto found = registry.windows.find(reinterpret_cast<std::uintptr_t>(window));
    if (found == registry.windows.end()) return;
    queue = found->second;
    registry.windows.erase(found);
  }
  // Wakes anyone still waiting on the window: their wait fails.
  Close(queue);
}

void CreateThreadQueue() {
  const DWORD self = GetCurrentThreadId();
  Registry& registry = Queues();
  std::lock_guard<std::mutex> guard(registry.mutex);
  if (registry.threads.count(self) != 0) return;
  registry.threads.emplace(self, std::make_shared<Queue>());
  t_queueOwner.threadId = self;
}

bool PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (window == nullptr) return false;
  return Post(FindWindow(window), MSG{window, message, wParam, lParam});
}

bool PostThreadMessageA(DWORD threadId, UINT message, WPARAM wParam, LPARAM lParam) {
  if (threadId == 0) return false;
  return Post(FindThread(threadId), MSG{nullptr, message, wParam, lParam});
}

bool WaitMessage(HWND window, MSG* out, int timeoutMs) {
  const std::shared_ptr<Queue> queue =
      window != nullptr ? FindWindow(window) : FindThread(GetCurrentThreadId());
  if (!queue) return false;
  std::unique_lock<std::mutex> lock(queue->mutex);
  const auto ready = [&queue] { return queue->closed || !queue->messages.empty(); };
  if (timeoutMs < 0) {
    queue->arrived.wait(lock, ready);
  } else if (!queue->arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready)) {
    return false;
  }
  if (queue->closed || queue->messages.empty()) return false;
  if (out != nullptr) *out = queue->messages.front();
  queue->messages.pop_front();
  return true;
}

}  // namespace os
