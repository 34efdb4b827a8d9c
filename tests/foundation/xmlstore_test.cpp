#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "support/tempdir.h"
#include "support/vtable.h"
#include "vxproxy/xmlstore.h"

namespace {

using P = CSecureXMLParser;
using E = CVxXMLElement;
using Elements = std::vector<CVxXMLElement>;

std::string Value(CVxXML& doc, const char* path) {
  CStringBuffer out;
  doc.GetValue(path, out);
  return out.GetBuffer();
}

std::string Value(CVxXML& doc, E& from, const char* path) {
  CStringBuffer out;
  doc.GetValue(from, path, out);
  return out.GetBuffer();
}

std::string Name(CVxXML& doc, E e) {
  CStringBuffer out;
  doc.GetNodeName(e, out);
  return out.GetBuffer();
}

std::string Text(CVxXML& doc) {
  CStringBuffer out;
  doc.GetDocument(out);
  return out.GetBuffer();
}

// ------------------------------------------------------------ slot order --

// Slot 40 is protected; a derived store reaches it the way the site counter does.
struct ProtectedSlots : CSecureXMLParser {
  static std::ptrdiff_t WriterIndex() {
    return VtableIndex(
        static_cast<int (ProtectedSlots::*)(const char*, CStringBuffer&)>(&ProtectedSlots::WriteToFile));
  }
};

TEST(XmlStoreSlots, DeclaredOrderMatchesTheHostTable) {
  // Position in the table is the slot number; slot 0 is the destructor.
  const std::ptrdiff_t slots[] = {
      0,
      VtableIndex(static_cast<int (P::*)(const char*)>(&P::ParseFile)),
      VtableIndex(static_cast<bool (P::*)(const char*)>(&P::Parse)),
      VtableIndex(&P::Destroy),
      VtableIndex(&P::GetNodeName),
      VtableIndex(&P::GetRootNode),
      VtableIndex(static_cast<void (P::*)(CStringBuffer&)>(&P::GetDocument)),
      VtableIndex(static_cast<void (P::*)(E&, CBufStream&, bool)>(&P::GetDocument)),
      VtableIndex(static_cast<void (P::*)(E&, CBufStream&)>(&P::GetDocument)),
      VtableIndex(&P::GetNodeByName),
      VtableIndex(static_cast<E (P::*)(const char*, E&)>(&P::GetNode)),
      VtableIndex(static_cast<E (P::*)(const char*)>(&P::GetNode)),
      VtableIndex(static_cast<int (P::*)(const char*, Elements&)>(&P::GetAllNodes)),
      VtableIndex(static_cast<int (P::*)(const char*, E&, Elements&)>(&P::GetAllNodes)),
      VtableIndex(static_cast<void (P::*)(const char*, E&, CBufStream&)>(&P::GetText)),
      VtableIndex(static_cast<void (P::*)(const char*, CBufStream&)>(&P::GetText)),
      VtableIndex(static_cast<void (P::*)(const char*, CBufStream&)>(&P::GetValue)),
      VtableIndex(static_cast<void (P::*)(E&, const char*, CBufStream&)>(&P::GetValue)),
      VtableIndex(static_cast<E (P::*)(const char*, bool&, bool)>(&P::CreateNode)),
      VtableIndex(static_cast<E (P::*)(E&, const char*, bool)>(&P::CreateNode)),
      VtableIndex(static_cast<E (P::*)(const char*, bool)>(&P::CreateNode)),
      VtableIndex(static_cast<CVectorWrapper* (P::*)(const char*)>(&P::GetAllChildNodes)),
      VtableIndex(static_cast<int (P::*)(E&, Elements&)>(&P::GetAllChildNodes)),
      VtableIndex(static_cast<int (P::*)(const char*, Elements&)>(&P::GetAllChildNodes)),
      VtableIndex(&P::FreeWrapper),
      VtableIndex(static_cast<bool (P::*)(const char*, unsigned long)>(&P::SetValue)),
      VtableIndex(static_cast<bool (P::*)(const char*, long)>(&P::SetValue)),
      VtableIndex(static_cast<bool (P::*)(const char*, int)>(&P::SetValue)),
      VtableIndex(static_cast<bool (P::*)(const char*, const char*, bool)>(&P::SetValue)),
      VtableIndex(static_cast<bool (P::*)(E&, const char*, const char*, bool)>(&P::SetValue)),
      VtableIndex(static_cast<bool (P::*)(const char*, E&, const char*, bool)>(&P::SetValue)),
      VtableIndex(static_cast<int (P::*)(E&, char*)>(&P::GetValueInt)),
      VtableIndex(static_cast<int (P::*)(const char*)>(&P::GetValueInt)),
      VtableIndex(static_cast<long (P::*)(E&, const char*)>(&P::GetValueLong)),
      VtableIndex(static_cast<long (P::*)(const char*)>(&P::GetValueLong)),
      VtableIndex(&P::GetFileName),
      VtableIndex(&P::CreateTextNode),
      VtableIndex(static_cast<int (P::*)()>(&P::Store)),
      VtableIndex(static_cast<int (P::*)(const char*)>(&P::Store)),
      VtableIndex(static_cast<int (P::*)(const char*, const char*, int)>(&P::WriteToFile)),
      ProtectedSlots::WriterIndex(),
      VtableIndex(&P::CreateBlank),
      VtableIndex(static_cast<int (P::*)(std::vector<CStringBuffer>&)>(&P::Store)),
  };
  static_assert(std::size(slots) == 43);
  for (int slot = 1; slot < 43; ++slot) EXPECT_EQ(slots[slot], VtableIndexOfSlot(slot)) << slot;
}

// ------------------------------------------------------- blank documents --

TEST(XmlStoreBlank, VexiloTextIsAnEmptyRootThatPathsGrowFrom) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  E root = doc.GetRootNode();
  EXPECT_EQ(Name(doc, root), "Vexilo");
  Elements found;
  EXPECT_EQ(doc.GetAllChildNodes(root, found), 0);
  CSecureXMLParser blank;
  ASSERT_EQ(blank.CreateBlank(), 0);
  EXPECT_EQ(Text(blank), Text(doc));

