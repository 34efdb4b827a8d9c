#include "http/headerparser.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "http/urlparser.h"

namespace {

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// First occurrence of needle in [data, data + size); zero bytes are ordinary
// bytes here, unlike in the C string searches.
const char* FindBytes(const char* data, int size, const char* needle, bool ignoreCase) {
  const int n = static_cast<int>(std::strlen(needle));
  for (int i = 0; i + n <= size; ++i) {
    int j = 0;
    while (j < n && (ignoreCase ? LowerAscii(data[i + j]) == LowerAscii(needle[j])
                                : data[i + j] == needle[j])) {
      ++j;
    }
    if (j == n) return data + i;
  }
  return nullptr;
}

bool NameMatches(const char* line, int nameLength, const char* rowName) {
  if (static_cast<int>(std::strlen(rowName)) != nameLength) return false;
  for (int i = 0; i < nameLength; ++i) {
    if (LowerAscii(line[i]) != LowerAscii(rowName[i])) return false;
  }
  return true;
}

// What a field handler works with besides the line.
struct FieldContext {
  HeaderFields& fields;
  const char* localAddress;
  const TypeWordNormalizer& normalize;
};

// Each handler gets the whole line and the table's field name and says
// whether the line is kept for forwarding.
using FieldHandler = bool (*)(CStringBuffer& line, const char* name, FieldContext& context);

bool OnContentLength(CStringBuffer& line, const char* name, FieldContext& context) {
  const char* text = line.GetBuffer() + std::strlen(name);
  while (*text == ' ' || *text == '\t') ++text;
  const long value = std::strtol(text, nullptr, 10);
  context.fields.contentLength = static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
  return true;
}

bool OnTransferEncoding(CStringBuffer& line, const char* name, FieldContext& context) {
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  value.Trim();
  if (value == "chunked") context.fields.chunked = true;
  return true;
}

bool OnConnection(CStringBuffer& line, const char* name, FieldContext& context) {
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  value.Trim();
  if (value == "Close") context.fields.close = true;
  return true;
}

bool OnProxyConnection(CStringBuffer& line, const char*, FieldContext& context) {
  context.fields.proxyConnectionLine = line;
  context.fields.proxyConnectionLine << "\r\n";
  return false;
}

bool OnProxyAuthorization(CStringBuffer&, const char*, FieldContext&) { return false; }

bool OnContentType(CStringBuffer& line, const char* name, FieldContext& context) {
  CStringBuffer& word = context.fields.responseTypeWord;
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  CStringBuffer item;
  while (value.getline(item, ',')) {
    CStringBuffer media(item);
    media.Trim();
    if (media.GetSize() == 0) continue;
    if (char* semicolon = media.FindChar(';')) media.BreakAt(media.OffsetOf(semicolon));
    media.Trim();
    if (word.GetSize() == 0) {
      if (const char* slash = media.FindChar('/')) word = slash + 1;
    }
  }
  // Media types are case-insensitive; the type tables hold lower-case keys.
  word.ToLower();
  if (context.normalize) context.normalize(word);
  return true;
}

bool OnReferer(CStringBuffer& line, const char* name, FieldContext& context) {
  CStringBuffer scheme;
  CStringBuffer path;
  unsigned short port = 0;
  CStringBuffer& host = context.fields.refererHost;
  CHTTPURLParser::ParseUrl(line.GetBuffer() + std::strlen(name), scheme, host, path, port);
  AppendPort(host, port);
  return true;
}

bool OnProxyDestination(CStringBuffer& line, const char* name, FieldContext& context) {
  CStringBuffer& destination = context.fields.proxyDestination;
  destination = line.GetBuffer() + std::strlen(name);
  destination.Trim();
  // Sending a request to ourselves would loop.
  if (destination == context.localAddress) destination.Initialize();
  return false;
}

const struct {
  const char* name;
  FieldHandler handler;
} kFieldHandlers[8] = {
    {"Content-Length:", &OnContentLength},
    {"Transfer-Encoding:", &OnTransferEncoding},
    {"Connection:", &OnConnection},
    {"Proxy-Connection:", &OnProxyConnection},
    {"Proxy-Authorization:", &OnProxyAuthorization},
    {"Content-Type:", &OnContentType},
    {"Referer:", &OnReferer},
    {"Proxy-Destination:", &OnProxyDestination},
};

}  // namespace

