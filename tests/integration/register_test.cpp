// Registration through initialize: the real PTAP client against the simulated PBX.
#include <thread>

#include "engine_fixture.h"

namespace deskline {
namespace {

using Registration = testing::EngineFixture;
using sim::Direction;

TEST_F(Registration, DeliversTheParametersToTheHost) {
  ASSERT_EQ(Initialize(), 0) << trace_.Text();

  EXPECT_EQ(params_.result_code, 0);
  EXPECT_EQ(params_.keepalive_timeout, 30);
  EXPECT_EQ(params_.param_1b, 0x1B);
  EXPECT_EQ(params_.param_18, 0x18);
  EXPECT_EQ(params_.param_26, 0x26);
  EXPECT_EQ(params_.param_0f, 8000);
  EXPECT_EQ(params_.param_21[0], 1);
  EXPECT_EQ(params_.param_21[31], 32);
  EXPECT_TRUE(fakes_.log.Contains("mgcp.SetPorts(2427,2727)")) << "terminal's port first";

  const auto start = pbx_.LastStart();
  ASSERT_TRUE(start.has_value());
  EXPECT_EQ(start->tid, 1u);
  EXPECT_FALSE(start->extended);
  EXPECT_EQ(start->start_code, 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(start->identity.data()), start->identity.size()),
            "TERMINAL-007");
  EXPECT_EQ(start->ip, 0x7f000001u);
  EXPECT_EQ(start->mac[5], std::byte{0xcc});
  // OP_BEGIN follows the RSIP, numbered after START.
  ASSERT_TRUE(pbx_.WaitForCount(Direction::kIn, 15, 1, std::chrono::seconds(2)));
}

TEST_F(Registration, RefusalReachesTheHostAndLeavesNothing) {
  Answers([](auto& a) { a.start.result_code = 200; });  // wire 200: registration refused
  EXPECT_EQ(Initialize(), 201);
  EXPECT_EQ(api::engine().cp.load(), nullptr);
  EXPECT_EQ(testing::FakeModules::Live(), 0);
  EXPECT_FALSE(fakes_.log.Contains("mgcp.Start"));
  EXPECT_TRUE(trace_.Has("[CP :: CRITICAL ERROR] PTAP START - Registration failed/not possible"));

  Answers([](auto& a) { a.start.result_code = 0; });  // the next initialize starts afresh
  EXPECT_EQ(Initialize(), 0);
}

TEST_F(Registration, WrongKindOfTerminalInExtendedMode) {
  Answers([](auto& a) { a.start.extended = sim::ExtendedAnswer::kWrongKind; });
  EXPECT_EQ(Initialize(1), 211);
  const auto start = pbx_.LastStart();
  ASSERT_TRUE(start.has_value());
  EXPECT_TRUE(start->extended) << "the extended capability table went out";
  EXPECT_TRUE(
      trace_.Has("[CP :: CRITICAL ERROR] PTAP START - User-specified connection info INCORRECT!"));
}

TEST_F(Registration, ExtendedModeRegistersOnTheExtendedResponse) {
  Answers([](auto& a) {
    a.start.extended = sim::ExtendedAnswer::kGood;
    a.start.pbx_class_code = 8;  // class 4
  });
  ASSERT_EQ(Initialize(1), 0);
  EXPECT_TRUE(testing::HostCallbacks::log().Contains("event(34,1,4)"));
}

// The call processor's wait runs on a simulated clock, so nineteen seconds pass at once.
TEST_F(Registration, SilentPbxGivesOneAfterTheWait) {
  pbx_.SetSilent(true);
  const std::int64_t before = cp_clock_.ElapsedMs();
  EXPECT_EQ(Initialize(0, &cp_clock_), 1);
  EXPECT_GE(cp_clock_.ElapsedMs() - before, 19000);
  EXPECT_TRUE(trace_.Has("[CP :: CRITICAL ERROR] Operation timeout: PTAP START"));
  EXPECT_EQ(api::engine().cp.load(), nullptr);
}

TEST_F(Registration, LostStartIsResentAndStillRegisters) {
  pbx_.AddRule(sim::NetRule::Drop(Direction::kIn, 4).Occurrences(0, 1));
  ASSERT_EQ(Initialize(), 0);
  EXPECT_EQ(pbx_.Count(Direction::kIn, 4), 2u) << "the first START was dropped";
  EXPECT_EQ(pbx_.LastStart()->tid, 1u) << "a resend keeps its tid";
}

TEST_F(Registration, PbxEventsReachTheSystemCallback) {
  ASSERT_EQ(Initialize(), 0);
  const std::byte event[] = {std::byte{0x20}, std::byte{0x00}, std::byte{0x01}, std::byte{0x55},
                             std::byte{0xff}};
  pbx_.SendEvent(event);
  pbx_.SendCompulsionRestart();
  ASSERT_TRUE(testing::Eventually(
      [] { return testing::HostCallbacks::log().With("system").size() >= 2; },
      std::chrono::seconds(2)));
  EXPECT_EQ(testing::HostCallbacks::log().With("system"),
            (std::vector<std::string>{"system(85)", "system(26)"}));
}

// One of the few tests that waits in real time: a PBX that falls silent for longer than the
// keepalive timeout it set (1 s) is reported to the host once.
TEST_F(Registration, SilentPbxAfterRegistrationIsReportedOnce) {
  Answers([](auto& a) { a.start.keepalive_timeout_s = 1; });
  ASSERT_EQ(Initialize(), 0);
  pbx_.SetSilent(true);
  auto lost = [] { return testing::HostCallbacks::log().Contains("system(24)"); };
  ASSERT_TRUE(testing::Eventually(lost, std::chrono::seconds(5)));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(testing::HostCallbacks::log().With("system"), std::vector<std::string>{"system(24)"});
}

}  // namespace
}  // namespace deskline
