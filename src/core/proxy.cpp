#include "core/service.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>

#include "client/proxyclient.h"
#include "client/proxymanager.h"
#include "core/typewords.h"
#include "log/levels.h"
#include "log/logmanager.h"
#include "platform/platform.h"
#include "probe/headermanager.h"
#include "vxproxy/files.h"

namespace {

constexpr int kListenBacklog = 5;
constexpr long kAcceptWaitSeconds = 1;
constexpr DWORD kReapIntervalMs = 5000;
constexpr DWORD kHostPathSize = 260;
constexpr DWORD kPortTextSize = 10;  // at most nine characters of the port are seen
constexpr int kHostNameSize = 256;

struct LogFileRow {
  const char* name;
  int number;
  unsigned long maxSize;
  int flushThreshold;
  int levelMask;
};

// Opened in this order by Initialize.
constexpr LogFileRow kLogFiles[] = {
    {"\\blocked.log", kLogBlocked, 262144, 1024, 0},
    {"\\request.log", kLogRequest, 5242880, 10240, kLevelWarning | kLevelDebug},
    {"\\proxy.log", kLogProxy, 5242880, 10240, kLevelError | kLevelWarning | kLevelInfo},
};

// Socket-library start-ups that have not been matched by a clean-up.
std::atomic<int> g_socketStartups{0};

void StartSockets() {
  if (os::WSAStartup() == 0) ++g_socketStartups;
}

void CleanupSockets() {
  int count = g_socketStartups.load();
  while (count > 0 && !g_socketStartups.compare_exchange_weak(count, count - 1)) {
  }
  if (count == 1) os::WSACleanup();
}

bool EqualsNoCase(const char* a, const char* b) {
  CStringBuffer text(a);
  return text == b;
}

void ReportFilterError(void* context, const char* message, const char* detail) {
  static_cast<CVxHTTPProxyImpl*>(context)->LogLine(kLevelError, message, detail);
}

// filters.txt of the filter folder and vexilowl.txt of the data folder,
// published together.
bool LoadLists(CFilterEngineImpl& engine, const CStringBuffer& filterFolder,
               const CStringBuffer& dataFolder) {
  CStringBuffer filters(filterFolder);
  filters << "\\filters.txt";
  CStringBuffer approved(dataFolder);
  approved << "\\vexilowl.txt";
  return engine.LoadLists(filters, approved);
}

}  // namespace

extern "C" CVxHTTPProxy* GetProxy() {
  // Constructed on the first call (the library's load-time entry) and
  // destroyed at process exit or unload.
  static CVxHTTPProxyImpl proxy;
  return &proxy;
}

CRequestServices* RequestServices() { return Service(); }

// ------------------------------------------------------------ life cycle --

CVxHTTPProxy::~CVxHTTPProxy() = default;

CVxHTTPProxyImpl::CVxHTTPProxyImpl()
    : listenSocket_(INVALID_SOCKET),
      ownLog_(nullptr, 0),
      port_(0),
      filteringEnabled_(true),
      upstreamPort_(0),
      instance_(nullptr),
      traceMode_(1),
      extensions_(0),
      clients_(CProxyManager::Instance()),
      headerManager_(new (std::nothrow) CHeaderManager()),
      filteredRequests_(0),
      blockedImages_(0),
      blockedFlash_(0),
      memLog_(&ownLog_) {
  memLog_.Attach(GetLog(kLogProxy));
  StartSockets();

  char path[kHostPathSize] = {};
  if (os::GetModuleFileNameA(nullptr, path, kHostPathSize) > 0) {
    if (char* slash = std::strrchr(path, '\\')) *slash = '\0';
    SetHostFolder(path);
  }
  filterEngine_.SetErrorReporter(&ReportFilterError, this);
}

CVxHTTPProxyImpl::~CVxHTTPProxyImpl() {
  SOCKET s = listenSocket_.exchange(INVALID_SOCKET);
  if (s != INVALID_SOCKET) os::closesocket(s);
  filterEngine_.ClearRules();
  delete headerManager_;  // its destructor stops a running worker first
  headerManager_ = nullptr;
  mimeTable_.clear();
  CleanupSockets();
  for (NotifyTarget* target : notifyTargets_) delete target;
  notifyTargets_.clear();
}

