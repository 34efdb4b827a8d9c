// "vxproxy pac [--data DIR]": prints a proxy auto-config file that sends the
// browser's http and https through the proxy's port, made from the template
// proxy.pac.in that ships with the program.
#pragma once

#include <iosfwd>

namespace vxhost {

// argv[0] is the word "pac". Returns the exit code: 0, 1 when the template is
// missing or the port unusable, 2 for bad usage.
int RunPacCommand(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace vxhost
