#include "paths.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "platform/platform.h"

namespace fs = std::filesystem;

namespace vxhost {
namespace {

// $VARIABLE when it names an absolute path, else $HOME/fallback.
std::string BaseFolder(const char* variable, const char* fallback) {
  const char* value = std::getenv(variable);
  if (value != nullptr && value[0] == '/') return value;
  const char* home = std::getenv("HOME");
  if (home == nullptr || home[0] == '\0') return std::string();
  return (fs::path(home) / fallback).string();
}

std::string Within(const std::string& base, const char* name) {
  return base.empty() ? base : (fs::path(base) / name).string();
}

}  // namespace

std::string DefaultDataFolder() {
  return Within(BaseFolder("XDG_DATA_HOME", ".local/share"), "vxproxy");
}
std::string DefaultLogFolder() {
  return Within(BaseFolder("XDG_STATE_HOME", ".local/state"), "vxproxy");
}
std::string UserConfigFolder() { return BaseFolder("XDG_CONFIG_HOME", ".config"); }

std::string ProgramPath() {
  char self[4096] = {};
  const DWORD length = os::GetModuleFileNameA(nullptr, self, sizeof self);
  if (length == 0 || length >= sizeof self) return std::string();
  return os::NativePath(self);
}

std::string FindShippedFile(const std::string& name, const std::string& sourceName,
                            std::string* tried) {
  std::vector<std::string> places;
  const std::string program = ProgramPath();
  if (!program.empty()) {
    places.push_back((fs::path(program).parent_path().parent_path() / "share/vxproxy" / name)
                         .lexically_normal()
                         .string());
  }
#ifdef VX_SOURCE_DIR
  places.push_back((fs::path(VX_SOURCE_DIR) / "data" / sourceName).string());
#endif
  for (const std::string& place : places) {
    std::error_code error;
    if (fs::is_regular_file(place, error)) return place;
  }
  if (tried != nullptr) {
    tried->clear();
    for (const std::string& place : places) *tried += (tried->empty() ? "" : " and ") + place;
  }
  return std::string();
}

bool LoadShippedTemplate(const std::string& name, const std::string& sourceName,
                         const std::string& key, const std::string& value, std::string* text,
                         std::string* problem) {
  std::string tried;
  const std::string path = FindShippedFile(name, sourceName, &tried);
  if (path.empty()) {
    *problem = name + " is missing (looked for " + tried + "); reinstall vxproxy";
    return false;
  }
  std::string reason;
  if (!ReadWholeFile(path, true, text, &reason)) {
    *problem = path + ": " + reason;
    return false;
  }
  const std::string token = "@" + key + "@";
  for (std::size_t at = text->find(token); at != std::string::npos;
       at = text->find(token, at + value.size())) {
    text->replace(at, token.size(), value);
  }
  return true;
}

bool PrepareFolder(const std::string& folder, std::string* problem) {
  std::error_code error;
  if (fs::exists(folder, error) && !fs::is_directory(folder, error)) {
    *problem = "it is not a folder";
    return false;
  }
  fs::create_directories(folder, error);
  if (error) {
    *problem = error.message();
    return false;
  }
  // Whether files can be made there shows only by making one.
  std::random_device random;
  const fs::path probe = fs::path(folder) / (".vxproxy-probe-" + std::to_string(random()));
  {
    std::ofstream out(probe);
    if (!out) {
      *problem = "no file can be created in it (check its permissions)";
      return false;
    }
  }
  fs::remove(probe, error);
  return true;
}

bool ReadWholeFile(const std::string& path, bool required, std::string* text,
                   std::string* problem) {
  text->clear();
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) {
    if (required) *problem = "it does not exist";
    return !required;
  }
  if (!fs::is_regular_file(status)) {
    *problem = "it is not a regular file";
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *problem = "it cannot be read (check its permissions)";
    return false;
  }
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad()) {
    *problem = "reading it failed";
    return false;
  }
  return true;
}

bool ProbeFile(const std::string& path, bool* present, std::string* problem, bool forWriting) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  *present = fs::exists(status);
  if (!*present) return true;
  if (!fs::is_regular_file(status)) {
    *problem = "it is not a regular file";
    return false;
  }
  if (forWriting ? !std::ofstream(path, std::ios::binary | std::ios::app)
                 : !std::ifstream(path, std::ios::binary)) {
    *problem = forWriting ? "it cannot be written (check its permissions)"
                          : "it cannot be read (check its permissions)";
    return false;
  }
  return true;
}

std::string FileIn(const std::string& folder, const std::string& name) {
  return (fs::path(folder) / name).string();
}

bool WriteFileAtomically(const std::string& path, const std::string& text, std::string* problem) {
  const fs::path target(path);
  std::random_device random;
  const fs::path temporary = target.parent_path() / ("." + target.filename().string() + ".new-" +
                                                     std::to_string(random()));
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) {
      *problem =
          "no file can be created in " + target.parent_path().string() + " (check its permissions)";
      return false;
    }
    out << text;
    out.close();
    if (!out) {
      std::error_code ignored;
      fs::remove(temporary, ignored);
      *problem = "writing " + temporary.string() + " failed (is the disk full?)";
      return false;
    }
  }
  std::error_code error;
  fs::rename(temporary, target, error);
  if (error) {
    std::error_code ignored;
    fs::remove(temporary, ignored);
    *problem = error.message();
    return false;
  }
  return true;
}

std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

}  // namespace vxhost
