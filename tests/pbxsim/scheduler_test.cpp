// The timer thread on a manual simulated clock: nothing runs before its time, order holds.
#include "tools/pbxsim/scheduler.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::Eventually;

class SchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scheduler_.Start()); }
  Scheduler::Task Note(char c) {
    return [this, c] {
      std::lock_guard lock(mutex_);
      ran_ += c;
    };
  }
  std::string ran() {
    std::lock_guard lock(mutex_);
    return ran_;
  }

  FakeClock clock_{FakeClock::Mode::kManual};
  Scheduler scheduler_{clock_};
  std::mutex mutex_;
  std::string ran_;
};

TEST_F(SchedulerTest, RunsEachTaskOnceItsTimeHasComeInDueThenSchedulingOrder) {
  scheduler_.After(std::chrono::milliseconds(30), Note('b'));
  scheduler_.After(std::chrono::milliseconds(10), Note('a'));
  scheduler_.After(std::chrono::milliseconds(30), Note('c'));
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(9);
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  EXPECT_EQ(ran(), "");
  clock_.AdvanceMs(1);
  ASSERT_TRUE(Eventually([&] { return ran() == "a"; }));
  clock_.AdvanceMs(20);
  ASSERT_TRUE(Eventually([&] { return ran() == "abc"; }));
  EXPECT_EQ(scheduler_.pending(), 0u);
}

TEST_F(SchedulerTest, CancelledTaskNeverRunsAndTasksMayScheduleTasks) {
  const Scheduler::TaskId doomed = scheduler_.After(std::chrono::milliseconds(10), Note('x'));
  scheduler_.After(std::chrono::milliseconds(20), [this] {
    Note('a')();
    scheduler_.After(std::chrono::milliseconds(5), Note('b'));
  });
  EXPECT_TRUE(scheduler_.Cancel(doomed));
  EXPECT_FALSE(scheduler_.Cancel(doomed));
  clock_.AdvanceMs(20);
  ASSERT_TRUE(Eventually([&] { return ran() == "a"; }));
  clock_.AdvanceMs(5);
  ASSERT_TRUE(Eventually([&] { return ran() == "ab"; }));
}

TEST_F(SchedulerTest, StopDropsWhatIsNotDueAndStartBeginsAfresh) {
  scheduler_.After(std::chrono::milliseconds(10), Note('x'));
  scheduler_.Stop();
  scheduler_.Stop();
  EXPECT_EQ(scheduler_.pending(), 0u);
  EXPECT_EQ(scheduler_.After(std::chrono::milliseconds(1), Note('y')), 0u);
  clock_.AdvanceMs(100);

  ASSERT_TRUE(scheduler_.Start());
  EXPECT_FALSE(scheduler_.Start());
  scheduler_.After(std::chrono::milliseconds(0), Note('z'));
  ASSERT_TRUE(Eventually([&] { return ran() == "z"; }));
}

}  // namespace
}  // namespace deskline::sim
