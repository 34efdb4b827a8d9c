#include "pac.h"

#include <ostream>
#include <string>
#include <vector>

#include "options.h"
#include "paths.h"
#include "platform/platform.h"

namespace vxhost {

unsigned PortOfDataFolder(const std::string& dataFolder) {
  const std::string ini = dataFolder + "/vexilo.ini";
  char text[16] = {};
  os::GetPrivateProfileStringA("Vexilo", "Port", "7070", text, sizeof text, ini.c_str());
  const std::string value(text);
  if (value.empty() || value.size() > 5 ||
      value.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  const unsigned long port = std::stoul(value);
  return port <= 65535 ? static_cast<unsigned>(port) : 0;
}

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
  const unsigned port = PortOfDataFolder(data);
  if (port == 0) {
    err << "vxproxy pac: " << data << "/vexilo.ini names no usable port (Port= in [Vexilo]); "
        << "set one from 1 to 65535, or start the proxy once: it writes the port it uses there\n";
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
