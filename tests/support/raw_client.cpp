#include "raw_client.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace vxtest {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long long>(0, left.count()));
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

std::string Trim(std::string_view text) {
  std::size_t b = 0;
  std::size_t e = text.size();
  while (b < e && (text[b] == ' ' || text[b] == '\t' || text[b] == '\r' || text[b] == '\n')) ++b;
  while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t' || text[e - 1] == '\r' ||
                   text[e - 1] == '\n')) {
    --e;
  }
  return std::string(text.substr(b, e - b));
}

}  // namespace

void CloseSocket(SOCKET& s) {
  if (s != INVALID_SOCKET) os::closesocket(s);
  s = INVALID_SOCKET;
}

bool SendAllBytes(SOCKET s, std::string_view bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const int n = os::send(s, bytes.data() + sent, static_cast<int>(bytes.size() - sent));
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

HttpHead ParseHttpHead(std::string_view message) {
  HttpHead head;
  const std::size_t end = message.find("\r\n\r\n");
  if (end == std::string_view::npos) return head;
  head.size = end + 4;
  const std::string_view text = message.substr(0, end + 2);
  std::size_t lineStart = 0;
  bool first = true;
  while (lineStart < text.size()) {
    std::size_t lineEnd = text.find("\r\n", lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 2;
    if (first) {
      head.startLine = std::string(line);
      first = false;
      const std::size_t blank = line.find(' ');
      if (blank != std::string_view::npos) {
        head.status = std::atoi(std::string(line.substr(blank + 1)).c_str());
      }
      continue;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    head.fields[Lower(Trim(line.substr(0, colon)))] = Trim(line.substr(colon + 1));
  }
  return head;
}

// --------------------------------------------------------- LoopbackListener --

LoopbackListener::LoopbackListener() {
  socket_ = os::CreateTcpSocket();
  if (socket_ == INVALID_SOCKET) return;
  std::uint32_t address = 0;
  if (os::BindAny(socket_, 0) != 0 || os::listen(socket_, 64) != 0 ||
      os::getsockname(socket_, &address, &port_) != 0) {
    CloseSocket(socket_);
  }
}

LoopbackListener::~LoopbackListener() { Close(); }

SOCKET LoopbackListener::Accept(int timeoutMs) {
  if (socket_ == INVALID_SOCKET) return INVALID_SOCKET;
  const int ready = os::SelectRead(socket_, INVALID_SOCKET, timeoutMs / 1000, (timeoutMs % 1000) * 1000L);
  if (ready <= 0) return INVALID_SOCKET;
  std::uint32_t peer = 0;
  std::uint16_t peerPort = 0;
  return os::accept(socket_, &peer, &peerPort);
}

void LoopbackListener::Close() { CloseSocket(socket_); }

// --------------------------------------------------------------- SocketPair --

SocketPair::SocketPair() {
  LoopbackListener listener;
  if (!listener.IsOpen()) return;
  client = os::CreateTcpSocket();
  if (client == INVALID_SOCKET) return;
  if (os::connect(client, os::kLoopbackAddress, listener.Port()) != 0) {
    CloseSocket(client);
    return;
  }
  server = listener.Accept(5000);
  if (server == INVALID_SOCKET) CloseSocket(client);
}

SocketPair::~SocketPair() {
  CloseSocket(client);
  CloseSocket(server);
}

// ---------------------------------------------------------------- RawClient --

RawClient::~RawClient() { Close(); }

bool RawClient::Connect(unsigned short port, std::uint32_t address) {
  Close();
  socket_ = os::CreateTcpSocket();
  if (socket_ == INVALID_SOCKET) return false;
  if (os::connect(socket_, address, port) != 0) {
    CloseSocket(socket_);
    return false;
  }
  return true;
}

SOCKET RawClient::Release() {
  const SOCKET s = socket_;
  socket_ = INVALID_SOCKET;
  return s;
}

void RawClient::Close() {
  CloseSocket(socket_);
  pending_.clear();
  peerClosed_ = false;
}

bool RawClient::Send(std::string_view bytes) {
  return socket_ != INVALID_SOCKET && SendAllBytes(socket_, bytes);
}

bool RawClient::SendSlowly(std::string_view bytes, int pieceSize, int pauseMs) {
  if (pieceSize < 1) pieceSize = 1;
  for (std::size_t at = 0; at < bytes.size(); at += static_cast<std::size_t>(pieceSize)) {
    if (at > 0 && pauseMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    if (!Send(bytes.substr(at, static_cast<std::size_t>(pieceSize)))) return false;
  }
  return true;
}

bool RawClient::Fill(int timeoutMs) {
  if (socket_ == INVALID_SOCKET || peerClosed_) return false;
  const int ready = os::SelectRead(socket_, INVALID_SOCKET, timeoutMs / 1000, (timeoutMs % 1000) * 1000L);
  if (ready <= 0) return false;
  char buffer[4096];
  const int n = os::recv(socket_, buffer, sizeof buffer, 0);
  if (n <= 0) {
    peerClosed_ = true;
    return false;
  }
  pending_.append(buffer, static_cast<std::size_t>(n));
  return true;
}

std::string RawClient::Take(std::size_t n) {
  n = std::min(n, pending_.size());
  std::string out = pending_.substr(0, n);
  pending_.erase(0, n);
  return out;
}

std::string RawClient::Receive(std::size_t n, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (pending_.size() < n && Fill(RemainingMs(deadline))) {
  }
  return Take(n);
}

std::string RawClient::ReceiveUntil(std::string_view delimiter, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const std::size_t at = pending_.find(delimiter);
    if (at != std::string::npos) return Take(at + delimiter.size());
    if (!Fill(RemainingMs(deadline))) return Take(pending_.size());
  }
}

std::string RawClient::ReceiveUntilClosed(int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (Fill(RemainingMs(deadline))) {
  }
  return Take(pending_.size());
}

std::string RawClient::ReceiveAvailable(int waitMs) {
  if (pending_.empty()) Fill(waitMs);
  while (Fill(0)) {
  }
  return Take(pending_.size());
}

bool RawClient::WaitForClose(int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!peerClosed_ && Fill(RemainingMs(deadline))) {
  }
  return peerClosed_;
}

std::string RawClient::ReceiveResponse(int timeoutMs, bool toHead) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string out = ReceiveUntil("\r\n\r\n", timeoutMs);
  const HttpHead head = ParseHttpHead(out);
  if (head.size == 0) return out;
  if (toHead || head.status / 100 == 1 || head.status == 204 || head.status == 304) return out;

  const auto length = head.fields.find("content-length");
  const auto coding = head.fields.find("transfer-encoding");
  if (coding != head.fields.end() && Lower(coding->second) == "chunked") {
    for (;;) {
      const std::string sizeLine = ReceiveUntil("\r\n", RemainingMs(deadline));
      out += sizeLine;
      if (sizeLine.size() < 2 || sizeLine.compare(sizeLine.size() - 2, 2, "\r\n") != 0) return out;
      const long size = std::strtol(sizeLine.c_str(), nullptr, 16);
      if (size == 0) {
        // Trailer lines up to the empty line.
        for (;;) {
          const std::string trailer = ReceiveUntil("\r\n", RemainingMs(deadline));
          out += trailer;
          if (trailer == "\r\n" || trailer.size() < 2 ||
              trailer.compare(trailer.size() - 2, 2, "\r\n") != 0) {
            return out;
          }
        }
      }
      const std::string data = Receive(static_cast<std::size_t>(size) + 2, RemainingMs(deadline));
      out += data;
      if (data.size() < static_cast<std::size_t>(size) + 2) return out;
    }
  }
  if (length != head.fields.end()) {
    return out + Receive(static_cast<std::size_t>(std::atol(length->second.c_str())),
                         RemainingMs(deadline));
  }
  return out + ReceiveUntilClosed(RemainingMs(deadline));
}

}  // namespace vxtest
