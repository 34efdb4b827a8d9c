// Filter engine figures on the shared list and request corpus: load time,
// resident memory added by a loaded engine, and the time of one check over
// every request (median, p99, mean), beside the literal walk's median and the
// peer engines' figures measured on the same files. Nothing is asserted.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "filter/corpus.h"
#include "filter/engine.h"
#include "filter/reference_filter.h"

namespace {

const std::string kData = VX_SHARED_DIR "/data";
const std::string kList = kData + "/easylist-joined.txt";
const std::string kRequests = kData + "/requests.tsv";
const std::string kAnchors = VX_SHARED_DIR "/bench/filter-anchors/README.md";

constexpr int kLoadRuns = 5;       // the first is cold; the figure is the median of the others
constexpr int kTimedPasses = 2;    // after one warm-up pass
constexpr std::size_t kReferenceRequests = 4000;

using Clock = std::chrono::steady_clock;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Resident set size in bytes, from the kernel's process status file.
long ResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6)) * 1024;
  }
  return 0;
}

// Nearest-rank percentile, as the peers' harness computes it.
double Percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::clamp<std::size_t>(rank, 1, sorted.size());
  return sorted[rank - 1];
}

struct Summary {
  double median = 0, p99 = 0, mean = 0, max = 0;
};

Summary Summarize(std::vector<double> ns) {
  std::sort(ns.begin(), ns.end());
  Summary s;
  double sum = 0;
  for (double v : ns) sum += v;
  s.median = Percentile(ns, 50) / 1000;
  s.p99 = Percentile(ns, 99) / 1000;
  s.mean = ns.empty() ? 0 : sum / static_cast<double>(ns.size()) / 1000;
  s.max = ns.empty() ? 0 : ns.back() / 1000;
  return s;
}

std::vector<FilterRequestInfo> Infos(const std::vector<corpus::Request>& requests) {
  std::vector<FilterRequestInfo> out;
  for (const corpus::Request& r : requests) {
    FilterRequestInfo info;
    info.host = r.host;
    info.path = r.target;
    info.typeWord = r.typeWord;
    info.referer = r.referer;
    out.push_back(info);
  }
  return out;
}

void PrintPeers() {
  std::ifstream readme(kAnchors);
  if (!readme) {
    std::printf("peers: %s not found\n", kAnchors.c_str());
    return;
  }
  std::printf("peers (figures recorded in %s):\n", kAnchors.c_str());
  std::string line;
  while (std::getline(readme, line)) {
    if (line.rfind("| list load", 0) == 0 || line.rfind("| RSS", 0) == 0 ||
        line.rfind("| decision", 0) == 0 || line.rfind("| metric", 0) == 0) {
      std::printf("  %s\n", line.c_str());
    }
  }
}

