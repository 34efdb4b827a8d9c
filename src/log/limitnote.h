// The line a safety limit writes when it acts. A limit may act thousands of
// times a second (a flood of connections, a client that keeps looping), so
// its line is written the first time and then at most once a minute, with
// the number of times it acted in between.
#pragma once

#include "platform/winnames.h"
#include "vxproxy/threads.h"

// The safety limits of the service: always on, each acting only where
// carrying on would exhaust the machine or lose the proxy.
enum class SafetyLimit {
  kSelfLoop,        // a request or tunnel aimed at the proxy itself
  kAcceptFailed,    // the system refused to hand over a connection
  kWorkerCap,       // as many workers as the service allows are busy
  kHeaderDeadline,  // a request header took longer than it may in total
  kCount
};

class CLimitNote {
 public:
  static constexpr DWORD kIntervalMs = 60000;

  // True when the line is due now; skipped then gets the number of times the
  // limit acted since the last line without one.
  bool Due(unsigned long* skipped);
  // The next act writes its line at once (a new run of the service).
  void Reset();

 private:
  CCriticalSectionEx lock_;
  bool written_ = false;
  DWORD lastTick_ = 0;
  unsigned long skipped_ = 0;
};
