#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/tempdir.h"
#include "vxproxy/log.h"

namespace {

class LogFile : public ::testing::Test {
 protected:
  std::string Path(const char* name = "test.log") { return dir / name; }
  std::string Contents(const char* name = "test.log") { return ReadTextFile(Path(name)); }
  TempDir dir;
};

// ----------------------------------------------------------- Printf format --

using LogPrintf = LogFile;

TEST_F(LogPrintf, BackslashEscapesInTheFormatText) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "a\\nb\\rc\\td\\\\e\\qf\\");
  EXPECT_EQ(Contents(), "a\nb\rc\td\\e\\qf");
}

TEST_F(LogPrintf, ConversionsGoThroughTheCLibrary) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "[%d|% 5d|%05x|%X|%u|%o|%c|%i]", -12, 42, 255, 0xabc, 7u, 8, 'z', 3);
  EXPECT_EQ(Contents(), "[-12|   42|000ff|ABC|7|10|z|3]");
}

TEST_F(LogPrintf, FloatingPointConversions) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "%f %e %g %10f", 1.5, 250.0, 0.25, 2.0);
  EXPECT_EQ(Contents(), "1.500000 2.500000e+02 0.25   2.000000");
}

TEST_F(LogPrintf, StringsIgnoreWidthAndCapitalsAreAccepted) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "<%10s><%S><%D>", "abc", "up", 9);
  EXPECT_EQ(Contents(), "<abc><up><9>");
}

TEST_F(LogPrintf, PercentWithoutConversionIsDropped) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "100%%, %5z, %.2f, %-3d, %");
  EXPECT_EQ(Contents(), "100, 5z, .2f, -3d, ");
}

TEST_F(LogPrintf, DoubledPercentBeforeALetterStillConverts) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "%%d|", 5);
  EXPECT_EQ(Contents(), "5|");
}

TEST_F(LogPrintf, CountConversionNeverWritesThroughItsArgument) {
  CLog log(Path().c_str(), 2);
  int sentinel = 12345;
  log.Printf(0, "ab%ncd%d", &sentinel, 6);
  EXPECT_EQ(sentinel, 12345);
  EXPECT_EQ(Contents(), "abcd6");
}

TEST_F(LogPrintf, LongConversionsAreCutToTheBuffer) {
  CLog log(Path().c_str(), 2);
  log.Printf(0, "%150d", 1);
  EXPECT_EQ(Contents(), std::string(99, ' '));
}

TEST_F(LogPrintf, FilteredByLevel) {
  CLog log(Path().c_str(), 2);
  log.SetLevelMask(6);
  log.Printf(1, "error\\n");
  log.Printf(4, "info\\n");
  log.Printf(6, "both\\n");
  log.Printf(12, "partly\\n");
  log.Printf(0, "critical\\n");
  EXPECT_EQ(Contents(), "info\nboth\ncritical\n");
}

// ------------------------------------------------------ open, levels, writes --

TEST_F(LogFile, LevelMaskAndEnabledFlag) {
  CLog log(Path().c_str(), 8);
  ASSERT_TRUE(log.IsOpen());
  EXPECT_TRUE(log.IsLevelEnabled(32));  // all bits pass by default
  log.SetLevelMask(10);
  EXPECT_TRUE(log.IsLevelEnabled(10));
  EXPECT_TRUE(log.IsLevelEnabled(2));
  EXPECT_FALSE(log.IsLevelEnabled(4));
  EXPECT_FALSE(log.IsLevelEnabled(12));
  EXPECT_TRUE(log.IsLevelEnabled(0));
  log.SetLevelMask(0);
  EXPECT_TRUE(log.IsLevelEnabled(0));
  EXPECT_FALSE(log.IsLevelEnabled(1));
  log.SetEnabled(false);
  EXPECT_FALSE(log.IsLevelEnabled(0));
  log.Write(0, "dropped", 7);
  log.SetEnabled(true);
  log.Write(0, "kept", 4);
  EXPECT_EQ(Contents(), "kept");
}

