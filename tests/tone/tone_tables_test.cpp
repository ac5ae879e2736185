#include "tone/tone_tables.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

#include "fake_audio.h"

namespace deskline {
namespace {

using testing::ToUtf8;

std::string PathOrNone(const char16_t* path) { return path ? ToUtf8(path) : "none"; }

TEST(MelodyCodeTable, EveryCodeHasItsSlotAndOthersAreUnknown) {
  struct Case {
    std::int32_t code;
    std::int32_t slot;
  };
  const Case cases[] = {
      {0, 0},     {1, 1},     {2, 2},     {3, 3},     {4, 4},     {5, 5},     {6, 6},
      {7, 7},     {67, 8},    {68, 9},    {69, 10},   {74, 11},   {64, 12},   {65, 13},
      {66, 14},   {70, 15},   {71, 16},   {72, 17},   {73, 18},   {96, 19},   {97, 20},
      {98, 21},   {100, 22},  {101, 23},  {102, 24},  {103, 25},  {128, 26},  {129, 27},
      {130, 28},  {131, 29},
      // Gaps around and between the groups.
      {-1, -2},   {-2, -2},   {8, -2},    {63, -2},   {75, -2},   {95, -2},   {99, -2},
      {104, -2},  {127, -2},  {132, -2},  {255, -2},  {INT_MIN, -2}, {INT_MAX, -2},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(MelodySlotOf(c.code), c.slot) << "code " << c.code;
  }
}

TEST(RingLevel, StepsMapWithGapsAndUnknownStepsAreLevelZero) {
  const std::pair<std::int32_t, std::int32_t> cases[] = {
      {1, 0}, {2, 1}, {3, 3}, {4, 5}, {0, 0}, {-1, 0}, {5, 0}, {INT_MAX, 0}, {INT_MIN, 0}};
  for (const auto& [step, level] : cases) {
    EXPECT_EQ(RingLevelOf(step), level) << "step " << step;
  }
}

TEST(KeyToneTable, EveryCellOfEveryKey) {
  const std::string key_file = "media/Tone_Key.wav";
  const std::string rec_file = "media/Tone_Rec.wav";
  for (std::uint32_t key = 0; key <= 32; ++key) {
    std::string expected[kKeyToneColumns] = {"none", "none", "none", "none", "none"};
    if (key <= 9) {
      expected[0] = expected[1] = "media/DTMF/Tone_DTMF" + std::to_string(key) + ".wav";
    } else if (key == 10) {
      expected[0] = expected[1] = "media/DTMF/Tone_DTMFx.wav";
    } else if (key == 11) {
      expected[0] = expected[1] = "media/DTMF/Tone_DTMF#.wav";
    } else if (key <= 22) {
      expected[0] = expected[1] = key_file;
    } else if (key <= 27) {
      expected[1] = key_file;
    } else if (key == 30) {
      expected[0] = expected[2] = rec_file;
    }
    for (int column = 0; column < kKeyToneColumns; ++column) {
      EXPECT_EQ(PathOrNone(KeyTonePath(key, column)), expected[column])
          << "key " << key << " column " << column;
    }
    EXPECT_EQ(KeyTonePath(key, -1), nullptr);
    EXPECT_EQ(KeyTonePath(key, kKeyToneColumns), nullptr);
  }
  EXPECT_EQ(KeyTonePath(UINT32_MAX, 0), nullptr);
}

TEST(ServiceToneTable, FileAndRepeatFollowFromTheCode) {
  int rows = 0;
  for (std::int32_t code = -2; code <= 300; ++code) {
    const bool once = code >= 128 && code <= 134;
    const bool looping = (code >= 144 && code <= 151) || (code >= 160 && code <= 174);
    const ServiceToneRow* row = FindServiceTone(code);
    if (!once && !looping) {
      EXPECT_EQ(row, nullptr) << "code " << code;
      continue;
    }
    ASSERT_NE(row, nullptr) << "code " << code;
    ++rows;
    char name[32];
    std::snprintf(name, sizeof(name), "Progress_%02X.wav", static_cast<unsigned>(code));
    EXPECT_EQ(row->code, code);
    EXPECT_EQ(ToUtf8(row->file), name);
    EXPECT_EQ(row->repeat, once ? 0 : -1) << "code " << code;
  }
  EXPECT_EQ(rows, 30);
}

}  // namespace
}  // namespace deskline
