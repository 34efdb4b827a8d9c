// A literal rendering of the rule walk, kept beside the tests as the measure
// of the engine: plain strings, every wildcard and generic table walked entry
// by entry, one substring search per generic rule. It is slow on purpose; the
// engine must give the same verdict for every request.
#pragma once

#include <cstddef>
#include <fstream>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"

namespace reference {

struct RuleOptions {
  unsigned typeMask = 63;
  bool hostAnchored = false;
  bool endAnchored = false;
  bool thirdParty = false;
  bool notThirdParty = false;
  bool hasSeparator = false;
  bool hasWildcard = false;
  bool domainsNegated = false;
  std::string fragments;
  std::vector<std::string> domains;
};

struct RuleEntry {
  std::string key;
  RuleOptions options;
};

// Entries in insertion order; lookups by key keep that order too.
class RuleTable {
 public:
  void Insert(RuleEntry entry) {
    byKey_[entry.key].push_back(entries_.size());
    entries_.push_back(std::move(entry));
  }
  std::vector<const RuleEntry*> Find(const std::string& key) const {
    std::vector<const RuleEntry*> out;
    auto it = byKey_.find(key);
    if (it != byKey_.end()) {
      for (std::size_t i : it->second) out.push_back(&entries_[i]);
    }
    return out;
  }
  const std::vector<RuleEntry>& All() const { return entries_; }
  bool Empty() const { return entries_.empty(); }
  void Clear() {
    entries_.clear();
    byKey_.clear();
  }

 private:
  std::vector<RuleEntry> entries_;
  std::unordered_map<std::string, std::vector<std::size_t>> byKey_;
};

struct RuleTableSet {
  RuleTable tables[4];
};

enum class Mode { Blocking, Exception };

struct TypeRow {
  const char* name;
  const char* words;
  unsigned bits;
};

inline const TypeRow kRequestTypeTable[] = {
    {"image", "gif|jpg|jpeg|ico|png|bmp|psd|svg|tiff", 1},
    {"object", "swf|flv|f4v", 4},
    {"object-subrequest", "swf|flv|f4v|xml", 8},
    {"script", "js|htm|html", 2},
    {"document", "*", 63},
    {"subdocument", "htm|html", 16},
    {"stylesheet", "css", 32},
};

inline std::string ToLower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return s;
}

inline std::vector<std::string> Split(const std::string& s, char separator) {
  std::vector<std::string> out;
  std::size_t start = 0;
  for (;;) {
    std::size_t at = s.find(separator, start);
    if (at == std::string::npos) {
      out.push_back(s.substr(start));
      return out;
    }
    out.push_back(s.substr(start, at - start));
    start = at + 1;
  }
}

inline bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

inline bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

inline void ParseOptions(const std::string& text, RuleOptions& o) {
  for (std::string option : Split(text, ',')) {
    if (option.empty()) continue;
    bool negated = false;
    if (option[0] == '~') {
      negated = true;
      option = option.substr(1);
    }
    const TypeRow* row = nullptr;
    for (const TypeRow& r : kRequestTypeTable) {
      if (option == r.name) {
        row = &r;
        break;
      }
    }
    if (row != nullptr) {
      if (!negated && o.typeMask == 63) o.typeMask = 0;
      const std::string name = row->name;
      if (name == "object" || name == "object-subrequest") {
        if (negated) o.typeMask &= ~12u; else o.typeMask |= 12u;
      } else if (name == "document") {
        o.typeMask = 63;
      } else if (negated) {
        o.typeMask &= ~row->bits;
      } else {
        o.typeMask |= row->bits;
      }
    } else if (option == "third-party") {
      o.thirdParty = true;
      if (negated) o.notThirdParty = true;
    } else if (StartsWith(option, "domain=")) {
      std::vector<std::string> names;
      for (std::string name : Split(option.substr(7), '|')) {
        if (!name.empty() && name[0] == '~') {
          o.domainsNegated = true;
          name = name.substr(1);
        }
        names.push_back(name);
      }
      o.domains = names;
    }
  }
}

