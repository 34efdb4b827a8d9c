// One browser connection and the HTTP message currently being handled on it.
// The object owns both sockets of the session (browser side and server side),
// reads and parses request and response headers, splits the request target,
// opens or reuses the upstream connection and asks the filter for a verdict.
// CProxyClient derives from it and drives it once per request.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "http/headerparser.h"
#include "platform/winnames.h"
#include "vxproxy/log.h"
#include "vxproxy/stringbuffer.h"

class CRequestServices;
class CVxHTTPProxy;

// Fixed sizes and limits of the HTTP layer.
constexpr int kHeaderRecvBytes = 1024;      // stack buffer of header and chunk receives
constexpr int kRelayRecvBytes = 65536;      // stack buffer of relays and the tunnel
constexpr int kWaitSliceMs = 5000;          // longest single select of a wait
constexpr int kUnknownBodyLength = 0x7FFFFFFF;  // "read until the server closes"

// Results of ReadHeader.
constexpr int kReadHeaderOk = 0;
constexpr int kReadHeaderWaitFailed = 1;  // a wait failed or timed out
constexpr int kReadHeaderClosed = 2;      // peer closed, recv failed or header too large

// Results of the socket operations besides a byte count (0 or more).
constexpr int kIoError = -1;
constexpr int kIoTimeout = -2;
// Results of the waits besides kIoError and kIoTimeout.
constexpr int kFirstReady = 1;
constexpr int kSecondReady = 2;
constexpr bool IsReady(int waitResult) { return waitResult >= kFirstReady; }

// The trace mode in which every header read is copied to the request trace.
constexpr int kTraceHeaders = 2;

// Waits of a session. The defaults are the ones the proxy runs with; a test
// may shorten them to keep its run time down.
struct HttpWaits {
  int requestFirstSec = 30;    // browser's first header bytes
  int requestNextSec = 60;     // every later wait of a request header
  int responseSec = 240;       // server's response header
  int receiveMoreSec = 240;    // chunked body receives
  int relaySec = 60;           // each step of a body relay and of the tunnel
  int livenessMs = 25;         // quiet period that proves a kept connection alive
};

class CHTTPRequest {
 public:
  explicit CHTTPRequest(SOCKET client);

  // Reads one message header from the socket: one of the kReadHeader results.
  virtual int ReadHeader(SOCKET socket, bool isRequest);   // slot 0
  virtual ~CHTTPRequest();                                 // slot 1
  // True when the current request may pass; false when it was blocked (the
  // block has then been logged, counted and announced).
  virtual bool Evaluate();                                 // slot 2
  virtual bool IsInternal();                               // slot 3: always false

  CHTTPRequest(const CHTTPRequest&) = delete;
  CHTTPRequest& operator=(const CHTTPRequest&) = delete;

  // ------------------------------------------------ socket primitives --
  // Results: a byte count, kIoError or kIoTimeout. A destination of
  // INVALID_SOCKET drops the bytes (a copy buffer still receives them).
  //
  // The length, or kIoError when a send failed (what went before stays sent);
  // callers test for kIoError only. Nothing to send (length 0 or less) sends
  // nothing and is no failure: 0.
  int SendAll(SOCKET socket, const char* data, int length);
  // kFirstReady, kSecondReady (the first wins a tie), kIoError on a select
  // error, kIoTimeout on time-out or without a valid socket. Test with IsReady.
  int WaitForData(SOCKET first, SOCKET second, int timeoutMs);
  int WaitForSocket(SOCKET socket, int seconds);
  int WaitForEither(SOCKET first, SOCKET second, int seconds);
  int CountReceived(SOCKET socket, int received);
  int ReceiveMore(SOCKET socket);
  int RelayBytes(SOCKET source, SOCKET destination, int count, CBufStream* copy);
  int RelayStep(SOCKET source, SOCKET destination, int want, CBufStream* copy);
  int RelayWatched(SOCKET source, SOCKET destination, int limit, CBufStream* copy);
  // Standard HTTP's body without a length: relays until the source closes,
  // which ends the body (the total), whatever the destination does meanwhile.
  int RelayUntilClose(SOCKET source, SOCKET destination, CBufStream* copy);
  // A head, when given, goes to the destination first, in the same send as
  // the body bytes already received.
  // With standard HTTP a counted body takes only its own bytes from the
  // receive buffer; the rest stays there (the next message's start).
  int ForwardBody(SOCKET source, SOCKET destination, int length, CBufStream* copy,
                  const CBufStream* head = nullptr);
  int DiscardBody(SOCKET source);
  int Tunnel(SOCKET first, SOCKET second);
  bool IsUpstreamAlive();
  void CloseUpstream();
  // Also called from another thread to end a blocked session.
  void CloseConnections();

