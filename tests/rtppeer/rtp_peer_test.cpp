// The peer on loopback: paced headers in simulated time, faults as they reach a receiver,
// bad datagrams, and two peers talking in real time.
#include <gtest/gtest.h>

#include <filesystem>

#include "testing/fake_clock.h"
#include "tools/rtppeer/peer_sound.h"
#include "tools/rtppeer/rtp_peer.h"

namespace deskline::sim {
namespace {

using namespace std::chrono_literals;
using testing::FakeClock;

std::vector<std::uint16_t> ReceivedSeqs(const RtpPeer& peer) {
  std::vector<std::uint16_t> out;
  for (const auto& p : peer.Received()) out.push_back(p.header.sequence);
  return out;
}

RtpPeerOptions WithAnyPort(RtpPeerOptions options) {
  options.local_port = 0;
  return options;
}

struct Pair {
  // Both on the same options (and clock); `b` takes any port.
  explicit Pair(RtpPeerOptions options) : a(options), b(WithAnyPort(options)) {
    EXPECT_TRUE(a.Start());
    EXPECT_TRUE(b.Start());
    a.SetRemote({kRtpPeerLoopbackIp, b.port()});
    b.SetRemote({kRtpPeerLoopbackIp, a.port()});
  }
  RtpPeer a;
  RtpPeer b;
};

TEST(RtpPeer, PacedHeadersAcrossTheWrapInSimulatedTime) {
  FakeClock clock(FakeClock::Mode::kManual);
  RtpPeerOptions options;
  options.clock = &clock;
  options.first_sequence = 65534;
  options.first_timestamp = 0xFFFFFF00;
  options.ssrc = 0x11223344;
  options.payload_type = kPtPcma;
  Pair pair(options);
  const std::int64_t t0 = clock.SteadyMs();

  ASSERT_TRUE(pair.a.StartSending(4));
  ASSERT_TRUE(pair.b.WaitForReceived(1, 2s));
  for (int i = 1; i < 4; ++i) {
    ASSERT_TRUE(clock.AwaitSleepers(1));
    EXPECT_EQ(pair.b.ReceivedCount(), static_cast<std::size_t>(i));  // nothing early
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
    EXPECT_EQ(got[i].header.timestamp, static_cast<std::uint32_t>(0xFFFFFF00u + 160u * i));  // wraps past 2^32 too
    EXPECT_EQ(got[i].header.ssrc, 0x11223344u);
    EXPECT_EQ(got[i].header.payload_type, kPtPcma);
    EXPECT_EQ(got[i].header.marker, i == 0);
    EXPECT_EQ(got[i].payload_size, 160u);
    EXPECT_EQ(got[i].arrival_ms - t0, static_cast<std::int64_t>(20 * i));
    EXPECT_EQ(got[i].from.port, pair.a.port());
  }
  const auto sent = pair.a.Sent();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[3].sent_ms - t0, 60);

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
  RtpPeerOptions options;
  options.clock = &clock;
  options.first_sequence = 65530;
  Pair pair(options);
  FaultScript script;
  script.drop_sequences = {65533};
  script.reorder_every_nth = 4;
  script.duplicate_every_nth = 5;
  script.jitter_max_ms = 15;
  script.seed = 3;
  pair.a.SetFaults(script);
  const auto planned = PlannedSendOrder(script, 65530, 12);

  ASSERT_TRUE(pair.a.StartSending(12));
  ASSERT_TRUE(pair.a.WaitSendingDone(5s));
  ASSERT_TRUE(pair.b.WaitForReceived(planned.size(), 5s));
  EXPECT_EQ(ReceivedSeqs(pair.b), planned);
  EXPECT_EQ(pair.a.DroppedByFaults(), 1u);

