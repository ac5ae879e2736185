// Packet loss concealment for 20 ms frames of linear sound.
//
// Replays the last pitch period of the good sound for a lost frame, widening the replayed
// span for the second and third lost frames and fading 20 % a frame from the second on, so
// that a gap is silent after 120 ms. The first good frame after a loss is cross-faded from
// the replay. Both operations hand back the sound to be played, 75 samples behind what went
// in: that delay leaves room to smooth the last good samples when a loss begins.
//
// Thread rules: no lock. One thread, the one that pulls received sound, owns the object.
// The whole state is one fixed block; no operation allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace deskline {

class CPlc {
 public:
  static constexpr int kFrame = 160;
  static constexpr int kPitchMax = 300;
  static constexpr int kPitchMin = 200;
  static constexpr int kPitchDiff = kPitchMax - kPitchMin;       // 100
  static constexpr int kOverlapMax = kPitchMax / 4;              // 75
  static constexpr int kHistoryLength = 3 * kPitchMax + kOverlapMax;  // 975
  static constexpr int kDecimation = 2;
  static constexpr int kCorrLength = 160;
  static constexpr int kCorrBuffer = kCorrLength + kPitchMax;    // 460
  static constexpr float kCorrMinPower = 500.0f;
  static constexpr int kOverlapIncrement = 32;
  static constexpr float kAttenuation = 0.2f;
  static constexpr float kAttenuationPerSample = 0.00125f;
  // The output lags the input by this many samples.
  static constexpr int kDelay = kOverlapMax;

  CPlc();
  CPlc(const CPlc&) = delete;
  CPlc& operator=(const CPlc&) = delete;

  // A good frame: ends a loss with a cross-fade if one was running, stores the frame and
  // leaves in `samples` the 160 samples to play. Receiving host thread.
  void AddToHistory(std::span<std::int16_t, kFrame> samples);
  // A lost frame: leaves in `samples` the 160 samples to play in its place.
  // Receiving host thread.
  void Conceal(std::span<std::int16_t, kFrame> samples);

  // Lost frames in a row so far, the pitch period and the overlap of the current loss.
  int erasecnt() const { return erasecnt_; }
  int pitch() const { return pitch_; }
  int poverlap() const { return poverlap_; }

 private:
  void SaveSpeech(std::int16_t* samples);
  void GetSynthesis(std::int16_t* out, int count);
  void ScaleSpeech(std::int16_t* samples) const;
  void OverlapAddAtEnd(std::int16_t* samples, const std::int16_t* synthetic, int count) const;
  int FindPitch() const;

  int erasecnt_ = 0;
  int poverlap_ = 0;
  int poffset_ = 0;
  int pitch_ = 0;
  int pitchblen_ = 0;
  float* pitchbufend_;
  float* pitchbufstart_;
  float pitchbuf_[kHistoryLength] = {};
  float lastq_[kOverlapMax] = {};
  std::int16_t history_[kHistoryLength] = {};
};

}  // namespace deskline
