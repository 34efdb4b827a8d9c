// An engine loaded from list text written to a temp folder, with the error
// lines it reports collected.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/tempdir.h"
#include "vxproxy/filterengine.h"

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() { engine_.SetErrorReporter(&Collect, &errors_); }

  // Loads the text as the filters file.
  bool LoadFilters(const std::string& text, const std::string& name = "filters.txt") {
    const std::string path = dir_ / name;
    WriteTextFile(path, text);
    return engine_.SetFiltersFile(path.c_str()) && engine_.LoadFilters();
  }
  bool LoadApproved(const std::string& text) {
    const std::string path = dir_ / "vexilowl.txt";
    WriteTextFile(path, text);
    return engine_.LoadUserApprovedList(path.c_str());
  }
  int Check(const std::string& host, const std::string& path, const std::string& typeWord,
            const std::string& referer = "", bool redirect = false) {
    std::map<std::string, std::string> headers;
    if (!referer.empty()) headers["referer"] = referer;
    return engine_.CheckRequest(host, path, typeWord, headers, redirect);
  }

  static void Collect(void* context, const char* message, const char* detail) {
    static_cast<std::vector<std::string>*>(context)->push_back(std::string(message) + detail);
  }

  TempDir dir_;
  CFilterEngine engine_;
  std::vector<std::string> errors_;
};

// Marker comments as they appear in joined easylist files.
inline const std::string kAdServersMarker = "! *** easylist:easylist/easylist_adservers.txt ***\n";
inline const std::string kThirdPartyMarker = "! *** easylist:easylist/easylist_thirdparty.txt ***\n";
inline const std::string kSpecificBlockMarker =
    "! *** easylist:easylist/easylist_specific_block.txt ***\n";
