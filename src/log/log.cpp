// The log file sink.
#include <cctype>
#include <cstdarg>
#include <cstddef>
#include <cstring>

#include "log/logimpl.h"
#include "platform/platform.h"
#include "vxproxy/files.h"

namespace {

constexpr unsigned long kDefaultMaxSize = 512000;
constexpr unsigned long kDefaultTrimStep = 12040;
constexpr unsigned long kDefaultKeepFactor = 4;
constexpr unsigned long kSmallLogKeepFactor = 6;  // small logs keep a smaller share
constexpr unsigned long kMaxSizeLimit = 104857600;
constexpr int kDefaultFlushThreshold = 1024;
constexpr int kConversionBufferSize = 100;

void AppendConversion(CStringBuffer& out, const char* conversion, ...) {
  char buffer[kConversionBufferSize];
  va_list args;
  va_start(args, conversion);
  const int n = std::vsnprintf(buffer, sizeof buffer, conversion, args);
  va_end(args);
  if (n > 0) out.AddString(buffer, n < kConversionBufferSize ? n : kConversionBufferSize - 1);
}

// A field 1000 wide or wider shows nothing but its padding in the 100 bytes
// a conversion keeps (no value is longer than about 320 characters), however
// much wider it is, yet the C library pads it out in full, for seconds. A
// width beyond the int range makes it fail at once, which shows nothing.
constexpr char kMaxFieldWidth[] = "1000";
constexpr char kMaxIntWidth[] = "2147483647";

// Compares two runs of digits without leading zeros by value.
int CompareNumbers(const char* a, std::size_t aLength, const char* b) {
  const std::size_t bLength = std::strlen(b);
  if (aLength != bLength) return aLength < bLength ? -1 : 1;
  return std::strncmp(a, b, aLength);
}

// conversion: "%", blanks and digits, the letter. Flags ("0", " ") come
// first, then the width; a width from kMaxFieldWidth to the largest int
// becomes kMaxFieldWidth, which shows the same.
void ClampWidth(char* conversion) {
  char* width = conversion + 1;
  while (*width == ' ' || *width == '0') ++width;
  char* end = width;
  while (*end >= '0' && *end <= '9') ++end;
  // Anything but the letter after the width makes the C library copy the
  // text as it is, width included.
  if (*end == '\0' || end[1] != '\0') return;
  const auto digits = static_cast<std::size_t>(end - width);
  if (CompareNumbers(width, digits, kMaxFieldWidth) <= 0 ||
      CompareNumbers(width, digits, kMaxIntWidth) > 0) {
    return;
  }
  const std::size_t length = std::strlen(kMaxFieldWidth);
  std::memcpy(width, kMaxFieldWidth, length);
  std::memmove(width + length, end, std::strlen(end) + 1);
}

// Printf's format language: backslash escapes written in the format text
// itself, and "%", blanks and digits, one conversion letter. Anything else
// after a "%" is plain text (the "%" alone is dropped).
void FormatLogText(const char* format, va_list args, CStringBuffer& out) {
  const char* p = format;
  while (*p != '\0') {
    if (*p == '\\') {
      switch (p[1]) {
        case '\0': ++p; continue;  // a trailing backslash is dropped
        case '\\': out.AddString("\\", 1); break;
        case 'n': out.AddString("\n", 1); break;
        case 'r': out.AddString("\r", 1); break;
        case 't': out.AddString("\t", 1); break;
        default: out.AddString(p, 2); break;
      }
      p += 2;
      continue;
    }
    if (*p != '%') {
      out.AddString(p, 1);
      ++p;
      continue;
    }
    const char* q = p + 1;
    while (*q == ' ' || (*q >= '0' && *q <= '9')) ++q;
    const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(*q)));
    if (letter == '\0' || std::strchr("cdefginopsux", letter) == nullptr) {
      ++p;
      continue;
    }
    // The C library gets the conversion as written, except for capitals it
    // has no meaning for.
    char conversion[kConversionBufferSize];
    const std::size_t flags = static_cast<std::size_t>(q - p);
    if (flags + 2 > sizeof conversion) {  // an absurd run of digits: treat it as text
      ++p;
      continue;
    }
    std::memcpy(conversion, p, flags);
    conversion[flags] = std::strchr("EFGX", *q) != nullptr ? *q : letter;
    conversion[flags + 1] = '\0';
    ClampWidth(conversion);
    switch (letter) {
      case 's': {
        const char* text = va_arg(args, const char*);
        out.AddString(text != nullptr ? text : "(null)");
        break;
      }
      case 'n':
        // Accepted, but never written through: the argument is only skipped.
        (void)va_arg(args, void*);
        break;
      case 'p':
        AppendConversion(out, conversion, va_arg(args, void*));
        break;
      case 'e':
      case 'f':
      case 'g':
        AppendConversion(out, conversion, va_arg(args, double));
        break;
      case 'd':
      case 'i':
      case 'c':
        AppendConversion(out, conversion, va_arg(args, int));
        break;
      default:  // o u x
        AppendConversion(out, conversion, va_arg(args, unsigned int));
        break;
    }
    p = q + 1;
  }
}

}  // namespace

