// The tunnel guard in a running service: a CONNECT to an ad host is refused
// before anything is connected, logged, counted and announced like a blocked
// GET; exceptions, the switched-off bit and switched-off filtering open the
// tunnel as before. The origin server stands in for the tunnel's far end.
#include <gtest/gtest.h>

#include <string>

#include "support/origin_server.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"
#include "vxproxy/extensions.h"
#include "platform/platform.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;
using vxtest::RawClient;

namespace {

constexpr int kWaitMs = 5000;
const std::string kRefused = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
const std::string kEstablished = "HTTP/1.0 200 Vexilo Established Connection\r\n\r\n";
const std::string kAdServerList =
    "! *** easylist:easylist/easylist_adservers.txt ***\n||ads.example^\n||localhost^\n";

class TunnelGuard : public ServiceFixture {
 protected:
  std::string FilterList() const override { return kAdServerList; }

  void SetUp() override {
    Service()->SetExtensions(kExtensionTunnelGuard);
    ServiceFixture::SetUp();
    WriteTextFile(dir_ / "logs/siteinfo.log", "<Vexilo><Sites></Sites></Vexilo>");
    ASSERT_TRUE(proxy_->Start());
  }
  void TearDown() override {
    origin_.Stop();
    ServiceFixture::TearDown();
    Service()->SetExtensions(0);
  }

  std::string Connect(const std::string& target) const {
    return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n\r\n";
  }
  std::string Local() const { return "localhost:" + std::to_string(origin_.Port()); }

  // The answer to a CONNECT, and whether the proxy closed afterwards.
  std::string Ask(const std::string& target, bool* closed) {
    RawClient client;
    EXPECT_TRUE(client.Connect(proxy_->GetPort()));
    EXPECT_TRUE(client.Send(Connect(target)));
    const std::string answer = client.ReceiveUntil("\r\n\r\n", kWaitMs);
    *closed = client.WaitForClose(answer == kEstablished ? 300 : kWaitMs);
    return answer;
  }

  // A tunnel opens and carries a request to the origin.
  void ExpectTunnel(const std::string& target) {
    RawClient client;
    ASSERT_TRUE(client.Connect(proxy_->GetPort()));
    ASSERT_TRUE(client.Send(Connect(target)));
    EXPECT_EQ(client.ReceiveUntil("\r\n\r\n", kWaitMs), kEstablished) << target;
    ASSERT_TRUE(client.Send("GET /tunneled HTTP/1.1\r\nHost: x\r\n\r\n"));
    const std::string response = client.ReceiveResponse(kWaitMs);
    EXPECT_EQ(response.substr(response.size() - 5), "hello") << target;
  }

  OriginServer origin_{[](const OriginRequest&) { return OriginReply::Counted("hello"); }};
};

TEST_F(TunnelGuard, AdHostIsRefusedLoggedCountedAndAnnounced) {
  constexpr UINT kMessage = 0x8003;
  HWND window = os::CreateWindowQueue();
  proxy_->AddNotifyTarget(window, 0, kMessage, kEventRequestBlocked, true);

  const int filtered = proxy_->GetFilteredRequests();
  bool closed = false;
  EXPECT_EQ(Ask("ads.example:443", &closed), kRefused);
  EXPECT_TRUE(closed);
  EXPECT_EQ(Ask("cdn.ADS.example:443", &closed), kRefused);
  EXPECT_TRUE(closed);
  EXPECT_EQ(Ask(Local(), &closed), kRefused);  // never connected: the origin sees nothing
  EXPECT_TRUE(closed);

  MSG msg;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(os::WaitMessage(window, &msg, kWaitMs)) << i;
    EXPECT_EQ(msg.message, kMessage);
  }
  proxy_->RemoveNotifyTarget(window, 0, kMessage);
  os::DestroyWindowQueue(window);

  CSiteList* list = proxy_->GetSiteCounter()->GetSites();
  const auto sites = list->sites;
  proxy_->GetSiteCounter()->FreeSites(list);
  EXPECT_EQ(sites.count("ads.example"), 1u);
  EXPECT_EQ(sites.count("cdn.ads.example") + sites.count("cdn.ADS.example"), 1u);
  EXPECT_EQ(proxy_->GetFilteredRequests(), filtered);
  EXPECT_EQ(origin_.Requests().size(), 0u);

  proxy_->Stop();  // writes the logs out
  const std::string requests = RequestLog();
  EXPECT_NE(requests.find("[B]  CONNECT ads.example:443"), std::string::npos) << requests;
  EXPECT_NE(requests.find("[B]  CONNECT " + Local()), std::string::npos) << requests;
  const std::string blocked = BlockedLog();
  EXPECT_NE(blocked.find("   ads.example  __  ads.example:443"), std::string::npos) << blocked;
  EXPECT_NE(blocked.find("   localhost:" + std::to_string(origin_.Port()) + "  __  " + Local()),
            std::string::npos)
      << blocked;
}

TEST_F(TunnelGuard, ExceptionsBitAndFilteringSwitchOpenTheTunnel) {
  bool closed = false;
  ASSERT_EQ(Ask(Local(), &closed), kRefused);

  // An exception in the filters file, whatever its options.
  WriteTextFile(dir_ / "filters/filters.txt", kAdServerList + "@@||localhost^$script\n");
  ASSERT_TRUE(proxy_->LoadFilterLists());
  ExpectTunnel(Local());

  // The user's approved list.
  WriteTextFile(dir_ / "filters/filters.txt", kAdServerList);
  WriteTextFile(dir_ / "data/vexilowl.txt", "@@||localhost^\n");
  ASSERT_TRUE(proxy_->LoadFilterLists());
  ExpectTunnel(Local());

  WriteTextFile(dir_ / "data/vexilowl.txt", "");
  ASSERT_TRUE(proxy_->LoadFilterLists());
  ASSERT_EQ(Ask(Local(), &closed), kRefused);

  proxy_->EnableFiltering(false);
  ExpectTunnel(Local());
  proxy_->EnableFiltering(true);

  Service()->SetExtensions(0);
  ExpectTunnel(Local());

  proxy_->Stop();  // writes the logs out
  const std::string requests = RequestLog();
  std::size_t refusals = 0;
  for (std::size_t at = requests.find("[B]  CONNECT"); at != std::string::npos;
       at = requests.find("[B]  CONNECT", at + 1)) {
    ++refusals;
  }
  EXPECT_EQ(refusals, 2u) << requests;
}

}  // namespace
