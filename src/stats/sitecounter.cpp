#include "vxproxy/sitecounter.h"

// Site counting is switched off until the statistics store is opened; the
// counting itself arrives with the statistics subsystem.

CSiteCounter::CSiteCounter() = default;
CSiteCounter::~CSiteCounter() = default;

void CSiteCounter::ClearSites() {}
std::uint64_t CSiteCounter::GetSiteHistory() { return 0; }
CSiteList* CSiteCounter::GetSites() { return new CSiteList; }
void CSiteCounter::FreeSites(CSiteList* list) { delete list; }
std::uint64_t CSiteCounter::GetSitesCounter() { return 0; }
std::uint64_t CSiteCounter::GetHistory() { return 0; }
std::uint64_t CSiteCounter::GetRequestHistory() { return 0; }
void CSiteCounter::AddRequests(int) {}
void CSiteCounter::AddBytes(unsigned long, unsigned long) {}
void CSiteCounter::AddAdSize(std::uint64_t) {}
void CSiteCounter::GetBytes(std::uint64_t* sent, std::uint64_t* received, std::uint64_t* adSize) {
  if (sent) *sent = 0;
  if (received) *received = 0;
  if (adSize) *adSize = 0;
}
std::int64_t CSiteCounter::GetStatStartTime() { return 0; }

bool CSiteCounter::Open(const char*) { return true; }
bool CSiteCounter::OpenGlobal(const char*) { return true; }
void CSiteCounter::AddSite(const char*) {}
void CSiteCounter::SetLoaded(bool on) { loaded_ = on; }