CLog::~CLog() = default;

CLogImpl::CLogImpl(const char* path, int number)
    : stream_(nullptr),
      level_(0),
      levelMask_(-1),
      flushThreshold_(kDefaultFlushThreshold),
      number_(number),
      fileSize_(0),
      maxSize_(kDefaultMaxSize),
      trimStep_(kDefaultTrimStep),
      keepFactor_(kDefaultKeepFactor),
      enabled_(true),
      open_(false) {
  if (path != nullptr) Open(path);
}

CLogImpl::~CLogImpl() {
  CAutoSync guard(lock_);
  CloseStream();
  open_ = false;
}

void CLogImpl::OpenForAppend() {
  CloseStream();
  if (fileName_.GetSize() > 0) {
    // Append mode: every write lands at the end even when another process
    // writes to the same file.
    stream_ = std::fopen(os::NativePath(fileName_).c_str(), "ab");
  }
  fileSize_ = static_cast<unsigned long>(os::FileSize(fileName_));
  open_ = stream_ != nullptr;
}

void CLogImpl::CloseStream() {
  if (stream_ != nullptr) {
    std::fflush(stream_);
    std::fclose(stream_);
    stream_ = nullptr;
  }
}

void CLogImpl::WriteLocked(const char* data, int length) {
  if (stream_ == nullptr) return;
  if (length > 0) {
    fileSize_ += static_cast<unsigned long>(length);
    std::fwrite(data, 1, static_cast<std::size_t>(length), stream_);
  }
  std::fflush(stream_);
  CheckSize();
}

// Keeps the file under maxSize_ by cutting its oldest lines once it has grown
// a trim step past the limit. Runs under lock_.
void CLogImpl::CheckSize() {
  if (fileSize_ < maxSize_ + trimStep_) return;
  long long keep = static_cast<long long>(maxSize_) - static_cast<long long>(keepFactor_ * trimStep_);
  if (keep < 0) keep = static_cast<long long>(trimStep_);
  const unsigned long cut = fileSize_ - static_cast<unsigned long>(keep);
  CloseStream();
  {
    CMappedFile file(fileName_);
    const char* start = file.GetFileStart();
    const unsigned long size = file.GetFileSize();
    if (start != nullptr) {
      // Cut through the line feed that ends the line the cut lands in, so
      // only whole lines stay; no line feed behind it means nothing stays.
      unsigned long count = size;
      if (cut < size) {
        const void* lf = std::memchr(start + cut, '\n', size - cut);
        if (lf != nullptr) count = static_cast<unsigned long>(static_cast<const char*>(lf) - start) + 1;
      }
      file.DeleteBlockFromFile(0, count);
    }
    file.CloseFile();
  }
  OpenForAppend();
}

void CLogImpl::Printf(int level, const char* format, ...) {
  if (format == nullptr || !IsLevelEnabled(level)) return;
  CStringBuffer text;
  va_list args;
  va_start(args, format);
  FormatLogText(format, args, text);
  va_end(args);
  CAutoSync guard(lock_);
  WriteLocked(text.GetBuffer(), text.GetSize());
}

void CLogImpl::Write(int level, const char* data, int length) {
  if (data == nullptr || length < 0 || !IsLevelEnabled(level)) return;
  CAutoSync guard(lock_);
  WriteLocked(data, length);
}

