// CheckRequest: how the tables, the entry checks and their quirks decide.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

using DomainRules = EngineTest;
using EntryChecks = EngineTest;
using WildcardTables = EngineTest;
using KeylessEntries = EngineTest;
using ExceptionRules = EngineTest;

TEST_F(DomainRules, AdServerRuleCoversTheHostAndItsSubdomainsOnly) {
  ASSERT_TRUE(LoadFilters(kAdServersMarker + "||ads.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("sub.ads.example.com", "/x.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("badads.example.com", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("ads.example.com.evil.net", "/x.gif", "gif"), VerdictNoMatch);
  // Host and path arrive in any case.
  EXPECT_EQ(Check("Ads.Example.COM", "/X.GIF", "GIF"), VerdictAdServer);
}

TEST_F(DomainRules, OutsideTheAdServerSection) {
  ASSERT_TRUE(LoadFilters("||ads.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("a.b.ads.example.com", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(DomainRules, AdServerTablesComeFirst) {
  ASSERT_TRUE(LoadFilters("||example.com^\n" + kAdServersMarker + "||ads.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAdServer);
  EXPECT_EQ(Check("www.example.com", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(DomainRules, NamesStopBeforeACoSecondLevel) {
  ASSERT_TRUE(LoadFilters("||example.co.uk^\n||co.uk^\n||example.com^\n"));
  EXPECT_EQ(Check("www.example.co.uk", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("shop.other.co.uk", "/x.gif", "gif"), VerdictNoMatch);
  // The parents of "x.co.example.com" are never listed, so neither is
  // "example.com".
  EXPECT_EQ(Check("x.co.example.com", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("x.cow.example.com", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(DomainRules, SeparatorNeedsTheKeysFirstPlaceInTheHostAtItsEnd) {
  ASSERT_TRUE(LoadFilters("||example.com^\n||cdn.example.net\n"));
  EXPECT_EQ(Check("example.com", "/", "gif"), VerdictDomain);
  // The first "example.com" in the host is not at its end.
  EXPECT_EQ(Check("example.com.example.com", "/x.gif", "gif"), VerdictNoMatch);
  // Without a separator the same host shape is fine.
  EXPECT_EQ(Check("cdn.example.net.cdn.example.net", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(DomainRules, PathPartIsAFragment) {
  ASSERT_TRUE(LoadFilters("||cdn.example.net/ads/\n||example.com/ads/*.js\n||example.org/a+b\n"));
  EXPECT_EQ(Check("cdn.example.net", "/ads/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("cdn.example.net", "/img/x.gif", "gif"), VerdictNoMatch);
  // Both pieces must occur, in either order.
  EXPECT_EQ(Check("example.com", "/ads/x.js", "js"), VerdictDomain);
  EXPECT_EQ(Check("example.com", "/x.js?/ads/", "js"), VerdictDomain);
  EXPECT_EQ(Check("example.com", "/ads/x.gif", "js"), VerdictNoMatch);
  // A "+" of the rule itself splits its path the same way.
  EXPECT_EQ(Check("example.org", "/a+b.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("example.org", "/a/b.gif", "gif"), VerdictNoMatch);
}

TEST_F(EntryChecks, TypeWordsInBlockingMode) {
  ASSERT_TRUE(LoadFilters("/banner/\n/flash/$object\n/frame/$subdocument\n/star/$document\n"));
  EXPECT_EQ(Check("site.example", "/banner/a.gif", "gif"), VerdictGeneric);
  // Words of no type match no blocking rule.
  EXPECT_EQ(Check("site.example", "/banner/a.php", "php"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/banner/a", "flash"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/flash/a.swf", "swf"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/flash/a.xml", "xml"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/flash/a.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/frame/a.htm", "html"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/frame/a.js", "js"), VerdictNoMatch);
  // The document row's "*" is a word like any other here.
  EXPECT_EQ(Check("site.example", "/star/a", "*"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/star/a", "php"), VerdictNoMatch);
}

TEST_F(EntryChecks, DomainOptionWithoutRefererAppliesEverywhere) {
  ASSERT_TRUE(LoadFilters("||ads.example.net^$domain=example.com\n"));
  EXPECT_EQ(Check("ads.example.net", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("ads.example.net", "/x.gif", "gif", "http://www.example.com/page"), VerdictDomain);
  EXPECT_EQ(Check("ads.example.net", "/x.gif", "gif", "http://a.b.example.com/page"), VerdictDomain);
  EXPECT_EQ(Check("ads.example.net", "/x.gif", "gif", "http://other.org/page"), VerdictNoMatch);
  // A referer that is no absolute URL has no names: no restriction.
  EXPECT_EQ(Check("ads.example.net", "/x.gif", "gif", "/relative/page"), VerdictDomain);
}

TEST_F(EntryChecks, NegatedDomainListExcludesEveryListedName) {
  ASSERT_TRUE(LoadFilters("/ad/$domain=a.example|~b.example\n"));
  EXPECT_EQ(Check("cdn.example", "/ad/x.gif", "gif", "http://a.example/"), VerdictNoMatch);
  EXPECT_EQ(Check("cdn.example", "/ad/x.gif", "gif", "http://b.example/"), VerdictNoMatch);
  EXPECT_EQ(Check("cdn.example", "/ad/x.gif", "gif", "http://c.example/"), VerdictGeneric);
}

TEST_F(EntryChecks, EtcNamesLoseTheirSuffix) {
  ASSERT_TRUE(LoadFilters("/ad/$domain=example.etc\n"));
  EXPECT_EQ(Check("cdn.net", "/ad/x.gif", "gif", "http://example/"), VerdictGeneric);
  EXPECT_EQ(Check("cdn.net", "/ad/x.gif", "gif", "http://example.com/"), VerdictNoMatch);
  EXPECT_EQ(Check("cdn.net", "/ad/x.gif", "gif", "http://example.etc/"), VerdictNoMatch);
}

TEST_F(EntryChecks, ThirdParty) {
  ASSERT_TRUE(LoadFilters("||ads.net^$third-party\n||cdn.net^$~third-party\n"));
  EXPECT_EQ(Check("ads.net", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("ads.net", "/x.gif", "gif", "http://news.example/"), VerdictDomain);
  EXPECT_EQ(Check("img.ads.net", "/x.gif", "gif", "http://www.ads.net/"), VerdictNoMatch);
  // A "~third-party" rule wants a page of the same site.
  EXPECT_EQ(Check("cdn.net", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("cdn.net", "/x.gif", "gif", "http://news.example/"), VerdictNoMatch);
  EXPECT_EQ(Check("img.cdn.net", "/x.gif", "gif", "http://www.cdn.net/"), VerdictDomain);
}

TEST_F(EntryChecks, RefererLosesItsWwwBeforeItsNamesAreListed) {
  ASSERT_TRUE(LoadFilters("||ads.net^$domain=www.site.example\n||cdn.net^$domain=site.example\n"));
  EXPECT_EQ(Check("ads.net", "/x.gif", "gif", "http://www.site.example/"), VerdictNoMatch);
  EXPECT_EQ(Check("cdn.net", "/x.gif", "gif", "http://WWW.Site.Example/"), VerdictDomain);
}

TEST_F(EntryChecks, EndAnchorUsesTheFirstOccurrence) {
  ASSERT_TRUE(LoadFilters("banner.gif|$image\n"));
  EXPECT_EQ(Check("site.example", "/a/banner.gif|", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/a/banner.gif|/b", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/banner.gif|/banner.gif|", "gif"), VerdictNoMatch);
}

TEST_F(EntryChecks, HostAnchoredGenericRule) {
  // The key, bar included, has to be the host or sit in it after a dot,
  // which a key starting with "|" never does.
  ASSERT_TRUE(LoadFilters("|ads.example.org$image\n"));
  EXPECT_EQ(Check("cdn.ads.example.org", "/?|ads.example.org", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("ads.example.org", "/?|ads.example.org", "gif"), VerdictNoMatch);
  // Without the bar the same text is an ordinary generic rule.
  ASSERT_TRUE(LoadFilters(".ads.example.org/$image\n", "second.txt"));
  EXPECT_EQ(Check("cdn.ads.example.org", "/x.gif", "gif"), VerdictGeneric);
}

TEST_F(WildcardTables, GlobMustLieInTheHostPart) {
  ASSERT_TRUE(LoadFilters("||ad*.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("adserver.example.com", "/x.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("site.org", "/ads.example.com", "gif"), VerdictNoMatch);
  // Inside the host, but the separator wants it at the end.
  EXPECT_EQ(Check("ads.example.com.evil.net", "/x.gif", "gif"), VerdictNoMatch);
}

TEST_F(WildcardTables, EntriesMatchingOutsideTheHostAreSkippedNotFinal) {
  // The first entry's glob is found in the path; the walk goes on to the
  // second, which matches in the host.
  ASSERT_TRUE(LoadFilters("||banner*.gif\n||cdn*.com^\n"));
  EXPECT_EQ(Check("cdn.example.com", "/banner1.gif", "gif"), VerdictDomain);
}

TEST_F(WildcardTables, GlobStartingBeforeTheHostIsSkipped) {
  ASSERT_TRUE(LoadFilters("@@:*x.example\nbanner\n"));
  // The glob is found from the ":" in front of the host.
  EXPECT_EQ(Check("x.example", "/banner.gif", "gif"), VerdictGeneric);
}

TEST_F(WildcardTables, GlobEndingAfterTheHostIsSkipped) {
  ASSERT_TRUE(LoadFilters("@@cdn.example*gif\nbanner\n"));
  EXPECT_EQ(Check("cdn.example.com", "/banner.gif", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("cdn.example.gif", "/banner.gif", "gif"), VerdictAllowed);
}

TEST_F(WildcardTables, WwwKeysNeedNoDotInFront) {
  ASSERT_TRUE(LoadFilters("||www.ad*.net^\n"));
  EXPECT_EQ(Check("xwww.adserver.net", "/x.gif", "gif"), VerdictDomain);
  ASSERT_TRUE(LoadFilters("||ad*.net^\n", "second.txt"));
  EXPECT_EQ(Check("xadserver.net", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(Check("x.adserver.net", "/x.gif", "gif"), VerdictDomain);
}

TEST_F(WildcardTables, LongPatternsAreMatchedLikeShortOnes) {
  const std::string label(300, 'a');
  ASSERT_TRUE(LoadFilters("||" + label + "*.example^\n/x/*" + label + "*/y\n"));
  EXPECT_EQ(Check(label + "b.example", "/z.gif", "gif"), VerdictDomain);
  EXPECT_EQ(Check("site.example", "/x/" + label + "/y.gif", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/x/" + label.substr(1) + "/y.gif", "gif"), VerdictNoMatch);
}

TEST_F(KeylessEntries, HostAnchoredDomainEntryEndsTheCheckWithAnErrorLine) {
  ASSERT_TRUE(LoadFilters("||/ads\n/banner/\n"));
  EXPECT_EQ(Check("Site.Example", "/Banner/x.gif", "gif"), VerdictNoMatch);
  ASSERT_EQ(errors_.size(), 1u);
  EXPECT_EQ(errors_[0], "Exception while evaluating request: site.example/banner/x.gif");
}

TEST_F(KeylessEntries, DomainEntryIsTypeCheckedAsAnException) {
  ASSERT_TRUE(LoadFilters("||^x$script\n/banner/\n"));
  // "php" has no type, and the entry is not for every type: it never gets
  // as far as its missing host name.
  EXPECT_EQ(Check("site.example", "/banner/x.php", "php"), VerdictNoMatch);
  EXPECT_EQ(Check("site.example", "/banner/x.gif", "gif"), VerdictGeneric);
  EXPECT_TRUE(errors_.empty());
  EXPECT_EQ(Check("site.example", "/banner/x.js", "js"), VerdictNoMatch);
  EXPECT_EQ(errors_.size(), 1u);
}

TEST_F(KeylessEntries, FirstInTheFileDecides) {
  ASSERT_TRUE(LoadFilters("@@/ok/\n@@||^\n/banner/\n"));
  EXPECT_EQ(Check("site.example", "/ok/banner/x.gif", "gif"), VerdictAllowed);
  EXPECT_TRUE(errors_.empty());
  EXPECT_EQ(Check("site.example", "/banner/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(errors_.size(), 1u);

  ASSERT_TRUE(LoadFilters("@@||^\n@@/ok/\n/banner/\n", "second.txt"));
  EXPECT_EQ(Check("site.example", "/ok/banner/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(errors_.size(), 2u);
}

TEST_F(KeylessEntries, ExceptionWithoutHostMatchesByItsPath) {
  ASSERT_TRUE(LoadFilters("/banner/\n@@/banner/ok.gif$image\n"));
  EXPECT_EQ(Check("site.example", "/banner/ok.gif", "gif"), VerdictAllowed);
  // The exception is for images only.
  EXPECT_EQ(Check("site.example", "/banner/ok.gif", "css"), VerdictGeneric);
  EXPECT_EQ(Check("site.example", "/banner/no.gif", "gif"), VerdictGeneric);
}

TEST_F(KeylessEntries, WildcardPathPiecesMayComeInAnyOrder) {
  ASSERT_TRUE(LoadFilters("/banner/\n@@/ads/*.js\n@@/x/*y*z\n"));
  EXPECT_EQ(Check("site.example", "/banner/ads/a.js", "js"), VerdictAllowed);
  EXPECT_EQ(Check("site.example", "/banner/a.js?/ads/", "js"), VerdictAllowed);
  EXPECT_EQ(Check("site.example", "/banner/a.gif?/ads/", "js"), VerdictGeneric);
  // "/x/" anywhere, and "y" followed later by "z".
  EXPECT_EQ(Check("site.example", "/banner/y1z/x/", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("site.example", "/banner/z/y/x/", "gif"), VerdictGeneric);
}

TEST_F(KeylessEntries, SeparatorEntriesMatchOnlyRequestsWithoutAHost) {
  // "^" wants the empty key at the end of the host: only an empty host has it.
  ASSERT_TRUE(LoadFilters("/a\n@@^*x*y\n@@^+x*q\n@@||^$script\n"));
  EXPECT_EQ(Check("site.example", "/axby", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("", "/axby", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("", "/ayx", "gif"), VerdictGeneric);
  EXPECT_EQ(Check("", "/ax+q", "gif"), VerdictAllowed);
  // With no host the anchored entry finds its empty key equal to the host.
  EXPECT_EQ(Check("", "/a.js", "js"), VerdictAllowed);
  EXPECT_TRUE(errors_.empty());
}

TEST_F(ExceptionRules, UnrestrictedExceptionMatchesEveryWord) {
  ASSERT_TRUE(LoadFilters("/banner/\n@@||site.example^\n@@||other.example^$script\n"));
  EXPECT_EQ(Check("site.example", "/banner/x.gif", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("site.example", "/banner/x", "flash"), VerdictAllowed);
  EXPECT_EQ(Check("other.example", "/banner/x.gif", "gif"), VerdictGeneric);
  // The redirect check skips the exception's type test.
  EXPECT_EQ(Check("other.example", "/banner/x.gif", "gif", "", true), VerdictAllowed);
}

TEST_F(ExceptionRules, DomainRestrictedExceptionAlsoPassesTheReferersOwnSite) {
  ASSERT_TRUE(LoadFilters("||cdn.net^\n@@||cdn.net^$domain=a.example\n"));
  EXPECT_EQ(Check("cdn.net", "/x.gif", "gif", "http://a.example/"), VerdictAllowed);
  EXPECT_EQ(Check("cdn.net", "/x.gif", "gif", "http://b.example/"), VerdictDomain);
  // Not on the list, but the request stays on the referring site.
  EXPECT_EQ(Check("img.cdn.net", "/x.gif", "gif", "http://cdn.net/"), VerdictAllowed);
}

TEST_F(ExceptionRules, ApprovedListComesFirst) {
  ASSERT_TRUE(LoadFilters(kAdServersMarker + "||ads.example.com^\n"));
  ASSERT_TRUE(LoadApproved("@@||ads.example.com^\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictAllowed);
  EXPECT_EQ(Check("sub.ads.example.com", "/x.gif", "gif"), VerdictAllowed);
  // An approved entry that ends the check wins over the filters as well.
  ASSERT_TRUE(LoadFilters("@@||ads.example.com^\n", "second.txt"));
  ASSERT_TRUE(LoadApproved("@@||/x\n"));
  EXPECT_EQ(Check("ads.example.com", "/x.gif", "gif"), VerdictNoMatch);
  EXPECT_EQ(errors_.size(), 1u);
}

}  // namespace
