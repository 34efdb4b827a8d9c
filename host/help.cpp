#include "help.h"

#include <ostream>

namespace vxhost {
namespace {

struct CommandHelp {
  const char* name;
  const char* synopsis;  // one or more lines, each starting with "vxproxy"
  const char* summary;   // one line each, matching the synopsis lines
  const char* details;
};

constexpr CommandHelp kCommands[] = {
    {"run",
     "vxproxy [run] [--data DIR] [--logs DIR] [--filters DIR] [--port PORT]\n"
     "              [--upstream HOST:PORT] [--no-filter] [--trace] [--strict]\n"
     "              [--no-tunnel-guard]",
     "serve the browsers on this machine at 127.0.0.1:PORT until Ctrl-C",
     "  --data DIR            settings (vexilo.ini, vexilo.xml), your approved list\n"
     "                        (vexilowl.txt) and the statistics (sitecounter.xml);\n"
     "                        default $XDG_DATA_HOME/vxproxy (~/.local/share/vxproxy)\n"
     "  --logs DIR            proxy.log, request.log, blocked.log and siteinfo.log;\n"
     "                        default $XDG_STATE_HOME/vxproxy (~/.local/state/vxproxy),\n"
     "                        or the --data folder when only that is given\n"
     "  --filters DIR         the folder of filters.txt; default the data folder, where\n"
     "                        the first run installs the bundled starter list\n"
     "  --port PORT           listen on PORT (1 to 65535, 0: any free one); it is\n"
     "                        written to vexilo.ini and kept for the next runs\n"
     "  --upstream HOST:PORT  relay through another proxy (a host name or IPv4\n"
     "                        address and its port)\n"
     "  --no-filter           block nothing, relay everything\n"
     "  --trace               copy every header into request.log\n"
     "  --strict              the module's original behaviour: no extensions\n"
     "  --no-tunnel-guard     every extension but the tunnel guard: HTTPS to ad hosts\n"
     "                        is tunnelled like any other\n"
     "Missing folders are created. The port is Port= in the [Vexilo] section of\n"
     "vexilo.ini (default 7070); when another program holds it the system picks a\n"
     "free one, which is written back there, and the program says so. It prints\n"
     "\"vxproxy: listening on 127.0.0.1:PORT\", and on a terminal a status line.\n"},
    {"check",
     "vxproxy check [--filters FILE] [--approved FILE] [--type WORD] [--referer URL]\n"
     "              [--redirect] URL\n"
     "vxproxy check --filters FILE [--approved FILE] --batch < requests.tsv\n"
     "vxproxy check [--filters FILE] [--approved FILE] --connect HOST[:PORT]",
     "the filter engine's verdict for one URL\n"
     "the verdicts for tab-separated lines: url, type word, referer, redirect 0/1\n"
     "what the tunnel guard does with a CONNECT to HOST, and the rule that decides",
     "Prints 100 (no rule), 200 (allowed), 300, 400 or 500 (blocked), one line per\n"
     "URL. --filters is a filter list file, --approved an approved list such as\n"
     "vexilowl.txt; when neither is given, filters.txt and vexilowl.txt of the\n"
     "default data folder are used, as \"run\" would. Without --type the type word\n"
     "comes from the URL's path.\n"},
    {"stats", "vxproxy stats [--data DIR] [--logs DIR] [--json]",
     "show what the proxy counted: requests, blocked requests, bytes, sites",
     "Reads sitecounter.xml in the data folder and siteinfo.log in the log folder\n"
     "(the folders \"run\" uses by default) and never changes them. --json prints the\n"
     "same as one JSON object.\n"},
    {"allow", "vxproxy allow [--data DIR] SITE...",
     "never block SITE or its subdomains (adds @@||SITE^ to vexilowl.txt)",
     "SITE is a host name such as example.com: no scheme, path, port or wildcard.\n"
     "It is lower-cased; a site already allowed is not added twice. The rest of\n"
     "vexilowl.txt in the data folder is kept as it is. A running proxy picks the\n"
     "change up by itself within a second.\n"},
    {"disallow", "vxproxy disallow [--data DIR] SITE...", "take SITE off your approved list",
     "Removes the @@||SITE^ line from vexilowl.txt in the data folder and keeps every\n"
     "other line. A running proxy picks the change up by itself within a second.\n"},
    {"allowed", "vxproxy allowed [--data DIR]", "show your approved list",
     "Prints the allowed sites, one per line, and any other rules of vexilowl.txt in\n"
     "the data folder as they are written; comments are left out.\n"},
    {"pac", "vxproxy pac [--data DIR]",
     "print a proxy auto-config file for browsers and the desktop",
     "The file sends http and https through 127.0.0.1:PORT (PORT from vexilo.ini in\n"
     "the data folder, default 7070) and localhost and loopback addresses direct.\n"
     "Save it and point the browser or the desktop at it, e.g.\n"
     "  vxproxy pac > ~/.local/share/vxproxy/proxy.pac\n"
     "  gsettings set org.gnome.system.proxy mode auto\n"
     "  gsettings set org.gnome.system.proxy autoconfig-url "
     "file://$HOME/.local/share/vxproxy/proxy.pac\n"},
    {"install-service", "vxproxy install-service [RUN OPTIONS]",
     "write a systemd user unit that starts the proxy at login",
     "Writes $XDG_CONFIG_HOME/systemd/user/vxproxy.service (~/.config/...) running\n"
     "this program with \"run\" and the options given (see: vxproxy help run), and\n"
     "restarting it when it fails. It then prints the line that enables it:\n"
     "  systemctl --user daemon-reload && systemctl --user enable --now vxproxy\n"
     "What the program prints shows in: journalctl --user -u vxproxy\n"},
    {"lists",
     "vxproxy lists update [URL...]\n"
     "vxproxy lists status",
     "download filter lists and install them as filters.txt\n"
     "what is installed, from where, when",
     "  --data DIR         the data folder (default $XDG_DATA_HOME/vxproxy)\n"
     "  --filters DIR      the folder of filters.txt (default the data folder)\n"
     "  --timeout SECONDS  how long one download may take (default 120)\n"
     "  --logs DIR         for status: the proxy's log folder, where its last load\n"
     "                     of the lists is noted\n"
     "Without URLs update fetches EasyList. The lists are joined into filters.txt,\n"
     "which is replaced only when every list arrived whole; a running proxy loads\n"
     "the new list by itself.\n"},
    {"help", "vxproxy help [COMMAND]", "this overview, or one command in full",
     "Also: vxproxy --help, vxproxy COMMAND --help.\n"},
};

constexpr char kExitCodes[] =
    "Exit codes: 0 done; 1 the command failed (the message names the file, folder,\n"
    "port or module at fault and what to do); 2 bad usage (unknown command or\n"
    "option, missing or malformed value).\n";

const CommandHelp* Find(const std::string& name) {
  for (const CommandHelp& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

// Prints the synopsis lines each with its summary line below it.
void PrintOverviewLines(const CommandHelp& command, std::ostream& out) {
  std::string synopsis = command.synopsis;
  std::string summary = command.summary;
  while (!synopsis.empty()) {
    // A synopsis line may wrap onto lines that do not start with "vxproxy".
    std::size_t end = synopsis.find("\nvxproxy");
    std::string lines = synopsis.substr(0, end);
    for (std::size_t wrap = lines.find('\n'); wrap != std::string::npos;
         wrap = lines.find('\n', wrap + 1)) {
      lines.insert(wrap + 1, "  ");
    }
    synopsis.erase(0, end == std::string::npos ? synopsis.size() : end + 1);
    const std::size_t summaryEnd = summary.find('\n');
    out << "  " << lines << "\n      " << summary.substr(0, summaryEnd) << "\n";
    summary.erase(0, summaryEnd == std::string::npos ? summary.size() : summaryEnd + 1);
  }
}

}  // namespace

void PrintHelp(std::ostream& out) {
  out << "vxproxy: an ad-blocking proxy for the browsers on this machine.\n\n"
         "Commands:\n";
  for (const CommandHelp& command : kCommands) PrintOverviewLines(command, out);
  out << "\nWithout options \"run\" keeps its settings, approved list and statistics in\n"
         "$XDG_DATA_HOME/vxproxy (~/.local/share/vxproxy) and its logs in\n"
         "$XDG_STATE_HOME/vxproxy (~/.local/state/vxproxy); the first run installs the\n"
         "bundled starter list there as filters.txt. Every command that reads these\n"
         "folders takes the same defaults.\n"
         "Details of one command: vxproxy help COMMAND\n\n"
      << kExitCodes;
}

bool PrintCommandHelp(const std::string& name, std::ostream& out) {
  const CommandHelp* command = Find(name);
  if (command == nullptr) return false;
  out << "usage:\n";
  PrintOverviewLines(*command, out);
  out << "\n" << command->details << "\n" << kExitCodes;
  return true;
}

int RunHelpCommand(int argc, char** argv, std::ostream& out, std::ostream& err) {
  if (argc == 0) {
    PrintHelp(out);
    return 0;
  }
  if (argc > 1) {
    err << "vxproxy help: name one command, e.g. vxproxy help run\n";
    return 2;
  }
  if (!PrintCommandHelp(argv[0], out)) {
    err << "vxproxy help: there is no command " << argv[0]
        << "; vxproxy --help lists the commands\n";
    return 2;
  }
  return 0;
}

}  // namespace vxhost
