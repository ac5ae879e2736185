// The simulator driven by a raw UDP socket acting as the terminal, on loopback ports of the
// system's choosing. Every expected datagram is written out byte by byte.
#include "tools/pbxsim/pbx_simulator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::Bytes;
using testing::ErrorReport;
using testing::Hex;
using testing::Ptap;
using testing::RawTerminal;
using testing::StartDatagram;

constexpr std::chrono::milliseconds kWait{5000};
// Long enough for a datagram that was going to come on loopback; used only where simulated
// time holds one back.
constexpr int kNotYetMs = 50;

class PbxSimulatorTest : public ::testing::Test {
 protected:
  // The print sink makes every datagram, malformed ones too, go through the record line.
  explicit PbxSimulatorTest(platform::Clock* clock = nullptr)
      : sim_(PbxOptions{.clock = clock, .print = [](std::string_view) {}}) {}
  void SetUp() override { ASSERT_TRUE(sim_.Start()); }

  void Send(const Bytes& datagram) { terminal_.Send(datagram, sim_.endpoint()); }
  std::optional<Bytes> Exchange(const Bytes& datagram) {
    Send(datagram);
    return terminal_.Receive();
  }
  void Answer(const StartAnswer& start) { sim_.SetAnswers({.start = start}); }
  // An Error report as a probe: its ACK must be the next datagram, which shows that nothing
  // was sent in between.
  void ExpectNothingBeforeProbe(std::string_view tid = "00 00 00 63") {
    EXPECT_EQ(Exchange(ErrorReport(tid)), Ptap(tid, "00 FF"));
  }

  PbxSimulator sim_;
  RawTerminal terminal_;
};

TEST_F(PbxSimulatorTest, StartAnswerCarriesEveryElementInOrderWithTheResultLast) {
  StartAnswer a{.keepalive_timeout_s = 45, .mgcp_pbx_port = 2727, .mgcp_terminal_port = 2427,
                .host_parameters = HostParameters{0x1F40, 1, 2, 0xC8, 4, 5, 6, {}, 7, 8, 9},
                .mgcp_punch_s = 20, .rtp_punch_s = 30};
  for (std::uint8_t i = 0; i < 32; ++i) a.host_parameters->param_21.push_back(i);
  Answer(a);
  EXPECT_EQ(Exchange(StartDatagram(false)),
            Hex("50 54 41 50 00 00 00 01 00"
                "1A 00 01 2D  10 00 02 0A A7  11 00 02 09 7B  0F 00 02 1F 40"
                "18 00 01 01  19 00 01 02  1B 00 01 C8  1C 00 01 04  1D 00 01 05  1E 00 01 06"
                "21 00 20 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F"
                "         10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D 1E 1F"
                "24 00 01 07  25 00 01 08  26 00 01 09  A2 00 01 14  A3 00 01 1E"
                "20 00 01 00  FF"));
  const TerminalStart start = sim_.LastStart().value_or(TerminalStart{});
  EXPECT_EQ(start.start_code, 5);
  EXPECT_EQ(start.ip, 0x7F000001u);
  EXPECT_EQ(Bytes(start.mac.begin(), start.mac.end()), Hex("02 00 00 AA BB CC"));
  EXPECT_EQ(start.identity, testing::Text("TERMINAL0001"));
}

TEST_F(PbxSimulatorTest, ExtendedStartGetsTheExtendedResponseAndAnExtendedRequest) {
  Answer({.with_parameters = false, .extended_value = 0x0007, .pbx_class_code = 0x1234,
          .extended_request = ExtendedRequest::kWhenExtended});
  EXPECT_EQ(Exchange(StartDatagram(true)),
            Hex("50 54 41 50 00 00 00 01 00"
                "22 00 20 01 44 45 53 4B 4C 49 4E 45 2D 50 42 58 53 49 4D"  // model descriptor
                "   06 00 42  00 00 00 00 00 00  09 00 07  0A 12 34  00"
                "20 00 01 00 FF"));
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 01", "3C FF"));
  EXPECT_TRUE(sim_.LastStart()->extended);
  Send(testing::TerminalAck("00 00 00 01"));
  ASSERT_TRUE(sim_.WaitFor([&] { return sim_.Acknowledged(1); }, kWait));
  EXPECT_FALSE(sim_.Acknowledged(2));
  const Bytes extended_answer =
      Ptap("00 00 00 02", "3D 5B 00 05 FF FF FF FF FF 07 00 06 02 00 00 AA BB CC FF");
  EXPECT_EQ(Exchange(extended_answer), Ptap("00 00 00 02", "00 FF"));
}

