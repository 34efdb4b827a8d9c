// Reading and parsing request and response headers, and the request-time
// verdict with its log lines.
#include <chrono>
#include <string>
#include <thread>

#include "http_fixture.h"
#include "support/textmatch.h"
#include "../support/vtable.h"

using vxtest::SendAllBytes;

class HeaderReader : public HttpTest {
 protected:
  // Sends the bytes from the browser's end and reads one header.
  int Read(const std::string& bytes, bool isRequest) {
    SendAllBytes(pair_->client, bytes);
    return request_->ReadHeader(request_->clientSocket_, isRequest);
  }
  // The same from another thread, for headers larger than the socket buffers.
  int ReadSentBy(const std::string& bytes) {
    std::thread browser([&] {
      vxtest::RawClient c(pair_->client);
      c.Send(bytes);
      c.Release();
    });
    const int result = request_->ReadHeader(request_->clientSocket_, true);
    browser.join();
    return result;
  }
  bool ProxyLogHas(const std::string& line) {
    return ProxyLog().find(Text(request_->GetConnectionTag()) + line) != std::string::npos;
  }
};

TEST(HttpRequestLayout, VirtualOperationsKeepTheirSlots) {
  EXPECT_EQ(VtableIndex(&CHTTPRequest::ReadHeader), 0);
  EXPECT_EQ(VtableIndex(&CHTTPRequest::Evaluate), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(&CHTTPRequest::IsInternal), VtableIndexOfSlot(3));
}

TEST_F(HeaderReader, LaterWaitsAreLongerThanTheFirstAndACloseEndsTheSession) {
  TestRequest& r = MakeRequest();
  HttpWaits waits;
  waits.requestFirstSec = 1;
  waits.requestNextSec = 3;
  r.SetWaits(waits);
  std::thread browser([&] {
    SendAllBytes(pair_->client, "G");
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));  // longer than the first wait
    SendAllBytes(pair_->client, "ET / HTTP/1.1\r\nHost: h\r\n\r\n");
  });
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), kReadHeaderOk);
  browser.join();
  EXPECT_EQ(Text(r.method_), "GET");

  const auto start = std::chrono::steady_clock::now();
  // A silent browser fails the first wait.
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), kReadHeaderWaitFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
  EXPECT_TRUE(ProxyLogHas("Socket wait exceede the limit 1000 MS\r\n"));
  EXPECT_TRUE(ProxyLogHas("Wait Failed while reading request/response header "));
  SendAllBytes(pair_->client, "GET / HTTP/1.1\r\nHost: h\r\n");
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), kReadHeaderClosed);
}

TEST_F(HeaderReader, ParsedFieldsReachTheRequestPerMessage) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET http://h/x.jpeg HTTP/1.1\r\nHost: h\r\nReferer: http://r.example:81/\r\n"
                 "Proxy-Connection: keep-alive\r\nContent-Length: 3\r\n\r\nabc",
                 true),
            kReadHeaderOk);
  EXPECT_EQ(Text(r.headerLines_), "Host: h\r\nReferer: http://r.example:81/\r\n"
                                  "Proxy-Connection: keep-alive\r\nContent-Length: 3\r\n\r\n");
  EXPECT_EQ(Text(r.receiveBuffer_), "abc");
  EXPECT_EQ(Text(r.proxyConnectionLine_), "Proxy-Connection: keep-alive\r\n");
  EXPECT_EQ(r.contentLength_, 3);
  EXPECT_EQ(Text(r.typeWord_), "gif");  // the target's word, through the type-word table
  // Responses: notes on the status line go to the trace; the type word is
  // normalised; the request's map and referer stay.
  ASSERT_EQ(Read("tailHTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n", false),
            kReadHeaderOk);
  EXPECT_EQ(r.statusCode_, 404);
  EXPECT_EQ(Text(r.responseTypeWord_), "htm");
  ASSERT_EQ(Read("XYZ\r\nConnection: close\r\n\r\n", false), kReadHeaderOk);
  EXPECT_EQ(r.statusCode_, 200);
  EXPECT_TRUE(r.closeFlag_);
  EXPECT_EQ(r.headerMap_.count("connection"), 0u);
  EXPECT_EQ(Text(r.refererHost_), "r.example:81");
  EXPECT_EQ(RequestLog(), "There is some remnant data from the previous request\r\n"
                          "HTTP response without proper response code\r\n");
}

