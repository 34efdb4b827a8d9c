// The service object as the module builds it: the host's slots of
// CVxHTTPProxy and the state and helpers behind them that the module's own
// workers use. Hosts never see this class; its layout may change freely.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "filter/engine.h"
#include "log/logimpl.h"
#include "http/services.h"
#include "platform/winnames.h"
#include "stats/sitecounterimpl.h"
#include "vxproxy/filterengine.h"
#include "vxproxy/log.h"
#include "vxproxy/proxy.h"
#include "vxproxy/sitecounter.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"
#include "vxproxy/xmlstore.h"

class CProxyManager;

// No operation is added to the host's table: CVxHTTPProxy comes first, so its
// table stays the object's primary one.
class CVxHTTPProxyImpl final : public CVxHTTPProxy, public CRequestServices {
 public:
  CVxHTTPProxyImpl();
  ~CVxHTTPProxyImpl() override;
  bool Stop() override;
  using CThreadEx::Stop;
  bool Start() override;
  DWORD Run() override;
  bool Initialize() override;
  void Uninitialize() override;
  CMemLogEx* GetMemLog() override;
  CLog* GetLog(int number) override;
  CSecureXMLParser* GetSettings() override;
  const char* GetMimeType(const char* typeWord) override;
  int GetActiveClientCount() override;
  // The engine with its whole interface; the host's slot returns the same object.
  CFilterEngineImpl* GetFilterEngine() override;
  CHeaderManager* GetHeaderManager() override;
  bool IsFilteringEnabled() override;
  bool EnableFiltering(bool enable) override;
  void LoadPort() override;
  void SetUpstreamProxy(const CStringBuffer& host, const unsigned short* port) override;
  CStringBuffer* GetUpstreamProxy(unsigned short* port) override;
  HMODULE SetInstanceHandle(HMODULE instance) override;
  HMODULE GetInstanceHandle() override;
  void Reserved23() override;
  // The counter with its module-side operations; the host's slot returns the same object.
  CSiteCounterImpl* GetSiteCounter() override;
  void SetDataFolder(const char* folder) override;
  void SetFilterFolder(const char* folder) override;
  void SetLogFolder(const char* folder) override;
  const char* GetDataFolder() override;
  const char* GetFilterFolder() override;
  const char* GetLogFolder() override;
  void SetHostFolder(const char* folder) override;
  const char* GetHostFolder() override;
  void ReleaseDocuments() override;
  void OpenStatistics() override;
  std::int64_t CloseStatistics() override;
  NotifyTarget* AddNotifyTarget(HWND window, DWORD threadId, UINT messageId, DWORD eventMask,
                                bool enabled) override;
  void RemoveNotifyTarget(HWND window, DWORD threadId, UINT messageId) override;
  int GetTraceMode() override;
  int SetTraceMode(int mode) override;
  bool LoadFilterLists() override;
  bool IsLocalHostName(const char* name) override;
  void CountFilteredRequest() override;
  int GetFilteredRequests() override;
  int GetBlockedImages() override;
  int GetBlockedFlash() override;
  void CountBlockedImage() override;
  void CountBlockedFlash() override;
  int ResetCounters() override;
  unsigned SetExtensions(unsigned mask) override;
  unsigned GetExtensions() override;
  unsigned short GetPort() override { return port_; }

  // What the workers use.
  const CFilterEngineImpl& Filter() override { return filterEngine_; }
  void NormalizeTypeWord(CStringBuffer& word) override;
  bool IsReplaceableType(CStringBuffer& word) override;
  bool IsImageWord(CStringBuffer& word) override;
  bool IsFlashWord(CStringBuffer& word) override;
  bool IsPageWord(CStringBuffer& word);
  // Posts the event to every matching notify target.
  void Notify(unsigned short event) override;
  void CountBlockedSite(const char* site) override;
  bool HasExtension(unsigned bit) override { return (extensions_.load(std::memory_order_relaxed) & bit) != 0; }
  bool IsThisProxy(const char* host, unsigned short port) override;

  // The port is read from vexilo.ini only while it is unknown; forgetting it
  // makes the next Start read the file again.
  void ResetPort() { port_ = 0; }

  using CRequestServices::LogLine;

 protected:
  CMemLogEx& BeginLogLine(int level) override;
  void EndLogLine() override;
  CLimitNote& LimitNote(SafetyLimit limit) override;

 private:
  void OpenLogs();
  void LogTime(int level, const char* text);
  // Drops an upstream proxy that is this proxy itself, with an error line.
  void RefuseSelfUpstream();

  std::atomic<SOCKET> listenSocket_;  // read by the accept loop on every pass
  std::atomic<unsigned short> listeningPort_{0};  // 0 while stopped; read by the workers
  CLimitNote limitNotes_[static_cast<int>(SafetyLimit::kCount)];
  std::map<std::string, std::string> mimeTable_;
  std::map<std::string, std::string> typeWordTable_;
  CLogImpl ownLog_;
  unsigned short port_;
  std::atomic<bool> filteringEnabled_;  // may change while workers read it
  CStringBuffer upstreamHost_;
  unsigned short upstreamPort_;
  HMODULE instance_;
  std::atomic<int> traceMode_;
  std::atomic<unsigned> extensions_;  // kExtension bits; read by every worker
  CProxyManager* clients_;
  CHeaderManager* headerManager_;
  CFilterEngineImpl filterEngine_;
  std::atomic<unsigned> filteredRequests_;
  std::atomic<unsigned> blockedImages_;
  std::atomic<unsigned> blockedFlash_;
  CSecureXMLParser settings_;
  std::vector<NotifyTarget*> notifyTargets_;
  CSiteCounterImpl siteCounter_;
  CStringBuffer dataFolder_;
  CStringBuffer logFolder_;
  CStringBuffer filterFolder_;
  CStringBuffer hostFolder_;
  CCriticalSectionEx notifyLock_;
  CMemLogEx memLog_;
  CCriticalSectionEx memLogLock_;
};

// The one service object, for the module's own code: GetProxy as the class
// that carries the module's helpers.
inline CVxHTTPProxyImpl* Service() { return static_cast<CVxHTTPProxyImpl*>(GetProxy()); }
