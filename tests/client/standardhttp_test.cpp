// The session against browsers and origins that misbehave, with standard HTTP
// off (the designed relay's bytes) and on: what the origin received and what
// the browser received, byte for byte.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/proxyclient.h"
#include "support/origin_server.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"
#include "support/wait.h"
#include "vxproxy/extensions.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;
using vxtest::RawClient;

namespace {

constexpr int kWaitMs = 5000;

// A browser's request for a path of the origin ({P} is its port).
std::string Get(const std::string& path, const std::string& fields = "",
                const std::string& method = "GET") {
  return method + " http://127.0.0.1:{P}" + path + " HTTP/1.1\r\nHost: 127.0.0.1:{P}\r\n" +
         fields + "\r\n";
}
// The same as the origin receives it; via adds our Via field.
std::string Got(const std::string& path, const std::string& fields = "", bool via = false,
                const std::string& method = "GET") {
  return method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:{P}\r\n" + fields +
         (via ? "Via: 1.1 Vexilo\r\n" : "") + "\r\n";
}
std::string Ok(const std::string& body, bool via = false) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         (via ? "Via: 1.1 Vexilo\r\n" : "") + "\r\n" + body;
}
// Our own answer; its length is counted once the ports are in (see Run).
std::string Refused(int status, const std::string& what) {
  const std::string reason = status == 400   ? "Bad Request"
                             : status == 504 ? "Gateway Timeout"
                                             : "Bad Gateway";
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: text/plain\r\nX-Content-Type-Options: nosniff\r\n"
         "Cache-Control: no-store\r\nServer: Vexilo\r\nConnection: close\r\nContent-Length: "
         "{L}\r\n\r\n" + reason + ": " + what + "\n";
}
const std::string kGifReply =
    "HTTP/1.1 200 OK\r\nContent-Type: image/gif\r\nDate: *\r\nExpires: Fri, 01 Jan 1990 00:00:00 "
    "GMT\r\nPragma: no-cache\r\nCache-Control: no-cache, no-store, max-age=0, must-revalidate\r\n"
    "Server: Vexilo\r\nContent-Length: 42\r\nAge: 0\r\n\r\n" +
    std::string("GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xFF\xFF\xFF\x21\xF9\x04\x01\x00\x00"
                "\x00\x00\x2C\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x01\x44\x00\x3B",
                42);

OriginReply Raw(const std::string& bytes) { return OriginReply{bytes}; }

// Puts the origin's port in for {P}, {Q} (the same plus 65536) and a dead
// port in for {D}, then counts the length of an answer of ours.
std::string Fill(std::string text, int port, int dead) {
  for (auto [key, value] :
       {std::pair<std::string, int>{"{P}", port}, {"{Q}", port + 65536}, {"{D}", dead}}) {
    for (std::size_t at; (at = text.find(key)) != std::string::npos;) {
      text.replace(at, key.size(), std::to_string(value));
    }
  }
  // The body of an answer of ours is its last part.
  if (const std::size_t at = text.find("{L}"); at != std::string::npos) {
    text.replace(at, 3, std::to_string(text.size() - text.find("\r\n\r\n", at) - 4));
  }
  return text;
}

struct Outcome {
  std::string origin;   // every byte the origin received, connection after connection
  std::string browser;  // every byte the browser received (Date values as "*")
  bool closed;          // the proxy closed the browser's connection at once
};

struct Case {
  const char* name;
  std::vector<OriginReply> replies;  // for the origin's requests in turn; then Ok("hello")
  std::vector<std::string> sends;    // the browser's, each after the answer to the one before
  Outcome off, on;
};

}  // namespace

class StandardHttp : public ServiceFixture {
 protected:
  std::string FilterList() const override { return "/banner/\n"; }

  void SetUp() override {
    ServiceFixture::SetUp();
    ASSERT_TRUE(proxy_->Start());
  }
  void TearDown() override {
    ServiceFixture::TearDown();
    Service()->SetExtensions(0);
  }

