#include "origin_server.h"

#include <chrono>
#include <cstdlib>

#include "platform/platform.h"
#include "raw_client.h"

namespace vxtest {

namespace {

constexpr int kPollMs = 50;  // how often idle threads look at the stop flag

std::string StatusText(int status) {
  switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 304: return "Not Modified";
    case 307: return "Temporary Redirect";
    case 404: return "Not Found";
    default: return "Status";
  }
}

std::string StatusLine(int status) {
  return "HTTP/1.1 " + std::to_string(status) + " " + StatusText(status) + "\r\n";
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

// Length of a complete chunked body that starts at `start`, or npos while it
// is incomplete.
std::size_t ChunkedBodyLength(const std::string& data, std::size_t start) {
  std::size_t at = start;
  for (;;) {
    const std::size_t lineEnd = data.find("\r\n", at);
    if (lineEnd == std::string::npos) return std::string::npos;
    const long size = std::strtol(data.c_str() + at, nullptr, 16);
    at = lineEnd + 2;
    if (size == 0) {
      // Trailer lines, then the empty line.
      for (;;) {
        const std::size_t end = data.find("\r\n", at);
        if (end == std::string::npos) return std::string::npos;
        const bool empty = end == at;
        at = end + 2;
        if (empty) return at - start;
      }
    }
    at += static_cast<std::size_t>(size) + 2;
    if (at > data.size()) return std::string::npos;
  }
}

}  // namespace

// ---------------------------------------------------------------- replies --

OriginReply OriginReply::Counted(const std::string& body, const std::string& contentType,
                                 int status, const std::string& extraFields) {
  OriginReply r;
  r.bytes = StatusLine(status) + "Content-Type: " + contentType +
            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraFields + "\r\n" +
            body;
  return r;
}

OriginReply OriginReply::Unframed(const std::string& body, const std::string& contentType) {
  OriginReply r;
  r.bytes = StatusLine(200) + "Content-Type: " + contentType + "\r\n\r\n" + body;
  r.closeAfter = true;
  return r;
}

OriginReply OriginReply::NoBody(int status) {
  OriginReply r;
  r.bytes = StatusLine(status) + "Date: Tue, 05 Mar 2024 07:09:03 GMT\r\n\r\n";
  return r;
}

OriginReply OriginReply::Redirect(int status, const std::string& location) {
  OriginReply r;
  r.bytes = StatusLine(status) + "Location: " + location + "\r\nContent-Length: 0\r\n\r\n";
  return r;
}

OriginReply OriginReply::Image(const std::string& body, const std::string& subtype) {
  return Counted(body, "image/" + subtype);
}

OriginReply OriginReply::Chunked(const std::vector<std::string>& chunks,
                                 const std::string& contentType, const std::string& trailers) {
  OriginReply r;
  r.bytes = StatusLine(200) + "Content-Type: " + contentType +
            "\r\nTransfer-Encoding: chunked\r\n\r\n";
  char size[32];
  for (const std::string& chunk : chunks) {
    std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
    r.bytes += size + chunk + "\r\n";
  }
  r.bytes += "0\r\n" + trailers + "\r\n";
  return r;
}

OriginReply OriginReply::Raw(const std::string& bytes) {
  OriginReply r;
  r.bytes = bytes;
  return r;
}

OriginReply OriginReply::Silent() {
  OriginReply r;
  r.hold = true;
  return r;
}

OriginReply OriginReply::Hangup() {
  OriginReply r;
  r.closeAfter = true;
  return r;
}

// ----------------------------------------------------------------- server --

OriginServer::OriginServer(Script script) : script_(std::move(script)) {
  listen_ = os::CreateTcpSocket();
  if (listen_ == INVALID_SOCKET) return;
  std::uint32_t address = 0;
  if (os::BindAny(listen_, 0) != 0 || os::listen(listen_, 128) != 0 ||
      os::getsockname(listen_, &address, &port_) != 0) {
    CloseSocket(listen_);
    return;
  }
  acceptThread_ = std::thread(&OriginServer::AcceptLoop, this);
}

OriginServer::~OriginServer() { Stop(); }

void OriginServer::SetScript(Script script) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_ = std::move(script);
}

void OriginServer::Stop() {
  stopping_ = true;
  if (acceptThread_.joinable()) acceptThread_.join();
  // No new connections now; the serving threads see the flag within a poll.
  std::vector<std::thread*> threads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& c : connections_) threads.push_back(&c->thread);
  }
  for (std::thread* t : threads) {
    if (t->joinable()) t->join();
  }
  CloseSocket(listen_);
}

void OriginServer::AcceptLoop() {
  while (!stopping_) {
    const int ready = os::SelectRead(listen_, INVALID_SOCKET, 0, kPollMs * 1000L);
    if (ready <= 0) continue;
    std::uint32_t peer = 0;
    std::uint16_t peerPort = 0;
    const SOCKET s = os::accept(listen_, &peer, &peerPort);
    if (s == INVALID_SOCKET) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    auto connection = std::make_unique<Connection>();
    connection->socket = s;
    const int index = static_cast<int>(connections_.size());
    connections_.push_back(std::move(connection));
    connections_.back()->thread = std::thread(&OriginServer::Serve, this, index);
    changed_.notify_all();
  }
}

