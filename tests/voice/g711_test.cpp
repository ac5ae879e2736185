#include "voice/g711.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace deskline {
namespace {

// ---- Reference conversions, from the law's sign / segment / mantissa definitions ---------
// They are written from the quantiser's definition (segment k spans a power-of-two range of
// the biased or plain magnitude, 16 equal steps inside), not from the encoder's tables.

// Mu-law works on a 14-bit magnitude with a bias of 33; the code is the complement of
// sign (1 = negative), segment and mantissa.
std::uint8_t RefUlawEncode(int x) {
  const int v = x >> 2;  // floor(x / 4)
  const bool negative = v < 0;
  const int magnitude = std::min(negative ? -v : v, 8159);
  const unsigned biased = static_cast<unsigned>(magnitude + 33);  // 33 .. 8192
  int segment = std::bit_width(biased) - 6;                       // [32·2^k, 64·2^k)
  int mantissa = static_cast<int>(biased >> (segment + 1)) - 16;
  if (segment > 7) {  // beyond the last segment: the largest code
    segment = 7;
    mantissa = 15;
  }
  const int code = (negative ? 0x80 : 0) | (segment << 4) | mantissa;
  return static_cast<std::uint8_t>(~code);
}

int RefUlawDecode(std::uint8_t code) {
  const int c = static_cast<std::uint8_t>(~code);
  const int segment = (c >> 4) & 7;
  const int mantissa = c & 15;
  const int magnitude = (((2 * mantissa + 33) << segment) - 33) * 4;  // midpoint of the step
  return (c & 0x80) ? -magnitude : magnitude;
}

// A-law here takes 12 bits of magnitude (4 dropped, one more than the 13-bit form), with
// the negative side offset by one; even bits are inverted on the wire.
std::uint8_t RefAlawEncode(int x) {
  const int v = x >> 4;
  const bool positive = v >= 0;
  const int magnitude = positive ? v : -v - 1;
  int segment = 0;
  int mantissa = magnitude >> 1;
  if (magnitude >= 32) {
    segment = std::bit_width(static_cast<unsigned>(magnitude)) - 5;  // [16·2^k, 32·2^k)
    mantissa = (magnitude >> segment) - 16;
  }
  const int code = (positive ? 0x80 : 0) | (segment << 4) | mantissa;
  return static_cast<std::uint8_t>(code ^ 0x55);
}

// Segment bases are fixed; the mantissa step is 16·2^(k-1) at shift 4 (the standard
// expansion, x8 to 16 bits) and half of that at shift 3.
int RefAlawDecode(std::uint8_t code, int shift) {
  const int c = code ^ 0x55;
  const int segment = (c >> 4) & 7;
  const int mantissa = c & 15;
  const int base = segment == 0 ? 8 : 264 << (segment - 1);
  const int step = (shift == 4 ? 16 : 8) << std::max(segment - 1, 0);
  const int magnitude = base + mantissa * step;
  return (c & 0x80) ? magnitude : -magnitude;
}

// ---- Edge values -------------------------------------------------------------------------

struct EncodeRow {
  const char* law;
  int sample;
  int code;
};

TEST(G711, EncoderEdgeValues) {
  const EncodeRow rows[] = {
      {"u", 0, 0xFF},      {"u", -32768, 0x00}, {"u", 32767, 0x80},  {"u", -1, 0x7E},
      {"u", 3, 0xFF},      {"u", 4, 0xFE},      {"a", 0, 0xD5},      {"a", -1, 0x55},
      {"a", 15, 0xD5},     {"a", -16, 0x55},    {"a", 32767, 0xBA},  {"a", -32768, 0x3A},
  };
  for (const EncodeRow& row : rows) {
    SCOPED_TRACE(testing::Message() << row.law << "-law of " << row.sample);
    const auto sample = static_cast<std::int16_t>(row.sample);
    const int code = row.law[0] == 'u' ? CG711::LinearToUlaw(sample) : CG711::LinearToAlaw(sample);
    EXPECT_EQ(code, row.code);
  }
}

struct DecodeRow {
  const char* law;
  int code;
  int shift;
  int sample;
};

TEST(G711, DecoderEdgeValues) {
  const DecodeRow rows[] = {
      {"u", 0xFF, 0, 0},       {"u", 0x7F, 0, 0},     {"u", 0x00, 0, -32124},
      {"u", 0x80, 0, 32124},   {"a", 0xD5, 4, 8},     {"a", 0xD5, 3, 8},
      {"a", 0x55, 4, -8},      {"a", 0xAA, 4, 32256}, {"a", 0xAA, 3, 24576},
      {"a", 0x2A, 4, -32256},
  };
  for (const DecodeRow& row : rows) {
    SCOPED_TRACE(testing::Message() << row.law << "-law code " << row.code << " shift "
                                    << row.shift);
    const auto code = static_cast<std::uint8_t>(row.code);
    const int sample = row.law[0] == 'u' ? CG711::UlawToLinear(code)
                                         : CG711::AlawToLinear(code, row.shift);
    EXPECT_EQ(sample, row.sample);
  }
}

// ---- Whole domains -------------------------------------------------------------------------

TEST(G711, AllCodesDecodeAsTheReference) {
  for (int code = 0; code < 256; ++code) {
    SCOPED_TRACE(code);
    const auto c = static_cast<std::uint8_t>(code);
    EXPECT_EQ(CG711::UlawToLinear(c), RefUlawDecode(c));
    EXPECT_EQ(CG711::AlawToLinear(c, 4), RefAlawDecode(c, 4));
    EXPECT_EQ(CG711::AlawToLinear(c, 3), RefAlawDecode(c, 3));
  }
}

TEST(G711, AllSamplesEncodeAsTheReference) {
  for (int x = -32768; x <= 32767; ++x) {
    const auto sample = static_cast<std::int16_t>(x);
    ASSERT_EQ(CG711::LinearToUlaw(sample), RefUlawEncode(x)) << x;
    ASSERT_EQ(CG711::LinearToAlaw(sample), RefAlawEncode(x)) << x;
  }
}

TEST(G711, ALawEncodeIsSixDecibelsBelowTheStandardExpansion) {
  // The encoder drops one bit more than the standard 13-bit form, so a level decoded with
  // the standard expansion comes back one segment lower with the same mantissa.
  for (int code = 0; code < 256; ++code) {
    const int c = code ^ 0x55;
    const int segment = (c >> 4) & 7;
    if (segment < 2) continue;
    SCOPED_TRACE(code);
    const std::int16_t level = CG711::AlawToLinear(static_cast<std::uint8_t>(code), 4);
    const int expected = ((c & 0x80) | ((segment - 1) << 4) | (c & 15)) ^ 0x55;
    EXPECT_EQ(CG711::LinearToAlaw(level), expected);
  }
  // The top segment is never reached.
  for (int x = -32768; x <= 32767; ++x) {
    const int c = CG711::LinearToAlaw(static_cast<std::int16_t>(x)) ^ 0x55;
    ASSERT_LT((c >> 4) & 7, 7) << x;
  }
}

TEST(G711, FramesConvertSampleBySample) {
  CG711 g711;
  std::array<std::int16_t, 160> pcm{};
  for (std::size_t i = 0; i < pcm.size(); ++i) {
    pcm[i] = static_cast<std::int16_t>(static_cast<int>(i) * 409 - 32768);
  }
  std::array<std::uint8_t, 160> ulaw{};
  std::array<std::uint8_t, 160> alaw{};
  g711.EncodeUlaw(ulaw, pcm);
  g711.EncodeAlaw(alaw, pcm);
  std::array<std::int16_t, 160> from_ulaw{};
  std::array<std::int16_t, 160> from_alaw3{};
  std::array<std::int16_t, 160> from_alaw4{};
  std::array<std::int16_t, 160> from_alaw_other{};
  g711.DecodeUlaw(ulaw, from_ulaw);
  g711.DecodeAlaw(alaw, from_alaw3, 3);
  g711.DecodeAlaw(alaw, from_alaw4, 4);
  g711.DecodeAlaw(alaw, from_alaw_other, 7);  // anything but 4 is the start-up shift 3
  for (std::size_t i = 0; i < pcm.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(ulaw[i], RefUlawEncode(pcm[i]));
    EXPECT_EQ(alaw[i], RefAlawEncode(pcm[i]));
    EXPECT_EQ(from_ulaw[i], RefUlawDecode(ulaw[i]));
    EXPECT_EQ(from_alaw3[i], RefAlawDecode(alaw[i], 3));
    EXPECT_EQ(from_alaw4[i], RefAlawDecode(alaw[i], 4));
    EXPECT_EQ(from_alaw_other[i], from_alaw3[i]);
  }
}

}  // namespace
}  // namespace deskline
