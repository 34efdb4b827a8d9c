// What a blocked request pays for its size probe: Enqueue on a stopped
// manager (nothing is sent) for a new item and for one already queued, beside
// building the same key and request text alone.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "core/service.h"
#include "probe/headermanager.h"

namespace {

constexpr int kDistinctItems = 1000;  // the queue is emptied after each round of new items

const char kHost[] = "ads.example.com";
// A browser's header fields of a typical size (about 400 bytes).
const char kFields[] =
    "Host: ads.example.com\r\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/120.0 Safari/537.36\r\n"
    "Accept: image/avif,image/webp,image/apng,image/*,*/*;q=0.8\r\n"
    "Accept-Language: en-US,en;q=0.9\r\n"
    "Referer: http://news.example.org/article/2024/03/05/story.html\r\n"
    "Cookie: uid=8c3f02a1e5; seg=17,22,41\r\n"
    "Proxy-Connection: keep-alive\r\n\r\n";

std::vector<std::string> Paths() {
  std::vector<std::string> paths;
  for (int i = 0; i < kDistinctItems; ++i) paths.push_back("/banner/" + std::to_string(i) + "/ad.gif");
  return paths;
}

class BenchManager : public CHeaderManager {
 public:
  using CHeaderManager::ClearAll;
};

// The strings Enqueue builds, with the same argument copies.
void BuildOnly(CStringBuffer host, unsigned short, CStringBuffer path, CStringBuffer, unsigned short,
               const char* fields) {
  std::string key(host.GetBuffer());
  key += path.GetBuffer();
  std::string request = "HEAD ";
  request += path.GetBuffer();
  request += " HTTP/1.0\r\n";
  request += fields;
  request += "\r\n";
  benchmark::DoNotOptimize(key);
  benchmark::DoNotOptimize(request);
}

void BM_BuildStringsOnly(benchmark::State& state) {
  const std::vector<std::string> paths = Paths();
  const CStringBuffer host(kHost), none("");
  std::size_t i = 0;
  for (auto _ : state) {
    BuildOnly(host, 80, paths[i].c_str(), none, 0, kFields);
    if (++i == paths.size()) i = 0;
  }
}

void BM_EnqueueNewItem(benchmark::State& state) {
  GetProxy();  // the service object is built once, outside the timing
  const std::vector<std::string> paths = Paths();
  BenchManager manager;
  const CStringBuffer host(kHost), none("");
  std::size_t i = 0;
  for (auto _ : state) {
    manager.Enqueue(host, 80, paths[i].c_str(), none, 0, kFields);
    if (++i == paths.size()) {
      state.PauseTiming();
      manager.ClearAll();
      i = 0;
      state.ResumeTiming();
    }
  }
}

void BM_EnqueueQueuedItem(benchmark::State& state) {
  GetProxy();
  static BenchManager manager;  // shared by the threads of the contended run
  const CStringBuffer host(kHost), path("/banner/ad.gif"), none("");
  for (auto _ : state) manager.Enqueue(host, 80, path, none, 0, kFields);
}

}  // namespace

BENCHMARK(BM_BuildStringsOnly);
BENCHMARK(BM_EnqueueNewItem);
BENCHMARK(BM_EnqueueQueuedItem)->Threads(1)->Threads(2);

BENCHMARK_MAIN();
