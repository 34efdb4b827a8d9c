#include "conformance/wire.h"

#include <cctype>
#include <cstdint>

namespace conformance {
namespace {

constexpr std::size_t kMaxLengthDigits = 15;

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool SameNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

bool IsTokenChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsToken(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (!IsTokenChar(c)) return false;
  }
  return true;
}

std::string_view TrimOws(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The elements of a comma-separated list, empty ones dropped.
std::vector<std::string_view> ListElements(std::string_view value) {
  std::vector<std::string_view> elements;
  while (true) {
    const std::size_t comma = value.find(',');
    const std::string_view element = TrimOws(value.substr(0, comma));
    if (!element.empty()) elements.push_back(element);
    if (comma == std::string_view::npos) return elements;
    value.remove_prefix(comma + 1);
  }
}

// The header's field lines after the start line (line ends CRLF or LF).
std::vector<std::string_view> FieldLines(std::string_view header) {
  std::vector<std::string_view> lines;
  std::size_t pos = header.find('\n');
  while (pos != std::string_view::npos && pos + 1 < header.size()) {
    const std::size_t next = header.find('\n', pos + 1);
    std::string_view line = header.substr(
        pos + 1, next == std::string_view::npos ? std::string_view::npos : next - pos - 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty()) lines.push_back(line);
    pos = next;
  }
  return lines;
}

// Every value of the named field, in order.
std::vector<std::string_view> FieldValues(std::string_view header, std::string_view name) {
  std::vector<std::string_view> values;
  for (const std::string_view line : FieldLines(header)) {
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && SameNoCase(TrimOws(line.substr(0, colon)), name)) {
      values.push_back(TrimOws(line.substr(colon + 1)));
    }
  }
  return values;
}

// A chunked body at the start of data, by the grammar: hex size, optional
// extensions, CRLF, data, CRLF; the last chunk, trailer fields, CRLF.
Read ReadChunked(std::string_view data, std::string* body, std::size_t* used, std::string* why) {
  std::size_t pos = 0;
  while (true) {
    const std::size_t lineEnd = data.find("\r\n", pos);
    const std::size_t bareLf = data.find('\n', pos);
    if (bareLf != std::string_view::npos && (bareLf == 0 || data[bareLf - 1] != '\r')) {
      *why = "bare LF in the chunked framing";
      return Read::kInvalid;
    }
    if (lineEnd == std::string_view::npos) return Read::kIncomplete;
    const std::string_view line = data.substr(pos, lineEnd - pos);
    std::size_t digits = 0;
    while (digits < line.size() && std::isxdigit(static_cast<unsigned char>(line[digits])))
      ++digits;
    std::string_view rest = line.substr(digits);
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
    if (digits == 0 || (!rest.empty() && rest.front() != ';')) {
      *why = "chunk size line \"" + std::string(line) + "\"";
      return Read::kInvalid;
    }
    std::size_t significant = line.find_first_not_of('0');
    significant = significant >= digits ? 0 : digits - significant;
    if (significant > kMaxLengthDigits) {
      *why = "chunk size beyond any length";
      return Read::kInvalid;
    }
    const std::uint64_t size = std::stoull(std::string(line.substr(0, digits)), nullptr, 16);
    pos = lineEnd + 2;
    if (size == 0) {
      while (true) {  // trailer fields up to the empty line
        const std::size_t end = data.find("\r\n", pos);
        if (end == std::string_view::npos) return Read::kIncomplete;
        const std::string_view trailer = data.substr(pos, end - pos);
        pos = end + 2;
        if (trailer.empty()) {
          *used = pos;
          return Read::kComplete;
        }
        if (trailer.find(':') == std::string_view::npos) {
          *why = "trailer line without a colon";
          return Read::kInvalid;
        }
      }
    }
    if (data.size() < pos + size + 2) return Read::kIncomplete;
    if (data.substr(pos + size, 2) != "\r\n") {
      *why = "chunk data not followed by CRLF";
      return Read::kInvalid;
    }
    body->append(data.substr(pos, size));
    pos += size + 2;
  }
}

// Content-Length values: each a decimal number, all the same. -1 when invalid.
long long ContentLength(const std::vector<std::string_view>& values) {
  long long length = -1;
  for (const std::string_view value : values) {
    const std::vector<std::string_view> elements = ListElements(value);
    if (elements.empty()) return -1;
    for (const std::string_view element : elements) {
      if (element.size() > kMaxLengthDigits ||
          element.find_first_not_of("0123456789") != std::string_view::npos) {
        return -1;
      }
      const long long v = std::stoll(std::string(element));
      if (length >= 0 && v != length) return -1;
      length = v;
    }
  }
  return length;
}

bool ChunkedIsFinal(const std::vector<std::string_view>& values) {
  std::string_view last;
  for (const std::string_view value : values) {
    for (const std::string_view coding : ListElements(value)) last = coding;
  }
  return SameNoCase(last, "chunked");
}

}  // namespace

bool ContainsNoCase(std::string_view text, std::string_view part) {
  if (part.empty()) return true;
  for (std::size_t i = 0; i + part.size() <= text.size(); ++i) {
    if (SameNoCase(text.substr(i, part.size()), part)) return true;
  }
  return false;
}

