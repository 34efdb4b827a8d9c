// Files, directories and memory-mapped files on POSIX systems.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/platform.h"

namespace os {

std::string NativePath(const char* path) {
  std::string native(path ? path : "");
  for (char& c : native) {
    if (c == '\\') c = '/';
  }
  return native;
}

bool DeleteFileA(const char* path) {
  if (path == nullptr) return false;
  return ::unlink(NativePath(path).c_str()) == 0;
}

bool FileExists(const char* path) {
  if (path == nullptr) return false;
  struct stat st;
  return ::stat(NativePath(path).c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

std::uint64_t FileSize(const char* path) {
  if (path == nullptr) return 0;
  struct stat st;
  if (::stat(NativePath(path).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return 0;
  return static_cast<std::uint64_t>(st.st_size);
}

std::int64_t FileModifiedTime(const char* path) {
  if (path == nullptr) return 0;
  struct stat st;
  if (::stat(NativePath(path).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return 0;
  return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

bool DirectoryExists(const char* path) {
  if (path == nullptr) return false;
  struct stat st;
  return ::stat(NativePath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool CreateDirectoryA(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  if (::mkdir(NativePath(path).c_str(), 0755) == 0) return true;
  // Another process may have made it in the meantime; what counts is that it is there.
  return errno == EEXIST && DirectoryExists(path);
}

// ---------------------------------------------------------- mapped files --

struct MappedFile {
  int fd = -1;
  char* start = nullptr;
  std::uint64_t size = 0;
};

namespace {

// Maps the whole file as it is now; an empty file has no mapping.
bool Remap(MappedFile* file) {
  if (file->start != nullptr) {
    ::munmap(file->start, file->size);
    file->start = nullptr;
  }
  struct stat st;
  if (::fstat(file->fd, &st) != 0) return false;
  file->size = static_cast<std::uint64_t>(st.st_size);
  if (file->size == 0) return true;
  void* p = ::mmap(nullptr, file->size, PROT_READ | PROT_WRITE, MAP_SHARED, file->fd, 0);
  if (p == MAP_FAILED) return false;
  file->start = static_cast<char*>(p);
  return true;
}

}  // namespace

MappedFile* MapFile(const char* path) {
  if (path == nullptr) return nullptr;
  const int fd = ::open(NativePath(path).c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  auto* file = new MappedFile;
  file->fd = fd;
  if (!Remap(file)) {
    UnmapFile(file);
    return nullptr;
  }
  return file;
}

char* MappedStart(MappedFile* file) { return file ? file->start : nullptr; }

std::uint64_t MappedSize(MappedFile* file) { return file ? file->size : 0; }

bool MappedDeleteBlock(MappedFile* file, std::uint64_t offset, std::uint64_t count) {
  if (file == nullptr || offset > file->size) return false;
  if (count > file->size - offset) count = file->size - offset;
  if (count == 0) return true;
  const std::uint64_t tail = file->size - offset - count;
  if (tail > 0) std::memmove(file->start + offset, file->start + offset + count, tail);
  // The moved bytes must reach the file before it is cut; a shared mapping
  // writes through, msync only makes the order explicit.
  ::msync(file->start, file->size, MS_SYNC);
  ::munmap(file->start, file->size);
  file->start = nullptr;
  const std::uint64_t newSize = file->size - count;
  file->size = 0;
  if (::ftruncate(file->fd, static_cast<off_t>(newSize)) != 0) {
    Remap(file);
    return false;
  }
  return Remap(file);
}

void UnmapFile(MappedFile* file) {
  if (file == nullptr) return;
  if (file->start != nullptr) ::munmap(file->start, file->size);
  if (file->fd >= 0) ::close(file->fd);
  delete file;
}

}  // namespace os
