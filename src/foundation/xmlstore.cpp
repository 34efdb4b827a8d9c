#include "vxproxy/xmlstore.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>
#include <string>

#include "platform/platform.h"

namespace {

// A stored document must parse back exactly: whitespace-only text of an
// element that has nothing else is kept (a value of blanks), and line ends
// are not normalised (a value holding a carriage return).
constexpr unsigned kParseOptions =
    (pugi::parse_default | pugi::parse_ws_pcdata_single) & ~pugi::parse_eol;
constexpr char kBlankDocument[] = "<Vexilo/>";

std::uint32_t NextSerial() {
  static std::atomic<std::uint32_t> last{0};
  std::uint32_t serial = ++last;
  while (serial == 0) serial = ++last;  // 0 is reserved for "not found"
  return serial;
}

struct BufferWriter : pugi::xml_writer {
  explicit BufferWriter(CBufStream& out) : out_(out) {}
  void write(const void* data, size_t size) override {
    out_.AddString(static_cast<const char*>(data), static_cast<int>(size));
  }
  CBufStream& out_;
};

bool IsElement(pugi::xml_node n) { return n.type() == pugi::node_element; }

pugi::xml_node FirstChildElement(pugi::xml_node parent, const char* name, std::size_t len) {
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
    if (IsElement(c) && std::strlen(c.name()) == len && std::strncmp(c.name(), name, len) == 0) {
      return c;
    }
  }
  return pugi::xml_node();
}

// Whether the text can be an element name that parses back. Elements are
// never created under other names: one such element (a site named by its
// address, "127.0.0.1") would make the whole stored file unreadable.
bool IsElementName(const char* name, std::size_t len) {
  const auto isStart = [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
  };
  if (len == 0 || !isStart(static_cast<unsigned char>(name[0]))) return false;
  for (std::size_t i = 1; i < len; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (!isStart(c) && !(c >= '0' && c <= '9') && c != '-' && c != '.') return false;
  }
  return true;
}

// Calls step(name, length) for each name of the path; "" and "." are skipped.
template <typename Step>
bool ForEachName(const char* path, Step step) {
  const char* p = path;
  while (*p != '\0') {
    const char* end = p;
    while (*end != '\0' && *end != '/' && *end != '\\') ++end;
    const std::size_t len = static_cast<std::size_t>(end - p);
    if (len > 0 && !(len == 1 && *p == '.')) {
      if (!step(p, len)) return false;
    }
    p = (*end == '\0') ? end : end + 1;
  }
  return true;
}

// Follows the path from base. With create, missing elements are appended (and
// created is set); always adds the last name as a new element even when one
// exists.
pugi::xml_node Walk(pugi::xml_node base, const char* path, bool create, bool always,
                    bool* created) {
  if (!base || path == nullptr) return pugi::xml_node();
  if (*path == '/') base = base.root();  // the document node
  // Find the last name so that "always" applies to it only.
  const char* lastName = nullptr;
  ForEachName(path, [&](const char* name, std::size_t) {
    lastName = name;
    return true;
  });
  pugi::xml_node node = base;
  const bool ok = ForEachName(path, [&](const char* name, std::size_t len) {
    if (len == 2 && name[0] == '.' && name[1] == '.') {
      node = node.parent();
      return static_cast<bool>(node);
    }
    pugi::xml_node next;
    if (!(always && name == lastName)) next = FirstChildElement(node, name, len);
    if (!next) {
      // The document node takes exactly one element.
      if (!create || (node.type() == pugi::node_document && node.find_child(IsElement))) {
        return false;
      }
      if (!IsElementName(name, len)) return false;
      next = node.append_child(std::string(name, len).c_str());
      if (!next) return false;
      if (created != nullptr) *created = true;
    }
    node = next;
    return true;
  });
  if (!ok || node.type() == pugi::node_document) return pugi::xml_node();
  return node;
}

