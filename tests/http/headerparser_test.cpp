// Finding a header's end in received bytes and parsing its fields, from byte
// strings.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "http/headerparser.h"

namespace {

std::string Text(const CBufStream& b) { return std::string(b.GetBuffer(), b.GetSize()); }

// Feeds the bytes in pieces of the given size, as receives would bring them;
// returns the last step, with tookStartLine counting the steps that said so.
HeaderScanStep Feed(CHeaderScanner& scanner, CBufStream& buffer, const std::string& bytes,
                    std::size_t piece, int* startLines = nullptr) {
  HeaderScanStep last;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    const std::string part = bytes.substr(at, piece);
    buffer.AddString(part.data(), static_cast<int>(part.size()));
    last = scanner.Scan(buffer);
    if (startLines != nullptr) *startLines += last.tookStartLine ? 1 : 0;
    if (last.status != HeaderStatus::kNeedMore) break;
  }
  return last;
}

// The word as the parser handed it to the type-word table.
const TypeWordNormalizer kMarkWord = [](CStringBuffer& word) {
  CStringBuffer marked("<");
  marked << word << ">";
  word = marked;
};

}  // namespace

TEST(HeaderScanner, FindsTheEndWhateverTheReceivesAndLeavesTheBody) {
  const std::string header =
      "GET http://h/a/b.gif?x=1 HTTP/1.1\r\nHost: h\r\nAccept: */*\r\n\r\n";
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{1024}}) {
    CHeaderScanner scanner(true);
    CBufStream buffer;
    int startLines = 0;
    const HeaderScanStep step = Feed(scanner, buffer, header + "BODY", piece, &startLines);
    ASSERT_EQ(step.status, HeaderStatus::kComplete) << piece;
    EXPECT_EQ(startLines, 1);
    EXPECT_EQ(scanner.HeaderSize(), static_cast<int>(header.size())) << piece;
    EXPECT_EQ(Text(buffer).substr(0, header.size()), header);  // nothing consumed
    EXPECT_EQ(Text(scanner.StartLine()), "GET http://h/a/b.gif?x=1 HTTP/1.1\r\n");
    EXPECT_EQ(Text(scanner.RequestLine()), "GET http://h/a/b.gif?x=1");
    EXPECT_FALSE(scanner.HasStatusCode());
  }
}

TEST(HeaderScanner, ResponseStartLines) {
  const struct {
    std::string bytes;
    const char* startLine;
    StartLineNote note;
    int status;  // 0: none stated
  } cases[] = {
      {"HTTP/1.0 304 No\r\n\r\n", "HTTP/1.0 304 No\r\n", StartLineNote::kNone, 304},
      {"http/1.1 404 x\r\n\r\n", "http/1.1 404 x\r\n", StartLineNote::kNone, 404},
      {"XYZ\r\n\r\n", "XYZ\r\n", StartLineNote::kNoVersion, 0},
      {"old tailHTTP/1.1 404 Not Found\r\n\r\n", "HTTP/1.1 404 Not Found\r\n",
       StartLineNote::kRemnant, 404},
      // A version further down is no status line.
      {"garbage\r\nVia: HTTP/1.1 p\r\n\r\n", "garbage\r\n", StartLineNote::kNoVersion, 0},
  };
  for (const auto& c : cases) {
    CHeaderScanner scanner(false);
    CBufStream buffer;
    const HeaderScanStep step = Feed(scanner, buffer, c.bytes, 1024);
    EXPECT_EQ(step.status, HeaderStatus::kComplete) << c.bytes;
    EXPECT_EQ(step.note, c.note) << c.bytes;
    EXPECT_EQ(Text(scanner.StartLine()), c.startLine) << c.bytes;
    EXPECT_EQ(scanner.HasStatusCode() ? scanner.StatusCode() : 0, c.status) << c.bytes;
    // Only a remnant is dropped, and the header is the rest.
    EXPECT_EQ(Text(buffer), c.bytes.substr(c.bytes.find(c.startLine))) << c.bytes;
    EXPECT_EQ(scanner.HeaderSize(), buffer.GetSize()) << c.bytes;
  }
}

