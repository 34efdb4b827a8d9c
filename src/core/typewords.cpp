#include "core/typewords.h"

#include <cstring>

namespace {

constexpr const char* kUnknownWord = "unknown";
// What a word gets when even the "unknown" row is gone (tables emptied on
// shut-down): a replacement picture is the safest guess for any kind.
constexpr const char* kFallbackMime = "image/gif";

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool ContainsNoCase(const char* text, const char* needle) {
  const std::size_t n = std::strlen(needle);
  for (; *text != '\0'; ++text) {
    std::size_t i = 0;
    while (i < n && LowerAscii(text[i]) == needle[i]) ++i;
    if (i == n) return true;
  }
  return false;
}

bool StartsWithXDash(const char* word) {
  // The first "x-" in any letter case has to be at the start, which is the
  // same as the word starting with it.
  return LowerAscii(word[0]) == 'x' && word[1] == '-';
}

const std::string* Lookup(const std::map<std::string, std::string>& table, const char* key) {
  auto it = table.find(key);
  return it == table.end() ? nullptr : &it->second;
}

}  // namespace

void FillMimeTable(std::map<std::string, std::string>& mimeTable) {
  static const char* const kRows[][2] = {
      {"gif", "image/gif"}, {"htm", "text/html"},   {"xml", "text/xml"},
      {"css", "text/css"},  {"js", "application/x-javascript"}, {"flv", "video/x-flv"},
      {kUnknownWord, "image/gif"},
  };
  for (const auto& row : kRows) mimeTable.emplace(row[0], row[1]);
}

void FillTypeWordTable(std::map<std::string, std::string>& typeWordTable) {
  static const char* const kRows[][2] = {
      {"html", "htm"},
      {"plain", "htm"},
      {"txt", "htm"},
      {"javascript", "js"},
      {"shockwave-flash", "flv"},
      {"shockwave-flash2-preview", "flv"},
      {"futuresplash", "flv"},
      {"flv", "flv"},
      {"mp4", "flv"},
      {"ms-asf", "flv"},
      {"swf", "flv"},
      {"jpg", "gif"},
      {"jpeg", "gif"},
      {"icon", "gif"},
      {"ico", "gif"},
      {"bmp", "gif"},
      {"icon", "gif"},
      {"psd", "gif"},
      {"svg", "gif"},
      {"tiff", "gif"},
      {"pjpeg", "gif"},
      {"png", "gif"},
  };
  for (const auto& row : kRows) typeWordTable.emplace(row[0], row[1]);
}

void NormalizeTypeWord(const std::map<std::string, std::string>& typeWordTable,
                       CStringBuffer& word) {
  const std::string* value = Lookup(typeWordTable, word.GetBuffer());
  if (value != nullptr && !value->empty()) {
    word = value->c_str();
    return;
  }
  if (!StartsWithXDash(word.GetBuffer())) return;
  value = Lookup(typeWordTable, word.GetBuffer() + 2);
  if (value != nullptr && !value->empty()) {
    word = value->c_str();
  } else {
    word.Move(0, 2);
  }
}

bool IsImageWord(const CStringBuffer& word) {
  for (const char* w : {"gif", "jpg", "jpeg", "ico", "png", "psd", "svg", "tiff", "bmp"}) {
    if (word == w) return true;
  }
  return false;
}

bool IsFlashWord(const CStringBuffer& word) {
  for (const char* w : {"swf", "flv", "f4v"}) {
    if (word == w) return true;
  }
  return ContainsNoCase(word.GetBuffer(), "flash");
}

bool IsPageWord(const CStringBuffer& word) {
  for (const char* w : {"js", "html", "htm", "css", "xml"}) {
    if (word == w) return true;
  }
  return false;
}

bool IsReplaceableType(const CStringBuffer& word) {
  if (word.GetSize() == 0) return false;
  return IsImageWord(word) || IsFlashWord(word) || IsPageWord(word);
}

const char* GetMimeType(const std::map<std::string, std::string>& mimeTable, const char* word) {
  if (word != nullptr) {
    const std::string* value = Lookup(mimeTable, word);
    if (value != nullptr && !value->empty()) return value->c_str();
  }
  const std::string* unknown = Lookup(mimeTable, kUnknownWord);
  return unknown != nullptr && !unknown->empty() ? unknown->c_str() : kFallbackMime;
}

void TypeWordOfPath(const std::map<std::string, std::string>& typeWordTable, const char* path,
                    CStringBuffer& out) {
  const char* slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
  const char* dot = slash != nullptr ? std::strrchr(slash, '.') : nullptr;
  out = dot != nullptr ? dot + 1 : kUnknownWord;
  NormalizeTypeWord(typeWordTable, out);
}
