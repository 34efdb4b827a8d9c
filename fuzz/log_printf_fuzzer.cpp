// Printf of a log file sink with a format text from the input. Its format
// language reads one argument per conversion, so every argument passed is a
// valid text pointer (and a double for each floating-point register), read
// as whatever the conversion asks for; the format is cut before its 64th
// "%", so the arguments never run out. The log is kept small, so the size
// check trims it again and again with whatever lines the formats left.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "log/logimpl.h"

namespace {

constexpr int kMaxConversions = 63;
const char kText[] = "text argument";

#define VX_TEXT4 kText, kText, kText, kText
#define VX_TEXT16 VX_TEXT4, VX_TEXT4, VX_TEXT4, VX_TEXT4
#define VX_TEXT64 VX_TEXT16, VX_TEXT16, VX_TEXT16, VX_TEXT16

CLogImpl& Log() {
  static CLogImpl* log = [] {
    auto* l = new CLogImpl((vxfuzz::Scratch() / "proxy.log").c_str(), 2);
    l->SetMaxSize(2048);
    l->SetLevelMask(kLevelError | kLevelWarning | kLevelInfo);
    return l;
  }();
  return *log;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string format(vxfuzz::AsText(data, size));
  format.resize(std::string_view(format.c_str()).size());
  int conversions = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && ++conversions > kMaxConversions) {
      format.resize(i);
      break;
    }
  }
  CLogImpl& log = Log();
  FUZZ_CHECK(log.IsOpen());
  log.Printf(0, format.c_str(), 1.5, -2.25e300, 0.0, 1e-300, 3.0, 4.0, 5.0, 6.0, VX_TEXT64);
  // A masked level formats nothing.
  log.Printf(kLevelVerbose | kLevelHead, format.c_str());
  return 0;
}
