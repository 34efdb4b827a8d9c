#include <gtest/gtest.h>

#include <filesystem>
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

TEST(XmlStoreSlots, DeclaredOrderMatchesTheHostTable) {
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*)>(&P::ParseFile)), VtableIndexOfSlot(1));
  EXPECT_EQ(VtableIndex(static_cast<bool (P::*)(const char*)>(&P::Parse)), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(&P::Destroy), VtableIndexOfSlot(3));
  EXPECT_EQ(VtableIndex(&P::GetNodeName), VtableIndexOfSlot(4));
  EXPECT_EQ(VtableIndex(&P::GetRootNode), VtableIndexOfSlot(5));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(CStringBuffer&)>(&P::GetDocument)),
            VtableIndexOfSlot(6));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(E&, CBufStream&, bool)>(&P::GetDocument)),
            VtableIndexOfSlot(7));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(E&, CBufStream&)>(&P::GetDocument)),
            VtableIndexOfSlot(8));
  EXPECT_EQ(VtableIndex(&P::GetNodeByName), VtableIndexOfSlot(9));
  EXPECT_EQ(VtableIndex(static_cast<E (P::*)(const char*, E&)>(&P::GetNode)), VtableIndexOfSlot(10));
  EXPECT_EQ(VtableIndex(static_cast<E (P::*)(const char*)>(&P::GetNode)), VtableIndexOfSlot(11));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*, Elements&)>(&P::GetAllNodes)),
            VtableIndexOfSlot(12));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*, E&, Elements&)>(&P::GetAllNodes)),
            VtableIndexOfSlot(13));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(const char*, E&, CBufStream&)>(&P::GetText)),
            VtableIndexOfSlot(14));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(const char*, CBufStream&)>(&P::GetText)),
            VtableIndexOfSlot(15));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(const char*, CBufStream&)>(&P::GetValue)),
            VtableIndexOfSlot(16));
  EXPECT_EQ(VtableIndex(static_cast<void (P::*)(E&, const char*, CBufStream&)>(&P::GetValue)),
            VtableIndexOfSlot(17));
  EXPECT_EQ(VtableIndex(static_cast<E (P::*)(const char*, bool&, bool)>(&P::CreateNode)),
            VtableIndexOfSlot(18));
  EXPECT_EQ(VtableIndex(static_cast<E (P::*)(E&, const char*, bool)>(&P::CreateNode)),
            VtableIndexOfSlot(19));
  EXPECT_EQ(VtableIndex(static_cast<E (P::*)(const char*, bool)>(&P::CreateNode)),
            VtableIndexOfSlot(20));
  EXPECT_EQ(VtableIndex(static_cast<CVectorWrapper* (P::*)(const char*)>(&P::GetAllChildNodes)),
            VtableIndexOfSlot(21));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(E&, Elements&)>(&P::GetAllChildNodes)),
            VtableIndexOfSlot(22));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*, Elements&)>(&P::GetAllChildNodes)),
            VtableIndexOfSlot(23));
  EXPECT_EQ(VtableIndex(&P::FreeWrapper), VtableIndexOfSlot(24));
  EXPECT_EQ(VtableIndex(static_cast<bool (P::*)(const char*, unsigned long)>(&P::SetValue)),
            VtableIndexOfSlot(25));
  EXPECT_EQ(VtableIndex(static_cast<bool (P::*)(const char*, long)>(&P::SetValue)),
            VtableIndexOfSlot(26));
  EXPECT_EQ(VtableIndex(static_cast<bool (P::*)(const char*, int)>(&P::SetValue)),
            VtableIndexOfSlot(27));
  EXPECT_EQ(VtableIndex(static_cast<bool (P::*)(const char*, const char*, bool)>(&P::SetValue)),
            VtableIndexOfSlot(28));
  EXPECT_EQ(
      VtableIndex(static_cast<bool (P::*)(E&, const char*, const char*, bool)>(&P::SetValue)),
      VtableIndexOfSlot(29));
  EXPECT_EQ(
      VtableIndex(static_cast<bool (P::*)(const char*, E&, const char*, bool)>(&P::SetValue)),
      VtableIndexOfSlot(30));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(E&, char*)>(&P::GetValueInt)), VtableIndexOfSlot(31));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*)>(&P::GetValueInt)),
            VtableIndexOfSlot(32));
  EXPECT_EQ(VtableIndex(static_cast<long (P::*)(E&, const char*)>(&P::GetValueLong)),
            VtableIndexOfSlot(33));
  EXPECT_EQ(VtableIndex(static_cast<long (P::*)(const char*)>(&P::GetValueLong)),
            VtableIndexOfSlot(34));
  EXPECT_EQ(VtableIndex(&P::GetFileName), VtableIndexOfSlot(35));
  EXPECT_EQ(VtableIndex(&P::CreateTextNode), VtableIndexOfSlot(36));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)()>(&P::Store)), VtableIndexOfSlot(37));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*)>(&P::Store)), VtableIndexOfSlot(38));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(const char*, const char*, int)>(&P::WriteToFile)),
            VtableIndexOfSlot(39));
  EXPECT_EQ(VtableIndex(&P::CreateBlank), VtableIndexOfSlot(41));
  EXPECT_EQ(VtableIndex(static_cast<int (P::*)(std::vector<CStringBuffer>&)>(&P::Store)),
            VtableIndexOfSlot(42));
}

