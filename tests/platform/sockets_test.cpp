#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "../support/raw_client.h"
#include "platform/platform.h"

namespace {

using vxtest::CloseSocket;
using vxtest::LoopbackListener;
using vxtest::SocketPair;

TEST(Sockets, AcceptAndPeerNameReportLoopbackAndPorts) {
  LoopbackListener listener;
  SOCKET client = os::CreateTcpSocket();
  ASSERT_EQ(0, os::connect(client, os::kLoopbackAddress, listener.Port()));
  std::uint16_t clientPort = 0;
  ASSERT_EQ(0, os::getsockname(client, nullptr, &clientPort));
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  SOCKET server = os::accept(listener.Socket(), &address, &port);
  ASSERT_NE(INVALID_SOCKET, server);
  EXPECT_EQ("127.0.0.1", os::inet_ntoa(address));
  EXPECT_EQ(clientPort, port);
  ASSERT_EQ(0, os::getpeername(client, &address, &port));
  EXPECT_EQ(listener.Port(), port);
  CloseSocket(client);
  CloseSocket(server);
}

TEST(Sockets, CloseFromAnotherThreadEndsBlockedSelectRecvAndAccept) {
  SocketPair a, b;
  LoopbackListener listener;
  const SOCKET sa = a.server, sb = b.server, sl = listener.Socket();
  // What a session does: wait, then read; neither may block after the close.
  auto selecting = std::async(std::launch::async, [sa] {
    char byte;
    return os::SelectRead(sa, INVALID_SOCKET, 20, 0) > 0 ? os::recv(sa, &byte, 1, 0) : -1;
  });
  auto reading = std::async(std::launch::async, [sb] {
    char buffer[64];
    return os::recv(sb, buffer, sizeof(buffer), 0);
  });
  auto accepting = std::async(std::launch::async, [sl] { return os::accept(sl, nullptr, nullptr); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  CloseSocket(a.server);
  CloseSocket(b.server);
  listener.Close();
  for (auto* call : {&selecting, &reading}) {
    ASSERT_EQ(std::future_status::ready, call->wait_for(std::chrono::seconds(5)));
    EXPECT_LE(call->get(), 0);
  }
  ASSERT_EQ(std::future_status::ready, accepting.wait_for(std::chrono::seconds(5)));
  EXPECT_EQ(INVALID_SOCKET, accepting.get());
  EXPECT_EQ(SOCKET_ERROR, os::listen(sl, 1));
  // The peer sees the connection end too.
  ASSERT_EQ(1, os::SelectRead(b.client, INVALID_SOCKET, 5, 0));
  char byte;
  EXPECT_LE(os::recv(b.client, &byte, 1, 0), 0);
}

TEST(Sockets, SendToVanishedPeerFailsWithoutSignal) {
  SocketPair p;
  CloseSocket(p.server);
  // The first send may still be accepted; the reset that answers it makes a
  // later one fail. A SIGPIPE would end the test program here.
  std::vector<char> block(65536, 'x');
  int result = 0;
  for (int i = 0; i < 200 && result != SOCKET_ERROR; ++i) {
    result = os::send(p.client, block.data(), static_cast<int>(block.size()));
    if (result != SOCKET_ERROR) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(SOCKET_ERROR, result);
  const int error = os::WSAGetLastError();
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
}

TEST(Sockets, CleanupNeverGoesBelowZero) {
  while (os::SocketStartupCount() > 0) os::WSACleanup();
  ASSERT_EQ(0, os::WSAStartup());
  ASSERT_EQ(0, os::WSAStartup());
  EXPECT_EQ(0, os::WSACleanup());
  EXPECT_EQ(0, os::WSACleanup());
  EXPECT_EQ(SOCKET_ERROR, os::WSACleanup());
  EXPECT_EQ(0, os::SocketStartupCount());
  ASSERT_EQ(0, os::WSAStartup());
}

TEST(Names, DottedQuadsParseAndPrintInHostOrder) {
  const struct {
    const char* text;
    std::uint32_t address;
  } cases[] = {{"127.0.0.1", 0x7F000001u}, {"localhost", os::INADDR_NONE_VALUE},
               {"1.2.3.256", os::INADDR_NONE_VALUE}, {"", os::INADDR_NONE_VALUE}};
  for (const auto& c : cases) EXPECT_EQ(c.address, os::inet_addr(c.text)) << c.text;
  EXPECT_EQ("10.0.200.7", os::inet_ntoa(0x0A00C807u));
}

}  // namespace
