// soak_driver: the load of bench/soak/soak.sh. It runs its own origin (the
// chunked, slow and misbehaving answers) and a tunnel echo server, then
// drives mixed traffic through the proxy for the given time from a dozen
// lanes (threads) and checks every reply that a well-behaved server gave.
//
//   soak_driver --proxy PORT --nginx PORT --www DIR --seconds N
//               [--seed N] [--self-aimed SECS] [--tsv FILE]
//
// --www is nginx's root: the driver checks its files f/1k.bin, f/16k.bin,
// f/256k.bin and f/1m.bin by size and checksum. --self-aimed sends a request
// aimed at the proxy's own port every SECS seconds or so (0: never).
// Prints "soak-driver: load started" when the lanes start, a progress line a
// minute, and at the end the requests by kind and the failures. Exit status
// 0 when nothing failed or hung, 1 otherwise or when the run could not start,
// 2 for bad arguments.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "soak/content.h"
#include "soak/echo_server.h"
#include "soak/load_lane.h"
#include "soak/soak_origin.h"

namespace {

constexpr int kServerStopMs = 20000;
constexpr int kProgressEverySec = 60;

struct Options {
  soak::LoadSetup setup;
  std::string www;
  std::string tsv;
  long seconds = 0;
  std::uint64_t seed = 1;
};

int Usage(const char* why) {
  std::fprintf(stderr,
               "soak-driver: %s\nusage: soak_driver --proxy PORT --nginx PORT --www DIR --seconds N"
               " [--seed N] [--self-aimed SECS] [--tsv FILE]\n",
               why);
  return 2;
}

bool Number(const char* text, long low, long high, long* out) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

bool ReadFile(const std::string& path, std::string* data) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  data->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// A port nothing listens on: one the system handed out and took back.
unsigned short ClosedPort() {
  const SOCKET s = os::CreateTcpSocket();
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  if (s != INVALID_SOCKET && os::Bind(s, os::kLoopbackAddress, 0) == 0)
    os::getsockname(s, &address, &port);
  if (s != INVALID_SOCKET) os::closesocket(s);
  return port;
}

void PrintCounts(const soak::Tally& tally, long elapsedSec) {
  std::fprintf(stderr, "soak-driver: %ld:%02ld  %ld cases, %ld failed, %ld hung\n", elapsedSec / 60,
               elapsedSec % 60, tally.Total(), tally.Count(soak::Outcome::kFailed),
               tally.Count(soak::Outcome::kHung));
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return Usage(("missing value for " + arg).c_str());
    const char* value = argv[++i];
    long n = 0;
    if (arg == "--proxy" && Number(value, 1, 65535, &n)) {
      o.setup.proxyPort = static_cast<unsigned short>(n);
    } else if (arg == "--nginx" && Number(value, 1, 65535, &n)) {
      o.setup.nginxPort = static_cast<unsigned short>(n);
    } else if (arg == "--www") {
      o.www = value;
    } else if (arg == "--tsv") {
      o.tsv = value;
    } else if (arg == "--seconds" && Number(value, 1, 24 * 3600, &n)) {
      o.seconds = n;
    } else if (arg == "--seed" && Number(value, 0, 1L << 30, &n)) {
      o.seed = static_cast<std::uint64_t>(n);
    } else if (arg == "--self-aimed" && Number(value, 0, 3600, &n)) {
      o.setup.selfAimedEverySec = static_cast<int>(n);
    } else {
      return Usage(("bad argument " + arg + " " + value).c_str());
    }
  }
  if (o.setup.proxyPort == 0 || o.setup.nginxPort == 0 || o.www.empty() || o.seconds == 0) {
    return Usage("--proxy, --nginx, --www and --seconds are needed");
  }
  const struct {
    const char* name;
    int weight;
  } files[] = {{"1k.bin", 50}, {"16k.bin", 30}, {"256k.bin", 15}, {"1m.bin", 5}};
  for (const auto& f : files) {
    std::string data;
    if (!ReadFile(o.www + "/f/" + f.name, &data)) {
      std::fprintf(stderr, "soak-driver: cannot read %s/f/%s\n", o.www.c_str(), f.name);
      return 1;
    }
    o.setup.files.push_back(
        {std::string("/f/") + f.name, data.size(), soak::Checksum(data), f.weight});
  }

