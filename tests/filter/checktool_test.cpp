// The check command: URL splitting, the single and batch forms, and the host
// program that runs it.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "filter/checktool.h"
#include "platform/platform.h"
#include "support/process.h"
#include "support/tempdir.h"

namespace {

struct Split {
  bool ok;
  std::string host, target, path;
};

Split SplitUrl(const std::string& url) {
  Split s;
  s.ok = vxfilter::SplitCheckUrl(url, &s.host, &s.target, &s.path);
  return s;
}

TEST(CheckUrl, HostTargetAndPath) {
  Split s = SplitUrl("http://user:pw@Ads.Example.com:8080/x/b.js?v=2#frag");
  ASSERT_TRUE(s.ok);
  EXPECT_EQ(s.host, "Ads.Example.com");
  EXPECT_EQ(s.target, "/x/b.js?v=2");
  EXPECT_EQ(s.path, "/x/b.js");
  s = SplitUrl("https://h");
  ASSERT_TRUE(s.ok);
  EXPECT_EQ(s.host, "h");
  EXPECT_EQ(s.target, "/");
  s = SplitUrl("http://h?q=1/2");
  ASSERT_TRUE(s.ok);
  EXPECT_EQ(s.host, "h");
  EXPECT_EQ(s.target, "/?q=1/2");
  EXPECT_EQ(s.path, "/");
  EXPECT_FALSE(SplitUrl("h/x.gif").ok);
  EXPECT_FALSE(SplitUrl("http:///x.gif").ok);
  EXPECT_FALSE(SplitUrl("http://:80/x.gif").ok);
}

class CheckCommand : public ::testing::Test {
 protected:
  CheckCommand() {
    WriteTextFile(filters_, "! *** easylist:easylist/easylist_adservers.txt ***\n||ads.example.com^\n"
                            "! *** easylist:easylist/easylist_thirdparty.txt ***\n"
                            "/banner/\n||cdn.example.net^$third-party\n@@/banner/ok$script\n");
    WriteTextFile(approved_, "@@||friend.example^\n");
  }

  int Run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "check");
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    std::istringstream in(input);
    out_.str("");
    err_.str("");
    return vxfilter::RunCheck(static_cast<int>(argv.size()), argv.data(), in, out_, err_);
  }

  TempDir dir_;
  const std::string filters_ = dir_ / "filters.txt";
  const std::string approved_ = dir_ / "vexilowl.txt";
  std::ostringstream out_;
  std::ostringstream err_;
};