bool CVxHTTPProxyImpl::Initialize() {
  // Balanced by the clean-up in Uninitialize, so it stays out of the count
  // that the destructor balances for the constructor's start-up.
  os::WSAStartup();
  Uninitialize();
  FillMimeTable(mimeTable_);
  FillTypeWordTable(typeWordTable_);
  CStringBuffer path(dataFolder_);
  path << "\\vexilo.xml";
  settings_.ParseFile(path);  // a missing or broken settings document is no error
  LoadPort();
  OpenLogs();
  return LoadLists(filterEngine_, filterFolder_, dataFolder_);
}

void CVxHTTPProxyImpl::OpenLogs() {
  CFileStream::CreatePath(logFolder_, false);
  CLogManager* logs = CLogManager::Instance();
  for (const LogFileRow& row : kLogFiles) {
    CStringBuffer path(logFolder_);
    path << row.name;
    logs->CreateLog(row.number, path);
    CLog* log = logs->GetLog(row.number);
    if (log == nullptr) continue;
    if (log->IsOpen()) {
      log->SetFlushThreshold(row.flushThreshold);
      log->SetMaxSize(row.maxSize);
    }
    log->SetLevelMask(row.levelMask);
  }
  CAutoSync guard(memLogLock_);
  memLog_.Attach(GetLog(kLogProxy));
}

void CVxHTTPProxyImpl::Uninitialize() {
  SOCKET s = listenSocket_.exchange(INVALID_SOCKET);
  if (s != INVALID_SOCKET) os::closesocket(s);
  filterEngine_.ClearRules();
  mimeTable_.clear();
  {
    CAutoSync guard(memLogLock_);
    memLog_.Attach(nullptr);
  }
  CLogManager::Instance()->DeleteAll();
  os::WSACleanup();
}

bool CVxHTTPProxyImpl::LoadFilterLists() {
  // Safe while the proxy runs: the engine builds the new tables aside and
  // swaps them in, so sessions keep checking and no connection is touched.
  const auto started = std::chrono::steady_clock::now();
  const bool loaded = LoadLists(filterEngine_, filterFolder_, dataFolder_);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - started);
  const auto rules = static_cast<unsigned long>(filterEngine_.RuleCount());
  const auto ms = static_cast<unsigned long>(elapsed.count());
  if (loaded) {
    LogLine(kLevelInfo, "Filter lists reloaded: ", rules, " rules in ", ms, " ms");
  } else {
    LogLine(kLevelInfo, "Filter lists not fully reloaded after ", ms, " ms: ", rules,
            " rules in use");
  }
  return loaded;
}

void CVxHTTPProxyImpl::LoadPort() {
  if (port_ != 0) return;
  CStringBuffer path(dataFolder_);
  path << "\\vexilo.ini";
  char text[kPortTextSize] = {};
  os::GetPrivateProfileStringA("Vexilo", "Port", "7070", text, kPortTextSize, path);
  // atoi semantics: leading blanks and a sign, digits up to the first other
  // character; the result wraps into 16 bits.
  const char* p = text;
  while (*p == ' ' || *p == '\t') ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  long value = 0;
  while (*p >= '0' && *p <= '9') value = value * 10 + (*p++ - '0');
  port_ = static_cast<unsigned short>(negative ? -value : value);
}

void CVxHTTPProxyImpl::LogTime(int level, const char* text) {
  LogLine(level, text, static_cast<vxtime64_t>(os::Time64()));
}

bool CVxHTTPProxyImpl::Start() {
  if (isRunning()) return true;
  OpenStatistics();
  SOCKET old = listenSocket_.exchange(INVALID_SOCKET);
  if (old != INVALID_SOCKET) os::closesocket(old);
  if (!Initialize()) return false;
  LogTime(kLevelInfo, "Starting Proxy @");

  SOCKET s = os::CreateTcpSocket();
  if (s == INVALID_SOCKET) return false;
  listenSocket_ = s;
  if (os::BindAny(s, port_) != 0) {
    // The configured port is taken: let the system choose a free one.
    if (port_ == 0 || (port_ = 0, os::BindAny(s, 0) != 0)) {
      LogLine(kLevelError, "Proxy failed to bind");
      return false;
    }
  }
  if (port_ == 0) {
    std::uint32_t address = 0;
    std::uint16_t bound = 0;
    if (os::getsockname(s, &address, &bound) == 0) port_ = bound;
  }
  const int backlog = HasExtension(kExtensionDeepAcceptQueue) ? os::kMaxListenBacklog : kListenBacklog;
  if (os::listen(s, backlog) != 0) {
    LogLine(kLevelError, "Proxy failed to listen");
    return false;
  }

  CStringBuffer iniPath(dataFolder_);
  iniPath << "\\vexilo.ini";
  CStringBuffer portText;
  portText << port_;
  os::WritePrivateProfileStringA("Vexilo", "Port", portText, iniPath);

  if (headerManager_ != nullptr) headerManager_->Start();
  settings_.Store(settings_.GetFileName());
  LogLine(kLevelInfo, "Proxy started on port ", port_);
  listeningPort_ = port_;
  for (CLimitNote& note : limitNotes_) note.Reset();
  RefuseSelfUpstream();
  return CThreadEx::Start();
}

