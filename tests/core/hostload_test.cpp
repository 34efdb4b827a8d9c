#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "support/wait.h"
#include "support/tempdir.h"

TEST(HostLoad, AHostBuiltOnThePublicHeaderDrivesTheModule) {
  TempDir dir;
  WriteTextFile(dir / "filters.txt", "||ads.example.com^\n");
  int status = -1;
  const std::string out = vxtest::RunCommand(std::string(VX_BINARY_DIR) + "/tests/hostload_child " +
                                            VX_BINARY_DIR + "/libvxproxy.so " + dir.str(),
                                        &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("same=1"), std::string::npos) << out;
  EXPECT_NE(out.find("instance=1"), std::string::npos) << out;
  EXPECT_NE(out.find("initialized=1"), std::string::npos) << out;
  EXPECT_NE(ReadTextFile(dir / "proxy.log").find("[INFO]: hello from the host 42\r\n"),
            std::string::npos);
}

TEST(HostLoad, AHostLinkingNothingOfOursReachesEverySlot) {
  TempDir dir;
  WriteTextFile(dir / "filters.txt",
                "! *** easylist:easylist/easylist_adservers.txt ***\n||ads.example.com^\n");
  WriteTextFile(dir / "vexilo.ini", "[Vexilo]\nPort=0\n");
  int status = -1;
  const std::string out = vxtest::RunCommand(std::string(VX_BINARY_DIR) + "/tests/hostslots_child " +
                                            VX_BINARY_DIR + "/libvxproxy.so " + dir.str(),
                                        &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("done failures=0"), std::string::npos) << out;
  const std::string log = ReadTextFile(dir / "proxy.log");
  for (const char* line : {"printf 1\r\n", "write 2\r\n", "stream 3 4 5\r\n", "buffer 6",
                           "[INFO]: memory 7 8 9 "}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  }
  // What the host counted after the stop reached the file when the process ended.
  const std::string counters = ReadTextFile(dir / "sitecounter.xml");
  EXPECT_NE(counters.find("<RequestHistory>3</RequestHistory>"), std::string::npos) << counters;
  EXPECT_NE(counters.find("<AdSize>30</AdSize>"), std::string::npos) << counters;
}

TEST(HostLoad, ModuleExportsOnlyTheHostInterface) {
  int status = -1;
  const std::string symbols = vxtest::RunCommand(
      "nm -D --defined-only " + std::string(VX_BINARY_DIR) + "/libvxproxy.so | c++filt", &status);
  ASSERT_EQ(status, 0);
  EXPECT_NE(symbols.find("GetProxy"), std::string::npos);
  EXPECT_NE(symbols.find("CLogManip::CLogManip(int)"), std::string::npos);
  EXPECT_NE(symbols.find("CProxySiteStatistics"), std::string::npos);
  EXPECT_NE(symbols.find("CLogManipEx::CLogManipEx(int)"), std::string::npos);
  EXPECT_NE(symbols.find("CAutoSync::operator=(CAutoSync const&)"), std::string::npos);
  EXPECT_NE(symbols.find("CCriticalSectionEx::CCriticalSectionEx(CCriticalSectionEx const&)"),
            std::string::npos);
  // Nothing of the module's insides.
  for (const char* internal : {"CProxyClient", "CHTTPRequest", "CProxyManager", "CFilterEngine",
                               "CVxHTTPProxy::Start", "CheckRequest", "std::"}) {
    EXPECT_EQ(symbols.find(internal), std::string::npos) << internal;
  }
}
