// The socket primitives of a session, against real loopback connections.
#include <chrono>
#include <string>
#include <thread>

#include "http_fixture.h"

using vxtest::SendAllBytes;
using vxtest::SocketPair;

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Everything readable on the socket within the wait.
std::string Drain(SOCKET s, int waitMs) {
  vxtest::RawClient reader(s);
  std::string out = reader.ReceiveAvailable(waitMs);
  reader.Release();
  return out;
}

}  // namespace

using SocketPrimitives = HttpTest;

TEST_F(SocketPrimitives, SendAllOfNothingSendsNothing) {
  TestRequest& r = MakeRequest();
  EXPECT_EQ(r.SendAll(r.clientSocket_, "abc", 0), 0);
  EXPECT_EQ(r.SendAll(r.clientSocket_, "abc", -5), 0);
  EXPECT_EQ(Drain(pair_->client, 100), "");
}

TEST_F(SocketPrimitives, SendAllDeliversEveryByteOfALargeBuffer) {
  TestRequest& r = MakeRequest();
  std::string big(3 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  std::string got;
  std::thread reader([&] {
    vxtest::RawClient c(pair_->client);
    got = c.Receive(big.size(), 10000);
    c.Release();
  });
  EXPECT_EQ(r.SendAll(r.clientSocket_, big.data(), static_cast<int>(big.size())),
            static_cast<int>(big.size()));
  reader.join();
  EXPECT_TRUE(got == big);
}

TEST_F(SocketPrimitives, SendAllOnABadSocketLogsTheError) {
  TestRequest& r = MakeRequest();
  EXPECT_EQ(r.SendAll(INVALID_SOCKET, "abc", 3), -1);
  EXPECT_NE(ProxyLog().find("[VERBOSE]: " + Text(r.GetConnectionTag()) + "Send failed "),
            std::string::npos);
}

TEST_F(SocketPrimitives, WaitWithoutAnySocketFailsAtOnceAndQuietly) {
  TestRequest& r = MakeRequest();
  const auto start = Clock::now();
  EXPECT_EQ(r.WaitForData(INVALID_SOCKET, INVALID_SOCKET, 2000), -2);
  EXPECT_LT(MsSince(start), 500);
  EXPECT_EQ(ProxyLog().find("Socket wait"), std::string::npos);
}

TEST_F(SocketPrimitives, ZeroTimeOutLogsTheLimitWithoutWaiting) {
  TestRequest& r = MakeRequest();
  SendAllBytes(pair_->client, "x");  // readable, but a zero wait never looks
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(r.WaitForData(r.clientSocket_, INVALID_SOCKET, 0), -2);
  EXPECT_NE(ProxyLog().find("[VERBOSE]: " + Text(r.GetConnectionTag()) +
                            "Socket wait exceede the limit 0 MS\r\n"),
            std::string::npos);
}

TEST_F(SocketPrimitives, TimeOutKeepsTheSubSecondRemainder) {
  TestRequest& r = MakeRequest();
  const auto start = Clock::now();
  EXPECT_EQ(r.WaitForData(r.clientSocket_, INVALID_SOCKET, 1500), -2);
  const long long elapsed = MsSince(start);
  EXPECT_GE(elapsed, 1400);
  EXPECT_LT(elapsed, 2500);
  EXPECT_NE(ProxyLog().find("Socket wait exceede the limit 1500 MS\r\n"), std::string::npos);
}

TEST_F(SocketPrimitives, FirstSocketWinsWhenBothAreReadable) {
  TestRequest& r = MakeRequest();
  SocketPair other;
  ASSERT_TRUE(other.IsOpen());
  SendAllBytes(pair_->client, "a");
  SendAllBytes(other.client, "b");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(r.WaitForData(r.clientSocket_, other.server, 1000), 1);
  EXPECT_EQ(r.WaitForData(other.server, r.clientSocket_, 1000), 1);
}

TEST_F(SocketPrimitives, SecondSocketIsReportedWhenOnlyItIsReadable) {
  TestRequest& r = MakeRequest();
  SocketPair other;
  SendAllBytes(other.client, "b");
  EXPECT_EQ(r.WaitForData(r.clientSocket_, other.server, 2000), 2);
  EXPECT_EQ(r.WaitForData(INVALID_SOCKET, other.server, 2000), 2);
}

TEST_F(SocketPrimitives, WaitReturnsAsSoonAsDataArrives) {
  TestRequest& r = MakeRequest();
  std::thread late([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    SendAllBytes(pair_->client, "x");
  });
  const auto start = Clock::now();
  EXPECT_EQ(r.WaitForSocket(r.clientSocket_, 5), 1);
  EXPECT_LT(MsSince(start), 2000);
  late.join();
  EXPECT_EQ(r.WaitForSocket(r.clientSocket_, 0), -2);
}

TEST_F(SocketPrimitives, ReceivedBytesAreCountedPerSide) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  SendAllBytes(pair_->client, "12345");
  SendAllBytes(upstream.client, "abc");
  EXPECT_EQ(r.ReceiveMore(r.clientSocket_), 5);
  EXPECT_EQ(r.ReceiveMore(r.upstreamSocket_), 3);
  EXPECT_EQ(Text(r.receiveBuffer_), "12345abc");
  EXPECT_EQ(r.bytesFromClient_, 5);
  EXPECT_EQ(r.bytesFromUpstream_, 3);
  EXPECT_EQ(r.CountReceived(r.clientSocket_, -1), -1);
  EXPECT_EQ(r.CountReceived(r.clientSocket_, 0), 0);
  EXPECT_EQ(r.bytesFromClient_, 5);
}

