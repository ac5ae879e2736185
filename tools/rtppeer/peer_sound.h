// Sound for the peer to send and to keep: tones, WAV files read through libsndfile and turned
// into 8 kHz mono, and WAV files written from what was received.
//
// Levels are dBFS on the sine scale: a full-scale sine is 0 dBFS, so a tone made at -10 dBFS
// measures -10 with RmsDbfs (peer_analysis.h).
//
// Thread rules: pure functions, and a ToneGenerator belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace deskline::sim {

inline constexpr int kPeerSampleRate = 8000;

// A continuous sine: each call goes on with the phase where the last one ended.
class ToneGenerator {
 public:
  ToneGenerator(double frequency_hz, double level_dbfs, int sample_rate = kPeerSampleRate);
  void Fill(std::span<std::int16_t> out);

 private:
  double step_;
  double amplitude_;
  double phase_ = 0.0;
};

std::vector<std::int16_t> MakeTone(double frequency_hz, double level_dbfs, std::size_t samples,
                                   int sample_rate = kPeerSampleRate);

// Linear-interpolation resampling of mono sound; the result has round(in * to / from) samples.
std::vector<std::int16_t> Resample(std::span<const std::int16_t> in, int from_rate, int to_rate);

struct WavReadResult {
  std::vector<std::int16_t> samples;  // 8 kHz mono, channels averaged
  std::string error;                  // empty on success
  bool ok() const { return error.empty(); }
};

// Reads any file libsndfile knows (WAV of any sample format, rate and channel count).
WavReadResult ReadWavAs8kMono(const std::string& path);

// Writes 16-bit PCM WAV; with several channels the samples are interleaved. Returns an empty
// text on success, else why it failed.
std::string WriteWav(const std::string& path, std::span<const std::int16_t> samples,
                     int sample_rate = kPeerSampleRate, int channels = 1);

}  // namespace deskline::sim
