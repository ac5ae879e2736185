// A simulated clock for unit tests.
//
// Auto mode (default): SleepFor and WaitFor move simulated time forward themselves, so a
// single-threaded schedule of twenty seconds runs in microseconds.
// Manual mode: only Advance moves time; a thread in SleepFor or WaitFor blocks until the test
// has advanced past its deadline. This lets a test step worker threads through a timeline.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/clock.h"

namespace deskline::testing {

class FakeClock final : public platform::Clock {
 public:
  enum class Mode { kAuto, kManual };

  // Starts at 16/11/2026 09:05:00.000 UTC unless told otherwise; local time equals UTC.
  explicit FakeClock(Mode mode = Mode::kAuto,
                     platform::CivilTime start = {2026, 11, 16, 9, 5, 0, 0});

  std::int64_t SteadyNs() const override { return now_ns_.load(); }
  platform::CivilTime UtcNow() const override;
  platform::CivilTime LocalNow() const override { return UtcNow(); }
  void SleepFor(std::chrono::milliseconds duration) override;
  bool WaitFor(platform::ManualResetEvent& event, std::chrono::milliseconds timeout) override;

  void Advance(std::chrono::nanoseconds step);
  void AdvanceMs(std::int64_t ms) { Advance(std::chrono::milliseconds(ms)); }
  std::int64_t ElapsedMs() const { return (now_ns_.load() - origin_ns_) / 1'000'000; }
  // Threads currently blocked in SleepFor or WaitFor (manual mode).
  int sleepers() const { return sleepers_.load(); }
  // Blocks (really) until `count` threads are asleep on this clock, or 2 s have passed.
  bool AwaitSleepers(int count) const;

 private:
  Mode mode_;
  platform::CivilTime start_;
  std::int64_t origin_ns_;
  std::atomic<std::int64_t> now_ns_;
  std::atomic<int> sleepers_{0};
  mutable std::mutex mutex_;
  std::condition_variable cv_;
};

}  // namespace deskline::testing
