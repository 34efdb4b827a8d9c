#include "client/proxyclient.h"

#include "client/proxymanager.h"
#include "http/services.h"
#include "vxproxy/proxy.h"
#include "filter/engine.h"
#include "http/chunkparser.h"
#include "http/internal.h"
#include "http/requesttarget.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "probe/headermanager.h"
#include "vxproxy/extensions.h"

const CProxyClient::HandlerRow CProxyClient::kHandlers[3] = {
    {kSchemeHttp, &CProxyClient::HandleHttp},
    {kSchemeHttps, &CProxyClient::HandleConnect},
    {kSchemeUnknown, &CProxyClient::HandleUnknown},
};

namespace {

// A session needs little stack: its deepest frames are a relay's receive
// buffer and a rule match. The system's default (8 MiB here) would only cost
// address space and the pages a finished thread leaves behind. Sessions are
// many and short, so a finished one's thread serves the next.
constexpr std::size_t kWorkerStackBytes = 256 * 1024;

}  // namespace

CProxyClient::CProxyClient(SOCKET accepted) : CThreadEx(), CHTTPRequest(accepted) {
  SetThreadOptions(kWorkerStackBytes, true);
}

CProxyClient::~CProxyClient() = default;

// ------------------------------------------------------------ thread side --

DWORD CProxyClient::Run() {
  RunSession();
  CloseConnections();
  CProxyManager::Instance()->OnWorkerFinished(this);
  return 0;
}

bool CProxyClient::CloseIfRunning() {
  if (!isRunning()) return true;
  // Closing both sockets makes every blocking wait of the session fail.
  CloseConnections();
  return false;
}

bool CProxyClient::Stop() {
  if (CloseIfRunning()) return true;
  return CThreadEx::Stop();
}

// ---------------------------------------------------------------- session --

void CProxyClient::RunSession() {
  useUpstreamProxy_ = true;
  unsigned short upstreamPort = 0;
  connectHost_ = *proxy_->GetUpstreamProxy(&upstreamPort);
  connectPort_ = upstreamPort;
  if (connectHost_.GetSize() == 0) useUpstreamProxy_ = false;

  CSiteCounter* statistics = proxy_->GetSiteCounter();
  int served = 0;
  for (;;) {
    bytesFromClient_ = 0;
    bytesFromUpstream_ = 0;
    deferredCheck_ = false;
    verdict_ = VerdictNoMatch;
    standardHttp_ = services_->HasExtension(kExtensionStandardHttp);
    requestClose_ = false;
    eventLog_ << CLogManip(kLevelDebug) << connectionTag_.GetBuffer()
              << "Reading HTTP Header from Client side.." << lend;
    if (ReadHeader(clientSocket_, true) != kReadHeaderOk) {
      // A request that cannot be read as one is answered, not just dropped.
      if (standardHttp_ && messageError_ != nullptr) AnswerError(400, messageError_);
      break;
    }
    ++served;

    Handler handler = &CProxyClient::HandleUnknown;
    const int scheme = GetSchemeId();
    for (const HandlerRow& row : kHandlers) {
      if (row.schemeId == scheme) {
        handler = row.handler;
        break;
      }
    }
    if (standardHttp_ && messageError_ != nullptr) handler = &CProxyClient::RefuseRequest;
    const bool goOn = (this->*handler)();
    statistics->AddBytes(static_cast<unsigned long>(bytesFromClient_),
                         static_cast<unsigned long>(bytesFromUpstream_));
    // With standard HTTP a server's close concerns its own connection only.
    if (!goOn || (closeFlag_ && !standardHttp_) || requestClose_) break;
  }
  statistics->AddRequests(served);
  CloseConnections();
}

int CProxyClient::GetSchemeId() {
  if (scheme_ == "https") return kSchemeHttps;
  if (scheme_ == "http") return kSchemeHttp;
  return kSchemeUnknown;
}