TEST(HeaderScanner, HeaderBeyondTheLimitIsTooLarge) {
  std::string header = "GET / HTTP/1.1\r\n";
  header += "X: " + std::string(kMaxHeaderBytes - header.size() - 7, 'f') + "\r\n\r\n";
  ASSERT_EQ(header.size(), static_cast<std::size_t>(kMaxHeaderBytes));
  CHeaderScanner fits(true);
  CBufStream buffer;
  EXPECT_EQ(Feed(fits, buffer, header, 1024).status, HeaderStatus::kComplete);

  CHeaderScanner over(true);
  buffer.Empty();
  EXPECT_EQ(Feed(over, buffer, header.insert(20, "f"), 1024).status, HeaderStatus::kTooLarge);
}

TEST(HeaderFields, LinesKeptDroppedAndMapped) {
  HeaderFields f;
  std::map<std::string, std::string> map{{"stale", "x"}};
  ParseHeaderFields("User-Agent: test/1.0\r\nProxy-Connection: keep-alive\r\nAccept:text/html\r\n"
                    "Proxy-Authorization: Basic abc\r\nHost: h\r\n"
                    "Proxy-Destination: far.example:81\r\nX-Odd:   spaced   \r\n"
                    "Cookie: a=1\r\nCookie: b=2\r\nno colon here\r\n\r\nAfter: blank\r\n",
                    "127.0.0.1:8080", nullptr, f, &map);
  EXPECT_EQ(Text(f.otherLines),
            "User-Agent: test/1.0\r\nAccept:text/html\r\nHost: h\r\nX-Odd:   spaced\r\n"
            "Cookie: a=1\r\nCookie: b=2\r\nno colon here\r\n");
  EXPECT_EQ(Text(f.proxyConnectionLine), "Proxy-Connection: keep-alive\r\n");
  EXPECT_EQ(Text(f.proxyDestination), "far.example:81");
  EXPECT_EQ(map, (std::map<std::string, std::string>{
                     {"user-agent", "test/1.0"}, {"proxy-connection", "keep-alive"},
                     {"accept", "text/html"}, {"proxy-authorization", "Basic abc"}, {"host", "h"},
                     {"proxy-destination", "far.example:81"}, {"x-odd", "spaced"},
                     {"cookie", "b=2"}}));
  // A destination naming this proxy itself is ignored.
  ParseHeaderFields("Proxy-Destination: 127.0.0.1:8080\r\n", "127.0.0.1:8080", nullptr, f,
                    nullptr);
  EXPECT_EQ(Text(f.proxyDestination), "");
  EXPECT_EQ(Text(f.otherLines), "");
}

TEST(HeaderFields, LengthAndFlagsAreSetAfreshByEachHeader) {
  const struct {
    const char* lines;
    const char* others;
    int length;
    bool chunked, close;
  } cases[] = {
      {"content-length: 42\r\n", "content-length: 42\r\n", 42, false, false},
      // A blank before the colon makes no field name.
      {"Content-Length : 42\r\n", "Content-Length : 42\r\n", 0, false, false},
      {"Content-Length:99999999999\r\n", "Content-Length:99999999999\r\n", 0x7FFFFFFF, false,
       false},
      // A line after a trailing comma is folded in, handler and all; the next is a field again.
      {"Accept: a,\r\nContent-Length: 7\r\nContent-Length: 5\r\n",
       "Accept: a,\r\nContent-Length: 7\r\nContent-Length: 5\r\n", 5, false, false},
      {"Transfer-Encoding:  Chunked \r\nConnection: close\r\n",
       "Transfer-Encoding:  Chunked\r\nConnection: close\r\n", 0, true, true},
      {"Transfer-Encoding: gzip, chunked\r\nConnection: keep-alive\r\n",
       "Transfer-Encoding: gzip, chunked\r\nConnection: keep-alive\r\n", 0, false, false},
  };
  HeaderFields f;
  f.contentLength = 3;
  f.chunked = f.close = true;
  for (const auto& c : cases) {
    ParseHeaderFields(c.lines, "", nullptr, f, nullptr);
    EXPECT_EQ(Text(f.otherLines), c.others) << c.lines;
    EXPECT_EQ(f.contentLength, c.length) << c.lines;
    EXPECT_EQ(f.chunked, c.chunked) << c.lines;
    EXPECT_EQ(f.close, c.close) << c.lines;
  }
}

