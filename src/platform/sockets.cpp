// IPv4 TCP sockets with Winsock's calling conventions on top of BSD sockets.
//
// The proxy ends a blocked session by closing its sockets from another
// thread. Closing a descriptor under a thread that still sleeps in a call on
// it would let the number be reused by the next socket, so every call marks
// the socket busy while it runs: closesocket shuts the connection down (which
// wakes select, recv, accept and a pending connect) and the descriptor itself
// is closed by whoever leaves it last.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "platform/platform.h"

namespace os {
namespace {

thread_local int t_lastError = 0;

std::atomic<int> g_startupCount{0};

int Fail(int error) {
  t_lastError = error;
  return SOCKET_ERROR;
}

int FailWithErrno() { return Fail(errno); }

// Descriptors with calls in flight or a close pending.
struct SocketUse {
  int busy = 0;
  bool closing = false;
};

// The records are spread over shards by descriptor, so that the sessions'
// calls on their own sockets do not all queue for one lock.
struct UseShard {
  std::mutex lock;
  std::unordered_map<int, SocketUse> uses;
  // Descriptors shut down by shutdown() and not closed yet; a connect on one
  // of them fails instead of starting.
  std::unordered_set<int> shut;
};
constexpr int kUseShards = 64;
UseShard g_shards[kUseShards];

UseShard& ShardOf(int fd) { return g_shards[fd % kUseShards]; }

int ToFd(SOCKET s) {
  if (s == INVALID_SOCKET || s > static_cast<SOCKET>(INT_MAX)) return -1;
  return static_cast<int>(s);
}

// Marks a socket busy for the length of one call; fd() is -1 when the socket
// is invalid or already being closed.
class SocketCall {
 public:
  explicit SocketCall(SOCKET s) : fd_(ToFd(s)) {
    if (fd_ < 0) return;
    UseShard& shard = ShardOf(fd_);
    std::lock_guard<std::mutex> guard(shard.lock);
    SocketUse& use = shard.uses[fd_];
    if (use.closing) {
      fd_ = -1;
      return;
    }
    ++use.busy;
  }
  ~SocketCall() {
    if (fd_ < 0) return;
    const int saved = errno;
    UseShard& shard = ShardOf(fd_);
    std::lock_guard<std::mutex> guard(shard.lock);
    auto it = shard.uses.find(fd_);
    if (it != shard.uses.end() && --it->second.busy == 0) {
      if (it->second.closing) ::close(fd_);
      shard.uses.erase(it);
    }
    errno = saved;
  }
  SocketCall(const SocketCall&) = delete;
  SocketCall& operator=(const SocketCall&) = delete;

  int fd() const { return fd_; }

 private:
  int fd_;
};

void ToSockaddr(std::uint32_t address, std::uint16_t port, sockaddr_in* out) {
  std::memset(out, 0, sizeof(*out));
  out->sin_family = AF_INET;
  out->sin_addr.s_addr = htonl(address);
  out->sin_port = htons(port);
}

void FromSockaddr(const sockaddr_in& in, std::uint32_t* address, std::uint16_t* port) {
  if (address) *address = ntohl(in.sin_addr.s_addr);
  if (port) *port = ntohs(in.sin_port);
}

}  // namespace

int WSAStartup() {
  g_startupCount.fetch_add(1);
  return 0;
}

int WSACleanup() {
  int count = g_startupCount.load();
  while (count > 0) {
    if (g_startupCount.compare_exchange_weak(count, count - 1)) return 0;
  }
  // Cleaning up more often than starting up is an error, as on Winsock.
  return Fail(EINVAL);
}

int SocketStartupCount() { return g_startupCount.load(); }

int WSAGetLastError() { return t_lastError; }

// The proxy writes a message in several pieces (status line, header, body);
// with Nagle's algorithm a piece would wait for the peer's delayed ACK.
static void DisableNagle(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

SOCKET CreateTcpSocket() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    FailWithErrno();
    return INVALID_SOCKET;
  }
  DisableNagle(fd);
  return static_cast<SOCKET>(fd);
}

int closesocket(SOCKET s) {
  const int fd = ToFd(s);
  if (fd < 0) return Fail(EBADF);
  UseShard& shard = ShardOf(fd);
  std::lock_guard<std::mutex> guard(shard.lock);
  auto it = shard.uses.find(fd);
  if (it != shard.uses.end() && it->second.closing) return Fail(EBADF);
  shard.shut.erase(fd);
  if (it != shard.uses.end()) {
    // Calls are still running on it: wake them and let the last one close.
    it->second.closing = true;
    ::shutdown(fd, SHUT_RDWR);
    return 0;
  }
  // Closed under the lock so that no call can start on the number between
  // the check above and the close.
  ::shutdown(fd, SHUT_RDWR);
  if (::close(fd) != 0) return FailWithErrno();
  return 0;
}