DWORD CVxHTTPProxyImpl::Run() {
  CProxyManager* clients = CProxyManager::Instance();
  DWORD lastReap = os::GetTickCount();
  for (;;) {
    if (os::GetTickCount() - lastReap > kReapIntervalMs) {
      clients->Reap();
      lastReap = os::GetTickCount();
    } else if (clients->HasFinished()) {
      // Workers whose threads have ended are freed as soon as the loop comes
      // round, so their stacks go back at once instead of piling up between
      // reapings; one still on its way out waits for a later pass.
      clients->ReapEnded();
    }
    const SOCKET listener = listenSocket_;
    const int ready = os::SelectRead(listener, INVALID_SOCKET, kAcceptWaitSeconds, 0);
    if (ready == 0) continue;
    if (ready < 0) return 0;  // closed by Stop, or failed

    std::uint32_t peer = 0;
    std::uint16_t peerPort = 0;
    SOCKET accepted = os::accept(listener, &peer, &peerPort);
    if (accepted == INVALID_SOCKET) return 0;
    if (peer != os::kLoopbackAddress) {
      os::closesocket(accepted);  // only browsers on this machine are served
      continue;
    }
    CProxyClient* worker = new (std::nothrow) CProxyClient(accepted);
    if (worker == nullptr) {
      os::closesocket(accepted);
      continue;
    }
    clients->Add(worker);
    // A worker whose thread cannot start is handed straight to the reaper.
    if (!worker->Start()) clients->OnWorkerFinished(worker);
  }
}

bool CVxHTTPProxyImpl::Stop() {
  LogTime(kLevelInfo, "Proxy stop called @");
  CProxyManager* clients = CProxyManager::Instance();
  listeningPort_ = 0;
  SOCKET s = listenSocket_.exchange(INVALID_SOCKET);
  if (s != INVALID_SOCKET) os::closesocket(s);
  clients->StopAll();
  CloseStatistics();
  if (headerManager_ != nullptr) headerManager_->Stop();
  LogTime(kLevelInfo, "Proxy Stopped @");
  Uninitialize();
  return CThreadEx::Stop();
}

// -------------------------------------------------------- simple members --

CMemLogEx* CVxHTTPProxyImpl::GetMemLog() { return &memLog_; }

CLog* CVxHTTPProxyImpl::GetLog(int number) {
  CLog* log = CLogManager::Instance()->GetLog(number);
  return log != nullptr ? log : &ownLog_;
}

CSecureXMLParser* CVxHTTPProxyImpl::GetSettings() { return &settings_; }

const char* CVxHTTPProxyImpl::GetMimeType(const char* typeWord) {
  return ::GetMimeType(mimeTable_, typeWord);
}

int CVxHTTPProxyImpl::GetActiveClientCount() { return clients_->GetActiveCount(); }
CFilterEngineImpl* CVxHTTPProxyImpl::GetFilterEngine() { return &filterEngine_; }
CHeaderManager* CVxHTTPProxyImpl::GetHeaderManager() { return headerManager_; }
bool CVxHTTPProxyImpl::IsFilteringEnabled() { return filteringEnabled_; }

bool CVxHTTPProxyImpl::EnableFiltering(bool enable) {
  filteringEnabled_ = enable;
  return filteringEnabled_;
}

void CVxHTTPProxyImpl::SetUpstreamProxy(const CStringBuffer& host, const unsigned short* port) {
  upstreamHost_ = host;
  upstreamPort_ = port != nullptr ? *port : 0;
  if (listeningPort_ != 0) RefuseSelfUpstream();
}