bool CProxyClient::HandleHttp() {
  if (!useUpstreamProxy_) {
    if (proxyDestination_.GetSize() > 0) {
      if (!standardHttp_) {
        connectPort_ = SplitHostPort(proxyDestination_, connectHost_);
      } else if (const char* error = ParseAuthority(proxyDestination_.GetBuffer(), kHttpPort,
                                                    connectHost_, connectPort_)) {
        CStringBuffer what("Proxy-Destination: ");
        what << error;
        return AnswerError(400, what);
      }
    } else {
      connectHost_ = host_;
      connectPort_ = urlPort_;
    }
  }

  if (!Evaluate()) {
    QueueProbe();
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer() << "Blocked: <->"
              << host_.GetBuffer() << path_.GetBuffer() << lend;
    if (standardHttp_ ? !DrainRequestBody() : DiscardBody(clientSocket_) == kIoError) return false;
    CStringBuffer reply;
    if (!CHTTPInternal::BuildReplacementResponse(nullptr, typeWord_, reply)) return false;
    if (SendAll(clientSocket_, reply, reply.GetSize()) == kIoError) return false;
    CloseUpstream();  // a connection kept from an earlier request is of no use now
    return true;
  }
  if (RefuseSelfLoop()) return false;
  if (standardHttp_) return ForwardStandard();

  CStringBuffer header;
  if (proxyDestination_.GetSize() > 0) {
    header = rawHeader_;
  } else {
    header << method_.GetBuffer() << " ";
    // Only a request sent on to another proxy carries the absolute URL.
    if (useUpstreamProxy_) {
      header << scheme_.GetBuffer() << "://" << host_.GetBuffer();
      AppendPort(header, urlPort_);
    }
    header << requestTarget_.GetBuffer() << " " << version_.GetBuffer() << "\r\n"
           << otherHeaderLines_.GetBuffer();
    if (proxyConnectionLine_.GetSize() > 0) {
      CStringBuffer line(proxyConnectionLine_);
      line.Replace("Proxy-", "");
      header << line.GetBuffer();
    }
    header << "\r\n";
  }
  return RelayRequest(header);
}

void CProxyClient::QueueProbe() {
  CHeaderManager* probes = proxy_->GetHeaderManager();
  if (probes == nullptr) return;
  // A Proxy-Destination names where the item really lives; an upstream proxy
  // is found by the prober itself.
  const bool destination = !useUpstreamProxy_ && proxyDestination_.GetSize() > 0;
  probes->Enqueue(host_, urlPort_, path_, destination ? connectHost_ : CStringBuffer(""),
                  destination ? connectPort_ : 0, headerLines_.GetBuffer());
}

bool CProxyClient::RelayRequest(const CStringBuffer& header) {
  CBufStream retry;  // the request body as sent, for a second attempt
  for (int attempt = 1; attempt <= 2; ++attempt) {
    // A shut-down closes the browser's socket to end the session; a second
    // attempt would only open a connection whose answer nobody can take.
    if (clientSocket_ == INVALID_SOCKET) break;
    if (!ConnectUpstream()) {
      CloseUpstream();
      continue;
    }
    if (SendAll(upstreamSocket_, header, header.GetSize()) == kIoError) {
      CloseUpstream();
      continue;
    }
    if (useUpstreamProxy_) {
      traceLog_ << CLogManip(kLevelDebug) << "Proxy detected : for " << header.GetBuffer() << lend;
    }

    retry.Empty();
    bool ok;
    if (chunkedFlag_) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
                << "Request has Chunked data " << lend;
      ok = RelayChunked(clientSocket_, upstreamSocket_, &retry);
    } else {
      ok = ForwardBody(clientSocket_, upstreamSocket_, contentLength_, &retry) != kIoError;
    }
    retry.AddString(receiveBuffer_.GetBuffer(), receiveBuffer_.GetSize());

    if (!ok || ReadHeader(upstreamSocket_, false) != kReadHeaderOk) {
      CloseUpstream();
      // A chunked body cannot be sent again: it was not kept whole.
      if (chunkedFlag_) break;
      receiveBuffer_ = retry;
      retry.Empty();
      continue;
    }
    return RelayResponse();
  }
  traceLog_ << CLogManip(kLevelDebug) << connectionTag_.GetBuffer()
            << "Connect/Send to the remote host failed " << lend;
  return false;
}

