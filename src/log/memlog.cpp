// Memory logs: one line built in memory, handed to its sink in one write.
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "vxproxy/log.h"

namespace {

// The C library takes times up to the end of the year 3000.
constexpr vxtime64_t kLastCTime = 32535215999;

}  // namespace

CMemLog::CMemLog(CLog* log)
    : log_(log),
      suppressed_(false),
      level_(0),
      mask_(log != nullptr ? log->GetLevelMask() : 0),
      lineStarted_(false) {}

CMemLog::~CMemLog() { CMemLog::Flush(); }

bool CMemLog::StartPiece() {
  if (!IsEnabled()) return false;
  if (!lineStarted_) {
    BeginLine();
    lineStarted_ = true;
  }
  return true;
}

CMemLog& CMemLog::operator<<(CMemLog& (*manip)(CMemLog&)) {
  if (IsOpen() && manip != nullptr) return manip(*this);
  return *this;
}

CMemLog& CMemLog::operator<<(vxtime64_t time) {
  if (!StartPiece()) return *this;
  if (time < 0 || time > kLastCTime) return *this;
  std::string text = os::CTime(time);
  // The text ends in a line break that must not split the log line.
  text = text.substr(0, text.find_first_of("\r\n"));
  line_.AddString(text.data(), static_cast<int>(text.size()));
  return *this;
}

CMemLog& CMemLog::operator<<(vxtime32_t time) {
  return *this << static_cast<vxtime64_t>(static_cast<std::int32_t>(time));
}

CMemLog& CMemLog::operator<<(unsigned long value) {
  if (StartPiece()) line_ << value;
  return *this;
}

CMemLog& CMemLog::operator<<(unsigned short value) {
  if (StartPiece()) line_ << value;
  return *this;
}

CMemLog& CMemLog::operator<<(int value) {
  if (StartPiece()) line_ << value;
  return *this;
}

CMemLog& CMemLog::operator<<(const char* text) {
  if (StartPiece() && text != nullptr) line_ << text;
  return *this;
}

void CMemLog::Attach(CLog* log) {
  Flush();
  log_ = log;
  if (log != nullptr) mask_ = log->GetLevelMask();
}

bool CMemLog::IsOpen() { return log_ != nullptr && log_->IsOpen(); }

bool CMemLog::IsEnabled() { return IsOpen() && !suppressed_; }

void CMemLog::SetLevel(int level) {
  level_ = level;
  suppressed_ = level != 0 && (level & mask_) != level;
}

void CMemLog::Flush() {
  if (!IsEnabled()) return;
  if (line_.GetSize() > 0) log_->Write(0, line_.GetBuffer(), line_.GetSize());
  log_->Flush();
  line_.Initialize();
}

void CMemLog::BeginLine() { lineStarted_ = true; }

// ---------------------------------------------------------------- CMemLogEx --

CMemLogEx::CMemLogEx(CLog* log) : CMemLog(log), prefix_("") {}

CMemLogEx::~CMemLogEx() = default;

const char* CMemLogEx::PrefixOf(int level) {
  switch (level) {
    case 0: return "[CRITICAL]: ";
    case 1: return "[ERROR]: ";
    case 2: return "[WARNING]: ";
    case 4: return "[INFO]: ";
    case 8: return "[DEBUG]: ";
    case 16: return "[VERBOSE]: ";
    case 32: return "[HEAD]: ";
    default: return "[NONE]: ";
  }
}

void CMemLogEx::SetLevel(int level) {
  CMemLog::SetLevel(level);
  prefix_ = PrefixOf(level);
}

void CMemLogEx::BeginLine() {
  if (IsEnabled()) line_ << prefix_;
  CMemLog::BeginLine();
}

// -------------------------------------------------------------- time stamp --

void FormatLineTimeStamp(int month, int day, int year, int hour, int minute, int second,
                         CStringBuffer& out) {
  const int hour12 = hour % 12 == 0 ? 12 : hour % 12;
  char text[64];
  std::snprintf(text, sizeof text, "%02d/%02d/%04d_%02d:%02d:%02d_%s", month, day, year, hour12,
                minute, second, hour < 12 ? "AM" : "PM");
  out = text;
}

void MakeLineTimeStamp(CStringBuffer& out) {
  os::SYSTEMTIME now{};
  os::GetLocalTime(&now);
  FormatLineTimeStamp(now.wMonth, now.wDay, now.wYear, now.wHour, now.wMinute, now.wSecond, out);
}
