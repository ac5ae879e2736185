#include "tone/tone_player.h"

#include <algorithm>
#include <new>

#include "support/tracer.h"

namespace deskline {
namespace {

// The progress codes that a once-played code 128 swallows once.
constexpr std::int32_t kSkippableProgress[] = {144, 145, 146, 147, 150, 151};
constexpr std::int32_t kStopServiceCode = 255;
constexpr std::int32_t kSkipSetterCode = 128;

// Bit (slot mod 32) of a custom mask. The count is taken in two's complement, so a negative
// slot (the unknown melody, -2) names bit 30 instead of shifting by a negative count.
std::uint32_t MaskBit(std::int32_t slot) { return 1u << (static_cast<std::uint32_t>(slot) & 31u); }

bool InSlotRange(std::int32_t slot) { return slot >= 0 && slot < kMelodySlotCount; }

// Length of a host's text, looked at no further than `limit` characters: a text that is not
// terminated by then has length `limit`, and nothing beyond it is read.
std::size_t BoundedLength(const char16_t* text, std::size_t limit) {
  std::size_t length = 0;
  while (length < limit && text[length] != u'\0') ++length;
  return length;
}

// Appends `text` at `at`, never past the last element, which stays for the terminator.
std::size_t AppendBounded(std::array<char16_t, kTonePathChars>& block, std::size_t at,
                          const char16_t* text) {
  const std::size_t length = BoundedLength(text, kTonePathChars - 1 - at);
  std::copy(text, text + length, block.begin() + static_cast<std::ptrdiff_t>(at));
  block[at + length] = u'\0';
  return at + length;
}

}  // namespace

CTonePlayer::CTonePlayer() : serviceDirectory_(AreaDirectory(1)) {
  DL_TRACE(TRACE_STATUS, "[TONE] Module created");
}

CTonePlayer::~CTonePlayer() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[TONE] Module destroyed");
}

int CTonePlayer::Start() {
  std::lock_guard lock(lock_);
  DL_TRACE(TRACE_STATUS, "[TONE] Module starting");
  // The table is filled by SetAudioInterface; until then nothing sounds.
  audio_ = {};
  isVolAdjustment_ = 1;
  volume_ = -1;
  toneId_ = -1;
  melodySlot_ = -1;
  serviceDirectory_ = AreaDirectory(1);
  for (CustomToneList& list : customTones_) CustomToneList().swap(list);
  try {
    CustomToneList& defaults = customTones_[kDefaultCustomSlot];
    for (const DefaultCustomTone& entry : kDefaultCustomTones) {
      defaults.push_back({entry.toneId, entry.path});
    }
  } catch (const std::bad_alloc&) {
    for (CustomToneList& list : customTones_) CustomToneList().swap(list);
    DL_TRACE(TRACE_CRITICAL, "[TONE :: CRITICAL ERROR] Object creation failed - Custom tone list");
    return 1;
  }
  started_ = true;
  return 0;
}

int CTonePlayer::Shutdown() {
  std::lock_guard lock(lock_);
  if (!started_) return 0;
  started_ = false;
  audio_ = {};
  for (CustomToneList& list : customTones_) CustomToneList().swap(list);
  DL_TRACE(TRACE_STATUS, "[TONE] Module shutdown");
  return 0;
}

int CTonePlayer::SetAudioInterface(const ToneAudioInterface* table) {
  if (table == nullptr) return 1;
  std::lock_guard lock(lock_);
  audio_ = *table;
  return 0;
}

