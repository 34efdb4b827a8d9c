#include "soak/load_lane.h"

#include <algorithm>
#include <cstdio>
#include <thread>

#include "platform/platform.h"
#include "soak/content.h"
#include "soak/echo_server.h"
#include "support/raw_client.h"

namespace soak {

namespace {

constexpr int kReplyMs = 30000;        // a whole reply of a well-behaved case
constexpr int kCloseMs = 15000;        // the proxy closing after a server's failure
constexpr int kIdleCloseMs = 75000;    // the proxy's own idle limits (60 s) and some
constexpr int kSelfAimedMs = 10000;    // a request aimed at the proxy itself
constexpr int kSliceMs = 500;          // sliced waits look at the stop flag this often
constexpr int kRefusedLimitMs = 5000;  // refusals in a row that mean the proxy is gone
constexpr int kAdSpan = 500;           // distinct blocked addresses (and a unique one now and then)

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

long ElapsedMs(Clock::time_point since) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

std::string HostPort(unsigned short port) { return "127.0.0.1:" + std::to_string(port); }

std::string Hex(std::uint64_t v) {
  char text[24];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(v));
  return text;
}

// A TLS-shaped record: type, version 3.3, two-byte length, payload.
std::string Record(unsigned char type, const std::string& payload) {
  std::string r{static_cast<char>(type), 3, 3, static_cast<char>(payload.size() >> 8),
                static_cast<char>(payload.size() & 0xFF)};
  return r + payload;
}

}  // namespace

// ------------------------------------------------------------------ LoadRun --

void LoadRun::Abort(const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (abortReason_.empty()) abortReason_ = why;
  }
  stopped_ = true;
}

std::string LoadRun::AbortReason() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return abortReason_;
}

void LoadRun::NoteConnect(bool made) {
  if (made) {
    refusedSinceMs_ = 0;
    return;
  }
  long long expected = 0;
  const long long now = NowMs();
  refusedSinceMs_.compare_exchange_strong(expected, now);
  if (expected != 0 && now - expected >= kRefusedLimitMs) {
    Abort("the proxy refused every connection for " + std::to_string(kRefusedLimitMs / 1000) +
          " s");
  }
}

// ----------------------------------------------------------------- helpers --

bool LoadLane::Connect(vxtest::RawClient& client, const char* kind) {
  const auto start = Clock::now();
  const bool made = client.Connect(run_.Setup().proxyPort);
  run_.NoteConnect(made);
  if (!made) Count(kind, Outcome::kFailed, start, "cannot connect to the proxy");
  return made;
}

LoadLane::Reply LoadLane::ReadReply(vxtest::RawClient& client, int timeoutMs) {
  Reply r;
  const std::string raw = client.ReceiveResponse(timeoutMs);
  r.closed = client.PeerClosed();
  const vxtest::HttpHead head = vxtest::ParseHttpHead(raw);
  if (head.size == 0) {
    r.why = raw.empty() ? (r.closed ? "closed without a reply" : "no reply in time")
                        : "an incomplete reply header";
    return r;
  }
  r.header = raw.substr(0, head.size);
  r.status = head.status;
  const std::string_view rest = std::string_view(raw).substr(head.size);
  if (head.chunked) {
    r.complete = DecodeChunked(rest, &r.body);
    if (!r.complete) r.why = "a broken or short chunked body";
  } else if (head.contentLength >= 0) {
    r.body = std::string(rest);
    r.complete = static_cast<long>(rest.size()) == head.contentLength;
    if (!r.complete) {
      r.why = "a short body (" + std::to_string(rest.size()) + " of " +
              std::to_string(head.contentLength) + " bytes, " +
              (r.closed ? "closed)" : "time-out)");
    }
  } else {
    r.body = std::string(rest);
    r.complete = r.closed;
    if (!r.complete) r.why = "an unframed body that did not end";
  }
  return r;
}

bool LoadLane::ReadUntilClosed(vxtest::RawClient& client, int maxMs, std::string* data) {
  for (int waited = 0; waited < maxMs && !run_.Stopped(); waited += kSliceMs) {
    const std::string got = client.ReceiveUntilClosed(kSliceMs);
    if (data != nullptr) *data += got;
    if (client.PeerClosed()) return true;
  }
  return client.PeerClosed();
}

