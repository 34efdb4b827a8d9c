#include "http/chunkparser.h"

#include <cctype>
#include <cstdlib>
#include <string>

namespace {

// Length of the first line including its CRLF; 0 without a complete line.
int LineSize(const char* data, int size) {
  for (int i = 0; i + 1 < size; ++i) {
    if (data[i] == '\r' && data[i + 1] == '\n') return i + 2;
  }
  return 0;
}

// Hex digits, then nothing or an extension after optional blanks and ";".
bool IsSizeLine(const char* line, int size) {
  int i = 0;
  while (i < size && std::isxdigit(static_cast<unsigned char>(line[i]))) ++i;
  if (i == 0) return false;
  while (i < size && (line[i] == ' ' || line[i] == '\t')) ++i;
  return i == size || line[i] == ';';
}

}  // namespace

CChunkFraming::Step CChunkFraming::Next(const char* data, int size) {
  Step step;
  if (state_ == State::kDone || state_ == State::kError) return step;
  if (state_ == State::kData) {
    step.forward = remaining_ < size ? remaining_ : size;
    DataRelayed(step.forward);
    return step;
  }
  if (state_ == State::kDataEnd) {
    if (size < 2) {
      step.needMore = true;
    } else if (data[0] == '\r' && data[1] == '\n') {
      step.forward = 2;
      state_ = State::kSizeLine;
    } else {
      state_ = State::kError;
    }
    return step;
  }

  const int lineSize = LineSize(data, size);
  if (lineSize == 0) {
    if (size > kMaxChunkLineBytes) {
      state_ = State::kError;
    } else {
      step.needMore = true;
    }
    return step;
  }
  if (strict_ && state_ == State::kSizeLine && !IsSizeLine(data, lineSize - 2)) {
    state_ = State::kError;
    return step;
  }
  step.forward = lineSize;
  // Any empty line ends the body, even where a size was due.
  if (lineSize == 2) {
    state_ = State::kDone;
    return step;
  }
  if (state_ == State::kTrailer) return step;

  // Read up to the first character that is no hex digit, so a chunk
  // extension after ";" is ignored.
  const std::string line(data, static_cast<std::size_t>(lineSize));
  const long long chunkSize = std::strtoll(line.c_str(), nullptr, 16);
  if (chunkSize <= 0) {
    step.event = Event::kLastChunk;
    state_ = State::kTrailer;
  } else if (chunkSize > kMaxChunkBytes) {
    state_ = State::kError;
  } else {
    step.event = Event::kChunk;
    step.chunkSize = static_cast<int>(chunkSize);
    // The data and its closing CRLF, which a strict framing looks at.
    remaining_ = strict_ ? step.chunkSize : step.chunkSize + 2;
    state_ = State::kData;
  }
  return step;
}

void CChunkFraming::DataRelayed(int count) {
  remaining_ -= count;
  if (remaining_ <= 0) {
    remaining_ = 0;
    state_ = strict_ ? State::kDataEnd : State::kSizeLine;
  }
}
