// Splits an absolute URL into scheme, host, port and path.
#pragma once

#include "vxproxy/stringbuffer.h"

class CHTTPURLParser {
 public:
  // "scheme://[user@]host[:port][/path]". Leading white space is skipped.
  // The port is 0 when the URL names none. False (host empty) when the text
  // is not an absolute URL.
  static bool ParseUrl(const char* url, CStringBuffer& scheme, CStringBuffer& host,
                       CStringBuffer& path, unsigned short& port);
};
