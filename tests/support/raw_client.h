// Raw loopback sockets for tests: a listener on a free port, a connected
// socket pair, and a client that sends exact bytes and reads back exactly
// what arrives (by count, up to a delimiter, a whole HTTP response, or until
// the peer closes). Every read has a time-out so a failing test never hangs.
//
//   vxtest::RawClient client;
//   ASSERT_TRUE(client.Connect(proxyPort));
//   client.Send("GET http://h/ HTTP/1.1\r\nHost: h\r\n\r\n");
//   std::string reply = client.ReceiveResponse(5000);
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/platform.h"
#include "vxproxy/types.h"

namespace vxtest {

// Closes the socket if valid and sets it to INVALID_SOCKET.
void CloseSocket(SOCKET& s);

// A listening socket on a port the system chooses.
class LoopbackListener {
 public:
  LoopbackListener();
  ~LoopbackListener() { Close(); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  unsigned short Port() const { return port_; }
  SOCKET Socket() const { return socket_; }
  // The next connection, or INVALID_SOCKET when none arrives in time.
  SOCKET Accept(int timeoutMs);
  void Close() { CloseSocket(socket_); }

 private:
  SOCKET socket_ = INVALID_SOCKET;
  unsigned short port_ = 0;
};

// Two connected loopback sockets: `client` made the connection, `server` was
// accepted. Both are owned by the pair and closed by its destructor unless
// released (set to INVALID_SOCKET) first.
struct SocketPair {
  SocketPair();
  ~SocketPair() {
    CloseSocket(client);
    CloseSocket(server);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  bool IsOpen() const { return client != INVALID_SOCKET && server != INVALID_SOCKET; }

  SOCKET client = INVALID_SOCKET;
  SOCKET server = INVALID_SOCKET;
};

// Sends the whole text; false on a send error.
bool SendAllBytes(SOCKET s, std::string_view bytes);

// One HTTP message header: its start line (without CRLF), the framing its
// fields ask for, and its size including the blank line (0 while the blank
// line has not arrived).
struct HttpHead {
  std::string startLine;
  int status = 0;            // for responses: the number after the version
  long contentLength = -1;   // -1: no Content-Length field
  bool chunked = false;      // Transfer-Encoding: chunked
  std::size_t size = 0;
};
HttpHead ParseHttpHead(std::string_view message);
// Size of the chunked body data starts with, trailers and the final blank
// line included; npos while it is incomplete.
std::size_t ChunkedBodyLength(std::string_view data);

class RawClient {
 public:
  RawClient() = default;
  explicit RawClient(SOCKET adopted) : socket_(adopted) {}
  ~RawClient() { Close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool Connect(unsigned short port, std::uint32_t address = os::kLoopbackAddress);
  // Gives up ownership of the socket.
  SOCKET Release();
  void Close();

  bool Send(std::string_view bytes);
  // Sends in pieces of pieceSize bytes with a pause between them.
  bool SendSlowly(std::string_view bytes, int pieceSize, int pauseMs);

  // Exactly n bytes, or fewer when the peer closes or time runs out.
  std::string Receive(std::size_t n, int timeoutMs);
  // Up to and including the delimiter; whatever arrived when the peer closes
  // or time runs out.
  std::string ReceiveUntil(std::string_view delimiter, int timeoutMs);
  // Everything until the peer closes (or time runs out).
  std::string ReceiveUntilClosed(int timeoutMs);
  // What arrives within waitMs (nothing buffered: an empty string).
  std::string ReceiveAvailable(int waitMs);
  // One whole HTTP response: the header, then a body framed by
  // Content-Length, chunked coding, or the close of the connection. A 1xx,
  // 204 or 304 response has no body.
  std::string ReceiveResponse(int timeoutMs);
  // True when the peer has closed the connection within the time (bytes
  // that arrive first are kept for the next read).
  bool WaitForClose(int timeoutMs);
  bool PeerClosed() const { return peerClosed_; }

 private:
  // Reads more into pending_ until done() or the deadline; false when time
  // ran out or the connection ended first.
  template <typename Done>
  bool FillUntil(int timeoutMs, Done done);
  std::string Take(std::size_t n);

  SOCKET socket_ = INVALID_SOCKET;
  std::string pending_;
  bool peerClosed_ = false;
};

}  // namespace vxtest
