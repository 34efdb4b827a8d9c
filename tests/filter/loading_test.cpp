// Reading filters files: classification of lines, sections, version text,
// line ends and the failures a load can meet.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "engine_fixture.h"

namespace {

using FilterLoading = EngineTest;

TEST_F(FilterLoading, VersionCommentLosesItsWhiteSpace) {
  ASSERT_TRUE(LoadFilters("[Adblock Plus 2.0]\n! version= 2011 11\t17 \n||ads.example.com^\n"));
  EXPECT_STREQ(engine_.GetVersion(), "20111117");
  // The next file has none: the version goes back to its initial text.
  ASSERT_TRUE(LoadFilters("! Version: 202608130520\n||ads.example.com^\n", "second.txt"));
  EXPECT_STREQ(engine_.GetVersion(), "0.0");
}

TEST_F(FilterLoading, VersionTakesTheTextAfterTheLinesFirstEqualsSign) {
  ASSERT_TRUE(LoadFilters("! build=7 version=3\n"));
  EXPECT_STREQ(engine_.GetVersion(), "7version=3");
}

TEST_F(FilterLoading, MarkerWithVersionOnlySetsTheSection) {
  ASSERT_TRUE(LoadFilters("! x/easylist_adservers.txt version=9\n||ads.example.com^\n"));
  EXPECT_STREQ(engine_.GetVersion(), "0.0");
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAdServer);
}

