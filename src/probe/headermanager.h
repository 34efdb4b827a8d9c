// The size prober: blocked items are never fetched, so one background thread
// asks their origins for the headers afterwards and adds count x
// Content-Length to the blocked-size counter. Sizes are cached per host+path.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "platform/winnames.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"

// One queued probe. Only count changes once it is queued (under the queue lock).
class CAdToFetch {
 public:
  CAdToFetch(std::string request, std::string key);
  virtual ~CAdToFetch();

  int count = 1;          // blocked requests this probe stands for
  std::string request;    // the complete HEAD request
  std::string key;        // host followed by path
  std::string connectHost;
  int connectPort = 80;
};

struct SizeRecord {
  vxtime64_t created;
  vxtime64_t lastUsed;
  int size;
};

class CHeaderManager : public CThreadEx {
 public:
  CHeaderManager();
  ~CHeaderManager() override;

  // Slots after CThreadEx's: 2 Stop, 6 body, 7 Enqueue, 8 RequestStop,
  // 9 PeekPending, 10 RemovePending, 11 ConnectProbe.
  bool Stop() override;
  using CThreadEx::Stop;
  DWORD Run() override;
  virtual void Enqueue(CStringBuffer host, unsigned short port, CStringBuffer path,
                       CStringBuffer proxyHost, unsigned short proxyPort, const char* headerFields);
  virtual bool RequestStop();
  virtual CAdToFetch* PeekPending(std::string& key);
  virtual CAdToFetch* RemovePending(const char* key);
  virtual SOCKET ConnectProbe(CAdToFetch* item);

  static constexpr unsigned long kIdleWaitMs = 2000;
  static constexpr unsigned long kQueueLockWaitMs = 2000;
  static constexpr vxtime64_t kSweepIntervalSeconds = 10;
  static constexpr std::size_t kSweepThreshold = 100;
  static constexpr vxtime64_t kIdleLimitSeconds = 600;
  static constexpr int kReceiveChunk = 256;

 protected:
  using Clock = vxtime64_t (*)();

  // Seconds since 1970; tests replace the clock before the thread starts.
  vxtime64_t Now() const { return clock_(); }
  void SetClock(Clock clock) { clock_ = clock; }

  // Cache and probe steps of the thread body; they touch the size cache, so
  // only the manager's thread (or a test while it is stopped) calls them.
  int Probe(const std::string& key, CAdToFetch* item);
  void RememberSize(const std::string& key, int size);
  void SweepSizeCache();
  void ClearAll();

  // Guards the size cache: the worker fills and sweeps it, sessions read it
  // so that a known size is counted without waking the worker.
  std::mutex cacheLock_;
  std::map<std::string, SizeRecord*> sizeCache_;

 private:
  // Takes the probe socket back from the slot RequestStop reaches; the caller
  // then owns and closes it.
  SOCKET TakeProbeSocket();
  // Counts a block whose size is cached at once; false when it must be queued.
  bool CountCached(const std::string& key);
  // The cached size of the key, marked as used now; false when none is known.
  bool UseCachedSize(const std::string& key, int* size);

  std::map<std::string, CAdToFetch*> pending_;
  CCriticalSectionEx queueLock_;
  CLock wakeUp_;
  std::atomic<bool> stop_;
  std::atomic<bool> serving_;  // the worker is between its start and end clean-ups
  // The probe in progress. The worker owns the descriptor and closes it;
  // RequestStop only shuts it down, under socketLock_, so a stop can never
  // reach a descriptor that was closed and reused.
  SOCKET probeSocket_;
  CCriticalSectionEx socketLock_;
  Clock clock_;
};
