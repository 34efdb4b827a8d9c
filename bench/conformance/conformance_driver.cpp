// conformance_driver: sends the request shapes of cases.txt through one or
// more proxies to its own origin (case_origin.h) and prints, per case and
// proxy, whether what the client got back and what reached the origin is
// what RFC 9110 and RFC 9112 ask of an intermediary.
//
//   conformance_driver --cases FILE --proxy NAME=PORT [--proxy NAME=PORT ...]
//                      [--only CASE] [--verbose]
//
// Exit status 0 when every case ran (whatever it found), 1 when a proxy
// could not be reached, 2 for bad arguments or a bad case file.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "conformance/case_origin.h"
#include "conformance/wire.h"
#include "support/raw_client.h"

namespace {

using conformance::ContainsNoCase;

constexpr int kIdleMs = 700;           // no byte for this long: the proxy has said all
constexpr int kWaitResponseMs = 3000;  // at {wait}: for the next final response
constexpr int kPauseMs = 1000;         // at {pause}
constexpr int kLongestMs = 15000;      // one case's reading, at most

struct Case {
  std::string name, ref, level, what;
  std::string send;
  std::vector<std::string> replies;
  std::vector<std::string> methods;
  std::vector<std::vector<std::string>> passes;  // any one whole line passes
  int line = 0;
};

struct Places {
  std::string host;      // the origin, host:port
  std::string deadHost;  // a port nothing listens on
};

std::string Unescape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    const char c = text[++i];
    switch (c) {
      case 'r':
        out += '\r';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case '0':
        out += '\0';
        break;
      case 's':
        out += ' ';
        break;
      case 'x':
        out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Substitute(std::string text, const Places& places) {
  const std::pair<std::string, std::string> names[] = {{"{host}", places.host},
                                                       {"{deadhost}", places.deadHost}};
  for (const auto& [name, value] : names) {
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
      text.replace(at, name.size(), value);
      at += value.size();
    }
  }
  // {big:N} stands for N bytes of 'a'.
  for (std::size_t at = text.find("{big:"); at != std::string::npos; at = text.find("{big:")) {
    const std::size_t close = text.find('}', at);
    text.replace(at, close - at + 1, std::string(std::stoul(text.substr(at + 5)), 'a'));
  }
  return text;
}

bool LoadCases(const std::string& path, std::vector<Case>* cases) {
  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "conformance: cannot read %s\n", path.c_str());
    return false;
  }
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    const std::size_t space = line.find(' ');
    const std::string key = line.substr(0, space);
    const std::string value = space == std::string::npos ? "" : line.substr(space + 1);
    if (key == "case") {
      cases->push_back(Case{});
      cases->back().name = value;
      cases->back().line = number;
      continue;
    }
    if (cases->empty()) {
      std::fprintf(stderr, "conformance: %s:%d: %s before the first case\n", path.c_str(), number,
                   key.c_str());
      return false;
    }
    Case& c = cases->back();
    if (key == "ref") {
      c.ref = value;
    } else if (key == "level") {
      c.level = value;
    } else if (key == "what") {
      c.what = value;
    } else if (key == "send") {
      c.send += value;
    } else if (key == "reply") {
      c.replies.push_back(value);
    } else if (key == "methods") {
      std::istringstream words(value);
      for (std::string w; words >> w;) c.methods.push_back(w);
    } else if (key == "pass") {
      std::istringstream words(value);
      c.passes.emplace_back();
      for (std::string w; words >> w;) c.passes.back().push_back(w);
    } else {
      std::fprintf(stderr, "conformance: %s:%d: unknown key %s\n", path.c_str(), number,
                   key.c_str());
      return false;
    }
  }
  for (const Case& c : *cases) {
    if (c.send.empty() || c.passes.empty() || c.level.empty()) {
      std::fprintf(stderr, "conformance: %s:%d: case %s needs send, level and pass\n", path.c_str(),
                   c.line, c.name.c_str());
      return false;
    }
  }
  return true;
}

// What one case produced with one proxy.
struct Outcome {
  std::string received;  // what the client got
  bool closed = false;   // the proxy closed the connection
  std::vector<conformance::WireResponse> responses;
  conformance::OriginSeen origin;
  std::string earlyReceived;  // at the {pause}
  std::string earlyOrigin;
};

// Reads until the proxy closes, goes quiet for kIdleMs, or done() holds.
template <typename Done>
void ReadReplies(vxtest::RawClient& client, Outcome* out, int limitMs, Done done) {
  int quietMs = 0;
  for (int spent = 0; spent < limitMs && quietMs < kIdleMs && !out->closed && !done();) {
    const std::string more = client.ReceiveAvailable(50);
    spent += 50;
    quietMs = more.empty() ? quietMs + 50 : 0;
    out->received += more;
    out->closed = client.PeerClosed();
  }
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, by)) parts.push_back(part);
  return parts;
}

