// WAV files over libsndfile: the platform's stand-in for the classic mmio reader. Bounded:
// nothing is read past the bytes that are there, and no allocation is sized by a header field
// alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/wave/wave_device.h"

namespace deskline::platform {

// Sample data above this size is refused (about 3 minutes of 48 kHz stereo).
inline constexpr std::size_t kMaxWavDataBytes = 32 * 1024 * 1024;

// A sound ready for a device: its format and its samples, 16-bit little-endian PCM at the
// file's own rate and channel count.
struct WavSound {
  WaveFormat format;
  std::vector<std::uint8_t> data;
};

// Reads a WAV file (path in UTF-8), or WAV bytes in memory. 8-bit, 24-bit, 32-bit and float
// samples arrive converted to 16 bits; format.bits_per_sample is 16 afterwards. False, with
// *out untouched, for a file that is missing or unreadable, is not RIFF/WAVE, has no "fmt "
// or "data" chunk, declares more data than it holds (truncated), holds no sample, or exceeds
// kMaxWavDataBytes.
bool ReadWavFile(const std::string& path, WavSound* out);
bool ReadWavMemory(std::span<const std::uint8_t> bytes, WavSound* out);

// Writes 16-bit PCM as a WAV file (path in UTF-8). False on any failure.
bool WriteWavFile(const std::string& path, const WaveFormat& format,
                  std::span<const std::uint8_t> data);

}  // namespace deskline::platform
