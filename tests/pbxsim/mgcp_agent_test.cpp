// The call agent driven by a raw UDP socket acting as the terminal, with MGCP texts written out
// here. Late answers and resends run on a manual simulated clock.
#include "tools/pbxsim/mgcp_agent.h"

#include <gtest/gtest.h>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::kRsip;
using testing::Ntfy;
using testing::Text;

constexpr std::chrono::milliseconds kWait{5000};
// A command to or from the terminal's endpoint: first words, then the lines after the first.
std::string Cmd(std::string_view verb_and_tid, std::string_view rest = "") {
  return std::string(verb_and_tid) + " d1@0200aabbccdd MGCP 1.0\r\n" + std::string(rest);
}

class MgcpAgentTest : public ::testing::Test {
 protected:
  // On the real clock a resend could come between the datagrams a test expects. The print
  // sink makes every datagram, malformed ones too, go through the record line.
  explicit MgcpAgentTest(platform::Clock* clock = nullptr)
      : agent_(MgcpAgentOptions{.clock = clock, .print = [](std::string_view) {},
                                .resend = {.max_resends = clock ? 4 : 0}}) {}
  void SetUp() override { ASSERT_TRUE(agent_.Start()); }

  void Send(std::string_view text) { terminal_.Send(text, agent_.endpoint()); }
  std::string Receive() { return terminal_.ReceiveText(); }
  std::string Exchange(std::string_view text) {
    Send(text);
    return Receive();
  }
  void Register() { ASSERT_EQ(Exchange(kRsip), "200 1 OK\r\n"); }
  // An NTFY as a probe: its answer must be the next datagram, which shows that nothing else
  // was sent in between.
  void ExpectNothingBeforeProbe(int tid = 99) {
    EXPECT_EQ(Exchange(Ntfy(tid, "X-P/fk0100")), "200 " + std::to_string(tid) + " OK\r\n");
  }

  MgcpAgent agent_;
  testing::RawTerminal terminal_;
};

TEST_F(MgcpAgentTest, AnswersEachVerbAsConfiguredAndLearnsTheTerminal) {
  EXPECT_EQ(agent_.SendAuep(), 0u) << "nobody to send to yet";
  Register();
  EXPECT_EQ(agent_.terminal(), terminal_.endpoint());
  EXPECT_EQ(agent_.endpoint_name(), "d1@0200aabbccdd");
  EXPECT_EQ(agent_.Messages("RSIP").at(0).raw, Text(kRsip));
  // Several O: lines and bare LF line ends; a key without a line makes an NTFY without O:.
  EXPECT_EQ(Exchange("NTFY 2 d1@0200aabbccdd MGCP 1.0\nX: 1\nO: X-P/fk0a03\nK: 4\n"
                     "O: X-P/line(0002)\n"),
            "200 2 OK\r\n");
  EXPECT_EQ(Exchange(Cmd("NTFY 3", "X: 1\r\nK: 3\r\n")), "200 3 OK\r\n");
  EXPECT_EQ(agent_.LastObservedEvent(), "");
  EXPECT_EQ(agent_.ObservedEvents(), (std::vector<std::string>{"X-P/fk0a03", "X-P/line(0002)"}));
  EXPECT_EQ(Exchange(Cmd("dlcx 4", "C: 00000001\r\nI: 0\r\n")), "250 4 OK\r\n");
  EXPECT_EQ(Exchange(Cmd("AUCX 5")), "504 5\r\n");

  MgcpAgentAnswers answers{.rsip = {.code = 502, .commentary = "Not ready"}};
  agent_.SetAnswers(answers);
  EXPECT_EQ(Exchange(kRsip), "502 1 Not ready\r\n");
  EXPECT_EQ(agent_.AcceptedRsips(), 1u);
  answers.rsip = {.answer = false};
  agent_.SetAnswers(answers);
  Send(kRsip);
  ExpectNothingBeforeProbe();
  answers.silent = true;
  agent_.SetAnswers(answers);
  Send(Ntfy(6, "X-P/fk0200"));
  EXPECT_EQ(terminal_.ReceiveText(50), "(nothing)");
  EXPECT_EQ(agent_.LastObservedEvent(), "X-P/fk0200") << "silent, yet still reading";
}

