// The replies the proxy writes itself, and the replacement bodies they carry.
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "http/internal.h"
#include "http_fixture.h"

namespace {

const std::string kGif(
    "\x47\x49\x46\x38\x39\x61\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xFF\xFF\xFF\x21\xF9"
    "\x04\x01\x00\x00\x00\x00\x2C\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x01\x44\x00\x3B",
    42);
const std::string kJs =
    "<script type=\"text/javascript\">\r\nfunction noErrorMessages () { return true; }\r\n"
    "window.onerror = noErrorMessages;\r\n</script>";

// The body registered under the resource name, straight from the table.
std::string Resource(const char* name) {
  std::size_t count = 0;
  const os::ResourceEntry* table = ReplacementResources(&count);
  for (std::size_t i = 0; i < count; ++i) {
    if (std::strcmp(table[i].name, name) == 0) {
      return std::string(reinterpret_cast<const char*>(table[i].data), table[i].size);
    }
  }
  return "";
}

// The reply as it must be, given the Date the builder used.
std::string Reply(const std::string& status, const std::string& type, const std::string& date,
                  const std::string& body) {
  std::string out = status;
  if (!type.empty()) out += "Content-Type: " + type + "\r\n";
  out += "Date: " + date +
         "\r\nExpires: Fri, 01 Jan 1990 00:00:00 GMT\r\nPragma: no-cache\r\n"
         "Cache-Control: no-cache, no-store, max-age=0, must-revalidate\r\nServer: Vexilo\r\n"
         "Content-Length: " + std::to_string(body.size()) + "\r\nAge: 0\r\n\r\n" + body;
  return out;
}

std::string DateOf(const std::string& reply) {
  const std::size_t start = reply.find("\r\nDate: ");
  const std::size_t end = reply.find("\r\n", start + 8);
  return start == std::string::npos || end == std::string::npos ? ""
                                                                 : reply.substr(start + 8, end - start - 8);
}

bool IsHttpDate(const std::string& text) {
  static const std::regex date(
      R"((Sun|Mon|Tue|Wed|Thu|Fri|Sat), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
      R"(\d{4} \d\d:\d\d:\d\d GMT)");
  return std::regex_match(text, date);
}

std::string Now() {
  CStringBuffer date;
  EXPECT_TRUE(CHTTPInternal::FormatHttpDate(date));
  EXPECT_TRUE(IsHttpDate(Text(date))) << Text(date);
  return Text(date);
}

}  // namespace

class InternalReply : public HttpTest {
 protected:
  // Builds the reply and checks every byte, with the Date the builder took
  // (it must be the current time).
  void ExpectReply(CHTTPRequest* request, const char* word, const std::string& status,
                   const std::string& type, const std::string& body) {
    const std::string before = Now();
    CStringBuffer out;
    ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(request, word, out));
    const std::string reply = Text(out);
    const std::string date = DateOf(reply);
    EXPECT_TRUE(date == before || date == Now()) << date;
    EXPECT_EQ(reply, Reply(status, type, date, body)) << (word ? word : "(null)");
  }
};

TEST_F(InternalReply, EachTypeWordGetsItsBodyAndCountsAsWhatItGets) {
  const std::string flv = Resource("DUMMY.FLV");
  ASSERT_EQ(flv.size(), 4476u);
  const struct {
    const char* word;
    const char* type;
    std::string body;
    int images, flash;  // how the counters move
  } cases[] = {
      {"css", "text/css", "p{}", 0, 0},
      {"js", "application/x-javascript", kJs, 0, 0},
      {"JS", "image/gif", kJs, 0, 0},  // the body is found in any case, the type only exactly
      {"htm", "text/html", "<HTML>\r\n</HTML>", 0, 0},
      {"xml", "text/xml", "<dummy>\r\n</dummy>", 0, 0},
      {"unknown", "", kGif, 1, 0},
      {"UNKNOWN", "", kGif, 1, 0},
      {nullptr, "", kGif, 1, 0},
      {"", "", kGif, 1, 0},
      {"jpg", "image/gif", kGif, 1, 0},
      {"swf", "image/gif", kGif, 1, 0},  // a Flash word without a body of its own
      {"flv", "video/x-flv", flv, 0, 1},
  };
  for (const auto& c : cases) {
    const int images = proxy_->GetBlockedImages();
    const int flash = proxy_->GetBlockedFlash();
    ExpectReply(nullptr, c.word, "HTTP/1.1 200 OK\r\n", c.type, c.body);
    EXPECT_EQ(proxy_->GetBlockedImages() - images, c.images) << (c.word ? c.word : "(null)");
    EXPECT_EQ(proxy_->GetBlockedFlash() - flash, c.flash) << (c.word ? c.word : "(null)");
  }
}

