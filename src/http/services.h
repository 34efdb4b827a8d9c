// What the HTTP layer, the size prober and the sessions need of the service
// beyond the host's slots. The service object implements it; the layers below
// the service reach it here and never include the service's own class, so the
// service depends on them and not the other way round.
#pragma once

#include "filter/engine.h"
#include "log/limitnote.h"
#include "platform/winnames.h"
#include "vxproxy/log.h"
#include "vxproxy/stringbuffer.h"

class CRequestServices {
 public:
  // The rule tables and verdicts.
  virtual const CFilterEngineImpl& Filter() = 0;

  // Type words: the word for a media subtype or file extension, and the
  // kinds that have a replacement.
  virtual void NormalizeTypeWord(CStringBuffer& word) = 0;
  virtual bool IsReplaceableType(CStringBuffer& word) = 0;
  virtual bool IsImageWord(CStringBuffer& word) = 0;
  virtual bool IsFlashWord(CStringBuffer& word) = 0;

  // Tells the host's notify targets of an event.
  virtual void Notify(unsigned short event) = 0;
  // Counts one blocked request for the site in the statistics.
  virtual void CountBlockedSite(const char* site) = 0;
  // True when the host switched the extension on (a kExtension bit).
  virtual bool HasExtension(unsigned bit) = 0;
  // True when a connection to host and port would come back to this proxy's
  // own listener: the port it listens on, at a loopback address, "localhost"
  // or an address of this machine.
  virtual bool IsThisProxy(const char* host, unsigned short port) = 0;

  // Writes one whole line to the service's memory log. Its users run on many
  // threads, so the line is built under the log's lock and never interleaves.
  template <typename... Pieces>
  void LogLine(int level, const Pieces&... pieces) {
    CMemLogEx& log = BeginLogLine(level);
    ((log << pieces), ...);
    log << lend;
    EndLogLine();
  }

  // The WARNING line of a safety limit that has just acted: written the first
  // time and then at most once a minute, however often the limit acts.
  template <typename... Pieces>
  void NoteLimit(SafetyLimit limit, const Pieces&... pieces) {
    unsigned long skipped = 0;
    if (!LimitNote(limit).Due(&skipped)) return;
    if (skipped == 0) {
      LogLine(kLevelWarning, pieces...);
    } else {
      LogLine(kLevelWarning, pieces..., " (", skipped, " more times since the last line)");
    }
  }

 protected:
  ~CRequestServices() = default;

  // Takes the memory log's lock and starts a line at the level.
  virtual CMemLogEx& BeginLogLine(int level) = 0;
  virtual void EndLogLine() = 0;
  virtual CLimitNote& LimitNote(SafetyLimit limit) = 0;
};

// The one service object, as the layers below it see it.
CRequestServices* RequestServices();
