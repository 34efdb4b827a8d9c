// The request line split into method, scheme, host, port, target, path and
// type word, apart from the session that received it: bytes in, parts out.
#pragma once

#include <string_view>

#include "vxproxy/stringbuffer.h"

// Which form the target took, as far as the split tells them apart.
enum class RequestTargetForm {
  kAbsolute,   // "scheme://host[:port][/path]" with a scheme of at most four letters
  kUrlInside,  // a "://" too far in to end a scheme: a URL inside the target
  kNoUrl,      // no "://": origin form, CONNECT's authority form or anything else
};

struct RequestTargetParts {
  RequestTargetForm form = RequestTargetForm::kNoUrl;
  CStringBuffer method;
  CStringBuffer version;
  CStringBuffer scheme;         // empty when neither the target nor a Host field gave one
  CStringBuffer host;           // without the port
  unsigned short port = 0;      // 80 when the host names none
  CStringBuffer requestTarget;  // path with the query
  CStringBuffer path;           // without the query
  // The extension of the path's last segment, "unknown" without one; not
  // yet mapped through the type-word table.
  CStringBuffer typeWord;
  // The path has a '/': only then does the session map the type word
  // (an "unknown" included).
  bool typeWordFromPath = false;
  // Strict only: why the request is refused, in words for the browser's
  // answer; null when it is fine.
  const char* error = nullptr;
};

// startLine is the request line as received (its CRLF may follow);
// hostField the value of the Host field, null when the request has none.
// Every start line yields parts. A strict split reads the line as the
// standard writes it: "METHOD target HTTP/1.x" with single blanks; an
// absolute URL of any scheme, a path, or CONNECT's host and port; a host and
// port that ParseAuthority accepts, and a Host field in every HTTP/1.1
// request. Anything else sets error.
RequestTargetParts ParseRequestTarget(std::string_view startLine, const char* hostField,
                                      bool strict = false);

// "host[:port]" as a URL or a Host field names a server: the host (an IPv6
// literal keeps its brackets) and the port, defaultPort when none is written.
// Null when fine, otherwise what is wrong: user information, a malformed or
// empty host, or a port that is not 1 to 65535 in decimal.
const char* ParseAuthority(std::string_view authority, unsigned short defaultPort,
                           CStringBuffer& host, unsigned short& port);

// Cuts ":port" off host at its first colon and returns the port, reduced to
// 16 bits; 80 when there is no colon.
unsigned short BreakOffPort(CStringBuffer& host);
