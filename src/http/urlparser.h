// Splits an absolute URL into scheme, host, port and path, and writes a port
// back after its host.
#pragma once

#include "vxproxy/stringbuffer.h"

constexpr unsigned short kHttpPort = 80;
constexpr unsigned short kHttpsPort = 443;

// "host" as a site or an absolute URL writes it: ":port" follows unless the
// port is the scheme's usual one or 0 (none named).
inline void AppendPort(CBufStream& out, unsigned short port, unsigned short usualPort = kHttpPort) {
  if (port != 0 && port != usualPort) out << ":" << port;
}

class CHTTPURLParser {
 public:
  // "scheme://[user@]host[:port][/path]". Leading white space is skipped.
  // The port is 0 when the URL names none. False (host empty) when the text
  // is not an absolute URL.
  static bool ParseUrl(const char* url, CStringBuffer& scheme, CStringBuffer& host,
                       CStringBuffer& path, unsigned short& port);
};
