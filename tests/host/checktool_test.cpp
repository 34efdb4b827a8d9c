// The check command, single and batch, in this process and in the host program.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "checktool.h"
#include "platform/platform.h"
#include "support/process.h"
#include "support/tempdir.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kBatchSeconds = 120;  // timing means little under a sanitizer
#else
constexpr double kBatchSeconds = 5;  // about a second is the aim; this leaves room for a busy machine
#endif

int Check(std::vector<std::string> args, const std::string& input, std::string* out, std::string* err) {
  args.insert(args.begin(), "check");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  std::istringstream in(input);
  std::ostringstream o;
  std::ostringstream e;
  const int code = vxhost::RunCheck(static_cast<int>(argv.size()), argv.data(), in, o, e);
  *out = o.str();
  *err = e.str();
  return code;
}

TEST(CheckCommand, SingleAndBatch) {
  TempDir dir;
  const std::string f = dir / "filters.txt";
  const std::string a = dir / "vexilowl.txt";
  const std::string missing = dir / "missing.txt";
  WriteTextFile(f, "! *** easylist:easylist/easylist_adservers.txt ***\n||ads.example.com^\n"
                   "! *** easylist:easylist/easylist_thirdparty.txt ***\n"
                   "/banner/\n||cdn.example.net^$third-party\n@@/banner/ok$script\n");
  WriteTextFile(a, "@@||friend.example^\n");
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string out, err = "";
  };
  const Case cases[] = {
      {{"--filters", f, "http://user:pw@Ads.Example.com:8080/x/b.js?v=2#frag"}, 0, "300\n"},
      {{"http://ads.example.com/x.gif"}, 0, "100\n"},  // no list, no block
      {{"--filters", f, "http://site.example/banner/x.gif"}, 0, "400\n"},
      {{"--filters", f, "--type", "gif", "http://site.example/x.gif#/banner/"}, 0, "100\n"},
      {{"--filters", f, "--type", "gif", "http://ads.example.com?/x"}, 0, "300\n"},
      // The type word comes from the path: "php" and "unknown" are of no type.
      {{"--filters", f, "http://site.example/banner/x.php?a=b.gif"}, 0, "100\n"},
      {{"--filters", f, "--type", "gif", "http://site.example/banner/x.php"}, 0, "400\n"},
      {{"--filters", f, "http://site.example/banner/x"}, 0, "100\n"},
      {{"--filters", f, "http://site.example/banner/x.jpeg"}, 0, "400\n"},
      {{"--filters", f, "http://cdn.example.net/x.gif"}, 0, "100\n"},
      {{"--filters", f, "--referer", "http://news.example/", "http://cdn.example.net/x.gif"}, 0, "500\n"},
      {{"--filters", f, "http://site.example/banner/ok.gif"}, 0, "400\n"},
      {{"--filters", f, "--redirect", "http://site.example/banner/ok.gif"}, 0, "200\n"},
      {{"--filters", f, "--approved", a, "http://friend.example/banner/x.gif"}, 0, "200\n"},
      {{"--filters", f, "--approved", missing, "http://friend.example/banner/x.gif"}, 0, "400\n"},
      {{}, 2, "", "usage"},
      {{"--filters"}, 2, ""},
      {{"--batch"}, 2, ""},  // a batch needs a list
      {{"--filters", f, "--batch", "http://x/"}, 2, ""},
      {{"--bogus", "http://x/"}, 2, ""},
      {{"--filters", f, "x.gif"}, 2, ""},
      {{"--filters", f, "http:///x.gif"}, 2, ""},
      {{"--filters", f, "http://:80/x.gif"}, 2, ""},
      {{"--filters", missing, "http://x/"}, 1, "", "Failed to open filters file: " + missing + "\n"},
      {{"--filters", f, "--connect", "x.ads.example.com:443"}, 0,
       "block x.ads.example.com:443 (||ads.example.com^)\n"},
      {{"--filters", f, "--connect", "cdn.example.net"}, 0, "pass cdn.example.net (no ad-server rule)\n"},
      {{"--filters", f, "--approved", a, "--connect", "friend.example"}, 0,
       "pass friend.example (no ad-server rule)\n"},
      {{"--connect", "x", "http://x/"}, 2, ""},
      {{"--filters", f, "--connect"}, 2, ""},
  };
  std::string out;
  std::string err;
  for (const Case& c : cases) {
    EXPECT_EQ(Check(c.args, "", &out, &err), c.code) << ::testing::PrintToString(c.args);
    EXPECT_EQ(out, c.out) << ::testing::PrintToString(c.args);
    EXPECT_NE(err.find(c.err), std::string::npos) << err;
  }

  const std::string batch =
      "http://ads.example.com/x.gif\t\t\nhttp://site.example/banner/x\tgif\t\n"
      "http://cdn.example.net/x.gif\t\thttp://news.example/\nhttp://site.example/banner/ok.gif\t\t\t0\n"
      "not a url\n\nhttp://site.example/banner/ok.gif\tgif\t\t1\r\nhttp://friend.example/banner/x.gif";
  EXPECT_EQ(Check({"--filters", f, "--approved", a, "--batch"}, batch, &out, &err), 0);
  EXPECT_EQ(out, "300\n400\n500\n400\n100\n100\n200\n200\n");

  std::string many;
  std::string expected;
  for (int i = 0; i < 100000; ++i) {
    many += "http://host" + std::to_string(i % 977) + ".example/" + (i % 3 ? "banner/" : "") +
            std::to_string(i) + ".gif\t\thttp://page" + std::to_string(i % 13) + ".example/\n";
    expected += i % 3 ? "400\n" : "100\n";
  }
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(Check({"--filters", f, "--batch"}, many, &out, &err), 0);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(out == expected);
  EXPECT_LT(took.count(), kBatchSeconds);
}

// The host program's own "check" word, in a separate process.
TEST(CheckCommand, HostProgram) {
  const std::string program = VX_BINARY_DIR "/vxproxy";
  if (!os::FileExists(program.c_str())) GTEST_SKIP() << program << " is not built";
  TempDir dir;
  const std::string f = dir / "filters.txt";
  WriteTextFile(f, "||ads.example.com^\n/banner/\n");
  WriteTextFile(dir / "batch.tsv", "http://site.example/banner/x.gif\t\t\n");
  vxtest::ChildProcess child;
  const std::string script =
      "\"$0\" check --filters \"$1\" --type gif http://ads.example.com/x && "
      "\"$0\" check --filters \"$1\" --batch < \"$2\"";
  ASSERT_TRUE(child.Start("/bin/sh", {"-c", script, program, f, dir / "batch.tsv"}));
  EXPECT_EQ(child.ReadLine(10000), "500");
  EXPECT_EQ(child.ReadLine(10000), "400");
  EXPECT_EQ(child.Wait(10000), 0);
}

}  // namespace
