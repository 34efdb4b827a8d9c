// What the fuzz targets share: a property check that stops the run with a
// message, the input cut into "%%"-separated sections, and a scratch folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/tempdir.h"

// A broken property is a finding like a crash: print it and abort, so that
// libFuzzer saves the input.
#define FUZZ_CHECK(condition, ...)                                         \
  do {                                                                     \
    if (!(condition)) {                                                    \
      std::fprintf(stderr, "property failed at %s:%d: %s\n", __FILE__,     \
                   __LINE__, #condition);                                  \
      std::fprintf(stderr, "" __VA_ARGS__);                                \
      std::fprintf(stderr, "\n");                                          \
      std::abort();                                                        \
    }                                                                      \
  } while (0)

namespace vxfuzz {

inline std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

// The input's sections: lines that start with "%%" separate them, so a seed
// stays a readable text file ("filters.txt", "%%", approved list, ...).
inline std::vector<std::string_view> Sections(std::string_view text) {
  std::vector<std::string_view> sections;
  std::size_t start = 0;
  std::size_t line = 0;
  while (line <= text.size()) {
    const std::size_t end = text.find('\n', line);
    const std::size_t lineEnd = end == std::string_view::npos ? text.size() : end;
    if (text.substr(line, 2) == "%%") {
      sections.push_back(text.substr(start, line - start));
      start = end == std::string_view::npos ? text.size() : end + 1;
    }
    if (end == std::string_view::npos) break;
    line = lineEnd + 1;
  }
  sections.push_back(text.substr(start));
  return sections;
}

// Splits at sep; the pieces keep everything else.
inline std::vector<std::string_view> Split(std::string_view text, char sep) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (std::size_t at; (at = text.find(sep, start)) != std::string_view::npos; start = at + 1) {
    pieces.push_back(text.substr(start, at - start));
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

// One folder per process under TMPDIR (scripts/fuzz.sh gives each run its
// own and removes it afterwards).
inline const TempDir& Scratch() {
  static const TempDir dir;
  return dir;
}

inline void WriteFile(const std::string& path, std::string_view content) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) std::abort();
  if (!content.empty() && std::fwrite(content.data(), 1, content.size(), file) != content.size()) {
    std::abort();
  }
  std::fclose(file);
}

}  // namespace vxfuzz
