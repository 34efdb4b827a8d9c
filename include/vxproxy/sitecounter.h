// Statistics: per-site counts of blocked requests (siteinfo.log) and the
// global counters shared between processes (sitecounter.xml). The host reads
// them through the site counter's virtual operations, whose order is part of
// the host interface. The counter belongs to the service object, which hands
// it out; its state and the module's own operations live in the module.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "vxproxy/types.h"
#include "vxproxy/xmlstore.h"

// The list a host gets from GetSites: site element name -> counter text, and
// the total of all sites.
struct CSiteList {
  std::map<std::string, std::string> sites;
  std::uint64_t total = 0;
};

// Slots 0 to 42 are those of the site document (CSecureXMLParser); the
// counter replaces two of them, under its own lock, and adds 43 to 54.
class CSiteCounter : public CSecureXMLParser {
 public:
  ~CSiteCounter() override;

  void Destroy() override = 0;                                                // 3
  using CSecureXMLParser::Store;
  int Store(const char* path) override = 0;                                   // 38
  virtual void ClearSites() = 0;                                              // 43
  virtual std::uint64_t GetSiteHistory() = 0;                                 // 44
  virtual CSiteList* GetSites() = 0;                                          // 45
  virtual void FreeSites(CSiteList* list) = 0;                                // 46
  virtual std::uint64_t GetSitesCounter() = 0;                                // 47
  virtual std::uint64_t GetHistory() = 0;                                     // 48
  virtual std::uint64_t GetRequestHistory() = 0;                              // 49
  virtual void AddRequests(int n) = 0;                                        // 50
  virtual void AddBytes(unsigned long sent, unsigned long received) = 0;      // 51
  virtual void AddAdSize(std::uint64_t size) = 0;                             // 52
  virtual void GetBytes(std::uint64_t* sent, std::uint64_t* received, std::uint64_t* adSize) = 0;  // 53
  virtual std::int64_t GetStatStartTime() = 0;                                // 54

  CSiteCounter(const CSiteCounter&) = delete;
  CSiteCounter& operator=(const CSiteCounter&) = delete;

 protected:
  CSiteCounter();
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
