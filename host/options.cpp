#include "options.h"

#include <ostream>

#include "paths.h"
#include "platform/platform.h"

namespace vxhost {
namespace {

void SeeHelp(const std::string& command, std::ostream& err) {
  err << "see: vxproxy help " << command << "\n";
}

// "HOST:PORT": a host name or IPv4 address and a port from 1 to 65535.
bool ParseUpstream(const std::string& text, std::string* host, unsigned short* port) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  *host = text.substr(0, colon);
  for (const char c : *host) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!letter && !(c >= '0' && c <= '9') && c != '.' && c != '-' && c != '_') return false;
  }
  return ParsePortNumber(text.substr(colon + 1), port) && *port != 0;
}

std::string NoDefault(const char* what, const char* variable) {
  return std::string("vxproxy: no default ") + what + " folder: neither " + variable +
         " nor HOME is set; ";
}

}  // namespace

bool ParsePortNumber(const std::string& text, unsigned short* port) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long value = std::stoul(text);
  if (value > 65535) return false;
  *port = static_cast<unsigned short>(value);
  return true;
}

bool ReadPortSetting(const std::string& dataFolder, unsigned short* port, std::string* text) {
  const std::string ini = dataFolder + "\\vexilo.ini";
  char value[64] = {};
  os::GetPrivateProfileStringA("Vexilo", "Port", "7070", value, sizeof value, ini.c_str());
  *text = value;
  return ParsePortNumber(*text, port);
}

bool ParseRunOptions(const std::vector<std::string>& args, const std::string& command,
                     RunOptions* options, std::ostream& err) {
  const std::string prefix = "vxproxy " + command + ": ";
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&](const char* what, std::string* out) {
      if (i + 1 >= args.size() || args[i + 1].empty() || args[i + 1].rfind("--", 0) == 0) {
        err << prefix << arg << " needs " << what
            << (i + 1 < args.size() ? ", not " + args[i + 1] : std::string()) << "\n";
        SeeHelp(command, err);
        return false;
      }
      *out = args[++i];
      return true;
    };
    auto folder = [&](std::string* out, bool* given) {
      if (!value("a folder", out)) return false;
      *given = true;
      options->typed.insert(options->typed.end(), {arg, AbsolutePath(*out)});
      return true;
    };
    if (arg == "--data") {
      if (!folder(&options->data, &options->dataGiven)) return false;
    } else if (arg == "--logs") {
      if (!folder(&options->logs, &options->logsGiven)) return false;
    } else if (arg == "--filters") {
      if (!folder(&options->filters, &options->filtersGiven)) return false;
    } else if (arg == "--upstream") {
      std::string text;
      if (!value("HOST:PORT", &text)) return false;
      if (!ParseUpstream(text, &options->upstreamHost, &options->upstreamPort)) {
        err << prefix << "--upstream " << text
            << " is not HOST:PORT (a host name or address, a port from 1 to 65535)\n";
        return false;
      }
      options->typed.insert(options->typed.end(), {arg, text});
    } else if (arg == "--port") {
      std::string text;
      if (!value("a port", &text)) return false;
      if (!ParsePortNumber(text, &options->port)) {
        err << prefix << "--port " << text
            << " is not a port (a number from 1 to 65535, or 0 to let the system pick one)\n";
        return false;
      }
      options->portGiven = true;
      options->typed.insert(options->typed.end(), {arg, text});
    } else if (arg == "--no-tunnel-guard") {
      options->tunnelGuard = false;
      options->typed.push_back(arg);
    } else if (arg == "--no-filter" || arg == "--trace" || arg == "--strict") {
      bool* flag = arg == "--no-filter" ? &options->filtering
                   : arg == "--trace"   ? &options->trace
                                        : &options->strict;
      *flag = arg != "--no-filter";
      options->typed.push_back(arg);
    } else {
      err << prefix << (arg.rfind('-', 0) == 0 ? "unknown option " : "unexpected argument ") << arg
          << "\n";
      SeeHelp(command, err);
      return false;
    }
  }
  return true;
}

bool ResolveFolders(RunOptions* options, const std::string& command, std::ostream& err) {
  if (!options->dataGiven) {
    options->data = DefaultDataFolder();
    if (options->data.empty()) {
      err << NoDefault("data", "XDG_DATA_HOME") << "pass --data DIR (see: vxproxy help " << command
          << ")\n";
      return false;
    }
  }
  if (!options->logsGiven) {
    options->logs = options->dataGiven ? options->data : DefaultLogFolder();
    if (options->logs.empty()) {
      err << NoDefault("log", "XDG_STATE_HOME") << "pass --logs DIR (see: vxproxy help " << command
          << ")\n";
      return false;
    }
  }
  if (!options->filtersGiven) options->filters = options->data;
  return true;
}

