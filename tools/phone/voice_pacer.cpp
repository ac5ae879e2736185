#include "tools/phone/voice_pacer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace deskline::phone {

void LoopSource::Next(std::span<std::int16_t, kFrameSamples> frame) {
  if (samples_.empty()) {
    std::fill(frame.begin(), frame.end(), std::int16_t{0});
    return;
  }
  for (std::int16_t& sample : frame) {
    sample = samples_[position_];
    position_ = (position_ + 1) % samples_.size();
  }
}

void ToneSource::Next(std::span<std::int16_t, kFrameSamples> frame) {
  const double step = frequency_hz_ / 8000.0;
  for (std::int16_t& sample : frame) {
    sample = static_cast<std::int16_t>(std::lround(amplitude_ * std::sin(2 * std::numbers::pi * phase_)));
    phase_ += step;
    phase_ -= std::floor(phase_);
  }
}

bool VoicePacer::Start() {
  if (thread_.created()) return true;
  stop_.Reset();
  if (thread_.Create("phone voice", [this](platform::ThreadId) { Run(); }) == 0) return false;
  thread_.Resume();
  return true;
}

void VoicePacer::Stop() {
  RequestStop();
  thread_.Join();
}

void VoicePacer::Run() {
  constexpr std::int64_t kPeriodNs = std::chrono::nanoseconds(kPeriod).count();
  constexpr std::int64_t kMaxLagNs = std::chrono::nanoseconds(kMaxLag).count();
  std::int64_t due_ns = clock_.SteadyNs();
  while (!stop_.IsSet()) {
    if (!active_.load()) {
      // No ticking while idle. The reset comes before the second look, so a Wake that
      // follows the path opening is never lost.
      was_active_ = false;
      wake_.Reset();
      if (!active_.load() && !stop_.IsSet()) clock_.WaitFor(wake_, kIdleWait);
      due_ns = clock_.SteadyNs();
      continue;
    }
    Tick();
    due_ns += kPeriodNs;
    const std::int64_t now_ns = clock_.SteadyNs();
    if (now_ns - due_ns > kMaxLagNs) {
      due_ns = now_ns;
      ++resyncs_;
    }
    // A device whose writes block keeps the thread behind `due_ns - lead`, so it never sleeps
    // here: the device alone is the clock. One that does not block is held to the schedule.
    const std::int64_t wake_ns = due_ns - lead_ns_;
    if (wake_ns > now_ns) {
      // Round up so the frame never leaves early.
      const std::int64_t wait_ms = (wake_ns - now_ns + 999'999) / 1'000'000;
      if (clock_.WaitFor(stop_, std::chrono::milliseconds(wait_ms))) break;
    }
  }
}

void VoicePacer::Tick() {
  if (!was_active_) path_ticks_ = 0;
  was_active_ = true;
  ++path_ticks_;
  if (source_ != nullptr) {
    std::array<std::int16_t, kFrameSamples> frame;
    source_->Next(frame);
    port_.SendVoice(frame);
    ++sent_;
  }

  std::uint32_t status = 0xffffffffu;
  const std::uint32_t bytes = port_.ReceiveVoice(receive_buffer_, &status);
  // Never trust a count past the buffer that was handed over.
  const std::size_t samples = std::min<std::size_t>(bytes / 2, receive_buffer_.size());
  if (samples == 0) {
    if (sink_ != nullptr) sink_->Gap();
    return;
  }
  if (status == kStatusDelivered) {
    received_ += samples / kFrameSamples;
    std::int64_t none = -1;
    playout_delay_frames_.compare_exchange_strong(none, path_ticks_ - 1);
  } else if (status == kStatusConcealed) {
    concealed_ += samples / kFrameSamples;
  }
  if (sink_ != nullptr) sink_->Write(std::span<const std::int16_t>(receive_buffer_.data(), samples));
}

VoiceCounts VoicePacer::counts() const {
  return VoiceCounts{sent_.load(), received_.load(), concealed_.load(), resyncs_.load(),
                     playout_delay_frames_.load()};
}

}  // namespace deskline::phone