HeaderScanStep CHeaderScanner::Scan(CBufStream& buffer) {
  HeaderScanStep step;
  int faultAt = -1;
  const char* fault = nullptr;
  if (strict_) {
    if (isRequest_ && !startLineTaken_) {
      // A stray CRLF after the previous request's body is no request.
      int skip = 0;
      const char* data = buffer.GetBuffer();
      while (skip + 1 < buffer.GetSize() && data[skip] == '\r' && data[skip + 1] == '\n') skip += 2;
      buffer.Consume(skip);
      checkedTo_ = std::max(0, checkedTo_ - skip);
    }
    faultAt = CheckBytes(buffer, &fault);
  }
  if (!startLineTaken_) {
    // Only a first line that ends before a fault is judged, so the earliest
    // fault is the one named, however the bytes were cut by the receives.
    const char* data = buffer.GetBuffer();
    const int searched = faultAt >= 0 ? faultAt : buffer.GetSize();
    if (const char* lineEnd = FindBytes(data, searched, "\r\n", false)) {
      TakeStartLine(buffer, static_cast<int>(lineEnd - data) + 2, step);
      if (error_ != nullptr) {
        step.status = HeaderStatus::kMalformed;
        return step;
      }
    }
  }
  if (faultAt >= 0) {
    error_ = fault;
    step.status = HeaderStatus::kMalformed;
    return step;
  }

  const char* data = buffer.GetBuffer();
  const int size = buffer.GetSize();
  const char* blankLine =
      startLineTaken_ ? FindBytes(data + scanFrom_, size - scanFrom_, "\r\n\r\n", false) : nullptr;
  const int headerSize = blankLine != nullptr ? static_cast<int>(blankLine - data) + 4 : size;
  if (headerSize > kMaxHeaderBytes) {
    step.status = HeaderStatus::kTooLarge;
  } else if (blankLine == nullptr) {
    // The next search starts where a blank line split by the receive may begin.
    if (startLineTaken_) scanFrom_ = std::max(0, size - 3);
  } else {
    headerSize_ = headerSize;
    step.status = HeaderStatus::kComplete;
  }
  return step;
}

int CHeaderScanner::CheckBytes(const CBufStream& buffer, const char** fault) {
  const char* data = buffer.GetBuffer();
  const int size = buffer.GetSize();
  for (int i = checkedTo_; i < size; ++i) {
    if (data[i] == '\0') {
      *fault = "NUL in the header";
      return i;
    }
    if (data[i] == '\r') {
      if (i + 1 == size) {  // its LF may come with the next receive
        checkedTo_ = i;
        return -1;
      }
      if (data[i + 1] != '\n') {
        *fault = "CR without LF in the header";
        return i;
      }
    } else if (data[i] == '\n') {
      if (i == 0 || data[i - 1] != '\r') {
        *fault = "LF without CR in the header";
        return i;
      }
      // The blank line ends the header; the bytes after it are a body's.
      if (i >= 3 && data[i - 2] == '\n') {
        checkedTo_ = i + 1;
        return -1;
      }
    }
  }
  checkedTo_ = size;
  return -1;
}

namespace {

// "HTTP/1.x nnn" with a status of 100 to 599, then the end or a blank and a
// reason phrase (whose text nobody reads).
bool IsStatusLine(std::string_view line) {
  auto digit = [&](std::size_t at) { return at < line.size() && line[at] >= '0' && line[at] <= '9'; };
  return line.substr(0, 7) == "HTTP/1." && digit(7) && line.size() >= 12 && line[8] == ' ' &&
         line[9] >= '1' && line[9] <= '5' && digit(10) && digit(11) &&
         (line.size() == 12 || line[12] == ' ');
}

}  // namespace

