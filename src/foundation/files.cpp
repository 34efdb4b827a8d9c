#include "vxproxy/files.h"

#include <string>

#include "platform/platform.h"

CMappedFile::CMappedFile(const char* path) : file_(os::MapFile(path)) {}

CMappedFile::~CMappedFile() { CloseFile(); }

char* CMappedFile::GetFileStart() { return os::MappedStart(file_); }

unsigned long CMappedFile::GetFileSize() {
  return static_cast<unsigned long>(os::MappedSize(file_));
}

int CMappedFile::DeleteBlockFromFile(unsigned long offset, unsigned long count) {
  if (file_ == nullptr) return -1;
  return os::MappedDeleteBlock(file_, offset, count) ? 0 : -1;
}

void CMappedFile::CloseFile() {
  os::UnmapFile(file_);
  file_ = nullptr;
}

bool CFileStream::CreatePath(const char* path, bool /*reserved*/) {
  if (path == nullptr || *path == '\0') return false;
  const std::string full(path);
  // Create each parent in turn; a part that already exists is passed over.
  for (std::size_t i = 1; i < full.size(); ++i) {
    if (full[i] != '\\' && full[i] != '/') continue;
    if (full[i - 1] == '\\' || full[i - 1] == '/' || full[i - 1] == ':') continue;
    const std::string parent = full.substr(0, i);
    if (!os::DirectoryExists(parent.c_str())) os::CreateDirectoryA(parent.c_str());
  }
  return os::DirectoryExists(path) || os::CreateDirectoryA(path);
}
