// The process-wide registry of log sinks by number, which the service fills
// from its log files. Hosts reach the sinks through the service object only.
#pragma once

#include <map>

#include "log/logimpl.h"
#include "vxproxy/threads.h"

// The registry of logs by number; one per process, created on first use.
class CLogManager {
 public:
  CLogManager();
  static CLogManager* Instance();

  virtual ~CLogManager();                                           // 0
  // Replaces the log under number by a new one on path; a file that cannot
  // be opened leaves no log under that number. Returns true.
  virtual bool CreateLog(int number, const char* path);             // 1
  virtual CLogImpl* GetLog(int number);                             // 2
  virtual void Reserved3();                                         // 3
  virtual void Reserved4();                                         // 4
  virtual void DeleteAll();                                         // 5

  CLogManager(const CLogManager&) = delete;
  CLogManager& operator=(const CLogManager&) = delete;

 private:
  std::map<int, CLogImpl*> logs_;
  CCriticalSectionEx lock_;
};