  // Runs one case against a fresh origin in one mode.
  void Run(const Case& c, bool standard) {
    SCOPED_TRACE(std::string(c.name) + (standard ? " (standard)" : " (designed)"));
    Service()->SetExtensions(standard ? kExtensionStandardHttp : 0);
    auto next = std::make_shared<std::atomic<std::size_t>>(0);
    OriginServer origin([&c, next](const OriginRequest&) {
      const std::size_t i = (*next)++;
      return i < c.replies.size() ? c.replies[i] : Raw(Ok("hello"));
    });
    unsigned short dead = 0;
    {
      vxtest::LoopbackListener gone;  // a port nobody listens on any more
      dead = gone.Port();
    }
    const auto fill = [&](const std::string& text) { return Fill(text, origin.Port(), dead); };
    const Outcome& want = standard ? c.on : c.off;
    const std::string expected = fill(want.browser);

    RawClient browser;
    ASSERT_TRUE(browser.Connect(proxy_->GetPort()));
    std::string received;
    for (std::size_t i = 0; i < c.sends.size(); ++i) {
      ASSERT_TRUE(browser.Send(fill(c.sends[i])));
      if (i + 1 < c.sends.size()) received += browser.ReceiveResponse(kWaitMs);
    }
    received += browser.Receive(expected.size() - std::min(expected.size(), received.size()),
                                kWaitMs);
    received += browser.ReceiveAvailable(50);
    for (std::size_t at = 0; (at = received.find("\r\nDate: ", at)) != std::string::npos;) {
      at += 8;
      received.replace(at, received.find('\r', at) - at, "*");
    }
    EXPECT_EQ(received, expected);
    EXPECT_EQ(browser.WaitForClose(want.closed ? kWaitMs : 100), want.closed);

    const auto originReceived = [&] {
      std::string all;
      for (int i = 0; i < origin.ConnectionCount(); ++i) {
        // Not the size probe's question about a blocked item.
        if (origin.Received(i).rfind("HEAD /banner/", 0) != 0) all += origin.Received(i);
      }
      return all;
    };
    vxtest::WaitUntil([&] { return originReceived() == fill(want.origin); }, 1000);
    EXPECT_EQ(originReceived(), fill(want.origin));

    // A message that ended, ended: the connection serves the next request.
    if (standard && !want.closed) {
      ASSERT_TRUE(browser.Send(fill(Get("/next"))));
      EXPECT_EQ(browser.ReceiveResponse(kWaitMs), Ok("hello", true));
    }
  }

  void RunBoth(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      Run(c, false);
      Run(c, true);
    }
  }
};

// Shorthands of the tables: the browser's GET of /x and the origin's copy of
// it without and with our Via, a POST, and whether the proxy closes at once.
const std::string x = Get("/x"), gotX = Got("/x"), viaX = Got("/x", "", true);
constexpr bool kOpen = false, kClosed = true;
std::string Post(const std::string& fields, const std::string& body) {
  return Get("/p", fields, "POST") + body;
}
std::string Posted(const std::string& fields, const std::string& body, bool via = false) {
  return Got("/p", fields, via, "POST") + body;
}
std::string BadResponse(const std::string& what) {
  return Refused(502, "malformed response from 127.0.0.1:{P}: " + what);
}

