#include "allowlist.h"

#include <ostream>
#include <string>
#include <vector>

#include "options.h"
#include "paths.h"

namespace vxhost {
namespace {

constexpr char kListName[] = "vexilowl.txt";

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool HostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// The host a URL, a path or a wildcard pattern most likely meant, when that
// is a host name; empty otherwise.
std::string MeantHost(std::string_view text) {
  const std::size_t scheme = text.find("://");
  if (scheme != std::string_view::npos) text.remove_prefix(scheme + 3);
  text = text.substr(0, text.find_first_of("/?#"));
  const std::size_t at = text.rfind('@');
  if (at != std::string_view::npos) text.remove_prefix(at + 1);
  text = text.substr(0, text.find(':'));
  while (text.starts_with("*.") || text.starts_with("."))
    text.remove_prefix(text[0] == '*' ? 2 : 1);
  if (text.find('*') != std::string_view::npos) return std::string();
  std::string site, ignored;
  return NormalizeSite(text, &site, &ignored) ? site : std::string();
}

std::string Suggest(std::string_view typed, const char* problem) {
  const std::string meant = MeantHost(typed);
  std::string text = problem;
  if (!meant.empty()) text += "; did you mean " + meant + "?";
  return text;
}

// The site of a "@@||site^" line; empty for any other line.
std::string SiteOfLine(std::string_view line) {
  line = Trim(line);
  if (!line.starts_with("@@||") || !line.ends_with("^")) return std::string();
  std::string site, ignored;
  if (!NormalizeSite(line.substr(4, line.size() - 5), &site, &ignored)) return std::string();
  return site;
}

// The file as lines, each with its own line end, so that what is not touched
// is written back byte for byte.
std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::size_t length = end == std::string_view::npos ? text.size() : end + 1;
    lines.push_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return lines;
}

std::string Join(const std::vector<std::string_view>& lines) {
  std::string text;
  for (std::string_view line : lines) text += line;
  return text;
}

// Adds the site's line at the end unless it is there; true when added.
bool AddSite(const std::string& site, std::string* text) {
  for (std::string_view line : SplitLines(*text)) {
    if (SiteOfLine(line) == site) return false;
  }
  const char* lineEnd = text->find("\r\n") != std::string::npos ? "\r\n" : "\n";
  if (!text->empty() && text->back() != '\n') *text += lineEnd;
  *text += "@@||" + site + "^" + lineEnd;
  return true;
}

// Removes the site's line (and any copy of it); true when one was there.
bool RemoveSite(const std::string& site, std::string* text) {
  std::vector<std::string_view> kept;
  bool removed = false;
  for (std::string_view line : SplitLines(*text)) {
    if (SiteOfLine(line) == site) {
      removed = true;
    } else {
      kept.push_back(line);
    }
  }
  if (removed) *text = Join(kept);
  return removed;
}

// An allowed site that covers this one as its subdomain; empty when none.
std::string CoveringSite(const std::string& site, const std::string& text) {
  for (std::string_view line : SplitLines(text)) {
    const std::string other = SiteOfLine(line);
    if (!other.empty() && site.size() > other.size() && site.ends_with("." + other)) return other;
  }
  return std::string();
}

void PrintList(const std::string& text, std::ostream& out, std::ostream& err,
               const std::string& path) {
  bool any = false;
  for (std::string_view line : SplitLines(text)) {
    const std::string site = SiteOfLine(line);
    const std::string_view rule = Trim(line);
    if (rule.empty() || rule[0] == '!' || rule[0] == '[') continue;  // comments and the header
    out << (site.empty() ? std::string(rule) : site) << "\n";
    any = true;
  }
  if (!any) err << "no site is allowed yet (" << path << "); add one with: vxproxy allow SITE\n";
}

}  // namespace

