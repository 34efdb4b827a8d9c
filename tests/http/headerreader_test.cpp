// Reading and parsing request and response headers, and the request-time
// verdict with its log lines.
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "http_fixture.h"
#include "../support/vtable.h"

using vxtest::SendAllBytes;

class HeaderReader : public HttpTest {
 protected:
  // Sends the bytes from the browser's end and reads one header.
  int Read(const std::string& bytes, bool isRequest) {
    SendAllBytes(pair_->client, bytes);
    return request_->ReadHeader(request_->clientSocket_, isRequest);
  }
  // The same from another thread, for headers sent slowly (pieceSize bytes
  // at a time) or larger than the socket buffers (pieceSize 0).
  int ReadSentBy(const std::string& bytes, int pieceSize) {
    std::thread browser([&] {
      vxtest::RawClient c(pair_->client);
      if (pieceSize > 0) c.SendSlowly(bytes, pieceSize, 1);
      if (pieceSize == 0) c.Send(bytes);
      c.Release();
    });
    const int result = request_->ReadHeader(request_->clientSocket_, true);
    browser.join();
    return result;
  }
  bool ProxyLogHas(const std::string& line) {
    return ProxyLog().find(Text(request_->connectionTag_) + line) != std::string::npos;
  }
};

TEST(HttpRequestLayout, VirtualOperationsKeepTheirSlots) {
  EXPECT_EQ(VtableIndex(&CHTTPRequest::ReadHeader), 0);
  EXPECT_EQ(VtableIndex(&CHTTPRequest::Evaluate), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(&CHTTPRequest::IsInternal), VtableIndexOfSlot(3));
}

