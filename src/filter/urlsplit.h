// Where the pieces of an absolute URL lie: "scheme://[user@]host[:port]rest".
// The proxy's URL readers disagree on what they accept (which schemes, a
// bracketed address, what may follow the host) but not on where a piece
// starts and ends, so they all cut here and judge the pieces themselves.
#pragma once

#include <string>
#include <string_view>

namespace vxfilter {

struct UrlPieces {
  std::string_view scheme;     // before the first "://"; may be empty or anything
  std::string_view hostPort;   // the authority after its last "@"
  std::string_view host;       // hostPort up to its first ':'; "[...]" keeps its colons
  std::string_view afterHost;  // the rest of hostPort: ":port", text after a "]", or empty
  std::string_view rest;       // from the first '/', '?' or '#' after "://" to the end
  bool openBracket = false;    // "[" without "]": host is all of hostPort
};

// False when the text has no "://".
bool SplitUrl(std::string_view url, UrlPieces* pieces);

// Letters, digits, '+', '-' and '.', at least one. Anything else before the
// "://" means it belongs to a later part (a path or a query).
bool IsSchemeName(std::string_view scheme);

// The host name of an absolute URL with %XX escapes decoded; empty unless the
// scheme is a scheme name, the host is not empty and only ":" and digits
// follow it, and empty for a URL longer than 2048 bytes or a host longer than
// 1024 bytes (the canonical URL's and the host's buffers of the URL cracker
// this rule was taken from; verdicts on long referers depend on them).
std::string UrlHostName(std::string_view url);

}  // namespace vxfilter