// Slot 40 is protected; a derived store reaches it the way the site counter does.
struct ProtectedSlots : CSecureXMLParser {
  static std::ptrdiff_t WriterIndex() {
    return VtableIndex(
        static_cast<int (ProtectedSlots::*)(const char*, CStringBuffer&)>(&ProtectedSlots::WriteToFile));
  }
};

TEST(XmlStoreSlots, ProtectedFileWriterIsSlot40) {
  EXPECT_EQ(ProtectedSlots::WriterIndex(), VtableIndexOfSlot(40));
}

// ------------------------------------------------------- blank documents --

TEST(XmlStoreBlank, VexiloTextParsesAsAnEmptyRoot) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  E root = doc.GetRootNode();
  ASSERT_TRUE(root.IsFound());
  EXPECT_EQ(Name(doc, root), "Vexilo");
  Elements children;
  EXPECT_EQ(doc.GetAllChildNodes(root, children), 0);
}

TEST(XmlStoreBlank, CreatedPathIsFoundByName) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  bool created = false;
  E leaf = doc.CreateNode("Global/StatStartTime", created, false);
  EXPECT_TRUE(leaf.IsFound());
  EXPECT_TRUE(created);
  E global = doc.GetNodeByName("Global");
  ASSERT_TRUE(global.IsFound());
  EXPECT_EQ(Name(doc, global), "Global");
  EXPECT_TRUE(doc.GetNode("./StatStartTime", global) == leaf);
}

TEST(XmlStoreBlank, CreatingAnExistingPathAddsNothing) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  bool created = false;
  E first = doc.CreateNode("Global/RequestHistory", created, false);
  created = false;
  E again = doc.CreateNode("Global/RequestHistory", created, false);
  EXPECT_FALSE(created);
  EXPECT_TRUE(first == again);
  doc.CreateNode("Global/History", created, false);
  Elements globals;
  EXPECT_EQ(doc.GetAllNodes("Global", globals), 1);
  Elements values;
  EXPECT_EQ(doc.GetAllChildNodes("Global", values), 2);
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

TEST_F(XmlStoreLookup, NameFindsGrandchildren) {
  E site = doc.GetNodeByName("cdn.example.net");
  ASSERT_TRUE(site.IsFound());
  EXPECT_EQ(Value(doc, site, "Counter"), "2");
  EXPECT_EQ(Value(doc, site, "./Counter"), "2");
  EXPECT_FALSE(doc.GetNodeByName("nothing.example").IsFound());
}

TEST_F(XmlStoreLookup, NameFindsTheFirstInDocumentOrder) {
  E counter = doc.GetNodeByName("Counter");
  ASSERT_TRUE(counter.IsFound());
  CStringBuffer out;
  doc.GetValue(counter, ".", out);
  EXPECT_STREQ(out.GetBuffer(), "7");
}

TEST_F(XmlStoreLookup, PathsFromRootFromElementAndFromDocument) {
  EXPECT_EQ(Value(doc, "Global/Counter"), "9");
  EXPECT_EQ(Value(doc, "./Global/Counter"), "9");
  EXPECT_EQ(Value(doc, "/Vexilo/Global/Counter"), "9");
  EXPECT_EQ(Value(doc, "Sites/ads.example.com/../cdn.example.net/Counter"), "2");
  E global = doc.GetNode("Global");
  EXPECT_EQ(Value(doc, global, "Counter"), "9");
  EXPECT_EQ(Value(doc, global, "Global/Counter"), "");
}

