#include "voice/g711.h"

#include <array>

namespace deskline {
namespace {

// The tables are built at compile time from the per-sample rules below, so that the frame
// loops are one lookup a sample.

constexpr std::uint8_t UlawEncodeRule(std::int32_t x) {
  constexpr std::int32_t kSegmentEnd[8] = {63, 127, 255, 511, 1023, 2047, 4095, 8191};
  std::int32_t v = x >> 2;  // 14-bit form
  std::int32_t mask = 0xFF;
  if (v < 0) {
    v = -v;
    mask = 0x7F;
  }
  if (v > 8159) v = 8159;
  v += 33;
  int segment = 0;
  while (segment < 8 && v > kSegmentEnd[segment]) ++segment;
  if (segment >= 8) return static_cast<std::uint8_t>(0x7F ^ mask);
  const std::int32_t code = (segment << 4) | ((v >> (segment + 1)) & 0x0F);
  return static_cast<std::uint8_t>(code ^ mask);
}

constexpr std::uint8_t AlawEncodeRule(std::int32_t x) {
  constexpr std::int32_t kSegmentEnd[8] = {31, 63, 127, 255, 511, 1023, 2047, 4095};
  std::int32_t v = x >> 4;  // one bit more than the 13-bit form: 6 dB down
  std::int32_t mask = 0xD5;
  if (v < 0) {
    mask = 0x55;
    v = -v - 1;
  }
  int segment = 0;
  while (segment < 8 && v > kSegmentEnd[segment]) ++segment;
  if (segment >= 8) return static_cast<std::uint8_t>(0x7F ^ mask);
  const std::int32_t mantissa = (segment < 2 ? (v >> 1) : (v >> segment)) & 0x0F;
  return static_cast<std::uint8_t>(((segment << 4) | mantissa) ^ mask);
}

constexpr std::int16_t UlawDecodeRule(std::uint8_t code) {
  const std::int32_t u = static_cast<std::uint8_t>(~code);
  const std::int32_t t = (((u & 0x0F) << 3) + 132) << ((u & 0x70) >> 4);
  return static_cast<std::int16_t>((u & 0x80) ? 132 - t : t - 132);
}

constexpr std::int16_t AlawDecodeRule(std::uint8_t code, int shift) {
  const std::int32_t a = code ^ 0x55;
  std::int32_t t = (a & 0x0F) << shift;
  const int segment = (a & 0x70) >> 4;
  if (segment == 0) {
    t += 8;
  } else if (segment == 1) {
    t += 0x108;
  } else {
    t = (t + 0x108) << (segment - 1);
  }
  return static_cast<std::int16_t>((a & 0x80) ? t : -t);
}

// Encoders are indexed by the sample's bits above those that the law discards.
constexpr auto kUlawEncode = [] {
  std::array<std::uint8_t, 1 << 14> table{};
  for (std::int32_t i = 0; i < (1 << 14); ++i) {
    const std::int32_t sample = static_cast<std::int16_t>(static_cast<std::uint16_t>(i << 2));
    table[static_cast<std::size_t>(i)] = UlawEncodeRule(sample);
  }
  return table;
}();

constexpr auto kAlawEncode = [] {
  std::array<std::uint8_t, 1 << 12> table{};
  for (std::int32_t i = 0; i < (1 << 12); ++i) {
    const std::int32_t sample = static_cast<std::int16_t>(static_cast<std::uint16_t>(i << 4));
    table[static_cast<std::size_t>(i)] = AlawEncodeRule(sample);
  }
  return table;
}();

constexpr auto kUlawDecode = [] {
  std::array<std::int16_t, 256> table{};
  for (int i = 0; i < 256; ++i) table[i] = UlawDecodeRule(static_cast<std::uint8_t>(i));
  return table;
}();

constexpr auto kAlawDecodeShift3 = [] {
  std::array<std::int16_t, 256> table{};
  for (int i = 0; i < 256; ++i) table[i] = AlawDecodeRule(static_cast<std::uint8_t>(i), 3);
  return table;
}();

constexpr auto kAlawDecodeShift4 = [] {
  std::array<std::int16_t, 256> table{};
  for (int i = 0; i < 256; ++i) table[i] = AlawDecodeRule(static_cast<std::uint8_t>(i), 4);
  return table;
}();

inline std::size_t UlawIndex(std::int16_t sample) {
  return static_cast<std::uint16_t>(sample) >> 2;
}
inline std::size_t AlawIndex(std::int16_t sample) {
  return static_cast<std::uint16_t>(sample) >> 4;
}
inline const std::array<std::int16_t, 256>& AlawDecodeTable(std::int32_t shift) {
  return shift == 4 ? kAlawDecodeShift4 : kAlawDecodeShift3;
}

}  // namespace

std::uint8_t CG711::LinearToUlaw(std::int16_t sample) { return kUlawEncode[UlawIndex(sample)]; }
std::uint8_t CG711::LinearToAlaw(std::int16_t sample) { return kAlawEncode[AlawIndex(sample)]; }
std::int16_t CG711::UlawToLinear(std::uint8_t code) { return kUlawDecode[code]; }
std::int16_t CG711::AlawToLinear(std::uint8_t code, std::int32_t shift) {
  return AlawDecodeTable(shift)[code];
}

void CG711::EncodeUlaw(std::span<std::uint8_t, kFrameSamples> out,
                       std::span<const std::int16_t, kFrameSamples> in) const {
  for (std::size_t i = 0; i < kFrameSamples; ++i) out[i] = kUlawEncode[UlawIndex(in[i])];
}

void CG711::EncodeAlaw(std::span<std::uint8_t, kFrameSamples> out,
                       std::span<const std::int16_t, kFrameSamples> in) const {
  for (std::size_t i = 0; i < kFrameSamples; ++i) out[i] = kAlawEncode[AlawIndex(in[i])];
}

void CG711::DecodeUlaw(std::span<const std::uint8_t, kFrameSamples> in,
                       std::span<std::int16_t, kFrameSamples> out) const {
  for (std::size_t i = 0; i < kFrameSamples; ++i) out[i] = kUlawDecode[in[i]];
}

void CG711::DecodeAlaw(std::span<const std::uint8_t, kFrameSamples> in,
                       std::span<std::int16_t, kFrameSamples> out, std::int32_t shift) const {
  const auto& table = AlawDecodeTable(shift);
  for (std::size_t i = 0; i < kFrameSamples; ++i) out[i] = table[in[i]];
}

}  // namespace deskline
