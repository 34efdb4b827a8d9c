// Second process for the named-semaphore tests:
//   hold NAME       take the semaphore, print "locked", keep it until killed
//   hold NAME MS    the same, but give it back after MS ms, print "released"
//                   and exit
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
  if (argc < 3 || std::strcmp(argv[1], "hold") != 0) return 2;
  CSem sem(argv[2]);
  if (sem.Lock(5000) == kLockTimedOut) return 1;
  Say("locked");
  while (argc < 4) os::Sleep(1000);
  os::Sleep(static_cast<DWORD>(std::atol(argv[3])));
  sem.UnLock();
  Say("released");
  return 0;
}
