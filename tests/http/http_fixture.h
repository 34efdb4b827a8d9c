// Shared setup of the HTTP layer tests: an initialised service object with
// its folders and logs in a temp directory, the replacement bodies
// registered, and a request object whose internals the tests may read.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "http/httprequest.h"
#include "platform/platform.h"
#include "resources/resources.h"
#include "../support/raw_client.h"
#include "../support/tempdir.h"
#include "vxproxy/proxy.h"

// A request object that opens its members to the tests.
class TestRequest : public CHTTPRequest {
 public:
  explicit TestRequest(SOCKET client) : CHTTPRequest(client) {}

  using CHTTPRequest::SetWaits;
  using CHTTPRequest::keptHost_;
  using CHTTPRequest::connectHost_;
  using CHTTPRequest::connectionTag_;
  using CHTTPRequest::headerLines_;
  using CHTTPRequest::rawHeader_;
  using CHTTPRequest::receiveBuffer_;
  using CHTTPRequest::otherHeaderLines_;
  using CHTTPRequest::scheme_;
  using CHTTPRequest::path_;
  using CHTTPRequest::typeWord_;
  using CHTTPRequest::host_;
  using CHTTPRequest::method_;
  using CHTTPRequest::refererHost_;
  using CHTTPRequest::requestTarget_;
  using CHTTPRequest::version_;
  using CHTTPRequest::startLine_;
  using CHTTPRequest::requestLine_;
  using CHTTPRequest::proxyDestination_;
  using CHTTPRequest::proxyConnectionLine_;
  using CHTTPRequest::localAddress_;
  using CHTTPRequest::responseTypeWord_;
  using CHTTPRequest::statusCode_;
  using CHTTPRequest::urlPort_;
  using CHTTPRequest::connectPort_;
  using CHTTPRequest::keptPort_;
  using CHTTPRequest::contentLength_;
  using CHTTPRequest::closeFlag_;
  using CHTTPRequest::chunkedFlag_;
  using CHTTPRequest::clientSocket_;
  using CHTTPRequest::upstreamSocket_;
  using CHTTPRequest::bytesFromClient_;
  using CHTTPRequest::bytesFromUpstream_;
  using CHTTPRequest::headerMap_;
  using CHTTPRequest::deferredCheck_;
  using CHTTPRequest::verdict_;
};

inline std::string Text(const CBufStream& b) { return std::string(b.GetBuffer(), static_cast<std::size_t>(b.GetSize())); }

// The module handle under which the tests register the replacement bodies.
inline HMODULE TestModule() {
  static char anchor;
  return os::GetModuleHandleOf(&anchor);
}

class HttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    proxy_ = GetProxy();
    WriteTextFile(dir_ / "filters/filters.txt", "||ads.example.com^\n");
    WriteTextFile(dir_ / "data/vexilo.ini", "[Vexilo]\nPort=0\n");
    proxy_->SetDataFolder((dir_ / "data").c_str());
    proxy_->SetLogFolder((dir_ / "logs").c_str());
    proxy_->SetFilterFolder((dir_ / "filters").c_str());
    proxy_->EnableFiltering(true);
    proxy_->SetTraceMode(1);
    const unsigned short none = 0;
    proxy_->SetUpstreamProxy(CStringBuffer(""), &none);
    proxy_->Initialize();
    RegisterReplacementResources(TestModule());
    proxy_->SetInstanceHandle(TestModule());
    // The event lines of the HTTP layer are VERBOSE, which proxy.log drops
    // by default; the tests want to see them.
    if (CLog* log = proxy_->GetLog(kLogProxy)) log->SetLevelMask(-1);
  }

  void TearDown() override {
    // Requests hold the log sinks; they go before the logs do.
    request_.reset();
    proxy_->Uninitialize();
  }

  // A request on the server end of a fresh loopback pair; the test talks
  // to it through pair_->client.
  TestRequest& MakeRequest() {
    pair_ = std::make_unique<vxtest::SocketPair>();
    EXPECT_TRUE(pair_->IsOpen());
    request_ = std::make_unique<TestRequest>(pair_->server);
    pair_->server = INVALID_SOCKET;  // the request owns it now
    return *request_;
  }

  std::string ProxyLog() const { return ReadTextFile(dir_ / "logs/proxy.log"); }
  std::string RequestLog() const { return ReadTextFile(dir_ / "logs/request.log"); }
  std::string BlockedLog() const { return ReadTextFile(dir_ / "logs/blocked.log"); }

  TempDir dir_;
  CVxHTTPProxy* proxy_ = nullptr;
  std::unique_ptr<vxtest::SocketPair> pair_;
  std::unique_ptr<TestRequest> request_;
};
