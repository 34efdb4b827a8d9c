#include "probe/headermanager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "log/levels.h"
#include "platform/platform.h"
#include "support/wait.h"
#include "support/origin_server.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;
using vxtest::OriginServer;

namespace {

using vxtest::WaitUntil;

constexpr int kWaitMs = 5000;
const char kFields[] = "Host: ads.example.com\r\nCookie: id=7\r\nUser-Agent: probe-test\r\n\r\n";

// Every byte of one connection, once at least `size` of them arrived.
std::string ReceivedBytes(const OriginServer& origin, int connection, std::size_t size) {
  WaitUntil([&] { return origin.Received(connection).size() >= size; }, kWaitMs);
  return origin.Received(connection);
}

OriginReply Length(const std::string& value) {
  return {"HTTP/1.1 200 OK\r\nContent-Type: image/gif\r\n" + value + "\r\n\r\n"};
}

// A starting worker empties its queue first, dropping what came before; an
// item it probes shows that it is past that point.
void AwaitWorker(CHeaderManager* manager) {
  OriginServer origin([](const OriginRequest&) { return OriginReply::NoBody(204); });
  WaitUntil(
      [&] {
        manager->Enqueue("127.0.0.1", origin.Port(), "/ready", "", 0, kFields);
        return origin.WaitForRequests(1, 20);
      },
      kWaitMs);
}

std::atomic<vxtime64_t> g_now{1'700'000'000};
vxtime64_t FakeNow() { return g_now; }

// The manager's steps driven from the test thread while its own is stopped.
class TestManager : public CHeaderManager {
 public:
  TestManager() { SetClock(&FakeNow); }
  using CHeaderManager::Probe;
  using CHeaderManager::RememberSize;
  using CHeaderManager::sizeCache_;
  using CHeaderManager::SweepSizeCache;

  // The cache's size, read as the worker's own steps do: under its lock.
  std::size_t CachedSizes() {
    std::lock_guard<std::mutex> guard(cacheLock_);
    return sizeCache_.size();
  }

  // Probes the next pending item as the thread body would; -1 when none.
  int ProbeNext() {
    std::string key;
    if (PeekPending(key) == nullptr) return -1;
    CAdToFetch* item = RemovePending(key.c_str());
    const int size = Probe(key, item);
    delete item;
    return size;
  }
};

}  // namespace

class ProbeFixture : public ServiceFixture {
 protected:
  std::string FilterList() const override { return "/banner/\n"; }

  void SetUp() override {
    ServiceFixture::SetUp();
    ASSERT_TRUE(proxy_->Start());
    probes_ = proxy_->GetHeaderManager();
    ASSERT_NE(probes_, nullptr);
    AwaitWorker(probes_);
  }

  std::uint64_t AdSize() {
    std::uint64_t sent = 0, received = 0, adSize = 0;
    proxy_->GetSiteCounter()->GetBytes(&sent, &received, &adSize);
    return adSize;
  }

  bool AdSizeReaches(std::uint64_t expected) {
    return WaitUntil([&] { return AdSize() >= expected; }, kWaitMs) && AdSize() == expected;
  }

  void Enqueue(CHeaderManager* manager, const OriginServer& origin, const char* path) {
    manager->Enqueue("127.0.0.1", origin.Port(), path, "", 0, kFields);
  }

