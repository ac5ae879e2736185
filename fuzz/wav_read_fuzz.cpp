// Feeds each input to the in-memory WAV reader, as the Audio module hands it a sound file's
// bytes. A refused input must leave the result alone; an accepted one must be whole 16-bit
// frames of the channel count it reports.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/wave/wav_file.h"

namespace {

using deskline::platform::kMaxWavDataBytes;
using deskline::platform::ReadWavMemory;
using deskline::platform::WavSound;

void Check(bool condition) {
  if (!condition) std::abort();
}

volatile unsigned g_sink = 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  WavSound sound;
  // A marker that a refusal must not touch.
  sound.format.samples_per_sec = 12345;
  sound.data.assign(3, 0xA5);
  if (!ReadWavMemory(std::span<const std::uint8_t>(data, size), &sound)) {
    Check(sound.format.samples_per_sec == 12345 && sound.data.size() == 3);
    return 0;
  }
  const auto& format = sound.format;
  Check(format.bits_per_sample == 16);
  Check(format.channels > 0);
  Check(format.block_align == 2u * format.channels);
  Check(!sound.data.empty());
  Check(sound.data.size() <= kMaxWavDataBytes);
  Check(sound.data.size() % format.block_align == 0);
  unsigned sum = 0;
  for (std::uint8_t byte : sound.data) sum += byte;
  g_sink = sum;
  return 0;
}
