// Which datagrams the network rules touch, occurrence by occurrence, and the timer thread on a
// manual simulated clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>

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

  // A probability draws from the seed, so every run repeats.
  auto random = [](std::uint64_t seed, double probability) {
    NetRules seeded(seed);
    seeded.Add(NetRule::Drop(Direction::kOut, std::nullopt).WithProbability(probability));
    return Pattern(seeded, Direction::kOut, kTypeAck, 64);
  };
  const std::string a = random(7, 0.5);
  EXPECT_EQ(a, random(7, 0.5));
  EXPECT_NE(a, random(8, 0.5));
  EXPECT_NE(a.find('D'), std::string::npos);
  EXPECT_NE(a.find('.'), std::string::npos);
  EXPECT_EQ(random(7, 0.0), std::string(64, '.'));

  // Jitter draws each delay from 0 to its bound, from the seed, on top of a fixed delay.
  auto jitter = [](std::uint64_t seed) {
    NetRules seeded(seed);
    seeded.Add(NetRule::Jitter(Direction::kIn, std::nullopt, 30));
    seeded.Add(NetRule::Delay(Direction::kIn, kTypeStart, 100));
    std::vector<int> delays;
    for (int i = 0; i < 200; ++i) delays.push_back(seeded.Apply(Direction::kIn, kTypeAck).delay_ms);
    delays.push_back(seeded.Apply(Direction::kIn, kTypeStart).delay_ms);
    return delays;
  };
  const std::vector<int> delays = jitter(7);
  EXPECT_EQ(delays, jitter(7));
  EXPECT_NE(delays, jitter(8));
  EXPECT_EQ(*std::min_element(delays.begin(), delays.end() - 1), 0);
  EXPECT_EQ(*std::max_element(delays.begin(), delays.end() - 1), 30);
  EXPECT_GE(delays.back(), 100);
  EXPECT_LE(delays.back(), 130);
}

class SchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scheduler_.Start()); }
  Scheduler::Task Note(char c) {
    return [this, c] {
      std::lock_guard lock(mutex_);
      ran_ += c;
    };
  }
  bool Ran(const std::string& expected) {
    return Eventually([&] {
      std::lock_guard lock(mutex_);
      return ran_ == expected;
    });
  }
  FakeClock clock_{FakeClock::Mode::kManual};
  Scheduler scheduler_{clock_};
  std::mutex mutex_;
  std::string ran_;
};

TEST_F(SchedulerTest, RunsTasksInDueThenSchedulingOrderNeverEarlyNeverWhenCancelledOrStopped) {
  using std::chrono::milliseconds;
  scheduler_.After(milliseconds(30), Note('b'));
  scheduler_.After(milliseconds(10), Note('a'));
  const Scheduler::TaskId doomed = scheduler_.After(milliseconds(20), Note('x'));
  scheduler_.After(milliseconds(30), [this] {
    Note('c')();
    scheduler_.After(milliseconds(5), Note('d'));  // a task may schedule a task
  });
  EXPECT_TRUE(scheduler_.Cancel(doomed));
  EXPECT_FALSE(scheduler_.Cancel(doomed));
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(9);
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  EXPECT_TRUE(Ran(""));
  clock_.AdvanceMs(1);
  EXPECT_TRUE(Ran("a"));
  clock_.AdvanceMs(20);
  EXPECT_TRUE(Ran("abc"));
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(5);
  EXPECT_TRUE(Ran("abcd"));
  EXPECT_EQ(scheduler_.pending(), 0u);

  scheduler_.After(milliseconds(10), Note('x'));
  scheduler_.Stop();
  EXPECT_EQ(scheduler_.pending(), 0u) << "what is not due goes with Stop";
  EXPECT_EQ(scheduler_.After(milliseconds(1), Note('y')), 0u);
}

}  // namespace
}  // namespace deskline::sim
