// The simulator driven by a raw UDP socket acting as the terminal, on loopback ports of the
// system's choosing. Every expected datagram is written out byte by byte.
#include "tools/pbxsim/pbx_simulator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::Bytes;
using testing::Cat;
using testing::ErrorReport;
using testing::Eventually;
using testing::Hex;
using testing::RawTerminal;
using testing::StartDatagram;
using testing::TerminalAck;

constexpr std::chrono::milliseconds kWait{5000};
// Long enough for a datagram that was going to come on loopback; used only to show that one
// has not come *yet* where simulated time holds it back.
constexpr int kNotYetMs = 50;

class PbxSimulatorTest : public ::testing::Test {
 protected:
  explicit PbxSimulatorTest(platform::Clock* clock = nullptr) : sim_(Options(clock)) {}
  void SetUp() override { ASSERT_TRUE(sim_.Start()); }

  static PbxOptions Options(platform::Clock* clock) {
    PbxOptions options;
    options.clock = clock;
    return options;
  }
  void Send(const Bytes& datagram) { terminal_.Send(datagram, sim_.endpoint()); }
  // Sends an Error report as a probe: its ACK must be the next datagram, which shows that
  // nothing was sent in between.
  void ExpectNothingBeforeProbe(std::string_view tid = "00 00 00 63") {
    Send(ErrorReport(tid));
    EXPECT_EQ(terminal_.Receive(), Cat({Hex("50 54 41 50"), Hex(tid), Hex("00 FF")}));
  }

  PbxSimulator sim_;
  RawTerminal terminal_;
};

TEST_F(PbxSimulatorTest, StartIsAnsweredWithItsTidAndTheConfiguredElementsByteForByte) {
  PtapAnswers answers;
  StartAnswer& a = answers.start;
  a.keepalive_timeout_s = 45;
  a.mgcp_pbx_port = 2727;
  a.mgcp_terminal_port = 2427;
  a.host_parameters =
      HostParameters{0x1F40, 0x01, 0x02, 0xC8, 0x04, 0x05, 0x06, {}, 0x07, 0x08, 0x09};
  for (std::uint8_t i = 0; i < 32; ++i) a.host_parameters->param_21.push_back(i);
  a.mgcp_punch_s = 20;
  a.rtp_punch_s = 30;
  sim_.SetAnswers(answers);

  Send(StartDatagram(false, "00 00 00 01"));
  EXPECT_EQ(terminal_.Receive(),
            Hex("50 54 41 50 00 00 00 01 00"
                "1A 00 01 2D  10 00 02 0A A7  11 00 02 09 7B  0F 00 02 1F 40"
                "18 00 01 01  19 00 01 02  1B 00 01 C8  1C 00 01 04  1D 00 01 05  1E 00 01 06"
                "21 00 20 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F"
                "         10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D 1E 1F"
                "24 00 01 07  25 00 01 08  26 00 01 09  A2 00 01 14  A3 00 01 1E"
                "20 00 01 00  FF"));

  const std::optional<TerminalStart> start = sim_.LastStart();
  ASSERT_TRUE(start.has_value());
  EXPECT_FALSE(start->extended);
  EXPECT_EQ(start->start_code, 5);
  EXPECT_EQ(start->ip, 0x7F000001u);
  EXPECT_EQ(Bytes(start->mac.begin(), start->mac.end()), Hex("02 00 00 AA BB CC"));
  EXPECT_EQ(start->identity, Hex("54 45 52 4D 49 4E 41 4C 30 30 30 31"));
  EXPECT_EQ(sim_.terminal(), terminal_.endpoint());
}

