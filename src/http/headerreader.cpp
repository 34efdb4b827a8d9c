// Reading a request or response header from a socket and splitting it into
// the fields the proxy acts on.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "http/httprequest.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "vxproxy/proxy.h"

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

}  // namespace

const CHTTPRequest::FieldHandlerRow CHTTPRequest::kFieldHandlers[8] = {
    {"Content-Length:", &CHTTPRequest::OnContentLength},
    {"Transfer-Encoding:", &CHTTPRequest::OnTransferEncoding},
    {"Connection:", &CHTTPRequest::OnConnection},
    {"Proxy-Connection:", &CHTTPRequest::OnProxyConnection},
    {"Proxy-Authorization:", &CHTTPRequest::OnProxyAuthorization},
    {"Content-Type:", &CHTTPRequest::OnContentType},
    {"Referer:", &CHTTPRequest::OnReferer},
    {"Proxy-Destination:", &CHTTPRequest::OnProxyDestination},
};

int CHTTPRequest::ReadHeader(SOCKET socket, bool isRequest) {
  if (isRequest) {
    refererHost_.Initialize();
    typeWord_.Initialize();
    proxyDestination_.Initialize();
    proxyConnectionLine_.Initialize();
  } else {
    responseTypeWord_.Initialize();
    statusCode_ = 200;
  }
  headerLines_.Initialize();
  receiveBuffer_.Empty();
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Reading HTTP Header " << lend;

  int waitSeconds = isRequest ? waits_.requestFirstSec : waits_.responseSec;
  bool startLineTaken = false;
  int scanFrom = 0;  // the blank-line search resumes here, not at the start
  char buffer[kHeaderRecvBytes];
  for (;;) {
    if (WaitForSocket(socket, waitSeconds) < 1) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_
                << "Wait Failed while reading request/response header " << os::WSAGetLastError()
                << lend;
      return 1;
    }
    const int n = CountReceived(socket, os::recv(socket, buffer, sizeof buffer, 0));
    if (n == 0) return 2;
    if (n < 0) {
      // The request line goes after the line end and so opens the next entry.
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_
                << "recv Failed while reading Request/Response Header " << os::WSAGetLastError()
                << lend << requestLine_;
      return 2;
    }
    // A browser that has started its request gets longer for the rest of it.
    if (isRequest) waitSeconds = waits_.requestNextSec;
    receiveBuffer_.AddString(buffer, n);

    if (!startLineTaken) {
      const char* data = receiveBuffer_.GetBuffer();
      const char* lineEnd = FindBytes(data, receiveBuffer_.GetSize(), "\r\n", false);
      if (lineEnd != nullptr) {
        if (!isRequest) {
          const char* version =
              FindBytes(data, static_cast<int>(lineEnd - data), "HTTP/1.", true);
          if (version == nullptr) {
            traceLog_ << CLogManip(kLevelWarning | kLevelDebug)
                      << "HTTP response without proper response code" << lend;
          } else {
            if (version != data) {
              // Left over from the previous response on this connection.
              traceLog_ << CLogManip(kLevelWarning | kLevelDebug)
                        << "There is some remnant data from the previous request" << lend;
              const int skip = static_cast<int>(version - data);
              receiveBuffer_.Consume(skip);
              lineEnd -= skip;
              data = receiveBuffer_.GetBuffer();
            }
            CStringBuffer statusLine;
            statusLine.AddString(data, static_cast<int>(lineEnd - data));
            CStringBuffer protocol;
            CStringBuffer code;
            statusLine >> protocol >> code;
            statusCode_ = std::atoi(code.GetBuffer());
          }
        }
        startLine_.Initialize();
        startLine_.AddString(data, static_cast<int>(lineEnd - data) + 2);
        if (isRequest) {
          requestLine_ = startLine_;
          requestLine_.Trim();
          if (char* lastBlank = requestLine_.ReverseFindChar(' ')) {
            requestLine_.BreakAt(requestLine_.OffsetOf(lastBlank));
          }
        }
        startLineTaken = true;
        scanFrom = 0;
      }
    }

    const char* data = receiveBuffer_.GetBuffer();
    const int size = receiveBuffer_.GetSize();
    const char* blankLine =
        startLineTaken ? FindBytes(data + scanFrom, size - scanFrom, "\r\n\r\n", false) : nullptr;
    const int headerSize = blankLine != nullptr ? static_cast<int>(blankLine - data) + 4 : size;
    if (headerSize > kMaxHeaderBytes) {
      eventLog_ << CLogManip(kLevelWarning) << connectionTag_ << "HTTP header exceeds "
                << kMaxHeaderBytes << " bytes, connection dropped" << lend;
      return 2;
    }
    if (blankLine == nullptr) {
      if (startLineTaken) scanFrom = std::max(0, size - 3);
      continue;
    }

    headerLines_.Initialize();
    headerLines_.AddString(data, headerSize);
    rawHeader_ = headerLines_;
    if (proxy_->GetTraceMode() == 2) {
      // A request's dump goes out with its next trace line.
      traceLog_ << CLogManip(kLevelWarning | kLevelDebug) << headerLines_;
      if (!isRequest) traceLog_.Flush();
    }
    receiveBuffer_.Consume(headerSize);
    ParseHeaderLines(startLine_.GetSize(), isRequest);
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "HTTP Header Reading complete"
              << lend;
    if (isRequest) ParseRequestTarget(startLine_);
    return 0;
  }
}

