#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A listener on a free port plus helpers to open loopback connections to it.
class Loopback : public ::testing::Test {
 protected:
  void SetUp() override {
    listener_ = os::CreateTcpSocket();
    ASSERT_NE(INVALID_SOCKET, listener_);
    ASSERT_EQ(0, os::BindAny(listener_, 0));
    ASSERT_EQ(0, os::listen(listener_, 16));
    std::uint32_t address = 0;
    ASSERT_EQ(0, os::getsockname(listener_, &address, &port_));
    ASSERT_NE(0, port_);
  }
  void TearDown() override {
    for (SOCKET s : open_) os::closesocket(s);
    if (listener_ != INVALID_SOCKET) os::closesocket(listener_);
  }

  SOCKET Track(SOCKET s) {
    if (s != INVALID_SOCKET) open_.push_back(s);
    return s;
  }

  // A connected pair: the client end and the accepted server end.
  void Connect(SOCKET* client, SOCKET* server) {
    *client = Track(os::CreateTcpSocket());
    ASSERT_NE(INVALID_SOCKET, *client);
    ASSERT_EQ(0, os::connect(*client, os::kLoopbackAddress, port_));
    ASSERT_EQ(1, os::SelectRead(listener_, INVALID_SOCKET, 5, 0));
    *server = Track(os::accept(listener_, nullptr, nullptr));
    ASSERT_NE(INVALID_SOCKET, *server);
  }

  // Forgets a socket the test closed itself.
  void Untrack(SOCKET s) { std::erase(open_, s); }

  SOCKET listener_ = INVALID_SOCKET;
  std::uint16_t port_ = 0;
  std::vector<SOCKET> open_;
};

TEST_F(Loopback, AcceptReportsLoopbackPeerAndItsPort) {
  SOCKET client = Track(os::CreateTcpSocket());
  ASSERT_EQ(0, os::connect(client, os::kLoopbackAddress, port_));
  std::uint32_t clientAddress = 0;
  std::uint16_t clientPort = 0;
  ASSERT_EQ(0, os::getsockname(client, &clientAddress, &clientPort));

  std::uint32_t peerAddress = 0;
  std::uint16_t peerPort = 0;
  SOCKET server = Track(os::accept(listener_, &peerAddress, &peerPort));
  ASSERT_NE(INVALID_SOCKET, server);
  EXPECT_EQ("127.0.0.1", os::inet_ntoa(peerAddress));
  EXPECT_EQ(clientPort, peerPort);

  std::uint32_t serverSide = 0;
  std::uint16_t serverPort = 0;
  ASSERT_EQ(0, os::getpeername(client, &serverSide, &serverPort));
  EXPECT_EQ(os::kLoopbackAddress, serverSide);
  EXPECT_EQ(port_, serverPort);
}

TEST_F(Loopback, BytesArriveInOrderAndPeekLeavesThemQueued) {
  SOCKET client, server;
  Connect(&client, &server);
  ASSERT_EQ(5, os::send(client, "hello", 5));
  ASSERT_EQ(1, os::SelectRead(server, INVALID_SOCKET, 5, 0));

  char peeked[3] = {};
  ASSERT_EQ(3, os::recv(server, peeked, 3, os::MSG_PEEK_FLAG));
  EXPECT_EQ("hel", std::string(peeked, 3));

  char buffer[16] = {};
  int total = 0;
  while (total < 5) {
    const int n = os::recv(server, buffer + total, sizeof(buffer) - total, 0);
    ASSERT_GT(n, 0);
    total += n;
  }
  EXPECT_EQ("hello", std::string(buffer, 5));
}

TEST_F(Loopback, RecvGivesZeroAfterPeerClosed) {
  SOCKET client, server;
  Connect(&client, &server);
  Untrack(client);
  ASSERT_EQ(0, os::closesocket(client));
  ASSERT_EQ(1, os::SelectRead(server, INVALID_SOCKET, 5, 0));
  char byte;
  EXPECT_EQ(0, os::recv(server, &byte, 1, os::MSG_PEEK_FLAG));
  EXPECT_EQ(0, os::recv(server, &byte, 1, 0));
}

TEST_F(Loopback, SelectReadReportsEachReadableSocket) {
  SOCKET clientA, serverA, clientB, serverB;
  Connect(&clientA, &serverA);
  Connect(&clientB, &serverB);

  const auto start = Clock::now();
  EXPECT_EQ(0, os::SelectRead(serverA, serverB, 0, 200000));
  EXPECT_GE(MsSince(start), 190);

  ASSERT_EQ(1, os::send(clientB, "b", 1));
  EXPECT_EQ(2, os::SelectRead(serverA, serverB, 5, 0));

  ASSERT_EQ(1, os::send(clientA, "a", 1));
  // Give the byte time to land so both are readable in the same call.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(3, os::SelectRead(serverA, serverB, 5, 0));
  // An invalid first socket is left out; the bit still names the position.
  EXPECT_EQ(2, os::SelectRead(INVALID_SOCKET, serverB, 5, 0));
}