  const SequenceStats st = pair.b.ReceivedStats();
  EXPECT_EQ(st.lost, 1u);
  EXPECT_EQ(st.duplicates, 2u);
  EXPECT_EQ(st.first, 65530);
  EXPECT_EQ(st.last, 65541);
  // Twelve frames, one of them the silence that stands for the lost one.
  EXPECT_EQ(pair.b.ReceivedSound().size(), 12u * 160u);
}

TEST(RtpPeer, BadDatagramsAreCountedAndTheReceiverGoesOn) {
  Pair pair(RtpPeerOptions{});
  const std::byte v1[] = {std::byte{0x40}, std::byte{0}, std::byte{0}, std::byte{1}, std::byte{0}, std::byte{0},
                          std::byte{0},    std::byte{0}, std::byte{0}, std::byte{0}, std::byte{0}, std::byte{0}};
  const std::byte shortish[] = {std::byte{0x80}, std::byte{0}};
  ASSERT_TRUE(pair.a.SendRaw(v1));
  ASSERT_TRUE(pair.a.SendRaw(shortish));
  ASSERT_TRUE(pair.a.SendRaw({}));  // as the terminal's port punching sends
  // A G.729 packet cut to 5 bytes, then a good one.
  RtpHeader h;
  h.payload_type = kPtG729;
  h.sequence = 9;
  const std::vector<std::byte> five(5, std::byte{0x12});
  ASSERT_TRUE(pair.a.SendRaw(BuildRtp(h, five)));
  h.payload_type = kPtPcmu;
  h.sequence = 10;
  ASSERT_TRUE(pair.a.SendRaw(BuildRtp(h, std::vector<std::byte>(160, std::byte{0xFF}))));
  ASSERT_TRUE(pair.b.WaitForReceived(2, 2s));
  const auto got = pair.b.Received();
  EXPECT_EQ(got[0].outcome, DecodeOutcome::kTruncated);
  EXPECT_TRUE(got[0].samples.empty());
  EXPECT_EQ(got[1].samples, std::vector<std::int16_t>(160, 0));
  EXPECT_EQ(pair.b.malformed(), 2u);
  EXPECT_EQ(pair.b.empty_datagrams(), 1u);

  // Refusals: no remote, a second start, a payload type beyond 7 bits.
  RtpPeer lonely;
  EXPECT_FALSE(lonely.StartSending(1));
  ASSERT_TRUE(lonely.Start());
  EXPECT_FALSE(lonely.Start());
  EXPECT_FALSE(lonely.StartSending(1));
  EXPECT_FALSE(lonely.SetPayloadType(128));
  EXPECT_NE(lonely.LoadWav("/nonexistent/tone.wav"), "");
  // A taken port is refused.
  RtpPeerOptions same;
  same.local_port = lonely.port();
  RtpPeer clash(same);
  EXPECT_FALSE(clash.Start());
}

TEST(RtpPeer, StopAndDestructionReleaseBlockedAndRunningThreads) {
  FakeClock clock(FakeClock::Mode::kManual);
  RtpPeerOptions options;
  options.clock = &clock;
  {
    Pair pair(options);
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
  SUCCEED();
}

// Real time: two peers exchange a second of sound in each codec.
TEST(RtpPeerLoopback, TwoPeersHearEachOtherInEveryCodec) {
  struct Row {
    std::uint8_t pt;
    double tolerance_db;
  };
  for (const Row row : {Row{kPtPcmu, 0.3}, Row{kPtPcma, 0.3}, Row{kPtG729, 2.0}}) {
    SCOPED_TRACE(int(row.pt));
    Pair pair(RtpPeerOptions{});
    ASSERT_TRUE(pair.a.SetPayloadType(row.pt));
    ASSERT_TRUE(pair.b.SetPayloadType(row.pt));
    pair.a.SetSource(SoundSource::Tone(1000, -10));
    pair.b.SetSource(SoundSource::Tone(425, -20));
    ASSERT_TRUE(pair.a.StartSending(50));
    ASSERT_TRUE(pair.b.StartSending(50));
    ASSERT_TRUE(pair.b.WaitForReceived(50, 5s));
    ASSERT_TRUE(pair.a.WaitForReceived(50, 5s));

    const SequenceStats st = pair.b.ReceivedStats();
    EXPECT_EQ(st.unique, 50u);
    EXPECT_EQ(st.lost, 0u);
    const auto heard_by_b = pair.b.ReceivedSound();
    ASSERT_EQ(heard_by_b.size(), 50u * 160u);
    const std::span<const std::int16_t> steady_b(heard_by_b.data() + 1600, heard_by_b.size() - 1600);
    EXPECT_NEAR(RmsDbfs(steady_b), -10.0, row.tolerance_db);
    EXPECT_NEAR(DominantFrequency(steady_b), 1000.0, 20.0);
    const auto heard_by_a = pair.a.ReceivedSound();
    const std::span<const std::int16_t> steady_a(heard_by_a.data() + 1600, heard_by_a.size() - 1600);
    EXPECT_NEAR(RmsDbfs(steady_a), -20.0, row.tolerance_db);
    EXPECT_NEAR(ZeroCrossingFrequency(steady_a), 425.0, 425 * 0.02);

    // The received sound written and read back is the same sound.
    const std::string path =
        (std::filesystem::temp_directory_path() / ("rtppeer_rx_" + std::to_string(row.pt) + ".wav")).string();
    ASSERT_EQ(pair.b.WriteReceivedWav(path), "");
    const WavReadResult back = ReadWavAs8kMono(path);
    std::filesystem::remove(path);
    ASSERT_TRUE(back.ok()) << back.error;
    EXPECT_EQ(back.samples, heard_by_b);
  }
}

TEST(RtpPeerLoopback, WavSourceAndG722Fill) {
  const std::string path = (std::filesystem::temp_directory_path() / "rtppeer_src_16k.wav").string();
  ASSERT_EQ(WriteWav(path, MakeTone(800, -10, 16000, 16000), 16000), "");
  Pair pair(RtpPeerOptions{});
  ASSERT_EQ(pair.a.LoadWav(path), "");
  std::filesystem::remove(path);
  ASSERT_TRUE(pair.a.StartSending(10));
  ASSERT_TRUE(pair.b.WaitForReceived(10, 5s));
  EXPECT_NEAR(ZeroCrossingFrequency(pair.b.ReceivedSound()), 800.0, 16.0);

  ASSERT_TRUE(pair.a.SetPayloadType(kPtG722));
  ASSERT_TRUE(pair.a.StartSending(2));
  ASSERT_TRUE(pair.b.WaitForReceived(12, 5s));
  const auto got = pair.b.Received();
  EXPECT_EQ(got[10].outcome, DecodeOutcome::kG722);
  EXPECT_TRUE(got[10].g722_fill_ok);
  EXPECT_TRUE(got[11].g722_fill_ok);
}

}  // namespace
}  // namespace deskline::sim
