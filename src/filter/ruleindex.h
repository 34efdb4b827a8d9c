// The rule tables of one source and the indexes that let a check look only at
// entries that can match. The filters file fills its exception pair, both
// domain-rule pairs and the generic table; the user's approved list fills
// the approved pair. Exact keys are found by hash; generic keys and the
// literal parts of wildcard keys and of key-less entries by one needle
// search of the request text. Entries with equal keys keep their file order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "filter/matcher.h"
#include "filter/needles.h"
#include "filter/rules.h"
#include "filter/smallvec.h"

namespace vxfilter {

class RuleIndex {
 public:
  RuleIndex();

  // Stores an entry; entries must come in file order.
  void Add(const RuleEntry& entry);
  // Room for a source of about this many bytes, so loading does not keep
  // copying what it has stored.
  void Reserve(std::size_t sourceBytes);
  // Builds the lookup structures after the last Add.
  void Finish();

  bool empty() const { return rules_.empty(); }
  // Stored entries.
  std::size_t size() const { return rules_.size(); }
  // True when the table holds an entry whose key is exactly this text.
  bool HasExactKey(TableId table, std::string_view key) const;

  // What the tunnel guard asks of a host name it only knows by name (hash is
  // HashName(key)). FindExactKey: whether the table holds an entry keyed
  // exactly by it; flags are those of the first bare "||key^" or "||key"
  // among them (kFlagWholeHost set), else of the first one.
  bool FindExactKey(TableId table, std::string_view key, std::uint32_t hash, std::uint8_t* flags) const;
  // Whether the text of some exception entry that is not found by its key
  // alone (wildcard keys, paths, key-less entries) contains the name.
  bool ExceptionTextMentions(std::string_view name, std::uint32_t hash) const;
  // Whether a wildcard exception's key matches inside the host part of
  // text ("://" and the host).
  bool WildcardExceptionInHost(std::string_view text) const;
  // Whether an exception table holds a host-anchored entry without a key.
  bool HasAnchoredKeylessException() const;
  // Names longer than this are not indexed for ExceptionTextMentions.
  static constexpr std::size_t kMaxMentionLength = 128;

  // One check against this index: looks the host's names up and searches
  // the request text once, then answers table by table.
  class Walk {
   public:
    Walk(const RuleIndex& index, const FilterRequest& request);
    // Whether an entry of the table matches, with the table's modes.
    // Throws what MatchEntry throws.
    bool MatchTable(TableId table) const;

   private:
    struct Hit {
      std::uint32_t needle;
      std::uint32_t start;
    };
    bool MatchExact(TableId table, MatchMode nameMode, MatchMode emptyKeyMode, bool skipType) const;
    bool MatchWildcard(TableId table, MatchMode mode, bool skipType) const;
    bool MatchGeneric() const;

    const RuleIndex& index_;
    const FilterRequest& request_;
    SmallVec<std::uint32_t, 8> groups_;  // key group of each host name, or kNoGroup
    SmallVec<Hit, 64> anywhereHits_;
    SmallVec<Hit, 32> hostHits_;
  };

 private:
  friend class Walk;

  struct StoredRule {
    std::uint32_t key;
    std::uint32_t keyLength;
    std::uint32_t fragments;
    std::uint32_t fragmentsLength;
    std::uint32_t firstDomain;
    std::uint32_t domainCount;
    std::uint16_t typeMask;
    std::uint8_t flags;
    std::uint8_t table;
  };
  struct DomainRef {
    std::uint32_t offset;
    std::uint32_t length;
    std::uint32_t hash;
  };
  struct KeyGroup {
    std::uint32_t key;
    std::uint32_t length;
    std::uint32_t hash;
    std::uint32_t first;  // into groupRules_
    std::uint32_t count;
  };
  struct Slot {
    std::uint32_t hash;
    std::uint32_t group;
  };
  // A needle with the entries it stands for, sorted by table, then file order.
  struct Postings {
    std::uint32_t first;
    std::uint32_t count;
  };

  static constexpr std::uint32_t kNoGroup = ~0u;

  std::string_view Text(std::uint32_t offset, std::uint32_t length) const {
    return std::string_view(text_.data() + offset, length);
  }
  std::string_view KeyOf(const StoredRule& r) const { return Text(r.key, r.keyLength); }
  RuleView ViewOf(const StoredRule& r) const;
  std::uint32_t FindGroup(std::string_view key, std::uint32_t hash) const;
  std::uint32_t InsertGroup(std::string_view key, std::uint32_t hash, std::uint32_t offset);
  void ResizeSlots(std::uint32_t size);
  // The literal text whose absence from R rules out a key-less entry;
  // empty when every request has to try it.
  std::string_view RequiredLiteral(const StoredRule& r, bool* never) const;

  std::string text_;
  std::vector<StoredRule> rules_;
  std::vector<DomainRef> domainRefs_;  // while loading
  std::vector<HashedName> domains_;     // after Finish

  // Exact tables, non-empty keys.
  std::vector<KeyGroup> groups_;
  std::vector<Slot> slots_;
  std::uint32_t slotMask_ = 0;
  std::vector<std::uint32_t> ruleGroup_;    // while loading: group of each rule or kNoGroup
  std::vector<std::uint32_t> groupRules_;   // rules of each group, in file order

  // Exact tables, empty keys: entries tried for every request, in file order.
  std::vector<std::uint32_t> alwaysTried_[kTableCount];
  // A host-anchored entry without a key ends the check when it is reached,
  // so the key-less entries of its table must be tried in file order.
  bool keylessOrderMatters_[kTableCount] = {};

  NeedleSet anywhere_;  // generic keys and literals of key-less entries
  NeedleSet inHost_;    // literal runs of wildcard keys
  std::vector<Postings> anywherePostings_;
  std::vector<Postings> inHostPostings_;
  std::vector<std::uint32_t> postingRules_;

  // Hashes of every piece of exception text ExceptionTextMentions answers
  // for, sorted.
  std::vector<std::uint32_t> mentionHashes_;
};

}  // namespace vxfilter
