#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "client/proxyclient.h"
#include "client/proxymanager.h"
#include "support/service_fixture.h"

namespace {

// A worker stuck outside its socket calls: closing its sockets does not end
// it, so only a forced termination can.
class StuckWorker : public CProxyClient {
 public:
  StuckWorker(std::atomic<bool>* release, std::atomic<int>* finished)
      : CProxyClient(INVALID_SOCKET), release_(release), finished_(finished) {}
  ~StuckWorker() override { ++*finished_; }
  DWORD Run() override {
    while (!*release_) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // Still touches its own members after the registry gave up on it.
    connectHost_ = "after the kill";
    CProxyManager::Instance()->OnWorkerFinished(this);
    return 0;
  }

 private:
  std::atomic<bool>* release_;
  std::atomic<int>* finished_;
};

}  // namespace

class Registry : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    ASSERT_TRUE(proxy_->Initialize());
    // Let the registry's DEBUG lines through to proxy.log.
    proxy_->GetLog(kLogProxy)->SetLevelMask(15);
    proxy_->GetMemLog()->Attach(proxy_->GetLog(kLogProxy));
    registry_->SetStopAllSleepForTesting(20);
  }
  void TearDown() override {
    registry_->SetStopAllSleepForTesting(CProxyManager::kStopAllSleepMs);
    ServiceFixture::TearDown();
  }
  CProxyManager* registry_ = CProxyManager::Instance();
};

TEST_F(Registry, StopAllWithoutWorkersReturnsAtOnce) {
  registry_->SetStopAllSleepForTesting(CProxyManager::kStopAllSleepMs);
  const auto start = std::chrono::steady_clock::now();
  registry_->StopAll();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  const std::string log = ProxyLog();
  EXPECT_NE(log.find("[DEBUG]: Stopping all active connection\r\n"), std::string::npos);
  EXPECT_NE(log.find("[DEBUG]: Checking status of all clients...\r\n"), std::string::npos);
  EXPECT_EQ(log.find("force termination"), std::string::npos);
}

TEST_F(Registry, StuckWorkerIsKilledAndFreedWhenItsBodyReturns) {
  std::atomic<bool> release{false};
  std::atomic<int> finished{0};
  auto* worker = new StuckWorker(&release, &finished);
  registry_->Add(worker);
  ASSERT_TRUE(worker->Start());
  EXPECT_EQ(registry_->GetActiveCount(), 1);

  registry_->StopAll();
  EXPECT_EQ(registry_->GetActiveCount(), 0);
  const std::string log = ProxyLog();
  EXPECT_NE(log.find("[DEBUG]: Still some more clients needs to come out.. Will be carrying out "
                     "a force termination\r\n[DEBUG]: Killing connection\r\n"),
            std::string::npos)
      << log;
  // The killed worker is not freed under its running body...
  EXPECT_EQ(finished.load(), 0);
  release = true;
  // ...but by its own thread once the body returns.
  for (int i = 0; i < 200 && finished.load() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(finished.load(), 1);
}

TEST_F(Registry, FinishedWorkersAreReaped) {
  std::atomic<bool> release{true};
  std::atomic<int> finished{0};
  auto* worker = new StuckWorker(&release, &finished);
  registry_->Add(worker);
  ASSERT_TRUE(worker->Start());
  // The body returns at once; the worker moves itself to the finished list.
  for (int i = 0; i < 200 && registry_->GetActiveCount() != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(registry_->GetActiveCount(), 0);
  EXPECT_EQ(finished.load(), 0);
  registry_->Reap();
  EXPECT_EQ(finished.load(), 1);
}
