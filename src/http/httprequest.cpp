// Construction of a session's request object and the request-time verdict.
#include "http/httprequest.h"

#include <cstring>

#include "filter/engine.h"
#include "http/services.h"
#include "vxproxy/proxy.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "vxproxy/extensions.h"

namespace {

// "a.b.c.d:port" of one end of a connection.
CStringBuffer EndpointText(std::uint32_t address, std::uint16_t port) {
  CStringBuffer text(os::inet_ntoa(address).c_str());
  text << ":" << static_cast<unsigned short>(port);
  return text;
}

}  // namespace

CHTTPRequest::CHTTPRequest(SOCKET client)
    : statusCode_(200),
      urlPort_(kHttpPort),
      connectPort_(0),
      keptPort_(0),
      contentLength_(0),
      closeFlag_(false),
      chunkedFlag_(false),
      clientSocket_(client),
      upstreamSocket_(INVALID_SOCKET),
      bytesFromClient_(0),
      bytesFromUpstream_(0),
      useUpstreamProxy_(false),
      blockedLog_(GetProxy()->GetLog(kLogBlocked)),
      traceLog_(GetProxy()->GetLog(kLogRequest)),
      eventLog_(GetProxy()->GetLog(kLogProxy)),
      proxy_(GetProxy()),
      services_(RequestServices()),
      deferredCheck_(false),
      verdict_(VerdictNoMatch),
      standardHttp_(services_->HasExtension(kExtensionStandardHttp)),
      messageError_(nullptr),
      requestClose_(false),
      upstreamReused_(false),
      connectError_(nullptr),
      lastSendFailure_(INVALID_SOCKET) {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  os::getpeername(client, &address, &port);
  connectionTag_ = EndpointText(address, port);
  connectionTag_ << "    ";
  address = 0;
  port = 0;
  os::getsockname(client, &address, &port);
  localAddress_ = EndpointText(address, port);
}

CHTTPRequest::~CHTTPRequest() { CloseConnections(); }

bool CHTTPRequest::IsInternal() { return false; }

bool CHTTPRequest::Evaluate() {
  if (!ShouldPass()) {
    CStringBuffer site(host_);
    AppendPort(site, urlPort_);
    site.ToLower();
    RecordBlocked(site);
    return false;
  }
  // Requests left for the response-time check get their line there.
  if (!deferredCheck_) traceLog_ << CLogManip(kLevelCritical) << "[P]  " << requestLine_ << lend;
  return true;
}

bool CHTTPRequest::ShouldPass() {
  if (!proxy_->IsFilteringEnabled()) return true;
  if (method_ != "GET") return true;
  deferredCheck_ = false;
  verdict_ = VerdictNoMatch;
  proxy_->CountFilteredRequest();
  // Only kinds we have a harmless replacement for are judged now; the rest
  // are judged on the type the server names in its response.
  if (typeWord_.GetSize() == 0 || !services_->IsReplaceableType(typeWord_)) {
    deferredCheck_ = true;
    return true;
  }
  verdict_ = services_->Filter().CheckRequest(host_.GetBuffer(), requestTarget_.GetBuffer(),
                                                     typeWord_.GetBuffer(), headerMap_, false);
  return verdict_ == VerdictNoMatch || verdict_ == VerdictAllowed;
}

void CHTTPRequest::RecordBlocked(const char* site) {
  services_->Notify(kEventRequestBlocked);
  traceLog_ << CLogManip(kLevelCritical) << "[B]  " << requestLine_ << lend;
  CStringBuffer stamp;
  MakeLineTimeStamp(stamp);
  services_->CountBlockedSite(host_.GetBuffer());
  const char* blank = std::strchr(requestLine_.GetBuffer(), ' ');
  const char* url = blank != nullptr ? blank + 1 : requestLine_.GetBuffer();
  const char* referer = refererHost_.GetSize() > 0 ? refererHost_.GetBuffer() : "__";
  blockedLog_ << CLogManip(kLevelCritical) << stamp << "   " << site << "  " << referer << "  "
              << url << lend;
}

bool CHTTPRequest::IsBodyAllowed() {
  switch (statusCode_) {
    case 204:
    case 205:
    case 300:
    case 301:
    case 304:
    case 305:
    case 306:
      return false;
    default:
      return statusCode_ < 500 || statusCode_ > 599;
  }
}
