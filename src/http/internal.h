// Replies the proxy writes itself: a never-cached replacement body for a
// blocked request, or a 404 when not even the GIF body can be found.
#pragma once

#include "vxproxy/stringbuffer.h"

class CHTTPRequest;

class CHTTPInternal {
 public:
  virtual ~CHTTPInternal();

  // Appends the bytes of the resource "DUMMY.<TYPE WORD>"; false (output
  // unchanged) when the module has no such resource.
  static bool LoadReplacementBody(const char* typeWord, CBufStream& out);
  // Current UTC time as "Tue, 05 Mar 2024 07:09:03 GMT".
  static bool FormatHttpDate(CStringBuffer& out);
  static void MakeReplyDates(CStringBuffer& date, CStringBuffer& expires);
  // Complete replies. The request may be null; when given, the header goes to
  // its request trace log.
  static bool BuildNotFoundResponse(CHTTPRequest* request, CStringBuffer& out, bool trace);
  static bool BuildReplacementResponse(CHTTPRequest* request, const char* typeWord,
                                       CStringBuffer& out);
  // The proxy's own answer when it cannot serve a request (400, 502 or 504):
  // the reason and what failed as one line of plain text, never cached, and
  // the connection closes after it.
  static void BuildErrorResponse(int status, const char* what, CStringBuffer& out);
};
