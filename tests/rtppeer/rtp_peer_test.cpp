// Which sequence numbers the fault script sends and when; then the peer on loopback: paced
// headers in simulated time, faults as they reach a receiver, bad datagrams, threads at Stop.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "testing/fake_clock.h"
#include "tools/rtppeer/fault_script.h"
#include "tools/rtppeer/peer_sound.h"
#include "tools/rtppeer/rtp_peer.h"

namespace deskline::sim {
namespace {

using namespace std::chrono_literals;
using testing::FakeClock;
using Seqs = std::vector<std::uint16_t>;

TEST(FaultScript, EachFaultGivesItsWireOrder) {
  const struct {
    const char* what;
    FaultScript script;
    std::uint16_t first;
    std::uint32_t count;
    Seqs expected;
  } rows[] = {
      {"clean, across the wrap", {}, 65533, 6, {65533, 65534, 65535, 0, 1, 2}},
      {"every third lost", {.drop_every_nth = 3}, 10, 7, {10, 11, 13, 14, 16}},
      {"listed numbers lost", {.drop_sequences = {65535, 2}}, 65534, 6, {65534, 0, 1, 3}},
      {"every third late by one", {.reorder_every_nth = 3}, 1, 7, {1, 2, 4, 3, 5, 7, 6}},
      {"every second twice", {.duplicate_every_nth = 2}, 7, 4, {7, 8, 8, 9, 10, 10}},
      // The 2nd is dropped and also due for duplication: the drop wins.
      {"mixed", {.drop_every_nth = 2, .reorder_every_nth = 3, .duplicate_every_nth = 2}, 0, 6,
       {0, 2, 4}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(PlannedSendOrder(r.script, r.first, r.count), r.expected);
  }
}

TEST(FaultScript, RandomLossAndJitterRepeatFromTheSeedAndLoseNothingElse) {
  FaultScript loss{.drop_percent = 20, .seed = 42};
  const Seqs a = PlannedSendOrder(loss, 0, 1000);
  EXPECT_EQ(a, PlannedSendOrder(loss, 0, 1000));
  EXPECT_TRUE(std::is_sorted(a.begin(), a.end()));
  EXPECT_GT(a.size(), 740u);
  EXPECT_LT(a.size(), 860u);
  loss.seed = 43;
  EXPECT_NE(a, PlannedSendOrder(loss, 0, 1000));

  FaultScript jitter{.jitter_max_ms = 60, .seed = 7};  // more than two frames: packets overtake
  Seqs j = PlannedSendOrder(jitter, 100, 200);
  EXPECT_EQ(j, PlannedSendOrder(jitter, 100, 200));
  EXPECT_FALSE(std::is_sorted(j.begin(), j.end()));
  std::sort(j.begin(), j.end());
  EXPECT_EQ(j.front(), 100);
  EXPECT_EQ(j.size(), 200u);
  EXPECT_EQ(std::adjacent_find(j.begin(), j.end(), [](int x, int y) { return y != x + 1; }),
            j.end());
  jitter.jitter_max_ms = 19;  // within one frame nothing can overtake
  const Seqs small = PlannedSendOrder(jitter, 0, 200);
  EXPECT_TRUE(std::is_sorted(small.begin(), small.end()));
}

TEST(FaultSchedule, AReorderedPacketIsHeldUntilJustAfterTheNextFrame) {
  FaultSchedule schedule(FaultScript{.reorder_every_nth = 2});
  schedule.Add(0, 50, 0, {});
  schedule.Add(1, 51, 20'000, {});
  EXPECT_EQ(schedule.NextDueUs(), 0);
  EXPECT_EQ(schedule.TakeDue(0).size(), 1u);
  EXPECT_EQ(schedule.NextDueUs(), 40'001);
  EXPECT_TRUE(schedule.TakeDue(40'000).empty());
  EXPECT_EQ(schedule.TakeDue(40'001).size(), 1u);
  EXPECT_EQ(schedule.NextDueUs(), -1);
}

// Two started peers on the same options (and clock), each sending to the other.
struct Pair {
  explicit Pair(RtpPeerOptions options) : a(options), b(AnyPort(options)) {
    EXPECT_TRUE(a.Start());
    EXPECT_TRUE(b.Start());
    a.SetRemote({kRtpPeerLoopbackIp, b.port()});
    b.SetRemote({kRtpPeerLoopbackIp, a.port()});
  }
  static RtpPeerOptions AnyPort(RtpPeerOptions options) {
    options.local_port = 0;
    return options;
  }
  RtpPeer a, b;
};

TEST(RtpPeer, PacedHeadersAcrossTheWrapInSimulatedTime) {
  FakeClock clock(FakeClock::Mode::kManual);
  Pair pair({.clock = &clock, .ssrc = 0x11223344, .first_sequence = 65534,
             .first_timestamp = 0xFFFFFF00, .payload_type = kPtPcma});
  const std::int64_t t0 = clock.SteadyMs();
  ASSERT_TRUE(pair.a.StartSending(4));
  ASSERT_TRUE(pair.b.WaitForReceived(1, 2s));
  for (std::size_t i = 1; i < 4; ++i) {
    ASSERT_TRUE(clock.AwaitSleepers(1));
    EXPECT_EQ(pair.b.ReceivedCount(), i) << "nothing early";
    clock.AdvanceMs(20);
    ASSERT_TRUE(pair.b.WaitForReceived(i + 1, 2s));
  }
  ASSERT_TRUE(pair.a.WaitSendingDone(2s));
  const auto got = pair.b.Received();
  ASSERT_EQ(got.size(), 4u);
  const std::uint16_t seqs[] = {65534, 65535, 0, 1};
  for (std::size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(got[i].header.sequence, seqs[i]);
    EXPECT_EQ(got[i].header.timestamp, static_cast<std::uint32_t>(0xFFFFFF00u + 160 * i));  // wraps
    EXPECT_EQ(got[i].header.ssrc, 0x11223344u);
    EXPECT_EQ(got[i].header.payload_type, kPtPcma);
    EXPECT_EQ(got[i].header.marker, i == 0);
    EXPECT_EQ(got[i].payload_size, 160u);
    EXPECT_EQ(got[i].arrival_ms - t0, static_cast<std::int64_t>(20 * i));
  }
  // A second run goes on with the numbers and marks its first packet again.
  ASSERT_TRUE(pair.a.StartSending(1));
  ASSERT_TRUE(pair.b.WaitForReceived(5, 2s));
  const auto next = pair.b.Received().back();
  EXPECT_EQ(next.header.sequence, 2);
  EXPECT_EQ(next.header.timestamp, 0xFFFFFF00u + 640u);
  EXPECT_TRUE(next.header.marker);
}

TEST(RtpPeer, FaultsReachTheReceiverInTheirPlannedOrder) {
  FakeClock clock(FakeClock::Mode::kAuto);
  Pair pair({.clock = &clock, .first_sequence = 65530});
  const FaultScript script{.drop_sequences = {65533}, .reorder_every_nth = 4,
                           .duplicate_every_nth = 5, .jitter_max_ms = 15, .seed = 3};
  pair.a.SetFaults(script);
  const Seqs planned = PlannedSendOrder(script, 65530, 12);
  ASSERT_TRUE(pair.a.StartSending(12));
  ASSERT_TRUE(pair.a.WaitSendingDone(5s));
  ASSERT_TRUE(pair.b.WaitForReceived(planned.size(), 5s));
  Seqs got;
  for (const auto& p : pair.b.Received()) got.push_back(p.header.sequence);
  EXPECT_EQ(got, planned);
  EXPECT_EQ(pair.a.DroppedByFaults(), 1u);
  const SequenceStats st = pair.b.ReceivedStats();
  EXPECT_EQ(st.lost, 1u);
  EXPECT_EQ(st.duplicates, 2u);
  EXPECT_EQ(st.last, 65541);
  EXPECT_EQ(pair.b.ReceivedSound().size(), 12u * 160u) << "a lost frame as silence";
}

TEST(RtpPeer, BadDatagramsAreCountedAndRefusalsAreClear) {
  Pair pair(RtpPeerOptions{});
  std::vector<std::byte> v1 = BuildRtp({}, {});
  v1[0] = std::byte{0x40};
  ASSERT_TRUE(pair.a.SendRaw(v1));
  ASSERT_TRUE(pair.a.SendRaw(std::vector<std::byte>(2, std::byte{0x80})));
  ASSERT_TRUE(pair.a.SendRaw({}));  // as the terminal's port punching sends
  // A G.729 packet cut to 5 bytes, then a good one.
  const std::vector<std::byte> five(5), silence(160, std::byte{0xFF});
  ASSERT_TRUE(pair.a.SendRaw(BuildRtp({.payload_type = kPtG729, .sequence = 9}, five)));
  ASSERT_TRUE(pair.a.SendRaw(BuildRtp({.sequence = 10}, silence)));
  ASSERT_TRUE(pair.b.WaitForReceived(2, 2s));
  const auto got = pair.b.Received();
  EXPECT_EQ(got[0].outcome, DecodeOutcome::kTruncated);
  EXPECT_TRUE(got[0].samples.empty());
  EXPECT_EQ(got[1].samples, std::vector<std::int16_t>(160, 0));
  EXPECT_EQ(pair.b.malformed(), 2u);
  EXPECT_EQ(pair.b.empty_datagrams(), 1u);

  RtpPeer lonely;
  EXPECT_FALSE(lonely.StartSending(1)) << "not started";
  ASSERT_TRUE(lonely.Start());
  EXPECT_FALSE(lonely.Start());
  EXPECT_FALSE(lonely.StartSending(1)) << "no remote";
  EXPECT_FALSE(lonely.SetPayloadType(128));
  EXPECT_NE(lonely.LoadWav("/nonexistent/tone.wav"), "");
  RtpPeer clash({.local_port = lonely.port()});
  EXPECT_FALSE(clash.Start());
}

TEST(RtpPeer, StopAndDestructionReleaseBlockedAndRunningThreads) {
  FakeClock clock(FakeClock::Mode::kManual);
  Pair pair({.clock = &clock});
  ASSERT_TRUE(pair.a.StartSending());  // endless, parked on the manual clock
  ASSERT_TRUE(clock.AwaitSleepers(1));
  pair.a.StopSending();
  EXPECT_EQ(pair.a.Sent().size(), 1u);
  ASSERT_TRUE(pair.a.StartSending());
  pair.b.Stop();
  pair.b.Stop();
  EXPECT_EQ(pair.b.port(), 0);
  // `a` is destroyed still sending, with its receiver blocked.
}

TEST(RtpPeer, AWavSourceOfAnotherRateIsResampledAndLooped) {
  const std::string path = ::testing::TempDir() + "rtppeer_src_16k.wav";
  ASSERT_EQ(WriteWav(path, MakeTone(800, -10, 1600, 16000), 16000), "");  // 100 ms: five frames
  FakeClock clock(FakeClock::Mode::kAuto);
  Pair pair({.clock = &clock});
  ASSERT_EQ(pair.a.LoadWav(path), "");
  std::filesystem::remove(path);
  ASSERT_TRUE(pair.a.StartSending(10));
  ASSERT_TRUE(pair.b.WaitForReceived(10, 5s));
  const auto sound = pair.b.ReceivedSound();
  const std::span<const std::int16_t> second_loop(sound.data() + 800, 800);
  EXPECT_NEAR(ZeroCrossingFrequency(second_loop), 800.0, 16.0);
  EXPECT_NEAR(RmsDbfs(second_loop), -10.0, 0.5);
}

}  // namespace
}  // namespace deskline::sim
