#include "voice/plc.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace deskline {
namespace {

float Clip(float value) {
  if (value > 32767.0f) return 32767.0f;
  if (value < -32768.0f) return -32768.0f;
  return value;
}

// Float to 16 bits truncates towards 0; the values are within range already.
std::int16_t ToSample(float value) { return static_cast<std::int16_t>(Clip(value)); }

// Cross-fade from `left` to `right` over `count` samples.
void OverlapAdd(const float* left, const float* right, float* out, int count) {
  const float step = 1.0f / static_cast<float>(count);
  float left_weight = 1.0f - step;
  float right_weight = step;
  for (int i = 0; i < count; ++i) {
    out[i] = Clip(left_weight * left[i] + right_weight * right[i]);
    left_weight -= step;
    right_weight += step;
  }
}

void OverlapAdd(const std::int16_t* left, const std::int16_t* right, std::int16_t* out,
                int count) {
  const float step = 1.0f / static_cast<float>(count);
  float left_weight = 1.0f - step;
  float right_weight = step;
  for (int i = 0; i < count; ++i) {
    out[i] = ToSample(left_weight * static_cast<float>(left[i]) +
                      right_weight * static_cast<float>(right[i]));
    left_weight -= step;
    right_weight += step;
  }
}

}  // namespace

CPlc::CPlc() : pitchbufend_(pitchbuf_ + kHistoryLength), pitchbufstart_(pitchbufend_) {}

void CPlc::AddToHistory(std::span<std::int16_t, kFrame> samples) {
  if (erasecnt_ != 0) {
    // The longer the loss, the longer the fade back into real sound.
    std::int16_t synthetic[kFrame];
    const int count = std::min(poverlap_ + (erasecnt_ - 1) * kOverlapIncrement, kFrame);
    GetSynthesis(synthetic, count);
    OverlapAddAtEnd(samples.data(), synthetic, count);
    erasecnt_ = 0;
  }
  SaveSpeech(samples.data());
}

void CPlc::Conceal(std::span<std::int16_t, kFrame> samples) {
  std::int16_t* out = samples.data();
  if (erasecnt_ == 0) {
    for (int i = 0; i < kHistoryLength; ++i) pitchbuf_[i] = static_cast<float>(history_[i]);
    pitch_ = FindPitch();
    poverlap_ = pitch_ / 4;
    std::memcpy(lastq_, pitchbufend_ - poverlap_, sizeof(float) * static_cast<std::size_t>(poverlap_));
    poffset_ = 0;
    pitchblen_ = pitch_;
    pitchbufstart_ = pitchbufend_ - pitchblen_;
    // Smooth the joint from the end of the replayed period back to its beginning.
    OverlapAdd(lastq_, pitchbufstart_ - poverlap_, pitchbufend_ - poverlap_, poverlap_);
    // The last good samples have not been played yet (see the delay); they take the smoothing.
    for (int i = 0; i < poverlap_; ++i) {
      history_[kHistoryLength - poverlap_ + i] = ToSample(pitchbufend_[-poverlap_ + i]);
    }
    GetSynthesis(out, kFrame);
  } else if (erasecnt_ == 1 || erasecnt_ == 2) {
    // Widen the replay by one period, so that a longer loss does not buzz on one period.
    std::int16_t joint[kOverlapMax];
    const int saved_offset = poffset_;
    GetSynthesis(joint, poverlap_);
    poffset_ = saved_offset;
    while (poffset_ > pitch_) poffset_ -= pitch_;
    pitchblen_ += pitch_;
    pitchbufstart_ = pitchbufend_ - pitchblen_;
    OverlapAdd(lastq_, pitchbufstart_ - poverlap_, pitchbufend_ - poverlap_, poverlap_);
    GetSynthesis(out, kFrame);
    OverlapAdd(joint, out, out, poverlap_);
    ScaleSpeech(out);
  } else if (erasecnt_ > 5) {
    std::fill(out, out + kFrame, std::int16_t{0});
  } else {
    GetSynthesis(out, kFrame);
    ScaleSpeech(out);
  }
  ++erasecnt_;
  SaveSpeech(out);
}

