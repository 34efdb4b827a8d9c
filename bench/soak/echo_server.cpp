#include "soak/echo_server.h"

#include <string>

#include "support/raw_client.h"

namespace soak {

namespace {

constexpr int kIdleMs = 90000;  // longer than the proxy's own tunnel idle limit
constexpr std::size_t kRecordHeader = 5;

}  // namespace

void EchoServer::Serve(SOCKET s) {
  std::string pending;     // received, not yet sent back
  std::size_t parsed = 0;  // start of the first record not yet seen whole
  for (;;) {
    if (!WaitReadable(s, kIdleMs) || !ReadSome(s, pending)) return;
    // Send back up to the end of the last whole record; close after an alert.
    bool alert = false;
    while (!alert && pending.size() >= parsed + kRecordHeader) {
      const auto type = static_cast<unsigned char>(pending[parsed]);
      const std::size_t length = static_cast<unsigned char>(pending[parsed + 3]) * 256u +
                                 static_cast<unsigned char>(pending[parsed + 4]);
      if (pending.size() < parsed + kRecordHeader + length) break;
      parsed += kRecordHeader + length;
      alert = type == kRecordAlert;
    }
    if (parsed == 0) continue;
    if (!vxtest::SendAllBytes(s, std::string_view(pending).substr(0, parsed)) || alert) return;
    pending.erase(0, parsed);
    parsed = 0;
  }
}

}  // namespace soak
