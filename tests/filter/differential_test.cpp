// The engine against the literal walk: on the shared list and request corpus,
// on generated lists, and on the corpus from many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "corpus.h"
#include "engine_fixture.h"
#include "platform/platform.h"
#include "reference_filter.h"

namespace {

const std::string kData = VX_SHARED_DIR "/data";
const std::string kList = kData + "/easylist-joined.txt";

// Under a sanitizer a slice of the corpus keeps the literal walk short.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kRequestLimit = 1000;
#else
constexpr std::size_t kRequestLimit = 0;
#endif

std::map<std::string, std::string> Headers(const std::string& referer) {
  if (referer.empty()) return {};
  return {{"referer", referer}};
}

class SharedCorpus : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string requests = kData + "/requests-5k.tsv";
    if (!os::FileExists(kList.c_str()) || !os::FileExists(requests.c_str())) {
      GTEST_SKIP() << "shared data not found under " << kData;
    }
    requests_ = corpus::Load(requests, kRequestLimit);
    ASSERT_GT(requests_.size(), 500u);
  }

  // Both load the same files and check every request with and without the
  // exception type check; returns the engine's verdict counts.
  std::map<int, int> Compare(const std::string& list, const std::string& approved) {
    CFilterEngineImpl engine;
    reference::ReferenceFilter literal;
    EXPECT_TRUE(engine.SetFiltersFile(list.c_str()) && engine.LoadFilters());
    EXPECT_TRUE(literal.LoadFilters(list));
    engine.LoadUserApprovedList(approved.c_str());
    literal.LoadUserApprovedList(approved);
    std::map<int, int> counts;
    int disagreements = 0;
    for (const corpus::Request& r : requests_) {
      for (bool redirect : {false, true}) {
        const int a = engine.CheckRequest(r.host, r.target, r.typeWord, Headers(r.referer), redirect);
        const int b = literal.CheckRequest(r.host, r.target, r.typeWord, Headers(r.referer), redirect);
        ++counts[a];
        if (a != b && ++disagreements <= 20) {
          ADD_FAILURE() << r.url << " type=" << r.typeWord << " referer=" << r.referer
                        << " redirect=" << redirect << ": engine " << a << ", literal walk " << b;
        }
      }
    }
    EXPECT_EQ(disagreements, 0);
    return counts;
  }

  std::vector<corpus::Request> requests_;
};

TEST_F(SharedCorpus, SameVerdictsAsTheLiteralWalk) {
  const std::map<int, int> counts = Compare(kList, "");
  // The corpus reaches every kind of verdict, so agreement means something.
  for (int code : {VerdictNoMatch, VerdictAllowed, VerdictAdServer, VerdictGeneric, VerdictDomain}) {
    EXPECT_GT(counts.count(code), 0u) << "no request got " << code;
  }
}

TEST_F(SharedCorpus, SameVerdictsWithTheExceptionsAsApprovedList) {
  // One key-less exception of the list lets every request without a
  // referring page pass: without the "@@" lines every request reaches the
  // domain and generic tables; as the approved list they are searched first.
  TempDir dir;
  std::ifstream list(kList);
  std::ofstream blocking(dir / "blocking.txt");
  std::ofstream approved(dir / "approved.txt");
  for (std::string line; std::getline(list, line);) {
    (line.starts_with("@@") ? approved : blocking) << line << "\n";
  }
  blocking.close();
  approved.close();
  const std::map<int, int> counts = Compare(dir / "blocking.txt", "");
  EXPECT_LT(counts.at(VerdictNoMatch), static_cast<int>(requests_.size() * 2 * 9 / 10));
  Compare(dir / "blocking.txt", dir / "approved.txt");
}

