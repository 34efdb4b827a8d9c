#include "stats.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "stats/counterfile.h"
#include "vxproxy/threads.h"
#include "vxproxy/xmlstore.h"

namespace {

struct StatsOptions {
  std::string data = ".";  // as "run" uses
  std::string logs;
  bool json = false;
};

struct Statistics {
  std::uint64_t requests = 0;
  std::uint64_t blocked = 0;
  std::uint64_t bytesSent = 0;
  std::uint64_t bytesReceived = 0;
  std::uint64_t adSize = 0;
  std::uint64_t startTime = 0;
  std::uint64_t sitesTotal = 0;  // blocked since the site list was last cleared
  std::vector<std::pair<std::string, long long>> sites;  // highest count first
};

constexpr char kUsage[] = "usage: vxproxy stats [--data DIR] [--logs DIR] [--json]\n";

bool ParseOptions(int argc, char** argv, StatsOptions* options, std::ostream& err) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if ((arg == "--data" || arg == "--logs") && i + 1 < argc) {
      (arg == "--data" ? options->data : options->logs) = argv[++i];
    } else if (arg == "--json") {
      options->json = true;
    } else {
      err << "vxproxy stats: unknown or incomplete argument " << arg << "\n" << kUsage;
      return false;
    }
  }
  if (options->logs.empty()) options->logs = options->data;
  return true;
}

// Parses one of the counter files; on failure says which file and what to do.
bool Load(CSecureXMLParser& doc, const std::string& path, const char* option, std::ostream& err) {
  const std::string shown = os::NativePath(path.c_str());
  if (!os::FileExists(path.c_str())) {
    err << "vxproxy stats: " << shown << " does not exist; pass the folder the proxy runs with ("
        << option << " DIR)\n";
    return false;
  }
  if (doc.ParseFile(path.c_str()) != 0) {
    err << "vxproxy stats: " << shown
        << " cannot be read as a statistics file; the proxy replaces it with an empty one when it "
           "next starts\n";
    return false;
  }
  return true;
}

bool ReadStatistics(const StatsOptions& options, Statistics* stats, std::ostream& err) {
  CSecureXMLParser counters;
  CSecureXMLParser sites;
  if (!Load(counters, options.data + "\\sitecounter.xml", "--data", err) ||
      !Load(sites, options.logs + "\\siteinfo.log", "--logs", err)) {
    return false;
  }
  CVxXMLElement global = counters.GetNodeByName("Global");
  if (global.IsFound()) {
    stats->requests = vxstats::ReadU64(counters, global, "./RequestHistory");
    stats->blocked = vxstats::ReadU64(counters, global, "./History");
    stats->bytesSent = vxstats::ReadU64(counters, global, "./BytesSend");
    stats->bytesReceived = vxstats::ReadU64(counters, global, "./BytesRecvd");
    stats->adSize = vxstats::ReadU64(counters, global, "./AdSize");
    stats->startTime = vxstats::ReadU64(counters, global, "./StatStartTime");
  }
  CVxXMLElement siteGlobal = sites.GetNodeByName("Global");
  if (siteGlobal.IsFound()) stats->sitesTotal = vxstats::ReadU64(sites, siteGlobal, "./Counter");
  std::vector<CVxXMLElement> children;
  sites.GetAllChildNodes("./Sites", children);
  CStringBuffer name;
  for (CVxXMLElement& child : children) {
    sites.GetNodeName(child, name);
    const long long count = vxstats::ParseInt(vxstats::ValueText(sites, child, "./Counter").c_str());
    stats->sites.emplace_back(name.GetBuffer(), count);
  }
  std::stable_sort(stats->sites.begin(), stats->sites.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  return true;
}


std::string LocalDate(std::uint64_t seconds) {
  if (seconds == 0) return "not recorded";
  const std::time_t t = static_cast<std::time_t>(seconds);
  const std::tm* local = std::localtime(&t);
  char text[64];
  if (local == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", local) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

void PrintText(const Statistics& stats, std::ostream& out) {
  out << "since           " << LocalDate(stats.startTime) << "\n"
      << "requests        " << stats.requests << "\n"
      << "blocked         " << stats.blocked << "\n"
      << "bytes sent      " << HumanSize(stats.bytesSent) << "\n"
      << "bytes received  " << HumanSize(stats.bytesReceived) << "\n"
      << "ad size         " << HumanSize(stats.adSize) << "\n"
      << "\nblocked by site (" << stats.sitesTotal << " since the list was cleared)\n";
  if (stats.sites.empty()) out << "  none\n";
  for (const auto& [site, count] : stats.sites) {
    char number[32];
    std::snprintf(number, sizeof number, "%10lld", count);
    out << number << "  " << site << "\n";
  }
}

void PrintJson(const Statistics& stats, std::ostream& out) {
  out << "{\"startTime\":" << stats.startTime << ",\"requests\":" << stats.requests
      << ",\"blocked\":" << stats.blocked << ",\"bytesSent\":" << stats.bytesSent
      << ",\"bytesReceived\":" << stats.bytesReceived << ",\"adSize\":" << stats.adSize
      << ",\"sitesTotal\":" << stats.sitesTotal << ",\"sites\":[";
  const char* separator = "";
  for (const auto& [site, count] : stats.sites) {
    out << separator << "{\"site\":" << JsonString(site) << ",\"count\":" << count << "}";
    separator = ",";
  }
  out << "]}\n";
}

}  // namespace

std::string HumanSize(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  while (value >= 1024.0 && unit < 5) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

int RunStats(int argc, char** argv, std::ostream& out, std::ostream& err) {
  StatsOptions options;
  if (argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
    out << kUsage;
    return 0;
  }
  if (!ParseOptions(argc, argv, &options, err)) return 2;
  Statistics stats;
  if (!ReadStatistics(options, &stats, err)) return 1;
  if (options.json) {
    PrintJson(stats, out);
  } else {
    PrintText(stats, out);
  }
  return 0;
}

int RunStatsCommand(int argc, char** argv) { return RunStats(argc, argv, std::cout, std::cerr); }

void SeedStatStartTime(const std::string& dataFolder) {
  const std::string path = dataFolder + "\\sitecounter.xml";
  CSem counterLock(vxstats::kCounterLockName);
  CAutoSync shared(counterLock, vxstats::kCounterLockTimeoutMs);
  if (shared.GetStatus() == kLockTimedOut) return;
  // Read under the semaphore: what other processes merged stays in the file.
  CSecureXMLParser doc;
  if (doc.ParseFile(path.c_str()) != 0 && !doc.Parse(vxstats::kBlankDocument)) return;
  CVxXMLElement global = vxstats::FindOrCreate(doc, "Global", "Global/StatStartTime");
  if (!global.IsFound() || vxstats::ReadU64(doc, global, "./StatStartTime") != 0) return;
  doc.SetValue(global, "./StatStartTime", std::to_string(os::Time64()).c_str(), true);
  doc.Store(path.c_str());
}
