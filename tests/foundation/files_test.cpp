#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/platform.h"
#include "support/tempdir.h"
#include "vxproxy/files.h"

namespace {

std::string Mapped(CMappedFile& file) {
  if (file.GetFileStart() == nullptr) return std::string();
  return std::string(file.GetFileStart(), file.GetFileSize());
}

TEST(MappedFile, MissingFileMapsNothing) {
  TempDir dir;
  CMappedFile file((dir / "absent.log").c_str());
  EXPECT_EQ(file.GetFileStart(), nullptr);
  EXPECT_EQ(file.GetFileSize(), 0ul);
  EXPECT_NE(file.DeleteBlockFromFile(0, 1), 0);
  file.CloseFile();
}

TEST(MappedFile, EmptyFileHasNoStart) {
  TempDir dir;
  WriteTextFile(dir / "empty.log", "");
  CMappedFile file((dir / "empty.log").c_str());
  EXPECT_EQ(file.GetFileStart(), nullptr);
  EXPECT_EQ(file.GetFileSize(), 0ul);
}

TEST(MappedFile, DeletingTheHeadKeepsTheTail) {
  TempDir dir;
  const std::string path = dir / "a.log";
  WriteTextFile(path, "first line\r\nsecond line\r\nthird\r\n");
  CMappedFile file(path.c_str());
  ASSERT_EQ(Mapped(file), "first line\r\nsecond line\r\nthird\r\n");
  ASSERT_EQ(file.DeleteBlockFromFile(0, 12), 0);
  EXPECT_EQ(file.GetFileSize(), 20ul);
  EXPECT_EQ(Mapped(file), "second line\r\nthird\r\n");
  file.CloseFile();
  EXPECT_EQ(ReadTextFile(path), "second line\r\nthird\r\n");
  EXPECT_EQ(std::filesystem::file_size(path), 20u);
}

TEST(MappedFile, DeletingAMiddleBlockMovesTheRestDown) {
  TempDir dir;
  const std::string path = dir / "b.log";
  WriteTextFile(path, "0123456789");
  {
    CMappedFile file(path.c_str());
    ASSERT_EQ(file.DeleteBlockFromFile(3, 4), 0);
    EXPECT_EQ(Mapped(file), "012789");
  }  // the destructor closes
  EXPECT_EQ(ReadTextFile(path), "012789");
}

TEST(MappedFile, DeletingEverythingLeavesAnEmptyFile) {
  TempDir dir;
  const std::string path = dir / "c.log";
  WriteTextFile(path, "only line\n");
  CMappedFile file(path.c_str());
  ASSERT_EQ(file.DeleteBlockFromFile(0, file.GetFileSize()), 0);
  EXPECT_EQ(file.GetFileSize(), 0ul);
  EXPECT_EQ(file.GetFileStart(), nullptr);
  file.CloseFile();
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
}

TEST(MappedFile, BlockRunningPastTheEndIsCutAtTheEnd) {
  TempDir dir;
  const std::string path = dir / "d.log";
  WriteTextFile(path, "abcdef");
  CMappedFile file(path.c_str());
  ASSERT_EQ(file.DeleteBlockFromFile(4, 100), 0);
  EXPECT_EQ(Mapped(file), "abcd");
  EXPECT_NE(file.DeleteBlockFromFile(5, 1), 0);  // offset beyond the end
  EXPECT_EQ(Mapped(file), "abcd");
}

TEST(MappedFile, WritesThroughTheMappingReachTheFile) {
  TempDir dir;
  const std::string path = dir / "e.log";
  WriteTextFile(path, "xyz");
  CMappedFile file(path.c_str());
  ASSERT_NE(file.GetFileStart(), nullptr);
  file.GetFileStart()[1] = 'Y';
  file.CloseFile();
  EXPECT_EQ(ReadTextFile(path), "xYz");
}

TEST(MappedFile, BackslashPathsWork) {
  TempDir dir;
  WriteTextFile(dir / "f.log", "data");
  CMappedFile file((dir.str() + "\\f.log").c_str());
  EXPECT_EQ(Mapped(file), "data");
}

TEST(CreatePath, MakesEveryMissingParent) {
  TempDir dir;
  const std::string path = dir.str() + "\\logs\\deep/er\\leaf";
  EXPECT_TRUE(CFileStream::CreatePath(path.c_str(), false));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "logs" / "deep" / "er" / "leaf"));
  EXPECT_TRUE(os::DirectoryExists(path.c_str()));
  // Again: an existing directory is no error, also with a trailing separator.
  EXPECT_TRUE(CFileStream::CreatePath(path.c_str(), false));
  EXPECT_TRUE(CFileStream::CreatePath((path + "\\").c_str(), false));
}

TEST(CreatePath, FailsBelowARegularFile) {
  TempDir dir;
  WriteTextFile(dir / "file", "x");
  EXPECT_FALSE(CFileStream::CreatePath((dir / "file/sub").c_str(), false));
  EXPECT_FALSE(CFileStream::CreatePath((dir / "file").c_str(), false));
  EXPECT_FALSE(CFileStream::CreatePath("", false));
}

TEST(PlatformFiles, SizesExistenceAndDeletion) {
  TempDir dir;
  const std::string path = dir.str() + "\\g.log";
  EXPECT_FALSE(os::FileExists(path.c_str()));
  EXPECT_EQ(os::FileSize(path.c_str()), 0u);
  WriteTextFile(dir / "g.log", "12345");
  EXPECT_TRUE(os::FileExists(path.c_str()));
  EXPECT_EQ(os::FileSize(path.c_str()), 5u);
  EXPECT_FALSE(os::FileExists(dir.str().c_str()));  // a directory is no file
  EXPECT_TRUE(os::DeleteFileA(path.c_str()));
  EXPECT_FALSE(os::FileExists(path.c_str()));
  EXPECT_FALSE(os::DeleteFileA(path.c_str()));
  EXPECT_EQ(os::NativePath("a\\b/c\\"), "a/b/c/");
}

}  // namespace
