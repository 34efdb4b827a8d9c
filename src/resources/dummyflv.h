// The replacement Flash video: 70 ms of a black 420 x 314 picture with
// silent MP3 audio, assembled at compile time.
//
// Layout: the FLV header (version 1, audio and video present), then seven
// tags, each followed by its previous-tag size:
//   1  script data  245 bytes  t=0    onMetaData, an ECMA array of 10 entries
//   2  audio        105 bytes  t=0    one MPEG-2 layer III frame, 22 kHz mono
//   3  video       3588 bytes  t=0    one Sorenson H.263 key frame
//   4-7 audio       105 bytes  t=26, 52, 78, 104 ms
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace dummyflv {

constexpr std::size_t kScriptDataSize = 245;
constexpr std::size_t kAudioDataSize = 105;
constexpr std::size_t kVideoDataSize = 3588;
constexpr std::size_t kTagHeaderSize = 11;
constexpr std::size_t kFileHeaderSize = 9;
constexpr std::size_t kSize = kFileHeaderSize + 4 +
                              (kTagHeaderSize + kScriptDataSize + 4) +
                              5 * (kTagHeaderSize + kAudioDataSize + 4) +
                              (kTagHeaderSize + kVideoDataSize + 4);
static_assert(kSize == 4476);

constexpr int kWidth = 420;
constexpr int kHeight = 314;
constexpr std::uint32_t kAudioFrameMs = 26;  // 576 samples at 22050 Hz

class Writer {
 public:
  constexpr void Byte(unsigned v) { bytes_[pos_++] = static_cast<unsigned char>(v & 0xFF); }
  constexpr void U16(unsigned v) {
    Byte(v >> 8);
    Byte(v);
  }
  constexpr void U24(std::uint32_t v) {
    Byte(v >> 16);
    Byte(v >> 8);
    Byte(v);
  }
  constexpr void U32(std::uint32_t v) {
    Byte(v >> 24);
    U24(v);
  }
  constexpr void Text(std::string_view s) {
    for (char c : s) Byte(static_cast<unsigned char>(c));
  }
  constexpr void Zeros(std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) Byte(0);
  }
  constexpr std::size_t Position() const { return pos_; }
  constexpr const std::array<unsigned char, kSize>& Bytes() const { return bytes_; }

  // AMF0 values of the script tag.
  constexpr void AmfName(std::string_view s) {
    U16(static_cast<unsigned>(s.size()));
    Text(s);
  }
  constexpr void AmfNumber(std::string_view name, double v) {
    AmfName(name);
    Byte(0x00);
    const auto bits = std::bit_cast<std::uint64_t>(v);
    U32(static_cast<std::uint32_t>(bits >> 32));
    U32(static_cast<std::uint32_t>(bits));
  }
  constexpr void AmfBool(std::string_view name, bool v) {
    AmfName(name);
    Byte(0x01);
    Byte(v ? 1 : 0);
  }
  constexpr void AmfString(std::string_view name, std::string_view v) {
    AmfName(name);
    Byte(0x02);
    AmfName(v);
  }

  // Starts a tag and returns where its data begins.
  constexpr std::size_t TagHeader(unsigned type, std::size_t dataSize, std::uint32_t timeMs) {
    Byte(type);
    U24(static_cast<std::uint32_t>(dataSize));
    U24(timeMs & 0xFFFFFF);
    Byte(timeMs >> 24);
    U24(0);  // stream id
    return pos_;
  }
  // Closes a tag: pads its data to the declared size and writes the
  // previous-tag size.
  constexpr void TagEnd(std::size_t dataStart, std::size_t dataSize) {
    while (pos_ < dataStart + dataSize) Byte(0);
    U32(static_cast<std::uint32_t>(kTagHeaderSize + dataSize));
  }

 private:
  std::array<unsigned char, kSize> bytes_{};
  std::size_t pos_ = 0;
};

// Most-significant-bit-first writer for the video picture.
class BitWriter {
 public:
  constexpr explicit BitWriter(Writer& out) : out_(out) {}
  constexpr void Bits(std::uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) {
      acc_ = static_cast<unsigned>((acc_ << 1) | ((value >> i) & 1u));
      if (++filled_ == 8) {
        out_.Byte(acc_);
        acc_ = 0;
        filled_ = 0;
      }
    }
  }
  constexpr void Align() {
    while (filled_ != 0) Bits(0, 1);
  }

 private:
  Writer& out_;
  unsigned acc_ = 0;
  int filled_ = 0;
};