TEST_F(Loopback, SelectReadOnClosedHandleFails) {
  SOCKET client, server;
  Connect(&client, &server);
  Untrack(server);
  ASSERT_EQ(0, os::closesocket(server));
  EXPECT_LT(os::SelectRead(server, INVALID_SOCKET, 1, 0), 0);
}

TEST_F(Loopback, CloseFromAnotherThreadEndsBlockedSelect) {
  SOCKET client, server;
  Connect(&client, &server);
  auto waiter = std::async(std::launch::async, [server] {
    const auto start = Clock::now();
    const int ready = os::SelectRead(server, INVALID_SOCKET, 20, 0);
    char byte;
    // What the session does next: its read must not block either.
    const int read = ready > 0 ? os::recv(server, &byte, 1, 0) : -1;
    return std::make_pair(MsSince(start), read);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  Untrack(server);
  ASSERT_EQ(0, os::closesocket(server));
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(5)));
  const auto [elapsed, read] = waiter.get();
  EXPECT_LT(elapsed, 5000);
  EXPECT_LE(read, 0);
}

TEST_F(Loopback, CloseFromAnotherThreadEndsBlockedRecv) {
  SOCKET client, server;
  Connect(&client, &server);
  auto reader = std::async(std::launch::async, [server] {
    char buffer[64];
    return os::recv(server, buffer, sizeof(buffer), 0);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  Untrack(server);
  ASSERT_EQ(0, os::closesocket(server));
  ASSERT_EQ(std::future_status::ready, reader.wait_for(std::chrono::seconds(5)));
  EXPECT_LE(reader.get(), 0);
  // The client sees the connection end too.
  ASSERT_EQ(1, os::SelectRead(client, INVALID_SOCKET, 5, 0));
  char byte;
  EXPECT_LE(os::recv(client, &byte, 1, 0), 0);
}

TEST_F(Loopback, CloseFromAnotherThreadEndsBlockedAccept) {
  auto acceptor = std::async(std::launch::async, [this] {
    return os::accept(listener_, nullptr, nullptr);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_EQ(0, os::closesocket(listener_));
  const SOCKET closed = listener_;
  listener_ = INVALID_SOCKET;
  ASSERT_EQ(std::future_status::ready, acceptor.wait_for(std::chrono::seconds(5)));
  EXPECT_EQ(INVALID_SOCKET, acceptor.get());
  // The handle is dead for every later call.
  EXPECT_EQ(SOCKET_ERROR, os::listen(closed, 1));
}

TEST_F(Loopback, CloseFromAnotherThreadEndsPendingConnect) {
  // A listener with a full queue drops further connection requests, so a
  // connect to it stays pending until it is given up.
  SOCKET full = Track(os::CreateTcpSocket());
  ASSERT_EQ(0, os::BindAny(full, 0));
  ASSERT_EQ(0, os::listen(full, 0));
  std::uint16_t fullPort = 0;
  ASSERT_EQ(0, os::getsockname(full, nullptr, &fullPort));
  std::vector<SOCKET> fillers;
  SOCKET pending = INVALID_SOCKET;
  for (int i = 0; i < 4 && pending == INVALID_SOCKET; ++i) {
    SOCKET s = Track(os::CreateTcpSocket());
    auto attempt = std::async(std::launch::async, [s, fullPort] {
      return os::connect(s, os::kLoopbackAddress, fullPort);
    });
    if (attempt.wait_for(std::chrono::milliseconds(300)) == std::future_status::ready) {
      ASSERT_EQ(0, attempt.get());
      continue;
    }
    pending = s;
    Untrack(s);
    ASSERT_EQ(0, os::closesocket(s));
    ASSERT_EQ(std::future_status::ready, attempt.wait_for(std::chrono::seconds(5)));
    EXPECT_EQ(SOCKET_ERROR, attempt.get());
  }
  if (pending == INVALID_SOCKET) GTEST_SKIP() << "this system never left a connect pending";
}

TEST_F(Loopback, SendToVanishedPeerFailsWithoutSignal) {
  SOCKET client, server;
  Connect(&client, &server);
  Untrack(server);
  ASSERT_EQ(0, os::closesocket(server));
  // The first send may still be accepted; the reset that answers it makes a
  // later one fail. A SIGPIPE would end the test program here.
  std::vector<char> block(65536, 'x');
  int result = 0;
  for (int i = 0; i < 200 && result != SOCKET_ERROR; ++i) {
    result = os::send(client, block.data(), static_cast<int>(block.size()));
    if (result != SOCKET_ERROR) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(SOCKET_ERROR, result);
  const int error = os::WSAGetLastError();
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
}

TEST_F(Loopback, SecondListenerOnTakenPortFails) {
  SOCKET second = Track(os::CreateTcpSocket());
  EXPECT_EQ(SOCKET_ERROR, os::BindAny(second, port_));
  EXPECT_EQ(EADDRINUSE, os::WSAGetLastError());
}

TEST_F(Loopback, PortCanBeTakenAgainRightAfterServerClosedConnections) {
  SOCKET client, server;
  Connect(&client, &server);
  // The side that closes first keeps the port's connection in TIME_WAIT.
  Untrack(server);
  ASSERT_EQ(0, os::closesocket(server));
  char byte;
  ASSERT_EQ(1, os::SelectRead(client, INVALID_SOCKET, 5, 0));
  ASSERT_EQ(0, os::recv(client, &byte, 1, 0));
  ASSERT_EQ(0, os::closesocket(listener_));
  listener_ = INVALID_SOCKET;

  SOCKET again = Track(os::CreateTcpSocket());
  EXPECT_EQ(0, os::BindAny(again, port_)) << os::WSAGetLastError();
  EXPECT_EQ(0, os::listen(again, 4));
}

TEST(SocketErrors, LastErrorIsKeptPerThread) {
  // A port nobody listens on: take a free one and give it back.
  SOCKET probe = os::CreateTcpSocket();
  ASSERT_EQ(0, os::BindAny(probe, 0));
  std::uint16_t port = 0;
  ASSERT_EQ(0, os::getsockname(probe, nullptr, &port));
  ASSERT_EQ(0, os::closesocket(probe));

  SOCKET s = os::CreateTcpSocket();
  ASSERT_EQ(SOCKET_ERROR, os::connect(s, os::kLoopbackAddress, port));
  EXPECT_EQ(ECONNREFUSED, os::WSAGetLastError());
  std::thread other([] {
    char byte;
    EXPECT_EQ(SOCKET_ERROR, os::recv(INVALID_SOCKET, &byte, 1, 0));
    EXPECT_EQ(EBADF, os::WSAGetLastError());
  });
  other.join();
  EXPECT_EQ(ECONNREFUSED, os::WSAGetLastError());
  os::closesocket(s);
}

TEST(SocketStartup, CleanupNeverGoesBelowZero) {
  while (os::SocketStartupCount() > 0) os::WSACleanup();
  ASSERT_EQ(0, os::WSAStartup());
  ASSERT_EQ(0, os::WSAStartup());
  EXPECT_EQ(2, os::SocketStartupCount());
  EXPECT_EQ(0, os::WSACleanup());
  EXPECT_EQ(0, os::WSACleanup());
  EXPECT_EQ(SOCKET_ERROR, os::WSACleanup());
  EXPECT_EQ(0, os::SocketStartupCount());
  ASSERT_EQ(0, os::WSAStartup());
  EXPECT_EQ(1, os::SocketStartupCount());
}

TEST(Names, DottedQuadsParseAndPrint) {
  EXPECT_EQ(0x7F000001u, os::inet_addr("127.0.0.1"));
  EXPECT_EQ(0xC0A80102u, os::inet_addr("192.168.1.2"));
  EXPECT_EQ(os::INADDR_NONE_VALUE, os::inet_addr("localhost"));
  EXPECT_EQ(os::INADDR_NONE_VALUE, os::inet_addr("1.2.3.256"));
  EXPECT_EQ(os::INADDR_NONE_VALUE, os::inet_addr(""));
  EXPECT_EQ("10.0.200.7", os::inet_ntoa(0x0A00C807u));
}

TEST(Names, LocalhostAndNumericNamesResolve) {
  std::vector<std::uint32_t> addresses;
  ASSERT_TRUE(os::gethostbyname("localhost", &addresses));
  EXPECT_NE(addresses.end(), std::find(addresses.begin(), addresses.end(), os::kLoopbackAddress));
  ASSERT_TRUE(os::gethostbyname("127.0.0.5", &addresses));
  ASSERT_EQ(1u, addresses.size());
  EXPECT_EQ(0x7F000005u, addresses[0]);
  EXPECT_FALSE(os::gethostbyname("", &addresses));
}

}  // namespace
