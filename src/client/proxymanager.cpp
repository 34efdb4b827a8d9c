#include "client/proxymanager.h"

#include <algorithm>

#include "client/proxyclient.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "http/services.h"

CProxyManager* CProxyManager::Instance() {
  // Built on first use (the service object's constructor) and destroyed at
  // process exit, after the service object.
  static CProxyManager registry;
  return &registry;
}

CProxyManager::CProxyManager() = default;

// Workers still listed are not freed here: after a Stop there are none, and
// at process exit their threads may still be using them.
CProxyManager::~CProxyManager() = default;

bool CProxyManager::Add(CProxyClient* worker) {
  CAutoSync guard(activeLock_);
  active_.push_back(worker);
  return true;
}

bool CProxyManager::OnWorkerFinished(CProxyClient* worker) {
  {
    CAutoSync guard(activeLock_);
    auto it = std::find(active_.begin(), active_.end(), worker);
    if (it == active_.end()) return true;  // StopAll has taken it over
    active_.erase(it);
  }
  CAutoSync guard(finishedLock_);
  if (std::find(finished_.begin(), finished_.end(), worker) == finished_.end()) {
    finished_.push_back(worker);
    finishedCount_ = finished_.size();
  }
  return true;
}

void CProxyManager::Reap() {
  CAutoSync guard(finishedLock_);
  for (CProxyClient* worker : finished_) {
    worker->Stop();
    CThreadEx::Dispose(worker);
  }
  finished_.clear();
  finishedCount_ = 0;
}

void CProxyManager::ReapEnded() {
  CAutoSync guard(finishedLock_);
  std::size_t kept = 0;
  for (CProxyClient* worker : finished_) {
    if (worker->TryCollect()) {
      CThreadEx::Dispose(worker);
    } else {
      finished_[kept++] = worker;
    }
  }
  finished_.resize(kept);
  finishedCount_ = kept;
}

void CProxyManager::StopAll() {
  CRequestServices* proxy = RequestServices();
  size_t total = 0;
  size_t finishedBefore = 0;
  activeLock_.Enter();
  {
    CAutoSync guard(finishedLock_);
    finishedBefore = finished_.size();
    total = active_.size() + finishedBefore;
  }
  proxy->LogLine(kLevelDebug, "Stopping all active connection");
  // Closing a worker's sockets makes its blocking calls fail; nothing waits here.
  for (CProxyClient* worker : active_) worker->CloseIfRunning();
  activeLock_.Leave();

  proxy->LogLine(kLevelDebug, "Checking status of all clients...");
  if (total != finishedBefore) {
    for (int tries = 0;;) {
      os::Sleep(stopAllSleepMs_);
      size_t finishedNow;
      {
        CAutoSync guard(finishedLock_);
        finishedNow = finished_.size();
      }
      if (++tries > kStopAllTries) {
        proxy->LogLine(kLevelDebug,
                       "Still some more clients needs to come out.. Will be carrying out a force "
                       "termination");
        break;
      }
      if (finishedNow == total) break;
    }
  }

  {
    CAutoSync active(activeLock_);
    CAutoSync finished(finishedLock_);
    for (CProxyClient* worker : active_) {
      proxy->LogLine(kLevelDebug, "Killing connection");
      worker->Kill();
      CThreadEx::Dispose(worker);
    }
    active_.clear();
  }
  Reap();
}

int CProxyManager::GetActiveCount() {
  CAutoSync guard(activeLock_);
  return static_cast<int>(active_.size());
}
