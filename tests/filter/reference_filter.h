// A literal rendering of the rule walk, kept beside the tests as the measure
// of the engine: plain strings, every wildcard and generic table walked entry
// by entry, one substring search per generic rule. It is slow on purpose; the
// engine must give the same verdict for every request.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "filter/urlsplit.h"

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

// Key -> options. Entries with equal keys stay in the order of their lines;
// the order between different keys never changes a verdict.
using RuleTable = std::multimap<std::string, RuleOptions>;
using RuleEntry = RuleTable::value_type;

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
  for (char& c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return s;
}

inline std::vector<std::string> Split(const std::string& s, char separator) {
  std::vector<std::string> out;
  std::size_t start = 0;
  for (std::size_t at; (at = s.find(separator, start)) != std::string::npos; start = at + 1) {
    out.push_back(s.substr(start, at - start));
  }
  out.push_back(s.substr(start));
  return out;
}

inline void ParseOptions(const std::string& text, RuleOptions& o) {
  for (std::string option : Split(text, ',')) {
    const bool negated = option.starts_with("~");
    if (negated) option = option.substr(1);
    const TypeRow* row = nullptr;
    for (const TypeRow& r : kRequestTypeTable) {
      if (option == r.name) row = &r;
    }
    if (row != nullptr) {
      if (!negated && o.typeMask == 63) o.typeMask = 0;
      const unsigned bits = option.starts_with("object") ? 12 : row->bits;  // both object rows
      if (option == "document") {
        o.typeMask = 63;
      } else {
        o.typeMask = negated ? o.typeMask & ~bits : o.typeMask | bits;
      }
    } else if (option == "third-party") {
      o.thirdParty = true;
      if (negated) o.notThirdParty = true;
    } else if (option.starts_with("domain=")) {
      o.domains.clear();
      for (std::string name : Split(option.substr(7), '|')) {
        if (name.starts_with("~")) {
          o.domainsNegated = true;
          name = name.substr(1);
        }
        o.domains.push_back(name);
      }
    }
  }
}

inline std::string SplitAtWildcard(std::string s, RuleOptions& o) {
  if (s.find('*') == std::string::npos) return s;
  while (!s.empty() && s.back() == '*') s.pop_back();
  const std::size_t p = s.find('*');
  if (p == std::string::npos) return s;
  o.hasWildcard = true;
  o.fragments = s.substr(p + 1);
  return s.substr(0, p);
}

inline std::string SplitRuleKey(const std::string& t, RuleOptions& o) {
  const std::string p = t.substr(0, t.find('$'));
  std::size_t cut = p.find('^');
  std::string rest;
  if (cut != std::string::npos) {
    rest = p.substr(cut + 1);
  } else if ((cut = p.find('/')) != std::string::npos) {
    rest = p.substr(cut);
  }
  if (!rest.empty()) {
    rest = SplitAtWildcard(rest, o);
    if (!rest.empty()) o.fragments = o.fragments.empty() ? rest : rest + "+" + o.fragments;
  }
  return p.substr(0, cut);
}

inline bool CleanKey(std::string& key) {
  std::erase(key, '^');
  const bool removed = key.ends_with("*");
  while (key.ends_with("*")) key.pop_back();
  return removed;
}

// The glob search with a single backtrack point, as it is usually written.
inline bool WildcardFind(const std::string& text, const std::string& pattern, std::size_t& start,
                         std::size_t& length) {
  std::string wrapped = pattern.starts_with("*") ? pattern : "*" + pattern;
  if (!wrapped.ends_with("*")) wrapped += "*";
  if (text.empty() || wrapped.find_first_not_of('*') == std::string::npos) return false;
  const std::size_t n = text.size();
  const std::size_t m = wrapped.size();
  std::vector<std::size_t> pairedAt(m, 0);
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t starP = 0;  // set before any mismatch: wrapped starts with "*"
  std::size_t starT = 0;
  while (t < n) {
    if (p < m && wrapped[p] != '*' && wrapped[p] == text[t]) {
      pairedAt[p++] = t++;
    } else if (p < m && wrapped[p] == '*') {
      starP = p++;
      starT = t;
    } else {
      p = starP + 1;
      t = ++starT;
    }
  }
  while (p < m && wrapped[p] == '*') ++p;
  if (p != m) return false;
  start = pairedAt[wrapped.find_first_not_of('*')];
  length = pairedAt[wrapped.find_last_not_of('*')] + 1 - start;
  return true;
}

