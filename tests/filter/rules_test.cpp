// Lines -> rule entries: options in their order, keys, fragments and the
// table each line lands in.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filter/rules.h"

namespace {

using vxfilter::RuleOptions;
using vxfilter::TableId;

std::uint16_t MaskOf(const std::string& options) {
  RuleOptions o;
  vxfilter::ParseOptions(options, o);
  return o.typeMask;
}

TEST(RuleOptionsParsing, TypeOptionsDependOnTheirOrder) {
  EXPECT_EQ(MaskOf("image,script"), 3);
  EXPECT_EQ(MaskOf("~image"), 62);
  EXPECT_EQ(MaskOf("object"), 12);
  EXPECT_EQ(MaskOf("object-subrequest"), 12);
  EXPECT_EQ(MaskOf("~object-subrequest"), 51);
  EXPECT_EQ(MaskOf("document"), 63);
  EXPECT_EQ(MaskOf("~document"), 63);
  EXPECT_EQ(MaskOf("image,~image"), 0);
  EXPECT_EQ(MaskOf("script,~image"), 2);
  EXPECT_EQ(MaskOf("~image,script"), 62);
  EXPECT_EQ(MaskOf("subdocument,stylesheet"), 48);
  // "document" restores every type, so the next positive type starts over.
  EXPECT_EQ(MaskOf("image,document,script"), 2);
}

TEST(RuleOptionsParsing, UnknownAndEmptyPiecesChangeNothing) {
  EXPECT_EQ(MaskOf(",,image,,popup,elemhide,"), 1);
  EXPECT_EQ(MaskOf("popup"), 63);
  EXPECT_EQ(MaskOf("IMAGE"), 63);  // lines arrive lower-cased; this is no option name
  EXPECT_EQ(MaskOf("~~image"), 63);
}

TEST(RuleOptionsParsing, ThirdParty) {
  RuleOptions o;
  vxfilter::ParseOptions("third-party", o);
  EXPECT_TRUE(o.thirdParty);
  EXPECT_FALSE(o.notThirdParty);
  RuleOptions negated;
  vxfilter::ParseOptions("~third-party", negated);
  EXPECT_TRUE(negated.thirdParty);
  EXPECT_TRUE(negated.notThirdParty);
}

TEST(RuleOptionsParsing, DomainList) {
  RuleOptions o;
  vxfilter::ParseOptions("domain=a.example|~b.example|c.etc", o);
  ASSERT_EQ(o.domains.size(), 3u);
  EXPECT_EQ(o.domains[0], "a.example");
  EXPECT_EQ(o.domains[1], "b.example");
  EXPECT_EQ(o.domains[2], "c.etc");
  EXPECT_TRUE(o.domainsNegated);

  // A later list replaces the earlier one; the negation flag stays.
  vxfilter::ParseOptions("domain=d.example", o);
  ASSERT_EQ(o.domains.size(), 1u);
  EXPECT_EQ(o.domains[0], "d.example");
  EXPECT_TRUE(o.domainsNegated);

  RuleOptions tilde;
  vxfilter::ParseOptions("~domain=a.example", tilde);
  ASSERT_EQ(tilde.domains.size(), 1u);
  EXPECT_FALSE(tilde.domainsNegated);
}

struct Captured {
  TableId table;
  std::string key;
  RuleOptions options;
};

class ParsedLines {
 public:
  ParsedLines() : parser_(&Sink, this) {}
  std::vector<Captured> Filters(const std::vector<std::string>& lines) {
    entries_.clear();
    bool section = false;
    std::string version;
    for (const std::string& line : lines) parser_.ReadFiltersLine(line, section, version);
    return entries_;
  }

