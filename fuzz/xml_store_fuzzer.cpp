// A document as the XML store reads it from text or from its file, walked
// the way the counter stores and the host walk theirs, changed, stored and
// read back. Section 0 is the document; each line of section 1 is an element
// path to look up, and of section 2 a value to store.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vxproxy/xmlstore.h"

namespace {

std::string Document(CSecureXMLParser& xml) {
  CStringBuffer text;
  xml.GetDocument(text);
  return std::string(text.GetBuffer(), static_cast<std::size_t>(text.GetSize()));
}

std::string Value(CSecureXMLParser& xml, CVxXMLElement& from, const char* path) {
  CBufStream out;
  xml.GetValue(from, path, out);
  return std::string(out.GetBuffer(), static_cast<std::size_t>(out.GetSize()));
}

// Every path is asked of the root and of each element it finds.
void Walk(CSecureXMLParser& xml, const std::string& path) {
  CVxXMLElement root = xml.GetRootNode();
  CVxXMLElement byName = xml.GetNodeByName(path.c_str());
  CStringBuffer name;
  xml.GetNodeName(byName, name);
  std::vector<CVxXMLElement> nodes;
  xml.GetAllNodes(path.c_str(), nodes);
  for (CVxXMLElement& e : nodes) {
    CBufStream out;
    xml.GetDocument(e, out, false);
    xml.GetText("./", e, out);
    Value(xml, e, path.c_str());
    xml.GetValueLong(e, path.c_str());
  }
  CVectorWrapper* children = xml.GetAllChildNodes(path.c_str());
  for (CVxXMLElement& e : *children) xml.GetNodeName(e, name);
  xml.FreeWrapper(children);
  Value(xml, root, path.c_str());
  xml.GetValueInt(path.c_str());
  CVxXMLElement at = xml.GetNode(path.c_str(), root);
  xml.GetAllChildNodes(at, nodes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string_view> sections = vxfuzz::Sections(vxfuzz::AsText(data, size));
  const std::string text(sections[0]);
  std::vector<std::string> paths = {"Global", "Global/History", "./AdSize", "/Vexilo/Global", "..",
                                    "Sites"};
  std::vector<std::string> values = {"0", "18446744073709551615", " ", "a<b&c>\"d'\r\n"};
  for (std::size_t s = 1; s < sections.size() && s <= 2; ++s) {
    for (std::string_view line : vxfuzz::Split(sections[s], '\n')) {
      (s == 1 ? paths : values).push_back(std::string(line.substr(0, line.find('\0'))));
    }
  }

  const std::string file = vxfuzz::Scratch() / "document.xml";
  vxfuzz::WriteFile(file, text);
  CSecureXMLParser fromFile;
  const bool fileParsed = fromFile.ParseFile(file.c_str()) == 0;
  CSecureXMLParser xml;
  // Parse reads a C string: its text ends at the first zero byte.
  if (!xml.Parse(text.c_str())) {
    FUZZ_CHECK(Document(xml).empty());
    if (xml.CreateBlank() != 0) return 0;
  } else if (text.find('\0') == std::string::npos) {
    FUZZ_CHECK(fileParsed, "the text parses, its file does not");
    FUZZ_CHECK(Document(fromFile) == Document(xml));
  }
  for (const std::string& path : paths) Walk(xml, path);

  // As the counter stores keep their documents: a Global element with
  // numbered children, one element per site, values of any text.
  bool created = false;
  CVxXMLElement global = xml.CreateNode("Global/StatStartTime", created, false);
  if (!global.IsFound()) global = xml.GetRootNode();
  std::vector<std::string> stored;
  for (std::size_t i = 0; i < values.size() && i < 16; ++i) {
    const std::string path = "./Value" + std::to_string(i);
    if (xml.SetValue(global, path.c_str(), values[i].c_str(), true)) stored.push_back(path);
  }
  for (const std::string& path : paths) xml.CreateNode(path.c_str(), false);

  // What is stored reads back as it was.
  const std::string before = Document(xml);
  FUZZ_CHECK(xml.Store(file.c_str()) == 0);
  CSecureXMLParser back;
  FUZZ_CHECK(back.ParseFile(file.c_str()) == 0, "a stored document does not parse back");
  FUZZ_CHECK(Document(back) == before, "stored:\n%s\nread back:\n%s", before.c_str(),
             Document(back).c_str());
  CVxXMLElement backGlobal = back.GetNodeByName("StatStartTime");
  if (backGlobal.IsFound() && global == xml.GetNodeByName("StatStartTime")) {
    for (std::size_t i = 0; i < stored.size(); ++i) {
      FUZZ_CHECK(Value(back, backGlobal, stored[i].c_str()) == Value(xml, global, stored[i].c_str()));
    }
  }
  return 0;
}
