// The shared request corpus (url, type, source url per line) turned into the
// arguments the proxy would pass for each request.
#pragma once

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "core/typewords.h"
#include "filter/checktool.h"

namespace corpus {

struct Request {
  std::string url;
  std::string host;
  std::string target;
  std::string typeWord;
  std::string referer;
};

// image -> gif, script -> js, stylesheet -> css, (sub)document -> htm,
// object -> swf; every other kind takes the word of its URL's path.
inline std::string TypeWordOf(const std::string& kind, const std::string& path,
                              const std::map<std::string, std::string>& typeWords) {
  if (kind == "image") return "gif";
  if (kind == "script") return "js";
  if (kind == "stylesheet") return "css";
  if (kind == "document" || kind == "subdocument") return "htm";
  if (kind == "object") return "swf";
  CStringBuffer word;
  TypeWordOfPath(typeWords, path.c_str(), word);
  return word.GetBuffer();
}

// Reads up to limit rows (0: all). Rows whose URL has no host are left out.
inline std::vector<Request> Load(const std::string& file, std::size_t limit = 0) {
  std::map<std::string, std::string> typeWords;
  FillTypeWordTable(typeWords);
  std::vector<Request> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line) && (limit == 0 || out.size() < limit)) {
    const std::size_t tab1 = line.find('\t');
    const std::size_t tab2 = line.find('\t', tab1 + 1);
    if (tab1 == std::string::npos || tab2 == std::string::npos) continue;
    Request r;
    r.url = line.substr(0, tab1);
    const std::string kind = line.substr(tab1 + 1, tab2 - tab1 - 1);
    r.referer = line.substr(tab2 + 1);
    std::string path;
    if (!vxfilter::SplitCheckUrl(r.url, &r.host, &r.target, &path)) continue;
    r.typeWord = TypeWordOf(kind, path, typeWords);
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace corpus
