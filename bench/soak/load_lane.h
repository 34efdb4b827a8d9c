// One thread of the soak's load: a loop that draws the next case of its kind
// of traffic, runs it through the proxy with every wait bounded, judges what
// came back and counts it. Lanes of one run share a LoadRun: the ports, the
// files nginx serves, the tally and the end of the run.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "soak/tally.h"

namespace vxtest {
class RawClient;
}

namespace soak {

using Clock = std::chrono::steady_clock;

// A file on nginx: its target path, size and checksum, and how often the
// browser lanes ask for it (relative weight).
struct StaticFile {
  std::string path;
  std::size_t size = 0;
  std::uint64_t sum = 0;
  int weight = 1;
};

struct LoadSetup {
  unsigned short proxyPort = 0;
  unsigned short nginxPort = 0;
  unsigned short originPort = 0;
  unsigned short echoPort = 0;
  unsigned short closedPort = 0;  // nothing listens there
  std::vector<StaticFile> files;
  int selfAimedEverySec = 0;  // 0: no requests aimed at the proxy itself
};

class LoadRun {
 public:
  LoadRun(const LoadSetup& setup, Clock::time_point deadline)
      : setup_(setup), deadline_(deadline) {}

  const LoadSetup& Setup() const { return setup_; }
  Tally& Counts() { return tally_; }
  const Tally& Counts() const { return tally_; }
  // New cases may start.
  bool Running() const { return !stopped_ && Clock::now() < deadline_; }
  // Waits in progress give up (their cases count as cut).
  bool Stopped() const { return stopped_; }
  void Stop() { stopped_ = true; }
  // Ends the run early, keeping the first reason.
  void Abort(const std::string& why);
  std::string AbortReason() const;
  // A connection to the proxy was refused or made; refusals for 5 s in a
  // row mean the proxy is gone, which ends the run.
  void NoteConnect(bool made);

 private:
  const LoadSetup setup_;
  const Clock::time_point deadline_;
  Tally tally_;
  std::atomic<bool> stopped_{false};
  std::atomic<long long> refusedSinceMs_{0};
  mutable std::mutex mutex_;
  std::string abortReason_;
};

enum class Lane { kBrowser, kTunnel, kAbort, kTrouble, kSlow, kSelfAimed };

class LoadLane {
 public:
  LoadLane(LoadRun& run, Lane lane, std::uint64_t seed) : run_(run), lane_(lane), rng_(seed) {}
  void Run();

 private:
  // A reply as the client saw it.
  struct Reply {
    std::string header;  // up to the blank line; empty when none came
    int status = 0;
    std::string body;  // decoded when chunked
    bool complete = false;
    bool closed = false;  // the proxy closed the connection
    std::string why;      // what is wrong when not complete
  };

  // One case on a connection of its own: the browser lane keeps its
  // connections for several requests, the others take one per case.
  void BrowserConnection();
  void TunnelCase();
  void AbortCase();
  void TroubleCase();
  void SlowCase();
  void SelfAimedCase();

  // Connects to the proxy, noting refusals; false when refused.
  bool Connect(vxtest::RawClient& client, const char* kind);
  // Reads one reply within timeoutMs.
  static Reply ReadReply(vxtest::RawClient& client, int timeoutMs);
  // Reads until the proxy closes, at most maxMs, in slices that end early
  // when the run stops; false when it did not close.
  bool ReadUntilClosed(vxtest::RawClient& client, int maxMs, std::string* data);
  // What is wrong with a reply that should be 200 with this body ("" = right).
  static std::string Mismatch(const Reply& reply, std::size_t size, std::uint64_t sum);
  void Count(const char* kind, Outcome outcome, Clock::time_point since,
             const std::string& why = "");

  std::string Get(unsigned short port, const std::string& path, bool close = false) const;
  long Pick(long low, long high) { return std::uniform_int_distribution<long>(low, high)(rng_); }
  // An index drawn by the weights.
  std::size_t Draw(const std::vector<int>& weights);
  void Think(int lowMs, int highMs);

  LoadRun& run_;
  const Lane lane_;
  std::mt19937_64 rng_;
  long uniqueAd_ = 0;
};

// One request each through the proxy to nginx and to the soak's origin;
// "" when both came back right, else what went wrong.
std::string Preflight(LoadRun& run);

}  // namespace soak
