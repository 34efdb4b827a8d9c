// The per-request helpers: the glob search, the lists of names, the
// referer's host.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filter/matcher.h"

namespace {

struct Found {
  bool found;
  std::size_t start;
  std::size_t length;
};

Found Glob(const std::string& text, const std::string& pattern) {
  Found f{false, 0, 0};
  f.found = vxfilter::WildcardFind(text, pattern, &f.start, &f.length);
  return f;
}

TEST(WildcardFind, RunsAreFoundLeftmostInTurn) {
  Found f = Glob("://ads.example.com/ads/x", "ad*.com");
  ASSERT_TRUE(f.found);
  EXPECT_EQ(f.start, 3u);
  EXPECT_EQ(f.length, 15u);  // "ads.example.com"
  // The second run is looked for only after the first.
  EXPECT_FALSE(Glob("://b.example/a", "a*b").found);
  f = Glob("xxabcab", "ab*b");
  ASSERT_TRUE(f.found);
  EXPECT_EQ(f.start, 2u);
  EXPECT_EQ(f.length, 5u);  // "abcab"
}

TEST(WildcardFind, SurroundingStarsAndPlainText) {
  Found f = Glob("://a.example/x", "**example*");
  ASSERT_TRUE(f.found);
  EXPECT_EQ(f.start, 5u);
  EXPECT_EQ(f.length, 7u);
  f = Glob("abc", "abc");
  ASSERT_TRUE(f.found);
  EXPECT_EQ(f.start, 0u);
  EXPECT_EQ(f.length, 3u);
}

TEST(WildcardFind, NeverFound) {
  EXPECT_FALSE(Glob("", "a").found);
  EXPECT_FALSE(Glob("abc", "*").found);
  EXPECT_FALSE(Glob("abc", "***").found);
  EXPECT_FALSE(Glob("abc", "").found);
  EXPECT_FALSE(Glob("abc", "abcd").found);
}

TEST(WildcardFind, NoLengthLimit) {
  const std::string run(600, 'q');
  const Found f = Glob("x" + run + "y" + run + "z", run + "*" + run);
  ASSERT_TRUE(f.found);
  EXPECT_EQ(f.start, 1u);
  EXPECT_EQ(f.length, 1201u);
}

std::vector<std::string> Suffixes(const std::string& name) {
  vxfilter::SmallVec<std::string_view, 8> out;
  vxfilter::DomainSuffixes(name, out);
  return std::vector<std::string>(out.begin(), out.end());
}

TEST(DomainSuffixes, ParentsDownToTheRegistrableName) {
  EXPECT_EQ(Suffixes("a.b.example.com"),
            (std::vector<std::string>{"a.b.example.com", "b.example.com", "example.com"}));
  EXPECT_EQ(Suffixes("www.example.co.uk"),
            (std::vector<std::string>{"www.example.co.uk", "example.co.uk"}));
  EXPECT_EQ(Suffixes("localhost"), (std::vector<std::string>{"localhost"}));
  EXPECT_EQ(Suffixes("example.com"), (std::vector<std::string>{"example.com"}));
  EXPECT_TRUE(Suffixes("").empty());
  EXPECT_EQ(Suffixes("x.co.example.com"), (std::vector<std::string>{"x.co.example.com"}));
  EXPECT_EQ(Suffixes("co.uk"), (std::vector<std::string>{"co.uk"}));
}

TEST(DomainSuffixes, ManyLabels) {
  std::string host = "com";
  for (int i = 0; i < 40; ++i) host = "l" + std::to_string(i) + "." + host;
  const std::vector<std::string> names = Suffixes(host);
  ASSERT_EQ(names.size(), 40u);
  EXPECT_EQ(names.front(), host);
  EXPECT_EQ(names.back(), "l0.com");
}

TEST(HostOfUrl, DropsALeadingWww) {
  EXPECT_EQ(vxfilter::HostOfUrl("http://www.example.com/page"), "example.com");
  EXPECT_EQ(vxfilter::HostOfUrl("HTTPS://WWW.Example.COM:8080/"), "example.com");
  EXPECT_EQ(vxfilter::HostOfUrl("http://wwwexample.com/"), "wwwexample.com");
  EXPECT_EQ(vxfilter::HostOfUrl("http://www./"), "");
  EXPECT_EQ(vxfilter::HostOfUrl("example.com/page"), "");
  EXPECT_EQ(vxfilter::HostOfUrl("http://" + std::string(2100, 'a') + "/"), "");
}

TEST(CopyLowerAscii, OnlyAsciiCapitalsChange) {
  std::string text;
  for (int c = 0; c < 256; ++c) text.push_back(static_cast<char>(c));
  text += "MiXeD CaSe @[`{ 0123456789";
  std::string lowered(text.size(), '\0');
  vxfilter::CopyLowerAscii(lowered.data(), text.data(), text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const unsigned char expected = (c >= 'A' && c <= 'Z') ? c + 32 : c;
    EXPECT_EQ(static_cast<unsigned char>(lowered[i]), expected) << "byte " << static_cast<int>(c);
  }
}

}  // namespace
