#include "vxproxy/stringbuffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr int kMinCapacity = 32;

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
char UpperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Case-insensitive search for needle in [hay, hay + len).
const char* FindNoCase(const char* hay, int len, const char* needle) {
  const int n = static_cast<int>(std::strlen(needle));
  if (n == 0) return hay;
  for (int i = 0; i + n <= len; ++i) {
    int j = 0;
    while (j < n && LowerAscii(hay[i + j]) == LowerAscii(needle[j])) ++j;
    if (j == n) return hay + i;
  }
  return nullptr;
}

}  // namespace

// ------------------------------------------------------------- CBufStream --

CBufStream::CBufStream() = default;

CBufStream::CBufStream(const CBufStream& other) { Assign(other.GetBuffer(), other.size_); }

CBufStream& CBufStream::operator=(const CBufStream& other) {
  if (this != &other) Assign(other.GetBuffer(), other.size_);
  return *this;
}

CBufStream::CBufStream(CBufStream&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)),
      position_(std::exchange(other.position_, 0)) {}

CBufStream& CBufStream::operator=(CBufStream&& other) noexcept {
  if (this != &other) {
    std::free(data_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
    position_ = std::exchange(other.position_, 0);
  }
  return *this;
}

CBufStream::~CBufStream() { std::free(data_); }

char* CBufStream::Reserve(int n) {
  if (n < 0) n = 0;
  const long need = static_cast<long>(size_) + n + 1;
  if (need > capacity_) {
    long cap = capacity_ < kMinCapacity ? kMinCapacity : capacity_;
    while (cap < need) cap *= 2;
    char* grown = static_cast<char*>(std::realloc(data_, static_cast<size_t>(cap)));
    if (grown == nullptr) std::abort();  // out of memory: nothing sensible is left to do
    data_ = grown;
    capacity_ = static_cast<int>(cap);
    data_[size_] = '\0';
  }
  return data_ + size_;
}

void CBufStream::Commit(int n) {
  size_ += n;
  data_[size_] = '\0';
}

bool CBufStream::AddString(const char* p, int len) {
  if (len <= 0 || p == nullptr) return true;
  // p may point into this very buffer; keep its offset across a reallocation.
  const bool inside = data_ != nullptr && p >= data_ && p < data_ + capacity_;
  const long offset = inside ? p - data_ : 0;
  char* dst = Reserve(len);
  std::memmove(dst, inside ? data_ + offset : p, static_cast<size_t>(len));
  Commit(len);
  return true;
}

bool CBufStream::AddString(const char* s) {
  return s == nullptr ? true : AddString(s, static_cast<int>(std::strlen(s)));
}

void CBufStream::Assign(const char* p, int len) {
  if (data_ != nullptr && p >= data_ && p < data_ + capacity_) {
    // Assigning a piece of ourselves: move it to the front.
    std::memmove(data_, p, static_cast<size_t>(len));
    size_ = len;
    data_[size_] = '\0';
  } else {
    size_ = 0;
    if (data_) data_[0] = '\0';
    AddString(p, len);
  }
  position_ = 0;
}

void CBufStream::Empty() {
  size_ = 0;
  position_ = 0;
  if (data_) data_[0] = '\0';
}

void CBufStream::Consume(int n) {
  if (n <= 0) return;
  if (n >= size_) {
    Empty();
    return;
  }
  std::memmove(data_, data_ + n, static_cast<size_t>(size_ - n));
  size_ -= n;
  data_[size_] = '\0';
  position_ = 0;
}

void CBufStream::Trim() {
  if (size_ == 0) return;
  int begin = 0;
  int end = size_;
  while (begin < end && IsBlank(data_[begin])) ++begin;
  while (end > begin && IsBlank(data_[end - 1])) --end;
  if (begin > 0) std::memmove(data_, data_ + begin, static_cast<size_t>(end - begin));
  size_ = end - begin;
  data_[size_] = '\0';
  position_ = 0;
}

CBufStream& CBufStream::operator<<(const char* s) {
  AddString(s);
  return *this;
}

CBufStream& CBufStream::operator<<(int v) {
  char text[16];
  AddString(text, std::snprintf(text, sizeof text, "%d", v));
  return *this;
}

CBufStream& CBufStream::operator<<(unsigned long v) {
  char text[24];
  AddString(text, std::snprintf(text, sizeof text, "%lu", v));
  return *this;
}

CBufStream& CBufStream::operator<<(unsigned short v) {
  char text[8];
  AddString(text, std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(v)));
  return *this;
}

CBufStream& endl(CBufStream& out) {
  out.AddString("\r\n", 2);
  return out;
}

// ---------------------------------------------------------- CStringBuffer --

