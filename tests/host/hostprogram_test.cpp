// The host program as a user runs it: "vxproxy run" in its own process serves
// a browsing session, stops on Ctrl-C, and "vxproxy stats" then shows what
// was counted.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "support/wait.h"
#include "support/origin_server.h"
#include "support/process.h"
#include "support/raw_client.h"
#include "support/tempdir.h"

using vxtest::OriginReply;
using vxtest::OriginRequest;

namespace {

using vxtest::RunCommand;

constexpr int kWaitMs = 10000;

int CountHeads(const vxtest::OriginServer& origin) {
  int heads = 0;
  for (const OriginRequest& r : origin.Requests()) heads += r.method == "HEAD";
  return heads;
}

}  // namespace

TEST(HostProgram, RunCountsABrowsingSessionAndStatsShowsIt) {
  TempDir dir;
  WriteTextFile(dir / "data/filters.txt", "/banner/\n");
  WriteTextFile(dir / "data/vexilo.ini", "[Vexilo]\nPort=0\n");
  vxtest::OriginServer origin([](const OriginRequest& r) {
    if (r.method == "HEAD") {
      const char* size = r.target == "/banner/b.gif" ? "500" : "1000";
      return OriginReply{std::string("HTTP/1.1 200 OK\r\nContent-Length: ") + size + "\r\n\r\n"};
    }
    return OriginReply::Counted("hello");
  });

  vxtest::ChildProcess host;
  const std::string program = std::string(VX_BINARY_DIR) + "/vxproxy";
  ASSERT_TRUE(host.Start(program, {"run", "--data", (dir / "data"), "--logs",
                                   (dir / "logs")}));
  const unsigned short port = vxtest::ReadListeningPort(host, kWaitMs);
  ASSERT_NE(port, 0);

  // Sites are counted by host name; an address could not name an element.
  const std::string origin_host = "localhost:" + std::to_string(origin.Port());
  {
    vxtest::RawClient browser;
    ASSERT_TRUE(browser.Connect(port));
    for (const char* path : {"/banner/a.gif", "/page.html", "/banner/b.gif", "/banner/c.gif"}) {
      ASSERT_TRUE(browser.Send(std::string("GET http://") + origin_host + path +
                               " HTTP/1.1\r\nHost: " + origin_host + "\r\n\r\n"));
      ASSERT_FALSE(browser.ReceiveResponse(kWaitMs).empty()) << path;
    }
  }
  // One probe for each blocked item. (Repeated blocks of one item are the
  // prober's own tests: one that comes as its probe ends may be queued again,
  // and a stop drops what is still queued.)
  ASSERT_TRUE(vxtest::WaitUntil([&] { return CountHeads(origin) == 3; }, kWaitMs));
  // A probe closes its connection before it adds the size, and a stop lets the
  // probe in hand finish: once every connection is closed, nothing is lost.
  for (int c = 0; c < origin.ConnectionCount(); ++c) {
    ASSERT_TRUE(origin.WaitForPeerClose(c, kWaitMs)) << c;
  }

  host.Interrupt();
  ASSERT_EQ(host.Wait(kWaitMs), 0);

  int status = -1;
  const std::string json = RunCommand(program + " stats --json --data " + (dir / "data") +
                                          " --logs " + (dir / "logs"),
                                      &status);
  EXPECT_EQ(status, 0) << json;
  EXPECT_NE(json.find("\"requests\":4,\"blocked\":3,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"adSize\":2500,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"sites\":[{\"site\":\"localhost\",\"count\":3}]"), std::string::npos) << json;
  EXPECT_EQ(json.find("\"startTime\":0,"), std::string::npos) << json;

  const std::string text = RunCommand(program + " stats --data " + (dir / "data") +
                                          " --logs " + (dir / "logs"),
                                      &status);
  EXPECT_NE(text.find("2.4 KiB"), std::string::npos) << text;
}
