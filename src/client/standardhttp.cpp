// The session's relay as the HTTP standard has it (kExtensionStandardHttp):
// one message at a time and never a byte past its end, bodies framed by the
// standard's rules, a request sent twice only when that is safe, and an
// answer of our own where the designed relay closes without a word.
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "client/proxyclient.h"
#include "http/headerparser.h"
#include "http/internal.h"
#include "http/requesttarget.h"
#include "http/services.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "platform/platform.h"

namespace {

// Our name in the Via fields of what we forward.
constexpr char kViaName[] = "Vexilo";

// How long, and for how many bytes, a refused browser is heard out.
constexpr DWORD kLingerMs = 1000;
constexpr int kLingerBytes = 1 << 20;

// Methods that change nothing on the server when they run twice.
bool IsIdempotent(const CStringBuffer& method) {
  for (const char* name : {"GET", "HEAD", "OPTIONS", "TRACE", "PUT", "DELETE"}) {
    if (std::strcmp(method.GetBuffer(), name) == 0) return true;
  }
  return false;
}

std::string_view View(const CBufStream& text) {
  return std::string_view(text.GetBuffer(), static_cast<std::size_t>(text.GetSize()));
}

// "HTTP/1.0" at the start of text.
bool IsHttp10(const char* text) { return std::strncmp(text, "HTTP/1.0", 8) == 0; }

// Adds "Via: 1.x Vexilo" as the last field of a header that ends with its
// blank line; version starts with the protocol the message came in with
// ("HTTP/1.x", checked by the parsers).
void AddVia(CBufStream& header, const char* version) {
  CBufStream fields;
  fields.AddString(header.GetBuffer(), header.GetSize() - 2);
  fields << "Via: ";
  fields.AddString(std::strlen(version) >= 8 ? version + 5 : "1.1", 3);
  fields << " " << kViaName << "\r\n\r\n";
  header = fields;
}

}  // namespace

bool CProxyClient::RefuseRequest() { return AnswerError(400, messageError_); }

bool CProxyClient::AnswerError(int status, const CStringBuffer& what) {
  traceLog_ << CLogManip(kLevelDebug) << connectionTag_.GetBuffer() << "Answered " << status
            << ": " << what.GetBuffer() << lend;
  CStringBuffer reply;
  CHTTPInternal::BuildErrorResponse(status, what.GetBuffer(), reply);
  if (SendAll(clientSocket_, reply, reply.GetSize()) != kIoError) LingerForClose();
  return false;
}