TEST_F(StandardHttp, RequestsAreJudgedOneAtATimeAndFramedOrRefused) {
  const std::string both = "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n";
  const std::string twice = "Content-Length: 7\r\nContent-Length: 5\r\n";
  const std::string chunked = "Transfer-Encoding: chunked\r\n";
  const std::string url = "GET http://127.0.0.1:";
  const std::string host = " HTTP/1.1\r\nHost: 127.0.0.1:{P}\r\n\r\n";
  RunBoth({
      {"a request behind another is judged too", {Raw(Ok("hello")), OriginReply::Silent()},
       {Get("/a.html") + Get("/banner/ad.gif")},
       {Got("/a.html") + Get("/banner/ad.gif"), Ok("hello"), kOpen},
       {Got("/a.html", "", true), Ok("hello", true) + kGifReply, kOpen}},
      {"Content-Length and Transfer-Encoding together", {}, {Post(both, "0\r\n\r\n")},
       {Posted(both, "0\r\n\r\n"), Ok("hello"), kOpen},
       {"", Refused(400, "Content-Length together with Transfer-Encoding"), kClosed}},
      {"two different Content-Lengths", {}, {Post(twice, "hello")},
       {Posted(twice, "hello"), Ok("hello"), kOpen},
       {"", Refused(400, "conflicting Content-Length values"), kClosed}},
      {"a chunk size that is no number", {}, {Post(chunked, "zz\r\nhello\r\n0\r\n\r\n")},
       {Posted(chunked, "zz\r\nhello\r\n0\r\n\r\n"), Ok("hello"), kOpen},
       {Posted(chunked, "", true), Refused(400, "malformed chunked body"), kClosed}},
      {"line ends without CR", {}, {url + "{P}/x HTTP/1.1\nHost: 127.0.0.1:{P}\n\n"},
       {"", "", kOpen}, {"", Refused(400, "LF without CR in the header"), kClosed}},
      {"HTTP/1.1 without Host", {}, {url + "{P}/x HTTP/1.1\r\n\r\n"},
       {"GET /x HTTP/1.1\r\n\r\n", Ok("hello"), kOpen},
       {"", Refused(400, "no Host field in an HTTP/1.1 request"), kClosed}},
      {"a Host naming another server than the URL", {},
       {url + "{P}/x HTTP/1.1\r\nHost: elsewhere.example\r\n\r\n"},
       {"GET /x HTTP/1.1\r\nHost: elsewhere.example\r\n\r\n", Ok("hello"), kOpen},
       {viaX, Ok("hello", true), kOpen}},
      {"a port beyond 65535", {}, {url + "{Q}/x" + host}, {gotX, Ok("hello"), kOpen},
       {"", Refused(400, "invalid port"), kClosed}},
      {"a port with junk", {}, {url + "{P}abc/x" + host}, {gotX, Ok("hello"), kOpen},
       {"", Refused(400, "invalid port"), kClosed}},
      {"user information before the host", {}, {url + "{P}@evil.example/x" + host},
       {gotX, Ok("hello"), kOpen}, {"", Refused(400, "user information in the URL"), kClosed}},
      {"a NUL in the URL", {}, {url + "{P}/x" + std::string(1, '\0') + "/banner/ad.gif" + host},
       {gotX, Ok("hello"), kOpen}, {"", Refused(400, "NUL in the header"), kClosed}},
      {"fields for the browser's connection alone", {},
       {Get("/x", "Connection: X-S\r\nX-S: 1\r\nKeep-Alive: 5\r\nTE: trailers\r\nUpgrade: u/1\r\n"
                  "Proxy-Connection: keep-alive\r\n")},
       {Got("/x", "Connection: X-S\r\nX-S: 1\r\nKeep-Alive: 5\r\nTE: trailers\r\nUpgrade: u/1\r\n"
                  "Connection: keep-alive\r\n"), Ok("hello"), kOpen},
       {viaX, Ok("hello", true), kOpen}},
      {"a later HTTP/1.x", {}, {url + "{P}/x HTTP/1.2\r\nHost: 127.0.0.1:{P}\r\n\r\n"},
       {"GET /x HTTP/1.2\r\nHost: 127.0.0.1:{P}\r\n\r\n", Ok("hello"), kOpen},
       {"GET /x HTTP/1.1\r\nHost: 127.0.0.1:{P}\r\nVia: 1.2 Vexilo\r\n\r\n", Ok("hello", true),
        kOpen}},
      {"OPTIONS for its last hop", {}, {Get("/x", "Max-Forwards: 0\r\n", "OPTIONS")},
       {Got("/x", "Max-Forwards: 0\r\n", false, "OPTIONS"), Ok("hello"), kOpen},
       {"", "HTTP/1.1 200 OK\r\nCache-Control: no-store\r\nServer: Vexilo\r\n"
            "Content-Length: 0\r\n\r\n", kOpen}},
      {"OPTIONS for more hops", {}, {Get("/x", "Max-Forwards: 5\r\n", "OPTIONS")},
       {Got("/x", "Max-Forwards: 5\r\n", false, "OPTIONS"), Ok("hello"), kOpen},
       {Got("/x", "Max-Forwards: 4\r\n", true, "OPTIONS"), Ok("hello", true), kOpen}},
      {"an unknown scheme", {}, {"GET ftp://f.example/x HTTP/1.1\r\nHost: f.example\r\n\r\n"},
       {"", "", kClosed}, {"", Refused(400, "no relay for ftp URLs"), kClosed}},
  });
}

