#include "stats/globalcounter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/platform.h"
#include "stats/counterfile.h"
#include "support/process.h"
#include "support/tempdir.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kCounterChild = VX_BINARY_DIR "/tests/counter_child";

// A semaphore of its own, so a test that holds it blocks nobody else.
std::string UniqueSemaphore() {
  static std::atomic<int> counter{0};
  return "vxtest-counter-" + std::to_string(Clock::now().time_since_epoch().count()) + "-" +
         std::to_string(counter.fetch_add(1));
}

// The file's value at Global/name; -1 when the element is absent.
long long FileValue(const std::string& path, const char* name) {
  CSecureXMLParser doc;
  if (doc.ParseFile(path.c_str()) != 0) return -2;
  CVxXMLElement global = doc.GetNodeByName("Global");
  if (!global.IsFound() || !doc.GetNode(name, global).IsFound()) return -1;
  return static_cast<long long>(vxstats::ReadU64(doc, global, (std::string("./") + name).c_str()));
}

struct Totals {
  std::uint64_t requests, history, sent, received, adSize;
  bool operator==(const Totals&) const = default;
};

Totals Read(CGlobalCounter& counter) {
  Totals t{counter.GetRequestHistory(), counter.GetHistory(), 0, 0, 0};
  counter.GetBytes(t.sent, t.received, t.adSize);
  return t;
}

TEST(GlobalCounter, MissingOrBrokenFileBecomesBlankAndReadsZero) {
  TempDir dir;
  // Every kind of unreadable file takes the same way; XmlStoreFiles tells them apart.
  for (const char* content : {static_cast<const char*>(nullptr), "<Vexilo>"}) {
    const std::string path = dir / "sitecounter.xml";
    std::remove(path.c_str());
    if (content != nullptr) WriteTextFile(path, content);
    CGlobalCounter counter(UniqueSemaphore().c_str());
    ASSERT_TRUE(counter.Open(path.c_str()));
    EXPECT_EQ(ReadTextFile(path).find("<Global"), std::string::npos);
    EXPECT_NE(ReadTextFile(path).find("<Vexilo"), std::string::npos);
    EXPECT_EQ(Read(counter), (Totals{0, 0, 0, 0, 0}));
  }
}

TEST(GlobalCounter, SaveMergesWithTheFileAndAddsMissingElements) {
  TempDir dir;
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path,
                "<Vexilo><Global><RequestHistory>9</RequestHistory><History>4</History>"
                "<BytesSend>junk</BytesSend></Global></Vexilo>");
  CGlobalCounter counter(UniqueSemaphore().c_str());
  ASSERT_TRUE(counter.Open(path.c_str()));
  EXPECT_EQ(Read(counter), (Totals{9, 4, 0, 0, 0}));

  counter.AddRequests(2);
  counter.AddRequests(-1);
  counter.IncHistory();
  counter.AddBytes(10, 20);
  counter.AddAdSize(300);
  const Totals before = Read(counter);
  EXPECT_EQ(before, (Totals{10, 5, 10, 20, 300}));
  counter.Save();
  EXPECT_EQ(Read(counter), before);
  EXPECT_EQ(FileValue(path, "RequestHistory"), 10);
  EXPECT_EQ(FileValue(path, "History"), 5);
  EXPECT_EQ(FileValue(path, "BytesSend"), 10);
  EXPECT_EQ(FileValue(path, "BytesRecvd"), 20);
  EXPECT_EQ(FileValue(path, "AdSize"), 300);

  // What another process stored meanwhile is kept and shows in the getters.
  WriteTextFile(path, "<Vexilo><Global><RequestHistory>100</RequestHistory></Global></Vexilo>");
  counter.AddRequests(1);
  counter.Save();
  EXPECT_EQ(FileValue(path, "RequestHistory"), 101);
  EXPECT_EQ(FileValue(path, "History"), 0);
  EXPECT_EQ(Read(counter), (Totals{101, 0, 0, 0, 0}));
}

