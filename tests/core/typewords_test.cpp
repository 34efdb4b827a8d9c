// Type words: the tables and the word tests that decide whether a request is
// judged and what replaces it.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "core/typewords.h"

namespace {

TEST(TypeWords, NormalizedWordsAndWordsOfPaths) {
  std::map<std::string, std::string> words;
  FillTypeWordTable(words);
  const std::size_t size = words.size();
  // The "x-" test ignores case, the table lookup does not.
  const std::pair<const char*, const char*> normalized[] = {
      {"icon", "gif"},       {"jpeg", "gif"},   {"x-shockwave-flash", "flv"},
      {"javascript", "js"},  {"plain", "htm"},  {"shockwave-flash2-preview", "flv"},
      {"x-foo", "foo"},      {"pdf", "pdf"},    {"X-Javascript", "Javascript"},
      {"X-javascript", "js"}, {"JPEG", "JPEG"}, {"ax-b", "ax-b"}, {"x-", ""}, {"", ""}};
  for (const auto& [word, expected] : normalized) {
    CStringBuffer w(word);
    NormalizeTypeWord(words, w);
    EXPECT_STREQ(w.GetBuffer(), expected) << word;
  }
  const std::pair<const char*, const char*> ofPath[] = {
      {"/x/b.js", "js"},  {"/a/pic.png", "gif"},      {"/a/pic.PNG", "PNG"},
      {"/x.y/b", "unknown"}, {"/", "unknown"},        {"", "unknown"},
      {"noslash.gif", "unknown"}, {"/a.b.c/d.tar.html", "htm"}, {"/a.", ""}};
  for (const auto& [path, expected] : ofPath) {
    CStringBuffer w;
    TypeWordOfPath(words, path, w);
    EXPECT_STREQ(w.GetBuffer(), expected) << path;
  }
  // Neither lookups nor a second fill change the table.
  words["icon"] = "ico-custom";
  FillTypeWordTable(words);
  EXPECT_EQ(words.size(), size);
  EXPECT_EQ(words["icon"], "ico-custom");
}

TEST(TypeWords, MimeTypesAndReplaceableKinds) {
  std::map<std::string, std::string> mime;
  FillMimeTable(mime);
  const std::size_t size = mime.size();
  const std::pair<const char*, const char*> types[] = {
      {"gif", "image/gif"}, {"js", "application/x-javascript"}, {"htm", "text/html"},
      {"flv", "video/x-flv"}, {"GIF", "image/gif"}, {"pdf", "image/gif"}, {nullptr, "image/gif"}};
  for (const auto& [word, expected] : types) EXPECT_STREQ(GetMimeType(mime, word), expected);
  EXPECT_EQ(mime.size(), size);
  mime["unknown"] = "application/octet-stream";
  mime["css"] = "";
  EXPECT_STREQ(GetMimeType(mime, "pdf"), "application/octet-stream");
  EXPECT_STREQ(GetMimeType(mime, "css"), "application/octet-stream");
  EXPECT_STREQ(GetMimeType({}, "css"), "image/gif");

  for (const char* yes : {"gif", "GIF", "tiff", "f4v", "FLV", "css", "xml", "html", "js",
                          "x-shockwave-flash", "FutureFlashThing"}) {
    EXPECT_TRUE(IsReplaceableType(CStringBuffer(yes))) << yes;
  }
  for (const char* no : {"", "pdf", "php", "unknown", "gifs", "jsx", "flas"}) {
    EXPECT_FALSE(IsReplaceableType(CStringBuffer(no))) << no;
  }
  EXPECT_TRUE(IsImageWord(CStringBuffer("Png")));
  EXPECT_FALSE(IsImageWord(CStringBuffer("swf")));
  EXPECT_TRUE(IsFlashWord(CStringBuffer("swf")));
  EXPECT_FALSE(IsPageWord(CStringBuffer("swf")));
}

}  // namespace
