// The tunnel guard as a user meets it: Chromium browses through "vxproxy run"
// a page whose https frame and script live on an ad server. Their tunnels are
// refused before anything is connected, the page's own https tunnel carries
// the browser's bytes, and "vxproxy allow" reopens the ad host while the
// proxy runs.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/chromium.h"
#include "support/process.h"
#include "support/raw_client.h"
#include "support/tempdir.h"
#include "support/wait.h"

namespace {

constexpr int kWaitMs = 10000;
const std::string kProgram = std::string(VX_BINARY_DIR) + "/vxproxy";
const std::string kAdConnect = "[B]  CONNECT ads.adhost.test:443";

// The proxy's upstream, and so the only place any of its connections lead.
// It notes the first line of every request relayed to it and serves the page
// to GETs. It is also the far end of every tunnel: it answers a CONNECT with
// 200 and keeps the first bytes the browser sends through, then closes (no
// TLS here: the browser's handshake just fails).
class Upstream {
 public:
  struct Request {
    std::string line;       // "GET http://...", "CONNECT https://host:port HTTP/1.1"
    std::string tunnelled;  // a CONNECT's first bytes after the 200
  };

  Upstream() : page_(Page(listener_.Port())), thread_([this] { Serve(); }) {}
  ~Upstream() {
    stop_ = true;
    thread_.join();
  }
  unsigned short Port() const { return listener_.Port(); }
  std::vector<Request> Requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  static std::string Page(unsigned short port) {
    return "<!doctype html><html><body><p id=\"real\">news</p>"
           "<iframe src=\"https://ads.adhost.test/frame.html\"></iframe>"
           "<script src=\"https://ads.adhost.test/ad.js\"></script>"
           "<img src=\"https://127.0.0.1:" + std::to_string(port) + "/x.png\"></body></html>";
  }

  // One connection at a time: each takes at most a few seconds.
  void Serve() {
    while (!stop_) {
      const SOCKET s = listener_.Accept(50);
      if (s == INVALID_SOCKET) continue;
      vxtest::RawClient proxy(s);
      const std::string head = proxy.ReceiveUntil("\r\n\r\n", kWaitMs);
      Request request{head.substr(0, head.find("\r\n")), ""};
      if (request.line.rfind("CONNECT ", 0) == 0) {
        proxy.Send("HTTP/1.1 200 Connection established\r\n\r\n");
        request.tunnelled = proxy.Receive(2, kWaitMs);
      } else {
        const bool page = request.line.find("/page.html ") != std::string::npos;
        const std::string body = page ? page_ : "";
        proxy.Send(std::string(page ? "HTTP/1.1 200 OK" : "HTTP/1.1 404 Not Found") +
                   "\r\nContent-Type: text/html\r\nContent-Length: " +
                   std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
      }
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
    }
  }

  vxtest::LoopbackListener listener_;
  const std::string page_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
  std::thread thread_;  // last: it starts with everything above in place
};

int Count(const std::string& text, const std::string& what) {
  int count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// How many tunnels the upstream opened to the target ("host" or "host:port"),
// and how many of them carried the start of a TLS record (0x16 0x03).
std::pair<int, int> Tunnels(const Upstream& upstream, const std::string& target) {
  std::pair<int, int> tunnels{0, 0};
  for (const Upstream::Request& r : upstream.Requests()) {
    if (r.line != "CONNECT https://" + target + " HTTP/1.1") continue;
    ++tunnels.first;
    tunnels.second += r.tunnelled == "\x16\x03";
  }
  return tunnels;
}

}  // namespace

TEST(TunnelBrowser, AdTunnelsAreRefusedUntilTheHostIsApproved) {
  if (!vxtest::ChromiumInstalled()) {
    GTEST_SKIP() << "chromium is not installed (apt-get install chromium)";
  }
  TempDir dir;
  // A rule for the parent domain; the approved list will name the ad host.
  WriteTextFile(dir / "data/filters.txt",
                "! *** easylist:easylist/easylist_adservers.txt ***\n||adhost.test^\n");
  WriteTextFile(dir / "data/vexilo.ini", "[Vexilo]\nPort=0\n");
  Upstream upstream;
  ASSERT_NE(upstream.Port(), 0);
  const std::string self = "127.0.0.1:" + std::to_string(upstream.Port());
  vxtest::ChildProcess host;
  ASSERT_TRUE(host.Start(kProgram, {"run", "--data", dir / "data", "--logs", dir / "logs",
                                    "--upstream", self}));
  const unsigned short port = vxtest::ReadListeningPort(host, kWaitMs);
  ASSERT_NE(port, 0);
  const std::string page = "http://" + self + "/page.html";

  // The ad host's tunnels are refused; the page's own one is opened.
  std::string dom = vxtest::LoadInChromium(port, page);
  EXPECT_NE(dom.find("id=\"real\""), std::string::npos) << dom;
  const auto own = Tunnels(upstream, self);
  EXPECT_GE(own.first, 1);
  EXPECT_EQ(own.second, own.first) << "a tunnel did not carry the browser's TLS bytes";
  EXPECT_EQ(Tunnels(upstream, "ads.adhost.test").first, 0);
  const int refused = Count(ReadTextFile(dir / "logs/request.log"), kAdConnect);
  EXPECT_GE(refused, 1);

  // The running proxy picks the approved list up and lets the tunnels through.
  int status = -1;
  const std::string allowed =
      vxtest::RunCommand(kProgram + " allow --data " + (dir / "data") + " ads.adhost.test 2>&1", &status);
  ASSERT_EQ(status, 0) << allowed;
  ASSERT_TRUE(vxtest::WaitUntil(
      [&] { return ReadTextFile(dir / "logs/proxy.log").find("Filter lists reloaded") != std::string::npos; },
      kWaitMs));
  dom = vxtest::LoadInChromium(port, page);
  EXPECT_NE(dom.find("id=\"real\""), std::string::npos) << dom;
  const auto ads = Tunnels(upstream, "ads.adhost.test");
  EXPECT_GE(ads.first, 1);

  host.Interrupt();
  ASSERT_EQ(host.Wait(kWaitMs), 0);
  const std::string log = ReadTextFile(dir / "logs/request.log");
  EXPECT_EQ(Count(log, kAdConnect), refused) << log;
  // The browser was kept to the test's own hosts.
  EXPECT_EQ(vxtest::RequestLogHosts(log), (std::set<std::string>{self, "ads.adhost.test:443"})) << log;
  for (const Upstream::Request& r : upstream.Requests()) {
    EXPECT_TRUE(r.line.find("//" + self + "/") != std::string::npos ||
                r.line == "CONNECT https://" + self + " HTTP/1.1" ||
                r.line == "CONNECT https://ads.adhost.test HTTP/1.1")
        << r.line;
  }
  std::printf("tunnels to %s: %d, %d with TLS bytes; to the ad host: %d refused, then %d opened\n",
              self.c_str(), own.first, own.second, refused, ads.first);
}