std::string LoadLane::Mismatch(const Reply& reply, std::size_t size, std::uint64_t sum) {
  if (!reply.complete) return reply.why;
  if (reply.status != 200) return "status " + std::to_string(reply.status) + " instead of 200";
  if (reply.body.size() != size) {
    return std::to_string(reply.body.size()) + " body bytes instead of " + std::to_string(size);
  }
  if (Checksum(reply.body) != sum) return "a body with other bytes (checksum)";
  return "";
}

void LoadLane::Count(const char* kind, Outcome outcome, Clock::time_point since,
                     const std::string& why) {
  run_.Counts().Add(kind, outcome, ElapsedMs(since), why);
}

std::string LoadLane::Get(unsigned short port, const std::string& path, bool close) const {
  return "GET http://" + HostPort(port) + path + " HTTP/1.1\r\nHost: " + HostPort(port) +
         "\r\nUser-Agent: vx-soak\r\nAccept: */*\r\n" + (close ? "Connection: close\r\n" : "") +
         "\r\n";
}

std::size_t LoadLane::Draw(const std::vector<int>& weights) {
  int total = 0;
  for (const int w : weights) total += w;
  long at = Pick(0, total - 1);
  for (std::size_t i = 0; i < weights.size(); ++i) {
    if (at < weights[i]) return i;
    at -= weights[i];
  }
  return weights.size() - 1;
}

void LoadLane::Think(int lowMs, int highMs) {
  std::this_thread::sleep_for(std::chrono::milliseconds(Pick(lowMs, highMs)));
}

// -------------------------------------------------------------------- lanes --

void LoadLane::Run() {
  while (run_.Running()) {
    switch (lane_) {
      case Lane::kBrowser:
        BrowserConnection();
        break;
      case Lane::kTunnel:
        TunnelCase();
        Think(10, 40);
        break;
      case Lane::kAbort:
        AbortCase();
        Think(20, 80);
        break;
      case Lane::kTrouble:
        TroubleCase();
        Think(20, 80);
        break;
      case Lane::kSlow:
        SlowCase();
        Think(50, 200);
        break;
      case Lane::kSelfAimed: {
        // Sleep the interval in slices so the end of the run is seen.
        const long pause =
            Pick(run_.Setup().selfAimedEverySec * 500L, run_.Setup().selfAimedEverySec * 1500L);
        for (long slept = 0; slept < pause && run_.Running(); slept += kSliceMs) {
          Think(kSliceMs, kSliceMs);
        }
        if (run_.Running()) SelfAimedCase();
        break;
      }
    }
  }
}