  bool created = false;
  E leaf = doc.CreateNode("Global/StatStartTime", created, false);
  EXPECT_TRUE(created);
  E global = doc.GetNodeByName("Global");
  EXPECT_TRUE(doc.GetNode("./StatStartTime", global) == leaf);
  created = false;
  EXPECT_TRUE(doc.CreateNode("Global/StatStartTime", created, false) == leaf);
  EXPECT_FALSE(created);
}

TEST(XmlStoreBlank, EmptyObjectRefusesWrites) {
  CSecureXMLParser doc;
  bool created = false;
  EXPECT_FALSE(doc.CreateNode("Global/History", created, false).IsFound());
  EXPECT_FALSE(doc.SetValue("Global/History", "1", true));
  EXPECT_FALSE(doc.GetRootNode().IsFound());
  EXPECT_EQ(Text(doc), "");
}

// ------------------------------------------------------------ lookups --

class XmlStoreLookup : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(doc.Parse(
        "<Vexilo><Sites><ads.example.com><Counter>7</Counter></ads.example.com>"
        "<cdn.example.net><Counter>2</Counter></cdn.example.net></Sites>"
        "<Global><Counter>9</Counter><History>18446744073709551615</History></Global></Vexilo>"));
  }
  CSecureXMLParser doc;
};

TEST_F(XmlStoreLookup, PathsFromRootFromDocumentAndFromAnElement) {
  const struct {
    const char* from;  // element found by name first; null: the document
    const char* path;
    const char* value;
  } cases[] = {
      {nullptr, "./Global/Counter", "9"}, {nullptr, "/Vexilo/Global/Counter", "9"},
      {nullptr, "Sites/ads.example.com/../cdn.example.net/Counter", "2"},
      {"Global", "Counter", "9"}, {"Global", "Global/Counter", ""},
      {"cdn.example.net", "./Counter", "2"},  // a grandchild found by name
      {"Counter", ".", "7"},                  // the first in document order
  };
  for (const auto& c : cases) {
    if (c.from == nullptr) {
      EXPECT_EQ(Value(doc, c.path), c.value) << c.path;
      continue;
    }
    E from = doc.GetNodeByName(c.from);
    ASSERT_TRUE(from.IsFound()) << c.from;
    EXPECT_EQ(Value(doc, from, c.path), c.value) << c.from << " " << c.path;
  }
  EXPECT_FALSE(doc.GetNodeByName("nothing.example").IsFound());
  CStringBuffer out("left over");
  doc.GetText("Nothing/Here", out);
  EXPECT_EQ(out.GetSize(), 0);
  out = "left over";
  doc.GetValue("Global/AdSize", out);
  EXPECT_EQ(out.GetSize(), 0);
}

TEST_F(XmlStoreLookup, NumbersReadAsDecimalAndJunkAsZero) {
  EXPECT_EQ(static_cast<unsigned long>(doc.GetValueLong("Global/History")), 0xFFFFFFFFFFFFFFFFul);
  EXPECT_EQ(doc.GetValueInt("Global/Missing"), 0);
  ASSERT_TRUE(doc.SetValue("Global/Counter", "x12", false));
  E global = doc.GetNodeByName("Global");
  char path[] = "./Counter";
  EXPECT_EQ(doc.GetValueInt(global, path), 0);
}