constexpr void WriteMetaData(Writer& w) {
  const std::size_t start = w.TagHeader(18, kScriptDataSize, 0);
  w.Byte(0x02);
  w.AmfName("onMetaData");
  w.Byte(0x08);
  w.U32(10);
  w.AmfNumber("duration", 0.07);
  w.AmfNumber("width", kWidth);
  w.AmfNumber("height", kHeight);
  w.AmfNumber("videodatarate", 360);
  w.AmfBool("canSeekToEnd", true);
  w.AmfNumber("videocodecid", 2);
  w.AmfNumber("audiodatarate", 32);
  w.AmfNumber("audiocodecid", 2);
  w.AmfNumber("framerate", 30);
  w.AmfString("creationdate", "Tue Sep 26 10:24:07 2006 ");
  w.U24(0x000009);  // end of the array: empty name and the object-end marker
  if (w.Position() != start + kScriptDataSize) throw "metadata size";  // fails the build
  w.TagEnd(start, kScriptDataSize);
}

// One silent MPEG-2 layer III frame: 32 kbit/s at 22050 Hz is 104 bytes;
// all-zero side information decodes as silence.
constexpr void WriteAudioTag(Writer& w, std::uint32_t timeMs) {
  const std::size_t start = w.TagHeader(8, kAudioDataSize, timeMs);
  w.Byte(0x2A);  // MP3, 22 kHz, 16-bit samples, mono
  w.Byte(0xFF);  // frame sync
  w.Byte(0xF3);  // sync, MPEG-2, layer III, no CRC
  w.Byte(0x40);  // 32 kbit/s, 22050 Hz, no padding
  w.Byte(0xC4);  // mono, original
  w.TagEnd(start, kAudioDataSize);
}

// A Sorenson H.263 intra picture in which every macroblock carries only its
// DC terms: black luminance, neutral chrominance.
constexpr void WriteVideoTag(Writer& w) {
  const std::size_t start = w.TagHeader(9, kVideoDataSize, 0);
  w.Byte(0x12);  // key frame, Sorenson H.263
  BitWriter bits(w);
  bits.Bits(1, 17);        // picture start code
  bits.Bits(0, 5);         // version
  bits.Bits(0, 8);         // temporal reference
  bits.Bits(1, 3);         // size given in 16-bit fields
  bits.Bits(kWidth, 16);
  bits.Bits(kHeight, 16);
  bits.Bits(0, 2);         // intra picture
  bits.Bits(0, 1);         // no deblocking
  bits.Bits(8, 5);         // quantiser
  bits.Bits(0, 1);         // no extra information
  const int macroblocks = ((kWidth + 15) / 16) * ((kHeight + 15) / 16);
  for (int i = 0; i < macroblocks; ++i) {
    bits.Bits(1, 1);       // MCBPC: intra, no chrominance coefficients
    bits.Bits(0x3, 4);     // CBPY: no luminance coefficients
    for (int block = 0; block < 4; ++block) bits.Bits(0x10, 8);  // INTRADC, level 16
    for (int block = 0; block < 2; ++block) bits.Bits(0xFF, 8);  // INTRADC, level 128
  }
  bits.Align();
  if (w.Position() != start + kVideoDataSize) throw "picture size";  // fails the build
  w.TagEnd(start, kVideoDataSize);
}

constexpr std::array<unsigned char, kSize> Build() {
  Writer w;
  w.Text("FLV");
  w.Byte(1);     // version
  w.Byte(5);     // audio and video present
  w.U32(kFileHeaderSize);
  w.U32(0);      // previous-tag size of the (absent) tag before the first
  WriteMetaData(w);
  WriteAudioTag(w, 0);
  WriteVideoTag(w);
  for (std::uint32_t i = 1; i <= 4; ++i) WriteAudioTag(w, i * kAudioFrameMs);
  if (w.Position() != kSize) throw "file size";  // fails the build
  return w.Bytes();
}

}  // namespace dummyflv
