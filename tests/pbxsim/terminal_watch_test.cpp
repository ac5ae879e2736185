// The script's waits on the terminal, against the simulator and its call agent with a raw
// socket as the terminal. Waits run on an automatic simulated clock, so that a minute of
// timeout passes at once.
#include "tools/pbxsim/terminal_watch.h"

#include <gtest/gtest.h>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using testing::kRsip;
using testing::Ntfy;
using Outcome = TerminalWatch::Outcome;
using Kind = WaitRequest::Kind;
constexpr std::chrono::seconds kWait{5};

WaitRequest Key(std::uint16_t key) {
  return WaitRequest{Kind::kKey, key, 0, std::chrono::minutes(1)};
}

class TerminalWatchTest : public ::testing::Test {
 protected:
  TerminalWatchTest()
      : pbx_(PbxOptions{.print = [](std::string_view) {},
                        .mgcp = MgcpAgentOptions{.resend = {.max_resends = 0}}}) {}
  void SetUp() override { ASSERT_TRUE(pbx_.Start()); }

  // Sends a command to the agent and takes its answer, so that it has been handled.
  std::string Command(const std::string& text) {
    mgcp_.Send(text, pbx_.mgcp()->endpoint());
    return mgcp_.ReceiveText();
  }

  PbxSimulator pbx_;
  testing::RawTerminal mgcp_, ptap_;
  deskline::testing::FakeClock clock_;  // automatic: a wait's sleeps pass at once
  TerminalWatch watch_{&pbx_, pbx_.mgcp(), nullptr, clock_};
};

TEST_F(TerminalWatchTest, RegisteredTakesAnAcceptedRsipAndAnOpBegin) {
  const WaitRequest registered{Kind::kRegister, 0, 0, std::chrono::seconds(30)};
  EXPECT_EQ(watch_.Wait(registered), Outcome::kTimedOut);
  EXPECT_EQ(clock_.ElapsedMs(), 30'000) << "the whole timeout passed on the clock";

  // The START answer names the agent's port, and points the agent at the terminal's MGCP port
  // before the terminal has said anything there.
  ptap_.Send(testing::StartDatagram(false), pbx_.endpoint());
  const PtapDatagram answer = DecodePtap(ptap_.Receive().value_or(testing::Bytes{}));
  const std::uint16_t port = pbx_.mgcp()->port();
  ASSERT_NE(answer.Find(kTagMgcpPbxPort), nullptr);
  EXPECT_EQ(answer.Find(kTagMgcpPbxPort)->value,
            (testing::Bytes{std::byte(port >> 8), std::byte(port & 0xFF)}));
  EXPECT_EQ(pbx_.mgcp()->terminal(), (platform::UdpEndpoint{0x7F000001, 2427}));
  pbx_.SetAnswers({.start = {.mgcp_pbx_port_from_agent = false}});
  ptap_.Send(testing::StartDatagram(false), pbx_.endpoint());
  const PtapDatagram configured = DecodePtap(ptap_.Receive().value_or(testing::Bytes{}));
  ASSERT_NE(configured.Find(kTagMgcpPbxPort), nullptr);
  EXPECT_EQ(configured.Find(kTagMgcpPbxPort)->value, testing::Hex("0A A7"));

  pbx_.mgcp()->SetAnswers({.rsip = {.code = 502}});
  EXPECT_EQ(Command(kRsip), "502 1\r\n");
  pbx_.mgcp()->SetAnswers({});
  ptap_.Send(testing::OpBegin("00 00 00 02"), pbx_.endpoint());
  ASSERT_TRUE(pbx_.WaitFor([&] { return pbx_.Handled(kTypeOpBegin) == 1; }, kWait));
  EXPECT_FALSE(watch_.Registered()) << "a refused RSIP does not register";
  EXPECT_EQ(Command(kRsip), "200 1 OK\r\n");
  EXPECT_EQ(watch_.Wait(registered), Outcome::kMet);
  // Registration stays met, also after the records are gone.
  pbx_.ClearRecords();
  EXPECT_TRUE(watch_.Registered());
  EXPECT_FALSE(TerminalWatch(&pbx_, nullptr, nullptr, clock_).Registered()) << "no agent";
}

TEST_F(TerminalWatchTest, AKeyPressedBeforeTheWaitCountsOnceAndResendsNever) {
  EXPECT_EQ(Command(kRsip), "200 1 OK\r\n");
  // A quick terminal: the key came before any wait-key; the agent knows it in lower case.
  EXPECT_EQ(Command(Ntfy(2, "X-P/fk0a03")), "200 2 OK\r\n");
  EXPECT_EQ(watch_.Wait(Key(0x0A03)), Outcome::kMet);
  EXPECT_EQ(clock_.ElapsedMs(), 0) << "met at the first look";
  EXPECT_EQ(watch_.Wait(Key(0x0A03)), Outcome::kTimedOut) << "used up by the first wait";
  // A resend (same tid and event) is no new press; a new tid is, whatever its case.
  EXPECT_EQ(Command(Ntfy(2, "X-P/fk0a03")), "200 2 OK\r\n");
  EXPECT_FALSE(watch_.Check(Key(0x0A03)));
  EXPECT_EQ(Command(Ntfy(3, "X-P/FK0A03")), "200 3 OK\r\n");
  EXPECT_TRUE(watch_.Check(Key(0x0A03)));
  // Two presses before one wait are used up together; other keys are counted apart.
  EXPECT_EQ(Command(Ntfy(4, "X-P/fk0200")), "200 4 OK\r\n");
  EXPECT_EQ(Command(Ntfy(5, "X-P/fk0200")), "200 5 OK\r\n");
  EXPECT_EQ(Command(Ntfy(6, "X-P/line(0002)")), "200 6 OK\r\n");
  EXPECT_FALSE(watch_.Check(Key(0x0100)));
  EXPECT_TRUE(watch_.Check(Key(0x0200)));
  EXPECT_FALSE(watch_.Check(Key(0x0200)));
  EXPECT_FALSE(watch_.Check(Key(0x0A03)));
}

TEST_F(TerminalWatchTest, AWaitEndsWhenInterruptedAndMediaNeedsAChannel) {
  int looks = 0;
  EXPECT_EQ(watch_.Wait(Key(0x0200), [&] { return ++looks == 3; }), Outcome::kInterrupted);
  EXPECT_EQ(clock_.ElapsedMs(), 2 * TerminalWatch::kPollInterval.count());
  EXPECT_FALSE(watch_.Check(WaitRequest{Kind::kMedia, 0, 1, {}}));
  EXPECT_EQ(TerminalWatch::Describe(Key(0x0200)), "wait-key 0200");
  EXPECT_EQ(TerminalWatch::Describe(WaitRequest{Kind::kMedia, 0, 250, {}}), "wait-media 250");
}

}  // namespace
}  // namespace deskline::sim
