#include "tools/phone/speech_source.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace deskline::phone {
namespace {

constexpr double kRateHz = 8000;

// First three formants of a few vowels (a, e, i, o, u), in Hz.
constexpr std::array<std::array<double, 3>, 5> kVowels = {{
    {730, 1090, 2440},
    {530, 1840, 2480},
    {270, 2290, 3010},
    {570, 840, 2410},
    {300, 870, 2240},
}};

}  // namespace

void SpeechSource::Resonator::Tune(double centre_hz, double bandwidth_hz) {
  const double r = std::exp(-std::numbers::pi * bandwidth_hz / kRateHz);
  a1 = 2 * r * std::cos(2 * std::numbers::pi * centre_hz / kRateHz);
  a2 = -r * r;
  b0 = 1 - r;  // keeps the resonators' gains in the same range
}

double SpeechSource::Resonator::Step(double x) {
  const double y = b0 * x + a1 * y1 + a2 * y2;
  y2 = y1;
  y1 = y;
  return y;
}

SpeechSource::SpeechSource(std::int16_t peak, std::uint32_t seed)
    : peak_(peak), state_(seed == 0 ? 1 : seed) {
  StartSyllable();
}

double SpeechSource::NextRandom() {
  // xorshift32: deterministic and good enough for prosody.
  state_ ^= state_ << 13;
  state_ ^= state_ >> 17;
  state_ ^= state_ << 5;
  return static_cast<double>(state_) / 4294967296.0;
}

void SpeechSource::StartSyllable() {
  const auto& vowel = kVowels[static_cast<std::size_t>(NextRandom() * kVowels.size()) % kVowels.size()];
  for (std::size_t i = 0; i < formants_.size(); ++i) formants_[i].Tune(vowel[i], 60 + 40 * i);
  // 120 to 300 ms of voice, its pitch gliding from 100-160 Hz by up to +-30 Hz.
  syllable_length_ = static_cast<std::uint32_t>((0.12 + 0.18 * NextRandom()) * kRateHz);
  syllable_left_ = syllable_length_;
  pitch_hz_ = 100 + 60 * NextRandom();
  pitch_step_ = (NextRandom() - 0.5) * 60 / syllable_length_;
  // A short gap after most syllables, a longer one between "words".
  pause_left_ = static_cast<std::uint32_t>((NextRandom() < 0.3 ? 0.25 : 0.04) * kRateHz);
  // The resonators' gain depends on the vowel: measure it on one pulse period.
  Resonator probe[3] = {formants_[0], formants_[1], formants_[2]};
  double loudest = 1e-9;
  for (int n = 0; n < 400; ++n) {
    const double pulse = n % 64 == 0 ? 1.0 : 0.0;
    double y = 0;
    for (Resonator& r : probe) y += r.Step(pulse);
    loudest = std::max(loudest, std::abs(y));
  }
  gain_ = 1.0 / loudest;
}

double SpeechSource::Sample() {
  if (syllable_left_ == 0) {
    if (pause_left_ > 0) {
      --pause_left_;
      for (Resonator& r : formants_) r.Step(0);
      return 0;
    }
    StartSyllable();
  }
  // Rise and fall of loudness across the syllable.
  const double t = 1.0 - static_cast<double>(syllable_left_) / syllable_length_;
  const double envelope = std::sin(std::numbers::pi * t);
  --syllable_left_;
  pitch_hz_ += pitch_step_;
  glottal_phase_ += pitch_hz_ / kRateHz;
  double pulse = 0;
  if (glottal_phase_ >= 1) {
    glottal_phase_ -= 1;
    pulse = 1;
  }
  pulse += 0.02 * (NextRandom() - 0.5);  // breath
  double y = 0;
  for (Resonator& r : formants_) y += r.Step(pulse);
  return envelope * y * gain_;
}

void SpeechSource::Next(std::span<std::int16_t, kFrameSamples> frame) {
  for (std::int16_t& sample : frame) {
    // The gain is measured on one pitch; other pitches may ring a little louder: cut there.
    const double value = std::clamp(Sample() * peak_, -double(peak_), double(peak_));
    sample = static_cast<std::int16_t>(std::lround(value));
  }
}

}  // namespace deskline::phone
