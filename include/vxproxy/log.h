// Logging: file sinks with level masks and a size limit, and the memory logs
// that build one line at a time and hand it to a sink in one locked write.
//
// A line reads:  memlog << CLogManip(kLevelInfo) << "text" << value << lend;
//
// Hosts reach CLog and CMemLogEx objects through the service object. The
// order of their virtual operations is part of the host interface, and the
// manipulators below are inline and use only virtual operations, so a host
// built against these headers alone can write lines.
#pragma once

#include "vxproxy/stringbuffer.h"
#include "vxproxy/types.h"

// Log levels are bit values and a mask is an OR of them; a line passes when
// its level is kLevelCritical or every bit of it is in the log's mask.
constexpr int kLevelCritical = 0;
constexpr int kLevelError = 1;
constexpr int kLevelWarning = 2;
constexpr int kLevelInfo = 4;
constexpr int kLevelDebug = 8;
constexpr int kLevelVerbose = 16;
constexpr int kLevelHead = 32;

// One log file. The sinks are built inside the module (the service's own log
// and the registry's numbered logs); a host only calls their operations.
class CLog {
 public:
  virtual ~CLog();                                                      // 0
  virtual void Printf(int level, const char* format, ...) = 0;          // 1
  virtual void Write(int level, const char* data, int length) = 0;      // 2
  virtual bool IsOpen() = 0;                                            // 3
  virtual bool IsLevelEnabled(int level) = 0;                           // 4
  virtual CLog& operator<<(CLog& (*manip)(CLog&)) = 0;                  // 5
  virtual CLog& operator<<(unsigned long value) = 0;                    // 6
  virtual CLog& operator<<(unsigned short value) = 0;                   // 7
  virtual CLog& operator<<(int value) = 0;                              // 8
  virtual CLog& operator<<(const char* text) = 0;                       // 9
  virtual bool IsOpen() const = 0;                                      // 10
  virtual int SetLevel(int level) = 0;                                  // 11
  virtual int SetLevelMask(int mask) = 0;                               // 12
  virtual int GetLevelMask() = 0;                                       // 13
  virtual int SetFlushThreshold(int bytes) = 0;                         // 14
  virtual void ReadAll(CStringBuffer& out) = 0;                         // 15
  virtual void Flush() = 0;                                             // 16
  virtual void Clear() = 0;                                             // 17
  virtual void SetEnabled(bool enabled) = 0;                            // 18
  virtual bool IsEnabled() = 0;                                         // 19
  virtual void SetMaxSize(unsigned long bytes) = 0;                     // 20
  virtual unsigned long GetMaxSize() = 0;                               // 21
  virtual bool Open(const char* path) = 0;                              // 22
  virtual const char* GetFileName() = 0;                                // 23
  virtual void WriteBuffer(CStringBuffer& buffer) = 0;                  // 24

  CLog(const CLog&) = delete;
  CLog& operator=(const CLog&) = delete;

 protected:
  CLog() = default;
};

// A level carried into a stream expression.
class VX_EXPORT CLogManip {
 public:
  CLogManip(int level);  // NOLINT: used as CLogManip(kLevelInfo) and as a plain level
  CLogManip& operator=(const CLogManip& other);
  CLogManip(const CLogManip& other) = default;
  int GetLevel() const { return level_; }

 private:
  int level_;
};

class VX_EXPORT CLogManipEx {
 public:
  CLogManipEx(int level);  // NOLINT
  CLogManipEx& operator=(const CLogManipEx& other);
  CLogManipEx(const CLogManipEx& other) = default;
  int GetLevel() const { return level_; }

 private:
  int level_;
};

// Builds one line in memory; lend hands it to the sink. A memory log belongs
// to one thread at a time.
class CMemLog {
 public:
  explicit CMemLog(CLog* log);
  virtual ~CMemLog();                                               // 0
  virtual CMemLog& operator<<(CMemLog& (*manip)(CMemLog&));         // 1
  // The C library's local-time text without its line break.
  virtual CMemLog& operator<<(vxtime64_t time);                     // 2
  virtual CMemLog& operator<<(vxtime32_t time);                     // 3
  virtual CMemLog& operator<<(unsigned long value);                 // 4
  virtual CMemLog& operator<<(unsigned short value);                // 5
  virtual CMemLog& operator<<(int value);                           // 6
  virtual CMemLog& operator<<(const char* text);                    // 7
  virtual void Attach(CLog* log);                                   // 8
  virtual bool IsOpen();                                            // 9
  virtual bool IsEnabled();                                         // 10
  virtual void SetLevel(int level);                                 // 11
  virtual void Flush();                                             // 12
  virtual void BeginLine();                                         // 13

  // Marks the line as finished, so the next piece begins a new one.
  void EndLine() { lineStarted_ = false; }

 protected:
  // Starts the line when it is not yet started; false when the log drops it.
  bool StartPiece();

  CStringBuffer line_;
  CLog* log_;
  bool suppressed_;
  int level_;
  int mask_;
  bool lineStarted_;
};

// A memory log that starts every line with the prefix of its level.
class CMemLogEx : public CMemLog {
 public:
  explicit CMemLogEx(CLog* log);
  ~CMemLogEx() override;
  void SetLevel(int level) override;                                // 11
  void BeginLine() override;                                        // 13

  // "[INFO]: " and so on; "[NONE]: " for a value outside the table.
  static const char* PrefixOf(int level);

 protected:
  const char* prefix_;
};

// Sets the level of the line being built.
inline CMemLog& operator<<(CMemLog& log, const CLogManip& manip) {
  log.SetLevel(manip.GetLevel());
  return log;
}

// Hands the line built so far to the sink.
inline CMemLog& lflush(CMemLog& log) {
  log.Flush();
  return log;
}

// Starts a line (a CMemLogEx writes its prefix).
inline CMemLog& lbegin(CMemLog& log) {
  log.BeginLine();
  return log;
}

// Ends the line with CR LF and hands it to the sink.
inline CMemLog& lend(CMemLog& log) {
  log << "\r\n";
  lflush(log);
  log.EndLine();
  return log;
}

// Sets out to the current local time as "11/17/2011_09:20:49_PM".
void MakeLineTimeStamp(CStringBuffer& out);
// The same text for a given time; hour runs 0 to 23.
void FormatLineTimeStamp(int month, int day, int year, int hour, int minute, int second,
                         CStringBuffer& out);
