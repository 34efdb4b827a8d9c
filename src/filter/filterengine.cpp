#include "filter/engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "filter/matcher.h"
#include "filter/ruleindex.h"
#include "filter/rules.h"
#include "platform/platform.h"

using vxfilter::RuleIndex;

namespace {

constexpr const char* kFailedToOpen = "Failed to open filters file: ";
constexpr const char* kFiltersReadFailed = "Exception while reading filters file: ";
constexpr const char* kApprovedReadFailed = "Exception while reading user approved list: ";
constexpr const char* kEvaluationFailed = "Exception while evaluating request: ";
constexpr const char* kInitialVersion = "0.0";
constexpr std::size_t kReadChunk = 256 * 1024;

class File {
 public:
  explicit File(const char* path) : file_(std::fopen(os::NativePath(path).c_str(), "rb")) {}
  ~File() {
    if (file_ != nullptr) std::fclose(file_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  std::FILE* get() const { return file_; }

 private:
  std::FILE* file_;
};

// Reads a text file line by line: a line ends at LF, a CR right before the
// LF is dropped, and the line is turned to lower case. Empty lines are
// skipped. Returns false when the stream reports a read error; the lines
// before it have been handed over by then.
template <typename OnLine>
bool ReadLowerLines(std::FILE* file, OnLine&& onLine) {
  std::vector<char> buffer(kReadChunk);
  std::size_t kept = 0;  // bytes of an unfinished line at the front
  for (;;) {
    if (kept == buffer.size()) buffer.resize(buffer.size() * 2);
    const std::size_t got = std::fread(buffer.data() + kept, 1, buffer.size() - kept, file);
    if (got == 0) {
      if (std::ferror(file)) return false;
      break;
    }
    char* data = buffer.data();
    const std::size_t end = kept + got;
    vxfilter::CopyLowerAscii(data + kept, data + kept, got);
    std::size_t lineStart = 0;
    for (;;) {
      const void* lf = std::memchr(data + lineStart, '\n', end - lineStart);
      if (lf == nullptr) break;
      const std::size_t i = static_cast<std::size_t>(static_cast<const char*>(lf) - data);
      std::size_t lineEnd = i;
      if (lineEnd > lineStart && data[lineEnd - 1] == '\r') --lineEnd;
      if (lineEnd > lineStart) onLine(std::string_view(data + lineStart, lineEnd - lineStart));
      lineStart = i + 1;
    }
    kept = end - lineStart;
    std::copy(data + lineStart, data + end, data);
  }
  if (kept > 0) onLine(std::string_view(buffer.data(), kept));
  return true;
}

void AddToIndex(void* index, const vxfilter::RuleEntry& entry) {
  static_cast<RuleIndex*>(index)->Add(entry);
}

// The user's approved list wins over everything, then come the filters
// file's exceptions.
bool MatchExceptions(const RuleIndex::Walk* approved, const RuleIndex::Walk* filters) {
  if (approved != nullptr && (approved->MatchTable(vxfilter::kApprovedExact) ||
                              approved->MatchTable(vxfilter::kApprovedWildcard))) {
    return true;
  }
  return filters != nullptr && (filters->MatchTable(vxfilter::kFiltersExceptionExact) ||
                                filters->MatchTable(vxfilter::kFiltersExceptionWildcard));
}

// Exact tables before wildcard tables, the ad-server pair first in each.
int MatchDomainRules(const RuleIndex::Walk& filters) {
  if (filters.MatchTable(vxfilter::kAdServerExact)) return VerdictAdServer;
  if (filters.MatchTable(vxfilter::kOtherExact)) return VerdictDomain;
  if (filters.MatchTable(vxfilter::kAdServerWildcard)) return VerdictAdServer;
  if (filters.MatchTable(vxfilter::kOtherWildcard)) return VerdictDomain;
  return 0;
}

bool MatchGenericRules(const RuleIndex::Walk& filters) {
  return filters.MatchTable(vxfilter::kGenericTable);
}

constexpr std::size_t kMaxHostName = 253;

// The host of a CONNECT target: without a ":port" after a name (a bracketed
// address keeps its brackets and never names a rule).
std::string_view TargetHost(std::string_view target) {
  const std::size_t colon = target.rfind(':');
  if (colon != std::string_view::npos && target.find(':') == colon) target = target.substr(0, colon);
  return target;
}

std::string Lowered(std::string_view text) {
  std::string out(text);
  vxfilter::CopyLowerAscii(out.data(), out.data(), out.size());
  return out;
}

}  // namespace

namespace vxfilter {

// Everything a check reads. Published tables never change; a load copies
// the pointers of the ones in use and replaces what it loaded.
struct Tables {
  std::shared_ptr<const RuleIndex> filters;   // null until a filters file loads
  std::shared_ptr<const RuleIndex> approved;  // null while nothing is approved
  std::string version = kInitialVersion;
};

}  // namespace vxfilter

using vxfilter::Tables;

CFilterEngineImpl::CFilterEngineImpl() : tables_(std::make_shared<const Tables>()) {}

CFilterEngineImpl::~CFilterEngineImpl() = default;

void CFilterEngineImpl::SetErrorReporter(ErrorReporter report, void* context) {
  report_ = report;
  reportContext_ = context;
}

void CFilterEngineImpl::ReportError(const char* message, const char* detail) const {
  if (report_ != nullptr) report_(reportContext_, message, detail);
}

CFilterEngineImpl::TablesPtr CFilterEngineImpl::Current() const {
  std::lock_guard<std::mutex> lock(tablesLock_);
  return tables_;
}

void CFilterEngineImpl::Publish(TablesPtr tables) {
  {
    std::lock_guard<std::mutex> lock(tablesLock_);
    tables_.swap(tables);
  }
  // The old tables go here, out of the lock, unless a check still holds them;
  // then the last such check frees them.
  tables.reset();
}

bool CFilterEngineImpl::SetFiltersFile(const char* path) {
  std::lock_guard<std::mutex> load(loadLock_);
  return SetFiltersFileLocked(path);
}

bool CFilterEngineImpl::SetFiltersFileLocked(const char* path) {
  if (path == nullptr) return false;
  File file(path);
  if (file.get() == nullptr) {
    ReportError(kFailedToOpen, path);
    return false;
  }
  filtersPath_ = path;
  return true;
}

bool CFilterEngineImpl::LoadFilters() {
  std::lock_guard<std::mutex> load(loadLock_);
  Tables next = *Current();
  if (!LoadFiltersInto(next)) return false;
  Publish(std::make_shared<const Tables>(std::move(next)));
  return true;
}

bool CFilterEngineImpl::LoadFiltersInto(Tables& next) {
  File file(filtersPath_.c_str());
  if (file.get() == nullptr) {
    ReportError(kFailedToOpen, filtersPath_.c_str());
    return false;
  }
  bool complete = false;
  try {
    auto index = std::make_shared<RuleIndex>();
    index->Reserve(os::FileSize(filtersPath_.c_str()));
    bool inAdServerSection = inAdServerSection_;
    std::string version = kInitialVersion;
    vxfilter::RuleParser parser(&AddToIndex, index.get());
    complete = ReadLowerLines(file.get(), [&](std::string_view line) {
      parser.ReadFiltersLine(line, inAdServerSection, version);
    });
    if (complete) {
      index->Finish();
      next.filters = std::move(index);
      next.version = std::move(version);
      inAdServerSection_ = inAdServerSection;
    }
  } catch (const std::exception&) {
    complete = false;
  }
  if (!complete) ReportError(kFiltersReadFailed, filtersPath_.c_str());
  return complete;
}

void CFilterEngineImpl::ClearRules() {
  std::lock_guard<std::mutex> load(loadLock_);
  Tables next = *Current();
  if (!next.filters) return;
  next.filters.reset();
  Publish(std::make_shared<const Tables>(std::move(next)));
}

bool CFilterEngineImpl::LoadUserApprovedList(const char* path) {
  std::lock_guard<std::mutex> load(loadLock_);
  Tables next = *Current();
  if (!LoadApprovedInto(path, next)) return false;
  Publish(std::make_shared<const Tables>(std::move(next)));
  return true;
}

bool CFilterEngineImpl::LoadApprovedInto(const char* path, Tables& next) {
  File file(path != nullptr ? path : "");
  if (file.get() == nullptr) {  // no list (yet): nothing approved
    next.approved.reset();
    return true;
  }
  bool complete = false;
  try {
    auto index = std::make_shared<RuleIndex>();
    vxfilter::RuleParser parser(&AddToIndex, index.get());
    complete = ReadLowerLines(file.get(), [&](std::string_view line) { parser.ReadApprovedLine(line); });
    if (complete) {
      index->Finish();
      next.approved = index->empty() ? nullptr : std::move(index);
    }
  } catch (const std::exception&) {
    complete = false;
  }
  if (!complete) ReportError(kApprovedReadFailed, path);
  return complete;
}

bool CFilterEngineImpl::LoadLists(const char* filtersPath, const char* approvedPath) {
  std::lock_guard<std::mutex> load(loadLock_);
  Tables next = *Current();
  bool filters = false;
  if (SetFiltersFileLocked(filtersPath)) filters = LoadFiltersInto(next);
  const bool approved = LoadApprovedInto(approvedPath, next);
  Publish(std::make_shared<const Tables>(std::move(next)));
  return filters && approved;
}

std::string CFilterEngineImpl::GetVersion() const { return Current()->version; }

std::size_t CFilterEngineImpl::RuleCount() const {
  const TablesPtr tables = Current();
  return (tables->filters ? tables->filters->size() : 0) + (tables->approved ? tables->approved->size() : 0);
}

bool CFilterEngineImpl::IsDomainRuleHost(const char* host) {
  if (host == nullptr) return false;
  const TablesPtr tables = Current();
  return tables->filters && tables->filters->HasExactKey(vxfilter::kAdServerExact, host);
}

int CFilterEngineImpl::CheckRequest(std::string host, std::string path, std::string typeWord,
                                std::map<std::string, std::string> headers,
                                bool skipExceptionTypeCheck) const {
  FilterRequestInfo request;
  request.host = host;
  request.path = path;
  request.typeWord = typeWord;
  if (auto it = headers.find("referer"); it != headers.end()) request.referer = it->second;
  request.skipExceptionTypeCheck = skipExceptionTypeCheck;
  return CheckRequest(request);
}

int CFilterEngineImpl::CheckRequest(const FilterRequestInfo& info) const {
  try {
    // Taken once: a load that publishes meanwhile does not touch these.
    const TablesPtr tables = Current();
    const vxfilter::FilterRequest request(info.host, info.path, info.typeWord, info.referer,
                                          info.skipExceptionTypeCheck);
    std::optional<RuleIndex::Walk> approved;
    if (tables->approved) approved.emplace(*tables->approved, request);
    std::optional<RuleIndex::Walk> filters;
    if (tables->filters) filters.emplace(*tables->filters, request);
    if (MatchExceptions(approved ? &*approved : nullptr, filters ? &*filters : nullptr)) {
      return VerdictAllowed;
    }
    if (!filters) return VerdictNoMatch;
    if (const int code = MatchDomainRules(*filters)) return code;
    if (MatchGenericRules(*filters)) return VerdictGeneric;
    return VerdictNoMatch;
  } catch (...) {
    // A broken rule must not break browsing: the request passes.
    try {
      const std::string detail = Lowered(info.host) + Lowered(info.path);
      ReportError(kEvaluationFailed, detail.c_str());
    } catch (...) {
    }
    return VerdictNoMatch;
  }
}

std::string TunnelVerdict::RuleText() const {
  using R = Reason;
  const std::string n(name);
  switch (reason) {
    case R::kNoHost:
      return "no host name";
    case R::kNoAdServerRule:
      return "no ad-server rule";
    case R::kPartialRule:
      return "ad-server rule ||" + n + " has a path or options";
    case R::kException:
      return wholeHostEntry ? "exception @@||" + n + (separator ? "^" : "")
                            : "exception keyed " + n + " with a path or options";
    case R::kExceptionText:
      return "an exception's text names or matches " + n;
    case R::kAnchoredKeyless:
      return "host-anchored exception without a host";
    case R::kAdServerRule:
      return "||" + n + (separator ? "^" : "");
  }
  return {};
}

TunnelVerdict CFilterEngineImpl::JudgeTunnelHost(std::string_view target) const {
  using R = TunnelVerdict::Reason;
  TunnelVerdict verdict;
  const std::string_view host = TargetHost(target);
  if (host.empty() || host.size() > kMaxHostName) return verdict;
  char lowered[kMaxHostName];
  vxfilter::CopyLowerAscii(lowered, host.data(), host.size());
  const std::string_view name(lowered, host.size());
  vxfilter::SmallVec<std::string_view, 8> names;
  vxfilter::DomainSuffixes(name, names);
  // The caller's spelling of a name: the same bytes at the same place.
  auto original = [&](std::string_view n) {
    return host.substr(static_cast<std::size_t>(n.data() - lowered));
  };
  vxfilter::SmallVec<std::uint32_t, 8> hashes;
  for (std::string_view n : names) hashes.push_back(vxfilter::HashName(n));
  const std::size_t count = names.size();

  const TablesPtr tables = Current();
  verdict.reason = R::kNoAdServerRule;
  if (!tables->filters) return verdict;
  const RuleIndex& filters = *tables->filters;
  const RuleIndex* approved = tables->approved.get();

  bool found = false;
  for (std::size_t i = 0; i < count && !found; ++i) {
    std::uint8_t flags = 0;
    if (!filters.FindExactKey(vxfilter::kAdServerExact, names[i], hashes[i], &flags)) continue;
    if ((flags & vxfilter::kFlagWholeHost) != 0) {
      found = true;
      verdict.name = original(names[i]);
      verdict.separator = (flags & vxfilter::kFlagHasSeparator) != 0;
    } else if (verdict.reason == R::kNoAdServerRule) {
      verdict.reason = R::kPartialRule;
      verdict.name = original(names[i]);
    }
  }
  if (!found) return verdict;
  const bool blockSeparator = verdict.separator;

  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t flags = 0;
    if ((approved != nullptr &&
         approved->FindExactKey(vxfilter::kApprovedExact, names[i], hashes[i], &flags)) ||
        filters.FindExactKey(vxfilter::kFiltersExceptionExact, names[i], hashes[i], &flags)) {
      verdict.reason = R::kException;
      verdict.name = original(names[i]);
      verdict.wholeHostEntry = (flags & vxfilter::kFlagWholeHost) != 0;
      verdict.separator = (flags & vxfilter::kFlagHasSeparator) != 0;
      return verdict;
    }
  }
  verdict.separator = false;
  for (std::size_t i = 0; i < count; ++i) {
    if ((approved != nullptr && approved->ExceptionTextMentions(names[i], hashes[i])) ||
        filters.ExceptionTextMentions(names[i], hashes[i])) {
      verdict.reason = R::kExceptionText;
      verdict.name = original(names[i]);
      return verdict;
    }
  }
  char text[3 + kMaxHostName];
  std::memcpy(text, "://", 3);
  std::memcpy(text + 3, lowered, name.size());
  const std::string_view hostText(text, 3 + name.size());
  if ((approved != nullptr && approved->WildcardExceptionInHost(hostText)) ||
      filters.WildcardExceptionInHost(hostText)) {
    verdict.reason = R::kExceptionText;
    verdict.name = host;
    return verdict;
  }
  if ((approved != nullptr && approved->HasAnchoredKeylessException()) ||
      filters.HasAnchoredKeylessException()) {
    verdict.reason = R::kAnchoredKeyless;
    verdict.name = {};
    return verdict;
  }
  verdict.block = true;
  verdict.reason = R::kAdServerRule;
  verdict.wholeHostEntry = true;
  verdict.separator = blockSeparator;
  return verdict;
}
