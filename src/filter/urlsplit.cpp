#include "filter/urlsplit.h"

namespace vxfilter {
namespace {

constexpr std::string_view kSchemeSeparator = "://";
constexpr std::size_t kMaxUrlLength = 2048;
constexpr std::size_t kMaxHostLength = 1024;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool SplitUrl(std::string_view url, UrlPieces* pieces) {
  const std::size_t separator = url.find(kSchemeSeparator);
  if (separator == std::string_view::npos) return false;
  *pieces = {};
  pieces->scheme = url.substr(0, separator);
  std::string_view authority = url.substr(separator + kSchemeSeparator.size());
  const std::size_t end = authority.find_first_of("/?#");
  if (end != std::string_view::npos) {
    pieces->rest = authority.substr(end);
    authority = authority.substr(0, end);
  }
  // Credentials before the host are not part of it.
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  pieces->hostPort = authority;
  std::size_t hostEnd = authority.find(':');
  if (!authority.empty() && authority[0] == '[') {
    const std::size_t bracket = authority.find(']');
    pieces->openBracket = bracket == std::string_view::npos;
    hostEnd = pieces->openBracket ? authority.size() : bracket + 1;
  }
  if (hostEnd == std::string_view::npos) hostEnd = authority.size();
  pieces->host = authority.substr(0, hostEnd);
  pieces->afterHost = authority.substr(hostEnd);
  return true;
}

bool IsSchemeName(std::string_view scheme) {
  if (scheme.empty()) return false;
  for (const char c : scheme) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '+' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

std::string UrlHostName(std::string_view url) {
  if (url.size() > kMaxUrlLength) return {};
  UrlPieces pieces;
  if (!SplitUrl(url, &pieces) || !IsSchemeName(pieces.scheme) || pieces.openBracket ||
      pieces.host.empty()) {
    return {};
  }
  if (!pieces.afterHost.empty()) {
    if (pieces.afterHost[0] != ':') return {};
    for (const char c : pieces.afterHost.substr(1)) {
      if (c < '0' || c > '9') return {};
    }
  }

  std::string name(pieces.host);
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

}  // namespace vxfilter
