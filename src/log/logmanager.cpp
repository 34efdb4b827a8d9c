// The registry of log sinks by number, and the level manipulators.
#include "log/logmanager.h"

CLogManager::CLogManager() = default;

CLogManager* CLogManager::Instance() {
  // Built on first use and destroyed when the process exits or the module is
  // unloaded. The service object asks for it while it is being constructed,
  // so the manager outlives the service object and its last log lines.
  static CLogManager manager;
  return &manager;
}

CLogManager::~CLogManager() { DeleteAll(); }

bool CLogManager::CreateLog(int number, const char* path) {
  CAutoSync guard(lock_);
  auto found = logs_.find(number);
  if (found != logs_.end()) {
    delete found->second;
    logs_.erase(found);
  }
  auto* log = new CLogImpl(path, number);
  if (log->IsOpen()) {
    logs_[number] = log;
  } else {
    delete log;
  }
  return true;
}

CLogImpl* CLogManager::GetLog(int number) {
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
