// Reading a request or response header from a socket: receives until the
// scanner finds its end, then takes the parsed fields into the request, with
// the log lines and the type-word table that parsing alone has no access to.
#include <cstring>
#include <string_view>

#include "http/httprequest.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "http/services.h"
#include "vxproxy/proxy.h"

namespace {

// A browser's header is read in small pieces, so that a request sent right
// behind it stays in the socket for the next read. A server sends nothing
// before it is asked, so its header is read in larger pieces, which usually
// bring a small body along in the same receive.
constexpr int kResponseRecvBytes = 16384;

}  // namespace

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
  messageError_ = nullptr;
  // With standard HTTP the session leaves in the buffer only bytes of this
  // socket that no message has taken yet: a request sent right behind the
  // last one, or a response behind an interim one.
  if (!standardHttp_) receiveBuffer_.Empty();
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Reading HTTP Header " << lend;

  int waitSeconds = isRequest ? waits_.requestFirstSec : waits_.responseSec;
  CHeaderScanner scanner(isRequest, standardHttp_);
  char buffer[kResponseRecvBytes];
  const int pieceBytes = isRequest ? kHeaderRecvBytes : kResponseRecvBytes;
  for (bool buffered = receiveBuffer_.GetSize() > 0;; buffered = false) {
    if (!buffered) {
      if (!IsReady(WaitForSocket(socket, waitSeconds))) {
        eventLog_ << CLogManip(kLevelVerbose) << connectionTag_
                  << "Wait Failed while reading request/response header " << os::WSAGetLastError()
                  << lend;
        return kReadHeaderWaitFailed;
      }
      const int n = CountReceived(socket, os::recv(socket, buffer, pieceBytes, 0));
      if (n == 0) return kReadHeaderClosed;
      if (n < 0) {
        // The request line goes after the line end and so opens the next entry.
        eventLog_ << CLogManip(kLevelVerbose) << connectionTag_
                  << "recv Failed while reading Request/Response Header " << os::WSAGetLastError()
                  << lend << requestLine_;
        return kReadHeaderClosed;
      }
      receiveBuffer_.AddString(buffer, n);
    }
    // A browser that has started its request gets longer for the rest of it.
    if (isRequest) waitSeconds = waits_.requestNextSec;

    const HeaderScanStep step = scanner.Scan(receiveBuffer_);
    if (step.tookStartLine) ApplyStartLine(scanner, step.note, isRequest);
    if (step.status == HeaderStatus::kTooLarge) {
      eventLog_ << CLogManip(kLevelWarning) << connectionTag_ << "HTTP header exceeds "
                << kMaxHeaderBytes << " bytes, connection dropped" << lend;
      if (standardHttp_) messageError_ = "header too large";
      return kReadHeaderClosed;
    }
    if (step.status == HeaderStatus::kMalformed) {
      messageError_ = scanner.Error();
      return kReadHeaderClosed;
    }
    if (step.status == HeaderStatus::kNeedMore) continue;

    headerLines_.Initialize();
    headerLines_.AddString(receiveBuffer_.GetBuffer(), scanner.HeaderSize());
    rawHeader_ = headerLines_;
    if (proxy_->GetTraceMode() == kTraceHeaders) {
      // A request's dump goes out with its next trace line.
      traceLog_ << CLogManip(kLevelWarning | kLevelDebug) << headerLines_;
      if (!isRequest) traceLog_.Flush();
    }
    receiveBuffer_.Consume(scanner.HeaderSize());
    ParseHeaderLines(startLine_.GetSize(), isRequest);
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "HTTP Header Reading complete"
              << lend;
    if (isRequest) ParseRequestTarget(startLine_);
    return kReadHeaderOk;
  }
}

void CHTTPRequest::ApplyStartLine(const CHeaderScanner& scanner, StartLineNote note,
                                  bool isRequest) {
  if (note == StartLineNote::kNoVersion) {
    traceLog_ << CLogManip(kLevelWarning | kLevelDebug)
              << "HTTP response without proper response code" << lend;
  } else if (note == StartLineNote::kRemnant) {
    traceLog_ << CLogManip(kLevelWarning | kLevelDebug)
              << "There is some remnant data from the previous request" << lend;
  }
  if (scanner.HasStatusCode()) statusCode_ = scanner.StatusCode();
  startLine_ = scanner.StartLine();
  if (isRequest) requestLine_ = scanner.RequestLine();
}

void CHTTPRequest::ParseHeaderLines(int startLineSize, bool isRequest) {
  if (headerLines_.GetSize() > startLineSize) headerLines_.Move(0, startLineSize);
  // Fields the header does not name keep their values.
  HeaderFields fields;
  fields.proxyConnectionLine = proxyConnectionLine_;
  fields.proxyDestination = proxyDestination_;
  fields.responseTypeWord = responseTypeWord_;
  fields.refererHost = refererHost_;
  ParseHeaderFields(headerLines_, localAddress_.GetBuffer(),
                    [this](CStringBuffer& word) { services_->NormalizeTypeWord(word); }, fields,
                    isRequest ? &headerMap_ : nullptr);
  otherHeaderLines_ = fields.otherLines;
  contentLength_ = fields.contentLength;
  closeFlag_ = fields.close;
  chunkedFlag_ = fields.chunked;
  proxyConnectionLine_ = fields.proxyConnectionLine;
  proxyDestination_ = fields.proxyDestination;
  responseTypeWord_ = fields.responseTypeWord;
  refererHost_ = fields.refererHost;
  if (!standardHttp_) return;

  // The start line's version: a request's last word, a response's first.
  const char* version = startLine_.GetBuffer();
  if (isRequest) {
    const char* lastBlank = std::strrchr(version, ' ');
    version = lastBlank != nullptr ? lastBlank + 1 : version;
  }
  const bool http10 = std::strncmp(version, "HTTP/1.0", 8) == 0;
  framing_ = ReadFraming(std::string_view(headerLines_.GetBuffer(),
                                          static_cast<std::size_t>(headerLines_.GetSize())),
                         isRequest, http10);
  if (framing_.hasLength && framing_.length >= kUnknownBodyLength) {
    framing_.error = "Content-Length too large";
  }
  if (framing_.error != nullptr) {
    messageError_ = framing_.error;
    framing_.hasLength = framing_.chunked = false;
  }
  contentLength_ = framing_.hasLength ? static_cast<int>(framing_.length) : 0;
  chunkedFlag_ = framing_.chunked;
  closeFlag_ = framing_.close;
  // A proxy keeps no HTTP/1.0 browser connection open: an old proxy in
  // front of us might have passed its keep-alive on without knowing it.
  if (isRequest) requestClose_ = framing_.close || http10;
}
