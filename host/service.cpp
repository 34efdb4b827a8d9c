#include "service.h"

#include <ostream>
#include <string>
#include <vector>

#include "options.h"
#include "paths.h"

namespace vxhost {

std::string UnitCommandWord(const std::string& word) {
  // systemd splits ExecStart at blanks, reads quotes and backslashes, and
  // replaces "%x" and "$NAME" sequences.
  const bool quote = word.empty() || word.find_first_of(" \t\"'\\") != std::string::npos;
  std::string text;
  for (const char c : word) {
    if (c == '%' || c == '$') {
      text += c;
    } else if (quote && (c == '"' || c == '\\')) {
      text += '\\';
    }
    text += c;
  }
  return quote ? "\"" + text + "\"" : text;
}

int RunInstallServiceCommand(int argc, char** argv, std::ostream& out, std::ostream& err) {
  RunOptions options;
  if (!ParseRunOptions(std::vector<std::string>(argv + 1, argv + argc), "install-service", &options,
                       err)) {
    return 2;
  }
  const std::string program = ProgramPath();
  if (program.empty()) {
    err << "vxproxy install-service: cannot tell where this program is; run it by its full path\n";
    return 1;
  }
  const std::string config = UserConfigFolder();
  if (config.empty()) {
    err << "vxproxy install-service: no configuration folder: neither XDG_CONFIG_HOME nor HOME "
           "is set; set HOME\n";
    return 1;
  }
  std::string command = UnitCommandWord(program) + " run";
  for (const std::string& word : options.typed) command += " " + UnitCommandWord(word);

  std::string unit, problem;
  if (!LoadShippedTemplate("vxproxy.service.in", "vxproxy.service.in", "EXEC", command, &unit,
                           &problem)) {
    err << "vxproxy install-service: " << problem << "\n";
    return 1;
  }
  const std::string folder = config + "/systemd/user";
  const std::string path = folder + "/vxproxy.service";
  std::string old;
  const bool had = ReadWholeFile(path, true, &old, &problem);
  if (had && old == unit) {
    out << path << " is up to date\n";
  } else {
    if (!PrepareFolder(folder, &problem) || !WriteFileAtomically(path, unit, &problem)) {
      err << "vxproxy install-service: cannot write " << path << ": " << problem << "\n";
      return 1;
    }
    out << (had ? "replaced " : "wrote ") << path << "\n";
  }
  out << "It runs: " << command << "\n"
      << "To start it now and at every login, run:\n"
      << "  systemctl --user daemon-reload && systemctl --user enable --now vxproxy\n"
      << "Its output: journalctl --user -u vxproxy\n";
  return 0;
}

}  // namespace vxhost
