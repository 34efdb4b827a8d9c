// Statistics: per-site counts of blocked requests (siteinfo.log) and the
// global counters shared between processes (sitecounter.xml). The host reads
// them through the site counter's virtual operations, whose order is part of
// the host interface.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "vxproxy/threads.h"
#include "vxproxy/types.h"
#include "vxproxy/xmlstore.h"

// The list a host gets from GetSites: site element name -> counter text, and
// the total of all sites.
struct CSiteList {
  std::map<std::string, std::string> sites;
  std::uint64_t total = 0;
};

class CGlobalCounter;

class CSiteCounter : public CSecureXMLParser {
 public:
  CSiteCounter();
  // Saves the global counters; counts added since siteinfo.log was last
  // stored are not written.
  ~CSiteCounter() override;

  void Destroy() override;                                                    // 3
  using CSecureXMLParser::Store;
  int Store(const char* path) override;                                       // 38
  virtual void ClearSites();                                                  // 43
  virtual std::uint64_t GetSiteHistory();                                     // 44
  virtual CSiteList* GetSites();                                              // 45
  virtual void FreeSites(CSiteList* list);                                    // 46
  virtual std::uint64_t GetSitesCounter();                                    // 47
  virtual std::uint64_t GetHistory();                                         // 48
  virtual std::uint64_t GetRequestHistory();                                  // 49
  virtual void AddRequests(int n);                                            // 50
  virtual void AddBytes(unsigned long sent, unsigned long received);          // 51
  virtual void AddAdSize(std::uint64_t size);                                 // 52
  virtual void GetBytes(std::uint64_t* sent, std::uint64_t* received, std::uint64_t* adSize);  // 53
  virtual std::int64_t GetStatStartTime();                                    // 54

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

// A map from site name to a 32-bit value, offered to hosts by name.
class VX_EXPORT CProxySiteStatistics {
 public:
  CProxySiteStatistics();
  CProxySiteStatistics(const CProxySiteStatistics& other);
  CProxySiteStatistics& operator=(const CProxySiteStatistics& other);
  virtual ~CProxySiteStatistics();

  std::map<std::string, std::uint32_t>& Sites() { return *sites_; }

 private:
  std::map<std::string, std::uint32_t>* sites_;
};