void CollectAll(pugi::xml_node base, const char* path, std::vector<pugi::xml_node>& found) {
  found.clear();
  if (!base || path == nullptr) return;
  if (*path == '/') base = base.root();
  found.push_back(base);
  ForEachName(path, [&](const char* name, std::size_t len) {
    std::vector<pugi::xml_node> next;
    for (pugi::xml_node n : found) {
      if (len == 2 && name[0] == '.' && name[1] == '.') {
        if (n.parent()) next.push_back(n.parent());
        continue;
      }
      for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
        if (IsElement(c) && std::strlen(c.name()) == len && std::strncmp(c.name(), name, len) == 0) {
          next.push_back(c);
        }
      }
    }
    found.swap(next);
    return !found.empty();
  });
  std::erase_if(found, [](pugi::xml_node n) { return n.type() == pugi::node_document; });
}

// An empty value leaves the element without text: an empty text node would
// be stored as "<a></a>" and read back as "<a />", another document.
bool SetText(pugi::xml_node element, const char* text) {
  if (!element) return false;
  if (text == nullptr || *text == '\0') {
    if (const pugi::xml_node node = element.text().data()) element.remove_child(node);
    return true;
  }
  return element.text().set(text);
}

void SetOut(CBufStream& out, const char* text) {
  out.Empty();
  out.AddString(text);
}

// Values wrap like the unsigned 64-bit counters they mostly are, so a
// counter above the signed range reads back with all its bits.
long long ParseDecimal(const char* text) {
  return static_cast<long long>(std::strtoull(text, nullptr, 10));
}

}  // namespace

struct VxXMLDocument {
  pugi::xml_document doc;
  std::uint32_t serial = NextSerial();
};

// Converts between element handles and pugixml nodes. A handle carries the
// node's address in its first two words and the serial of the document
// version it came from in the third, so stale and foreign handles are
// recognised instead of followed.
struct VxXMLAccess {
  static CVxXMLElement Make(const VxXMLDocument* d, pugi::xml_node n) {
    CVxXMLElement e;
    if (d == nullptr || !n) return e;
    const auto bits = reinterpret_cast<std::uintptr_t>(n.internal_object());
    e.words_[0] = static_cast<std::uint32_t>(bits);
    e.words_[1] = static_cast<std::uint32_t>(static_cast<std::uint64_t>(bits) >> 32);
    e.words_[2] = d->serial;
    e.words_[3] = static_cast<std::uint32_t>(n.type());
    return e;
  }
  static pugi::xml_node Node(const VxXMLDocument* d, const CVxXMLElement& e) {
    if (d == nullptr || !e.IsFound() || e.words_[2] != d->serial) return pugi::xml_node();
    const std::uint64_t bits =
        (static_cast<std::uint64_t>(e.words_[1]) << 32) | static_cast<std::uint64_t>(e.words_[0]);
    return pugi::xml_node(reinterpret_cast<pugi::xml_node_struct*>(static_cast<std::uintptr_t>(bits)));
  }
  static CVectorWrapper* Wrap(std::vector<CVxXMLElement>&& items) {
    return new CVectorWrapper(std::move(items));
  }
};

CVectorWrapper::CVectorWrapper(std::vector<CVxXMLElement>&& items) : items_(std::move(items)) {
  first_ = items_.data();
  last_ = items_.data() + items_.size();
}

namespace {

pugi::xml_node Root(const VxXMLDocument* d) {
  return d ? d->doc.document_element() : pugi::xml_node();
}

std::vector<CVxXMLElement> Handles(const VxXMLDocument* d, const std::vector<pugi::xml_node>& nodes) {
  std::vector<CVxXMLElement> out;
  out.reserve(nodes.size());
  for (pugi::xml_node n : nodes) out.push_back(VxXMLAccess::Make(d, n));
  return out;
}

std::vector<pugi::xml_node> ChildElements(pugi::xml_node n) {
  std::vector<pugi::xml_node> children;
  for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
    if (IsElement(c)) children.push_back(c);
  }
  return children;
}

bool ReadWholeFile(const char* path, std::string& out) {
  if (path == nullptr || !os::FileExists(path)) return false;
  std::FILE* in = std::fopen(os::NativePath(path).c_str(), "rb");
  if (in == nullptr) return false;
  char chunk[16384];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) out.append(chunk, got);
  const bool failed = std::ferror(in) != 0;
  std::fclose(in);
  return !failed;
}

