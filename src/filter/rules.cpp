#include "filter/rules.h"

#include <algorithm>
#include <cstring>

namespace vxfilter {
namespace {

constexpr std::size_t kMaxVersionLength = 259;

struct TypeRow {
  std::string_view name;
  std::uint16_t bits;
};

// Option names and their bits, in the order every walk uses.
constexpr TypeRow kTypeRows[] = {
    {"image", kTypeImage},
    {"object", kTypeObject | kTypeObjectSubrequest},
    {"object-subrequest", kTypeObject | kTypeObjectSubrequest},
    {"script", kTypeScript},
    {"document", kTypeAll},
    {"subdocument", kTypeSubdocument},
    {"stylesheet", kTypeStylesheet},
};

bool Contains(std::string_view text, std::string_view what) {
  return text.find(what) != std::string_view::npos;
}

bool IsWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

void ParseDomainList(std::string_view names, RuleOptions& options) {
  options.domains.clear();
  // Every "|" splits, so "a|" and "" name an empty domain as well: such a
  // name never equals a referring name.
  for (;;) {
    const std::size_t bar = names.find('|');
    std::string_view name = names.substr(0, bar);
    if (!name.empty() && name[0] == '~') {
      options.domainsNegated = true;
      name.remove_prefix(1);
    }
    options.domains.push_back(name);
    if (bar == std::string_view::npos) break;
    names.remove_prefix(bar + 1);
  }
}

}  // namespace

void RuleOptions::Reset() {
  typeMask = kTypeAll;
  hostAnchored = endAnchored = thirdParty = notThirdParty = false;
  hasSeparator = hasWildcard = domainsNegated = wholeHost = false;
  fragments.clear();
  domains.clear();
}

bool IsExactTable(TableId table) {
  return table == kFiltersExceptionExact || table == kApprovedExact || table == kAdServerExact ||
         table == kOtherExact;
}

bool IsWildcardTable(TableId table) {
  return table == kFiltersExceptionWildcard || table == kApprovedWildcard ||
         table == kAdServerWildcard || table == kOtherWildcard;
}

void ParseOptions(std::string_view text, RuleOptions& options) {
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    std::string_view option = text.substr(0, comma);
    text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    if (option.empty()) continue;
    const bool negated = option[0] == '~';
    if (negated) option.remove_prefix(1);

    const TypeRow* row = nullptr;
    for (const TypeRow& r : kTypeRows) {
      if (r.name == option) {
        row = &r;
        break;
      }
    }
    if (row != nullptr) {
      // The first positive type option replaces "every type".
      if (!negated && options.typeMask == kTypeAll) options.typeMask = 0;
      if (row->bits == kTypeAll) {
        options.typeMask = kTypeAll;
      } else if (negated) {
        options.typeMask = static_cast<std::uint16_t>(options.typeMask & ~row->bits);
      } else {
        options.typeMask = static_cast<std::uint16_t>(options.typeMask | row->bits);
      }
    } else if (option == "third-party") {
      options.thirdParty = true;
      if (negated) options.notThirdParty = true;
    } else if (option.substr(0, 7) == "domain=") {
      ParseDomainList(option.substr(7), options);
    }
  }
}

std::string_view SplitAtWildcard(std::string_view s, RuleOptions& options) {
  if (!Contains(s, "*")) return s;
  while (!s.empty() && s.back() == '*') s.remove_suffix(1);
  const std::size_t star = s.find('*');
  if (star == std::string_view::npos) return s;
  options.hasWildcard = true;
  options.fragments.assign(s.substr(star + 1));
  return s.substr(0, star);
}

std::string_view SplitRuleKey(std::string_view text, RuleOptions& options) {
  const std::string_view pattern = text.substr(0, text.find('$'));
  std::string_view key = pattern;
  std::string_view rest;
  // A separator ends the host part before a "/" does.
  if (const std::size_t caret = pattern.find('^'); caret != std::string_view::npos) {
    key = pattern.substr(0, caret);
    rest = pattern.substr(caret + 1);
  } else if (const std::size_t slash = pattern.find('/'); slash != std::string_view::npos) {
    key = pattern.substr(0, slash);
    rest = pattern.substr(slash);
  }
  if (!rest.empty()) rest = SplitAtWildcard(rest, options);
  if (!rest.empty()) {
    if (options.fragments.empty()) {
      options.fragments.assign(rest);
    } else {
      options.fragments.insert(0, 1, '+');
      options.fragments.insert(0, rest);
    }
  }
  return key;
}

bool CleanKey(std::string& key) {
  key.erase(std::remove(key.begin(), key.end(), '^'), key.end());
  bool removed = false;
  while (!key.empty() && key.back() == '*') {
    key.pop_back();
    removed = true;
  }
  return removed;
}

