#include <gtest/gtest.h>

#include <string>

#include "../support/tempdir.h"
#include "platform/platform.h"

namespace {

class Profile : public ::testing::Test {
 protected:
  // The path as the service builds it: folder, backslash, file name.
  std::string IniPath() const { return dir_.str() + "\\vexilo.ini"; }
  std::string NativeIni() const { return dir_ / "vexilo.ini"; }
  TempDir dir_;
};

TEST_F(Profile, ReadFindsKeyInItsSectionOrGivesTheCutDefault) {
  const char* kMixed =
      "; settings\n[Other]\nport=1\n  [ vexilo ]  \n  PORT = 8080 \nName=\"quoted value\"\n";
  const char* kLong = "[Vexilo]\r\nPort=1234567890123\r\n";
  struct {
    const char* file;  // null: no file at all
    const char* section;
    const char* key;
    const char* fallback;
    DWORD size;
    const char* expected;
  } cases[] = {
      {nullptr, "Vexilo", "Port", "7070", 10, "7070"},
      {"[Vexilo]\r\nHost=x\r\n[Other]\r\nPort=1\r\n", "Vexilo", "Port", "7070", 10, "7070"},
      {"[Vexilo]\r\nHost=x\r\n", "Vexilo", "Port", nullptr, 10, ""},
      {kMixed, "Vexilo", "Port", "7070", 64, "8080"},
      {kMixed, "vexilo", "name", "", 64, "quoted value"},
      {kMixed, "OTHER", "Port", "", 64, "1"},
      // Cut to size - 1; the service's ten-byte port read is tested with the service.
      {kLong, "Vexilo", "Port", "7070", 2, "1"},
      {kLong, "Vexilo", "Port", "7070", 1, ""},
      {kLong, "Vexilo", "Missing", "abcdefghijkl", 10, "abcdefghi"},
  };
  for (const auto& c : cases) {
    std::filesystem::remove(NativeIni());
    if (c.file) WriteTextFile(NativeIni(), c.file);
    std::string buffer(c.size, '#');
    const DWORD n = os::GetPrivateProfileStringA(c.section, c.key, c.fallback, buffer.data(),
                                                 c.size, IniPath().c_str());
    EXPECT_EQ(c.expected, buffer.substr(0, n)) << c.key << " in " << (c.file ? c.file : "none");
    EXPECT_EQ('\0', buffer[n]);
  }
}

TEST_F(Profile, WriteKeepsEveryOtherLineAndTheFilesLineEnds) {
  struct {
    const char* before;  // null: no file yet
    const char* section;
    const char* key;
    const char* value;
    const char* after;
  } cases[] = {
      {nullptr, "Vexilo", "Port", "7070", "[Vexilo]\r\nPort=7070\r\n"},
      {"; kept comment\r\n[Vexilo]\r\nName=a\r\nport = 7070\r\nLast=z\r\n\r\n[Next]\r\nPort=5\r\n",
       "Vexilo", "Port", "40123",
       "; kept comment\r\n[Vexilo]\r\nName=a\r\nPort=40123\r\nLast=z\r\n\r\n[Next]\r\nPort=5\r\n"},
      {"[Vexilo]\nName=a\n\n[Next]\nX=1\n", "Vexilo", "Port", "1",
       "[Vexilo]\nName=a\nPort=1\n\n[Next]\nX=1\n"},
      {"[Vexilo]\nX=1", "Third", "Y", "2", "[Vexilo]\nX=1\n[Third]\nY=2\n"},
      {"[A]\r\nx=1\r\ny=2\r\n[B]\r\nz=3\r\n", "A", "x", nullptr, "[A]\r\ny=2\r\n[B]\r\nz=3\r\n"},
      {"[A]\r\ny=2\r\n[B]\r\nz=3\r\n", "A", nullptr, nullptr, "[B]\r\nz=3\r\n"},
  };
  for (const auto& c : cases) {
    std::filesystem::remove(NativeIni());
    if (c.before) WriteTextFile(NativeIni(), c.before);
    ASSERT_TRUE(os::WritePrivateProfileStringA(c.section, c.key, c.value, IniPath().c_str()));
    EXPECT_EQ(c.after, ReadTextFile(NativeIni())) << (c.before ? c.before : "no file");
  }
  const std::string absent = dir_.str() + "\\absent\\vexilo.ini";
  EXPECT_FALSE(os::WritePrivateProfileStringA("Vexilo", "Port", "1", absent.c_str()));
}

TEST_F(Profile, ListsSectionsAndKeysEndingInTwoNuls) {
  WriteTextFile(NativeIni(), "[A]\nx=1\ny=2\n[B]\nz=3\n");
  std::string buffer(64, '#');
  DWORD n = os::GetPrivateProfileStringA(nullptr, nullptr, "", buffer.data(), 64, IniPath().c_str());
  EXPECT_EQ(std::string("A\0B\0\0", 5), buffer.substr(0, n + 1));
  n = os::GetPrivateProfileStringA("a", nullptr, "", buffer.data(), 64, IniPath().c_str());
  EXPECT_EQ(std::string("x\0y\0\0", 5), buffer.substr(0, n + 1));
  n = os::GetPrivateProfileStringA("A", nullptr, "", buffer.data(), 4, IniPath().c_str());
  EXPECT_EQ(std::string("x\0\0", 3), buffer.substr(0, n + 1));
}

}  // namespace
