// The host program as a user meets it, each command in its own process with
// the XDG folders (and HOME) pointed into a fresh temporary folder: the first
// run with no options, the approved list commands, the files for browsers and
// systemd, and the help and the messages for bad usage.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/origin_server.h"
#include "support/process.h"
#include "support/raw_client.h"
#include "support/tempdir.h"
#include "support/wait.h"

namespace {

constexpr int kWaitMs = 10000;
const std::string kProgram = VX_BINARY_DIR "/vxproxy";
const char* const kCommands[] = {"run",     "check", "stats",           "allow", "disallow",
                                 "allowed", "pac",   "install-service", "lists", "help"};

struct Outcome {
  int code = -1;
  std::string output;  // standard output and errors together
};

class HostCommands : public ::testing::Test {
 protected:
  // The environment that points every default folder into dir_.
  std::vector<std::string> Environment() const {
    return {"HOME=" + (dir_ / "home"), "XDG_DATA_HOME=" + (dir_ / "share"),
            "XDG_STATE_HOME=" + (dir_ / "state"), "XDG_CONFIG_HOME=" + (dir_ / "config")};
  }

  // Runs "vxproxy ARGS" through the shell; arguments are quoted by the caller.
  Outcome Vx(const std::string& args) const {
    std::string command = "env";
    for (const std::string& setting : Environment()) command += " '" + setting + "'";
    command += " '" + kProgram + "' " + args + " 2>&1; echo \"[exit $?]\"";
    Outcome outcome;
    outcome.output = vxtest::RunCommand(command);
    const std::size_t mark = outcome.output.rfind("[exit ");
    if (mark != std::string::npos) {
      outcome.code = std::stoi(outcome.output.substr(mark + 6));
      outcome.output.erase(mark);
    }
    return outcome;
  }

  // Starts "vxproxy ARGS" with its errors on the output pipe; the lines up to
  // and including the listening line, and the port it names.
  bool StartProxy(vxtest::ChildProcess* child, const std::string& args, std::string* lines,
                  unsigned short* port) const {
    std::vector<std::string> words = Environment();
    words.insert(words.end(), {"/bin/sh", "-c", "exec \"$0\" run " + args + " 2>&1", kProgram});
    if (!child->Start("/usr/bin/env", words)) return false;
    *port = vxtest::ReadListeningPort(*child, kWaitMs, lines);
    return *port != 0;
  }

  std::string Data(const std::string& name) const { return dir_ / ("share/vxproxy/" + name); }

  TempDir dir_;
};

// No options: settings and the starter list in $XDG_DATA_HOME/vxproxy, logs
// in $XDG_STATE_HOME/vxproxy, and "stats" finds what "run" wrote. A second
// proxy told to use the first one's port takes another and says so.
TEST_F(HostCommands, FirstRunWithoutOptionsUsesTheXdgFolders) {
  WriteTextFile(Data("vexilo.ini"), "[Vexilo]\nPort=0\n");
  vxtest::OriginServer origin;
  vxtest::ChildProcess proxy;
  std::string lines;
  unsigned short port = 0;
  ASSERT_TRUE(StartProxy(&proxy, "", &lines, &port)) << lines;
  EXPECT_NE(lines.find("installed the starter filter list as " + Data("filters.txt")),
            std::string::npos)
      << lines;
  EXPECT_EQ(ReadTextFile(Data("filters.txt")),
            ReadTextFile(VX_SOURCE_DIR "/data/default/filters.txt"));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "state/vxproxy/proxy.log"));
  EXPECT_FALSE(std::filesystem::exists(Data("proxy.log")));

  // The starter list blocks /banner/ads/ paths: that request never reaches
  // the origin (a size probe may, with HEAD), the page does.
  const std::string host = "localhost:" + std::to_string(origin.Port());
  {
    vxtest::RawClient browser;
    ASSERT_TRUE(browser.Connect(port));
    for (const char* path : {"/banner/ads/top.gif", "/page.html"}) {
      ASSERT_TRUE(browser.Send(std::string("GET http://") + host + path +
                               " HTTP/1.1\r\nHost: " + host + "\r\n\r\n"));
      ASSERT_FALSE(browser.ReceiveResponse(kWaitMs).empty()) << path;
    }
  }
  std::vector<std::string> gets;
  for (const vxtest::OriginRequest& r : origin.Requests()) {
    if (r.method == "GET") gets.push_back(r.target);
  }
  EXPECT_EQ(gets, std::vector<std::string>{"/page.html"});

  // The port is now taken: a second proxy told to use it falls back, says
  // so and names the port it took in the listening line and the settings.
  vxtest::ChildProcess second;
  std::string secondLines;
  unsigned short secondPort = 0;
  ASSERT_TRUE(StartProxy(&second,
                         "--data '" + (dir_ / "second") + "' --port " + std::to_string(port),
                         &secondLines, &secondPort))
      << secondLines;
  EXPECT_NE(secondPort, port);
  EXPECT_NE(secondLines.find("port " + std::to_string(port) + " is in use"), std::string::npos)
      << secondLines;
  EXPECT_NE(ReadTextFile(dir_ / "second/vexilo.ini").find("Port=" + std::to_string(secondPort)),
            std::string::npos);
  second.Interrupt();
  EXPECT_EQ(second.Wait(kWaitMs), 0);

  proxy.Interrupt();
  ASSERT_EQ(proxy.Wait(kWaitMs), 0);
  const Outcome stats = Vx("stats --json");
  EXPECT_EQ(stats.code, 0) << stats.output;
  EXPECT_EQ(stats.output.rfind("{\"startTime\":", 0), 0u) << stats.output;
}

