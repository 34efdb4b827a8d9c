#include "probe/headermanager.h"

#include <climits>
#include <new>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "http/services.h"
#include "vxproxy/proxy.h"
#include "http/urlparser.h"
#include "log/levels.h"
#include "platform/platform.h"

namespace {

std::string_view Trim(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// The Content-Length of a response header, by its leading digits; false when
// the header has none. The status line is not looked at: any answer that
// names a length gives a size.
bool FindContentLength(std::string_view header, int* size) {
  while (!header.empty()) {
    const std::size_t lineEnd = header.find('\n');
    const std::string_view line = header.substr(0, lineEnd);
    header.remove_prefix(lineEnd == std::string_view::npos ? header.size() : lineEnd + 1);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (!EqualsNoCase(Trim(line.substr(0, colon)), "Content-Length")) continue;
    long long value = 0;
    for (const char c : Trim(line.substr(colon + 1))) {
      if (c < '0' || c > '9') break;
      value = value * 10 + (c - '0');
      if (value > INT_MAX) value = INT_MAX;  // a size beyond 2 GB counts as 2 GB
    }
    *size = static_cast<int>(value);
    return true;
  }
  return false;
}

}  // namespace

CAdToFetch::CAdToFetch(std::string request, std::string key)
    : request(std::move(request)), key(std::move(key)) {}

CAdToFetch::~CAdToFetch() = default;

CHeaderManager::CHeaderManager()
    : wakeUp_(0, 1),
      stop_(false),
      serving_(false),
      probeSocket_(INVALID_SOCKET),
      clock_(&os::Time64) {}

CHeaderManager::~CHeaderManager() {
  Stop();
  ClearAll();
}

bool CHeaderManager::Stop() {
  if (RequestStop()) return true;
  const bool stopped = CThreadEx::Stop();
  // Only now: a flag cleared before the body saw it would keep it running.
  if (stopped) stop_ = false;
  return stopped;
}

bool CHeaderManager::RequestStop() {
  if (!isRunning()) return true;
  stop_ = true;
  wakeUp_.Signal();
  CAutoSync guard(socketLock_);
  if (probeSocket_ != INVALID_SOCKET) os::shutdown(probeSocket_);
  return false;
}

// --------------------------------------------------------------- queueing --

void CHeaderManager::Enqueue(CStringBuffer host, unsigned short port, CStringBuffer path,
                             CStringBuffer proxyHost, unsigned short proxyPort,
                             const char* headerFields) {
  if (host.GetSize() == 0 || path.GetSize() == 0 || headerFields == nullptr) return;
  std::string key;
  key.reserve(static_cast<std::size_t>(host.GetSize() + path.GetSize()));
  key.append(host.GetBuffer(), static_cast<std::size_t>(host.GetSize()));
  key.append(path.GetBuffer(), static_cast<std::size_t>(path.GetSize()));
  if (CountCached(key)) return;

  CAutoSync guard(queueLock_);
  auto found = pending_.find(key);
  if (found != pending_.end() && found->second != nullptr) {
    ++found->second->count;
    return;
  }

  unsigned short viaPort = 0;
  const CStringBuffer* upstream = GetProxy()->GetUpstreamProxy(&viaPort);
  const char* viaHost = upstream->GetBuffer();
  if (*viaHost == '\0' && proxyHost.GetSize() > 0) {
    viaHost = proxyHost.GetBuffer();
    viaPort = proxyPort;
  }
  const bool via = *viaHost != '\0';

  std::string request;
  request.reserve(key.size() + std::char_traits<char>::length(headerFields) + 48);
  request += "HEAD ";
  if (via) {
    // A proxy needs the absolute form.
    CStringBuffer origin("http://");
    origin << host.GetBuffer();
    AppendPort(origin, port);
    request += origin.GetBuffer();
  }
  request += path.GetBuffer();
  request += " HTTP/1.0\r\n";
  // The browser's own fields go out unchanged; they end with their blank line
  // already, so the request carries one CRLF more than it needs.
  request += headerFields;
  request += "\r\n";

  auto* item = new (std::nothrow) CAdToFetch(std::move(request), key);
  if (item == nullptr) return;
  item->connectHost = via ? viaHost : host.GetBuffer();
  item->connectPort = via ? viaPort : port;
  if (found != pending_.end()) {
    found->second = item;
  } else {
    pending_.emplace(std::move(key), item);
  }
  wakeUp_.Signal();
}

bool CHeaderManager::CountCached(const std::string& key) {
  // The result equals queueing the block and probing it from the cache, without
  // the hand-over to the worker that would otherwise follow every block.
  int size = 0;
  if (!serving_ || !UseCachedSize(key, &size)) return false;
  if (size > 0) GetProxy()->GetSiteCounter()->AddAdSize(static_cast<std::uint64_t>(size));
  return true;
}

CAdToFetch* CHeaderManager::PeekPending(std::string& key) {
  CAutoSync guard(queueLock_, kQueueLockWaitMs);
  // A queue held that long by enqueuers: try again on the next turn.
  if (guard.GetStatus() == kLockTimedOut) return nullptr;
  if (pending_.empty()) return nullptr;
  key = pending_.begin()->first;
  return pending_.begin()->second;
}

CAdToFetch* CHeaderManager::RemovePending(const char* key) {
  CAutoSync guard(queueLock_);
  auto found = pending_.find(key);
  if (found == pending_.end()) return nullptr;
  CAdToFetch* item = found->second;
  pending_.erase(found);
  return item;
}

void CHeaderManager::ClearAll() {
  {
    // Enqueue may run on a session thread while the worker starts or ends.
    CAutoSync guard(queueLock_);
    for (auto& [key, item] : pending_) delete item;
    pending_.clear();
  }
  std::lock_guard<std::mutex> guard(cacheLock_);
  for (auto& [key, record] : sizeCache_) delete record;
  sizeCache_.clear();
}

// ---------------------------------------------------------------- probing --

DWORD CHeaderManager::Run() {
  CRequestServices* proxy = RequestServices();
  ClearAll();
  serving_ = true;
  vxtime64_t lastSweep = Now();
  proxy->LogLine(kLevelDebug, "Starting Header Manager @", Now());
  while (!stop_) {
    std::string key;
    CAdToFetch* item = PeekPending(key);
    if (item == nullptr) {
      if (Now() - lastSweep > kSweepIntervalSeconds) {
        lastSweep = Now();
        SweepSizeCache();
      }
      wakeUp_.Lock(kIdleWaitMs);
      continue;
    }
    const int size = Probe(key, item);
    // Blocks of the same item during its probe raised its count until here.
    item = RemovePending(key.c_str());
    if (item == nullptr) continue;
    const std::int32_t product = static_cast<std::int32_t>(static_cast<std::uint32_t>(item->count) *
                                                           static_cast<std::uint32_t>(size));
    const std::int64_t bytes = product;
    if (bytes > 0) GetProxy()->GetSiteCounter()->AddAdSize(static_cast<std::uint64_t>(bytes));
    delete item;
  }
  serving_ = false;
  proxy->LogLine(kLevelDebug, "Cleaning up pending requests in Header Manager ");
  ClearAll();
  proxy->LogLine(kLevelDebug, "Stopped Header Manager @", Now());
  return 0;
}

bool CHeaderManager::UseCachedSize(const std::string& key, int* size) {
  std::lock_guard<std::mutex> guard(cacheLock_);
  auto cached = sizeCache_.find(key);
  if (cached == sizeCache_.end() || cached->second == nullptr) return false;
  cached->second->lastUsed = Now();
  *size = cached->second->size;
  return true;
}

int CHeaderManager::Probe(const std::string& key, CAdToFetch* item) {
  int size = 0;
  if (UseCachedSize(key, &size)) return size;
  const SOCKET s = ConnectProbe(item);
  if (s == INVALID_SOCKET) return 0;

  os::send(s, item->request.data(), static_cast<int>(item->request.size()));
  std::string response;
  char chunk[kReceiveChunk];
  // No time-out of its own: the server or RequestStop ends the wait.
  while (response.find("\r\n\r\n") == std::string::npos) {
    const int n = os::recv(s, chunk, kReceiveChunk, 0);
    if (n <= 0) break;
    response.append(chunk, static_cast<std::size_t>(n));
  }
  os::closesocket(TakeProbeSocket());
  GetProxy()->GetSiteCounter()->AddBytes(static_cast<unsigned long>(item->request.size()),
                                         static_cast<unsigned long>(response.size()));

  // Without a length nothing is cached, so the next block probes again.
  if (!FindContentLength(response, &size)) return 0;
  RememberSize(key, size);
  return size;
}

SOCKET CHeaderManager::ConnectProbe(CAdToFetch* item) {
  std::vector<std::uint32_t> addresses;
  if (!os::gethostbyname(item->connectHost.c_str(), &addresses)) return INVALID_SOCKET;
  const SOCKET s = os::CreateTcpSocket();
  if (s == INVALID_SOCKET) return INVALID_SOCKET;
  {
    // Published before the connect so that a stop can break a connect that
    // hangs; a stop that came first leaves the socket unused.
    CAutoSync guard(socketLock_);
    if (stop_) {
      os::closesocket(s);
      return INVALID_SOCKET;
    }
    probeSocket_ = s;
  }
  if (os::connect(s, addresses.front(), static_cast<std::uint16_t>(item->connectPort)) != 0) {
    os::closesocket(TakeProbeSocket());
    return INVALID_SOCKET;
  }
  return s;
}

SOCKET CHeaderManager::TakeProbeSocket() {
  CAutoSync guard(socketLock_);
  return std::exchange(probeSocket_, INVALID_SOCKET);
}

// ------------------------------------------------------------- size cache --

void CHeaderManager::RememberSize(const std::string& key, int size) {
  const vxtime64_t now = Now();
  std::lock_guard<std::mutex> guard(cacheLock_);
  SizeRecord*& record = sizeCache_[key];
  delete record;
  record = new (std::nothrow) SizeRecord{now, now, size};
}

void CHeaderManager::SweepSizeCache() {
  std::lock_guard<std::mutex> guard(cacheLock_);
  if (sizeCache_.size() <= kSweepThreshold) return;
  const vxtime64_t now = Now();
  std::vector<std::string> stale;
  std::map<vxtime64_t, std::vector<std::string>> byLastUse;
  for (const auto& [key, record] : sizeCache_) {
    if (record == nullptr) {
      RequestServices()->LogLine(kLevelCritical, "Data = ", key.c_str(), " is null ");
      stale.push_back(key);
    } else if (now - record->lastUsed > kIdleLimitSeconds) {
      stale.push_back(key);
    } else {
      byLastUse[record->lastUsed].push_back(key);
    }
  }
  const auto drop = [this](const std::string& key) {
    auto found = sizeCache_.find(key);
    delete found->second;
    sizeCache_.erase(found);
  };
  for (const std::string& key : stale) drop(key);
  // Whole groups go at once, so the cache may end below the threshold.
  for (auto group = byLastUse.begin(); sizeCache_.size() > kSweepThreshold; ++group) {
    for (const std::string& key : group->second) drop(key);
  }
}
