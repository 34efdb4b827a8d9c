// What the soak's origin sends and its driver checks: bodies fixed by a
// size and a seed (so the driver knows every byte without being told), the
// checksum both sides compare, and the decoding of a chunked body.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace soak {

// size bytes of a stream fixed by seed (xorshift64*).
inline std::string MakeBody(std::size_t size, std::uint64_t seed) {
  std::string out(size, '\0');
  std::uint64_t x = seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
  for (std::size_t i = 0; i < size; i += 8) {
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    std::uint64_t v = x * 0x2545F4914F6CDD1Dull;
    for (std::size_t j = i; j < size && j < i + 8; ++j, v >>= 8) out[j] = static_cast<char>(v);
  }
  return out;
}

// FNV-1a, 64 bits.
inline std::uint64_t Checksum(std::string_view bytes) {
  std::uint64_t h = 0xCBF29CE484222325ull;
  for (const char c : bytes) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001B3ull;
  }
  return h;
}

// The trimmed value of the first header field called name (any letter
// case) in a message header; empty when there is none.
inline std::string FieldValue(std::string_view head, std::string_view name) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  for (std::size_t at = head.find("\r\n"); at != std::string_view::npos;) {
    const std::size_t start = at + 2;
    const std::size_t end = head.find("\r\n", start);
    const std::string_view line =
        head.substr(start, end == std::string_view::npos ? end : end - start);
    at = end;
    if (line.size() <= name.size() || line[name.size()] != ':') continue;
    bool same = true;
    for (std::size_t i = 0; i < name.size() && same; ++i) same = lower(line[i]) == lower(name[i]);
    if (!same) continue;
    std::string_view value = line.substr(name.size() + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    return std::string(value);
  }
  return "";
}

// The data of a whole chunked body (chunk extensions and trailers dropped);
// false when the framing is broken or incomplete.
inline bool DecodeChunked(std::string_view framed, std::string* data) {
  data->clear();
  std::size_t at = 0;
  for (;;) {
    const std::size_t lineEnd = framed.find("\r\n", at);
    if (lineEnd == std::string_view::npos || lineEnd == at) return false;
    const std::string sizeLine(framed.substr(at, lineEnd - at));
    char* end = nullptr;
    const unsigned long size = std::strtoul(sizeLine.c_str(), &end, 16);
    if (end == sizeLine.c_str()) return false;
    at = lineEnd + 2;
    if (size == 0) break;
    if (framed.size() < at + size + 2 || framed.substr(at + size, 2) != "\r\n") return false;
    data->append(framed.substr(at, size));
    at += size + 2;
  }
  for (;;) {  // trailer lines up to the empty line
    const std::size_t end = framed.find("\r\n", at);
    if (end == std::string_view::npos) return false;
    if (end == at) return true;
    at = end + 2;
  }
}

}  // namespace soak