TEST(HeaderFields, TypeWordAndRefererKeepEarlierValuesUnlessNamed) {
  const struct {
    const char* lines;
    const char* wordBefore;
    const char* word;
    const char* referer;
  } cases[] = {
      {"Content-Type: text/html; charset=utf-8\r\n", "", "<html>", "before"},
      {"Content-Type: Image/JPEG\r\n", "", "<jpeg>", "before"},
      {"Content-Type:  , text/css ;q=1, image/png\r\n", "", "<css>", "before"},
      {"Content-Type: nonsense\r\n", "", "<>", "before"},
      // Every Content-Type line normalises again; only an empty word takes a new type.
      {"Content-Type: image/png\r\n", "gif", "<gif>", "before"},
      {"", "gif", "gif", "before"},
      {"Referer: http://ref.example:8080/page?q\r\n", "", "", "ref.example:8080"},
      {"Referer: https://ref.example:80/\r\n", "", "", "ref.example"},
      {"Referer:  http://user:pw@Ref.example:81/a#b\r\n", "", "", "Ref.example:81"},
      {"Referer: /p?u=http://x/\r\n", "", "", ""},
      {"Accept: a,\r\nReferer: http://b.example/\r\n", "", "", "before"},
  };
  for (const auto& c : cases) {
    HeaderFields f;
    f.responseTypeWord = c.wordBefore;
    f.refererHost = "before";
    ParseHeaderFields(c.lines, "", kMarkWord, f, nullptr);
    EXPECT_EQ(Text(f.responseTypeWord), c.word) << c.lines;
    EXPECT_EQ(Text(f.refererHost), c.referer) << c.lines;
  }
}

TEST(HeaderScanner, StrictScannerRefusesStrayLineEndsAtOnce) {
  const struct {
    std::string bytes;
    bool isRequest;
    const char* error;  // null: the header completes
    const char* startLine;
  } cases[] = {
      // Refused as soon as the offending byte is there, without waiting for an end.
      {"GET / HTTP/1.1\nHost: h\n", true, "LF without CR in the header", nullptr},
      {"GET / HTTP/1.1\r\nHost: h\rX: y\r\n\r\n", true, "CR without LF in the header", nullptr},
      {std::string("GET http://a.example\0.b/ HTTP/1.1\r\n", 36), true, "NUL in the header", nullptr},
      // Empty lines before a request are dropped; body bytes are not looked at.
      {std::string("\r\n\r\nGET / HTTP/1.1\r\nHost: h\r\n\r\nA\nB\0", 36), true, nullptr,
       "GET / HTTP/1.1\r\n"},
      {"HTTP/1.1 204\r\n\r\n", false, nullptr, "HTTP/1.1 204\r\n"},
      {"HTTP/1.0 599 Odd\r\n\r\n", false, nullptr, "HTTP/1.0 599 Odd\r\n"},
      {"XYZ\r\n\r\n", false, "malformed status line", nullptr},
      {"old tailHTTP/1.1 200 OK\r\n\r\n", false, "malformed status line", nullptr},
      {"HTTP/1.1 99 Low\r\n\r\n", false, "malformed status line", nullptr},
      {"HTTP/1.1 2000 OK\r\n\r\n", false, "malformed status line", nullptr},
      // The earliest fault is named, however the bytes arrive.
      {"XYZ\r\nServer: s\n\r\n", false, "malformed status line", nullptr},
  };
  for (const auto& c : cases) {
    for (std::size_t piece : {std::size_t{1}, std::size_t{1024}}) {
      CHeaderScanner scanner(c.isRequest, true);
      CBufStream buffer;
      const HeaderScanStep step = Feed(scanner, buffer, c.bytes, piece);
      if (c.error != nullptr) {
        EXPECT_EQ(step.status, HeaderStatus::kMalformed) << c.bytes << piece;
        EXPECT_STREQ(scanner.Error(), c.error) << c.bytes;
      } else {
        EXPECT_EQ(step.status, HeaderStatus::kComplete) << c.bytes << piece;
        EXPECT_EQ(Text(scanner.StartLine()), c.startLine);
        EXPECT_EQ(Text(buffer).substr(0, scanner.HeaderSize()).find(c.startLine), 0u);
      }
    }
  }
}