TEST_F(MgcpAgentTest, EveryCommandByteForByteAndTheCallFollowsTheAnswers) {
  Register();
  EXPECT_EQ(agent_.SendSignals({xp::Ring(1, 2, 3), xp::Lamp(0x0201, "r3i")}), 1000u);
  EXPECT_EQ(Receive(), Cmd("RQNT 1000", "X: 1\r\nS: X-P/ring(010203),X-P/ks(0201,r3i)\r\n"));
  EXPECT_EQ(agent_.SendRqnt({{xp::Display(1, 5, "Hi")}, {xp::Volume(3, 4)}}, "X-P/fk"), 1001u);
  EXPECT_EQ(Receive(), Cmd("RQNT 1001", "X: 2\r\nR: X-P/fk\r\nS: X-P/lcdp(210105024869)\r\n"
                                        "S: X-P/vctl(0304)\r\n"));

  EXPECT_EQ(agent_.SendMdcx(ConnectionMode::kInactive), 0u) << "no call to modify";
  const std::uint32_t crcx = agent_.SendCrcx(MediaOffer{0x0A000002, 40002, {18, 0, 101}, 7});
  EXPECT_EQ(Receive(), Cmd("CRCX 1002",
                           "C: 00000001\r\nL: p:20, a:G729\r\nM: sendrecv\r\n\r\n"
                           "v=0\r\no=- 7 7 IN IP4 10.0.0.2\r\ns=-\r\nc=IN IP4 10.0.0.2\r\nt=0 0\r\n"
                           "m=audio 40002 RTP/AVP 18 0 101\r\n"
                           "a=rtpmap:18 G729/8000\r\na=rtpmap:0 PCMU/8000\r\n"));
  Send("100 1002\r\n");
  Send("200 1002 OK\r\nI: 5\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\nm=audio 8000 RTP/AVP 0\r\n"
       "a=rtpmap:0 PCMU/8000\r\n");
  ASSERT_TRUE(agent_.WaitForFinal(crcx, kWait));
  const std::optional<MgcpTransaction> t = agent_.Transaction(crcx);
  ASSERT_EQ(t->responses.size(), 2u);
  EXPECT_EQ(t->responses[0].code, 100);
  EXPECT_EQ(t->final_response(), &t->responses[1]);
  const std::optional<SdpInfo> sdp = agent_.TerminalSdp(crcx);
  ASSERT_TRUE(sdp.has_value());
  EXPECT_EQ(sdp->ip, 0x7F000001u);
  EXPECT_EQ(sdp->port, 8000);
  EXPECT_EQ(sdp->rtpmaps, (std::vector<RtpMap>{{0, "PCMU/8000"}}));
  EXPECT_EQ(agent_.call()->connection_id, "5");

  EXPECT_EQ(agent_.SendMdcx(ConnectionMode::kInactive), 1003u);
  EXPECT_EQ(Receive(), Cmd("MDCX 1003", "C: 00000001\r\nI: 5\r\nM: inactive\r\n"));
  // The terminal's MDCX answer carries its SDP on the provisional response.
  const std::uint32_t mdcx =
      agent_.SendMdcx(ConnectionMode::kSendRecv, MediaOffer{0x7F000001, 40004, {8}, 8});
  EXPECT_EQ(Receive(), Cmd("MDCX 1004",
                           "C: 00000001\r\nI: 5\r\nM: sendrecv\r\n\r\n"
                           "v=0\r\no=- 8 8 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
                           "m=audio 40004 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n"));
  Send("100 1004\r\nI: 5\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\nm=audio 8002 RTP/AVP 8\r\n");
  Send("200 1004 OK\r\n");
  ASSERT_TRUE(agent_.WaitForFinal(mdcx, kWait));
  EXPECT_EQ(agent_.TerminalSdp(mdcx)->port, 8002);
  EXPECT_EQ(agent_.LastTerminalSdp()->port, 8002);

  EXPECT_EQ(agent_.SendDlcx(), 1005u);
  EXPECT_EQ(Receive(), Cmd("DLCX 1005", "C: 00000001\r\nI: 5\r\n"));
  EXPECT_FALSE(agent_.call().has_value());
  agent_.SendDlcx();
  EXPECT_EQ(Receive(), Cmd("DLCX 1006")) << "endpoint-wide";
  agent_.SendAuep();
  EXPECT_EQ(Receive(), Cmd("AUEP 1007"));
  agent_.SendCommand("MDCX", "C: 9\r\nM: confrnce\r\n");
  EXPECT_EQ(Receive(), Cmd("MDCX 1008", "C: 9\r\nM: confrnce\r\n"));
  agent_.SendCrcx(MediaOffer{});
  EXPECT_NE(Receive().find("C: 00000002\r\n"), std::string::npos) << "a fresh call id";

  // A response to nothing the agent sent is counted, and changes nothing.
  Send("200 4711 OK\r\n");
  ASSERT_TRUE(agent_.WaitFor([&] { return agent_.unmatched_responses() == 1; }, kWait));
  EXPECT_FALSE(agent_.Transaction(4711).has_value());
}

TEST_F(MgcpAgentTest, MalformedTextsAreRecordedWholeAndIgnored) {
  // Port punching, a bad first line, a bad header line, control bytes.
  const std::string bad[] = {"", "HELLO\r\n", Cmd("NTFY 2", "O X-P/fk0200\r\n"),
                             Cmd("NTFY 3", std::string(2, '\0'))};
  for (const std::string& text : bad) Send(text);
  ASSERT_TRUE(agent_.WaitForCount(Direction::kIn, std::nullopt, std::size(bad), kWait));
  EXPECT_FALSE(agent_.terminal().has_value());
  EXPECT_FALSE(agent_.LastObservedEvent().has_value());
  const std::vector<Record> records = agent_.Records();
  ASSERT_EQ(records.size(), std::size(bad));
  for (std::size_t i = 0; i < std::size(bad); ++i) {
    EXPECT_EQ(records[i].raw, Text(bad[i]));
    EXPECT_FALSE(records[i].mgcp.ok()) << i;
  }
  Register();  // nothing was answered: the first thing to arrive answers the good RSIP
}

