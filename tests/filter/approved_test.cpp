// The user's approved list: its own tables, read and replaced on their own.
#include <gtest/gtest.h>

#include <filesystem>

#include "engine_fixture.h"

namespace {

using ApprovedList = EngineTest;

TEST_F(ApprovedList, MissingEmptyAndCommentOnlyListsAreEmpty) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n"));
  const std::string missing = dir_ / "none.txt";
  EXPECT_TRUE(engine_.LoadUserApprovedList(missing.c_str()));
  EXPECT_TRUE(engine_.LoadUserApprovedList(nullptr));
  EXPECT_TRUE(LoadApproved(""));
  EXPECT_TRUE(LoadApproved("! my sites\n!@@||ads.example.com^\n\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_TRUE(errors_.empty());
}

TEST_F(ApprovedList, OnlyExceptionLinesCount) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n||cdn.example.net^\n"));
  ASSERT_TRUE(LoadApproved("||ads.example.com^\nads.example.com\n@@||CDN.Example.NET^\r\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("cdn.example.net", "/x.gif", "gif"), VerdictAllowed);
}

TEST_F(ApprovedList, EntriesKeepTheirOptions) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n/ads/\n"));
  ASSERT_TRUE(LoadApproved("@@||ads.example.com^$domain=example.com\n@@/ads/ok.js\n@@||cdn*.example.net^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif", "http://www.example.com/"), VerdictAllowed);
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif", "http://other.org/"), VerdictDomain);
  EXPECT_EQ(Check("site.org", "/ads/ok.js", "js"), VerdictAllowed);
  EXPECT_EQ(Check("site.org", "/ads/no.js", "js"), VerdictGeneric);
  EXPECT_EQ(Check("cdn7.example.net", "/ads/x.js", "js"), VerdictAllowed);
}

TEST_F(ApprovedList, ReloadReplacesTheWholeList) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n||cdn.example.net^\n"));
  ASSERT_TRUE(LoadApproved("@@||ads.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAllowed);
  ASSERT_TRUE(LoadApproved("@@||cdn.example.net^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("cdn.example.net", "/x.gif", "gif"), VerdictAllowed);
  // A list that is gone now approves nothing.
  std::filesystem::remove(dir_ / "vexilowl.txt");
  EXPECT_TRUE(engine_.LoadUserApprovedList((dir_ / "vexilowl.txt").c_str()));
  EXPECT_EQ(Check("cdn.example.net", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(ApprovedList, FiltersAndApprovedListLoadIndependently) {
  ASSERT_TRUE(LoadApproved("@@||ads.example.com^\n"));
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n/banner/\n"));
  EXPECT_EQ(Check("ads.example.com", "/banner/x.gif", "gif"), VerdictAllowed);
  ASSERT_TRUE(LoadApproved("@@/nothing/\n"));
  EXPECT_EQ(Check("ads.example.com", "/banner/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("site.org", "/banner/x.gif", "gif"), VerdictGeneric);
}

TEST_F(ApprovedList, ReadErrorIsReported) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n"));
  const std::string folder = dir_ / "folder";
  std::filesystem::create_directories(folder);
  if (engine_.SetFiltersFile(folder.c_str())) {
    errors_.clear();
    EXPECT_FALSE(engine_.LoadUserApprovedList(folder.c_str()));
    ASSERT_EQ(errors_.size(), 1u);
    EXPECT_EQ(errors_[0], "Exception while reading user approved list: " + folder);
  } else {
    GTEST_SKIP() << "folders do not open as files here";
  }
}

}  // namespace
