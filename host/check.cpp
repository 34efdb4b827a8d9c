#include "check.h"

#include <iostream>

#include "checktool.h"

int RunCheckCommand(int argc, char** argv) {
  // Batch mode answers many thousand lines; unsynchronised streams keep the
  // reading and writing out of the way.
  std::ios::sync_with_stdio(false);
  return vxhost::RunCheck(argc, argv, std::cin, std::cout, std::cerr);
}