TEST_F(XmlStoreLookup, ChildListsFollowDocumentOrderAndEveryBranch) {
  CVectorWrapper* sites = doc.GetAllChildNodes("Sites");
  ASSERT_NE(sites, nullptr);
  std::vector<std::string> names;
  for (E& e : *sites) names.push_back(Name(doc, e));
  doc.FreeWrapper(sites);
  EXPECT_EQ(names, (std::vector<std::string>{"ads.example.com", "cdn.example.net"}));
  CVectorWrapper* none = doc.GetAllChildNodes("Nowhere");
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->begin(), none->end());
  doc.FreeWrapper(none);

  Elements found;
  ASSERT_TRUE(doc.Parse("<r><a><b>1</b><b>2</b></a><a><b>3</b></a></r>"));
  EXPECT_EQ(doc.GetAllNodes("a/b", found), 3);
  EXPECT_EQ(Value(doc, found[2], "."), "3");
}

TEST_F(XmlStoreLookup, HandlesDieWithTheirDocument) {
  E global = doc.GetNodeByName("Global");
  ASSERT_TRUE(doc.Parse("<Vexilo><Global><Counter>1</Counter></Global></Vexilo>"));
  EXPECT_EQ(Value(doc, global, "Counter"), "");
  EXPECT_FALSE(doc.SetValue(global, "./Counter", "5", true));
  CSecureXMLParser other;
  ASSERT_TRUE(other.Parse("<Vexilo><Global/></Vexilo>"));
  E foreign = other.GetNodeByName("Global");
  EXPECT_FALSE(doc.SetValue(foreign, "./Counter", "5", true));
  EXPECT_EQ(Value(doc, "Global/Counter"), "1");
}

// ------------------------------------------------------------- writes --

TEST(XmlStoreWrite, ValuesNumbersTextAndSiblingsLandWhereAsked) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><Note/><Global><History>4</History></Global></Vexilo>"));
  E global = doc.GetNodeByName("Global");
  EXPECT_FALSE(doc.SetValue(global, "./AdSize", "0", false));  // no creating unless asked
  EXPECT_TRUE(doc.SetValue(global, "./AdSize", "0", true));
  EXPECT_TRUE(doc.SetValue("./BytesSend", global, "12", true));
  EXPECT_TRUE(doc.SetValue(global, "./History", "5", true));
  EXPECT_TRUE(doc.SetValue("Global/BytesRecvd", 18446744073709551615ul));
  EXPECT_TRUE(doc.SetValue("Global/Delta", -42l));
  EXPECT_TRUE(doc.SetValue("Global/Counter", 2147483647));
  E note = doc.GetNode("Note");
  EXPECT_TRUE(doc.CreateTextNode("hello & <bye>", note).IsFound());
  E list = doc.CreateNode("List", false);
  for (const char* text : {"a", "b"}) {
    E item = doc.CreateNode(list, "Item", true);  // forced: a sibling each time
    ASSERT_TRUE(doc.SetValue(item, ".", text, false));
  }
  E root = doc.GetRootNode();
  CStringBuffer out;
  doc.GetDocument(root, out, false);
  EXPECT_STREQ(out.GetBuffer(),
               "<Vexilo><Note>hello &amp; &lt;bye&gt;</Note><Global><History>5</History>"
               "<AdSize>0</AdSize><BytesSend>12</BytesSend><BytesRecvd>18446744073709551615"
               "</BytesRecvd><Delta>-42</Delta><Counter>2147483647</Counter></Global>"
               "<List><Item>a</Item><Item>b</Item></List></Vexilo>");
}

TEST(XmlStoreWrite, NamesThatCannotParseBackAreNeverCreated) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  for (const char* path : {"Sites/127.0.0.1/Counter", "Sites/1rx.io/Counter", "Sites/a b/Counter",
                           "Sites/-x/Counter", "Sites/a<b/Counter"}) {
    bool created = false;
    EXPECT_FALSE(doc.CreateNode(path, created, false).IsFound()) << path;
    EXPECT_FALSE(doc.SetValue(path, 1)) << path;
  }
  EXPECT_TRUE(doc.CreateNode("Sites/ads.example-1.com/Counter", false).IsFound());
  EXPECT_TRUE(doc.CreateNode("Sites/_x:y\xC3\xA9/Counter", false).IsFound());
  CStringBuffer text;
  doc.GetDocument(text);
  CSecureXMLParser again;
  EXPECT_TRUE(again.Parse(text.GetBuffer())) << text.GetBuffer();
}

