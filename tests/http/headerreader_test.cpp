// Reading and parsing request and response headers, and the request-time
// verdict with its log lines.
#include <cctype>
#include <chrono>
#include <string>
#include <thread>

#include "http_fixture.h"
#include "../support/vtable.h"

using vxtest::SendAllBytes;

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

class HeaderReader : public HttpTest {
 protected:
  // Sends the bytes from the browser's end and reads one header.
  int Read(const std::string& bytes, bool isRequest) {
    SendAllBytes(pair_->client, bytes);
    return request_->ReadHeader(request_->clientSocket_, isRequest);
  }
};

TEST(HttpRequestLayout, VirtualOperationsKeepTheirSlots) {
  EXPECT_EQ(VtableIndex(&CHTTPRequest::ReadHeader), 0);
  EXPECT_EQ(VtableIndex(&CHTTPRequest::Evaluate), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(&CHTTPRequest::IsInternal), VtableIndexOfSlot(3));
}

TEST_F(HeaderReader, ConnectionTagAndLocalAddressNameBothEnds) {
  TestRequest& r = MakeRequest();
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  ASSERT_EQ(os::getsockname(pair_->client, &address, &port), 0);
  EXPECT_EQ(Text(r.connectionTag_), "127.0.0.1:" + std::to_string(port) + "    ");
  ASSERT_EQ(os::getpeername(pair_->client, &address, &port), 0);
  EXPECT_EQ(Text(r.localAddress_), "127.0.0.1:" + std::to_string(port));
}