TEST_F(SocketPrimitives, ReceiveMoreSeesTheCloseAsZero) {
  TestRequest& r = MakeRequest();
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.ReceiveMore(r.clientSocket_), 0);
  EXPECT_EQ(r.receiveBuffer_.GetSize(), 0);
}

TEST_F(SocketPrimitives, RelayBytesMovesExactlyTheCount) {
  TestRequest& r = MakeRequest();
  SocketPair out;
  SendAllBytes(pair_->client, std::string(300, 'q') + "REST");
  CBufStream copy;
  EXPECT_EQ(r.RelayBytes(r.clientSocket_, out.server, 300, &copy), 300);
  EXPECT_EQ(Text(copy), std::string(300, 'q'));
  EXPECT_EQ(Drain(out.client, 200), std::string(300, 'q'));
  // What lies beyond the count stays in the socket for the next reader.
  EXPECT_EQ(Drain(r.clientSocket_, 200), "REST");
  EXPECT_EQ(r.bytesFromClient_, 300);
}

TEST_F(SocketPrimitives, RelayBytesFailsQuietlyWhenThePeerClosesMidBody) {
  TestRequest& r = MakeRequest();
  SendAllBytes(pair_->client, std::string(100, 'b'));
  vxtest::CloseSocket(pair_->client);
  CBufStream copy;
  EXPECT_EQ(r.RelayBytes(r.clientSocket_, INVALID_SOCKET, 500, &copy), -1);
  EXPECT_EQ(copy.GetSize(), 100);  // what came before the close was taken
  EXPECT_EQ(ProxyLog().find("Recv failed"), std::string::npos);
}

TEST_F(SocketPrimitives, RelayBytesGivesUpWhenTheSourceStaysQuiet) {
  TestRequest& r = MakeRequest();
  HttpWaits waits;
  waits.relaySec = 1;
  r.SetWaits(waits);
  EXPECT_EQ(r.RelayBytes(r.clientSocket_, INVALID_SOCKET, 10, nullptr), -1);
  EXPECT_NE(ProxyLog().find("Socket wait exceede the limit 1000 MS"), std::string::npos);
}

TEST_F(SocketPrimitives, ForwardBodySendsTheWholeBufferEvenBeyondTheLength) {
  TestRequest& r = MakeRequest();
  SocketPair out;
  const std::string buffered(700, 'z');
  r.receiveBuffer_.AddString(buffered.data(), 700);
  CBufStream copy;
  const auto start = Clock::now();
  EXPECT_EQ(r.ForwardBody(r.clientSocket_, out.server, 500, &copy), 700);
  EXPECT_LT(MsSince(start), 1000);  // nothing more was waited for
  EXPECT_EQ(r.receiveBuffer_.GetSize(), 0);
  EXPECT_EQ(Text(copy), buffered);
  EXPECT_EQ(Drain(out.client, 200), buffered);
}

TEST_F(SocketPrimitives, ForwardBodyReadsTheRestAfterTheBufferedStart) {
  TestRequest& r = MakeRequest();
  SocketPair out;
  r.receiveBuffer_.AddString("0123456789", 10);
  SendAllBytes(pair_->client, "abcdefghijEXTRA");
  EXPECT_EQ(r.ForwardBody(r.clientSocket_, out.server, 20, nullptr), 20);
  EXPECT_EQ(Drain(out.client, 200), "0123456789abcdefghij");
  EXPECT_EQ(r.bytesFromClient_, 10);
}

TEST_F(SocketPrimitives, UnframedBodyFromAClosingSourceEndsInFailure) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  SendAllBytes(upstream.client, "unframed body");
  vxtest::CloseSocket(upstream.client);
  EXPECT_EQ(r.ForwardBody(r.upstreamSocket_, r.clientSocket_, kUnknownBodyLength, nullptr), -1);
  EXPECT_EQ(Drain(pair_->client, 200), "unframed body");
  EXPECT_EQ(r.bytesFromUpstream_, 13);
}

