// CheckRequest: how the tables, the entry checks and their quirks decide.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

using Verdicts = EngineTest;

TEST_F(Verdicts, DomainTables) {
  std::string deep = "l0.com";
  for (int i = 1; i < 40; ++i) deep = "l" + std::to_string(i) + "." + deep;
  Expect({
      {"||example.com^\n" + kAdServers + "||ads.example.com^\n",
       {{"Sub.Ads.Example.COM", "/X.GIF", "GIF", VerdictAdServer},
        {"www.example.com", "/x.gif", "gif", VerdictDomain},
        {"badads.example.com", "/x.gif", "gif", VerdictDomain},
        {"example.com.evil.net", "/x.gif", "gif", VerdictNoMatch}}},
      // Names stop before a "co." second level; "^" needs the key's first
      // place in the host at its end.
      {"||example.co.uk^\n||co.uk^\n||example.com^\n||cdn.example.net\n||l0.com^\n",
       {{"www.example.co.uk", "/x.gif", "gif", VerdictDomain},
        {"shop.other.co.uk", "/x.gif", "gif", VerdictNoMatch},
        {"x.co.example.com", "/x.gif", "gif", VerdictNoMatch},
        {"x.cow.example.com", "/x.gif", "gif", VerdictDomain},
        {deep, "/x.gif", "gif", VerdictDomain},
        {"example.com", "/", "gif", VerdictDomain},
        {"example.com.example.com", "/x.gif", "gif", VerdictNoMatch},
        {"cdn.example.net.cdn.example.net", "/x.gif", "gif", VerdictDomain}}},
      // The path part is a fragment: a "*" in it makes two pieces, joined
      // by "+", that may come in either order; a "+" of the rule is text.
      {"||cdn.example.net/ads/\n||example.com/ads/*.js\n||example.org/a+b\n||example.info/ads^\n"
       "||example.biz^*/ads/*/x*\n||end.net^|\n||end.org^|$image\n",
       {{"cdn.example.net", "/ads/x.gif", "gif", VerdictDomain},
        {"cdn.example.net", "/img/x.gif", "gif", VerdictNoMatch},
        {"example.com", "/ads/x.js", "js", VerdictDomain},
        {"example.com", "/x.js?/ads/", "js", VerdictDomain},
        {"example.com", "/ads/x.gif", "js", VerdictNoMatch},
        {"example.org", "/a+b.gif", "gif", VerdictDomain},
        {"example.org", "/a/b.gif", "gif", VerdictNoMatch},
        {"example.info", "/ads/x.gif", "gif", VerdictNoMatch},  // "^" comes first: no path part
        {"example.biz", "/ads/1/x.gif", "gif", VerdictDomain},
        {"example.biz", "/x/ads/", "gif", VerdictNoMatch},
        // An end anchor wants the key's first place in the request at its end.
        {"end.net", "/|end.net", "gif", VerdictNoMatch},
        {"end.org", "/|", "gif", VerdictNoMatch}}},
  });
}

