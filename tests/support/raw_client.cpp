#include "raw_client.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace vxtest {

namespace {

using Clock = std::chrono::steady_clock;

int MsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long long>(0, left.count()));
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view Trim(std::string_view text) {
  const std::size_t b = text.find_first_not_of(" \t");
  return b == std::string_view::npos ? "" : text.substr(b, text.find_last_not_of(" \t") + 1 - b);
}

// True when data (or the peer's close) arrives within the time.
bool Readable(SOCKET s, int timeoutMs) {
  return os::SelectRead(s, INVALID_SOCKET, timeoutMs / 1000, (timeoutMs % 1000) * 1000L) > 0;
}

}  // namespace

void CloseSocket(SOCKET& s) {
  if (s != INVALID_SOCKET) os::closesocket(s);
  s = INVALID_SOCKET;
}

bool SendAllBytes(SOCKET s, std::string_view bytes) {
  while (!bytes.empty()) {
    const int n = os::send(s, bytes.data(), static_cast<int>(bytes.size()));
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

HttpHead ParseHttpHead(std::string_view message) {
  HttpHead head;
  const std::size_t end = message.find("\r\n\r\n");
  if (end == std::string_view::npos) return head;
  head.size = end + 4;
  std::string_view lines = message.substr(0, end + 2);
  head.startLine = lines.substr(0, lines.find("\r\n"));
  const std::size_t blank = std::min(head.startLine.size(), head.startLine.find(' '));
  head.status = std::atoi(head.startLine.c_str() + blank);
  lines.remove_prefix(head.startLine.size() + 2);
  for (; !lines.empty(); lines.remove_prefix(lines.find("\r\n") + 2)) {
    const std::string_view line = lines.substr(0, lines.find("\r\n"));
    const std::size_t colon = std::min(line.size(), line.find(':'));
    const std::string name = Lower(Trim(line.substr(0, colon)));
    const std::string_view value = Trim(line.substr(std::min(line.size(), colon + 1)));
    if (name == "content-length") head.contentLength = std::atol(std::string(value).c_str());
    if (name == "transfer-encoding") head.chunked = Lower(value) == "chunked";
  }
  return head;
}

std::size_t ChunkedBodyLength(std::string_view data) {
  std::size_t at = 0;
  for (;;) {
    const std::size_t lineEnd = data.find("\r\n", at);
    if (lineEnd == std::string_view::npos) return std::string_view::npos;
    const std::string sizeLine(data.substr(at, lineEnd - at));
    const std::size_t size = std::strtoul(sizeLine.c_str(), nullptr, 16);
    at = lineEnd + 2;
    if (size == 0) break;
    at += size + 2;
    if (at > data.size()) return std::string_view::npos;
  }
  // Trailer lines, then the empty line.
  for (;;) {
    const std::size_t end = data.find("\r\n", at);
    if (end == std::string_view::npos) return std::string_view::npos;
    const bool empty = end == at;
    at = end + 2;
    if (empty) return at;
  }
}

// --------------------------------------------------------- LoopbackListener --

LoopbackListener::LoopbackListener() {
  socket_ = os::CreateTcpSocket();
  std::uint32_t address = 0;
  if (socket_ == INVALID_SOCKET || os::BindAny(socket_, 0) != 0 || os::listen(socket_, 64) != 0 ||
      os::getsockname(socket_, &address, &port_) != 0) {
    CloseSocket(socket_);
  }
}

SOCKET LoopbackListener::Accept(int timeoutMs) {
  if (socket_ == INVALID_SOCKET || !Readable(socket_, timeoutMs)) return INVALID_SOCKET;
  std::uint32_t peer = 0;
  std::uint16_t peerPort = 0;
  return os::accept(socket_, &peer, &peerPort);
}

// --------------------------------------------------------------- SocketPair --

SocketPair::SocketPair() {
  LoopbackListener listener;
  client = os::CreateTcpSocket();
  if (listener.Socket() == INVALID_SOCKET || client == INVALID_SOCKET ||
      os::connect(client, os::kLoopbackAddress, listener.Port()) != 0) {
    CloseSocket(client);
    return;
  }
  server = listener.Accept(5000);
  if (server == INVALID_SOCKET) CloseSocket(client);
}

// ---------------------------------------------------------------- RawClient --

bool RawClient::Connect(unsigned short port, std::uint32_t address) {
  Close();
  socket_ = os::CreateTcpSocket();
  if (socket_ != INVALID_SOCKET && os::connect(socket_, address, port) == 0) return true;
  CloseSocket(socket_);
  return false;
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
  const std::size_t piece = static_cast<std::size_t>(std::max(pieceSize, 1));
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (at > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    if (!Send(bytes.substr(at, piece))) return false;
  }
  return true;
}

template <typename Done>
bool RawClient::FillUntil(int timeoutMs, Done done) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (socket_ == INVALID_SOCKET || peerClosed_) return false;
    if (!Readable(socket_, MsUntil(deadline))) return false;
    char buffer[4096];
    const int n = os::recv(socket_, buffer, sizeof buffer, 0);
    if (n <= 0) {
      peerClosed_ = true;
      return false;
    }
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

std::string RawClient::Take(std::size_t n) {
  std::string out = pending_.substr(0, n);
  pending_.erase(0, out.size());
  return out;
}

std::string RawClient::Receive(std::size_t n, int timeoutMs) {
  FillUntil(timeoutMs, [&] { return pending_.size() >= n; });
  return Take(n);
}

std::string RawClient::ReceiveUntil(std::string_view delimiter, int timeoutMs) {
  FillUntil(timeoutMs, [&] { return pending_.find(delimiter) != std::string::npos; });
  const std::size_t at = pending_.find(delimiter);
  return Take(at == std::string::npos ? pending_.size() : at + delimiter.size());
}

std::string RawClient::ReceiveUntilClosed(int timeoutMs) {
  FillUntil(timeoutMs, [] { return false; });
  return Take(pending_.size());
}

std::string RawClient::ReceiveAvailable(int waitMs) {
  if (pending_.empty()) FillUntil(waitMs, [&] { return !pending_.empty(); });
  // Then whatever else is already there.
  for (std::size_t size = 0; size != pending_.size();) {
    size = pending_.size();
    FillUntil(0, [&] { return pending_.size() > size; });
  }
  return Take(pending_.size());
}

bool RawClient::WaitForClose(int timeoutMs) {
  FillUntil(timeoutMs, [&] { return peerClosed_; });
  return peerClosed_;
}

std::string RawClient::ReceiveResponse(int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string out = ReceiveUntil("\r\n\r\n", timeoutMs);
  const HttpHead head = ParseHttpHead(out);
  const int status = head.status;
  if (head.size == 0 || status / 100 == 1 || status == 204 || status == 304) return out;
  if (head.chunked) {
    FillUntil(MsUntil(deadline), [&] { return ChunkedBodyLength(pending_) != std::string::npos; });
    return out + Take(std::min(ChunkedBodyLength(pending_), pending_.size()));
  }
  if (head.contentLength < 0) return out + ReceiveUntilClosed(MsUntil(deadline));
  return out + Receive(static_cast<std::size_t>(head.contentLength), MsUntil(deadline));
}

}  // namespace vxtest
