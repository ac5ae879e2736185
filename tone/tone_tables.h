// The fixed tables of the tone player: which file a tone id, a key or a service code plays,
// how a melody code maps to its slot and a volume step to a ring level, and where each area
// keeps its service tones. Paths are relative UTF-16 texts; the files are not part of the
// library.
//
// Thread rules: everything here is read-only except the custom masks of the tone rows, which
// are atomic words shared by the whole process.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace deskline {

inline constexpr std::int32_t kFirstToneId = 1;
inline constexpr std::int32_t kLastToneId = 17;

// Melody slots run from 0 to 29; a code that is not in the table has this slot.
inline constexpr std::int32_t kMelodySlotCount = 30;
inline constexpr std::int32_t kUnknownMelodySlot = -2;

inline constexpr std::uint32_t kKeyToneRows = 31;
inline constexpr int kKeyToneColumns = 5;

// Every path the player forms or stores fits a block of this many char16_t, terminator
// included.
inline constexpr std::size_t kTonePathChars = 256;

// The tones whose custom mask follows what is saved in and removed from melody slots.
inline constexpr std::array<std::int32_t, 4> kCustomizableTones = {1, 2, 3, 17};

struct ToneRow {
  const char16_t* file;
  std::int32_t repeat;  // -1 plays until stopped, 0 plays once
  std::uint8_t volumeAdjustable;
  // Bit n set: melody slot n may replace the file. It belongs to the process, not to a
  // player, so it outlives a shutdown and a new start.
  std::atomic<std::uint32_t> customMask;
  std::uint8_t usesRingPath;  // 1: ring volume and the file output; 0: the tone output
};

// The row of a tone id from 1 to 17; null for any other id.
ToneRow* FindToneRow(std::int32_t tone_id);
// Puts every custom mask back to its value at process start. Tests use it to begin from a
// known state.
void ResetCustomMasks();

inline constexpr std::array<std::int32_t, kMelodySlotCount> kMelodyCodeTable = {
    0,   1,   2,   3,   4, 5, 6, 7,  // slots 0 to 7
    67,  68,  69,  74,               // 8 to 11
    64,  65,  66,                    // 12 to 14
    70,  71,  72,  73,               // 15 to 18
    96,  97,  98,                    // 19 to 21
    100, 101, 102, 103,              // 22 to 25
    128, 129, 130, 131};             // 26 to 29

// The slot of a melody code, or kUnknownMelodySlot.
std::int32_t MelodySlotOf(std::int32_t melody_code);

// Steps 1 to 4 give levels 0, 1, 3, 5; any other step gives 0.
std::int32_t RingLevelOf(std::int32_t volume_step);

// The column of the key tone table for the current modes and the silent flag.
int KeyToneColumn(std::uint32_t keypad_mode, std::uint32_t program_mode, std::uint8_t silent);
// The file of a key in a column; null when that cell has no sound or the key or column is
// outside the table.
const char16_t* KeyTonePath(std::uint32_t key, int column);

// The entries that a fresh start puts into melody slot 6: the default ring melodies of tones
// 1, 2 and 3 (hence bit 6 in the start masks of tones 1, 2, 3 and 17).
inline constexpr std::int32_t kDefaultCustomSlot = 6;
struct DefaultCustomTone {
  std::int32_t toneId;
  const char16_t* path;
};
inline constexpr std::array<DefaultCustomTone, 3> kDefaultCustomTones = {{
    {1, u"media/Tone_9.wav"},
    {2, u"media/Tone_A.wav"},
    {3, u"media/Tone_B.wav"},
}};

// The service tone directory of an area; areas without a directory give the first area's.
const char16_t* AreaDirectory(std::int32_t area);

struct ServiceToneRow {
  std::int32_t code;
  const char16_t* file;
  std::int32_t repeat;
};

// The row of a service code, or null when the code has none.
const ServiceToneRow* FindServiceTone(std::int32_t code);

}  // namespace deskline
