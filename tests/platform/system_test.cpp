#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace {

// The clock tests read times as UTC; nothing else in this program minds.
void UseUtc() {
  setenv("TZ", "UTC", 1);
  tzset();
}

std::string FileNameOf(HMODULE module) {
  char name[260] = {};
  EXPECT_GT(os::GetModuleFileNameA(module, name, sizeof(name)), 0u);
  const std::string text(name);
  EXPECT_EQ(std::string::npos, text.find('/')) << text;
  return text.substr(text.rfind('\\') + 1);
}

TEST(ModuleFileName, ProgramAndLibraryHaveTheirOwnHandlesAndBackslashNames) {
  const HMODULE program = os::GetModuleHandleOf(nullptr);
  const HMODULE library = os::GetModuleHandleOf(reinterpret_cast<const void*>(&os::Sleep));
  static int dataInProgram = 0;
  ASSERT_NE(nullptr, program);
  EXPECT_NE(program, library);
  EXPECT_EQ(program, os::GetModuleHandleOf(&dataInProgram));
  EXPECT_EQ("test_platform", FileNameOf(nullptr));
  EXPECT_EQ("test_platform", FileNameOf(program));
  EXPECT_EQ("libvxplatform.so", FileNameOf(library));

  char full[260] = {};
  ASSERT_GT(os::GetModuleFileNameA(nullptr, full, sizeof(full)), 5u);
  EXPECT_EQ('\\', full[0]);
  char cut[6];
  std::memset(cut, '#', sizeof(cut));
  EXPECT_EQ(sizeof(cut), os::GetModuleFileNameA(nullptr, cut, sizeof(cut)));
  EXPECT_EQ(std::string(full, 5), std::string(cut));
}

TEST(Resources, FoundByModuleTypeAndExactName) {
  static const unsigned char css[] = {'p', '{', '}'};
  static const os::ResourceEntry table[] = {{"CSS", "DUMMY.CSS", css, sizeof(css)}};
  const HMODULE module = os::GetModuleHandleOf(&table);
  os::RegisterResources(module, table, 1);
  const os::ResourceEntry* found = os::FindResourceA(module, "DUMMY.CSS", "CSS");
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(css, found->data);
  EXPECT_EQ(nullptr, os::FindResourceA(module, "DUMMY.CSS", "GIF"));
  EXPECT_EQ(nullptr, os::FindResourceA(module, "dummy.css", "css"));
  // Null names the program, which is the module that registered here.
  EXPECT_EQ(found, os::FindResourceA(nullptr, "DUMMY.CSS", "CSS"));
  os::UnregisterResources(module);
  EXPECT_EQ(nullptr, os::FindResourceA(module, "DUMMY.CSS", "CSS"));
}

TEST(ComputerName, IsTheFirstLabelOfTheHostNameAndNeedsRoomForItsNul) {
  char name[256] = {};
  DWORD size = sizeof(name);
  ASSERT_TRUE(os::GetComputerNameA(name, &size));
  char host[256] = {};
  ASSERT_EQ(0, os::gethostname(host, sizeof(host)));
  EXPECT_EQ(std::string(host).substr(0, std::string(host).find('.')), std::string(name, size));
  DWORD tinySize = 1;
  EXPECT_FALSE(os::GetComputerNameA(host, &tinySize));
  EXPECT_EQ(size + 1, tinySize);
}

TEST(Clock, SystemTimeAndCTimeAreUtc) {
  UseUtc();
  const DWORD ticks = os::GetTickCount();
  os::Sleep(60);
  EXPECT_GE(os::GetTickCount() - ticks, 59u);
  const std::time_t seconds = static_cast<std::time_t>(os::Time64());
  os::SYSTEMTIME now, local;
  os::GetSystemTime(&now);
  os::GetLocalTime(&local);
  std::tm t;
  gmtime_r(&seconds, &t);
  EXPECT_EQ(std::vector<int>({t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_wday, t.tm_hour}),
            std::vector<int>({now.wYear, now.wMonth, now.wDay, now.wDayOfWeek, local.wHour}));

  // Fixed form with a two-digit day; 1980-01-02 02:03:55 UTC was a Wednesday.
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
