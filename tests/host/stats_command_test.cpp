#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "stats.h"
#include "platform/platform.h"
#include "stats/counterfile.h"
#include "support/process.h"
#include "support/tempdir.h"

namespace {

int Stats(std::vector<std::string> args, std::string* out, std::string* err) {
  args.insert(args.begin(), "stats");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  std::ostringstream o, e;
  const int code = RunStats(static_cast<int>(argv.size()), argv.data(), o, e);
  *out = o.str();
  *err = e.str();
  return code;
}

class StatsCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteTextFile(data_ / "sitecounter.xml",
                  "<Vexilo><Global><RequestHistory>1234</RequestHistory><History>16</History>"
                  "<BytesSend>1468006</BytesSend><BytesRecvd>512</BytesRecvd>"
                  "<StatStartTime>0</StatStartTime></Global></Vexilo>");
    WriteTextFile(logs_ / "siteinfo.log",
                  "<Vexilo><Sites><b.example><Counter>3</Counter></b.example>"
                  "<c.example><Counter>10</Counter></c.example>"
                  "<a.example><Counter>3</Counter></a.example></Sites>"
                  "<Global><Counter>16</Counter><History>20</History></Global></Vexilo>");
  }
  TempDir data_;
  TempDir logs_;
};

TEST_F(StatsCommand, PrintsCountersAndSitesByCountWithoutTouchingTheFiles) {
  const std::string counters = ReadTextFile(data_ / "sitecounter.xml");
  const std::string sites = ReadTextFile(logs_ / "siteinfo.log");
  std::string out, err;
  ASSERT_EQ(Stats({"--data", data_.str(), "--logs", logs_.str()}, &out, &err), 0) << err;
  EXPECT_EQ(out,
            "since           not recorded\n"
            "requests        1234\n"
            "blocked         16\n"
            "bytes sent      1.4 MiB\n"
            "bytes received  512 B\n"
            "ad size         0 B\n"
            "\n"
            "blocked by site (16 since the list was cleared)\n"
            "        10  c.example\n"
            "         3  a.example\n"
            "         3  b.example\n");

  ASSERT_EQ(Stats({"--json", "--data", data_.str(), "--logs", logs_.str()}, &out, &err), 0);
  EXPECT_EQ(out,
            "{\"startTime\":0,\"requests\":1234,\"blocked\":16,\"bytesSent\":1468006,"
            "\"bytesReceived\":512,\"adSize\":0,\"sitesTotal\":16,\"sites\":["
            "{\"site\":\"c.example\",\"count\":10},{\"site\":\"a.example\",\"count\":3},"
            "{\"site\":\"b.example\",\"count\":3}]}\n");
  EXPECT_EQ(ReadTextFile(data_ / "sitecounter.xml"), counters);
  EXPECT_EQ(ReadTextFile(logs_ / "siteinfo.log"), sites);
}

TEST_F(StatsCommand, MissingOrBrokenFilesAndBadUsage) {
  std::string out, err;
  // The site list defaults to the data folder, where there is none.
  EXPECT_EQ(Stats({"--data", data_.str()}, &out, &err), 1);
  EXPECT_NE(err.find(os::NativePath((data_ / "siteinfo.log").c_str())), std::string::npos) << err;
  EXPECT_NE(err.find("--logs"), std::string::npos) << err;
  WriteTextFile(data_ / "sitecounter.xml", "<Vexilo>");
  EXPECT_EQ(Stats({"--data", data_.str(), "--logs", logs_.str()}, &out, &err), 1);
  EXPECT_NE(err.find("sitecounter.xml"), std::string::npos) << err;
  EXPECT_EQ(ReadTextFile(data_ / "sitecounter.xml"), "<Vexilo>");
  EXPECT_EQ(Stats({"--data"}, &out, &err), 2);
  EXPECT_EQ(Stats({"--verbose"}, &out, &err), 2);
}

TEST_F(StatsCommand, SeedRecordsTheStartOnceAndKeepsTheCounters) {
  const vxtime64_t before = os::Time64();
  SeedStatStartTime(data_.str());
  CSecureXMLParser doc;
  ASSERT_EQ(doc.ParseFile((data_ / "sitecounter.xml").c_str()), 0);
  CVxXMLElement global = doc.GetNodeByName("Global");
  const auto seeded = static_cast<vxtime64_t>(vxstats::ReadU64(doc, global, "./StatStartTime"));
  EXPECT_GE(seeded, before);
  EXPECT_LE(seeded, os::Time64());
  EXPECT_EQ(vxstats::ReadU64(doc, global, "./RequestHistory"), 1234u);

  WriteTextFile(data_ / "sitecounter.xml",
                "<Vexilo><Global><StatStartTime>42</StatStartTime></Global></Vexilo>");
  SeedStatStartTime(data_.str());
  EXPECT_EQ(ReadTextFile(data_ / "sitecounter.xml"),
            "<Vexilo><Global><StatStartTime>42</StatStartTime></Global></Vexilo>");

  TempDir fresh;
  SeedStatStartTime(fresh.str());
  ASSERT_EQ(doc.ParseFile((fresh / "sitecounter.xml").c_str()), 0);
  global = doc.GetNodeByName("Global");
  EXPECT_GE(static_cast<vxtime64_t>(vxstats::ReadU64(doc, global, "./StatStartTime")), before);
}

// The host program's own "stats" word, in a separate process.
TEST_F(StatsCommand, HostProgram) {
  const std::string program = VX_BINARY_DIR "/vxproxy";
  if (!os::FileExists(program.c_str())) GTEST_SKIP() << program << " is not built";
  vxtest::ChildProcess child;
  ASSERT_TRUE(child.Start(program, {"stats", "--data", data_.str(), "--logs", logs_.str(), "--json"}));
  EXPECT_EQ(child.ReadLine(10000).rfind("{\"startTime\":0,\"requests\":1234,", 0), 0u);
  EXPECT_EQ(child.Wait(10000), 0);
}

}  // namespace
