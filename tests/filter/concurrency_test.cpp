// Many worker threads check requests on one engine at once, without a lock.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corpus.h"
#include "platform/platform.h"
#include "vxproxy/filterengine.h"

namespace {

constexpr int kThreads = 8;

TEST(ConcurrentChecks, EightThreadsGetTheSingleThreadedVerdicts) {
  const std::string list = VX_SHARED_DIR "/data/easylist-joined.txt";
  const std::string requests = VX_SHARED_DIR "/data/requests-5k.tsv";
  if (!os::FileExists(list.c_str()) || !os::FileExists(requests.c_str())) {
    GTEST_SKIP() << "shared data not found under " VX_SHARED_DIR "/data";
  }
  const std::vector<corpus::Request> corpus = corpus::Load(requests);
  ASSERT_FALSE(corpus.empty());

  CFilterEngine engine;
  std::atomic<int> errors{0};
  engine.SetErrorReporter([](void* context, const char*, const char*) { ++*static_cast<std::atomic<int>*>(context); },
                          &errors);
  ASSERT_TRUE(engine.SetFiltersFile(list.c_str()));
  ASSERT_TRUE(engine.LoadFilters());

  std::vector<int> expected;
  for (const corpus::Request& r : corpus) {
    FilterRequestInfo info{r.host, r.target, r.typeWord, r.referer, false};
    expected.push_back(engine.CheckRequest(info));
  }

  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread walks the corpus from its own starting point, half of
      // them through the copying entry point the service uses.
      for (std::size_t k = 0; k < corpus.size(); ++k) {
        const std::size_t i = (k + static_cast<std::size_t>(t) * corpus.size() / kThreads) % corpus.size();
        const corpus::Request& r = corpus[i];
        int verdict;
        if (t % 2 == 0) {
          verdict = engine.CheckRequest(FilterRequestInfo{r.host, r.target, r.typeWord, r.referer, false});
        } else {
          std::map<std::string, std::string> headers;
          if (!r.referer.empty()) headers["referer"] = r.referer;
          verdict = engine.CheckRequest(r.host, r.target, r.typeWord, headers, false);
        }
        if (verdict != expected[i]) ++mismatches;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(errors.load(), 0);
}

}  // namespace
