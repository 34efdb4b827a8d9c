// The host program: loads the proxy module the way the desktop application
// does, and drives it through GetProxy and the service's virtual operations.
//
//   vxproxy [run] [--data DIR] [--logs DIR] [--filters DIR] [--upstream HOST:PORT]
//                 [--no-filter] [--trace] [--strict]
//   vxproxy check ...            (see check.h)
#include <dlfcn.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "check.h"
#include "lists.h"
#include "stats.h"
#include "platform/platform.h"
#include "vxproxy/files.h"
#include "vxproxy/vxproxy.h"

namespace {

std::atomic<bool> g_stopRequested{false};

void OnStopSignal(int) { g_stopRequested = true; }

std::atomic<bool> g_reloadRequested{false};

void OnReloadSignal(int) { g_reloadRequested = true; }

int Usage() {
  std::fprintf(stderr,
               "usage: vxproxy [run] [--data DIR] [--logs DIR] [--filters DIR] "
               "[--upstream HOST:PORT] [--no-filter] [--trace] [--strict]\n"
               "       vxproxy check [--filters FILE] [--approved FILE] [--type WORD] "
               "[--referer URL] [--redirect] URL\n"
               "       vxproxy check --filters FILE [--approved FILE] --batch\n");
  return 2;
}

// The module sits beside the program.
std::string ModulePath() {
  char self[4096] = {};
  std::string path;
  if (os::GetModuleFileNameA(nullptr, self, sizeof self) > 0) {
    path = os::NativePath(self);
    path.erase(path.find_last_of('/') + 1);
  }
  return path + "libvxproxy.so";
}

// "12.3 KiB" and the like.
std::string HumanBytes(std::uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

// The host's own message for "a request was blocked".
constexpr UINT kBlockedMessage = 0x8000 + 1;
constexpr int kStatusRefreshMs = 500;
constexpr DWORD kStatusTickMs = 100;

// Runs until SIGINT or SIGTERM; SIGHUP reloads the filter lists. The blocked
// count comes from the service's notifications to this thread, the rest from
// the counters; on a terminal one status line is kept current, elsewhere
// nothing is printed.
void ServeUntilStopped(CVxHTTPProxy* proxy) {
  os::CreateThreadQueue();
  const DWORD self = os::GetCurrentThreadId();
  proxy->AddNotifyTarget(nullptr, self, kBlockedMessage, kEventRequestBlocked, true);
  const bool terminal = os::StdoutIsTerminal();
  CSiteCounter* statistics = proxy->GetSiteCounter();
  std::uint64_t sent = 0, received = 0, savedAtStart = 0;
  statistics->GetBytes(&sent, &received, &savedAtStart);
  const std::uint64_t requestsAtStart = statistics->GetRequestHistory();
  unsigned long blocked = 0;
  DWORD lastShown = os::GetTickCount() - kStatusRefreshMs;
  std::size_t shownWidth = 0;
  std::string shown;
  // The filter lists are read again on SIGHUP and when one of their files
  // changes; the files' time and size are looked at once a second.
  constexpr DWORD kListsLookMs = 1000;
  const std::string lists[] = {std::string(proxy->GetFilterFolder()) + "\\filters.txt",
                               std::string(proxy->GetDataFolder()) + "\\vexilowl.txt"};
  auto listStamp = [&lists] {
    std::string stamp;
    for (const std::string& path : lists) {
      stamp += std::to_string(os::FileModifiedTime(path.c_str())) + ' ' +
               std::to_string(os::FileSize(path.c_str())) + ' ';
    }
    return stamp;
  };
  std::string listsSeen = listStamp();
  DWORD listsLooked = os::GetTickCount();
  while (!g_stopRequested) {
    // Drained every tick instead of waited on: a waiting thread would be woken
    // by every single block, which costs the workers that post.
    os::Sleep(kStatusTickMs);
    MSG msg;
    while (os::WaitMessage(nullptr, &msg, 0)) {
      if (msg.message == kBlockedMessage) ++blocked;
    }
    bool reload = g_reloadRequested.exchange(false);
    if (os::GetTickCount() - listsLooked >= kListsLookMs) {
      listsLooked = os::GetTickCount();
      reload = reload || listStamp() != listsSeen;
    }
    if (reload) {
      // Taken before the load, so a change made while it reads is seen next time.
      listsSeen = listStamp();
      proxy->LoadFilterLists();  // proxy.log tells how it went
    }
    if (!terminal || os::GetTickCount() - lastShown < kStatusRefreshMs) continue;
    lastShown = os::GetTickCount();
    std::uint64_t saved = 0;
    statistics->GetBytes(&sent, &received, &saved);
    // Connections add their requests when they end, GETs are counted as they
    // are judged: the larger of the two is the better current figure.
    const std::uint64_t ended = statistics->GetRequestHistory() - requestsAtStart;
    const std::uint64_t judged = static_cast<std::uint64_t>(proxy->GetFilteredRequests());
    char line[160];
    std::snprintf(line, sizeof line, "requests %llu  blocked %lu  saved %s  connections %d",
                  static_cast<unsigned long long>(ended > judged ? ended : judged), blocked,
                  HumanBytes(saved - savedAtStart).c_str(), proxy->GetActiveClientCount());
    if (shown == line) continue;
    const std::size_t width = std::strlen(line);
    std::printf("\r%s%*s", line, static_cast<int>(shownWidth > width ? shownWidth - width : 0), "");
    shownWidth = width;
    shown = line;
    std::fflush(stdout);
  }
  if (terminal && shownWidth > 0) std::printf("\n");
  proxy->RemoveNotifyTarget(nullptr, self, kBlockedMessage);
}

struct RunOptions {
  std::string data = ".";
  std::string logs;
  std::string filters;
  std::string upstream;
  bool filtering = true;
  bool trace = false;
  bool strict = false;  // the module's own behaviour, no extension
};

bool ParseRun(int argc, char** argv, int first, RunOptions* options) {
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    if (arg == "--data") {
      if (!value(&options->data)) return false;
    } else if (arg == "--logs") {
      if (!value(&options->logs)) return false;
    } else if (arg == "--filters") {
      if (!value(&options->filters)) return false;
    } else if (arg == "--upstream") {
      if (!value(&options->upstream)) return false;
    } else if (arg == "--no-filter") {
      options->filtering = false;
    } else if (arg == "--trace") {
      options->trace = true;
    } else if (arg == "--strict") {
      options->strict = true;
    } else {
      std::fprintf(stderr, "vxproxy: unknown argument %s\n", arg.c_str());
      return false;
    }
  }
  if (options->filters.empty()) options->filters = options->data;
  if (options->logs.empty()) options->logs = options->data;
  return true;
}

int Run(const RunOptions& options) {
  const std::string modulePath = ModulePath();
  void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "vxproxy: cannot load %s: %s\n", modulePath.c_str(), dlerror());
    return 1;
  }
  auto getProxy = reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy"));
  if (getProxy == nullptr) {
    std::fprintf(stderr, "vxproxy: %s has no GetProxy\n", modulePath.c_str());
    return 1;
  }
  CVxHTTPProxy* proxy = getProxy();
  proxy->SetDataFolder(options.data.c_str());
  proxy->SetLogFolder(options.logs.c_str());
  proxy->SetFilterFolder(options.filters.c_str());
  if (!options.upstream.empty()) {
    const size_t colon = options.upstream.rfind(':');
    CStringBuffer host(options.upstream.substr(0, colon).c_str());
    const unsigned short port = colon == std::string::npos
        ? 80 : static_cast<unsigned short>(std::atoi(options.upstream.c_str() + colon + 1));
    proxy->SetUpstreamProxy(host, &port);
  }
  // Statistics are opened before the logs create their folder: make both
  // folders first, or a first run would count no sites.
  for (const std::string* folder : {&options.data, &options.logs, &options.filters}) {
    CFileStream::CreatePath(folder->c_str(), false);
  }
  SeedStatStartTime(options.data);
  proxy->EnableFiltering(options.filtering);
  if (options.trace) proxy->SetTraceMode(2);
  proxy->SetExtensions(options.strict ? 0 : kExtensionsAll);

  if (!proxy->Start()) {
    const std::string filters = options.filters + "\\filters.txt";
    if (!os::FileExists(filters.c_str())) {
      std::fprintf(stderr, "vxproxy: cannot start: no filter list at %s\n",
                   os::NativePath(filters.c_str()).c_str());
    } else {
      std::fprintf(stderr, "vxproxy: cannot start (see proxy.log in %s)\n", options.logs.c_str());
    }
    return 1;
  }
  // Start writes the port actually in use back to the settings file.
  char port[16] = {};
  const std::string ini = options.data + "\\vexilo.ini";
  os::GetPrivateProfileStringA("Vexilo", "Port", "7070", port, sizeof port, ini.c_str());
  std::printf("vxproxy: listening on 127.0.0.1:%s\n", port);
  std::fflush(stdout);

  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
  std::signal(SIGHUP, OnReloadSignal);
  ServeUntilStopped(proxy);
  proxy->Stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "check") == 0) return RunCheckCommand(argc - 1, argv + 1);
  if (argc > 1 && std::strcmp(argv[1], "stats") == 0) return RunStatsCommand(argc - 1, argv + 1);
  if (argc > 1 && std::strcmp(argv[1], "lists") == 0) return RunListsCommand(argc - 1, argv + 1);
  int first = 1;
  if (argc > 1 && std::strcmp(argv[1], "run") == 0) first = 2;
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    Usage();
    return 0;
  }
  RunOptions options;
  if (!ParseRun(argc, argv, first, &options)) return Usage();
  return Run(options);
}
