// The standard sound set: every file that the tone tables name, made from the definitions in
// sound_set.cpp, so that the set is reproducible and small.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace deskline::soundgen {

// Every sound of the set has this rate: 16-bit mono PCM.
inline constexpr int kRateHz = 8000;

struct Sound {
  std::string path;  // relative, with forward slashes: "media/Tone_1.wav"
  std::string what;  // one line for the listing: frequencies and cadence
  std::vector<std::int16_t> samples;
};

// The whole set, in the order of its definition.
std::vector<Sound> StandardSoundSet();

}  // namespace deskline::soundgen
