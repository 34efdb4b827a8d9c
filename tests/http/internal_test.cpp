// The replies the proxy writes itself, and the replacement bodies they carry.
#include <cstdint>
#include <cstring>
#include <map>
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

const char kCacheFields[] =
    "Pragma: no-cache\r\nCache-Control: no-cache, no-store, max-age=0, must-revalidate\r\n"
    "Server: Vexilo\r\n";

// The reply as it must be, given the Date the builder used.
std::string Reply(const std::string& status, const std::string& type, const std::string& date,
                  const std::string& body) {
  std::string out = status;
  if (!type.empty()) out += "Content-Type: " + type + "\r\n";
  out += "Date: " + date + "\r\nExpires: Fri, 01 Jan 1990 00:00:00 GMT\r\n" + kCacheFields +
         "Content-Length: " + std::to_string(body.size()) + "\r\nAge: 0\r\n\r\n" + body;
  return out;
}

std::string DateOf(const std::string& reply) {
  const std::size_t start = reply.find("\r\nDate: ");
  if (start == std::string::npos) return "";
  const std::size_t end = reply.find("\r\n", start + 8);
  return end == std::string::npos ? "" : reply.substr(start + 8, end - start - 8);
}

std::string BodyOf(const std::string& reply) {
  const std::size_t end = reply.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : reply.substr(end + 4);
}

// "Www, DD Mmm YYYY hh:mm:ss GMT"
bool IsHttpDate(const std::string& text) {
  static const std::string days = "Sun Mon Tue Wed Thu Fri Sat ";
  static const std::string months = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec ";
  const std::string shape = "www, 99 mmm 9999 99:99:99 GMT";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[i];
    if (shape[i] == '9' && (c < '0' || c > '9')) return false;
    if (shape[i] != '9' && shape[i] != 'w' && shape[i] != 'm' && c != shape[i]) return false;
  }
  const std::size_t day = days.find(text.substr(0, 3) + " ");
  const std::size_t month = months.find(text.substr(8, 3) + " ");
  return day != std::string::npos && day % 4 == 0 && month != std::string::npos && month % 4 == 0;
}

std::string Now() {
  CStringBuffer date;
  CHTTPInternal::FormatHttpDate(date);
  return Text(date);
}

}  // namespace

class InternalReply : public HttpTest {
 protected:
  // Builds the reply and checks it against the expected bytes, with the
  // Date the builder took (it must be the current time).
  void ExpectReply(CHTTPRequest* request, const char* word, const std::string& type,
                   const std::string& body) {
    const std::string before = Now();
    CStringBuffer out;
    ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(request, word, out));
    const std::string after = Now();
    const std::string reply = Text(out);
    const std::string date = DateOf(reply);
    EXPECT_TRUE(date == before || date == after) << date;
    EXPECT_EQ(reply, Reply("HTTP/1.1 200 OK\r\n", type, date, body)) << (word ? word : "(null)");
  }
};

TEST_F(InternalReply, StyleSheet) { ExpectReply(nullptr, "css", "text/css", "p{}"); }

TEST_F(InternalReply, ScriptBodyIsFoundWhateverTheCaseOfTheWord) {
  ExpectReply(nullptr, "js", "application/x-javascript", kJs);
  CStringBuffer upper;
  ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(nullptr, "JS", upper));
  EXPECT_EQ(BodyOf(Text(upper)), kJs);
  EXPECT_NE(Text(upper).find(std::string("Content-Type: ") + proxy_->GetMimeType("JS") + "\r\n"),
            std::string::npos);
}

TEST_F(InternalReply, PageAndXmlBodies) {
  ExpectReply(nullptr, "htm", "text/html", "<HTML>\r\n</HTML>");
  ExpectReply(nullptr, "xml", "text/xml", "<dummy>\r\n</dummy>");
}

TEST_F(InternalReply, UnknownWordGetsTheImageWithoutType) {
  const int images = proxy_->GetBlockedImages();
  ExpectReply(nullptr, "unknown", "", kGif);
  ExpectReply(nullptr, "UNKNOWN", "", kGif);
  EXPECT_EQ(proxy_->GetBlockedImages(), images + 2);
}

