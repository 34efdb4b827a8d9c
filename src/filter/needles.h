// A set of literal strings searched for all at once in a short text: each
// needle is anchored on one of its 4-byte grams, a bit filter rejects most
// positions with one load, and the few candidates left are compared in full.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vxfilter {

class NeedleSet {
 public:
  // Adds a non-empty needle and returns its number; equal texts share one.
  std::uint32_t Add(std::string_view needle);
  // Builds the anchors; Add may not be called afterwards.
  void Build();

  std::size_t size() const { return needles_.size(); }
  std::string_view Needle(std::uint32_t id) const {
    return std::string_view(text_.data() + needles_[id].offset, needles_[id].length);
  }

  // Calls found(id, start) for occurrences of the needles that lie wholly
  // inside [from, to) of text: every needle that occurs there is reported,
  // and its first report is its leftmost occurrence.
  template <typename Found>
  void Scan(std::string_view text, std::size_t from, std::size_t to, Found&& found) const;

 private:
  struct Span {
    std::uint32_t offset;
    std::uint32_t length;
  };
  struct Anchor {
    std::uint32_t needle;
    std::uint32_t offset;  // of the anchor inside the needle
  };
  struct Bucket {
    std::uint64_t key;
    std::uint32_t first;  // into anchors_
    std::uint32_t count;
  };

  static constexpr std::uint64_t kEmptyKey = ~0ull;
  static constexpr std::size_t kGramSize = 4;
  static constexpr int kFilterBits = 16;

  static std::uint64_t Mix(std::uint64_t key) { return key * 0x9E3779B97F4A7C15ull; }
  const Bucket* FindBucket(std::uint64_t key, std::uint64_t mixed) const {
    std::size_t i = static_cast<std::size_t>(mixed >> bucketShift_);
    for (;;) {
      const Bucket& b = buckets_[i];
      if (b.key == key) return &b;
      if (b.key == kEmptyKey) return nullptr;
      i = (i + 1) & bucketMask_;
    }
  }
  template <typename Found>
  void ProbeBucket(std::uint64_t key, std::uint64_t mixed, std::string_view text, std::size_t at,
                   std::size_t from, std::size_t to, Found& found) const;

  std::string text_;
  std::vector<Span> needles_;
  std::unordered_map<std::string, std::uint32_t> ids_;  // only while adding
  std::vector<Anchor> anchors_;
  std::vector<Bucket> buckets_;
  std::vector<std::uint64_t> filter_;
  std::size_t bucketMask_ = 0;
  int bucketShift_ = 64;
  // Needles shorter than a gram; there are few, and each is looked for
  // with one plain search.
  std::vector<std::uint32_t> shortNeedles_;
};

template <typename Found>
void NeedleSet::ProbeBucket(std::uint64_t key, std::uint64_t mixed, std::string_view text,
                            std::size_t at, std::size_t from, std::size_t to, Found& found) const {
  const Bucket* bucket = FindBucket(key, mixed);
  if (bucket == nullptr) return;
  for (std::uint32_t k = 0; k < bucket->count; ++k) {
    const Anchor& a = anchors_[bucket->first + k];
    if (at < from + a.offset) continue;
    const std::size_t start = at - a.offset;
    const Span& n = needles_[a.needle];
    if (start + n.length > to) continue;
    if (std::memcmp(text.data() + start, text_.data() + n.offset, n.length) == 0) {
      found(a.needle, start);
    }
  }
}

template <typename Found>
void NeedleSet::Scan(std::string_view text, std::size_t from, std::size_t to,
                     Found&& found) const {
  if (from >= to) return;
  const std::string_view range = text.substr(0, to);
  for (std::uint32_t id : shortNeedles_) {
    const std::size_t at = range.find(Needle(id), from);
    if (at != std::string_view::npos) found(id, at);
  }
  if (to - from < kGramSize || anchors_.empty()) return;
  const char* s = text.data();
  const std::uint64_t* filter = filter_.data();
  for (std::size_t i = from, last = to - kGramSize; i <= last; ++i) {
    std::uint32_t gram;
    std::memcpy(&gram, s + i, kGramSize);
    const std::uint64_t mixed = Mix(gram);
    const std::uint64_t bit = mixed >> (64 - kFilterBits);
    if ((filter[bit >> 6] >> (bit & 63)) & 1) ProbeBucket(gram, mixed, text, i, from, to, found);
  }
}

}  // namespace vxfilter
