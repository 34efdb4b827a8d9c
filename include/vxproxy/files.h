// File helpers of the utility library: a whole file mapped into memory that
// can have a block cut out of it (log trimming), and directory creation.
#pragma once

#include "vxproxy/types.h"

namespace os { struct MappedFile; }

// Maps a whole file for reading and writing.
class VX_EXPORT CMappedFile {
 public:
  explicit CMappedFile(const char* path);
  ~CMappedFile();

  // Start of the mapped bytes; null when the file could not be opened or
  // mapped, and for an empty file.
  char* GetFileStart();
  // Size in bytes; 0 when the file could not be opened.
  unsigned long GetFileSize();
  // Removes count bytes at offset: what follows moves down and the file gets
  // count bytes shorter. 0 on success.
  int DeleteBlockFromFile(unsigned long offset, unsigned long count);
  // Unmaps and closes; safe to call more than once.
  void CloseFile();

  CMappedFile(const CMappedFile&) = delete;
  CMappedFile& operator=(const CMappedFile&) = delete;

 private:
  os::MappedFile* file_;
};

class VX_EXPORT CFileStream {
 public:
  // Creates the directory path with every missing parent; an existing
  // directory is no error. True when the directory exists afterwards. Both
  // "\\" and "/" separate the parts.
  static bool CreatePath(const char* path, bool reserved);
};
