// The input of the filter targets, a text file in three sections:
//
//   lines of filters.txt
//   %%
//   lines of the approved list (vexilowl.txt)
//   %%
//   requests, one a line: host TAB path TAB type word TAB referer TAB "r"
//
// Missing fields are empty ("r" marks the check of a redirect response).
// Besides the written requests, each rule line gives one request built to
// meet it: its host part as the host, the rest as the path, and the first
// name of a "domain=" option as the referring page.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"

namespace vxfuzz {

struct FilterRequest {
  std::string host, path, typeWord, referer;
  bool redirect = false;
};

struct FilterInput {
  std::string_view filters;
  std::string_view approved;
  std::vector<FilterRequest> requests;
};

// What a request's fields can hold after the header reader: the host and
// path come from a request line split at blanks, the referer is a trimmed
// header value; none holds a zero byte or a line end.
inline bool IsRequestText(std::string_view s, bool blanksInside) {
  for (const char c : s) {
    if (c == '\0' || c == '\n' || c == '\r') return false;
    if (!blanksInside && (c == ' ' || c == '\t' || c == '\v' || c == '\f')) return false;
  }
  return true;
}

inline const char* const kTypeWords[] = {"gif", "js", "htm", "css", "swf", "xml", "php", "unknown"};

// A request aimed at one rule line.
inline FilterRequest RequestFor(std::string_view line, std::size_t turn) {
  FilterRequest r;
  r.typeWord = kTypeWords[turn % std::size(kTypeWords)];
  if (line.starts_with("@@")) line.remove_prefix(2);
  const std::size_t dollar = line.find('$');
  std::string_view options = dollar == std::string_view::npos ? "" : line.substr(dollar + 1);
  line = line.substr(0, dollar);
  if (line.starts_with("||")) {
    line.remove_prefix(2);
    const std::size_t end = line.find_first_of("^/|*");
    r.host = std::string(line.substr(0, end));
    line = end == std::string_view::npos ? "" : line.substr(end);
  } else {
    r.host = turn % 2 == 0 ? "www.example.com" : "ads.example.net";
  }
  for (const char c : line) {
    if (c == '^') {
      r.path += '/';
    } else if (c == '*') {
      r.path += "x";
    } else if (c != '|') {
      r.path += c;
    }
  }
  if (!r.path.starts_with("/")) r.path.insert(0, "/");
  if (const std::size_t at = options.find("domain="); at != std::string_view::npos) {
    std::string_view name = options.substr(at + 7);
    name = name.substr(0, name.find_first_of("|,"));
    if (name.starts_with("~")) name.remove_prefix(1);
    r.referer = "http://" + std::string(name) + "/page.html";
  }
  r.redirect = turn % 5 == 4;
  return r;
}

// Requests whose fields a header could not carry are left out.
inline FilterInput ReadFilterInput(std::string_view text, std::size_t maxRuleRequests) {
  FilterInput input;
  const std::vector<std::string_view> sections = Sections(text);
  input.filters = sections[0];
  if (sections.size() > 1) input.approved = sections[1];
  if (sections.size() > 2) {
    for (std::string_view line : Split(sections[2], '\n')) {
      if (line.empty()) continue;
      const std::vector<std::string_view> f = Split(line, '\t');
      FilterRequest r;
      r.host = std::string(f[0]);
      if (f.size() > 1) r.path = std::string(f[1]);
      if (f.size() > 2) r.typeWord = std::string(f[2]);
      if (f.size() > 3) r.referer = std::string(f[3]);
      r.redirect = f.size() > 4 && f[4] == "r";
      input.requests.push_back(std::move(r));
    }
  }
  std::size_t turn = 0;
  for (std::string_view list : {input.filters, input.approved}) {
    for (std::string_view line : Split(list, '\n')) {
      if (turn == maxRuleRequests) break;
      if (line.empty() || line.starts_with("!")) continue;
      input.requests.push_back(RequestFor(line, turn++));
    }
  }
  std::erase_if(input.requests, [](const FilterRequest& r) {
    return !IsRequestText(r.host, false) || !IsRequestText(r.path, false) ||
           !IsRequestText(r.typeWord, false) || !IsRequestText(r.referer, true);
  });
  return input;
}

}  // namespace vxfuzz
