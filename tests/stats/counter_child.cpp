// Second process for the global counter tests:
//   counter_child FILE N GOFILE   opens FILE, adds N requests, prints
//                                 "opened", waits until GOFILE exists, saves
//                                 and prints "saved TOTAL"
//   counter_child hold            takes the counter semaphore, prints
//                                 "locked" and keeps it until killed
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "stats/counterfile.h"
#include "stats/globalcounter.h"

namespace {

constexpr int kGoWaitSteps = 1000;  // of 10 ms

void Say(const char* line, unsigned long long value) {
  std::printf(line, value);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "hold") == 0) {
    CSem sem(vxstats::kCounterLockName);
    if (sem.Lock(5000) == kLockTimedOut) return 1;
    Say("locked\n", 0);
    for (;;) os::Sleep(1000);
  }
  if (argc != 4) return 2;
  CGlobalCounter counter;
  if (!counter.Open(argv[1])) return 1;
  counter.AddRequests(std::atoi(argv[2]));
  Say("opened\n", 0);
  // Both children have read the file before either stores: only a merge
  // under the semaphore keeps both increments.
  for (int i = 0; i < kGoWaitSteps && !os::FileExists(argv[3]); ++i) os::Sleep(10);
  counter.Save();
  Say("saved %llu\n", counter.GetRequestHistory());
  return 0;
}
