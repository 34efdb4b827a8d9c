#include "checktool.h"

#include <istream>
#include <map>
#include <ostream>
#include <vector>

#include "core/typewords.h"
#include "filter/engine.h"
#include "filter/urlsplit.h"

namespace vxhost {
namespace {

constexpr const char* kUsage =
    "usage: check [--filters FILE] [--approved FILE] [--type WORD] [--referer URL] [--redirect] URL\n"
    "       check --filters FILE [--approved FILE] --batch\n"
    "       check [--filters FILE] [--approved FILE] --connect HOST[:PORT]\n";

struct CheckOptions {
  std::string filters;
  std::string approved;
  std::string typeWord;
  std::string referer;
  std::string url;
  std::string connect;  // a CONNECT target, for the tunnel guard's answer
  bool haveType = false;
  bool redirect = false;
  bool batch = false;
};

bool ParseArguments(int argc, const char* const* argv, CheckOptions* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    bool ok = true;
    if (arg == "--filters") {
      ok = value(&o->filters);
    } else if (arg == "--approved") {
      ok = value(&o->approved);
    } else if (arg == "--type") {
      ok = value(&o->typeWord);
      o->haveType = true;
    } else if (arg == "--referer") {
      ok = value(&o->referer);
    } else if (arg == "--redirect") {
      o->redirect = true;
    } else if (arg == "--batch") {
      o->batch = true;
    } else if (arg == "--connect") {
      ok = value(&o->connect) && !o->connect.empty();
    } else if (!arg.empty() && arg[0] != '-' && o->url.empty()) {
      o->url = arg;
    } else {
      ok = false;
    }
    if (!ok) return false;
  }
  if (!o->connect.empty()) {
    return !o->batch && o->url.empty() && !o->haveType && o->referer.empty() && !o->redirect;
  }
  if (o->batch) return !o->filters.empty() && o->url.empty();
  return !o->url.empty();
}

void PrintError(void* context, const char* message, const char* detail) {
  *static_cast<std::ostream*>(context) << message << detail << '\n';
}

class Checker {
 public:
  explicit Checker(std::ostream& err) { FillTypeWordTable(typeWords_); engine_.SetErrorReporter(&PrintError, &err); }

  bool Load(const CheckOptions& o) {
    if (!o.filters.empty()) {
      if (!engine_.SetFiltersFile(o.filters.c_str()) || !engine_.LoadFilters()) return false;
    }
    return o.approved.empty() || engine_.LoadUserApprovedList(o.approved.c_str());
  }

  // "block ads.example (||ads.example^)", "pass example.com (no ad-server rule)".
  void Tunnel(std::string_view target, std::ostream& out) const {
    const TunnelVerdict verdict = engine_.JudgeTunnelHost(target);
    out << (verdict.block ? "block " : "pass ") << target << " (" << verdict.RuleText() << ")\n";
  }

  // False when the URL cannot be split.
  bool Verdict(std::string_view url, std::string_view typeWord, bool haveType,
               std::string_view referer, bool redirect, int* verdict) {
    if (!SplitCheckUrl(url, &host_, &target_, &path_)) return false;
    if (!haveType) {
      TypeWordOfPath(typeWords_, path_.c_str(), word_);
      typeWord = std::string_view(word_.GetBuffer(), static_cast<std::size_t>(word_.GetSize()));
    }
    FilterRequestInfo request;
    request.host = host_;
    request.path = target_;
    request.typeWord = typeWord;
    request.referer = referer;
    request.skipExceptionTypeCheck = redirect;
    *verdict = engine_.CheckRequest(request);
    return true;
  }

 private:
  CFilterEngineImpl engine_;
  std::map<std::string, std::string> typeWords_;
  std::string host_;
  std::string target_;
  std::string path_;
  CStringBuffer word_;
};

std::string_view NextField(std::string_view& line) {
  const std::size_t tab = line.find('\t');
  const std::string_view field = line.substr(0, tab);
  line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
  return field;
}

}  // namespace

bool SplitCheckUrl(std::string_view url, std::string* host, std::string* target, std::string* path) {
  // Any text before the "://" is taken as a scheme, and an unclosed "[" runs
  // to the end of the authority: the shared request corpus and the verdicts
  // recorded for it were read this way.
  vxfilter::UrlPieces pieces;
  if (!vxfilter::SplitUrl(url, &pieces) || pieces.host.empty()) return false;
  host->assign(pieces.host);

  const std::string_view rest = pieces.rest.substr(0, pieces.rest.find('#'));
  target->clear();
  if (rest.empty() || rest[0] != '/') target->push_back('/');
  target->append(rest);
  path->assign(*target, 0, target->find('?'));
  return true;
}

int RunCheck(int argc, const char* const* argv, std::istream& in, std::ostream& out,
             std::ostream& err) {
  CheckOptions options;
  if (!ParseArguments(argc, argv, &options)) {
    err << kUsage;
    return 2;
  }
  Checker checker(err);
  if (!checker.Load(options)) return 1;

  if (!options.connect.empty()) {
    checker.Tunnel(options.connect, out);
    return 0;
  }

  int verdict = VerdictNoMatch;
  if (!options.batch) {
    if (!checker.Verdict(options.url, options.typeWord, options.haveType, options.referer,
                         options.redirect, &verdict)) {
      err << "not an absolute URL: " << options.url << '\n';
      return 2;
    }
    out << verdict << '\n';
    return 0;
  }

  std::string line;
  std::string verdicts;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::string_view fields = line;
    const std::string_view url = NextField(fields);
    const std::string_view typeWord = NextField(fields);
    const std::string_view referer = NextField(fields);
    const bool redirect = NextField(fields) == "1";
    // A line that names no URL still gets its line of output, so that the
    // answers stay in step with the questions.
    if (!checker.Verdict(url, typeWord, !typeWord.empty(), referer, redirect, &verdict)) {
      verdict = VerdictNoMatch;
    }
    verdicts += std::to_string(verdict);
    verdicts += '\n';
    if (verdicts.size() > 64 * 1024) {
      out << verdicts;
      verdicts.clear();
    }
  }
  out << verdicts;
  return 0;
}

}  // namespace vxhost
