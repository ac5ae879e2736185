#include "tools/rtppeer/peer_g711.h"

#include <algorithm>
#include <array>

namespace deskline::sim {
namespace {

// Segment end points of the compressed scales.
constexpr std::array<int, 8> kUlawSegEnd = {0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF};
constexpr std::array<int, 8> kAlawSegEnd = {0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
constexpr int kUlawBias = 0x84;  // 132 on the 16-bit scale, 33 on the 14-bit one
constexpr int kUlawClip = 8159;

int Segment(int value, const std::array<int, 8>& ends) {
  for (int i = 0; i < 8; ++i) {
    if (value <= ends[static_cast<std::size_t>(i)]) return i;
  }
  return 8;
}

// Decoding is a table built once from the expansion formulas: 256 entries per law.
struct DecodeTables {
  std::array<std::int16_t, 256> ulaw{};
  std::array<std::int16_t, 256> alaw{};
  DecodeTables() {
    for (int code = 0; code < 256; ++code) {
      const int u = ~code & 0xFF;
      const int t = (((u & 0x0F) << 3) + kUlawBias) << ((u & 0x70) >> 4);
      ulaw[static_cast<std::size_t>(code)] =
          static_cast<std::int16_t>((u & 0x80) ? (kUlawBias - t) : (t - kUlawBias));

      const int a = code ^ 0x55;
      int m = (a & 0x0F) << 4;
      const int seg = (a & 0x70) >> 4;
      if (seg == 0) {
        m += 8;
      } else {
        m = (m + 0x108) << (seg - 1);
      }
      alaw[static_cast<std::size_t>(code)] = static_cast<std::int16_t>((a & 0x80) ? m : -m);
    }
  }
};

const DecodeTables& Tables() {
  static const DecodeTables tables;
  return tables;
}

}  // namespace

std::uint8_t UlawEncode(std::int16_t sample) {
  int v = sample >> 2;  // 14-bit
  int mask = 0xFF;
  if (v < 0) {
    v = -v;
    mask = 0x7F;
  }
  v = std::min(v, kUlawClip) + (kUlawBias >> 2);
  const int seg = Segment(v, kUlawSegEnd);
  if (seg >= 8) return static_cast<std::uint8_t>(0x7F ^ mask);
  return static_cast<std::uint8_t>(((seg << 4) | ((v >> (seg + 1)) & 0x0F)) ^ mask);
}

std::int16_t UlawDecode(std::uint8_t code) { return Tables().ulaw[code]; }

std::uint8_t AlawEncode(std::int16_t sample) {
  int v = sample >> 3;  // 13-bit
  int mask = 0xD5;
  if (v < 0) {
    mask = 0x55;
    v = -v - 1;
  }
  const int seg = Segment(v, kAlawSegEnd);
  if (seg >= 8) return static_cast<std::uint8_t>(0x7F ^ mask);
  const int mantissa = (seg < 2) ? ((v >> 1) & 0x0F) : ((v >> seg) & 0x0F);
  return static_cast<std::uint8_t>(((seg << 4) | mantissa) ^ mask);
}

std::int16_t AlawDecode(std::uint8_t code) { return Tables().alaw[code]; }

std::size_t UlawEncode(std::span<const std::int16_t> in, std::span<std::uint8_t> out) {
  const std::size_t n = std::min(in.size(), out.size());
  for (std::size_t i = 0; i < n; ++i) out[i] = UlawEncode(in[i]);
  return n;
}
std::size_t UlawDecode(std::span<const std::uint8_t> in, std::span<std::int16_t> out) {
  const std::size_t n = std::min(in.size(), out.size());
  for (std::size_t i = 0; i < n; ++i) out[i] = UlawDecode(in[i]);
  return n;
}
std::size_t AlawEncode(std::span<const std::int16_t> in, std::span<std::uint8_t> out) {
  const std::size_t n = std::min(in.size(), out.size());
  for (std::size_t i = 0; i < n; ++i) out[i] = AlawEncode(in[i]);
  return n;
}
std::size_t AlawDecode(std::span<const std::uint8_t> in, std::span<std::int16_t> out) {
  const std::size_t n = std::min(in.size(), out.size());
  for (std::size_t i = 0; i < n; ++i) out[i] = AlawDecode(in[i]);
  return n;
}

}  // namespace deskline::sim
