// The log file sink as the module builds it: the host's slots of CLog over a
// file opened for appending. Hosts never see this class; its layout may
// change freely.
#pragma once

#include <atomic>
#include <cstdio>

#include "vxproxy/log.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"

// No operation is added to the table: it stays the one of CLog.
class CLogImpl final : public CLog {
 public:
  // A null path gives a log that is never open and drops every write.
  CLogImpl(const char* path, int number);
  ~CLogImpl() override;
  void Printf(int level, const char* format, ...) override;
  void Write(int level, const char* data, int length) override;
  bool IsOpen() override;
  bool IsLevelEnabled(int level) override;
  CLog& operator<<(CLog& (*manip)(CLog&)) override;
  CLog& operator<<(unsigned long value) override;
  CLog& operator<<(unsigned short value) override;
  CLog& operator<<(int value) override;
  CLog& operator<<(const char* text) override;
  bool IsOpen() const override;
  int SetLevel(int level) override;
  int SetLevelMask(int mask) override;
  int GetLevelMask() override;
  int SetFlushThreshold(int bytes) override;
  void ReadAll(CStringBuffer& out) override;
  void Flush() override;
  void Clear() override;
  void SetEnabled(bool enabled) override;
  bool IsEnabled() override;
  void SetMaxSize(unsigned long bytes) override;
  unsigned long GetMaxSize() override;
  bool Open(const char* path) override;
  const char* GetFileName() override;
  void WriteBuffer(CStringBuffer& buffer) override;

  int GetNumber() const { return number_; }

 private:
  void OpenForAppend();
  void CloseStream();
  void WriteLocked(const char* data, int length);
  void CheckSize();

  // The stream is replaced only under lock_. open_ says whether the log is
  // open for its callers: it stays set while a trim or a read briefly closes
  // and re-opens the stream, so no write is dropped for that moment.
  std::FILE* stream_;
  CCriticalSectionEx lock_;
  std::atomic<int> level_;
  std::atomic<int> levelMask_;
  std::atomic<int> flushThreshold_;
  int number_;
  std::atomic<unsigned long> fileSize_;
  unsigned long maxSize_;
  unsigned long trimStep_;
  unsigned long keepFactor_;
  CStringBuffer fileName_;
  std::atomic<bool> enabled_;
  std::atomic<bool> open_;
};
