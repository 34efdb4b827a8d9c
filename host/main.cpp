// The host program: loads the proxy module the way the desktop application
// does, and drives it through GetProxy and the service's virtual operations.
//
//   vxproxy [run] [--data DIR] [--logs DIR] [--filters DIR] [--port PORT]
//                 [--upstream HOST:PORT] [--no-filter] [--trace] [--strict] [--no-tunnel-guard]
//   vxproxy check|stats|allow|disallow|allowed|pac|install-service ...
//   vxproxy help [COMMAND]       (the text of every command: help.cpp)
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "allowlist.h"
#include "check.h"
#include "help.h"
#include "lists.h"
#include "options.h"
#include "pac.h"
#include "paths.h"
#include "service.h"
#include "stats.h"
#include "platform/platform.h"
#include "vxproxy/files.h"
#include "vxproxy/vxproxy.h"

namespace {

std::atomic<bool> g_stopRequested{false};

void OnStopSignal(int) { g_stopRequested = true; }

std::atomic<bool> g_reloadRequested{false};

void OnReloadSignal(int) { g_reloadRequested = true; }

// The module sits beside the program in a build, and in lib/ beside the bin/
// of an installed tree.
std::string ModulePath() {
  char self[4096] = {};
  std::string path;
  if (os::GetModuleFileNameA(nullptr, self, sizeof self) > 0) {
    path = os::NativePath(self);
    path.erase(path.find_last_of('/') + 1);
  }
  const std::string beside = path + "libvxproxy.so";
  const std::string installed = path + "../lib/libvxproxy.so";
  return os::FileExists(beside.c_str()) || !os::FileExists(installed.c_str()) ? beside : installed;
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
                  HumanSize(saved - savedAtStart).c_str(), proxy->GetActiveClientCount());
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

int Run(vxhost::RunOptions options, unsigned extensions) {
  if (!vxhost::ResolveFolders(&options, "run", std::cerr)) return 1;
  const std::string modulePath = ModulePath();
  void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr,
                 "vxproxy: cannot load the proxy module %s: %s\n"
                 "It belongs beside the vxproxy program: build it (target vxproxy_module) or "
                 "reinstall vxproxy.\n",
                 modulePath.c_str(), dlerror());
    return 1;
  }
  auto getProxy = reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy"));
  if (getProxy == nullptr) {
    std::fprintf(stderr, "vxproxy: %s is no proxy module (it has no GetProxy); rebuild or reinstall vxproxy\n",
                 modulePath.c_str());
    return 1;
  }
  // Statistics are opened before the logs create their folder: make the
  // folders first, or a first run would count no sites.
  if (!vxhost::PrepareRunFolders(options, std::cerr)) return 1;
  CVxHTTPProxy* proxy = getProxy();
  proxy->SetDataFolder(options.data.c_str());
  proxy->SetLogFolder(options.logs.c_str());
  proxy->SetFilterFolder(options.filters.c_str());
  if (!options.upstreamHost.empty()) {
    CStringBuffer host(options.upstreamHost.c_str());
    proxy->SetUpstreamProxy(host, &options.upstreamPort);
  }
  SeedStatStartTime(options.data);
  proxy->EnableFiltering(options.filtering);
  if (options.trace) proxy->SetTraceMode(2);
  proxy->SetExtensions(options.strict ? 0 : extensions);

  unsigned short asked = 0;
  if (!vxhost::PreparePort(options, &asked, std::cerr)) return 1;
  const std::string ini = vxhost::FileIn(options.data, "vexilo.ini");
  if (!proxy->Start()) {
    std::fprintf(stderr,
                 "vxproxy: cannot start on port %u (Port= in %s) with the filter list %s; "
                 "%s says why\n",
                 asked, ini.c_str(), vxhost::FileIn(options.filters, "filters.txt").c_str(),
                 vxhost::FileIn(options.logs, "proxy.log").c_str());
    return 1;
  }
  // The module drops an upstream proxy that is itself (every request would
  // come back to it without end) and says so in proxy.log only.
  if (!options.upstreamHost.empty() && proxy->GetUpstreamProxy(nullptr)->GetSize() == 0) {
    std::fprintf(stderr,
                 "vxproxy: --upstream %s:%u is this proxy itself, so it is not used: requests go "
                 "direct\n",
                 options.upstreamHost.c_str(), static_cast<unsigned>(options.upstreamPort));
  }
  // When the port asked for is taken the proxy listens on one the system
  // gives, and writes that one to vexilo.ini.
  const unsigned port = proxy->GetPort();
  if (asked != 0 && port != asked) {
    std::fprintf(stderr,
                 "vxproxy: port %u is in use by another program, so the proxy took port %u, which "
                 "browsers set to %u do not reach. Stop the other program and start again, or use "
                 "the new port: %s now names it (vxproxy pac follows it).\n",
                 asked, port, asked, ini.c_str());
  }
  // Caught before the listening line: whoever waits for it may stop the
  // program at once.
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
  std::printf("vxproxy: listening on 127.0.0.1:%u\n", port);
  std::fflush(stdout);

  std::signal(SIGHUP, OnReloadSignal);
  ServeUntilStopped(proxy);
  proxy->Stop();
  return 0;
}