bool CProxyClient::RelayResponse() {
  if (deferredCheck_ && IsBodyAllowed()) {
    bool redirect = false;
    if (statusCode_ == 302 || statusCode_ == 303 || statusCode_ == 307) {
      responseTypeWord_ = "gif";
      redirect = true;
    }
    typeWord_ = responseTypeWord_;
    if (services_->IsReplaceableType(typeWord_)) {
      verdict_ = services_->Filter().CheckRequest(
          host_.GetBuffer(), requestTarget_.GetBuffer(), typeWord_.GetBuffer(), headerMap_,
          redirect);
      if (verdict_ != VerdictNoMatch && verdict_ != VerdictAllowed) {
        proxy_->GetSiteCounter()->AddAdSize(
            static_cast<std::uint64_t>(static_cast<std::int64_t>(contentLength_)));
        CStringBuffer site(host_);
        AppendPort(site, urlPort_);
        site.ToLower();
        RecordBlocked(site);
        CStringBuffer reply;
        if (!CHTTPInternal::BuildReplacementResponse(nullptr, typeWord_, reply)) return false;
        if (SendAll(clientSocket_, reply, reply.GetSize()) == kIoError) return false;
        CloseUpstream();  // the blocked body is never read
        return true;
      }
    }
  }

  if (standardHttp_) return RelayResponseStandard();

  verdict_ = VerdictNoMatch;
  // The status line and the fields leave in one send, together with the body
  // bytes that came with them when a counted or unframed body follows.
  CBufStream head;
  head.AddString(startLine_.GetBuffer(), startLine_.GetSize());
  head.AddString(headerLines_.GetBuffer(), headerLines_.GetSize());
  const bool bodyFollows =
      !chunkedFlag_ && (contentLength_ != 0 || IsBodyAllowed());
  if (!bodyFollows && SendAll(clientSocket_, head.GetBuffer(), head.GetSize()) == kIoError) {
    return false;
  }

  if (chunkedFlag_) {
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
              << "Response has Chunked data " << lend;
    RelayChunked(upstreamSocket_, clientSocket_, nullptr);
    return true;
  }

  bool untilClose = false;
  if (contentLength_ == 0) {
    if (!IsBodyAllowed()) return true;  // no body; the connection stays for reuse
    contentLength_ = kUnknownBodyLength;
    untilClose = true;
    if (!closeFlag_) {
      traceLog_ << CLogManip(kLevelCritical) << "[ERR]  " << startLine_.GetBuffer()
                << headerLines_.GetBuffer() << lend;
    }
  }
  if (contentLength_ != 0 &&
      ForwardBody(upstreamSocket_, clientSocket_, contentLength_, nullptr, &head) == kIoError) {
    return false;
  }
  if (untilClose || closeFlag_) CloseUpstream();
  return true;
}

bool CProxyClient::RelayChunked(SOCKET source, SOCKET destination, CBufStream* copy,
                                bool decode) {
  CChunkFraming framing(standardHttp_);
  for (;;) {
    // Decoding passes on the chunks' data alone (the framing is strict then).
    const bool data = framing.GetState() == CChunkFraming::State::kData;
    const CChunkFraming::Step step =
        framing.Next(receiveBuffer_.GetBuffer(), receiveBuffer_.GetSize());
    if (step.forward > 0) {
      if (destination != INVALID_SOCKET && (data || !decode) &&
          SendAll(destination, receiveBuffer_.GetBuffer(), step.forward) == kIoError) {
        return false;
      }
      if (copy != nullptr) copy->AddString(receiveBuffer_.GetBuffer(), step.forward);
      receiveBuffer_.Consume(step.forward);
    }
    if (step.event == CChunkFraming::Event::kLastChunk) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
                << "Detected end of chunked Data" << lend;
    } else if (step.event == CChunkFraming::Event::kChunk) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer()
                << "Processing Chunked data of size " << step.chunkSize << lend;
    }
    switch (framing.GetState()) {
      case CChunkFraming::State::kDone:
        return true;
      case CChunkFraming::State::kError:
        messageError_ = "malformed chunked body";
        return false;
      case CChunkFraming::State::kData:
        // The rest of the chunk streams past the buffer, never held whole.
        if (receiveBuffer_.GetSize() == 0) {
          const int need = framing.DataRemaining();
          if (RelayBytes(source, destination, need, copy) == kIoError) return false;
          framing.DataRelayed(need);
        }
        break;
      case CChunkFraming::State::kSizeLine:
      case CChunkFraming::State::kDataEnd:
      case CChunkFraming::State::kTrailer:
        if (step.needMore && ReceiveMore(source) <= 0) return false;
        break;
    }
  }
}