TEST_F(Verdicts, EntryChecks) {
  Expect({
      {"/banner/\n/flash/$object\n/frame/$subdocument\n/star/$document\n",
       {{"site.example", "/banner/a.gif", "gif", VerdictGeneric},
        {"site.example", "/banner/a.php", "php", VerdictNoMatch},
        {"site.example", "/flash/a.swf", "swf", VerdictGeneric},
        {"site.example", "/flash/a.xml", "xml", VerdictGeneric},
        {"site.example", "/flash/a.gif", "gif", VerdictNoMatch},
        {"site.example", "/frame/a.htm", "html", VerdictGeneric},
        {"site.example", "/star/a", "*", VerdictGeneric},  // a word like any other here
        {"site.example", "/star/a", "php", VerdictNoMatch}}},
      // Option order: "document" restores every type, a later domain list
      // replaces an earlier one but its "~" stays; "~domain=" is "domain=".
      {"/a/$image,~image\n/b/$~image,script\n/c/$image,document,script\n"
       "/d/$domain=~x.example,domain=y.example\n/e/$~domain=x.example\n",
       {{"s.example", "/a/", "gif", VerdictNoMatch},
        {"s.example", "/b/", "css", VerdictGeneric},
        {"s.example", "/b/", "gif", VerdictNoMatch},
        {"s.example", "/c/", "gif", VerdictNoMatch},
        {"s.example", "/c/", "js", VerdictGeneric},
        {"s.example", "/d/", "gif", VerdictNoMatch, "http://y.example/"},
        {"s.example", "/d/", "gif", VerdictGeneric, "http://x.example/"},
        {"s.example", "/e/", "gif", VerdictGeneric, "http://x.example/"},
        {"s.example", "/e/", "gif", VerdictNoMatch, "http://z.example/"}}},
      // "domain=" looks at the referer's names; one "~" negates the whole
      // list; ".etc" stands for no suffix at all.
      {"||ads.example.net^$domain=example.com\n/ad/$domain=a.example|~b.example\n"
       "/x/$domain=example.etc\n",
       {{"ads.example.net", "/x.gif", "gif", VerdictDomain},
        {"ads.example.net", "/x.gif", "gif", VerdictNoMatch, "http://other.org/page"},
        {"ads.example.net", "/x.gif", "gif", VerdictDomain, "/relative/page"},  // no names: no limit
        {"cdn.example", "/ad/x.gif", "gif", VerdictNoMatch, "http://a.example/"},
        {"cdn.example", "/ad/x.gif", "gif", VerdictNoMatch, "http://b.example/"},
        {"cdn.example", "/ad/x.gif", "gif", VerdictGeneric, "http://c.example/"},
        {"cdn.net", "/x/x.gif", "gif", VerdictGeneric, "http://example/"},
        {"cdn.net", "/x/x.gif", "gif", VerdictNoMatch, "http://example.com/"},
        {"cdn.net", "/x/x.gif", "gif", VerdictNoMatch, "http://example.etc/"}}},
      // The referer loses its "www."; "~third-party" wants a page of the same site.
      {"||ads.net^$third-party\n||cdn.net^$~third-party\n||w.net^$domain=www.site.example\n"
       "||v.net^$domain=site.example\n",
       {{"ads.net", "/x.gif", "gif", VerdictNoMatch},
        {"ads.net", "/x.gif", "gif", VerdictDomain, "http://news.example/"},
        {"img.ads.net", "/x.gif", "gif", VerdictNoMatch, "http://www.ads.net/"},
        {"cdn.net", "/x.gif", "gif", VerdictNoMatch},
        {"cdn.net", "/x.gif", "gif", VerdictNoMatch, "http://news.example/"},
        {"img.cdn.net", "/x.gif", "gif", VerdictDomain, "http://www.cdn.net/"},
        {"w.net", "/x.gif", "gif", VerdictNoMatch, "http://www.site.example/"},
        {"v.net", "/x.gif", "gif", VerdictDomain, "http://WWW.Site.Example/"}}},
      // The end anchor looks at the first occurrence only; a leading bar
      // anchors a generic rule to a host it can never be part of.
      {"banner.gif|$image\n|ads.example.org$image\n.ads.example.net/$image\n/\xe4/\n",
       {{"site.example", "/a/banner.gif|", "gif", VerdictGeneric},
        {"site.example", "/a/banner.gif|/b", "gif", VerdictNoMatch},
        {"site.example", "/banner.gif|/banner.gif|", "gif", VerdictNoMatch},
        {"cdn.ads.example.org", "/?|ads.example.org", "gif", VerdictNoMatch},
        {"ads.example.org", "/?|ads.example.org", "gif", VerdictNoMatch},
        {"cdn.ads.example.net", "/x.gif", "gif", VerdictGeneric},
        {"site.example", "/\xc4/x.gif", "gif", VerdictNoMatch}}},  // only ASCII letters are lowered
      // Generic keys end at the first "*"; keyless lines make no entry.
      {"ads*\n*\n$image\n/banner/*/img\nexample.com##.ad\nexample.com#@#.ad\n",
       {{"site.example", "/xads.gif", "gif", VerdictGeneric},
        {"site.example", "/banner/x.gif", "gif", VerdictNoMatch},
        {"site.example", "/banner/1/img.gif", "gif", VerdictGeneric},
        {"site.example", "/img/x/banner/", "gif", VerdictGeneric},
        {"site.example", "/x?example.com##.ad", "gif", VerdictNoMatch},
        {"site.example", "/x?example.com#@#.ad", "gif", VerdictGeneric}}},
  });
}

