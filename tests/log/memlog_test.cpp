#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "log/logimpl.h"
#include "support/textmatch.h"
#include "support/tempdir.h"
#include "vxproxy/log.h"

namespace {

// True when the whole text matches the regular expression.
bool Matches(const std::string& text, const char* pattern) {
  return vxtest::RegexMatch(text, pattern);
}

// A sink set up like one of the service's three logs.
class MemLogLine : public ::testing::Test {
 protected:
  CLog* Sink(const char* name, int mask) {
    CLog* log = new CLogImpl((dir / name).c_str(), 0);
    log->SetLevelMask(mask);
    logs_.emplace_back(log);
    return log;
  }
  std::string Contents(const char* name) { return ReadTextFile(dir / name); }
  TempDir dir;

 private:
  std::vector<std::unique_ptr<CLog>> logs_;
};

TEST_F(MemLogLine, EveryLevelHasItsPrefix) {
  CMemLogEx memlog(Sink("proxy.log", -1));
  for (int level : {0, 1, 2, 4, 8, 16, 32, 3, 64}) memlog << CLogManip(level) << "x" << lend;
  EXPECT_EQ(Contents("proxy.log"),
            "[CRITICAL]: x\r\n[ERROR]: x\r\n[WARNING]: x\r\n[INFO]: x\r\n[DEBUG]: x\r\n"
            "[VERBOSE]: x\r\n[HEAD]: x\r\n[NONE]: x\r\n[NONE]: x\r\n");
}

TEST_F(MemLogLine, LevelPassesTheSinkMaskOnlyWithEveryBit) {
  // Masks of the service's logs: proxy.log 7 (prefixed), request.log 10, blocked.log 0.
  const struct {
    int mask;
    bool prefixed;
    int level;
    const char* text;
    const char* line;
  } cases[] = {
      {7, true, 4, "Proxy started on port 7070", "[INFO]: Proxy started on port 7070\r\n"},
      {7, true, 8, "Reading HTTP Header from Client side..", ""},  // not even the prefix
      {7, true, 10, "p10", ""},                                    // one bit of two passes
      {10, false, 10, "r10", "r10\r\n"},
      {0, false, 0, "11/17/2011_09:20:49_PM http://ads.example.com/a.gif",
       "11/17/2011_09:20:49_PM http://ads.example.com/a.gif\r\n"},  // critical always passes
  };
  int row = 0;
  for (const auto& c : cases) {
    const std::string name = "row" + std::to_string(row++) + ".log";
    CLog* sink = Sink(name.c_str(), c.mask);
    std::unique_ptr<CMemLog> memlog(c.prefixed ? new CMemLogEx(sink) : new CMemLog(sink));
    *memlog << CLogManip(c.level) << c.text << lend;
    EXPECT_EQ(Contents(name.c_str()), c.line) << c.mask << " " << c.level;
  }
}

TEST_F(MemLogLine, NumbersOfEveryWidthAndRefusedTimes) {
  CMemLog memlog(Sink("request.log", -1));
  memlog << CLogManip(0) << -5 << "," << static_cast<unsigned short>(65535) << ","
         << 4294967295ul << "<" << static_cast<vxtime64_t>(-1) << static_cast<vxtime32_t>(-5)
         << static_cast<vxtime64_t>(32535216000) << ">" << lend;
  EXPECT_EQ(Contents("request.log"), "-5,65535,4294967295<>\r\n");
}

TEST_F(MemLogLine, AttachCopiesTheMaskAndHandsThePendingLineToTheOldSink) {
  CLog* first = Sink("a.log", 7);
  CMemLogEx memlog(first);
  first->SetLevelMask(15);
  memlog << CLogManip(8) << "still filtered" << lend;
  memlog.Attach(first);
  memlog << CLogManip(8) << "now passes" << lend << CLogManip(4) << "half";
  memlog.Attach(Sink("b.log", -1));
  memlog << "second" << lend;
  EXPECT_EQ(Contents("a.log"), "[DEBUG]: now passes\r\n[INFO]: half");
  EXPECT_EQ(Contents("b.log"), "second\r\n");
}

TEST_F(MemLogLine, WithoutAnOpenSinkNothingHappens) {
  CMemLogEx memlog(nullptr);
  memlog << CLogManip(4) << "nowhere" << 1 << lend;
  CLogImpl closed(nullptr, 0);
  memlog.Attach(&closed);
  memlog << CLogManip(4) << "closed" << lend;
  memlog.Attach(Sink("proxy.log", 7));
  memlog << CLogManip(4) << "open" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: open\r\n");
}

TEST_F(MemLogLine, ManipulatorsFlushAndBeginLineAndTheDestructorFlushes) {
  CLog* sink = Sink("proxy.log", -1);
  {
    CMemLogEx memlog(sink);
    memlog.SetLevel(4);
    memlog << lbegin << "started" << lflush;
    EXPECT_EQ(Contents("proxy.log"), "[INFO]: started");
    memlog << " more" << lend << CLogManip(1) << "unfinished";
  }
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: started more\r\n[ERROR]: unfinished");
}

TEST_F(MemLogLine, TimeAppearsWithoutALineBreak) {
  CMemLogEx memlog(Sink("proxy.log", -1));
  memlog << CLogManip(4) << "stop @" << static_cast<vxtime64_t>(1321563649) << lend;
  memlog << CLogManip(4) << "32 bit @" << static_cast<vxtime32_t>(0) << lend;
  EXPECT_TRUE(Matches(Contents("proxy.log"),
                      R"(\[INFO\]: stop @[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d 2011\r\n)"
                      R"(\[INFO\]: 32 bit @[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d 19\d\d\r\n)"))
      << Contents("proxy.log");
}

// -------------------------------------------------------------- time stamp --

TEST(LineTimeStamp, TwelveHourClock) {
  const struct {
    int hour;
    const char* text;
  } cases[] = {{0, "01/02/2011_12:05:09_AM"}, {11, "01/02/2011_11:05:09_AM"},
               {12, "01/02/2011_12:05:09_PM"}, {23, "01/02/2011_11:05:09_PM"}};
  for (const auto& c : cases) {
    CStringBuffer out("old");
    FormatLineTimeStamp(1, 2, 2011, c.hour, 5, 9, out);
    EXPECT_STREQ(out.GetBuffer(), c.text) << c.hour;
  }
  CStringBuffer out;
  FormatLineTimeStamp(11, 17, 2011, 21, 20, 49, out);
  EXPECT_STREQ(out.GetBuffer(), "11/17/2011_09:20:49_PM");
  MakeLineTimeStamp(out);
  EXPECT_TRUE(Matches(out.GetBuffer(), R"(\d\d/\d\d/\d{4}_(0[1-9]|1[0-2]):\d\d:\d\d_[AP]M)"))
      << out.GetBuffer();
}

}  // namespace