bool PrepareRunFolders(const RunOptions& options, std::ostream& err) {
  const struct {
    const std::string& folder;
    bool given;
    const char* what;
    const char* option;
  } folders[] = {{options.data, options.dataGiven, "data", "--data"},
                 {options.logs, options.logsGiven, "log", "--logs"},
                 {options.filters, options.filtersGiven, "filter", "--filters"}};
  for (const auto& f : folders) {
    std::string problem;
    if (!PrepareFolder(f.folder, &problem)) {
      err << "vxproxy: cannot use " << f.folder << " as the " << f.what << " folder"
          << (f.given ? std::string(" (") + f.option + ")" : std::string()) << ": " << problem
          << "; pass " << f.option << " DIR with a folder you can write\n";
      return false;
    }
  }

  // Files the proxy writes: one it cannot write would leave a log closed or
  // lose settings or counts without a word.
  const struct {
    const std::string& folder;
    const char* name;
  } written[] = {{options.data, "vexilo.ini"},  {options.data, "vexilo.xml"},
                 {options.data, "sitecounter.xml"}, {options.logs, "proxy.log"},
                 {options.logs, "request.log"}, {options.logs, "blocked.log"},
                 {options.logs, "siteinfo.log"}};
  for (const auto& w : written) {
    bool present = false;
    std::string problem;
    const std::string path = FileIn(w.folder, w.name);
    if (!ProbeFile(path, &present, &problem, true)) {
      err << "vxproxy: the proxy writes " << path << ", but " << problem << "; fix or remove it\n";
      return false;
    }
  }

  const std::string list = FileIn(options.filters, "filters.txt");
  bool present = false;
  std::string problem;
  if (!ProbeFile(list, &present, &problem)) {
    err << "vxproxy: cannot read the filter list " << list << ": " << problem << "\n";
    return false;
  }
  if (!present && options.filtersGiven) {
    err << "vxproxy: no filter list at " << list
        << ": put a filters.txt in the --filters folder (vxproxy lists update --filters "
        << options.filters << " fetches one), or leave --filters out\n";
    return false;
  }
  if (!present) {  // the first run
    std::string tried, text;
    const std::string starter = FindShippedFile("filters.txt", "default/filters.txt", &tried);
    if (starter.empty()) problem = "it is in neither " + tried;
    if (starter.empty() || !ReadWholeFile(starter, true, &text, &problem) ||
        !WriteFileAtomically(list, text, &problem)) {
      err << "vxproxy: no filter list at " << list << ", and the starter list could not be "
          << "installed (" << problem << "); put a filters.txt there (vxproxy lists update "
          << "fetches one)\n";
      return false;
    }
    err << "vxproxy: installed the starter filter list as " << list
        << "; vxproxy lists update installs full lists\n";
  }

  const std::string approved = FileIn(options.data, "vexilowl.txt");
  if (!ProbeFile(approved, &present, &problem)) {
    err << "vxproxy: cannot read your approved list " << approved << ": " << problem
        << "; fix or remove it\n";
    return false;
  }
  return true;
}

bool PreparePort(const RunOptions& options, unsigned short* port, std::ostream& err) {
  const std::string ini = FileIn(options.data, "vexilo.ini");
  if (options.portGiven) {
    *port = options.port;
    if (!os::WritePrivateProfileStringA("Vexilo", "Port", std::to_string(*port).c_str(),
                                        (options.data + "\\vexilo.ini").c_str())) {
      err << "vxproxy: cannot write --port " << *port << " to " << ini
          << ", where the proxy reads its port; check the file's permissions\n";
      return false;
    }
    return true;
  }
  std::string text;
  if (!ReadPortSetting(options.data, port, &text)) {
    err << "vxproxy: Port=" << text << " in " << ini
        << " is not a port; set a number from 1 to 65535 there (0 lets the system pick one), "
           "or pass --port PORT\n";
    return false;
  }
  return true;
}

bool ParseDataOption(const std::vector<std::string>& args, const std::string& command,
                     std::string* data, std::vector<std::string>* words, std::ostream& err) {
  data->clear();
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--data") {
      if (i + 1 >= args.size() || args[i + 1].empty() || args[i + 1].rfind("--", 0) == 0) {
        err << "vxproxy " << command << ": --data needs a folder"
            << (i + 1 < args.size() ? ", not " + args[i + 1] : std::string()) << "\n";
        SeeHelp(command, err);
        return false;
      }
      *data = args[++i];
    } else if (args[i].size() > 1 && args[i][0] == '-') {
      err << "vxproxy " << command << ": unknown option " << args[i] << "\n";
      SeeHelp(command, err);
      return false;
    } else {
      words->push_back(args[i]);
    }
  }
  if (data->empty()) *data = DefaultDataFolder();
  if (data->empty()) {
    err << NoDefault("data", "XDG_DATA_HOME") << "pass --data DIR\n";
    return false;
  }
  return true;
}

}  // namespace vxhost
