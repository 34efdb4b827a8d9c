// Request targets in their three forms, the URL splitter, and opening or
// reusing the connection to the server.
#include <chrono>
#include <string>
#include <thread>

#include "http/urlparser.h"
#include "http_fixture.h"
#include "../support/origin_server.h"

using vxtest::OriginReply;
using vxtest::OriginServer;

class RequestTarget : public HttpTest {
 protected:
  // Parses a request given as start line plus fields, the way ReadHeader
  // would after reading it.
  TestRequest& Parse(const std::string& startLine, const std::string& fields = "") {
    if (!request_) MakeRequest();
    TestRequest& r = *request_;
    r.headerMap_.clear();
    if (!fields.empty()) {
      r.headerLines_ = (startLine + fields).c_str();
      r.ParseHeaderLines(static_cast<int>(startLine.size()), true);
    }
    r.ParseRequestTarget(CStringBuffer(startLine.c_str()));
    return r;
  }
};

TEST_F(RequestTarget, AbsoluteUrlIsSplitIntoItsParts) {
  TestRequest& r = Parse("GET http://adhost/x/b.js?v=2 HTTP/1.1\r\n", "Host: other\r\n\r\n");
  EXPECT_EQ(Text(r.method_), "GET");
  EXPECT_EQ(Text(r.scheme_), "http");
  EXPECT_EQ(Text(r.host_), "adhost");
  EXPECT_EQ(r.urlPort_, 80);
  EXPECT_EQ(Text(r.requestTarget_), "/x/b.js?v=2");
  EXPECT_EQ(Text(r.path_), "/x/b.js");
  EXPECT_EQ(Text(r.version_), "HTTP/1.1");
  EXPECT_EQ(Text(r.typeWord_), "js");
}

TEST_F(RequestTarget, ConnectTargetIsTheAuthority) {
  TestRequest& r = Parse("CONNECT mailhost:443 HTTP/1.1\r\n");
  EXPECT_EQ(Text(r.scheme_), "https");
  EXPECT_EQ(Text(r.host_), "mailhost");
  EXPECT_EQ(r.urlPort_, 443);
  EXPECT_EQ(Text(r.requestTarget_), "");
  EXPECT_EQ(Text(r.path_), "");
  EXPECT_EQ(Text(r.typeWord_), "unknown");
}

TEST_F(RequestTarget, ConnectWithoutPortGetsEighty) {
  TestRequest& r = Parse("connect h HTTP/1.1\r\n");
  EXPECT_EQ(Text(r.scheme_), "https");
  EXPECT_EQ(Text(r.host_), "h");
  EXPECT_EQ(r.urlPort_, 80);
}

TEST_F(RequestTarget, UrlInsideTheQueryDoesNotMakeAnAbsoluteForm) {
  TestRequest& r = Parse("GET /p?u=http://ads.example/x.gif HTTP/1.1\r\n", "Host: site:8080\r\n\r\n");
  EXPECT_EQ(Text(r.scheme_), "http");
  EXPECT_EQ(Text(r.host_), "site");
  EXPECT_EQ(r.urlPort_, 8080);
  EXPECT_EQ(Text(r.requestTarget_), "/p?u=http://ads.example/x.gif");
  EXPECT_EQ(Text(r.path_), "/p");
  EXPECT_EQ(Text(r.typeWord_), "unknown");
}

TEST_F(RequestTarget, AbsoluteUrlWithoutPathGetsTheRoot) {
  TestRequest& r = Parse("GET http://h HTTP/1.1\r\n");
  EXPECT_EQ(Text(r.host_), "h");
  EXPECT_EQ(Text(r.path_), "/");
  EXPECT_EQ(Text(r.requestTarget_), "/");
  EXPECT_EQ(Text(r.typeWord_), "unknown");
}

TEST_F(RequestTarget, FiveLetterSchemeIsTreatedAsAPath) {
  TestRequest& r = Parse("GET https://h/x.gif HTTP/1.1\r\n", "Host: fromfield\r\n\r\n");
  EXPECT_EQ(Text(r.scheme_), "http");
  EXPECT_EQ(Text(r.host_), "fromfield");
  EXPECT_EQ(Text(r.path_), "https://h/x.gif");
  EXPECT_EQ(Text(r.typeWord_), "gif");
}