TEST_F(HeaderReader, RequestArrivingOneByteAtATimeIsAssembled) {
  TestRequest& r = MakeRequest();
  const std::string header =
      "GET http://www.example.com/a/b.gif?x=1 HTTP/1.1\r\nHost: www.example.com\r\n"
      "Accept: */*\r\n\r\n";
  EXPECT_EQ(ReadSentBy(header + "BODY", 1), 0);
  EXPECT_EQ(Text(r.rawHeader_), header);
  EXPECT_EQ(Text(r.requestLine_), "GET http://www.example.com/a/b.gif?x=1");
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: www.example.com\r\nAccept: */*\r\n");
  // At most what followed the header sits in the buffer; it was not lost.
  EXPECT_LE(r.receiveBuffer_.GetSize(), 4);
  EXPECT_EQ(r.bytesFromClient_, static_cast<int>(header.size()) + r.receiveBuffer_.GetSize());
  // Log lines start with the browser's end; the local end is this proxy's address.
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  ASSERT_EQ(os::getsockname(pair_->client, &address, &port), 0);
  EXPECT_NE(ProxyLog().find("127.0.0.1:" + std::to_string(port) + "    HTTP Header Reading complete\r\n"),
            std::string::npos);
  ASSERT_EQ(os::getpeername(pair_->client, &address, &port), 0);
  EXPECT_EQ(Text(r.localAddress_), "127.0.0.1:" + std::to_string(port));
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
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 0);
  browser.join();
  EXPECT_EQ(Text(r.method_), "GET");

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 1);  // a silent browser fails the first wait
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
  EXPECT_TRUE(ProxyLogHas("Socket wait exceede the limit 1000 MS\r\n"));
  EXPECT_TRUE(ProxyLogHas("Wait Failed while reading request/response header "));
  SendAllBytes(pair_->client, "GET / HTTP/1.1\r\nHost: h\r\n");
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 2);
}

TEST_F(HeaderReader, StartLineFieldsAndStatusOfEachMessage) {
  const struct {
    const char* bytes;
    bool request;
    const char* startLine;
    const char* others;
    int contentLength;
    int status;           // responses only
    const char* logLine;  // expected in request.log
  } cases[] = {
      {"POST /f HTTP/1.1\r\nHost: h\r\ncontent-length: 42\r\n\r\n", true, "POST /f HTTP/1.1\r\n",
       "Host: h\r\ncontent-length: 42\r\n", 42, 0, ""},
      // A blank before the colon makes no field name.
      {"POST /f HTTP/1.1\r\nHost: h\r\nContent-Length : 42\r\n\r\n", true, "POST /f HTTP/1.1\r\n",
       "Host: h\r\nContent-Length : 42\r\n", 0, 0, ""},
      // A line after a trailing comma is folded in, handler and all; the next is a field again.
      {"GET / HTTP/1.1\r\nHost: h\r\nAccept: a,\r\nReferer: http://b.example/\r\nContent-Length: 5\r\n\r\n",
       true, "GET / HTTP/1.1\r\n",
       "Host: h\r\nAccept: a,\r\nReferer: http://b.example/\r\nContent-Length: 5\r\n", 5, 0, ""},
      {"HTTP/1.0 304 Not Modified\r\nDate: x\r\n\r\n", false, "HTTP/1.0 304 Not Modified\r\n",
       "Date: x\r\n", 0, 304, ""},
      {"XYZ\r\nContent-Length: 2\r\n\r\n", false, "XYZ\r\n", "Content-Length: 2\r\n", 2, 200,
       "HTTP response without proper response code\r\n"},
      {"old body tailHTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", false,
       "HTTP/1.1 404 Not Found\r\n", "Content-Length: 0\r\n", 0, 404,
       "There is some remnant data from the previous request\r\n"},
      // A version further down is no status line.
      {"garbage\r\nVia: HTTP/1.1 proxy\r\n\r\n", false, "garbage\r\n", "Via: HTTP/1.1 proxy\r\n", 0,
       200, ""},
  };
  TestRequest& r = MakeRequest();
  for (const auto& c : cases) {
    r.statusCode_ = 0;
    ASSERT_EQ(Read(c.bytes, c.request), 0) << c.bytes;
    const std::string bytes = c.bytes;
    const std::size_t from = bytes.find(c.startLine);
    EXPECT_EQ(Text(r.rawHeader_), bytes.substr(from, bytes.find("\r\n\r\n") + 4 - from));
    EXPECT_EQ(Text(r.startLine_), c.startLine);
    EXPECT_EQ(Text(r.otherHeaderLines_), c.others) << c.bytes;
    EXPECT_EQ(r.contentLength_, c.contentLength) << c.bytes;
    EXPECT_EQ(r.statusCode_, c.status) << c.bytes;
    EXPECT_NE(RequestLog().find(c.logLine), std::string::npos) << c.logLine;
  }
}

TEST_F(HeaderReader, ProxyOnlyFieldsAreDroppedButMapped) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET http://h/ HTTP/1.1\r\nUser-Agent: test/1.0\r\nProxy-Connection: keep-alive\r\n"
                 "Accept:text/html\r\nProxy-Authorization: Basic abc\r\nHost: h\r\n"
                 "Proxy-Destination: far.example:81\r\nX-Odd:   spaced   \r\n"
                 "Cookie: a=1\r\nCookie: b=2\r\n\r\n",
                 true),
            0);
  EXPECT_EQ(Text(r.otherHeaderLines_),
            "User-Agent: test/1.0\r\nAccept:text/html\r\nHost: h\r\nX-Odd:   spaced\r\n"
            "Cookie: a=1\r\nCookie: b=2\r\n");
  EXPECT_EQ(Text(r.proxyConnectionLine_), "Proxy-Connection: keep-alive\r\n");
  EXPECT_EQ(Text(r.proxyDestination_), "far.example:81");
  EXPECT_EQ(r.headerMap_.at("accept"), "text/html");
  EXPECT_EQ(r.headerMap_.at("x-odd"), "spaced");
  EXPECT_EQ(r.headerMap_.at("proxy-authorization"), "Basic abc");
  EXPECT_EQ(r.headerMap_.at("cookie"), "b=2");  // a repeated field overwrites
  // Responses leave the request's map alone.
  ASSERT_EQ(Read("HTTP/1.1 200 OK\r\nServer: s\r\n\r\n", false), 0);
  EXPECT_EQ(r.headerMap_.count("server"), 0u);
  // A destination naming this proxy itself is ignored.
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nProxy-Destination: " + Text(r.localAddress_) +
                     "\r\n\r\n",
                 true),
            0);
  EXPECT_EQ(Text(r.proxyDestination_), "");
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: h\r\n");
}

TEST_F(HeaderReader, ResponseFieldsSetFlagsAndTypeWordAfreshPerMessage) {
  TestRequest& r = MakeRequest();
  const struct {
    const char* fields;
    bool chunked, close;
    const char* word;
  } cases[] = {
      {"Content-Type: text/html; charset=utf-8\r\nTransfer-Encoding:  Chunked \r\n"
       "Connection: close\r\n", true, true, "htm"},
      {"Content-Type: Image/JPEG\r\nTransfer-Encoding: gzip, chunked\r\nConnection: keep-alive\r\n",
       false, false, "gif"},
      {"Content-Type: application/x-foo\r\n", false, false, "foo"},
      {"Content-Type:  , text/css ;q=1, image/png\r\n", false, false, "css"},
      {"Content-Type: nonsense\r\n", false, false, ""},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Read(std::string("HTTP/1.1 200 OK\r\n") + c.fields + "\r\n", false), 0);
    EXPECT_EQ(r.chunkedFlag_, c.chunked) << c.fields;
    EXPECT_EQ(r.closeFlag_, c.close) << c.fields;
    EXPECT_EQ(Text(r.responseTypeWord_), c.word) << c.fields;
  }
}

TEST_F(HeaderReader, RefererHostKeepsAnUnusualPortAndIsResetPerRequest) {
  TestRequest& r = MakeRequest();
  const struct {
    const char* fields;
    const char* host;
  } cases[] = {
      {"Referer: http://ref.example:8080/page?q\r\n", "ref.example:8080"},
      {"Referer: https://ref.example:80/\r\n", "ref.example"},
      {"Referer:  http://user:pw@Ref.example:81/a#b\r\n", "Ref.example:81"},
      {"Referer: /p?u=http://x/\r\n", ""},  // no absolute URL
      {"", ""},
      {"Accept: a,\r\nReferer: http://b.example/\r\n", ""},  // folded: its handler does not run
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Read(std::string("GET / HTTP/1.1\r\nHost: h\r\n") + c.fields + "\r\n", true), 0);
    EXPECT_EQ(Text(r.refererHost_), c.host) << c.fields;
  }
}

TEST_F(HeaderReader, HeaderNearTheLimitIsReadAndALargerOneEndsTheSession) {
  TestRequest& r = MakeRequest();
  const std::string filler = "X-Filler: " + std::string(100, 'f') + "\r\n";
  std::string header = "GET / HTTP/1.1\r\nHost: h\r\n";
  while (header.size() < 60000) header += filler;
  EXPECT_EQ(ReadSentBy(header + "\r\n", 0), 0);
  EXPECT_EQ(Text(r.rawHeader_), header + "\r\n");
  while (header.size() <= static_cast<std::size_t>(kMaxHeaderBytes)) header += filler;
  EXPECT_EQ(ReadSentBy(header + "\r\n", 0), 2);
  EXPECT_NE(ProxyLog().find("[WARNING]: " + Text(r.connectionTag_) + "HTTP header exceeds 65536 bytes"),
            std::string::npos);
}

TEST_F(HeaderReader, TraceModeTwoDumpsEveryHeader) {
  TestRequest& r = MakeRequest();
  proxy_->SetTraceMode(2);
  proxy_->EnableFiltering(false);
  const std::string request = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string response = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  ASSERT_EQ(Read(request, true), 0);
  // A request's dump waits for the next line of the trace...
  EXPECT_EQ(RequestLog(), "");
  EXPECT_TRUE(r.Evaluate());
  EXPECT_EQ(RequestLog(), request + "[P]  GET /a\r\n");
  // ...a response's goes out at once.
  ASSERT_EQ(Read(response, false), 0);
  proxy_->SetTraceMode(1);
  proxy_->EnableFiltering(true);
  EXPECT_EQ(RequestLog(), request + "[P]  GET /a\r\n" + response);
}

TEST_F(HeaderReader, BodyIsAllowedByStatus) {
  TestRequest& r = MakeRequest();
  const std::pair<std::vector<int>, bool> groups[] = {
      {{204, 205, 300, 301, 304, 305, 306, 500, 503, 599}, false},
      {{100, 200, 206, 302, 303, 307, 404, 499, 600}, true}};
  for (const auto& [statuses, allowed] : groups) {
    for (int status : statuses) {
      r.statusCode_ = status;
      EXPECT_EQ(r.IsBodyAllowed(), allowed) << status;
    }
  }
}

// ------------------------------------------------------------- verdicts --

using RequestVerdict = HeaderReader;

namespace {

// The text after the time stamp of the one line in blocked.log.
std::string BlockedEntry(const std::string& log) {
  static const std::regex line(
      R"((0[1-9]|1[0-2])/(0[1-9]|[12]\d|3[01])/\d{4}_(0[1-9]|1[0-2]):[0-5]\d:[0-5]\d_[AP]M   )"
      R"(([^\n]*)\r\n)");
  std::smatch match;
  return std::regex_match(log, match, line) ? match[4].str() : "no stamped line: " + log;
}

}  // namespace

TEST_F(RequestVerdict, UnknownKindsAreLeftForTheResponse) {
  TestRequest& r = MakeRequest();
  const int before = proxy_->GetFilteredRequests();
  ASSERT_EQ(Read("GET http://ads.example.com/serve?id=1 HTTP/1.1\r\nHost: ads.example.com\r\n\r\n",
                 true),
            0);
  EXPECT_TRUE(r.Evaluate());
  EXPECT_TRUE(r.deferredCheck_);
  EXPECT_EQ(r.verdict_, 100);
  EXPECT_EQ(proxy_->GetFilteredRequests(), before + 1);
  EXPECT_EQ(RequestLog(), "");  // the response-time check writes the line
}

TEST_F(RequestVerdict, BlockedImageIsRecordedEverywhere) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET http://ADS.example.com:8080/b/x.png?v=2 HTTP/1.1\r\nHost: ADS.example.com:8080\r\n"
                 "Referer: http://news.example:81/index.html\r\n\r\n",
                 true),
            0);
  EXPECT_FALSE(r.Evaluate());
  EXPECT_NE(r.verdict_, 100);
  EXPECT_NE(r.verdict_, 200);
  EXPECT_EQ(RequestLog(), "[B]  GET http://ADS.example.com:8080/b/x.png?v=2\r\n");
  EXPECT_EQ(BlockedEntry(BlockedLog()),
            "ads.example.com:8080  news.example:81  http://ADS.example.com:8080/b/x.png?v=2");
}

