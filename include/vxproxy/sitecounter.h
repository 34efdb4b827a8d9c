// Statistics: per-site counts of blocked requests (siteinfo.log) and the
// global counters shared between processes (sitecounter.xml). The host reads
// them through the site counter's virtual operations, whose order is part of
// the host interface.
#pragma once

#include <cstdint>
#include <map>
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

class CSiteCounter : public CSecureXMLParser {
 public:
  CSiteCounter();
  ~CSiteCounter() override;

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

  bool Open(const char* path);
  bool OpenGlobal(const char* path);
  void AddSite(const char* site);
  void SetLoaded(bool on);
  bool IsLoaded() const { return loaded_; }

 private:
  bool loaded_ = false;
  CCriticalSectionEx lock_;
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
