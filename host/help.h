// The program's help: "vxproxy --help" (every command), "vxproxy help
// COMMAND" and "vxproxy COMMAND --help" (one command in full).
#pragma once

#include <iosfwd>
#include <string>

namespace vxhost {

void PrintHelp(std::ostream& out);

// False when there is no such command.
bool PrintCommandHelp(const std::string& command, std::ostream& out);

// "vxproxy help [COMMAND]". args are the words after "help".
int RunHelpCommand(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace vxhost