TEST(GlobalCounter, SemaphoreTimeOutKeepsIncrementsPending) {
  TempDir dir;
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path, "<Vexilo><Global><History>1</History></Global></Vexilo>");
  const std::string name = UniqueSemaphore();
  CGlobalCounter counter(name.c_str());
  ASSERT_TRUE(counter.Open(path.c_str()));
  counter.IncHistory();
  CSem holder(name.c_str());
  ASSERT_NE(holder.Lock(0), kLockTimedOut);
  const auto start = Clock::now();
  counter.Save();
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(2900));
  EXPECT_EQ(FileValue(path, "History"), 1);
  holder.UnLock();
  counter.Save();
  EXPECT_EQ(FileValue(path, "History"), 2);
}

TEST(GlobalCounter, StartTimeIsMarkedThroughTheMergeAndKeptOnceKnown) {
  TempDir dir;
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path, "<Vexilo><Global><RequestHistory>1</RequestHistory></Global></Vexilo>");
  CGlobalCounter counter(UniqueSemaphore().c_str());
  ASSERT_TRUE(counter.Open(path.c_str()));
  WriteTextFile(path, "<Vexilo><Global><RequestHistory>50</RequestHistory></Global></Vexilo>");
  counter.AddRequests(1);
  EXPECT_EQ(counter.GetStatStartTime(), 0);
  EXPECT_EQ(FileValue(path, "StatStartTime"), 0);
  EXPECT_EQ(FileValue(path, "RequestHistory"), 51);

  // Recorded by another process since: taken over, not overwritten.
  WriteTextFile(path, "<Vexilo><Global><StatStartTime>1700000000</StatStartTime></Global></Vexilo>");
  EXPECT_EQ(counter.GetStatStartTime(), 1700000000);
  EXPECT_EQ(FileValue(path, "StatStartTime"), 1700000000);
  WriteTextFile(path, "<Vexilo/>");
  EXPECT_EQ(counter.GetStatStartTime(), 1700000000);
}

TEST(GlobalCounterProcesses, TwoProcessesAddingFiveEachLeaveTheFileTenHigher) {
  TempDir dir;
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path, "<Vexilo><Global><RequestHistory>7</RequestHistory></Global></Vexilo>");
  const std::string go = dir / "go";
  vxtest::ChildProcess first, second;
  ASSERT_TRUE(first.Start(kCounterChild, {path, "5", go}));
  ASSERT_TRUE(second.Start(kCounterChild, {path, "5", go}));
  ASSERT_EQ(first.ReadLine(10000), "opened");
  ASSERT_EQ(second.ReadLine(10000), "opened");
  WriteTextFile(go, "");
  EXPECT_EQ(first.ReadLine(10000).rfind("saved ", 0), 0u);
  EXPECT_EQ(second.ReadLine(10000).rfind("saved ", 0), 0u);
  EXPECT_EQ(first.Wait(10000), 0);
  EXPECT_EQ(second.Wait(10000), 0);
  EXPECT_EQ(FileValue(path, "RequestHistory"), 17);
}

TEST(GlobalCounterProcesses, AHolderKilledWithTheSemaphoreDoesNotBlockTheNextSave) {
  TempDir dir;
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path, "<Vexilo><Global><History>3</History></Global></Vexilo>");
  vxtest::ChildProcess holder;
  ASSERT_TRUE(holder.Start(kCounterChild, {"hold"}));
  ASSERT_EQ(holder.ReadLine(10000), "locked");
  {
    CSem probe(vxstats::kCounterLockName);
    EXPECT_EQ(probe.Lock(0), kLockTimedOut);
  }
  CGlobalCounter counter;
  ASSERT_TRUE(counter.Open(path.c_str()));
  counter.IncHistory();
  holder.Kill();
  holder.Wait(5000);
  const auto start = Clock::now();
  counter.Save();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2500));
  EXPECT_EQ(FileValue(path, "History"), 4);
}

}  // namespace
