// "vxproxy run" switches every extension on and "--strict" leaves the module
// as designed; the listener's accept queue shows which one a process got.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/process.h"
#include "support/tempdir.h"
#include "support/wait.h"

namespace {

constexpr int kWaitMs = 10000;

// The accept queue length of the listener on the port, as the system reports
// it (the send-queue column of a listening socket); -1 when it cannot tell.
int AcceptQueueOf(unsigned short port) {
  int status = -1;
  const std::string line = vxtest::RunCommand(
      "ss -Hltn 'sport = :" + std::to_string(port) + "' 2>/dev/null", &status);
  std::istringstream fields(line);
  std::string state, received, queue;
  if (status != 0 || !(fields >> state >> received >> queue) || state != "LISTEN") return -1;
  return std::stoi(queue);
}

// Starts the host program on a port of the system's choice; its port.
unsigned short StartHost(vxtest::ChildProcess& host, const TempDir& dir, bool strict) {
  WriteTextFile(dir / "data/filters.txt", "/banner/\n");
  WriteTextFile(dir / "data/vexilo.ini", "[Vexilo]\nPort=0\n");
  std::vector<std::string> arguments = {"run", "--data", dir / "data"};
  if (strict) arguments.push_back("--strict");
  if (!host.Start(std::string(VX_BINARY_DIR) + "/vxproxy", arguments)) return 0;
  return vxtest::ReadListeningPort(host, kWaitMs);
}

}  // namespace

TEST(HostExtensions, RunSwitchesThemOnAndStrictLeavesThemOff) {
  if (vxtest::RunCommand("command -v ss").empty()) GTEST_SKIP() << "ss (iproute2) is not installed";
  TempDir extended, strict;
  vxtest::ChildProcess extendedHost, strictHost;
  const unsigned short extendedPort = StartHost(extendedHost, extended, false);
  const unsigned short strictPort = StartHost(strictHost, strict, true);
  ASSERT_NE(extendedPort, 0);
  ASSERT_NE(strictPort, 0);
  EXPECT_GT(AcceptQueueOf(extendedPort), 5);
  EXPECT_EQ(AcceptQueueOf(strictPort), 5);
  extendedHost.Interrupt();
  strictHost.Interrupt();
  EXPECT_EQ(extendedHost.Wait(kWaitMs), 0);
  EXPECT_EQ(strictHost.Wait(kWaitMs), 0);
}