TEST_F(FilterLoading, SectionMarkersChooseTheDomainTables) {
  ASSERT_TRUE(LoadFilters("||before.example^\n" + kAdServersMarker +
                          "||inside.example^\n"
                          "! *** easylist:easylist/easylist_adservers_popup.txt ***\n"
                          "||popup.example^\n" +
                          kThirdPartyMarker + "||third.example^\n" + kAdServersMarker +
                          "||again.example^\n" + kSpecificBlockMarker + "||specific.example^\n"));
  EXPECT_EQ(Check("before.example", "/a.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("inside.example", "/a.gif", "gif"), VerdictAdServer);
  // Other markers leave the section as it was.
  EXPECT_EQ(Check("popup.example", "/a.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("third.example", "/a.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("again.example", "/a.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("specific.example", "/a.gif", "gif"), VerdictDomain);
  EXPECT_TRUE(engine_.IsDomainRuleHost("inside.example"));
  EXPECT_FALSE(engine_.IsDomainRuleHost("third.example"));
}

TEST_F(FilterLoading, SectionCarriesOverToTheNextLoad) {
  ASSERT_TRUE(LoadFilters(kAdServersMarker + "||first.example^\n"));
  ASSERT_TRUE(LoadFilters("||second.example^\n", "second.txt"));
  EXPECT_EQ(Check("second.example", "/a.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("first.example", "/a.gif", "gif"), VerdictNoMatch);
}

TEST_F(FilterLoading, LinesAreReadInLowerCase) {
  ASSERT_TRUE(LoadFilters(kAdServersMarker + "||ADS.Example.COM^\n/BANNER/\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("site.example", "/Banner/x.gif", "gif"), VerdictGeneric);
  EXPECT_TRUE(engine_.IsDomainRuleHost("ads.example.com"));
  // The host's own question is answered for the name exactly as given.
  EXPECT_FALSE(engine_.IsDomainRuleHost("ADS.example.com"));
  EXPECT_FALSE(engine_.IsDomainRuleHost(nullptr));
}

TEST_F(FilterLoading, CrLfLinesGiveTheSameRulesAsLf) {
  const std::string lines[] = {"||cdn.example.net/ads/x.gif|", "/banner.gif", "banner.png|",
                               "@@||ok.example.net^$image"};
  std::string lf;
  std::string crlf;
  for (const std::string& line : lines) {
    lf += line + "\n";
    crlf += line + "\r\n";
  }
  for (const std::string& text : {lf, crlf}) {
    ASSERT_TRUE(LoadFilters(text));
    EXPECT_EQ(Check("site.example", "/banner.gif", "gif"), VerdictGeneric) << text;
    EXPECT_EQ(Check("site.example", "/x/banner.png|", "gif"), VerdictGeneric) << text;
    EXPECT_EQ(Check("ok.example.net", "/banner.gif", "gif"), VerdictAllowed) << text;
  }
}

TEST_F(FilterLoading, ElementHidingIsIgnoredButItsExceptionFormIsAGenericRule) {
  ASSERT_TRUE(LoadFilters("example.com##.ad\nexample.com#@#.ad\n"));
  EXPECT_EQ(Check("site.example", "/x?example.com##.ad", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/x?example.com#@#.ad", "gif"), VerdictGeneric);
}

TEST_F(FilterLoading, GenericKeyEndsAtTheFirstStar) {
  ASSERT_TRUE(LoadFilters("ads*\n*\n/banner/*/img\n"));
  EXPECT_EQ(Check("site.example", "/xads.gif", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/banner/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/banner/1/img.gif", "gif"), VerdictGeneric);
  // The fragment after the star may come anywhere, even first.
  EXPECT_EQ(Check("site.example", "/img/x/banner/", "gif"), VerdictGeneric);
}

TEST_F(FilterLoading, EmptyTypeMaskDropsBlockingRulesButKeepsExceptions) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^$image,~image\n/banner/$image,~image\n"
                          "||other.example^\n@@||other.example^$image,~image\n"));
  EXPECT_EQ(Check("ads.example.com", "/banner/x.gif", "gif"), VerdictNoMatch);
  // The exception stays but passes no type check...
  EXPECT_EQ(Check("other.example", "/x.gif", "gif"), VerdictDomain);
  // ...unless the type check is skipped for a redirect.
  EXPECT_EQ(Check("other.example", "/x.gif", "gif", "", true), VerdictAllowed);
}

TEST_F(FilterLoading, FailedOpenKeepsThePreviousPath) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n"));
  const std::string missing = dir_ / "missing.txt";
  EXPECT_FALSE(engine_.SetFiltersFile(missing.c_str()));
  ASSERT_EQ(errors_.size(), 1u);
  EXPECT_EQ(errors_[0], "Failed to open filters file: " + missing);
  EXPECT_FALSE(engine_.SetFiltersFile(nullptr));
  // LoadFilters still reads the file set before.
  EXPECT_TRUE(engine_.LoadFilters());
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(FilterLoading, VanishedFileEmptiesTheTables) {
  ASSERT_TRUE(LoadFilters("! version=5\n||ads.example.com^\n"));
  std::filesystem::remove(dir_ / "filters.txt");
  EXPECT_FALSE(engine_.LoadFilters());
  ASSERT_EQ(errors_.size(), 1u);
  EXPECT_EQ(errors_[0], "Failed to open filters file: " + (dir_ / "filters.txt"));
  EXPECT_STREQ(engine_.GetVersion(), "0.0");
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictNoMatch);
}

TEST_F(FilterLoading, ReadErrorIsReported) {
  // A folder opens like a file here but cannot be read.
  const std::string folder = dir_ / "folder";
  std::filesystem::create_directories(folder);
  if (!engine_.SetFiltersFile(folder.c_str())) GTEST_SKIP() << "folders do not open as files here";
  EXPECT_FALSE(engine_.LoadFilters());
  ASSERT_EQ(errors_.size(), 1u);
  EXPECT_EQ(errors_[0], "Exception while reading filters file: " + folder);
}

TEST_F(FilterLoading, ClearRulesEmptiesTheFiltersOnly) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n/banner/\n"));
  ASSERT_TRUE(LoadApproved("@@||ok.example^\n"));
  engine_.ClearRules();
  EXPECT_EQ(Check("ads.example.com", "/banner/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("ok.example", "/x.gif", "gif"), VerdictAllowed);
}

TEST_F(FilterLoading, ReloadReplacesTheRules) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n/banner/\n@@/banner/ok\n"));
  ASSERT_TRUE(LoadFilters("||other.example^\n", "second.txt"));
  EXPECT_EQ(Check("ads.example.com", "/banner/ok.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("other.example", "/banner/ok.gif", "gif"), VerdictDomain);
}

TEST_F(FilterLoading, LastLineWithoutLineEndCounts) {
  ASSERT_TRUE(LoadFilters("/first/\n/last/"));
  EXPECT_EQ(Check("site.example", "/last/x.gif", "gif"), VerdictGeneric);
}

}  // namespace
