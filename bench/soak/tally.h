// Counts of the soak driver by kind of request: how many passed, failed
// (a request the origin answered properly came back wrong or not at all),
// hung (a misbehaving case the proxy did not end within its bound) or were
// cut by the end of the run, with their durations and the first failures
// in words.
#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

enum class Outcome { kOk, kFailed, kHung, kCut };

class Tally {
 public:
  void Add(const std::string& kind, Outcome outcome, long durationMs, const std::string& why = "");

  long Count(Outcome outcome) const;
  long Total() const;
  // One line per kind; then the first failures and hangs.
  void Print(std::FILE* out) const;
  // kind, ok, failed, hung, cut, mean_ms, max_ms (tab-separated, with a header line).
  void WriteTsv(std::FILE* out) const;

 private:
  struct Row {
    long counts[4] = {0, 0, 0, 0};
    long long totalMs = 0;
    long maxMs = 0;
  };
  static constexpr std::size_t kKeptReasons = 60;

  mutable std::mutex mutex_;
  std::map<std::string, Row> rows_;
  std::vector<std::string> reasons_;
  long reasonsLeftOut_ = 0;
};

}  // namespace soak
