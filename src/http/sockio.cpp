// Blocking socket work of a session: sending, waiting with time-outs,
// receiving, relaying bodies, tunnelling and closing. Everything runs on the
// session's own thread; failures come back as kIoError or kIoTimeout.
#include <algorithm>

#include "http/httprequest.h"
#include "http/services.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "vxproxy/extensions.h"

int CHTTPRequest::SendAll(SOCKET socket, const char* data, int length) {
  if (length <= 0) return 0;
  int total = 0;
  while (total < length) {
    const int sent = os::send(socket, data + total, length - total);
    if (sent == SOCKET_ERROR) {
      lastSendFailure_ = socket;
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Send failed "
                << os::WSAGetLastError() << lend;
      return kIoError;
    }
    total += sent;
  }
  return total;
}

int CHTTPRequest::WaitForData(SOCKET first, SOCKET second, int timeoutMs) {
  const int valid = (first != INVALID_SOCKET ? 1 : 0) + (second != INVALID_SOCKET ? 1 : 0);
  if (valid == 0) return kIoTimeout;

  if (timeoutMs > 0) {
    const int wholeSeconds = timeoutMs / 1000;
    int fraction = timeoutMs - wholeSeconds * 1000;
    int remaining = timeoutMs - fraction;
    // Long waits are cut into slices so that no single select call blocks
    // for more than kWaitSliceMs; the sub-second part rides on the first.
    do {
      const int slice = std::min(remaining, kWaitSliceMs);
      remaining -= slice;
      const int ready = os::SelectRead(first, second, slice / 1000, fraction * 1000L);
      if (ready < 0) {
        eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Select failed  "
                  << os::WSAGetLastError() << lend;
        return kIoError;
      }
      if ((ready & 1) != 0) return kFirstReady;
      if ((ready & 2) != 0) return kSecondReady;
      fraction = 0;
    } while (remaining > 0);
  }
  eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Socket wait exceede the limit "
            << timeoutMs << " MS" << lend;
  return kIoTimeout;
}

int CHTTPRequest::WaitForSocket(SOCKET socket, int seconds) {
  if (seconds < 1) return kIoTimeout;
  return WaitForData(socket, INVALID_SOCKET, seconds * 1000);
}

int CHTTPRequest::WaitForEither(SOCKET first, SOCKET second, int seconds) {
  return WaitForData(first, second, seconds * 1000);
}

int CHTTPRequest::CountReceived(SOCKET socket, int received) {
  if (received < 1) return received;
  if (socket == upstreamSocket_) {
    bytesFromUpstream_ += received;
  } else {
    bytesFromClient_ += received;
  }
  return received;
}

int CHTTPRequest::ReceiveMore(SOCKET socket) {
  if (!IsReady(WaitForSocket(socket, waits_.receiveMoreSec))) return kIoError;
  char buffer[kHeaderRecvBytes];
  const int n = CountReceived(socket, os::recv(socket, buffer, sizeof buffer, 0));
  if (n < 0) return kIoError;
  receiveBuffer_.AddString(buffer, n);
  return n;
}

// One step of a relay: receives at most want bytes from the source and hands
// them on. The received count, or kIoError when the source closed or failed (a
// close before the expected end is a failure too, but only an error is worth
// a line) or the destination could not take them.
int CHTTPRequest::RelayStep(SOCKET source, SOCKET destination, int want, CBufStream* copy) {
  char buffer[kRelayRecvBytes];
  if (static_cast<unsigned>(want) > sizeof buffer) want = sizeof buffer;
  const int n = CountReceived(source, os::recv(source, buffer, want, 0));
  if (n <= 0) {
    if (n == SOCKET_ERROR) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Recv failed "
                << os::WSAGetLastError() << lend;
    }
    return kIoError;
  }
  if (copy != nullptr) copy->AddString(buffer, n);
  if (destination != INVALID_SOCKET && SendAll(destination, buffer, n) == kIoError) return kIoError;
  return n;
}

int CHTTPRequest::RelayBytes(SOCKET source, SOCKET destination, int count, CBufStream* copy) {
  if (count <= 0) return 0;
  int total = 0;
  while (total < count) {
    if (!IsReady(WaitForSocket(source, waits_.relaySec))) return kIoError;
    const int n = RelayStep(source, destination, count - total, copy);
    if (n == kIoError) return kIoError;
    total += n;
  }
  return total;
}

int CHTTPRequest::RelayWatched(SOCKET source, SOCKET destination, int limit, CBufStream* copy) {
  if (limit <= 0) return 0;
  int total = 0;
  while (total < limit) {
    const int ready = WaitForEither(source, destination, waits_.relaySec);
    if (!IsReady(ready)) return kIoError;
    if (ready == kSecondReady) {
      // The browser spoke (its next request) or hung up: an unframed body
      // cannot be told apart from the next response, so the server side is
      // given up.
      CloseUpstream();
      return total;
    }
    const int n = RelayStep(source, destination, limit - total, copy);
    if (n == kIoError) return kIoError;
    total += n;
  }
  return total;
}

