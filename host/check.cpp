#include "check.h"

#include <iostream>

#include "filter/checktool.h"

int RunCheckCommand(int argc, char** argv) {
  // Batch mode answers many thousand lines; unsynchronised streams keep the
  // reading and writing out of the way.
  std::ios::sync_with_stdio(false);
  return vxfilter::RunCheck(argc, argv, std::cin, std::cout, std::cerr);
}
