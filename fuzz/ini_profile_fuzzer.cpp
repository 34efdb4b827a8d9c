// vexilo.ini as the service reads and rewrites it: the port read into a
// small buffer, section and key lists, then the port written back and read
// again, and a key added and removed, with every other line kept.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "platform/platform.h"

namespace {

std::string Read(const char* section, const char* key, const std::string& path, DWORD size) {
  std::string buffer(size, '\x7f');
  const DWORD n = os::GetPrivateProfileStringA(section, key, "7070", buffer.data(), size,
                                               path.c_str());
  FUZZ_CHECK(n < size || size == 0);
  // A value ends with a zero byte, a list with its closing zero.
  if (size >= 1) FUZZ_CHECK(buffer[n] == '\0');
  return buffer.substr(0, n);
}

std::string FileText(const std::string& path) { return ReadTextFile(path); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = vxfuzz::Scratch() / "vexilo.ini";
  vxfuzz::WriteFile(path, vxfuzz::AsText(data, size));

  for (const DWORD bufferSize : {1u, 2u, 10u, 4096u}) {
    Read("Vexilo", "Port", path, bufferSize);
    Read(nullptr, nullptr, path, bufferSize);
    Read("Vexilo", nullptr, path, bufferSize);
  }
  // Every section's keys, as a host lists them.
  const std::string sections = Read(nullptr, nullptr, path, 4096);
  for (std::size_t at = 0; at < sections.size(); at = sections.find('\0', at) + 1) {
    const std::string section = sections.c_str() + at;
    const std::string keys = Read(section.c_str(), nullptr, path, 4096);
    if (!keys.empty()) Read(section.c_str(), keys.c_str(), path, 4096);
  }
  const std::string port = Read("Vexilo", "Port", path, 4096);

  FUZZ_CHECK(os::WritePrivateProfileStringA("Vexilo", "Port", "8081", path.c_str()));
  FUZZ_CHECK(Read("Vexilo", "Port", path, 10) == "8081", "the port written is not read back");
  const std::string written = FileText(path);
  FUZZ_CHECK(os::WritePrivateProfileStringA("Vexilo", "Port", "8081", path.c_str()));
  FUZZ_CHECK(FileText(path) == written, "writing the same port again changed the file");

  // A section of our own, unless the file happens to have one of that name.
  std::string lower(vxfuzz::AsText(data, size));
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  if (lower.find("fuzz section") != std::string::npos) return 0;
  FUZZ_CHECK(os::WritePrivateProfileStringA("Fuzz Section", "Added", "1", path.c_str()));
  FUZZ_CHECK(Read("Fuzz Section", "Added", path, 10) == "1");
  FUZZ_CHECK(Read("Vexilo", "Port", path, 10) == "8081");
  FUZZ_CHECK(os::WritePrivateProfileStringA("Fuzz Section", "Added", nullptr, path.c_str()));
  FUZZ_CHECK(Read("Fuzz Section", "Added", path, 10) == "7070");
  FUZZ_CHECK(os::WritePrivateProfileStringA("Fuzz Section", nullptr, nullptr, path.c_str()));
  FUZZ_CHECK(Read("Vexilo", "Port", path, 10) == "8081");
  return 0;
}
