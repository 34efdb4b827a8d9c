#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/tempdir.h"
#include "vxproxy/log.h"

namespace {

// Pattern letters: D a digit, S a blank or a digit, A an upper-case letter,
// a a lower-case one; anything else stands for itself.
bool HasShape(const std::string& text, const std::string& pattern) {
  if (text.size() != pattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool digit = c >= '0' && c <= '9';
    switch (pattern[i]) {
      case 'D': if (!digit) return false; break;
      case 'S': if (!digit && c != ' ') return false; break;
      case 'A': if (c < 'A' || c > 'Z') return false; break;
      case 'a': if (c < 'a' || c > 'z') return false; break;
      default: if (c != pattern[i]) return false; break;
    }
  }
  return true;
}

// A sink set up like one of the service's three logs.
class MemLogLine : public ::testing::Test {
 protected:
  CLog* Sink(const char* name, int mask) {
    CLog* log = new CLog((dir / name).c_str(), 0);
    log->SetLevelMask(mask);
    logs_.emplace_back(log);
    return log;
  }
  std::string Contents(const char* name) { return ReadTextFile(dir / name); }
  TempDir dir;

 private:
  std::vector<std::unique_ptr<CLog>> logs_;
};

TEST_F(MemLogLine, PrefixedLineIsWrittenInOnePiece) {
  CMemLogEx memlog(Sink("proxy.log", 7));
  memlog << CLogManip(4) << "Proxy started on port " << 7070 << lend;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: Proxy started on port 7070\r\n");
}

TEST_F(MemLogLine, EveryLevelHasItsPrefix) {
  CMemLogEx memlog(Sink("proxy.log", -1));
  for (int level : {0, 1, 2, 4, 8, 16, 32, 3, 64}) memlog << CLogManip(level) << "x" << lend;
  EXPECT_EQ(Contents("proxy.log"),
            "[CRITICAL]: x\r\n[ERROR]: x\r\n[WARNING]: x\r\n[INFO]: x\r\n[DEBUG]: x\r\n"
            "[VERBOSE]: x\r\n[HEAD]: x\r\n[NONE]: x\r\n[NONE]: x\r\n");
}

TEST_F(MemLogLine, LevelOutsideTheMaskWritesNothingNotEvenThePrefix) {
  CMemLogEx memlog(Sink("proxy.log", 7));
  memlog << CLogManip(8) << "Reading HTTP Header from Client side.." << lend;
  EXPECT_EQ(Contents("proxy.log"), "");
  memlog << CLogManip(2) << "next" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[WARNING]: next\r\n");
}

TEST_F(MemLogLine, CriticalPassesTheEmptyMask) {
  CMemLog blocked(Sink("blocked.log", 0));
  blocked << CLogManip(4) << "info" << lend;
  blocked << CLogManip(0) << "11/17/2011_09:20:49_PM " << "http://ads.example.com/a.gif" << lend;
  EXPECT_EQ(Contents("blocked.log"), "11/17/2011_09:20:49_PM http://ads.example.com/a.gif\r\n");
}

TEST_F(MemLogLine, CombinedLevelsNeedEveryBit) {
  CMemLog request(Sink("request.log", 10));
  CMemLogEx proxy(Sink("proxy.log", 7));
  request << CLogManip(10) << "r10" << lend;
  proxy << CLogManip(10) << "p10" << lend;
  request << CLogManip(2) << "r2" << lend;
  proxy << CLogManip(2) << "p2" << lend;
  EXPECT_EQ(Contents("request.log"), "r10\r\nr2\r\n");
  EXPECT_EQ(Contents("proxy.log"), "[WARNING]: p2\r\n");
}

TEST_F(MemLogLine, PlainMemoryLogHasNoPrefix) {
  CMemLog request(Sink("request.log", 10));
  request << CLogManip(8) << "[B]  " << "GET http://ads.example.com/banner.gif HTTP/1.1" << lend;
  EXPECT_EQ(Contents("request.log"), "[B]  GET http://ads.example.com/banner.gif HTTP/1.1\r\n");
}

TEST_F(MemLogLine, NumbersOfEveryWidth) {
  CMemLog memlog(Sink("request.log", -1));
  memlog << CLogManip(0) << -5 << "," << static_cast<unsigned short>(65535) << ","
         << 4294967295ul << lend;
  EXPECT_EQ(Contents("request.log"), "-5,65535,4294967295\r\n");
}

TEST_F(MemLogLine, MaskIsCopiedWhenAttached) {
  CLog* sink = Sink("proxy.log", 7);
  CMemLogEx memlog(sink);
  sink->SetLevelMask(15);
  memlog << CLogManip(8) << "still filtered" << lend;
  memlog.Attach(sink);
  memlog << CLogManip(8) << "now passes" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[DEBUG]: now passes\r\n");
}

TEST_F(MemLogLine, AttachHandsThePendingLineToTheOldSink) {
  CMemLog memlog(Sink("a.log", -1));
  memlog << CLogManip(0) << "half";
  memlog.Attach(Sink("b.log", -1));
  memlog << "second" << lend;
  EXPECT_EQ(Contents("a.log"), "half");
  EXPECT_EQ(Contents("b.log"), "second\r\n");
}

TEST_F(MemLogLine, WithoutASinkNothingHappens) {
  CMemLogEx memlog(nullptr);
  EXPECT_FALSE(memlog.IsOpen());
  EXPECT_FALSE(memlog.IsEnabled());
  memlog << CLogManip(4) << "nowhere" << 1 << lend;
  CLog closed(nullptr, 0);
  memlog.Attach(&closed);
  memlog << CLogManip(4) << "closed" << lend;
  memlog.Attach(Sink("proxy.log", 7));
  memlog << CLogManip(4) << "open" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: open\r\n");
}

TEST_F(MemLogLine, DestructorFlushesAnUnfinishedLine) {
  CLog* sink = Sink("proxy.log", -1);
  {
    CMemLogEx memlog(sink);
    memlog << CLogManip(1) << "unfinished";
  }
  EXPECT_EQ(Contents("proxy.log"), "[ERROR]: unfinished");
}

TEST_F(MemLogLine, ManipulatorsFlushAndBeginLine) {
  CMemLogEx memlog(Sink("proxy.log", -1));
  memlog.SetLevel(4);
  memlog << lbegin << "started" << lflush;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: started");
  memlog << " more" << lend << CLogManip(1) << "err" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: started more\r\n[ERROR]: err\r\n");
}

TEST_F(MemLogLine, TimeAppearsWithoutALineBreak) {
  CMemLogEx memlog(Sink("proxy.log", -1));
  memlog << CLogManip(4) << "Proxy stop called @" << static_cast<vxtime64_t>(1321563649) << lend;
  memlog << CLogManip(4) << "32 bit @" << static_cast<vxtime32_t>(0) << lend;
  const std::string text = Contents("proxy.log");
  const std::size_t split = text.find("\r\n") + 2;
  EXPECT_TRUE(HasShape(text.substr(0, split),
                       "[INFO]: Proxy stop called @Aaa Aaa SD DD:DD:DD 2011\r\n"))
      << text;
  EXPECT_TRUE(HasShape(text.substr(split), "[INFO]: 32 bit @Aaa Aaa SD DD:DD:DD 19DD\r\n")) << text;
}

TEST_F(MemLogLine, RefusedTimesAppendNothing) {
  CMemLog memlog(Sink("proxy.log", -1));
  memlog << CLogManip(0) << "<" << static_cast<vxtime64_t>(-1) << static_cast<vxtime32_t>(-5)
         << static_cast<vxtime64_t>(32535216000) << ">" << lend;
  EXPECT_EQ(Contents("proxy.log"), "<>\r\n");
}

TEST_F(MemLogLine, HostStyleWritingThroughVirtualsOnly) {
  // What a host does with the pointer it gets from the service object.
  CMemLogEx owned(Sink("proxy.log", 7));
  CMemLogEx* memlog = &owned;
  memlog->SetLevel(4);
  *memlog << "host line" << lend;
  EXPECT_EQ(Contents("proxy.log"), "[INFO]: host line\r\n");
}

// -------------------------------------------------------------- time stamp --

TEST(LineTimeStamp, TwelveHourClock) {
  struct Case {
    int hour;
    const char* text;
  } cases[] = {{0, "01/02/2011_12:05:09_AM"},  {1, "01/02/2011_01:05:09_AM"},
               {11, "01/02/2011_11:05:09_AM"}, {12, "01/02/2011_12:05:09_PM"},
               {13, "01/02/2011_01:05:09_PM"}, {23, "01/02/2011_11:05:09_PM"}};
  for (const Case& c : cases) {
    CStringBuffer out("old");
    FormatLineTimeStamp(1, 2, 2011, c.hour, 5, 9, out);
    EXPECT_STREQ(out.GetBuffer(), c.text) << c.hour;
  }
  CStringBuffer out;
  FormatLineTimeStamp(11, 17, 2011, 21, 20, 49, out);
  EXPECT_STREQ(out.GetBuffer(), "11/17/2011_09:20:49_PM");
}

TEST(LineTimeStamp, CurrentTimeHasTheShape) {
  CStringBuffer out;
  MakeLineTimeStamp(out);
  const std::string text = out.GetBuffer();
  EXPECT_TRUE(HasShape(text, "DD/DD/DDDD_DD:DD:DD_AM") || HasShape(text, "DD/DD/DDDD_DD:DD:DD_PM"))
      << text;
  const int hour = std::stoi(text.substr(11, 2));
  EXPECT_TRUE(hour >= 1 && hour <= 12) << text;
}

}  // namespace
