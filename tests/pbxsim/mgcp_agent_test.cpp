// The call agent driven by a raw UDP socket acting as the terminal, with MGCP texts written out
// here. Schedules (late answers, resends) run on a manual simulated clock.
#include "tools/pbxsim/mgcp_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "mgcp_test_util.h"
#include "testing/fake_clock.h"
#include "tools/pbxsim/pbx_simulator.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::kEndpoint;
using testing::MgcpTerminal;
using testing::Text;

constexpr std::chrono::milliseconds kWait{5000};
// Long enough for an answer that was going to come on loopback; used only where a probe
// cannot show that one has not come.
constexpr int kNotYetMs = 50;

const std::string kRsip = "RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n";

std::string Ntfy(int tid, std::string_view event) {
  return "NTFY " + std::to_string(tid) + " d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: " +
         std::string(event) + "\r\n";
}

class MgcpAgentTest : public ::testing::Test {
 protected:
  explicit MgcpAgentTest(platform::Clock* clock = nullptr) : agent_(Options(clock)) {}
  void SetUp() override { ASSERT_TRUE(agent_.Start()); }

  static MgcpAgentOptions Options(platform::Clock* clock) {
    MgcpAgentOptions options;
    options.clock = clock;
    // On the real clock a resend could come between the datagrams a test expects.
    if (!clock) options.resend.max_resends = 0;
    return options;
  }
  void Send(std::string_view text) { terminal_.Send(text, agent_.endpoint()); }
  std::string Receive() { return terminal_.Receive(); }
  // The terminal registers, so that the agent knows where and whom to send to.
  void Register() {
    Send(kRsip);
    ASSERT_EQ(Receive(), "200 1 OK\r\n");
  }
  // An NTFY as a probe: its answer must be the next datagram, which shows that nothing else
  // was sent in between.
  void ExpectNothingBeforeProbe(int tid = 99) {
    Send(Ntfy(tid, "X-P/fk0100"));
    EXPECT_EQ(Receive(), "200 " + std::to_string(tid) + " OK\r\n");
  }

  MgcpAgent agent_;
  MgcpTerminal terminal_;
};

TEST_F(MgcpAgentTest, RsipIsAnsweredAndTeachesTheTerminalsAddressAndEndpoint) {
  EXPECT_FALSE(agent_.terminal().has_value());
  EXPECT_EQ(agent_.SendAuep(), 0u) << "nobody to send to yet";
  Register();
  EXPECT_EQ(agent_.terminal(), terminal_.endpoint());
  EXPECT_EQ(agent_.endpoint_name(), kEndpoint);

  const std::vector<Record> rsips = agent_.Messages("RSIP");
  ASSERT_EQ(rsips.size(), 1u);
  EXPECT_EQ(rsips[0].channel, Channel::kMgcp);
  EXPECT_EQ(rsips[0].direction, Direction::kIn);
  EXPECT_EQ(rsips[0].raw, Text(kRsip));
  EXPECT_EQ(rsips[0].mgcp.tid, 1u);
  EXPECT_EQ(rsips[0].mgcp.endpoint, kEndpoint);
  EXPECT_EQ(rsips[0].peer, terminal_.endpoint());
  ASSERT_TRUE(agent_.WaitForCount(Direction::kOut, MgcpKind::kResponse, 1, kWait));
  EXPECT_EQ(agent_.Records().back().raw, Text("200 1 OK\r\n"));
}

TEST_F(MgcpAgentTest, RsipAnswerTakesAnyCodeOrNone) {
  MgcpAgentAnswers answers;
  answers.rsip.code = 403;
  agent_.SetAnswers(answers);
  Send(kRsip);
  EXPECT_EQ(Receive(), "403 1\r\n");

  answers.rsip.code = 502;
  answers.rsip.commentary = "Not ready";
  agent_.SetAnswers(answers);
  Send(kRsip);
  EXPECT_EQ(Receive(), "502 1 Not ready\r\n");

  answers.rsip.answer = false;
  agent_.SetAnswers(answers);
  Send(kRsip);
  ExpectNothingBeforeProbe();
  EXPECT_EQ(agent_.Messages("RSIP").size(), 3u) << "an unanswered RSIP is still recorded";

  answers.silent = true;
  agent_.SetAnswers(answers);
  Send(Ntfy(5, "X-P/fk0200"));
  EXPECT_EQ(terminal_.Receive(kNotYetMs), "(nothing)");
  EXPECT_EQ(agent_.LastObservedEvent(), "X-P/fk0200") << "silent, yet still reading";
}

