// Named semaphores with one unit, shared between processes.
//
// The unit is an exclusive lock on a file named after the semaphore in a
// per-user runtime folder. The kernel drops such a lock when its holder dies,
// however it dies, so a process killed while holding the unit cannot wedge
// the others. A file lock belongs to an open file, not to a thread, so the
// threads of one process that share a semaphore are kept apart by an
// in-process flag as well; that flag is not owned by a thread either, so a
// unit may be given back by another thread than the one that took it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace os {

struct NamedSemaphore {
  std::string path;
  int fd = -1;
  std::mutex mutex;
  std::condition_variable freed;
  bool busy = false;   // a thread of this process holds the unit or is taking it
  bool owned = false;  // the file lock is held
};

namespace {

using Clock = std::chrono::steady_clock;

// Polling steps while another process holds the unit: short at first so a
// quick hand-over stays quick, then capped to keep idle waiters cheap.
constexpr std::chrono::milliseconds kFirstPoll{1};
constexpr std::chrono::milliseconds kLongestPoll{20};

bool IsOwnDirectory(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::getuid();
}

std::string RuntimeDirectory() {
  static const std::string directory = [] {
    const std::string leaf = "/vxproxy-" + std::to_string(::getuid());
    for (const char* base : {"/dev/shm", "/tmp"}) {
      const std::string candidate = base + leaf;
      ::mkdir(candidate.c_str(), 0700);
      if (IsOwnDirectory(candidate)) return candidate;
    }
    return std::string();
  }();
  return directory;
}

// Any name becomes one file name: letters, digits and "-_." stay, every other
// byte becomes %XX, so distinct names never share a file.
std::string FileNameFor(const char* name) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string file;
  for (const char* p = name; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || (c == '.' && p != name);
    if (plain) {
      file.push_back(static_cast<char>(c));
    } else {
      file.push_back('%');
      file.push_back(kHex[c >> 4]);
      file.push_back(kHex[c & 15]);
    }
  }
  return file + ".sem";
}

int OpenLockFile(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

// The file we hold open is still the one the name leads to (a closing
// process may have removed it while nobody held the lock).
bool StillNamed(const NamedSemaphore& sem) {
  struct stat opened;
  struct stat named;
  return ::fstat(sem.fd, &opened) == 0 && ::stat(sem.path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

bool TryLockFile(NamedSemaphore* sem) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (sem->fd < 0) {
      sem->fd = OpenLockFile(sem->path);
      if (sem->fd < 0) return false;
    }
    if (::flock(sem->fd, LOCK_EX | LOCK_NB) != 0) return false;
    if (StillNamed(*sem)) return true;
    // We locked a file that was unlinked: follow the name to the new one.
    ::flock(sem->fd, LOCK_UN);
    ::close(sem->fd);
    sem->fd = -1;
  }
  return false;
}

}  // namespace

NamedSemaphore* OpenNamedSemaphore(const char* name) {
  if (name == nullptr || *name == '\0') return nullptr;
  const std::string directory = RuntimeDirectory();
  if (directory.empty()) return nullptr;
  auto* sem = new NamedSemaphore();
  sem->path = directory + "/" + FileNameFor(name);
  sem->fd = OpenLockFile(sem->path);
  if (sem->fd < 0) {
    delete sem;
    return nullptr;
  }
  return sem;
}

bool AcquireNamedSemaphore(NamedSemaphore* sem, long timeoutMs) {
  if (sem == nullptr) return false;
  const bool limited = timeoutMs >= 0;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limited ? timeoutMs : 0);

  std::unique_lock<std::mutex> lock(sem->mutex);
  if (limited) {
    if (!sem->freed.wait_until(lock, deadline, [sem] { return !sem->busy; })) return false;
  } else {
    sem->freed.wait(lock, [sem] { return !sem->busy; });
  }
  // From here on this thread alone touches the file descriptor.
  sem->busy = true;
  lock.unlock();

  std::chrono::milliseconds pause = kFirstPoll;
  for (;;) {
    if (TryLockFile(sem)) {
      lock.lock();
      sem->owned = true;
      return true;
    }
    std::chrono::milliseconds step = pause;
    if (limited) {
      const Clock::time_point now = Clock::now();
      if (now >= deadline) break;
      step = std::min(step, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
    }
    std::this_thread::sleep_for(step);
    pause = std::min(pause * 2, kLongestPoll);
  }
  lock.lock();
  sem->busy = false;
  sem->freed.notify_one();
  return false;
}

void ReleaseNamedSemaphore(NamedSemaphore* sem) {
  if (sem == nullptr) return;
  std::lock_guard<std::mutex> lock(sem->mutex);
  if (!sem->owned) return;
  ::flock(sem->fd, LOCK_UN);
  sem->owned = false;
  sem->busy = false;
  sem->freed.notify_one();
}

void CloseNamedSemaphore(NamedSemaphore* sem) {
  if (sem == nullptr) return;
  ReleaseNamedSemaphore(sem);
  // The last user removes the file. It does so holding the lock, and a
  // process that later locks the removed file notices and follows the name.
  if (sem->fd >= 0) {
    if (::flock(sem->fd, LOCK_EX | LOCK_NB) == 0) {
      if (StillNamed(*sem)) ::unlink(sem->path.c_str());
      ::flock(sem->fd, LOCK_UN);
    }
    ::close(sem->fd);
  }
  delete sem;
}

}  // namespace os