// "stats" and "check" read the folders "run" uses unless told otherwise.
int RunWithDefaultFolders(int argc, char** argv) {
  const std::string command = argv[1];
  std::vector<std::string> words(argv + 1, argv + argc);
  auto has = [&](const char* option) {
    for (const std::string& word : words) {
      if (word == option) return true;
    }
    return false;
  };
  const std::string data = vxhost::DefaultDataFolder();
  std::vector<std::string> defaults;
  if (command == "stats" && !has("--data") && !data.empty()) {
    defaults = {"--data", data};
    const std::string logs = vxhost::DefaultLogFolder();
    if (!has("--logs") && !logs.empty()) defaults.insert(defaults.end(), {"--logs", logs});
  }
  if (command == "check" && !has("--filters") && !has("--approved") && !data.empty()) {
    for (const char* name : {"filters", "vexilowl"}) {
      const std::string path = data + "/" + name + ".txt";
      if (os::FileExists(path.c_str())) {
        defaults.insert(defaults.end(), {name[0] == 'f' ? "--filters" : "--approved", path});
      }
    }
  }
  words.insert(words.begin() + 1, defaults.begin(), defaults.end());
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  const int count = static_cast<int>(words.size());
  return command == "stats" ? RunStatsCommand(count, pointers.data())
                            : RunCheckCommand(count, pointers.data());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "run";
  if (command == "--help" || command == "-h") {
    vxhost::PrintHelp(std::cout);
    return 0;
  }
  if (argc > 2 && (std::strcmp(argv[2], "--help") == 0 || std::strcmp(argv[2], "-h") == 0) &&
      vxhost::PrintCommandHelp(command, std::cout)) {
    return 0;
  }
  if (command == "help") return vxhost::RunHelpCommand(argc - 2, argv + 2, std::cout, std::cerr);
  if (command == "check" || command == "stats") return RunWithDefaultFolders(argc, argv);
  if (command == "lists") return RunListsCommand(argc - 1, argv + 1);
  if (command == "allow" || command == "disallow" || command == "allowed") {
    return vxhost::RunApprovedListCommand(argc - 1, argv + 1, std::cout, std::cerr);
  }
  if (command == "pac") return vxhost::RunPacCommand(argc - 1, argv + 1, std::cout, std::cerr);
  if (command == "install-service") {
    return vxhost::RunInstallServiceCommand(argc - 1, argv + 1, std::cout, std::cerr);
  }
  // Without a command word the options are run's.
  if (command != "run" && command.rfind('-', 0) != 0) {
    std::fprintf(stderr, "vxproxy: unknown command %s; vxproxy --help lists the commands\n",
                 command.c_str());
    return 2;
  }
  const int first = argc > 1 && command == "run" ? 2 : 1;
  std::vector<std::string> words(argv + first, argv + argc);
  vxhost::RunOptions options;
  if (!vxhost::ParseRunOptions(words, "run", &options, std::cerr)) return 2;
  // --no-tunnel-guard: every extension but the tunnel guard, so HTTPS to
  // ad hosts is tunnelled as the module was designed to.
  return Run(options, options.tunnelGuard ? kExtensionsAll
                                          : kExtensionsAll & ~kExtensionTunnelGuard);
}