// Runs the case through the proxy with an origin of its own; places.host
// becomes that origin's.
Outcome RunCase(const Case& c, unsigned short proxyPort, Places& places, bool* reached) {
  Outcome out;
  std::vector<std::string> replies;
  for (const std::string& r : c.replies) replies.push_back(Unescape(r));
  conformance::CaseOrigin origin(replies);
  places.host = "localhost:" + std::to_string(origin.Port());
  vxtest::RawClient client;
  *reached = client.Connect(proxyPort);
  if (!*reached) return out;
  std::string text = Substitute(c.send, places);
  std::vector<std::string> methods = c.methods;
  while (!text.empty()) {
    std::size_t mark = std::min(text.find("{wait}"), text.find("{pause}"));
    std::string segment = Unescape(text.substr(0, mark));
    const std::string marker =
        mark == std::string::npos ? "" : text.substr(mark, text[mark + 1] == 'w' ? 6 : 7);
    text.erase(0, mark == std::string::npos ? text.size() : mark + marker.size());
    // {cl}: the number of bytes after the header's end up to the segment's end.
    if (const std::size_t at = segment.find("{cl}"); at != std::string::npos) {
      std::size_t end = std::min(segment.find("\r\n\r\n", at), segment.find("\n\n", at));
      end = segment.compare(end, 4, "\r\n\r\n") == 0 ? end + 4 : end + 2;
      segment.replace(at, 4, std::to_string(segment.size() - end));
    }
    client.Send(segment);
    if (marker == "{wait}") {
      const std::size_t finals = [&] {
        std::size_t n = 0;
        for (const auto& r : conformance::SplitResponses(out.received, methods, false)) {
          n += r.complete && r.status >= 200;
        }
        return n;
      }();
      ReadReplies(client, &out, kWaitResponseMs, [&] {
        std::size_t n = 0;
        for (const auto& r : conformance::SplitResponses(out.received, methods, false)) {
          n += r.complete && r.status >= 200;
        }
        return n > finals;
      });
    } else if (marker == "{pause}") {
      for (int spent = 0; spent < kPauseMs && !out.closed; spent += 50) {
        out.received += client.ReceiveAvailable(50);
        out.closed = client.PeerClosed();
      }
      out.earlyReceived = out.received;
      out.earlyOrigin = origin.Seen().raw;
    }
  }
  ReadReplies(client, &out, kLongestMs, [] { return false; });
  client.Close();
  os::Sleep(50);  // the origin's last reads
  out.origin = origin.Seen();
  out.responses = conformance::SplitResponses(out.received, methods, out.closed);
  return out;
}

// The statuses of the responses (finals only, or with 1xx).
std::string Statuses(const Outcome& o, bool interim) {
  std::string list;
  for (const auto& r : o.responses) {
    if (!interim && r.status >= 100 && r.status < 200) continue;
    list +=
        (list.empty() ? "" : ",") + (r.status < 0 ? std::string("junk") : std::to_string(r.status));
  }
  return list;
}

bool Check(const std::string& predicate, const Outcome& o, const Places& places) {
  const std::size_t equals = predicate.find('=');
  const std::string name = predicate.substr(0, equals);
  const std::string value =
      equals == std::string::npos ? "" : Unescape(Substitute(predicate.substr(equals + 1), places));
  const auto& seen = o.origin;
  if (name == "status") {
    const std::string finals = Statuses(o, false);
    const std::string first = finals.substr(0, finals.find(','));
    for (const std::string& s : Split(value, '|')) {
      if (s == (first.empty() ? "none" : first)) return true;
    }
    return false;
  }
  if (name == "finals") return Statuses(o, false) == value;
  if (name == "statuses") return Statuses(o, true) == value;
  if (name == "bodies") {
    std::string list;
    int n = 0;
    for (const auto& r : o.responses) {
      if (r.status >= 200) list += (n++ == 0 ? "" : ",") + r.body;
    }
    return list == value;
  }
  if (name == "closed") return o.closed;
  if (name == "open") return !o.closed;
  if (name == "complete") {
    for (const auto& r : o.responses) {
      if (!r.complete) return false;
    }
    return !o.responses.empty();
  }
  if (name == "incomplete") return o.responses.empty() || !o.responses.back().complete;
  if (name == "client-has") return ContainsNoCase(o.received, value);
  if (name == "client-lacks") return !ContainsNoCase(o.received, value);
  if (name == "client-crlf") {
    for (const auto& r : o.responses) {
      for (std::size_t i = 0; i < r.header.size(); ++i) {
        if (r.header[i] == '\n' && (i == 0 || r.header[i - 1] != '\r')) return false;
      }
    }
    return true;
  }
  if (name == "origin-requests") {
    return seen.invalid.empty() && seen.requests.size() == std::stoul(value);
  }
  if (name == "origin-targets") {
    std::string list;
    for (const auto& r : seen.requests) list += (list.empty() ? "" : ",") + r.target;
    return seen.invalid.empty() && list == value;
  }
  if (name == "origin-no-target") {
    for (const auto& r : seen.requests) {
      if (r.target.find(value) != std::string::npos) return false;
    }
    // A stream the strict origin refused might have held it for a lenient one.
    return seen.invalid.empty() || !ContainsNoCase(seen.raw, value);
  }
  if (name == "origin-has") return ContainsNoCase(seen.raw, value);
  if (name == "origin-lacks") return !ContainsNoCase(seen.raw, value);
  if (name == "origin-body") return !seen.requests.empty() && seen.requests[0].body == value;
  if (name == "early-origin-has") return ContainsNoCase(o.earlyOrigin, value);
  if (name == "early-client-has") return ContainsNoCase(o.earlyReceived, value);
  std::fprintf(stderr, "conformance: unknown check %s\n", name.c_str());
  std::exit(2);
}