TEST_F(Verdicts, WildcardTablesLookOnlyAtTheHostPart) {
  const std::string label(300, 'a');  // no length limit
  Expect({
      {"||ad*.example.com^\n||banner*.gif\n||cdn*.org^\n||cacheserve.*\n",
       {{"ads.example.com", "/x.gif", "gif", VerdictDomain},
        {"adserver.example.com", "/x.gif", "gif", VerdictDomain},
        {"site.net", "/ads.example.com", "gif", VerdictNoMatch},
        {"ads.example.com.evil.net", "/x.gif", "gif", VerdictNoMatch},
        {"cdn.example.org", "/banner1.gif", "gif", VerdictDomain},  // the walk goes on after a skip
        {"img.cacheserve.example", "/x", "gif", VerdictDomain},
        {"site.net", "/cacheserve.x", "gif", VerdictNoMatch}}},
      {"@@:*x.example\n@@cdn.example*gif\nbanner\n",
       {{"x.example", "/banner.gif", "gif", VerdictGeneric},  // found from the ":" before the host
        {"cdn.example.com", "/banner.gif", "gif", VerdictGeneric},
        {"cdn.example.gif", "/banner.gif", "gif", VerdictAllowed}}},
      // "www." keys need no dot in front.
      {"||www.ad*.net^\n||ad*.com^\n",
       {{"xwww.adserver.net", "/x.gif", "gif", VerdictDomain},
        {"xadserver.com", "/x.gif", "gif", VerdictNoMatch},
        {"x.adserver.com", "/x.gif", "gif", VerdictDomain}}},
      {"||" + label + "*.example^\n/x/*" + label + "*/y\n",
       {{label + "b.example", "/z.gif", "gif", VerdictDomain},
        {"site.example", "/x/" + label + "/y.gif", "gif", VerdictGeneric},
        {"site.example", "/x/" + label.substr(1) + "/y.gif", "gif", VerdictNoMatch}}},
  });
}

// Entries without a key sit under "" in the exact tables and are checked as
// exceptions; a host-anchored one reaches for the key's first letter.
TEST_F(Verdicts, KeylessEntries) {
  Expect({
      {"||^x$script\n/banner/\n",
       {{"site.example", "/banner/x.php", "php", VerdictNoMatch},
        {"site.example", "/banner/x.gif", "gif", VerdictGeneric},
        {"site.example", "/banner/x.js", "js", Failed}}},
      // The first in the file decides.
      {"@@/ok/\n@@||^\n/banner/\n",
       {{"site.example", "/ok/banner/x.gif", "gif", VerdictAllowed},
        {"site.example", "/banner/x.gif", "gif", Failed}}},
      {"@@||^\n@@/ok/\n/banner/\n", {{"site.example", "/ok/banner/x.gif", "gif", Failed}}},
      {"/banner/\n@@/banner/ok.gif$image\n@@/ads/*.js\n@@/x/*y*z\n",
       {{"site.example", "/banner/ok.gif", "gif", VerdictAllowed},
        {"site.example", "/banner/ok.gif", "css", VerdictGeneric},
        {"site.example", "/banner/ads/a.js", "js", VerdictAllowed},
        {"site.example", "/banner/a.js?/ads/", "js", VerdictAllowed},
        {"site.example", "/banner/a.gif?/ads/", "js", VerdictGeneric},
        {"site.example", "/banner/y1z/x/", "gif", VerdictAllowed},
        {"site.example", "/banner/z/y/x/", "gif", VerdictGeneric}}},
      // "^" wants the empty key at the end of the host: only an empty host has it.
      {"/a\n@@^*x*y\n@@^+x*q\n@@||^$script\n",
       {{"site.example", "/axby", "gif", VerdictGeneric},
        {"", "/axby", "gif", VerdictAllowed},
        {"", "/ayx", "gif", VerdictGeneric},
        {"", "/ax+q", "gif", VerdictAllowed},
        {"", "/a.js", "js", VerdictAllowed}}},
  });
  Renew();
  ASSERT_TRUE(LoadFilters("||/ads\n/banner/\n"));
  EXPECT_EQ(Check("Site.Example", "/Banner/x.gif", "gif"), Failed);
  EXPECT_EQ(errors_,
            std::vector<std::string>{"Exception while evaluating request: site.example/banner/x.gif"});
}

