#include <gtest/gtest.h>

#include <string>

#include "../support/tempdir.h"
#include "platform/platform.h"

namespace {

// The service reads its port into a buffer of this size.
constexpr DWORD kPortBuffer = 10;

class Profile : public ::testing::Test {
 protected:
  // The path as the service builds it: folder, backslash, file name.
  std::string IniPath() const { return dir_.str() + "\\vexilo.ini"; }
  std::string NativeIni() const { return dir_ / "vexilo.ini"; }

  std::string Read(const char* section, const char* key, const char* fallback,
                   DWORD size = 64) {
    std::string buffer(size, '#');
    const DWORD n = os::GetPrivateProfileStringA(section, key, fallback, buffer.data(), size,
                                                 IniPath().c_str());
    EXPECT_EQ('\0', buffer[n]);
    return buffer.substr(0, n);
  }

  TempDir dir_;
};

TEST_F(Profile, MissingFileOrKeyGivesDefault) {
  EXPECT_EQ("7070", Read("Vexilo", "Port", "7070", kPortBuffer));
  WriteTextFile(NativeIni(), "[Vexilo]\r\nHost=x\r\n[Other]\r\nPort=1\r\n");
  EXPECT_EQ("7070", Read("Vexilo", "Port", "7070", kPortBuffer));
  EXPECT_EQ("", Read("Vexilo", "Port", nullptr, kPortBuffer));
}

TEST_F(Profile, FindsKeyInItsSectionIgnoringCaseAndBlanks) {
  WriteTextFile(NativeIni(),
                "; settings\n[Other]\nport=1\n  [ vexilo ]  \n  PORT = 8080 \nName=\"quoted value\"\n");
  EXPECT_EQ("8080", Read("Vexilo", "Port", "7070"));
  EXPECT_EQ("quoted value", Read("Vexilo", "name", ""));
  EXPECT_EQ("1", Read("OTHER", "Port", ""));
}

TEST_F(Profile, LongValueIsCutToBufferSizeLessOne) {
  WriteTextFile(NativeIni(), "[Vexilo]\r\nPort=1234567890123\r\n");
  EXPECT_EQ("123456789", Read("Vexilo", "Port", "7070", kPortBuffer));
  EXPECT_EQ("1", Read("Vexilo", "Port", "7070", 2));
  EXPECT_EQ("", Read("Vexilo", "Port", "7070", 1));
  // A default that does not fit is cut the same way.
  EXPECT_EQ("abcdefghi", Read("Vexilo", "Missing", "abcdefghijkl", kPortBuffer));
}

TEST_F(Profile, WriteCreatesFileWithSectionAndKey) {
  ASSERT_TRUE(os::WritePrivateProfileStringA("Vexilo", "Port", "7070", IniPath().c_str()));
  EXPECT_EQ("[Vexilo]\r\nPort=7070\r\n", ReadTextFile(NativeIni()));
  EXPECT_EQ("7070", Read("Vexilo", "Port", "0", kPortBuffer));
}

TEST_F(Profile, WriteReplacesExistingKeyAndKeepsOtherLines) {
  WriteTextFile(NativeIni(),
                "; kept comment\r\n[Vexilo]\r\nName=a\r\nport = 7070\r\nLast=z\r\n\r\n[Next]\r\nPort=5\r\n");
  ASSERT_TRUE(os::WritePrivateProfileStringA("Vexilo", "Port", "40123", IniPath().c_str()));
  EXPECT_EQ("; kept comment\r\n[Vexilo]\r\nName=a\r\nPort=40123\r\nLast=z\r\n\r\n[Next]\r\nPort=5\r\n",
            ReadTextFile(NativeIni()));
  EXPECT_EQ("40123", Read("Vexilo", "Port", "7070", kPortBuffer));
  EXPECT_EQ("5", Read("Next", "Port", "7070", kPortBuffer));
}

TEST_F(Profile, WriteAddsKeyAtEndOfItsSectionAndNewSectionAtEndOfFile) {
  WriteTextFile(NativeIni(), "[Vexilo]\nName=a\n\n[Next]\nX=1");
  ASSERT_TRUE(os::WritePrivateProfileStringA("Vexilo", "Port", "1", IniPath().c_str()));
  ASSERT_TRUE(os::WritePrivateProfileStringA("Third", "Y", "2", IniPath().c_str()));
  // The file's own line ends are used for what is added.
  EXPECT_EQ("[Vexilo]\nName=a\nPort=1\n\n[Next]\nX=1\n[Third]\nY=2\n", ReadTextFile(NativeIni()));
}

TEST_F(Profile, WriteWithoutValueOrKeyRemoves) {
  WriteTextFile(NativeIni(), "[A]\r\nx=1\r\ny=2\r\n[B]\r\nz=3\r\n");
  ASSERT_TRUE(os::WritePrivateProfileStringA("A", "x", nullptr, IniPath().c_str()));
  EXPECT_EQ("[A]\r\ny=2\r\n[B]\r\nz=3\r\n", ReadTextFile(NativeIni()));
  ASSERT_TRUE(os::WritePrivateProfileStringA("A", nullptr, nullptr, IniPath().c_str()));
  EXPECT_EQ("[B]\r\nz=3\r\n", ReadTextFile(NativeIni()));
}

TEST_F(Profile, WriteIntoMissingFolderFails) {
  const std::string path = dir_.str() + "\\absent\\vexilo.ini";
  EXPECT_FALSE(os::WritePrivateProfileStringA("Vexilo", "Port", "1", path.c_str()));
}

TEST_F(Profile, ListsSectionsAndKeys) {
  WriteTextFile(NativeIni(), "[A]\nx=1\ny=2\n[B]\nz=3\n");
  std::string buffer(64, '#');
  DWORD n = os::GetPrivateProfileStringA(nullptr, nullptr, "", buffer.data(), 64, IniPath().c_str());
  EXPECT_EQ(std::string("A\0B\0", 4), buffer.substr(0, n));
  EXPECT_EQ('\0', buffer[n]);
  n = os::GetPrivateProfileStringA("a", nullptr, "", buffer.data(), 64, IniPath().c_str());
  EXPECT_EQ(std::string("x\0y\0", 4), buffer.substr(0, n));
  // Cut to fit, a list still ends with two NULs.
  n = os::GetPrivateProfileStringA("A", nullptr, "", buffer.data(), 4, IniPath().c_str());
  EXPECT_EQ(2u, n);
  EXPECT_EQ(std::string("x\0\0", 3), buffer.substr(0, 3));
}

}  // namespace