TEST_F(InternalReply, MissingWordGetsTheImageWithoutType) {
  ExpectReply(nullptr, nullptr, "", kGif);
  ExpectReply(nullptr, "", "", kGif);
}

TEST_F(InternalReply, WordWithoutBodyFallsBackToTheImage) {
  const int images = proxy_->GetBlockedImages();
  const int flash = proxy_->GetBlockedFlash();
  ExpectReply(nullptr, "jpg", "image/gif", kGif);
  // A Flash word without a body of its own is counted as the image it gets.
  ExpectReply(nullptr, "swf", "image/gif", kGif);
  EXPECT_EQ(proxy_->GetBlockedImages(), images + 2);
  EXPECT_EQ(proxy_->GetBlockedFlash(), flash);
}

TEST_F(InternalReply, VideoIsCountedAsFlash) {
  const int images = proxy_->GetBlockedImages();
  const int flash = proxy_->GetBlockedFlash();
  CStringBuffer out;
  ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(nullptr, "flv", out));
  EXPECT_EQ(BodyOf(Text(out)).size(), 4476u);
  EXPECT_NE(Text(out).find("Content-Type: video/x-flv\r\n"), std::string::npos);
  EXPECT_EQ(proxy_->GetBlockedFlash(), flash + 1);
  EXPECT_EQ(proxy_->GetBlockedImages(), images);
}

TEST_F(InternalReply, PagesAreNotCounted) {
  const int images = proxy_->GetBlockedImages();
  const int flash = proxy_->GetBlockedFlash();
  CStringBuffer out;
  CHTTPInternal::BuildReplacementResponse(nullptr, "htm", out);
  CHTTPInternal::BuildReplacementResponse(nullptr, "js", out);
  EXPECT_EQ(proxy_->GetBlockedImages(), images);
  EXPECT_EQ(proxy_->GetBlockedFlash(), flash);
}

TEST_F(InternalReply, NotFoundWhenNotEvenTheImageExists) {
  static char elsewhere;
  // A handle under which nothing is registered.
  proxy_->SetInstanceHandle(reinterpret_cast<HMODULE>(&elsewhere));
  TestRequest& r = MakeRequest();
  for (const char* word : {"gif", "jpg", "css"}) {
    const std::string before = Now();
    CStringBuffer out;
    ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(&r, word, out));
    const std::string reply = Text(out);
    const std::string date = DateOf(reply);
    EXPECT_TRUE(date == before || date == Now());
    EXPECT_EQ(reply, Reply("HTTP/1.1 404 Not Found\r\n", "text/html", date, "")) << word;
  }
  EXPECT_NE(RequestLog().find("HTTP/1.1 404 Not Found\r\n"), std::string::npos);
}

TEST_F(InternalReply, RequestTraceGetsTheHeaderOnly) {
  TestRequest& r = MakeRequest();
  CStringBuffer out;
  ASSERT_TRUE(CHTTPInternal::BuildReplacementResponse(&r, "css", out));
  const std::string reply = Text(out);
  EXPECT_EQ(RequestLog(), reply.substr(0, reply.size() - 3));
}

TEST_F(InternalReply, NotFoundIsTracedOnlyWhenAsked) {
  TestRequest& r = MakeRequest();
  CStringBuffer out;
  CHTTPInternal::BuildNotFoundResponse(&r, out, false);
  EXPECT_EQ(RequestLog(), "");
  CHTTPInternal::BuildNotFoundResponse(&r, out, true);
  EXPECT_EQ(RequestLog(), Text(out));
}

TEST(HttpDate, HasTheFixedFormat) {
  CStringBuffer date;
  ASSERT_TRUE(CHTTPInternal::FormatHttpDate(date));
  EXPECT_TRUE(IsHttpDate(Text(date))) << Text(date);
  CStringBuffer a, b;
  CHTTPInternal::MakeReplyDates(a, b);
  EXPECT_TRUE(IsHttpDate(Text(a)));
  EXPECT_TRUE(IsHttpDate(Text(b)));
}

// --------------------------------------------------------------- bodies --

using ReplacementBodies = HttpTest;