TEST_F(Verdicts, Exceptions) {
  Expect({
      // A redirect's check skips the exception type test, which keeps even
      // exceptions of no type.
      {"/banner/\n@@||site.example^\n@@||other.example^$script\n@@||none.example^$image,~image\n",
       {{"site.example", "/banner/x", "flash", VerdictAllowed},
        {"other.example", "/banner/x.gif", "gif", VerdictGeneric},
        {"other.example", "/banner/x.gif", "gif", VerdictAllowed, "", true},
        {"none.example", "/banner/x.gif", "gif", VerdictGeneric},
        {"none.example", "/banner/x.gif", "gif", VerdictAllowed, "", true}}},
      // Off its domain list, an exception still passes the referer's own site.
      {"||cdn.net^\n@@||cdn.net^$domain=a.example\n",
       {{"cdn.net", "/x.gif", "gif", VerdictAllowed, "http://a.example/"},
        {"cdn.net", "/x.gif", "gif", VerdictDomain, "http://b.example/"},
        {"img.cdn.net", "/x.gif", "gif", VerdictAllowed, "http://cdn.net/"}}},
  });
}

TEST_F(Verdicts, ApprovedListComesFirstAndIsReplacedOnItsOwn) {
  ASSERT_TRUE(LoadFilters(kAdServers + "||ads.example.com^\n/ads/\n@@||ok.example^\n"));
  ASSERT_TRUE(LoadApproved("@@||ads.example.com^$domain=example.com\r\n@@/ads/ok.js\n"
                           "@@||cdn*.example.net^\n||site.org^\n! @@||site.org^\n"));
  Expect({{"sub.ads.example.com", "/x.gif", "gif", VerdictAllowed},
          {"ads.example.com", "/x.gif", "gif", VerdictAllowed, "http://www.example.com/"},
          {"ads.example.com", "/x.gif", "gif", VerdictAdServer, "http://other.org/"},
          {"site.org", "/ads/ok.js", "js", VerdictAllowed},
          {"site.org", "/ads/no.js", "js", VerdictGeneric},
          {"cdn7.example.net", "/ads/x.js", "js", VerdictAllowed}});
  // A failing approved entry ends the check before the filters' exception.
  ASSERT_TRUE(LoadApproved("@@||/x\n"));
  Expect({{"ok.example", "/x.gif", "gif", Failed}});
  // A reload replaces the whole approved list; the filters come and go on their own.
  ASSERT_TRUE(LoadApproved("@@||site.org^\n"));
  Expect({{"sub.ads.example.com", "/x.gif", "gif", VerdictAdServer},
          {"site.org", "/ads/x.gif", "gif", VerdictAllowed}});
  ASSERT_TRUE(LoadFilters("/ads/\n", "second.txt"));
  Expect({{"site.org", "/ads/x.gif", "gif", VerdictAllowed},
          {"other.org", "/ads/x.gif", "gif", VerdictGeneric}});
  engine_->ClearRules();
  Expect({{"site.org", "/ads/x.gif", "gif", VerdictAllowed},
          {"ads.example.com", "/ads/x.gif", "gif", VerdictNoMatch}});
  // A list that is gone, or never was, approves nothing.
  EXPECT_TRUE(engine_->LoadUserApprovedList((dir_ / "none.txt").c_str()));
  EXPECT_TRUE(engine_->LoadUserApprovedList(nullptr));
  ASSERT_TRUE(engine_->LoadFilters());
  Expect({{"site.org", "/ads/x.gif", "gif", VerdictGeneric}});
}

