// Shared setup of the HTTP layer tests: an initialised service object with
// its folders and logs in a temp directory, the replacement bodies
// registered, and a request object whose internals the tests may read.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "http/httprequest.h"
#include "platform/platform.h"
#include "support/raw_client.h"
#include "support/service_fixture.h"
#include "core/service.h"

// A request object that opens to the tests the members their I/O and
// driver checks look at; parsing itself is tested on the parsers.
class TestRequest : public CHTTPRequest {
 public:
  explicit TestRequest(SOCKET client) : CHTTPRequest(client) {}

  // Connections and what was received on them.
  using CHTTPRequest::SetWaits, CHTTPRequest::clientSocket_, CHTTPRequest::upstreamSocket_,
      CHTTPRequest::receiveBuffer_, CHTTPRequest::bytesFromClient_,
      CHTTPRequest::bytesFromUpstream_, CHTTPRequest::keptHost_, CHTTPRequest::connectHost_,
      CHTTPRequest::connectPort_;
  // The message read last, as the session uses it.
  using CHTTPRequest::headerLines_, CHTTPRequest::statusCode_, CHTTPRequest::contentLength_,
      CHTTPRequest::closeFlag_, CHTTPRequest::headerMap_, CHTTPRequest::refererHost_,
      CHTTPRequest::proxyConnectionLine_, CHTTPRequest::responseTypeWord_;
  // The request and the verdict on it.
  using CHTTPRequest::method_, CHTTPRequest::typeWord_, CHTTPRequest::deferredCheck_,
      CHTTPRequest::verdict_;
};

inline std::string Text(const CBufStream& b) { return std::string(b.GetBuffer(), static_cast<std::size_t>(b.GetSize())); }

class HttpTest : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    proxy_->Initialize();
    // The event lines of the HTTP layer are VERBOSE, which proxy.log drops
    // by default; the tests want to see them.
    if (CLog* log = proxy_->GetLog(kLogProxy)) log->SetLevelMask(-1);
  }

  void TearDown() override {
    // Requests hold the log sinks; they go before the logs do.
    request_.reset();
    proxy_->Uninitialize();
    ServiceFixture::TearDown();
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

  std::unique_ptr<vxtest::SocketPair> pair_;
  std::unique_ptr<TestRequest> request_;
};
