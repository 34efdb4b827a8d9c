// The far end of the soak's CONNECT tunnels: it sends back every byte it
// gets. The driver talks in records shaped like TLS ones (a type byte, two
// version bytes, a two-byte length); after echoing a record of type 0x15 (an
// alert) the server closes the connection, so that half of the tunnels end
// from the server's side.
#pragma once

#include "soak/threaded_server.h"

namespace soak {

constexpr unsigned char kRecordHandshake = 0x16;
constexpr unsigned char kRecordData = 0x17;
constexpr unsigned char kRecordAlert = 0x15;

class EchoServer : public ThreadedServer {
 protected:
  void Serve(SOCKET s) override;
};

}  // namespace soak
