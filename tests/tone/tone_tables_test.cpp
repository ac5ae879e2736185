#include "tone/tone_tables.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

namespace deskline {
namespace {

// The tables' paths are ASCII.
std::string Text(const char16_t* path) {
  return path ? std::string(path, path + std::char_traits<char16_t>::length(path)) : "none";
}

TEST(ToneTables, MelodyCodesAndRingLevels) {
  const int codes[kMelodySlotCount] = {0,  1,  2,   3,   4,   5,   6,   7,   67,  68,
                                       69, 74, 64,  65,  66,  70,  71,  72,  73,  96,
                                       97, 98, 100, 101, 102, 103, 128, 129, 130, 131};
  for (int slot = 0; slot < kMelodySlotCount; ++slot) EXPECT_EQ(MelodySlotOf(codes[slot]), slot);
  for (int code : {-1, 8, 63, 75, 95, 99, 104, 127, 132, 255, INT_MIN, INT_MAX}) {
    EXPECT_EQ(MelodySlotOf(code), -2) << code;
  }
  const int levels[][2] = {{1, 0}, {2, 1}, {3, 3}, {4, 5}, {0, 0}, {-1, 0}, {5, 0}, {INT_MIN, 0}};
  for (const auto& [step, level] : levels) EXPECT_EQ(RingLevelOf(step), level) << step;
}

TEST(ToneTables, EveryCellOfTheKeyTable) {
  for (std::uint32_t key = 0; key <= 32; ++key) {
    std::string cells[kKeyToneColumns] = {"none", "none", "none", "none", "none"};
    if (key <= 11) {
      cells[0] = cells[1] = "media/DTMF/Tone_DTMF" + std::string(1, "0123456789x#"[key]) + ".wav";
    } else if (key <= 27) {
      cells[1] = "media/Tone_Key.wav";
      if (key <= 22) cells[0] = cells[1];
    } else if (key == 30) {
      cells[0] = cells[2] = "media/Tone_Rec.wav";
    }
    for (int column = -1; column <= kKeyToneColumns; ++column) {
      const bool inside = column >= 0 && column < kKeyToneColumns;
      EXPECT_EQ(Text(KeyTonePath(key, column)), inside ? cells[column] : "none")
          << "key " << key << " column " << column;
    }
  }
  EXPECT_EQ(KeyTonePath(UINT32_MAX, 0), nullptr);
}

TEST(ToneTables, ServiceToneOfEveryCode) {
  int found = 0;
  for (std::int32_t code = -2; code <= 300; ++code) {
    const bool once = code >= 128 && code <= 134;
    const bool looping = (code >= 144 && code <= 151) || (code >= 160 && code <= 174);
    const ServiceToneRow* row = FindServiceTone(code);
    ASSERT_EQ(row != nullptr, once || looping) << code;
    if (row == nullptr) continue;
    ++found;
    char name[32];
    std::snprintf(name, sizeof(name), "Progress_%02X.wav", static_cast<unsigned>(code));
    EXPECT_EQ(row->code, code);
    EXPECT_EQ(Text(row->file), name);
    EXPECT_EQ(row->repeat, once ? 0 : -1) << code;
  }
  EXPECT_EQ(found, 30);
}

}  // namespace
}  // namespace deskline
