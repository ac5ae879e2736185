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

TEST(ThreadTest, BodySeesTheIdThatCreateReturnedAndStoredBeforeItRan) {
  std::atomic<ThreadId> stored{0};
  std::atomic<ThreadId> seen_stored{0};
  std::atomic<ThreadId> seen_argument{0};
  std::atomic<ThreadId> seen_current{0};
  std::atomic<bool> ran{false};

  Thread thread;
  const ThreadId id = thread.Create("gate", [&](ThreadId self) {
    seen_stored = stored.load();
    seen_argument = self;
    seen_current = CurrentThreadId();
    ran = true;
  });
  ASSERT_NE(id, 0u);
  // Held at the gate: give a gate that leaks a moment to show it.
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(ran.load());
  stored = id;
  EXPECT_EQ(thread.id(), id);

  thread.Resume();
  thread.Join();
  EXPECT_TRUE(ran.load());
  EXPECT_EQ(seen_stored.load(), id);
  EXPECT_EQ(seen_argument.load(), id);
  EXPECT_EQ(seen_current.load(), id);
  EXPECT_EQ(thread.id(), 0u);
  EXPECT_FALSE(thread.created());
}

TEST(ThreadTest, ThreadJoinedOrDestroyedWithoutResumeNeverRunsItsBody) {
  std::atomic<int> runs{0};
  {
    Thread joined;
    ASSERT_NE(joined.Create("never", [&](ThreadId) { ++runs; }), 0u);
    joined.Join();
    joined.Join();  // twice is harmless
    Thread destroyed;
    ASSERT_NE(destroyed.Create("never", [&](ThreadId) { ++runs; }), 0u);
  }
  EXPECT_EQ(runs.load(), 0);
}

TEST(ThreadTest, SecondCreateFailsUntilJoinThenWorks) {
  Thread thread;
  ASSERT_NE(thread.Create("first", [](ThreadId) {}), 0u);
  EXPECT_EQ(thread.Create("second", [](ThreadId) {}), 0u);
  thread.Resume();
  thread.Join();
  std::atomic<bool> ran{false};
  ASSERT_NE(thread.Create("third", [&](ThreadId) { ran = true; }), 0u);
  thread.Resume();
  thread.Join();
  EXPECT_TRUE(ran.load());
}

TEST(ThreadTest, IdsAreNonZeroAndUniqueAcrossConcurrentCreators) {
  constexpr int kCreators = 4;
  constexpr int kEach = 25;
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
  EXPECT_EQ(CurrentThreadId(), 0u) << "a thread not made by Thread has no id";
}

TEST(ManualResetEventTest, SetReleasesEveryWaiterAndStaysSetUntilReset) {
  ManualResetEvent event("EventPTAP_#ID00");
  EXPECT_EQ(event.name(), "EventPTAP_#ID00");
  EXPECT_FALSE(event.IsSet());
  EXPECT_FALSE(event.WaitFor(std::chrono::milliseconds(1)));

  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      if (event.WaitFor(std::chrono::seconds(30))) ++released;
    });
  }
  event.Set();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(released.load(), 3);

  EXPECT_TRUE(event.WaitFor(std::chrono::nanoseconds(0)));
  EXPECT_TRUE(event.WaitFor(std::chrono::nanoseconds(0))) << "a wait does not consume the set";
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  EXPECT_FALSE(event.WaitFor(std::chrono::milliseconds(1)));
}

