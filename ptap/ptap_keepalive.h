// The connection timer. The PBX sends keepalive requests and tells, in element 0x1A, how many
// seconds the terminal may go without one. The timer arms once both a timeout and a sign of
// life are known, and expires when more whole seconds than the timeout have passed since the
// last sign of life (strictly more: with 30 it expires at 31 s).
//
// Thread rules: the socket thread feeds it (OnKeepaliveRequest, OnTimeoutData), the
// connection timeout thread polls it; all fields are atomic, so a torn 64-bit counter can
// never fire the timer.
#pragma once

#include <atomic>
#include <cstdint>

namespace deskline {

class PtapKeepalive {
 public:
  static constexpr std::int64_t kNsPerSecond = 1'000'000'000;

  enum class State { kNotArmed, kRunning, kExpired };
  struct Check {
    State state = State::kNotArmed;
    std::int64_t deadline_ns = 0;  // kRunning: when it would expire if nothing comes
    std::uint32_t seconds = 0;     // whole seconds since the last sign of life
  };

  // Start: not armed, no timeout, no sign of life.
  void Reset();
  // A keepalive request came at `now_ns` (steady clock).
  void OnKeepaliveRequest(std::int64_t now_ns);
  // Element 0x1A: the timeout (0..255 s); it also counts as a sign of life.
  void OnTimeoutData(std::uint32_t seconds, std::int64_t now_ns);

  // One look of the timer thread. Arms the timer when a timeout other than 0 and a sign of
  // life are both there; once armed, a later timeout of 0 makes any whole second a timeout.
  Check Poll(std::int64_t now_ns);

  void Disarm() { armed_ = false; }
  void ClearLastKeepalive() { last_keepalive_ns_ = 0; }

  bool armed() const { return armed_.load(); }
  std::uint32_t threshold() const { return threshold_.load(); }
  std::int64_t last_keepalive_ns() const { return last_keepalive_ns_.load(); }

 private:
  // 0 means "not set", so a real reading of 0 is stored as 1.
  static std::int64_t Stamp(std::int64_t now_ns) { return now_ns == 0 ? 1 : now_ns; }

  std::atomic<bool> armed_{false};
  std::atomic<std::uint32_t> threshold_{0};
  std::atomic<std::int64_t> last_keepalive_ns_{0};
};

}  // namespace deskline
