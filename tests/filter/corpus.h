// The shared request corpus (url, type, source url per line) turned into the
// arguments the proxy would pass for each request.
#pragma once

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "core/typewords.h"
#include "checktool.h"

namespace corpus {

struct Request {
  std::string url;
  std::string host;
  std::string target;
  std::string typeWord;
  std::string referer;
};

// Reads up to limit rows (0: all); rows whose URL has no host are left out.
// image -> gif, script -> js, stylesheet -> css, (sub)document -> htm,
// object -> swf; every other kind takes the word of its URL's path.
inline std::vector<Request> Load(const std::string& file, std::size_t limit = 0) {
  static const std::map<std::string, std::string> kWordOfKind = {
      {"image", "gif"},    {"script", "js"},       {"stylesheet", "css"},
      {"document", "htm"}, {"subdocument", "htm"}, {"object", "swf"}};
  std::map<std::string, std::string> typeWords;
  FillTypeWordTable(typeWords);
  std::vector<Request> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line) && (limit == 0 || out.size() < limit)) {
    const std::size_t tab1 = line.find('\t');
    const std::size_t tab2 = line.find('\t', tab1 + 1);
    if (tab2 == std::string::npos) continue;
    Request r;
    std::string path;
    r.url = line.substr(0, tab1);
    r.referer = line.substr(tab2 + 1);
    if (!vxhost::SplitCheckUrl(r.url, &r.host, &r.target, &path)) continue;
    const auto kind = kWordOfKind.find(line.substr(tab1 + 1, tab2 - tab1 - 1));
    CStringBuffer word(kind == kWordOfKind.end() ? "" : kind->second.c_str());
    if (kind == kWordOfKind.end()) TypeWordOfPath(typeWords, path.c_str(), word);
    r.typeWord = word.GetBuffer();
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace corpus
