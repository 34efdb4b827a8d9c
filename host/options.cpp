#include "options.h"

#include <ostream>

#include "paths.h"

namespace vxhost {
namespace {

void SeeHelp(const std::string& command, std::ostream& err) {
  err << "see: vxproxy help " << command << "\n";
}

// "HOST:PORT" or "HOST" (port 80).
bool ParseUpstream(const std::string& text, std::string* host, unsigned short* port) {
  const std::size_t colon = text.rfind(':');
  *host = text.substr(0, colon);
  *port = 80;
  if (host->empty() || host->find_first_of(" /") != std::string::npos) return false;
  if (colon == std::string::npos) return true;
  const std::string digits = text.substr(colon + 1);
  if (digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long value = std::stoul(digits);
  if (value == 0 || value > 65535) return false;
  *port = static_cast<unsigned short>(value);
  return true;
}

std::string NoDefault(const char* what, const char* variable) {
  return std::string("vxproxy: no default ") + what + " folder: neither " + variable +
         " nor HOME is set; ";
}

}  // namespace

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

  const std::string list = options.filters + "/filters.txt";
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

  const std::string approved = options.data + "/vexilowl.txt";
  if (!ProbeFile(approved, &present, &problem)) {
    err << "vxproxy: cannot read your approved list " << approved << ": " << problem
        << "; fix or remove it\n";
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