bool CLogImpl::IsOpen() { return open_; }

bool CLogImpl::IsLevelEnabled(int level) {
  if (!open_ || !enabled_) return false;
  return level == 0 || (level & levelMask_) == level;
}

CLog& CLogImpl::operator<<(CLog& (*manip)(CLog&)) {
  if (IsOpen() && manip != nullptr) return manip(*this);
  return *this;
}

// The stream-style writes append without a flush and without a size check;
// Flush or the next locked write completes them. They still take the lock,
// only so that a trim on another thread cannot close the stream under them.
CLog& CLogImpl::operator<<(unsigned long value) {
  if (!IsLevelEnabled(level_)) return *this;
  CStringBuffer text;
  text << value;
  return *this << text.GetBuffer();
}

CLog& CLogImpl::operator<<(unsigned short value) {
  if (!IsLevelEnabled(level_)) return *this;
  CStringBuffer text;
  text << value;
  return *this << text.GetBuffer();
}

CLog& CLogImpl::operator<<(int value) {
  if (!IsLevelEnabled(level_)) return *this;
  CStringBuffer text;
  text << value;
  return *this << text.GetBuffer();
}

CLog& CLogImpl::operator<<(const char* text) {
  if (text == nullptr || !IsLevelEnabled(level_)) return *this;
  const std::size_t length = std::strlen(text);
  CAutoSync guard(lock_);
  if (stream_ == nullptr) return *this;
  fileSize_ += static_cast<unsigned long>(length);
  std::fwrite(text, 1, length, stream_);
  return *this;
}

bool CLogImpl::IsOpen() const { return open_; }

int CLogImpl::SetLevel(int level) { return level_ = level; }

int CLogImpl::SetLevelMask(int mask) { return levelMask_ = mask; }

int CLogImpl::GetLevelMask() { return levelMask_; }

int CLogImpl::SetFlushThreshold(int bytes) { return flushThreshold_ = bytes; }

void CLogImpl::ReadAll(CStringBuffer& out) {
  out.Initialize();
  CAutoSync guard(lock_);
  CloseStream();
  {
    CMappedFile file(fileName_);
    if (file.GetFileStart() != nullptr) {
      out.AddString(file.GetFileStart(), static_cast<int>(file.GetFileSize()));
    }
    file.CloseFile();
  }
  OpenForAppend();
}

void CLogImpl::Flush() {
  CAutoSync guard(lock_);
  if (stream_ != nullptr) std::fflush(stream_);
}

void CLogImpl::Clear() {
  CAutoSync guard(lock_);
  CloseStream();
  // When the file cannot be deleted the old one is simply opened again.
  os::DeleteFileA(fileName_);
  OpenForAppend();
}

void CLogImpl::SetEnabled(bool enabled) { enabled_ = enabled; }

bool CLogImpl::IsEnabled() { return enabled_; }

void CLogImpl::SetMaxSize(unsigned long bytes) {
  CAutoSync guard(lock_);
  maxSize_ = bytes < kMaxSizeLimit ? bytes : kMaxSizeLimit;
  keepFactor_ = maxSize_ < kDefaultMaxSize ? kSmallLogKeepFactor : kDefaultKeepFactor;
  trimStep_ = maxSize_ / 10;
  if (stream_ != nullptr) CheckSize();
}

unsigned long CLogImpl::GetMaxSize() {
  CAutoSync guard(lock_);
  return maxSize_;
}

bool CLogImpl::Open(const char* path) {
  if (path == nullptr) return false;
  CAutoSync guard(lock_);
  fileName_ = path;
  OpenForAppend();
  return true;
}

const char* CLogImpl::GetFileName() { return fileName_.GetBuffer(); }

void CLogImpl::WriteBuffer(CStringBuffer& buffer) {
  if (buffer.GetSize() < flushThreshold_) return;
  CAutoSync guard(lock_);
  if (IsLevelEnabled(level_) && stream_ != nullptr) {
    fileSize_ += static_cast<unsigned long>(buffer.GetSize());
    std::fwrite(buffer.GetBuffer(), 1, static_cast<std::size_t>(buffer.GetSize()), stream_);
    std::fflush(stream_);
  }
  buffer.Initialize();
  if (stream_ != nullptr) CheckSize();
}
