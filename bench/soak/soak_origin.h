// The soak's own origin: well-behaved answers nginx does not give (chunked,
// unframed, slow) and the misbehaving ones (stalls, early closes, garbage).
// The request target says what to do, so the driver's request decides the
// answer and knows what to expect:
//
//   /c/SIZE/SEED               counted body (MakeBody(SIZE, SEED))
//   /k/SIZE/SEED/MAXCHUNK      the same body chunked, chunks of 1..MAXCHUNK
//                              bytes, each sent on its own; odd seeds add a
//                              chunk extension and a trailer line
//   /u/SIZE/SEED               no length, "Connection: close", body, close
//   /o/SIZE/SEED               no length and no Connection field, body, close
//   /s/MS/SIZE/SEED            nothing for MS, then a counted body
//   /b/MS/SIZE/SEED            header and half the body, MS, the rest
//   /x/MS                      nothing for MS, then close without a reply
//   /e/SIZE                    header for SIZE bytes, a third of them, close
//   /h                         close without a reply
//   /g                         a reply that is no HTTP, then close
//   /soakad/...                a 4321-byte PNG (the proxy should replace it,
//                              or never ask when the path ends .gif or .js)
//   POST /p                    reads the body (counted or chunked) and
//                              answers "len=N sum=HEX" (Checksum of the data)
// HEAD gets a header with Content-Length 4321 and no body (the proxy's size
// probes of blocked addresses). Anything else gets a 404.
#pragma once

#include <atomic>
#include <string>

#include "soak/threaded_server.h"

namespace soak {

class SoakOrigin : public ThreadedServer {
 public:
  // Requests that came, HEAD probes among them, and GETs for /soakad/
  // paths ending .gif or .js (which the proxy blocks before asking).
  long Requests() const { return requests_; }
  long Probes() const { return probes_; }
  long LeakedBlocks() const { return leakedBlocks_; }

 protected:
  void Serve(SOCKET s) override;

 private:
  // Answers one request; false when the connection is to close.
  bool Answer(SOCKET s, const std::string& method, const std::string& target,
              const std::string& body);

  std::atomic<long> requests_{0};
  std::atomic<long> probes_{0};
  std::atomic<long> leakedBlocks_{0};
};

}  // namespace soak
