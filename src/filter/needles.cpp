#include "filter/needles.h"

#include <algorithm>
#include <bit>

namespace vxfilter {
namespace {

constexpr std::size_t kGram = 4;

std::uint32_t GramAt(const char* p) {
  std::uint32_t g;
  std::memcpy(&g, p, kGram);
  return g;
}

}  // namespace

std::uint32_t NeedleSet::Add(std::string_view needle) {
  auto [it, added] = ids_.try_emplace(std::string(needle), static_cast<std::uint32_t>(needles_.size()));
  if (added) {
    needles_.push_back(Span{static_cast<std::uint32_t>(text_.size()),
                            static_cast<std::uint32_t>(needle.size())});
    text_.append(needle);
  }
  return it->second;
}

void NeedleSet::Build() {
  ids_ = {};
  anchors_.clear();
  buckets_.clear();
  filter_.assign((std::size_t{1} << kFilterBits) / 64, 0);
  shortNeedles_.clear();

  // Anchor each long needle on the gram that the fewest needles share, so
  // that buckets stay short and frequent text such as "/ad" or ".com" does
  // not send every position to a long list.
  std::unordered_map<std::uint32_t, std::uint32_t> gramCount;
  for (const Span& n : needles_) {
    for (std::size_t o = 0; o + kGram <= n.length; ++o) ++gramCount[GramAt(text_.data() + n.offset + o)];
  }
  struct Keyed {
    std::uint64_t key;
    Anchor anchor;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(needles_.size());
  for (std::uint32_t id = 0; id < needles_.size(); ++id) {
    const Span& n = needles_[id];
    const char* p = text_.data() + n.offset;
    if (n.length >= kGram) {
      std::uint32_t best = 0;
      std::uint32_t bestCount = ~0u;
      for (std::uint32_t o = 0; o + kGram <= n.length; ++o) {
        const std::uint32_t c = gramCount[GramAt(p + o)];
        if (c < bestCount) {
          best = o;
          bestCount = c;
        }
      }
      keyed.push_back(Keyed{GramAt(p + best), Anchor{id, best}});
    } else {
      shortNeedles_.push_back(id);
    }
  }
  std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    return a.key != b.key ? a.key < b.key : a.anchor.needle < b.anchor.needle;
  });

  std::size_t distinct = 0;
  for (std::size_t i = 0; i < keyed.size(); ++i) distinct += i == 0 || keyed[i].key != keyed[i - 1].key;
  std::size_t capacity = 16;
  while (capacity < distinct * 2) capacity *= 2;
  bucketMask_ = capacity - 1;
  bucketShift_ = 64 - std::countr_zero(capacity);
  buckets_.assign(capacity, Bucket{kEmptyKey, 0, 0});
  anchors_.reserve(keyed.size());
  for (std::size_t i = 0; i < keyed.size();) {
    const std::uint64_t key = keyed[i].key;
    const std::uint32_t first = static_cast<std::uint32_t>(anchors_.size());
    for (; i < keyed.size() && keyed[i].key == key; ++i) anchors_.push_back(keyed[i].anchor);
    const std::uint64_t mixed = Mix(key);
    std::size_t slot = static_cast<std::size_t>(mixed >> bucketShift_);
    while (buckets_[slot].key != kEmptyKey) slot = (slot + 1) & bucketMask_;
    buckets_[slot] = Bucket{key, first, static_cast<std::uint32_t>(anchors_.size()) - first};
    const std::uint64_t bit = mixed >> (64 - kFilterBits);
    filter_[bit >> 6] |= std::uint64_t{1} << (bit & 63);
  }
}

}  // namespace vxfilter
