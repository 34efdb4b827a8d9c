// Second process for the named-semaphore tests. Commands:
//   hold NAME          take the semaphore, print "locked", keep it until killed
//   hold-for NAME MS   take it, print "locked", give it back after MS ms,
//                      print "released" and exit
//   try NAME MS        try to take it within MS ms and print "status S"
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "vxproxy/threads.h"

namespace {

void Say(const char* line) {
  std::printf("%s\n", line);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const char* command = argv[1];
  CSem sem(argv[2]);
  if (std::strcmp(command, "hold") == 0) {
    if (sem.Lock(5000) == kLockTimedOut) return 1;
    Say("locked");
    for (;;) os::Sleep(1000);
  }
  if (std::strcmp(command, "hold-for") == 0 && argc >= 4) {
    if (sem.Lock(5000) == kLockTimedOut) return 1;
    Say("locked");
    os::Sleep(static_cast<DWORD>(std::atol(argv[3])));
    sem.UnLock();
    Say("released");
    return 0;
  }
  if (std::strcmp(command, "try") == 0 && argc >= 4) {
    CAutoSync guard(sem, static_cast<unsigned long>(std::atol(argv[3])));
    std::printf("status %lu\n", guard.GetStatus());
    std::fflush(stdout);
    return 0;
  }
  return 2;
}
