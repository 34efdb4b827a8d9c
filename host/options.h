// The options of "vxproxy run" (which "install-service" takes too) and the
// "--data DIR" option of the small commands, with the folders they default to.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace vxhost {

struct RunOptions {
  std::string data;  // empty until ResolveFolders when --data was not given
  std::string logs;
  std::string filters;
  std::string upstreamHost;
  unsigned short upstreamPort = 0;
  bool portGiven = false;  // --port: written to vexilo.ini before the start
  unsigned short port = 0;
  bool filtering = true;
  bool trace = false;
  bool strict = false;  // the module's own behaviour, no extension
  bool tunnelGuard = true;  // with the other extensions, unless --no-tunnel-guard
  // Which folders the user named; the others are defaults.
  bool dataGiven = false;
  bool logsGiven = false;
  bool filtersGiven = false;
  std::vector<std::string> typed;  // the options as given, with folders made absolute
};

// A port number as typed: decimal digits only (no sign, blank or other
// character), at most 65535.
bool ParsePortNumber(const std::string& text, unsigned short* port);

// The Port= setting in the [Vexilo] section of the data folder's
// vexilo.ini, 7070 without one. False when the value is no port number; text
// then holds it as written.
bool ReadPortSetting(const std::string& dataFolder, unsigned short* port, std::string* text);

// Reads run's options (the words after the command word). On bad usage
// writes what is wrong, naming the option, and returns false.
bool ParseRunOptions(const std::vector<std::string>& args, const std::string& command,
                     RunOptions* options, std::ostream& err);

// Fills in the folders not given: data $XDG_DATA_HOME/vxproxy, logs
// $XDG_STATE_HOME/vxproxy (the data folder when only --data was given),
// filters the data folder. False with a message when no default exists.
bool ResolveFolders(RunOptions* options, const std::string& command, std::ostream& err);

// Makes run's folders and checks that the proxy can use them and write the
// files it keeps there; on the first run (no filters.txt, no --filters)
// installs the starter list that ships with the program as filters.txt. A
// message to err names the folder or file at fault and what to do; notes (the
// starter list installed) go there too.
bool PrepareRunFolders(const RunOptions& options, std::ostream& err);

// The port the proxy is to ask for: --port, which is written to vexilo.ini
// (where the proxy reads it, and which names the port in use afterwards
// anyway), else the file's Port= setting. False with a message naming the
// file and the value when it is no port.
bool PreparePort(const RunOptions& options, unsigned short* port, std::ostream& err);

// "[--data DIR] WORD...": the data folder (the default one when not given)
// and the other words. A word starting with "-" is an unknown option.
bool ParseDataOption(const std::vector<std::string>& args, const std::string& command,
                     std::string* data, std::vector<std::string>* words, std::ostream& err);

}  // namespace vxhost
