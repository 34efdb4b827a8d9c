// The proxy service object: one per process, reached through GetProxy. A host
// drives the whole proxy through its virtual operations; their order is part
// of the host interface and must not change.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "vxproxy/filterengine.h"
#include "vxproxy/log.h"
#include "vxproxy/sitecounter.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"
#include "vxproxy/types.h"
#include "vxproxy/xmlstore.h"

class CHeaderManager;
class CProxyManager;

// One registration of a window or thread that wants to hear of events.
struct NotifyTarget {
  vx::UINT messageId;
  vx::HWND window;
  vx::DWORD threadId;
  vx::DWORD eventMask;
  bool enabled;
};

// Event values posted to notify targets.
constexpr unsigned short kEventRequestBlocked = 1;

// Log numbers.
constexpr int kLogProxy = 2;
constexpr int kLogBlocked = 4;
constexpr int kLogRequest = 8;

class CVxHTTPProxy : public CThreadEx {
 public:
  CVxHTTPProxy();
  ~CVxHTTPProxy() override;                                        // 0
  // 1 isRunning, 3 Stop(timeout), 5 Kill: inherited from CThreadEx.
  bool Stop() override;                                            // 2
  using CThreadEx::Stop;
  bool Start() override;                                           // 4
  vx::DWORD Run() override;                                            // 6: accept loop
  virtual bool Initialize();                                       // 7
  virtual void Uninitialize();                                     // 8
  virtual CMemLogEx* GetMemLog();                                  // 9
  virtual CLog* GetLog(int number);                                // 10
  virtual CSecureXMLParser* GetSettings();                         // 11
  virtual const char* GetMimeType(const char* typeWord);           // 12
  virtual int GetActiveClientCount();                              // 13
  virtual CFilterEngine* GetFilterEngine();                        // 14
  virtual CHeaderManager* GetHeaderManager();                      // 15
  virtual bool IsFilteringEnabled();                               // 16
  virtual bool EnableFiltering(bool enable);                       // 17
  virtual void LoadPort();                                         // 18
  virtual void SetUpstreamProxy(const CStringBuffer& host, const unsigned short* port);  // 19
  virtual CStringBuffer* GetUpstreamProxy(unsigned short* port);   // 20
  virtual vx::HMODULE SetInstanceHandle(vx::HMODULE instance);             // 21
  virtual vx::HMODULE GetInstanceHandle();                             // 22
  virtual void Reserved23();                                       // 23: unused slot, kept for the layout
  virtual CSiteCounter* GetSiteCounter();                          // 24
  virtual void SetDataFolder(const char* folder);                  // 25
  virtual void SetFilterFolder(const char* folder);                // 26
  virtual void SetLogFolder(const char* folder);                   // 27
  virtual const char* GetDataFolder();                             // 28
  virtual const char* GetFilterFolder();                           // 29
  virtual const char* GetLogFolder();                              // 30
  virtual void SetHostFolder(const char* folder);                  // 31
  virtual const char* GetHostFolder();                             // 32
  virtual void ReleaseDocuments();                                 // 33
  virtual void OpenStatistics();                                   // 34
  virtual std::int64_t CloseStatistics();                          // 35
  virtual NotifyTarget* AddNotifyTarget(vx::HWND window, vx::DWORD threadId, vx::UINT messageId,
                                        vx::DWORD eventMask, bool enabled);  // 36
  virtual void RemoveNotifyTarget(vx::HWND window, vx::DWORD threadId, vx::UINT messageId);  // 37
  virtual int GetTraceMode();                                      // 38
  virtual int SetTraceMode(int mode);                              // 39
  virtual bool LoadFilterLists();                                  // 40
  virtual bool IsLocalHostName(const char* name);                  // 41
  virtual void CountFilteredRequest();                             // 42
  virtual int GetFilteredRequests();                               // 43
  virtual int GetBlockedImages();                                  // 44
  virtual int GetBlockedFlash();                                   // 45
  virtual void CountBlockedImage();                                // 46
  virtual void CountBlockedFlash();                                // 47
  virtual int ResetCounters();                                     // 48

  // Type words (not part of the host's slot table).
  void NormalizeTypeWord(CStringBuffer& word);
  bool IsReplaceableType(CStringBuffer& word);
  bool IsImageWord(CStringBuffer& word);
  bool IsFlashWord(CStringBuffer& word);
  bool IsPageWord(CStringBuffer& word);

  // Posts the event to every matching notify target.
  void Notify(unsigned short event);

  unsigned short GetPort() const { return port_; }
  // The port is read from vexilo.ini only while it is unknown; forgetting it
  // makes the next Start read the file again.
  void ResetPort() { port_ = 0; }

  // Writes one line to the service's memory log. The memory log is shared by
  // the host's thread, the accept thread and the workers, so whole lines are
  // built under a lock and never interleave.
  template <typename... Pieces>
  void LogLine(int level, const Pieces&... pieces) {
    CAutoSync guard(memLogLock_);
    memLog_ << CLogManip(level);
    ((memLog_ << pieces), ...);
    memLog_ << lend;
  }

 private:
  void OpenLogs();
  void LogTime(int level, const char* text);

  std::atomic<vx::SOCKET> listenSocket_;  // read by the accept loop on every pass
  std::map<std::string, std::string> mimeTable_;
  std::map<std::string, std::string> typeWordTable_;
  CLog ownLog_;
  unsigned short port_;
  std::atomic<bool> filteringEnabled_;  // may change while workers read it
  CStringBuffer upstreamHost_;
  unsigned short upstreamPort_;
  vx::HMODULE instance_;
  std::atomic<int> traceMode_;
  CProxyManager* clients_;
  CHeaderManager* headerManager_;
  CFilterEngine filterEngine_;
  std::atomic<unsigned> filteredRequests_;
  std::atomic<unsigned> blockedImages_;
  std::atomic<unsigned> blockedFlash_;
  CSecureXMLParser settings_;
  std::vector<NotifyTarget*> notifyTargets_;
  CSiteCounter siteCounter_;
  CStringBuffer dataFolder_;
  CStringBuffer logFolder_;
  CStringBuffer filterFolder_;
  CStringBuffer hostFolder_;
  CCriticalSectionEx notifyLock_;
  CMemLogEx memLog_;
  CCriticalSectionEx memLogLock_;
};

extern "C" VX_EXPORT CVxHTTPProxy* GetProxy();
using GetProxyFunction = CVxHTTPProxy* (*)();