TEST_F(SocketPrimitives, UnframedBodyStopsWhenTheBrowserSpeaks) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  r.receiveBuffer_.AddString("head-", 5);
  SendAllBytes(upstream.client, "body");
  std::thread browser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    SendAllBytes(pair_->client, "GET /next HTTP/1.1\r\n");
  });
  EXPECT_EQ(r.ForwardBody(r.upstreamSocket_, r.clientSocket_, kUnknownBodyLength, nullptr), 9);
  browser.join();
  EXPECT_EQ(r.upstreamSocket_, INVALID_SOCKET);  // the server side was given up
  EXPECT_TRUE(vxtest::RawClient(upstream.client).WaitForClose(2000));
  upstream.client = INVALID_SOCKET;  // closed by the RawClient above
  // The browser's bytes were not consumed.
  EXPECT_EQ(Drain(r.clientSocket_, 200), "GET /next HTTP/1.1\r\n");
}

TEST_F(SocketPrimitives, DiscardBodyDropsTheAnnouncedLength) {
  TestRequest& r = MakeRequest();
  r.contentLength_ = 8;
  r.receiveBuffer_.AddString("abc", 3);
  SendAllBytes(pair_->client, "defghNEXT");
  EXPECT_EQ(r.DiscardBody(r.clientSocket_), 8);
  EXPECT_EQ(Drain(r.clientSocket_, 200), "NEXT");
}

TEST_F(SocketPrimitives, TunnelCopiesBothWaysUntilOneSideCloses) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  std::string atServer;
  std::string atBrowser;
  std::thread peers([&] {
    vxtest::RawClient browser(pair_->client);
    vxtest::RawClient server(upstream.client);
    browser.Send("hello server");
    atServer = server.Receive(12, 3000);
    server.Send("hello browser");
    atBrowser = browser.Receive(13, 3000);
    server.Close();
    browser.Release();
    upstream.client = INVALID_SOCKET;
  });
  EXPECT_EQ(r.Tunnel(r.clientSocket_, r.upstreamSocket_), -1);
  peers.join();
  EXPECT_EQ(atServer, "hello server");
  EXPECT_EQ(atBrowser, "hello browser");
  EXPECT_EQ(r.bytesFromClient_, 12);
  EXPECT_EQ(r.bytesFromUpstream_, 13);
}

TEST_F(SocketPrimitives, TunnelEndsAfterAnIdlePeriod) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  HttpWaits waits;
  waits.relaySec = 1;
  r.SetWaits(waits);
  const auto start = Clock::now();
  EXPECT_EQ(r.Tunnel(r.clientSocket_, upstream.server), -1);
  EXPECT_GE(MsSince(start), 900);
}

TEST_F(SocketPrimitives, KeptConnectionLivenessFollowsThePeer) {
  TestRequest& r = MakeRequest();
  EXPECT_FALSE(r.IsUpstreamAlive());  // none at all

  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  EXPECT_TRUE(r.IsUpstreamAlive());  // quiet and open
  EXPECT_NE(ProxyLog().find("Socket wait exceede the limit 25 MS"), std::string::npos);

  SendAllBytes(upstream.client, "early");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(r.IsUpstreamAlive());  // data pending, and left in place
  EXPECT_EQ(Drain(r.upstreamSocket_, 200), "early");

  vxtest::CloseSocket(upstream.client);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(r.IsUpstreamAlive());
}

TEST_F(SocketPrimitives, ClosingTwiceIsHarmless) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  r.upstreamSocket_ = upstream.server;
  upstream.server = INVALID_SOCKET;
  r.CloseConnections();
  EXPECT_EQ(r.clientSocket_, INVALID_SOCKET);
  EXPECT_EQ(r.upstreamSocket_, INVALID_SOCKET);
  r.CloseConnections();
  r.CloseUpstream();
  EXPECT_TRUE(vxtest::RawClient(pair_->client).WaitForClose(2000));
  pair_->client = INVALID_SOCKET;
}

TEST_F(SocketPrimitives, ClosingFromAnotherThreadEndsABlockedWait) {
  TestRequest& r = MakeRequest();
  std::thread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    r.CloseConnections();
  });
  const auto start = Clock::now();
  // Whether the close wakes the wait at once or its slice ends first, the
  // session does not sit out the whole 30 s.
  r.WaitForSocket(r.clientSocket_, 30);
  EXPECT_LT(MsSince(start), 6000);
  closer.join();
}
