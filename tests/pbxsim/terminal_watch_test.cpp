// The script's waits on the terminal, against the simulator and its call agent with a raw
// socket as the terminal. Waits that must time out run on an automatic simulated clock, so
// that a minute passes at once.
#include "tools/pbxsim/terminal_watch.h"

#include <gtest/gtest.h>

#include "pbxsim_test_util.h"
#include "testing/fake_clock.h"

namespace deskline::sim {
namespace {

using deskline::testing::FakeClock;
using testing::Ptap;
using testing::RawTerminal;
using Outcome = TerminalWatch::Outcome;
using Kind = WaitRequest::Kind;

const std::string kRsip = "RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n";

std::string Ntfy(int tid, std::string_view event) {
  return "NTFY " + std::to_string(tid) + " d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: " +
         std::string(event) + "\r\n";
}

WaitRequest Key(std::uint16_t key) { return WaitRequest{Kind::kKey, key, 0, std::chrono::minutes(1)}; }

class TerminalWatchTest : public ::testing::Test {
 protected:
  TerminalWatchTest()
      : pbx_(PbxOptions{.print = [](std::string_view) {},
                        .mgcp = MgcpAgentOptions{.resend = {.max_resends = 0}}}) {}
  void SetUp() override { ASSERT_TRUE(pbx_.Start()); }

  MgcpAgent& agent() { return *pbx_.mgcp(); }
  // Sends a command to the agent and takes its answer, so that it has been handled.
  std::string Command(const std::string& text) {
    mgcp_.Send(text, agent().endpoint());
    return mgcp_.ReceiveText();
  }

  PbxSimulator pbx_;
  RawTerminal mgcp_;
  RawTerminal ptap_;
  FakeClock clock_;  // automatic: a wait's sleeps pass at once
  TerminalWatch watch_{&pbx_, pbx_.mgcp(), nullptr, clock_};
};

TEST_F(TerminalWatchTest, RegisteredTakesAnAcceptedRsipAndAnOpBegin) {
  const WaitRequest registered{Kind::kRegister, 0, 0, std::chrono::seconds(30)};
  EXPECT_EQ(watch_.Wait(registered), Outcome::kTimedOut);
  EXPECT_EQ(clock_.ElapsedMs(), 30'000) << "the whole timeout passed on the clock";

  MgcpAgentAnswers refuse;
  refuse.rsip.code = 502;
  agent().SetAnswers(refuse);
  EXPECT_EQ(Command(kRsip), "502 1\r\n");
  agent().SetAnswers({});
  ptap_.Send(Ptap("00 00 00 02", "0F 07 00 06 02 00 00 AA BB CC FF"), pbx_.endpoint());
  ASSERT_TRUE(pbx_.WaitFor([&] { return pbx_.Handled(kTypeOpBegin) == 1; }, std::chrono::seconds(5)));
  EXPECT_FALSE(watch_.Registered()) << "a refused RSIP does not register";
  EXPECT_EQ(Command(kRsip), "200 1 OK\r\n");
  EXPECT_TRUE(watch_.Registered());
  EXPECT_EQ(watch_.Wait(registered), Outcome::kMet);

  // Registration stays met, also after the records are gone.
  pbx_.ClearRecords();
  EXPECT_TRUE(watch_.Registered());
  TerminalWatch without_agent(&pbx_, nullptr, nullptr, clock_);
  EXPECT_FALSE(without_agent.Registered());
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
  const WaitRequest key = Key(0x0200);
  EXPECT_EQ(watch_.Wait(key, [&] { return ++looks == 3; }), Outcome::kInterrupted);
  EXPECT_EQ(clock_.ElapsedMs(), 2 * TerminalWatch::kPollInterval.count());
  // Without a media channel no packet ever arrives.
  EXPECT_FALSE(watch_.Check(WaitRequest{Kind::kMedia, 0, 1, {}}));
  EXPECT_EQ(TerminalWatch::Describe(key), "wait-key 0200");
  EXPECT_EQ(TerminalWatch::Describe(WaitRequest{Kind::kMedia, 0, 250, {}}), "wait-media 250");
}

}  // namespace
}  // namespace deskline::sim
