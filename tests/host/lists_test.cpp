// "vxproxy lists" as a user runs it: the host program in its own process
// downloads from a real HTTP server on loopback and writes filters.txt.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "support/origin_server.h"
#include "support/process.h"
#include "support/raw_client.h"
#include "support/tempdir.h"
#include "support/wait.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;

namespace {

const std::string kProgram = std::string(VX_BINARY_DIR) + "/vxproxy";
const std::string kDate = "Tue, 05 Mar 2024 07:09:03 GMT";

// Runs the host program with no proxy from the environment in the way;
// returns stdout and stderr together.
std::string Vxproxy(const std::string& args, int* code, const std::string& environment = "") {
  int status = -1;
  const std::string output = vxtest::RunCommand(
      "env -u http_proxy -u HTTP_PROXY -u https_proxy -u HTTPS_PROXY -u all_proxy -u ALL_PROXY " +
          environment + " " + kProgram + " " + args + " 2>&1",
      &status);
  *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return output;
}

std::string Verdict(const std::string& filters, const std::string& url) {
  int code = -1;
  return Vxproxy("check --filters " + filters + " " + url, &code);
}

int CountRequests(const vxtest::OriginServer& origin, const std::string& target,
                  const std::string& field) {
  int count = 0;
  for (const OriginRequest& r : origin.Requests()) {
    count += r.target == target && r.header.find(field) != std::string::npos;
  }
  return count;
}

// Serves four lists: one without validators, one with an ETag, one with a
// Last-Modified date, one plain; each answers 304 to its own validator.
class ListsCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    origin_.SetScript([this](const OriginRequest& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (r.method == "HEAD") return OriginReply{"HTTP/1.1 200 OK\r\nContent-Length: 43\r\n\r\n"};
      if (r.target == "/easylist_general_block.txt") {
        return OriginReply::Counted(general_, "text/plain");
      }
      if (r.target == "/easylist_adservers.txt") {
        if (broken_) return *broken_;
        if (r.header.find("If-None-Match: " + adsTag_ + "\r\n") != std::string::npos) {
          return OriginReply::NoBody(304);
        }
        return OriginReply::Counted(ads_, "text/plain", 200, "ETag: " + adsTag_ + "\r\n");
      }
      if (r.target == "/easylist_adult/adult_adservers.txt") {
        if (r.header.find("If-Modified-Since: " + kDate + "\r\n") != std::string::npos) {
          return OriginReply::NoBody(304);
        }
        return OriginReply::Counted("\xEF\xBB\xBF||adult-ads.example^\n", "text/plain", 200,
                                    "Last-Modified: " + kDate + "\r\n");
      }
      if (r.target == "/easylist_thirdparty.txt") {
        return OriginReply::Counted("||third.example^\n! Checksum: abc\n", "text/plain");
      }
      return OriginReply::Counted("not here", "text/plain", 404);
    });
  }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(origin_.Port()) + path;
  }

  std::mutex mutex_;
  std::string general_ =
      "[Adblock Plus 2.0]\r\n! Version: 201101010000\r\n! Title: General\r\n/banner/\r\n"
      "! a comment\r\n-ad-sidebar.$image";
  std::string ads_ = "||ads.example^\n";
  std::string adsTag_ = "\"a1\"";
  std::optional<OriginReply> broken_;
  vxtest::OriginServer origin_;
  TempDir dir_;
};