void CHTTPRequest::ParseHeaderLines(int startLineSize, bool isRequest) {
  if (isRequest) headerMap_.clear();
  if (headerLines_.GetSize() > startLineSize) headerLines_.Move(0, startLineSize);
  otherHeaderLines_.Initialize();
  contentLength_ = 0;
  closeFlag_ = false;
  chunkedFlag_ = false;
  bool continuation = false;

  CStringBuffer lines(headerLines_);  // own read position; the header stays intact
  CStringBuffer line;
  while (lines.getline(line, '\n')) {
    line.Trim();
    if (line.GetSize() == 0) break;
    const char* colon = line.FindChar(':');
    if (colon == nullptr) {
      otherHeaderLines_ << line << "\r\n";
      continue;
    }
    // A value folded after a trailing comma: both parts go on verbatim and
    // no handler sees either.
    if (line.GetBuffer()[line.GetSize() - 1] == ',') {
      continuation = true;
      otherHeaderLines_ << line << "\r\n";
      continue;
    }
    if (continuation) {
      continuation = false;
      otherHeaderLines_ << line << "\r\n";
      continue;
    }

    const int nameLength = line.OffsetOf(colon) + 1;
    if (isRequest) {
      CStringBuffer name;
      name.AddString(line.GetBuffer(), nameLength - 1);
      name.ToLower();
      CStringBuffer value(colon + 1);
      value.Trim();
      headerMap_[name.GetBuffer()] = value.GetBuffer();
    }
    bool keep = true;
    for (const FieldHandlerRow& row : kFieldHandlers) {
      if (NameMatches(line.GetBuffer(), nameLength, row.name)) {
        keep = (this->*row.handler)(line, row.name);
        break;
      }
    }
    if (keep) otherHeaderLines_ << line << "\r\n";
  }
}

bool CHTTPRequest::OnContentLength(CStringBuffer& line, const char* name) {
  const char* text = line.GetBuffer() + std::strlen(name);
  while (*text == ' ' || *text == '\t') ++text;
  const long value = std::strtol(text, nullptr, 10);
  contentLength_ = static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
  return true;
}

bool CHTTPRequest::OnTransferEncoding(CStringBuffer& line, const char* name) {
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  value.Trim();
  if (value == "chunked") chunkedFlag_ = true;
  return true;
}

bool CHTTPRequest::OnConnection(CStringBuffer& line, const char* name) {
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  value.Trim();
  if (value == "Close") closeFlag_ = true;
  return true;
}

bool CHTTPRequest::OnProxyConnection(CStringBuffer& line, const char*) {
  proxyConnectionLine_ = line;
  proxyConnectionLine_ << "\r\n";
  return false;
}

bool CHTTPRequest::OnProxyAuthorization(CStringBuffer&, const char*) { return false; }

bool CHTTPRequest::OnContentType(CStringBuffer& line, const char* name) {
  CStringBuffer value(line.GetBuffer() + std::strlen(name));
  CStringBuffer item;
  while (value.getline(item, ',')) {
    CStringBuffer media(item);
    media.Trim();
    if (media.GetSize() == 0) continue;
    if (char* semicolon = media.FindChar(';')) media.BreakAt(media.OffsetOf(semicolon));
    media.Trim();
    if (responseTypeWord_.GetSize() == 0) {
      if (const char* slash = media.FindChar('/')) responseTypeWord_ = slash + 1;
    }
  }
  // Media types are case-insensitive; the type tables hold lower-case keys.
  responseTypeWord_.ToLower();
  proxy_->NormalizeTypeWord(responseTypeWord_);
  return true;
}

bool CHTTPRequest::OnReferer(CStringBuffer& line, const char* name) {
  CStringBuffer scheme;
  CStringBuffer path;
  unsigned short port = 0;
  CHTTPURLParser::ParseUrl(line.GetBuffer() + std::strlen(name), scheme, refererHost_, path, port);
  if (port != 0 && port != 80) refererHost_ << ":" << port;
  return true;
}

bool CHTTPRequest::OnProxyDestination(CStringBuffer& line, const char* name) {
  proxyDestination_ = line.GetBuffer() + std::strlen(name);
  proxyDestination_.Trim();
  // Sending a request to ourselves would loop.
  if (proxyDestination_ == localAddress_.GetBuffer()) proxyDestination_.Initialize();
  return false;
}