TEST_F(MgcpAgentTest, NtfyIsAcknowledgedAndItsEventsRead) {
  Register();
  Send("NTFY 2 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: X-P/fk0200\r\nK: 1\r\n");
  EXPECT_EQ(Receive(), "200 2 OK\r\n");
  EXPECT_TRUE(agent_.WaitForEvent("X-P/fk0200", kWait));
  EXPECT_EQ(agent_.LastObservedEvent(), "X-P/fk0200");

  Send("NTFY 3 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: X-P/line(0002)\r\n");
  EXPECT_EQ(Receive(), "200 3 OK\r\n");
  EXPECT_EQ(agent_.LastObservedEvent(), "X-P/line(0002)");

  // A key that the terminal has no line for still makes an NTFY, without O:.
  Send("NTFY 4 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nK: 3\r\n");
  EXPECT_EQ(Receive(), "200 4 OK\r\n");
  EXPECT_EQ(agent_.LastObservedEvent(), "");
  EXPECT_EQ(agent_.ObservedEvents(), (std::vector<std::string>{"X-P/fk0200", "X-P/line(0002)"}));

  const std::vector<Record> ntfys = agent_.Messages("NTFY");
  ASSERT_EQ(ntfys.size(), 3u);
  EXPECT_EQ(*ntfys[0].mgcp.Header("K"), "1");
  EXPECT_LT(ntfys[0].steady_ns, ntfys[2].steady_ns + 1);
}

TEST_F(MgcpAgentTest, TerminalDlcxIsAnswered250AndOtherVerbs504) {
  Register();
  Send("DLCX 1 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 0\r\n");
  EXPECT_EQ(Receive(), "250 1 OK\r\n");
  Send("AUCX 6 d1@0200aabbccdd MGCP 1.0\r\n");
  EXPECT_EQ(Receive(), "504 6\r\n");
}