void CVxHTTPProxyImpl::RefuseSelfUpstream() {
  if (upstreamHost_.GetSize() == 0 || !IsThisProxy(upstreamHost_, upstreamPort_)) return;
  // Every request would come back here and be sent on again, without end.
  LogLine(kLevelError, "Upstream proxy ", upstreamHost_.GetBuffer(), ":", upstreamPort_,
          " is this proxy itself: not used, requests go direct");
  upstreamHost_.Initialize();
  upstreamPort_ = 0;
}

bool CVxHTTPProxyImpl::IsThisProxy(const char* host, unsigned short port) {
  const unsigned short own = listeningPort_;
  if (own == 0 || port != own || host == nullptr) return false;
  if (EqualsNoCase(host, "localhost")) return true;
  // The address a connect would take: the first the name resolves to.
  std::vector<std::uint32_t> addresses;
  return os::gethostbyname(host, &addresses) && !addresses.empty() &&
         os::IsOwnAddress(addresses.front());
}

CStringBuffer* CVxHTTPProxyImpl::GetUpstreamProxy(unsigned short* port) {
  if (port != nullptr) *port = upstreamPort_;
  return &upstreamHost_;
}

HMODULE CVxHTTPProxyImpl::SetInstanceHandle(HMODULE instance) {
  instance_ = instance;
  return instance_;
}

HMODULE CVxHTTPProxyImpl::GetInstanceHandle() { return instance_; }
void CVxHTTPProxyImpl::Reserved23() {}
CSiteCounterImpl* CVxHTTPProxyImpl::GetSiteCounter() { return &siteCounter_; }
void CVxHTTPProxyImpl::SetDataFolder(const char* folder) { dataFolder_ = folder; }
void CVxHTTPProxyImpl::SetFilterFolder(const char* folder) { filterFolder_ = folder; }
void CVxHTTPProxyImpl::SetLogFolder(const char* folder) { logFolder_ = folder; }
const char* CVxHTTPProxyImpl::GetDataFolder() { return dataFolder_; }
const char* CVxHTTPProxyImpl::GetFilterFolder() { return filterFolder_; }
const char* CVxHTTPProxyImpl::GetLogFolder() { return logFolder_; }
void CVxHTTPProxyImpl::SetHostFolder(const char* folder) { hostFolder_ = folder; }
const char* CVxHTTPProxyImpl::GetHostFolder() { return hostFolder_; }

void CVxHTTPProxyImpl::ReleaseDocuments() {
  settings_.Destroy();
  siteCounter_.Destroy();
}

void CVxHTTPProxyImpl::OpenStatistics() {
  CStringBuffer path(logFolder_);
  path << "\\siteinfo.log";
  siteCounter_.Open(path);
  path = dataFolder_;
  path << "\\sitecounter.xml";
  siteCounter_.OpenGlobal(path);
}

std::int64_t CVxHTTPProxyImpl::CloseStatistics() {
  siteCounter_.SetLoaded(false);
  return static_cast<std::int64_t>(siteCounter_.GetHistory());
}

int CVxHTTPProxyImpl::GetTraceMode() { return traceMode_; }

int CVxHTTPProxyImpl::SetTraceMode(int mode) {
  traceMode_ = mode;
  return traceMode_;
}

bool CVxHTTPProxyImpl::IsLocalHostName(const char* name) {
  if (name == nullptr) return false;
  if (EqualsNoCase(name, "localhost")) return true;
  if (std::strlen(name) >= 8) {
    CStringBuffer head;
    head.AddString(name, 8);
    if (head == "127.0.0.") return true;
  }
  char hostName[kHostNameSize] = {};
  if (os::gethostname(hostName, kHostNameSize) == 0) {
    if (EqualsNoCase(name, hostName)) return true;
    const std::uint32_t address = os::inet_addr(name);
    if (address != os::INADDR_NONE_VALUE) {
      std::vector<std::uint32_t> addresses;
      if (os::gethostbyname(hostName, &addresses)) {
        return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
      }
    }
  }
  char computer[kHostNameSize] = {};
  DWORD size = kHostNameSize;
  if (!os::GetComputerNameA(computer, &size)) return false;
  return EqualsNoCase(name, computer);
}

// ---------------------------------------------------------------- counters --

