// A synthetic talker for the microphone: voiced syllables with a moving pitch and vowel
// formants, separated by short pauses, so that a recording of it is recognisably speech-like
// (energy in syllables, gaps between words) and no sound file is needed.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "tools/phone/voice_pacer.h"

namespace deskline::phone {

class SpeechSource final : public FrameSource {
 public:
  // `peak` is the loudest a syllable gets; the same seed gives the same talk.
  explicit SpeechSource(std::int16_t peak = 8000, std::uint32_t seed = 1);
  void Next(std::span<std::int16_t, kFrameSamples> frame) override;

 private:
  struct Resonator {
    double b0 = 0, a1 = 0, a2 = 0;
    double y1 = 0, y2 = 0;
    void Tune(double centre_hz, double bandwidth_hz);
    double Step(double x);
  };

  void StartSyllable();
  double NextRandom();  // uniform in [0, 1)
  double Sample();

  std::int16_t peak_;
  std::uint32_t state_;
  std::array<Resonator, 3> formants_;
  double pitch_hz_ = 120;
  double pitch_step_ = 0;     // Hz per sample: the contour of a syllable
  double glottal_phase_ = 0;  // cycles, in [0, 1)
  std::uint32_t syllable_left_ = 0;  // samples of voice still to come
  std::uint32_t syllable_length_ = 1;
  std::uint32_t pause_left_ = 0;     // samples of silence still to come
  double gain_ = 1;                  // scales the filtered pulses to `peak_`
};

}  // namespace deskline::phone
