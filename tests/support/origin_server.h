// A real origin HTTP server on the loopback interface for tests.
//
// It accepts any number of connections, each served by its own thread,
// records every byte received per connection exactly as it came, splits the
// stream into requests (header, then a body framed by Content-Length or
// chunked coding) and answers each request with the reply a script returns:
// exact bytes, then keep or close the connection, or silence.
//
//   vxtest::OriginServer origin([](const vxtest::OriginRequest& r) {
//     return r.target == "/ad.png" ? vxtest::OriginReply::Image("PNGDATA")
//                                  : vxtest::OriginReply::Counted("hello");
//   });
//   ... send requests to 127.0.0.1:origin.Port() ...
//   ASSERT_TRUE(origin.WaitForRequests(1, 5000));
//   EXPECT_EQ(origin.Received(0), "GET /ad.png HTTP/1.1\r\nHost: ...\r\n\r\n");
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/winnames.h"

namespace vxtest {

// One request as the server received it.
struct OriginRequest {
  std::string header;  // up to and including the blank line
  std::string method, target;
  std::string body;    // as received: a chunked body keeps its framing
};

// What to send back, and how.
struct OriginReply {
  std::string bytes;         // sent exactly as given
  bool closeAfter = false;   // close the connection once sent
  bool hold = false;         // send nothing and answer nothing more; keep the
                             // connection open (still recording what arrives)
                             // until the peer closes or the server stops
  int closeDelayMs = 0;      // with closeAfter: close this long after sending,
                             // dropping what arrives meanwhile (a server's idle
                             // close racing with the client's next request)

  // 200 (or status) with Content-Length.
  static OriginReply Counted(const std::string& body, const std::string& contentType = "text/html",
                             int status = 200, const std::string& extraFields = "");
  // No Content-Length, no chunking: the body ends when the server closes.
  static OriginReply Unframed(const std::string& body,
                              const std::string& contentType = "text/html");
  // A header only, without Content-Length (204, 304, ...).
  static OriginReply NoBody(int status);
  // 301/302/303/307 with a Location and an empty counted body.
  static OriginReply Redirect(int status, const std::string& location);
  // An image: Content-Type image/<subtype>, counted body.
  static OriginReply Image(const std::string& body, const std::string& subtype = "png");
  // Chunked coding of the given pieces (each a chunk), then the last chunk,
  // the trailer lines (each with its CRLF) and the empty line.
  static OriginReply Chunked(const std::vector<std::string>& chunks,
                             const std::string& contentType = "text/html",
                             const std::string& trailers = "");
  // Silence (see hold).
  static OriginReply Silent() { return OriginReply{"", false, true}; }
  // Close the connection without a reply.
  static OriginReply Hangup() { return OriginReply{"", true, false}; }

  OriginReply& ThenClose(int delayMs = 0) {
    closeAfter = true;
    closeDelayMs = delayMs;
    return *this;
  }
};

class OriginServer {
 public:
  using Script = std::function<OriginReply(const OriginRequest&)>;

  // Without a script every request gets Counted("hello").
  explicit OriginServer(Script script = nullptr);
  ~OriginServer() { Stop(); }
  OriginServer(const OriginServer&) = delete;
  OriginServer& operator=(const OriginServer&) = delete;

  bool IsRunning() const { return listen_ != INVALID_SOCKET; }
  unsigned short Port() const { return port_; }
  void SetScript(Script script);
  // Closes the listener and every connection and joins all threads.
  void Stop();

  int ConnectionCount() const;
  int RequestCount() const;
  // Every byte received on one connection so far ("" for an unknown index).
  std::string Received(int connection) const;
  std::vector<OriginRequest> Requests() const;

  bool WaitForConnections(int count, int timeoutMs) const;
  bool WaitForRequests(int count, int timeoutMs) const;
  // Waits until the peer has closed the connection.
  bool WaitForPeerClose(int connection, int timeoutMs) const;

 private:
  struct Connection {
    SOCKET socket = INVALID_SOCKET;
    std::string received;
    bool closedByPeer = false;
    std::thread thread;
  };

  void AcceptLoop();
  void Serve(Connection* c);
  // Reads more bytes of a connection; false when it closed, failed or the
  // server stops.
  bool ReadMore(Connection* c, std::string& buffer);
  bool WaitFor(int timeoutMs, const std::function<bool()>& done) const;

  SOCKET listen_ = INVALID_SOCKET;
  unsigned short port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Script script_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::vector<OriginRequest> requests_;
};

}  // namespace vxtest
