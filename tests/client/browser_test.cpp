#include <gtest/gtest.h>

#include <set>
#include <string>

#include "support/chromium.h"
#include "support/origin_server.h"
#include "support/service_fixture.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;

namespace {

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

}  // namespace

class Browser : public ServiceFixture {
 protected:
  std::string FilterList() const override { return "/banner/\n"; }
};

TEST_F(Browser, PageLoadsThroughTheProxyWithoutItsAds) {
  if (!vxtest::ChromiumInstalled()) {
    GTEST_SKIP() << "chromium is not installed (apt-get install chromium)";
  }
  OriginServer origin(Serve);
  ASSERT_TRUE(proxy_->Start());
  const std::string page = "http://127.0.0.1:" + std::to_string(origin.Port()) + "/page.html";
  const std::string dom = vxtest::LoadInChromium(proxy_->GetPort(), page);
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
  EXPECT_EQ(vxtest::RequestLogHosts(log), std::set<std::string>{"127.0.0.1:" + std::to_string(origin.Port())})
      << log;
}
