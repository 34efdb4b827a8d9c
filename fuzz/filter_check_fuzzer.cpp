// A filters file and an approved list through the engine's loader, then
// requests through CheckRequest and the CONNECT judgement.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "filter/engine.h"
#include "filter_input.h"

namespace {

int g_errors = 0;

void CountError(void*, const char*, const char*) { ++g_errors; }

bool IsVerdict(int v) {
  return v == VerdictNoMatch || v == VerdictAllowed || v == VerdictAdServer || v == VerdictGeneric ||
         v == VerdictDomain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vxfuzz::FilterInput input = vxfuzz::ReadFilterInput(vxfuzz::AsText(data, size), 32);
  const std::string filtersPath = vxfuzz::Scratch() / "filters.txt";
  const std::string approvedPath = vxfuzz::Scratch() / "vexilowl.txt";
  vxfuzz::WriteFile(filtersPath, input.filters);
  vxfuzz::WriteFile(approvedPath, input.approved);

  CFilterEngineImpl engine;
  engine.SetErrorReporter(&CountError, nullptr);
  FUZZ_CHECK(engine.LoadLists(filtersPath.c_str(), approvedPath.c_str()));
  FUZZ_CHECK(!engine.GetVersion().empty());

  for (const vxfuzz::FilterRequest& r : input.requests) {
    std::map<std::string, std::string> headers;
    if (!r.referer.empty()) headers["referer"] = r.referer;
    g_errors = 0;
    const int verdict = engine.CheckRequest(r.host, r.path, r.typeWord, headers, r.redirect);
    const int errors = g_errors;
    FUZZ_CHECK(IsVerdict(verdict));
    FUZZ_CHECK(errors == 0 || verdict == VerdictNoMatch);
    const FilterRequestInfo info{r.host, r.path, r.typeWord, r.referer, r.redirect};
    FUZZ_CHECK(engine.CheckRequest(info) == verdict, "the two entry points disagree");

    engine.IsDomainRuleHost(r.host.c_str());
    const TunnelVerdict tunnel = engine.JudgeTunnelHost(r.host);
    tunnel.RuleText();
    // A host refused as a whole is refused for an image too, unless an
    // exception lets that request through.
    if (tunnel.block && r.host.find(':') == std::string::npos) {
      g_errors = 0;
      const int image = engine.CheckRequest(r.host, "/", "gif", {}, false);
      FUZZ_CHECK((image == VerdictAdServer || image == VerdictAllowed) && g_errors == 0,
                 "tunnel to %s refused, image request gets %d", r.host.c_str(), image);
    }
  }
  return 0;
}