void RuleParser::ReadFiltersLine(std::string_view line, bool& inAdServerSection,
                                 std::string& version) {
  if (line.empty()) return;
  if (line[0] == '!') {
    if (Contains(line, "/easylist_adservers.txt")) {
      inAdServerSection = true;
    } else if (Contains(line, "/easylist_thirdparty.txt") ||
               Contains(line, "/easylist_specific_block.txt")) {
      inAdServerSection = false;
    } else if (Contains(line, "version=")) {
      version.clear();
      for (char c : line.substr(line.find('=') + 1)) {
        if (!IsWhiteSpace(c) && version.size() < kMaxVersionLength) version.push_back(c);
      }
    }
    return;
  }
  if (line.substr(0, 2) == "||") {
    AddDomainRule(line.substr(2), inAdServerSection);
  } else if (line.substr(0, 2) == "@@") {
    if (line.substr(2, 2) == "||") {
      AddException(line.substr(4), true, false);
    } else {
      AddException(line.substr(2), false, false);
    }
  } else if (!Contains(line, "##")) {
    AddGenericRule(line);
  }
}

void RuleParser::ReadApprovedLine(std::string_view line) {
  if (line.substr(0, 2) != "@@") return;
  if (line.substr(2, 2) == "||") {
    AddException(line.substr(4), true, true);
  } else {
    AddException(line.substr(2), false, true);
  }
}

// The part that "||" rules and exceptions share: options, anchors and the
// key. Returns false when the line is dropped (a blocking rule without any
// type); sets wildcard when the key belongs in a wildcard table.
bool RuleParser::ParseKeyedRule(std::string_view text, bool hostAnchored, bool dropWithoutTypes,
                                bool* wildcard) {
  options_.Reset();
  options_.hostAnchored = hostAnchored;
  const std::size_t dollar = text.find('$');
  if (dollar != std::string_view::npos) {
    ParseOptions(text.substr(dollar + 1), options_);
    // An exception with a type mask of 0 is kept: it just never passes a type check.
    if (dropWithoutTypes && options_.typeMask == 0) return false;
    if (dollar > 0 && text[dollar - 1] == '|') options_.endAnchored = true;
  } else if (!text.empty() && text.back() == '|') {
    options_.endAnchored = true;
  }
  if (Contains(text, "^")) options_.hasSeparator = true;
  key_.assign(SplitRuleKey(text, options_));
  const bool lostStar = CleanKey(key_);
  *wildcard = lostStar || Contains(key_, "*");
  // The key and at most a closing separator: nothing limits the entry to
  // some paths, types or pages of the host.
  const std::string_view rest = text.substr(std::min(text.size(), key_.size()));
  options_.wholeHost = hostAnchored && !key_.empty() && text.substr(0, key_.size()) == key_ &&
                       (rest.empty() || rest == "^");
  return true;
}

void RuleParser::AddDomainRule(std::string_view text, bool adServer) {
  bool wildcard = false;
  if (!ParseKeyedRule(text, true, true, &wildcard)) return;
  if (adServer) {
    Emit(wildcard ? kAdServerWildcard : kAdServerExact, key_);
  } else {
    Emit(wildcard ? kOtherWildcard : kOtherExact, key_);
  }
}

void RuleParser::AddException(std::string_view text, bool hostAnchored, bool approved) {
  bool wildcard = false;
  ParseKeyedRule(text, hostAnchored, false, &wildcard);
  if (approved) {
    Emit(wildcard ? kApprovedWildcard : kApprovedExact, key_);
  } else {
    Emit(wildcard ? kFiltersExceptionWildcard : kFiltersExceptionExact, key_);
  }
}

void RuleParser::AddGenericRule(std::string_view line) {
  options_.Reset();
  if (line[0] == '|') options_.hostAnchored = true;
  const std::size_t dollar = line.find('$');
  const std::string_view key = SplitAtWildcard(line.substr(0, dollar), options_);
  if (key.empty()) return;
  if (dollar != std::string_view::npos) {
    ParseOptions(line.substr(dollar + 1), options_);
    if (options_.typeMask == 0) return;
    if (line[dollar - 1] == '|') options_.endAnchored = true;
  } else if (line.back() == '|') {
    options_.endAnchored = true;
  }
  // "|" and "^" are plain characters in a generic rule.
  Emit(kGenericTable, key);
}

void RuleParser::Emit(TableId table, std::string_view key) {
  const RuleEntry entry{table, key, &options_};
  sink_(context_, entry);
}

}  // namespace vxfilter