// In extended mode a refusal (100-103, 200-202) carries no extended response: it accepts
// nothing. Forced kinds go out in either mode.
TEST_F(PbxSimulatorTest, ExtendedResponseFollowsTheResultCodeOrIsForced) {
  using X = ExtendedAnswer;
  const struct {
    int code;
    ExtendedAnswer mode;
    bool extended_start;
    std::size_t size;  // of element 0x22; 0: none
    const char* kind;
  } rows[] = {
      {99, X::kAuto, true, 32, "06 00 42"},  {100, X::kAuto, true, 0, ""},
      {103, X::kAuto, true, 0, ""},          {104, X::kAuto, true, 32, "06 00 42"},
      {199, X::kAuto, true, 32, "06 00 42"}, {200, X::kAuto, true, 0, ""},
      {202, X::kAuto, true, 0, ""},          {203, X::kAuto, true, 32, "06 00 42"},
      {0, X::kAuto, false, 0, ""},           {0, X::kWrongKind, false, 32, "06 00 41"},
      {0, X::kShort, true, 31, "06 00 42"},  {0, X::kNone, true, 0, ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.code);
    const auto code = static_cast<std::uint8_t>(r.code);
    Answer({.result_code = code, .with_parameters = false, .extended = r.mode});
    const PtapDatagram decoded =
        DecodePtap(Exchange(StartDatagram(r.extended_start)).value_or(Bytes{}));
    ASSERT_EQ(decoded.elements.size(), r.size ? 2u : 1u);
    EXPECT_EQ(decoded.elements.back(), ByteElement(kTagResult, code));
    if (r.size == 0) continue;
    const std::vector<std::byte>& response = decoded.elements.front().value;
    EXPECT_EQ(decoded.elements.front().tag, kTagExtendedResponse);
    ASSERT_EQ(response.size(), r.size);
    EXPECT_EQ(Bytes(response.begin() + 16, response.begin() + 19), Hex(r.kind));
  }
}

TEST_F(PbxSimulatorTest, EveryOtherPacketButAnAckIsAcknowledgedWithItsTid) {
  const std::pair<OpBeginAnswer, const char*> op_begin[] = {
      {OpBeginAnswer::kAnswer, "00 20 00 01 05 FF"},
      {OpBeginAnswer::kAckOnly, "00 FF"},
      {OpBeginAnswer::kIgnore, ""}};
  for (const auto& [mode, reply] : op_begin) {
    sim_.SetAnswers({.op_begin = mode, .op_begin_result = 5});
    Send(testing::OpBegin("00 00 00 02"));
    if (*reply) {
      EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 02", reply));
    }
    ExpectNothingBeforeProbe();
  }
  EXPECT_EQ(Exchange(ErrorReport("00 12 34 56")), Ptap("00 12 34 56", "00 FF"));
  const Bytes unknown_type = Ptap("00 00 00 07", "21 77 00 02 01 02 FF");
  EXPECT_EQ(Exchange(unknown_type), Ptap("00 00 00 07", "00 FF"));
  sim_.SetAnswers({.ack_elements = {ByteElement(kTagResult, 0)}});
  EXPECT_EQ(Exchange(ErrorReport("00 00 00 08")), Ptap("00 00 00 08", "00 20 00 01 00 FF"));
  sim_.SetAnswers({});
  Send(testing::TerminalAck("00 00 00 09"));
  ExpectNothingBeforeProbe();
  EXPECT_EQ(sim_.TerminalAcks(), std::vector<std::uint32_t>{9});
}

