#include "http/urlparser.h"

#include <cstdlib>

#include "filter/urlsplit.h"

bool CHTTPURLParser::ParseUrl(const char* url, CStringBuffer& scheme, CStringBuffer& host,
                              CStringBuffer& path, unsigned short& port) {
  scheme.Initialize();
  host.Initialize();
  path.Initialize();
  port = 0;
  if (url == nullptr) return false;
  // Header values reach us with the blanks that followed the colon.
  while (*url == ' ' || *url == '\t') ++url;

  vxfilter::UrlPieces pieces;
  if (!vxfilter::SplitUrl(url, &pieces) || !vxfilter::IsSchemeName(pieces.scheme)) return false;
  scheme.AddString(pieces.scheme.data(), static_cast<int>(pieces.scheme.size()));
  // The host is cut at its first colon, bracketed or not: the blocked-request
  // log has always shown the referer's host this way.
  const std::string_view hostPort = pieces.hostPort;
  const std::size_t colon = hostPort.find(':');
  if (colon != std::string_view::npos) {
    port = static_cast<unsigned short>(std::strtoul(hostPort.data() + colon + 1, nullptr, 10));
  }
  host.AddString(hostPort.data(), static_cast<int>(hostPort.substr(0, colon).size()));
  // The rest runs to the end of the text, so it is a C string of its own.
  path = pieces.rest.empty() ? "/" : pieces.rest.data();
  path.Trim();
  return host.GetSize() > 0;
}
