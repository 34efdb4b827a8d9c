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

class SocketPrimitives : public HttpTest {
 protected:
  // Makes the server end of the pair the request's upstream connection.
  void AdoptUpstream(SocketPair& upstream) {
    request_->upstreamSocket_ = upstream.server;
    upstream.server = INVALID_SOCKET;
  }
  bool ProxyLogHas(const std::string& line) {
    return ProxyLog().find(line) != std::string::npos;
  }
};

TEST_F(SocketPrimitives, SendAllSendsEveryByteOrNothingAndLogsAFailure) {
  TestRequest& r = MakeRequest();
  EXPECT_EQ(r.SendAll(r.clientSocket_, "abc", 0), 0);
  EXPECT_EQ(r.SendAll(r.clientSocket_, "abc", -5), 0);
  EXPECT_EQ(r.SendAll(INVALID_SOCKET, "abc", 3), kIoError);
  EXPECT_TRUE(ProxyLogHas("[VERBOSE]: " + Text(r.GetConnectionTag()) + "Send failed "));
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
  EXPECT_TRUE(got == big);  // nothing before it either
}

TEST_F(SocketPrimitives, WaitTimeOutsAreLoggedWithTheirMilliseconds) {
  TestRequest& r = MakeRequest();
  auto start = Clock::now();
  EXPECT_EQ(r.WaitForData(INVALID_SOCKET, INVALID_SOCKET, 2000), kIoTimeout);
  EXPECT_LT(MsSince(start), 500);
  EXPECT_FALSE(ProxyLogHas("Socket wait"));  // no socket: quiet
  start = Clock::now();
  EXPECT_EQ(r.WaitForData(r.clientSocket_, INVALID_SOCKET, 1500), kIoTimeout);
  EXPECT_GE(MsSince(start), 1400);  // the sub-second remainder is kept
  EXPECT_LT(MsSince(start), 2500);
  SendAllBytes(pair_->client, "x");  // readable, but a zero wait never looks
  ASSERT_GT(os::SelectRead(r.clientSocket_, INVALID_SOCKET, 2, 0), 0);
  EXPECT_EQ(r.WaitForData(r.clientSocket_, INVALID_SOCKET, 0), kIoTimeout);
  const std::string tag = "[VERBOSE]: " + Text(r.GetConnectionTag());
  EXPECT_TRUE(ProxyLogHas(tag + "Socket wait exceede the limit 1500 MS\r\n"));
  EXPECT_TRUE(ProxyLogHas(tag + "Socket wait exceede the limit 0 MS\r\n"));
}

TEST_F(SocketPrimitives, FirstSocketWinsWhenBothAreReadable) {
  TestRequest& r = MakeRequest();
  SocketPair other;
  SendAllBytes(other.client, "b");
  EXPECT_EQ(r.WaitForData(r.clientSocket_, other.server, 2000), kSecondReady);
  EXPECT_EQ(r.WaitForData(INVALID_SOCKET, other.server, 2000), kSecondReady);
  SendAllBytes(pair_->client, "a");
  ASSERT_GT(os::SelectRead(r.clientSocket_, INVALID_SOCKET, 2, 0), 0);
  EXPECT_EQ(r.WaitForData(r.clientSocket_, other.server, 1000), kFirstReady);
  EXPECT_EQ(r.WaitForData(other.server, r.clientSocket_, 1000), kFirstReady);
}

TEST_F(SocketPrimitives, ReceivedBytesAreCountedPerSideAndACloseIsZero) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  AdoptUpstream(upstream);
  SendAllBytes(pair_->client, "12345");
  SendAllBytes(upstream.client, "abc");
  EXPECT_EQ(r.ReceiveMore(r.clientSocket_), 5);
  EXPECT_EQ(r.ReceiveMore(r.upstreamSocket_), 3);
  EXPECT_EQ(Text(r.receiveBuffer_), "12345abc");
  EXPECT_EQ(r.bytesFromClient_, 5);
  EXPECT_EQ(r.bytesFromUpstream_, 3);
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.ReceiveMore(r.clientSocket_), 0);
  EXPECT_EQ(r.receiveBuffer_.GetSize(), 8);
}