TEST_F(PbxSimulatorTest, RulesDropAndDuplicateAtTheSocketAndEveryCopyIsRecorded) {
  sim_.AddRule(NetRule::Drop(Direction::kIn, kTypeErrorReport).Occurrences(1, 1));
  sim_.AddRule(NetRule::Duplicate(Direction::kOut, kTypeAck));
  sim_.AddRule(NetRule::Duplicate(Direction::kIn, kTypeErrorReport).Occurrences(3, 1));
  Send(ErrorReport("00 00 00 05"));
  EXPECT_EQ(Exchange(ErrorReport("00 00 00 06")), Ptap("00 00 00 06", "00 FF")) << "5 is lost";
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 06", "00 FF"));
  Send(ErrorReport("00 00 00 07"));  // handled twice, each ACK sent twice
  for (int i = 0; i < 4; ++i) EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 07", "00 FF"));
  const std::vector<Record> records = sim_.Records();
  ASSERT_GE(records.size(), 4u);
  EXPECT_EQ(records[0].raw, ErrorReport("00 00 00 05"));
  EXPECT_EQ(records[0].peer, terminal_.endpoint());
  const Fate fates[] = {records[0].fate, records[1].fate, records[2].fate, records[3].fate};
  using enum Fate;
  EXPECT_THAT(fates, ::testing::ElementsAre(kDropped, kPassed, kPassed, kDuplicate));
  EXPECT_EQ(sim_.Handled(kTypeErrorReport), 3u);
}

TEST_F(PbxSimulatorTest, OwnPacketsGoToTheLatestSenderNumberedBelowTheRefusedRange) {
  EXPECT_EQ(sim_.SendKeepalive(), 0u);  // nobody known yet
  EXPECT_FALSE(sim_.SendRaw(Hex("00")));
  RawTerminal other;
  other.Send(ErrorReport("00 00 00 01"), sim_.endpoint());
  ASSERT_TRUE(other.Receive().has_value());
  ASSERT_TRUE(Exchange(ErrorReport("00 00 00 02")).has_value());

  EXPECT_EQ(sim_.SendKeepalive(), 1u);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 01", "10 FF"));
  EXPECT_EQ(sim_.SendEvent(Hex("41 00 02 01 02 FF")), 2u);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 02", "15 41 00 02 01 02 FF"));
  EXPECT_EQ(sim_.SendCompulsionRestart(), 3u);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 03", "03 FF"));
  const WireElement result[] = {ByteElement(kTagResult, 7)};
  EXPECT_EQ(sim_.SendPacket(33, result), 4u);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 04", "21 20 00 01 07 FF"));
  EXPECT_TRUE(sim_.SendRaw(Hex("50 54 41 50 01 00 00 00 10 FF")));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 01 00 00 00 10 FF"));
  sim_.SetNextTid(0x00FFFFFF);
  EXPECT_EQ(sim_.SendKeepalive(), 0x00FFFFFFu);
  EXPECT_EQ(sim_.SendKeepalive(), 1u);
}

TEST_F(PbxSimulatorTest, MalformedDatagramsAreRecordedWholeAndTeachNothing) {
  RawTerminal stranger;
  const Bytes bad[] = {Hex(""), Hex("50 54 41"), Hex("58 54 41 50 00 00 00 01 04 FF"),
                       Ptap("00 00 00 01", "04 20 00 09 01"), Ptap("00 00 00 01", "04 FF FF"),
                       Bytes(3000, std::byte{0x50})};
  for (const Bytes& datagram : bad) stranger.Send(datagram, sim_.endpoint());
  ASSERT_TRUE(sim_.WaitForCount(Direction::kIn, std::nullopt, std::size(bad), kWait));
  EXPECT_FALSE(sim_.terminal().has_value());
  ExpectNothingBeforeProbe();
  const std::vector<Record> records = sim_.Records();
  ASSERT_EQ(records.size(), std::size(bad) + 2);
  for (std::size_t i = 0; i < std::size(bad); ++i) {
    EXPECT_EQ(records[i].raw, bad[i]);
    EXPECT_FALSE(records[i].decoded.ok()) << i;
  }
}