bool WriteWholeFile(const std::string& nativePath, const char* data, std::size_t size) {
  std::FILE* out = std::fopen(nativePath.c_str(), "wb");
  if (out == nullptr) return false;
  const bool written = std::fwrite(data, 1, size, out) == size;
  return std::fclose(out) == 0 && written;
}

}  // namespace

// ------------------------------------------------------------------ CVxXML --

CVxXML::CVxXML() : document_(nullptr) {}

CVxXML::CVxXML(const CVxXML& other) : document_(nullptr), fileName_(other.fileName_) {
  if (other.document_ != nullptr) {
    document_ = new VxXMLDocument;
    document_->doc.reset(other.document_->doc);
  }
}

CVxXML& CVxXML::operator=(const CVxXML& other) {
  if (this == &other) return *this;
  VxXMLDocument* copy = nullptr;
  if (other.document_ != nullptr) {
    copy = new VxXMLDocument;
    copy->doc.reset(other.document_->doc);
  }
  delete document_;
  document_ = copy;
  fileName_ = other.fileName_;
  return *this;
}

CVxXML::~CVxXML() { delete document_; }

bool CVxXML::Load(const char* text, std::size_t length, unsigned parseOptions) {
  if (text == nullptr) return false;
  auto* fresh = new VxXMLDocument;
  const pugi::xml_parse_result result =
      fresh->doc.load_buffer(text, length, parseOptions, pugi::encoding_auto);
  if (!result || !fresh->doc.document_element()) {
    delete fresh;
    return false;
  }
  delete document_;
  document_ = fresh;
  return true;
}

int CVxXML::ParseFileWith(const char* path, unsigned parseOptions) {
  if (path == nullptr) {
    Destroy();
    return 1;
  }
  const std::string name(path);  // path may point into fileName_
  fileName_ = name.c_str();
  std::string text;
  if (!ReadWholeFile(name.c_str(), text)) {
    Destroy();
    return 2;
  }
  if (!Load(text.data(), text.size(), parseOptions)) {
    Destroy();
    return 3;
  }
  return 0;
}

void CVxXML::Serialize(CStringBuffer& out) {
  out.Initialize();
  if (document_ == nullptr) return;
  BufferWriter writer(out);
  document_->doc.save(writer, "\t", pugi::format_default, pugi::encoding_utf8);
}

int CVxXML::ParseFile(const char* path) { return ParseFileWith(path, kParseOptions); }

bool CVxXML::Parse(const char* text) {
  if (text != nullptr && Load(text, std::strlen(text), kParseOptions)) return true;
  Destroy();
  return false;
}

void CVxXML::Destroy() {
  delete document_;
  document_ = nullptr;
}

void CVxXML::GetNodeName(CVxXMLElement& e, CStringBuffer& out) {
  out = VxXMLAccess::Node(document_, e).name();
}

CVxXMLElement CVxXML::GetRootNode() { return VxXMLAccess::Make(document_, Root(document_)); }

void CVxXML::GetDocument(CStringBuffer& out) { Serialize(out); }

void CVxXML::GetDocument(CVxXMLElement& e, CBufStream& out, bool indent) {
  out.Empty();
  const pugi::xml_node n = VxXMLAccess::Node(document_, e);
  if (!n) return;
  BufferWriter writer(out);
  n.print(writer, "\t", indent ? pugi::format_indent : pugi::format_raw, pugi::encoding_utf8);
}

void CVxXML::GetDocument(CVxXMLElement& e, CBufStream& out) { GetDocument(e, out, true); }

CVxXMLElement CVxXML::GetNodeByName(const char* name) {
  if (document_ == nullptr || name == nullptr) return CVxXMLElement();
  const pugi::xml_node found = document_->doc.find_node(
      [name](pugi::xml_node n) { return IsElement(n) && std::strcmp(n.name(), name) == 0; });
  return VxXMLAccess::Make(document_, found);
}

CVxXMLElement CVxXML::GetNode(const char* path, CVxXMLElement& from) {
  return VxXMLAccess::Make(document_,
                           Walk(VxXMLAccess::Node(document_, from), path, false, false, nullptr));
}

