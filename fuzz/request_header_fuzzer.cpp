// A browser's request header as it arrives: scanned in pieces, its fields
// parsed into the header map, its start line split into the request target.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "header_scan.h"
#include "http/requesttarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vxfuzz::ScanOutcome scan = vxfuzz::ScanEveryWay(vxfuzz::AsText(data, size), true);
  if (scan.status != HeaderStatus::kComplete) return 0;
  FUZZ_CHECK(!scan.hasStatusCode);

  HeaderFields fields;
  std::map<std::string, std::string> map;
  const auto normalize = [](CStringBuffer& word) { NormalizeTypeWord(vxfuzz::TypeWordTable(), word); };
  ParseHeaderFields(vxfuzz::FieldLines(scan), "127.0.0.1:7070", normalize, fields, &map);
  // Fields only the proxy reads never travel on.
  FUZZ_CHECK(fields.proxyDestination != "127.0.0.1:7070");
  for (const auto& [name, value] : map) {
    for (const char c : name) FUZZ_CHECK(!(c >= 'A' && c <= 'Z'), "map name %s", name.c_str());
  }

  const auto host = map.find("host");
  RequestTargetParts parts =
      ParseRequestTarget(scan.startLine, host != map.end() ? host->second.c_str() : "");
  FUZZ_CHECK(parts.path.FindChar('?') == nullptr);
  FUZZ_CHECK(parts.host.FindChar(':') == nullptr);
  // Only a name that ends in "." has an empty extension (the texts are C
  // strings: a zero byte ends them early).
  if (scan.startLine.find('\0') == std::string_view::npos) {
    FUZZ_CHECK(parts.typeWord.GetSize() > 0 ||
               std::string_view(parts.path.GetBuffer()).ends_with("."));
  }
  return 0;
}
