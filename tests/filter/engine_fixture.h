// An engine loaded from list text written to a temp folder, with the error
// lines it reports collected, and tables of requests with their verdicts.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "filter/engine.h"
#include "support/tempdir.h"

// The check ended with an error line and let the request pass.
constexpr int Failed = -1;

struct Probe {
  std::string host, path, type;
  int verdict;
  std::string referer = "";
  bool redirect = false;
};

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() { Renew(); }

  // A new engine: nothing loaded, no section open.
  void Renew() {
    engine_.emplace();
    engine_->SetErrorReporter([](void* errors, const char* message, const char* detail) {
      static_cast<std::vector<std::string>*>(errors)->push_back(std::string(message) + detail);
    }, &errors_);
    errors_.clear();
  }
  bool LoadFilters(const std::string& text, const std::string& name = "filters.txt") {
    WriteTextFile(dir_ / name, text);
    return engine_->SetFiltersFile((dir_ / name).c_str()) && engine_->LoadFilters();
  }
  bool LoadApproved(const std::string& text) {
    WriteTextFile(dir_ / "vexilowl.txt", text);
    return engine_->LoadUserApprovedList((dir_ / "vexilowl.txt").c_str());
  }
  int Check(const std::string& host, const std::string& path, const std::string& typeWord,
            const std::string& referer = "", bool redirect = false) {
    std::map<std::string, std::string> headers;
    if (!referer.empty()) headers["referer"] = referer;
    const std::size_t before = errors_.size();
    const int verdict = engine_->CheckRequest(host, path, typeWord, headers, redirect);
    if (errors_.size() == before) return verdict;
    return verdict == VerdictNoMatch ? Failed : -verdict;
  }
  void Expect(const std::vector<Probe>& probes) {
    for (const Probe& p : probes) {
      EXPECT_EQ(Check(p.host, p.path, p.type, p.referer, p.redirect), p.verdict)
          << p.host << p.path << " type=" << p.type << " referer=" << p.referer
          << " redirect=" << p.redirect;
    }
  }
  // Each list in a fresh engine, then its probes.
  void Expect(const std::vector<std::pair<std::string, std::vector<Probe>>>& lists) {
    for (const auto& [list, probes] : lists) {
      SCOPED_TRACE(list);
      Renew();
      ASSERT_TRUE(LoadFilters(list));
      Expect(probes);
    }
  }

  TempDir dir_;
  std::optional<CFilterEngineImpl> engine_;
  std::vector<std::string> errors_;
};

inline const std::string kAdServers = "! *** easylist:easylist/easylist_adservers.txt ***\n";
inline const std::string kThirdParty = "! *** easylist:easylist/easylist_thirdparty.txt ***\n";
