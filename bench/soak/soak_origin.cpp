#include "soak/soak_origin.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

#include "platform/platform.h"
#include "soak/content.h"
#include "support/raw_client.h"

namespace soak {

namespace {

constexpr int kIdleMs = 120000;      // a kept connection with no next request
constexpr int kBodyWaitMs = 60000;   // between the pieces of a request body
constexpr long kMaxBody = 16 << 20;  // more is no request of the driver's
constexpr int kAdBytes = 4321;       // the PNG under /soakad/

bool Send(SOCKET s, std::string_view bytes) { return vxtest::SendAllBytes(s, bytes); }

std::string Head(const char* status, const std::string& fields) {
  return std::string("HTTP/1.1 ") + status + "\r\nServer: soak-origin\r\n" + fields + "\r\n";
}

std::string Counted(const std::string& body, const char* type = "application/octet-stream") {
  return Head("200 OK", std::string("Content-Type: ") + type +
                            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n") +
         body;
}

// The numbers of a target such as /s/1500/2048/7 after its first part.
std::vector<long> Numbers(const std::string& target) {
  std::vector<long> out;
  std::size_t at = target.find('/', 1);
  while (at != std::string::npos) {
    out.push_back(std::strtol(target.c_str() + at + 1, nullptr, 10));
    at = target.find('/', at + 1);
  }
  return out;
}

// Part i of the numbers, or 0; sizes and pauses are kept to kMaxBody.
long Arg(const std::vector<long>& n, std::size_t i) {
  return i < n.size() ? std::max(n[i], 0L) : 0;
}
std::size_t Size(const std::vector<long>& n, std::size_t i) {
  return static_cast<std::size_t>(std::min(Arg(n, i), kMaxBody));
}
int Ms(const std::vector<long>& n, std::size_t i) {
  return static_cast<int>(std::min(Arg(n, i), 600000L));
}
std::uint64_t Seed(const std::vector<long>& n, std::size_t i) {
  return static_cast<std::uint64_t>(Arg(n, i));
}

}  // namespace

void SoakOrigin::Serve(SOCKET s) {
  std::string pending;
  for (;;) {
    vxtest::HttpHead head;
    while ((head = vxtest::ParseHttpHead(pending)).size == 0) {
      if (!WaitReadable(s, kIdleMs) || !ReadSome(s, pending)) return;
    }
    const std::string header = pending.substr(0, head.size);
    pending.erase(0, head.size);
    // Request line: method, target, version.
    const std::string& line = head.startLine;
    const std::size_t sp1 = std::min(line.size(), line.find(' '));
    const std::size_t sp2 = std::min(line.size(), line.find(' ', sp1 + 1));
    const std::string method = line.substr(0, sp1);
    const std::string target =
        line.substr(std::min(line.size(), sp1 + 1), sp2 - std::min(sp2, sp1 + 1));
    const bool http10 = line.size() >= 8 && line.compare(line.size() - 8, 8, "HTTP/1.0") == 0;

    std::string body;
    if (head.chunked) {
      std::size_t size;
      while ((size = vxtest::ChunkedBodyLength(pending)) == std::string::npos) {
        if (static_cast<long>(pending.size()) > kMaxBody || !WaitReadable(s, kBodyWaitMs) ||
            !ReadSome(s, pending)) {
          return;
        }
      }
      if (!DecodeChunked(std::string_view(pending).substr(0, size), &body)) return;
      pending.erase(0, size);
    } else if (head.contentLength > 0) {
      if (head.contentLength > kMaxBody) return;
      const auto length = static_cast<std::size_t>(head.contentLength);
      while (pending.size() < length) {
        if (!WaitReadable(s, kBodyWaitMs) || !ReadSome(s, pending)) return;
      }
      body = pending.substr(0, length);
      pending.erase(0, length);
    }
    ++requests_;
    // Stray line ends between requests (the proxy's probes end with one CRLF
    // too many) are no request.
    while (pending.compare(0, 2, "\r\n") == 0) pending.erase(0, 2);
    const bool keep = Answer(s, method, target, body);
    if (!keep || http10 || FieldValue(header, "Connection") == "close") return;
  }
}

bool SoakOrigin::Answer(SOCKET s, const std::string& method, const std::string& target,
                        const std::string& body) {
  if (method == "HEAD") {
    ++probes_;
    return Send(s, Head("200 OK", "Content-Type: image/png\r\nContent-Length: " +
                                      std::to_string(kAdBytes) + "\r\n"));
  }
  if (target.rfind("/soakad/", 0) == 0) {
    const std::string path = target.substr(0, target.find('?'));
    if (path.ends_with(".gif") || path.ends_with(".js")) ++leakedBlocks_;
    return Send(s, Counted(MakeBody(kAdBytes, 1), "image/png"));
  }
  if (method == "POST" && target == "/p") {
    char text[64];
    std::snprintf(text, sizeof text, "len=%zu sum=%016llx", body.size(),
                  static_cast<unsigned long long>(Checksum(body)));
    return Send(s, Counted(text, "text/plain"));
  }
  const std::vector<long> n = Numbers(target);
  // The first part of the target is one letter: /c/..., /h.
  const bool letter = target.size() >= 2 && (target.size() == 2 || target[2] == '/');
  switch (letter ? target[1] : '?') {
    case 'c':
      return Send(s, Counted(MakeBody(Size(n, 0), Seed(n, 1))));
    case 'k': {
      const std::string data = MakeBody(Size(n, 0), Seed(n, 1));
      const bool extras = Seed(n, 1) % 2 == 1;
      std::mt19937 pick(static_cast<unsigned>(Seed(n, 1)));
      std::uniform_int_distribution<std::size_t> size(1, std::max<std::size_t>(1, Size(n, 2)));
      if (!Send(s, Head("200 OK",
                        "Content-Type: application/octet-stream\r\n"
                        "Transfer-Encoding: chunked\r\n"))) {
        return false;
      }
      char line[48];
      for (std::size_t at = 0; at < data.size();) {
        const std::size_t piece = std::min(size(pick), data.size() - at);
        std::snprintf(line, sizeof line, extras ? "%zX;soak=1\r\n" : "%zx\r\n", piece);
        if (!Send(s, line + data.substr(at, piece) + "\r\n")) return false;
        at += piece;
      }
      return Send(s, extras ? "0\r\nX-Soak-Trailer: 1\r\n\r\n" : "0\r\n\r\n");
    }
    case 'u':
      Send(s, Head("200 OK", "Content-Type: application/octet-stream\r\nConnection: close\r\n") +
                  MakeBody(Size(n, 0), Seed(n, 1)));
      return false;
    case 'o':
      Send(s, Head("200 OK", "Content-Type: application/octet-stream\r\n") +
                  MakeBody(Size(n, 0), Seed(n, 1)));
      return false;
    case 's':
      return Pause(Ms(n, 0)) && Send(s, Counted(MakeBody(Size(n, 1), Seed(n, 2))));
    case 'b': {
      const std::string all = Counted(MakeBody(Size(n, 1), Seed(n, 2)));
      const std::size_t half = all.size() - Size(n, 1) / 2;
      return Send(s, std::string_view(all).substr(0, half)) && Pause(Ms(n, 0)) &&
             Send(s, std::string_view(all).substr(half));
    }
    case 'x':
      Pause(Ms(n, 0));
      return false;
    case 'e': {
      const std::string all = Counted(MakeBody(Size(n, 0), 5));
      Send(s, std::string_view(all).substr(0, all.size() - Size(n, 0) * 2 / 3));
      return false;
    }
    case 'h':
      return false;
    case 'g':
      Send(s, "SOAK-GARBAGE 42\r\nnot: a reply\r\n\r\nand then some bytes");
      return false;
    default:
      return Send(s, Head("404 Not Found", "Content-Length: 0\r\n"));
  }
}

}  // namespace soak
