// One worker thread per browser connection: reads the browser's requests one
// after the other, answers blocked ones itself and relays the others.
#pragma once

#include "http/httprequest.h"
#include "vxproxy/threads.h"

class CProxyClient : public CThreadEx, public CHTTPRequest {
 public:
  explicit CProxyClient(SOCKET accepted);
  ~CProxyClient() override;

  // Thread side, in slot order after CThreadEx's: 2 Stop, 6 body, 7 CloseIfRunning.
  bool Stop() override;
  using CThreadEx::Stop;
  DWORD Run() override;
  virtual bool CloseIfRunning();

  // Scheme identifiers of the handler table.
  static constexpr int kSchemeHttp = 1;
  static constexpr int kSchemeHttps = 2;
  static constexpr int kSchemeUnknown = 255;

  void RunSession();
  int GetSchemeId();
  bool HandleHttp();
  bool HandleConnect();
  // With the tunnel guard on: answers a CONNECT to an ad host with a 403 and
  // true (the session then closes); false when the tunnel may open.
  bool RefuseAdTunnel();
  // Answers a request or tunnel whose connect target is this proxy itself
  // with a 508 and returns true (the session then closes); false otherwise.
  bool RefuseSelfLoop();
  bool HandleUnknown();
  bool RelayRequest(const CStringBuffer& header);
  // decode (standard HTTP): passes on the chunks' data without the framing.
  bool RelayChunked(SOCKET source, SOCKET destination, CBufStream* copy, bool decode = false);
  void QueueProbe();

 protected:
  using CHTTPRequest::SetWaits;

 private:
  bool RelayResponse();

  // Standard HTTP (kExtensionStandardHttp): standardhttp.cpp.
  bool ForwardStandard();
  bool AnswerLastHop();
  bool RelayRequestStandard(const CStringBuffer& header);
  bool RelayResponseStandard();
  // The response's start line and fields as they go to the browser.
  void BuildResponseHead(CBufStream& head, bool closing, bool decoding);
  bool ForwardInterim();
  bool RefuseRequest();
  bool DrainRequestBody();
  // Answers the browser with status and what failed, and ends the session
  // (false).
  bool AnswerError(int status, const CStringBuffer& what);
  void LingerForClose();

  using Handler = bool (CProxyClient::*)();
  struct HandlerRow {
    int schemeId;
    Handler handler;
  };
  static const HandlerRow kHandlers[3];
};