void CVxHTTPProxyImpl::CountFilteredRequest() { ++filteredRequests_; }
int CVxHTTPProxyImpl::GetFilteredRequests() { return static_cast<int>(filteredRequests_.load()); }
int CVxHTTPProxyImpl::GetBlockedImages() { return static_cast<int>(blockedImages_.load()); }
int CVxHTTPProxyImpl::GetBlockedFlash() { return static_cast<int>(blockedFlash_.load()); }
void CVxHTTPProxyImpl::CountBlockedImage() { ++blockedImages_; }
void CVxHTTPProxyImpl::CountBlockedFlash() { ++blockedFlash_; }

int CVxHTTPProxyImpl::ResetCounters() {
  filteredRequests_ = 0;
  blockedImages_ = 0;
  blockedFlash_ = 0;
  return 0;
}

// ------------------------------------------------------------- extensions --

unsigned CVxHTTPProxyImpl::SetExtensions(unsigned mask) {
  return extensions_.exchange(mask & kExtensionsAll);
}

unsigned CVxHTTPProxyImpl::GetExtensions() { return extensions_; }

// -------------------------------------------------------------- type words --

void CVxHTTPProxyImpl::NormalizeTypeWord(CStringBuffer& word) { ::NormalizeTypeWord(typeWordTable_, word); }
bool CVxHTTPProxyImpl::IsReplaceableType(CStringBuffer& word) { return ::IsReplaceableType(word); }
bool CVxHTTPProxyImpl::IsImageWord(CStringBuffer& word) { return ::IsImageWord(word); }
bool CVxHTTPProxyImpl::IsFlashWord(CStringBuffer& word) { return ::IsFlashWord(word); }
bool CVxHTTPProxyImpl::IsPageWord(CStringBuffer& word) { return ::IsPageWord(word); }

void CVxHTTPProxyImpl::CountBlockedSite(const char* site) { siteCounter_.AddSite(site); }

// The memory log is shared by the host's thread, the accept thread, the
// prober and the workers: a line is built whole under its lock.
CMemLogEx& CVxHTTPProxyImpl::BeginLogLine(int level) {
  memLogLock_.Lock();
  memLog_ << CLogManip(level);
  return memLog_;
}

void CVxHTTPProxyImpl::EndLogLine() { memLogLock_.UnLock(); }

CLimitNote& CVxHTTPProxyImpl::LimitNote(SafetyLimit limit) {
  return limitNotes_[static_cast<int>(limit)];
}

// ----------------------------------------------------------- notifications --

NotifyTarget* CVxHTTPProxyImpl::AddNotifyTarget(HWND window, DWORD threadId, UINT messageId,
                                            DWORD eventMask, bool enabled) {
  CAutoSync guard(notifyLock_);
  NotifyTarget* found = nullptr;
  for (NotifyTarget* target : notifyTargets_) {
    if (target->messageId == messageId && target->window == window &&
        target->threadId == threadId) {
      found = target;
      break;
    }
  }
  if (found == nullptr) {
    found = new NotifyTarget{messageId, window, threadId, 0, false};
    notifyTargets_.push_back(found);
  }
  found->eventMask = eventMask;
  found->enabled = enabled;
  return found;
}

void CVxHTTPProxyImpl::RemoveNotifyTarget(HWND window, DWORD threadId, UINT messageId) {
  CAutoSync guard(notifyLock_);
  for (auto it = notifyTargets_.begin(); it != notifyTargets_.end(); ++it) {
    NotifyTarget* target = *it;
    if (target->messageId == messageId && target->window == window &&
        target->threadId == threadId) {
      delete target;
      notifyTargets_.erase(it);
      return;
    }
  }
}

void CVxHTTPProxyImpl::Notify(unsigned short event) {
  CAutoSync guard(notifyLock_);
  for (const NotifyTarget* target : notifyTargets_) {
    if (!target->enabled || target->messageId == 0) continue;
    if (target->window == nullptr && target->threadId == 0) continue;
    if ((target->eventMask & event) != event) continue;
    // A failed post (window gone, thread without a queue) is ignored; the
    // record stays for the next event.
    if (target->window != nullptr) {
      os::PostMessageA(target->window, target->messageId, event, 0);
    } else {
      os::PostThreadMessageA(target->threadId, target->messageId, event, 0);
    }
  }
}
