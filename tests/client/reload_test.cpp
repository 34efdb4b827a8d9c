// The service reloading its filter lists while it serves: connections that
// are open stay open and judge their next request by the new lists.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/origin_server.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"

using vxtest::RawClient;

namespace {

constexpr int kWaitMs = 5000;
// The blocked-image answer starts like every 200, so its type tells it apart.
constexpr const char* kGifType = "\r\nContent-Type: image/gif\r\n";

class ServiceReload : public ServiceFixture {
 protected:
  std::string FilterList() const override { return "/banner/\n"; }

  void SetUp() override {
    ServiceFixture::SetUp();
    ASSERT_TRUE(proxy_->Start());
  }

  void TearDown() override {
    origin_.Stop();
    ServiceFixture::TearDown();
  }

  // One GET on the connection; true when the proxy answered with its GIF,
  // false when the origin's "hello" came back.
  bool Blocked(RawClient& client, const std::string& path) {
    const std::string host = "127.0.0.1:" + std::to_string(origin_.Port());
    EXPECT_TRUE(client.Send("GET http://" + host + path + " HTTP/1.1\r\nHost: " + host +
                            "\r\nProxy-Connection: keep-alive\r\n\r\n"));
    const std::string reply = client.ReceiveResponse(kWaitMs);
    const bool passed = reply.size() >= 5 && reply.compare(reply.size() - 5, 5, "hello") == 0;
    EXPECT_TRUE(passed || reply.find(kGifType) != std::string::npos) << path << ": " << reply;
    return !passed;
  }

  vxtest::OriginServer origin_;
};

TEST_F(ServiceReload, OpenConnectionsStayOpenAndJudgeByTheNewLists) {
  RawClient busy, idle;
  ASSERT_TRUE(busy.Connect(proxy_->GetPort()));
  ASSERT_TRUE(idle.Connect(proxy_->GetPort()));
  EXPECT_TRUE(Blocked(busy, "/banner/a.gif"));
  EXPECT_FALSE(Blocked(busy, "/promo/a.gif"));

  WriteTextFile(dir_ / "filters/filters.txt", "/promo/\n");
  ASSERT_TRUE(proxy_->LoadFilterLists());
  EXPECT_FALSE(Blocked(busy, "/banner/a.gif"));
  EXPECT_TRUE(Blocked(busy, "/promo/a.gif"));
  EXPECT_TRUE(Blocked(idle, "/promo/b.gif"));

  // The approved list is read again with the filters.
  WriteTextFile(dir_ / "data/vexilowl.txt", "@@||127.0.0.1^\n");
  ASSERT_TRUE(proxy_->LoadFilterLists());
  EXPECT_FALSE(Blocked(busy, "/promo/a.gif"));
  EXPECT_FALSE(Blocked(idle, "/promo/b.gif"));
  EXPECT_FALSE(busy.PeerClosed());
  EXPECT_FALSE(idle.PeerClosed());
  EXPECT_EQ(proxy_->GetActiveClientCount(), 2);

  // A list that is gone leaves the rules in use.
  std::filesystem::remove(dir_ / "filters/filters.txt");
  std::filesystem::remove(dir_ / "data/vexilowl.txt");
  EXPECT_FALSE(proxy_->LoadFilterLists());
  EXPECT_TRUE(Blocked(busy, "/promo/a.gif"));

  proxy_->Stop();  // writes the log out
  const std::string log = ProxyLog();
  const std::size_t first = log.find("[INFO]: Filter lists reloaded: 1 rules in ");
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_NE(log.find("[INFO]: Filter lists reloaded: 2 rules in ", first), std::string::npos) << log;
  EXPECT_NE(log.find("[INFO]: Filter lists not fully reloaded after "), std::string::npos) << log;
  // Start's own load writes no such line.
  EXPECT_LT(log.find("Starting Proxy @"), first);
  EXPECT_EQ(log.rfind("Filter lists", log.find("Starting Proxy @")), std::string::npos);
}

}  // namespace
