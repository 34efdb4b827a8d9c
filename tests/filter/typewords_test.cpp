// Type words: the tables and the word tests that decide whether a request is
// judged and what replaces it.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "core/typewords.h"

namespace {

class TypeWords : public ::testing::Test {
 protected:
  TypeWords() {
    FillMimeTable(mime_);
    FillTypeWordTable(words_);
  }
  std::string Normalized(const char* word) {
    CStringBuffer w(word);
    NormalizeTypeWord(words_, w);
    return w.GetBuffer();
  }
  std::string OfPath(const char* path) {
    CStringBuffer w;
    TypeWordOfPath(words_, path, w);
    return w.GetBuffer();
  }
  std::map<std::string, std::string> mime_;
  std::map<std::string, std::string> words_;
};

TEST_F(TypeWords, Normalize) {
  EXPECT_EQ(Normalized("icon"), "gif");
  EXPECT_EQ(Normalized("jpeg"), "gif");
  EXPECT_EQ(Normalized("x-shockwave-flash"), "flv");
  EXPECT_EQ(Normalized("shockwave-flash2-preview"), "flv");
  EXPECT_EQ(Normalized("javascript"), "js");
  EXPECT_EQ(Normalized("plain"), "htm");
  EXPECT_EQ(Normalized("x-foo"), "foo");
  EXPECT_EQ(Normalized("pdf"), "pdf");
  // The prefix test ignores case, the table lookup does not.
  EXPECT_EQ(Normalized("X-Javascript"), "Javascript");
  EXPECT_EQ(Normalized("X-javascript"), "js");
  EXPECT_EQ(Normalized("JPEG"), "JPEG");
  EXPECT_EQ(Normalized("ax-b"), "ax-b");
  EXPECT_EQ(Normalized("x-"), "");
  EXPECT_EQ(Normalized(""), "");
}

TEST_F(TypeWords, RefillingChangesNothing) {
  words_["icon"] = "ico-custom";
  const std::size_t size = words_.size();
  FillTypeWordTable(words_);
  EXPECT_EQ(words_.size(), size);
  EXPECT_EQ(words_["icon"], "ico-custom");
}

TEST_F(TypeWords, LookupsDoNotInsert) {
  const std::size_t mimeSize = mime_.size();
  const std::size_t wordSize = words_.size();
  EXPECT_STREQ(GetMimeType(mime_, "pdf"), "image/gif");
  Normalized("x-unheard-of");
  EXPECT_EQ(mime_.size(), mimeSize);
  EXPECT_EQ(words_.size(), wordSize);
}

TEST_F(TypeWords, MimeTypes) {
  EXPECT_STREQ(GetMimeType(mime_, "gif"), "image/gif");
  EXPECT_STREQ(GetMimeType(mime_, "js"), "application/x-javascript");
  EXPECT_STREQ(GetMimeType(mime_, "htm"), "text/html");
  EXPECT_STREQ(GetMimeType(mime_, "flv"), "video/x-flv");
  EXPECT_STREQ(GetMimeType(mime_, "GIF"), "image/gif");
  EXPECT_STREQ(GetMimeType(mime_, nullptr), "image/gif");
  mime_["unknown"] = "application/octet-stream";
  EXPECT_STREQ(GetMimeType(mime_, "pdf"), "application/octet-stream");
  mime_["css"] = "";
  EXPECT_STREQ(GetMimeType(mime_, "css"), "application/octet-stream");
  std::map<std::string, std::string> emptied;
  EXPECT_STREQ(GetMimeType(emptied, "css"), "image/gif");
}

TEST_F(TypeWords, ReplaceableKinds) {
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

TEST_F(TypeWords, WordOfAPath) {
  EXPECT_EQ(OfPath("/x/b.js"), "js");
  EXPECT_EQ(OfPath("/a/pic.png"), "gif");
  EXPECT_EQ(OfPath("/a/pic.PNG"), "PNG");
  EXPECT_EQ(OfPath("/x.y/b"), "unknown");
  EXPECT_EQ(OfPath("/"), "unknown");
  EXPECT_EQ(OfPath(""), "unknown");
  EXPECT_EQ(OfPath("noslash.gif"), "unknown");
  EXPECT_EQ(OfPath("/a.b.c/d.tar.html"), "htm");
  EXPECT_EQ(OfPath("/a."), "");
}

}  // namespace
