#include "http/urlparser.h"

#include <cstdlib>
#include <cstring>

bool CHTTPURLParser::ParseUrl(const char* url, CStringBuffer& scheme, CStringBuffer& host,
                              CStringBuffer& path, unsigned short& port) {
  scheme.Initialize();
  host.Initialize();
  path.Initialize();
  port = 0;
  if (url == nullptr) return false;
  // Header values reach us with the blanks that followed the colon.
  while (*url == ' ' || *url == '\t') ++url;

  const char* sep = std::strstr(url, "://");
  if (sep == nullptr || sep == url) return false;
  for (const char* p = url; p < sep; ++p) {
    // A scheme is letters, digits, '+', '-' and '.'; anything else means the
    // "://" belongs to a later part (a path or a query) and this is no URL.
    const char c = *p;
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '+' || c == '-' || c == '.';
    if (!ok) return false;
  }
  scheme.AddString(url, static_cast<int>(sep - url));

  const char* authority = sep + 3;
  const char* end = authority + std::strcspn(authority, "/?#");
  // Credentials before the host are not part of it.
  const char* hostStart = authority;
  for (const char* p = authority; p < end; ++p) {
    if (*p == '@') hostStart = p + 1;
  }
  const char* hostEnd = end;
  for (const char* p = hostStart; p < end; ++p) {
    if (*p == ':') {
      hostEnd = p;
      port = static_cast<unsigned short>(std::strtoul(p + 1, nullptr, 10));
      break;
    }
  }
  host.AddString(hostStart, static_cast<int>(hostEnd - hostStart));
  path = *end == '\0' ? "/" : end;
  path.Trim();
  return host.GetSize() > 0;
}
