// Loading while checks run: every check answers from one whole set of lists,
// the old or the new, and never waits for a load to finish.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "engine_fixture.h"
#include "support/wait.h"

namespace {

constexpr int kWaitMs = 10000;

// Two sets of lists whose mixtures give verdicts of their own: A's filters
// with B's approved list block the banner as generic, B's filters with A's
// approved list block the ad server as an ordinary domain, and no lists at
// all pass both.
struct ListSet {
  std::string filters, approved, version;
};
const ListSet kSetA = {"! version=1\n" + kAdServers + "||ads.example.com^\n/banner/\n",
                       "@@||site.example^\n", "1"};
const ListSet kSetB = {"! version=2\n" + kThirdParty + "||ads.example.com^\n/promo/\n",
                       "@@||ads.example.com^$image\n", "2"};

struct ReloadProbe {
  FilterRequestInfo request;
  int verdictA, verdictB;
};
constexpr std::array<ReloadProbe, 2> kProbes = {{
    {{.host = "ads.example.com", .path = "/x.gif", .typeWord = "gif", .referer = ""},
     VerdictAdServer, VerdictAllowed},
    {{.host = "site.example", .path = "/banner/x.gif", .typeWord = "gif", .referer = ""},
     VerdictAllowed, VerdictNoMatch},
}};

class Reload : public EngineTest {
 protected:
  // Writes both sets once; loads then only switch between the files.
  Reload() {
    for (const auto& [name, set] : {std::pair{"a", kSetA}, std::pair{"b", kSetB}}) {
      WriteTextFile(FiltersPath(name), set.filters);
      WriteTextFile(ApprovedPath(name), set.approved);
    }
  }
  std::string FiltersPath(const std::string& set) const { return dir_ / (set + "-filters.txt"); }
  std::string ApprovedPath(const std::string& set) const { return dir_ / (set + "-approved.txt"); }
  bool LoadSet(const std::string& set) {
    return engine_->LoadLists(FiltersPath(set).c_str(), ApprovedPath(set).c_str());
  }
};

TEST_F(Reload, ChecksOnManyThreadsSeeTheOldListsOrTheNewNeverAMixture) {
  constexpr int kThreads = 4;
  constexpr int kReloads = 60;
  ASSERT_TRUE(LoadSet("a"));
  std::atomic<bool> loading{true};
  std::atomic<long> rounds{0};  // checks of every probe, counted as they end
  std::atomic<int> strange{0};
  std::array<std::atomic<int>, kProbes.size()> seenA{}, seenB{};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (loading) {
        for (std::size_t i = 0; i < kProbes.size(); ++i) {
          const int verdict = engine_->CheckRequest(kProbes[i].request);
          if (verdict == kProbes[i].verdictA) {
            ++seenA[i];
          } else if (verdict == kProbes[i].verdictB) {
            ++seenB[i];
          } else {
            ++strange;
          }
        }
        const std::string version = engine_->GetVersion();
        if (version != kSetA.version && version != kSetB.version) ++strange;
        engine_->IsDomainRuleHost("ads.example.com");
        ++rounds;
      }
    });
  }
  for (int n = 1; n <= kReloads && !HasFailure(); ++n) {
    EXPECT_TRUE(LoadSet(n % 2 == 0 ? "a" : "b"));
    // Each thread ends at most one round that began before the load took
    // effect, so one more than that makes sure every probe saw these lists.
    const long published = rounds;
    EXPECT_TRUE(vxtest::WaitUntil([&] { return rounds >= published + kThreads + 1; }, kWaitMs));
  }
  loading = false;
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(strange.load(), 0);
  for (std::size_t i = 0; i < kProbes.size(); ++i) {
    EXPECT_GT(seenA[i].load(), 0) << i;
    EXPECT_GT(seenB[i].load(), 0) << i;
  }
  EXPECT_TRUE(errors_.empty());
}

TEST_F(Reload, ChecksGoOnWithTheOldListsWhileALoadWaitsForItsFile) {
  ASSERT_TRUE(LoadSet("a"));
  // A pipe as the filters file: the load reads what has been written and
  // waits for the rest until the writing end closes.
  const std::string pipePath = dir_ / "slow-filters.txt";
  int status = -1;
  vxtest::RunCommand("mkfifo '" + pipePath + "'", &status);
  ASSERT_EQ(status, 0);
  // Opened both ways, the pipe does not wait for a reader to open it.
  std::fstream pipe(pipePath, std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(pipe.is_open());
  std::atomic<bool> loadEnded{false};
  bool loaded = false;
  std::thread loader([&] {
    loaded = engine_->LoadLists(pipePath.c_str(), ApprovedPath("b").c_str());
    loadEnded = true;
  });
  // More than the pipe holds: once it is written the load is under way.
  pipe << kSetB.filters << std::string(256 * 1024, '!') << '\n';
  pipe.flush();

  auto checks = std::async(std::launch::async, [&] {
    std::vector<int> verdicts;
    for (const ReloadProbe& p : kProbes) verdicts.push_back(engine_->CheckRequest(p.request));
    verdicts.push_back(engine_->IsDomainRuleHost("ads.example.com") ? 1 : 0);
    verdicts.push_back(std::stoi(engine_->GetVersion()));
    return verdicts;
  });
  const bool prompt = checks.wait_for(std::chrono::milliseconds(kWaitMs)) == std::future_status::ready;
  EXPECT_FALSE(loadEnded);
  pipe << "/tail/\n";
  pipe.close();
  loader.join();
  ASSERT_TRUE(prompt) << "a check waited for the load";
  EXPECT_EQ(checks.get(), (std::vector<int>{VerdictAdServer, VerdictAllowed, 1, 1}));
  EXPECT_TRUE(loaded);
  // The whole file counts, the line after the wait included.
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("ads.example.com", "/x.js", "js"), VerdictDomain);
  EXPECT_EQ(Check("site.example", "/tail/x.gif", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/banner/x.gif", "gif"), VerdictNoMatch);
  EXPECT_FALSE(engine_->IsDomainRuleHost("ads.example.com"));
  EXPECT_EQ(engine_->GetVersion(), "2");
  EXPECT_TRUE(errors_.empty());
}

}  // namespace
