// Byte buffers and strings of the utility library. Every text of the proxy
// lives in one of these: header lines, URLs, paths, log lines, whole messages.
#pragma once

#include "vxproxy/types.h"

// A growable byte buffer, always followed in memory by a zero byte that is not
// counted in its size, so its content can go straight to C string functions.
class VX_EXPORT CBufStream {
 public:
  CBufStream();
  CBufStream(const CBufStream& other);
  CBufStream& operator=(const CBufStream& other);
  CBufStream(CBufStream&& other) noexcept;
  CBufStream& operator=(CBufStream&& other) noexcept;
  ~CBufStream();

  const char* GetBuffer() const { return data_ ? data_ : ""; }
  operator const char*() const { return GetBuffer(); }
  int GetSize() const { return size_; }
  explicit operator bool() const { return size_ > 0; }

  bool AddString(const char* s);
  bool AddString(const char* p, int len);
  void Trim();

  CBufStream& operator<<(const char* s);
  CBufStream& operator<<(int v);
  CBufStream& operator<<(unsigned long v);
  CBufStream& operator<<(unsigned short v);
  CBufStream& operator<<(CBufStream& (*manip)(CBufStream&)) { return manip(*this); }

  // Empties the buffer and resets the extraction position (keeps the storage).
  void Empty();
  // Drops the first n bytes.
  void Consume(int n);
  // Makes room for at least n more bytes and returns where they go; the
  // caller then commits what it wrote with Commit.
  char* Reserve(int n);
  void Commit(int n);

 protected:
  void Assign(const char* p, int len);
  void ResetPosition() { position_ = 0; }

  char* data_ = nullptr;
  int size_ = 0;
  int capacity_ = 0;
  int position_ = 0;  // read position of getline and operator>>
};

// Appends a line break.
VX_EXPORT CBufStream& endl(CBufStream& out);

// An owned 8-bit string with searching, editing and parsing.
class VX_EXPORT CStringBuffer : public CBufStream {
 public:
  CStringBuffer() = default;
  CStringBuffer(const char* s);  // NOLINT: implicit like the C strings it replaces
  CStringBuffer(CStringBuffer& other);
  CStringBuffer(const CStringBuffer& other);
  virtual ~CStringBuffer();

  void operator=(const CStringBuffer& other);
  CStringBuffer& operator=(const char* s);

  // Whole-content comparison ignoring ASCII letter case.
  bool operator==(const char* s) const;
  bool operator!=(const char* s) const { return !(*this == s); }

  void Initialize();
  void BreakAt(int n);
  void Move(int n) { Move(0, n); }
  void Move(int start, int count);

  char* Find(const char* s);
  char* iFind(const char* s);
  char* FindChar(char c);
  char* ReverseFindChar(char c);
  static char* ReverseFindChar(char* s, char c);
  char* iReverseFindChar(char c);

  int Replace(const char* what, const char* with);
  CStringBuffer& ToLower();
  CStringBuffer& ToUpper();
  static void ToLower(const char* src, CStringBuffer& dst);

  bool getline(CBufStream& out, char delim);
  CStringBuffer& operator>>(CBufStream& out);

  // Offset of a pointer into this buffer.
  int OffsetOf(const char* p) const { return static_cast<int>(p - GetBuffer()); }
  char* MutableBuffer() { return const_cast<char*>(GetBuffer()); }
};
