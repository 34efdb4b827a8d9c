// A vector that keeps its first elements inline, so that the per-request
// lists of a check (names, hits, candidates) need no heap memory unless a
// request is unusually large.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace vxfilter {

template <typename T, std::size_t kInline>
class SmallVec {
 public:
  SmallVec() = default;
  SmallVec(const SmallVec&) = delete;
  SmallVec& operator=(const SmallVec&) = delete;

  void push_back(const T& value) {
    if (size_ < kInline) {
      inline_[size_++] = value;
      return;
    }
    if (size_ == kInline) spill_.assign(inline_.begin(), inline_.end());
    spill_.push_back(value);
    ++size_;
  }
  void clear() {
    size_ = 0;
    spill_.clear();
  }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* begin() { return size_ <= kInline ? inline_.data() : spill_.data(); }
  T* end() { return begin() + size_; }
  const T* begin() const { return size_ <= kInline ? inline_.data() : spill_.data(); }
  const T* end() const { return begin() + size_; }
  T& operator[](std::size_t i) { return begin()[i]; }
  const T& operator[](std::size_t i) const { return begin()[i]; }
  // Drops the elements from n on (n <= size()).
  void resize_down(std::size_t n) {
    if (size_ > kInline && n <= kInline) std::copy(spill_.begin(), spill_.begin() + n, inline_.begin());
    if (size_ > kInline) spill_.resize(n > kInline ? n : 0);
    size_ = n;
  }

 private:
  std::array<T, kInline> inline_{};
  std::vector<T> spill_;
  std::size_t size_ = 0;
};

}  // namespace vxfilter