// allow / disallow / allowed edit only their own lines, the filter engine
// reads what they write, and a site that is no host name changes nothing.
TEST_F(HostCommands, ApprovedListRoundTripKeepsTheOtherLines) {
  const std::string list = Data("vexilowl.txt");
  const std::string original =
      "[Adblock Plus 2.0]\n! my own "
      "exceptions\n@@||keep.example^\n@@||news.example.org/ads/*$image\n";
  WriteTextFile(list, original);
  WriteTextFile(Data("filters.txt"), "||ads.example.com^\n");
  const std::string url = " check http://ads.example.com/x.js";
  Outcome verdict = Vx(url);
  ASSERT_EQ(verdict.code, 0) << verdict.output;
  EXPECT_NE(verdict.output, "200\n");
  EXPECT_NE(verdict.output, "100\n");

  Outcome allow = Vx("allow Ads.Example.COM");
  ASSERT_EQ(allow.code, 0) << allow.output;
  EXPECT_NE(allow.output.find("the running proxy picks this up within a second"),
            std::string::npos);
  EXPECT_EQ(ReadTextFile(list), original + "@@||ads.example.com^\n");
  allow = Vx("allow ads.example.com");
  EXPECT_EQ(allow.code, 0) << allow.output;
  EXPECT_EQ(ReadTextFile(list), original + "@@||ads.example.com^\n");
  EXPECT_EQ(Vx(url).output, "200\n");

  const Outcome shown = Vx("allowed");
  EXPECT_EQ(shown.code, 0);
  EXPECT_EQ(shown.output, "keep.example\n@@||news.example.org/ads/*$image\nads.example.com\n");

  for (const char* bad : {"https://ads.example.com/x", "ads.example.com/x", "   ", "*.example.com",
                          "ads.example.com:8080", "ad$.example.com", "ads-.example.com", "a..b"}) {
    SCOPED_TRACE(bad);
    const Outcome refused = Vx(std::string("disallow '") + bad + "'");
    EXPECT_EQ(refused.code, 2);
    EXPECT_NE(refused.output.find(std::string("\"") + bad + "\" is not a site name"),
              std::string::npos)
        << refused.output;
  }
  const Outcome url_given = Vx("allow http://tracker.example/path");
  EXPECT_NE(url_given.output.find("did you mean tracker.example?"), std::string::npos);
  // One wrong site among several: none is added.
  EXPECT_EQ(Vx("allow good.example 'bad site'").code, 2);
  EXPECT_EQ(ReadTextFile(list), original + "@@||ads.example.com^\n");

  Outcome disallow = Vx("disallow ADS.example.com");
  EXPECT_EQ(disallow.code, 0) << disallow.output;
  EXPECT_EQ(ReadTextFile(list), original);
  disallow = Vx("disallow ads.example.com");
  EXPECT_EQ(disallow.code, 0);
  EXPECT_NE(disallow.output.find("not on the approved list"), std::string::npos);
  EXPECT_EQ(ReadTextFile(list), original);
  EXPECT_NE(Vx(url).output, "200\n");
}