TEST_F(LogFile, AppendsToAnExistingFile) {
  WriteTextFile(Path(), "old line\r\n");
  CLog log(Path().c_str(), 2);
  log.Write(0, "new line\r\n", 10);
  EXPECT_EQ(Contents(), "old line\r\nnew line\r\n");
  EXPECT_STREQ(log.GetFileName(), Path().c_str());
}

TEST_F(LogFile, BackslashPathOpensTheSameFile) {
  CLog log((dir.str() + "\\proxy.log").c_str(), 2);
  ASSERT_TRUE(log.IsOpen());
  log.Write(0, "x", 1);
  EXPECT_EQ(Contents("proxy.log"), "x");
}

TEST_F(LogFile, UnopenableLogDropsEverything) {
  CLog nowhere((dir / "missing/dir/proxy.log").c_str(), 2);
  EXPECT_FALSE(nowhere.IsOpen());
  EXPECT_FALSE(nowhere.IsLevelEnabled(0));
  nowhere.Write(0, "x", 1);
  nowhere.Printf(0, "y");
  nowhere << "z";
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));

  CLog never(nullptr, 0);
  EXPECT_FALSE(never.IsOpen());
  EXPECT_FALSE(never.Open(nullptr));
  never.Write(0, "x", 1);
  CStringBuffer out("stale");
  never.ReadAll(out);
  EXPECT_EQ(out.GetSize(), 0);
}

TEST_F(LogFile, StreamStyleWritesAtTheLogsLevel) {
  CLog log(Path().c_str(), 2);
  log.SetLevelMask(4);
  log.SetLevel(4);
  log << "port " << static_cast<unsigned short>(7070) << " count " << 12ul << " delta " << -3;
  log.SetLevel(8);
  log << "hidden";
  log.Flush();
  EXPECT_EQ(Contents(), "port 7070 count 12 delta -3");
}

TEST_F(LogFile, WriteBufferWaitsForTheThreshold) {
  CLog log(Path().c_str(), 4);
  log.SetFlushThreshold(1024);
  CStringBuffer buffer(std::string(1023, 'a').c_str());
  log.WriteBuffer(buffer);
  EXPECT_EQ(buffer.GetSize(), 1023);
  EXPECT_EQ(Contents(), "");
  buffer << "b";
  log.WriteBuffer(buffer);
  EXPECT_EQ(buffer.GetSize(), 0);
  EXPECT_EQ(Contents(), std::string(1023, 'a') + "b");
}

TEST_F(LogFile, WriteBufferEmptiesEvenWhenTheLevelIsFiltered) {
  CLog log(Path().c_str(), 4);
  log.SetFlushThreshold(4);
  log.SetLevelMask(1);
  log.SetLevel(2);
  CStringBuffer buffer("12345");
  log.WriteBuffer(buffer);
  EXPECT_EQ(buffer.GetSize(), 0);
  EXPECT_EQ(Contents(), "");
}

TEST_F(LogFile, ReadAllThenKeepWriting) {
  CLog log(Path().c_str(), 2);
  log.Write(0, "one\r\n", 5);
  CStringBuffer all;
  log.ReadAll(all);
  EXPECT_STREQ(all.GetBuffer(), "one\r\n");
  log.Write(0, "two\r\n", 5);
  log.ReadAll(all);
  EXPECT_STREQ(all.GetBuffer(), "one\r\ntwo\r\n");
}

TEST_F(LogFile, ClearStartsAnEmptyFile) {
  CLog log(Path().c_str(), 2);
  log.Write(0, "before", 6);
  log.Clear();
  EXPECT_TRUE(log.IsOpen());
  EXPECT_EQ(Contents(), "");
  log.Write(0, "after", 5);
  EXPECT_EQ(Contents(), "after");
}