TEST_F(CheckCommand, SingleUrl) {
  EXPECT_EQ(Run({"--filters", filters_, "http://ads.example.com/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "300\n");
  EXPECT_EQ(Run({"--filters", filters_, "http://site.example/banner/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "400\n");
  // Without a list nothing is blocked.
  EXPECT_EQ(Run({"http://ads.example.com/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "100\n");
}

TEST_F(CheckCommand, TypeWordComesFromThePathUnlessGiven) {
  // "php" is of no type, so the generic rule does not apply.
  EXPECT_EQ(Run({"--filters", filters_, "http://site.example/banner/x.php?a=b.gif"}), 0);
  EXPECT_EQ(out_.str(), "100\n");
  EXPECT_EQ(Run({"--filters", filters_, "--type", "gif", "http://site.example/banner/x.php"}), 0);
  EXPECT_EQ(out_.str(), "400\n");
  // A path without an extension has the word "unknown".
  EXPECT_EQ(Run({"--filters", filters_, "http://site.example/banner/x"}), 0);
  EXPECT_EQ(out_.str(), "100\n");
  EXPECT_EQ(Run({"--filters", filters_, "http://site.example/banner/x.jpeg"}), 0);
  EXPECT_EQ(out_.str(), "400\n");
}

TEST_F(CheckCommand, RefererRedirectAndApprovedList) {
  EXPECT_EQ(Run({"--filters", filters_, "http://cdn.example.net/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "100\n");
  EXPECT_EQ(Run({"--filters", filters_, "--referer", "http://news.example/", "http://cdn.example.net/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "500\n");
  EXPECT_EQ(Run({"--filters", filters_, "http://site.example/banner/ok.gif"}), 0);
  EXPECT_EQ(out_.str(), "400\n");
  EXPECT_EQ(Run({"--filters", filters_, "--redirect", "http://site.example/banner/ok.gif"}), 0);
  EXPECT_EQ(out_.str(), "200\n");
  EXPECT_EQ(Run({"--filters", filters_, "--approved", approved_, "http://friend.example/banner/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "200\n");
  // A missing approved list is an empty one.
  EXPECT_EQ(Run({"--filters", filters_, "--approved", dir_ / "none.txt", "http://friend.example/banner/x.gif"}), 0);
  EXPECT_EQ(out_.str(), "400\n");
}

TEST_F(CheckCommand, BatchAnswersEveryLineInOrder) {
  const std::string input =
      "http://ads.example.com/x.gif\t\t\n"
      "http://site.example/banner/x\tgif\t\n"
      "http://cdn.example.net/x.gif\t\thttp://news.example/\n"
      "http://site.example/banner/ok.gif\t\t\t1\n"
      "not a url\n"
      "\n"
      "http://site.example/banner/ok.gif\tgif\t\t0\r\n"
      "http://friend.example/banner/x.gif";
  EXPECT_EQ(Run({"--filters", filters_, "--approved", approved_, "--batch"}, input), 0);
  EXPECT_EQ(out_.str(), "300\n400\n500\n200\n100\n100\n400\n200\n");
}

TEST_F(CheckCommand, Failures) {
  EXPECT_EQ(Run({}), 2);
  EXPECT_NE(err_.str().find("usage"), std::string::npos);
  EXPECT_EQ(Run({"--filters"}), 2);
  EXPECT_EQ(Run({"--batch"}), 2);  // a batch needs a list
  EXPECT_EQ(Run({"--filters", filters_, "--batch", "http://x/"}), 2);
  EXPECT_EQ(Run({"--bogus", "http://x/"}), 2);
  EXPECT_EQ(Run({"--filters", filters_, "x.gif"}), 2);
  EXPECT_EQ(out_.str(), "");
  const std::string missing = dir_ / "missing.txt";
  EXPECT_EQ(Run({"--filters", missing, "http://x/"}), 1);
  EXPECT_EQ(err_.str(), "Failed to open filters file: " + missing + "\n");
}

TEST_F(CheckCommand, BatchKeepsUpWithManyLines) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "timing is meaningless under a sanitizer";
#endif
  std::string input;
  for (int i = 0; i < 100000; ++i) {
    input += "http://host" + std::to_string(i % 977) + ".example/banner/" + std::to_string(i) +
             ".gif\t\thttp://page" + std::to_string(i % 13) + ".example/\n";
  }
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(Run({"--filters", filters_, "--batch"}, input), 0);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string out = out_.str();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 100000);
  // About a second is the aim; the bound leaves room for a busy machine.
  EXPECT_LT(seconds, 5.0);
}

// The host program's own "check" word, run as a separate process.
TEST_F(CheckCommand, HostProgram) {
  const std::string program = VX_BINARY_DIR "/vxproxy";
  if (!os::FileExists(program.c_str())) GTEST_SKIP() << program << " is not built";
  vxtest::ChildProcess single;
  ASSERT_TRUE(single.Start(program, {"check", "--filters", filters_, "--type", "gif",
                                     "http://ads.example.com/x"}));
  EXPECT_EQ(single.ReadLine(10000), "300");
  EXPECT_EQ(single.Wait(10000), 0);

  const std::string batch = dir_ / "batch.tsv";
  WriteTextFile(batch, "http://ads.example.com/x.gif\t\t\nhttp://site.example/banner/x.gif\t\t\n");
  vxtest::ChildProcess shell;
  ASSERT_TRUE(shell.Start("/bin/sh", {"-c", "\"$0\" check --filters \"$1\" --batch < \"$2\"", program,
                                      filters_, batch}));
  EXPECT_EQ(shell.ReadLine(10000), "300");
  EXPECT_EQ(shell.ReadLine(10000), "400");
  EXPECT_EQ(shell.Wait(10000), 0);
}

}  // namespace
