// Which datagrams the network rules touch, occurrence by occurrence, and the timer thread on a
// manual simulated clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/ptap_wire.h"
#include "tools/pbxsim/scheduler.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::Eventually;

// One letter per datagram: D dropped, L delayed, 2 duplicated, . untouched.
std::string Pattern(NetRules& rules, Direction direction, std::optional<std::uint8_t> type, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) {
    const Verdict v = rules.Apply(direction, type);
    out += v.drop ? 'D' : v.delay_ms > 0 ? 'L' : v.duplicate ? '2' : '.';
  }
  return out;
}

TEST(NetRules, OccurrencesCountPerRuleByDirectionAndTypeAndChanceRepeatsFromTheSeed) {
  NetRules rules;
  rules.Add(NetRule::Drop(Direction::kIn, kTypeStart).Occurrences(1, 2));
  rules.Add(NetRule::Duplicate(Direction::kOut, kTypeAck));
  rules.Add(NetRule::Delay(Direction::kOut, kTypeKeepalive, 100).Occurrences(3, 1));
  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeOpBegin, 2), "..");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeStart, 2), "..");
  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeStart, 4), "DD..");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeAck, 3), "222");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeKeepalive, 5), "..L..");
  EXPECT_EQ(Pattern(rules, Direction::kIn, std::nullopt, 1), ".");

  // A rule of any type takes malformed datagrams too; delays add up; count 0 runs on.
  rules.Clear();
  rules.Add(NetRule::Delay(Direction::kIn, std::nullopt, 100));
  rules.Add(NetRule::Delay(Direction::kIn, kTypeStart, 50));
  rules.Add(NetRule::Drop(Direction::kIn, std::nullopt).Occurrences(3, 0));
  EXPECT_EQ(rules.Apply(Direction::kIn, std::nullopt).delay_ms, 100);
  EXPECT_EQ(rules.Apply(Direction::kIn, kTypeStart).delay_ms, 150);
  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeAck, 3), "DDD");

  // Chance and jitter draw from the seed, so every run repeats; jitter adds 0 to its bound to
  // a fixed delay.
  auto run = [](std::uint64_t seed, double probability) {
    NetRules seeded(seed);
    seeded.Add(NetRule::Drop(Direction::kOut, std::nullopt).WithProbability(probability));
    seeded.Add(NetRule::Jitter(Direction::kIn, std::nullopt, 30));
    seeded.Add(NetRule::Delay(Direction::kIn, kTypeStart, 100));
    std::vector<int> delays;
    for (int i = 0; i < 200; ++i) {
      delays.push_back(seeded.Apply(Direction::kIn, i ? kTypeAck : kTypeStart).delay_ms);
    }
    return std::pair(Pattern(seeded, Direction::kOut, kTypeAck, 64), delays);
  };
  const auto [drops, delays] = run(7, 0.5);
  EXPECT_EQ(run(7, 0.5), std::pair(drops, delays));
  EXPECT_NE(run(8, 0.5).first, drops);
  EXPECT_NE(run(8, 0.5).second, delays);
  EXPECT_NE(drops.find('D'), std::string::npos);
  EXPECT_NE(drops.find('.'), std::string::npos);
  EXPECT_EQ(run(7, 0.0).first, std::string(64, '.'));
  EXPECT_GE(delays[0], 100);
  EXPECT_LE(delays[0], 130);
  EXPECT_EQ(*std::min_element(delays.begin() + 1, delays.end()), 0);
  EXPECT_EQ(*std::max_element(delays.begin() + 1, delays.end()), 30);
}

TEST(Scheduler, RunsTasksInDueThenSchedulingOrderNeverEarlyNeverWhenCancelledOrStopped) {
  using std::chrono::milliseconds;
  FakeClock clock(FakeClock::Mode::kManual);
  std::mutex mutex;
  std::string ran;
  Scheduler scheduler(clock);  // after what its tasks touch, so that it goes first
  ASSERT_TRUE(scheduler.Start());
  auto note = [&](char c) -> Scheduler::Task {
    return [&, c] {
      std::lock_guard lock(mutex);
      ran += c;
    };
  };
  auto ran_is = [&](const std::string& expected) {
    return Eventually([&] {
      std::lock_guard lock(mutex);
      return ran == expected;
    });
  };
  scheduler.After(milliseconds(30), note('b'));
  scheduler.After(milliseconds(10), note('a'));
  const Scheduler::TaskId doomed = scheduler.After(milliseconds(20), note('x'));
  scheduler.After(milliseconds(30), [&] {
    note('c')();
    scheduler.After(milliseconds(5), note('d'));  // a task may schedule a task
  });
  EXPECT_TRUE(scheduler.Cancel(doomed));
  EXPECT_FALSE(scheduler.Cancel(doomed));
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(9);
  ASSERT_TRUE(clock.AwaitSleepers(1));
  EXPECT_TRUE(ran_is(""));
  clock.AdvanceMs(1);
  EXPECT_TRUE(ran_is("a"));
  clock.AdvanceMs(20);
  EXPECT_TRUE(ran_is("abc"));
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(5);
  EXPECT_TRUE(ran_is("abcd"));
  EXPECT_EQ(scheduler.pending(), 0u);

  scheduler.After(milliseconds(10), note('x'));
  scheduler.Stop();
  EXPECT_EQ(scheduler.pending(), 0u) << "what is not due goes with Stop";
  EXPECT_EQ(scheduler.After(milliseconds(1), note('y')), 0u);
}

}  // namespace
}  // namespace deskline::sim