TEST_F(LogFile, MaxSizeIsClamped) {
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(200000000);
  EXPECT_EQ(log.GetMaxSize(), 104857600ul);
  log.SetMaxSize(262144);
  EXPECT_EQ(log.GetMaxSize(), 262144ul);
}

// ------------------------------------------------------------------ trimming --

// Numbered lines of varying length, so that any suffix of the text can be
// told from any other.
std::string NumberedLine(int n) {
  std::string line = "line " + std::to_string(n) + " ";
  line.append(static_cast<std::size_t>(n * 7 % 53), static_cast<char>('a' + n % 26));
  return line + "\r\n";
}

struct TrimCase {
  unsigned long maxSize;  // 0: the constructor's values
  unsigned long threshold;
  unsigned long keep;
};

class LogTrim : public LogFile, public ::testing::WithParamInterface<TrimCase> {};

TEST_P(LogTrim, KeepsOnlyWholeNewestLines) {
  const TrimCase c = GetParam();
  CLog log(Path().c_str(), 2);
  if (c.maxSize != 0) log.SetMaxSize(c.maxSize);
  std::string written;
  int n = 0;
  for (;;) {
    const std::string line = NumberedLine(n++);
    const bool reaches = written.size() + line.size() >= c.threshold;
    // Up to the write that reaches the threshold nothing is cut.
    if (reaches) {
      ASSERT_EQ(std::filesystem::file_size(Path()), written.size());
    }
    written += line;
    log.Write(0, line.data(), static_cast<int>(line.size()));
    if (reaches) break;
  }
  const std::string kept = Contents();
  ASSERT_LT(kept.size(), written.size()) << "the write that reached the limit must trim";
  // The newest bytes, starting right after a line feed, and no more than keep.
  ASSERT_EQ(written.compare(written.size() - kept.size(), kept.size(), kept), 0);
  EXPECT_EQ(written[written.size() - kept.size() - 1], '\n');
  EXPECT_LE(kept.size(), c.keep);
  EXPECT_GT(kept.size(), c.keep - 80);  // at most one line less than keep
  // The log goes on from there, tracking the trimmed size.
  const std::string next = NumberedLine(n);
  log.Write(0, next.data(), static_cast<int>(next.size()));
  EXPECT_EQ(Contents(), kept + next);
}

INSTANTIATE_TEST_SUITE_P(Sizes, LogTrim,
                         ::testing::Values(TrimCase{0, 524040, 463840},
                                           TrimCase{262144, 288358, 104860},
                                           TrimCase{5242880, 5767168, 3145728}));

