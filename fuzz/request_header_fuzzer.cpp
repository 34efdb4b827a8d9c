// A browser's request header as it arrives: scanned in pieces, its fields
// parsed into the header map, its start line split into the request target;
// then the same by the standard's rules (strict scanner, framing, split).
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "header_scan.h"
#include "http/requesttarget.h"

namespace {

void CheckParts(RequestTargetParts& parts, std::string_view startLine) {
  FUZZ_CHECK(parts.path.FindChar('?') == nullptr);
  // Only a name that ends in "." has an empty extension (the texts are C
  // strings: a zero byte ends them early).
  if (startLine.find('\0') == std::string_view::npos) {
    FUZZ_CHECK(parts.typeWord.GetSize() > 0 ||
               std::string_view(parts.path.GetBuffer()).ends_with("."));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes = vxfuzz::AsText(data, size);
  const vxfuzz::ScanOutcome scan = vxfuzz::ScanEveryWay(bytes, true, false);
  const vxfuzz::ScanOutcome strict = vxfuzz::ScanEveryWay(bytes, true, true);
  vxfuzz::CompareStrictWithLax(bytes, strict, scan);

  if (scan.status == HeaderStatus::kComplete) {
    FUZZ_CHECK(!scan.hasStatusCode);
    HeaderFields fields;
    std::map<std::string, std::string> map;
    const auto normalize = [](CStringBuffer& word) {
      NormalizeTypeWord(vxfuzz::TypeWordTable(), word);
    };
    ParseHeaderFields(vxfuzz::FieldLines(scan), "127.0.0.1:7070", normalize, fields, &map);
    // Fields only the proxy reads never travel on.
    FUZZ_CHECK(fields.proxyDestination != "127.0.0.1:7070");
    for (const auto& [name, value] : map) {
      for (const char c : name) FUZZ_CHECK(!(c >= 'A' && c <= 'Z'), "map name %s", name.c_str());
    }
    const auto host = map.find("host");
    RequestTargetParts parts =
        ParseRequestTarget(scan.startLine, host != map.end() ? host->second.c_str() : nullptr);
    CheckParts(parts, scan.startLine);
    FUZZ_CHECK(parts.host.FindChar(':') == nullptr);
    FUZZ_CHECK(parts.error == nullptr);
  }

  if (strict.status == HeaderStatus::kComplete) {
    HeaderFields fields;
    std::map<std::string, std::string> map;
    ParseHeaderFields(vxfuzz::FieldLines(strict), "127.0.0.1:7070", nullptr, fields, &map);
    const auto host = map.find("host");
    RequestTargetParts parts = ParseRequestTarget(
        strict.startLine, host != map.end() ? host->second.c_str() : nullptr, true);
    if (parts.error == nullptr) {
      CheckParts(parts, strict.startLine);
      FUZZ_CHECK(parts.host.GetSize() > 0 && parts.port != 0);
      FUZZ_CHECK(parts.version == "HTTP/1.0" || parts.version.GetSize() == 8);
    }
    const CStringBuffer lines = vxfuzz::FieldLines(strict);
    const MessageFraming framing =
        ReadFraming(std::string_view(lines.GetBuffer(), static_cast<std::size_t>(lines.GetSize())),
                    true, parts.version == "HTTP/1.0");
    FUZZ_CHECK(!framing.untilClose, "a request never runs until the close");
    if (framing.error == nullptr) {
      FUZZ_CHECK(!(framing.hasLength && framing.chunked) && framing.length >= 0);
    } else {
      FUZZ_CHECK(!framing.hasLength && !framing.chunked && framing.length == 0);
    }
  }
  return 0;
}
