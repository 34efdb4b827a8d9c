// Tunnel guard figures on the shared list and request corpus. First a report:
// the share of HTTPS requests whose CONNECT the guard refuses, the share of
// all requests stopped by the proxy's own verdicts (plain HTTP) with and
// without the guard, how the refused requests compare with the recorded
// verdicts of two other blockers on the first rows, and what the engine's own
// verdict is for requests to refused hosts. Then the cost of one decision
// over the corpus's CONNECT hosts under the benchmark library. Nothing is
// asserted.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "filter/corpus.h"
#include "filter/engine.h"

namespace {

const std::string kData = VX_SHARED_DIR "/data";
const std::string kList = kData + "/easylist-joined.txt";
const std::string kRequests = kData + "/requests.tsv";
const std::string kPeers[] = {kData + "/verdicts-ubo.tsv", kData + "/verdicts-ghostery.tsv"};

using Clock = std::chrono::steady_clock;

bool IsHttps(const corpus::Request& r) { return r.url.compare(0, 8, "https://") == 0; }

bool Blocks(int verdict) { return verdict != VerdictNoMatch && verdict != VerdictAllowed; }

double Share(std::size_t part, std::size_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

// Blocked flags of a recorded verdicts file (url, type, source, 0/1), in row order.
std::vector<int> ReadVerdicts(const std::string& file) {
  std::vector<int> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t tab = line.rfind('\t');
    out.push_back(tab != std::string::npos && line.substr(tab + 1) == "1" ? 1 : 0);
  }
  return out;
}

// The CONNECT targets of the corpus's HTTPS requests, one per request.
std::vector<std::string> ConnectHosts(const std::vector<corpus::Request>& requests) {
  std::vector<std::string> out;
  for (const corpus::Request& r : requests) {
    if (IsHttps(r)) out.push_back(r.host + ":443");
  }
  return out;
}

void PrintHosts(const char* title, const std::map<std::string, int>& byHost) {
  std::vector<std::pair<int, std::string>> rows;
  for (const auto& [host, n] : byHost) rows.emplace_back(-n, host);
  std::sort(rows.begin(), rows.end());
  std::printf("  %s: %zu hosts\n", title, rows.size());
  for (const auto& [n, host] : rows) std::printf("    %5d  %s\n", -n, host.c_str());
}

void PrintFigures() {
  // The report reads the whole corpus, including its rows without a host.
  std::vector<std::string> rawUrls;
  {
    std::ifstream in(kRequests);
    std::string line;
    while (std::getline(in, line)) rawUrls.push_back(line.substr(0, line.find('\t')));
  }
  const std::vector<corpus::Request> requests = corpus::Load(kRequests);
  CFilterEngineImpl engine;
  if (!engine.SetFiltersFile(kList.c_str()) || !engine.LoadFilters()) {
    std::printf("cannot load %s\n", kList.c_str());
    return;
  }

  std::size_t https = 0, http = 0, refused = 0, httpBlocked = 0, allJudgedBlocked = 0;
  std::map<std::string, int> refusedHosts;
  std::map<std::string, int> engineAllowsOnRefused;  // exception verdicts on refused hosts
  std::vector<char> refusedRow(requests.size(), 0);
  for (std::size_t i = 0; i < requests.size(); ++i) {
    const corpus::Request& r = requests[i];
    FilterRequestInfo info;
    info.host = r.host;
    info.path = r.target;
    info.typeWord = r.typeWord;
    info.referer = r.referer;
    const int verdict = engine.CheckRequest(info);
    if (Blocks(verdict)) ++allJudgedBlocked;
    const bool guarded = engine.JudgeTunnelHost(r.host).block;
    if (guarded && verdict == VerdictAllowed) ++engineAllowsOnRefused[r.host];
    if (IsHttps(r)) {
      ++https;
      if (guarded) {
        ++refused;
        ++refusedHosts[r.host];
        refusedRow[i] = 1;
      }
    } else {
      ++http;
      if (Blocks(verdict)) ++httpBlocked;
    }
  }
  const std::size_t all = requests.size();
  std::printf("Tunnel guard on %s\n", kRequests.c_str());
  std::printf("  requests with a host: %zu of %zu rows (https %zu, http %zu)\n", all, rawUrls.size(),
              https, http);
  std::printf("  https requests refused by the guard: %zu (%.2f %% of https)\n", refused,
              Share(refused, https));
  std::printf("  all requests stopped, proxy verdicts on http only: %zu (%.2f %%)\n", httpBlocked,
              Share(httpBlocked, all));
  std::printf("  all requests stopped, http verdicts plus guard:    %zu (%.2f %%)\n",
              httpBlocked + refused, Share(httpBlocked + refused, all));
  std::printf("  (were every request judged as plain http: %zu, %.2f %%)\n", allJudgedBlocked,
              Share(allJudgedBlocked, all));
  PrintHosts("refused hosts (https requests)", refusedHosts);
  PrintHosts("requests to refused hosts the engine itself allows by an exception",
             engineAllowsOnRefused);

  // The recorded verdicts cover the first rows of the corpus, row for row;
  // rows without a host are skipped in step.
  const char* names[] = {"ubo", "ghostery"};
  for (int p = 0; p < 2; ++p) {
    const std::vector<int> peer = ReadVerdicts(kPeers[p]);
    if (peer.empty()) continue;
    std::map<std::string, int> agree, breakage;
    std::size_t row = 0, k = 0, compared = 0;
    for (; row < rawUrls.size() && row < peer.size(); ++row) {
      if (k < requests.size() && requests[k].url == rawUrls[row]) {
        if (refusedRow[k]) {
          ++compared;
          ++(peer[row] ? agree : breakage)[requests[k].host];
        }
        ++k;
      }
    }
    std::size_t agreeCount = 0, breakCount = 0;
    for (const auto& [h, n] : agree) agreeCount += static_cast<std::size_t>(n);
    for (const auto& [h, n] : breakage) breakCount += static_cast<std::size_t>(n);
    std::printf("Against %s (first %zu rows): %zu refused https requests; %zu also blocked there "
                "(%.1f %%), %zu allowed there (possible breakage)\n",
                names[p], row, compared, agreeCount, Share(agreeCount, compared), breakCount);
    PrintHosts("possible breakage", breakage);
  }

  // One timed pass over the CONNECT hosts, after a warm-up pass.
  const std::vector<std::string> hosts = ConnectHosts(requests);
  std::size_t blocked = 0;
  for (const std::string& h : hosts) blocked += engine.JudgeTunnelHost(h).block;
  const auto start = Clock::now();
  for (const std::string& h : hosts) blocked += engine.JudgeTunnelHost(h).block;
  const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
  std::printf("Decision cost: %.0f ns mean over %zu CONNECT hosts\n",
              hosts.empty() ? 0 : ns / static_cast<double>(hosts.size()), hosts.size());
  benchmark::DoNotOptimize(blocked);
}

void BM_JudgeTunnelHost(benchmark::State& state) {
  static const std::vector<std::string> hosts = ConnectHosts(corpus::Load(kRequests));
  CFilterEngineImpl engine;
  engine.SetFiltersFile(kList.c_str());
  engine.LoadFilters();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(engine.JudgeTunnelHost(hosts[i]).block);
    if (++i == hosts.size()) i = 0;
  }
}
BENCHMARK(BM_JudgeTunnelHost);

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
