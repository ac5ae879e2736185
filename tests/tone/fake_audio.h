// A stand-in for the Audio module's five playback exports: every call is recorded as one
// readable line, with the path in UTF-8, e.g. "play_file(media/Tone_1.wav, -1)",
// "set_ring_volume(1, -1)", "stop_play_tone()".
#pragma once

#include <string>
#include <vector>

#include "tone/tone_player.h"

namespace deskline::testing {

class FakeAudio {
 public:
  // The table to hand to CTonePlayer::SetAudioInterface.
  static ToneAudioInterface Table();
  // Forgets what was recorded.
  static void Reset();
  // What was recorded since the last Take or Reset, oldest first.
  static std::vector<std::string> Take();
};

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string ToUtf8(const char16_t* text);

}  // namespace deskline::testing