std::string Printable(const std::string& text, std::size_t limit) {
  std::string out;
  for (const char c : text.substr(0, limit)) {
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    } else {
      out += c;
    }
  }
  return text.size() > limit ? out + "..." : out;
}

// One line on what happened, for a case that did not pass.
std::string Describe(const Outcome& o) {
  std::string text =
      "client got " + (o.responses.empty() ? std::string("nothing") : Statuses(o, true));
  if (!o.responses.empty() && !o.responses.back().complete) text += " (last incomplete)";
  text += o.closed ? ", closed" : ", left open";
  text += "; origin saw " + std::to_string(o.origin.requests.size()) + " request(s)";
  for (const auto& r : o.origin.requests) text += " " + r.method + " " + r.target;
  if (!o.origin.invalid.empty()) text += ", then a stream it refused (" + o.origin.invalid + ")";
  return text;
}

int Usage(const char* why) {
  std::fprintf(stderr,
               "conformance: %s\nusage: conformance_driver --cases FILE --proxy NAME=PORT "
               "[--proxy NAME=PORT ...] [--only CASE] [--verbose]\n",
               why);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string casesPath, only;
  bool verbose = false;
  std::vector<std::pair<std::string, unsigned short>> proxies;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--verbose") {
      verbose = true;
      continue;
    }
    if (i + 1 >= argc) return Usage(("missing value after " + arg).c_str());
    const std::string value = argv[++i];
    if (arg == "--cases") {
      casesPath = value;
    } else if (arg == "--only") {
      only = value;
    } else if (arg == "--proxy" && value.find('=') != std::string::npos) {
      const int port = std::atoi(value.c_str() + value.find('=') + 1);
      if (port <= 0 || port > 65535) return Usage("bad --proxy port");
      proxies.emplace_back(value.substr(0, value.find('=')), static_cast<unsigned short>(port));
    } else {
      return Usage(("unknown option " + arg).c_str());
    }
  }
  if (casesPath.empty() || proxies.empty()) return Usage("--cases and --proxy are needed");
  std::vector<Case> cases;
  if (!LoadCases(casesPath, &cases)) return 2;
  os::WSAStartup();

  Places places;
  {
    vxtest::LoopbackListener dead;  // closed again at once: nothing listens there
    places.deadHost = "localhost:" + std::to_string(dead.Port());
  }

  std::printf("%-28s %-6s", "case", "level");
  for (const auto& p : proxies) std::printf(" %-9s", p.first.c_str());
  std::printf(" reference\n");
  std::map<std::string, std::map<std::string, std::pair<int, int>>>
      tally;  // proxy, level: pass, all
  std::vector<std::string> notes;
  for (const Case& c : cases) {
    if (!only.empty() && c.name != only) continue;
    std::printf("%-28s %-6s", c.name.c_str(), c.level.c_str());
    std::fflush(stdout);
    for (const auto& [proxyName, port] : proxies) {
      bool reached = false;
      const Outcome o = RunCase(c, port, places, &reached);
      if (!reached) {
        std::printf("\nconformance: cannot connect to %s on port %u\n", proxyName.c_str(), port);
        return 1;
      }
      bool pass = false;
      for (const auto& line : c.passes) {
        bool all = true;
        for (const std::string& p : line) all = all && Check(p, o, places);
        pass = pass || all;
      }
      auto& count = tally[proxyName][c.level];
      count.first += pass;
      ++count.second;
      std::printf(" %-9s", pass ? "pass" : "FAIL");
      std::fflush(stdout);
      if (!pass || verbose) {
        notes.push_back(c.name + " [" + proxyName + "]: " + Describe(o));
        if (verbose) {
          notes.push_back("    client: " + Printable(o.received, 400));
          notes.push_back("    origin: " + Printable(o.origin.raw, 400));
        }
      }
    }
    std::printf(" %s\n", c.ref.c_str());
  }
  std::printf("\npassed, by requirement level:\n");
  for (const auto& [proxyName, levels] : tally) {
    std::printf("  %-9s", proxyName.c_str());
    int pass = 0, all = 0;
    for (const auto& [level, count] : levels) {
      std::printf("  %s %d/%d", level.c_str(), count.first, count.second);
      pass += count.first;
      all += count.second;
    }
    std::printf("  (all %d/%d)\n", pass, all);
  }
  if (!notes.empty()) {
    std::printf("\nwhat happened where a case did not pass%s:\n",
                verbose ? " (and everywhere)" : "");
    for (const std::string& n : notes) std::printf("  %s\n", n.c_str());
  }
  return 0;
}
