// The "check" command: asks the engine for the verdict of one URL, or of a
// stream of them, exactly as the proxy would ask for a request it relays.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace vxhost {

// Splits an absolute URL the way a proxy request line is split: host without
// user part and port, target = path with query ("/" when there is none; a
// fragment is never part of it), path = target without the query. False
// when the text has no "://" or no host.
bool SplitCheckUrl(std::string_view url, std::string* host, std::string* target, std::string* path);

// Runs the command. args[0] is the command word ("check"); the options
// follow:
//   [--filters FILE] [--approved FILE] [--type WORD] [--referer URL] [--redirect] URL
//   --filters FILE [--approved FILE] --batch
//   [--filters FILE] [--approved FILE] --connect HOST[:PORT]
// The --connect form prints what the tunnel guard makes of a CONNECT to the
// host and the rule that decides: "block HOST (RULE)" or "pass HOST (WHY)".
// Batch lines (tab-separated): url, type word or empty, referer or empty,
// optional redirect flag 0/1; one verdict line is written for each.
// Returns the process exit code: 0, 1 when a list cannot be loaded, 2 for
// bad usage.
int RunCheck(int argc, const char* const* argv, std::istream& in, std::ostream& out,
             std::ostream& err);

}  // namespace vxhost
