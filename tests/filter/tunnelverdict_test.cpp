// The tunnel guard's decision: a host is refused only when a bare ad-server
// rule covers it and no exception could concern it.
#include "filter/engine_fixture.h"

namespace {

struct HostCase {
  std::string target;
  bool block;
  std::string rule;
};

class TunnelVerdicts : public EngineTest {
 protected:
  void ExpectHosts(const std::vector<HostCase>& cases) {
    for (const HostCase& c : cases) {
      const TunnelVerdict v = engine_->JudgeTunnelHost(c.target);
      EXPECT_EQ(v.block, c.block) << c.target;
      EXPECT_EQ(v.RuleText(), c.rule) << c.target;
    }
  }
};

TEST_F(TunnelVerdicts, OnlyBareAdServerRulesWithoutExceptionsBlock) {
  ASSERT_TRUE(LoadFilters(
      "||outside.example^\n" + kAdServers +
      "||ads.example^\n||plain.example\n||Typed.example^$script\n||third.example^$third-party\n"
      "||popup.example^$popup\n||path.example^/x/\n||end.example^|\n||sub.co.uk^\n"
      "||excepted.example^\n||typedexc.example^\n||wild.example^\n||glob.example^\n"
      "||named.example^\n||bare.example^\n||bare.example^$image\n" +
      kThirdParty +
      "@@||excepted.example^\n@@||cdn.typedexc.example/lib.js$script\n"
      "@@||*.wild.example^\n@@||gl*b.example^$image\n@@/path/named.example/*\n"
      "@@/ads.js\n"));
  ExpectHosts({
      {"ads.example:443", true, "||ads.example^"},
      {"ADS.Example", true, "||ADS.Example^"},
      {"deep.sub.ads.example:443", true, "||ads.example^"},
      {"plain.example:443", true, "||plain.example"},
      {"bare.example", true, "||bare.example^"},
      {"x.sub.co.uk", true, "||sub.co.uk^"},
      {"co.uk", false, "no ad-server rule"},
      {"outside.example:443", false, "no ad-server rule"},
      {"example.com:443", false, "no ad-server rule"},
      {"ads.example.com:443", false, "no ad-server rule"},
      {"typed.example", false, "ad-server rule ||typed.example has a path or options"},
      {"third.example", false, "ad-server rule ||third.example has a path or options"},
      {"popup.example", false, "ad-server rule ||popup.example has a path or options"},
      {"path.example", false, "ad-server rule ||path.example has a path or options"},
      {"end.example", false, "ad-server rule ||end.example has a path or options"},
      {"excepted.example:443", false, "exception @@||excepted.example^"},
      {"a.excepted.example", false, "exception @@||excepted.example^"},
      {"cdn.typedexc.example", false, "exception keyed cdn.typedexc.example with a path or options"},
      {"typedexc.example", true, "||typedexc.example^"},
      {"wild.example", false, "an exception's text names or matches wild.example"},
      {"x.wild.example", false, "an exception's text names or matches wild.example"},
      {"glob.example", false, "an exception's text names or matches glob.example"},
      {"named.example", false, "an exception's text names or matches named.example"},
      {"", false, "no host name"},
      {std::string(300, 'a'), false, "no host name"},
  });
}

TEST_F(TunnelVerdicts, ApprovedListAndAnchoredKeylessExceptionsPass) {
  ASSERT_TRUE(LoadFilters(kAdServers + "||ads.example^\n||other.example^\n"));
  ASSERT_TRUE(LoadApproved("@@||ads.example^\n@@||*.other.example^$image\n"));
  ExpectHosts({
      {"ads.example", false, "exception @@||ads.example^"},
      {"a.other.example", false, "an exception's text names or matches other.example"},
  });
  ASSERT_TRUE(LoadApproved("! nothing\n"));
  ExpectHosts({{"ads.example", true, "||ads.example^"}});
  // Without a filters file nothing blocks.
  Renew();
  ExpectHosts({{"ads.example", false, "no ad-server rule"}});
  // A host-anchored exception without a host breaks every check; pass.
  ASSERT_TRUE(LoadFilters(kAdServers + "||ads.example^\n@@||^$image\n"));
  ExpectHosts({{"ads.example", false, "host-anchored exception without a host"}});
}

}  // namespace
