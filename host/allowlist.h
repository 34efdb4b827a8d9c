// "vxproxy allow", "disallow" and "allowed": the user's approved list,
// vexilowl.txt in the data folder, where a site is one "@@||site^" line (the
// site and its subdomains are never blocked). Every other line of the file is
// kept as it is, in its place.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace vxhost {

// A site as typed made into the form the list holds: blanks around it and one
// trailing dot dropped, lower case. False when it is no host name (a URL, a
// path, a port, a wildcard, a character a host name cannot have); problem
// then says what is wrong and, when it can tell, which site was meant.
bool NormalizeSite(std::string_view typed, std::string* site, std::string* problem);

// argv[0] is the command word ("allow", "disallow" or "allowed"); options
// and sites follow. Returns the exit code: 0, 1 when the list cannot be read
// or written, 2 for bad usage or a site that is no host name.
int RunApprovedListCommand(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace vxhost
