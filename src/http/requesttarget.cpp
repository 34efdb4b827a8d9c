// The request line split into scheme, host, port, path and type word.
#include "http/requesttarget.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "http/urlparser.h"

namespace {

void FillPathAndTypeWord(RequestTargetParts& parts);

// An absolute URL's scheme is at most four letters ("http"); a "://" further
// on belongs to a URL inside a query string.
constexpr int kMaxSchemeLength = 4;

unsigned short PortNumber(const char* text) {
  return static_cast<unsigned short>(std::atoi(text));
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Characters a host name may hold: unreserved, sub-delims and %-escapes.
bool IsHostChar(char c) {
  return IsAlpha(c) || IsDigit(c) || (c != '\0' && std::strchr("-._~%!$&'()*+,;=", c) != nullptr);
}

bool IsMethodChar(char c) {
  return IsAlpha(c) || IsDigit(c) || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

// Visible ASCII and bytes above it; no blank, control or DEL.
bool IsTargetChar(char c) {
  const auto u = static_cast<unsigned char>(c);
  return u > 0x20 && u != 0x7F;
}

// The method, target and version of a strict request line, and its form;
// host, port and scheme are left to the caller.
const char* SplitStrictLine(std::string_view line, RequestTargetParts& parts,
                            std::string_view& target) {
  if (line.size() >= 2 && line.substr(line.size() - 2) == "\r\n") line.remove_suffix(2);
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos) return "malformed request line";
  const std::string_view method = line.substr(0, first);
  target = line.substr(first + 1, second - first - 1);
  const std::string_view version = line.substr(second + 1);
  if (method.empty() || !std::all_of(method.begin(), method.end(), IsMethodChar) ||
      target.empty() || !std::all_of(target.begin(), target.end(), IsTargetChar)) {
    return "malformed request line";
  }
  if (version.size() != 8 || version.substr(0, 7) != "HTTP/1." || !IsDigit(version[7])) {
    return "unsupported HTTP version";
  }
  parts.method.AddString(method.data(), static_cast<int>(method.size()));
  parts.version.AddString(version.data(), static_cast<int>(version.size()));
  if (target.find('#') != std::string_view::npos) return "fragment in the request target";
  return nullptr;
}

// The strict reading of a request line; the caller fills path and type word
// from parts.requestTarget.
const char* ParseStrict(std::string_view startLine, const char* hostField,
                        RequestTargetParts& parts) {
  std::string_view target;
  if (const char* error = SplitStrictLine(startLine, parts, target)) return error;
  const bool http10 = parts.version == "HTTP/1.0";
  if (!http10 && hostField == nullptr) return "no Host field in an HTTP/1.1 request";

  // Methods are case-sensitive here: only CONNECT opens a tunnel.
  if (std::strcmp(parts.method.GetBuffer(), "CONNECT") == 0) {
    parts.form = RequestTargetForm::kNoUrl;
    parts.scheme = "https";
    if (const char* error = ParseAuthority(target, 0, parts.host, parts.port)) return error;
    return parts.port == 0 ? "CONNECT without a port" : nullptr;
  }
  if (target[0] == '/') {
    parts.form = RequestTargetForm::kNoUrl;
    parts.scheme = "http";
    parts.requestTarget.AddString(target.data(), static_cast<int>(target.size()));
    if (hostField == nullptr || *hostField == '\0') return "no Host field";
    return ParseAuthority(hostField, kHttpPort, parts.host, parts.port);
  }

  // scheme "://" authority [path-abempty] ["?" query]
  const std::size_t separator = target.find("://");
  if (separator == std::string_view::npos || separator == 0 || !IsAlpha(target[0]) ||
      !std::all_of(target.begin(), target.begin() + static_cast<long>(separator), [](char c) {
        return IsAlpha(c) || IsDigit(c) || c == '+' || c == '-' || c == '.';
      })) {
    return "malformed request target";
  }
  parts.form = RequestTargetForm::kAbsolute;
  parts.scheme.AddString(target.data(), static_cast<int>(separator));
  target.remove_prefix(separator + 3);
  const std::size_t pathStart = std::min(target.size(), target.find_first_of("/?"));
  if (const char* error = ParseAuthority(target.substr(0, pathStart), kHttpPort, parts.host,
                                         parts.port)) {
    return error;
  }
  target.remove_prefix(pathStart);
  // The URL names the server; a Host field must still be a host.
  CStringBuffer fieldHost;
  unsigned short fieldPort = 0;
  if (hostField != nullptr && *hostField != '\0' &&
      ParseAuthority(hostField, kHttpPort, fieldHost, fieldPort) != nullptr) {
    return "malformed Host field";
  }
  if (target.empty() || target[0] == '?') parts.requestTarget = "/";
  parts.requestTarget.AddString(target.data(), static_cast<int>(target.size()));
  return nullptr;
}

}  // namespace

unsigned short BreakOffPort(CStringBuffer& host) {
  const char* colon = host.FindChar(':');
  if (colon == nullptr) return kHttpPort;
  const unsigned short port = PortNumber(colon + 1);
  host.BreakAt(host.OffsetOf(colon));
  return port;
}

const char* ParseAuthority(std::string_view authority, unsigned short defaultPort,
                           CStringBuffer& host, unsigned short& port) {
  host.Initialize();
  port = defaultPort;
  if (authority.find('@') != std::string_view::npos) return "user information in the URL";
  std::size_t hostEnd = 0;
  if (!authority.empty() && authority[0] == '[') {
    hostEnd = authority.find(']');
    if (hostEnd == std::string_view::npos || hostEnd == 1 ||
        !std::all_of(authority.begin() + 1, authority.begin() + static_cast<long>(hostEnd),
                     [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.'; })) {
      return "malformed host";
    }
    ++hostEnd;
  } else {
    hostEnd = std::min(authority.size(), authority.find(':'));
    if (!std::all_of(authority.begin(), authority.begin() + static_cast<long>(hostEnd), IsHostChar)) {
      return "malformed host";
    }
  }
  if (hostEnd == 0) return "no host";
  std::string_view rest = authority.substr(hostEnd);
  if (!rest.empty()) {
    if (rest[0] != ':') return "malformed host";
    rest.remove_prefix(1);
  }
  // An empty port means the usual one.
  if (!rest.empty()) {
    if (rest.size() > 5 || !std::all_of(rest.begin(), rest.end(), IsDigit)) return "invalid port";
    const int value = std::atoi(std::string(rest).c_str());
    if (value < 1 || value > 65535) return "invalid port";
    port = static_cast<unsigned short>(value);
  }
  host.AddString(authority.data(), static_cast<int>(hostEnd));
  return nullptr;
}

RequestTargetParts ParseRequestTarget(std::string_view startLine, const char* hostField,
                                      bool strict) {
  RequestTargetParts parts;
  if (strict) {
    parts.error = ParseStrict(startLine, hostField, parts);
    if (parts.error == nullptr) FillPathAndTypeWord(parts);
    return parts;
  }
  if (hostField == nullptr) hostField = "";
  CStringBuffer line;
  line.AddString(startLine.data(), static_cast<int>(startLine.size()));
  CStringBuffer token;
  line >> parts.method >> token >> parts.version;

  const char* separator = token.Find("://");
  if (separator != nullptr && token.OffsetOf(separator) <= kMaxSchemeLength) {
    parts.form = RequestTargetForm::kAbsolute;
    const int schemeLength = token.OffsetOf(separator);
    parts.scheme.AddString(token.GetBuffer(), schemeLength);
    token.Move(0, schemeLength + 3);
    token.Trim();
    if (const char* slash = token.FindChar('/')) {
      const int hostLength = token.OffsetOf(slash);
      parts.host.AddString(token.GetBuffer(), hostLength);
      token.Move(0, hostLength);
    } else {
      parts.host = token;
      token = "/";
    }
  } else if (separator != nullptr) {
    parts.form = RequestTargetForm::kUrlInside;
    parts.scheme = "http";
    parts.host = hostField;
  } else {
    parts.form = RequestTargetForm::kNoUrl;
    if (parts.method == "Connect") {
      parts.scheme = "https";
      parts.host = token;
      token.Initialize();
    } else if (*hostField != '\0') {
      parts.scheme = "http";
      parts.host = hostField;
    } else {
      parts.host = "localhost";
    }
  }
  parts.port = BreakOffPort(parts.host);
  parts.requestTarget = token;
  FillPathAndTypeWord(parts);
  return parts;
}

namespace {

// The path is the target without its query; the type word comes from the
// path's last segment.
void FillPathAndTypeWord(RequestTargetParts& parts) {
  parts.path = parts.requestTarget;
  if (const char* query = parts.path.FindChar('?')) parts.path.BreakAt(parts.path.OffsetOf(query));
  parts.path.Trim();

  if (char* slash = parts.path.ReverseFindChar('/')) {
    const char* dot = CStringBuffer::ReverseFindChar(slash + 1, '.');
    parts.typeWord = dot != nullptr ? dot + 1 : "unknown";
    parts.typeWordFromPath = true;
  } else {
    parts.typeWord = "unknown";
  }
}

}  // namespace