TEST_F(Verdicts, SectionsAndVersion) {
  ASSERT_TRUE(LoadFilters(
      "[Adblock Plus 2.0]\n! version= 2011 11\t17 \n||before.example^\n" + kAdServers +
      "||inside.example^\n||ADS.Example.COM^\n"
      "! *** easylist:easylist/easylist_adservers_popup.txt ***\n||popup.example^\n" + kThirdParty +
      "||third.example^\n! x/easylist_adservers.txt version=9\n||again.example^\n"
      "! *** easylist:easylist/easylist_specific_block.txt ***\n||specific.example^\n" + kAdServers +
      "||last.example^"));
  EXPECT_EQ(engine_->GetVersion(), "20111117");
  Expect({{"before.example", "/a.gif", "gif", VerdictDomain},
          {"inside.example", "/a.gif", "gif", VerdictAdServer},
          {"popup.example", "/a.gif", "gif", VerdictAdServer},
          {"third.example", "/a.gif", "gif", VerdictDomain},
          {"again.example", "/a.gif", "gif", VerdictAdServer},
          {"specific.example", "/a.gif", "gif", VerdictDomain},
          {"last.example", "/a.gif", "gif", VerdictAdServer}});
  EXPECT_TRUE(engine_->IsDomainRuleHost("ads.example.com"));
  EXPECT_FALSE(engine_->IsDomainRuleHost("ADS.example.com"));  // exactly as given
  EXPECT_FALSE(engine_->IsDomainRuleHost("third.example"));
  EXPECT_FALSE(engine_->IsDomainRuleHost(nullptr));
  // The section carries over to the next load; the version starts over and
  // takes the text after the line's first "=".
  ASSERT_TRUE(LoadFilters("! build=7 version=3\n||next.example^\n", "second.txt"));
  EXPECT_EQ(engine_->GetVersion(), "7version=3");
  Expect({{"next.example", "/a.gif", "gif", VerdictAdServer},
          {"inside.example", "/a.gif", "gif", VerdictNoMatch}});
  ASSERT_TRUE(LoadFilters("! Version: 202608130520\n", "third.txt"));
  EXPECT_EQ(engine_->GetVersion(), "0.0");
  // The version field holds 259 characters.
  ASSERT_TRUE(LoadFilters("! version=" + std::string(300, '7') + "\n", "fourth.txt"));
  EXPECT_EQ(engine_->GetVersion(), std::string(259, '7'));
}

TEST_F(Verdicts, CrLfLinesGiveTheSameRulesAsLf) {
  const std::vector<Probe> probes = {{"site.example", "/banner.gif", "gif", VerdictGeneric},
                                     {"site.example", "/x/banner.png|", "gif", VerdictGeneric},
                                     {"ok.example.net", "/banner.gif", "gif", VerdictAllowed}};
  Expect({{"/banner.gif\nbanner.png|\n@@||ok.example.net^$image\n", probes},
          {"/banner.gif\r\nbanner.png|\r\n@@||ok.example.net^$image\r\n", probes}});
}

TEST_F(Verdicts, FilesThatCannotBeReadLeaveTheListsInUse) {
  ASSERT_TRUE(LoadFilters("! version=5\n||ads.example.com^\n/banner/\n"));
  ASSERT_TRUE(LoadApproved("@@||site.example^\n"));
  const std::vector<Probe> inUse = {{"ads.example.com", "/x.gif", "gif", VerdictDomain},
                                    {"site.example", "/banner/x.gif", "gif", VerdictAllowed}};
  const std::string missing = dir_ / "missing.txt";
  EXPECT_FALSE(engine_->SetFiltersFile(missing.c_str()));
  EXPECT_FALSE(engine_->SetFiltersFile(nullptr));
  // The file set before stays; once it is gone, loading fails and the rules
  // loaded before stay in use.
  ASSERT_TRUE(engine_->LoadFilters());
  Expect(inUse);
  std::filesystem::remove(dir_ / "filters.txt");
  EXPECT_FALSE(engine_->LoadFilters());
  EXPECT_FALSE(engine_->LoadLists(missing.c_str(), (dir_ / "vexilowl.txt").c_str()));
  EXPECT_EQ(engine_->GetVersion(), "5");
  Expect(inUse);
  std::vector<std::string> expected = {"Failed to open filters file: " + missing,
                                       "Failed to open filters file: " + (dir_ / "filters.txt"),
                                       "Failed to open filters file: " + missing};
  // A folder opens like a file here but cannot be read.
  const std::string folder = dir_ / "folder";
  std::filesystem::create_directories(folder);
  if (engine_->SetFiltersFile(folder.c_str())) {
    EXPECT_FALSE(engine_->LoadFilters());
    EXPECT_FALSE(engine_->LoadUserApprovedList(folder.c_str()));
    expected.push_back("Exception while reading filters file: " + folder);
    expected.push_back("Exception while reading user approved list: " + folder);
  }
  EXPECT_EQ(engine_->GetVersion(), "5");
  Expect(inUse);
  EXPECT_EQ(errors_, expected);
}

}  // namespace