TEST_F(XmlStoreLookup, MissingPathEmptiesTheOutput) {
  CStringBuffer out("left over");
  doc.GetValue("Global/AdSize", out);
  EXPECT_EQ(out.GetSize(), 0);
  out = "left over";
  E global = doc.GetNodeByName("Global");
  doc.GetValue(global, "./AdSize", out);
  EXPECT_EQ(out.GetSize(), 0);
  out = "left over";
  doc.GetText("Nothing/Here", out);
  EXPECT_EQ(out.GetSize(), 0);
}

TEST_F(XmlStoreLookup, NumbersReadAsDecimalAndJunkAsZero) {
  EXPECT_EQ(doc.GetValueInt("Global/Counter"), 9);
  EXPECT_EQ(static_cast<unsigned long>(doc.GetValueLong("Global/History")), 0xFFFFFFFFFFFFFFFFul);
  EXPECT_EQ(doc.GetValueInt("Global/Missing"), 0);
  ASSERT_TRUE(doc.SetValue("Global/Counter", "x12", false));
  EXPECT_EQ(doc.GetValueInt("Global/Counter"), 0);
  E global = doc.GetNodeByName("Global");
  char path[] = "./Counter";
  EXPECT_EQ(doc.GetValueInt(global, path), 0);
}

TEST_F(XmlStoreLookup, ChildWrapperListsChildrenInOrder) {
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
}

TEST_F(XmlStoreLookup, AllNodesFollowEveryMatchingBranch) {
  Elements counters;
  ASSERT_TRUE(doc.Parse("<r><a><b>1</b><b>2</b></a><a><b>3</b></a></r>"));
  EXPECT_EQ(doc.GetAllNodes("a/b", counters), 3);
  CStringBuffer out;
  doc.GetValue(counters[2], ".", out);
  EXPECT_STREQ(out.GetBuffer(), "3");
}

TEST_F(XmlStoreLookup, HandlesDieWithTheirDocument) {
  E global = doc.GetNodeByName("Global");
  ASSERT_TRUE(global.IsFound());
  ASSERT_TRUE(doc.Parse("<Vexilo><Global><Counter>1</Counter></Global></Vexilo>"));
  EXPECT_EQ(Value(doc, global, "Counter"), "");
  EXPECT_FALSE(doc.SetValue(global, "./Counter", "5", true));
  EXPECT_EQ(Value(doc, "Global/Counter"), "1");

  CSecureXMLParser other;
  ASSERT_TRUE(other.Parse("<Vexilo><Global/></Vexilo>"));
  E foreign = other.GetNodeByName("Global");
  EXPECT_FALSE(doc.SetValue(foreign, "./Counter", "5", true));
  EXPECT_EQ(Value(doc, "Global/Counter"), "1");
}

// ------------------------------------------------------------- writes --

TEST(XmlStoreWrite, SetValueCreatesUnderAGivenElement) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><Global><History>4</History></Global></Vexilo>"));
  E global = doc.GetNodeByName("Global");
  EXPECT_FALSE(doc.SetValue(global, "./AdSize", "0", false));
  EXPECT_TRUE(doc.SetValue(global, "./AdSize", "0", true));
  EXPECT_EQ(Value(doc, "Global/AdSize"), "0");
  EXPECT_TRUE(doc.SetValue("./BytesSend", global, "12", true));
  EXPECT_EQ(Value(doc, global, "BytesSend"), "12");
  EXPECT_TRUE(doc.SetValue(global, "./History", "5", true));
  Elements values;
  EXPECT_EQ(doc.GetAllChildNodes(global, values), 3);
  EXPECT_EQ(Value(doc, "Global/History"), "5");
}

TEST(XmlStoreWrite, NumbersAreStoredAsPlainDecimal) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  EXPECT_TRUE(doc.SetValue("Global/BytesRecvd", 18446744073709551615ul));
  EXPECT_TRUE(doc.SetValue("Global/Delta", -42l));
  EXPECT_TRUE(doc.SetValue("Global/Counter", 2147483647));
  EXPECT_EQ(Value(doc, "Global/BytesRecvd"), "18446744073709551615");
  EXPECT_EQ(Value(doc, "Global/Delta"), "-42");
  EXPECT_EQ(doc.GetValueInt("Global/Counter"), 2147483647);
}

