// A loopback server for the soak: a listener on a free port, and one
// detached thread per connection that runs Serve. Serving threads wait in
// short slices so that Stop is seen at once; Stop also shuts every open
// connection down, so a thread blocked in a send returns too.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "platform/winnames.h"

namespace soak {

class ThreadedServer {
 public:
  ThreadedServer() = default;
  virtual ~ThreadedServer() = default;
  ThreadedServer(const ThreadedServer&) = delete;
  ThreadedServer& operator=(const ThreadedServer&) = delete;

  // Listens on 127.0.0.1 and a port the system picks; false when it cannot.
  bool Start();
  unsigned short Port() const { return port_; }
  // Closes the listener and every connection and waits (at most timeoutMs)
  // for the serving threads; false when some still run. Call it before the
  // derived object goes away.
  bool Stop(int timeoutMs);
  int Connections() const { return accepted_; }

 protected:
  // Serves one connection; the socket is closed after it returns.
  virtual void Serve(SOCKET s) = 0;

  bool Stopping() const { return stopping_; }
  // Sleeps ms; false (early) when the server stops.
  bool Pause(int ms) const;
  // Waits until s has data or was closed; false on time-out, error or stop.
  bool WaitReadable(SOCKET s, int timeoutMs) const;
  // Reads what is there (after WaitReadable) onto buffer; false when the
  // peer closed or the read failed.
  static bool ReadSome(SOCKET s, std::string& buffer);

 private:
  void AcceptLoop();
  void RunConnection(SOCKET s);

  SOCKET listen_ = INVALID_SOCKET;
  unsigned short port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> accepted_{0};
  std::thread acceptThread_;
  mutable std::mutex mutex_;
  std::condition_variable ended_;
  std::set<SOCKET> open_;  // connections being served
};

}  // namespace soak