bool OriginServer::ReadMore(int index, SOCKET s, std::string& buffer) {
  while (!stopping_) {
    const int ready = os::SelectRead(s, INVALID_SOCKET, 0, kPollMs * 1000L);
    if (ready < 0) return false;
    if (ready == 0) continue;
    char chunk[4096];
    const int n = os::recv(s, chunk, sizeof chunk, 0);
    std::lock_guard<std::mutex> lock(mutex_);
    if (n <= 0) {
      connections_[static_cast<std::size_t>(index)]->closedByPeer = true;
      changed_.notify_all();
      return false;
    }
    buffer.append(chunk, static_cast<std::size_t>(n));
    connections_[static_cast<std::size_t>(index)]->received.append(chunk, static_cast<std::size_t>(n));
    changed_.notify_all();
    return true;
  }
  return false;
}

bool OriginServer::SendReply(SOCKET s, const OriginReply& reply) {
  if (reply.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
  if (reply.pieceSize <= 0) return SendAllBytes(s, reply.bytes);
  const std::size_t piece = static_cast<std::size_t>(reply.pieceSize);
  for (std::size_t at = 0; at < reply.bytes.size() && !stopping_; at += piece) {
    if (at > 0 && reply.pauseMs > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(reply.pauseMs));
    }
    if (!SendAllBytes(s, std::string_view(reply.bytes).substr(at, piece))) return false;
  }
  return true;
}

void OriginServer::Serve(int index) {
  SOCKET s;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    s = connections_[static_cast<std::size_t>(index)]->socket;
  }
  std::string pending;
  for (int requestIndex = 0;; ++requestIndex) {
    std::size_t headerEnd;
    while ((headerEnd = pending.find("\r\n\r\n")) == std::string::npos) {
      if (!ReadMore(index, s, pending)) {
        CloseSocket(s);
        return;
      }
    }
    OriginRequest request;
    request.connection = index;
    request.index = requestIndex;
    request.header = pending.substr(0, headerEnd + 4);
    const HttpHead head = ParseHttpHead(request.header);
    request.fields = head.fields;
    {
      const std::string& line = head.startLine;
      const std::size_t a = line.find(' ');
      const std::size_t b = a == std::string::npos ? std::string::npos : line.find(' ', a + 1);
      request.method = line.substr(0, a);
      if (a != std::string::npos) request.target = line.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
      if (b != std::string::npos) request.version = line.substr(b + 1);
    }

    std::size_t bodySize = 0;
    const auto coding = head.fields.find("transfer-encoding");
    const auto length = head.fields.find("content-length");
    if (coding != head.fields.end() && Lower(coding->second) == "chunked") {
      while ((bodySize = ChunkedBodyLength(pending, request.header.size())) == std::string::npos) {
        if (!ReadMore(index, s, pending)) {
          CloseSocket(s);
          return;
        }
      }
    } else if (length != head.fields.end()) {
      bodySize = static_cast<std::size_t>(std::atol(length->second.c_str()));
      while (pending.size() < request.header.size() + bodySize) {
        if (!ReadMore(index, s, pending)) {
          CloseSocket(s);
          return;
        }
      }
    }
    request.body = pending.substr(request.header.size(), bodySize);
    request.raw = pending.substr(0, request.header.size() + bodySize);
    pending.erase(0, request.raw.size());

    Script script;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      script = script_;
    }
    const OriginReply reply = script ? script(request) : OriginReply::Counted("hello");
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
      changed_.notify_all();
    }

    if (reply.hold) {
      std::string ignored;
      while (ReadMore(index, s, ignored)) {
      }
      CloseSocket(s);
      return;
    }
    if (!SendReply(s, reply) || reply.closeAfter) {
      CloseSocket(s);
      return;
    }
  }
}

template <typename Pred>
bool OriginServer::WaitFor(int timeoutMs, Pred pred) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), pred);
}

int OriginServer::ConnectionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(connections_.size());
}

int OriginServer::RequestCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(requests_.size());
}

std::string OriginServer::Received(int connection) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (connection < 0 || connection >= static_cast<int>(connections_.size())) return "";
  return connections_[static_cast<std::size_t>(connection)]->received;
}

std::vector<OriginRequest> OriginServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool OriginServer::IsClosedByPeer(int connection) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (connection < 0 || connection >= static_cast<int>(connections_.size())) return false;
  return connections_[static_cast<std::size_t>(connection)]->closedByPeer;
}

bool OriginServer::WaitForConnections(int count, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] { return static_cast<int>(connections_.size()) >= count; });
}

bool OriginServer::WaitForRequests(int count, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] { return static_cast<int>(requests_.size()) >= count; });
}

bool OriginServer::WaitForBytes(int connection, std::size_t bytes, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] {
    return connection >= 0 && connection < static_cast<int>(connections_.size()) &&
           connections_[static_cast<std::size_t>(connection)]->received.size() >= bytes;
  });
}

bool OriginServer::WaitForPeerClose(int connection, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] {
    return connection >= 0 && connection < static_cast<int>(connections_.size()) &&
           connections_[static_cast<std::size_t>(connection)]->closedByPeer;
  });
}

}  // namespace vxtest