// A browser's keep-alive connection: a few to a few dozen requests, mixing
// nginx's files, the origin's counted and chunked bodies, uploads and
// addresses the list blocks (before asking, or on the reply's type).
void LoadLane::BrowserConnection() {
  const LoadSetup& setup = run_.Setup();
  vxtest::RawClient client;
  if (!Connect(client, "keepalive-connect")) {
    Think(100, 200);
    return;
  }
  const long requests = Pick(1, 30);
  const bool closeLast = Pick(0, 2) == 0;
  std::vector<int> fileWeights;
  for (const StaticFile& f : setup.files) fileWeights.push_back(f.weight);
  for (long i = 0; i < requests && run_.Running(); ++i) {
    const bool close = closeLast && i == requests - 1;
    const auto start = Clock::now();
    std::string request;
    const char* kind = "";
    std::size_t size = 0;
    std::uint64_t sum = 0;
    std::string blockedType;  // the replacement's Content-Type, for blocked cases
    switch (Draw({50, 10, 12, 5, 3, 15, 5})) {
      case 0: {
        const StaticFile& f = setup.files[Draw(fileWeights)];
        kind = "nginx-file";
        request = Get(setup.nginxPort, f.path, close);
        size = f.size;
        sum = f.sum;
        break;
      }
      case 1: {
        kind = "origin-counted";
        // Empty, small, medium and large bodies.
        const long bounds[] = {0, 0, 4096, 65536, 300000};
        const std::size_t band = Draw({20, 40, 30, 10});
        size = static_cast<std::size_t>(band == 0 ? 0 : Pick(bounds[band] + 1, bounds[band + 1]));
        const long seed = Pick(1, 1 << 30);
        request =
            Get(setup.originPort, "/c/" + std::to_string(size) + "/" + std::to_string(seed), close);
        sum = Checksum(MakeBody(size, static_cast<std::uint64_t>(seed)));
        break;
      }
      case 2: {
        kind = "origin-chunked";
        size = static_cast<std::size_t>(Pick(0, 200000));
        const long seed = Pick(1, 1 << 30);
        const long chunk = std::vector<long>{16, 1000, 8192, 40000}[Draw({1, 3, 3, 1})];
        request = Get(
            setup.originPort,
            "/k/" + std::to_string(size) + "/" + std::to_string(seed) + "/" + std::to_string(chunk),
            close);
        sum = Checksum(MakeBody(size, static_cast<std::uint64_t>(seed)));
        break;
      }
      case 3:
      case 4: {
        const bool chunked = Draw({5, 3}) == 1;
        kind = chunked ? "upload-chunked" : "upload";
        const std::string data = MakeBody(static_cast<std::size_t>(Pick(0, 65536)),
                                          static_cast<std::uint64_t>(Pick(1, 1 << 30)));
        request = "POST http://" + HostPort(setup.originPort) +
                  "/p HTTP/1.1\r\nHost: " + HostPort(setup.originPort) +
                  "\r\nContent-Type: application/octet-stream\r\n" +
                  (close ? "Connection: close\r\n" : "");
        if (chunked) {
          request += "Transfer-Encoding: chunked\r\n\r\n";
          for (std::size_t at = 0; at < data.size();) {
            const std::size_t piece =
                std::min<std::size_t>(static_cast<std::size_t>(Pick(1, 9000)), data.size() - at);
            char line[24];
            std::snprintf(line, sizeof line, "%zx\r\n", piece);
            request += line + data.substr(at, piece) + "\r\n";
            at += piece;
          }
          request += "0\r\n\r\n";
        } else {
          request += "Content-Length: " + std::to_string(data.size()) + "\r\n\r\n" + data;
        }
        char text[64];
        std::snprintf(text, sizeof text, "len=%zu sum=%s", data.size(),
                      Hex(Checksum(data)).c_str());
        size = std::string(text).size();
        sum = Checksum(text);
        break;
      }
      case 5: {
        kind = "blocked";
        const long n = Pick(0, 9) == 0 ? kAdSpan + uniqueAd_++ * 64 + static_cast<long>(rng_() % 64)
                                       : Pick(0, kAdSpan - 1);
        const bool script = Pick(0, 3) == 0;
        blockedType = script ? "application/x-javascript" : "image/gif";
        request = Get(setup.originPort, "/soakad/" + std::to_string(n) + (script ? ".js" : ".gif"),
                      close);
        break;
      }
      default: {
        kind = "blocked-on-reply";
        blockedType = "image/gif";
        request = Get(setup.originPort, "/soakad/p" + std::to_string(Pick(0, kAdSpan - 1)), close);
        break;
      }
    }
    // Half of the requests say keep-alive the way browsers tell a proxy.
    if (Pick(0, 1) == 0)
      request.insert(request.find("\r\n") + 2, "Proxy-Connection: keep-alive\r\n");
    if (!client.Send(request)) {
      Count(kind, Outcome::kFailed, start,
            "the proxy closed the kept connection before the request");
      return;
    }
    const Reply reply = ReadReply(client, kReplyMs);
    std::string wrong;
    if (!blockedType.empty()) {
      if (!reply.complete) {
        wrong = reply.why;
      } else if (reply.status != 200 || FieldValue(reply.header, "Server") != "Vexilo" ||
                 FieldValue(reply.header, "Content-Type") != blockedType) {
        wrong = "not the replacement (" + reply.header.substr(0, reply.header.find("\r\n")) +
                ", Content-Type " + FieldValue(reply.header, "Content-Type") + ")";
      }
    } else {
      wrong = Mismatch(reply, size, sum);
    }
    Count(kind, wrong.empty() ? Outcome::kOk : Outcome::kFailed, start, wrong);
    if (!wrong.empty() || close || reply.closed) return;
    Think(2, 20);
  }
}

