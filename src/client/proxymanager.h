// The registry of client workers: the ones still running and the ones whose
// session has ended and that wait to be freed by the accept thread.
#pragma once

#include <atomic>
#include <vector>

#include "vxproxy/threads.h"

class CProxyClient;

class CProxyManager {
 public:
  static CProxyManager* Instance();

  virtual ~CProxyManager();

  bool Add(CProxyClient* worker);
  bool OnWorkerFinished(CProxyClient* worker);
  void Reap();
  // Frees the finished workers whose threads have already ended and leaves
  // the others for later; never waits for a thread.
  void ReapEnded();
  void StopAll();
  int GetActiveCount();
  // Whether finished workers wait to be freed; cheap enough for every pass
  // of the accept loop.
  bool HasFinished() const { return finishedCount_.load(std::memory_order_relaxed) > 0; }

  // Grace period of a shut-down: StopAll sleeps this long per look at the
  // finished list, at most kStopAllTries times. Tests may shorten the sleep.
  static constexpr unsigned long kStopAllSleepMs = 1000;
  static constexpr int kStopAllTries = 4;
  void SetStopAllSleepForTesting(unsigned long ms) { stopAllSleepMs_ = ms; }

 private:
  CProxyManager();

  std::vector<CProxyClient*> active_;
  std::vector<CProxyClient*> finished_;
  CCriticalSectionEx activeLock_;
  CCriticalSectionEx finishedLock_;
  unsigned long stopAllSleepMs_ = kStopAllSleepMs;
  std::atomic<std::size_t> finishedCount_{0};  // size of finished_
};