TEST_F(HeaderReader, HeaderBeyondTheLimitEndsTheSession) {
  TestRequest& r = MakeRequest();
  const std::string header = "GET / HTTP/1.1\r\nX: " + std::string(kMaxHeaderBytes, 'f');
  EXPECT_EQ(ReadSentBy(header + "\r\n\r\n"), kReadHeaderClosed);
  EXPECT_NE(ProxyLog().find("[WARNING]: " + Text(r.GetConnectionTag()) +
                            "HTTP header exceeds 65536 bytes, connection dropped\r\n"),
            std::string::npos);
}

TEST_F(HeaderReader, TraceModeTwoDumpsEveryHeader) {
  TestRequest& r = MakeRequest();
  proxy_->SetTraceMode(2);
  proxy_->EnableFiltering(false);
  const std::string request = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string response = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  ASSERT_EQ(Read(request, true), kReadHeaderOk);
  // A request's dump waits for the next line of the trace...
  EXPECT_EQ(RequestLog(), "");
  EXPECT_TRUE(r.Evaluate());
  EXPECT_EQ(RequestLog(), request + "[P]  GET /a\r\n");
  // ...a response's goes out at once.
  ASSERT_EQ(Read(response, false), kReadHeaderOk);
  EXPECT_EQ(RequestLog(), request + "[P]  GET /a\r\n" + response);
}

// ------------------------------------------------------------- verdicts --

using RequestVerdict = HeaderReader;

namespace {

// The text after the time stamp of the one line in blocked.log.
std::string BlockedEntry(const std::string& log) {
  std::vector<std::string> match;
  return vxtest::RegexMatch(log,
                            R"((0[1-9]|1[0-2])/(0[1-9]|[12]\d|3[01])/\d{4}_(0[1-9]|1[0-2]):[0-5]\d:[0-5]\d_[AP]M   )"
                            R"(([^\n]*)\r\n)",
                            &match)
             ? match[4]
             : "no stamped line: " + log;
}

}  // namespace

TEST_F(RequestVerdict, UnknownKindsAreLeftForTheResponse) {
  TestRequest& r = MakeRequest();
  const int before = proxy_->GetFilteredRequests();
  ASSERT_EQ(Read("GET http://ads.example.com/serve?id=1 HTTP/1.1\r\nHost: ads.example.com\r\n\r\n",
                 true),
            kReadHeaderOk);
  EXPECT_TRUE(r.Evaluate());
  EXPECT_TRUE(r.deferredCheck_);
  EXPECT_EQ(r.verdict_, VerdictNoMatch);
  EXPECT_EQ(proxy_->GetFilteredRequests(), before + 1);
  EXPECT_EQ(RequestLog(), "");  // the response-time check writes the line
}

TEST_F(RequestVerdict, BlockedImageIsRecordedEverywhere) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET http://ADS.example.com:8080/b/x.png?v=2 HTTP/1.1\r\nHost: ADS.example.com:8080\r\n"
                 "Referer: http://news.example:81/index.html\r\n\r\n",
                 true),
            kReadHeaderOk);
  EXPECT_FALSE(r.Evaluate());
  EXPECT_NE(r.verdict_, VerdictNoMatch);
  EXPECT_NE(r.verdict_, VerdictAllowed);
  EXPECT_EQ(RequestLog(), "[B]  GET http://ADS.example.com:8080/b/x.png?v=2\r\n");
  EXPECT_EQ(BlockedEntry(BlockedLog()),
            "ads.example.com:8080  news.example:81  http://ADS.example.com:8080/b/x.png?v=2");
}

