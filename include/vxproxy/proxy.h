// The proxy service object: one per process, reached through GetProxy. A host
// drives the whole proxy through its virtual operations; their order is part
// of the host interface and must not change. The object itself is built
// inside the module, so nothing of its state shows here.
#pragma once

#include <cstdint>

#include "vxproxy/extensions.h"
#include "vxproxy/filterengine.h"
#include "vxproxy/log.h"
#include "vxproxy/sitecounter.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"
#include "vxproxy/types.h"
#include "vxproxy/xmlstore.h"

class CHeaderManager;

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
  // Slots 0 to 6 are those of CThreadEx: the service's Stop (2) stops the
  // proxy, its Start (4) starts it and its thread body (6) is the accept loop.
  ~CVxHTTPProxy() override;                                        // 0
  virtual bool Initialize() = 0;                                   // 7
  virtual void Uninitialize() = 0;                                 // 8
  virtual CMemLogEx* GetMemLog() = 0;                              // 9
  virtual CLog* GetLog(int number) = 0;                            // 10
  virtual CSecureXMLParser* GetSettings() = 0;                     // 11
  virtual const char* GetMimeType(const char* typeWord) = 0;       // 12
  virtual int GetActiveClientCount() = 0;                          // 13
  virtual CFilterEngine* GetFilterEngine() = 0;                    // 14
  virtual CHeaderManager* GetHeaderManager() = 0;                  // 15
  virtual bool IsFilteringEnabled() = 0;                           // 16
  virtual bool EnableFiltering(bool enable) = 0;                   // 17
  virtual void LoadPort() = 0;                                     // 18
  virtual void SetUpstreamProxy(const CStringBuffer& host, const unsigned short* port) = 0;  // 19
  virtual CStringBuffer* GetUpstreamProxy(unsigned short* port) = 0;  // 20
  virtual vx::HMODULE SetInstanceHandle(vx::HMODULE instance) = 0;  // 21
  virtual vx::HMODULE GetInstanceHandle() = 0;                     // 22
  virtual void Reserved23() = 0;                                   // 23: unused slot, kept for the layout
  virtual CSiteCounter* GetSiteCounter() = 0;                      // 24
  virtual void SetDataFolder(const char* folder) = 0;              // 25
  virtual void SetFilterFolder(const char* folder) = 0;            // 26
  virtual void SetLogFolder(const char* folder) = 0;               // 27
  virtual const char* GetDataFolder() = 0;                         // 28
  virtual const char* GetFilterFolder() = 0;                       // 29
  virtual const char* GetLogFolder() = 0;                          // 30
  virtual void SetHostFolder(const char* folder) = 0;              // 31
  virtual const char* GetHostFolder() = 0;                         // 32
  virtual void ReleaseDocuments() = 0;                             // 33
  virtual void OpenStatistics() = 0;                               // 34
  virtual std::int64_t CloseStatistics() = 0;                      // 35
  virtual NotifyTarget* AddNotifyTarget(vx::HWND window, vx::DWORD threadId, vx::UINT messageId,
                                        vx::DWORD eventMask, bool enabled) = 0;  // 36
  virtual void RemoveNotifyTarget(vx::HWND window, vx::DWORD threadId, vx::UINT messageId) = 0;  // 37
  virtual int GetTraceMode() = 0;                                  // 38
  virtual int SetTraceMode(int mode) = 0;                          // 39
  virtual bool LoadFilterLists() = 0;                              // 40
  virtual bool IsLocalHostName(const char* name) = 0;              // 41
  virtual void CountFilteredRequest() = 0;                         // 42
  virtual int GetFilteredRequests() = 0;                           // 43
  virtual int GetBlockedImages() = 0;                              // 44
  virtual int GetBlockedFlash() = 0;                               // 45
  virtual void CountBlockedImage() = 0;                            // 46
  virtual void CountBlockedFlash() = 0;                            // 47
  virtual int ResetCounters() = 0;                                 // 48

  // Behaviour beyond the original design, one bit each (kExtension...).
  // Unknown bits are ignored; the module starts with none of them.
  virtual unsigned SetExtensions(unsigned mask) = 0;               // 49: the previous mask
  virtual unsigned GetExtensions() = 0;                            // 50

  // The port the service listens on: the configured one, or the one the
  // system gave when that was taken. 0 before the first Start.
  virtual unsigned short GetPort() = 0;                            // 51

 protected:
  CVxHTTPProxy() = default;
};

extern "C" VX_EXPORT CVxHTTPProxy* GetProxy();
using GetProxyFunction = CVxHTTPProxy* (*)();