TEST(XmlStoreWrite, CopiesOwnTheirDocument) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><A>1</A></Vexilo>"));
  CSecureXMLParser copy(doc);
  copy.SetValue("A", "2", false);
  EXPECT_EQ(Value(doc, "A"), "1");
  doc = copy;
  copy.Destroy();
  EXPECT_EQ(Value(doc, "A"), "2");
}

// -------------------------------------------------------- files --

class XmlStoreFiles : public ::testing::Test {
 protected:
  // What the folder holds: a left-over temporary shows up here.
  std::ptrdiff_t Entries() {
    return std::distance(std::filesystem::directory_iterator(dir.path()),
                         std::filesystem::directory_iterator());
  }
  TempDir dir;
};

TEST_F(XmlStoreFiles, StoredDocumentParsesBackTheSame) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  const char* tricky[] = {"a & b < c > d", "  padded  ", "   ", "quote \" and '",
                          "line1\nline2", "cr\r\nlf\r", "tab\there", "caf\xC3\xA9", "]]> end", ""};
  for (std::size_t i = 0; i < std::size(tricky); ++i) {
    ASSERT_TRUE(doc.SetValue(("Values/V" + std::to_string(i)).c_str(), tricky[i], true));
  }
  ASSERT_TRUE(doc.SetValue("Mixed", "before", true));
  E mixed = doc.GetNode("Mixed");
  doc.CreateNode(mixed, "Inner", false);
  doc.CreateTextNode("after", mixed);
  const std::string before = Text(doc);
  // The service names its files with backslashes.
  const std::string path = dir.str() + "\\doc.xml";
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  EXPECT_EQ(ReadTextFile(dir / "doc.xml"), before);

  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(path.c_str()), 0);
  EXPECT_EQ(Text(back), before);
  EXPECT_EQ(Value(back, "Values/V2"), "   ");
  // A store without a name goes to the file the document came from.
  ASSERT_TRUE(back.SetValue("Global/StatStartTime", "1321563649", true));
  ASSERT_EQ(back.Store(), 0);
  ASSERT_EQ(doc.ParseFile(path.c_str()), 0);
  EXPECT_EQ(Value(doc, "Global/StatStartTime"), "1321563649");
  EXPECT_EQ(Entries(), 1);
}

TEST_F(XmlStoreFiles, FailedParseLeavesTheObjectEmpty) {
  CSecureXMLParser doc;
  WriteTextFile(dir / "empty.xml", "");
  WriteTextFile(dir / "broken.xml", "<Vexilo><Global></Vexilo>");
  for (const char* name : {"missing.xml", "empty.xml", "broken.xml"}) {
    ASSERT_TRUE(doc.Parse("<Vexilo><A>1</A></Vexilo>"));
    EXPECT_NE(doc.ParseFile((dir / name).c_str()), 0) << name;
    EXPECT_FALSE(doc.GetRootNode().IsFound()) << name;
    EXPECT_EQ(Value(doc, "A"), "") << name;
  }
}

TEST_F(XmlStoreFiles, StoreFailureKeepsTheOldFileAndLeavesNoTemporary) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  EXPECT_NE(doc.Store((dir / "no-such-dir/doc.xml").c_str()), 0);
  EXPECT_NE(doc.Store(), 0);  // nothing remembered yet
  const std::string path = dir / "doc.xml";
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  std::filesystem::create_directory(dir / "doc.xml.dir");
  EXPECT_NE(doc.Store((dir / "doc.xml.dir").c_str()), 0);  // a directory cannot be replaced
  EXPECT_EQ(Entries(), 2);
  EXPECT_STREQ(doc.GetFileName(), path.c_str());
}

TEST_F(XmlStoreFiles, StoreOfPartsReplacesDocumentAndFileOnlyWhenTheyParse) {
  const std::string path = dir / "parts.xml";
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  std::vector<CStringBuffer> parts;
  for (const char* part : {"<Vexilo><Global>", "<History>3</History>", "</Global></Vexilo>"}) {
    parts.emplace_back(part);
  }
  ASSERT_EQ(doc.Store(parts), 0);
  EXPECT_EQ(doc.GetValueInt("Global/History"), 3);
  parts.resize(1);
  EXPECT_NE(doc.Store(parts), 0);
  EXPECT_EQ(doc.GetValueInt("Global/History"), 3);
  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(path.c_str()), 0);
  EXPECT_EQ(back.GetValueInt("Global/History"), 3);
}

}  // namespace
