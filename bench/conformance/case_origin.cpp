#include "conformance/case_origin.h"

#include <algorithm>

namespace conformance {
namespace {

constexpr long kPollMicroseconds = 50000;

std::string PathOf(const std::string& target) {
  if (target.compare(0, 7, "http://") != 0) return target;
  const std::size_t slash = target.find('/', 7);
  return slash == std::string::npos ? "/" : target.substr(slash);
}

}  // namespace

CaseOrigin::CaseOrigin(std::vector<std::string> replies) : replies_(std::move(replies)) {
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

CaseOrigin::~CaseOrigin() {
  stop_ = true;
  acceptor_.join();
  for (auto& c : connections_) os::shutdown(c->socket);
  for (auto& c : connections_) {
    c->thread.join();
    vxtest::CloseSocket(c->socket);
  }
}

void CaseOrigin::AcceptLoop() {
  while (!stop_) {
    if (os::SelectRead(listener_.Socket(), INVALID_SOCKET, 0, kPollMicroseconds) <= 0) continue;
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    const SOCKET s = os::accept(listener_.Socket(), &address, &port);
    if (s == INVALID_SOCKET) continue;
    std::lock_guard<std::mutex> guard(lock_);
    auto connection = std::make_unique<Connection>();
    connection->socket = s;
    ++seen_.connections;
    connection->thread = std::thread([this, s] { Serve(s); });
    connections_.push_back(std::move(connection));
  }
}

std::string CaseOrigin::NextReply(const WireRequest& request) {
  std::lock_guard<std::mutex> guard(lock_);
  seen_.requests.push_back(request);
  if (!replies_.empty()) return replies_[std::min(seen_.requests.size(), replies_.size()) - 1];
  const std::string body = PathOf(request.target);
  return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

void CaseOrigin::Serve(SOCKET s) {
  std::string pending;
  bool refused = false;  // answered 400: what still comes is only recorded
  char buffer[16384];
  while (!stop_) {
    const int ready = os::SelectRead(s, INVALID_SOCKET, 0, kPollMicroseconds);
    if (ready < 0) return;
    if (ready == 0) continue;
    const int n = os::recv(s, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    {
      std::lock_guard<std::mutex> guard(lock_);
      seen_.raw.append(buffer, static_cast<std::size_t>(n));
    }
    if (refused) continue;
    pending.append(buffer, static_cast<std::size_t>(n));
    while (!pending.empty()) {
      WireRequest request;
      std::size_t used = 0;
      std::string why;
      const Read r = ReadRequest(pending, &request, &used, &why);
      if (r == Read::kIncomplete) break;
      if (r == Read::kInvalid) {
        {
          std::lock_guard<std::mutex> guard(lock_);
          if (seen_.invalid.empty()) seen_.invalid = why;
        }
        vxtest::SendAllBytes(
            s, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        refused = true;
        break;
      }
      pending.erase(0, used);
      const std::string reply = NextReply(request);
      if (reply == "hangup") {
        os::shutdown(s);
        return;
      }
      const bool close = reply.compare(0, 6, "close ") == 0;
      vxtest::SendAllBytes(s, close ? std::string_view(reply).substr(6) : std::string_view(reply));
      if (close) {
        os::shutdown(s);
        return;
      }
    }
  }
}

OriginSeen CaseOrigin::Seen() {
  std::lock_guard<std::mutex> guard(lock_);
  return seen_;
}

}  // namespace conformance
