#include "voice/g711.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace deskline {
namespace {

// References from each law's sign / segment / mantissa definition, not the encoder's tables.
// Mu-law: 14-bit magnitude, bias 33, clipped at 8159; the code is complemented.
std::uint8_t RefUlawEncode(int x) {
  const int v = x >> 2;
  const unsigned biased = static_cast<unsigned>(std::min(v < 0 ? -v : v, 8159) + 33);
  const int segment = std::bit_width(biased) - 6;  // [32 * 2^k, 64 * 2^k)
  const int mantissa = static_cast<int>(biased >> (segment + 1)) - 16;
  const int code = (v < 0 ? 0x80 : 0) | (std::min(segment, 7) << 4) | (segment > 7 ? 15 : mantissa);
  return static_cast<std::uint8_t>(~code);
}

int RefUlawDecode(std::uint8_t code) {
  const int c = static_cast<std::uint8_t>(~code);
  const int magnitude = (((2 * (c & 15) + 33) << ((c >> 4) & 7)) - 33) * 4;  // step midpoint
  return (c & 0x80) ? -magnitude : magnitude;
}

// A-law with 12 bits of magnitude (6 dB down, top segment never reached), the negative side
// offset by one; even bits inverted on the wire.
std::uint8_t RefAlawEncode(int x) {
  const int v = x >> 4;
  const int magnitude = v >= 0 ? v : -v - 1;
  const int segment = magnitude < 32 ? 0 : std::bit_width(static_cast<unsigned>(magnitude)) - 5;
  const int mantissa = segment == 0 ? magnitude >> 1 : (magnitude >> segment) - 16;
  return static_cast<std::uint8_t>(((v >= 0 ? 0x80 : 0) | (segment << 4) | mantissa) ^ 0x55);
}

// Fixed segment bases; the mantissa step is 16 * 2^(k-1) at shift 4, half that at shift 3.
int RefAlawDecode(std::uint8_t code, int shift) {
  const int c = code ^ 0x55;
  const int segment = (c >> 4) & 7;
  const int base = segment == 0 ? 8 : 264 << (segment - 1);
  const int magnitude = base + (c & 15) * ((shift == 4 ? 16 : 8) << std::max(segment - 1, 0));
  return (c & 0x80) ? magnitude : -magnitude;
}

TEST(G711, KnownValues) {
  // u/a: encode `in`; U/A: decode code `in` (A-law with `shift`).
  struct Row {
    char op;
    int in, shift, out;
  };
  const Row rows[] = {
      {'u', 0, 0, 0xFF},     {'u', -32768, 0, 0x00}, {'u', 32767, 0, 0x80},  {'u', -1, 0, 0x7E},
      {'u', 3, 0, 0xFF},     {'u', 4, 0, 0xFE},      {'a', 0, 0, 0xD5},      {'a', -1, 0, 0x55},
      {'a', 15, 0, 0xD5},    {'a', -16, 0, 0x55},    {'a', 32767, 0, 0xBA},  {'a', -32768, 0, 0x3A},
      {'U', 0xFF, 0, 0},     {'U', 0x7F, 0, 0},      {'U', 0x00, 0, -32124}, {'U', 0x80, 0, 32124},
      {'A', 0xD5, 4, 8},     {'A', 0xD5, 3, 8},      {'A', 0x55, 4, -8},     {'A', 0xAA, 4, 32256},
      {'A', 0xAA, 3, 24576}, {'A', 0x2A, 4, -32256},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.op << " " << row.in << " shift " << row.shift);
    const auto sample = static_cast<std::int16_t>(row.in);
    const auto code = static_cast<std::uint8_t>(row.in);
    const int out = row.op == 'u'   ? CG711::LinearToUlaw(sample)
                    : row.op == 'a' ? CG711::LinearToAlaw(sample)
                    : row.op == 'U' ? CG711::UlawToLinear(code)
                                    : CG711::AlawToLinear(code, row.shift);
    EXPECT_EQ(out, row.out);
  }
}

TEST(G711, EverySampleAndCodeMatchesTheReference) {
  for (int x = -32768; x <= 32767; ++x) {
    ASSERT_EQ(CG711::LinearToUlaw(static_cast<std::int16_t>(x)), RefUlawEncode(x)) << x;
    ASSERT_EQ(CG711::LinearToAlaw(static_cast<std::int16_t>(x)), RefAlawEncode(x)) << x;
  }
  for (int code = 0; code < 256; ++code) {
    const auto c = static_cast<std::uint8_t>(code);
    ASSERT_EQ(CG711::UlawToLinear(c), RefUlawDecode(c)) << code;
    ASSERT_EQ(CG711::AlawToLinear(c, 4), RefAlawDecode(c, 4)) << code;
    ASSERT_EQ(CG711::AlawToLinear(c, 3), RefAlawDecode(c, 3)) << code;
  }
}

TEST(G711, FramesConvertSampleBySample) {
  CG711 g711;
  std::array<std::int16_t, 160> pcm{}, out{};
  for (std::size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<std::int16_t>(i * 409 - 32768);
  std::array<std::uint8_t, 160> ulaw{}, alaw{};
  g711.EncodeUlaw(ulaw, pcm);
  g711.EncodeAlaw(alaw, pcm);
  g711.DecodeUlaw(ulaw, out);
  for (std::size_t i = 0; i < pcm.size(); ++i) {
    ASSERT_EQ(ulaw[i], CG711::LinearToUlaw(pcm[i])) << i;
    ASSERT_EQ(alaw[i], CG711::LinearToAlaw(pcm[i])) << i;
    ASSERT_EQ(out[i], CG711::UlawToLinear(ulaw[i])) << i;
  }
  for (int shift : {3, 4, 7}) {  // anything but 4 is the start-up shift 3
    g711.DecodeAlaw(alaw, out, shift);
    for (std::size_t i = 0; i < pcm.size(); ++i) {
      ASSERT_EQ(out[i], CG711::AlawToLinear(alaw[i], shift == 4 ? 4 : 3)) << shift << " " << i;
    }
  }
}

}  // namespace
}  // namespace deskline
