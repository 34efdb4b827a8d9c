// "vxproxy install-service [RUN OPTIONS]": writes a systemd user unit that
// runs "vxproxy run" with those options at login and after a failure, made
// from the template vxproxy.service.in that ships with the program. Nothing
// is started: the command prints the systemctl line that does it.
#pragma once

#include <iosfwd>
#include <string>

namespace vxhost {

// One word of a unit's ExecStart line, quoted and escaped as systemd reads it.
std::string UnitCommandWord(const std::string& word);

// argv[0] is the word "install-service". Returns the exit code: 0, 1 when
// the template is missing or the unit cannot be written, 2 for bad usage.
int RunInstallServiceCommand(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace vxhost
