// The framing of chunked bodies, driven the way the chunked relay drives it.
#include <gtest/gtest.h>

#include <string>

#include "http/chunkparser.h"

namespace {

using State = CChunkFraming::State;
using Event = CChunkFraming::Event;

struct Relayed {
  std::string forwarded, events;
  int pastBuffer = 0;  // chunk data relayed straight from the source
  State end = State::kSizeLine;
  std::string left;    // received or still at the source, not passed on
};

// body is what the source sends: the first `buffered` bytes came with the
// header, the rest arrives in receives of `piece` bytes, except chunk data
// that finds the buffer empty, which is relayed past it in one go.
Relayed Relay(const std::string& body, std::size_t buffered, std::size_t piece,
              bool strict = false) {
  Relayed r;
  CChunkFraming framing(strict);
  std::string buffer = body.substr(0, buffered);
  std::size_t next = buffered;
  for (;;) {
    const CChunkFraming::Step step = framing.Next(buffer.data(), static_cast<int>(buffer.size()));
    r.forwarded += buffer.substr(0, step.forward);
    buffer.erase(0, step.forward);
    if (step.event == Event::kChunk) r.events += std::to_string(step.chunkSize) + ";";
    if (step.event == Event::kLastChunk) r.events += "last;";
    r.end = framing.GetState();
    if (r.end == State::kDone || r.end == State::kError) break;
    if (r.end == State::kData && buffer.empty()) {
      const std::size_t need = framing.DataRemaining();
      if (next + need > body.size()) break;  // the source closed early
      r.forwarded += body.substr(next, need);
      r.pastBuffer += static_cast<int>(need);
      next += need;
      framing.DataRelayed(static_cast<int>(need));
    } else if (step.needMore) {
      if (next >= body.size()) break;
      buffer += body.substr(next, piece);
      next += piece;
    }
  }
  r.left = buffer + (next < body.size() ? body.substr(next) : "");
  return r;
}

}  // namespace

TEST(ChunkFraming, BodiesPassUnchangedWhateverTheReceives) {
  const struct {
    std::string body;
    const char* events;
    bool strictToo;  // also a body by the standard's rules
  } cases[] = {
      {"5\r\nhello\r\n0\r\n\r\n", "5;last;", true},
      // Hex digits in either case; an extension after ";" is not read.
      {"1A\r\n" + std::string(26, 'u') + "\r\n1a ;n=v\r\n" + std::string(26, 'l') + "\r\n0\r\n\r\n",
       "26;26;last;", true},
      // Trailer lines after the last chunk are passed on; the empty line ends.
      {"3\r\nabc\r\n0\r\nX-T: 1\r\nX-U: 2\r\n\r\n", "3;last;", true},
      // Data not ending in CRLF makes the next "line" start inside it.
      {"2\r\nabc\r\n0\r\n\r\n", "2;last;", false},
      // Any empty line ends the body, even where a size is due; a size that
      // reads as zero or less is the last chunk.
      {"\r\n", "", false},
      {"-5\r\nhello\r\n\r\n", "last;", false},
      {"zz\r\n\r\n", "last;", false},
  };
  for (const auto& c : cases) {
    for (std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{1024}}) {
      for (std::size_t buffered : {std::size_t{0}, std::size_t{4}, c.body.size()}) {
        for (bool strict : {false, true}) {
          const Relayed r = Relay(c.body + "NEXT", buffered, piece, strict);
          if (strict && !c.strictToo) {
            // Refused before a byte past the doubtful line goes on.
            EXPECT_EQ(r.end, State::kError) << c.body;
            EXPECT_EQ(c.body.find(r.forwarded), 0u) << c.body;
            continue;
          }
          EXPECT_EQ(r.end, State::kDone) << c.body << piece << buffered;
          EXPECT_EQ(r.forwarded, c.body) << piece << " " << buffered;
          EXPECT_EQ(r.events, c.events) << c.body;
          EXPECT_EQ(r.left, "NEXT");
        }
      }
    }
  }
}

TEST(ChunkFraming, ChunkDataBeyondTheBufferIsRelayedPastIt) {
  const std::string body = "186A0\r\n" + std::string(100000, 'd') + "\r\n0\r\n\r\n";
  const Relayed r = Relay(body, 7 + 500, 1024);
  EXPECT_EQ(r.end, State::kDone);
  EXPECT_EQ(r.forwarded, body);
  EXPECT_EQ(r.events, "100000;last;");
  EXPECT_EQ(r.pastBuffer, 100000 + 2 - 500);
}

TEST(ChunkFraming, OversizedChunksAndEndlessLinesAreErrors) {
  // The size line still goes on before the relay gives up.
  Relayed r = Relay("80000000\r\nxx", 64, 64);
  EXPECT_EQ(r.end, State::kError);
  EXPECT_EQ(r.forwarded, "80000000\r\n");
  EXPECT_EQ(r.events, "");
  r = Relay("7FFFFFFD\r\n", 64, 64);
  EXPECT_EQ(r.events, "2147483645;");
  EXPECT_EQ(r.end, State::kData);  // the source ended before the data

  r = Relay(std::string(2 * kMaxChunkLineBytes, '1'), 0, 1024);
  EXPECT_EQ(r.end, State::kError);
  EXPECT_EQ(r.forwarded, "");
  // A line as long as the limit is still waited for.
  EXPECT_EQ(Relay(std::string(kMaxChunkLineBytes, '0') + "\r\n\r\n", 0, 1024).end, State::kDone);
}