void CPlc::SaveSpeech(std::int16_t* samples) {
  std::memmove(history_, history_ + kFrame, sizeof(std::int16_t) * (kHistoryLength - kFrame));
  std::memcpy(history_ + kHistoryLength - kFrame, samples, sizeof(std::int16_t) * kFrame);
  std::memcpy(samples, history_ + kHistoryLength - kFrame - kOverlapMax,
              sizeof(std::int16_t) * kFrame);
}

void CPlc::GetSynthesis(std::int16_t* out, int count) {
  while (count > 0) {
    if (poffset_ >= pitchblen_) poffset_ = 0;
    int chunk = std::min(pitchblen_ - poffset_, count);
    if (chunk <= 0) {
      // No period has been found yet: nothing to replay.
      std::fill(out, out + count, std::int16_t{0});
      return;
    }
    const float* from = pitchbufstart_ + poffset_;
    for (int i = 0; i < chunk; ++i) out[i] = ToSample(from[i]);
    poffset_ += chunk;
    if (poffset_ == pitchblen_) poffset_ = 0;
    out += chunk;
    count -= chunk;
  }
}

void CPlc::ScaleSpeech(std::int16_t* samples) const {
  float gain = 1.0f - static_cast<float>(erasecnt_ - 1) * kAttenuation;
  for (int i = 0; i < kFrame; ++i) {
    samples[i] = static_cast<std::int16_t>(static_cast<float>(samples[i]) * gain);
    gain -= kAttenuationPerSample;
  }
}

void CPlc::OverlapAddAtEnd(std::int16_t* samples, const std::int16_t* synthetic,
                           int count) const {
  float gain = 1.0f - static_cast<float>(erasecnt_ - 1) * kAttenuation;
  if (gain < 0.0f) gain = 0.0f;
  const float step = 1.0f / static_cast<float>(count);
  const float synthetic_step = step * gain;
  float synthetic_weight = (1.0f - step) * gain;
  float real_weight = step;
  for (int i = 0; i < count; ++i) {
    samples[i] = ToSample(synthetic_weight * static_cast<float>(synthetic[i]) +
                          real_weight * static_cast<float>(samples[i]));
    synthetic_weight -= synthetic_step;
    real_weight += step;
  }
}

int CPlc::FindPitch() const {
  const float* base = pitchbufend_ - kCorrBuffer;
  const float* last = pitchbufend_ - kCorrLength;

  // Coarse search over every second offset and every second sample; the energy slides.
  const float* r = base;
  float energy = 0.0f;
  float corr = 0.0f;
  for (int i = 0; i < kCorrLength; i += kDecimation) {
    energy += r[i] * r[i];
    corr += r[i] * last[i];
  }
  float best_score = corr / std::sqrt(std::max(energy, kCorrMinPower));
  int best = 0;
  for (int offset = kDecimation; offset <= kPitchDiff; offset += kDecimation) {
    energy -= r[0] * r[0];
    energy += r[kCorrLength] * r[kCorrLength];
    r += kDecimation;
    corr = 0.0f;
    for (int i = 0; i < kCorrLength; i += kDecimation) corr += r[i] * last[i];
    const float score = corr / std::sqrt(std::max(energy, kCorrMinPower));
    if (score >= best_score) {  // the later offset wins a tie
      best_score = score;
      best = offset;
    }
  }

  // Fine search around the coarse result, every sample.
  int from = std::max(best - (kDecimation - 1), 0);
  const int to = std::min(best + (kDecimation - 1), kPitchDiff);
  r = base + from;
  energy = 0.0f;
  corr = 0.0f;
  for (int i = 0; i < kCorrLength; ++i) {
    energy += r[i] * r[i];
    corr += r[i] * last[i];
  }
  best_score = corr / std::sqrt(std::max(energy, kCorrMinPower));
  best = from;
  for (int offset = from + 1; offset <= to; ++offset) {
    energy -= r[0] * r[0];
    energy += r[kCorrLength] * r[kCorrLength];
    ++r;
    corr = 0.0f;
    for (int i = 0; i < kCorrLength; ++i) corr += r[i] * last[i];
    const float score = corr / std::sqrt(std::max(energy, kCorrMinPower));
    if (score > best_score) {  // here the first offset keeps a tie
      best_score = score;
      best = offset;
    }
  }
  return kPitchMax - best;
}

}  // namespace deskline
