// The site counter as the module builds it: the host's slots of CSiteCounter
// and the operations the service and its workers use. Hosts never see this
// class; its layout may change freely.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "vxproxy/sitecounter.h"
#include "vxproxy/threads.h"

class CGlobalCounter;

// No operation is added to the table: it stays the one of CSiteCounter.
class CSiteCounterImpl : public CSiteCounter {
 public:
  CSiteCounterImpl();
  // Saves the global counters; counts added since siteinfo.log was last
  // stored are not written.
  ~CSiteCounterImpl() override;

  void Destroy() override;
  using CSecureXMLParser::Store;
  int Store(const char* path) override;
  void ClearSites() override;
  std::uint64_t GetSiteHistory() override;
  CSiteList* GetSites() override;
  void FreeSites(CSiteList* list) override;
  std::uint64_t GetSitesCounter() override;
  std::uint64_t GetHistory() override;
  std::uint64_t GetRequestHistory() override;
  void AddRequests(int n) override;
  void AddBytes(unsigned long sent, unsigned long received) override;
  void AddAdSize(std::uint64_t size) override;
  void GetBytes(std::uint64_t* sent, std::uint64_t* received, std::uint64_t* adSize) override;
  std::int64_t GetStatStartTime() override;

  // siteinfo.log; site counting is on only when it opened.
  bool Open(const char* path);
  // sitecounter.xml.
  bool OpenGlobal(const char* path);
  // Counts one blocked request for the site (the element name, as given).
  void AddSite(const char* site);
  // Switching off stores siteinfo.log first.
  void SetLoaded(bool on);
  bool IsLoaded() const { return loaded_.load(); }
  // Writes both files when counting is on and the last save is more than a
  // minute ago.
  void Save();

 protected:
  // Lets tests stand a minute later without waiting for it.
  void SetLastSave(vxtime64_t when) { lastSave_.store(when); }

 private:
  std::uint64_t SiteHistory();

  std::atomic<vxtime64_t> lastSave_{0};
  std::atomic<bool> loaded_{false};
  CCriticalSectionEx lock_;  // the site document and fileName_
  std::unique_ptr<CGlobalCounter> global_;
};
