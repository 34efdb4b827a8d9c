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
};

// startLine is the request line as received (its CRLF may follow);
// hostField the value of the Host field, "" when the request has none.
// Every start line yields parts; nothing is rejected here.
RequestTargetParts ParseRequestTarget(std::string_view startLine, const char* hostField);