TEST_F(StandardHttp, ResponsesEndWhereTheirFramingSays) {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n";
  const std::string gzip = "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n";
  const std::string negative = "HTTP/1.1 200 OK\r\nContent-Length: -10\r\n\r\n" + Ok("evil");
  const std::string both = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n";
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n";
  const std::string same = "HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n";
  const std::string busy = "HTTP/1.1 503 Busy\r\n";
  const std::string moved = "HTTP/1.1 301 Moved\r\nLocation: /y\r\n";
  const std::string interim = "HTTP/1.1 100 Continue\r\n";
  const std::string via = "Via: 1.1 Vexilo\r\n", close = "Connection: close\r\n";
  const std::string body = "\r\n5\r\nhello\r\n0\r\n\r\n";
  RunBoth({
      {"bytes past the body", {Raw(Ok("hello") + Ok("evil"))}, {x},
       {gotX, Ok("hello") + Ok("evil"), kOpen}, {viaX, Ok("hello", true), kOpen}},
      {"a negative Content-Length", {Raw(negative)}, {x}, {gotX, negative, kOpen},
       {viaX, BadResponse("invalid Content-Length"), kClosed}},
      {"Content-Length and Transfer-Encoding together", {Raw(both + body)}, {x},
       {gotX, both + body, kOpen},
       {viaX, BadResponse("Content-Length together with Transfer-Encoding"), kClosed}},
      {"a negative chunk size", {Raw(chunked + "\r\n-1\r\nhello\r\n0\r\n\r\n")}, {x},
       {gotX, chunked + "\r\n-1\r\nhello\r\n0\r\n\r\n", kOpen},
       {viaX, chunked + via + "\r\n", kClosed}},
      {"chunked after another coding", {Raw(gzip + body)}, {x}, {gotX, gzip + body, kOpen},
       {viaX, gzip + via + body, kOpen}},
      {"a chunked body cut short", {Raw(chunked + "\r\n5\r\nhel").ThenClose()}, {x},
       {gotX, chunked + "\r\n5\r\nhel", kOpen}, {viaX, chunked + via + "\r\n5\r\nhel", kClosed}},
      {"HEAD answered with a Content-Length", {Raw(head + "\r\n")}, {Get("/x", "", "HEAD")},
       {Got("/x", "", false, "HEAD"), head + "\r\n", kOpen},
       {Got("/x", "", true, "HEAD"), head + via + "\r\n", kOpen}},
      {"304 with a Content-Length", {Raw(same + "\r\n")}, {x}, {gotX, same + "\r\n", kOpen},
       {viaX, same + via + "\r\n", kOpen}},
      {"503 without a length", {Raw(busy + "\r\nbusy").ThenClose()}, {x},
       {gotX, busy + "\r\n", kOpen}, {viaX, busy + close + via + "\r\nbusy", kClosed}},
      {"301 without a length", {Raw(moved + "\r\nmoved").ThenClose()}, {x},
       {gotX, moved + "\r\n", kOpen}, {viaX, moved + close + via + "\r\nmoved", kClosed}},
      {"a chunked answer to an HTTP/1.0 browser", {Raw(chunked + body)},
       {"GET http://127.0.0.1:{P}/x HTTP/1.0\r\n\r\n"},
       {"GET /x HTTP/1.0\r\n\r\n", chunked + body, kOpen},
       {"GET /x HTTP/1.1\r\nHost: 127.0.0.1:{P}\r\n" + close + "Via: 1.0 Vexilo\r\n\r\n",
        "HTTP/1.1 200 OK\r\n" + close + via + "\r\nhello", kClosed}},
      {"fields for the server's connection alone",
       {Raw("HTTP/1.1 200 OK\r\nConnection: X-S, keep-alive\r\nX-S: 1\r\nKeep-Alive: timeout=5\r\n"
            "Content-Length: 5\r\n\r\nhello")},
       {x}, {gotX, "HTTP/1.1 200 OK\r\nConnection: X-S, keep-alive\r\nX-S: 1\r\n"
                   "Keep-Alive: timeout=5\r\nContent-Length: 5\r\n\r\nhello", kOpen},
       {viaX, Ok("hello", true), kOpen}},
      {"an interim answer first", {Raw(interim + "\r\n" + Ok("hello"))}, {x},
       {gotX, interim + "\r\n" + Ok("hello"), kOpen},
       {viaX, interim + via + "\r\n" + Ok("hello", true), kOpen}},
      {"the browser asks to close", {}, {Get("/x", close)}, {Got("/x", close), Ok("hello"), kOpen},
       {Got("/x", close, true), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n" + close + via +
                                    "\r\nhello", kClosed}},
  });
}

