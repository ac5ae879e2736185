#include "testing/fake_clock.h"

#include <thread>

#include "platform/event.h"

namespace deskline::testing {

FakeClock::FakeClock(Mode mode, platform::CivilTime start)
    : mode_(mode), start_(start), origin_ns_(1'000'000'000'000), now_ns_(origin_ns_) {}

platform::CivilTime FakeClock::UtcNow() const {
  using namespace std::chrono;
  const sys_days day0 = year_month_day{year{start_.year}, month{static_cast<unsigned>(start_.month)},
                                       std::chrono::day{static_cast<unsigned>(start_.day)}};
  const auto start_point = sys_time<milliseconds>(day0) + hours(start_.hour) +
                           minutes(start_.minute) + seconds(start_.second) +
                           milliseconds(start_.millisecond);
  const auto now = start_point + milliseconds((now_ns_.load() - origin_ns_) / 1'000'000);
  const sys_days today = floor<days>(now);
  const year_month_day ymd(today);
  const hh_mm_ss<milliseconds> tod(now - today);
  return platform::CivilTime{static_cast<int>(ymd.year()),
                             static_cast<int>(static_cast<unsigned>(ymd.month())),
                             static_cast<int>(static_cast<unsigned>(ymd.day())),
                             static_cast<int>(tod.hours().count()),
                             static_cast<int>(tod.minutes().count()),
                             static_cast<int>(tod.seconds().count()),
                             static_cast<int>(tod.subseconds().count())};
}

void FakeClock::Advance(std::chrono::nanoseconds step) {
  {
    std::lock_guard lock(mutex_);
    now_ns_.fetch_add(step.count());
  }
  cv_.notify_all();
}

void FakeClock::SleepFor(std::chrono::milliseconds duration) {
  if (mode_ == Mode::kAuto) {
    Advance(duration);
    std::this_thread::yield();
    return;
  }
  const std::int64_t deadline = now_ns_.load() + duration.count() * 1'000'000;
  std::unique_lock lock(mutex_);
  ++sleepers_;
  cv_.wait(lock, [&] { return now_ns_.load() >= deadline; });
  --sleepers_;
}

bool FakeClock::WaitFor(platform::ManualResetEvent& event, std::chrono::milliseconds timeout) {
  if (mode_ == Mode::kAuto) {
    for (std::int64_t ms = 0; ms < timeout.count(); ++ms) {
      if (event.IsSet()) return true;
      Advance(std::chrono::milliseconds(1));
      if (ms % 64 == 0) std::this_thread::yield();
    }
    return event.IsSet();
  }
  const std::int64_t deadline = now_ns_.load() + timeout.count() * 1'000'000;
  std::unique_lock lock(mutex_);
  ++sleepers_;
  while (!event.IsSet() && now_ns_.load() < deadline) {
    // The event does not notify this clock, so look again at short real intervals.
    cv_.wait_for(lock, std::chrono::milliseconds(1));
  }
  --sleepers_;
  return event.IsSet();
}

bool FakeClock::AwaitSleepers(int count) const {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (sleepers_.load() < count) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

}  // namespace deskline::testing