void CHeaderScanner::TakeStartLine(CBufStream& buffer, int lineSize, HeaderScanStep& step) {
  const char* data = buffer.GetBuffer();
  if (strict_ && !isRequest_ &&
      !IsStatusLine(std::string_view(data, static_cast<std::size_t>(lineSize - 2)))) {
    error_ = "malformed status line";
    return;
  }
  if (!isRequest_) {
    const char* version = FindBytes(data, lineSize - 2, "HTTP/1.", true);
    if (version == nullptr) {
      step.note = StartLineNote::kNoVersion;
    } else {
      if (version != data) {
        // Left over from the previous response on this connection.
        step.note = StartLineNote::kRemnant;
        const int skip = static_cast<int>(version - data);
        buffer.Consume(skip);
        lineSize -= skip;
        data = buffer.GetBuffer();
      }
      CStringBuffer statusLine;
      statusLine.AddString(data, lineSize - 2);
      CStringBuffer protocol;
      CStringBuffer code;
      statusLine >> protocol >> code;
      hasStatusCode_ = true;
      statusCode_ = std::atoi(code.GetBuffer());
    }
  }
  startLine_.Initialize();
  startLine_.AddString(data, lineSize);
  if (isRequest_) {
    requestLine_ = startLine_;
    requestLine_.Trim();
    if (char* lastBlank = requestLine_.ReverseFindChar(' ')) {
      requestLine_.BreakAt(requestLine_.OffsetOf(lastBlank));
    }
  }
  startLineTaken_ = true;
  scanFrom_ = 0;
  step.tookStartLine = true;
}

void ParseHeaderFields(const CStringBuffer& lines, const char* localAddress,
                       const TypeWordNormalizer& normalize, HeaderFields& fields,
                       std::map<std::string, std::string>* map) {
  if (map != nullptr) map->clear();
  fields.otherLines.Initialize();
  fields.contentLength = 0;
  fields.close = false;
  fields.chunked = false;
  FieldContext context{fields, localAddress, normalize};
  bool continuation = false;

  CStringBuffer rest(lines);  // own read position
  CStringBuffer line;
  while (rest.getline(line, '\n')) {
    line.Trim();
    if (line.GetSize() == 0) break;
    const char* colon = line.FindChar(':');
    if (colon == nullptr) {
      fields.otherLines << line << "\r\n";
      continue;
    }
    // A value folded after a trailing comma: both parts go on verbatim and
    // no handler sees either.
    if (line.GetBuffer()[line.GetSize() - 1] == ',') {
      continuation = true;
      fields.otherLines << line << "\r\n";
      continue;
    }
    if (continuation) {
      continuation = false;
      fields.otherLines << line << "\r\n";
      continue;
    }

    const int nameLength = line.OffsetOf(colon) + 1;
    if (map != nullptr) {
      CStringBuffer name;
      name.AddString(line.GetBuffer(), nameLength - 1);
      name.ToLower();
      CStringBuffer value(colon + 1);
      value.Trim();
      (*map)[name.GetBuffer()] = value.GetBuffer();
    }
    bool keep = true;
    for (const auto& row : kFieldHandlers) {
      if (NameMatches(line.GetBuffer(), nameLength, row.name)) {
        keep = row.handler(line, row.name, context);
        break;
      }
    }
    if (keep) fields.otherLines << line << "\r\n";
  }
}

// ------------------------------------------------------ standard framing --

namespace {

constexpr std::string_view kOws = " \t";

std::string_view TrimOws(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kOws);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kOws) + 1 - first);
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return true;
}

// The characters of a field name (a token).
bool IsTokenChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

// Calls each(member) for the trimmed, non-empty members of a list value.
template <typename Each>
void ForEachMember(std::string_view value, Each each) {
  while (!value.empty()) {
    const std::size_t comma = value.find(',');
    const std::string_view member = TrimOws(value.substr(0, comma));
    if (!member.empty()) each(member);
    if (comma == std::string_view::npos) break;
    value.remove_prefix(comma + 1);
  }
}

// Longest Content-Length taken: more digits could overflow the count.
constexpr std::size_t kMaxLengthDigits = 18;

}  // namespace

