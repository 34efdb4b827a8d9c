// The replies the proxy writes itself, and the replacement bodies they carry.
#include <cstring>
#include <string>

#include "http/internal.h"
#include "http_fixture.h"
#include "support/textmatch.h"

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
  return vxtest::RegexMatch(
      text, R"((Sun|Mon|Tue|Wed|Thu|Fri|Sat), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
            R"(\d{4} \d\d:\d\d:\d\d GMT)");
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
