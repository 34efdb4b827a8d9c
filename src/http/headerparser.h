// Parsing of HTTP message headers apart from the socket that brings them:
// the reader hands in the bytes received so far and learns whether a whole
// header is there; the header's lines then become the fields the proxy acts on.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

#include "vxproxy/stringbuffer.h"

// A header that has not ended after this many bytes is not a header we serve;
// without a cap one peer could grow the receive buffer without bound.
constexpr int kMaxHeaderBytes = 65536;

enum class HeaderStatus {
  kNeedMore,   // no blank line yet
  kComplete,   // the header ends HeaderSize() bytes into the buffer
  kTooLarge,   // more than kMaxHeaderBytes without an end
  kMalformed,  // a strict scanner found what no header may hold (Error() says what)
};

// What the first line of a response said about itself.
enum class StartLineNote {
  kNone,
  kNoVersion,  // no "HTTP/1." in it: the status stays 200
  kRemnant,    // bytes before "HTTP/1." were dropped from the buffer
};

struct HeaderScanStep {
  HeaderStatus status = HeaderStatus::kNeedMore;
  bool tookStartLine = false;  // this call found the start line
  StartLineNote note = StartLineNote::kNone;
};

// Finds the start line and the end of one header in a buffer that grows
// between calls; each call resumes the search where the previous one stopped.
class CHeaderScanner {
 public:
  // A strict scanner refuses a NUL, a CR or LF outside a CRLF pair and a
  // response whose first line is not "HTTP/1.x nnn ..." as soon as they
  // arrive, and skips empty lines before a request.
  explicit CHeaderScanner(bool isRequest, bool strict = false)
      : isRequest_(isRequest), strict_(strict) {}

  // Changes the buffer only by dropping a response's leading remnant bytes.
  HeaderScanStep Scan(CBufStream& buffer);

  // Valid once the start line was taken.
  const CStringBuffer& StartLine() const { return startLine_; }  // with its CRLF
  const CStringBuffer& RequestLine() const { return requestLine_; }  // method, blank, URL
  // A response's status code, when its start line carried one.
  bool HasStatusCode() const { return hasStatusCode_; }
  int StatusCode() const { return statusCode_; }
  // Valid after kComplete: start line to blank line inclusive.
  int HeaderSize() const { return headerSize_; }
  // With kMalformed: what is wrong, in words for the peer's answer.
  const char* Error() const { return error_; }

 private:
  void TakeStartLine(CBufStream& buffer, int lineSize, HeaderScanStep& step);
  // Strict: looks at the bytes not yet checked, up to the header's end.
  // Returns the offset of the first byte no header may hold (and says what
  // is wrong in fault), or -1.
  int CheckBytes(const CBufStream& buffer, const char** fault);

  bool isRequest_;
  bool strict_;
  int checkedTo_ = 0;
  const char* error_ = nullptr;
  bool startLineTaken_ = false;
  int scanFrom_ = 0;  // the blank-line search resumes here
  CStringBuffer startLine_;
  CStringBuffer requestLine_;
  bool hasStatusCode_ = false;
  int statusCode_ = 0;
  int headerSize_ = 0;
};

// The fields of a header the proxy acts on. contentLength, close, chunked and
// otherLines are set afresh by each header; the others change only when the
// header names their field, so a caller fills them with what it had before.
struct HeaderFields {
  CStringBuffer otherLines;           // kept field lines, CRLF each, in received order
  int contentLength = 0;
  bool close = false;
  bool chunked = false;
  CStringBuffer proxyConnectionLine;  // the line as received plus CRLF
  CStringBuffer proxyDestination;     // empty when naming this proxy
  CStringBuffer responseTypeWord;     // subtype of the first media type, normalised
  CStringBuffer refererHost;          // with ":port" unless the port is 0 or 80
};

using TypeWordNormalizer = std::function<void(CStringBuffer&)>;

// Parses the field lines of a header (start line removed, blank line optional).
// map, when given, is cleared and gets every field as lower-case name to
// trimmed value; localAddress is this proxy's own "a.b.c.d:port"; normalize,
// when given, maps a media subtype to the proxy's type word.
void ParseHeaderFields(const CStringBuffer& lines, const char* localAddress,
                       const TypeWordNormalizer& normalize, HeaderFields& fields,
                       std::map<std::string, std::string>* map);

// How a message's body is framed and what its Connection field asks, by the
// standard's rules rather than the first-match reading above: every field
// line counts, lists are split, and whatever leaves the body's end in doubt
// is an error.
struct MessageFraming {
  const char* error = nullptr;  // what makes the header unusable, for the peer's answer
  bool hasLength = false;
  long long length = 0;         // with hasLength
  bool chunked = false;         // chunked is the last transfer coding
  bool untilClose = false;      // codings without chunked last: a response ends with the close
  bool close = false;           // "close" among the connection options
  bool keepAlive = false;       // "keep-alive" among them
};

// lines: the field section of a header that a strict scanner accepted (start
// line removed, blank line optional). A request's Proxy-Connection options
// count as its Connection options, since they reach the server as those; a
// request with two Host fields names no one server and is an error too.
MessageFraming ReadFraming(std::string_view lines, bool isRequest, bool http10);

// A header's field lines as a proxy passes them on: without Connection, the
// fields its options name, and the fields that concern one connection only
// (Keep-Alive, Proxy-Connection, TE, and Upgrade unless "upgrade" is an
// option, which upgrade then says), nor the fields named in drop (lower
// case). Each line keeps its text and its CRLF.
struct ForwardedFields {
  std::string lines;
  bool upgrade = false;
};
ForwardedFields StripHopByHop(std::string_view lines, std::initializer_list<std::string_view> drop);