TEST_F(HeaderReader, RequestArrivingOneByteAtATimeIsAssembled) {
  TestRequest& r = MakeRequest();
  const std::string header =
      "GET http://www.example.com/a/b.gif?x=1 HTTP/1.1\r\nHost: www.example.com\r\n"
      "Accept: */*\r\n\r\n";
  std::thread browser([&] {
    vxtest::RawClient c(pair_->client);
    c.SendSlowly(header + "BODY", 1, 1);
    c.Release();
  });
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 0);
  browser.join();
  EXPECT_EQ(Text(r.rawHeader_), header);
  EXPECT_EQ(Text(r.startLine_), "GET http://www.example.com/a/b.gif?x=1 HTTP/1.1\r\n");
  EXPECT_EQ(Text(r.requestLine_), "GET http://www.example.com/a/b.gif?x=1");
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: www.example.com\r\nAccept: */*\r\n");
  EXPECT_EQ(Text(r.host_), "www.example.com");
  EXPECT_EQ(Text(r.typeWord_), "gif");
  // At most what followed the header sits in the buffer; it was not lost.
  EXPECT_LE(r.receiveBuffer_.GetSize(), 4);
  EXPECT_EQ(r.bytesFromClient_, static_cast<int>(header.size()) + r.receiveBuffer_.GetSize());
  EXPECT_NE(ProxyLog().find(Text(r.connectionTag_) + "HTTP Header Reading complete\r\n"),
            std::string::npos);
}

TEST_F(HeaderReader, LaterWaitsOfARequestAreLongerThanTheFirst) {
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
}

TEST_F(HeaderReader, SilentBrowserFailsTheFirstWait) {
  TestRequest& r = MakeRequest();
  HttpWaits waits;
  waits.requestFirstSec = 1;
  r.SetWaits(waits);
  const auto start = Clock::now();
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 1);
  EXPECT_LT(MsSince(start), 2500);
  const std::string log = ProxyLog();
  EXPECT_NE(log.find(Text(r.connectionTag_) + "Socket wait exceede the limit 1000 MS\r\n"),
            std::string::npos);
  EXPECT_NE(log.find(Text(r.connectionTag_) + "Wait Failed while reading request/response header "),
            std::string::npos);
}

TEST_F(HeaderReader, CloseBeforeTheBlankLineEndsTheSession) {
  TestRequest& r = MakeRequest();
  SendAllBytes(pair_->client, "GET / HTTP/1.1\r\nHost: h\r\n");
  vxtest::CloseSocket(pair_->client);
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 2);
}

TEST_F(HeaderReader, FieldNamesAreMatchedIgnoringCaseButNotWithABlank) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("POST /f HTTP/1.1\r\nHost: h\r\ncontent-length: 42\r\n\r\n", true), 0);
  EXPECT_EQ(r.contentLength_, 42);
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: h\r\ncontent-length: 42\r\n");

  ASSERT_EQ(Read("POST /f HTTP/1.1\r\nHost: h\r\nContent-Length : 42\r\n\r\n", true), 0);
  EXPECT_EQ(r.contentLength_, 0);
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: h\r\nContent-Length : 42\r\n");
}

TEST_F(HeaderReader, ProxyOnlyFieldsAreDroppedAndTheRestKeepsItsOrder) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET http://h/ HTTP/1.1\r\n"
                 "User-Agent: test/1.0\r\n"
                 "Proxy-Connection: keep-alive\r\n"
                 "Accept:text/html\r\n"
                 "Proxy-Authorization: Basic abc\r\n"
                 "Host: h\r\n"
                 "Proxy-Destination: far.example:81\r\n"
                 "X-Odd:   spaced   \r\n"
                 "\r\n",
                 true),
            0);
  EXPECT_EQ(Text(r.otherHeaderLines_),
            "User-Agent: test/1.0\r\nAccept:text/html\r\nHost: h\r\nX-Odd:   spaced\r\n");
  EXPECT_EQ(Text(r.proxyConnectionLine_), "Proxy-Connection: keep-alive\r\n");
  EXPECT_EQ(Text(r.proxyDestination_), "far.example:81");
  // The header map has every field, the proxy-only ones included.
  EXPECT_EQ(r.headerMap_.at("user-agent"), "test/1.0");
  EXPECT_EQ(r.headerMap_.at("accept"), "text/html");
  EXPECT_EQ(r.headerMap_.at("x-odd"), "spaced");
  EXPECT_EQ(r.headerMap_.at("proxy-authorization"), "Basic abc");
  // The header lines keep everything but the start line.
  EXPECT_EQ(Text(r.headerLines_).substr(0, 24), "User-Agent: test/1.0\r\nPr");
}

TEST_F(HeaderReader, ProxyDestinationNamingThisProxyIsIgnored) {
  TestRequest& r = MakeRequest();
  const std::string self = Text(r.localAddress_);
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nProxy-Destination: " + self + "\r\n\r\n", true), 0);
  EXPECT_EQ(Text(r.proxyDestination_), "");
  EXPECT_EQ(Text(r.otherHeaderLines_), "Host: h\r\n");
}

TEST_F(HeaderReader, FlagsFollowTheirFieldsAndAreResetPerMessage) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("HTTP/1.1 200 OK\r\nTransfer-Encoding:  Chunked \r\nConnection: close\r\n\r\n",
                 false),
            0);
  EXPECT_TRUE(r.chunkedFlag_);
  EXPECT_TRUE(r.closeFlag_);
  ASSERT_EQ(Read("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\nConnection: keep-alive\r\n"
                 "Content-Length: 7\r\n\r\n",
                 false),
            0);
  EXPECT_FALSE(r.chunkedFlag_);
  EXPECT_FALSE(r.closeFlag_);
  EXPECT_EQ(r.contentLength_, 7);
}

TEST_F(HeaderReader, ContentTypeGivesANormalisedTypeWord) {
  TestRequest& r = MakeRequest();
  struct Case {
    const char* value;
    const char* word;
  } cases[] = {
      {"text/html; charset=utf-8", "htm"},
      {"application/x-javascript; charset=utf-8", "js"},
      {"application/x-shockwave-flash", "flv"},
      {"image/png", "gif"},
      {"Image/JPEG", "gif"},
      {"application/x-foo", "foo"},
      {"application/pdf", "pdf"},
      {" , text/css ;q=1, image/png", "css"},
      {"nonsense", ""},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(Read(std::string("HTTP/1.1 200 OK\r\nContent-Type: ") + c.value + "\r\n\r\n", false), 0);
    EXPECT_EQ(Text(r.responseTypeWord_), c.word) << c.value;
  }
}

TEST_F(HeaderReader, ResponseStatusComesFromTheStatusLine) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("HTTP/1.0 304 Not Modified\r\nDate: x\r\n\r\n", false), 0);
  EXPECT_EQ(r.statusCode_, 304);
  EXPECT_EQ(Text(r.startLine_), "HTTP/1.0 304 Not Modified\r\n");
  EXPECT_EQ(Text(r.headerLines_), "Date: x\r\n\r\n");
}

TEST_F(HeaderReader, ResponseWithoutVersionCountsAsOk) {
  TestRequest& r = MakeRequest();
  r.statusCode_ = 404;
  ASSERT_EQ(Read("XYZ\r\nContent-Length: 2\r\n\r\nok", false), 0);
  EXPECT_EQ(r.statusCode_, 200);
  EXPECT_EQ(Text(r.startLine_), "XYZ\r\n");
  EXPECT_EQ(r.contentLength_, 2);
  EXPECT_NE(RequestLog().find("HTTP response without proper response code\r\n"), std::string::npos);
}

TEST_F(HeaderReader, RemnantBeforeTheStatusLineIsDropped) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("old body tailHTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", false), 0);
  EXPECT_EQ(r.statusCode_, 404);
  EXPECT_EQ(Text(r.startLine_), "HTTP/1.1 404 Not Found\r\n");
  EXPECT_EQ(Text(r.rawHeader_), "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(Text(r.headerLines_), "Content-Length: 0\r\n\r\n");
  EXPECT_NE(RequestLog().find("There is some remnant data from the previous request\r\n"),
            std::string::npos);
}

TEST_F(HeaderReader, VersionFurtherDownIsNoStatusLine) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("garbage\r\nVia: HTTP/1.1 proxy\r\n\r\n", false), 0);
  EXPECT_EQ(r.statusCode_, 200);
  EXPECT_EQ(Text(r.startLine_), "garbage\r\n");
  EXPECT_EQ(Text(r.otherHeaderLines_), "Via: HTTP/1.1 proxy\r\n");
}

TEST_F(HeaderReader, FieldsFoldedAfterATrailingCommaPassVerbatim) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nAccept: a,\r\nReferer: http://b.example/\r\n"
                 "Content-Length: 5\r\n\r\n",
                 true),
            0);
  EXPECT_EQ(Text(r.otherHeaderLines_),
            "Host: h\r\nAccept: a,\r\nReferer: http://b.example/\r\nContent-Length: 5\r\n");
  EXPECT_EQ(Text(r.refererHost_), "");  // its handler did not run
  EXPECT_EQ(r.contentLength_, 5);       // the next field is a field again
}

TEST_F(HeaderReader, RefererHostCarriesAnUnusualPort) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nReferer: http://ref.example:8080/page?q\r\n\r\n", true), 0);
  EXPECT_EQ(Text(r.refererHost_), "ref.example:8080");
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nReferer: https://ref.example:80/\r\n\r\n", true), 0);
  EXPECT_EQ(Text(r.refererHost_), "ref.example");
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\n\r\n", true), 0);
  EXPECT_EQ(Text(r.refererHost_), "");  // reset for every request
}

TEST_F(HeaderReader, BodyBytesStayBufferedUntilTheNextRead) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("POST /p HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\n\r\nbody", true), 0);
  EXPECT_EQ(Text(r.receiveBuffer_), "body");
  ASSERT_EQ(Read("GET /q HTTP/1.1\r\nHost: h\r\n\r\n", true), 0);
  EXPECT_EQ(Text(r.receiveBuffer_), "");
  EXPECT_EQ(Text(r.path_), "/q");
}

TEST_F(HeaderReader, ResponsesLeaveTheRequestHeaderMapAlone) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET / HTTP/1.1\r\nHost: h\r\nCookie: a=1\r\nCookie: b=2\r\n\r\n", true), 0);
  EXPECT_EQ(r.headerMap_.at("cookie"), "b=2");  // a repeated field overwrites
  ASSERT_EQ(Read("HTTP/1.1 200 OK\r\nServer: s\r\n\r\n", false), 0);
  EXPECT_EQ(r.headerMap_.size(), 2u);
  EXPECT_EQ(r.headerMap_.count("server"), 0u);
}

TEST_F(HeaderReader, OversizedHeaderEndsTheSessionWithAWarning) {
  TestRequest& r = MakeRequest();
  std::string header = "GET / HTTP/1.1\r\nHost: h\r\n";
  while (header.size() <= static_cast<std::size_t>(kMaxHeaderBytes)) {
    header += "X-Filler: " + std::string(100, 'f') + "\r\n";
  }
  header += "\r\n";
  std::thread browser([&] {
    vxtest::RawClient c(pair_->client);
    c.Send(header);
    c.Release();
  });
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 2);
  browser.join();
  EXPECT_NE(ProxyLog().find("[WARNING]: " + Text(r.connectionTag_) + "HTTP header exceeds 65536 bytes"),
            std::string::npos);
}

TEST_F(HeaderReader, LargeButBoundedHeaderIsRead) {
  TestRequest& r = MakeRequest();
  std::string header = "GET / HTTP/1.1\r\nHost: h\r\n";
  while (header.size() < 60000) header += "X-Filler: " + std::string(100, 'f') + "\r\n";
  header += "\r\n";
  std::thread browser([&] {
    vxtest::RawClient c(pair_->client);
    c.Send(header);
    c.Release();
  });
  EXPECT_EQ(r.ReadHeader(r.clientSocket_, true), 0);
  browser.join();
  EXPECT_EQ(Text(r.rawHeader_), header);
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
  for (int status : {204, 205, 300, 301, 304, 305, 306, 500, 503, 599}) {
    r.statusCode_ = status;
    EXPECT_FALSE(r.IsBodyAllowed()) << status;
  }
  for (int status : {100, 200, 206, 302, 303, 307, 404, 499, 600}) {
    r.statusCode_ = status;
    EXPECT_TRUE(r.IsBodyAllowed()) << status;
  }
}

// ------------------------------------------------------------- verdicts --

using RequestVerdict = HeaderReader;

namespace {

// A blocked.log line: "MM/DD/YYYY_hh:mm:ss_AM" (or PM), three blanks, the
// rest, CR LF.
struct StampedLine {
  int month = 0, day = 0, year = 0, hour = 0, minute = 0, second = 0;
  std::string half;
  std::string rest;
};

bool ParseStampedLine(const std::string& line, StampedLine& out) {
  const std::string shape = "99/99/9999_99:99:99_";
  if (line.size() < shape.size() + 2 + 3 + 2) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == '9' ? !std::isdigit(static_cast<unsigned char>(line[i])) : line[i] != shape[i]) {
      return false;
    }
  }
  out.month = std::stoi(line.substr(0, 2));
  out.day = std::stoi(line.substr(3, 2));
  out.year = std::stoi(line.substr(6, 4));
  out.hour = std::stoi(line.substr(11, 2));
  out.minute = std::stoi(line.substr(14, 2));
  out.second = std::stoi(line.substr(17, 2));
  out.half = line.substr(20, 2);
  if (out.half != "AM" && out.half != "PM") return false;
  if (line.compare(22, 3, "   ") != 0) return false;
  if (line.compare(line.size() - 2, 2, "\r\n") != 0) return false;
  out.rest = line.substr(25, line.size() - 27);
  return out.rest.find('\n') == std::string::npos;
}

}  // namespace

TEST_F(RequestVerdict, DisabledFilteringPassesAndLogsThePass) {
  TestRequest& r = MakeRequest();
  proxy_->EnableFiltering(false);
  ASSERT_EQ(Read("GET http://ads.example.com/x.gif HTTP/1.1\r\nHost: ads.example.com\r\n\r\n", true), 0);
  EXPECT_TRUE(r.Evaluate());
  proxy_->EnableFiltering(true);
  EXPECT_EQ(RequestLog(), "[P]  GET http://ads.example.com/x.gif\r\n");
}

TEST_F(RequestVerdict, OnlyGetRequestsAreJudged) {
  TestRequest& r = MakeRequest();
  const int before = proxy_->GetFilteredRequests();
  ASSERT_EQ(Read("POST http://ads.example.com/x.gif HTTP/1.1\r\nHost: ads.example.com\r\n"
                 "Content-Length: 0\r\n\r\n",
                 true),
            0);
  EXPECT_TRUE(r.Evaluate());
  EXPECT_EQ(proxy_->GetFilteredRequests(), before);
  EXPECT_EQ(RequestLog(), "[P]  POST http://ads.example.com/x.gif\r\n");
}

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
  StampedLine line;
  const std::string blocked = BlockedLog();
  ASSERT_TRUE(ParseStampedLine(blocked, line)) << blocked;
  EXPECT_EQ(line.rest,
            "ads.example.com:8080  news.example:81  http://ADS.example.com:8080/b/x.png?v=2");
}

TEST_F(RequestVerdict, RecordBlockedWritesAStampedLine) {
  TestRequest& r = MakeRequest();
  ASSERT_EQ(Read("GET /banner.gif HTTP/1.1\r\nHost: h\r\n\r\n", true), 0);
  r.RecordBlocked("h");
  StampedLine line;
  const std::string blocked = BlockedLog();
  ASSERT_TRUE(ParseStampedLine(blocked, line)) << blocked;
  EXPECT_EQ(line.rest, "h  __  /banner.gif");
  EXPECT_TRUE(line.month >= 1 && line.month <= 12);
  EXPECT_TRUE(line.day >= 1 && line.day <= 31);
  EXPECT_TRUE(line.hour >= 1 && line.hour <= 12);  // a 12-hour clock has no hour 0
  EXPECT_EQ(RequestLog(), "[B]  GET /banner.gif\r\n");
}