int shutdown(SOCKET s) {
  const int fd = ToFd(s);
  if (fd < 0) return Fail(EBADF);
  UseShard& shard = ShardOf(fd);
  std::lock_guard<std::mutex> guard(shard.lock);
  auto it = shard.uses.find(fd);
  if (it != shard.uses.end() && it->second.closing) return Fail(EBADF);
  shard.shut.insert(fd);
  // A socket that is not connected yet reports ENOTCONN; the mark covers it.
  ::shutdown(fd, SHUT_RDWR);
  return 0;
}

int ShutdownSend(SOCKET s) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  if (::shutdown(call.fd(), SHUT_WR) != 0) return FailWithErrno();
  return 0;
}

int BindAny(SOCKET s, std::uint16_t port) { return Bind(s, INADDR_ANY, port); }

int Bind(SOCKET s, std::uint32_t host, std::uint16_t port) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  // Lets a restarted service take its port back while connections of the
  // previous run linger in TIME_WAIT; two live listeners still conflict.
  const int on = 1;
  ::setsockopt(call.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address;
  ToSockaddr(host, port, &address);
  if (::bind(call.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return FailWithErrno();
  }
  return 0;
}

int listen(SOCKET s, int backlog) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  if (::listen(call.fd(), backlog) != 0) return FailWithErrno();
  return 0;
}

