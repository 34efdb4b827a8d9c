// The global counters of sitecounter.xml. Every process that loads the proxy
// keeps its own increments pending in memory and merges them into the shared
// file under a named semaphore, so the file holds the sum over all processes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "vxproxy/threads.h"
#include "vxproxy/xmlstore.h"

class CGlobalCounter : public CSecureXMLParser {
 public:
  // Tests pass their own semaphore name so that holding it disturbs no other
  // process on the machine.
  explicit CGlobalCounter(const char* semaphoreName = nullptr);
  ~CGlobalCounter() override;  // saves

  virtual void AddRequests(int n);  // 43

  bool Open(const char* path);
  void IncHistory();
  void AddBytes(unsigned long sent, unsigned long received);
  void AddAdSize(std::uint64_t size);

  // Each is the total last merged with the file plus what is still pending.
  std::uint64_t GetRequestHistory();
  std::uint64_t GetHistory();
  void GetBytes(std::uint64_t& sent, std::uint64_t& received, std::uint64_t& adSize);
  // Seconds since 1970 from Global/StatStartTime; 0 while the file records none.
  std::int64_t GetStatStartTime();

  // Merges the pending increments into the file. Skipped (they stay pending)
  // when the semaphore is not obtained within its time-out or the file does
  // not parse.
  void Save();

 private:
  struct Counter {
    std::atomic<std::uint64_t> pending{0};  // added without the lock
    std::uint64_t total = 0;                // written under lock_ and valuesLock_
  };

  std::uint64_t Value(const Counter& counter);
  void ReadCounters();
  bool MergeWithFile();
  void WriteTotals();

  CCriticalSectionEx lock_;  // the document, fileName_ and the merge
  CSem counterLock_;
  // Held only for moving pending increments into the totals, so getters see
  // a consistent sum without waiting for the semaphore that Save holds.
  std::mutex valuesLock_;
  Counter requestHistory_;
  Counter history_;
  Counter bytesSend_;
  Counter bytesRecvd_;
  Counter adSize_;
  std::atomic<std::int64_t> startTime_{0};  // 0 = not known yet
};
