#include "origin_server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>

#include "platform/platform.h"
#include "raw_client.h"

namespace vxtest {

namespace {

constexpr int kPollMs = 50;  // how often idle threads look at the stop flag

std::string StatusLine(int status) {
  static const std::map<int, std::string> kTexts = {
      {200, "OK"},        {204, "No Content"},   {301, "Moved Permanently"},  {302, "Found"},
      {303, "See Other"}, {304, "Not Modified"}, {307, "Temporary Redirect"}, {404, "Not Found"}};
  const auto text = kTexts.find(status);
  const std::string reason = text == kTexts.end() ? "Status" : text->second;
  return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
}

}  // namespace

// ---------------------------------------------------------------- replies --

OriginReply OriginReply::Counted(const std::string& body, const std::string& contentType,
                                 int status, const std::string& extraFields) {
  return {StatusLine(status) + "Content-Type: " + contentType + "\r\nContent-Length: " +
          std::to_string(body.size()) + "\r\n" + extraFields + "\r\n" + body};
}

OriginReply OriginReply::Unframed(const std::string& body, const std::string& contentType) {
  return {StatusLine(200) + "Content-Type: " + contentType + "\r\n\r\n" + body, true};
}

OriginReply OriginReply::NoBody(int status) {
  return {StatusLine(status) + "Date: Tue, 05 Mar 2024 07:09:03 GMT\r\n\r\n"};
}

OriginReply OriginReply::Redirect(int status, const std::string& location) {
  return {StatusLine(status) + "Location: " + location + "\r\nContent-Length: 0\r\n\r\n"};
}

OriginReply OriginReply::Image(const std::string& body, const std::string& subtype) {
  return Counted(body, "image/" + subtype);
}

OriginReply OriginReply::Chunked(const std::vector<std::string>& chunks,
                                 const std::string& contentType, const std::string& trailers) {
  OriginReply r{StatusLine(200) + "Content-Type: " + contentType +
                "\r\nTransfer-Encoding: chunked\r\n\r\n"};
  char size[32];
  for (const std::string& chunk : chunks) {
    std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
    r.bytes += size + chunk + "\r\n";
  }
  r.bytes += "0\r\n" + trailers + "\r\n";
  return r;
}

// ----------------------------------------------------------------- server --

OriginServer::OriginServer(Script script) : script_(std::move(script)) {
  listen_ = os::CreateTcpSocket();
  std::uint32_t address = 0;
  if (listen_ == INVALID_SOCKET || os::BindAny(listen_, 0) != 0 || os::listen(listen_, 128) != 0 ||
      os::getsockname(listen_, &address, &port_) != 0) {
    CloseSocket(listen_);
    return;
  }
  acceptThread_ = std::thread(&OriginServer::AcceptLoop, this);
}

void OriginServer::SetScript(Script script) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_ = std::move(script);
}

void OriginServer::Stop() {
  stopping_ = true;
  if (acceptThread_.joinable()) acceptThread_.join();
  // No new connections now; the serving threads see the flag within a poll.
  for (auto& c : connections_) {
    if (c->thread.joinable()) c->thread.join();
  }
  CloseSocket(listen_);
}

void OriginServer::AcceptLoop() {
  while (!stopping_) {
    if (os::SelectRead(listen_, INVALID_SOCKET, 0, kPollMs * 1000L) <= 0) continue;
    std::uint32_t peer = 0;
    std::uint16_t peerPort = 0;
    const SOCKET s = os::accept(listen_, &peer, &peerPort);
    if (s == INVALID_SOCKET) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(std::make_unique<Connection>());
    Connection* c = connections_.back().get();
    c->socket = s;
    c->thread = std::thread(&OriginServer::Serve, this, c);
    changed_.notify_all();
  }
}

bool OriginServer::ReadMore(Connection* c, std::string& buffer) {
  while (!stopping_) {
    const int ready = os::SelectRead(c->socket, INVALID_SOCKET, 0, kPollMs * 1000L);
    if (ready < 0) return false;
    if (ready == 0) continue;
    char chunk[4096];
    const int n = os::recv(c->socket, chunk, sizeof chunk, 0);
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
    if (n <= 0) {
      c->closedByPeer = true;
      return false;
    }
    buffer.append(chunk, static_cast<std::size_t>(n));
    c->received.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
  return false;
}

void OriginServer::Serve(Connection* c) {
  std::string pending;
  // Reads until `size` of the pending bytes make a whole part; false when
  // the connection ends first.
  auto readUntil = [&](const std::function<std::size_t()>& size) {
    while (size() == std::string::npos) {
      if (!ReadMore(c, pending)) return false;
    }
    return true;
  };
  for (;;) {
    OriginRequest request;
    HttpHead head;
    if (!readUntil([&] {
          head = ParseHttpHead(pending);
          return head.size == 0 ? std::string::npos : head.size;
        })) {
      break;
    }
    request.header = pending.substr(0, head.size);
    const std::string& line = head.startLine;
    const std::size_t space = std::min(line.size(), line.find(' '));
    request.method = line.substr(0, space);
    request.target = line.substr(std::min(line.size(), space + 1));
    request.target.erase(std::min(request.target.size(), request.target.find(' ')));

    std::size_t bodySize = 0;
    if (!readUntil([&] {
          if (head.chunked) {
            return bodySize = ChunkedBodyLength(std::string_view(pending).substr(head.size));
          }
          bodySize = static_cast<std::size_t>(std::max(0L, head.contentLength));
          return pending.size() < head.size + bodySize ? std::string::npos : bodySize;
        })) {
      break;
    }
    request.body = pending.substr(head.size, bodySize);
    pending.erase(0, head.size + bodySize);

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
      while (ReadMore(c, pending)) {
      }
      break;
    }
    if (!SendAllBytes(c->socket, reply.bytes)) break;
    if (reply.closeAfter) {
      if (reply.closeDelayMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(reply.closeDelayMs));
      }
      break;
    }
  }
  CloseSocket(c->socket);
}

bool OriginServer::WaitFor(int timeoutMs, const std::function<bool()>& done) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
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

bool OriginServer::WaitForConnections(int count, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] { return static_cast<int>(connections_.size()) >= count; });
}

bool OriginServer::WaitForRequests(int count, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] { return static_cast<int>(requests_.size()) >= count; });
}

bool OriginServer::WaitForPeerClose(int connection, int timeoutMs) const {
  return WaitFor(timeoutMs, [&] {
    return connection >= 0 && connection < static_cast<int>(connections_.size()) &&
           connections_[static_cast<std::size_t>(connection)]->closedByPeer;
  });
}

}  // namespace vxtest