CStringBuffer::CStringBuffer(const char* s) { AddString(s); }
CStringBuffer::CStringBuffer(CStringBuffer& other) : CBufStream(other) { position_ = 0; }
CStringBuffer::CStringBuffer(const CStringBuffer& other) : CBufStream(other) { position_ = 0; }
CStringBuffer::~CStringBuffer() = default;

void CStringBuffer::operator=(const CStringBuffer& other) {
  if (this != &other) Assign(other.GetBuffer(), other.size_);
}

CStringBuffer& CStringBuffer::operator=(const char* s) {
  Assign(s ? s : "", s ? static_cast<int>(std::strlen(s)) : 0);
  return *this;
}

bool CStringBuffer::operator==(const char* s) const {
  if (s == nullptr) return size_ == 0;
  const char* mine = GetBuffer();
  int i = 0;
  for (; i < size_ && s[i] != '\0'; ++i) {
    if (LowerAscii(mine[i]) != LowerAscii(s[i])) return false;
  }
  return i == size_ && s[i] == '\0';
}

void CStringBuffer::Initialize() { Empty(); }

void CStringBuffer::BreakAt(int n) {
  if (n < 0 || n >= size_) return;
  size_ = n;
  data_[size_] = '\0';
  position_ = 0;
}

void CStringBuffer::Move(int start, int count) {
  if (start < 0 || count <= 0 || start >= size_) return;
  if (start + count > size_) count = size_ - start;
  std::memmove(data_ + start, data_ + start + count, static_cast<size_t>(size_ - start - count));
  size_ -= count;
  data_[size_] = '\0';
  position_ = 0;
}

char* CStringBuffer::Find(const char* s) {
  if (size_ == 0 || s == nullptr) return nullptr;
  return const_cast<char*>(std::strstr(data_, s));
}

char* CStringBuffer::iFind(const char* s) {
  if (size_ == 0 || s == nullptr) return nullptr;
  return const_cast<char*>(FindNoCase(data_, size_, s));
}

char* CStringBuffer::FindChar(char c) {
  if (size_ == 0) return nullptr;
  return static_cast<char*>(std::memchr(data_, c, static_cast<size_t>(size_)));
}

char* CStringBuffer::ReverseFindChar(char c) {
  for (int i = size_ - 1; i >= 0; --i) {
    if (data_[i] == c) return data_ + i;
  }
  return nullptr;
}

char* CStringBuffer::ReverseFindChar(char* s, char c) {
  return s == nullptr ? nullptr : std::strrchr(s, c);
}

char* CStringBuffer::iReverseFindChar(char c) {
  const char lc = LowerAscii(c);
  for (int i = size_ - 1; i >= 0; --i) {
    if (LowerAscii(data_[i]) == lc) return data_ + i;
  }
  return nullptr;
}

int CStringBuffer::Replace(const char* what, const char* with) {
  if (what == nullptr || *what == '\0' || size_ == 0) return 0;
  if (with == nullptr) with = "";
  const int whatLen = static_cast<int>(std::strlen(what));
  CBufStream out;
  int count = 0;
  const char* p = data_;
  const char* end = data_ + size_;
  while (const char* hit = std::strstr(p, what)) {
    if (hit >= end) break;
    out.AddString(p, static_cast<int>(hit - p));
    out.AddString(with);
    p = hit + whatLen;
    ++count;
  }
  if (count == 0) return 0;
  out.AddString(p, static_cast<int>(end - p));
  Assign(out.GetBuffer(), out.GetSize());
  return count;
}

CStringBuffer& CStringBuffer::ToLower() {
  for (int i = 0; i < size_; ++i) data_[i] = LowerAscii(data_[i]);
  return *this;
}

CStringBuffer& CStringBuffer::ToUpper() {
  for (int i = 0; i < size_; ++i) data_[i] = UpperAscii(data_[i]);
  return *this;
}

void CStringBuffer::ToLower(const char* src, CStringBuffer& dst) {
  dst = src;
  dst.ToLower();
}

bool CStringBuffer::getline(CBufStream& out, char delim) {
  if (position_ >= size_) return false;
  const char* start = data_ + position_;
  const char* stop = static_cast<const char*>(
      std::memchr(start, delim, static_cast<size_t>(size_ - position_)));
  const int len = stop ? static_cast<int>(stop - start) : size_ - position_;
  out.Empty();
  out.AddString(start, len);
  position_ += len + (stop ? 1 : 0);
  return true;
}

CStringBuffer& CStringBuffer::operator>>(CBufStream& out) {
  out.Empty();
  while (position_ < size_ && IsBlank(data_[position_])) ++position_;
  const int start = position_;
  while (position_ < size_ && !IsBlank(data_[position_])) ++position_;
  out.AddString(data_ + start, position_ - start);
  return *this;
}
