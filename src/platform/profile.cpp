// Private-profile (ini) files: "[section]" lines followed by "key=value"
// lines. Names compare without regard to letter case; blanks around names
// and values do not count; a value in matching quotes loses them. Writing
// keeps every other line of the file as it was.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace os {
namespace {

constexpr char kUtf8Mark[] = "\xEF\xBB\xBF";
// New files get the line ends that Windows tools write and expect.
constexpr char kDefaultLineEnd[] = "\r\n";

struct Line {
  std::string text;     // without its line end
  std::string lineEnd;  // "\r\n", "\n" or empty for an unterminated last line
};

struct Profile {
  std::string mark;  // a leading byte-order mark, kept on rewrite
  std::vector<Line> lines;
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string Trim(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

bool SameName(const std::string& a, const char* b) {
  const std::size_t length = std::strlen(b);
  if (a.size() != length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

// "[name]" gives true and the trimmed name.
bool SectionName(const std::string& line, std::string* name) {
  const std::string trimmed = Trim(line);
  if (trimmed.empty() || trimmed[0] != '[') return false;
  const std::size_t close = trimmed.find(']');
  *name = Trim(trimmed.substr(1, close == std::string::npos ? std::string::npos : close - 1));
  return true;
}

// "key=value" gives true with the trimmed key and value.
bool KeyValue(const std::string& line, std::string* key, std::string* value) {
  const std::string trimmed = Trim(line);
  if (trimmed.empty() || trimmed[0] == ';') return false;
  const std::size_t equals = trimmed.find('=');
  if (equals == std::string::npos) return false;
  *key = Trim(trimmed.substr(0, equals));
  *value = Trim(trimmed.substr(equals + 1));
  if (value->size() >= 2 && (value->front() == '"' || value->front() == '\'') &&
      value->back() == value->front()) {
    *value = value->substr(1, value->size() - 2);
  }
  return true;
}

bool ReadProfile(const std::string& path, Profile* profile) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t pos = 0;
  if (content.compare(0, 3, kUtf8Mark) == 0) {
    profile->mark = kUtf8Mark;
    pos = 3;
  }
  while (pos < content.size()) {
    const std::size_t newline = content.find('\n', pos);
    Line line;
    if (newline == std::string::npos) {
      line.text = content.substr(pos);
      pos = content.size();
    } else {
      std::size_t end = newline;
      if (end > pos && content[end - 1] == '\r') --end;
      line.text = content.substr(pos, end - pos);
      line.lineEnd = content.substr(end, newline + 1 - end);
      pos = newline + 1;
    }
    profile->lines.push_back(std::move(line));
  }
  return true;
}

// Index of the first "[section]" line, or -1.
long FindSection(const Profile& profile, const char* section) {
  std::string name;
  for (std::size_t i = 0; i < profile.lines.size(); ++i) {
    if (SectionName(profile.lines[i].text, &name) && SameName(name, section)) {
      return static_cast<long>(i);
    }
  }
  return -1;
}

// One past the last line of the section whose header is at index header.
std::size_t SectionEnd(const Profile& profile, std::size_t header) {
  std::string name;
  std::size_t i = header + 1;
  while (i < profile.lines.size() && !SectionName(profile.lines[i].text, &name)) ++i;
  return i;
}

// Copies text into a caller's buffer of size bytes, cut to fit.
DWORD CopyOut(const std::string& text, char* buffer, DWORD size) {
  const std::size_t length = text.size() < size ? text.size() : size - 1;
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
  return static_cast<DWORD>(length);
}

// Copies a list of names, each ended by NUL, with one more NUL at the end.
// A list cut to fit still ends with two NULs.
DWORD CopyList(const std::vector<std::string>& names, char* buffer, DWORD size) {
  std::string list;
  for (const std::string& name : names) {
    list += name;
    list.push_back('\0');
  }
  if (list.size() + 1 <= size) {
    std::memcpy(buffer, list.data(), list.size());
    buffer[list.size()] = '\0';
    return static_cast<DWORD>(list.size());
  }
  if (size < 2) {
    buffer[0] = '\0';
    return 0;
  }
  std::memcpy(buffer, list.data(), size - 2);
  buffer[size - 2] = '\0';
  buffer[size - 1] = '\0';
  return size - 2;
}

std::mutex g_writeLock;
std::atomic<unsigned> g_tempCounter{0};

bool WriteProfile(const std::string& path, const Profile& profile) {
  std::string content = profile.mark;
  for (const Line& line : profile.lines) {
    content += line.text;
    content += line.lineEnd;
  }
  // Written beside the target and renamed over it, so that a reader in
  // another process sees the old file or the new one, never half of it.
  char suffix[64];
  std::snprintf(suffix, sizeof(suffix), ".%ld.%u.tmp", static_cast<long>(::getpid()),
                g_tempCounter.fetch_add(1));
  const std::string temp = path + suffix;
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.flush();
    if (!out) {
      out.close();
      std::remove(temp.c_str());
      return false;
    }
  }
  if (std::rename(temp.c_str(), path.c_str()) != 0) {
    std::remove(temp.c_str());
    return false;
  }
  return true;
}

std::string LineEndOf(const Profile& profile) {
  for (const Line& line : profile.lines) {
    if (!line.lineEnd.empty()) return line.lineEnd;
  }
  return kDefaultLineEnd;
}

}  // namespace

DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue,
                               char* buffer, DWORD size, const char* path) {
  if (buffer == nullptr || size == 0) return 0;
  Profile profile;
  const bool loaded = path != nullptr && ReadProfile(NativePath(path), &profile);

  std::string name;
  std::string value;
  if (section == nullptr) {
    std::vector<std::string> sections;
    for (const Line& line : profile.lines) {
      if (SectionName(line.text, &name)) sections.push_back(name);
    }
    return CopyList(sections, buffer, size);
  }

  const long header = loaded ? FindSection(profile, section) : -1;
  if (key == nullptr) {
    std::vector<std::string> keys;
    if (header >= 0) {
      const std::size_t end = SectionEnd(profile, static_cast<std::size_t>(header));
      for (std::size_t i = static_cast<std::size_t>(header) + 1; i < end; ++i) {
        if (KeyValue(profile.lines[i].text, &name, &value)) keys.push_back(name);
      }
    }
    return CopyList(keys, buffer, size);
  }

  if (header >= 0) {
    const std::size_t end = SectionEnd(profile, static_cast<std::size_t>(header));
    for (std::size_t i = static_cast<std::size_t>(header) + 1; i < end; ++i) {
      if (KeyValue(profile.lines[i].text, &name, &value) && SameName(name, key)) {
        return CopyOut(value, buffer, size);
      }
    }
  }
  // The default loses trailing blanks, as Windows does with it.
  std::string fallback = defaultValue == nullptr ? std::string() : std::string(defaultValue);
  while (!fallback.empty() && IsBlank(fallback.back())) fallback.pop_back();
  return CopyOut(fallback, buffer, size);
}

bool WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                const char* path) {
  if (section == nullptr || path == nullptr) return false;
  const std::string nativePath = NativePath(path);
  std::lock_guard<std::mutex> guard(g_writeLock);
  Profile profile;
  ReadProfile(nativePath, &profile);
  const std::string lineEnd = LineEndOf(profile);

  const long header = FindSection(profile, section);
  if (header < 0) {
    // Removing from a section that does not exist leaves the file alone.
    if (key == nullptr || value == nullptr) return true;
    if (!profile.lines.empty() && profile.lines.back().lineEnd.empty()) {
      profile.lines.back().lineEnd = lineEnd;
    }
    profile.lines.push_back(Line{std::string("[") + section + "]", lineEnd});
    profile.lines.push_back(Line{std::string(key) + "=" + value, lineEnd});
    return WriteProfile(nativePath, profile);
  }

  const std::size_t first = static_cast<std::size_t>(header);
  const std::size_t end = SectionEnd(profile, first);
  if (key == nullptr) {
    profile.lines.erase(profile.lines.begin() + static_cast<long>(first),
                        profile.lines.begin() + static_cast<long>(end));
    return WriteProfile(nativePath, profile);
  }

  std::string name;
  std::string current;
  std::size_t lastContent = first;
  for (std::size_t i = first + 1; i < end; ++i) {
    if (KeyValue(profile.lines[i].text, &name, &current) && SameName(name, key)) {
      if (value == nullptr) {
        profile.lines.erase(profile.lines.begin() + static_cast<long>(i));
      } else {
        profile.lines[i].text = std::string(key) + "=" + value;
      }
      return WriteProfile(nativePath, profile);
    }
    if (!Trim(profile.lines[i].text).empty()) lastContent = i;
  }
  if (value == nullptr) return true;
  // A new key goes after the section's last non-blank line, so blank lines
  // that separate it from the next section stay where they are.
  Line& previous = profile.lines[lastContent];
  if (previous.lineEnd.empty()) previous.lineEnd = lineEnd;
  profile.lines.insert(profile.lines.begin() + static_cast<long>(lastContent) + 1,
                       Line{std::string(key) + "=" + value, lineEnd});
  return WriteProfile(nativePath, profile);
}

}  // namespace os