void PrintFigures() {
  std::printf("filter engine on %s\n", kList.c_str());
  // Memory first, before anything else has been allocated and freed.
  const long before = ResidentBytes();
  CFilterEngineImpl engine;
  std::vector<double> loads;
  for (int run = 0; run < kLoadRuns; ++run) {
    const Clock::time_point t0 = Clock::now();
    const std::clock_t cpu0 = std::clock();
    engine.SetFiltersFile(kList.c_str());
    const bool ok = engine.LoadFilters();
    loads.push_back(Ms(Clock::now() - t0));
    if (!ok) std::printf("  load failed\n");
    if (run == 0) {
      // The first load also pays for every fresh page it touches; the
      // processor time shows how much of the wall time was other work.
      const double cpuMs = 1000.0 * static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;
      const long after = ResidentBytes();
      std::printf("  first load: %.1f ms (%.1f ms processor time), resident memory added: %.1f MB\n",
                  loads[0], cpuMs, static_cast<double>(after - before) / (1024.0 * 1024.0));
    }
  }
  std::vector<double> reloads(loads.begin() + 1, loads.end());
  std::sort(reloads.begin(), reloads.end());
  std::printf("  load, median of %zu reloads: %.1f ms\n", reloads.size(), reloads[reloads.size() / 2]);

  const std::vector<corpus::Request> requests = corpus::Load(kRequests);
  const std::vector<FilterRequestInfo> infos = Infos(requests);
  std::printf("  %zu requests from %s\n", requests.size(), kRequests.c_str());

  std::map<int, int> verdicts;
  for (const FilterRequestInfo& info : infos) ++verdicts[engine.CheckRequest(info)];
  std::vector<double> ns;
  ns.reserve(infos.size() * kTimedPasses);
  for (int pass = 0; pass < kTimedPasses; ++pass) {
    for (const FilterRequestInfo& info : infos) {
      const Clock::time_point t0 = Clock::now();
      benchmark::DoNotOptimize(engine.CheckRequest(info));
      ns.push_back(static_cast<double>(std::chrono::nanoseconds(Clock::now() - t0).count()));
    }
  }
  const Summary s = Summarize(ns);
  std::printf("  CheckRequest: median %.2f us, p99 %.2f us, mean %.2f us, max %.1f us\n", s.median,
              s.p99, s.mean, s.max);
  std::printf("  verdicts:");
  int blocked = 0;
  for (auto [code, count] : verdicts) {
    std::printf(" %d=%d", code, count);
    if (code != VerdictNoMatch && code != VerdictAllowed) blocked += count;
  }
  std::printf(" (blocked %.2f %%)\n", 100.0 * blocked / static_cast<double>(infos.size()));

  // The service's by-value entry point copies its arguments and the header map.
  ns.clear();
  for (const corpus::Request& r : requests) {
    std::map<std::string, std::string> headers;
    if (!r.referer.empty()) headers["referer"] = r.referer;
    const Clock::time_point t0 = Clock::now();
    benchmark::DoNotOptimize(engine.CheckRequest(r.host, r.target, r.typeWord, headers, false));
    ns.push_back(static_cast<double>(std::chrono::nanoseconds(Clock::now() - t0).count()));
  }
  const Summary byValue = Summarize(ns);
  std::printf("  CheckRequest with copied arguments: median %.2f us, p99 %.2f us, mean %.2f us\n",
              byValue.median, byValue.p99, byValue.mean);

  reference::ReferenceFilter literal;
  literal.LoadFilters(kList);
  ns.clear();
  for (std::size_t i = 0; i < requests.size() && i < kReferenceRequests; ++i) {
    const corpus::Request& r = requests[i];
    std::map<std::string, std::string> headers;
    if (!r.referer.empty()) headers["referer"] = r.referer;
    const Clock::time_point t0 = Clock::now();
    benchmark::DoNotOptimize(literal.CheckRequest(r.host, r.target, r.typeWord, headers, false));
    ns.push_back(static_cast<double>(std::chrono::nanoseconds(Clock::now() - t0).count()));
  }
  const Summary ref = Summarize(ns);
  std::printf("  literal walk (first %zu requests): median %.2f us, p99 %.2f us, mean %.2f us\n",
              ns.size(), ref.median, ref.p99, ref.mean);
  PrintPeers();
  std::fflush(stdout);
}

// Repeated measurements under the benchmark library, for comparisons
// between builds.
void BM_LoadFilters(benchmark::State& state) {
  CFilterEngineImpl engine;
  engine.SetFiltersFile(kList.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(engine.LoadFilters());
}
BENCHMARK(BM_LoadFilters)->Unit(benchmark::kMillisecond);

void BM_CheckCorpus(benchmark::State& state) {
  static const std::vector<corpus::Request> requests = corpus::Load(kRequests);
  static const std::vector<FilterRequestInfo> infos = Infos(requests);
  CFilterEngineImpl engine;
  engine.SetFiltersFile(kList.c_str());
  engine.LoadFilters();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(engine.CheckRequest(infos[i]));
    if (++i == infos.size()) i = 0;
  }
}
BENCHMARK(BM_CheckCorpus);

}  // namespace

int main(int argc, char** argv) {
  if (!std::ifstream(kList) || !std::ifstream(kRequests)) {
    std::printf("shared data not found under %s: nothing to measure\n", kData.c_str());
    return 0;
  }
  PrintFigures();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
