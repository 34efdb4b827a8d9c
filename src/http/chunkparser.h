// The framing of a chunked body, read only to know where the body ends:
// every byte, framing included, is passed on as it came.
#pragma once

// A chunk size must fit a signed 32-bit count with its CRLF, and a size or
// trailer line longer than this is not waited for.
constexpr long long kMaxChunkBytes = 0x7FFFFFFF - 2;
constexpr int kMaxChunkLineBytes = 65536;

class CChunkFraming {
 public:
  enum class State {
    kSizeLine,  // a chunk-size line is due
    kData,      // DataRemaining() bytes of chunk data (and its CRLF, unless strict) are due
    kDataEnd,   // strict: the CRLF that closes a chunk's data is due
    kTrailer,   // the last chunk was seen; trailer lines until the empty line
    kDone,      // the empty line that ends the body was passed on
    kError,     // not a chunked body we relay
  };
  enum class Event { kNone, kChunk, kLastChunk };

  struct Step {
    int forward = 0;        // bytes at the front of the input to pass on now
    bool needMore = false;  // a line state without a whole line: receive more
    Event event = Event::kNone;
    int chunkSize = 0;      // with kChunk
  };

  // A strict framing also refuses a size line that is not hex digits with an
  // optional extension, an empty line where a size is due, and chunk data
  // not followed by CRLF, instead of reading them as well as it can.
  explicit CChunkFraming(bool strict = false) : strict_(strict) {}

  // Looks at the bytes not yet passed on, starting at data; takes at most one
  // line or one chunk's data. The caller passes on step.forward bytes, then
  // asks again, or receives more, or in kData may relay DataRemaining() bytes
  // past the parser and report them with DataRelayed.
  Step Next(const char* data, int size);
  void DataRelayed(int count);

  State GetState() const { return state_; }
  int DataRemaining() const { return remaining_; }

 private:
  bool strict_;
  State state_ = State::kSizeLine;
  int remaining_ = 0;
};