inline std::vector<std::string> DomainSuffixes(const std::string& name) {
  std::vector<std::string> out;
  if (name.empty()) return out;
  out.push_back(name);
  std::string current = name;
  while (std::count(current.begin(), current.end(), '.') >= 2) {
    current = current.substr(current.find('.') + 1);
    if (current.starts_with("co.")) break;
    out.push_back(current);
  }
  return out;
}

inline std::string HostOfUrl(const std::string& url) {
  std::string host = vxfilter::UrlHostName(url.c_str());
  return host.starts_with("www.") ? host.substr(4) : host;
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
          // The version is kept in a field of 260 characters, its NUL included.
          version.clear();
          for (char c : line.substr(line.find('=') + 1)) {
            if (!std::isspace(static_cast<unsigned char>(c)) && version.size() < 259) version += c;
          }
        }
      } else if (line.starts_with("||")) {
        AddKeyedRule(line.substr(2), true, true, &domainRules[inAdServerSection ? 0 : 2]);
      } else if (line.starts_with("@@")) {
        AddException(line, &exceptionRules[0]);
      } else if (line.find("##") == std::string::npos) {  // element hiding is not ours
        AddGenericRule(line);
      }
    }
    return true;
  }

  bool LoadUserApprovedList(const std::string& path) {
    exceptionRules[2].clear();
    exceptionRules[3].clear();
    std::ifstream file(path);
    std::string line;
    while (file && ReadLine(file, line)) {
      line = ToLower(line);
      if (line.starts_with("@@")) AddException(line, &exceptionRules[2]);
    }
    return true;
  }

  void ClearRules() {
    genericRules.clear();
    for (RuleTable& t : domainRules) t.clear();
    exceptionRules[0].clear();
    exceptionRules[1].clear();
  }

  int CheckRequest(std::string host, std::string path, std::string typeWord,
                   std::map<std::string, std::string> headers, bool skipExceptionTypeCheck) {
    host = ToLower(host);
    typeWord = ToLower(typeWord);
    const std::string referer = ToLower(headers["referer"]);
    const std::string r = "://" + host + ToLower(path);
    const Request q{r, host, typeWord, referer, skipExceptionTypeCheck};
    const Request b{r, host, typeWord, referer, false};  // blocking rules always check the type
    const RuleTable* d = domainRules;
    const RuleTable* x = exceptionRules;
    try {
      if (MatchExactTable(x[2], q, Mode::Exception) || MatchWildcardTable(x[3], q, Mode::Exception) ||
          MatchExactTable(x[0], q, Mode::Exception) || MatchWildcardTable(x[1], q, Mode::Exception)) {
        return 200;
      }
      if (MatchExactTable(d[0], b, Mode::Blocking)) return 300;
      if (MatchExactTable(d[2], b, Mode::Blocking)) return 500;
      if (MatchWildcardTable(d[1], b, Mode::Blocking)) return 300;
      if (MatchWildcardTable(d[3], b, Mode::Blocking)) return 500;
      for (const RuleEntry& e : genericRules) {
        if (r.find(e.first) != std::string::npos && MatchEntry(e, b, Mode::Blocking)) return 400;
      }
      return 100;
    } catch (...) {
      ++evaluationErrors;
      return 100;
    }
  }

  std::string version = "0.0";
  bool inAdServerSection = false;
  int evaluationErrors = 0;
  RuleTable domainRules[4];     // ad-server exact, ad-server wildcard, other exact, other wildcard
  RuleTable genericRules;
  RuleTable exceptionRules[4];  // filters exact, filters wildcard, approved exact, approved wildcard

 private:
  struct Request {
    const std::string& r;
    const std::string& host;
    const std::string& typeWord;
    const std::string& referer;
    bool skipType;
  };

  // A line ends at LF; a CR right before that LF is dropped.
  static bool ReadLine(std::ifstream& file, std::string& line) {
    if (!std::getline(file, line)) return false;
    if (!file.eof() && !line.empty() && line.back() == '\r') line.pop_back();
    return true;
  }

  // pair: the exact table, followed by its wildcard table.
  static void AddKeyedRule(const std::string& t, bool hostAnchored, bool blocking, RuleTable* pair) {
    RuleOptions o;
    o.hostAnchored = hostAnchored;
    const std::size_t dollar = t.find('$');
    if (dollar != std::string::npos) {
      ParseOptions(t.substr(dollar + 1), o);
      if (blocking && o.typeMask == 0) return;
      if (dollar > 0 && t[dollar - 1] == '|') o.endAnchored = true;
    } else if (!t.empty() && t.back() == '|') {
      o.endAnchored = true;
    }
    if (t.find('^') != std::string::npos) o.hasSeparator = true;
    std::string key = SplitRuleKey(t, o);
    const bool removed = CleanKey(key);
    const bool wildcard = removed || key.find('*') != std::string::npos;
    pair[wildcard ? 1 : 0].emplace(key, o);
  }

  static void AddException(const std::string& line, RuleTable* pair) {
    const bool anchored = line.substr(2, 2) == "||";
    AddKeyedRule(line.substr(anchored ? 4 : 2), anchored, false, pair);
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
    genericRules.emplace(key, o);
  }

  static bool TypeMatches(unsigned mask, const std::string& w, Mode mode) {
    for (const TypeRow& row : kRequestTypeTable) {
      for (const std::string& word : Split(row.words, '|')) {
        if (mode == Mode::Exception && word == "*") {
          if (mask == 63) return true;
        } else if (word == w && (row.bits & mask) != 0) {
          return true;
        }
      }
    }
    return false;
  }

  static bool DomainListMatches(const RuleOptions& o, const std::vector<std::string>& n, Mode mode) {
    if (o.domains.empty()) return true;
    bool found = false;
    for (const std::string& name : n) {
      for (std::string d : o.domains) {
        if (d.ends_with(".etc")) d = d.substr(0, d.size() - 4);
        if (name == d) found = true;
      }
    }
    if (mode == Mode::Blocking) return o.domainsNegated ? !found : found;
    return found || o.domainsNegated;
  }

  static bool IsWithinSite(const std::string& host, const std::vector<std::string>& n) {
    for (const std::string& name : n) {
      if (host == name || host.find("." + name) != std::string::npos) return true;
    }
    return false;
  }

  static bool MatchEntry(const RuleEntry& e, const Request& q, Mode mode) {
    const RuleOptions& o = e.second;
    const std::string& r = q.r;
    const std::string& host = q.host;
    // 1
    std::string k = e.first;
    std::size_t p = r.find(k);
    if (p == std::string::npos) {
      std::size_t length = 0;
      if (!WildcardFind(r, k, p, length)) return false;
      k = r.substr(p, length);
    }
    // 2
    if (!q.skipType && !TypeMatches(o.typeMask, q.typeWord, mode)) return false;
    // 3
    if (o.hostAnchored && host != k) {
      const std::string d = (k.starts_with("www.") || k.at(0) == '.') ? k : "." + k;
      if (host.find(d) == std::string::npos) return false;
    }
    // 4
    if (o.endAnchored && p + k.size() != r.size()) return false;
    // 5
    if (o.hasSeparator) {
      const std::size_t at = host.find(k);
      if (at == std::string::npos || at + k.size() != host.size()) return false;
    }
    // 6
    const std::vector<std::string> n = DomainSuffixes(HostOfUrl(q.referer));
    if (!n.empty() && !DomainListMatches(o, n, mode)) {
      if (mode == Mode::Blocking || !IsWithinSite(host, n)) return false;
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
      std::size_t start = 0;
      std::size_t length = 0;
      if (t.find('*') != std::string::npos) return WildcardFind(r, t, start, length);
      return r.find(t) != std::string::npos;
    }
    return r.find(o.fragments) != std::string::npos;
  }

  // The host's names first, then the entries without a key, which are
  // always checked as exceptions.
  static bool MatchExactTable(const RuleTable& table, const Request& q, Mode nameMode) {
    for (const std::string& name : DomainSuffixes(q.host)) {
      for (auto [it, end] = table.equal_range(name); it != end; ++it) {
        if (MatchEntry(*it, q, nameMode)) return true;
      }
    }
    for (auto [it, end] = table.equal_range(""); it != end; ++it) {
      if (MatchEntry(*it, q, Mode::Exception)) return true;
    }
    return false;
  }

  // Entries whose glob lies outside the host part are skipped.
  static bool MatchWildcardTable(const RuleTable& table, const Request& q, Mode mode) {
    std::size_t e = q.r.find('/', 3);
    if (e == std::string::npos) e = q.r.size();
    for (const RuleEntry& entry : table) {
      std::size_t start = 0;
      std::size_t length = 0;
      if (!WildcardFind(q.r, entry.first, start, length)) continue;
      if (start < 3 || start + length > e) continue;
      if (MatchEntry(entry, q, mode)) return true;
    }
    return false;
  }
};

}  // namespace reference
