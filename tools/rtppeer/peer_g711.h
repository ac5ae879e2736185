// G.711 as the Recommendation defines it: mu-law on 14-bit and A-law on 13-bit linear sound,
// scaled to 16 bits. The peer keeps its own, so that a fault in the terminal's codec shows up
// as a wrong level or a wrong code instead of being mirrored.
//
// Thread rules: pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace deskline::sim {

std::uint8_t UlawEncode(std::int16_t sample);
std::int16_t UlawDecode(std::uint8_t code);
std::uint8_t AlawEncode(std::int16_t sample);
std::int16_t AlawDecode(std::uint8_t code);

// Whole buffers: `out` must be as long as `in`; the shorter of the two bounds the work.
// Return the number of values written.
std::size_t UlawEncode(std::span<const std::int16_t> in, std::span<std::uint8_t> out);
std::size_t UlawDecode(std::span<const std::uint8_t> in, std::span<std::int16_t> out);
std::size_t AlawEncode(std::span<const std::int16_t> in, std::span<std::uint8_t> out);
std::size_t AlawDecode(std::span<const std::uint8_t> in, std::span<std::int16_t> out);

}  // namespace deskline::sim
