// G.711 mu-law and A-law conversion of whole 20 ms voice frames.
//
// Table-driven in both directions. The A-law encoder drops 4 bits rather than the usual 3,
// so what goes out is 6 dB below the input and the top segment is never used; the decoder's
// mantissa weight is selectable (`shift` 4 is the standard expansion, 3 halves each step).
//
// Thread rules: stateless; any thread may call any operation at any time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace deskline {

class CG711 {
 public:
  static constexpr std::size_t kFrameSamples = 160;

  // 160 samples to 160 mu-law bytes.
  void EncodeUlaw(std::span<std::uint8_t, kFrameSamples> out,
                  std::span<const std::int16_t, kFrameSamples> in) const;
  // 160 samples to 160 A-law bytes (4-bit input shift).
  void EncodeAlaw(std::span<std::uint8_t, kFrameSamples> out,
                  std::span<const std::int16_t, kFrameSamples> in) const;
  // 160 mu-law bytes to 160 samples.
  void DecodeUlaw(std::span<const std::uint8_t, kFrameSamples> in,
                  std::span<std::int16_t, kFrameSamples> out) const;
  // 160 A-law bytes to 160 samples. `shift` is 3 or 4; any other value is taken as 3, the
  // start-up value of the session.
  void DecodeAlaw(std::span<const std::uint8_t, kFrameSamples> in,
                  std::span<std::int16_t, kFrameSamples> out, std::int32_t shift) const;

  // Single-sample forms, the same tables.
  static std::uint8_t LinearToUlaw(std::int16_t sample);
  static std::uint8_t LinearToAlaw(std::int16_t sample);
  static std::int16_t UlawToLinear(std::uint8_t code);
  static std::int16_t AlawToLinear(std::uint8_t code, std::int32_t shift);
};

}  // namespace deskline
