#include "filter/ruleindex.h"

#include <algorithm>

namespace vxfilter {
namespace {

constexpr std::string_view kDomainWildcardSuffix = ".etc";
constexpr std::size_t kHostPartStart = 3;  // R starts with "://"

std::uint32_t SlotOf(std::uint32_t hash, std::uint32_t mask) { return (hash ^ (hash >> 15)) & mask; }

std::uint8_t FlagsOf(const RuleOptions& o) {
  std::uint8_t flags = 0;
  if (o.hostAnchored) flags |= kFlagHostAnchored;
  if (o.endAnchored) flags |= kFlagEndAnchored;
  if (o.thirdParty) flags |= kFlagThirdParty;
  if (o.notThirdParty) flags |= kFlagNotThirdParty;
  if (o.hasSeparator) flags |= kFlagHasSeparator;
  if (o.hasWildcard) flags |= kFlagHasWildcard;
  if (o.domainsNegated) flags |= kFlagDomainsNegated;
  if (o.wholeHost) flags |= kFlagWholeHost;
  return flags;
}

bool IsExceptionTable(TableId table) {
  return table == kFiltersExceptionExact || table == kFiltersExceptionWildcard ||
         table == kApprovedExact || table == kApprovedWildcard;
}

// Hashes of every substring (up to the longest name the tunnel guard looks
// up) of the literal runs of a rule's text.
void AddPieceHashes(std::string_view text, std::vector<std::uint32_t>& out) {
  while (!text.empty()) {
    const std::size_t cut = text.find_first_of("*+^|");
    const std::string_view run = text.substr(0, cut);
    text.remove_prefix(cut == std::string_view::npos ? text.size() : cut + 1);
    for (std::size_t i = 0; i < run.size(); ++i) {
      const std::size_t longest = std::min(run.size() - i, RuleIndex::kMaxMentionLength);
      for (std::size_t n = 1; n <= longest; ++n) out.push_back(HashName(run.substr(i, n)));
    }
  }
}

// The longest piece of a glob between its "*"s.
std::string_view LongestRun(std::string_view glob) {
  std::string_view best;
  while (!glob.empty()) {
    const std::size_t star = glob.find('*');
    const std::string_view run = glob.substr(0, star);
    if (run.size() > best.size()) best = run;
    glob.remove_prefix(star == std::string_view::npos ? glob.size() : star + 1);
  }
  return best;
}

}  // namespace

RuleIndex::RuleIndex() {
  slots_.assign(16, Slot{0, kNoGroup});
  slotMask_ = 15;
}

void RuleIndex::Reserve(std::size_t sourceBytes) {
  // Joined easylist files hold about one stored rule per 40 bytes and keep
  // half of their bytes as keys, fragments and domains. Sizing everything
  // once spares the copies of growing, and fresh pages are what a first
  // load pays most for.
  const std::size_t rules = sourceBytes / 32;
  text_.reserve(sourceBytes / 2 + sourceBytes / 16);
  rules_.reserve(rules);
  ruleGroup_.reserve(rules);
  groups_.reserve(rules);
  std::uint32_t size = slotMask_ + 1;
  while (size < rules * 2) size *= 2;
  if (size > slotMask_ + 1) ResizeSlots(size);
}

RuleView RuleIndex::ViewOf(const StoredRule& r) const {
  return RuleView{r.typeMask, r.flags, Text(r.fragments, r.fragmentsLength),
                  domains_.data() + r.firstDomain, r.domainCount};
}

std::uint32_t RuleIndex::FindGroup(std::string_view key, std::uint32_t hash) const {
  for (std::uint32_t i = SlotOf(hash, slotMask_);; i = (i + 1) & slotMask_) {
    const Slot& s = slots_[i];
    if (s.group == kNoGroup) return kNoGroup;
    if (s.hash == hash) {
      const KeyGroup& g = groups_[s.group];
      if (Text(g.key, g.length) == key) return s.group;
    }
  }
}

void RuleIndex::ResizeSlots(std::uint32_t size) {
  slots_.assign(size, Slot{0, kNoGroup});
  slotMask_ = size - 1;
  for (std::uint32_t g = 0; g < groups_.size(); ++g) {
    std::uint32_t i = SlotOf(groups_[g].hash, slotMask_);
    while (slots_[i].group != kNoGroup) i = (i + 1) & slotMask_;
    slots_[i] = Slot{groups_[g].hash, g};
  }
}

std::uint32_t RuleIndex::InsertGroup(std::string_view key, std::uint32_t hash, std::uint32_t offset) {
  if ((groups_.size() + 1) * 2 > slotMask_ + 1) ResizeSlots((slotMask_ + 1) * 2);
  const std::uint32_t id = static_cast<std::uint32_t>(groups_.size());
  groups_.push_back(KeyGroup{offset, static_cast<std::uint32_t>(key.size()), hash, 0, 0});
  std::uint32_t i = SlotOf(hash, slotMask_);
  while (slots_[i].group != kNoGroup) i = (i + 1) & slotMask_;
  slots_[i] = Slot{hash, id};
  return id;
}

void RuleIndex::Add(const RuleEntry& entry) {
  const RuleOptions& o = *entry.options;
  StoredRule r{};
  r.table = entry.table;
  r.typeMask = o.typeMask;
  r.flags = FlagsOf(o);

  std::uint32_t group = kNoGroup;
  if (IsExactTable(entry.table) && !entry.key.empty()) {
    const std::uint32_t hash = HashName(entry.key);
    group = FindGroup(entry.key, hash);
    if (group == kNoGroup) {
      group = InsertGroup(entry.key, hash, static_cast<std::uint32_t>(text_.size()));
      text_.append(entry.key);
    }
    r.key = groups_[group].key;
  } else {
    r.key = static_cast<std::uint32_t>(text_.size());
    text_.append(entry.key);
  }
  r.keyLength = static_cast<std::uint32_t>(entry.key.size());
  ruleGroup_.push_back(group);

  r.fragments = static_cast<std::uint32_t>(text_.size());
  r.fragmentsLength = static_cast<std::uint32_t>(o.fragments.size());
  text_.append(o.fragments);

  r.firstDomain = static_cast<std::uint32_t>(domainRefs_.size());
  r.domainCount = static_cast<std::uint32_t>(o.domains.size());
  for (std::string_view name : o.domains) {
    // "example.etc" stands for "example" under any top-level name.
    if (name.size() >= kDomainWildcardSuffix.size() &&
        name.substr(name.size() - kDomainWildcardSuffix.size()) == kDomainWildcardSuffix) {
      name.remove_suffix(kDomainWildcardSuffix.size());
    }
    domainRefs_.push_back(DomainRef{static_cast<std::uint32_t>(text_.size()),
                                    static_cast<std::uint32_t>(name.size()), HashName(name)});
    text_.append(name);
  }
  rules_.push_back(r);
}

std::string_view RuleIndex::RequiredLiteral(const StoredRule& r, bool* never) const {
  const std::string_view fragments = Text(r.fragments, r.fragmentsLength);
  *never = false;
  if (fragments.empty()) return {};
  if ((r.flags & kFlagHasWildcard) == 0) return fragments;
  const std::size_t plus = fragments.find('+');
  if (plus != std::string_view::npos && plus > 0) return fragments.substr(0, plus);
  const std::string_view tail = plus == std::string_view::npos ? fragments : fragments.substr(plus + 1);
  if (tail.find('*') == std::string_view::npos) return tail;
  const std::string_view run = LongestRun(tail);
  *never = run.empty();  // a glob of nothing but "*" is never found
  return run;
}

void RuleIndex::Finish() {
  domains_.clear();
  domains_.reserve(domainRefs_.size());
  for (const DomainRef& d : domainRefs_) domains_.push_back(HashedName{Text(d.offset, d.length), d.hash});
  domainRefs_ = {};

  // Rules of each key group, contiguous and in file order.
  for (KeyGroup& g : groups_) g.count = 0;
  for (std::uint32_t g : ruleGroup_) {
    if (g != kNoGroup) ++groups_[g].count;
  }
  std::uint32_t next = 0;
  for (KeyGroup& g : groups_) {
    g.first = next;
    next += g.count;
    g.count = 0;
  }
  groupRules_.assign(next, 0);
  for (std::uint32_t i = 0; i < ruleGroup_.size(); ++i) {
    if (ruleGroup_[i] == kNoGroup) continue;
    KeyGroup& g = groups_[ruleGroup_[i]];
    groupRules_[g.first + g.count++] = i;
  }
  ruleGroup_ = {};

  struct Pending {
    std::uint32_t needle;
    std::uint32_t rule;
    std::uint8_t table;
  };
  std::vector<Pending> anywhere;
  std::vector<Pending> inHost;
  for (auto& list : alwaysTried_) list.clear();
  for (bool& b : keylessOrderMatters_) b = false;
  for (std::uint32_t i = 0; i < rules_.size(); ++i) {
    const StoredRule& r = rules_[i];
    const TableId table = static_cast<TableId>(r.table);
    if (IsExactTable(table)) {
      if (r.keyLength != 0) continue;
      if ((r.flags & kFlagHostAnchored) != 0) {
        keylessOrderMatters_[table] = true;
        alwaysTried_[table].push_back(i);
        continue;
      }
      bool never = false;
      const std::string_view literal = RequiredLiteral(r, &never);
      if (never) continue;
      if (literal.empty()) {
        alwaysTried_[table].push_back(i);
      } else {
        anywhere.push_back(Pending{anywhere_.Add(literal), i, r.table});
      }
    } else if (IsWildcardTable(table)) {
      // Only a glob that matches inside the host part counts, so each of
      // its literal runs has to occur there; the longest is the rarest.
      const std::string_view run = LongestRun(KeyOf(r));
      if (!run.empty()) inHost.push_back(Pending{inHost_.Add(run), i, r.table});
    } else {
      anywhere.push_back(Pending{anywhere_.Add(KeyOf(r)), i, r.table});
    }
  }
  anywhere_.Build();
  inHost_.Build();

  postingRules_.clear();
  auto build = [this](std::vector<Pending>& pending, std::size_t needles, std::vector<Postings>& out) {
    std::sort(pending.begin(), pending.end(), [](const Pending& a, const Pending& b) {
      if (a.needle != b.needle) return a.needle < b.needle;
      if (a.table != b.table) return a.table < b.table;
      return a.rule < b.rule;
    });
    out.assign(needles, Postings{0, 0});
    for (const Pending& p : pending) {
      Postings& list = out[p.needle];
      if (list.count == 0) list.first = static_cast<std::uint32_t>(postingRules_.size());
      ++list.count;
      postingRules_.push_back(p.rule);
    }
  };
  build(anywhere, anywhere_.size(), anywherePostings_);
  build(inHost, inHost_.size(), inHostPostings_);

  // Exceptions that no host-name lookup finds: what their text names.
  mentionHashes_.clear();
  for (const StoredRule& r : rules_) {
    const TableId table = static_cast<TableId>(r.table);
    if (!IsExceptionTable(table)) continue;
    if (IsWildcardTable(table)) AddPieceHashes(KeyOf(r), mentionHashes_);
    AddPieceHashes(Text(r.fragments, r.fragmentsLength), mentionHashes_);
  }
  std::sort(mentionHashes_.begin(), mentionHashes_.end());
  mentionHashes_.erase(std::unique(mentionHashes_.begin(), mentionHashes_.end()),
                       mentionHashes_.end());
  mentionHashes_.shrink_to_fit();
}

bool RuleIndex::FindExactKey(TableId table, std::string_view key, std::uint32_t hash,
                             std::uint8_t* flags) const {
  *flags = 0;
  const std::uint32_t g = FindGroup(key, hash);
  if (g == kNoGroup) return false;
  const KeyGroup& group = groups_[g];
  bool found = false;
  for (std::uint32_t k = 0; k < group.count; ++k) {
    const StoredRule& r = rules_[groupRules_[group.first + k]];
    if (r.table != table) continue;
    if (!found || (r.flags & kFlagWholeHost) != 0) *flags = r.flags;
    found = true;
    if ((r.flags & kFlagWholeHost) != 0) break;
  }
  return found;
}

bool RuleIndex::ExceptionTextMentions(std::string_view name, std::uint32_t hash) const {
  // A name too long to be indexed counts as mentioned.
  if (name.size() > kMaxMentionLength) return true;
  // Only hashes are kept: a collision makes a name count as mentioned.
  return std::binary_search(mentionHashes_.begin(), mentionHashes_.end(), hash);
}

bool RuleIndex::WildcardExceptionInHost(std::string_view text) const {
  bool found = false;
  inHost_.Scan(text, kHostPartStart, text.size(), [&](std::uint32_t needle, std::size_t) {
    if (found) return;
    const Postings& list = inHostPostings_[needle];
    for (std::uint32_t k = 0; k < list.count && !found; ++k) {
      const StoredRule& r = rules_[postingRules_[list.first + k]];
      if (r.table != kFiltersExceptionWildcard && r.table != kApprovedWildcard) continue;
      std::size_t start = 0;
      std::size_t length = 0;
      found = WildcardFind(text, KeyOf(r), &start, &length) && start >= kHostPartStart;
    }
  });
  return found;
}

bool RuleIndex::HasAnchoredKeylessException() const {
  return keylessOrderMatters_[kFiltersExceptionExact] || keylessOrderMatters_[kApprovedExact];
}

bool RuleIndex::HasExactKey(TableId table, std::string_view key) const {
  const std::uint32_t g = FindGroup(key, HashName(key));
  if (g == kNoGroup) return false;
  const KeyGroup& group = groups_[g];
  for (std::uint32_t k = 0; k < group.count; ++k) {
    if (rules_[groupRules_[group.first + k]].table == table) return true;
  }
  return false;
}

RuleIndex::Walk::Walk(const RuleIndex& index, const FilterRequest& request)
    : index_(index), request_(request) {
  if (!index.groups_.empty()) {
    for (std::string_view name : request.hostNames()) groups_.push_back(index.FindGroup(name, HashName(name)));
  }
  const std::string_view text = request.text();
  index.anywhere_.Scan(text, 0, text.size(), [this](std::uint32_t needle, std::size_t start) {
    anywhereHits_.push_back(Hit{needle, static_cast<std::uint32_t>(start)});
  });
  index.inHost_.Scan(text, kHostPartStart, request.hostPartEnd(),
                     [this](std::uint32_t needle, std::size_t start) {
                       hostHits_.push_back(Hit{needle, static_cast<std::uint32_t>(start)});
                     });
  // One hit per needle, at its leftmost occurrence.
  auto dedupe = [](auto& hits) {
    if (hits.size() < 2) return;
    std::sort(hits.begin(), hits.end(), [](const Hit& a, const Hit& b) {
      return a.needle != b.needle ? a.needle < b.needle : a.start < b.start;
    });
    auto end = std::unique(hits.begin(), hits.end(),
                           [](const Hit& a, const Hit& b) { return a.needle == b.needle; });
    hits.resize_down(static_cast<std::size_t>(end - hits.begin()));
  };
  dedupe(anywhereHits_);
  dedupe(hostHits_);
}

bool RuleIndex::Walk::MatchTable(TableId table) const {
  switch (table) {
    case kFiltersExceptionExact:
    case kApprovedExact:
      return MatchExact(table, MatchMode::kException, MatchMode::kException,
                        request_.skipExceptionTypeCheck());
    case kFiltersExceptionWildcard:
    case kApprovedWildcard:
      return MatchWildcard(table, MatchMode::kException, request_.skipExceptionTypeCheck());
    case kAdServerExact:
    case kOtherExact:
      // Key-less domain entries are checked like exceptions.
      return MatchExact(table, MatchMode::kBlocking, MatchMode::kException, false);
    case kAdServerWildcard:
    case kOtherWildcard:
      return MatchWildcard(table, MatchMode::kBlocking, false);
    case kGenericTable:
      return MatchGeneric();
    case kTableCount:
      break;
  }
  return false;
}

bool RuleIndex::Walk::MatchExact(TableId table, MatchMode nameMode, MatchMode emptyKeyMode,
                                 bool skipType) const {
  const std::string_view text = request_.text();
  const auto& names = request_.hostNames();
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    if (groups_[i] == kNoGroup) continue;
    const KeyGroup& group = index_.groups_[groups_[i]];
    for (std::uint32_t k = 0; k < group.count; ++k) {
      const StoredRule& r = index_.rules_[index_.groupRules_[group.first + k]];
      if (r.table != table) continue;
      const std::size_t position = (r.flags & kFlagEndAnchored) != 0 ? text.find(names[i]) : 0;
      if (MatchEntry(request_, index_.ViewOf(r), names[i], position, nameMode, skipType)) return true;
    }
  }

