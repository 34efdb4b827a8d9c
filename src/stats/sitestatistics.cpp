#include "vxproxy/sitecounter.h"

CProxySiteStatistics::CProxySiteStatistics() : sites_(new std::map<std::string, std::uint32_t>) {}

CProxySiteStatistics::CProxySiteStatistics(const CProxySiteStatistics& other)
    : sites_(new std::map<std::string, std::uint32_t>(*other.sites_)) {}

CProxySiteStatistics& CProxySiteStatistics::operator=(const CProxySiteStatistics& other) {
  if (this != &other) *sites_ = *other.sites_;
  return *this;
}

CProxySiteStatistics::~CProxySiteStatistics() { delete sites_; }