TEST(XmlStoreWrite, ForcedCreateAddsASibling) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  E list = doc.CreateNode("List", false);
  for (const char* text : {"a", "b"}) {
    E item = doc.CreateNode(list, "Item", true);
    ASSERT_TRUE(doc.SetValue(item, ".", text, false));
  }
  Elements items;
  ASSERT_EQ(doc.GetAllNodes("List/Item", items), 2);
  EXPECT_EQ(Value(doc, items[1], "."), "b");
}

TEST(XmlStoreWrite, TextNodesAndElementText) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><Note/></Vexilo>"));
  E note = doc.GetNode("Note");
  E text = doc.CreateTextNode("hello & <bye>", note);
  EXPECT_TRUE(text.IsFound());
  EXPECT_EQ(Value(doc, "Note"), "hello & <bye>");
  CStringBuffer out;
  doc.GetDocument(note, out, false);
  EXPECT_STREQ(out.GetBuffer(), "<Note>hello &amp; &lt;bye&gt;</Note>");
}

TEST(XmlStoreWrite, CopiesOwnTheirDocument) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><A>1</A></Vexilo>"));
  CSecureXMLParser copy(doc);
  copy.SetValue("A", "2", false);
  EXPECT_EQ(Value(doc, "A"), "1");
  EXPECT_EQ(Value(copy, "A"), "2");
  doc = copy;
  copy.Destroy();
  EXPECT_EQ(Value(doc, "A"), "2");
}

// -------------------------------------------------------- files --

class XmlStoreFiles : public ::testing::Test {
 protected:
  // Files in the folder other than the named ones (left-over temporaries).
  std::vector<std::string> Strays(const std::vector<std::string>& expected) {
    std::vector<std::string> strays;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
      const std::string name = entry.path().filename().string();
      bool known = false;
      for (const std::string& e : expected) known = known || e == name;
      if (!known) strays.push_back(name);
    }
    return strays;
  }
  TempDir dir;
};

TEST_F(XmlStoreFiles, StoredDocumentParsesBackTheSame) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  const char* tricky[] = {"a & b < c > d", "  padded  ", "   ", "quote \" and '",
                          "line1\nline2", "cr\r\nlf\r", "tab\there", "caf\xC3\xA9", "]]> end"};
  int i = 0;
  for (const char* text : tricky) {
    const std::string path = "Values/V" + std::to_string(i++);
    ASSERT_TRUE(doc.SetValue(path.c_str(), text, true));
  }
  ASSERT_TRUE(doc.SetValue("Mixed", "before", true));
  E mixed = doc.GetNode("Mixed");
  doc.CreateNode(mixed, "Inner", false);
  doc.CreateTextNode("after", mixed);
  const std::string before = Text(doc);
  const std::string path = dir / "doc.xml";
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  EXPECT_EQ(ReadTextFile(path), before);

  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(path.c_str()), 0);
  EXPECT_EQ(Text(back), before);
  i = 0;
  for (const char* text : tricky) {
    const std::string p = "Values/V" + std::to_string(i++);
    EXPECT_EQ(Value(back, p.c_str()), text) << p;
  }
  EXPECT_STREQ(back.GetFileName(), path.c_str());
  EXPECT_TRUE(Strays({"doc.xml"}).empty());
}

TEST_F(XmlStoreFiles, BackslashPathsReachTheFolder) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><Port>7070</Port></Vexilo>"));
  const std::string windowsStyle = dir.str() + "\\vexilo.xml";
  ASSERT_EQ(doc.Store(windowsStyle.c_str()), 0);
  ASSERT_TRUE(std::filesystem::exists(dir / "vexilo.xml"));
  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(windowsStyle.c_str()), 0);
  EXPECT_EQ(Value(back, "Port"), "7070");
}

