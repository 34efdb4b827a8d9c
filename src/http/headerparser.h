// Parsing of HTTP message headers apart from the socket that brings them:
// the reader hands in the bytes received so far and learns whether a whole
// header is there; the header's lines then become the fields the proxy acts on.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "vxproxy/stringbuffer.h"

// A header that has not ended after this many bytes is not a header we serve;
// without a cap one peer could grow the receive buffer without bound.
constexpr int kMaxHeaderBytes = 65536;

enum class HeaderStatus {
  kNeedMore,   // no blank line yet
  kComplete,   // the header ends HeaderSize() bytes into the buffer
  kTooLarge,   // more than kMaxHeaderBytes without an end
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
  explicit CHeaderScanner(bool isRequest) : isRequest_(isRequest) {}

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

 private:
  void TakeStartLine(CBufStream& buffer, int lineSize, HeaderScanStep& step);

  bool isRequest_;
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