TEST_F(MgcpAgentTest, EveryCommandByteForByteAndTheCallFollowsTheAnswers) {
  Register();
  const std::uint32_t ring = agent_.SendSignals({xp::Ring(1, 2, 3), xp::Lamp(0x0201, "r3i")});
  EXPECT_EQ(ring, 1000u);
  EXPECT_EQ(Receive(),
            "RQNT 1000 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\n"
            "S: X-P/ring(010203),X-P/ks(0201,r3i)\r\n");
  Send("200 1000 OK\r\n");

  EXPECT_EQ(agent_.SendRqnt({{xp::Display(0, 0, "Hi")}, {xp::Volume(3, 4)}}, "X-P/fk"), 1001u);
  EXPECT_EQ(Receive(),
            "RQNT 1001 d1@0200aabbccdd MGCP 1.0\r\nX: 2\r\nR: X-P/fk\r\n"
            "S: X-P/lcdp(210000024869)\r\nS: X-P/vctl(0304)\r\n");

  EXPECT_FALSE(agent_.call().has_value());
  EXPECT_EQ(agent_.SendMdcx(ConnectionMode::kInactive), 0u) << "no call to modify";
  const std::uint32_t crcx = agent_.SendCrcx(MediaOffer{0x7F000001, 40002, {18}, 7});
  EXPECT_EQ(crcx, 1002u);
  EXPECT_EQ(Receive(),
            "CRCX 1002 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nL: p:20, a:G729\r\n"
            "M: sendrecv\r\n\r\nv=0\r\no=- 7 7 IN IP4 127.0.0.1\r\ns=-\r\n"
            "c=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40002 RTP/AVP 18\r\n"
            "a=rtpmap:18 G729/8000\r\n");
  Send("100 1002\r\n");
  Send("200 1002 OK\r\nI: 5\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\nm=audio 8000 RTP/AVP 0\r\n");
  ASSERT_TRUE(agent_.WaitForFinal(crcx, kWait));
  ASSERT_TRUE(agent_.call().has_value());
  EXPECT_EQ(agent_.call()->connection_id, "5");

  EXPECT_EQ(agent_.SendMdcx(ConnectionMode::kInactive), 1003u);
  EXPECT_EQ(Receive(),
            "MDCX 1003 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 5\r\nM: inactive\r\n");
  EXPECT_EQ(agent_.SendMdcx(ConnectionMode::kSendRecv, MediaOffer{0x7F000001, 40004, {8}, 8}),
            1004u);
  EXPECT_EQ(Receive(),
            "MDCX 1004 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 5\r\nM: sendrecv\r\n\r\n"
            "v=0\r\no=- 8 8 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
            "m=audio 40004 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n");
  EXPECT_EQ(agent_.call()->mode, ConnectionMode::kSendRecv);

  EXPECT_EQ(agent_.SendDlcx(), 1005u);
  EXPECT_EQ(Receive(), "DLCX 1005 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 5\r\n");
  EXPECT_FALSE(agent_.call().has_value());
  EXPECT_EQ(agent_.SendDlcx(), 1006u);
  EXPECT_EQ(Receive(), "DLCX 1006 d1@0200aabbccdd MGCP 1.0\r\n") << "endpoint-wide";

  EXPECT_EQ(agent_.SendAuep(), 1007u);
  EXPECT_EQ(Receive(), "AUEP 1007 d1@0200aabbccdd MGCP 1.0\r\n");
  EXPECT_EQ(agent_.SendCommand("MDCX", "C: 9\r\nM: confrnce\r\n"), 1008u);
  EXPECT_EQ(Receive(), "MDCX 1008 d1@0200aabbccdd MGCP 1.0\r\nC: 9\r\nM: confrnce\r\n");
  // The next call gets the next call id.
  agent_.SendCrcx(MediaOffer{});
  EXPECT_NE(Receive().find("C: 00000002\r\n"), std::string::npos);
}

TEST_F(MgcpAgentTest, ResponsesAreRecordedWithCodeTidAndSdp) {
  Register();
  const std::uint32_t crcx = agent_.SendCrcx(MediaOffer{});
  Receive();
  Send("100 " + std::to_string(crcx) + "\r\n");
  ASSERT_TRUE(agent_.WaitFor(
      [&] { return agent_.Transaction(crcx)->state == TransactionState::kProvisional; }, kWait));
  EXPECT_FALSE(agent_.TerminalSdp(crcx).has_value());
  Send("200 " + std::to_string(crcx) +
       " OK\r\nI: 0\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\n"
       "t=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");
  ASSERT_TRUE(agent_.WaitForFinal(crcx, kWait));

  const std::optional<MgcpTransaction> t = agent_.Transaction(crcx);
  ASSERT_TRUE(t.has_value());
  EXPECT_EQ(t->verb, "CRCX");
  ASSERT_EQ(t->responses.size(), 2u);
  EXPECT_EQ(t->responses[0].code, 100);
  EXPECT_EQ(t->responses[1].code, 200);
  EXPECT_EQ(t->responses[1].tid, crcx);
  EXPECT_EQ(t->responses[1].connection_id, "0");
  EXPECT_EQ(t->final_response(), &t->responses[1]);
  const std::optional<SdpInfo> answer = agent_.TerminalSdp(crcx);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->port, 8000);
  EXPECT_EQ(answer->ip, 0x7F000001u);
  EXPECT_EQ(answer->rtpmaps, (std::vector<RtpMap>{{0, "PCMU/8000"}}));
  EXPECT_EQ(agent_.call()->connection_id, "0");

  // The terminal's MDCX answer carries its SDP on the provisional response.
  const std::uint32_t mdcx = agent_.SendMdcx(ConnectionMode::kSendRecv, MediaOffer{});
  Receive();
  Send("100 " + std::to_string(mdcx) +
       "\r\nI: 0\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\nm=audio 8002 RTP/AVP 0\r\n");
  Send("200 " + std::to_string(mdcx) + " OK\r\n");
  ASSERT_TRUE(agent_.WaitForFinal(mdcx, kWait));
  EXPECT_EQ(agent_.TerminalSdp(mdcx)->port, 8002);
  EXPECT_EQ(agent_.LastTerminalSdp()->port, 8002);

  // A response to nothing the agent sent is recorded and counted, and changes nothing.
  Send("200 4711 OK\r\n");
  ASSERT_TRUE(agent_.WaitFor([&] { return agent_.unmatched_responses() == 1; }, kWait));
  EXPECT_FALSE(agent_.Transaction(4711).has_value());
}