  // ------------------------------------------------- header reader --
  void ParseHeaderLines(int startLineSize, bool isRequest);
  bool ShouldPass();
  void RecordBlocked(const char* site);
  // Whether a response with the current status carries a body even without
  // a Content-Length.
  bool IsBodyAllowed();
  const CStringBuffer& GetConnectionTag() const { return connectionTag_; }
  CMemLog& GetTraceLog() { return traceLog_; }

  // ------------------------------------- request target and connect --
  void ParseRequestTarget(const CStringBuffer& startLine);
  static unsigned short SplitHostPort(const char* hostPort, CStringBuffer& host);
  bool ConnectUpstream();

 protected:
  // Tests only: shorter waits.
  void SetWaits(const HttpWaits& waits) { waits_ = waits; }

  // Takes what a scan learnt from the start line, as soon as it is found.
  void ApplyStartLine(const CHeaderScanner& scanner, StartLineNote note, bool isRequest);

  // The members, in the order the session's model lists them.
  CStringBuffer keptHost_;            // host of the open upstream connection
  CStringBuffer connectHost_;         // where ConnectUpstream goes; set by the session
  CStringBuffer connectionTag_;       // "a.b.c.d:port    ", first item of event lines
  CStringBuffer headerLines_;         // last header; after parsing, without its start line
  CStringBuffer rawHeader_;           // last header verbatim, start line and blank line included
  CBufStream receiveBuffer_;          // received, not yet consumed
  CStringBuffer otherHeaderLines_;    // kept field lines, CRLF each, in received order
  CStringBuffer scheme_;
  CStringBuffer path_;                // without the query
  CStringBuffer typeWord_;
  CStringBuffer host_;                // without the port
  CStringBuffer method_;
  CStringBuffer refererHost_;         // with ":port" unless the port is 0 or 80
  CStringBuffer requestTarget_;       // path with the query
  CStringBuffer version_;
  CStringBuffer startLine_;           // first line of the last header, with its CRLF
  CStringBuffer requestLine_;         // method, blank, URL
  CStringBuffer proxyDestination_;    // empty when absent or naming this proxy
  CStringBuffer proxyConnectionLine_; // the line as received plus CRLF
  CStringBuffer localAddress_;        // "a.b.c.d:port" of our end of the client connection
  CStringBuffer responseTypeWord_;
  int statusCode_;
  unsigned short urlPort_;
  unsigned short connectPort_;
  unsigned short keptPort_;
  int contentLength_;
  bool closeFlag_;
  bool chunkedFlag_;
  // Atomic because a shut-down closes them from another thread.
  std::atomic<SOCKET> clientSocket_;
  std::atomic<SOCKET> upstreamSocket_;
  int bytesFromClient_;
  int bytesFromUpstream_;
  bool useUpstreamProxy_;
  CMemLog blockedLog_;                // log 4, blocked.log
  CMemLog traceLog_;                  // log 8, request.log
  CMemLogEx eventLog_;                // log 2, proxy.log
  std::map<std::string, std::string> headerMap_;  // lower-case name -> trimmed value
  CVxHTTPProxy* proxy_;          // the host's slots
  CRequestServices* services_;   // what the workers need beyond them
  bool deferredCheck_;
  int verdict_;

  // Standard HTTP (kExtensionStandardHttp), taken for each request and kept
  // for its response, and what only it uses.
  bool standardHttp_;
  // Why the last header or body read cannot be relayed, in words for the
  // answer: 400 to the browser for a request, 502 for a response.
  const char* messageError_;
  MessageFraming framing_;     // of the last header
  bool requestClose_;          // the browser asked to close after this request
  CBufStream clientPending_;   // browser bytes past the request while the response is read
  bool upstreamReused_;        // the last ConnectUpstream kept the open connection
  const char* connectError_;   // what the last failed ConnectUpstream could not do
  SOCKET lastSendFailure_;     // where the last failed SendAll went

  HttpWaits waits_;
};
