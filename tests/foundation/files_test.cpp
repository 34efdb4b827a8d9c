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

// Cuts from the start of the file are the log trim's, tested with the log.
TEST(MappedFile, DeletedBlockIsGoneFromMappingAndFile) {
  const struct {
    const char* text;
    unsigned long offset, length;
    bool ok;
    const char* after;
  } cases[] = {
      {"0123456789", 3, 4, true, "012789"},
      {"abcdef", 4, 100, true, "abcd"},  // cut at the end
      {"abcd", 5, 1, false, "abcd"},     // starts beyond the end
  };
  TempDir dir;
  for (const auto& c : cases) {
    WriteTextFile(dir / "a.log", c.text);
    {
      // The service names its files with backslashes.
      CMappedFile file((dir.str() + "\\a.log").c_str());
      ASSERT_EQ(Mapped(file), c.text);
      EXPECT_EQ(file.DeleteBlockFromFile(c.offset, c.length) == 0, c.ok) << c.text;
      EXPECT_EQ(Mapped(file), c.after) << c.text;
    }  // the destructor closes
    EXPECT_EQ(ReadTextFile(dir / "a.log"), c.after) << c.text;
  }
}

// Writes through the mapping reach the file: the block deletion above moves
// its tail that way.
TEST(MappedFile, MissingOrEmptyFileMapsNothing) {
  TempDir dir;
  CMappedFile missing((dir / "absent.log").c_str());
  EXPECT_EQ(missing.GetFileStart(), nullptr);
  EXPECT_NE(missing.DeleteBlockFromFile(0, 1), 0);
  WriteTextFile(dir / "empty.log", "");
  CMappedFile empty((dir / "empty.log").c_str());
  EXPECT_EQ(empty.GetFileStart(), nullptr);
  EXPECT_EQ(empty.GetFileSize(), 0ul);
}

TEST(CreatePath, MakesEveryMissingParentButNotBelowAFile) {
  TempDir dir;
  const std::string path = dir.str() + "\\logs\\deep/er\\leaf";
  EXPECT_TRUE(CFileStream::CreatePath(path.c_str(), false));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "logs" / "deep" / "er" / "leaf"));
  // Again: an existing directory is no error, also with a trailing separator.
  EXPECT_TRUE(CFileStream::CreatePath((path + "\\").c_str(), false));

  WriteTextFile(dir / "file", "x");
  EXPECT_FALSE(CFileStream::CreatePath((dir / "file/sub").c_str(), false));
  EXPECT_FALSE(CFileStream::CreatePath((dir / "file").c_str(), false));
  EXPECT_FALSE(CFileStream::CreatePath("", false));
}

// The size and deletion of an existing file are the log's: its trim at open
// and its Clear are tested with it.
TEST(PlatformFiles, DirectoriesAndMissingFilesAreNoFiles) {
  TempDir dir;
  const std::string path = dir.str() + "\\g.log";
  EXPECT_FALSE(os::FileExists(dir.str().c_str()));
  EXPECT_FALSE(os::FileExists(path.c_str()));
  EXPECT_EQ(os::FileSize(path.c_str()), 0u);
  EXPECT_FALSE(os::DeleteFileA(path.c_str()));
}

}  // namespace