int CHTTPRequest::RelayUntilClose(SOCKET source, SOCKET destination, CBufStream* copy) {
  char buffer[kRelayRecvBytes];
  int total = 0;
  for (;;) {
    if (!IsReady(WaitForSocket(source, waits_.relaySec))) return kIoError;
    const int n = CountReceived(source, os::recv(source, buffer, sizeof buffer, 0));
    if (n == 0) return total;
    if (n < 0) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Recv failed "
                << os::WSAGetLastError() << lend;
      return kIoError;
    }
    if (copy != nullptr) copy->AddString(buffer, n);
    if (destination != INVALID_SOCKET && SendAll(destination, buffer, n) == kIoError) return kIoError;
    total += n;
  }
}

int CHTTPRequest::ForwardBody(SOCKET source, SOCKET destination, int length, CBufStream* copy,
                              const CBufStream* head) {
  // What of the receive buffer belongs to this body: all of it, unless
  // standard HTTP leaves what lies past a counted body's end.
  int pre = receiveBuffer_.GetSize();
  if (standardHttp_ && length != kUnknownBodyLength) pre = std::clamp(length, 0, pre);
  const bool withHead = head != nullptr && head->GetSize() > 0 && destination != INVALID_SOCKET;
  if (withHead && pre > 0) {
    // One send for both: the peer wakes once, and a failure is the head's.
    CBufStream joined(*head);
    joined.AddString(receiveBuffer_.GetBuffer(), pre);
    if (SendAll(destination, joined.GetBuffer(), joined.GetSize()) == kIoError) return kIoError;
  } else if (withHead && SendAll(destination, head->GetBuffer(), head->GetSize()) == kIoError) {
    return kIoError;
  }
  if (pre > 0) {
    if (!withHead && destination != INVALID_SOCKET &&
        SendAll(destination, receiveBuffer_.GetBuffer(), pre) == kIoError) {
      eventLog_ << CLogManip(kLevelVerbose) << connectionTag_ << "Failed to push Data to the socket "
                << os::WSAGetLastError() << lend;
      return kIoError;
    }
    if (copy != nullptr) copy->AddString(receiveBuffer_.GetBuffer(), pre);
    receiveBuffer_.Consume(pre);
  }
  int result;
  if (length != kUnknownBodyLength) {
    result = RelayBytes(source, destination, length - pre, copy);
  } else if (standardHttp_) {
    result = RelayUntilClose(source, destination, copy);
  } else {
    result = RelayWatched(source, destination, kUnknownBodyLength - pre, copy);
  }
  return result == kIoError ? kIoError : result + pre;
}

int CHTTPRequest::DiscardBody(SOCKET source) {
  return ForwardBody(source, INVALID_SOCKET, contentLength_, nullptr);
}

int CHTTPRequest::Tunnel(SOCKET first, SOCKET second) {
  char buffer[kRelayRecvBytes];
  // The tunnel ends on the first idle period, error or close on either side.
  for (int ready = WaitForEither(first, second, waits_.relaySec); IsReady(ready);
       ready = WaitForEither(first, second, waits_.relaySec)) {
    const SOCKET from = ready == kSecondReady ? second : first;
    const SOCKET to = ready == kSecondReady ? first : second;
    const int n = CountReceived(from, os::recv(from, buffer, sizeof buffer, 0));
    if (n < 1) break;
    if (SendAll(to, buffer, n) == kIoError) break;
  }
  return kIoError;
}

bool CHTTPRequest::IsUpstreamAlive() {
  const SOCKET upstream = upstreamSocket_;
  if (upstream == INVALID_SOCKET) return false;
  if (services_->HasExtension(kExtensionQuickLiveness)) {
    // Quiet right now: alive. A close that races with the reuse fails the
    // first attempt, and the session tries again on a new connection.
    const int ready = os::SelectRead(upstream, INVALID_SOCKET, 0, 0);
    if (ready < 0) return false;
    if (ready == 0) return true;
  } else {
    const int ready = WaitForData(upstream, INVALID_SOCKET, waits_.livenessMs);
    // Quiet for the whole wait: alive.
    if (!IsReady(ready)) return ready == kIoTimeout;
  }
  // Readable: either the server closed (recv sees 0) or sent something we
  // leave queued for the next read. With standard HTTP a server that talks
  // before it is asked sent bytes of no message: the connection is not reused.
  if (standardHttp_) return false;
  char byte = 0;
  return os::recv(upstream, &byte, 1, os::MSG_PEEK_FLAG) > 0;
}

void CHTTPRequest::CloseUpstream() {
  const SOCKET s = upstreamSocket_.exchange(INVALID_SOCKET);
  if (s != INVALID_SOCKET) os::closesocket(s);
}

void CHTTPRequest::CloseConnections() {
  const SOCKET s = clientSocket_.exchange(INVALID_SOCKET);
  if (s != INVALID_SOCKET) os::closesocket(s);
  CloseUpstream();
}