std::int32_t CTonePlayer::PlayTone(std::int32_t tone_id, std::int32_t volume_step,
                                   std::int32_t melody_code) {
  std::lock_guard lock(lock_);
  // A named volume is taken only if the tone played last takes one; otherwise the whole call
  // is dropped, tone id included. -1 keeps the stored step, which is how a step reaches a
  // tone that is already sounding.
  if (volume_step != -1) {
    if (isVolAdjustment_ == 0) return 0;
    volume_ = volume_step;
  }
  if (tone_id != -1) toneId_ = tone_id;
  if (melody_code != -1) melodySlot_ = MelodySlotOf(melody_code);

  const ToneRow* row = FindToneRow(toneId_);
  if (row == nullptr) {
    // Tone 0 is the host's way to stop a ring; any other unknown id stops it as well.
    if (audio_.stop_play_file) audio_.stop_play_file();
    return 0;
  }
  DL_TRACE(TRACE_ALL, "iToneID : %d  iMelody : %d   mIsVolAdjustment : %d  iVolume : %d", toneId_,
           melodySlot_, isVolAdjustment_, volume_);

  isVolAdjustment_ = row->volumeAdjustable;
  repeat_ = row->repeat;
  const char16_t* file = row->file;
  if (row->customMask.load(std::memory_order_relaxed) & MaskBit(melodySlot_)) {
    if (const std::u16string* custom = CustomLookupLocked(toneId_, melodySlot_)) {
      file = custom->c_str();
    }
  }
  AppendBounded(path_, 0, file);

  if (row->usesRingPath) {
    // A gain of -1 leaves the Audio module's gain as it is; only the level changes.
    if (audio_.set_ring_volume) audio_.set_ring_volume(RingLevelOf(volume_), -1.0f);
    if (audio_.play_file) audio_.play_file(path_.data(), repeat_);
  } else if (audio_.play_tone) {
    audio_.play_tone(path_.data(), repeat_);
  }
  return 0;
}

std::int32_t CTonePlayer::PlayDTMF(std::uint32_t key, std::uint8_t silent) {
  std::lock_guard lock(lock_);
  // Keys above 30 have no row; they get the "no sound" answer rather than a read past the
  // table.
  const char16_t* file = KeyTonePath(key, KeyToneColumn(keyPadMode_, programMode_, silent));
  if (file == nullptr) return 1;
  // The result says whether the key has a sound; an audio table not yet given changes that
  // no more than a missing sound file would.
  if (audio_.play_tone) audio_.play_tone(file, 0);
  return 0;
}

std::int32_t CTonePlayer::GetKeyPadMode() {
  std::lock_guard lock(lock_);
  return static_cast<std::int32_t>(keyPadMode_);
}

std::int32_t CTonePlayer::SetKeyPadMode(std::uint32_t mode) {
  std::lock_guard lock(lock_);
  keyPadMode_ = mode;
  return 0;
}

std::int32_t CTonePlayer::GetProgramMode() {
  std::lock_guard lock(lock_);
  return static_cast<std::int32_t>(programMode_);
}

std::int32_t CTonePlayer::SetProgramMode(std::uint32_t mode) {
  std::lock_guard lock(lock_);
  programMode_ = mode;
  return 0;
}

CustomToneEntry* CTonePlayer::FindUserToneLocked(std::int32_t slot) {
  if (!InSlotRange(slot)) return nullptr;
  CustomToneList& list = customTones_[static_cast<std::size_t>(slot)];
  auto it = std::find_if(list.begin(), list.end(),
                         [](const CustomToneEntry& entry) { return entry.toneId == -1; });
  return it == list.end() ? nullptr : &*it;
}

const std::u16string* CTonePlayer::CustomLookupLocked(std::int32_t tone_id, std::int32_t slot) {
  if (!InSlotRange(slot)) return nullptr;
  // First match wins, so in slot 6 the default entries of tones 1 to 3 stand before a user's
  // file, while tone 17 reaches the user's file.
  for (const CustomToneEntry& entry : customTones_[static_cast<std::size_t>(slot)]) {
    if (entry.toneId == tone_id) return &entry.path;
    if (entry.toneId == -1 &&
        std::find(kCustomizableTones.begin(), kCustomizableTones.end(), tone_id) !=
            kCustomizableTones.end()) {
      return &entry.path;
    }
  }
  return nullptr;
}

