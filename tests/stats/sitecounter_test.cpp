#include "stats/sitecounterimpl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "stats/counterfile.h"
#include "support/tempdir.h"

namespace {

struct TestSiteCounter : CSiteCounterImpl {
  void AMinuteLater() { SetLastSave(os::Time64() - 60); }
};

// The value at path ("Global/History") of a stored file; -1 when absent.
long long FileValue(const std::string& file, const char* path) {
  CSecureXMLParser doc;
  if (doc.ParseFile(file.c_str()) != 0) return -2;
  if (!doc.GetNode(path).IsFound()) return -1;
  CBufStream text;
  doc.GetValue(path, text);
  return static_cast<long long>(vxstats::ParseU64(text.GetBuffer()));
}

class SiteCounterFiles : public ::testing::Test {
 protected:
  void OpenBoth(CSiteCounterImpl& counter) {
    ASSERT_TRUE(counter.Open(sites_.c_str()));
    ASSERT_TRUE(counter.OpenGlobal(global_.c_str()));
  }
  std::map<std::string, std::string> Sites(CSiteCounter& counter, std::uint64_t* total) {
    CSiteList* list = counter.GetSites();
    std::map<std::string, std::string> sites = list->sites;
    *total = list->total;
    counter.FreeSites(list);
    return sites;
  }

  TempDir dir_;
  const std::string sites_ = dir_ / "siteinfo.log";
  const std::string global_ = dir_ / "sitecounter.xml";
};

TEST_F(SiteCounterFiles, AddSiteSeedsHistoryFromTheCounterAndClearSitesKeepsIt) {
  TestSiteCounter counter;
  OpenBoth(counter);
  counter.AddSite("a.example");
  EXPECT_EQ(counter.GetSiteHistory(), 2u);  // seeded from the raised Counter, plus one
  counter.AddSite("a.example");
  EXPECT_EQ(counter.GetSiteHistory(), 3u);
  counter.AddSite("b.example");
  std::uint64_t total = 0;
  using Map = std::map<std::string, std::string>;
  EXPECT_EQ(Sites(counter, &total), (Map{{"a.example", "2"}, {"b.example", "1"}}));
  EXPECT_EQ(total, 3u);
  EXPECT_EQ(counter.GetSitesCounter(), 3u);

  counter.ClearSites();
  EXPECT_TRUE(Sites(counter, &total).empty());
  EXPECT_EQ(total, 0u);
  EXPECT_EQ(counter.GetSiteHistory(), 4u);
  EXPECT_EQ(FileValue(sites_, "Global/History"), 4);
  EXPECT_EQ(FileValue(sites_, "Global/Counter"), -1);
  EXPECT_EQ(FileValue(sites_, "Sites/a.example/Counter"), -1);
  // History now has a value of its own, so the new Counter does not reseed it.
  counter.AddSite("a.example");
  EXPECT_EQ(counter.GetSiteHistory(), 5u);
  EXPECT_EQ(counter.GetSitesCounter(), 1u);
  EXPECT_EQ(counter.GetHistory(), 4u);
}

TEST_F(SiteCounterFiles, AddsWriteBothFilesOnlyOnceAMinuteHasPassed) {
  TestSiteCounter counter;
  OpenBoth(counter);
  counter.AddSite("a.example");
  counter.AddBytes(10, 20);
  counter.AddRequests(1);
  EXPECT_EQ(FileValue(sites_, "Sites/a.example/Counter"), -1);
  EXPECT_EQ(FileValue(global_, "Global/History"), -1);

  counter.AMinuteLater();
  counter.AddAdSize(5);
  EXPECT_EQ(FileValue(sites_, "Sites/a.example/Counter"), 1);
  EXPECT_EQ(FileValue(global_, "Global/History"), 1);  // the other fields: GlobalCounter tests

  // The save started the next minute.
  counter.AddSite("b.example");
  EXPECT_EQ(FileValue(sites_, "Sites/b.example/Counter"), -1);
  EXPECT_EQ(FileValue(global_, "Global/History"), 1);
}

TEST_F(SiteCounterFiles, SwitchedOffStoresAtOnceThenCountsOnlyGlobally) {
  {
    TestSiteCounter counter;
    OpenBoth(counter);
    counter.AddSite("a.example");
    counter.SetLoaded(false);
    EXPECT_EQ(FileValue(sites_, "Sites/a.example/Counter"), 1);
    counter.AddSite("b.example");
    counter.AMinuteLater();
    counter.AddBytes(1, 1);
    EXPECT_EQ(counter.GetHistory(), 2u);
    EXPECT_EQ(FileValue(sites_, "Sites/b.example/Counter"), -1);
    EXPECT_EQ(FileValue(global_, "Global/History"), -1);
  }
  // Only the global counters are saved at destruction.
  EXPECT_EQ(FileValue(global_, "Global/History"), 2);
  EXPECT_EQ(FileValue(sites_, "Sites/b.example/Counter"), -1);
}

TEST_F(SiteCounterFiles, ConcurrentWorkersCountExactlyWhileSavesRun) {
  constexpr int kWorkers = 6;
  constexpr int kRounds = 300;
  const char* const kSites[] = {"a.example", "b.example", "c.example"};
  WriteTextFile(global_, "<Vexilo><Global><RequestHistory>0</RequestHistory></Global></Vexilo>");
  {
    TestSiteCounter counter;
    OpenBoth(counter);
    std::atomic<bool> done{false};
    std::thread host([&] {
      // Forces a periodic save on the next add, over and over, and reads
      // the counters the way a host does meanwhile.
      while (!done.load()) {
        counter.AMinuteLater();
        std::uint64_t sent = 0;
        counter.GetBytes(&sent, nullptr, nullptr);
        counter.FreeSites(counter.GetSites());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
      workers.emplace_back([&, w] {
        for (int i = 0; i < kRounds; ++i) {
          counter.AddSite(kSites[(w + i) % 3]);
          counter.AddBytes(1, 2);
          counter.AddRequests(1);
        }
      });
    }
    for (std::thread& t : workers) t.join();
    done = true;
    host.join();

    constexpr std::uint64_t kAll = kWorkers * kRounds;
    std::uint64_t sent = 0, received = 0, adSize = 0;
    counter.GetBytes(&sent, &received, &adSize);
    EXPECT_EQ(sent, kAll);
    EXPECT_EQ(received, 2 * kAll);
    EXPECT_EQ(counter.GetHistory(), kAll);
    EXPECT_EQ(counter.GetRequestHistory(), kAll);
    std::uint64_t total = 0;
    for (const auto& [site, count] : Sites(counter, &total)) {
      EXPECT_EQ(count, std::to_string(kAll / 3)) << site;
    }
    EXPECT_EQ(total, kAll);
    counter.SetLoaded(false);
  }
  EXPECT_EQ(FileValue(global_, "Global/History"), kWorkers * kRounds);
  EXPECT_EQ(FileValue(global_, "Global/RequestHistory"), kWorkers * kRounds);
  EXPECT_EQ(FileValue(global_, "Global/BytesRecvd"), 2 * kWorkers * kRounds);
  EXPECT_EQ(FileValue(sites_, "Global/Counter"), kWorkers * kRounds);
}

}  // namespace