// CONNECT to the echo server: a handshake-like record, a few data records
// echoed back; then the client closes, or sends an alert and the server
// closes. Now and then a CONNECT to a port nobody listens on.
void LoadLane::TunnelCase() {
  const LoadSetup& setup = run_.Setup();
  const auto start = Clock::now();
  vxtest::RawClient client;
  const bool refused = Pick(0, 19) == 0;
  const char* kind = refused ? "tunnel-refused" : "tunnel";
  if (!Connect(client, kind)) return;
  const unsigned short port = refused ? setup.closedPort : setup.echoPort;
  client.Send("CONNECT " + HostPort(port) + " HTTP/1.1\r\nHost: " + HostPort(port) + "\r\n\r\n");
  if (refused) {
    // No tunnel: the proxy closes (or answers with an error) soon.
    const std::string head = client.ReceiveUntil("\r\n\r\n", kCloseMs);
    if (vxtest::ParseHttpHead(head).status == 200) {
      Count(kind, Outcome::kFailed, start, "a tunnel to a closed port was reported established");
    } else if (!ReadUntilClosed(client, kCloseMs, nullptr)) {
      Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start, "not closed");
    } else {
      Count(kind, Outcome::kOk, start);
    }
    return;
  }
  const std::string head = client.ReceiveUntil("\r\n\r\n", kReplyMs);
  if (vxtest::ParseHttpHead(head).status != 200) {
    Count(kind, Outcome::kFailed, start,
          head.empty() ? "no reply to CONNECT"
                       : "CONNECT answered: " + head.substr(0, head.find("\r\n")));
    return;
  }
  const long rounds = Pick(1, 8);
  for (long i = 0; i <= rounds; ++i) {
    const bool last = i == rounds;
    const bool alert = last && Pick(0, 1) == 0;
    if (last && !alert) break;  // the client just closes
    const unsigned char type = i == 0 ? kRecordHandshake : alert ? kRecordAlert : kRecordData;
    const std::string record =
        Record(type, MakeBody(static_cast<std::size_t>(alert ? 2 : Pick(1, 16000)), rng_()));
    if (!client.Send(record)) {
      Count(kind, Outcome::kFailed, start, "the tunnel closed before round " + std::to_string(i));
      return;
    }
    const std::string echo = client.Receive(record.size(), kReplyMs);
    if (echo != record) {
      Count(kind, Outcome::kFailed, start,
            "round " + std::to_string(i) + " echoed " + std::to_string(echo.size()) + " of " +
                std::to_string(record.size()) +
                (echo.size() == record.size() ? " bytes, other bytes" : " bytes"));
      return;
    }
    if (alert && !ReadUntilClosed(client, kCloseMs, nullptr)) {
      Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start,
            "the server closed the tunnel but the proxy kept the client side open");
      return;
    }
  }
  Count(kind, Outcome::kOk, start);
}

// Clients that go away: in the middle of the request header, of a request
// body, of a response, or while the origin is still thinking.
void LoadLane::AbortCase() {
  const LoadSetup& setup = run_.Setup();
  const auto start = Clock::now();
  vxtest::RawClient client;
  const std::size_t shape = Draw({1, 1, 2, 1});
  const char* kinds[] = {"abort-in-header", "abort-in-upload", "abort-in-reply", "abort-waiting"};
  const char* kind = kinds[shape];
  if (!Connect(client, kind)) return;
  bool sent = true;
  switch (shape) {
    case 0: {
      const std::string request = Get(setup.nginxPort, "/f/1k.bin");
      sent = client.Send(request.substr(
          0, static_cast<std::size_t>(Pick(1, static_cast<long>(request.size()) - 3))));
      break;
    }
    case 1: {
      const long length = Pick(1000, 200000);
      sent = client.Send("POST http://" + HostPort(setup.originPort) +
                         "/p HTTP/1.1\r\nHost: " + HostPort(setup.originPort) +
                         "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n" +
                         MakeBody(static_cast<std::size_t>(Pick(0, length - 1)), 3));
      break;
    }
    case 2: {
      const bool nginx = Pick(0, 1) == 0;
      const std::string path = nginx ? setup.files.back().path : "/k/1048576/9/16000";
      sent = client.Send(Get(nginx ? setup.nginxPort : setup.originPort, path));
      client.Receive(static_cast<std::size_t>(Pick(1, 200000)), kReplyMs);
      break;
    }
    default:
      sent =
          client.Send(Get(setup.originPort, "/s/" + std::to_string(Pick(500, 3000)) + "/5000/4"));
      Think(50, 300);
      break;
  }
  client.Close();
  Count(kind, sent ? Outcome::kOk : Outcome::kFailed, start,
        sent ? "" : "the proxy closed before the client could");
}

