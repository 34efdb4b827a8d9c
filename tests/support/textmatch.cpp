#include "support/textmatch.h"

#include <regex>

namespace vxtest {

bool RegexMatch(const std::string& text, const std::string& pattern, std::vector<std::string>* groups) {
  std::smatch match;
  if (!std::regex_match(text, match, std::regex(pattern))) return false;
  if (groups) {
    groups->clear();
    for (const auto& group : match) groups->push_back(group.str());
  }
  return true;
}

}  // namespace vxtest
