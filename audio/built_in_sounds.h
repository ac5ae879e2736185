// The standard sound set compiled into the library, so that a host without sound files still
// rings: the fallback of the WAV reader when a file cannot be opened.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace deskline::audio {

// The WAV bytes of the sound the tone tables name by `path` ("media/Tone_1.wav",
// "media/DTMF/Tone_DTMF#.wav", "media/Area1/Progress_80.wav"; backslashes count as slashes),
// or an empty span when the set has no such sound.
std::span<const std::uint8_t> FindBuiltInSound(std::u16string_view path);

// The paths of every sound in the set, in the order of the set's definition.
std::vector<std::string> BuiltInSoundNames();

}  // namespace deskline::audio
