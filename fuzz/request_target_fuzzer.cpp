// Request lines and URLs: the request-target split of a start line (with a
// Host field), and the URL splitters that referers and targets go through.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "filter/urlsplit.h"
#include "fuzz_support.h"
#include "http/requesttarget.h"
#include "http/urlparser.h"

namespace {

bool Within(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() &&
                          part.data() + part.size() <= whole.data() + whole.size());
}

void CheckSplitters(const std::string& url) {
  vxfilter::UrlPieces pieces;
  if (vxfilter::SplitUrl(url, &pieces)) {
    const std::string_view text(url);
    FUZZ_CHECK(text.substr(pieces.scheme.size(), 3) == "://");
    FUZZ_CHECK(Within(pieces.hostPort, text) && Within(pieces.rest, text));
    FUZZ_CHECK(pieces.hostPort.starts_with(pieces.host));
    FUZZ_CHECK(pieces.host.size() + pieces.afterHost.size() == pieces.hostPort.size());
    FUZZ_CHECK(pieces.rest.empty() || pieces.rest.find_first_of("/?#") == 0);
  }
  const std::string name = vxfilter::UrlHostName(url);
  FUZZ_CHECK(name.size() <= 1024);
  FUZZ_CHECK(name.empty() || url.size() <= 2048);

  // The Referer handler's parser reads a C string.
  CStringBuffer scheme;
  CStringBuffer host;
  CStringBuffer path;
  unsigned short port = 0;
  const bool parsed = CHTTPURLParser::ParseUrl(url.c_str(), scheme, host, path, port);
  FUZZ_CHECK(parsed == (host.GetSize() > 0));
  FUZZ_CHECK(host.FindChar(':') == nullptr);
}

}  // namespace

// The first line is the start line, the second the Host field's value (no
// second line: no Host field); the whole input is also read as one URL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vxfuzz::AsText(data, size);
  const std::size_t lineEnd = text.find('\n');
  const std::string_view startLine = text.substr(0, lineEnd);
  const bool hasHost = lineEnd != std::string_view::npos;
  std::string hostField;
  if (hasHost) {
    hostField = std::string(text.substr(lineEnd + 1, text.find('\n', lineEnd + 1) - lineEnd - 1));
  }
  // A header value is a C string: it ends at its first zero byte.
  hostField.resize(std::string_view(hostField.c_str()).size());
  const char* host = hasHost ? hostField.c_str() : nullptr;

  RequestTargetParts parts = ParseRequestTarget(startLine, host);
  FUZZ_CHECK(parts.error == nullptr);
  FUZZ_CHECK(parts.path.FindChar('?') == nullptr);
  FUZZ_CHECK(parts.host.FindChar(':') == nullptr);
  // Only a name that ends in "." has an empty extension (the texts are C
  // strings: a zero byte ends them early).
  if (startLine.find('\0') == std::string_view::npos) {
    FUZZ_CHECK(parts.typeWord.GetSize() > 0 ||
               std::string_view(parts.path.GetBuffer()).ends_with("."));
  }
  if (parts.form == RequestTargetForm::kAbsolute) {
    FUZZ_CHECK(parts.scheme.GetSize() <= 4);
    FUZZ_CHECK(parts.requestTarget.GetSize() > 0);
  }
  if (!parts.typeWordFromPath) FUZZ_CHECK(parts.typeWord == "unknown");

  // The standard's reading accepts less and says why; what it accepts has a
  // host, a port and a target to ask for.
  RequestTargetParts strict = ParseRequestTarget(startLine, host, true);
  if (strict.error == nullptr) {
    FUZZ_CHECK(strict.host.GetSize() > 0 && strict.port != 0);
    FUZZ_CHECK(strict.method == "CONNECT" || strict.requestTarget.GetBuffer()[0] == '/');
    FUZZ_CHECK(startLine.find('\0') == std::string_view::npos);
  }

  CStringBuffer authorityHost;
  unsigned short authorityPort = 0;
  if (ParseAuthority(hostField, 80, authorityHost, authorityPort) == nullptr) {
    FUZZ_CHECK(authorityHost.GetSize() > 0 && authorityPort != 0);
    FUZZ_CHECK(hostField.find('@') == std::string::npos);
  }

  CStringBuffer split(hostField.c_str());
  const unsigned short port = BreakOffPort(split);
  FUZZ_CHECK(split.FindChar(':') == nullptr);
  if (hostField.find(':') == std::string::npos) FUZZ_CHECK(port == 80);

  CheckSplitters(std::string(text));
  CheckSplitters(std::string(startLine));
  return 0;
}
