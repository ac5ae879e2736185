// Which sequence numbers go out, and in which order, under each fault of the script.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tools/rtppeer/fault_script.h"

namespace deskline::sim {
namespace {

using Seqs = std::vector<std::uint16_t>;

TEST(FaultScript, EachFaultGivesItsWireOrder) {
  struct Row {
    const char* what;
    FaultScript script;
    std::uint16_t first;
    std::uint32_t count;
    Seqs expected;
  };
  FaultScript drop3;
  drop3.drop_every_nth = 3;
  FaultScript list;
  list.drop_sequences = {65535, 2};
  FaultScript reorder;
  reorder.reorder_every_nth = 3;
  FaultScript dup;
  dup.duplicate_every_nth = 2;
  FaultScript mixed;  // the 2nd is dropped and also due for duplication: the drop wins
  mixed.drop_every_nth = 2;
  mixed.duplicate_every_nth = 2;
  mixed.reorder_every_nth = 3;
  const Row rows[] = {
      {"clean, across the wrap", {}, 65533, 6, {65533, 65534, 65535, 0, 1, 2}},
      {"every third lost", drop3, 10, 7, {10, 11, 13, 14, 16}},
      {"listed numbers lost", list, 65534, 6, {65534, 0, 1, 3}},
      {"every third late by one", reorder, 1, 7, {1, 2, 4, 3, 5, 7, 6}},
      {"every second twice", dup, 7, 4, {7, 8, 8, 9, 10, 10}},
      {"mixed", mixed, 0, 6, {0, 2, 4}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(PlannedSendOrder(r.script, r.first, r.count), r.expected);
  }
}

TEST(FaultScript, RandomLossAndJitterAreSeededAndLoseNothingElse) {
  FaultScript loss;
  loss.drop_percent = 20;
  loss.seed = 42;
  const Seqs a = PlannedSendOrder(loss, 0, 1000);
  EXPECT_EQ(a, PlannedSendOrder(loss, 0, 1000));
  EXPECT_TRUE(std::is_sorted(a.begin(), a.end()));
  EXPECT_GT(a.size(), 740u);
  EXPECT_LT(a.size(), 860u);
  loss.seed = 43;
  EXPECT_NE(a, PlannedSendOrder(loss, 0, 1000));

  FaultScript jitter;
  jitter.jitter_max_ms = 60;  // more than two frames: packets overtake one another
  jitter.seed = 7;
  const Seqs j = PlannedSendOrder(jitter, 100, 200);
  EXPECT_EQ(j, PlannedSendOrder(jitter, 100, 200));
  EXPECT_FALSE(std::is_sorted(j.begin(), j.end()));
  Seqs sorted = j;
  std::sort(sorted.begin(), sorted.end());
  Seqs all(200);
  for (std::uint16_t i = 0; i < 200; ++i) all[i] = static_cast<std::uint16_t>(100 + i);
  EXPECT_EQ(sorted, all);

  // Within one frame of jitter nothing can overtake.
  jitter.jitter_max_ms = 19;
  const Seqs small = PlannedSendOrder(jitter, 0, 200);
  EXPECT_TRUE(std::is_sorted(small.begin(), small.end()));
}

TEST(FaultSchedule, DueTimesFollowTheFrameClock) {
  FaultScript s;
  s.reorder_every_nth = 2;
  FaultSchedule schedule(s);
  schedule.Add(0, 50, 0, {});
  schedule.Add(1, 51, 20'000, {});
  EXPECT_EQ(schedule.NextDueUs(), 0);
  EXPECT_EQ(schedule.TakeDue(0).size(), 1u);
  EXPECT_EQ(schedule.NextDueUs(), 40'001);  // held until just after the next frame
  EXPECT_TRUE(schedule.TakeDue(40'000).empty());
  ASSERT_EQ(schedule.TakeDue(40'001).size(), 1u);
  EXPECT_EQ(schedule.NextDueUs(), -1);
  EXPECT_EQ(schedule.pending(), 0u);
}

}  // namespace
}  // namespace deskline::sim