TEST(FakeClockTest, AutoModeSleepsAndTimeoutsMoveSimulatedTime) {
  FakeClock clock;
  const std::int64_t start_ns = clock.SteadyNs();
  clock.SleepFor(std::chrono::milliseconds(19000));
  EXPECT_EQ(clock.ElapsedMs(), 19000);
  EXPECT_EQ(clock.SteadyNs() - start_ns, 19'000'000'000);

  ManualResetEvent event;
  EXPECT_FALSE(clock.WaitFor(event, std::chrono::milliseconds(500)));
  EXPECT_EQ(clock.ElapsedMs(), 19500);
  event.Set();
  EXPECT_TRUE(clock.WaitFor(event, std::chrono::milliseconds(500)));
  EXPECT_EQ(clock.ElapsedMs(), 19500) << "a set event is seen before any time passes";
}

TEST(FakeClockTest, ManualModeSleeperWakesOnlyAtItsDeadline) {
  FakeClock clock(FakeClock::Mode::kManual);
  std::atomic<bool> woke{false};
  std::thread sleeper([&] {
    clock.SleepFor(std::chrono::milliseconds(100));
    woke = true;
  });
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(99);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(woke.load());
  EXPECT_EQ(clock.sleepers(), 1);
  clock.AdvanceMs(1);
  sleeper.join();
  EXPECT_TRUE(woke.load());
  EXPECT_EQ(clock.sleepers(), 0);
}

TEST(FakeClockTest, ManualModeWaitEndsOnSetOrOnTimeout) {
  FakeClock clock(FakeClock::Mode::kManual);
  ManualResetEvent event;

  std::atomic<int> result{-1};
  std::thread waiter([&] { result = clock.WaitFor(event, std::chrono::milliseconds(19000)); });
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(5000);
  event.Set();
  waiter.join();
  EXPECT_EQ(result.load(), 1);
  EXPECT_EQ(clock.ElapsedMs(), 5000);

  event.Reset();
  std::thread timing_out([&] { result = clock.WaitFor(event, std::chrono::milliseconds(19000)); });
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(19000);
  timing_out.join();
  EXPECT_EQ(result.load(), 0);
}

struct CivilCase {
  CivilTime start;
  std::int64_t advance_ms;
  CivilTime expected;
};

TEST(FakeClockTest, CivilTimeCrossesMidnightMonthAndYearEnds) {
  const CivilCase cases[] = {
      // midnight, with milliseconds carried
      {{2026, 11, 16, 23, 59, 59, 500}, 600, {2026, 11, 17, 0, 0, 0, 100}},
      // end of a 30-day month
      {{2026, 11, 30, 23, 0, 0, 0}, 3'600'000, {2026, 12, 1, 0, 0, 0, 0}},
      // February of a common year and of a leap year
      {{2026, 2, 28, 12, 0, 0, 0}, 12 * 3'600'000, {2026, 3, 1, 0, 0, 0, 0}},
      {{2028, 2, 28, 12, 0, 0, 0}, 12 * 3'600'000, {2028, 2, 29, 0, 0, 0, 0}},
      // year end
      {{2026, 12, 31, 23, 59, 59, 999}, 1, {2027, 1, 1, 0, 0, 0, 0}},
  };
  for (const CivilCase& c : cases) {
    FakeClock clock(FakeClock::Mode::kAuto, c.start);
    clock.AdvanceMs(c.advance_ms);
    for (const CivilTime& now : {clock.UtcNow(), clock.LocalNow()}) {
      EXPECT_EQ(now.year, c.expected.year);
      EXPECT_EQ(now.month, c.expected.month);
      EXPECT_EQ(now.day, c.expected.day);
      EXPECT_EQ(now.hour, c.expected.hour);
      EXPECT_EQ(now.minute, c.expected.minute);
      EXPECT_EQ(now.second, c.expected.second);
      EXPECT_EQ(now.millisecond, c.expected.millisecond);
    }
  }
}

TEST(FakeClockTest, TickMsWrapsAt32Bits) {
  FakeClock clock;
  const std::uint32_t before = clock.TickMs();
  const std::uint32_t to_wrap = 0xFFFFFFFFu - before;
  clock.AdvanceMs(static_cast<std::int64_t>(to_wrap) + 5);
  EXPECT_EQ(clock.TickMs(), 4u);
  EXPECT_EQ(static_cast<std::uint32_t>(clock.TickMs() - before), to_wrap + 5);
}

}  // namespace
}  // namespace deskline::platform
