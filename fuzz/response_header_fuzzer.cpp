// A server's response header as it arrives, remnants of an earlier body
// included: scanned in pieces, then its fields parsed as the relay reads them;
// then the same by the standard's rules (strict scanner, framing).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "header_scan.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes = vxfuzz::AsText(data, size);
  const vxfuzz::ScanOutcome scan = vxfuzz::ScanEveryWay(bytes, false, false);
  const vxfuzz::ScanOutcome strict = vxfuzz::ScanEveryWay(bytes, false, true);
  vxfuzz::CompareStrictWithLax(bytes, strict, scan);
  if (scan.startLines > 0) {
    // A remnant is dropped up to the version, so the line starts with it.
    if (scan.note == StartLineNote::kRemnant || scan.hasStatusCode) {
      FUZZ_CHECK(scan.startLine.size() >= 7);
    }
    FUZZ_CHECK(scan.requestLine.empty());
  }
  if (strict.status == HeaderStatus::kComplete) {
    FUZZ_CHECK(strict.hasStatusCode && strict.statusCode >= 100 && strict.statusCode <= 599);
    const CStringBuffer lines = vxfuzz::FieldLines(strict);
    const MessageFraming framing =
        ReadFraming(std::string_view(lines.GetBuffer(), static_cast<std::size_t>(lines.GetSize())),
                    false, strict.startLine.starts_with("HTTP/1.0"));
    if (framing.error == nullptr) {
      FUZZ_CHECK(framing.hasLength + framing.chunked + framing.untilClose <= 1);
    }
  }
  if (scan.status != HeaderStatus::kComplete) return 0;

  // A response keeps the fields of the request before it unless it names
  // them itself.
  HeaderFields fields;
  fields.refererHost = "kept.example";
  fields.proxyDestination = "kept.example:81";
  const auto normalize = [](CStringBuffer& word) { NormalizeTypeWord(vxfuzz::TypeWordTable(), word); };
  ParseHeaderFields(vxfuzz::FieldLines(scan), "127.0.0.1:7070", normalize, fields, nullptr);
  FUZZ_CHECK(fields.otherLines.GetSize() <= 2 * scan.headerSize);
  return 0;
}