TEST_F(PbxSimulatorTest, StopsJoinsAndStartsAgain) {
  EXPECT_FALSE(sim_.Start());
  ASSERT_TRUE(Exchange(ErrorReport("00 00 00 01")).has_value());
  sim_.Stop();
  sim_.Stop();
  EXPECT_EQ(sim_.SendKeepalive(), 0u);
  EXPECT_FALSE(sim_.StartKeepalives(std::chrono::milliseconds(10)));
  ASSERT_TRUE(sim_.Start());
  EXPECT_EQ(Exchange(ErrorReport("00 00 00 02")), Ptap("00 00 00 02", "00 FF"));
  EXPECT_EQ(sim_.Records().size(), 4u);  // the records outlive a restart

  PbxSimulator second(PbxOptions{.port = sim_.port()});
  EXPECT_FALSE(second.Start()) << "a taken port";
}

TEST_F(PbxSimulatorTest, ManyTerminalsAtOnceAreEachAcknowledged) {
  constexpr int kThreads = 4, kPackets = 100;
  std::atomic<int> acked{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      RawTerminal own;
      for (int i = 0; i < kPackets; ++i) {
        Bytes datagram = ErrorReport("00 00 00 00");
        datagram[6] = static_cast<std::byte>(t);
        datagram[7] = static_cast<std::byte>(i);
        own.Send(datagram, sim_.endpoint());
        std::optional<Bytes> reply;
        do {  // keepalives from the main thread may come in between
          reply = own.Receive();
        } while (reply && DecodePtap(*reply).type != kTypeAck);
        if (!reply) return;
        if (std::equal(datagram.begin() + 4, datagram.begin() + 8, reply->begin() + 4)) ++acked;
      }
    });
  }
  for (int i = 0; i < 50; ++i) sim_.SendKeepalive();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(acked.load(), kThreads * kPackets);
}

// Delays and periodic keepalives on a manual simulated clock: nothing moves until the test
// moves time.
class PbxSimulatorTimeTest : public PbxSimulatorTest {
 protected:
  PbxSimulatorTimeTest() : PbxSimulatorTest(&clock_) {}
  void SetUp() override {
    PbxSimulatorTest::SetUp();
    sim_.SetTerminal(terminal_.endpoint());
  }
  static FakeClock clock_;
};
FakeClock PbxSimulatorTimeTest::clock_{FakeClock::Mode::kManual};

TEST_F(PbxSimulatorTimeTest, DelayRulesHoldDatagramsForTheirSimulatedTime) {
  sim_.AddRule(NetRule::Delay(Direction::kOut, kTypeEvent, 200));
  const std::int64_t sent_at = clock_.SteadyNs();
  ASSERT_EQ(sim_.SendEvent(Hex("FF")), 1u);
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(199);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(1);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 01", "15 FF"));
  EXPECT_EQ(sim_.Records().back().fate, Fate::kDelayed);
  EXPECT_EQ(sim_.Records().back().steady_ns - sent_at, 200'000'000);

  sim_.AddRule(NetRule::Delay(Direction::kIn, kTypeErrorReport, 100));
  Send(ErrorReport("00 00 00 04"));
  ASSERT_TRUE(sim_.WaitForCount(Direction::kIn, kTypeErrorReport, 1, kWait));
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(99);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(1);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 04", "00 FF"));
}

TEST_F(PbxSimulatorTimeTest, PeriodicKeepalivesFollowTheClockWithoutDriftUntilStopped) {
  ASSERT_TRUE(sim_.StartKeepalives(std::chrono::milliseconds(1000)));
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 01", "10 FF"));  // at once
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(999);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(1);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 02", "10 FF"));
  clock_.AdvanceMs(1000);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 03", "10 FF"));

  sim_.StopKeepalives();
  clock_.AdvanceMs(5000);
  // The stale tick runs, sends nothing and leaves the timer idle (off the clock).
  ASSERT_TRUE(testing::Eventually([&] { return clock_.sleepers() == 0; }));
  EXPECT_EQ(sim_.SendCompulsionRestart(), 4u);
  EXPECT_EQ(terminal_.Receive(), Ptap("00 00 00 04", "03 FF"));
}

}  // namespace
}  // namespace deskline::sim
