// The session's side of the request target: the parsed parts taken into the
// request object, and the connection to the server the session chose.
#include <cstddef>
#include <vector>

#include "http/httprequest.h"
#include "http/requesttarget.h"
#include "http/services.h"
#include "log/levels.h"
#include "platform/platform.h"

void CHTTPRequest::ParseRequestTarget(const CStringBuffer& startLine) {
  const auto hostField = headerMap_.find("host");
  const char* hostEntry = hostField != headerMap_.end() ? hostField->second.c_str() : nullptr;
  const RequestTargetParts parts = ::ParseRequestTarget(
      std::string_view(startLine.GetBuffer(), static_cast<std::size_t>(startLine.GetSize())),
      hostEntry, standardHttp_);
  if (parts.error != nullptr && messageError_ == nullptr) messageError_ = parts.error;

  if (proxyDestination_.GetSize() > 0 && parts.form != RequestTargetForm::kUrlInside) {
    CStringBuffer note(parts.form == RequestTargetForm::kAbsolute ? "Needs to set host as "
                                                                  : "1. Needs to set host as ");
    note << proxyDestination_ << endl;
    os::OutputDebugStringA(note);
  }
  method_ = parts.method;
  version_ = parts.version;
  scheme_ = parts.scheme;
  host_ = parts.host;
  urlPort_ = parts.port;
  path_ = parts.path;
  requestTarget_ = parts.requestTarget;
  typeWord_ = parts.typeWord;
  if (parts.typeWordFromPath) services_->NormalizeTypeWord(typeWord_);
}

unsigned short CHTTPRequest::SplitHostPort(const char* hostPort, CStringBuffer& host) {
  host = hostPort;
  return BreakOffPort(host);
}

bool CHTTPRequest::ConnectUpstream() {
  upstreamReused_ = false;
  connectError_ = nullptr;
  if (keptHost_ == connectHost_.GetBuffer() && keptPort_ == connectPort_ && IsUpstreamAlive()) {
    upstreamReused_ = true;
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Trying to connect to the same host "
              << connectHost_ << ":" << connectPort_ << lend;
    return true;
  }
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "connecting to the host "
            << connectHost_ << ":" << connectPort_ << lend;
  CloseUpstream();
  upstreamSocket_ = os::CreateTcpSocket();

  std::vector<std::uint32_t> addresses;
  if (!os::gethostbyname(connectHost_.GetBuffer(), &addresses) || addresses.empty()) {
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Failed to resolve the host to IP "
              << connectHost_ << ":" << connectPort_ << lend;
    // Nothing will use the fresh socket; do not keep it until the next connect.
    CloseUpstream();
    connectError_ = "cannot resolve";
    return false;
  }
  if (os::connect(upstreamSocket_, addresses.front(), connectPort_) == 0) {
    keptHost_ = connectHost_;
    keptPort_ = connectPort_;
    eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Connected to " << connectHost_
              << ":" << connectPort_ << lend;
    return true;
  }
  const int error = os::WSAGetLastError();
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Connect failed " << connectHost_
            << ":" << connectPort_ << "   " << error << lend;
  CloseUpstream();
  connectError_ = "cannot connect to";
  return false;
}