bool CProxyClient::HandleConnect() {
  if (services_->HasExtension(kExtensionTunnelGuard) && proxy_->IsFilteringEnabled() &&
      RefuseAdTunnel()) {
    return false;
  }
  CloseUpstream();
  if (!useUpstreamProxy_) {
    connectHost_ = host_;
    connectPort_ = urlPort_;
  }
  if (RefuseSelfLoop()) return false;
  if (!ConnectUpstream()) {
    if (!standardHttp_) return false;
    CStringBuffer what(connectError_ != nullptr ? connectError_ : "cannot connect to");
    what << " " << connectHost_.GetBuffer() << ":" << connectPort_;
    return AnswerError(502, what);
  }
  if (!useUpstreamProxy_) {
    static const char kEstablished[] = "HTTP/1.0 200 Vexilo Established Connection\r\n\r\n";
    if (SendAll(clientSocket_, kEstablished, sizeof kEstablished - 1) == kIoError) return false;
  } else {
    CStringBuffer header;
    header << method_.GetBuffer() << " " << scheme_.GetBuffer() << "://" << host_.GetBuffer();
    AppendPort(header, urlPort_, kHttpsPort);
    header << requestTarget_.GetBuffer() << " " << version_.GetBuffer() << "\r\n"
           << otherHeaderLines_.GetBuffer() << "\r\n";
    if (SendAll(upstreamSocket_, header, header.GetSize()) == kIoError) return false;
  }
  Tunnel(clientSocket_, upstreamSocket_);
  return false;
}

bool CProxyClient::RefuseSelfLoop() {
  if (!services_->IsThisProxy(connectHost_.GetBuffer(), connectPort_)) return false;
  services_->NoteLimit(SafetyLimit::kSelfLoop, connectionTag_.GetBuffer(),
                       "Refused a request for this proxy itself (", connectHost_.GetBuffer(), ":",
                       connectPort_, "): it would come back here without end");
  // 508 rather than 403: nothing about the address is forbidden, the request
  // names the proxy as its own server. A browser shows it as an error page,
  // curl as a failed request or tunnel; no-store keeps every cache from
  // holding on to it.
  static const char kBody[] = "This request names the proxy itself as its server; it was not sent on.\n";
  CStringBuffer reply;
  reply << "HTTP/1.1 508 Loop Detected\r\nContent-Type: text/plain\r\nContent-Length: "
        << static_cast<int>(sizeof kBody - 1)
        << "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" << kBody;
  SendAll(clientSocket_, reply, reply.GetSize());
  return true;
}

bool CProxyClient::RefuseAdTunnel() {
  const TunnelVerdict verdict = services_->Filter().JudgeTunnelHost(host_.GetBuffer());
  if (!verdict.block) return false;
  CStringBuffer site(host_);
  AppendPort(site, urlPort_, kHttpsPort);
  site.ToLower();
  // Logged, counted and announced like a blocked GET; nothing of a tunnel
  // has a size to probe.
  RecordBlocked(site);
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_.GetBuffer() << "Blocked tunnel: <->"
            << host_.GetBuffer() << " by " << verdict.RuleText().c_str() << lend;
  // A refusal, not a tunnel that breaks later: curl gives up at once with
  // "CONNECT tunnel failed, response 403" and Chromium shows
  // ERR_TUNNEL_CONNECTION_FAILED without retrying, whereas a closed or reset
  // connection may make a browser try again. The empty body and the close keep
  // the browser from sending anything else on this connection.
  static const char kRefused[] = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  SendAll(clientSocket_, kRefused, sizeof kRefused - 1);
  return true;
}

bool CProxyClient::HandleUnknown() {
  traceLog_ << CLogManip(kLevelDebug) << "[ERR]  " << startLine_.GetBuffer()
            << headerLines_.GetBuffer() << lend;
  if (!standardHttp_) return false;
  CStringBuffer what("no relay for ");
  what << scheme_.GetBuffer() << " URLs";
  return AnswerError(400, what);
}