// Origins that are slow (and still answer properly: checked like any other
// reply) or misbehave (then only the end of the case is bounded: the proxy
// must close, or answer, within its limits).
void LoadLane::TroubleCase() {
  const LoadSetup& setup = run_.Setup();
  const auto start = Clock::now();
  vxtest::RawClient client;
  const std::size_t shape = Draw({25, 15, 15, 15, 10, 10, 5, 5});
  const char* kinds[] = {"origin-stalls",      "origin-slow-body",    "origin-unframed",
                         "origin-stall-close", "origin-early-close",  "origin-hangup",
                         "origin-garbage",     "origin-unframed-open"};
  const char* kind = kinds[shape];
  if (!Connect(client, kind)) return;
  const long ms = Pick(300, 3000);
  const auto size = static_cast<std::size_t>(Pick(0, 100000));
  const long seed = Pick(1, 1 << 30);
  const std::string body = std::to_string(size) + "/" + std::to_string(seed);
  const std::uint64_t sum = Checksum(MakeBody(size, static_cast<std::uint64_t>(seed)));
  const std::string paths[] = {"/s/" + std::to_string(ms) + "/" + body,
                               "/b/" + std::to_string(ms) + "/" + body,
                               "/u/" + body,
                               "/x/" + std::to_string(ms),
                               "/e/" + std::to_string(size + 3000),
                               "/h",
                               "/g",
                               "/o/" + body};
  if (!client.Send(Get(setup.originPort, paths[shape]))) {
    Count(kind, Outcome::kFailed, start, "the proxy closed before the request");
    return;
  }
  if (shape <= 2) {  // proper answers, however slow or unframed
    const std::string wrong =
        Mismatch(ReadReply(client, kReplyMs + static_cast<int>(ms)), size, sum);
    Count(kind, wrong.empty() ? Outcome::kOk : Outcome::kFailed, start, wrong);
    return;
  }
  if (shape == 7) {
    // A proper reply as well, ended by the close; the proxy may keep the
    // client's side open until its own idle limit.
    std::string data;
    const bool closed = ReadUntilClosed(client, kIdleCloseMs, &data);
    const vxtest::HttpHead head = vxtest::ParseHttpHead(data);
    Reply reply;
    reply.complete = head.size > 0;
    reply.why = closed ? "closed without a reply" : "no reply in time";
    reply.status = head.status;
    if (head.size > 0) reply.body = data.substr(head.size);
    const std::string wrong = Mismatch(reply, size, sum);
    if (!wrong.empty() && (closed || head.size > 0)) {
      Count(kind, Outcome::kFailed, start, wrong);
    } else if (!closed) {
      Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start,
            "not closed after the body");
    } else {
      Count(kind, Outcome::kOk, start);
    }
    return;
  }
  // The origin fails: whatever the client gets, the connection must end.
  std::string data;
  const int bound = shape == 6 ? kIdleCloseMs : kCloseMs + 2 * static_cast<int>(ms);
  if (ReadUntilClosed(client, bound, &data)) {
    const vxtest::HttpHead head = vxtest::ParseHttpHead(data);
    if (shape == 4 && head.size > 0 && head.contentLength >= 0 &&
        data.size() - head.size >= static_cast<std::size_t>(head.contentLength)) {
      Count(kind, Outcome::kFailed, start, "a cut body reached the client whole");
    } else {
      Count(kind, Outcome::kOk, start);
    }
  } else {
    Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start,
          "not closed within " + std::to_string(bound / 1000) + " s");
  }
}