Read ReadRequest(std::string_view data, WireRequest* request, std::size_t* used, std::string* why) {
  const std::size_t end = data.find("\r\n\r\n");
  const std::size_t scan = end == std::string_view::npos ? data.size() : end + 4;
  for (std::size_t i = 0; i < scan; ++i) {
    const char c = data[i];
    if (c == '\0') *why = "NUL in the header";
    if (c == '\n' && (i == 0 || data[i - 1] != '\r')) *why = "bare LF in the header";
    if (c == '\r' && i + 1 < scan && data[i + 1] != '\n') *why = "bare CR in the header";
    if (!why->empty()) return Read::kInvalid;
  }
  if (end == std::string_view::npos) return Read::kIncomplete;
  const std::string_view header = data.substr(0, end + 4);
  const std::string_view line = header.substr(0, header.find("\r\n"));
  const std::size_t sp1 = line.find(' ');
  const std::size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
  if (sp2 == std::string_view::npos || line.find(' ', sp2 + 1) != std::string_view::npos) {
    *why = "request line \"" + std::string(line) + "\"";
    return Read::kInvalid;
  }
  request->method = line.substr(0, sp1);
  request->target = line.substr(sp1 + 1, sp2 - sp1 - 1);
  request->version = line.substr(sp2 + 1);
  const std::string& v = request->version;
  bool targetOk = !request->target.empty();
  for (const char c : request->target) targetOk = targetOk && c > 0x20 && c < 0x7F;
  if (!IsToken(request->method) || !targetOk || v.size() != 8 || v.compare(0, 5, "HTTP/") != 0 ||
      !std::isdigit(static_cast<unsigned char>(v[5])) || v[6] != '.' ||
      !std::isdigit(static_cast<unsigned char>(v[7]))) {
    *why = "request line \"" + std::string(line) + "\"";
    return Read::kInvalid;
  }
  for (const std::string_view field : FieldLines(header)) {
    const std::size_t colon = field.find(':');
    if (field.front() == ' ' || field.front() == '\t') {
      *why = "obs-fold";
    } else if (colon == std::string_view::npos || !IsToken(field.substr(0, colon))) {
      *why = "field line \"" + std::string(field) + "\"";
    } else {
      for (const char c : field.substr(colon + 1)) {
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t')
          *why = "control character in a field";
      }
    }
    if (!why->empty()) return Read::kInvalid;
  }
  const std::vector<std::string_view> hosts = FieldValues(header, "Host");
  if (v == "HTTP/1.1" && hosts.size() != 1) {
    *why = hosts.empty() ? "no Host" : "more than one Host";
    return Read::kInvalid;
  }
  const std::vector<std::string_view> lengths = FieldValues(header, "Content-Length");
  const std::vector<std::string_view> codings = FieldValues(header, "Transfer-Encoding");
  request->header = header;
  request->body.clear();
  const std::string_view rest = data.substr(end + 4);
  if (!codings.empty()) {
    std::size_t chunked = 0;
    for (const std::string_view value : codings) {
      for (const std::string_view coding : ListElements(value))
        chunked += SameNoCase(coding, "chunked");
    }
    if (!lengths.empty() || v != "HTTP/1.1" || chunked != 1 || !ChunkedIsFinal(codings)) {
      *why = "Transfer-Encoding with Content-Length, another coding or HTTP/1.0";
      return Read::kInvalid;
    }
    std::size_t bodyUsed = 0;
    const Read r = ReadChunked(rest, &request->body, &bodyUsed, why);
    if (r == Read::kComplete) *used = end + 4 + bodyUsed;
    return r;
  }
  if (!lengths.empty()) {
    const long long length = ContentLength(lengths);
    if (length < 0) {
      *why = "Content-Length not one decimal number";
      return Read::kInvalid;
    }
    if (rest.size() < static_cast<std::size_t>(length)) return Read::kIncomplete;
    request->body = rest.substr(0, static_cast<std::size_t>(length));
    *used = end + 4 + static_cast<std::size_t>(length);
    return Read::kComplete;
  }
  *used = end + 4;
  return Read::kComplete;
}

std::vector<WireResponse> SplitResponses(std::string_view data,
                                         const std::vector<std::string>& methods, bool closed) {
  std::vector<WireResponse> responses;
  std::size_t next = 0;
  while (!data.empty()) {
    WireResponse response;
    const std::size_t crlf = data.find("\r\n\r\n");
    const std::size_t lf = data.find("\n\n");
    const std::size_t end = crlf < lf ? crlf + 4 : (lf == std::string_view::npos ? lf : lf + 2);
    if (data.compare(0, 5, "HTTP/") != 0 || data.size() < 12) {
      response.status = -1;  // not a response
      response.body = data;
      responses.push_back(response);
      break;
    }
    response.status = std::atoi(std::string(data.substr(9, 3)).c_str());
    if (end == std::string_view::npos) {
      response.header = data;
      responses.push_back(response);
      break;
    }
    response.header = data.substr(0, end);
    const std::string_view rest = data.substr(end);
    const bool interim = response.status >= 100 && response.status < 200;
    const std::string method = interim ? "" : next < methods.size() ? methods[next] : "GET";
    if (!interim) ++next;
    std::size_t used = 0;
    if (interim || method == "HEAD" || response.status == 204 || response.status == 304) {
      response.complete = true;
    } else if (const auto codings = FieldValues(response.header, "Transfer-Encoding");
               !codings.empty() && ChunkedIsFinal(codings)) {
      std::string why;
      response.complete = ReadChunked(rest, &response.body, &used, &why) == Read::kComplete;
      if (!response.complete) response.body = rest;
    } else if (const auto lengths = FieldValues(response.header, "Content-Length");
               !lengths.empty()) {
      const long long length = ContentLength(lengths);
      response.complete = length >= 0 && rest.size() >= static_cast<std::size_t>(length);
      used = response.complete ? static_cast<std::size_t>(length) : rest.size();
      response.body = rest.substr(0, used);
    } else {
      response.body = rest;
      response.complete = closed;
      used = rest.size();
    }
    responses.push_back(response);
    if (!response.complete) break;
    data = rest.substr(used);
  }
  return responses;
}

}  // namespace conformance
