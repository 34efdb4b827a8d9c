#include "filter/matcher.h"

#include <cstring>
#include <stdexcept>

#include "filter/urlsplit.h"

namespace vxfilter {
namespace {

constexpr std::string_view kSchemeSeparator = "://";
// Longer referers cannot be canonicalised, so they have no host.
constexpr std::size_t kMaxRefererLength = 2048;

void CopyLower(char* out, std::string_view in) { CopyLowerAscii(out, in.data(), in.size()); }

bool Contains(std::string_view text, std::string_view what) {
  return text.find(what) != std::string_view::npos;
}

// True when "." followed by name occurs in host.
bool ContainsDotted(std::string_view host, std::string_view name) {
  for (std::size_t p = host.find(name, 1); p != std::string_view::npos; p = host.find(name, p + 1)) {
    if (host[p - 1] == '.') return true;
  }
  return false;
}

std::uint16_t TypesOfWord(std::string_view word) {
  struct Row {
    std::string_view word;
    std::uint16_t types;
  };
  static constexpr Row kRows[] = {
      {"gif", kTypeImage},
      {"jpg", kTypeImage},
      {"jpeg", kTypeImage},
      {"ico", kTypeImage},
      {"png", kTypeImage},
      {"bmp", kTypeImage},
      {"psd", kTypeImage},
      {"svg", kTypeImage},
      {"tiff", kTypeImage},
      {"swf", kTypeObject | kTypeObjectSubrequest},
      {"flv", kTypeObject | kTypeObjectSubrequest},
      {"f4v", kTypeObject | kTypeObjectSubrequest},
      {"xml", kTypeObjectSubrequest},
      {"js", kTypeScript},
      {"htm", kTypeScript | kTypeSubdocument},
      {"html", kTypeScript | kTypeSubdocument},
      {"css", kTypeStylesheet},
  };
  for (const Row& row : kRows) {
    if (row.word == word) return row.types;
  }
  return 0;
}

bool DomainListMatches(const RuleView& rule, const SmallVec<HashedName, 8>& names,
                       MatchMode mode) {
  if (rule.domainCount == 0) return true;
  bool found = false;
  for (const HashedName& n : names) {
    for (std::uint32_t i = 0; i < rule.domainCount && !found; ++i) {
      const HashedName& d = rule.domains[i];
      found = d.hash == n.hash && d.name == n.name;
    }
    if (found) break;
  }
  const bool negated = (rule.flags & kFlagDomainsNegated) != 0;
  if (mode == MatchMode::kBlocking) return negated ? !found : found;
  return found || negated;
}

bool IsWithinSite(std::string_view host, const SmallVec<HashedName, 8>& names) {
  for (const HashedName& n : names) {
    if (host == n.name || ContainsDotted(host, n.name)) return true;
  }
  return false;
}

bool FragmentsMatch(std::string_view text, std::string_view fragments, bool hasWildcard) {
  if (fragments.empty()) return true;
  std::string_view tail = fragments;
  if (const std::size_t plus = fragments.find('+'); plus != std::string_view::npos) {
    if (!Contains(text, fragments.substr(0, plus))) return false;
    tail = fragments.substr(plus + 1);
  }
  if (!hasWildcard) return Contains(text, fragments);
  if (Contains(tail, "*")) {
    std::size_t start = 0;
    std::size_t length = 0;
    return WildcardFind(text, tail, &start, &length);
  }
  return Contains(text, tail);
}

}  // namespace

void CopyLowerAscii(char* out, const char* in, std::size_t size) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ull;
  constexpr std::uint64_t kHigh = 0x8080808080808080ull;
  std::size_t i = 0;
  // Eight bytes at a time: a byte's high bit is set in "upper" exactly when
  // it is an ASCII capital, and that bit shifted to 0x20 makes it small.
  for (; i + 8 <= size; i += 8) {
    std::uint64_t x;
    std::memcpy(&x, in + i, 8);
    const std::uint64_t low7 = x & ~kHigh;
    const std::uint64_t atLeastA = low7 + (0x80 - 'A') * kOnes;
    const std::uint64_t aboveZ = low7 + (0x80 - 'Z' - 1) * kOnes;
    const std::uint64_t upper = atLeastA & ~aboveZ & ~x & kHigh;
    x |= upper >> 2;
    std::memcpy(out + i, &x, 8);
  }
  for (; i < size; ++i) {
    const char c = in[i];
    out[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
  }
}

std::uint32_t HashName(std::string_view name) {
  // Eight bytes at a time: names are hashed on every check and keys by the
  // ten thousand at load, and the hash only spares string comparisons.
  constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ull;
  std::uint64_t h = name.size() * kMul;
  const char* p = name.data();
  std::size_t left = name.size();
  for (; left >= 8; p += 8, left -= 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    h = (h ^ word) * kMul;
    h ^= h >> 29;
  }
  if (left > 0) {
    std::uint64_t word = 0;
    std::memcpy(&word, p, left);
    h = (h ^ word) * kMul;
    h ^= h >> 29;
  }
  return static_cast<std::uint32_t>(h ^ (h >> 32));
}

void DomainSuffixes(std::string_view name, SmallVec<std::string_view, 8>& out) {
  out.clear();
  if (name.empty()) return;
  out.push_back(name);
  std::size_t dots = 0;
  for (char c : name) dots += c == '.';
  std::string_view current = name;
  while (dots >= 2) {
    current.remove_prefix(current.find('.') + 1);
    --dots;
    // Below a "co." second level there is no registrable name left.
    if (current.substr(0, 3) == "co.") break;
    out.push_back(current);
  }
}

std::string HostOfUrl(std::string_view url) {
  if (url.size() > kMaxRefererLength) return {};
  // The host depends only on what comes before the path, so only that part
  // is lowered and handed on.
  UrlPieces pieces;
  const std::size_t end = SplitUrl(url, &pieces) ? url.size() - pieces.rest.size() : url.size();
  char lowered[kMaxRefererLength + 1];
  CopyLower(lowered, url.substr(0, end));
  lowered[end] = '\0';
  std::string host = UrlHostName(lowered);
  if (host.compare(0, 4, "www.") == 0) host.erase(0, 4);
  return host;
}

bool WildcardFind(std::string_view text, std::string_view pattern, std::size_t* start,
                  std::size_t* length) {
  if (text.empty()) return false;
  std::size_t first = std::string_view::npos;
  std::size_t position = 0;
  while (!pattern.empty()) {
    const std::size_t star = pattern.find('*');
    const std::string_view run = pattern.substr(0, star);
    pattern.remove_prefix(star == std::string_view::npos ? pattern.size() : star + 1);
    if (run.empty()) continue;
    const std::size_t at = text.find(run, position);
    if (at == std::string_view::npos) return false;
    if (first == std::string_view::npos) first = at;
    position = at + run.size();
  }
  if (first == std::string_view::npos) return false;  // nothing but "*"
  *start = first;
  *length = position - first;
  return true;
}

FilterRequest::FilterRequest(std::string_view host, std::string_view path,
                             std::string_view typeWord, std::string_view referer,
                             bool skipExceptionTypeCheck)
    : skip_(skipExceptionTypeCheck) {
  const std::size_t size = kSchemeSeparator.size() + host.size() + path.size();
  char* out = inline_;
  if (size > sizeof inline_) {
    storage_.resize(size);
    out = storage_.data();
  }
  std::memcpy(out, kSchemeSeparator.data(), kSchemeSeparator.size());
  CopyLower(out + kSchemeSeparator.size(), host);
  CopyLower(out + kSchemeSeparator.size() + host.size(), path);
  text_ = std::string_view(out, size);
  host_ = text_.substr(kSchemeSeparator.size(), host.size());
  hostPartEnd_ = text_.find('/', kSchemeSeparator.size());
  if (hostPartEnd_ == std::string_view::npos) hostPartEnd_ = size;

  typeWordStorage_.resize(typeWord.size());
  CopyLower(typeWordStorage_.data(), typeWord);
  typeWord_ = typeWordStorage_;
  wordTypes_ = TypesOfWord(typeWord_);
  wordIsStar_ = typeWord_ == "*";

  DomainSuffixes(host_, hostNames_);
  if (!referer.empty()) {
    refererHost_ = HostOfUrl(referer);
    SmallVec<std::string_view, 8> names;
    DomainSuffixes(refererHost_, names);
    for (std::string_view n : names) {
      referringNames_.push_back(HashedName{n, HashName(n)});
      if (!firstParty_ && Contains(host_, n)) firstParty_ = true;
    }
  }
}

bool FilterRequest::TypeMatches(std::uint16_t typeMask, MatchMode mode) const {
  if ((wordTypes_ & typeMask) != 0) return true;
  // The "document" row lists "*": in blocking mode it is compared like any
  // word, in exception mode it stands for "every type".
  if (mode == MatchMode::kException) return typeMask == kTypeAll;
  return wordIsStar_ && typeMask != 0;
}

bool MatchEntry(const FilterRequest& request, const RuleView& rule, std::string_view key,
                std::size_t position, MatchMode mode, bool skipType) {
  if (!skipType && !request.TypeMatches(rule.typeMask, mode)) return false;

  const std::string_view host = request.host();
  if ((rule.flags & kFlagHostAnchored) != 0 && host != key) {
    if (key.empty()) throw std::out_of_range("host-anchored rule without a host name");
    if (key.substr(0, 4) == "www." || key[0] == '.') {
      if (!Contains(host, key)) return false;
    } else if (!ContainsDotted(host, key)) {
      return false;
    }
  }

  if ((rule.flags & kFlagEndAnchored) != 0 && position + key.size() != request.text().size()) {
    return false;
  }

  if ((rule.flags & kFlagHasSeparator) != 0) {
    const std::size_t at = host.find(key);
    if (at == std::string_view::npos || at + key.size() != host.size()) return false;
  }

  const auto& names = request.referringNames();
  if (!names.empty() && !DomainListMatches(rule, names, mode)) {
    if (mode == MatchMode::kBlocking || !IsWithinSite(host, names)) return false;
  }

  if ((rule.flags & kFlagThirdParty) != 0) {
    // Without a referring page nothing counts as third party; a
    // "~third-party" rule asks for a first-party request instead.
    if (names.empty()) return false;
    const bool wantFirstParty = (rule.flags & kFlagNotThirdParty) != 0;
    if (request.IsFirstParty() != wantFirstParty) return false;
  }

  return FragmentsMatch(request.text(), rule.fragments, (rule.flags & kFlagHasWildcard) != 0);
}

}  // namespace vxfilter