TEST_F(InternalReply, NotFoundWhenNotEvenTheImageExists) {
  static char elsewhere;
  // A handle under which nothing is registered.
  proxy_->SetInstanceHandle(reinterpret_cast<HMODULE>(&elsewhere));
  TestRequest& r = MakeRequest();
  for (const char* word : {"gif", "jpg", "css"}) {
    ExpectReply(&r, word, "HTTP/1.1 404 Not Found\r\n", "text/html", "");
  }
  EXPECT_NE(RequestLog().find("HTTP/1.1 404 Not Found\r\n"), std::string::npos);
}

TEST_F(InternalReply, RequestTraceGetsTheHeaderAndNotFoundOnlyWhenAsked) {
  TestRequest& r = MakeRequest();
  CStringBuffer reply, quiet, traced;
  ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(&r, "css", reply));
  const std::string header = Text(reply).substr(0, Text(reply).size() - 3);
  EXPECT_EQ(RequestLog(), header);
  CHTTPInternal::BuildNotFoundResponse(&r, quiet, false);
  EXPECT_EQ(RequestLog(), header);
  CHTTPInternal::BuildNotFoundResponse(&r, traced, true);
  EXPECT_EQ(RequestLog(), header + Text(traced));
}

// ------------------------------------------------------------ the video --

namespace {

std::uint32_t Be(const std::string& s, std::size_t at, int bytes) {
  std::uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
  return v;
}

struct FlvTag {
  int type;
  std::uint32_t size;
  std::uint32_t timeMs;
  std::string data;
};

// Walks an FLV file: header, then tag, previous-tag size, tag, ... to the
// last byte. Fails the test on any framing error.
std::vector<FlvTag> WalkFlv(const std::string& flv) {
  std::vector<FlvTag> tags;
  if (flv.compare(0, 13, std::string("FLV\x01\x05\0\0\0\x09\0\0\0\0", 13)) != 0) {
    ADD_FAILURE() << "no FLV header with audio, video and a zero first tag size";
    return tags;
  }
  std::size_t at = 13;
  while (at + 11 <= flv.size()) {
    FlvTag tag{static_cast<unsigned char>(flv[at]), Be(flv, at + 1, 3),
               Be(flv, at + 4, 3) | (Be(flv, at + 7, 1) << 24), ""};
    if (Be(flv, at + 8, 3) != 0 || at + 15 + tag.size > flv.size()) break;  // stream id 0
    if (Be(flv, at + 11 + tag.size, 4) != 11 + tag.size) break;             // previous-tag size
    tag.data = flv.substr(at + 11, tag.size);
    tags.push_back(tag);
    at += 15 + tag.size;
  }
  EXPECT_EQ(at, flv.size()) << "framing error after " << tags.size() << " tags";
  return tags;
}

// AMF0 values as the metadata tag stores them.
std::string Be32(std::uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}
std::string Name(const std::string& s) {
  return std::string{static_cast<char>(s.size() >> 8), static_cast<char>(s.size())} + s;
}
std::string Number(double d) {
  std::uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return '\0' + Be32(static_cast<std::uint32_t>(bits >> 32)) + Be32(static_cast<std::uint32_t>(bits));
}

}  // namespace

TEST(DummyVideo, SevenTagsWithMetadataAudioAndAKeyFrame) {
  const std::vector<FlvTag> tags = WalkFlv(Resource("DUMMY.FLV"));
  ASSERT_EQ(tags.size(), 7u);
  const struct {
    int type;
    std::uint32_t size;
    std::uint32_t timeMs;
  } expected[] = {{18, 245, 0}, {8, 105, 0}, {9, 3588, 0}, {8, 105, 26},
                  {8, 105, 52}, {8, 105, 78}, {8, 105, 104}};
  for (std::size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(tags[i].type, expected[i].type) << i;
    EXPECT_EQ(tags[i].size, expected[i].size) << i;
    EXPECT_EQ(tags[i].timeMs, expected[i].timeMs) << i;
    if (tags[i].type != 8) continue;
    // MP3 mono at 22 kHz; an MPEG audio frame header follows: 11 sync bits set.
    EXPECT_EQ(Be(tags[i].data, 0, 2), 0x2AFFu) << i;
    EXPECT_EQ(tags[i].data[2] & 0xE0, 0xE0) << i;
  }

  // The metadata: an ECMA array of ten entries.
  const std::string metadata =
      "\x02" + Name("onMetaData") + "\x08" + Be32(10) + Name("duration") + Number(0.07) +
      Name("width") + Number(420) + Name("height") + Number(314) + Name("videodatarate") +
      Number(360) + Name("canSeekToEnd") + std::string("\x01\x01", 2) + Name("videocodecid") +
      Number(2) + Name("audiodatarate") + Number(32) + Name("audiocodecid") + Number(2) +
      Name("framerate") + Number(30) + Name("creationdate") + "\x02" +
      Name("Tue Sep 26 10:24:07 2006 ") + Name("") + "\x09";
  EXPECT_EQ(tags[0].data, metadata);

  EXPECT_EQ(tags[2].data[0], 0x12);  // a key frame, Sorenson H.263
}
