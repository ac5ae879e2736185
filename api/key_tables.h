// The key vocabulary: the host's 16-bit key codes, the key texts the PBX expects on the wire,
// and the dial characters of make_call. Filled once when the library is attached; read-only
// afterwards, so any host thread reads them without a lock.
#pragma once

#include <cstdint>
#include <optional>

namespace deskline::api {

inline constexpr std::uint32_t kPauseKey = 0x0b08;

// Fills both maps (clearing them first). Runs at library attach.
void FillKeyTables();
// The key's wire text ("0735", "line(0004)", "spkout"), or null for a code that is no key.
const char* LookupKeyText(std::uint32_t key);
// The key code of a dial character: digits, '*', '#', 'P' and 'W' (both the pause key).
std::optional<std::uint32_t> LookupDialChar(char c);
std::size_t KeyCodeCount();
std::size_t DialCharCount();

}  // namespace deskline::api