TEST_F(SocketPrimitives, RelayBytesMovesExactlyTheCountAndFailsQuietlyAtAClose) {
  TestRequest& r = MakeRequest();
  SocketPair out;
  SendAllBytes(pair_->client, std::string(300, 'q') + "REST");
  CBufStream copy, rest;
  EXPECT_EQ(r.RelayBytes(r.clientSocket_, out.server, 300, &copy), 300);
  EXPECT_EQ(Text(copy), std::string(300, 'q'));
  EXPECT_EQ(Drain(out.client, 200), std::string(300, 'q'));
  EXPECT_EQ(r.bytesFromClient_, 300);
  // What lies beyond the count stays for the next relay; the peer's close
  // mid-body fails it quietly, after what came before the close was taken.
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.RelayBytes(r.clientSocket_, INVALID_SOCKET, 500, &rest), kIoError);
  EXPECT_EQ(Text(rest), "REST");
  EXPECT_FALSE(ProxyLogHas("Recv failed"));
}

TEST_F(SocketPrimitives, ForwardBodySendsTheBufferThenReadsWhatTheLengthStillNeeds) {
  const struct {
    std::string buffered, onSocket;
    int length, result;
    std::string forwarded, left;
  } cases[] = {
      // The whole buffer goes, even beyond the length, and nothing more is waited for.
      {std::string(700, 'z'), "", 500, 700, std::string(700, 'z'), ""},
      {"0123456789", "abcdefghijEXTRA", 20, 20, "0123456789abcdefghij", "EXTRA"},
  };
  for (const auto& c : cases) {
    TestRequest& r = MakeRequest();
    SocketPair out;
    r.receiveBuffer_.AddString(c.buffered.data(), static_cast<int>(c.buffered.size()));
    SendAllBytes(pair_->client, c.onSocket);
    CBufStream copy;
    const auto start = Clock::now();
    EXPECT_EQ(r.ForwardBody(r.clientSocket_, out.server, c.length, &copy), c.result);
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(Text(copy), c.forwarded);
    EXPECT_EQ(Drain(out.client, 200), c.forwarded);
    EXPECT_EQ(Drain(r.clientSocket_, 200), c.left);
    EXPECT_EQ(r.bytesFromClient_, static_cast<int>(c.forwarded.size() - c.buffered.size()));
  }
}

TEST_F(SocketPrimitives, TunnelEndsAfterAnIdlePeriod) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  HttpWaits waits;
  waits.relaySec = 1;
  r.SetWaits(waits);
  const auto start = Clock::now();
  EXPECT_EQ(r.Tunnel(r.clientSocket_, upstream.server), kIoError);
  EXPECT_GE(MsSince(start), 900);
}

TEST_F(SocketPrimitives, KeptConnectionLivenessFollowsThePeer) {
  TestRequest& r = MakeRequest();
  EXPECT_FALSE(r.IsUpstreamAlive());  // none at all
  SocketPair upstream;
  AdoptUpstream(upstream);
  EXPECT_TRUE(r.IsUpstreamAlive());  // quiet and open
  EXPECT_TRUE(ProxyLogHas("Socket wait exceede the limit 25 MS"));
  SendAllBytes(upstream.client, "early");
  ASSERT_GT(os::SelectRead(r.upstreamSocket_, INVALID_SOCKET, 2, 0), 0);
  EXPECT_TRUE(r.IsUpstreamAlive());  // data pending, and left in place
  EXPECT_EQ(Drain(r.upstreamSocket_, 200), "early");
  vxtest::CloseSocket(upstream.client);
  ASSERT_GT(os::SelectRead(r.upstreamSocket_, INVALID_SOCKET, 2, 0), 0);  // the close arrived
  EXPECT_FALSE(r.IsUpstreamAlive());
}

TEST_F(SocketPrimitives, ClosingFromAnotherThreadEndsABlockedWaitAndClosingAgainIsHarmless) {
  TestRequest& r = MakeRequest();
  SocketPair upstream;
  AdoptUpstream(upstream);
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
  EXPECT_EQ(r.clientSocket_, INVALID_SOCKET);
  EXPECT_EQ(r.upstreamSocket_, INVALID_SOCKET);
  r.CloseConnections();
  r.CloseUpstream();
  EXPECT_TRUE(vxtest::RawClient(upstream.client).WaitForClose(2000));
  upstream.client = INVALID_SOCKET;  // closed by the RawClient above
}
