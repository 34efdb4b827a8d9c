// The safety limits that keep the proxy alive whatever its clients do.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/platform.h"
#include "support/origin_server.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"

using vxtest::RawClient;

namespace {

constexpr int kWaitMs = 5000;

std::string Body(const std::string& response) {
  const size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? "" : response.substr(end + 4);
}

std::string GetFrom(unsigned short origin) {
  const std::string host = "127.0.0.1:" + std::to_string(origin);
  return "GET http://" + host + "/x.html HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

size_t Count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

}  // namespace

class SafetyLimits : public ServiceFixture {
 protected:
  void StartProxy() {
    ASSERT_TRUE(proxy_->Start());
    port_ = proxy_->GetPort();
    // Connection attempts are VERBOSE event lines: the tests look for them.
    proxy_->GetLog(kLogProxy)->SetLevelMask(-1);
  }

  vxtest::OriginServer origin_;
  unsigned short port_ = 0;
};

TEST_F(SafetyLimits, RequestsAndTunnelsForTheProxyItselfAreRefusedAtOnce) {
  StartProxy();
  const std::string own = ":" + std::to_string(port_);
  char name[256] = {};
  ASSERT_EQ(os::gethostname(name, sizeof name), 0);
  std::vector<std::string> targets = {"127.0.0.1", "localhost", "LocalHost", "127.9.8.7",
                                      "0.0.0.0", name};
  for (std::uint32_t address : os::InterfaceAddresses()) targets.push_back(os::inet_ntoa(address));
  std::vector<std::string> requests;
  for (const std::string& host : targets) {
    requests.push_back("GET http://" + host + own + "/x.html HTTP/1.1\r\nHost: a\r\n\r\n");
    requests.push_back("CONNECT " + host + own + " HTTP/1.1\r\nHost: a\r\n\r\n");
  }
  // The proxy asked as if it were the server (no proxy set in the client).
  requests.push_back("GET /x HTTP/1.1\r\nHost: 127.0.0.1" + own + "\r\n\r\n");
  for (const std::string& request : requests) {
    RawClient client;
    ASSERT_TRUE(client.Connect(port_));
    ASSERT_TRUE(client.Send(request));
    const std::string reply = client.ReceiveUntilClosed(kWaitMs);
    EXPECT_EQ(reply.rfind("HTTP/1.1 508 Loop Detected\r\n", 0), 0u) << request;
    EXPECT_NE(reply.find("\r\nCache-Control: no-store\r\n"), std::string::npos) << request;
    EXPECT_TRUE(client.PeerClosed()) << request;
  }
  // Nothing was sent on, and the limit wrote its line once for all of them.
  const std::string log = ProxyLog();
  EXPECT_EQ(log.find("connecting to the host "), std::string::npos);
  EXPECT_EQ(Count(log, "Refused a request for this proxy itself ("), 1u) << log;
  // Another port of this machine is no loop.
  RawClient client;
  ASSERT_TRUE(client.Connect(port_));
  ASSERT_TRUE(client.Send(GetFrom(origin_.Port())));
  EXPECT_EQ(Body(client.ReceiveResponse(kWaitMs)), "hello");
}

TEST_F(SafetyLimits, UpstreamProxyThatIsTheProxyItselfIsNotUsed) {
  // The port the proxy will take, named as its own upstream proxy.
  unsigned short port = 0;
  {
    vxtest::LoopbackListener probe;
    port = probe.Port();
  }
  WriteIni(std::to_string(port));
  proxy_->SetUpstreamProxy(CStringBuffer("localhost"), &port);
  StartProxy();
  ASSERT_EQ(port_, port);
  unsigned short upstreamPort = 1;
  EXPECT_EQ(proxy_->GetUpstreamProxy(&upstreamPort)->GetSize(), 0);
  EXPECT_EQ(upstreamPort, 0);
  EXPECT_NE(ProxyLog().find("[ERROR]: Upstream proxy localhost:" + std::to_string(port) +
                            " is this proxy itself: not used, requests go direct\r\n"),
            std::string::npos);
  // Requests go straight to their server.
  RawClient client;
  ASSERT_TRUE(client.Connect(port_));
  ASSERT_TRUE(client.Send(GetFrom(origin_.Port())));
  EXPECT_EQ(Body(client.ReceiveResponse(kWaitMs)), "hello");
}
