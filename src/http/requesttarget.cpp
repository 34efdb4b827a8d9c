// The request line split into scheme, host, port, path and type word, and
// the connection to the server the session chose.
#include "http/requesttarget.h"

#include <cstddef>
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

// Cuts ":port" off host at its first colon and returns the port; 80 when
// there is no colon.
unsigned short BreakOffPort(CStringBuffer& host) {
  const char* colon = host.FindChar(':');
  if (colon == nullptr) return kHttpPort;
  const unsigned short port = PortNumber(colon + 1);
  host.BreakAt(host.OffsetOf(colon));
  return port;
}

}  // namespace

RequestTargetParts ParseRequestTarget(std::string_view startLine, const char* hostField) {
  RequestTargetParts parts;
  CStringBuffer line;
  line.AddString(startLine.data(), static_cast<int>(startLine.size()));
  CStringBuffer token;
  line >> parts.method >> token >> parts.version;

  const char* separator = token.Find("://");
  if (separator != nullptr && token.OffsetOf(separator) <= kMaxSchemeLength) {
    parts.form = RequestTargetForm::kAbsolute;
    const int schemeLength = token.OffsetOf(separator);
    parts.scheme.AddString(token.GetBuffer(), schemeLength);
    token.Move(0, schemeLength + 3);
    token.Trim();
    if (const char* slash = token.FindChar('/')) {
      const int hostLength = token.OffsetOf(slash);
      parts.host.AddString(token.GetBuffer(), hostLength);
      token.Move(0, hostLength);
    } else {
      parts.host = token;
      token = "/";
    }
  } else if (separator != nullptr) {
    parts.form = RequestTargetForm::kUrlInside;
    parts.scheme = "http";
    parts.host = hostField;
  } else {
    parts.form = RequestTargetForm::kNoUrl;
    if (parts.method == "Connect") {
      parts.scheme = "https";
      parts.host = token;
      token.Initialize();
    } else if (*hostField != '\0') {
      parts.scheme = "http";
      parts.host = hostField;
    } else {
      parts.host = "localhost";
    }
  }
  parts.port = BreakOffPort(parts.host);

  parts.path = token;
  parts.requestTarget = token;
  if (const char* query = parts.path.FindChar('?')) parts.path.BreakAt(parts.path.OffsetOf(query));
  parts.path.Trim();

  if (char* slash = parts.path.ReverseFindChar('/')) {
    const char* dot = CStringBuffer::ReverseFindChar(slash + 1, '.');
    parts.typeWord = dot != nullptr ? dot + 1 : "unknown";
    parts.typeWordFromPath = true;
  } else {
    parts.typeWord = "unknown";
  }
  return parts;
}

void CHTTPRequest::ParseRequestTarget(const CStringBuffer& startLine) {
  const auto hostField = headerMap_.find("host");
  const char* hostEntry = hostField != headerMap_.end() ? hostField->second.c_str() : "";
  const RequestTargetParts parts = ::ParseRequestTarget(
      std::string_view(startLine.GetBuffer(), static_cast<std::size_t>(startLine.GetSize())),
      hostEntry);

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
