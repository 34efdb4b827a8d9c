#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "core/service.h"
#include "platform/platform.h"
#include "support/service_fixture.h"
#include "support/tempdir.h"
#include "support/vtable.h"

namespace {

// Binds a listening socket to the port on any address, the way another
// program would hold it. INVALID_SOCKET when the port is taken.
SOCKET HoldPort(unsigned short port) {
  SOCKET s = os::CreateTcpSocket();
  if (os::BindAny(s, port) != 0 || os::listen(s, 1) != 0) {
    os::closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

unsigned short PortInIni(const std::string& ini) {
  char text[16] = {};
  os::GetPrivateProfileStringA("Vexilo", "Port", "", text, sizeof text, ini.c_str());
  return static_cast<unsigned short>(std::atoi(text));
}

}  // namespace

TEST(ServiceSlots, VirtualOrderMatchesTheHostTable) {
  using P = CVxHTTPProxy;
  // In slot order from slot 1 on; slot 0 is the virtual destructor.
  const std::ptrdiff_t slots[] = {
      VtableIndex(&P::isRunning), VtableIndex(static_cast<bool (P::*)()>(&P::Stop)),
      VtableIndex(static_cast<bool (P::*)(unsigned long)>(&P::Stop)), VtableIndex(&P::Start),
      VtableIndex(&P::Kill), VtableIndex(&P::Run), VtableIndex(&P::Initialize),
      VtableIndex(&P::Uninitialize), VtableIndex(&P::GetMemLog), VtableIndex(&P::GetLog),
      VtableIndex(&P::GetSettings), VtableIndex(&P::GetMimeType),
      VtableIndex(&P::GetActiveClientCount), VtableIndex(&P::GetFilterEngine),
      VtableIndex(&P::GetHeaderManager), VtableIndex(&P::IsFilteringEnabled),
      VtableIndex(&P::EnableFiltering), VtableIndex(&P::LoadPort),
      VtableIndex(&P::SetUpstreamProxy), VtableIndex(&P::GetUpstreamProxy),
      VtableIndex(&P::SetInstanceHandle), VtableIndex(&P::GetInstanceHandle),
      VtableIndex(&P::Reserved23), VtableIndex(&P::GetSiteCounter), VtableIndex(&P::SetDataFolder),
      VtableIndex(&P::SetFilterFolder), VtableIndex(&P::SetLogFolder),
      VtableIndex(&P::GetDataFolder), VtableIndex(&P::GetFilterFolder),
      VtableIndex(&P::GetLogFolder), VtableIndex(&P::SetHostFolder), VtableIndex(&P::GetHostFolder),
      VtableIndex(&P::ReleaseDocuments), VtableIndex(&P::OpenStatistics),
      VtableIndex(&P::CloseStatistics), VtableIndex(&P::AddNotifyTarget),
      VtableIndex(&P::RemoveNotifyTarget), VtableIndex(&P::GetTraceMode),
      VtableIndex(&P::SetTraceMode), VtableIndex(&P::LoadFilterLists),
      VtableIndex(&P::IsLocalHostName), VtableIndex(&P::CountFilteredRequest),
      VtableIndex(&P::GetFilteredRequests), VtableIndex(&P::GetBlockedImages),
      VtableIndex(&P::GetBlockedFlash), VtableIndex(&P::CountBlockedImage),
      VtableIndex(&P::CountBlockedFlash), VtableIndex(&P::ResetCounters),
      VtableIndex(&P::SetExtensions), VtableIndex(&P::GetExtensions), VtableIndex(&P::GetPort),
  };
  static_assert(std::size(slots) == 51);
  for (int slot = 1; slot <= 51; ++slot) {
    EXPECT_EQ(slots[slot - 1], VtableIndexOfSlot(slot)) << slot;
  }
}

TEST(ServiceSlots, SiteCounterSlotsFollowTheStore) {
  using S = CSiteCounter;
  EXPECT_EQ(VtableIndex(&S::ClearSites), 44u);
  EXPECT_EQ(VtableIndex(&S::GetSiteHistory), 45u);
  EXPECT_EQ(VtableIndex(&S::AddRequests), 51u);
  EXPECT_EQ(VtableIndex(&S::AddBytes), 52u);
  EXPECT_EQ(VtableIndex(&S::AddAdSize), 53u);
  EXPECT_EQ(VtableIndex(&S::GetStatStartTime), 55u);
}

TEST(ServiceObject, LocalHostNames) {
  CVxHTTPProxyImpl* proxy = Service();
  EXPECT_TRUE(proxy->IsLocalHostName("LocalHost"));
  EXPECT_TRUE(proxy->IsLocalHostName("127.0.0.anything"));  // only the prefix counts
  EXPECT_FALSE(proxy->IsLocalHostName("192.0.2.1"));        // an address not of this machine
  EXPECT_FALSE(proxy->IsLocalHostName(""));

  char name[256] = {};
  ASSERT_EQ(os::gethostname(name, sizeof name), 0);
  EXPECT_TRUE(proxy->IsLocalHostName(name));
  CStringBuffer upper(name);
  upper.ToUpper();
  EXPECT_TRUE(proxy->IsLocalHostName(upper));
}

TEST(ServiceObject, CountersResetAndSurviveConcurrentIncrements) {
  CVxHTTPProxyImpl* proxy = Service();
  proxy->ResetCounters();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([proxy] {
      for (int i = 0; i < 5000; ++i) {
        proxy->CountFilteredRequest();
        proxy->CountBlockedImage();
        proxy->CountBlockedFlash();
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(proxy->GetFilteredRequests(), 40000);
  EXPECT_EQ(proxy->GetBlockedImages(), 40000);
  EXPECT_EQ(proxy->GetBlockedFlash(), 40000);
  EXPECT_EQ(proxy->ResetCounters(), 0);
  EXPECT_EQ(proxy->GetFilteredRequests() + proxy->GetBlockedImages() + proxy->GetBlockedFlash(), 0);
}

// ----------------------------------------------------------- notifications --

class Notifications : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& r : registered_) proxy_->RemoveNotifyTarget(r.window, r.thread, r.message);
  }
  NotifyTarget* Add(HWND window, DWORD thread, UINT message, DWORD mask, bool enabled) {
    registered_.push_back({window, thread, message});
    return proxy_->AddNotifyTarget(window, thread, message, mask, enabled);
  }
  struct Triple {
    HWND window;
    DWORD thread;
    UINT message;
  };
  CVxHTTPProxyImpl* proxy_ = Service();
  std::vector<Triple> registered_;
};

TEST_F(Notifications, AddingTheSameTripleUpdatesOneRecord) {
  NotifyTarget* first = Add(nullptr, 77, 0x401, 1, true);
  NotifyTarget* second = Add(nullptr, 77, 0x401, 3, false);
  EXPECT_EQ(first, second);
  EXPECT_EQ(second->eventMask, 3u);
  EXPECT_FALSE(second->enabled);
  proxy_->RemoveNotifyTarget(nullptr, 78, 0x401);  // unknown triple: nothing changes
  EXPECT_EQ(Add(nullptr, 77, 0x401, 3, false), first);
}

TEST_F(Notifications, PostsFollowMaskWindowAndThreadRules) {
  os::CreateThreadQueue();
  const DWORD me = os::GetCurrentThreadId();
  HWND window = os::CreateWindowQueue();

  Add(nullptr, 0, 0x500, 1, true);                // neither window nor thread: never posts
  Add(nullptr, me, 0x501, 2, true);               // mask without the event
  Add(nullptr, me, 0x502, 3, true);               // mask with it
  Add(nullptr, me, 0x503, 1, false);              // switched off
  Add(window, me, 0x504, 1, true);                // window wins over the thread
  Add(window, me + 1, 0x504, 1, true);            // a distinct record, also to the window

  proxy_->Notify(kEventRequestBlocked);

  std::vector<UINT> threadMessages;
  MSG msg;
  while (os::WaitMessage(nullptr, &msg, 50)) {
    threadMessages.push_back(msg.message);
    EXPECT_EQ(msg.wParam, 1u);
    EXPECT_EQ(msg.lParam, 0);
  }
  EXPECT_EQ(threadMessages, std::vector<UINT>{0x502});

  int windowMessages = 0;
  while (os::WaitMessage(window, &msg, 50)) {
    EXPECT_EQ(msg.message, 0x504u);
    EXPECT_EQ(msg.wParam, 1u);
    ++windowMessages;
  }
  EXPECT_EQ(windowMessages, 2);
  os::DestroyWindowQueue(window);
}

// --------------------------------------------------------- start and stop --

using ServiceStart = ServiceFixture;

TEST_F(ServiceStart, PortZeroLetsTheSystemChooseAndIsWrittenBack) {
  ASSERT_TRUE(proxy_->Start());
  const unsigned short port = proxy_->GetPort();
  EXPECT_NE(port, 0);
  EXPECT_EQ(PortInIni(dir_ / "data/vexilo.ini"), port);
  EXPECT_NE(ProxyLog().find("[INFO]: Proxy started on port " + std::to_string(port) + "\r\n"),
            std::string::npos);
  EXPECT_NE(ProxyLog().find("[INFO]: Starting Proxy @"), std::string::npos);
}

TEST_F(ServiceStart, TakenPortFallsBackToAFreeOne) {
  SOCKET holder = HoldPort(0);
  std::uint32_t address;
  std::uint16_t taken = 0;
  ASSERT_EQ(os::getsockname(holder, &address, &taken), 0);
  WriteIni(std::to_string(taken));
  ASSERT_TRUE(proxy_->Start());
  EXPECT_NE(proxy_->GetPort(), taken);
  EXPECT_EQ(PortInIni(dir_ / "data/vexilo.ini"), proxy_->GetPort());
  os::closesocket(holder);
}

TEST_F(ServiceStart, MissingIniMeans7070) {
  std::filesystem::remove(dir_ / "data/vexilo.ini");
  SOCKET probe = HoldPort(7070);
  if (probe == INVALID_SOCKET) GTEST_SKIP() << "port 7070 is in use on this machine";
  os::closesocket(probe);
  ASSERT_TRUE(proxy_->Start());
  EXPECT_EQ(proxy_->GetPort(), 7070);
  EXPECT_EQ(PortInIni(dir_ / "data/vexilo.ini"), 7070);
}

TEST_F(ServiceStart, LongPortValueIsCutToNineCharacters) {
  // "123456789" wraps to 52501; the whole text would give 722.
  WriteIni("1234567890");
  SOCKET probe = HoldPort(52501);
  if (probe == INVALID_SOCKET) GTEST_SKIP() << "port 52501 is in use on this machine";
  os::closesocket(probe);
  ASSERT_TRUE(proxy_->Start());
  EXPECT_EQ(proxy_->GetPort(), 52501);
}

TEST_F(ServiceStart, SecondStartIsANoOpAndRestartKeepsThePort) {
  ASSERT_TRUE(proxy_->Start());
  const unsigned short port = proxy_->GetPort();
  ASSERT_TRUE(proxy_->Start());
  EXPECT_EQ(proxy_->GetPort(), port);
  EXPECT_TRUE(proxy_->Stop());
  EXPECT_FALSE(proxy_->isRunning());

  WriteIni("0");  // not read again: the port is known now
  ASSERT_TRUE(proxy_->Start());
  EXPECT_EQ(proxy_->GetPort(), port);
}

TEST_F(ServiceStart, OnlyTheLoopbackPeerIsServed) {
  ASSERT_TRUE(proxy_->Start());
  // A blocked address: from 127.0.0.1 it gets the replacement image, from
  // another address of this machine the connection is closed without a byte.
  const char request[] = "GET http://ads.example.com/x.gif HTTP/1.1\r\nHost: a\r\n\r\n";
  auto firstByteFrom = [&](std::uint32_t source) {
    SOCKET s = os::CreateTcpSocket();
    EXPECT_EQ(os::Bind(s, source, 0), 0);
    EXPECT_EQ(os::connect(s, os::kLoopbackAddress, proxy_->GetPort()), 0);
    os::send(s, request, sizeof request - 1);
    char byte = 0;
    const int got = os::SelectRead(s, INVALID_SOCKET, 5, 0) > 0 ? os::recv(s, &byte, 1, 0) : -2;
    os::closesocket(s);
    return got == 1 ? std::string(1, byte) : std::to_string(got);
  };
  EXPECT_EQ(firstByteFrom(os::kLoopbackAddress), "H");  // "HTTP/1.1 200 OK"
  EXPECT_EQ(firstByteFrom(0x7F000002u), "0");           // 127.0.0.2: closed
}

TEST_F(ServiceStart, StopOnAStoppedServiceStillLogsBothLines) {
  ASSERT_TRUE(proxy_->Initialize());  // logs open, nothing listening
  EXPECT_TRUE(proxy_->Stop());
  const std::string log = ProxyLog();
  const size_t called = log.find("[INFO]: Proxy stop called @");
  const size_t stopped = log.find("[INFO]: Proxy Stopped @");
  ASSERT_NE(called, std::string::npos);
  ASSERT_NE(stopped, std::string::npos);
  EXPECT_LT(called, stopped);
  // The time text carries no line break of its own.
  EXPECT_EQ(log.find('\n', called), log.find("\r\n", called) + 1);
}

TEST_F(ServiceStart, MissingFiltersFileFailsEvenWithAnApprovedList) {
  std::filesystem::remove(dir_ / "filters/filters.txt");
  WriteTextFile(dir_ / "data/vexilowl.txt", "@@||example.com^\n");
  EXPECT_FALSE(proxy_->Initialize());
  EXPECT_FALSE(proxy_->Start());
  EXPECT_FALSE(proxy_->isRunning());
  EXPECT_NE(ProxyLog().find("[ERROR]: Failed to open filters file: "), std::string::npos);
}

TEST_F(ServiceStart, LogsAreOpenedWithTheirMasks) {
  ASSERT_TRUE(proxy_->Initialize());
  CLog* proxyLog = proxy_->GetLog(kLogProxy);
  CLog* requestLog = proxy_->GetLog(kLogRequest);
  CLog* blockedLog = proxy_->GetLog(kLogBlocked);
  ASSERT_TRUE(proxyLog->IsOpen());
  EXPECT_EQ(proxyLog->GetLevelMask(), 7);
  EXPECT_EQ(requestLog->GetLevelMask(), 10);
  EXPECT_EQ(blockedLog->GetLevelMask(), 0);
  EXPECT_EQ(proxyLog->GetMaxSize(), 5242880u);
  EXPECT_EQ(blockedLog->GetMaxSize(), 262144u);
  // An unknown number gets the service's own never-opened log.
  EXPECT_FALSE(proxy_->GetLog(16)->IsOpen());
  proxy_->Uninitialize();
  EXPECT_FALSE(proxy_->GetLog(kLogProxy)->IsOpen());
}
