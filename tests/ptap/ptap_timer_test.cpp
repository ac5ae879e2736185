// The two schedules of the PTAP client in simulated time, one pass at a time as the worker
// threads would run them: the retransmission list and the connection timer.
#include <gtest/gtest.h>

#include "ptap/ptap.h"
#include "testing/fake_clock.h"
#include "testing/trace_capture.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using testing::Bytes;
using testing::FakeClock;
using testing::Hex;
using testing::PbxDatagram;

constexpr platform::CivilTime kMorning{2026, 11, 16, 9, 5, 0, 0};

class PtapTimerTest : public ::testing::Test {
 protected:
  explicit PtapTimerTest(platform::CivilTime start = kMorning)
      : clock_(FakeClock::Mode::kManual, start),
        ptap_(clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                  [this](std::span<const std::uint8_t> d) {
                                    sent_at_ms_.push_back(clock_.ElapsedMs());
                                    return sent_.Record(d);
                                  }}) {}

  void SetUp() override {
    init_ = testing::MakeInitData(0);
    ASSERT_EQ(ptap_.SetNetworkData(&init_), 0);
    ptap_.SetParent(&parent_);
    ASSERT_EQ(ptap_.Prepare(), 0);
  }

  // Runs the retransmission thread's passes, one each 5 ms, up to `until_ms` of elapsed time.
  void ScanUntil(std::int64_t until_ms) {
    while (clock_.ElapsedMs() < until_ms) {
      clock_.AdvanceMs(5);
      ptap_.ScanRetransmissions();
    }
  }
  std::vector<std::int64_t> SendTimesOfTid(std::uint32_t tid) const {
    std::vector<std::int64_t> times;
    const auto sent = sent_.Sent();
    for (std::size_t i = 0; i < sent.size(); ++i) {
      const Bytes& d = sent[i];
      const std::uint32_t t = (std::uint32_t{d[4]} << 24) | (d[5] << 16) | (d[6] << 8) | d[7];
      if (d[8] != PTAP_TYPE_ACK && t == tid) times.push_back(sent_at_ms_[i]);
    }
    return times;
  }
  int Receive(const PbxDatagram& d) { return ptap_.ProcessDatagram(d.data(), d.size()); }

  FakeClock clock_;
  testing::SentLog sent_;
  std::vector<std::int64_t> sent_at_ms_;
  testing::RecordingParent parent_;
  NetworkInitData init_{};
  CPtap ptap_;
};

// ---- Retransmission list ---------------------------------------------------------------------

TEST_F(PtapTimerTest, AnUnansweredPacketGoesOutSeventeenTimesAndLeavesAt20500) {
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  const Bytes first = sent_.Sent().front();
  ScanUntil(20495);
  EXPECT_EQ(ptap_.buffer().count(), 1);
  ScanUntil(20500);
  EXPECT_EQ(ptap_.buffer().count(), 0);

  const std::vector<std::int64_t> expected = {0,     500,   1500,  3500,  7500,  8500,
                                              9500,  10500, 11500, 12500, 13500, 14500,
                                              15500, 16500, 17500, 18500, 19500};
  EXPECT_EQ(SendTimesOfTid(1), expected);
  for (const Bytes& d : sent_.Sent()) EXPECT_EQ(d, first) << "every attempt is the same datagram";
  ScanUntil(30000);
  EXPECT_EQ(sent_.size(), 17u);
}

TEST_F(PtapTimerTest, AcknowledgedWithin500MsIsNeverResent) {
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  ScanUntil(495);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).End());
  ScanUntil(25000);
  EXPECT_EQ(SendTimesOfTid(1), std::vector<std::int64_t>{0});
}

TEST_F(PtapTimerTest, AnAckAfterTheThirdRetransmissionStopsTheSchedule) {
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  ptap_.SendPacket(PTAP_TYPE_OP_BEGIN, nullptr, 0);
  ScanUntil(3600);
  EXPECT_EQ(ptap_.buffer().AttemptsOf(1), 3);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).End());
  ScanUntil(25000);
  EXPECT_EQ(SendTimesOfTid(1), (std::vector<std::int64_t>{0, 500, 1500, 3500}));
  EXPECT_EQ(SendTimesOfTid(2).size(), 17u) << "the other packet keeps its own schedule";
}