TEST_F(LogFile, BelowTheThresholdNothingIsCut) {
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(1000);  // step 100, keep 1000 - 6 * 100 = 400
  const std::string text(1099, 'x');
  log.Write(0, text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(Contents(), text);
}

TEST_F(LogFile, CutOnALineFeedKeepsEverythingAfterIt) {
  // 1100 bytes; the cut is at 1100 - 400 = 700, which is a line feed.
  std::string text(700, 'a');
  text += "\n";
  text += std::string(398, 'b') + "\n";
  ASSERT_EQ(text.size(), 1100u);
  WriteTextFile(Path(), text);
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(1000);
  EXPECT_EQ(Contents(), std::string(398, 'b') + "\n");
}

TEST_F(LogFile, CutInsideALineRemovesThatWholeLine) {
  std::string text(600, 'a');
  text += "\n";
  text += std::string(200, 'b') + "\n";  // the cut at 700 lands in here
  text += std::string(297, 'c') + "\n";
  ASSERT_EQ(text.size(), 1100u);
  WriteTextFile(Path(), text);
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(1000);
  EXPECT_EQ(Contents(), std::string(297, 'c') + "\n");
}

TEST_F(LogFile, NoLineFeedAfterTheCutRemovesTheWholeFile) {
  std::string text(100, 'a');
  text += "\n";
  text += std::string(999, 'b');
  WriteTextFile(Path(), text);
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(1000);
  EXPECT_EQ(Contents(), "");
  EXPECT_TRUE(log.IsOpen());
  log.Write(0, "fresh\n", 6);
  EXPECT_EQ(Contents(), "fresh\n");
}

TEST_F(LogFile, ExistingSizeCountsTowardsTheLimit) {
  // A file that is already at the default limit is cut by the next write.
  std::string text;
  int n = 0;
  while (text.size() < 524000) text += NumberedLine(n++);
  text.resize(523990);
  text += "\r\n";
  WriteTextFile(Path(), text);
  CLog log(Path().c_str(), 2);
  const std::string line = std::string(60, 'z') + "\r\n";
  log.Write(0, line.data(), static_cast<int>(line.size()));
  const std::string kept = Contents();
  EXPECT_LE(kept.size(), 463840u);
  EXPECT_EQ(kept.substr(kept.size() - line.size()), line);
}

TEST_F(LogFile, ConcurrentWritersKeepLinesWholeAcrossTrims) {
  CLog log(Path().c_str(), 2);
  log.SetMaxSize(20000);
  constexpr int kThreads = 4;
  constexpr int kLines = 1500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      CMemLog memlog(&log);
      for (int i = 0; i < kLines; ++i) {
        memlog << CLogManip(0) << "thread " << t << " line " << i << " "
               << std::string(static_cast<std::size_t>(i % 40), '.').c_str() << "|" << lend;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  const std::string kept = Contents();
  ASSERT_FALSE(kept.empty());
  EXPECT_LE(kept.size(), 20000u + 2000u);
  std::size_t start = 0;
  int lines = 0;
  while (start < kept.size()) {
    const std::size_t end = kept.find("\r\n", start);
    ASSERT_NE(end, std::string::npos) << "a line was cut short";
    const std::string line = kept.substr(start, end - start);
    EXPECT_EQ(line.rfind("thread ", 0), 0u) << line;
    EXPECT_EQ(line.back(), '|') << line;
    start = end + 2;
    ++lines;
  }
  EXPECT_GT(lines, 0);
}

// ---------------------------------------------------------------- manager --

TEST_F(LogFile, ManagerRegistersOnlyOpenLogs) {
  CLogManager manager;
  EXPECT_TRUE(manager.CreateLog(2, (dir / "proxy.log").c_str()));
  CLog* proxy = manager.GetLog(2);
  ASSERT_NE(proxy, nullptr);
  EXPECT_TRUE(proxy->IsOpen());
  EXPECT_EQ(proxy->GetNumber(), 2);

  EXPECT_TRUE(manager.CreateLog(4, (dir / "no/such/dir/blocked.log").c_str()));
  EXPECT_EQ(manager.GetLog(4), nullptr);
  EXPECT_EQ(manager.GetLog(8), nullptr);

  // A second create replaces the log; a failing one removes the old.
  EXPECT_TRUE(manager.CreateLog(2, (dir / "other.log").c_str()));
  ASSERT_NE(manager.GetLog(2), nullptr);
  EXPECT_STREQ(manager.GetLog(2)->GetFileName(), (dir / "other.log").c_str());
  EXPECT_TRUE(manager.CreateLog(2, (dir / "gone/proxy.log").c_str()));
  EXPECT_EQ(manager.GetLog(2), nullptr);

  manager.CreateLog(8, (dir / "request.log").c_str());
  manager.Reserved3();
  manager.Reserved4();
  EXPECT_NE(manager.GetLog(8), nullptr);
  manager.DeleteAll();
  EXPECT_EQ(manager.GetLog(8), nullptr);
}

TEST(LogManager, OneInstancePerProcess) {
  CLogManager* first = CLogManager::Instance();
  EXPECT_EQ(first, CLogManager::Instance());
  std::atomic<CLogManager*> fromThread{nullptr};
  std::thread([&] { fromThread = CLogManager::Instance(); }).join();
  EXPECT_EQ(fromThread.load(), first);
}

}  // namespace