TEST_F(XmlStoreFiles, FailedParseLeavesTheObjectEmpty) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo><A>1</A></Vexilo>"));
  EXPECT_NE(doc.ParseFile((dir / "missing.xml").c_str()), 0);
  EXPECT_FALSE(doc.GetRootNode().IsFound());

  WriteTextFile(dir / "empty.xml", "");
  WriteTextFile(dir / "broken.xml", "<Vexilo><Global></Vexilo>");
  WriteTextFile(dir / "text.xml", "Port=7070\n");
  for (const char* name : {"empty.xml", "broken.xml", "text.xml"}) {
    ASSERT_TRUE(doc.Parse("<Vexilo><A>1</A></Vexilo>"));
    EXPECT_NE(doc.ParseFile((dir / name).c_str()), 0) << name;
    EXPECT_FALSE(doc.GetRootNode().IsFound()) << name;
    EXPECT_EQ(Value(doc, "A"), "") << name;
  }
  EXPECT_NE(doc.ParseFile(dir.str().c_str()), 0);  // a directory is no document
}

TEST_F(XmlStoreFiles, BrokenFileIsReplacedByABlankDocument) {
  // The counter stores' recovery: blank document, store, parse again.
  const std::string path = dir / "sitecounter.xml";
  WriteTextFile(path, "");
  CSecureXMLParser doc;
  ASSERT_NE(doc.ParseFile(path.c_str()), 0);
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  ASSERT_EQ(doc.ParseFile(path.c_str()), 0);
  EXPECT_EQ(doc.GetValueLong("Global/AdSize"), 0);
  bool created = false;
  doc.CreateNode("Global/StatStartTime", created, false);
  ASSERT_TRUE(doc.SetValue("Global/StatStartTime", "1321563649", true));
  ASSERT_EQ(doc.Store(), 0);
  CSecureXMLParser other;
  ASSERT_EQ(other.ParseFile(path.c_str()), 0);
  EXPECT_EQ(Value(other, "Global/StatStartTime"), "1321563649");
}

TEST_F(XmlStoreFiles, StoreFailureKeepsTheOldFile) {
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  EXPECT_NE(doc.Store((dir / "no-such-dir/doc.xml").c_str()), 0);
  EXPECT_NE(doc.Store(), 0);  // nothing remembered yet
  const std::string path = dir / "doc.xml";
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  std::filesystem::create_directory(dir / "doc.xml.dir");
  // A target that cannot be replaced (a directory) fails and leaves no temporary.
  EXPECT_NE(doc.Store((dir / "doc.xml.dir").c_str()), 0);
  EXPECT_TRUE(Strays({"doc.xml", "doc.xml.dir"}).empty());
  EXPECT_STREQ(doc.GetFileName(), path.c_str());
}

TEST_F(XmlStoreFiles, StoreOfPartsReplacesDocumentAndFile) {
  const std::string path = dir / "parts.xml";
  CSecureXMLParser doc;
  ASSERT_TRUE(doc.Parse("<Vexilo/>"));
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  std::vector<CStringBuffer> parts;
  parts.emplace_back("<Vexilo><Global>");
  parts.emplace_back("<History>3</History>");
  parts.emplace_back("</Global></Vexilo>");
  ASSERT_EQ(doc.Store(parts), 0);
  EXPECT_EQ(doc.GetValueInt("Global/History"), 3);
  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(path.c_str()), 0);
  EXPECT_EQ(back.GetValueInt("Global/History"), 3);

  std::vector<CStringBuffer> broken;
  broken.emplace_back("<Vexilo><Global>");
  EXPECT_NE(doc.Store(broken), 0);
  EXPECT_EQ(doc.GetValueInt("Global/History"), 3);
}

TEST_F(XmlStoreFiles, WriteToFileWritesTheGivenBytes) {
  CSecureXMLParser doc;
  const std::string path = dir / "raw.txt";
  ASSERT_EQ(doc.WriteToFile(path.c_str(), "abcdef", 3), 0);
  EXPECT_EQ(ReadTextFile(path), "abc");
  ASSERT_EQ(doc.WriteToFile(path.c_str(), "xy", -1), 0);
  EXPECT_EQ(ReadTextFile(path), "xy");
}

TEST_F(XmlStoreFiles, BlankDocumentFromCreateBlank) {
  CSecureXMLParser doc;
  ASSERT_EQ(doc.CreateBlank(), 0);
  const std::string path = dir / "blank.xml";
  ASSERT_EQ(doc.Store(path.c_str()), 0);
  CSecureXMLParser back;
  ASSERT_EQ(back.ParseFile(path.c_str()), 0);
  EXPECT_EQ(Name(back, back.GetRootNode()), "Vexilo");
}

}  // namespace
