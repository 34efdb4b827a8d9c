// The registry of log sinks by number, and the level manipulators.
#include <cstdlib>

#include "vxproxy/log.h"

CLogManager::CLogManager() = default;

CLogManager* CLogManager::Instance() {
  // Never destroyed: objects with static storage (the service object among
  // them) may still reach their logs while the process exits, whatever order
  // their destructors run in. Exit only flushes what the logs still hold.
  static CLogManager* const manager = [] {
    auto* created = new CLogManager;
    std::atexit([] {
      CLogManager* m = Instance();
      CAutoSync guard(m->lock_);
      for (auto& entry : m->logs_) entry.second->Flush();
    });
    return created;
  }();
  return manager;
}

CLogManager::~CLogManager() { DeleteAll(); }

bool CLogManager::CreateLog(int number, const char* path) {
  CAutoSync guard(lock_);
  auto found = logs_.find(number);
  if (found != logs_.end()) {
    delete found->second;
    logs_.erase(found);
  }
  auto* log = new CLog(path, number);
  if (log->IsOpen()) {
    logs_[number] = log;
  } else {
    delete log;
  }
  return true;
}

CLog* CLogManager::GetLog(int number) {
  CAutoSync guard(lock_);
  auto found = logs_.find(number);
  return found != logs_.end() ? found->second : nullptr;
}

void CLogManager::Reserved3() {}

void CLogManager::Reserved4() {}

void CLogManager::DeleteAll() {
  CAutoSync guard(lock_);
  for (auto& entry : logs_) delete entry.second;
  logs_.clear();
}

CLogManip::CLogManip(int level) : level_(level) {}

CLogManip& CLogManip::operator=(const CLogManip& other) {
  level_ = other.level_;
  return *this;
}

CLogManipEx::CLogManipEx(int level) : level_(level) {}

CLogManipEx& CLogManipEx::operator=(const CLogManipEx& other) {
  level_ = other.level_;
  return *this;
}