MessageFraming ReadFraming(std::string_view lines, bool isRequest, bool http10) {
  MessageFraming framing;
  bool transferEncoding = false;
  int chunkedCount = 0;
  bool chunkedLast = false;
  int hostFields = 0;
  auto fail = [&](const char* error) {
    if (framing.error == nullptr) framing.error = error;
  };

  while (!lines.empty() && framing.error == nullptr) {
    const std::size_t end = lines.find("\r\n");
    const std::string_view line = lines.substr(0, end);
    lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 2);
    if (line.empty()) break;
    if (line[0] == ' ' || line[0] == '\t') {
      fail("folded header line");
      break;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
      fail("header line without a colon");
      break;
    }
    const std::string_view name = line.substr(0, colon);
    if (name.empty() || !std::all_of(name.begin(), name.end(), IsTokenChar)) {
      fail("malformed header field name");
      break;
    }
    const std::string_view value = TrimOws(line.substr(colon + 1));

    if (EqualsIgnoringCase(name, "Content-Length")) {
      if (value.empty()) fail("invalid Content-Length");
      ForEachMember(value, [&](std::string_view member) {
        if (member.size() > kMaxLengthDigits ||
            !std::all_of(member.begin(), member.end(), [](char c) { return c >= '0' && c <= '9'; })) {
          fail("invalid Content-Length");
          return;
        }
        const long long length = std::stoll(std::string(member));
        if (framing.hasLength && length != framing.length) fail("conflicting Content-Length values");
        framing.hasLength = true;
        framing.length = length;
      });
    } else if (EqualsIgnoringCase(name, "Transfer-Encoding")) {
      transferEncoding = true;
      ForEachMember(value, [&](std::string_view member) {
        const std::string_view coding = TrimOws(member.substr(0, member.find(';')));
        chunkedLast = EqualsIgnoringCase(coding, "chunked");
        if (chunkedLast) ++chunkedCount;
      });
    } else if (EqualsIgnoringCase(name, "Connection") ||
               (isRequest && EqualsIgnoringCase(name, "Proxy-Connection"))) {
      ForEachMember(value, [&](std::string_view option) {
        if (EqualsIgnoringCase(option, "close")) framing.close = true;
        if (EqualsIgnoringCase(option, "keep-alive")) framing.keepAlive = true;
      });
    } else if (isRequest && EqualsIgnoringCase(name, "Host")) {
      ++hostFields;
    }
  }

  if (hostFields > 1) fail("more than one Host field");
  if (transferEncoding) {
    if (http10) fail("Transfer-Encoding in an HTTP/1.0 message");
    if (framing.hasLength) fail("Content-Length together with Transfer-Encoding");
    if (chunkedCount > 1) fail("chunked coding applied twice");
    if (chunkedLast) {
      framing.chunked = true;
    } else if (isRequest) {
      fail("Transfer-Encoding without chunked last");
    } else {
      framing.untilClose = true;
    }
  }
  if (framing.error != nullptr) {
    framing.hasLength = framing.chunked = framing.untilClose = false;
    framing.length = 0;
  }
  return framing;
}

ForwardedFields StripHopByHop(std::string_view lines,
                              std::initializer_list<std::string_view> drop) {
  // Field lines of a header the strict scanner and ReadFraming accepted:
  // "name: value" with CRLF, up to an empty line or the end.
  auto each = [&lines](auto visit) {
    for (std::string_view rest = lines; !rest.empty();) {
      const std::size_t end = rest.find("\r\n");
      const std::string_view line = rest.substr(0, end);
      if (line.empty()) break;
      const std::size_t colon = line.find(':');
      visit(line, line.substr(0, colon), TrimOws(line.substr(colon + 1)));
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 2);
    }
  };
  std::vector<std::string_view> named = {"connection", "keep-alive", "proxy-connection", "te"};
  named.insert(named.end(), drop.begin(), drop.end());
  ForwardedFields out;
  each([&](std::string_view, std::string_view name, std::string_view value) {
    if (!EqualsIgnoringCase(name, "Connection") && !EqualsIgnoringCase(name, "Proxy-Connection")) {
      return;
    }
    ForEachMember(value, [&](std::string_view option) {
      if (EqualsIgnoringCase(option, "upgrade")) {
        out.upgrade = true;
      } else {
        named.push_back(option);
      }
    });
  });
  if (!out.upgrade) named.push_back("upgrade");
  each([&](std::string_view line, std::string_view name, std::string_view) {
    for (std::string_view n : named) {
      if (EqualsIgnoringCase(name, n)) return;
    }
    out.lines.append(line.data(), line.size()).append("\r\n");
  });
  return out;
}
