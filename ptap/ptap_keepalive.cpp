#include "ptap/ptap_keepalive.h"

namespace deskline {

void PtapKeepalive::Reset() {
  armed_ = false;
  threshold_ = 0;
  last_keepalive_ns_ = 0;
}

void PtapKeepalive::OnKeepaliveRequest(std::int64_t now_ns) { last_keepalive_ns_ = Stamp(now_ns); }

void PtapKeepalive::OnTimeoutData(std::uint32_t seconds, std::int64_t now_ns) {
  threshold_ = seconds & 0xFF;
  last_keepalive_ns_ = Stamp(now_ns);
}

PtapKeepalive::Check PtapKeepalive::Poll(std::int64_t now_ns) {
  Check check;
  if (!armed_) {
    if (threshold_.load() == 0 || last_keepalive_ns_.load() == 0) return check;
    armed_ = true;
  }
  const std::int64_t last = last_keepalive_ns_.load();
  const std::uint32_t threshold = threshold_.load();
  // A sign of life stamped after `now_ns` was read counts as no time passed.
  const std::int64_t elapsed = now_ns > last ? now_ns - last : 0;
  const std::int64_t whole = elapsed / kNsPerSecond;
  check.seconds = whole > 0xFFFFFFFF ? 0xFFFFFFFFu : static_cast<std::uint32_t>(whole);
  if (last != 0 && whole > static_cast<std::int64_t>(threshold)) {
    check.state = State::kExpired;
    return check;
  }
  check.state = State::kRunning;
  // The first instant at which the whole seconds exceed the threshold.
  check.deadline_ns = (last != 0 ? last : now_ns) + (static_cast<std::int64_t>(threshold) + 1) * kNsPerSecond;
  return check;
}

}  // namespace deskline
