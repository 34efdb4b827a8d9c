// The engine against the literal walk on generated lists and requests built
// from a small vocabulary, so that keys, wildcards, separators, anchors,
// options and referers meet in every combination the real list never shows.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine_fixture.h"
#include "reference_filter.h"

namespace {

const std::vector<std::string> kHosts = {
    "example.com",     "ads.example.com", "www.example.com", "cdn.ads.net",   "ads.net",
    "x.co.uk",         "www.x.co.uk",     "a.b.c.d.org",     "adserver.net",  "co.example.com",
    "x.co.example.com", "localhost",      "example.com.evil.net", "img.cdn.net", "www.ad.net",
    "1.2.3.4",         "ad.example.com",  "wwwad.net"};
const std::vector<std::string> kPieces = {"/",     "ads/", "banner", ".gif", ".js",  "?x=", "ad",
                                          "+",     "|",    "^",      "-ad-", "img",  "/ads/",
                                          "&ad_",  ".com", "www.",   "x",    ":",    "*",
                                          "ok",    ".net", "cdn",    "=",    "%2f"};
const std::vector<std::string> kOptions = {
    "image",         "~image",      "script",      "~script",   "object",
    "~object-subrequest", "document", "~document", "subdocument", "stylesheet",
    "third-party",   "~third-party", "domain=example.com|~ads.net", "domain=x.co.uk",
    "domain=example.etc", "domain=~example.com", "popup", "", "elemhide"};
const std::vector<std::string> kTypeWords = {"gif", "js", "css", "htm", "html", "swf", "xml",
                                             "php", "*",  "unknown", "jpeg", "GIF", ""};
const std::vector<std::string> kReferers = {
    "", "http://www.example.com/p", "https://ads.net/", "http://x.co.uk", "http://example/",
    "garbage", "http://user@cdn.ads.net:81/x", "http://img.cdn.net/", "http://a.b.c.d.org/q"};

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  std::string List(int rules, bool approved) {
    std::string text;
    for (int i = 0; i < rules; ++i) text += approved ? "@@" + Rule(90) : Line();
    return text;
  }

  std::string Host() {
    // A request without a host name reaches entries that need none.
    if (Chance(3)) return "";
    std::string h = Pick(kHosts);
    if (Chance(10)) h[0] = static_cast<char>(h[0] - 32);
    return h;
  }
  std::string Path() {
    std::string p = "/";
    const int n = Below(6);
    for (int i = 0; i < n; ++i) p += Pick(kPieces);
    return p;
  }
  std::string TypeWord() { return Pick(kTypeWords); }
  std::string Referer() { return Pick(kReferers); }
  bool Chance(int percent) { return Below(100) < percent; }

 private:
  int Below(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }
  const std::string& Pick(const std::vector<std::string>& v) { return v[static_cast<std::size_t>(Below(static_cast<int>(v.size())))]; }

  std::string HostPattern() {
    std::string h = Pick(kHosts);
    // A host-anchored rule without a host ends every check that reaches it,
    // so only a few lists get one.
    if (Below(400) == 0) return "";
    const int roll = Below(30);
    if (roll < 4) h.insert(static_cast<std::size_t>(Below(static_cast<int>(h.size()))), "*");
    if (roll == 4) h += "*";
    if (roll == 5) h = h.substr(static_cast<std::size_t>(Below(static_cast<int>(h.size()))));
    return h;
  }
  std::string Options() {
    if (!Chance(40)) return "";
    std::string o = "$";
    const int n = 1 + Below(3);
    for (int i = 0; i < n; ++i) o += (i ? "," : "") + Pick(kOptions);
    return o;
  }
  // The text after "||" or "@@".
  std::string Rule(int hostPercent) {
    std::string r;
    if (Chance(hostPercent)) r += "||" + HostPattern();
    if (Chance(50)) r += "^";
    if (Chance(60)) r += Path();
    if (Chance(15)) r += "|";
    return r + Options() + "\n";
  }
  std::string Line() {
    const int roll = Below(20);
    if (roll == 0) return "! *** easylist:easylist/easylist_adservers.txt ***\n";
    if (roll == 1) return "! *** easylist:easylist/easylist_thirdparty.txt ***\n";
    if (roll == 2) return "@@" + Rule(90);
    if (roll < 10) return Rule(70);
    std::string g = Chance(10) ? "|" : "";
    const int n = 1 + Below(2);
    for (int i = 0; i < n; ++i) g += Pick(kPieces);
    if (Chance(10)) g += "|";
    return g + Options() + "\n";
  }

  std::mt19937 random_;
};

class RandomLists : public EngineTest {};

TEST_F(RandomLists, SameVerdictsAndErrorsAsTheLiteralWalk) {
  int disagreements = 0;
  int checked = 0;
  std::map<int, int> seen;
  std::ostringstream sample;
  // One of each for all lists: the ad-server section carries over from one
  // load to the next in both.
  reference::ReferenceFilter literal;
  for (unsigned seed = 1; seed <= 40; ++seed) {
    Generator g(seed);
    const std::string list = g.List(120, false);
    const std::string approved = g.Chance(50) ? g.List(6, true) : "";
    ASSERT_TRUE(LoadFilters(list));
    ASSERT_TRUE(LoadApproved(approved));
    ASSERT_TRUE(literal.LoadFilters(dir_ / "filters.txt"));
    ASSERT_TRUE(literal.LoadUserApprovedList(dir_ / "vexilowl.txt"));
    for (int i = 0; i < 400; ++i) {
      const std::string host = g.Host();
      const std::string path = g.Path();
      const std::string word = g.TypeWord();
      const std::string referer = g.Referer();
      const bool redirect = g.Chance(20);
      std::map<std::string, std::string> headers;
      if (!referer.empty()) headers["referer"] = referer;
      errors_.clear();
      const int errorsBefore = literal.evaluationErrors;
      const int a = engine_.CheckRequest(host, path, word, headers, redirect);
      const int b = literal.CheckRequest(host, path, word, headers, redirect);
      const bool literalFailed = literal.evaluationErrors != errorsBefore;
      ++checked;
      ++seen[a];
      if (a != b || literalFailed != !errors_.empty()) {
        if (++disagreements <= 10) {
          sample << "seed " << seed << ": " << host << path << " type=" << word
                 << " referer=" << referer << " redirect=" << redirect << ": engine " << a
                 << (errors_.empty() ? "" : " (error)") << ", literal walk " << b
                 << (literalFailed ? " (error)" : "") << "\n";
        }
      }
    }
  }
  EXPECT_EQ(disagreements, 0) << sample.str();
  // Every verdict occurs, so the lists are not trivially empty or total.
  for (int code : {VerdictNoMatch, VerdictAllowed, VerdictAdServer, VerdictGeneric, VerdictDomain}) {
    EXPECT_GT(seen[code], checked / 200) << code;
  }
}

}  // namespace