TEST_F(PtapTimerTest, TheFiftyFirstPacketIsSentOnceAndNotKept) {
  testing::TraceCapture trace;
  const std::uint8_t code = 1;
  for (int i = 0; i < 50; ++i) ptap_.SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1);
  EXPECT_FALSE(trace.Has("[PTAP :: ERROR] Copy to buffer operation - Buffer is full"));
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1), 23) << "the result is unchanged";
  EXPECT_TRUE(trace.Has("[PTAP :: ERROR] Copy to buffer operation - Buffer is full"));
  EXPECT_EQ(ptap_.buffer().count(), 50);
  ScanUntil(25000);
  EXPECT_EQ(SendTimesOfTid(51), std::vector<std::int64_t>{0});
  EXPECT_EQ(SendTimesOfTid(50).size(), 17u);
}

TEST_F(PtapTimerTest, OnlyOneSpentItemLeavesInAPass) {
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  ptap_.SendPacket(PTAP_TYPE_OP_BEGIN, nullptr, 0);
  ScanUntil(20495);
  ASSERT_EQ(ptap_.buffer().count(), 2);
  clock_.AdvanceMs(5);
  ptap_.ScanRetransmissions();
  EXPECT_EQ(ptap_.buffer().count(), 1);
  EXPECT_EQ(ptap_.buffer().AttemptsOf(2), 16);
  ptap_.ScanRetransmissions();
  EXPECT_EQ(ptap_.buffer().count(), 0);
}

class PtapMidnightTest : public PtapTimerTest {
 protected:
  PtapMidnightTest() : PtapTimerTest({2026, 12, 31, 23, 59, 59, 800}) {}
};

TEST_F(PtapMidnightTest, AnItemAliveAcrossMidnightIsSentOnceEarlyAndGoesOn) {
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  ScanUntil(25000);
  const std::vector<std::int64_t> times = SendTimesOfTid(1);
  ASSERT_EQ(times.size(), 17u);
  // At midnight the step is negative, which as unsigned is due at once.
  EXPECT_EQ(std::vector<std::int64_t>(times.begin(), times.begin() + 5),
            (std::vector<std::int64_t>{0, 200, 1200, 3200, 7200}));
  EXPECT_EQ(times.back(), 19200);
  EXPECT_EQ(ptap_.buffer().count(), 0);
}

// ---- Connection timer ----------------------------------------------------------------------

TEST_F(PtapTimerTest, SilenceLongerThanTheTimeoutIsReportedExactlyOnce) {
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Byte(0x1A, 30).End());
  ASSERT_TRUE(ptap_.parameters_complete());
  const std::int64_t t0 = clock_.SteadyNs();
  auto next = ptap_.PollConnection();
  ASSERT_TRUE(next.has_value());
  EXPECT_TRUE(ptap_.keepalive().armed());
  EXPECT_EQ(*next, t0 + 31'000'000'000) << "strict: 31 whole seconds for a timeout of 30";

  clock_.AdvanceMs(30'999);
  EXPECT_TRUE(ptap_.PollConnection().has_value());
  EXPECT_TRUE(parent_.Messages().empty());
  clock_.AdvanceMs(1);
  EXPECT_FALSE(ptap_.PollConnection().has_value());
  EXPECT_EQ(parent_.Messages(), std::vector<std::string>{"PTAP_NOCONN"});
  EXPECT_EQ(parent_.wrong_types(), 0) << "sent as type 21";
  EXPECT_TRUE(ptap_.connection_lost());
  EXPECT_FALSE(ptap_.parameters_complete());
  EXPECT_FALSE(ptap_.keepalive().armed());
  EXPECT_EQ(ptap_.keepalive().last_keepalive_ns(), 0);

  // A later delivery re-arms nothing that reports again in this run.
  Receive(PbxDatagram(PTAP_TYPE_KEEPALIVE, 2).Byte(0x1A, 1).End());
  clock_.AdvanceMs(5000);
  ptap_.PollConnection();
  ptap_.PollConnection();
  EXPECT_EQ(parent_.Messages().size(), 1u);
}

TEST_F(PtapTimerTest, KeepaliveRequestsPushTheDeadline) {
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x1A, 5).End());
  ptap_.PollConnection();
  for (int i = 0; i < 10; ++i) {
    clock_.AdvanceMs(5'500);
    EXPECT_TRUE(ptap_.PollConnection().has_value()) << i;
    Receive(PbxDatagram(PTAP_TYPE_KEEPALIVE, 10 + i).End());
  }
  // An ACK from the PBX or any other packet is no sign of life.
  clock_.AdvanceMs(3'000);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 3).End());
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 4).Byte(0x20, 1).End());
  clock_.AdvanceMs(3'000);
  EXPECT_FALSE(ptap_.PollConnection().has_value());
  EXPECT_EQ(parent_.Messages().back(), "PTAP_NOCONN");
}

