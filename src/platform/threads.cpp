// Threads on POSIX threads, with the stack size chosen by the caller, and a
// pool of parked threads for callers that start many short bodies.
//
// A started body is one NativeThread record. Without reuse the record owns
// its own joinable pthread. With reuse the body runs on a detached pooled
// thread; when it returns, the record is marked done (that is what a join
// waits for) and the thread parks for the next body of the same stack size.
// A parked thread that gets no work for a while ends, so an idle process
// returns to its own threads.
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

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

// Parked threads: at most this many, each for at most this long.
constexpr std::size_t kMaxParked = 64;
constexpr auto kParkTime = std::chrono::milliseconds(1000);

struct PooledThread;

}  // namespace

struct NativeThread {
  void (*body)(void*) = nullptr;
  void* argument = nullptr;
  std::atomic<pthread_t> id{};     // the thread running the body
  bool pooled = false;
  // Pooled records only: the body's end, and who frees the record.
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  bool detached = false;
};

namespace {

struct PooledThread {
  std::size_t stackBytes = 0;
  std::condition_variable woken;
  NativeThread* next = nullptr;  // the body handed over while parked
};

// Never destroyed: parked threads may still wait on it while the process exits.
struct Pool {
  std::mutex lock;
  std::vector<PooledThread*> parked;
};
Pool& ThePool() {
  static Pool* const pool = new Pool;
  return *pool;
}

bool SetStack(pthread_attr_t* attributes, std::size_t stackBytes) {
  if (pthread_attr_init(attributes) != 0) return false;
  // A size the system refuses (below its minimum) leaves its default.
  if (stackBytes > 0) pthread_attr_setstacksize(attributes, stackBytes * kStackFactor);
  return true;
}

void* OwnThreadMain(void* raw) {
  auto* record = static_cast<NativeThread*>(raw);
  record->id.store(pthread_self());
  record->body(record->argument);
  return nullptr;
}

void Finish(NativeThread* record) {
  bool free = false;
  {
    std::lock_guard<std::mutex> lock(record->mutex);
    record->done = true;
    free = record->detached;
    record->ended.notify_all();
  }
  if (free) delete record;
}

// Parks the thread until a body is handed over; null when it should end.
NativeThread* Park(PooledThread* self) {
  Pool& pool = ThePool();
  std::unique_lock<std::mutex> lock(pool.lock);
  if (pool.parked.size() >= kMaxParked) return nullptr;
  pool.parked.push_back(self);
  if (!self->woken.wait_for(lock, kParkTime, [self] { return self->next != nullptr; })) {
    // Nobody came: leave the pool (StartThread only hands work to parked threads).
    std::erase(pool.parked, self);
    return nullptr;
  }
  return std::exchange(self->next, nullptr);
}

void* PooledThreadMain(void* raw) {
  auto* self = static_cast<PooledThread*>(raw);
  for (NativeThread* record = std::exchange(self->next, nullptr); record != nullptr;
       record = Park(self)) {
    record->id.store(pthread_self());
    record->body(record->argument);
    Finish(record);
  }
  delete self;
  return nullptr;
}

NativeThread* StartPooled(NativeThread* record, std::size_t stackBytes) {
  {
    Pool& pool = ThePool();
    std::lock_guard<std::mutex> lock(pool.lock);
    for (auto it = pool.parked.rbegin(); it != pool.parked.rend(); ++it) {
      PooledThread* parked = *it;
      if (parked->stackBytes != stackBytes) continue;
      pool.parked.erase(std::next(it).base());
      parked->next = record;
      parked->woken.notify_one();
      return record;
    }
  }
  auto* thread = new (std::nothrow) PooledThread{};
  if (thread == nullptr) return nullptr;
  thread->stackBytes = stackBytes;
  thread->next = record;
  pthread_attr_t attributes;
  bool started = false;
  if (SetStack(&attributes, stackBytes)) {
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t id;
    started = pthread_create(&id, &attributes, &PooledThreadMain, thread) == 0;
    pthread_attr_destroy(&attributes);
  }
  if (started) return record;
  delete thread;
  return nullptr;
}

}  // namespace

NativeThread* StartThread(void (*body)(void*), void* argument, std::size_t stackBytes,
                          bool reuse) {
  auto* record = new (std::nothrow) NativeThread{};
  if (record == nullptr) return nullptr;
  record->body = body;
  record->argument = argument;
  record->pooled = reuse;
  if (reuse) {
    if (StartPooled(record, stackBytes) != nullptr) return record;
    delete record;
    return nullptr;
  }
  pthread_attr_t attributes;
  bool started = false;
  if (SetStack(&attributes, stackBytes)) {
    pthread_t id;
    started = pthread_create(&id, &attributes, &OwnThreadMain, record) == 0;
    // Also written by the thread itself, which may already be running.
    if (started) record->id.store(id);
    pthread_attr_destroy(&attributes);
  }
  if (started) return record;
  delete record;
  return nullptr;
}

void JoinThread(NativeThread* thread) {
  if (thread == nullptr) return;
  if (thread->pooled) {
    std::unique_lock<std::mutex> lock(thread->mutex);
    thread->ended.wait(lock, [thread] { return thread->done; });
  } else {
    pthread_join(thread->id.load(), nullptr);
  }
  delete thread;
}

bool TryJoinThread(NativeThread* thread) {
  if (thread == nullptr) return true;
  if (thread->pooled) {
    std::lock_guard<std::mutex> lock(thread->mutex);
    if (!thread->done) return false;
  } else if (pthread_tryjoin_np(thread->id.load(), nullptr) != 0) {
    return false;
  }
  delete thread;
  return true;
}

void DetachThread(NativeThread* thread) {
  if (thread == nullptr) return;
  if (thread->pooled) {
    {
      std::lock_guard<std::mutex> lock(thread->mutex);
      if (!thread->done) {
        thread->detached = true;  // the body's end frees the record
        return;
      }
    }
  } else {
    pthread_detach(thread->id.load());
  }
  delete thread;
}

bool IsCurrentThread(const NativeThread* thread) {
  return thread != nullptr && pthread_equal(thread->id.load(), pthread_self()) != 0;
}

}  // namespace os