TEST_F(MgcpAgentTest, NetworkRulesApplyToTheMgcpSocket) {
  auto kind = [](MgcpKind k) { return static_cast<std::uint8_t>(k); };
  agent_.AddRule(NetRule::Drop(Direction::kOut, kind(MgcpKind::kResponse)).Occurrences(1, 1));
  Send(kRsip);
  ExpectNothingBeforeProbe(2);
  EXPECT_EQ(agent_.Records().at(1).fate, Fate::kDropped);
  agent_.AddRule(NetRule::Duplicate(Direction::kOut, kind(MgcpKind::kRqnt)));
  agent_.AddRule(NetRule::Drop(Direction::kIn, kind(MgcpKind::kNtfy)).Occurrences(1, 1));
  agent_.SendSignals({xp::RingOff()});
  const std::string rqnt = Receive();
  EXPECT_EQ(rqnt.substr(0, 9), "RQNT 1000");
  EXPECT_EQ(Receive(), rqnt);
  Send(Ntfy(3, "X-P/fk0200"));
  ExpectNothingBeforeProbe(4);
  EXPECT_EQ(agent_.ObservedEvents(), (std::vector<std::string>{"X-P/fk0100", "X-P/fk0100"}));
  EXPECT_EQ(agent_.Count(Direction::kIn, MgcpKind::kNtfy), 3u) << "the lost one is recorded";
}

class MgcpAgentScheduleTest : public MgcpAgentTest {
 protected:
  MgcpAgentScheduleTest() : MgcpAgentTest(&clock_) {}
  // The timer thread measures its wait when it goes to sleep: step time only once it sleeps.
  void Advance(std::int64_t ms) {
    ASSERT_TRUE(clock_.AwaitSleepers(1));
    clock_.AdvanceMs(ms);
  }
  TransactionState State(std::uint32_t tid) { return agent_.Transaction(tid)->state; }
  static FakeClock clock_;
};
FakeClock MgcpAgentScheduleTest::clock_{FakeClock::Mode::kManual};

TEST_F(MgcpAgentScheduleTest, LateAnswerComesOnTime) {
  agent_.SetAnswers({.rsip = {.delay = std::chrono::milliseconds(300)}});
  Send(kRsip);
  ASSERT_TRUE(agent_.WaitForCommand("RSIP", 1, kWait));
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
  // Resends at 500, 1500, 3500 and 7500 ms, each the same text; none before its time.
  std::int64_t at_ms = 0;
  for (const std::int64_t due_ms : {500, 1500, 3500, 7500}) {
    Advance(due_ms - 1 - at_ms);
    ExpectNothingBeforeProbe(static_cast<int>(due_ms));
    Advance(1);
    at_ms = due_ms;
    EXPECT_EQ(Receive(), first) << due_ms;
  }
  EXPECT_EQ(agent_.Transaction(tid)->resends, 4);
  // One period (4000 ms) after the last resend it is given up.
  Advance(3999);
  ExpectNothingBeforeProbe(11499);
  EXPECT_EQ(State(tid), TransactionState::kWaiting);
  Advance(1);
  EXPECT_FALSE(agent_.WaitForFinal(tid, kWait));
  EXPECT_EQ(State(tid), TransactionState::kTimedOut);
  clock_.AdvanceMs(10000);
  ExpectNothingBeforeProbe(20000);
  // A late final response still answers it.
  Send("200 " + std::to_string(tid) + " OK\r\n");
  EXPECT_TRUE(agent_.WaitFor([&] { return State(tid) == TransactionState::kAnswered; }, kWait));
}

TEST_F(MgcpAgentScheduleTest, AProvisionalResponseStopsTheResendsAtTheirCeiling) {
  Register();
  agent_.SetResendPolicy({.max_resends = 10, .first_period = std::chrono::milliseconds(100),
                          .max_period = std::chrono::milliseconds(150)});
  const std::uint32_t tid = agent_.SendCrcx(MediaOffer{});
  const std::string crcx = Receive();
  Advance(100);
  EXPECT_EQ(Receive(), crcx);
  Advance(149);
  ExpectNothingBeforeProbe();
  Advance(1);
  EXPECT_EQ(Receive(), crcx) << "periods double up to the ceiling";
  Send("100 " + std::to_string(tid) + "\r\n");
  ASSERT_TRUE(agent_.WaitFor([&] { return State(tid) == TransactionState::kProvisional; }, kWait));
  Advance(1000);
  ExpectNothingBeforeProbe(98);
  Send("200 " + std::to_string(tid) + " OK\r\nI: 1\r\n");
  EXPECT_TRUE(agent_.WaitForFinal(tid, kWait));
}

}  // namespace
}  // namespace deskline::sim