  CHeaderManager* probes_ = nullptr;
};

class HeadRequest : public ProbeFixture {};
class SizeCache : public ProbeFixture {};
class Worker : public ProbeFixture {};

TEST_F(HeadRequest, CarriesTheBrowsersFieldsInOriginOrAbsoluteForm) {
  const std::string tail = std::string(" HTTP/1.0\r\n") + kFields + "\r\n";
  struct Case {
    const char* host;
    unsigned short port;
    const char* path;
    bool destination;  // the origin stands in for a Proxy-Destination
    bool upstream;     // the origin stands in for the upstream proxy
    std::string requestLine;
  };
  const Case cases[] = {
      {"127.0.0.1", 0, "/ad.gif", false, false, "HEAD /ad.gif"},
      {"ads.example.com", 8080, "/x.js", true, false, "HEAD http://ads.example.com:8080/x.js"},
      {"ads.example.com", 80, "/y.gif", false, true, "HEAD http://ads.example.com/y.gif"},
      // The upstream proxy wins over a destination.
      {"ads.example.com", 81, "/z", true, true, "HEAD http://ads.example.com:81/z"},
  };
  for (const Case& c : cases) {
    OriginServer origin([](const OriginRequest&) { return Length("Content-Length: 5"); });
    const unsigned short none = 0;
    const unsigned short originPort = origin.Port();
    proxy_->SetUpstreamProxy(c.upstream ? "127.0.0.1" : "", c.upstream ? &originPort : &none);
    TestManager manager;
    const unsigned short port = c.port == 0 ? origin.Port() : c.port;
    // Under an upstream proxy the destination leads nowhere (nothing listens on 9).
    const unsigned short destinationPort = c.upstream ? 9 : origin.Port();
    manager.Enqueue(c.host, port, c.path, c.destination ? "127.0.0.1" : "",
                    c.destination ? destinationPort : 9, kFields);
    EXPECT_EQ(manager.ProbeNext(), 5) << c.requestLine;
    const std::string expected = c.requestLine + tail;
    EXPECT_EQ(ReceivedBytes(origin, 0, expected.size()), expected);
  }
}

TEST_F(HeadRequest, EmptyHostPathOrFieldsQueueNothing) {
  TestManager manager;
  manager.Enqueue("", 80, "/a.gif", "", 0, kFields);
  manager.Enqueue("h", 80, "", "", 0, kFields);
  manager.Enqueue("h", 80, "/a.gif", "", 0, nullptr);
  EXPECT_EQ(manager.ProbeNext(), -1);
}

TEST_F(SizeCache, KeepsAContentLengthAndProbesAgainWithoutOne) {
  OriginServer origin([](const OriginRequest& r) {
    if (r.target == "/big.gif") return Length("content-LENGTH :  1234abc");
    return OriginReply::NoBody(204);
  });
  TestManager manager;
  Enqueue(&manager, origin, "/big.gif");
  EXPECT_EQ(manager.ProbeNext(), 1234);
  const vxtime64_t probedAt = g_now;
  g_now += 30;
  Enqueue(&manager, origin, "/big.gif");
  EXPECT_EQ(manager.ProbeNext(), 1234);
  EXPECT_EQ(origin.ConnectionCount(), 1);  // served from the cache
  EXPECT_EQ(manager.sizeCache_.at("127.0.0.1/big.gif")->created, probedAt);
  EXPECT_EQ(manager.sizeCache_.at("127.0.0.1/big.gif")->lastUsed, g_now);

  for (int round = 1; round <= 2; ++round) {
    Enqueue(&manager, origin, "/none");
    EXPECT_EQ(manager.ProbeNext(), 0);
    EXPECT_TRUE(origin.WaitForConnections(1 + round, kWaitMs));
  }
  EXPECT_EQ(manager.sizeCache_.count("127.0.0.1/none"), 0u);
}

TEST_F(SizeCache, SweepDropsIdleEntriesThenWholeLeastRecentlyUsedGroups) {
  TestManager manager;
  const auto fill = [&](const std::string& prefix, int count) {
    for (int i = 0; i < count; ++i) manager.RememberSize(prefix + std::to_string(i), i);
  };
  // Up to the threshold nothing goes, however old.
  fill("old", 100);
  g_now += 10'000;
  manager.SweepSizeCache();
  EXPECT_EQ(manager.sizeCache_.size(), 100u);

  // Above it: idle for more than 600 s goes, exactly 600 s stays.
  fill("edge", 1);
  g_now += 1;
  fill("new", 1);
  g_now += CHeaderManager::kIdleLimitSeconds;
  manager.SweepSizeCache();
  ASSERT_EQ(manager.sizeCache_.size(), 1u);
  EXPECT_EQ(manager.sizeCache_.count("new0"), 1u);

  // Nothing idle: whole groups of the oldest last use go until at most 100 remain.
  g_now += 1000;
  fill("a", 3);
  g_now += 1;
  fill("b", 99);
  manager.SweepSizeCache();
  EXPECT_EQ(manager.sizeCache_.size(), 99u);
  EXPECT_EQ(manager.sizeCache_.count("a0") + manager.sizeCache_.count("new0"), 0u);
}

TEST_F(SizeCache, WorkerSweepsWhenIdleForTenSeconds) {
  OriginServer origin([](const OriginRequest& r) { return Length("Content-Length: " + r.target.substr(2)); });
  TestManager manager;
  ASSERT_TRUE(manager.Start());
  AwaitWorker(&manager);
  for (int i = 0; i <= static_cast<int>(CHeaderManager::kSweepThreshold); ++i) {
    Enqueue(&manager, origin, ("/s" + std::to_string(i)).c_str());
  }
  ASSERT_TRUE(origin.WaitForRequests(101, kWaitMs));
  g_now += CHeaderManager::kIdleLimitSeconds + CHeaderManager::kSweepIntervalSeconds + 1;
  // One more probe, and the worker sweeps as soon as it is idle again: every
  // size is stale by now, so the next block of the first item probes again.
  Enqueue(&manager, origin, "/s999");
  ASSERT_TRUE(origin.WaitForRequests(102, kWaitMs));
  // The last of the first hundred may have been cached after the clock moved.
  ASSERT_TRUE(WaitUntil([&] { return manager.CachedSizes() <= 2; }, kWaitMs));  // swept
  Enqueue(&manager, origin, "/s0");
  EXPECT_TRUE(origin.WaitForRequests(103, kWaitMs));
  EXPECT_TRUE(manager.Stop());
}

TEST_F(Worker, AddsCountTimesSizeForBlocksDuringAProbeAndFromTheCache) {
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false, released = false;
  OriginServer origin([&](const OriginRequest& r) {
    if (r.target == "/held.gif") {
      std::unique_lock<std::mutex> lock(mutex);
      held = true;
      changed.notify_all();
      changed.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return released; });
      return Length("Content-Length: 1000");
    }
    if (r.target == "/none") return OriginReply::NoBody(304);
    return Length("Content-Length: 70");
  });
  const std::uint64_t before = AdSize();
  Enqueue(probes_, origin, "/held.gif");
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return held; }));
  }
  // While the first probe waits: two more of the same item, three of another.
  for (const char* path : {"/held.gif", "/held.gif", "/other.js", "/other.js", "/other.js"}) {
    Enqueue(probes_, origin, path);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
  }
  EXPECT_TRUE(AdSizeReaches(before + 3 * 1000 + 3 * 70));
  EXPECT_EQ(origin.RequestCount(), 2);

  // A cached size adds at once; a missing length adds nothing. The last
  // item is known to follow both, being larger in key order.
  Enqueue(probes_, origin, "/held.gif");
  Enqueue(probes_, origin, "/none");
  Enqueue(probes_, origin, "/zzz.gif");
  EXPECT_TRUE(AdSizeReaches(before + 4 * 1000 + 4 * 70));
  EXPECT_EQ(origin.RequestCount(), 4);
}

