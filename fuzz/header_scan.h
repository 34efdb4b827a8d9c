// The header scanner driven the way the reader drives it: the bytes arrive in
// pieces and each piece is scanned. However the bytes are cut, the outcome
// must be the one of a single piece, for the lax scanner and the strict one.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "core/typewords.h"
#include "fuzz_support.h"
#include "http/headerparser.h"

namespace vxfuzz {

struct ScanOutcome {
  HeaderStatus status = HeaderStatus::kNeedMore;
  int startLines = 0;  // steps that reported taking the start line
  StartLineNote note = StartLineNote::kNone;
  std::string startLine;
  std::string requestLine;
  bool hasStatusCode = false;
  int statusCode = 0;
  int headerSize = 0;
  std::string error;   // a strict scanner's reason with kMalformed
  std::string buffer;  // what the receive buffer held at the end

  bool operator==(const ScanOutcome&) const = default;
};

inline std::string Text(const CBufStream& b) { return std::string(b.GetBuffer(), b.GetSize()); }

// pieceSize 0: everything in one piece.
inline ScanOutcome ScanInPieces(std::string_view bytes, bool isRequest, bool strict,
                                std::size_t pieceSize) {
  CHeaderScanner scanner(isRequest, strict);
  CBufStream buffer;
  ScanOutcome out;
  std::size_t fed = 0;
  do {
    const std::size_t n = pieceSize == 0 ? bytes.size() : std::min(pieceSize, bytes.size() - fed);
    buffer.AddString(bytes.data() + fed, static_cast<int>(n));
    fed += n;
    const HeaderScanStep step = scanner.Scan(buffer);
    if (step.tookStartLine) {
      ++out.startLines;
      out.note = step.note;
    } else {
      FUZZ_CHECK(step.note == StartLineNote::kNone);
    }
    out.status = step.status;
  } while (out.status == HeaderStatus::kNeedMore && fed < bytes.size());
  if (out.startLines > 0) {
    out.startLine = Text(scanner.StartLine());
    out.requestLine = Text(scanner.RequestLine());
    out.hasStatusCode = scanner.HasStatusCode();
    out.statusCode = scanner.StatusCode();
  }
  if (out.status == HeaderStatus::kComplete) out.headerSize = scanner.HeaderSize();
  if (out.status == HeaderStatus::kMalformed) {
    FUZZ_CHECK(strict && scanner.Error() != nullptr);
    out.error = scanner.Error();
  }
  out.buffer = Text(buffer);
  return out;
}

// The complete header's field lines as the reader hands them to the parser.
inline CStringBuffer FieldLines(const ScanOutcome& scan) {
  CStringBuffer lines;
  lines.AddString(scan.buffer.data(), scan.headerSize);
  if (lines.GetSize() > static_cast<int>(scan.startLine.size())) {
    lines.Move(0, static_cast<int>(scan.startLine.size()));
  }
  return lines;
}

inline const std::map<std::string, std::string>& TypeWordTable() {
  static const std::map<std::string, std::string> table = [] {
    std::map<std::string, std::string> t;
    FillTypeWordTable(t);
    return t;
  }();
  return table;
}

// Scans bytes whole, then in pieces of one byte and of a size the input
// picks, and checks they agree. Returns the whole scan.
inline ScanOutcome ScanEveryWay(std::string_view bytes, bool isRequest, bool strict) {
  const ScanOutcome whole = ScanInPieces(bytes, isRequest, strict, 0);
  FUZZ_CHECK(whole.startLines <= 1);
  if (whole.status == HeaderStatus::kComplete) {
    FUZZ_CHECK(whole.headerSize >= 4 && whole.headerSize <= static_cast<int>(whole.buffer.size()));
    FUZZ_CHECK(std::string_view(whole.buffer).substr(whole.headerSize - 4, 4) == "\r\n\r\n");
    FUZZ_CHECK(std::string_view(whole.buffer).starts_with(whole.startLine));
    FUZZ_CHECK(whole.startLine.ends_with("\r\n"));
  }
  const std::size_t pick = bytes.empty() ? 1 : 1 + static_cast<unsigned char>(bytes.back()) % 61;
  // Byte by byte only for short inputs, which keeps the rate up.
  for (const std::size_t piece : {bytes.size() <= 1024 ? std::size_t{1} : std::size_t{3}, pick}) {
    ScanOutcome cut = ScanInPieces(bytes, isRequest, strict, piece);
    // The cut scan stops as soon as it has the header; the bytes behind it
    // were never added.
    FUZZ_CHECK(std::string_view(whole.buffer).starts_with(cut.buffer));
    cut.buffer = whole.buffer;
    if (whole.status == HeaderStatus::kMalformed || whole.status == HeaderStatus::kTooLarge) {
      // A refused header is refused alike; whether its start line was taken
      // before the fault arrived depends on the cut, and nobody reads it.
      FUZZ_CHECK(cut.status == whole.status && cut.error == whole.error,
                 "pieces of %zu bytes: %s, whole: %s", piece, cut.error.c_str(), whole.error.c_str());
      continue;
    }
    FUZZ_CHECK(cut == whole, "pieces of %zu bytes disagree with the whole%s", piece,
               strict ? " (strict)" : "");
  }
  if (strict && whole.status == HeaderStatus::kComplete) {
    const std::string_view header = std::string_view(whole.buffer).substr(0, whole.headerSize);
    FUZZ_CHECK(header.find('\0') == std::string_view::npos);
    for (std::size_t i = 0; i < header.size(); ++i) {
      if (header[i] == '\r') FUZZ_CHECK(i + 1 < header.size() && header[i + 1] == '\n');
      if (header[i] == '\n') FUZZ_CHECK(i > 0 && header[i - 1] == '\r');
    }
  }
  return whole;
}

// What the strict scanner accepts, the lax one reads the same way, unless
// the strict one skipped empty lines before a request.
inline void CompareStrictWithLax(std::string_view bytes, const ScanOutcome& strict,
                                 const ScanOutcome& lax) {
  if (strict.status != HeaderStatus::kComplete || strict.buffer.size() != bytes.size()) return;
  FUZZ_CHECK(lax.status == HeaderStatus::kComplete && lax.headerSize == strict.headerSize &&
                 lax.startLine == strict.startLine && lax.statusCode == strict.statusCode &&
                 lax.note == StartLineNote::kNone,
             "the strict scanner accepts a header the lax one reads otherwise");
}

}  // namespace vxfuzz
