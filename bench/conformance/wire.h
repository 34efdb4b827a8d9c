// The HTTP/1.1 message framing of the conformance driver's two ends, read
// by the letter of RFC 9112: the origin's strict request reader (anything
// the grammar does not allow makes the stream invalid, as a strict server
// would answer 400 and close) and the client's reader of the proxy's
// responses, which splits the bytes into messages by their framing and says
// which one ended before its framing did.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace conformance {

// Case-insensitive search (ASCII).
bool ContainsNoCase(std::string_view text, std::string_view part);

struct WireRequest {
  std::string method, target, version;
  std::string header;  // request line to the blank line, as received
  std::string body;    // decoded (chunked coding removed)
};

enum class Read { kIncomplete, kComplete, kInvalid };

// One request from the start of data. kComplete sets request and used (the
// bytes it took); kInvalid sets why.
Read ReadRequest(std::string_view data, WireRequest* request, std::size_t* used, std::string* why);

struct WireResponse {
  int status = 0;
  std::string header;
  std::string body;       // decoded
  bool complete = false;  // its framing ended (a close-delimited body: the close came)
};

// Splits what the proxy sent into responses. methods gives each request's
// method in order (a response to HEAD has no body); a 1xx response does not
// use one up. closed: the proxy closed after these bytes.
std::vector<WireResponse> SplitResponses(std::string_view data,
                                         const std::vector<std::string>& methods, bool closed);

}  // namespace conformance