TEST_F(RequestTarget, OriginFormWithoutHostFieldIsLocalhost) {
  TestRequest& r = Parse("GET /index.html HTTP/1.0\r\n");
  EXPECT_EQ(Text(r.host_), "localhost");
  EXPECT_EQ(Text(r.scheme_), "");
  EXPECT_EQ(r.urlPort_, 80);
  EXPECT_EQ(Text(r.typeWord_), "htm");
}

TEST_F(RequestTarget, AbsoluteUrlPortIsSplitOff) {
  TestRequest& r = Parse("GET http://h:8080/a HTTP/1.1\r\n");
  EXPECT_EQ(Text(r.host_), "h");
  EXPECT_EQ(r.urlPort_, 8080);
  EXPECT_EQ(Text(r.path_), "/a");
}

TEST_F(RequestTarget, TypeWordComesFromTheLastNameOfThePath) {
  struct Case {
    const char* target;
    const char* word;
  } cases[] = {
      {"/a.b/c", "unknown"},        // the dot is in a folder name
      {"/img/photo.jpeg", "gif"},   // image extensions become gif
      {"/img/Banner.GIF", "GIF"},   // the extension keeps its case
      {"/x.png?v=1.2", "gif"},      // the query is no part of it
      {"/movie.swf", "flv"},
      {"/doc.pdf", "pdf"},
      {"/archive.tar.gz", "gz"},
      {"/trailing.", ""},
  };
  for (const Case& c : cases) {
    TestRequest& r = Parse(std::string("GET ") + c.target + " HTTP/1.1\r\n", "Host: h\r\n\r\n");
    EXPECT_EQ(Text(r.typeWord_), c.word) << c.target;
  }
}

TEST(SplitHostPort, StaticFormSplitsAtTheFirstColon) {
  CStringBuffer host;
  EXPECT_EQ(CHTTPRequest::SplitHostPort("far.example", host), 80);
  EXPECT_EQ(Text(host), "far.example");
  EXPECT_EQ(CHTTPRequest::SplitHostPort("far.example:8081", host), 8081);
  EXPECT_EQ(Text(host), "far.example");
  EXPECT_EQ(CHTTPRequest::SplitHostPort("far.example:70000", host), 70000 & 0xFFFF);
  EXPECT_EQ(CHTTPRequest::SplitHostPort("h:1:2", host), 1);
  EXPECT_EQ(Text(host), "h");
}

TEST(UrlParser, SplitsAnAbsoluteUrl) {
  CStringBuffer scheme, host, path;
  unsigned short port = 99;
  EXPECT_TRUE(CHTTPURLParser::ParseUrl("  http://user:pw@Host.example:8080/a/b?c#d", scheme, host,
                                       path, port));
  EXPECT_EQ(Text(scheme), "http");
  EXPECT_EQ(Text(host), "Host.example");
  EXPECT_EQ(port, 8080);
  EXPECT_EQ(Text(path), "/a/b?c#d");

  EXPECT_TRUE(CHTTPURLParser::ParseUrl("https://h", scheme, host, path, port));
  EXPECT_EQ(Text(host), "h");
  EXPECT_EQ(port, 0);
  EXPECT_EQ(Text(path), "/");
}

TEST(UrlParser, RejectsWhatIsNoAbsoluteUrl) {
  CStringBuffer scheme, host, path;
  unsigned short port = 0;
  EXPECT_FALSE(CHTTPURLParser::ParseUrl("/relative/path", scheme, host, path, port));
  EXPECT_EQ(Text(host), "");
  EXPECT_FALSE(CHTTPURLParser::ParseUrl("/p?u=http://x/", scheme, host, path, port));
  EXPECT_EQ(Text(host), "");
  EXPECT_FALSE(CHTTPURLParser::ParseUrl(nullptr, scheme, host, path, port));
}

// ------------------------------------------------------------ connecting --

class UpstreamConnect : public HttpTest {
 protected:
  bool ConnectTo(TestRequest& r, const char* host, unsigned short port) {
    r.connectHost_ = host;
    r.connectPort_ = port;
    return r.ConnectUpstream();
  }
};

