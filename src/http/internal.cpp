// Replies the proxy composes itself. Every one is HTTP/1.1 with an exact
// Content-Length and forbids caching four ways (a past Expires, Pragma,
// Cache-Control, Age 0), so a browser never keeps a replacement around.
#include "http/internal.h"

#include <cstdio>
#include <cstring>

#include "http/httprequest.h"
#include "log/levels.h"
#include "platform/platform.h"
#include "http/services.h"
#include "vxproxy/proxy.h"

namespace {

constexpr char kStatusFound[] = "HTTP/1.1 200 OK\r\n";
constexpr char kStatusNotFound[] = "HTTP/1.1 404 Not Found\r\n";
constexpr char kHeaderWithType[] =
    "Content-Type: %s\r\nDate: %s\r\nExpires: %s\r\nPragma: no-cache\r\n"
    "Cache-Control: no-cache, no-store, max-age=0, must-revalidate\r\nServer: Vexilo\r\n"
    "Content-Length: %d\r\nAge: 0\r\n\r\n";
constexpr char kHeaderWithoutType[] =
    "Date: %s\r\nExpires: %s\r\nPragma: no-cache\r\n"
    "Cache-Control: no-cache, no-store, max-age=0, must-revalidate\r\nServer: Vexilo\r\n"
    "Content-Length: %d\r\nAge: 0\r\n\r\n";
constexpr char kPastDate[] = "Fri, 01 Jan 1990 00:00:00 GMT";
constexpr char kDateFormat[] = "%s, %02d %s %04d %02d:%02d:%02d GMT";

constexpr int kFoundHeaderBytes = 2048;
constexpr int kNotFoundHeaderBytes = 1024;
constexpr int kDateBytes = 512;

constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void TraceReply(CHTTPRequest* request, const CStringBuffer& reply) {
  CMemLog& trace = request->GetTraceLog();
  trace << CLogManip(kLevelWarning | kLevelDebug) << reply.GetBuffer();
  trace.Flush();
}

}  // namespace

CHTTPInternal::~CHTTPInternal() = default;

bool CHTTPInternal::LoadReplacementBody(const char* typeWord, CBufStream& out) {
  if (typeWord == nullptr) return false;
  CStringBuffer type(typeWord);
  type.ToUpper();
  CStringBuffer name("DUMMY.");
  name << type;
  const os::ResourceEntry* resource =
      os::FindResourceA(GetProxy()->GetInstanceHandle(), name.GetBuffer(), type.GetBuffer());
  if (resource == nullptr || resource->data == nullptr) return false;
  out.AddString(reinterpret_cast<const char*>(resource->data), static_cast<int>(resource->size));
  return true;
}

bool CHTTPInternal::FormatHttpDate(CStringBuffer& out) {
  os::SYSTEMTIME now{};
  os::GetSystemTime(&now);
  const char* day = now.wDayOfWeek < 7 ? kDayNames[now.wDayOfWeek] : "Sun";
  const char* month = (now.wMonth >= 1 && now.wMonth <= 12) ? kMonthNames[now.wMonth - 1] : "Jan";
  char text[kDateBytes];
  std::snprintf(text, sizeof text, kDateFormat, day, now.wDay, month, now.wYear, now.wHour,
                now.wMinute, now.wSecond);
  out = text;
  return true;
}

void CHTTPInternal::MakeReplyDates(CStringBuffer& date, CStringBuffer& expires) {
  FormatHttpDate(date);
  FormatHttpDate(expires);
}

bool CHTTPInternal::BuildNotFoundResponse(CHTTPRequest* request, CStringBuffer& out, bool trace) {
  CStringBuffer date;
  FormatHttpDate(date);
  char header[kNotFoundHeaderBytes];
  std::snprintf(header, sizeof header, kHeaderWithType, "text/html", date.GetBuffer(), kPastDate, 0);
  out = kStatusNotFound;
  out << header;
  if (trace && request != nullptr) TraceReply(request, out);
  return true;
}

bool CHTTPInternal::BuildReplacementResponse(CHTTPRequest* request, const char* typeWord,
                                             CStringBuffer& out) {
  bool typed = true;
  CStringBuffer word;
  if (typeWord == nullptr || *typeWord == '\0') {
    word = "gif";
    typed = false;
  } else {
    word = typeWord;
    if (word == "unknown") typed = false;
  }

  CBufStream body;
  if (!LoadReplacementBody(word.GetBuffer(), body)) {
    // Kinds without a body of their own get the transparent image.
    if (std::strcmp(word.GetBuffer(), "gif") == 0) return BuildNotFoundResponse(request, out, true);
    word = "gif";
    if (!LoadReplacementBody(word.GetBuffer(), body)) return BuildNotFoundResponse(request, out, true);
  }

  CRequestServices* services = RequestServices();
  CVxHTTPProxy* proxy = GetProxy();
  if (services->IsImageWord(word)) {
    proxy->CountBlockedImage();
  } else if (services->IsFlashWord(word)) {
    proxy->CountBlockedFlash();
  }

  CStringBuffer date;
  FormatHttpDate(date);
  char header[kFoundHeaderBytes];
  if (typed) {
    const char* mime = proxy->GetMimeType(word.GetBuffer());
    std::snprintf(header, sizeof header, kHeaderWithType, mime != nullptr ? mime : "image/gif",
                  date.GetBuffer(), kPastDate, body.GetSize());
  } else {
    std::snprintf(header, sizeof header, kHeaderWithoutType, date.GetBuffer(), kPastDate,
                  body.GetSize());
  }
  out = kStatusFound;
  out << header;
  if (request != nullptr) TraceReply(request, out);
  out.AddString(body.GetBuffer(), body.GetSize());
  return true;
}

void CHTTPInternal::BuildErrorResponse(int status, const char* what, CStringBuffer& out) {
  const char* reason = status == 400   ? "Bad Request"
                       : status == 504 ? "Gateway Timeout"
                                       : "Bad Gateway";
  CStringBuffer body(reason);
  body << ": " << what << "\n";
  out = "HTTP/1.1 ";
  // The text names hosts the request chose; no browser may take it for a page.
  out << status << " " << reason << "\r\nContent-Type: text/plain\r\n"
      << "X-Content-Type-Options: nosniff\r\nCache-Control: no-store\r\nServer: Vexilo\r\n"
      << "Connection: close\r\nContent-Length: " << body.GetSize() << "\r\n\r\n" << body;
}