 private:
  static void Sink(void* context, const vxfilter::RuleEntry& e) {
    static_cast<ParsedLines*>(context)->entries_.push_back(Captured{e.table, std::string(e.key), *e.options});
  }
  vxfilter::RuleParser parser_;
  std::vector<Captured> entries_;
};

Captured One(const std::string& line) {
  ParsedLines p;
  std::vector<Captured> all = p.Filters({line});
  EXPECT_EQ(all.size(), 1u) << line;
  return all.empty() ? Captured{} : all[0];
}

TEST(RuleKeys, DomainRuleWithOptions) {
  const Captured c = One("||ads.example.com^$third-party");
  EXPECT_EQ(c.table, vxfilter::kOtherExact);
  EXPECT_EQ(c.key, "ads.example.com");
  EXPECT_TRUE(c.options.hostAnchored);
  EXPECT_TRUE(c.options.hasSeparator);
  EXPECT_TRUE(c.options.thirdParty);
  EXPECT_EQ(c.options.fragments, "");
}

TEST(RuleKeys, PathBecomesTheFragments) {
  const Captured c = One("||cdn.example.net/ads/");
  EXPECT_EQ(c.key, "cdn.example.net");
  EXPECT_EQ(c.options.fragments, "/ads/");
  EXPECT_FALSE(c.options.hasSeparator);
  EXPECT_FALSE(c.options.hasWildcard);
}

TEST(RuleKeys, SeparatorIsLookedForBeforeTheSlash) {
  const Captured c = One("||example.com/ads^");
  EXPECT_EQ(c.key, "example.com/ads");
  EXPECT_EQ(c.options.fragments, "");
  EXPECT_TRUE(c.options.hasSeparator);
}

TEST(RuleKeys, WildcardInThePathJoinsTheFragmentsWithAPlus) {
  const Captured c = One("@@||example.com/ads/*.js");
  EXPECT_EQ(c.table, vxfilter::kFiltersExceptionExact);
  EXPECT_EQ(c.key, "example.com");
  EXPECT_TRUE(c.options.hasWildcard);
  EXPECT_EQ(c.options.fragments, "/ads/+.js");
  EXPECT_EQ(One("||example.com/a/*/b*").options.fragments, "/a/+/b");
  // A path that starts with a star keeps the rest of its stars.
  EXPECT_EQ(One("||example.com^*/ads/*/x*").options.fragments, "/ads/*/x");
}

TEST(RuleKeys, WildcardKeysGoToTheWildcardTables) {
  EXPECT_EQ(One("||ad*.example.org^").table, vxfilter::kOtherWildcard);
  EXPECT_EQ(One("||ad*.example.org^").key, "ad*.example.org");
  // A trailing star is cut, but the entry still belongs to the wildcard table.
  const Captured trailing = One("||cacheserve.*");
  EXPECT_EQ(trailing.table, vxfilter::kOtherWildcard);
  EXPECT_EQ(trailing.key, "cacheserve.");
  EXPECT_EQ(One("@@||cdn*.example.net^").table, vxfilter::kFiltersExceptionWildcard);
}

TEST(RuleKeys, KeylessException) {
  const Captured c = One("@@/banner/ok.gif$image");
  EXPECT_EQ(c.table, vxfilter::kFiltersExceptionExact);
  EXPECT_EQ(c.key, "");
  EXPECT_FALSE(c.options.hostAnchored);
  EXPECT_EQ(c.options.typeMask, 1);
  EXPECT_EQ(c.options.fragments, "/banner/ok.gif");
}

TEST(RuleKeys, GenericRules) {
  const Captured c = One("/banner/*/img");
  EXPECT_EQ(c.table, vxfilter::kGenericTable);
  EXPECT_EQ(c.key, "/banner/");
  EXPECT_TRUE(c.options.hasWildcard);
  EXPECT_EQ(c.options.fragments, "/img");
  EXPECT_EQ(One("&ad_box_").key, "&ad_box_");
  // "|" and "^" are plain text in a generic rule; a leading bar anchors it.
  const Captured anchored = One("|http://ads.^x|");
  EXPECT_EQ(anchored.key, "|http://ads.^x|");
  EXPECT_TRUE(anchored.options.hostAnchored);
  EXPECT_TRUE(anchored.options.endAnchored);
  EXPECT_FALSE(anchored.options.hasSeparator);
  EXPECT_EQ(One("[adblock plus 2.0]").key, "[adblock plus 2.0]");
}

TEST(RuleKeys, EndAnchors) {
  EXPECT_TRUE(One("||example.com/x.js|").options.endAnchored);
  EXPECT_TRUE(One("||example.com/x.js|$script").options.endAnchored);
  EXPECT_FALSE(One("||example.com/x.js$script,domain=a|b").options.endAnchored);
  EXPECT_TRUE(One("banner.gif|$image").options.endAnchored);
}

TEST(RuleKeys, LinesThatMakeNoEntry) {
  ParsedLines p;
  EXPECT_TRUE(p.Filters({"! comment", "example.com##.ad", "*", "$image", "||example.com^$image,~image",
                         "/ad/$~image,~script,~object,~subdocument,~stylesheet"})
                  .empty());
}

TEST(RuleKeys, CleanKey) {
  std::string key = "ex^ample.com**";
  EXPECT_TRUE(vxfilter::CleanKey(key));
  EXPECT_EQ(key, "example.com");
  key = "a*b";
  EXPECT_FALSE(vxfilter::CleanKey(key));
  EXPECT_EQ(key, "a*b");
}

}  // namespace