  os::WSAStartup();
  soak::SoakOrigin origin;
  soak::EchoServer echo;
  if (!origin.Start() || !echo.Start()) {
    std::fprintf(stderr, "soak-driver: cannot listen on 127.0.0.1\n");
    return 1;
  }
  o.setup.originPort = origin.Port();
  o.setup.echoPort = echo.Port();
  o.setup.closedPort = ClosedPort();
  const auto begin = soak::Clock::now();
  soak::LoadRun run(o.setup, begin + std::chrono::seconds(o.seconds));
  const std::string broken = soak::Preflight(run);
  if (!broken.empty()) {
    std::fprintf(stderr, "soak-driver: the proxy does not relay: %s\n", broken.c_str());
    origin.Stop(kServerStopMs);
    echo.Stop(kServerStopMs);
    return 1;
  }

  using soak::Lane;
  std::vector<Lane> lanes = {Lane::kBrowser, Lane::kBrowser, Lane::kTunnel, Lane::kAbort,
                             Lane::kTrouble, Lane::kTrouble, Lane::kSlow,   Lane::kSlow,
                             Lane::kSlow,    Lane::kSlow};
  if (o.setup.selfAimedEverySec > 0) lanes.push_back(Lane::kSelfAimed);
  std::printf("soak-driver: origin 127.0.0.1:%u, echo 127.0.0.1:%u, %zu lanes, %ld s, seed %llu\n",
              origin.Port(), echo.Port(), lanes.size(), o.seconds,
              static_cast<unsigned long long>(o.seed));
  std::printf("soak-driver: load started\n");
  std::fflush(stdout);
  std::vector<std::unique_ptr<soak::LoadLane>> runners;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    runners.push_back(std::make_unique<soak::LoadLane>(run, lanes[i], o.seed * 1000 + i));
    threads.emplace_back(&soak::LoadLane::Run, runners.back().get());
  }
  long second = 0;
  while (run.Running()) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (++second % kProgressEverySec == 0) PrintCounts(run.Counts(), second);
  }
  run.Stop();
  std::printf(
      "soak-driver: load ended after %ld s%s\n",
      static_cast<long>(
          std::chrono::duration_cast<std::chrono::seconds>(soak::Clock::now() - begin).count()),
      run.AbortReason().empty() ? "" : (": " + run.AbortReason()).c_str());
  std::fflush(stdout);
  for (std::thread& t : threads) t.join();
  const bool stopped = origin.Stop(kServerStopMs) && echo.Stop(kServerStopMs);

  std::printf(
      "\nrequests by kind (ok: right; failed: a proper answer that came back wrong or not at all;\n"
      "hung: a misbehaving case the proxy did not end in time; cut: ended by the end of the "
      "run)\n");
  run.Counts().Print(stdout);
  std::printf(
      "origin: %ld requests on %d connections, %ld size probes, %ld blocked addresses that reached "
      "it\n",
      origin.Requests(), origin.Connections(), origin.Probes(), origin.LeakedBlocks());
  std::printf("echo: %d tunnel connections\n", echo.Connections());
  const long failed = run.Counts().Count(soak::Outcome::kFailed);
  const long hung = run.Counts().Count(soak::Outcome::kHung);
  std::printf("soak-driver: total cases=%ld failed=%ld hung=%ld leaked=%ld aborted=%d\n",
              run.Counts().Total(), failed, hung, origin.LeakedBlocks(),
              run.AbortReason().empty() ? 0 : 1);
  if (!o.tsv.empty()) {
    if (std::FILE* f = std::fopen(o.tsv.c_str(), "w")) {
      run.Counts().WriteTsv(f);
      std::fclose(f);
    }
  }
  std::fflush(stdout);
  const int status =
      failed + hung + origin.LeakedBlocks() > 0 || !run.AbortReason().empty() ? 1 : 0;
  // Serving threads that did not end in time must not meet the servers' destruction.
  if (!stopped) std::_Exit(status);
  return status;
}
