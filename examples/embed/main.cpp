// A small host that embeds the proxy module: it loads the module with dlopen,
// keeps the settings, logs and filter list in one folder, starts the proxy,
// prints every blocked request as the module's notification arrives and the
// service's counters once a second.
//
//   vxproxy_embed [--module PATH] [--seconds N] FOLDER
//
// FOLDER holds filters.txt (EasyList syntax) and may hold vexilo.ini; with
// "[Vexilo]" "Port=0" there the proxy takes a free port and writes the one in
// use back. The module comes from the installed tree unless --module names
// another. Runs until SIGINT or SIGTERM, or for N seconds.
#include <dlfcn.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "vxproxy/vxproxy.h"

#ifndef VXPROXY_MODULE
#define VXPROXY_MODULE "libvxproxy.so"
#endif

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

// The message the service posts to this thread for each blocked request; any
// number of the host's choosing.
constexpr vx::UINT kBlockedMessage = 0x8000 + 1;

int Usage() {
  std::fprintf(stderr, "usage: vxproxy_embed [--module PATH] [--seconds N] FOLDER\n");
  return 2;
}

// The port in use, as the service wrote it back to vexilo.ini on start.
std::string ListeningPort(const std::string& folder) {
  std::ifstream ini(folder + "/vexilo.ini");
  std::string line;
  while (std::getline(ini, line)) {
    if (line.rfind("Port=", 0) == 0) return line.substr(5, line.find_first_of("\r ") - 5);
  }
  return "7070";
}

void PrintCounters(CVxHTTPProxy* proxy, unsigned long blocked) {
  std::printf("embed: requests %d  blocked %lu  images %d  flash %d  connections %d\n",
              proxy->GetFilteredRequests(), blocked, proxy->GetBlockedImages(),
              proxy->GetBlockedFlash(), proxy->GetActiveClientCount());
}

}  // namespace

int main(int argc, char** argv) {
  std::string modulePath = VXPROXY_MODULE;
  std::string folder;
  long seconds = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--module" && i + 1 < argc) {
      modulePath = argv[++i];
    } else if (arg == "--seconds" && i + 1 < argc) {
      seconds = std::atol(argv[++i]);
    } else if (folder.empty() && !arg.empty() && arg[0] != '-') {
      folder = arg;
    } else {
      return Usage();
    }
  }
  if (folder.empty()) return Usage();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The module stays loaded until the process ends: its threads may still be
  // winding down after Stop returns.
  void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "embed: cannot load %s: %s\n", modulePath.c_str(), dlerror());
    return 1;
  }
  auto getProxy = reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy"));
  if (getProxy == nullptr) {
    std::fprintf(stderr, "embed: %s has no GetProxy\n", modulePath.c_str());
    return 1;
  }
  CVxHTTPProxy* proxy = getProxy();
  proxy->SetDataFolder(folder.c_str());
  proxy->SetLogFolder(folder.c_str());
  proxy->SetFilterFolder(folder.c_str());

  // Blocks are posted to this thread's queue, which must exist first.
  os::CreateThreadQueue();
  const vx::DWORD self = os::GetCurrentThreadId();
  proxy->AddNotifyTarget(nullptr, self, kBlockedMessage, kEventRequestBlocked, true);
  if (!proxy->Start()) {
    std::fprintf(stderr, "embed: cannot start: is there a filters.txt in %s? (see proxy.log)\n",
                 folder.c_str());
    return 1;
  }
  std::printf("embed: listening on 127.0.0.1:%s\n", ListeningPort(folder).c_str());
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);

  using Clock = std::chrono::steady_clock;
  const Clock::time_point started = Clock::now();
  Clock::time_point nextCounters = started + std::chrono::seconds(1);
  unsigned long blocked = 0;
  while (g_stop == 0 && (seconds < 0 || Clock::now() - started < std::chrono::seconds(seconds))) {
    // Short waits: a signal does not end a wait, so it is seen at the next one.
    vx::MSG msg;
    if (os::WaitMessage(nullptr, &msg, 200) && msg.message == kBlockedMessage) {
      std::printf("embed: blocked request %lu\n", ++blocked);
    }
    if (Clock::now() >= nextCounters) {
      nextCounters = Clock::now() + std::chrono::seconds(1);
      PrintCounters(proxy, blocked);
    }
  }
  proxy->RemoveNotifyTarget(nullptr, self, kBlockedMessage);
  proxy->Stop();
  std::printf("embed: stopped after %lu blocked requests\n", blocked);
  return 0;
}
