// The filter engine as the module builds it: the rule tables behind the
// host's two slots, and the verdict for one request, which the service, the
// "check" command and the tools use directly.
//
// Everything a check reads (the filters file's tables, the approved list's
// and the version text) lives in one immutable Tables object. A load builds
// a complete new one aside and then publishes it in place of the old, so
// checks run on any number of threads while a load runs: each check takes
// the tables in use once, when it starts, and answers from them alone. Old
// tables go away when the last check using them ends. Loads take turns.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "vxproxy/filterengine.h"

namespace vxfilter {
class RuleIndex;
struct Tables;
}

constexpr int VerdictNoMatch = 100;   // no rule decided, or the check failed: pass
constexpr int VerdictAllowed = 200;   // an approved-list or exception rule matched: pass
constexpr int VerdictAdServer = 300;  // a domain rule of the ad-server section: block
constexpr int VerdictGeneric = 400;   // a generic rule: block
constexpr int VerdictDomain = 500;    // any other domain rule: block

// One request as CheckRequest sees it. The views must outlive the call.
struct FilterRequestInfo {
  std::string_view host;      // host name, without port
  std::string_view path;      // request target after the host, query included
  std::string_view typeWord;  // gif, js, css, htm, ...
  std::string_view referer;   // the Referer field's value, or empty
  bool skipExceptionTypeCheck = false;  // set for the check of a redirect response
};

// What the tunnel guard makes of a CONNECT target, which names a host and
// nothing of the requests that will pass inside the tunnel.
struct TunnelVerdict {
  enum class Reason {
    kNoHost,            // no usable host name: pass
    kNoAdServerRule,    // no ad-server rule is keyed by the host's names: pass
    kPartialRule,       // the ad-server rule has a path or options: pass
    kException,         // an exception entry is keyed by one of the names: pass
    kExceptionText,     // an exception's text names the host or could match it: pass
    kAnchoredKeyless,   // a host-anchored exception without a host: pass
    kAdServerRule,      // "||name^" or "||name" alone: block
  };
  bool block = false;
  Reason reason = Reason::kNoHost;
  // The name (the host or one of its parents, as the caller wrote it) the
  // deciding entry is keyed by; empty when no entry decided.
  std::string_view name;
  bool wholeHostEntry = false;  // the deciding entry is a bare "||name^" or "||name"
  bool separator = false;       // ... and ends in "^"

  // The deciding rule as the check command shows it: "||ads.example^",
  // "@@||ads.example^", "no ad-server rule", ...
  std::string RuleText() const;
};

// No operation is added here: the table stays the one of CFilterEngine.
class CFilterEngineImpl final : public CFilterEngine {
 public:
  CFilterEngineImpl();
  ~CFilterEngineImpl();

  bool IsDomainRuleHost(const char* host) override;
  // A list that cannot be read leaves the approved list in use as it was.
  bool LoadUserApprovedList(const char* path) override;

  // Remembers the filters file after checking that it opens.
  bool SetFiltersFile(const char* path);
  // Replaces the filters-file rules by the content of the remembered file.
  // When the file cannot be opened or read, the rules in use stay.
  bool LoadFilters();
  // Drops the filters-file rules; the approved list stays.
  void ClearRules();
  // SetFiltersFile and, when it succeeds, LoadFilters, then
  // LoadUserApprovedList, with the result published once: a check sees
  // either the lists from before or both new ones. True when both loaded.
  bool LoadLists(const char* filtersPath, const char* approvedPath);

  // The verdict for one request (one of the Verdict codes). headers maps
  // lower-case field names to values; only "referer" is read.
  int CheckRequest(std::string host, std::string path, std::string typeWord,
                   std::map<std::string, std::string> headers, bool skipExceptionTypeCheck) const;
  // The same verdict without copying anything.
  int CheckRequest(const FilterRequestInfo& request) const;

  // Whether a CONNECT to host (a "host:port" target is judged by its host)
  // may be refused as a whole. Blocks only when an ad-server section rule
  // "||name^" or "||name" without path or options is keyed by the host or
  // one of its parents, and no exception could concern the host: none keyed
  // by any of those names, none whose text names one of them, no wildcard
  // exception matching the host, no host-anchored one without a host.
  // Exceptions that name only paths or pages are not asked: they cannot be
  // judged from a host. The joined EasyList holds 13 exceptions without a
  // "||" host; 6 name local addresses ("@@://localhost/$generichide", whose
  // text then keeps those names from ever being refused), one names a site
  // in its text ("@@://xhamster.$script"), and the other 6 are paths or
  // patterns tied to pages by "domain=", "~third-party" or "$generichide"
  // ("@@/banner/ad/*$image,domain=...", "@@$generichide,domain=..."). None
  // of them is about an ad server; CheckRequest lets the last one pass every
  // request without a referer or from its own site, which would pass every
  // CONNECT if it counted here.
  TunnelVerdict JudgeTunnelHost(std::string_view host) const;

  // Version text of the filters file in use ("0.0" without one).
  std::string GetVersion() const;
  // Rules in the tables in use, the filters file's and the approved list's.
  std::size_t RuleCount() const;

  // Where error lines go ("Failed to open filters file: " and the like, with
  // the path or request as detail). Without a reporter errors are silent.
  // Set it before the engine is shared: checks call it from their threads.
  using ErrorReporter = void (*)(void* context, const char* message, const char* detail);
  void SetErrorReporter(ErrorReporter report, void* context);

 private:
  using TablesPtr = std::shared_ptr<const vxfilter::Tables>;

  void ReportError(const char* message, const char* detail) const;
  // The tables in use; the copy keeps them alive while it is held.
  TablesPtr Current() const;
  void Publish(TablesPtr tables);
  // The steps of a load, with loadLock_ held; each fills the new tables
  // only when it succeeds.
  bool SetFiltersFileLocked(const char* path);
  bool LoadFiltersInto(vxfilter::Tables& next);
  bool LoadApprovedInto(const char* path, vxfilter::Tables& next);

  // Held only to copy or replace the pointer, never while loading.
  mutable std::mutex tablesLock_;
  TablesPtr tables_;

  // One load at a time; checks never take it.
  std::mutex loadLock_;
  std::string filtersPath_;
  // Where the last filters file left the ad-server section: the next load
  // starts there.
  bool inAdServerSection_ = false;

  ErrorReporter report_ = nullptr;
  void* reportContext_ = nullptr;
};
