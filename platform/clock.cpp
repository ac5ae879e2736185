#include "platform/clock.h"

#include <ctime>
#include <thread>

#include "platform/event.h"

namespace deskline::platform {
namespace {

CivilTime Breakdown(bool local) {
  const auto now = std::chrono::system_clock::now();
  const auto since_epoch = now.time_since_epoch();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count() % 1000;
  std::tm parts{};
  if (local) {
    localtime_r(&seconds, &parts);
  } else {
    gmtime_r(&seconds, &parts);
  }
  return CivilTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                   parts.tm_min,         parts.tm_sec,     static_cast<int>(ms)};
}

class SystemClock final : public Clock {
 public:
  std::int64_t SteadyNs() const override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  CivilTime UtcNow() const override { return Breakdown(false); }
  CivilTime LocalNow() const override { return Breakdown(true); }
  void SleepFor(std::chrono::milliseconds duration) override {
    std::this_thread::sleep_for(duration);
  }
  bool WaitFor(ManualResetEvent& event, std::chrono::milliseconds timeout) override {
    return event.WaitFor(timeout);
  }
};

}  // namespace

Clock& RealClock() {
  static SystemClock clock;
  return clock;
}

}  // namespace deskline::platform