TEST_F(MgcpAgentTest, MalformedTextsAreRecordedAndIgnored) {
  const std::string bad[] = {
      "",                                       // port punching
      "HELLO\r\n",                              // no MGCP at all
      "RSIP 1 d1@0200aabbccdd\r\n",             // no protocol version
      "RSIP one d1@0200aabbccdd MGCP 1.0\r\n",  // no transaction id
      "NTFY 2 d1@0200aabbccdd MGCP 1.0\r\nO X-P/fk0200\r\n",  // header without colon
      std::string("NTFY 3 d1@0200aabbccdd MGCP 1.0\r\n\0\0", 35),
  };
  for (const std::string& text : bad) Send(text);
  ASSERT_TRUE(agent_.WaitForCount(Direction::kIn, std::nullopt, std::size(bad), kWait));
  EXPECT_FALSE(agent_.terminal().has_value()) << "nothing learnt from malformed texts";
  EXPECT_EQ(agent_.endpoint_name(), "");
  EXPECT_FALSE(agent_.LastObservedEvent().has_value());

  const std::vector<Record> records = agent_.Records();
  ASSERT_EQ(records.size(), std::size(bad));
  EXPECT_EQ(records[0].mgcp.status, MgcpStatus::kEmpty);
  EXPECT_EQ(records[1].mgcp.status, MgcpStatus::kBadFirstLine);
  EXPECT_EQ(records[2].mgcp.status, MgcpStatus::kBadFirstLine);
  EXPECT_EQ(records[3].mgcp.status, MgcpStatus::kBadTid);
  EXPECT_EQ(records[4].mgcp.status, MgcpStatus::kBadHeader);
  EXPECT_EQ(records[5].mgcp.status, MgcpStatus::kNotText);
  EXPECT_EQ(records[5].raw.size(), 35u) << "kept raw, whole";
  // No answer went to any of them: the first thing to arrive answers the good RSIP.
  Register();
}

TEST_F(MgcpAgentTest, NetworkRulesApplyToTheMgcpSocket) {
  // The first answer to the RSIP is lost; the terminal's resend gets the second.
  agent_.AddRule(NetRule::Drop(Direction::kOut, static_cast<std::uint8_t>(MgcpKind::kResponse))
                     .Occurrences(1, 1));
  Send(kRsip);
  ExpectNothingBeforeProbe(2);
  Register();
  std::vector<Record> records = agent_.Records();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[1].direction, Direction::kOut);
  EXPECT_EQ(records[1].fate, Fate::kDropped);

  // An RQNT goes out twice; an NTFY from the terminal is lost on the way in.
  agent_.AddRule(NetRule::Duplicate(Direction::kOut, static_cast<std::uint8_t>(MgcpKind::kRqnt)));
  agent_.AddRule(NetRule::Drop(Direction::kIn, static_cast<std::uint8_t>(MgcpKind::kNtfy))
                     .Occurrences(1, 1));
  const std::uint32_t tid = agent_.SendSignals({xp::RingOff()});
  const std::string rqnt = Receive();
  EXPECT_EQ(rqnt.substr(0, 9), "RQNT " + std::to_string(tid));
  EXPECT_EQ(Receive(), rqnt);
  Send(Ntfy(3, "X-P/fk0200"));
  ExpectNothingBeforeProbe(4);
  // Only the two probes were handled; the lost NTFY is recorded all the same.
  EXPECT_EQ(agent_.ObservedEvents(), (std::vector<std::string>{"X-P/fk0100", "X-P/fk0100"}));
  EXPECT_EQ(agent_.Count(Direction::kIn, MgcpKind::kNtfy), 3u);
}