CVxXMLElement CVxXML::GetNode(const char* path) {
  return VxXMLAccess::Make(document_, Walk(Root(document_), path, false, false, nullptr));
}

int CVxXML::GetAllNodes(const char* path, std::vector<CVxXMLElement>& out) {
  std::vector<pugi::xml_node> found;
  CollectAll(Root(document_), path, found);
  out = Handles(document_, found);
  return static_cast<int>(out.size());
}

int CVxXML::GetAllNodes(const char* path, CVxXMLElement& from, std::vector<CVxXMLElement>& out) {
  std::vector<pugi::xml_node> found;
  CollectAll(VxXMLAccess::Node(document_, from), path, found);
  out = Handles(document_, found);
  return static_cast<int>(out.size());
}

void CVxXML::GetText(const char* path, CVxXMLElement& from, CBufStream& out) {
  GetValue(from, path, out);
}

void CVxXML::GetText(const char* path, CBufStream& out) { GetValue(path, out); }

void CVxXML::GetValue(const char* path, CBufStream& out) {
  SetOut(out, Walk(Root(document_), path, false, false, nullptr).text().get());
}

void CVxXML::GetValue(CVxXMLElement& from, const char* path, CBufStream& out) {
  SetOut(out,
         Walk(VxXMLAccess::Node(document_, from), path, false, false, nullptr).text().get());
}

CVxXMLElement CVxXML::CreateNode(const char* path, bool& created, bool /*option*/) {
  return VxXMLAccess::Make(document_, Walk(Root(document_), path, true, false, &created));
}

CVxXMLElement CVxXML::CreateNode(CVxXMLElement& parent, const char* path, bool always) {
  return VxXMLAccess::Make(
      document_, Walk(VxXMLAccess::Node(document_, parent), path, true, always, nullptr));
}

CVxXMLElement CVxXML::CreateNode(const char* path, bool always) {
  return VxXMLAccess::Make(document_, Walk(Root(document_), path, true, always, nullptr));
}

CVectorWrapper* CVxXML::GetAllChildNodes(const char* path) {
  const pugi::xml_node n = Walk(Root(document_), path, false, false, nullptr);
  return VxXMLAccess::Wrap(Handles(document_, ChildElements(n)));
}

int CVxXML::GetAllChildNodes(CVxXMLElement& e, std::vector<CVxXMLElement>& out) {
  out = Handles(document_, ChildElements(VxXMLAccess::Node(document_, e)));
  return static_cast<int>(out.size());
}

int CVxXML::GetAllChildNodes(const char* path, std::vector<CVxXMLElement>& out) {
  out = Handles(document_, ChildElements(Walk(Root(document_), path, false, false, nullptr)));
  return static_cast<int>(out.size());
}

void CVxXML::FreeWrapper(CVectorWrapper* wrapper) { delete wrapper; }

bool CVxXML::SetValue(const char* path, unsigned long value) {
  return SetValue(path, std::to_string(value).c_str(), true);
}

bool CVxXML::SetValue(const char* path, long value) {
  return SetValue(path, std::to_string(value).c_str(), true);
}

bool CVxXML::SetValue(const char* path, int value) {
  return SetValue(path, std::to_string(value).c_str(), true);
}

bool CVxXML::SetValue(const char* path, const char* text, bool create) {
  return SetText(Walk(Root(document_), path, create, false, nullptr), text);
}

bool CVxXML::SetValue(CVxXMLElement& from, const char* path, const char* text, bool create) {
  return SetText(Walk(VxXMLAccess::Node(document_, from), path, create, false, nullptr), text);
}

bool CVxXML::SetValue(const char* path, CVxXMLElement& from, const char* text, bool create) {
  return SetValue(from, path, text, create);
}

int CVxXML::GetValueInt(CVxXMLElement& from, char* path) {
  return static_cast<int>(ParseDecimal(
      Walk(VxXMLAccess::Node(document_, from), path, false, false, nullptr).text().get()));
}

int CVxXML::GetValueInt(const char* path) {
  return static_cast<int>(
      ParseDecimal(Walk(Root(document_), path, false, false, nullptr).text().get()));
}

