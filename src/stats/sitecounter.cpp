#include "stats/sitecounterimpl.h"

#include <string>
#include <vector>

#include "platform/platform.h"
#include "stats/counterfile.h"
#include "stats/globalcounter.h"

using vxstats::FindOrCreate;
using vxstats::ReadU64;
using vxstats::ValueText;

namespace {

// The periodic save runs when the last one is more than this long ago.
constexpr vxtime64_t kSaveIntervalSeconds = 59;

// A counter text holds whatever a file gave us; the largest int wraps
// instead of overflowing.
int Incremented(int value) { return static_cast<int>(static_cast<unsigned>(value) + 1u); }

}  // namespace

CSiteCounter::CSiteCounter() = default;

CSiteCounter::~CSiteCounter() = default;

CSiteCounterImpl::CSiteCounterImpl() : global_(std::make_unique<CGlobalCounter>()) {}

CSiteCounterImpl::~CSiteCounterImpl() { global_.reset(); }

void CSiteCounterImpl::Destroy() {
  CAutoSync guard(lock_);
  CSecureXMLParser::Destroy();
}

int CSiteCounterImpl::Store(const char* path) {
  CAutoSync guard(lock_);
  return CSecureXMLParser::Store(path);
}

bool CSiteCounterImpl::Open(const char* path) {
  CAutoSync guard(lock_);
  loaded_.store(false);
  const std::string name(path ? path : "");
  const bool opened = vxstats::OpenCounterDocument(*this, name.c_str());
  fileName_ = opened ? name.c_str() : "";
  if (opened) {
    lastSave_.store(os::Time64());
    loaded_.store(true);
  }
  return opened;
}

bool CSiteCounterImpl::OpenGlobal(const char* path) { return global_->Open(path); }

// The running count of blocked requests that survives clearing the site list:
// Global/History, or Global/Counter while no History was written yet.
std::uint64_t CSiteCounterImpl::SiteHistory() {
  CVxXMLElement global = GetNodeByName("Global");
  if (!global.IsFound()) return 0;
  const std::string history = ValueText(*this, global, "./History");
  if (!history.empty()) return vxstats::ParseU64(history.c_str());
  return ReadU64(*this, global, "./Counter");
}

void CSiteCounterImpl::AddSite(const char* site) {
  global_->IncHistory();
  if (!loaded_.load() || site == nullptr) return;
  CAutoSync guard(lock_);
  const std::string sitePath = std::string("Sites/") + site + "/Counter";
  CVxXMLElement entry = FindOrCreate(*this, site, sitePath.c_str());
  if (!entry.IsFound()) return;
  CBufStream count;
  count << Incremented(vxstats::ParseInt(ValueText(*this, entry, "./Counter").c_str()));
  SetValue(entry, "./Counter", count.GetBuffer(), true);

  CVxXMLElement global = FindOrCreate(*this, "Global", "Global/Counter");
  if (!global.IsFound()) return;
  CBufStream total;
  total << Incremented(vxstats::ParseInt(ValueText(*this, global, "./Counter").c_str()));
  SetValue(global, "./Counter", total.GetBuffer(), true);
  SetValue(global, "./History", std::to_string(SiteHistory() + 1).c_str(), true);
  Save();
}

void CSiteCounterImpl::ClearSites() {
  CAutoSync guard(lock_);
  const std::uint64_t history = SiteHistory();
  Parse(vxstats::kBlankDocument);
  CVxXMLElement global = FindOrCreate(*this, "Global", "Global/History");
  if (global.IsFound()) SetValue(global, "./History", std::to_string(history).c_str(), true);
  Store(fileName_.GetBuffer());
}

std::uint64_t CSiteCounterImpl::GetSiteHistory() {
  CAutoSync guard(lock_);
  CVxXMLElement global = GetNodeByName("Global");
  return global.IsFound() ? ReadU64(*this, global, "./History") : 0;
}

CSiteList* CSiteCounterImpl::GetSites() {
  CAutoSync guard(lock_);
  auto* list = new CSiteList;
  std::vector<CVxXMLElement> sites;
  GetAllChildNodes("./Sites", sites);
  CStringBuffer name;
  CBufStream count;
  for (CVxXMLElement& site : sites) {
    GetNodeName(site, name);
    GetValue(site, "./Counter", count);
    list->sites[name.GetBuffer()] = count.GetBuffer();
  }
  CVxXMLElement global = GetNodeByName("Global");
  list->total = global.IsFound() ? ReadU64(*this, global, "./Counter") : 0;
  return list;
}

void CSiteCounterImpl::FreeSites(CSiteList* list) { delete list; }

std::uint64_t CSiteCounterImpl::GetSitesCounter() {
  CAutoSync guard(lock_);
  CVxXMLElement global = GetNodeByName("Global");
  return global.IsFound() ? ReadU64(*this, global, "./Counter") : 0;
}

std::uint64_t CSiteCounterImpl::GetHistory() { return global_->GetHistory(); }
std::uint64_t CSiteCounterImpl::GetRequestHistory() { return global_->GetRequestHistory(); }

void CSiteCounterImpl::AddRequests(int n) {
  global_->AddRequests(n);
  Save();
}

void CSiteCounterImpl::AddBytes(unsigned long sent, unsigned long received) {
  global_->AddBytes(sent, received);
  Save();
}

void CSiteCounterImpl::AddAdSize(std::uint64_t size) {
  global_->AddAdSize(size);
  Save();
}

void CSiteCounterImpl::GetBytes(std::uint64_t* sent, std::uint64_t* received, std::uint64_t* adSize) {
  std::uint64_t s = 0, r = 0, a = 0;
  global_->GetBytes(s, r, a);
  if (sent) *sent = s;
  if (received) *received = r;
  if (adSize) *adSize = a;
}

std::int64_t CSiteCounterImpl::GetStatStartTime() { return global_->GetStatStartTime(); }

void CSiteCounterImpl::SetLoaded(bool on) {
  if (!on) {
    CAutoSync guard(lock_);
    Store(fileName_.GetBuffer());
  }
  loaded_.store(on);
}

void CSiteCounterImpl::Save() {
  if (!loaded_.load()) return;
  const vxtime64_t now = os::Time64();
  vxtime64_t last = lastSave_.load();
  // Of the workers that see the minute pass, only the one that moves
  // lastSave_ on writes the files.
  if (now - last <= kSaveIntervalSeconds || !lastSave_.compare_exchange_strong(last, now)) return;
  // Site lock before the global counter's locks, as AddSite holds it here.
  CAutoSync guard(lock_);
  if (fileName_.GetSize() > 0) Store(fileName_.GetBuffer());
  global_->Save();
}