TEST_F(Worker, StopBreaksAProbeThatWaitsOnASilentServer) {
  // The worker is quiet while its lines are let into proxy.log.
  ASSERT_TRUE(probes_->Stop());
  proxy_->GetLog(kLogProxy)->SetLevelMask(kLevelError | kLevelWarning | kLevelInfo | kLevelDebug);
  proxy_->GetMemLog()->Attach(proxy_->GetLog(kLogProxy));
  ASSERT_TRUE(probes_->Start());
  AwaitWorker(probes_);
  OriginServer silent([](const OriginRequest&) { return OriginReply::Silent(); });
  Enqueue(probes_, silent, "/silent.gif");
  ASSERT_TRUE(silent.WaitForRequests(1, kWaitMs));
  auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(probes_->Stop());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));

  // A server that never takes the connection: the probe hangs in connect.
  SOCKET full = os::CreateTcpSocket();
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  ASSERT_EQ(os::BindAny(full, 0), 0);
  ASSERT_EQ(os::listen(full, 0), 0);
  ASSERT_EQ(os::getsockname(full, &address, &port), 0);
  vxtest::RawClient queued;  // fills the backlog: later handshakes are dropped
  ASSERT_TRUE(queued.Connect(port));
  ASSERT_TRUE(probes_->Start());
  AwaitWorker(probes_);
  probes_->Enqueue("127.0.0.1", port, "/hang.gif", "", 0, kFields);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  started = std::chrono::steady_clock::now();
  EXPECT_TRUE(probes_->Stop());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
  os::closesocket(full);

  proxy_->Stop();  // closes the log
  const std::string log = ProxyLog();
  EXPECT_NE(log.find("[DEBUG]: Starting Header Manager @"), std::string::npos) << log;
  EXPECT_NE(log.find("[DEBUG]: Cleaning up pending requests in Header Manager \r\n"
                     "[DEBUG]: Stopped Header Manager @"),
            std::string::npos)
      << log;
}

TEST_F(Worker, BlockedGetThroughTheServiceLeadsToOneHeadWithTheBrowsersFields) {
  OriginServer origin([](const OriginRequest&) { return Length("Content-Length: 321"); });
  const std::string host = "127.0.0.1:" + std::to_string(origin.Port());
  const std::string fields = "Host: " + host + "\r\nUser-Agent: t\r\nProxy-Connection: keep-alive\r\n\r\n";
  const std::uint64_t before = AdSize();
  vxtest::RawClient browser;
  ASSERT_TRUE(browser.Connect(proxy_->GetPort()));
  ASSERT_TRUE(browser.Send("GET http://" + host + "/banner/ad.gif?x=1 HTTP/1.1\r\n" + fields));
  EXPECT_NE(browser.ReceiveResponse(kWaitMs).find("Content-Type: image/gif"), std::string::npos);
  const std::string expected = "HEAD /banner/ad.gif HTTP/1.0\r\n" + fields + "\r\n";
  EXPECT_EQ(ReceivedBytes(origin, 0, expected.size()), expected);
  EXPECT_TRUE(AdSizeReaches(before + 321));
  EXPECT_EQ(origin.RequestCount(), 1);
}