  SmallVec<std::uint32_t, 32> tried;
  for (std::uint32_t rule : index_.alwaysTried_[table]) tried.push_back(rule);
  for (const Hit& hit : anywhereHits_) {
    const Postings& list = index_.anywherePostings_[hit.needle];
    for (std::uint32_t k = 0; k < list.count; ++k) {
      const std::uint32_t rule = index_.postingRules_[list.first + k];
      if (index_.rules_[rule].table == table) tried.push_back(rule);
    }
  }
  if (index_.keylessOrderMatters_[table]) std::sort(tried.begin(), tried.end());
  for (std::uint32_t rule : tried) {
    if (MatchEntry(request_, index_.ViewOf(index_.rules_[rule]), std::string_view(), 0, emptyKeyMode,
                   skipType)) {
      return true;
    }
  }
  return false;
}

bool RuleIndex::Walk::MatchWildcard(TableId table, MatchMode mode, bool skipType) const {
  const std::string_view text = request_.text();
  for (const Hit& hit : hostHits_) {
    const Postings& list = index_.inHostPostings_[hit.needle];
    for (std::uint32_t k = 0; k < list.count; ++k) {
      const StoredRule& r = index_.rules_[index_.postingRules_[list.first + k]];
      if (r.table != table) continue;
      const std::string_view key = index_.KeyOf(r);
      std::size_t start = 0;
      std::size_t length = 0;
      if (!WildcardFind(text, key, &start, &length)) continue;
      if (start < kHostPartStart || start + length > request_.hostPartEnd()) continue;
      // The entry's key is its literal text when R holds it, else the text
      // its glob matched.
      std::size_t position = text.find(key);
      std::string_view found = key;
      if (position == std::string_view::npos) {
        position = start;
        found = text.substr(start, length);
      }
      if (MatchEntry(request_, index_.ViewOf(r), found, position, mode, skipType)) return true;
    }
  }
  return false;
}

bool RuleIndex::Walk::MatchGeneric() const {
  for (const Hit& hit : anywhereHits_) {
    const Postings& list = index_.anywherePostings_[hit.needle];
    const std::string_view key = index_.anywhere_.Needle(hit.needle);
    for (std::uint32_t k = 0; k < list.count; ++k) {
      const StoredRule& r = index_.rules_[index_.postingRules_[list.first + k]];
      if (r.table != kGenericTable) continue;
      if (MatchEntry(request_, index_.ViewOf(r), key, hit.start, MatchMode::kBlocking, false)) return true;
    }
  }
  return false;
}

}  // namespace vxfilter