long CVxXML::GetValueLong(CVxXMLElement& from, const char* path) {
  return static_cast<long>(ParseDecimal(
      Walk(VxXMLAccess::Node(document_, from), path, false, false, nullptr).text().get()));
}

long CVxXML::GetValueLong(const char* path) {
  return static_cast<long>(
      ParseDecimal(Walk(Root(document_), path, false, false, nullptr).text().get()));
}

const char* CVxXML::GetFileName() { return fileName_.GetBuffer(); }

CVxXMLElement CVxXML::CreateTextNode(const char* text, CVxXMLElement& parent) {
  pugi::xml_node p = VxXMLAccess::Node(document_, parent);
  if (!IsElement(p)) return CVxXMLElement();
  pugi::xml_node t = p.append_child(pugi::node_pcdata);
  t.set_value(text ? text : "");
  return VxXMLAccess::Make(document_, t);
}

int CVxXML::Store() {
  if (fileName_.GetSize() == 0) return 1;
  const std::string name(fileName_.GetBuffer());
  return Store(name.c_str());
}

int CVxXML::Store(const char* path) {
  if (path == nullptr || *path == '\0') return 1;
  const std::string name(path);  // path may point into fileName_
  CStringBuffer text;
  Serialize(text);
  const int result = WriteToFile(name.c_str(), text);
  if (result == 0) fileName_ = name.c_str();
  return result;
}

int CVxXML::WriteToFile(const char* path, const char* text, int length) {
  if (path == nullptr) return 1;
  if (text == nullptr) text = "";
  const std::size_t size = length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
  return WriteWholeFile(os::NativePath(path), text, size) ? 0 : 1;
}

int CVxXML::WriteToFile(const char* path, CStringBuffer& text) {
  return WriteToFile(path, text.GetBuffer(), text.GetSize());
}

// -------------------------------------------------------- CSecureXMLParser --

CSecureXMLParser::CSecureXMLParser() : parseOptions_(kParseOptions) {}

CSecureXMLParser::~CSecureXMLParser() = default;

int CSecureXMLParser::ParseFile(const char* path) { return ParseFileWith(path, parseOptions_); }

bool CSecureXMLParser::Parse(const char* text) {
  if (text != nullptr && Load(text, std::strlen(text), parseOptions_)) return true;
  Destroy();
  return false;
}

void CSecureXMLParser::Destroy() { CVxXML::Destroy(); }

int CSecureXMLParser::Store(const char* path) { return CVxXML::Store(path); }

int CSecureXMLParser::CreateBlank() { return Parse(kBlankDocument) ? 0 : 1; }

int CSecureXMLParser::Store(std::vector<CStringBuffer>& parts) {
  CStringBuffer joined;
  for (CStringBuffer& part : parts) joined.AddString(part.GetBuffer(), part.GetSize());
  if (!Load(joined.GetBuffer(), static_cast<std::size_t>(joined.GetSize()), parseOptions_)) {
    return 1;
  }
  return Store();
}

int CSecureXMLParser::WriteToFile(const char* path, CStringBuffer& text) {
  if (path == nullptr || *path == '\0') return 1;
  const std::string target = os::NativePath(path);
  // A name of our own beside the target: two stores at once, even from two
  // processes, never share a temporary file.
  static std::atomic<std::uint32_t> counter{0};
  const auto stamp = static_cast<unsigned long long>(
      std::chrono::steady_clock::now().time_since_epoch().count());
  char suffix[64];
  const auto place = static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(&counter));
  std::snprintf(suffix, sizeof suffix, ".~%llx-%llx-%x.tmp", stamp, place & 0xFFFFFFFFull,
                static_cast<unsigned>(counter.fetch_add(1)));
  const std::string temporary = target + suffix;
  if (!WriteWholeFile(temporary, text.GetBuffer(), static_cast<std::size_t>(text.GetSize()))) {
    std::remove(temporary.c_str());
    return 1;
  }
  if (std::rename(temporary.c_str(), target.c_str()) != 0) {
    std::remove(temporary.c_str());
    return 1;
  }
  return 0;
}
