#include "soak/tally.h"

#include <algorithm>

namespace soak {

void Tally::Add(const std::string& kind, Outcome outcome, long durationMs, const std::string& why) {
  std::lock_guard<std::mutex> lock(mutex_);
  Row& row = rows_[kind];
  ++row.counts[static_cast<int>(outcome)];
  row.totalMs += durationMs;
  row.maxMs = std::max(row.maxMs, durationMs);
  if (outcome != Outcome::kFailed && outcome != Outcome::kHung) return;
  if (reasons_.size() >= kKeptReasons) {
    ++reasonsLeftOut_;
    return;
  }
  reasons_.push_back(std::string(outcome == Outcome::kFailed ? "failed " : "hung   ") + kind +
                     ": " + why + " (" + std::to_string(durationMs) + " ms)");
}

long Tally::Count(Outcome outcome) const {
  std::lock_guard<std::mutex> lock(mutex_);
  long n = 0;
  for (const auto& [kind, row] : rows_) n += row.counts[static_cast<int>(outcome)];
  return n;
}

long Tally::Total() const {
  long n = 0;
  for (const Outcome o : {Outcome::kOk, Outcome::kFailed, Outcome::kHung, Outcome::kCut})
    n += Count(o);
  return n;
}

void Tally::Print(std::FILE* out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::fprintf(out, "%-18s %9s %7s %6s %5s %9s %9s\n", "kind", "ok", "failed", "hung", "cut",
               "mean_ms", "max_ms");
  long sums[4] = {0, 0, 0, 0};
  for (const auto& [kind, row] : rows_) {
    long n = 0;
    for (int i = 0; i < 4; ++i) {
      n += row.counts[i];
      sums[i] += row.counts[i];
    }
    std::fprintf(out, "%-18s %9ld %7ld %6ld %5ld %9lld %9ld\n", kind.c_str(), row.counts[0],
                 row.counts[1], row.counts[2], row.counts[3], n ? row.totalMs / n : 0, row.maxMs);
  }
  std::fprintf(out, "%-18s %9ld %7ld %6ld %5ld\n", "all", sums[0], sums[1], sums[2], sums[3]);
  for (const std::string& line : reasons_) std::fprintf(out, "  %s\n", line.c_str());
  if (reasonsLeftOut_ > 0) std::fprintf(out, "  (%ld more not shown)\n", reasonsLeftOut_);
}

void Tally::WriteTsv(std::FILE* out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::fprintf(out, "kind\tok\tfailed\thung\tcut\tmean_ms\tmax_ms\n");
  for (const auto& [kind, row] : rows_) {
    long n = 0;
    for (const long c : row.counts) n += c;
    std::fprintf(out, "%s\t%ld\t%ld\t%ld\t%ld\t%lld\t%ld\n", kind.c_str(), row.counts[0],
                 row.counts[1], row.counts[2], row.counts[3], n ? row.totalMs / n : 0, row.maxMs);
  }
}

}  // namespace soak