SOCKET accept(SOCKET s, std::uint32_t* peerAddress, std::uint16_t* peerPort) {
  SocketCall call(s);
  if (call.fd() < 0) {
    Fail(EBADF);
    return INVALID_SOCKET;
  }
  sockaddr_in peer;
  socklen_t length = sizeof(peer);
  int fd;
  do {
    length = sizeof(peer);
    fd = ::accept4(call.fd(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    FailWithErrno();
    return INVALID_SOCKET;
  }
  DisableNagle(fd);
  FromSockaddr(peer, peerAddress, peerPort);
  return static_cast<SOCKET>(fd);
}

int getsockname(SOCKET s, std::uint32_t* address, std::uint16_t* port) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  sockaddr_in local;
  socklen_t length = sizeof(local);
  if (::getsockname(call.fd(), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    return FailWithErrno();
  }
  if (local.sin_family != AF_INET) return Fail(EAFNOSUPPORT);
  FromSockaddr(local, address, port);
  return 0;
}

int getpeername(SOCKET s, std::uint32_t* address, std::uint16_t* port) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  sockaddr_in peer;
  socklen_t length = sizeof(peer);
  if (::getpeername(call.fd(), reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
    return FailWithErrno();
  }
  if (peer.sin_family != AF_INET) return Fail(EAFNOSUPPORT);
  FromSockaddr(peer, address, port);
  return 0;
}

namespace {

bool IsShut(int fd) {
  UseShard& shard = ShardOf(fd);
  std::lock_guard<std::mutex> guard(shard.lock);
  return shard.shut.count(fd) != 0;
}

// Waits for a connect in progress; 0 or the error it ended with.
int WaitForConnect(int fd) {
  // Checked after the connect began: a shutdown from now on reaches the
  // pending connection and wakes the poll, an earlier one is seen here.
  if (IsShut(fd)) return ECONNABORTED;
  pollfd entry{fd, POLLOUT, 0};
  while (::poll(&entry, 1, -1) < 0) {
    if (errno != EINTR) return errno;
  }
  int error = 0;
  socklen_t length = sizeof(error);
  ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  if (error == 0 && IsShut(fd)) error = ECONNABORTED;
  return error;
}

}  // namespace

int connect(SOCKET s, std::uint32_t address, std::uint16_t port) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  sockaddr_in target;
  ToSockaddr(address, port, &target);
  // Started without blocking so that a shutdown from another thread cannot
  // slip in between the start of the connect and the wait for it.
  const int flags = ::fcntl(call.fd(), F_GETFL);
  ::fcntl(call.fd(), F_SETFL, flags | O_NONBLOCK);
  int error = 0;
  if (::connect(call.fd(), reinterpret_cast<const sockaddr*>(&target), sizeof(target)) != 0) {
    error = errno;
    if (error == EINPROGRESS || error == EINTR) error = WaitForConnect(call.fd());
  }
  ::fcntl(call.fd(), F_SETFL, flags);
  return error == 0 ? 0 : Fail(error);
}

int send(SOCKET s, const char* data, int length) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  if (length < 0) return Fail(EINVAL);
  ssize_t sent;
  // MSG_NOSIGNAL: a peer that went away must give an error, not SIGPIPE.
  do {
    sent = ::send(call.fd(), data, static_cast<size_t>(length), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return FailWithErrno();
  return static_cast<int>(sent);
}

int recv(SOCKET s, char* buffer, int length, int flags) {
  SocketCall call(s);
  if (call.fd() < 0) return Fail(EBADF);
  if (length < 0) return Fail(EINVAL);
  const int nativeFlags = (flags & MSG_PEEK_FLAG) ? MSG_PEEK : 0;
  ssize_t received;
  do {
    received = ::recv(call.fd(), buffer, static_cast<size_t>(length), nativeFlags);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return FailWithErrno();
  return static_cast<int>(received);
}

int SelectRead(SOCKET first, SOCKET second, long seconds, long microseconds) {
  long long timeoutMs = 0;
  if (seconds > 0) timeoutMs = static_cast<long long>(seconds) * 1000;
  if (microseconds > 0) timeoutMs += (microseconds + 999) / 1000;
  if (timeoutMs > INT_MAX) timeoutMs = INT_MAX;

  SocketCall firstCall(first);
  SocketCall secondCall(second);
  if ((first != INVALID_SOCKET && firstCall.fd() < 0) ||
      (second != INVALID_SOCKET && secondCall.fd() < 0)) {
    return Fail(EBADF);
  }
  pollfd entries[2];
  int firstIndex = -1;
  int secondIndex = -1;
  nfds_t count = 0;
  if (firstCall.fd() >= 0) {
    firstIndex = static_cast<int>(count);
    entries[count++] = pollfd{firstCall.fd(), POLLIN, 0};
  }
  if (secondCall.fd() >= 0) {
    secondIndex = static_cast<int>(count);
    entries[count++] = pollfd{secondCall.fd(), POLLIN, 0};
  }
  // A wait on no socket at all is an error, as select with empty sets is on
  // Winsock: the accept loop ends this way once its socket has been closed.
  if (count == 0) return Fail(EINVAL);
  // poll rather than select: descriptors above FD_SETSIZE stay usable.
  int ready;
  do {
    ready = ::poll(entries, count, static_cast<int>(timeoutMs));
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) return FailWithErrno();
  if (ready == 0) return 0;

  // As with select, a socket at end of file or in error counts as readable:
  // the next recv reports what happened.
  constexpr short kReadable = POLLIN | POLLHUP | POLLERR | POLLRDHUP;
  int result = 0;
  for (int i = 0; i < static_cast<int>(count); ++i) {
    if (entries[i].revents & POLLNVAL) return Fail(EBADF);
    if (entries[i].revents & kReadable) result |= (i == firstIndex) ? 1 : (i == secondIndex ? 2 : 0);
  }
  return result;
}

bool gethostbyname(const char* name, std::vector<std::uint32_t>* addresses) {
  if (addresses) addresses->clear();
  if (name == nullptr || *name == '\0') {
    t_lastError = EINVAL;
    return false;
  }
  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int rc = ::getaddrinfo(name, nullptr, &hints, &found);
  if (rc != 0 || found == nullptr) {
    t_lastError = (rc == EAI_SYSTEM) ? errno : EHOSTUNREACH;
    return false;
  }
  for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET || entry->ai_addr == nullptr) continue;
    const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
    const std::uint32_t address = ntohl(in->sin_addr.s_addr);
    if (addresses) {
      bool seen = false;
      for (std::uint32_t known : *addresses) seen = seen || known == address;
      if (!seen) addresses->push_back(address);
    }
  }
  ::freeaddrinfo(found);
  return addresses == nullptr || !addresses->empty();
}

std::uint32_t inet_addr(const char* text) {
  if (text == nullptr) return INADDR_NONE_VALUE;
  in_addr parsed;
  if (::inet_aton(text, &parsed) == 0) return INADDR_NONE_VALUE;
  return ntohl(parsed.s_addr);
}

std::string inet_ntoa(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  in_addr in;
  in.s_addr = htonl(address);
  if (::inet_ntop(AF_INET, &in, text, sizeof(text)) == nullptr) return std::string();
  return text;
}

int gethostname(char* buffer, int size) {
  if (buffer == nullptr || size <= 0) return Fail(EFAULT);
  if (::gethostname(buffer, static_cast<size_t>(size)) != 0) return FailWithErrno();
  // A name that filled the buffer may come back without its terminator.
  if (std::memchr(buffer, '\0', static_cast<size_t>(size)) == nullptr) return Fail(EFAULT);
  return 0;
}

std::vector<std::uint32_t> InterfaceAddresses() {
  std::vector<std::uint32_t> addresses;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return addresses;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    addresses.push_back(ntohl(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr));
  }
  ::freeifaddrs(list);
  return addresses;
}

bool IsOwnAddress(std::uint32_t address) {
  if ((address >> 24) == 127 || address == INADDR_ANY) return true;
  const std::vector<std::uint32_t> own = InterfaceAddresses();
  return std::find(own.begin(), own.end(), address) != own.end();
}

}  // namespace os
