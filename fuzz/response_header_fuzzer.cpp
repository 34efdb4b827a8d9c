// A server's response header as it arrives, remnants of an earlier body
// included: scanned in pieces, then its fields parsed as the relay reads them.
#include <cstddef>
#include <cstdint>

#include "header_scan.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vxfuzz::ScanOutcome scan = vxfuzz::ScanEveryWay(vxfuzz::AsText(data, size), false);
  if (scan.startLines > 0) {
    // A remnant is dropped up to the version, so the line starts with it.
    if (scan.note == StartLineNote::kRemnant || scan.hasStatusCode) {
      FUZZ_CHECK(scan.startLine.size() >= 7);
    }
    FUZZ_CHECK(scan.requestLine.empty());
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