TEST_F(ReplacementBodies, LoadAppendsTheResourceBytes) {
  CBufStream out;
  out.AddString("pre", 3);
  ASSERT_TRUE(CHTTPInternal::LoadReplacementBody("gif", out));
  EXPECT_EQ(Text(out), "pre" + kGif);
  CBufStream none;
  EXPECT_FALSE(CHTTPInternal::LoadReplacementBody("png", none));
  EXPECT_FALSE(CHTTPInternal::LoadReplacementBody(nullptr, none));
  EXPECT_EQ(none.GetSize(), 0);
}

TEST(ResourceTable, HoldsTheSixBodiesUnderTheirTypes) {
  std::size_t count = 0;
  const os::ResourceEntry* table = ReplacementResources(&count);
  ASSERT_EQ(count, 6u);
  std::map<std::string, std::string> bodies;
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ(std::string("DUMMY.") + table[i].type, table[i].name);
    bodies[table[i].name] =
        std::string(reinterpret_cast<const char*>(table[i].data), table[i].size);
  }
  EXPECT_EQ(bodies["DUMMY.GIF"], kGif);
  EXPECT_EQ(bodies["DUMMY.HTM"], "<HTML>\r\n</HTML>");
  EXPECT_EQ(bodies["DUMMY.JS"], kJs);
  EXPECT_EQ(bodies["DUMMY.JS"].size(), 123u);
  EXPECT_EQ(bodies["DUMMY.CSS"], "p{}");
  EXPECT_EQ(bodies["DUMMY.XML"], "<dummy>\r\n</dummy>");
  EXPECT_EQ(bodies["DUMMY.FLV"].size(), 4476u);
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
  EXPECT_GE(flv.size(), 13u);
  if (flv.size() < 13) return tags;
  EXPECT_EQ(flv.substr(0, 3), "FLV");
  EXPECT_EQ(flv[3], 1);
  EXPECT_EQ(flv[4], 5);
  EXPECT_EQ(Be(flv, 5, 4), 9u);
  EXPECT_EQ(Be(flv, 9, 4), 0u);
  std::size_t at = 13;
  while (at < flv.size()) {
    EXPECT_LE(at + 11, flv.size());
    if (at + 11 > flv.size()) break;
    FlvTag tag;
    tag.type = static_cast<unsigned char>(flv[at]);
    tag.size = Be(flv, at + 1, 3);
    tag.timeMs = Be(flv, at + 4, 3) | (Be(flv, at + 7, 1) << 24);
    EXPECT_EQ(Be(flv, at + 8, 3), 0u) << "stream id";
    EXPECT_LE(at + 11 + tag.size + 4, flv.size());
    if (at + 11 + tag.size + 4 > flv.size()) break;
    tag.data = flv.substr(at + 11, tag.size);
    EXPECT_EQ(Be(flv, at + 11 + tag.size, 4), 11 + tag.size) << "previous-tag size";
    at += 11 + tag.size + 4;
    tags.push_back(tag);
  }
  EXPECT_EQ(at, flv.size());
  return tags;
}

// A minimal AMF0 reader for the metadata tag.
class Amf {
 public:
  explicit Amf(const std::string& data) : d_(data) {}
  bool AtEnd() const { return at_ >= d_.size(); }
  std::size_t Position() const { return at_; }
  int Byte() { return static_cast<unsigned char>(d_.at(at_++)); }
  std::string ShortString() {
    const std::uint32_t n = Be(d_, at_, 2);
    at_ += 2;
    std::string s = d_.substr(at_, n);
    at_ += n;
    return s;
  }
  double Number() {
    std::uint64_t bits = (static_cast<std::uint64_t>(Be(d_, at_, 4)) << 32) | Be(d_, at_ + 4, 4);
    at_ += 8;
    double v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }
  std::uint32_t U32() {
    const std::uint32_t v = Be(d_, at_, 4);
    at_ += 4;
    return v;
  }

 private:
  const std::string& d_;
  std::size_t at_ = 0;
};

// Reads `count` bits, most significant first.
class Bits {
 public:
  explicit Bits(const std::string& data, std::size_t startByte) : d_(data), bit_(startByte * 8) {}
  std::uint32_t Read(int count) {
    std::uint32_t v = 0;
    for (int i = 0; i < count; ++i, ++bit_) {
      v = (v << 1) | ((static_cast<unsigned char>(d_[bit_ / 8]) >> (7 - bit_ % 8)) & 1u);
    }
    return v;
  }

