#include "pac.h"

#include <ostream>
#include <string>
#include <vector>

#include "options.h"
#include "paths.h"

namespace vxhost {

int RunPacCommand(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::string data;
  std::vector<std::string> words;
  if (!ParseDataOption(std::vector<std::string>(argv + 1, argv + argc), "pac", &data, &words,
                       err)) {
    return 2;
  }
  if (!words.empty()) {
    err << "vxproxy pac: unexpected argument " << words.front() << "\nsee: vxproxy help pac\n";
    return 2;
  }
  unsigned short port = 0;
  std::string setting;
  if (!ReadPortSetting(data, &port, &setting) || port == 0) {
    err << "vxproxy pac: Port=" << setting << " in " << FileIn(data, "vexilo.ini")
        << " is no port browsers can be sent to; set one from 1 to 65535, or start the proxy "
           "once: it writes the port it uses there\n";
    return 1;
  }
  std::string text, problem;
  if (!LoadShippedTemplate("proxy.pac.in", "proxy.pac.in", "PORT", std::to_string(port), &text,
                           &problem)) {
    err << "vxproxy pac: " << problem << "\n";
    return 1;
  }
  out << text;
  return 0;
}

}  // namespace vxhost