TEST_F(StandardHttp, FailuresAreAnsweredAndOnlySafeRequestsRetried) {
  const std::string post = Post("Content-Length: 4\r\n", "data");
  const std::string posted = Posted("Content-Length: 4\r\n", "data");
  const std::string postedVia = Posted("Content-Length: 4\r\n", "data", true);
  const std::string dropped = "127.0.0.1:{P} closed the connection without a response";
  const std::string hello = Ok("hello"), helloVia = Ok("hello", true);
  const OriginReply kept = Raw(hello);
  RunBoth({
      {"a host that does not resolve", {},
       {"GET http://no-such-host.invalid/x HTTP/1.1\r\nHost: no-such-host.invalid\r\n\r\n"},
       {"", "", kClosed}, {"", Refused(502, "cannot resolve no-such-host.invalid:80"), kClosed}},
      {"a port nobody listens on", {},
       {"GET http://127.0.0.1:{D}/x HTTP/1.1\r\nHost: 127.0.0.1:{D}\r\n\r\n"},
       {"", "", kClosed}, {"", Refused(502, "cannot connect to 127.0.0.1:{D}"), kClosed}},
      {"a tunnel to a port nobody listens on", {},
       {"CONNECT 127.0.0.1:{D} HTTP/1.1\r\nHost: 127.0.0.1:{D}\r\n\r\n"},
       {"", "", kClosed}, {"", Refused(502, "cannot connect to 127.0.0.1:{D}"), kClosed}},
      {"a POST the origin drops on a new connection",
       {OriginReply::Hangup(), OriginReply::Hangup()}, {post}, {posted + posted, "", kClosed},
       {postedVia, Refused(502, dropped), kClosed}},
      {"a GET the origin drops on a kept connection", {kept, OriginReply::Hangup()},
       {Get("/1"), Get("/2")}, {Got("/1") + Got("/2") + Got("/2"), hello + hello, kOpen},
       {Got("/1", "", true) + Got("/2", "", true) + Got("/2", "", true), helloVia + helloVia,
        kOpen}},
      {"a kept connection that breaks off in the response",
       {kept, Raw("HTTP/1.1 200").ThenClose()}, {Get("/1"), Get("/2")},
       {Got("/1") + Got("/2") + Got("/2"), hello + hello, kOpen},
       {Got("/1", "", true) + Got("/2", "", true),
        helloVia + Refused(502, "incomplete response header from 127.0.0.1:{P}"), kClosed}},
      {"a POST the origin drops on a kept connection", {kept, OriginReply::Hangup()},
       {Get("/1"), post}, {Got("/1") + posted + posted, hello + hello, kOpen},
       {Got("/1", "", true) + postedVia, helloVia + Refused(502, dropped), kClosed}},
  });
  // The designed relay gives up without a word, but not without a line.
  EXPECT_NE(RequestLog().find("Connect/Send to the remote host failed "), std::string::npos);
}

// The session with a short wait for the server's answer.
class ImpatientClient : public CProxyClient {
 public:
  using CProxyClient::CProxyClient;
  using CProxyClient::SetWaits;
};

TEST_F(StandardHttp, ServerThatNeverAnswersIsAGatewayTimeout) {
  Service()->SetExtensions(kExtensionStandardHttp);
  OriginServer origin([](const OriginRequest&) { return OriginReply::Silent(); });
  vxtest::SocketPair pair;
  ImpatientClient session(pair.server);
  pair.server = INVALID_SOCKET;
  HttpWaits waits;
  waits.responseSec = 1;
  session.SetWaits(waits);
  RawClient browser(pair.client);
  pair.client = INVALID_SOCKET;
  ASSERT_TRUE(browser.Send(Fill(Get("/x"), origin.Port(), 0)));
  std::thread worker([&] { session.RunSession(); });
  EXPECT_EQ(browser.ReceiveUntilClosed(kWaitMs),
            Fill(Refused(504, "no response from 127.0.0.1:{P} within 1 s"), origin.Port(), 0));
  browser.Close();
  worker.join();
}
