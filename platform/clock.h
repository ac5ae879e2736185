// Time and waiting, behind one interface so that every schedule in the engine (retransmission,
// keepalive, start-up waits, voice arrival times) can run in simulated time under test.
#pragma once

#include <chrono>
#include <cstdint>

namespace deskline::platform {

class ManualResetEvent;

// A broken-down calendar time with milliseconds.
struct CivilTime {
  int year = 0;
  int month = 0;  // 1..12
  int day = 0;    // 1..31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;

  // Monotonic time in nanoseconds from an arbitrary origin.
  virtual std::int64_t SteadyNs() const = 0;
  virtual CivilTime UtcNow() const = 0;
  virtual CivilTime LocalNow() const = 0;

  virtual void SleepFor(std::chrono::milliseconds duration) = 0;
  // Returns true once `event` is set, false when `timeout` has passed first.
  virtual bool WaitFor(ManualResetEvent& event, std::chrono::milliseconds timeout) = 0;

  std::int64_t SteadyMs() const { return SteadyNs() / 1'000'000; }
  // Steady milliseconds as a wrapping 32-bit number, the multimedia timer's form.
  std::uint32_t TickMs() const { return static_cast<std::uint32_t>(SteadyMs()); }
};

// The process's real clock: std::chrono's steady and system clocks, real sleeps.
Clock& RealClock();

}  // namespace deskline::platform
