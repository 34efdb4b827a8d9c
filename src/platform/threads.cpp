// Threads on POSIX threads, with the stack size chosen by the caller.
#include <pthread.h>

#include <new>

#include "platform/platform.h"

namespace os {
namespace {

// Sanitizers keep shadow frames and red zones on the stack: a stack sized for
// the plain build would overflow under them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStackFactor = 4;
#else
constexpr std::size_t kStackFactor = 1;
#endif

struct Launch {
  void (*body)(void*);
  void* argument;
};

void* ThreadMain(void* raw) {
  const Launch launch = *static_cast<Launch*>(raw);
  delete static_cast<Launch*>(raw);
  launch.body(launch.argument);
  return nullptr;
}

}  // namespace

struct NativeThread {
  pthread_t id;
};

NativeThread* StartThread(void (*body)(void*), void* argument, std::size_t stackBytes) {
  auto* thread = new (std::nothrow) NativeThread{};
  auto* launch = new (std::nothrow) Launch{body, argument};
  pthread_attr_t attributes;
  bool started = false;
  if (thread != nullptr && launch != nullptr && pthread_attr_init(&attributes) == 0) {
    // A size the system refuses (below its minimum) leaves its default.
    if (stackBytes > 0) pthread_attr_setstacksize(&attributes, stackBytes * kStackFactor);
    started = pthread_create(&thread->id, &attributes, &ThreadMain, launch) == 0;
    pthread_attr_destroy(&attributes);
  }
  if (started) return thread;
  delete launch;
  delete thread;
  return nullptr;
}

void JoinThread(NativeThread* thread) {
  if (thread == nullptr) return;
  pthread_join(thread->id, nullptr);
  delete thread;
}

bool TryJoinThread(NativeThread* thread) {
  if (thread == nullptr) return true;
  if (pthread_tryjoin_np(thread->id, nullptr) != 0) return false;
  delete thread;
  return true;
}

void DetachThread(NativeThread* thread) {
  if (thread == nullptr) return;
  pthread_detach(thread->id);
  delete thread;
}

bool IsCurrentThread(const NativeThread* thread) {
  return thread != nullptr && pthread_equal(thread->id, pthread_self()) != 0;
}

}  // namespace os