bool NormalizeSite(std::string_view typed, std::string* site, std::string* problem) {
  site->clear();
  const std::string_view text = Trim(typed);
  if (text.empty()) {
    *problem = "the site name is blank; name a host such as example.com";
    return false;
  }
  if (text.find("://") != std::string_view::npos) {
    *problem = Suggest(text, "that is a URL; name its host only");
    return false;
  }
  if (text.find('/') != std::string_view::npos) {
    *problem = Suggest(text, "a path does not belong in a site name");
    return false;
  }
  if (text.find('*') != std::string_view::npos) {
    *problem =
        Suggest(text, "wildcards do not belong in a site name (a site covers its subdomains)");
    return false;
  }
  if (text.find(':') != std::string_view::npos) {
    *problem = Suggest(text, "a port does not belong in a site name");
    return false;
  }
  std::string host;
  for (const char c : text) {
    const char lower = Lower(c);
    if (static_cast<unsigned char>(c) >= 0x80) {
      *problem = "write a name with letters beyond a-z in its xn-- (punycode) form";
      return false;
    }
    if (!HostCharacter(lower)) {
      *problem = std::string("the character '") + c + "' does not belong in a host name";
      return false;
    }
    host += lower;
  }
  if (host.size() > 1 && host.back() == '.') host.pop_back();  // "example.com." names the same host
  if (host.size() > 253) {
    *problem = "a host name has at most 253 characters";
    return false;
  }
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = host.find('.', start);
    const std::string_view label = std::string_view(host).substr(
        start, dot == std::string::npos ? std::string::npos : dot - start);
    if (label.empty()) {
      *problem = "a host name has no empty label (a dot at the start or end, or two in a row)";
      return false;
    }
    if (label.size() > 63) {
      *problem = "a label (the text between dots) has at most 63 characters";
      return false;
    }
    if (label.front() == '-' || label.back() == '-') {
      *problem = "a label (the text between dots) neither starts nor ends with '-'";
      return false;
    }
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  *site = host;
  return true;
}

int RunApprovedListCommand(int argc, char** argv, std::ostream& out, std::ostream& err) {
  const std::string command = argv[0];
  const std::vector<std::string> args(argv + 1, argv + argc);
  std::string data;
  std::vector<std::string> typedSites;
  if (!ParseDataOption(args, command, &data, &typedSites, err)) return 2;
  const bool show = command == "allowed";
  if (show != typedSites.empty()) {
    err << "vxproxy " << command << ": "
        << (show ? "takes no site; vxproxy allow SITE adds one" : "name a site, e.g. example.com")
        << "\nsee: vxproxy help " << command << "\n";
    return 2;
  }

  std::vector<std::string> sites;
  bool valid = true;
  for (const std::string& typed : typedSites) {
    std::string site, problem;
    if (NormalizeSite(typed, &site, &problem)) {
      sites.push_back(site);
    } else {
      err << "vxproxy " << command << ": \"" << typed << "\" is not a site name: " << problem
          << "\n";
      valid = false;
    }
  }
  if (!valid) return 2;  // nothing is changed when one of the sites is wrong

  const std::string path = data + "/" + kListName;
  std::string text, problem;
  if (!ReadWholeFile(path, false, &text, &problem)) {
    err << "vxproxy " << command << ": cannot read " << path << ": " << problem << "\n";
    return 1;
  }
  if (show) {
    PrintList(text, out, err, path);
    return 0;
  }

  bool changed = false;
  for (const std::string& site : sites) {
    if (command == "allow") {
      const bool added = AddSite(site, &text);
      out << (added ? "allowed " + site + " and its subdomains" : site + " is already allowed")
          << "\n";
      changed |= added;
    } else if (RemoveSite(site, &text)) {
      out << "removed " << site << "\n";
      changed = true;
      const std::string cover = CoveringSite(site, text);
      if (!cover.empty()) out << site << " stays allowed as a subdomain of " << cover << "\n";
    } else {
      const std::string cover = CoveringSite(site, text);
      out << site << " is not on the approved list"
          << (cover.empty() ? "" : "; it is allowed as a subdomain of " + cover) << "\n";
    }
  }
  if (!changed) return 0;
  if (!PrepareFolder(data, &problem)) {
    err << "vxproxy " << command << ": cannot use the data folder " << data << ": " << problem
        << "; pass --data DIR with a folder you can write\n";
    return 1;
  }
  if (!WriteFileAtomically(path, text, &problem)) {
    err << "vxproxy " << command << ": cannot write " << path << ": " << problem << "\n";
    return 1;
  }
  out << "saved " << path << "; the running proxy picks this up within a second\n";
  return 0;
}

}  // namespace vxhost