std::int32_t CTonePlayer::SaveCustomTone(std::int32_t slot, const char16_t* path) {
  if (path == nullptr) {
    DL_TRACE(TRACE_WARNING, "[TONE :: WARNING] Custom tone without a path, slot %d", slot);
    return -1;
  }
  // A stored path has a block of 256 characters with its terminator. A longer one is refused
  // whole rather than cut, so that no other file plays than the one the user chose.
  const std::size_t length = BoundedLength(path, kTonePathChars);
  if (length >= kTonePathChars) {
    DL_TRACE(TRACE_WARNING, "[TONE :: WARNING] Custom tone path too long, slot %d", slot);
    return -1;
  }
  std::lock_guard lock(lock_);
  try {
    if (CustomToneEntry* entry = FindUserToneLocked(slot)) {
      entry->path.assign(path, length);
    } else {
      // Out of range: nothing to store, and by design no trace and no error.
      if (!InSlotRange(slot)) return 0;
      customTones_[static_cast<std::size_t>(slot)].push_back({-1, std::u16string(path, length)});
    }
  } catch (const std::bad_alloc&) {
    DL_TRACE(TRACE_ERROR, "[TONE :: ERROR] Custom tone not stored, slot %d: out of memory", slot);
    return -1;
  }
  for (std::int32_t id : kCustomizableTones) {
    FindToneRow(id)->customMask.fetch_or(MaskBit(slot), std::memory_order_relaxed);
  }
  return 0;
}

std::int32_t CTonePlayer::RemoveCustomTone(std::int32_t slot) {
  std::lock_guard lock(lock_);
  if (CustomToneEntry* entry = FindUserToneLocked(slot)) {
    CustomToneList& list = customTones_[static_cast<std::size_t>(slot)];
    list.erase(list.begin() + (entry - list.data()));
  }
  // The bit goes whether or not there was a file; in slot 6 that also hides the default
  // entries, which stay in the list until something is saved there again.
  for (std::int32_t id : kCustomizableTones) {
    FindToneRow(id)->customMask.fetch_and(~MaskBit(slot), std::memory_order_relaxed);
  }
  return 0;
}

std::int32_t CTonePlayer::GetCustomTone(std::int32_t slot, char16_t** buffer) {
  if (buffer == nullptr || *buffer == nullptr) return -1;
  std::lock_guard lock(lock_);
  const CustomToneEntry* entry = FindUserToneLocked(slot);
  if (entry == nullptr) return 0;
  // Stored paths are shorter than 256, so path and terminator fit the caller's block.
  std::copy(entry->path.begin(), entry->path.end(), *buffer);
  (*buffer)[entry->path.size()] = u'\0';
  return 0;
}

std::int32_t CTonePlayer::SetServiceTonePath(std::int32_t area) {
  std::lock_guard lock(lock_);
  serviceDirectory_ = AreaDirectory(area);
  return 0;
}

std::int32_t CTonePlayer::PlayServiceTone(std::int32_t code) {
  std::lock_guard lock(lock_);
  if (code == kStopServiceCode) {
    if (servicePlaying_ == 1) {
      if (audio_.stop_play_tone) audio_.stop_play_tone();
      servicePlaying_ = 0;
      skipNextProgress_ = 0;
    }
    return 0;
  }
  // After code 128 the next request for one of these progress codes is swallowed once, and
  // whatever plays goes on.
  if (skipNextProgress_ == 1 && std::find(std::begin(kSkippableProgress),
                                          std::end(kSkippableProgress),
                                          code) != std::end(kSkippableProgress)) {
    skipNextProgress_ = 0;
    return 0;
  }
  const ServiceToneRow* row = FindServiceTone(code);
  if (row == nullptr) {
    // An unknown code stops the tone output; servicePlaying keeps its value.
    if (audio_.stop_play_tone) audio_.stop_play_tone();
    return 0;
  }
  std::size_t at = AppendBounded(servicePath_, 0, serviceDirectory_);
  at = AppendBounded(servicePath_, at, u"/");
  AppendBounded(servicePath_, at, row->file);
  if (audio_.play_tone) audio_.play_tone(servicePath_.data(), row->repeat);
  servicePlaying_ = 1;
  if (code == kSkipSetterCode) skipNextProgress_ = 1;
  return 0;
}

}  // namespace deskline