// A running proxy follows the approved list as the commands change it:
// "allow" lets a blocked site through within seconds, "disallow" blocks it
// again, and the browser's connections stay usable throughout.
TEST_F(HostCommands, AllowAndDisallowChangeARunningProxysVerdicts) {
  WriteTextFile(Data("vexilo.ini"), "[Vexilo]\nPort=0\n");
  WriteTextFile(Data("filters.txt"), "/banner/\n");
  vxtest::OriginServer origin;
  vxtest::ChildProcess proxy;
  std::string lines;
  unsigned short port = 0;
  ASSERT_TRUE(StartProxy(&proxy, "", &lines, &port)) << lines;
  const std::string host = "localhost:" + std::to_string(origin.Port());
  int n = 0;
  // True when a fresh banner request reached the origin (its "hello" came back).
  auto passes = [&] {
    vxtest::RawClient browser;
    if (!browser.Connect(port)) return false;
    const std::string path = "/banner/" + std::to_string(++n) + ".gif";
    if (!browser.Send("GET http://" + host + path + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n")) {
      return false;
    }
    const std::string response = browser.ReceiveResponse(kWaitMs);
    return response.size() >= 5 && response.compare(response.size() - 5, 5, "hello") == 0;
  };
  EXPECT_FALSE(passes());
  ASSERT_EQ(Vx("allow localhost").code, 0);
  EXPECT_TRUE(vxtest::WaitUntil(passes, kWaitMs));
  ASSERT_EQ(Vx("disallow localhost").code, 0);
  EXPECT_TRUE(vxtest::WaitUntil([&] { return !passes(); }, kWaitMs));
  proxy.Interrupt();
  EXPECT_EQ(proxy.Wait(kWaitMs), 0);
}

TEST_F(HostCommands, PacAndServiceFilesForBrowsersAndSystemd) {
  Outcome pac = Vx("pac");
  EXPECT_EQ(pac.code, 0) << pac.output;
  EXPECT_NE(pac.output.find("function FindProxyForURL(url, host)"), std::string::npos);
  EXPECT_NE(pac.output.find("\"PROXY 127.0.0.1:7070"), std::string::npos) << pac.output;
  WriteTextFile(Data("vexilo.ini"), "[Vexilo]\r\nPort=8123\r\n");
  pac = Vx("pac");
  EXPECT_NE(pac.output.find("\"PROXY 127.0.0.1:8123"), std::string::npos) << pac.output;
  EXPECT_EQ(pac.output.find('@'), std::string::npos) << pac.output;

  const Outcome service = Vx("install-service --data '" + (dir_ / "my data") + "' --trace");
  ASSERT_EQ(service.code, 0) << service.output;
  EXPECT_NE(service.output.find(
                "systemctl --user daemon-reload && systemctl --user enable --now vxproxy"),
            std::string::npos)
      << service.output;
  const std::string unit = ReadTextFile(dir_ / "config/systemd/user/vxproxy.service");
  const std::string program = std::filesystem::canonical(kProgram).string();
  EXPECT_NE(
      unit.find("\nExecStart=" + program + " run --data \"" + (dir_ / "my data") + "\" --trace\n"),
      std::string::npos)
      << unit;
  EXPECT_NE(unit.find("\nRestart=on-failure\n"), std::string::npos) << unit;
  EXPECT_NE(unit.find("\nWantedBy=default.target\n"), std::string::npos) << unit;
}

// Every command has its help; bad usage exits with 2 and a failure with 1,
// each naming the word, option, file or folder at fault.
TEST_F(HostCommands, HelpAndErrorsNameWhatIsWrong) {
  const Outcome overview = Vx("--help");
  EXPECT_EQ(overview.code, 0);
  for (const char* command : kCommands) {
    SCOPED_TRACE(command);
    EXPECT_TRUE(
        overview.output.find(std::string("vxproxy ") + command + " ") != std::string::npos ||
        overview.output.find(std::string("vxproxy [") + command + "]") != std::string::npos);
    for (const std::string& args :
         {std::string("help ") + command, std::string(command) + " --help"}) {
      const Outcome help = Vx(args);
      EXPECT_EQ(help.code, 0) << args;
      EXPECT_EQ(help.output.rfind("usage:\n  vxproxy ", 0), 0u) << help.output;
    }
  }
  EXPECT_NE(overview.output.find("Exit codes: 0"), std::string::npos);

  WriteTextFile(dir_ / "a-file", "");
  std::filesystem::create_directories(dir_ / "no-list");
  WriteTextFile(dir_ / "bad-port/vexilo.ini", "[Vexilo]\nPort=70000\n");
  std::filesystem::create_directories(dir_ / "logs/proxy.log");
  const struct {
    std::string args;
    int code;
    std::string named;
  } errors[] = {
      {"frobnicate", 2, "unknown command frobnicate"},
      {"help frobnicate", 2, "no command frobnicate"},
      {"run --bogus", 2, "unknown option --bogus"},
      {"--data", 2, "--data needs a folder"},
      {"run --upstream proxy.example:99999", 2, "--upstream proxy.example:99999"},
      {"run --upstream proxy.example", 2, "--upstream proxy.example is not HOST:PORT"},
      {"run --port 8080x", 2, "--port 8080x is not a port"},
      {"run --data '" + (dir_ / "bad-port") + "'", 1,
       "Port=70000 in " + (dir_ / "bad-port/vexilo.ini") + " is not a port"},
      {"run --logs '" + (dir_ / "logs") + "'", 1, "writes " + (dir_ / "logs/proxy.log")},
      {"allow", 2, "name a site"},
      {"pac --port 1", 2, "unknown option --port"},
      {"run --data '" + (dir_ / "a-file") + "'", 1, dir_ / "a-file"},
      {"run --filters '" + (dir_ / "no-list") + "'", 1,
       "no filter list at " + (dir_ / "no-list/filters.txt")},
  };
  for (const auto& error : errors) {
    const Outcome outcome = Vx(error.args);
    EXPECT_EQ(outcome.code, error.code) << error.args << ": " << outcome.output;
    EXPECT_NE(outcome.output.find(error.named), std::string::npos)
        << error.args << ": " << outcome.output;
  }
}

}  // namespace
