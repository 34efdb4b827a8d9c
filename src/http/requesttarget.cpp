// The request line split into scheme, host, port, path and type word, and
// the connection to the server the session chose.
#include <cstdlib>
#include <vector>

#include "http/httprequest.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "http/services.h"

namespace {

// An absolute URL's scheme is at most four letters ("http"); a "://" further
// on belongs to a URL inside a query string.
constexpr int kMaxSchemeLength = 4;

unsigned short PortNumber(const char* text) {
  return static_cast<unsigned short>(std::atoi(text));
}

}  // namespace

void CHTTPRequest::ParseRequestTarget(const CStringBuffer& startLine) {
  CStringBuffer line(startLine);
  scheme_.Initialize();
  host_.Initialize();
  CStringBuffer token;
  line >> method_ >> token >> version_;
  path_.Initialize();

  const auto hostField = headerMap_.find("host");
  const char* hostEntry = hostField != headerMap_.end() ? hostField->second.c_str() : "";
  const char* separator = token.Find("://");
  if (separator != nullptr && token.OffsetOf(separator) <= kMaxSchemeLength) {
    const int schemeLength = token.OffsetOf(separator);
    scheme_.AddString(token.GetBuffer(), schemeLength);
    token.Move(0, schemeLength + 3);
    token.Trim();
    if (const char* slash = token.FindChar('/')) {
      const int hostLength = token.OffsetOf(slash);
      host_.AddString(token.GetBuffer(), hostLength);
      token.Move(0, hostLength);
    } else {
      host_ = token;
      token = "/";
    }
    if (proxyDestination_.GetSize() > 0) {
      CStringBuffer note("Needs to set host as ");
      note << proxyDestination_ << endl;
      os::OutputDebugStringA(note);
    }
  } else if (separator != nullptr) {
    scheme_ = "http";
    host_ = hostEntry;
  } else {
    if (proxyDestination_.GetSize() > 0) {
      CStringBuffer note("1. Needs to set host as ");
      note << proxyDestination_ << endl;
      os::OutputDebugStringA(note);
    }
    if (method_ == "Connect") {
      scheme_ = "https";
      host_ = token;
      token.Initialize();
    } else if (*hostEntry != '\0') {
      scheme_ = "http";
      host_ = hostEntry;
    } else {
      host_ = "localhost";
    }
  }
  SplitHostPort();

  path_ = token;
  requestTarget_ = token;
  if (const char* query = path_.FindChar('?')) path_.BreakAt(path_.OffsetOf(query));
  path_.Trim();

  if (char* slash = path_.ReverseFindChar('/')) {
    const char* dot = CStringBuffer::ReverseFindChar(slash + 1, '.');
    typeWord_ = dot != nullptr ? dot + 1 : "unknown";
    services_->NormalizeTypeWord(typeWord_);
  } else {
    typeWord_ = "unknown";
  }
}

void CHTTPRequest::SplitHostPort() {
  const char* colon = host_.FindChar(':');
  if (colon == nullptr) {
    urlPort_ = kHttpPort;
    return;
  }
  urlPort_ = PortNumber(colon + 1);
  host_.BreakAt(host_.OffsetOf(colon));
}

unsigned short CHTTPRequest::SplitHostPort(const char* hostPort, CStringBuffer& host) {
  host = hostPort;
  const char* colon = host.FindChar(':');
  if (colon == nullptr) return kHttpPort;
  const unsigned short port = PortNumber(colon + 1);
  host.BreakAt(host.OffsetOf(colon));
  return port;
}

bool CHTTPRequest::ConnectUpstream() {
  if (keptHost_ == connectHost_.GetBuffer() && keptPort_ == connectPort_ && IsUpstreamAlive()) {
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
  return false;
}