TEST(MessageFraming, EveryFieldLineCountsAndDoubtfulFramingIsAnError) {
  const struct {
    const char* lines;
    bool isRequest, http10;
    const char* error;
    long long length;  // -1: none
    bool chunked, untilClose, close, keepAlive;
  } cases[] = {
      {"Content-Length: 42\r\nContent-Length:42, 42\r\n", true, false, nullptr, 42, false, false,
       false, false},
      {"Content-Length: 9999999999\r\n", false, false, nullptr, 9999999999LL, false, false, false,
       false},
      // "Accept: a," no longer hides the line after it.
      {"Accept: a,\r\nContent-Length: 7\r\nContent-Length: 5\r\n", true, false,
       "conflicting Content-Length values", -1, false, false, false, false},
      {"Content-Length: -10\r\n", false, false, "invalid Content-Length", -1, false, false, false,
       false},
      {"Content-Length: +5\r\n", true, false, "invalid Content-Length", -1, false, false, false,
       false},
      {"Content-Length: 1234567890123456789\r\n", true, false, "invalid Content-Length", -1, false,
       false, false, false},
      {"Transfer-Encoding: gzip, chunked\r\nConnection: Keep-Alive, Upgrade\r\n", true, false,
       nullptr, -1, true, false, false, true},
      {"Transfer-Encoding: gzip\r\nTransfer-Encoding: CHUNKED\r\n", false, false, nullptr, -1, true,
       false, false, false},
      {"Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", true, false,
       "Content-Length together with Transfer-Encoding", -1, false, false, false, false},
      {"Transfer-Encoding: chunked, gzip\r\n", true, false, "Transfer-Encoding without chunked last",
       -1, false, false, false, false},
      {"Transfer-Encoding: chunked, gzip\r\n", false, false, nullptr, -1, false, true, false, false},
      {"Transfer-Encoding: chunked, chunked\r\n", false, false, "chunked coding applied twice", -1,
       false, false, false, false},
      {"Transfer-Encoding: chunked\r\n", true, true, "Transfer-Encoding in an HTTP/1.0 message", -1,
       false, false, false, false},
      {"Connection: keep-alive\r\nProxy-Connection: close\r\n", true, false, nullptr, -1, false,
       false, true, true},
      {"Host: a\r\nhost: b\r\n", true, false, "more than one Host field", -1, false, false, false,
       false},
      {"Content-Length : 42\r\n", true, false, "malformed header field name", -1, false, false,
       false, false},
      {"X: a\r\n folded\r\n", true, false, "folded header line", -1, false, false, false, false},
      {"no colon here\r\n", false, false, "header line without a colon", -1, false, false, false,
       false},
  };
  for (const auto& c : cases) {
    const MessageFraming f = ReadFraming(c.lines, c.isRequest, c.http10);
    EXPECT_STREQ(f.error, c.error) << c.lines;
    EXPECT_EQ(f.hasLength ? f.length : -1, c.length) << c.lines;
    EXPECT_EQ(f.chunked, c.chunked) << c.lines;
    EXPECT_EQ(f.untilClose, c.untilClose) << c.lines;
    EXPECT_EQ(f.close, c.close) << c.lines;
    EXPECT_EQ(f.keepAlive, c.keepAlive) << c.lines;
  }
}

TEST(StripHopByHop, FieldsOfOneConnectionStayBehind) {
  const std::string lines =
      "Host: h\r\nConnection: X-A, upgrade\r\nx-a: 1\r\nUpgrade: ws\r\nKeep-Alive: 5\r\nTE: t\r\n"
      "Proxy-Connection: X-B\r\nX-B: 2\r\nAccept: */*\r\n\r\nAfter: blank\r\n";
  ForwardedFields f = StripHopByHop(lines, {"host"});
  EXPECT_EQ(f.lines, "Upgrade: ws\r\nAccept: */*\r\n");
  EXPECT_TRUE(f.upgrade);
  f = StripHopByHop("Upgrade: ws\r\nX: 1\r\n", {""});
  EXPECT_EQ(f.lines, "X: 1\r\n");
  EXPECT_FALSE(f.upgrade);
}