 private:
  const std::string& d_;
  std::size_t bit_;
};

std::string FlvBody() {
  std::size_t count = 0;
  const os::ResourceEntry* table = ReplacementResources(&count);
  for (std::size_t i = 0; i < count; ++i) {
    if (std::strcmp(table[i].name, "DUMMY.FLV") == 0) {
      return std::string(reinterpret_cast<const char*>(table[i].data), table[i].size);
    }
  }
  return "";
}

}  // namespace

TEST(DummyVideo, HasTheHeaderAndTheSevenTags) {
  const std::vector<FlvTag> tags = WalkFlv(FlvBody());
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
  }
  for (std::size_t i : {1u, 3u, 4u, 5u, 6u}) {
    const std::string& a = tags[i].data;
    EXPECT_EQ(static_cast<unsigned char>(a[0]), 0x2A) << i;
    // An MPEG audio frame header follows: 11 sync bits set.
    EXPECT_EQ(static_cast<unsigned char>(a[1]), 0xFF);
    EXPECT_EQ(static_cast<unsigned char>(a[2]) & 0xE0, 0xE0);
  }
}

TEST(DummyVideo, MetadataIsAnArrayOfTenEntries) {
  const std::vector<FlvTag> tags = WalkFlv(FlvBody());
  ASSERT_FALSE(tags.empty());
  Amf amf(tags[0].data);
  ASSERT_EQ(amf.Byte(), 0x02);
  EXPECT_EQ(amf.ShortString(), "onMetaData");
  ASSERT_EQ(amf.Byte(), 0x08);
  EXPECT_EQ(amf.U32(), 10u);
  std::vector<std::string> names;
  std::map<std::string, double> numbers;
  std::map<std::string, bool> flags;
  std::map<std::string, std::string> texts;
  for (;;) {
    const std::string name = amf.ShortString();
    const int type = amf.Byte();
    if (name.empty()) {
      EXPECT_EQ(type, 0x09);  // object end
      break;
    }
    names.push_back(name);
    if (type == 0x00) {
      numbers[name] = amf.Number();
    } else if (type == 0x01) {
      flags[name] = amf.Byte() != 0;
    } else if (type == 0x02) {
      texts[name] = amf.ShortString();
    } else {
      ADD_FAILURE() << "unexpected AMF type " << type;
      break;
    }
  }
  EXPECT_TRUE(amf.AtEnd());
  EXPECT_EQ(names, (std::vector<std::string>{"duration", "width", "height", "videodatarate",
                                             "canSeekToEnd", "videocodecid", "audiodatarate",
                                             "audiocodecid", "framerate", "creationdate"}));
  EXPECT_EQ(numbers["duration"], 0.07);
  EXPECT_EQ(numbers["width"], 420);
  EXPECT_EQ(numbers["height"], 314);
  EXPECT_EQ(numbers["videodatarate"], 360);
  EXPECT_EQ(numbers["videocodecid"], 2);
  EXPECT_EQ(numbers["audiodatarate"], 32);
  EXPECT_EQ(numbers["audiocodecid"], 2);
  EXPECT_EQ(numbers["framerate"], 30);
  EXPECT_TRUE(flags["canSeekToEnd"]);
  EXPECT_EQ(texts["creationdate"], "Tue Sep 26 10:24:07 2006 ");
}

TEST(DummyVideo, KeyFrameHeaderMatchesTheMetadata) {
  const std::vector<FlvTag> tags = WalkFlv(FlvBody());
  ASSERT_GE(tags.size(), 3u);
  const std::string& video = tags[2].data;
  EXPECT_EQ(static_cast<unsigned char>(video[0]), 0x12);  // key frame, Sorenson H.263
  Bits bits(video, 1);
  EXPECT_EQ(bits.Read(17), 1u);  // picture start code
  bits.Read(5);                  // version
  bits.Read(8);                  // temporal reference
  EXPECT_EQ(bits.Read(3), 1u);   // 16-bit size fields
  EXPECT_EQ(bits.Read(16), 420u);
  EXPECT_EQ(bits.Read(16), 314u);
  EXPECT_EQ(bits.Read(2), 0u);   // intra picture
}
