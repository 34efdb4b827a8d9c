// Module handles, module file names and the resource tables that modules
// register when they are loaded.
//
// A module handle is the address at which the dynamic loader mapped the
// executable or library, as the base address is on Windows.
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "platform/platform.h"

namespace os {
namespace {

HMODULE BaseOf(const void* address) {
  Dl_info info;
  if (address == nullptr || ::dladdr(address, &info) == 0) return nullptr;
  return info.dli_fbase;
}

// The executable's handle, found through its program headers, which the
// kernel maps inside it.
HMODULE MainModule() {
  static HMODULE const base =
      BaseOf(reinterpret_cast<const void*>(::getauxval(AT_PHDR)));
  return base;
}

HMODULE Canonical(HMODULE module) { return module == nullptr ? MainModule() : module; }

std::string ExecutablePath() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) return std::string();
  return std::string(path, static_cast<std::size_t>(length));
}

std::string ModulePath(HMODULE module) {
  module = Canonical(module);
  if (module == nullptr) return std::string();
  if (module == MainModule()) return ExecutablePath();
  Dl_info info;
  if (::dladdr(module, &info) == 0 || info.dli_fbase != module || info.dli_fname == nullptr) {
    return std::string();
  }
  char resolved[PATH_MAX];
  if (::realpath(info.dli_fname, resolved) == nullptr) return info.dli_fname;
  return resolved;
}

struct ResourceTable {
  const ResourceEntry* entries;
  std::size_t count;
};

std::mutex g_resourceLock;
std::map<HMODULE, ResourceTable>& Resources() {
  static auto* tables = new std::map<HMODULE, ResourceTable>();  // outlives every unload
  return *tables;
}

}  // namespace

DWORD GetModuleFileNameA(HMODULE module, char* buffer, DWORD size) {
  if (buffer == nullptr || size == 0) return 0;
  std::string path = ModulePath(module);
  if (path.empty()) {
    buffer[0] = '\0';
    return 0;
  }
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  // Too small a buffer gets the cut name and the full size back, as on Windows.
  if (path.size() >= size) {
    std::memcpy(buffer, path.data(), size - 1);
    buffer[size - 1] = '\0';
    return size;
  }
  std::memcpy(buffer, path.c_str(), path.size() + 1);
  return static_cast<DWORD>(path.size());
}

HMODULE GetModuleHandleOf(const void* address) {
  return address == nullptr ? MainModule() : BaseOf(address);
}

void RegisterResources(HMODULE module, const ResourceEntry* entries, std::size_t count) {
  std::lock_guard<std::mutex> guard(g_resourceLock);
  Resources()[Canonical(module)] = ResourceTable{entries, entries == nullptr ? 0 : count};
}

void UnregisterResources(HMODULE module) {
  std::lock_guard<std::mutex> guard(g_resourceLock);
  Resources().erase(Canonical(module));
}

const ResourceEntry* FindResourceA(HMODULE module, const char* name, const char* type) {
  if (name == nullptr || type == nullptr) return nullptr;
  std::lock_guard<std::mutex> guard(g_resourceLock);
  const auto found = Resources().find(Canonical(module));
  if (found == Resources().end()) return nullptr;
  const ResourceTable& table = found->second;
  for (std::size_t i = 0; i < table.count; ++i) {
    const ResourceEntry& entry = table.entries[i];
    if (entry.name != nullptr && entry.type != nullptr && std::strcmp(entry.name, name) == 0 &&
        std::strcmp(entry.type, type) == 0) {
      return &entry;
    }
  }
  return nullptr;
}

}  // namespace os
