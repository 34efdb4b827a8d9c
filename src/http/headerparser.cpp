#include "http/headerparser.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

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
  if (!startLineTaken_) {
    const char* data = buffer.GetBuffer();
    if (const char* lineEnd = FindBytes(data, buffer.GetSize(), "\r\n", false)) {
      TakeStartLine(buffer, static_cast<int>(lineEnd - data) + 2, step);
    }
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

void CHeaderScanner::TakeStartLine(CBufStream& buffer, int lineSize, HeaderScanStep& step) {
  const char* data = buffer.GetBuffer();
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
