// What the two counter files share: the blank document, how their numbers are
// read, how a document is opened, and the semaphore that guards
// sitecounter.xml between processes. Header-only, so that the host's "stats"
// command reads the files exactly as the module does without linking it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include "vxproxy/stringbuffer.h"
#include "vxproxy/xmlstore.h"

namespace vxstats {

constexpr char kBlankDocument[] = "<Vexilo/>";
constexpr char kCounterLockName[] = "VxCntrLock";
constexpr unsigned long kCounterLockTimeoutMs = 3000;

// Leading blanks are skipped; a text that is no number reads 0.
inline std::uint64_t ParseU64(const char* text) { return std::strtoull(text, nullptr, 10); }
inline int ParseInt(const char* text) { return static_cast<int>(std::strtoll(text, nullptr, 10)); }

// The trimmed text of the element at path under from; empty when absent.
inline std::string ValueText(CVxXML& doc, CVxXMLElement& from, const char* path) {
  CBufStream text;
  doc.GetValue(from, path, text);
  text.Trim();
  return text.GetBuffer();
}

inline std::uint64_t ReadU64(CVxXML& doc, CVxXMLElement& from, const char* path) {
  return ParseU64(ValueText(doc, from, path).c_str());
}

// The element of that name; when absent, createPath is created with its
// parents and the name looked up again. Not found when even that fails.
inline CVxXMLElement FindOrCreate(CVxXML& doc, const char* name, const char* createPath) {
  CVxXMLElement found = doc.GetNodeByName(name);
  if (!found.IsFound()) {
    bool created = false;
    doc.CreateNode(createPath, created, false);
    found = doc.GetNodeByName(name);
  }
  return found;
}

// Parses the file; one that is missing or broken is replaced by a blank
// document (its old content is lost) and read back. True when the final parse
// succeeded.
inline bool OpenCounterDocument(CSecureXMLParser& doc, const char* path) {
  const std::string name(path ? path : "");
  if (doc.ParseFile(name.c_str()) == 0) return true;
  doc.Parse(kBlankDocument);
  doc.Store(name.c_str());
  return doc.ParseFile(name.c_str()) == 0;
}

}  // namespace vxstats
