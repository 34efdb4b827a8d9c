#include "resources/resources.h"

#include "resources/dummyflv.h"

namespace {

// Transparent 1 x 1 GIF89a: two-colour global table, a graphic control
// extension marking index 0 transparent, one image of one LZW byte.
constexpr unsigned char kDummyGif[] = {
    0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x01, 0x00, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00,
    0x00, 0x00, 0xFF, 0xFF, 0xFF, 0x21, 0xF9, 0x04, 0x01, 0x00, 0x00, 0x00, 0x00, 0x2C,
    0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x01, 0x44, 0x00, 0x3B};
static_assert(sizeof kDummyGif == 42);

constexpr char kDummyHtm[] = "<HTML>\r\n</HTML>";
// Silences script errors on the page that loaded the blocked script.
constexpr char kDummyJs[] =
    "<script type=\"text/javascript\">\r\n"
    "function noErrorMessages () { return true; }\r\n"
    "window.onerror = noErrorMessages;\r\n"
    "</script>";
constexpr char kDummyCss[] = "p{}";
constexpr char kDummyXml[] = "<dummy>\r\n</dummy>";
static_assert(sizeof kDummyHtm - 1 == 15);
static_assert(sizeof kDummyJs - 1 == 123);
static_assert(sizeof kDummyCss - 1 == 3);
static_assert(sizeof kDummyXml - 1 == 17);

constexpr auto kDummyFlv = dummyflv::Build();

const unsigned char* Bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

const os::ResourceEntry kTable[] = {
    {"GIF", "DUMMY.GIF", kDummyGif, sizeof kDummyGif},
    {"HTM", "DUMMY.HTM", Bytes(kDummyHtm), sizeof kDummyHtm - 1},
    {"JS", "DUMMY.JS", Bytes(kDummyJs), sizeof kDummyJs - 1},
    {"CSS", "DUMMY.CSS", Bytes(kDummyCss), sizeof kDummyCss - 1},
    {"XML", "DUMMY.XML", Bytes(kDummyXml), sizeof kDummyXml - 1},
    {"FLV", "DUMMY.FLV", kDummyFlv.data(), kDummyFlv.size()},
};

}  // namespace

const os::ResourceEntry* ReplacementResources(std::size_t* count) {
  if (count != nullptr) *count = sizeof kTable / sizeof kTable[0];
  return kTable;
}

void RegisterReplacementResources(HMODULE module) {
  std::size_t count = 0;
  const os::ResourceEntry* table = ReplacementResources(&count);
  os::RegisterResources(module, table, count);
}
