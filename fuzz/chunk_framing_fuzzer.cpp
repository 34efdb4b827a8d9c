// A chunked body as the relay reads it: the framing driven over a receive
// buffer that is filled in pieces, with chunk data streamed past it, against
// the relay written out plainly over the whole stream. The strict framing
// must read whatever it accepts as the lax one does, however it is cut.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "http/chunkparser.h"

namespace {

struct Relayed {
  bool complete = false;  // the empty line that ends the body was passed on
  std::size_t forwarded = 0;
  int chunks = 0;
  int lastChunks = 0;
  bool outsideModel = false;  // a size or a line the plain relay leaves open
};

// The relay as a sequence of steps on the whole stream: a line, and after a
// size line that many bytes and their CRLF, unread.
Relayed PlainRelay(std::string_view body) {
  Relayed out;
  std::size_t pos = 0;
  bool ended = false;
  for (;;) {
    const std::size_t crlf = body.find("\r\n", pos);
    if (crlf == std::string_view::npos) {
      out.outsideModel = body.size() - pos > static_cast<std::size_t>(kMaxChunkLineBytes);
      return out;
    }
    const std::string line(body.substr(pos, crlf + 2 - pos));
    if (line.size() > static_cast<std::size_t>(kMaxChunkLineBytes)) out.outsideModel = true;
    pos = crlf + 2;
    out.forwarded = pos;
    if (line == "\r\n") {
      out.complete = true;
      return out;
    }
    if (ended) continue;
    const long long size = std::strtoll(line.c_str(), nullptr, 16);
    if (size < 0 || size > kMaxChunkBytes) {
      out.outsideModel = true;
      return out;
    }
    if (size == 0) {
      ++out.lastChunks;
      ended = true;
      continue;
    }
    ++out.chunks;
    const std::size_t need = static_cast<std::size_t>(size) + 2;
    if (body.size() - pos < need) {  // the source closed inside the chunk
      out.forwarded = body.size();
      return out;
    }
    pos += need;
    out.forwarded = pos;
  }
}

// The session's relay loop with a source that hands out piece bytes per
// receive and closes at the end of the body.
Relayed FramedRelay(std::string_view body, std::size_t piece, bool strict) {
  Relayed out;
  std::string buffer;
  std::size_t received = 0;
  const auto receiveMore = [&] {
    if (received == body.size()) return false;
    const std::size_t n = std::min(piece, body.size() - received);
    buffer.append(body.substr(received, n));
    received += n;
    return true;
  };
  CChunkFraming framing(strict);
  for (int guard = 0;; ++guard) {
    FUZZ_CHECK(guard < 1000000, "the framing does not advance");
    const CChunkFraming::Step step = framing.Next(buffer.data(), static_cast<int>(buffer.size()));
    FUZZ_CHECK(step.forward >= 0 && static_cast<std::size_t>(step.forward) <= buffer.size());
    out.forwarded += static_cast<std::size_t>(step.forward);
    buffer.erase(0, static_cast<std::size_t>(step.forward));
    if (step.event == CChunkFraming::Event::kChunk) {
      FUZZ_CHECK(step.chunkSize > 0);
      ++out.chunks;
    }
    if (step.event == CChunkFraming::Event::kLastChunk) ++out.lastChunks;
    switch (framing.GetState()) {
      case CChunkFraming::State::kDone:
        out.complete = true;
        return out;
      case CChunkFraming::State::kError:
        out.outsideModel = true;
        return out;
      case CChunkFraming::State::kData:
        if (buffer.empty()) {
          // Streamed past the buffer straight from the source.
          const std::size_t need = static_cast<std::size_t>(framing.DataRemaining());
          FUZZ_CHECK(need > 0);
          const std::size_t available = body.size() - received;
          if (available < need) {
            out.forwarded += available;
            return out;
          }
          received += need;
          out.forwarded += need;
          framing.DataRelayed(static_cast<int>(need));
        }
        break;
      case CChunkFraming::State::kSizeLine:
      case CChunkFraming::State::kDataEnd:
      case CChunkFraming::State::kTrailer:
        if (step.needMore && !receiveMore()) return out;
        break;
    }
  }
}

bool operator==(const Relayed& a, const Relayed& b) {
  return a.complete == b.complete && a.forwarded == b.forwarded && a.chunks == b.chunks &&
         a.lastChunks == b.lastChunks && a.outsideModel == b.outsideModel;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body = vxfuzz::AsText(data, size);
  const Relayed plain = PlainRelay(body);
  const Relayed strict = FramedRelay(body, size + 1, true);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{1024}, size + 1}) {
    const Relayed framed = FramedRelay(body, piece, false);
    if (!plain.outsideModel && !framed.outsideModel) {
      FUZZ_CHECK(framed.complete == plain.complete && framed.forwarded == plain.forwarded &&
                     framed.chunks == plain.chunks && framed.lastChunks == plain.lastChunks,
                 "pieces of %zu: framed %d/%zu/%d/%d, plain %d/%zu/%d/%d", piece, framed.complete,
                 framed.forwarded, framed.chunks, framed.lastChunks, plain.complete,
                 plain.forwarded, plain.chunks, plain.lastChunks);
    }
    if (body.size() <= static_cast<std::size_t>(kMaxChunkLineBytes)) {
      FUZZ_CHECK(FramedRelay(body, piece, true) == strict, "strict, pieces of %zu", piece);
    }
  }
  if (strict.complete) {
    FUZZ_CHECK(plain.complete && plain.forwarded == strict.forwarded &&
                   plain.chunks == strict.chunks && plain.lastChunks == strict.lastChunks,
               "a body the strict framing accepts is read otherwise by the lax one");
  }
  return 0;
}
