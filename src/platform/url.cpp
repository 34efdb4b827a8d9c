// Host names of absolute URLs, as the system's URL cracker gives them after
// canonicalising: only what lies between "://" (and a user part) and the port
// or the path, with %XX escapes decoded.
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace os {
namespace {

// The cracker's output buffers: the canonical URL and the host name.
constexpr std::size_t kMaxUrlLength = 2048;
constexpr std::size_t kMaxHostLength = 1024;

bool IsSchemeChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '-' || c == '.';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string UrlHostName(const char* url) {
  if (url == nullptr) return {};
  const std::size_t length = std::strlen(url);
  if (length > kMaxUrlLength) return {};
  const char* separator = std::strstr(url, "://");
  if (separator == nullptr || separator == url) return {};
  for (const char* p = url; p < separator; ++p) {
    if (!IsSchemeChar(*p)) return {};
  }
  const char* authority = separator + 3;
  const char* end = authority + std::strcspn(authority, "/?#");
  // A user part ends at the last "@" before the path.
  const char* host = authority;
  for (const char* p = authority; p < end; ++p) {
    if (*p == '@') host = p + 1;
  }
  const char* hostEnd = host;
  if (*host == '[') {
    // A bracketed address keeps its colons; the port comes after the "]".
    while (hostEnd < end && *hostEnd != ']') ++hostEnd;
    if (hostEnd == end) return {};
    ++hostEnd;
  } else {
    while (hostEnd < end && *hostEnd != ':') ++hostEnd;
  }
  if (hostEnd < end) {
    if (*hostEnd != ':') return {};
    for (const char* p = hostEnd + 1; p < end; ++p) {
      if (*p < '0' || *p > '9') return {};
    }
  }
  if (hostEnd == host) return {};

  std::string name(host, hostEnd);
  if (name.find('%') != std::string::npos) {
    std::size_t out = 0;
    for (std::size_t in = 0; in < name.size(); ++in, ++out) {
      if (name[in] == '%' && in + 2 < name.size() && HexValue(name[in + 1]) >= 0 &&
          HexValue(name[in + 2]) >= 0) {
        name[out] = static_cast<char>(HexValue(name[in + 1]) * 16 + HexValue(name[in + 2]));
        in += 2;
      } else {
        name[out] = name[in];
      }
    }
    name.resize(out);
  }
  if (name.size() > kMaxHostLength) return {};
  return name;
}

}  // namespace os
