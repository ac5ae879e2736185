#include "tone/tone_tables.h"

namespace deskline {
namespace {

constexpr std::uint32_t kRingMask = 0x40;  // slot 6 holds the default ring melodies

// Row 0 is a placeholder so that the tone id indexes the table.
ToneRow g_tone_table[kLastToneId + 1] = {
    {nullptr, 0, 0, 0, 0},
    {u"media/Tone_1.wav", -1, 1, kRingMask, 1},
    {u"media/Tone_2.wav", -1, 1, kRingMask, 1},
    {u"media/Tone_3.wav", -1, 1, kRingMask, 1},
    {u"media/Tone_4.wav", -1, 1, 0, 1},
    {u"media/Tone_5.wav", -1, 0, 0, 0},
    {u"media/Tone_6.wav", -1, 0, 0, 0},
    {u"media/Tone_7.wav", 0, 0, 0, 0},
    {u"media/Tone_8.wav", 0, 0, 0, 0},
    {u"media/Tone_9.wav", -1, 1, 0, 1},
    {u"media/Tone_A.wav", -1, 1, 0, 1},
    {u"media/Tone_B.wav", -1, 1, 0, 1},
    {u"media/Tone_C.wav", 0, 0, 0, 0},
    {u"media/Tone_D.wav", 0, 0, 0, 0},
    {u"media/Tone_E.wav", 0, 0, 0, 0},
    {u"media/Tone_F.wav", 0, 0, 0, 0},
    {u"media/Tone_F.wav", 0, 0, 0, 0},
    {u"media/Tone_1.wav", -1, 1, kRingMask, 1},
};

constexpr std::uint32_t kInitialMasks[kLastToneId + 1] = {
    0, kRingMask, kRingMask, kRingMask, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, kRingMask};

constexpr const char16_t* kKey = u"media/Tone_Key.wav";
constexpr const char16_t* kRec = u"media/Tone_Rec.wav";

// By key number; columns 3 and 4 have no sound for any key.
constexpr const char16_t* kKeyToneTable[kKeyToneRows][kKeyToneColumns] = {
    {u"media/DTMF/Tone_DTMF0.wav", u"media/DTMF/Tone_DTMF0.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF1.wav", u"media/DTMF/Tone_DTMF1.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF2.wav", u"media/DTMF/Tone_DTMF2.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF3.wav", u"media/DTMF/Tone_DTMF3.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF4.wav", u"media/DTMF/Tone_DTMF4.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF5.wav", u"media/DTMF/Tone_DTMF5.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF6.wav", u"media/DTMF/Tone_DTMF6.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF7.wav", u"media/DTMF/Tone_DTMF7.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF8.wav", u"media/DTMF/Tone_DTMF8.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF9.wav", u"media/DTMF/Tone_DTMF9.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMFx.wav", u"media/DTMF/Tone_DTMFx.wav", nullptr, nullptr, nullptr},
    {u"media/DTMF/Tone_DTMF#.wav", u"media/DTMF/Tone_DTMF#.wav", nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},  // 12
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},
    {kKey, kKey, nullptr, nullptr, nullptr},  // 22
    {nullptr, kKey, nullptr, nullptr, nullptr},  // 23
    {nullptr, kKey, nullptr, nullptr, nullptr},
    {nullptr, kKey, nullptr, nullptr, nullptr},
    {nullptr, kKey, nullptr, nullptr, nullptr},
    {nullptr, kKey, nullptr, nullptr, nullptr},  // 27
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    {kRec, nullptr, kRec, nullptr, nullptr},  // 30: the recording tone
};

struct AreaRow {
  std::int32_t area;
  const char16_t* directory;
};

// Areas 5, 6 and 7 do not exist.
constexpr AreaRow kAreaTable[] = {
    {1, u"media/Area1"}, {2, u"media/Area2"}, {3, u"media/Area3"},
    {4, u"media/Area4"}, {8, u"media/Area8"},
};

// The file of a code is "Progress_" and the code as two hexadecimal capitals. Codes 128 to
// 134 play once, the rest until stopped.
constexpr ServiceToneRow kServiceToneTable[] = {
    {128, u"Progress_80.wav", 0},  {129, u"Progress_81.wav", 0},  {130, u"Progress_82.wav", 0},
    {131, u"Progress_83.wav", 0},  {132, u"Progress_84.wav", 0},  {133, u"Progress_85.wav", 0},
    {134, u"Progress_86.wav", 0},
    {144, u"Progress_90.wav", -1}, {145, u"Progress_91.wav", -1}, {146, u"Progress_92.wav", -1},
    {147, u"Progress_93.wav", -1}, {148, u"Progress_94.wav", -1}, {149, u"Progress_95.wav", -1},
    {150, u"Progress_96.wav", -1}, {151, u"Progress_97.wav", -1},
    {160, u"Progress_A0.wav", -1}, {161, u"Progress_A1.wav", -1}, {162, u"Progress_A2.wav", -1},
    {163, u"Progress_A3.wav", -1}, {164, u"Progress_A4.wav", -1}, {165, u"Progress_A5.wav", -1},
    {166, u"Progress_A6.wav", -1}, {167, u"Progress_A7.wav", -1}, {168, u"Progress_A8.wav", -1},
    {169, u"Progress_A9.wav", -1}, {170, u"Progress_AA.wav", -1}, {171, u"Progress_AB.wav", -1},
    {172, u"Progress_AC.wav", -1}, {173, u"Progress_AD.wav", -1}, {174, u"Progress_AE.wav", -1},
};

}  // namespace

ToneRow* FindToneRow(std::int32_t tone_id) {
  if (tone_id < kFirstToneId || tone_id > kLastToneId) return nullptr;
  return &g_tone_table[tone_id];
}

void ResetCustomMasks() {
  for (std::int32_t id = kFirstToneId; id <= kLastToneId; ++id) {
    g_tone_table[id].customMask.store(kInitialMasks[id], std::memory_order_relaxed);
  }
}

std::int32_t MelodySlotOf(std::int32_t melody_code) {
  for (std::int32_t slot = 0; slot < kMelodySlotCount; ++slot) {
    if (kMelodyCodeTable[static_cast<std::size_t>(slot)] == melody_code) return slot;
  }
  return kUnknownMelodySlot;
}

std::int32_t RingLevelOf(std::int32_t volume_step) {
  switch (volume_step) {
    case 2:
      return 1;
    case 3:
      return 3;
    case 4:
      return 5;
    default:  // step 1 and anything unknown
      return 0;
  }
}

int KeyToneColumn(std::uint32_t keypad_mode, std::uint32_t program_mode, std::uint8_t silent) {
  switch (keypad_mode) {
    case 0:
      if (program_mode == 1) return 1;
      return silent ? 4 : 0;
    case 1:
      if (program_mode == 1) return 3;
      return silent ? 4 : 2;
    default:
      return silent ? 4 : 2;
  }
}

const char16_t* KeyTonePath(std::uint32_t key, int column) {
  if (key >= kKeyToneRows || column < 0 || column >= kKeyToneColumns) return nullptr;
  return kKeyToneTable[key][column];
}

const char16_t* AreaDirectory(std::int32_t area) {
  for (const AreaRow& row : kAreaTable) {
    if (row.area == area) return row.directory;
  }
  return kAreaTable[0].directory;
}

const ServiceToneRow* FindServiceTone(std::int32_t code) {
  for (const ServiceToneRow& row : kServiceToneTable) {
    if (row.code == code) return &row;
  }
  return nullptr;
}

}  // namespace deskline
