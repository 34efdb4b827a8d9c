#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace {

// Runs the body with the process's time zone set to UTC.
class UtcZone {
 public:
  UtcZone() {
    const char* old = std::getenv("TZ");
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~UtcZone() {
    if (hadOld_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadOld_ = false;
  std::string old_;
};

TEST(ModuleFileName, ExecutableNameUsesBackslashes) {
  char name[260] = {};
  const DWORD length = os::GetModuleFileNameA(nullptr, name, sizeof(name));
  ASSERT_GT(length, 0u);
  EXPECT_EQ(std::strlen(name), length);
  const std::string text(name);
  EXPECT_EQ(std::string::npos, text.find('/'));
  ASSERT_EQ('\\', text[0]);
  // The host folder is what precedes the last backslash.
  EXPECT_EQ("test_platform", text.substr(text.rfind('\\') + 1));
}

TEST(ModuleFileName, ShortBufferGetsCutNameAndFullSize) {
  char full[260] = {};
  const DWORD length = os::GetModuleFileNameA(nullptr, full, sizeof(full));
  ASSERT_GT(length, 5u);
  char cut[6];
  std::memset(cut, '#', sizeof(cut));
  EXPECT_EQ(sizeof(cut), os::GetModuleFileNameA(nullptr, cut, sizeof(cut)));
  EXPECT_EQ(std::string(full, 5), std::string(cut));
}

TEST(ModuleHandle, LibraryAndProgramHaveTheirOwnHandlesAndNames) {
  const HMODULE program = os::GetModuleHandleOf(nullptr);
  const HMODULE local = os::GetModuleHandleOf(reinterpret_cast<const void*>(&os::Sleep));
  ASSERT_NE(nullptr, program);
  ASSERT_NE(nullptr, local);
  EXPECT_NE(program, local);
  static int dataInProgram = 0;
  EXPECT_EQ(program, os::GetModuleHandleOf(&dataInProgram));

  char name[260] = {};
  ASSERT_GT(os::GetModuleFileNameA(local, name, sizeof(name)), 0u);
  const std::string text(name);
  EXPECT_EQ("libvxplatform.so", text.substr(text.rfind('\\') + 1));
  char programName[260] = {};
  ASSERT_GT(os::GetModuleFileNameA(program, programName, sizeof(programName)), 0u);
  char nullName[260] = {};
  ASSERT_GT(os::GetModuleFileNameA(nullptr, nullName, sizeof(nullName)), 0u);
  EXPECT_STREQ(nullName, programName);
}

TEST(Resources, FoundByModuleTypeAndExactName) {
  static const unsigned char gif[] = {'G', 'I', 'F'};
  static const unsigned char css[] = {'p', '{', '}'};
  static const os::ResourceEntry table[] = {
      {"GIF", "DUMMY.GIF", gif, sizeof(gif)},
      {"CSS", "DUMMY.CSS", css, sizeof(css)},
  };
  const HMODULE module = os::GetModuleHandleOf(&table);
  os::RegisterResources(module, table, 2);

  const os::ResourceEntry* found = os::FindResourceA(module, "DUMMY.CSS", "CSS");
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(std::string("p{}"), std::string(reinterpret_cast<const char*>(found->data), found->size));
  EXPECT_EQ(nullptr, os::FindResourceA(module, "DUMMY.CSS", "GIF"));
  EXPECT_EQ(nullptr, os::FindResourceA(module, "dummy.css", "css"));
  // Null names the program, which is the module that registered here.
  EXPECT_EQ(found, os::FindResourceA(nullptr, "DUMMY.CSS", "CSS"));
  // Another module's resources are not this module's.
  EXPECT_EQ(nullptr, os::FindResourceA(os::GetModuleHandleOf(reinterpret_cast<const void*>(&os::Sleep)),
                                       "DUMMY.GIF", "GIF"));

  os::UnregisterResources(module);
  EXPECT_EQ(nullptr, os::FindResourceA(module, "DUMMY.GIF", "GIF"));
}

TEST(ComputerName, MatchesFirstLabelOfHostName) {
  char name[256] = {};
  DWORD size = sizeof(name);
  ASSERT_TRUE(os::GetComputerNameA(name, &size));
  EXPECT_EQ(std::strlen(name), size);
  char host[256] = {};
  ASSERT_EQ(0, os::gethostname(host, sizeof(host)));
  EXPECT_EQ(std::string(host).substr(0, std::string(host).find('.')), std::string(name));

  char tiny[1];
  DWORD tinySize = sizeof(tiny);
  EXPECT_FALSE(os::GetComputerNameA(tiny, &tinySize));
  EXPECT_EQ(size + 1, tinySize);
}

TEST(Clock, TickCountFollowsSleep) {
  const DWORD before = os::GetTickCount();
  os::Sleep(60);
  const DWORD elapsed = os::GetTickCount() - before;
  EXPECT_GE(elapsed, 59u);
  EXPECT_LT(elapsed, 5000u);
}

TEST(Clock, SystemTimeIsUtcOfTime64) {
  UtcZone utc;
  os::SYSTEMTIME now;
  const vxtime64_t seconds = os::Time64();
  os::GetSystemTime(&now);
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm parts;
  gmtime_r(&t, &parts);
  EXPECT_EQ(parts.tm_year + 1900, now.wYear);
  EXPECT_EQ(parts.tm_mon + 1, now.wMonth);
  EXPECT_EQ(parts.tm_mday, now.wDay);
  EXPECT_EQ(parts.tm_wday, now.wDayOfWeek);
  EXPECT_LT(now.wMilliseconds, 1000);
  os::SYSTEMTIME local;
  os::GetLocalTime(&local);
  EXPECT_EQ(now.wYear, local.wYear);
  EXPECT_EQ(now.wHour, local.wHour);
}

TEST(Clock, CTimeUsesFixedFormWithTwoDigitDay) {
  UtcZone utc;
  // 1980-01-02 02:03:55 UTC, a Wednesday.
  EXPECT_EQ("Wed Jan 02 02:03:55 1980\n", os::CTime(315626635));
  EXPECT_EQ("Thu Jan 01 00:00:00 1970\n", os::CTime(0));
  EXPECT_EQ("Wed Dec 31 23:59:59 3000\n", os::CTime(32535215999LL));
  EXPECT_EQ("", os::CTime(32535216000LL));
  EXPECT_EQ("", os::CTime(-1));
}

TEST(DebugOutput, GoesToStderrOnlyWhenAskedFor) {
  unsetenv("VXPROXY_DEBUG");
  testing::internal::CaptureStderr();
  os::OutputDebugStringA("quiet\n");
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  setenv("VXPROXY_DEBUG", "1", 1);
  testing::internal::CaptureStderr();
  os::OutputDebugStringA("Needs to set host as h\n");
  EXPECT_EQ("Needs to set host as h\n", testing::internal::GetCapturedStderr());
  unsetenv("VXPROXY_DEBUG");
}

}  // namespace