inline std::string SplitAtWildcard(std::string s, RuleOptions& o) {
  if (s.find('*') == std::string::npos) return s;
  while (!s.empty() && s.back() == '*') s.pop_back();
  std::size_t p = s.find('*');
  if (p == std::string::npos) return s;
  o.hasWildcard = true;
  o.fragments = s.substr(p + 1);
  return s.substr(0, p);
}

inline std::string SplitRuleKey(const std::string& t, RuleOptions& o) {
  std::string p = t.substr(0, t.find('$'));
  std::string key;
  std::string rest;
  if (p.find('^') != std::string::npos) {
    key = p.substr(0, p.find('^'));
    rest = p.substr(p.find('^') + 1);
  } else if (p.find('/') != std::string::npos) {
    key = p.substr(0, p.find('/'));
    rest = p.substr(p.find('/'));
  } else {
    key = p;
  }
  if (!rest.empty()) {
    rest = SplitAtWildcard(rest, o);
    if (!rest.empty()) o.fragments = o.fragments.empty() ? rest : rest + "+" + o.fragments;
  }
  return key;
}

inline bool CleanKey(std::string& key) {
  std::string out;
  for (char c : key) {
    if (c != '^') out += c;
  }
  bool removed = false;
  while (!out.empty() && out.back() == '*') {
    out.pop_back();
    removed = true;
  }
  key = out;
  return removed;
}

