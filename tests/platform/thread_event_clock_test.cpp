// Threads behind a start gate, the manual-reset event, and the simulated clock that every
// schedule in the engine is tested on.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "platform/event.h"
#include "platform/thread.h"
#include "testing/fake_clock.h"

namespace deskline::platform {
namespace {

using testing::FakeClock;
using std::chrono::milliseconds;

TEST(ThreadTest, BodyRunsOnlyAfterResumeAndSeesTheStoredId) {
  std::atomic<ThreadId> stored{0}, seen_stored{0}, seen_current{0};
  std::atomic<int> runs{0};
  Thread thread;
  const ThreadId id = thread.Create("gate", [&](ThreadId self) {
    seen_stored = stored == self ? self : 0;
    seen_current = CurrentThreadId();
    ++runs;
  });
  ASSERT_NE(id, 0u);
  EXPECT_EQ(thread.Create("second", [](ThreadId) {}), 0u) << "one thread per object";
  std::this_thread::sleep_for(milliseconds(10));  // a leaky gate would run the body now
  EXPECT_EQ(runs.load(), 0);
  stored = id;
  thread.Resume();
  thread.Join();
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(seen_stored.load(), id);
  EXPECT_EQ(seen_current.load(), id);
  EXPECT_EQ(CurrentThreadId(), 0u) << "a thread not made by Thread has no id";

  // Joined or destroyed at the gate: released without running; the object is reusable.
  ASSERT_NE(thread.Create("never", [&](ThreadId) { ++runs; }), 0u);
  thread.Join(), thread.Join();
  { Thread destroyed; ASSERT_NE(destroyed.Create("never", [&](ThreadId) { ++runs; }), 0u); }
  EXPECT_EQ(runs.load(), 1);
}

TEST(ThreadTest, IdsAreUniqueAcrossConcurrentCreators) {
  constexpr int kCreators = 4, kEach = 25;
  std::vector<ThreadId> ids(kCreators * kEach);
  std::vector<std::thread> creators;
  for (int c = 0; c < kCreators; ++c) {
    creators.emplace_back([&, c] {
      for (int i = 0; i < kEach; ++i) {
        Thread thread;
        ids[c * kEach + i] = thread.Create("id", [](ThreadId) {});
        thread.Resume();
      }
    });
  }
  for (auto& creator : creators) creator.join();
  const std::set<ThreadId> unique(ids.begin(), ids.end());
  EXPECT_EQ(unique.size(), ids.size());
  EXPECT_EQ(unique.count(0), 0u);
}

TEST(ManualResetEventTest, SetReleasesEveryWaiterAndStaysSetUntilReset) {
  ManualResetEvent event("EventPTAP_#ID00");
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] { released += event.WaitFor(std::chrono::seconds(30)); });
  }
  event.Set();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(released.load(), 3);
  EXPECT_TRUE(event.WaitFor(std::chrono::nanoseconds(0))) << "a wait does not consume the set";
  event.Reset();
  EXPECT_FALSE(event.WaitFor(milliseconds(1)));
}

TEST(FakeClockTest, ManualModeWakesEachWaiterAtItsDeadlineOrOnSet) {
  FakeClock clock(FakeClock::Mode::kManual);
  ManualResetEvent set_later, never_set;
  std::atomic<int> slept{0}, on_set{-1}, on_timeout{-1};
  std::thread sleeper([&] { clock.SleepFor(milliseconds(100)); ++slept; });
  std::thread a([&] { on_set = clock.WaitFor(set_later, milliseconds(19000)); });
  std::thread b([&] { on_timeout = clock.WaitFor(never_set, milliseconds(19000)); });
  ASSERT_TRUE(clock.AwaitSleepers(3));
  clock.AdvanceMs(99);
  std::this_thread::sleep_for(milliseconds(5));
  EXPECT_EQ(slept.load(), 0);
  clock.AdvanceMs(1);
  sleeper.join();
  set_later.Set();
  a.join();
  EXPECT_EQ(on_timeout.load(), -1);
  clock.AdvanceMs(18900);
  b.join();
  EXPECT_EQ(on_set.load(), 1);
  EXPECT_EQ(on_timeout.load(), 0);
  EXPECT_EQ(clock.sleepers(), 0);
}

TEST(FakeClockTest, AutoModeTimeCrossesMidnightYearEndAndTickWrap) {
  const struct { CivilTime start; std::int64_t ms; std::vector<int> after; } rows[] = {
      {{2026, 11, 16, 23, 59, 59, 500}, 600, {2026, 11, 17, 0, 0, 0, 100}},  // midnight
      {{2028, 2, 28, 12, 0, 0, 0}, 12 * 3'600'000, {2028, 2, 29, 0, 0, 0, 0}},  // leap day
      {{2026, 12, 31, 23, 59, 59, 999}, 1, {2027, 1, 1, 0, 0, 0, 0}}};
  for (const auto& row : rows) {
    FakeClock clock(FakeClock::Mode::kAuto, row.start);
    clock.AdvanceMs(row.ms);
    const CivilTime t = clock.LocalNow();
    EXPECT_EQ((std::vector<int>{t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond}),
              row.after);
  }
  FakeClock clock;  // auto mode: sleeps and timed-out waits move time, a set event does not
  ManualResetEvent event;
  clock.SleepFor(milliseconds(19000));
  EXPECT_FALSE(clock.WaitFor(event, milliseconds(500)));
  event.Set();
  EXPECT_TRUE(clock.WaitFor(event, milliseconds(500)));
  EXPECT_EQ(clock.ElapsedMs(), 19500);
  const std::uint32_t before = clock.TickMs();
  clock.AdvanceMs(std::int64_t{0xFFFFFFFFu - before} + 5);
  EXPECT_EQ(clock.TickMs(), 4u);
}

}  // namespace
}  // namespace deskline::platform