TEST_F(PtapTimerTest, WithoutATimeoutTheTimerNeverArms) {
  for (int i = 0; i < 3; ++i) Receive(PbxDatagram(PTAP_TYPE_KEEPALIVE, 1 + i).End());
  Receive(PbxDatagram(PTAP_TYPE_ACK, 9).Byte(0x20, 0).Byte(0x1A, 0).End());
  clock_.AdvanceMs(1'000'000);
  EXPECT_TRUE(ptap_.PollConnection().has_value());
  EXPECT_FALSE(ptap_.keepalive().armed());
  EXPECT_TRUE(parent_.Messages().empty());
}

TEST_F(PtapTimerTest, KeepaliveRequestsBeforeTheTimeoutRestartNothingVisible) {
  Receive(PbxDatagram(PTAP_TYPE_KEEPALIVE, 1).End());
  clock_.AdvanceMs(10'000);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 2).Byte(0x1A, 3).End());  // the element stamps the time
  clock_.AdvanceMs(3'999);
  EXPECT_TRUE(ptap_.PollConnection().has_value());
  clock_.AdvanceMs(1);
  EXPECT_FALSE(ptap_.PollConnection().has_value());
  EXPECT_EQ(parent_.Messages().size(), 1u);
}

TEST_F(PtapTimerTest, TimeoutZeroAfterArmingMakesAnyWholeSecondATimeout) {
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x1A, 60).End());
  ptap_.PollConnection();
  ASSERT_TRUE(ptap_.keepalive().armed());
  Receive(PbxDatagram(33, 2).Byte(0x1A, 0).End());
  EXPECT_EQ(ptap_.keepalive().threshold(), 0u);
  clock_.AdvanceMs(999);
  EXPECT_TRUE(ptap_.PollConnection().has_value());
  clock_.AdvanceMs(1);
  EXPECT_FALSE(ptap_.PollConnection().has_value());
  EXPECT_EQ(parent_.Messages(), std::vector<std::string>{"PTAP_NOCONN"});
}

TEST_F(PtapTimerTest, ATimeoutOf255IsSecondsNotMinusOne) {
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x1A, 0xFF).End());
  PtapParameterContainer c{};
  ptap_.GetParameterContainer(&c);
  EXPECT_EQ(c.keepalive_timeout, -1) << "the host's copy is sign-extended";
  EXPECT_EQ(ptap_.GetParameter(0x8), 255);
  ptap_.PollConnection();
  clock_.AdvanceMs(255'999);
  EXPECT_TRUE(ptap_.PollConnection().has_value());
  clock_.AdvanceMs(1);
  EXPECT_FALSE(ptap_.PollConnection().has_value());
  EXPECT_EQ(parent_.Messages().size(), 1u);
}

TEST_F(PtapTimerTest, ATimeoutWhileTheDeliveryIsOpenEndsTheTimerWithoutAReport) {
  // No container: the loader cannot complete the delivery.
  CPtap bare(clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                 [](std::span<const std::uint8_t>) { return true; }});
  bare.SetParent(&parent_);
  const PbxDatagram d = PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x1A, 2).End();
  bare.ProcessDatagram(d.data(), d.size());
  ASSERT_FALSE(bare.parameters_complete());
  bare.PollConnection();
  clock_.AdvanceMs(3'000);
  EXPECT_FALSE(bare.PollConnection().has_value());
  EXPECT_TRUE(parent_.Messages().empty());
  EXPECT_FALSE(bare.connection_lost());
}

}  // namespace
}  // namespace deskline