void CProxyClient::LingerForClose() {
  // Closing while the browser still sends (the rest of a refused request)
  // resets the connection, and a reset can destroy the answer before the
  // browser has read it. So the browser is shown the end of the answer, and
  // what it sends meanwhile is dropped until it closes, for a moment at most.
  os::ShutdownSend(clientSocket_);
  char buffer[kHeaderRecvBytes];
  const DWORD start = os::GetTickCount();
  for (int dropped = 0; dropped < kLingerBytes;) {
    const DWORD spent = os::GetTickCount() - start;
    if (spent >= kLingerMs) return;
    const long left = static_cast<long>(kLingerMs - spent);
    if (os::SelectRead(clientSocket_, INVALID_SOCKET, left / 1000, left % 1000 * 1000) <= 0) return;
    const int n = os::recv(clientSocket_, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    dropped += n;
  }
}

bool CProxyClient::DrainRequestBody() {
  if (chunkedFlag_) return RelayChunked(clientSocket_, INVALID_SOCKET, nullptr);
  return DiscardBody(clientSocket_) != kIoError;
}

bool CProxyClient::ForwardStandard() {
  // OPTIONS and TRACE count their hops down; the last hop answers itself.
  long maxForwards = -1;
  const auto field = headerMap_.find("max-forwards");
  const bool counted = std::strcmp(method_.GetBuffer(), "OPTIONS") == 0 ||
                       std::strcmp(method_.GetBuffer(), "TRACE") == 0;
  if (field != headerMap_.end() && counted &&
      !field->second.empty() && field->second.size() < 10 &&
      field->second.find_first_not_of("0123456789") == std::string::npos) {
    maxForwards = std::atol(field->second.c_str());
  }
  if (maxForwards == 0) return AnswerLastHop();

  CStringBuffer header;
  if (proxyDestination_.GetSize() > 0) {
    header = rawHeader_;  // for the named destination, as it came
    return RelayRequestStandard(header);
  }
  // The server learns the host the request was judged by, whatever Host
  // said, in our own protocol version, without what concerned the browser's
  // connection alone.
  CStringBuffer authority(host_);
  AppendPort(authority, urlPort_);
  header << method_.GetBuffer() << " ";
  if (useUpstreamProxy_) header << scheme_.GetBuffer() << "://" << authority.GetBuffer();
  header << requestTarget_.GetBuffer() << " HTTP/1.1\r\nHost: " << authority.GetBuffer() << "\r\n";
  std::string fields(View(otherHeaderLines_));
  fields += View(proxyConnectionLine_);
  const ForwardedFields forwarded =
      StripHopByHop(fields, {"host", maxForwards > 0 ? "max-forwards" : ""});
  header.AddString(forwarded.lines.data(), static_cast<int>(forwarded.lines.size()));
  if (maxForwards > 0) header << "Max-Forwards: " << static_cast<int>(maxForwards - 1) << "\r\n";
  // The server connection is not kept for a browser that leaves.
  if (requestClose_) {
    header << "Connection: close\r\n";
  } else if (forwarded.upgrade) {
    header << "Connection: upgrade\r\n";
  }
  header << "\r\n";
  return RelayRequestStandard(header);
}

bool CProxyClient::AnswerLastHop() {
  if (!DrainRequestBody()) return false;
  // TRACE shows the request as it arrived here, without what could be a
  // secret of the browser's; OPTIONS learns that the proxy is there.
  CStringBuffer body;
  if (std::strcmp(method_.GetBuffer(), "TRACE") == 0) {
    body << startLine_.GetBuffer();
    const ForwardedFields shown =
        StripHopByHop(View(headerLines_), {"cookie", "authorization", "proxy-authorization"});
    body.AddString(shown.lines.data(), static_cast<int>(shown.lines.size()));
    body << "\r\n";
  }
  CStringBuffer reply("HTTP/1.1 200 OK\r\n");
  if (body.GetSize() > 0) reply << "Content-Type: message/http\r\n";
  reply << "Cache-Control: no-store\r\nServer: Vexilo\r\nContent-Length: " << body.GetSize()
        << "\r\n\r\n" << body.GetBuffer();
  return SendAll(clientSocket_, reply, reply.GetSize()) != kIoError;
}

bool CProxyClient::RelayRequestStandard(const CStringBuffer& header) {
  CStringBuffer forwarded(header);
  AddVia(forwarded, version_.GetBuffer());
  CStringBuffer server(connectHost_);
  server << ":" << connectPort_;
  CBufStream retry;  // the request body as sent, for a second attempt
  for (int attempt = 1;; ++attempt) {
    if (clientSocket_ == INVALID_SOCKET) return false;
    if (!ConnectUpstream()) {
      CStringBuffer what(connectError_ != nullptr ? connectError_ : "cannot connect to");
      what << " " << server.GetBuffer();
      return AnswerError(502, what);
    }
    // A kept connection may have been closed by the server just as the
    // request went out. Only then, and only with a request that may run twice,
    // is it sent again, once, on a new connection.
    const bool mayRetry =
        attempt == 1 && upstreamReused_ && IsIdempotent(method_) && !chunkedFlag_;
    // Sends the request again from what has been kept: the body sent so far,
    // then what the browser sent after it.
    auto requeue = [&](const CBufStream& after) {
      CBufStream again(retry);
      again.AddString(after.GetBuffer(), after.GetSize());
      receiveBuffer_ = again;
      clientPending_.Empty();
    };

    lastSendFailure_ = INVALID_SOCKET;
    retry.Empty();
    bool sent = SendAll(upstreamSocket_, forwarded, forwarded.GetSize()) != kIoError;
    if (sent && useUpstreamProxy_) {
      traceLog_ << CLogManip(kLevelDebug) << "Proxy detected : for " << forwarded.GetBuffer()
                << lend;
    }
    if (sent && chunkedFlag_) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
                << "Request has Chunked data " << lend;
      sent = RelayChunked(clientSocket_, upstreamSocket_, nullptr);  // sent once: no copy
    } else if (sent) {
      sent = ForwardBody(clientSocket_, upstreamSocket_, contentLength_, &retry) != kIoError;
    }
    if (!sent) {
      const bool serverFailed = lastSendFailure_ != INVALID_SOCKET &&
                                lastSendFailure_ == upstreamSocket_;
      CloseUpstream();
      if (!serverFailed) {
        return AnswerError(400,
                           messageError_ != nullptr ? messageError_ : "incomplete request body");
      }
      if (mayRetry) {
        requeue(receiveBuffer_);
        continue;
      }
      CStringBuffer what("connection lost while sending the request to ");
      what << server.GetBuffer();
      return AnswerError(502, what);
    }

    // What the browser sent past the request is its next one; the response
    // has the buffer meanwhile.
    clientPending_ = receiveBuffer_;
    receiveBuffer_.Empty();
    const int received = bytesFromUpstream_;
    int read = ReadHeader(upstreamSocket_, false);
    // Interim answers (100 Continue, 103) go before the final one.
    while (read == kReadHeaderOk && messageError_ == nullptr && statusCode_ >= 100 &&
           statusCode_ < 200 && statusCode_ != 101) {
      if (!ForwardInterim()) return false;
      read = ReadHeader(upstreamSocket_, false);
    }
    if (read == kReadHeaderOk && messageError_ == nullptr) {
      const bool goOn = RelayResponse();
      receiveBuffer_ = clientPending_;
      clientPending_.Empty();
      return goOn;
    }

    CloseUpstream();
    CStringBuffer what;
    if (messageError_ != nullptr) {
      what << "malformed response from " << server.GetBuffer() << ": " << messageError_;
      return AnswerError(502, what);
    }
    if (read == kReadHeaderWaitFailed) {
      what << "no response from " << server.GetBuffer() << " within " << waits_.responseSec
           << " s";
      return AnswerError(504, what);
    }
    if (bytesFromUpstream_ == received && mayRetry) {
      requeue(clientPending_);
      continue;
    }
    if (bytesFromUpstream_ == received) {
      what << server.GetBuffer() << " closed the connection without a response";
    } else {
      what << "incomplete response header from " << server.GetBuffer();
    }
    return AnswerError(502, what);
  }
}