TEST_F(ListsCommand, JoinsTheListsRevalidatesAndPicksUpAChange) {
  const std::string urls = Url("/easylist_general_block.txt") + " " +
                           Url("/easylist_adservers.txt") + " " +
                           Url("/easylist_adult/adult_adservers.txt") + " " +
                           Url("/easylist_thirdparty.txt");
  // Without --filters the folder follows XDG_DATA_HOME.
  int code = -1;
  std::string out =
      Vxproxy("lists update --timeout 10 " + urls, &code, "XDG_DATA_HOME=" + (dir_ / "xdg"));
  ASSERT_EQ(code, 0) << out;
  const std::string folder = dir_ / "xdg/vxproxy";
  const std::string filters = folder + "/filters.txt";
  const std::string joined = ReadTextFile(filters);
  ASSERT_EQ(joined.rfind("! Version: ", 0), 0u) << joined;
  EXPECT_EQ(joined.find("! Version:", 1), std::string::npos) << joined;
  // Each list follows its marker, without its own header, BOM, CRs or checksum.
  const std::size_t body = joined.find("! *** ");
  ASSERT_NE(body, std::string::npos) << joined;
  EXPECT_EQ(joined.substr(body),
            "! *** easylist:easylist/easylist_general_block.txt ***\n"
            "/banner/\n! a comment\n-ad-sidebar.$image\n"
            "! *** easylist:easylist/easylist_adservers.txt ***\n||ads.example^\n"
            "! *** easylist:easylist_adult/adult_adservers.txt ***\n||adult-ads.example^\n"
            "! *** easylist:easylist/easylist_thirdparty.txt ***\n||third.example^\n");
  EXPECT_NE(out.find("the running proxy picks this up"), std::string::npos) << out;
  EXPECT_EQ(CountRequests(origin_, "/easylist_adservers.txt", "User-Agent: vxproxy"), 1);
  // The loader finds the ad-server section by the markers.
  EXPECT_EQ(Verdict(filters, "http://ads.example/a.gif"), "300\n");
  EXPECT_EQ(Verdict(filters, "http://adult-ads.example/a.gif"), "300\n");
  EXPECT_EQ(Verdict(filters, "http://third.example/a.gif"), "500\n");
  EXPECT_EQ(Verdict(filters, "http://site.example/banner/a.gif"), "400\n");

  // Nothing changed: 304s for the lists with validators, and filters.txt is
  // not even rewritten (a running proxy would reload on a new time).
  const auto written = std::filesystem::last_write_time(filters);
  out = Vxproxy("lists update --timeout 10 --filters " + folder + " " + urls, &code);
  ASSERT_EQ(code, 0) << out;
  EXPECT_EQ(CountRequests(origin_, "/easylist_adservers.txt", "If-None-Match: \"a1\""), 1);
  EXPECT_EQ(CountRequests(origin_, "/easylist_adult/adult_adservers.txt",
                          "If-Modified-Since: " + kDate),
            1);
  EXPECT_NE(out.find("not modified"), std::string::npos) << out;
  EXPECT_NE(out.find("up to date"), std::string::npos) << out;
  EXPECT_EQ(ReadTextFile(filters), joined);
  EXPECT_EQ(std::filesystem::last_write_time(filters), written);

  out = Vxproxy("lists status --data " + folder, &code);
  ASSERT_EQ(code, 0) << out;
  for (const std::string& expected :
       {std::string("5 rules"), Url("/easylist_adult/adult_adservers.txt"), std::string("\"a1\""),
        kDate, std::string("lists        4")}) {
    EXPECT_NE(out.find(expected), std::string::npos) << expected << "\n" << out;
  }

  {
    std::lock_guard<std::mutex> lock(mutex_);
    ads_ = "||ads.example^\n||more-ads.example^\n";
    adsTag_ = "\"a2\"";
  }
  out = Vxproxy("lists update --timeout 10 --filters " + folder + " " + urls, &code);
  ASSERT_EQ(code, 0) << out;
  EXPECT_NE(ReadTextFile(filters).find("||ads.example^\n||more-ads.example^\n! *** "),
            std::string::npos);
  EXPECT_EQ(Verdict(filters, "http://more-ads.example/a.gif"), "300\n");
}

