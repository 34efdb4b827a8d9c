#include "soak/threaded_server.h"

#include <algorithm>
#include <chrono>

#include "platform/platform.h"

namespace soak {

namespace {

constexpr int kSliceMs = 100;  // how often a waiting thread looks at the stop flag

}  // namespace

bool ThreadedServer::Start() {
  listen_ = os::CreateTcpSocket();
  std::uint32_t address = 0;
  if (listen_ == INVALID_SOCKET || os::Bind(listen_, os::kLoopbackAddress, 0) != 0 ||
      os::listen(listen_, 512) != 0 || os::getsockname(listen_, &address, &port_) != 0) {
    if (listen_ != INVALID_SOCKET) os::closesocket(listen_);
    listen_ = INVALID_SOCKET;
    return false;
  }
  acceptThread_ = std::thread(&ThreadedServer::AcceptLoop, this);
  return true;
}

bool ThreadedServer::Stop(int timeoutMs) {
  stopping_ = true;
  if (acceptThread_.joinable()) acceptThread_.join();
  if (listen_ != INVALID_SOCKET) os::closesocket(listen_);
  listen_ = INVALID_SOCKET;
  std::unique_lock<std::mutex> lock(mutex_);
  for (const SOCKET s : open_) os::shutdown(s);
  return ended_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return open_.empty(); });
}

void ThreadedServer::AcceptLoop() {
  while (!stopping_) {
    if (os::SelectRead(listen_, INVALID_SOCKET, 0, kSliceMs * 1000L) <= 0) continue;
    std::uint32_t peer = 0;
    std::uint16_t peerPort = 0;
    const SOCKET s = os::accept(listen_, &peer, &peerPort);
    if (s == INVALID_SOCKET) continue;
    ++accepted_;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_.insert(s);
    }
    // Detached: Stop waits for open_ to empty instead of joining.
    std::thread(&ThreadedServer::RunConnection, this, s).detach();
  }
}

void ThreadedServer::RunConnection(SOCKET s) {
  Serve(s);
  // Closed under the lock, so that Stop never shuts down a handle already closed.
  std::lock_guard<std::mutex> lock(mutex_);
  open_.erase(s);
  os::closesocket(s);
  ended_.notify_all();
}

bool ThreadedServer::Pause(int ms) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!stopping_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::min<long long>(left.count(), kSliceMs)));
  }
  return false;
}

bool ThreadedServer::WaitReadable(SOCKET s, int timeoutMs) const {
  for (int waited = 0; waited < timeoutMs && !stopping_; waited += kSliceMs) {
    const int ready = os::SelectRead(s, INVALID_SOCKET, 0, kSliceMs * 1000L);
    if (ready < 0) return false;
    if (ready > 0) return true;
  }
  return false;
}

bool ThreadedServer::ReadSome(SOCKET s, std::string& buffer) {
  char chunk[16384];
  const int n = os::recv(s, chunk, sizeof chunk, 0);
  if (n <= 0) return false;
  buffer.append(chunk, static_cast<std::size_t>(n));
  return true;
}

}  // namespace soak
