#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "support/tempdir.h"

namespace {

std::string RunAndCapture(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  std::array<char, 256> chunk;
  while (fgets(chunk.data(), chunk.size(), pipe) != nullptr) output += chunk.data();
  *status = pclose(pipe);
  return output;
}

}  // namespace

TEST(HostLoad, AHostBuiltOnThePublicHeaderDrivesTheModule) {
  TempDir dir;
  WriteTextFile(dir / "filters.txt", "||ads.example.com^\n");
  int status = -1;
  const std::string out = RunAndCapture(std::string(VX_BINARY_DIR) + "/tests/hostload_child " +
                                            VX_BINARY_DIR + "/libvxproxy.so " + dir.str(),
                                        &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("same=1"), std::string::npos) << out;
  EXPECT_NE(out.find("instance=1"), std::string::npos) << out;
  EXPECT_NE(out.find("initialized=1"), std::string::npos) << out;
  EXPECT_NE(ReadTextFile(dir / "proxy.log").find("[INFO]: hello from the host 42\r\n"),
            std::string::npos);
}

TEST(HostLoad, ModuleExportsOnlyTheHostInterface) {
  int status = -1;
  const std::string symbols = RunAndCapture(
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
