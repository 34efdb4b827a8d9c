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
#include <map>
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
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  bool IsOpen() const { return socket_ != INVALID_SOCKET; }
  unsigned short Port() const { return port_; }
  SOCKET Socket() const { return socket_; }
  // The next connection, or INVALID_SOCKET when none arrives in time.
  SOCKET Accept(int timeoutMs);
  void Close();

 private:
  SOCKET socket_ = INVALID_SOCKET;
  unsigned short port_ = 0;
};

// Two connected loopback sockets: `client` made the connection, `server` was
// accepted. Both are owned by the pair and closed by its destructor unless
// released (set to INVALID_SOCKET) first.
struct SocketPair {
  SocketPair();
  ~SocketPair();
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  bool IsOpen() const { return client != INVALID_SOCKET && server != INVALID_SOCKET; }

  SOCKET client = INVALID_SOCKET;
  SOCKET server = INVALID_SOCKET;
};

// Sends the whole text; false on a send error.
bool SendAllBytes(SOCKET s, std::string_view bytes);

// One HTTP message header split up: start line, fields (lower-case name ->
// trimmed value; the last of repeated fields wins) and the header's size
// including the blank line. Empty start line when the text holds no blank line.
struct HttpHead {
  std::string startLine;  // without CRLF
  std::map<std::string, std::string> fields;
  int status = 0;         // for responses: the number after the version
  std::size_t size = 0;
};
HttpHead ParseHttpHead(std::string_view message);

class RawClient {
 public:
  RawClient() = default;
  explicit RawClient(SOCKET adopted) : socket_(adopted) {}
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool Connect(unsigned short port, std::uint32_t address = os::kLoopbackAddress);
  bool IsConnected() const { return socket_ != INVALID_SOCKET; }
  SOCKET Socket() const { return socket_; }
  // Gives up ownership of the socket.
  SOCKET Release();
  void Close();

  bool Send(std::string_view bytes);
  // Sends in pieces of pieceSize bytes with a pause between them (one byte
  // at a time: pieceSize 1).
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
  // Content-Length, chunked coding, or the close of the connection. A
  // response to HEAD, a 1xx, 204 or 304 has no body.
  std::string ReceiveResponse(int timeoutMs, bool toHead = false);
  // True when the peer has closed the connection within the time (bytes
  // that arrive first are kept for the next read).
  bool WaitForClose(int timeoutMs);
  bool PeerClosed() const { return peerClosed_; }

 private:
  // Reads more into pending_; false on time-out, close or error.
  bool Fill(int timeoutMs);
  std::string Take(std::size_t n);

  SOCKET socket_ = INVALID_SOCKET;
  std::string pending_;
  bool peerClosed_ = false;
};

}  // namespace vxtest
