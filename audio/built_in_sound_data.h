// The embedded sound set, as the generated source lays it out: the WAV files back to back, a
// table of count + 1 offsets into them (sound i runs from offset i to offset i + 1), and the
// path of each. Only built_in_sounds.cpp reads it.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
__attribute__((visibility("hidden"))) extern const std::uint8_t deskline_built_in_sound_bytes[];
__attribute__((visibility("hidden"))) extern const std::uint32_t deskline_built_in_sound_offsets[];
}

namespace deskline::audio::built_in {

extern const char* const kSoundPaths[];
extern const std::size_t kSoundCount;

}  // namespace deskline::audio::built_in