// --- schedules, on a manual simulated clock ---

// A base of its own, so that the clock is made before the agent that uses it.
struct ManualClock {
  FakeClock clock_{FakeClock::Mode::kManual};
};

class MgcpAgentScheduleTest : protected ManualClock, public MgcpAgentTest {
 protected:
  MgcpAgentScheduleTest() : MgcpAgentTest(&clock_) {}
  // The timer thread measures its wait when it goes to sleep; time moves on only once it
  // sleeps, so that no step of the clock slips past a wait not yet begun.
  void Advance(std::int64_t ms) {
    ASSERT_TRUE(clock_.AwaitSleepers(1));
    clock_.AdvanceMs(ms);
  }
};

TEST_F(MgcpAgentScheduleTest, LateRsipAnswerComesOnTime) {
  MgcpAgentAnswers answers;
  answers.rsip.delay = std::chrono::milliseconds(300);
  agent_.SetAnswers(answers);
  Send(kRsip);
  ASSERT_TRUE(agent_.WaitForCommand("RSIP", 1, kWait));
  ExpectNothingBeforeProbe(2);
  Advance(299);
  ExpectNothingBeforeProbe(3);
  Advance(1);
  EXPECT_EQ(Receive(), "200 1 OK\r\n");
  const std::vector<Record> records = agent_.Records();
  EXPECT_EQ(records.back().steady_ns - records.front().steady_ns, 300'000'000);
}

TEST_F(MgcpAgentScheduleTest, UnansweredCommandIsResentOnScheduleThenTimesOut) {
  Register();
  const std::uint32_t tid = agent_.SendAuep();
  const std::string first = Receive();
  ASSERT_EQ(first, "AUEP " + std::to_string(tid) + " d1@0200aabbccdd MGCP 1.0\r\n");
  const std::int64_t sent = clock_.SteadyNs();

  // Resends at 500, 1500, 3500 and 7500 ms, each the same text; none before its time.
  std::int64_t at_ms = 0;
  for (const std::int64_t due_ms : {500, 1500, 3500, 7500}) {
    Advance(due_ms - 1 - at_ms);
    ExpectNothingBeforeProbe(static_cast<int>(due_ms));
    Advance(1);
    at_ms = due_ms;
    EXPECT_EQ(Receive(), first) << due_ms;
  }
  std::vector<std::int64_t> times_ms;
  for (const Record& r : agent_.Records()) {
    if (r.direction == Direction::kOut && r.mgcp.ok() && r.mgcp.kind() == MgcpKind::kAuep) {
      times_ms.push_back((r.steady_ns - sent) / 1'000'000);
    }
  }
  EXPECT_EQ(times_ms, (std::vector<std::int64_t>{0, 500, 1500, 3500, 7500}));
  EXPECT_EQ(agent_.Transaction(tid)->resends, 4);

  // One period (4000 ms) after the last resend it is given up.
  Advance(3999);
  ExpectNothingBeforeProbe(11499);
  EXPECT_EQ(agent_.Transaction(tid)->state, TransactionState::kWaiting);
  Advance(1);
  EXPECT_FALSE(agent_.WaitForFinal(tid, kWait));
  EXPECT_EQ(agent_.Transaction(tid)->state, TransactionState::kTimedOut);
  clock_.AdvanceMs(10000);  // nothing is scheduled any more
  ExpectNothingBeforeProbe(20000);
}

