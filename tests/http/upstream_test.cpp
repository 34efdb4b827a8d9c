// Reading real server responses of every framing through a session's upstream
// connection, against the origin server the session tests also use.
#include <string>
#include <thread>
#include <vector>

#include "../support/origin_server.h"
#include "http_fixture.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;

class UpstreamResponse : public HttpTest {
 protected:
  // Connects the request's upstream side to the origin and sends a GET.
  void Ask(OriginServer& origin, const std::string& target = "/") {
    TestRequest& r = request_ ? *request_ : MakeRequest();
    r.connectHost_ = "127.0.0.1";
    r.connectPort_ = origin.Port();
    ASSERT_TRUE(r.ConnectUpstream());
    const std::string get = "GET " + target + " HTTP/1.1\r\nHost: origin\r\n\r\n";
    ASSERT_EQ(r.SendAll(r.upstreamSocket_, get.data(), static_cast<int>(get.size())),
              static_cast<int>(get.size()));
  }
  // What the browser end of the session received.
  std::string AtBrowser(int waitMs = 300) {
    vxtest::RawClient browser(pair_->client);
    std::string got = browser.ReceiveAvailable(waitMs);
    browser.Release();
    return got;
  }
};

TEST_F(UpstreamResponse, HeaderTricklingInByteByByteIsAssembled) {
  OriginServer origin([](const OriginRequest&) {
    return OriginReply::Counted("0123456789", "image/png").Slowly(1, 2);
  });
  Ask(origin);
  TestRequest& r = *request_;
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  EXPECT_EQ(r.statusCode_, 200);
  EXPECT_EQ(r.contentLength_, 10);
  EXPECT_EQ(Text(r.responseTypeWord_), "gif");
  EXPECT_EQ(r.ForwardBody(r.upstreamSocket_, r.clientSocket_, r.contentLength_, nullptr), 10);
  EXPECT_EQ(AtBrowser(), "0123456789");
  EXPECT_EQ(r.bytesFromUpstream_, static_cast<int>(Text(r.rawHeader_).size()) + 10);
}

TEST_F(UpstreamResponse, UnframedBodyIsRelayedUntilTheServerCloses) {
  const std::string body(10000, 'u');
  OriginServer origin([&](const OriginRequest&) { return OriginReply::Unframed(body); });
  Ask(origin);
  TestRequest& r = *request_;
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  EXPECT_EQ(r.contentLength_, 0);
  EXPECT_FALSE(r.closeFlag_);
  EXPECT_TRUE(r.IsBodyAllowed());
  std::string received;
  std::thread browser([&] {
    vxtest::RawClient c(pair_->client);
    received = c.Receive(body.size(), 5000);
    c.Release();
  });
  EXPECT_EQ(r.ForwardBody(r.upstreamSocket_, r.clientSocket_, kUnknownBodyLength, nullptr), -1);
  browser.join();
  EXPECT_EQ(received, body);
}

TEST_F(UpstreamResponse, NotModifiedHasNoBodyAndKeepsTheConnection) {
  OriginServer origin([](const OriginRequest&) { return OriginReply::NoBody(304); });
  Ask(origin);
  TestRequest& r = *request_;
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  EXPECT_EQ(r.statusCode_, 304);
  EXPECT_EQ(r.contentLength_, 0);
  EXPECT_FALSE(r.IsBodyAllowed());
  EXPECT_TRUE(r.IsUpstreamAlive());
  Ask(origin, "/again");
  ASSERT_TRUE(origin.WaitForRequests(2, 2000));
  EXPECT_EQ(origin.ConnectionCount(), 1);
}

TEST_F(UpstreamResponse, RedirectCarriesItsStatus) {
  OriginServer origin([](const OriginRequest&) {
    return OriginReply::Redirect(302, "http://elsewhere.example/ad.gif");
  });
  Ask(origin);
  TestRequest& r = *request_;
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  EXPECT_EQ(r.statusCode_, 302);
  EXPECT_TRUE(r.IsBodyAllowed());
  EXPECT_EQ(Text(r.otherHeaderLines_),
            "Location: http://elsewhere.example/ad.gif\r\nContent-Length: 0\r\n");
}

TEST_F(UpstreamResponse, ChunkedResponseIsFlaggedAndLeftInTheBuffer) {
  OriginServer origin([](const OriginRequest&) {
    return OriginReply::Chunked({"hello", std::string(26, 'x')}, "text/plain", "X-Trailer: 1\r\n");
  });
  Ask(origin);
  TestRequest& r = *request_;
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  EXPECT_TRUE(r.chunkedFlag_);
  EXPECT_EQ(Text(r.responseTypeWord_), "htm");
  // The body is the session's to relay; it starts in the receive buffer.
  std::string body = Text(r.receiveBuffer_);
  while (body.find("\r\n\r\n") == std::string::npos && r.ReceiveMore(r.upstreamSocket_) > 0) {
    body = Text(r.receiveBuffer_);
  }
  EXPECT_EQ(body, "5\r\nhello\r\n1a\r\n" + std::string(26, 'x') + "\r\n0\r\nX-Trailer: 1\r\n\r\n");
}

TEST_F(UpstreamResponse, OriginRecordsRequestBodiesOfBothFramings) {
  OriginServer origin;
  vxtest::RawClient client;
  ASSERT_TRUE(client.Connect(origin.Port()));
  const std::string counted = "POST /a HTTP/1.1\r\nHost: o\r\nContent-Length: 3\r\n\r\nabc";
  const std::string chunked =
      "POST /b HTTP/1.1\r\nHost: o\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nxyz\r\n0\r\n\r\n";
  ASSERT_TRUE(client.Send(counted));
  EXPECT_EQ(client.ReceiveResponse(2000), "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n"
                                          "Content-Length: 5\r\n\r\nhello");
  ASSERT_TRUE(client.SendSlowly(chunked, 7, 5));
  EXPECT_NE(client.ReceiveResponse(2000), "");
  ASSERT_TRUE(origin.WaitForRequests(2, 2000));
  const std::vector<OriginRequest> requests = origin.Requests();
  EXPECT_EQ(requests[0].body, "abc");
  EXPECT_EQ(requests[0].target, "/a");
  EXPECT_EQ(requests[1].body, "3\r\nxyz\r\n0\r\n\r\n");
  EXPECT_EQ(requests[1].index, 1);
  EXPECT_EQ(requests[1].fields.at("transfer-encoding"), "chunked");
  EXPECT_EQ(origin.Received(0), counted + chunked);
}
