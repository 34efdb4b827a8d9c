// The per-request side of the engine: the request value built once per check
// (the text R, the host's names, the referring names, the type word's bits)
// and the checks one rule entry applies to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "filter/rules.h"
#include "filter/smallvec.h"

namespace vxfilter {

// How MatchEntry treats the type check, the "domain=" check and a request
// from another site.
enum class MatchMode { kBlocking, kException };

// A name with its hash, so that long "domain=" lists compare cheaply.
struct HashedName {
  std::string_view name;
  std::uint32_t hash;
};

std::uint32_t HashName(std::string_view name);

// Copies size bytes, turning ASCII capitals to small letters (in may equal out).
void CopyLowerAscii(char* out, const char* in, std::size_t size);

class FilterRequest {
 public:
  // Builds R = "://" host path in lower case, the names of the host and of
  // the referer's host. All views of the request point into its own storage.
  FilterRequest(std::string_view host, std::string_view path, std::string_view typeWord,
                std::string_view referer, bool skipExceptionTypeCheck);
  FilterRequest(const FilterRequest&) = delete;
  FilterRequest& operator=(const FilterRequest&) = delete;

  std::string_view text() const { return text_; }  // R
  std::string_view host() const { return host_; }
  std::string_view typeWord() const { return typeWord_; }
  // End of the host part of R: the first "/" at or after index 3.
  std::size_t hostPartEnd() const { return hostPartEnd_; }
  const SmallVec<std::string_view, 8>& hostNames() const { return hostNames_; }
  const SmallVec<HashedName, 8>& referringNames() const { return referringNames_; }
  bool skipExceptionTypeCheck() const { return skip_; }

  bool TypeMatches(std::uint16_t typeMask, MatchMode mode) const;
  // The host contains one of the referring names.
  bool IsFirstParty() const { return firstParty_; }

 private:
  std::string storage_;  // used only when R does not fit the inline buffer
  char inline_[512];
  std::string_view text_;
  std::string_view host_;
  std::string typeWordStorage_;
  std::string_view typeWord_;
  std::size_t hostPartEnd_ = 0;
  std::uint16_t wordTypes_ = 0;
  bool wordIsStar_ = false;
  bool skip_ = false;
  bool firstParty_ = false;
  std::string refererHost_;
  SmallVec<std::string_view, 8> hostNames_;
  SmallVec<HashedName, 8> referringNames_;
};

// The name and its parents down to the registrable one ("co." stops).
void DomainSuffixes(std::string_view name, SmallVec<std::string_view, 8>& out);

// Host name of a referring URL without a leading "www."; empty when the text
// is no absolute URL.
std::string HostOfUrl(std::string_view url);

// '*'-glob search of pattern in text: each literal run at its leftmost place
// after the previous one. start/length cover the matched literal text.
bool WildcardFind(std::string_view text, std::string_view pattern, std::size_t* start,
                  std::size_t* length);

// A stored rule's options as the checks read them.
struct RuleView {
  std::uint16_t typeMask;
  std::uint8_t flags;
  std::string_view fragments;
  const HashedName* domains;
  std::uint32_t domainCount;
};

enum : std::uint8_t {
  kFlagHostAnchored = 1,
  kFlagEndAnchored = 2,
  kFlagThirdParty = 4,
  kFlagNotThirdParty = 8,
  kFlagHasSeparator = 16,
  kFlagHasWildcard = 32,
  kFlagDomainsNegated = 64,
  // "||key^" or "||key" alone: no path, no options. No check reads it; it
  // tells the tunnel guard that the entry concerns the whole host.
  kFlagWholeHost = 128,
};

// Steps 2-8 of matching one entry whose key K was found at p in R.
// Throws std::out_of_range for a host-anchored entry with an empty K.
bool MatchEntry(const FilterRequest& request, const RuleView& rule, std::string_view key,
                std::size_t position, MatchMode mode, bool skipType);

}  // namespace vxfilter