TEST_F(MgcpAgentScheduleTest, AnyResponseStopsTheResends) {
  Register();
  ResendPolicy policy;
  policy.first_period = std::chrono::milliseconds(100);
  policy.max_period = std::chrono::milliseconds(150);
  policy.max_resends = 10;
  agent_.SetResendPolicy(policy);

  const std::uint32_t tid = agent_.SendCrcx(MediaOffer{});
  const std::string crcx = Receive();
  Advance(100);
  EXPECT_EQ(Receive(), crcx);
  Advance(150);
  EXPECT_EQ(Receive(), crcx) << "periods double up to the ceiling";
  Send("100 " + std::to_string(tid) + "\r\n");
  ASSERT_TRUE(agent_.WaitFor(
      [&] { return agent_.Transaction(tid)->state == TransactionState::kProvisional; }, kWait));
  Advance(1000);
  ExpectNothingBeforeProbe();
  Send("200 " + std::to_string(tid) + " OK\r\nI: 1\r\n");
  EXPECT_TRUE(agent_.WaitForFinal(tid, kWait));

  // Without resends a command goes out once and is given up after the first period.
  policy.max_resends = 0;
  agent_.SetResendPolicy(policy);
  const std::uint32_t once = agent_.SendAuep();
  Receive();
  Advance(100);
  EXPECT_FALSE(agent_.WaitForFinal(once, kWait));
  ExpectNothingBeforeProbe(98);
}

// --- inside the simulator ---

TEST(PbxSimulatorWithAgent, StartAnswerDeliversTheAgentsPortAndPointsTheAgentAtTheTerminal) {
  std::vector<std::string> lines;
  std::mutex lines_mutex;
  PbxOptions options;
  options.mgcp = MgcpAgentOptions{};
  options.print = [&](std::string_view line) {
    std::lock_guard lock(lines_mutex);
    lines.emplace_back(line);
  };
  PbxSimulator pbx(options);
  ASSERT_NE(pbx.mgcp(), nullptr);
  ASSERT_TRUE(pbx.Start());
  const std::uint16_t agent_port = pbx.mgcp()->port();
  ASSERT_NE(agent_port, 0);
  ASSERT_NE(agent_port, pbx.port());

  testing::RawTerminal ptap;
  ptap.Send(testing::StartDatagram(false), pbx.endpoint());
  std::optional<testing::Bytes> answer = ptap.Receive();
  ASSERT_TRUE(answer.has_value());
  const PtapDatagram decoded = DecodePtap(*answer);
  const WireElement* port = decoded.Find(kTagMgcpPbxPort);
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->value, (testing::Bytes{std::byte(agent_port >> 8), std::byte(agent_port & 0xFF)}));
  EXPECT_EQ(pbx.mgcp()->terminal(), (platform::UdpEndpoint{0x7F000001, 2427}));

  // Asked not to, it delivers the configured port.
  PtapAnswers answers = pbx.answers();
  answers.start.mgcp_pbx_port_from_agent = false;
  pbx.SetAnswers(answers);
  ptap.Send(testing::StartDatagram(false), pbx.endpoint());
  answer = ptap.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(DecodePtap(*answer).Find(kTagMgcpPbxPort)->value, testing::Hex("0A A7"));

  // Both protocols print through the one sink.
  MgcpTerminal terminal;
  terminal.Send(kRsip, pbx.mgcp()->endpoint());
  EXPECT_EQ(terminal.Receive(), "200 1 OK\r\n");
  pbx.Stop();
  EXPECT_FALSE(pbx.mgcp()->running());
  std::lock_guard lock(lines_mutex);
  // Each side prints on its own threads, so only the lines are fixed, not their interleaving.
  auto printed = [&](std::string_view text) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  };
  EXPECT_EQ(lines.size(), 6u);
  EXPECT_EQ(printed("TRM->PBX START tid=1"), 2);
  EXPECT_EQ(printed("TRM->PBX MGCP RSIP 1 d1@0200aabbccdd MGCP 1.0"), 1);
  EXPECT_EQ(printed("PBX->TRM MGCP 200 1 OK"), 1);
}

}  // namespace
}  // namespace deskline::sim
