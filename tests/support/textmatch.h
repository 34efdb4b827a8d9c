// Whole-text regular expression matching for tests, compiled in one place:
// <regex> costs seconds of compile time in every file that includes it.
#pragma once

#include <string>
#include <vector>

namespace vxtest {

// True when the whole text matches the ECMAScript pattern; the groups, when
// asked for, receive the whole match followed by each sub-match.
bool RegexMatch(const std::string& text, const std::string& pattern,
                std::vector<std::string>* groups = nullptr);

}  // namespace vxtest