TEST_F(UpstreamConnect, SameHostAndPortReuseTheConnection) {
  OriginServer origin;
  OriginServer other;
  ASSERT_TRUE(origin.IsRunning());
  TestRequest& r = MakeRequest();

  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  ASSERT_TRUE(origin.WaitForConnections(1, 2000));
  const SOCKET first = r.upstreamSocket_;
  EXPECT_EQ(Text(r.keptHost_), "127.0.0.1");
  EXPECT_EQ(r.keptPort_, origin.Port());

  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  EXPECT_EQ(r.upstreamSocket_, first);
  const std::string tag = Text(r.connectionTag_);
  const std::string target = "127.0.0.1:" + std::to_string(origin.Port());
  const std::string log = ProxyLog();
  EXPECT_NE(log.find(tag + "connecting to the host " + target + "\r\n"), std::string::npos);
  EXPECT_NE(log.find(tag + "Connected to " + target + "\r\n"), std::string::npos);
  EXPECT_NE(log.find(tag + "Trying to connect to the same host " + target + "\r\n"),
            std::string::npos);

  // Another host: the old connection is closed, a new one opened.
  ASSERT_TRUE(ConnectTo(r, "localhost", other.Port()));
  EXPECT_TRUE(origin.WaitForPeerClose(0, 2000));
  EXPECT_TRUE(other.WaitForConnections(1, 2000));
  EXPECT_EQ(origin.ConnectionCount(), 1);
  EXPECT_EQ(Text(r.keptHost_), "localhost");
}

TEST_F(UpstreamConnect, RequestsOnAKeptConnectionReachTheSameServerSocket) {
  OriginServer origin;
  TestRequest& r = MakeRequest();
  const std::string first = "GET /1 HTTP/1.1\r\nHost: o\r\n\r\n";
  const std::string second = "GET /2 HTTP/1.1\r\nHost: o\r\n\r\n";
  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  ASSERT_EQ(r.SendAll(r.upstreamSocket_, first.data(), static_cast<int>(first.size())),
            static_cast<int>(first.size()));
  ASSERT_EQ(r.ReadHeader(r.upstreamSocket_, false), 0);
  ASSERT_EQ(r.ForwardBody(r.upstreamSocket_, INVALID_SOCKET, r.contentLength_, nullptr), 5);
  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  ASSERT_EQ(r.SendAll(r.upstreamSocket_, second.data(), static_cast<int>(second.size())),
            static_cast<int>(second.size()));
  ASSERT_TRUE(origin.WaitForRequests(2, 2000));
  EXPECT_EQ(origin.ConnectionCount(), 1);
  EXPECT_EQ(origin.Received(0), first + second);
  EXPECT_GT(r.bytesFromUpstream_, 0);
}

TEST_F(UpstreamConnect, ServerThatClosedTheKeptConnectionGetsANewOne) {
  OriginServer origin([](const vxtest::OriginRequest&) { return OriginReply::Hangup(); });
  TestRequest& r = MakeRequest();
  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  const std::string request = "GET / HTTP/1.1\r\nHost: o\r\n\r\n";
  r.SendAll(r.upstreamSocket_, request.data(), static_cast<int>(request.size()));
  ASSERT_TRUE(origin.WaitForRequests(1, 2000));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(ConnectTo(r, "127.0.0.1", origin.Port()));
  EXPECT_TRUE(origin.WaitForConnections(2, 2000));
}

TEST_F(UpstreamConnect, RefusedConnectionIsLoggedAndClosed) {
  TestRequest& r = MakeRequest();
  unsigned short port = 0;
  {
    vxtest::LoopbackListener gone;  // a port that was free a moment ago
    port = gone.Port();
  }
  EXPECT_FALSE(ConnectTo(r, "127.0.0.1", port));
  EXPECT_EQ(r.upstreamSocket_, INVALID_SOCKET);
  EXPECT_NE(ProxyLog().find(Text(r.connectionTag_) + "Connect failed 127.0.0.1:" +
                            std::to_string(port) + "   "),
            std::string::npos);
}

TEST_F(UpstreamConnect, UnresolvableHostIsLogged) {
  TestRequest& r = MakeRequest();
  EXPECT_FALSE(ConnectTo(r, "no-such-host.invalid", 80));
  EXPECT_EQ(r.upstreamSocket_, INVALID_SOCKET);
  EXPECT_NE(ProxyLog().find(Text(r.connectionTag_) +
                            "Failed to resolve the host to IP no-such-host.invalid:80\r\n"),
            std::string::npos);
}
