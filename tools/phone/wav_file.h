// Sound files for the phone's microphone and recording: any file libsndfile reads, brought to
// the voice frame's format (8000 Hz, mono, 16-bit), and a writer of that format.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace deskline::phone {

inline constexpr int kVoiceRateHz = 8000;
// A microphone file is held whole in memory; longer ones are refused, not cut.
inline constexpr double kMaxSoundSeconds = 600;

// Reads `path`, mixes its channels to one and resamples to 8000 Hz. False with `error` set
// for a missing, unreadable, empty or too long file.
bool ReadSoundAs8kMono(const std::string& path, std::vector<std::int16_t>* samples,
                       std::string* error);

// Simple resampling of one channel: averaging over each output sample's span when going down
// (a crude low-pass), linear interpolation when going up. Samples are in [-1, 1].
std::vector<std::int16_t> Resample(std::span<const float> mono, int from_rate_hz, int to_rate_hz);

// Writes 8000 Hz mono 16-bit WAV. Thread rules: one thread at a time.
class WavWriter {
 public:
  WavWriter() = default;
  ~WavWriter();
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  // False with `error` set when the file cannot be created.
  bool Open(const std::string& path, std::string* error);
  // False when the file is not open or the write failed.
  bool Write(std::span<const std::int16_t> samples);
  // Finishes the header; safe to call twice.
  void Close();
  std::int64_t samples_written() const { return samples_written_; }

 private:
  void* file_ = nullptr;  // SNDFILE*
  std::int64_t samples_written_ = 0;
};

}  // namespace deskline::phone