// The glob search with a single backtrack point, as it is usually written.
inline bool WildcardFind(const std::string& text, const std::string& pattern, std::size_t& start,
                         std::size_t& length) {
  std::string wrapped = pattern;
  if (wrapped.empty() || wrapped.front() != '*') wrapped = "*" + wrapped;
  if (wrapped.back() != '*') wrapped += "*";
  if (text.empty() || wrapped.find_first_not_of('*') == std::string::npos) return false;
  const std::size_t n = text.size();
  const std::size_t m = wrapped.size();
  std::vector<std::size_t> pairedAt(m, 0);
  std::size_t p = 0;
  std::size_t t = 0;
  long starP = -1;
  std::size_t starT = 0;
  while (t < n) {
    if (p < m && wrapped[p] != '*' && wrapped[p] == text[t]) {
      pairedAt[p] = t;
      ++p;
      ++t;
    } else if (p < m && wrapped[p] == '*') {
      starP = static_cast<long>(p);
      ++p;
      starT = t;
    } else if (starP >= 0) {
      p = static_cast<std::size_t>(starP) + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < m && wrapped[p] == '*') ++p;
  if (p != m) return false;
  const std::size_t firstLiteral = wrapped.find_first_not_of('*');
  const std::size_t lastLiteral = wrapped.find_last_not_of('*');
  start = pairedAt[firstLiteral];
  length = pairedAt[lastLiteral] + 1 - start;
  return true;
}

inline std::vector<std::string> DomainSuffixes(const std::string& name) {
  std::vector<std::string> out;
  if (name.empty()) return out;
  out.push_back(name);
  std::string current = name;
  for (;;) {
    std::size_t dots = 0;
    for (char c : current) dots += c == '.' ? 1 : 0;
    if (dots < 2) break;
    current = current.substr(current.find('.') + 1);
    if (StartsWith(current, "co.")) break;
    out.push_back(current);
  }
  return out;
}

inline std::string HostOfUrl(const std::string& url) {
  std::string host = os::UrlHostName(url.c_str());
  if (StartsWith(host, "www.")) host = host.substr(4);
  return host;
}

class ReferenceFilter {
 public:
  // False when the file cannot be opened.
  bool LoadFilters(const std::string& path) {
    ClearRules();
    version = "0.0";
    std::ifstream file(path);
    if (!file) return false;
    std::string line;
    while (ReadLine(file, line)) {
      if (line.empty()) continue;
      line = ToLower(line);
      if (line[0] == '!') {
        if (line.find("/easylist_adservers.txt") != std::string::npos) {
          inAdServerSection = true;
        } else if (line.find("/easylist_thirdparty.txt") != std::string::npos ||
                   line.find("/easylist_specific_block.txt") != std::string::npos) {
          inAdServerSection = false;
        } else if (line.find("version=") != std::string::npos) {
          std::string v;
          for (char c : line.substr(line.find('=') + 1)) {
            if (c != ' ' && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r') v += c;
          }
          version = v;
        }
      } else if (StartsWith(line, "||")) {
        AddDomainRule(line.substr(2), inAdServerSection);
      } else if (StartsWith(line, "@@")) {
        if (line.substr(2, 2) == "||") {
          AddException(line.substr(4), true, 0);
        } else {
          AddException(line.substr(2), false, 0);
        }
      } else if (line.find("##") != std::string::npos) {
        // element hiding
      } else {
        AddGenericRule(line);
      }
    }
    return true;
  }

  bool LoadUserApprovedList(const std::string& path) {
    exceptionRules.tables[2].Clear();
    exceptionRules.tables[3].Clear();
    std::ifstream file(path);
    if (!file) return true;
    std::string line;
    while (ReadLine(file, line)) {
      if (line.empty()) continue;
      line = ToLower(line);
      if (!StartsWith(line, "@@")) continue;
      if (line.substr(2, 2) == "||") {
        AddException(line.substr(4), true, 2);
      } else {
        AddException(line.substr(2), false, 2);
      }
    }
    return true;
  }

  void ClearRules() {
    genericRules.Clear();
    for (RuleTable& t : domainRules.tables) t.Clear();
    exceptionRules.tables[0].Clear();
    exceptionRules.tables[1].Clear();
  }

  int CheckRequest(std::string host, std::string path, std::string typeWord,
                   std::map<std::string, std::string> headers, bool skipExceptionTypeCheck) {
    host = ToLower(host);
    path = ToLower(path);
    typeWord = ToLower(typeWord);
    std::string referer;
    if (headers.count("referer") != 0) referer = ToLower(headers["referer"]);
    const std::string r = "://" + host + path;
    try {
      if (MatchExceptions(r, host, typeWord, referer, skipExceptionTypeCheck)) return 200;
      if (int code = MatchDomainRules(r, host, typeWord, referer)) return code;
      if (MatchGenericRules(r, host, typeWord, referer)) return 400;
      return 100;
    } catch (...) {
      ++evaluationErrors;
      return 100;
    }
  }

  std::string version = "0.0";
  bool inAdServerSection = false;
  int evaluationErrors = 0;
  RuleTableSet domainRules;     // ad-server exact, ad-server wildcard, other exact, other wildcard
  RuleTable genericRules;
  RuleTableSet exceptionRules;  // filters exact, filters wildcard, approved exact, approved wildcard

 private:
  // A line ends at LF; a CR right before that LF is dropped.
  static bool ReadLine(std::ifstream& file, std::string& line) {
    if (!std::getline(file, line)) return false;
    if (!file.eof() && !line.empty() && line.back() == '\r') line.pop_back();
    return true;
  }

  void AddDomainRule(const std::string& t, bool adServer) {
    RuleOptions o;
    o.hostAnchored = true;
    const std::size_t dollar = t.find('$');
    if (dollar != std::string::npos) {
      ParseOptions(t.substr(dollar + 1), o);
      if (o.typeMask == 0) return;
      if (dollar > 0 && t[dollar - 1] == '|') o.endAnchored = true;
    } else if (!t.empty() && t.back() == '|') {
      o.endAnchored = true;
    }
    if (t.find('^') != std::string::npos) o.hasSeparator = true;
    std::string key = SplitRuleKey(t, o);
    const bool removed = CleanKey(key);
    const bool wildcard = removed || key.find('*') != std::string::npos;
    const int pair = adServer ? 0 : 2;
    domainRules.tables[pair + (wildcard ? 1 : 0)].Insert(RuleEntry{key, o});
  }

  void AddException(const std::string& t, bool hostAnchored, int pair) {
    RuleOptions o;
    o.hostAnchored = hostAnchored;
    const std::size_t dollar = t.find('$');
    if (dollar != std::string::npos) {
      ParseOptions(t.substr(dollar + 1), o);
      if (dollar > 0 && t[dollar - 1] == '|') o.endAnchored = true;
    } else if (!t.empty() && t.back() == '|') {
      o.endAnchored = true;
    }
    if (t.find('^') != std::string::npos) o.hasSeparator = true;
    std::string key = SplitRuleKey(t, o);
    const bool removed = CleanKey(key);
    const bool wildcard = removed || key.find('*') != std::string::npos;
    exceptionRules.tables[pair + (wildcard ? 1 : 0)].Insert(RuleEntry{key, o});
  }

  void AddGenericRule(const std::string& l) {
    RuleOptions o;
    if (l[0] == '|') o.hostAnchored = true;
    const std::size_t dollar = l.find('$');
    const std::string key = SplitAtWildcard(l.substr(0, dollar), o);
    if (key.empty()) return;
    if (dollar != std::string::npos) {
      ParseOptions(l.substr(dollar + 1), o);
      if (o.typeMask == 0) return;
      if (l[dollar - 1] == '|') o.endAnchored = true;
    } else if (l.back() == '|') {
      o.endAnchored = true;
    }
    genericRules.Insert(RuleEntry{key, o});
  }

  static bool TypeMatches(unsigned mask, const std::string& w, Mode mode) {
    for (const TypeRow& row : kRequestTypeTable) {
      for (const std::string& word : Split(row.words, '|')) {
        if (mode == Mode::Exception && word == "*") {
          if (mask == 63) return true;
          continue;
        }
        if (word == w && (row.bits & mask) != 0) return true;
      }
    }
    return false;
  }

  static bool DomainListMatches(const RuleEntry& e, const std::vector<std::string>& n, Mode mode) {
    if (e.options.domains.empty()) return true;
    bool found = false;
    for (const std::string& name : n) {
      for (std::string d : e.options.domains) {
        if (EndsWith(d, ".etc")) d = d.substr(0, d.size() - 4);
        if (name == d) {
          found = true;
          break;
        }
      }
      if (found) break;
    }
    if (mode == Mode::Blocking) return e.options.domainsNegated ? !found : found;
    return found ? true : e.options.domainsNegated;
  }

  static bool IsWithinSite(const std::string& host, const std::vector<std::string>& n) {
    for (const std::string& name : n) {
      if (host == name || host.find("." + name) != std::string::npos) return true;
    }
    return false;
  }

  static bool MatchEntry(const RuleEntry& e, const std::string& r, const std::string& host,
                         const std::string& typeWord, const std::string& referer, Mode mode,
                         bool skipType) {
    const RuleOptions& o = e.options;
    // 1
    std::string k = e.key;
    std::size_t p = r.find(k);
    if (p == std::string::npos) {
      std::size_t start = 0;
      std::size_t length = 0;
      if (!WildcardFind(r, k, start, length)) return false;
      k = r.substr(start, length);
      p = start;
    }
    // 2
    if (!skipType && !TypeMatches(o.typeMask, typeWord, mode)) return false;
    // 3
    if (o.hostAnchored && host != k) {
      std::string d = k;
      if (!(StartsWith(k, "www.") || k.at(0) == '.')) d = "." + k;
      if (host.find(d) == std::string::npos) return false;
    }
    // 4
    if (o.endAnchored && p + k.size() != r.size()) return false;
    // 5
    if (o.hasSeparator) {
      std::size_t at = host.find(k);
      if (at == std::string::npos || at + k.size() != host.size()) return false;
    }
    // 6
    const std::string h = HostOfUrl(referer);
    const std::vector<std::string> n = DomainSuffixes(h);
    if (!n.empty() && !DomainListMatches(e, n, mode)) {
      if (mode == Mode::Blocking) return false;
      if (!IsWithinSite(host, n)) return false;
    }
    // 7
    if (o.thirdParty) {
      if (n.empty()) return false;
      bool firstParty = false;
      for (const std::string& name : n) {
        if (host.find(name) != std::string::npos) firstParty = true;
      }
      if (o.notThirdParty ? !firstParty : firstParty) return false;
    }
    // 8
    if (o.fragments.empty()) return true;
    std::string t = o.fragments;
    const std::size_t plus = o.fragments.find('+');
    if (plus != std::string::npos) {
      if (r.find(o.fragments.substr(0, plus)) == std::string::npos) return false;
      t = o.fragments.substr(plus + 1);
    }
    if (o.hasWildcard) {
      if (t.find('*') != std::string::npos) {
        std::size_t start = 0;
        std::size_t length = 0;
        return WildcardFind(r, t, start, length);
      }
      return r.find(t) != std::string::npos;
    }
    return r.find(o.fragments) != std::string::npos;
  }

  static bool MatchExactTable(const RuleTable& table, const std::string& r, const std::string& host,
                              const std::string& typeWord, const std::string& referer, Mode nameMode,
                              Mode emptyMode, bool skipType) {
    for (const std::string& name : DomainSuffixes(host)) {
      for (const RuleEntry* e : table.Find(name)) {
        if (MatchEntry(*e, r, host, typeWord, referer, nameMode, skipType)) return true;
      }
    }
    for (const RuleEntry* e : table.Find("")) {
      if (MatchEntry(*e, r, host, typeWord, referer, emptyMode, skipType)) return true;
    }
    return false;
  }

  static bool MatchWildcardTable(const RuleTable& table, const std::string& r,
                                 const std::string& host, const std::string& typeWord,
                                 const std::string& referer, Mode mode, bool skipType) {
    std::size_t e = r.find('/', 3);
    if (e == std::string::npos) e = r.size();
    for (const RuleEntry& entry : table.All()) {
      std::size_t start = 0;
      std::size_t length = 0;
      if (!WildcardFind(r, entry.key, start, length)) continue;
      if (start < 3 || start + length > e) continue;
      if (MatchEntry(entry, r, host, typeWord, referer, mode, skipType)) return true;
    }
    return false;
  }

  bool MatchExceptions(const std::string& r, const std::string& host, const std::string& typeWord,
                       const std::string& referer, bool skip) const {
    const RuleTable* t = exceptionRules.tables;
    if (MatchExactTable(t[2], r, host, typeWord, referer, Mode::Exception, Mode::Exception, skip)) return true;
    if (!t[3].Empty() && MatchWildcardTable(t[3], r, host, typeWord, referer, Mode::Exception, skip)) return true;
    if (MatchExactTable(t[0], r, host, typeWord, referer, Mode::Exception, Mode::Exception, skip)) return true;
    if (!t[1].Empty() && MatchWildcardTable(t[1], r, host, typeWord, referer, Mode::Exception, skip)) return true;
    return false;
  }

  int MatchDomainRules(const std::string& r, const std::string& host, const std::string& typeWord,
                       const std::string& referer) const {
    const RuleTable* t = domainRules.tables;
    if (MatchExactTable(t[0], r, host, typeWord, referer, Mode::Blocking, Mode::Exception, false)) return 300;
    if (MatchExactTable(t[2], r, host, typeWord, referer, Mode::Blocking, Mode::Exception, false)) return 500;
    if (!t[1].Empty() && MatchWildcardTable(t[1], r, host, typeWord, referer, Mode::Blocking, false)) return 300;
    if (!t[3].Empty() && MatchWildcardTable(t[3], r, host, typeWord, referer, Mode::Blocking, false)) return 500;
    return 0;
  }

  bool MatchGenericRules(const std::string& r, const std::string& host, const std::string& typeWord,
                         const std::string& referer) const {
    for (const RuleEntry& e : genericRules.All()) {
      if (r.find(e.key) != std::string::npos &&
          MatchEntry(e, r, host, typeWord, referer, Mode::Blocking, false)) {
        return true;
      }
    }
    return false;
  }
};

}  // namespace reference
