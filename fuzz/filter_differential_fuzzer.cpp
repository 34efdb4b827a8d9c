// The indexed engine against the literal walk kept beside the tests: the
// same lists, the same requests, the same verdicts and the same failed
// checks.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "filter/engine.h"
#include "filter/reference_filter.h"
#include "filter_input.h"

namespace {

// The check ended with an error line and let the request pass.
constexpr int kFailed = -1;

int g_errors = 0;

void CountError(void*, const char*, const char*) { ++g_errors; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vxfuzz::AsText(data, size);
  // Real lists hold no zero bytes; where one would cut a line short is no
  // question of the walk.
  if (text.find('\0') != std::string_view::npos) return -1;
  const vxfuzz::FilterInput input = vxfuzz::ReadFilterInput(text, 64);
  const std::string filtersPath = vxfuzz::Scratch() / "filters.txt";
  const std::string approvedPath = vxfuzz::Scratch() / "vexilowl.txt";
  vxfuzz::WriteFile(filtersPath, input.filters);
  vxfuzz::WriteFile(approvedPath, input.approved);

  CFilterEngineImpl engine;
  engine.SetErrorReporter(&CountError, nullptr);
  FUZZ_CHECK(engine.SetFiltersFile(filtersPath.c_str()) && engine.LoadFilters());
  FUZZ_CHECK(engine.LoadUserApprovedList(approvedPath.c_str()));
  reference::ReferenceFilter literal;
  FUZZ_CHECK(literal.LoadFilters(filtersPath));
  literal.LoadUserApprovedList(approvedPath);
  FUZZ_CHECK(engine.GetVersion() == literal.version, "version %s, literal walk %s",
             engine.GetVersion().c_str(), literal.version.c_str());

  for (const vxfuzz::FilterRequest& r : input.requests) {
    std::map<std::string, std::string> headers;
    if (!r.referer.empty()) headers["referer"] = r.referer;
    g_errors = 0;
    int a = engine.CheckRequest(r.host, r.path, r.typeWord, headers, r.redirect);
    if (g_errors != 0) a = a == VerdictNoMatch ? kFailed : -a;
    const int errorsBefore = literal.evaluationErrors;
    int b = literal.CheckRequest(r.host, r.path, r.typeWord, headers, r.redirect);
    if (literal.evaluationErrors != errorsBefore) b = kFailed;
    FUZZ_CHECK(a == b, "host [%s] path [%s] type [%s] referer [%s]%s: engine %d, literal walk %d",
               r.host.c_str(), r.path.c_str(), r.typeWord.c_str(), r.referer.c_str(),
               r.redirect ? " redirect" : "", a, b);
  }
  return 0;
}
