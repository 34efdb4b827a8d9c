// Machine name, clocks, sleeping and debugger output.
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/platform.h"

namespace os {
namespace {

// _ctime64 refuses times after 23:59:59 on 31 December 3000 (UTC); log lines
// and file stamps written by other builds rely on the same range.
constexpr vxtime64_t kLastPrintableTime = 32535215999LL;

const char* const kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void FillSystemTime(const struct tm& parts, long milliseconds, SYSTEMTIME* out) {
  out->wYear = static_cast<WORD>(parts.tm_year + 1900);
  out->wMonth = static_cast<WORD>(parts.tm_mon + 1);
  out->wDayOfWeek = static_cast<WORD>(parts.tm_wday);
  out->wDay = static_cast<WORD>(parts.tm_mday);
  out->wHour = static_cast<WORD>(parts.tm_hour);
  out->wMinute = static_cast<WORD>(parts.tm_min);
  out->wSecond = static_cast<WORD>(parts.tm_sec);
  out->wMilliseconds = static_cast<WORD>(milliseconds);
}

}  // namespace

bool GetComputerNameA(char* buffer, DWORD* size) {
  if (size == nullptr) return false;
  char name[256] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0) return false;
  // The computer name is the host's first label; the rest is its domain.
  char* dot = std::strchr(name, '.');
  if (dot != nullptr) *dot = '\0';
  const DWORD length = static_cast<DWORD>(std::strlen(name));
  if (buffer == nullptr || *size <= length) {
    *size = length + 1;
    return false;
  }
  std::memcpy(buffer, name, length + 1);
  *size = length;
  return true;
}

DWORD GetTickCount() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const std::uint64_t ms = static_cast<std::uint64_t>(now.tv_sec) * 1000u +
                           static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
  return static_cast<DWORD>(ms);
}

void Sleep(DWORD milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void GetSystemTime(SYSTEMTIME* utc) {
  if (utc == nullptr) return;
  timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  struct tm parts;
  ::gmtime_r(&now.tv_sec, &parts);
  FillSystemTime(parts, now.tv_nsec / 1000000, utc);
}

void GetLocalTime(SYSTEMTIME* local) {
  if (local == nullptr) return;
  timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  struct tm parts;
  ::localtime_r(&now.tv_sec, &parts);
  FillSystemTime(parts, now.tv_nsec / 1000000, local);
}

vxtime64_t Time64() { return static_cast<vxtime64_t>(::time(nullptr)); }

std::string CTime(vxtime64_t t) {
  if (t < 0 || t > kLastPrintableTime) return std::string();
  const time_t value = static_cast<time_t>(t);
  struct tm parts;
  if (::localtime_r(&value, &parts) == nullptr) return std::string();
  if (parts.tm_wday < 0 || parts.tm_wday > 6 || parts.tm_mon < 0 || parts.tm_mon > 11) {
    return std::string();
  }
  char text[64];
  std::snprintf(text, sizeof(text), "%s %s %02d %02d:%02d:%02d %04d\n", kWeekdays[parts.tm_wday],
                kMonths[parts.tm_mon], parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                parts.tm_year + 1900);
  return text;
}

bool StdoutIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

void OutputDebugStringA(const char* text) {
  if (text == nullptr || std::getenv("VXPROXY_DEBUG") == nullptr) return;
  std::fputs(text, stderr);
  std::fflush(stderr);
}

}  // namespace os