void CProxyClient::BuildResponseHead(CBufStream& head, bool closing, bool decoding) {
  // Our own protocol version; the fields without those of the server's
  // connection, and the close of ours when it follows.
  head << "HTTP/1.1";
  head.AddString(startLine_.GetBuffer() + 8, startLine_.GetSize() - 8);
  const ForwardedFields fields =
      StripHopByHop(View(headerLines_), {decoding ? "transfer-encoding" : ""});
  head.AddString(fields.lines.data(), static_cast<int>(fields.lines.size()));
  if (statusCode_ == 101 && fields.upgrade) {
    head << "Connection: upgrade\r\n";
  } else if (closing) {
    head << "Connection: close\r\n";
  }
  head << "\r\n";
  AddVia(head, startLine_.GetBuffer());
}

bool CProxyClient::ForwardInterim() {
  // An HTTP/1.0 browser knows no interim answers.
  if (IsHttp10(version_.GetBuffer())) return true;
  CBufStream head;
  BuildResponseHead(head, false, false);
  return SendAll(clientSocket_, head.GetBuffer(), head.GetSize()) != kIoError;
}

bool CProxyClient::RelayResponseStandard() {
  verdict_ = VerdictNoMatch;
  const bool bodyless = std::strcmp(method_.GetBuffer(), "HEAD") == 0 || statusCode_ == 204 ||
                        statusCode_ == 304 || statusCode_ < 200;
  const bool untilClose = !bodyless && !chunkedFlag_ && !framing_.hasLength;
  // An HTTP/1.0 browser reads no chunks: it gets the data, ended by our close.
  const bool decoding = !bodyless && chunkedFlag_ && IsHttp10(version_.GetBuffer());
  CBufStream head;
  BuildResponseHead(head, requestClose_ || untilClose, decoding);

  if (statusCode_ == 101) {
    // The connection speaks another protocol from here on: bytes pass both
    // ways as in a tunnel, starting with what each side sent already.
    head.AddString(receiveBuffer_.GetBuffer(), receiveBuffer_.GetSize());
    receiveBuffer_.Empty();
    if (SendAll(clientSocket_, head.GetBuffer(), head.GetSize()) == kIoError ||
        SendAll(upstreamSocket_, clientPending_.GetBuffer(), clientPending_.GetSize()) ==
            kIoError) {
      return false;
    }
    clientPending_.Empty();
    Tunnel(clientSocket_, upstreamSocket_);
    return false;
  }

  // An HTTP/1.0 server closes after its answer unless it offered otherwise.
  bool reusable = !closeFlag_ && (!IsHttp10(startLine_.GetBuffer()) || framing_.keepAlive);
  if (bodyless) {
    // No body, whatever the fields say.
    if (SendAll(clientSocket_, head.GetBuffer(), head.GetSize()) == kIoError) return false;
  } else if (chunkedFlag_) {
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
              << "Response has Chunked data " << lend;
    if (SendAll(clientSocket_, head.GetBuffer(), head.GetSize()) == kIoError) return false;
    // A body cut short or garbled: only our close tells the browser, at once.
    if (!RelayChunked(upstreamSocket_, clientSocket_, nullptr, decoding)) return false;
  } else if (framing_.hasLength) {
    if (ForwardBody(upstreamSocket_, clientSocket_, contentLength_, nullptr, &head) == kIoError) {
      return false;
    }
  } else {
    // The body ends with the server's close, which the browser can only
    // learn from ours.
    if (!closeFlag_) {
      traceLog_ << CLogManip(kLevelCritical) << "[ERR]  " << startLine_.GetBuffer()
                << headerLines_.GetBuffer() << lend;
    }
    ForwardBody(upstreamSocket_, clientSocket_, kUnknownBodyLength, nullptr, &head);
    return false;
  }

  if (receiveBuffer_.GetSize() > 0) {
    // Bytes past the answer's end belong to no message we asked for.
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer() << "Dropped "
              << receiveBuffer_.GetSize() << " bytes past the response's end" << lend;
    receiveBuffer_.Empty();
    reusable = false;
  }
  if (!reusable) CloseUpstream();
  return true;
}
