// Filter-list lines -> rule entries: how a line of the filters file or of the
// user's approved list is classified and split into a key and its options.
// Everything here works on lines already turned to lower case.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vxfilter {

// Request-type bits of a rule's type mask.
enum : std::uint16_t {
  kTypeImage = 1,
  kTypeScript = 2,
  kTypeObject = 4,
  kTypeObjectSubrequest = 8,
  kTypeSubdocument = 16,
  kTypeStylesheet = 32,
  kTypeAll = 63,
};

struct RuleOptions {
  std::uint16_t typeMask = kTypeAll;
  bool hostAnchored = false;
  bool endAnchored = false;
  bool thirdParty = false;
  bool notThirdParty = false;
  bool hasSeparator = false;
  bool hasWildcard = false;
  bool domainsNegated = false;
  bool wholeHost = false;  // "||key^" or "||key" with nothing else on the line
  // Path text that must also occur in the request; "+" joins two pieces.
  std::string fragments;
  // Names of the "domain=" option without their "~", pointing into the line.
  std::vector<std::string_view> domains;

  // Back to the defaults, keeping the storage for the next line.
  void Reset();
};

// The tables a rule can land in.
enum TableId : std::uint8_t {
  kFiltersExceptionExact,
  kFiltersExceptionWildcard,
  kApprovedExact,
  kApprovedWildcard,
  kAdServerExact,
  kAdServerWildcard,
  kOtherExact,
  kOtherWildcard,
  kGenericTable,
  kTableCount,
};

bool IsExactTable(TableId table);
bool IsWildcardTable(TableId table);

// One parsed line, handed to whoever stores it. The key points into the
// parser's own storage and is valid until the next line.
struct RuleEntry {
  TableId table;
  std::string_view key;
  const RuleOptions* options;
};

// Fills the type mask, third-party flags and domain list from the text after
// a rule's first "$". The result depends on the order of the options.
void ParseOptions(std::string_view text, RuleOptions& options);

// Cuts s at its first inner "*" (after dropping trailing ones); what follows
// becomes the fragments and marks the rule as having a wildcard.
std::string_view SplitAtWildcard(std::string_view s, RuleOptions& options);

// The host part of a "||" or "@@" rule; the path part goes to the fragments.
std::string_view SplitRuleKey(std::string_view text, RuleOptions& options);

// Deletes every "^" and the trailing "*" characters; true when a "*" went.
bool CleanKey(std::string& key);

// Turns lines into entries. One parser serves one load; the callback gets
// each entry in file order.
class RuleParser {
 public:
  using Sink = void (*)(void* context, const RuleEntry& entry);
  RuleParser(Sink sink, void* context) : sink_(sink), context_(context) {}

  // A line of the filters file: comments move the ad-server section flag and
  // may set the version text.
  void ReadFiltersLine(std::string_view line, bool& inAdServerSection, std::string& version);
  // A line of the user's approved list: only "@@" lines count.
  void ReadApprovedLine(std::string_view line);

  void AddDomainRule(std::string_view text, bool adServer);
  void AddException(std::string_view text, bool hostAnchored, bool approved);
  void AddGenericRule(std::string_view line);

 private:
  bool ParseKeyedRule(std::string_view text, bool hostAnchored, bool dropWithoutTypes,
                      bool* wildcard);
  void Emit(TableId table, std::string_view key);

  Sink sink_;
  void* context_;
  RuleOptions options_;
  std::string key_;
};

}  // namespace vxfilter
