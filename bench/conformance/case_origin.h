// The origin server of one conformance case: on a loopback port of its own
// (so nothing a proxy sends late for an earlier case can count), it reads
// every connection with the strict request reader (wire.h), answers each
// request with the case's scripted reply and records the bytes that arrived
// and the requests they held. A stream that breaks the grammar is answered
// 400, as a strict server would; what follows on it is recorded, not read
// (a lenient server might have read a request there).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "conformance/wire.h"
#include "support/raw_client.h"

namespace conformance {

// What the origin saw.
struct OriginSeen {
  std::string raw;                    // every byte, connections one after another
  std::vector<WireRequest> requests;  // the well-formed requests
  std::string invalid;                // why a stream broke the grammar (empty: none did)
  int connections = 0;
};

class CaseOrigin {
 public:
  // Reply n answers the n-th request (the last one those after it): the
  // exact bytes, "close " before them to close afterwards, "hangup" to close
  // without a word. No replies: 200 with the request's path as the body.
  explicit CaseOrigin(std::vector<std::string> replies);
  ~CaseOrigin();
  CaseOrigin(const CaseOrigin&) = delete;
  CaseOrigin& operator=(const CaseOrigin&) = delete;

  unsigned short Port() const { return listener_.Port(); }

  OriginSeen Seen();

 private:
  struct Connection {
    SOCKET socket = INVALID_SOCKET;
    std::thread thread;
  };
  void AcceptLoop();
  void Serve(SOCKET s);
  std::string NextReply(const WireRequest& request);

  vxtest::LoopbackListener listener_;
  std::atomic<bool> stop_{false};
  std::thread acceptor_;
  const std::vector<std::string> replies_;
  std::mutex lock_;  // everything below
  OriginSeen seen_;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace conformance
