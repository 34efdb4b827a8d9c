#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "support/wait.h"
#include "support/origin_server.h"
#include "support/service_fixture.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;

namespace {

using vxtest::RunCommand;

constexpr const char* kChromium = "/usr/bin/chromium";

const char kPage[] =
    "<!doctype html><html><head><title>page</title>"
    "<script src=\"/banner/ad.js\"></script></head><body>"
    "<img id=\"real\" src=\"/img/pixel.png\"><img id=\"ad\" src=\"/banner/ad.png\">"
    "<iframe src=\"/frame.html\"></iframe></body></html>";

OriginReply Serve(const OriginRequest& r) {
  if (r.target == "/page.html") return OriginReply::Counted(kPage, "text/html");
  if (r.target == "/frame.html") return OriginReply::Counted("<p>frame</p>", "text/html");
  if (r.target == "/img/pixel.png") return OriginReply::Image("\x89PNG-not-really");
  return OriginReply::Counted("", "text/plain", 404);
}

// The hosts named by the request lines of request.log ("[P]  " and "[B]  ").
std::set<std::string> HostsSeen(const std::string& log) {
  std::set<std::string> hosts;
  std::istringstream lines(log);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("[P]  ", 0) != 0 && line.rfind("[B]  ", 0) != 0) continue;
    std::string url = line.substr(line.find(' ', 5) + 1);
    if (const size_t scheme = url.find("://"); scheme != std::string::npos) url.erase(0, scheme + 3);
    hosts.insert(url.substr(0, url.find_first_of("/ \r")));
  }
  return hosts;
}

}  // namespace

class Browser : public ServiceFixture {
 protected:
  std::string FilterList() const override { return "/banner/\n"; }
};

TEST_F(Browser, PageLoadsThroughTheProxyWithoutItsAds) {
  if (std::system((std::string("test -x ") + kChromium).c_str()) != 0) {
    GTEST_SKIP() << "chromium is not installed (apt-get install chromium)";
  }
  OriginServer origin(Serve);
  ASSERT_TRUE(proxy_->Start());
  const std::string port = std::to_string(proxy_->GetPort());
  const std::string page = "http://127.0.0.1:" + std::to_string(origin.Port()) + "/page.html";
  TempDir profile;
  const std::string command =
      std::string("timeout 60 ") + kChromium +
      " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
      " --disable-background-networking --disable-component-update --disable-sync"
      " --user-data-dir=" + profile.str() + " --proxy-server=http://127.0.0.1:" + port +
      " --proxy-bypass-list='<-loopback>'"
      " --host-resolver-rules='MAP * ~NOTFOUND, EXCLUDE 127.0.0.1'"
      " --component-updater=url-source=http://127.0.0.1:9/ --gaia-url=http://127.0.0.1:9/"
      " --disable-features=NetworkTimeServiceQuerying --virtual-time-budget=5000"
      " --dump-dom " + page + " 2>/dev/null";
  const std::string dom = RunCommand(command);
  EXPECT_NE(dom.find("id=\"real\""), std::string::npos) << dom;

  std::set<std::string> targets;
  for (const OriginRequest& r : origin.Requests()) {
    if (r.method != "HEAD") targets.insert(r.target);  // size probes of blocked items
  }
  EXPECT_TRUE(targets.count("/page.html"));
  EXPECT_TRUE(targets.count("/img/pixel.png"));
  EXPECT_TRUE(targets.count("/frame.html"));
  EXPECT_FALSE(targets.count("/banner/ad.png")) << "a blocked image reached the server";
  EXPECT_FALSE(targets.count("/banner/ad.js")) << "a blocked script reached the server";

  proxy_->Stop();
  const std::string log = RequestLog();
  EXPECT_NE(log.find("[B]  GET http://127.0.0.1:" + std::to_string(origin.Port()) + "/banner/ad.png"),
            std::string::npos)
      << log;
  // The browser was kept to the test's own origin: any other host means it
  // reached out through the proxy on its own.
  EXPECT_EQ(HostsSeen(log), std::set<std::string>{"127.0.0.1:" + std::to_string(origin.Port())})
      << log;
}
