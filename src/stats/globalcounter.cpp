#include "stats/globalcounter.h"

#include <string>

#include "stats/counterfile.h"

using vxstats::FindOrCreate;
using vxstats::ReadU64;

CGlobalCounter::CGlobalCounter(const char* semaphoreName)
    : counterLock_(semaphoreName ? semaphoreName : vxstats::kCounterLockName) {}

CGlobalCounter::~CGlobalCounter() { Save(); }

bool CGlobalCounter::Open(const char* path) {
  CAutoSync guard(lock_);
  const std::string name(path ? path : "");
  const bool opened = vxstats::OpenCounterDocument(*this, name.c_str());
  fileName_ = name.c_str();
  if (opened) ReadCounters();
  return opened;
}

void CGlobalCounter::AddRequests(int n) {
  // Sign-extended, so a negative n lowers the count modulo 2^64.
  requestHistory_.pending.fetch_add(static_cast<std::uint64_t>(static_cast<std::int64_t>(n)));
}

void CGlobalCounter::IncHistory() { history_.pending.fetch_add(1); }

void CGlobalCounter::AddBytes(unsigned long sent, unsigned long received) {
  bytesSend_.pending.fetch_add(sent);
  bytesRecvd_.pending.fetch_add(received);
}

void CGlobalCounter::AddAdSize(std::uint64_t size) { adSize_.pending.fetch_add(size); }

std::uint64_t CGlobalCounter::Value(const Counter& counter) {
  std::lock_guard<std::mutex> values(valuesLock_);
  return counter.total + counter.pending.load();
}

std::uint64_t CGlobalCounter::GetRequestHistory() { return Value(requestHistory_); }
std::uint64_t CGlobalCounter::GetHistory() { return Value(history_); }

void CGlobalCounter::GetBytes(std::uint64_t& sent, std::uint64_t& received, std::uint64_t& adSize) {
  sent = Value(bytesSend_);
  received = Value(bytesRecvd_);
  adSize = Value(adSize_);
}

// Totals become the file's values plus the pending increments, which are
// cleared. A file without Global keeps the request count pending: it goes out
// once a later merge finds Global.
void CGlobalCounter::ReadCounters() {
  CVxXMLElement global = GetNodeByName("Global");
  const bool found = global.IsFound();
  struct Field {
    const char* path;
    Counter* counter;
  };
  const Field fields[] = {{"./RequestHistory", &requestHistory_}, {"./History", &history_},
                          {"./BytesSend", &bytesSend_},           {"./BytesRecvd", &bytesRecvd_},
                          {"./AdSize", &adSize_}};
  std::uint64_t inFile[5] = {};
  if (found) {
    for (int i = 0; i < 5; ++i) inFile[i] = ReadU64(*this, global, fields[i].path);
  }
  std::lock_guard<std::mutex> values(valuesLock_);
  for (int i = 0; i < 5; ++i) {
    Counter& counter = *fields[i].counter;
    counter.total = inFile[i];
    if (found || &counter != &requestHistory_) counter.total += counter.pending.exchange(0);
  }
}

void CGlobalCounter::WriteTotals() {
  struct Field {
    const char* path;
    const char* createPath;
    const Counter* counter;
  };
  const Field fields[] = {{"./History", "Global/History", &history_},
                          {"./RequestHistory", "Global/RequestHistory", &requestHistory_},
                          {"./BytesSend", "Global/BytesSend", &bytesSend_},
                          {"./BytesRecvd", "Global/BytesSend", &bytesRecvd_},
                          {"./AdSize", "Global/BytesSend", &adSize_}};
  for (const Field& field : fields) {
    CVxXMLElement global = FindOrCreate(*this, "Global", field.createPath);
    if (!global.IsFound()) continue;
    SetValue(global, field.path, std::to_string(field.counter->total).c_str(), true);
  }
}

// With lock_ and the semaphore held: picks up what other processes stored and
// adds this process's increments to it.
bool CGlobalCounter::MergeWithFile() {
  const std::string name(fileName_.GetBuffer());
  if (ParseFile(name.c_str()) != 0) return false;
  ReadCounters();
  WriteTotals();
  return true;
}

void CGlobalCounter::Save() {
  CAutoSync guard(lock_);
  if (fileName_.GetSize() == 0) return;
  // The semaphore spans re-parse, merge and store, so no other process
  // stores in between and loses what this one adds.
  CAutoSync shared(counterLock_, vxstats::kCounterLockTimeoutMs);
  if (shared.GetStatus() == kLockTimedOut) return;
  if (!MergeWithFile()) return;
  Store(fileName_.GetBuffer());
}

std::int64_t CGlobalCounter::GetStatStartTime() {
  if (const std::int64_t known = startTime_.load()) return known;
  CAutoSync guard(lock_);
  CVxXMLElement global = GetNodeByName("Global");
  std::uint64_t recorded = global.IsFound() ? ReadU64(*this, global, "./StatStartTime") : 0;
  if (recorded == 0) {
    // Marks the file as having no start time yet. Stored through the merge,
    // so totals other processes wrote since our last read are kept.
    if (fileName_.GetSize() == 0) return 0;
    CAutoSync shared(counterLock_, vxstats::kCounterLockTimeoutMs);
    if (shared.GetStatus() == kLockTimedOut || !MergeWithFile()) return 0;
    global = FindOrCreate(*this, "Global", "Global/StatStartTime");
    if (!global.IsFound()) return 0;
    // Another process may have recorded one meanwhile: keep it.
    recorded = ReadU64(*this, global, "./StatStartTime");
    if (recorded == 0) SetValue(global, "./StatStartTime", "0", true);
    Store(fileName_.GetBuffer());
  }
  // Zero is not remembered: the next call looks at the file again.
  startTime_.store(static_cast<std::int64_t>(recorded));
  return static_cast<std::int64_t>(recorded);
}