TEST_F(SharedCorpus, EightThreadsGetTheSingleThreadedVerdicts) {
  constexpr int kThreads = 8;
  CFilterEngineImpl engine;
  std::atomic<int> errors{0};
  engine.SetErrorReporter(
      [](void* count, const char*, const char*) { ++*static_cast<std::atomic<int>*>(count); }, &errors);
  ASSERT_TRUE(engine.SetFiltersFile(kList.c_str()) && engine.LoadFilters());
  const std::size_t n = requests_.size();
  const auto info = [](const corpus::Request& r) {
    return FilterRequestInfo{r.host, r.target, r.typeWord, r.referer};
  };
  std::vector<int> expected;
  for (const corpus::Request& r : requests_) expected.push_back(engine.CheckRequest(info(r)));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread starts at its own place, half of them through the
      // copying entry point the service uses.
      for (std::size_t k = 0; k < n; ++k) {
        const std::size_t i = (k + t * n / kThreads) % n;
        const corpus::Request& r = requests_[i];
        const int verdict =
            t % 2 == 0 ? engine.CheckRequest(info(r))
                       : engine.CheckRequest(r.host, r.target, r.typeWord, Headers(r.referer), false);
        if (verdict != expected[i]) ++mismatches;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(errors.load(), 0);
}

// Lists and requests built from a small vocabulary, so that keys, wildcards,
// separators, anchors, options and referers meet in combinations the real
// list never shows.
class RandomLists : public EngineTest {
 protected:
  int Below(std::size_t n) { return static_cast<int>(random_() % n); }
  bool Chance(int percent) { return Below(100) < percent; }
  const std::string& Pick(const std::vector<std::string>& v) { return v[Below(v.size())]; }
  std::string Path() {
    std::string p = "/";
    for (int i = Below(6); i > 0; --i) p += Pick(kPieces);
    return p;
  }
  std::string Options() {
    std::string o = Chance(40) ? "$" + Pick(kOptions) : "";
    for (int i = o.empty() ? 0 : Below(3); i > 0; --i) o += "," + Pick(kOptions);
    return o;
  }
  // A host pattern, now and then with a "*" or cut short; rarely none, as a
  // host-anchored rule without a host ends every check that reaches it.
  std::string HostPattern() {
    std::string h = Pick(kHosts);
    const std::size_t at = static_cast<std::size_t>(Below(h.size()));
    const int roll = Below(400);
    if (roll == 0) return "";
    if (roll < 50) h.insert(at, "*");
    if (roll >= 50 && roll < 65) h += "*";
    if (roll >= 65 && roll < 80) h = h.substr(at);
    return h;
  }
  std::string Rule(int hostPercent) {
    std::string r = Chance(hostPercent) ? "||" + HostPattern() : "";
    if (Chance(50)) r += "^";
    if (Chance(60)) r += Path();
    return r + (Chance(15) ? "|" : "") + Options() + "\n";
  }
  std::string Line() {
    const int roll = Below(20);
    if (roll == 0) return kAdServers;
    if (roll == 1) return kThirdParty;
    if (roll == 2) return "@@" + Rule(90);
    if (roll < 10) return Rule(70);
    std::string g = Chance(10) ? "|" : "";
    for (int i = 1 + Below(2); i > 0; --i) g += Pick(kPieces);
    return g + (Chance(10) ? "|" : "") + Options() + "\n";
  }

  const std::vector<std::string> kHosts = {
      "example.com", "ads.example.com", "www.example.com", "cdn.ads.net", "ads.net", "x.co.uk",
      "www.x.co.uk", "a.b.c.d.org", "adserver.net", "co.example.com", "x.co.example.com", "localhost",
      "example.com.evil.net", "img.cdn.net", "www.ad.net", "1.2.3.4", "ad.example.com", "wwwad.net"};
  const std::vector<std::string> kPieces = {
      "/", "ads/", "banner", ".gif", ".js", "?x=", "ad", "+", "|", "^", "-ad-", "img",
      "/ads/", "&ad_", ".com", "www.", "x", ":", "*", "ok", ".net", "cdn", "=", "%2f"};
  const std::vector<std::string> kOptions = {
      "image", "~image", "script", "~script", "object", "~object-subrequest", "document",
      "~document", "subdocument", "stylesheet", "third-party", "~third-party",
      "domain=example.com|~ads.net", "domain=x.co.uk", "domain=example.etc", "domain=~example.com",
      "popup", "", "elemhide"};
  const std::vector<std::string> kTypeWords = {"gif", "js", "css", "htm", "html", "swf", "xml",
                                               "php", "*", "unknown", "jpeg", "GIF", ""};
  const std::vector<std::string> kReferers = {
      "", "http://www.example.com/p", "https://ads.net/", "http://x.co.uk", "http://example/", "garbage",
      "http://user@cdn.ads.net:81/x", "http://img.cdn.net/", "http://a.b.c.d.org/q"};
  std::mt19937 random_{7};
};

TEST_F(RandomLists, SameVerdictsAndErrorsAsTheLiteralWalk) {
  std::map<int, int> seen;
  int checked = 0;
  int disagreements = 0;
  // One of each for all lists: the ad-server section carries over from one
  // load to the next in both.
  reference::ReferenceFilter literal;
  for (int list = 0; list < 40; ++list) {
    std::string filters;
    std::string approved;
    for (int i = 0; i < 120; ++i) filters += Line();
    for (int i = Chance(50) ? 6 : 0; i > 0; --i) approved += "@@" + Rule(90);
    ASSERT_TRUE(LoadFilters(filters) && LoadApproved(approved));
    ASSERT_TRUE(literal.LoadFilters(dir_ / "filters.txt"));
    ASSERT_TRUE(literal.LoadUserApprovedList(dir_ / "vexilowl.txt"));
    for (int i = 0; i < 400; ++i, ++checked) {
      std::string host = Chance(3) ? "" : Pick(kHosts);  // no host: entries that need none
      if (!host.empty() && Chance(10)) host[0] = static_cast<char>(host[0] - 32);
      const std::string path = Path();
      const std::string word = Pick(kTypeWords);
      const std::string referer = Pick(kReferers);
      const bool redirect = Chance(20);
      const int errorsBefore = literal.evaluationErrors;
      const int a = Check(host, path, word, referer, redirect);
      int b = literal.CheckRequest(host, path, word, Headers(referer), redirect);
      if (literal.evaluationErrors != errorsBefore) b = Failed;
      ++seen[a];
      if (a != b && ++disagreements <= 10) {
        ADD_FAILURE() << "list " << list << ": " << host << path << " type=" << word
                      << " referer=" << referer << " redirect=" << redirect << ": engine " << a
                      << ", literal walk " << b;
      }
    }
  }
  EXPECT_EQ(disagreements, 0);
  // Every verdict occurs, so the lists are neither trivially empty nor total.
  for (int code :
       {VerdictNoMatch, VerdictAllowed, VerdictAdServer, VerdictGeneric, VerdictDomain, Failed}) {
    EXPECT_GT(seen[code], checked / 1000) << code;
  }
}

}  // namespace
