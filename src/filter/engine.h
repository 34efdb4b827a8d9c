// The filter engine as the module builds it: the rule tables behind the
// host's two slots, and the verdict for one request, which the service, the
// "check" command and the tools use directly.
//
// CheckRequest only reads the tables, so any number of threads may call it at
// once; loading (LoadFilters, LoadUserApprovedList, ClearRules) must not
// overlap with checks.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "vxproxy/filterengine.h"

namespace vxfilter {
class RuleIndex;
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

// No operation is added here: the table stays the one of CFilterEngine.
class CFilterEngineImpl final : public CFilterEngine {
 public:
  CFilterEngineImpl();
  ~CFilterEngineImpl();

  bool IsDomainRuleHost(const char* host) override;
  bool LoadUserApprovedList(const char* path) override;

  // Remembers the filters file after checking that it opens.
  bool SetFiltersFile(const char* path);
  // Replaces the filters-file rules by the content of the remembered file.
  bool LoadFilters();
  // Drops the filters-file rules; the approved list stays.
  void ClearRules();

  // The verdict for one request (one of the Verdict codes). headers maps
  // lower-case field names to values; only "referer" is read.
  int CheckRequest(std::string host, std::string path, std::string typeWord,
                   std::map<std::string, std::string> headers, bool skipExceptionTypeCheck) const;
  // The same verdict without copying anything.
  int CheckRequest(const FilterRequestInfo& request) const;

  // Version text of the last loaded filters file ("0.0" without one).
  const char* GetVersion() const { return version_.c_str(); }

  // Where error lines go ("Failed to open filters file: " and the like, with
  // the path or request as detail). Without a reporter errors are silent.
  using ErrorReporter = void (*)(void* context, const char* message, const char* detail);
  void SetErrorReporter(ErrorReporter report, void* context);

 private:
  void ReportError(const char* message, const char* detail) const;

  std::string filtersPath_;
  std::string version_;
  bool inAdServerSection_ = false;
  std::unique_ptr<vxfilter::RuleIndex> filters_;
  std::unique_ptr<vxfilter::RuleIndex> approved_;
  ErrorReporter report_ = nullptr;
  void* reportContext_ = nullptr;
};