TEST_F(ListsCommand, ABrokenDownloadLeavesTheGoodListAndNamesTheUrl) {
  const std::string ads = Url("/easylist_adservers.txt");
  const std::string args =
      "lists update --filters " + dir_.str() + " " + Url("/easylist_general_block.txt") + " " + ads;
  int code = -1;
  std::string out = Vxproxy(args + " --timeout 10", &code);
  ASSERT_EQ(code, 0) << out;
  const std::string filters = dir_ / "filters.txt";
  const std::string good = ReadTextFile(filters);
  const auto written = std::filesystem::last_write_time(filters);

  struct Case {
    OriginReply reply;
    const char* says;
  };
  const Case cases[] = {
      {OriginReply{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n||half"}.ThenClose(), "partial"},
      {OriginReply{"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops"},
       "HTTP 500 Internal Server Error"},
      {OriginReply::Counted("", "text/plain"), "empty"},
      {OriginReply::Counted("<html>Sign in to the network</html>"), "HTML"},
      {OriginReply::Silent(), "Timeout"},
  };
  for (const Case& c : cases) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      broken_ = c.reply;
      ads_ = "||ads.example^\n||new-ads.example^\n";
      adsTag_ = "\"a2\"";
    }
    out = Vxproxy(args + " --timeout 1", &code);
    EXPECT_EQ(code, 1) << c.says << "\n" << out;
    EXPECT_NE(out.find("cannot download " + ads + ": "), std::string::npos) << out;
    EXPECT_NE(out.find(c.says), std::string::npos) << out;
    EXPECT_EQ(ReadTextFile(filters), good) << c.says;
    EXPECT_EQ(std::filesystem::last_write_time(filters), written) << c.says;
  }
  // The state still describes the list filters.txt holds.
  out = Vxproxy("lists status --filters " + dir_.str(), &code);
  EXPECT_NE(out.find("ETag \"a1\""), std::string::npos) << out;

  // Once the server mends, the next update goes through.
  {
    std::lock_guard<std::mutex> lock(mutex_);
    broken_.reset();
  }
  out = Vxproxy(args + " --timeout 10", &code);
  ASSERT_EQ(code, 0) << out;
  EXPECT_NE(ReadTextFile(filters).find("||new-ads.example^"), std::string::npos);

  // Bad usage leaves everything alone.
  for (const char* bad : {"lists", "lists update ftp://example.org/list.txt",
                          "lists update --timeout 0", "lists status http://example.org/list.txt"}) {
    Vxproxy(bad, &code);
    EXPECT_EQ(code, 2) << bad;
  }
  TempDir empty;
  EXPECT_NE(Vxproxy("lists status --filters " + empty.str(), &code).find("lists update"),
            std::string::npos);
  EXPECT_EQ(code, 1);
}

// A running proxy takes the new filters.txt by itself.
TEST_F(ListsCommand, ARunningProxyBlocksByTheNewList) {
  const std::string data = dir_ / "data";
  const std::string logs = dir_ / "logs";
  WriteTextFile(data + "/vexilo.ini", "[Vexilo]\nPort=0\n");
  const std::string update =
      "lists update --timeout 10 --filters " + data + " " + Url("/easylist_general_block.txt");
  int code = -1;
  std::string out = Vxproxy(update, &code);
  ASSERT_EQ(code, 0) << out;

  vxtest::ChildProcess proxy;
  ASSERT_TRUE(proxy.Start(kProgram, {"run", "--data", data, "--logs", logs}));
  const unsigned short port = vxtest::ReadListeningPort(proxy, 10000);
  ASSERT_NE(port, 0);
  // Whether the origin's answer (a 404 "not here") still comes through.
  const std::string host = "localhost:" + std::to_string(origin_.Port());
  const auto passes = [&] {
    vxtest::RawClient browser;
    return browser.Connect(port) &&
           browser.Send("GET http://" + host + "/promo/a.gif HTTP/1.1\r\nHost: " + host +
                        "\r\nConnection: close\r\n\r\n") &&
           browser.ReceiveResponse(10000).find("not here") != std::string::npos;
  };
  ASSERT_TRUE(passes());

  {
    std::lock_guard<std::mutex> lock(mutex_);
    general_ += "\r\n/promo/\r\n";
  }
  out = Vxproxy(update, &code);
  ASSERT_EQ(code, 0) << out;
  EXPECT_TRUE(vxtest::WaitUntil([&] { return !passes(); }, 10000));
  proxy.Interrupt();
  EXPECT_EQ(proxy.Wait(10000), 0);
  out = Vxproxy("lists status --filters " + data + " --logs " + logs, &code);
  EXPECT_NE(out.find("in use "), std::string::npos) << out;
}

}  // namespace
