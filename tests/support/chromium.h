// Headless Chromium as the browser of a test: one page load through the
// proxy in a new profile, kept off the network (every host but loopback
// fails to resolve, background services point at a closed loopback port),
// and the hosts the proxy's request.log names, to show it stayed that way.
//
//   if (!vxtest::ChromiumInstalled()) GTEST_SKIP() << "chromium is not installed";
//   const std::string dom = vxtest::LoadInChromium(proxyPort, "http://127.0.0.1:8080/page.html");
//   EXPECT_EQ(vxtest::RequestLogHosts(log), std::set<std::string>{"127.0.0.1:8080"});
#pragma once

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "support/tempdir.h"
#include "support/wait.h"

namespace vxtest {

inline constexpr const char* kChromium = "/usr/bin/chromium";

inline bool ChromiumInstalled() {
  return std::system((std::string("test -x ") + kChromium).c_str()) == 0;
}

// Loads the page through the proxy on 127.0.0.1:proxyPort and returns the
// document as Chromium has it after five seconds of page time; the whole
// load is bounded to a minute.
inline std::string LoadInChromium(unsigned short proxyPort, const std::string& url) {
  TempDir profile;
  return RunCommand(
      std::string("timeout 60 ") + kChromium +
      " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
      " --disable-background-networking --disable-component-update --disable-sync"
      " --user-data-dir=" + profile.str() +
      " --proxy-server=http://127.0.0.1:" + std::to_string(proxyPort) +
      " --proxy-bypass-list='<-loopback>'"
      " --host-resolver-rules='MAP * ~NOTFOUND, EXCLUDE 127.0.0.1'"
      " --component-updater=url-source=http://127.0.0.1:9/ --gaia-url=http://127.0.0.1:9/"
      " --disable-features=NetworkTimeServiceQuerying --virtual-time-budget=5000"
      " --dump-dom " + url + " 2>/dev/null");
}

// The hosts (with a port when the line has one) named by the request lines
// of request.log: "[P]  GET http://host:port/..." and "[B]  CONNECT host:port".
inline std::set<std::string> RequestLogHosts(const std::string& log) {
  std::set<std::string> hosts;
  std::istringstream lines(log);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("[P]  ", 0) != 0 && line.rfind("[B]  ", 0) != 0) continue;
    std::string url = line.substr(line.find(' ', 5) + 1);
    if (const size_t scheme = url.find("://"); scheme != std::string::npos) url.erase(0, scheme + 3);
    hosts.insert(url.substr(0, url.find_first_of("/ \r")));
  }
  return hosts;
}

}  // namespace vxtest
