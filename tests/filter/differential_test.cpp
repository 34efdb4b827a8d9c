// The engine against the literal walk on the shared list and request corpus:
// every verdict must be the same.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "corpus.h"
#include "platform/platform.h"
#include "reference_filter.h"
#include "vxproxy/filterengine.h"

namespace {

const std::string kData = VX_SHARED_DIR "/data";
const std::string kList = kData + "/easylist-joined.txt";
const std::string kRequests = kData + "/requests-5k.tsv";

// The literal walk costs about a millisecond a request; under a sanitizer a
// slice of the corpus keeps the run short.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kRequestLimit = 1000;
#else
constexpr std::size_t kRequestLimit = 0;
#endif

bool HaveData() { return os::FileExists(kList.c_str()) && os::FileExists(kRequests.c_str()); }

struct Disagreements {
  int count = 0;
  std::ostringstream sample;
  void Add(const corpus::Request& r, bool redirect, int engine, int literal) {
    if (++count <= 20) {
      sample << r.url << " type=" << r.typeWord << " referer=" << r.referer
             << " redirect=" << redirect << ": engine " << engine << ", literal walk " << literal
             << "\n";
    }
  }
};

class Differential : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HaveData()) GTEST_SKIP() << "shared data not found under " << kData;
    requests_ = corpus::Load(kRequests, kRequestLimit);
    ASSERT_GT(requests_.size(), 500u);
    ASSERT_TRUE(engine_.SetFiltersFile(kList.c_str()));
    ASSERT_TRUE(engine_.LoadFilters());
    ASSERT_TRUE(literal_.LoadFilters(kList));
  }

  // Runs both over the corpus; returns the verdict counts of the engine.
  std::map<int, int> Compare(bool redirect, Disagreements* d) {
    std::map<int, int> counts;
    for (const corpus::Request& r : requests_) {
      std::map<std::string, std::string> headers;
      if (!r.referer.empty()) headers["referer"] = r.referer;
      const int engine = engine_.CheckRequest(r.host, r.target, r.typeWord, headers, redirect);
      const int literal = literal_.CheckRequest(r.host, r.target, r.typeWord, headers, redirect);
      ++counts[engine];
      if (engine != literal) d->Add(r, redirect, engine, literal);
    }
    return counts;
  }

  std::vector<corpus::Request> requests_;
  CFilterEngine engine_;
  reference::ReferenceFilter literal_;
};

TEST_F(Differential, SameVerdictsOnTheSharedCorpus) {
  Disagreements d;
  const std::map<int, int> counts = Compare(false, &d);
  EXPECT_EQ(d.count, 0) << d.sample.str();
  // The corpus reaches every kind of verdict, so agreement means something.
  for (int code : {VerdictNoMatch, VerdictAllowed, VerdictAdServer, VerdictGeneric, VerdictDomain}) {
    EXPECT_GT(counts.count(code), 0u) << "no request got " << code;
  }
  EXPECT_EQ(engine_.GetVersion(), std::string(literal_.version));
}

TEST_F(Differential, SameVerdictsWithoutTheExceptionTypeCheck) {
  Disagreements d;
  Compare(true, &d);
  EXPECT_EQ(d.count, 0) << d.sample.str();
}

TEST_F(Differential, SameVerdictsWithTheListsExceptionsAsApprovedList) {
  // The list's own "@@" lines, exact and wildcard ones, make a large
  // approved list that is searched before everything else.
  const std::string path = ::testing::TempDir() + "vx_filter_approved_corpus.txt";
  {
    std::ifstream list(kList);
    std::ofstream approved(path);
    std::string line;
    while (std::getline(list, line)) {
      if (line.rfind("@@", 0) == 0) approved << line << "\n";
    }
  }
  ASSERT_TRUE(engine_.LoadUserApprovedList(path.c_str()));
  ASSERT_TRUE(literal_.LoadUserApprovedList(path));
  Disagreements d;
  Compare(false, &d);
  EXPECT_EQ(d.count, 0) << d.sample.str();
  std::remove(path.c_str());
}

TEST_F(Differential, SameVerdictsWithoutTheListsExceptions) {
  // One key-less exception of the list lets every request without a
  // referring page pass; without the "@@" lines every request reaches the
  // domain and generic tables.
  const std::string path = ::testing::TempDir() + "vx_filter_blocking_only.txt";
  {
    std::ifstream list(kList);
    std::ofstream blocking(path);
    std::string line;
    while (std::getline(list, line)) {
      if (line.rfind("@@", 0) != 0) blocking << line << "\n";
    }
  }
  CFilterEngine engine;
  reference::ReferenceFilter literal;
  ASSERT_TRUE(engine.SetFiltersFile(path.c_str()));
  ASSERT_TRUE(engine.LoadFilters());
  ASSERT_TRUE(literal.LoadFilters(path));
  Disagreements d;
  int blocked = 0;
  for (const corpus::Request& r : requests_) {
    std::map<std::string, std::string> headers;
    if (!r.referer.empty()) headers["referer"] = r.referer;
    const int a = engine.CheckRequest(r.host, r.target, r.typeWord, headers, false);
    const int b = literal.CheckRequest(r.host, r.target, r.typeWord, headers, false);
    blocked += a != VerdictNoMatch;
    if (a != b) d.Add(r, false, a, b);
  }
  EXPECT_EQ(d.count, 0) << d.sample.str();
  EXPECT_GT(blocked, static_cast<int>(requests_.size() / 10));
  std::remove(path.c_str());
}

}  // namespace