// Slow clients: a request header a few bytes at a time, then complete
// (checked), abandoned (the client goes away) or left hanging (the proxy
// must close it within its header wait); and tunnels left idle.
void LoadLane::SlowCase() {
  const LoadSetup& setup = run_.Setup();
  const auto start = Clock::now();
  vxtest::RawClient client;
  const std::size_t shape = Draw({45, 20, 25, 10});
  const char* kinds[] = {"slowloris-complete", "slowloris-abort", "slowloris-stall", "tunnel-idle"};
  const char* kind = kinds[shape];
  if (!Connect(client, kind)) return;
  if (shape == 3) {
    // As browsers do, the first record waits for the proxy's 200 (bytes sent
    // with the CONNECT header would be dropped with the header's buffer).
    const std::string hello = Record(kRecordHandshake, MakeBody(300, 8));
    client.Send("CONNECT " + HostPort(setup.echoPort) +
                " HTTP/1.1\r\nHost: " + HostPort(setup.echoPort) + "\r\n\r\n");
    const std::string head = client.ReceiveUntil("\r\n\r\n", kReplyMs);
    if (vxtest::ParseHttpHead(head).status != 200 || !client.Send(hello) ||
        client.Receive(hello.size(), kReplyMs) != hello) {
      Count(kind, Outcome::kFailed, start, "no working tunnel");
    } else if (!ReadUntilClosed(client, kIdleCloseMs, nullptr)) {
      Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start,
            "an idle tunnel was not closed");
    } else {
      Count(kind, Outcome::kOk, start);
    }
    return;
  }
  const StaticFile& file = setup.files[std::min<std::size_t>(1, setup.files.size() - 1)];
  const std::string request = Get(setup.nginxPort, file.path);
  const std::size_t upTo =
      shape == 0 ? request.size()
                 : static_cast<std::size_t>(Pick(1, static_cast<long>(request.size()) - 5));
  for (std::size_t at = 0; at < upTo && !run_.Stopped();) {
    const std::size_t piece =
        std::min<std::size_t>(static_cast<std::size_t>(Pick(1, 3)), upTo - at);
    if (!client.Send(std::string_view(request).substr(at, piece))) {
      Count(kind, Outcome::kFailed, start, "closed while the header was being sent");
      return;
    }
    at += piece;
    Think(40, 160);
  }
  if (run_.Stopped()) {
    Count(kind, Outcome::kCut, start);
    return;
  }
  if (shape == 0) {
    const std::string wrong = Mismatch(ReadReply(client, kReplyMs), file.size, file.sum);
    Count(kind, wrong.empty() ? Outcome::kOk : Outcome::kFailed, start, wrong);
  } else if (shape == 1) {
    client.Close();
    Count(kind, Outcome::kOk, start);
  } else if (!ReadUntilClosed(client, kIdleCloseMs, nullptr)) {
    Count(kind, run_.Stopped() ? Outcome::kCut : Outcome::kHung, start,
          "a half header was kept open");
  } else {
    Count(kind, Outcome::kOk, start);
  }
}

// A request whose target is the proxy itself (absolute form by address or
// by name, origin form with the proxy in Host, or a CONNECT): the proxy
// must answer or close at once, and still take connections afterwards.
void LoadLane::SelfAimedCase() {
  const LoadSetup& setup = run_.Setup();
  const auto start = Clock::now();
  vxtest::RawClient client;
  const char* kind = "self-aimed";
  if (!Connect(client, kind)) return;
  const std::string self = HostPort(setup.proxyPort);
  const std::string name = "localhost:" + std::to_string(setup.proxyPort);
  const std::string requests[] = {
      "GET http://" + self + "/ HTTP/1.1\r\nHost: " + self + "\r\n\r\n",
      "GET http://" + name + "/soak HTTP/1.1\r\nHost: " + name + "\r\n\r\n",
      "GET /soak HTTP/1.1\r\nHost: " + self + "\r\n\r\n",
      "CONNECT " + self + " HTTP/1.1\r\nHost: " + self + "\r\n\r\n"};
  client.Send(requests[Draw({1, 1, 1, 1})]);
  const std::string head = client.ReceiveUntil("\r\n\r\n", kSelfAimedMs);
  if (head.empty() && !client.PeerClosed()) {
    Count(kind, Outcome::kFailed, start, "neither an answer nor a close within 10 s");
    return;
  }
  vxtest::RawClient probe;
  const bool alive = probe.Connect(setup.proxyPort);
  run_.NoteConnect(alive);
  Count(kind, alive ? Outcome::kOk : Outcome::kFailed, start,
        alive ? "" : "the proxy took no connection afterwards");
}

std::string Preflight(LoadRun& run) {
  const LoadSetup& setup = run.Setup();
  struct {
    unsigned short port;
    std::string path;
    std::size_t size;
    std::uint64_t sum;
  } checks[] = {{setup.nginxPort, setup.files.front().path, setup.files.front().size,
                 setup.files.front().sum},
                {setup.originPort, "/c/1000/1", 1000, Checksum(MakeBody(1000, 1))}};
  for (const auto& c : checks) {
    vxtest::RawClient client;
    if (!client.Connect(setup.proxyPort)) return "cannot connect to the proxy";
    client.Send("GET http://" + HostPort(c.port) + c.path +
                " HTTP/1.1\r\nHost: " + HostPort(c.port) + "\r\n\r\n");
    const std::string raw = client.ReceiveResponse(kReplyMs);
    const vxtest::HttpHead head = vxtest::ParseHttpHead(raw);
    if (head.status != 200 || raw.size() - head.size != c.size ||
        Checksum(raw.substr(head.size)) != c.sum) {
      return "GET " + HostPort(c.port) + c.path +
             " through the proxy: " + (raw.empty() ? "no reply" : raw.substr(0, raw.find("\r\n")));
    }
  }
  return "";
}

}  // namespace soak