TEST_F(PbxSimulatorTest, ExtendedStartGetsTheExtendedResponseAndAnExtendedRequest) {
  PtapAnswers answers;
  answers.start.with_parameters = false;
  answers.start.extended_value = 0x0007;
  answers.start.pbx_class_code = 0x1234;
  answers.start.extended_request = ExtendedRequest::kWhenExtended;
  sim_.SetAnswers(answers);

  Send(StartDatagram(true, "00 00 00 01"));
  EXPECT_EQ(terminal_.Receive(),
            Hex("50 54 41 50 00 00 00 01 00"
                "22 00 20 01 44 45 53 4B 4C 49 4E 45 2D 50 42 58 53 49 4D"  // model descriptor
                "   06 00 42  00 00 00 00 00 00  09 00 07  0A 12 34  00"
                "20 00 01 00 FF"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 01 3C FF"));
  EXPECT_TRUE(sim_.LastStart()->extended);

  Send(TerminalAck("00 00 00 01"));
  ASSERT_TRUE(sim_.WaitFor([&] { return sim_.Acknowledged(1); }, kWait));
  Send(Hex("50 54 41 50 00 00 00 02 3D 5B 00 05 FF FF FF FF FF 07 00 06 02 00 00 AA BB CC FF"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 02 00 FF"));
}

TEST_F(PbxSimulatorTest, RefusalsCarryTheWireCodeAndNoAcceptance) {
  for (std::uint8_t code : {100, 103, 200, 201, 202, 99, 203}) {
    SCOPED_TRACE(static_cast<int>(code));
    PtapAnswers answers;
    answers.start.result_code = code;
    answers.start.with_parameters = false;
    sim_.SetAnswers(answers);
    Send(StartDatagram(false, "00 00 00 01"));
    EXPECT_EQ(terminal_.Receive(),
              Cat({Hex("50 54 41 50 00 00 00 01 00 20 00 01"), Bytes{std::byte{code}}, Hex("FF")}));
  }
  // In extended mode a refusal carries no extended response, so nothing accepts the terminal.
  PtapAnswers answers;
  answers.start.result_code = 200;
  answers.start.with_parameters = false;
  sim_.SetAnswers(answers);
  Send(StartDatagram(true, "00 00 00 02"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 02 00 20 00 01 C8 FF"));
}

TEST_F(PbxSimulatorTest, WrongKindAndShortExtendedResponses) {
  PtapAnswers answers;
  answers.start.with_parameters = false;
  answers.start.extended = ExtendedAnswer::kWrongKind;
  sim_.SetAnswers(answers);
  Send(StartDatagram(false));
  std::optional<Bytes> reply = terminal_.Receive();
  ASSERT_TRUE(reply.has_value());
  const PtapDatagram decoded = DecodePtap(*reply);
  const WireElement* response = decoded.Find(kTagExtendedResponse);
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->value.size(), 32u);
  EXPECT_EQ(Bytes(response->value.begin() + 16, response->value.begin() + 19), Hex("06 00 41"));

  answers.start.extended = ExtendedAnswer::kShort;
  sim_.SetAnswers(answers);
  Send(StartDatagram(true));
  reply = terminal_.Receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(DecodePtap(*reply).Find(kTagExtendedResponse)->value.size(), 31u);
}

TEST_F(PbxSimulatorTest, OpBeginIsAnsweredAcknowledgedOrIgnored) {
  struct Case {
    OpBeginAnswer mode;
    const char* reply;  // empty: none
  };
  const Case cases[] = {
      {OpBeginAnswer::kAnswer, "50 54 41 50 00 00 00 02 00 20 00 01 00 FF"},
      {OpBeginAnswer::kAckOnly, "50 54 41 50 00 00 00 02 00 FF"},
      {OpBeginAnswer::kIgnore, ""},
  };
  for (const Case& c : cases) {
    PtapAnswers answers;
    answers.op_begin = c.mode;
    sim_.SetAnswers(answers);
    Send(Hex("50 54 41 50 00 00 00 02 0F 07 00 06 02 00 00 AA BB CC FF"));
    if (*c.reply) {
      EXPECT_EQ(terminal_.Receive(), Hex(c.reply));
    }
    ExpectNothingBeforeProbe();
  }
}

TEST_F(PbxSimulatorTest, EveryTerminalPacketButAnAckIsAcknowledgedWithItsTid) {
  Send(ErrorReport("00 12 34 56"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 12 34 56 00 FF"));
  Send(Hex("50 54 41 50 00 00 00 07 21 77 00 02 01 02 FF"));  // type 33, unknown
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 07 00 FF"));

  PtapAnswers answers;
  answers.ack_elements = {ByteElement(kTagResult, 0)};
  sim_.SetAnswers(answers);
  Send(ErrorReport("00 00 00 08"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 08 00 20 00 01 00 FF"));
  sim_.SetAnswers({});

  Send(TerminalAck("00 00 00 09"));  // an ACK is never acknowledged
  ExpectNothingBeforeProbe();
  EXPECT_EQ(sim_.TerminalAcks(), std::vector<std::uint32_t>{9});
}

TEST_F(PbxSimulatorTest, DropRuleLosesTheFirstTwoStarts) {
  sim_.AddRule(NetRule::Drop(Direction::kIn, kTypeStart).Occurrences(1, 2));
  PtapAnswers answers;
  answers.start.with_parameters = false;
  sim_.SetAnswers(answers);
  for (int i = 0; i < 3; ++i) Send(StartDatagram(false, "00 00 00 01"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 01 00 20 00 01 00 FF"));
  ExpectNothingBeforeProbe();

  std::vector<Fate> fates;
  for (const Record& r : sim_.Records()) {
    if (r.direction == Direction::kIn && r.decoded.type == kTypeStart) fates.push_back(r.fate);
  }
  EXPECT_EQ(fates, (std::vector<Fate>{Fate::kDropped, Fate::kDropped, Fate::kPassed}));
  EXPECT_EQ(sim_.Count(Direction::kOut, kTypeAck), 2u);
}

TEST_F(PbxSimulatorTest, DuplicateRulesCopyAcksOutAndPacketsIn) {
  sim_.AddRule(NetRule::Duplicate(Direction::kOut, kTypeAck));
  Send(ErrorReport("00 00 00 05"));
  const Bytes ack = Hex("50 54 41 50 00 00 00 05 00 FF");
  EXPECT_EQ(terminal_.Receive(), ack);
  EXPECT_EQ(terminal_.Receive(), ack);
  const std::vector<Record> records = sim_.Records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1].fate, Fate::kPassed);
  EXPECT_EQ(records[2].fate, Fate::kDuplicate);

  sim_.ClearRules();
  sim_.AddRule(NetRule::Duplicate(Direction::kIn, kTypeErrorReport));
  Send(ErrorReport("00 00 00 06"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 06 00 FF"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 06 00 FF"));
}

TEST_F(PbxSimulatorTest, SilenceAndNeverAnswerSendNothingButStillRecord) {
  sim_.SetSilent(true);
  Send(StartDatagram(false));
  ASSERT_TRUE(sim_.WaitForCount(Direction::kIn, kTypeStart, 1, kWait));
  sim_.SetSilent(false);
  ExpectNothingBeforeProbe("00 00 00 02");

  sim_.AddRule(NetRule::Drop(Direction::kOut, std::nullopt));
  Send(StartDatagram(false, "00 00 00 03"));
  ASSERT_TRUE(sim_.WaitForCount(Direction::kOut, kTypeAck, 2, kWait));
  EXPECT_EQ(sim_.Records().back().fate, Fate::kDropped);
  sim_.ClearRules();
  ExpectNothingBeforeProbe("00 00 00 04");
}

TEST_F(PbxSimulatorTest, CommandsGoToTheLearntTerminalUnderTheirOwnTids) {
  EXPECT_EQ(sim_.SendKeepalive(), 0u);  // nobody known yet
  EXPECT_FALSE(sim_.SendRaw(Hex("00")));

  RawTerminal other;
  other.Send(ErrorReport("00 00 00 01"), sim_.endpoint());
  ASSERT_TRUE(other.Receive().has_value());
  Send(ErrorReport("00 00 00 02"));  // the latest sender is the terminal
  ASSERT_TRUE(terminal_.Receive().has_value());

  EXPECT_EQ(sim_.SendKeepalive(), 1u);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 01 10 FF"));
  EXPECT_EQ(sim_.SendEvent(Hex("41 00 02 01 02 FF")), 2u);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 02 15 41 00 02 01 02 FF"));
  EXPECT_EQ(sim_.SendCompulsionRestart(), 3u);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 03 03 FF"));
  const WireElement result[] = {ByteElement(kTagResult, 7)};
  EXPECT_EQ(sim_.SendPacket(33, result), 4u);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 04 21 20 00 01 07 FF"));
  EXPECT_TRUE(sim_.SendRaw(Hex("50 54 41 50 01 00 00 00 10 FF")));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 01 00 00 00 10 FF"));

  // Tids stay below 0x01000000, which the terminal would refuse.
  sim_.SetNextTid(0x00FFFFFF);
  EXPECT_EQ(sim_.SendKeepalive(), 0x00FFFFFFu);
  EXPECT_EQ(sim_.SendKeepalive(), 1u);
}

TEST_F(PbxSimulatorTest, RecordsBothDirectionsDecodedAndRawWithTheTerminalsAcks) {
  const Bytes start = StartDatagram(false);
  Send(start);
  ASSERT_TRUE(terminal_.Receive().has_value());
  ASSERT_EQ(sim_.SendKeepalive(), 1u);
  ASSERT_TRUE(terminal_.Receive().has_value());
  Send(TerminalAck("00 00 00 01"));
  ASSERT_TRUE(sim_.WaitFor([&] { return sim_.Acknowledged(1); }, kWait));
  EXPECT_FALSE(sim_.Acknowledged(2));

  const std::vector<Record> r = sim_.Records();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[0].direction, Direction::kIn);
  EXPECT_EQ(r[0].raw, start);
  EXPECT_EQ(r[0].decoded.type, kTypeStart);
  EXPECT_EQ(r[0].decoded.elements.size(), 6u);
  EXPECT_EQ(r[0].peer, terminal_.endpoint());
  EXPECT_EQ(r[1].direction, Direction::kOut);
  EXPECT_EQ(r[1].decoded.type, kTypeAck);
  EXPECT_EQ(r[1].decoded.tid, 1u);
  EXPECT_EQ(r[2].raw, Hex("50 54 41 50 00 00 00 01 10 FF"));
  EXPECT_EQ(r[3].decoded.type, kTypeAck);
  for (std::size_t i = 1; i < r.size(); ++i) {
    EXPECT_EQ(r[i].index, r[i - 1].index + 1);
    EXPECT_GE(r[i].steady_ns, r[i - 1].steady_ns);
  }
  EXPECT_EQ(sim_.TerminalAcks(), std::vector<std::uint32_t>{1});
  sim_.ClearRecords();
  EXPECT_TRUE(sim_.Records().empty());
  EXPECT_FALSE(sim_.LastStart().has_value());
}

TEST_F(PbxSimulatorTest, MalformedDatagramsAreRecordedAndIgnored) {
  RawTerminal stranger;
  const Bytes bad[] = {
      Hex(""),
      Hex("50 54 41"),
      Hex("50 54 41 50 00 00 00 01 04"),
      Hex("58 54 41 50 00 00 00 01 04 FF"),
      Hex("50 54 41 50 00 00 00 01 04 20 00 09 01"),
      Hex("50 54 41 50 00 00 00 01 04 20 FF FF"),
      Hex("50 54 41 50 00 00 00 01 04 20 00 01 00"),
      Hex("50 54 41 50 00 00 00 01 04 FF FF"),
      Bytes(3000, std::byte{0x50}),
  };
  for (const Bytes& datagram : bad) stranger.Send(datagram, sim_.endpoint());
  ASSERT_TRUE(sim_.WaitForCount(Direction::kIn, std::nullopt, std::size(bad), kWait));
  EXPECT_FALSE(sim_.terminal().has_value());  // learnt from nothing malformed
  ExpectNothingBeforeProbe();

  const std::vector<Record> records = sim_.Records();
  ASSERT_EQ(records.size(), std::size(bad) + 2);
  for (std::size_t i = 0; i < std::size(bad); ++i) {
    EXPECT_EQ(records[i].raw, bad[i]);
    EXPECT_FALSE(records[i].decoded.ok()) << i;
  }
  EXPECT_EQ(records[5].decoded.status, DecodeStatus::kElementPastEnd);
  EXPECT_TRUE(sim_.running());
}

TEST_F(PbxSimulatorTest, StopsJoinsAndStartsAgain) {
  EXPECT_FALSE(sim_.Start());
  Send(ErrorReport("00 00 00 01"));
  ASSERT_TRUE(terminal_.Receive().has_value());
  sim_.Stop();
  sim_.Stop();
  EXPECT_FALSE(sim_.running());
  EXPECT_EQ(sim_.port(), 0);
  EXPECT_EQ(sim_.SendKeepalive(), 0u);
  EXPECT_FALSE(sim_.StartKeepalives(std::chrono::milliseconds(10)));

  ASSERT_TRUE(sim_.Start());
  Send(ErrorReport("00 00 00 02"));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 02 00 FF"));
  EXPECT_EQ(sim_.Records().size(), 4u);  // the records outlive a restart

  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({kLoopbackIp, 0}));
  PbxOptions options;
  options.port = taken.LocalEndpoint()->port;
  PbxSimulator second(options);
  EXPECT_FALSE(second.Start());
}

TEST_F(PbxSimulatorTest, ManyTerminalsAtOnceAreEachAcknowledged) {
  constexpr int kThreads = 4;
  constexpr int kPackets = 100;
  std::atomic<int> acked{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      RawTerminal own;
      for (int i = 0; i < kPackets; ++i) {
        const Bytes report = ErrorReport("00 00 00 00");
        Bytes datagram = report;
        datagram[6] = static_cast<std::byte>(t);
        datagram[7] = static_cast<std::byte>(i);
        own.Send(datagram, sim_.endpoint());
        // Keepalives from the main thread may come in between; skip them.
        for (;;) {
          const std::optional<Bytes> reply = own.Receive();
          if (!reply) return;
          if (DecodePtap(*reply).type == kTypeAck) {
            if (Bytes(reply->begin() + 4, reply->begin() + 8) ==
                Bytes(datagram.begin() + 4, datagram.begin() + 8)) {
              ++acked;
            }
            break;
          }
        }
      }
    });
  }
  for (int i = 0; i < 50; ++i) sim_.SendKeepalive();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(acked.load(), kThreads * kPackets);
  EXPECT_EQ(sim_.Count(Direction::kIn, kTypeErrorReport), std::size_t{kThreads * kPackets});
}

TEST(PbxSimulatorPrint, OneReadableLinePerDatagram) {
  std::vector<std::string> lines;
  std::mutex mutex;
  PbxOptions options;
  options.print = [&](std::string_view line) {
    std::lock_guard lock(mutex);
    lines.emplace_back(line);
  };
  PbxSimulator sim(options);
  ASSERT_TRUE(sim.Start());
  RawTerminal terminal;
  terminal.Send(StartDatagram(false), sim.endpoint());
  ASSERT_TRUE(terminal.Receive().has_value());
  terminal.Send(Hex("50 54 41 50 00 00 00 02 0F 20 00 09 01"), sim.endpoint());
  ASSERT_TRUE(sim.WaitForCount(Direction::kIn, std::nullopt, 2, kWait));
  sim.Stop();

  std::lock_guard lock(mutex);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("TRM->PBX START tid=1 127.0.0.1:"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("[20]=05 [01]=(49 bytes) 01 04 00 06 18 00 02 02 .."), std::string::npos)
      << lines[0];
  EXPECT_NE(lines[0].find("[06]=7F 00 00 01 END"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("PBX->TRM ACK tid=1"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("OP_BEGIN tid=2"), std::string::npos) << lines[2];
  EXPECT_NE(lines[2].find("MALFORMED (element past end, 13 bytes)"), std::string::npos) << lines[2];
}

// Delays and periodic keepalives on a manual simulated clock: nothing moves until the test
// moves time.
class PbxSimulatorTimeTest : public PbxSimulatorTest {
 protected:
  PbxSimulatorTimeTest() : PbxSimulatorTest(&clock_) {}
  static FakeClock clock_;
};
FakeClock PbxSimulatorTimeTest::clock_{FakeClock::Mode::kManual};

TEST_F(PbxSimulatorTimeTest, DelayRulesHoldDatagramsForTheirSimulatedTime) {
  sim_.SetTerminal(terminal_.endpoint());
  sim_.AddRule(NetRule::Delay(Direction::kOut, kTypeEvent, 200));
  const std::int64_t sent_at = clock_.SteadyNs();
  ASSERT_EQ(sim_.SendEvent(Hex("FF")), 1u);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(199);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(1);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 01 15 FF"));
  const Record out = sim_.Records().back();
  EXPECT_EQ(out.fate, Fate::kDelayed);
  EXPECT_EQ(out.steady_ns - sent_at, 200'000'000);

  sim_.AddRule(NetRule::Delay(Direction::kIn, kTypeErrorReport, 100));
  Send(ErrorReport("00 00 00 04"));
  ASSERT_TRUE(sim_.WaitForCount(Direction::kIn, kTypeErrorReport, 1, kWait));
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(100);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 04 00 FF"));
}

TEST_F(PbxSimulatorTimeTest, PeriodicKeepalivesFollowTheClockUntilStopped) {
  sim_.SetTerminal(terminal_.endpoint());
  ASSERT_TRUE(sim_.StartKeepalives(std::chrono::milliseconds(1000)));
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 01 10 FF"));  // at once
  ASSERT_TRUE(clock_.AwaitSleepers(1));
  clock_.AdvanceMs(999);
  EXPECT_EQ(terminal_.Receive(kNotYetMs), std::nullopt);
  clock_.AdvanceMs(1);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 02 10 FF"));
  clock_.AdvanceMs(1000);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 03 10 FF"));

  sim_.StopKeepalives();
  clock_.AdvanceMs(5000);
  // The stale tick runs, sends nothing and leaves the timer idle (off the clock).
  ASSERT_TRUE(Eventually([&] { return clock_.sleepers() == 0; }));
  EXPECT_EQ(sim_.SendCompulsionRestart(), 4u);
  EXPECT_EQ(terminal_.Receive(), Hex("50 54 41 50 00 00 00 04 03 FF"));
  EXPECT_EQ(sim_.Count(Direction::kOut, kTypeKeepalive), 3u);
}

}  // namespace
}  // namespace deskline::sim
