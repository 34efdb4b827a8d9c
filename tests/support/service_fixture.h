// A service object with its folders in a fresh temp directory: data/, logs/
// and filters/ (with a filters.txt). The port is left to the system unless a
// test writes vexilo.ini itself. The service is stopped at the end.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "core/service.h"
#include "platform/platform.h"
#include "resources/resources.h"
#include "support/tempdir.h"

class ServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    proxy_ = Service();
    // In a test program the service is linked in, not loaded: stand in for
    // the module's load-time entry, which hands over the replacement bodies.
    HMODULE self = os::GetModuleHandleOf(reinterpret_cast<const void*>(&GetProxy));
    RegisterReplacementResources(self);
    proxy_->SetInstanceHandle(self);
    WriteTextFile(dir_ / "filters/filters.txt", FilterList());
    WriteIni("0");
    proxy_->SetDataFolder((dir_ / "data").c_str());
    proxy_->SetLogFolder((dir_ / "logs").c_str());
    proxy_->SetFilterFolder((dir_ / "filters").c_str());
    proxy_->EnableFiltering(true);
    proxy_->SetTraceMode(1);
    const unsigned short none = 0;
    proxy_->SetUpstreamProxy(CStringBuffer(""), &none);
  }

  void TearDown() override {
    proxy_->Stop();
    proxy_->ResetPort();  // the service remembers its port across Stop/Start
  }

  // The rules the service starts with; tests override to load their own.
  virtual std::string FilterList() const { return "||ads.example.com^\n"; }

  void WriteIni(const std::string& port) {
    WriteTextFile(dir_ / "data/vexilo.ini", "[Vexilo]\nPort=" + port + "\n");
  }

  std::string ProxyLog() const { return ReadTextFile(dir_ / "logs/proxy.log"); }
  std::string RequestLog() const { return ReadTextFile(dir_ / "logs/request.log"); }
  std::string BlockedLog() const { return ReadTextFile(dir_ / "logs/blocked.log"); }

  TempDir dir_;
  CVxHTTPProxyImpl* proxy_ = nullptr;
};
