// The tone player turns the small numbers the PBX and the host think in (a tone id, a melody
// code, a volume step, a key number, a service code) into a sound file and a call to the
// Audio module. It plays nothing itself: it reaches the Audio module only through the table
// of five functions it is given, so a test can record those calls.
//
// Thread rules: the host calls every operation from its own threads. One leaf lock covers
// each whole operation, including the calls into the audio table, which must not call back
// into the player.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "core/module.h"
#include "tone/tone_tables.h"

namespace deskline {

// The Audio module's playback operations, in this order (the library fills it with its
// exported Audio functions). A null slot is skipped.
struct ToneAudioInterface {
  std::int32_t (*play_file)(const char16_t* path, std::int32_t loop_count);
  std::int32_t (*stop_play_file)(void);
  void (*set_ring_volume)(std::int32_t level, float gain);
  std::int32_t (*play_tone)(const char16_t* path, std::int32_t loop_count);
  std::int32_t (*stop_play_tone)(void);
};

// A file that a melody slot offers: for one tone id, or for the ring tones when toneId is -1
// (a user's file).
struct CustomToneEntry {
  std::int32_t toneId;
  std::u16string path;
};
using CustomToneList = std::vector<CustomToneEntry>;

class CTonePlayer final : public CModule {
 public:
  CTonePlayer();
  ~CTonePlayer() override;

  // Forgets the last tone, melody and volume, chooses the first area's service tones, puts
  // back the custom tones of a fresh start (slot 6's three default entries) and empties the
  // audio table. The modes stay, and so do the custom masks, which belong to the process.
  // 0, or 1 when memory runs out. Host thread, before SetAudioInterface.
  int Start() override;
  // Forgets the audio table and every custom tone. 0. Host thread.
  int Shutdown() override;

  // Copies the five operations. 1 for a null table, else 0. Called after Start.
  int SetAudioInterface(const ToneAudioInterface* table);

  // Plays a tone; -1 in any argument repeats the last value. Always 0.
  std::int32_t PlayTone(std::int32_t tone_id, std::int32_t volume_step, std::int32_t melody_code);
  // Plays the key's tone on the tone output: 0 when the key has a sound in the current
  // modes, 1 when it has none. Keys above 30 have no row in the table and give 1.
  std::int32_t PlayDTMF(std::uint32_t key, std::uint8_t silent);

  std::int32_t GetKeyPadMode();
  std::int32_t SetKeyPadMode(std::uint32_t mode);  // 0
  std::int32_t GetProgramMode();
  std::int32_t SetProgramMode(std::uint32_t mode);  // 0

  // Stores the user's file of a melody slot (0 to 29) for the ring tones, replacing an earlier
  // one, and sets the slot's bit in the masks of tones 1, 2, 3 and 17. 0, also for a slot
  // outside the range (nothing is stored then); -1 for a null path or one of 256 characters
  // or more, with nothing stored: a cut path would name another file.
  std::int32_t SaveCustomTone(std::int32_t slot, const char16_t* path);
  // Removes the user's file of a slot and clears bit (slot mod 32) in the masks of tones 1,
  // 2, 3 and 17, also when the slot held no file. 0.
  std::int32_t RemoveCustomTone(std::int32_t slot);
  // Copies the user's file of a slot, terminated, into *buffer, which holds 256 char16_t; an
  // empty slot leaves it unchanged. 0, or -1 when buffer or *buffer is null.
  std::int32_t GetCustomTone(std::int32_t slot, char16_t** buffer);

  // Chooses the directory of the service tones by area. 0.
  std::int32_t SetServiceTonePath(std::int32_t area);
  // Plays the service tone of a code on the tone output, or stops it (255, unknown codes).
  // 0.
  std::int32_t PlayServiceTone(std::int32_t code);

 private:
  // The user's file of a slot: the first entry with toneId -1; null when there is none.
  CustomToneEntry* FindUserToneLocked(std::int32_t slot);
  // The file a melody slot offers for a tone id, or null to keep the row's own file.
  const std::u16string* CustomLookupLocked(std::int32_t tone_id, std::int32_t slot);

  std::mutex lock_;
  bool started_ = false;
  std::uint32_t programMode_ = 0;
  std::uint32_t keyPadMode_ = 0;
  ToneAudioInterface audio_{};
  std::uint8_t isVolAdjustment_ = 1;  // does the tone played last take a volume?
  std::int32_t repeat_ = 0;
  std::array<char16_t, kTonePathChars> path_{};  // file of the current tone
  std::int32_t toneId_ = -1;
  std::int32_t melodySlot_ = -1;
  std::int32_t volume_ = -1;
  std::uint8_t servicePlaying_ = 0;
  std::uint8_t skipNextProgress_ = 0;
  std::array<CustomToneList, kMelodySlotCount> customTones_;
  const char16_t* serviceDirectory_;
  std::array<char16_t, kTonePathChars> servicePath_{};  // "directory/file" of the last one
};

}  // namespace deskline
