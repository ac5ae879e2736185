// The retransmission list in simulated time: the schedule, midnight, freeing and the limit.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "mgcp/mgcp_retransmit.h"
#include "mgcp_test_util.h"
#include "testing/fake_clock.h"

namespace deskline {
namespace {

using mgcp_test::PacketOf;
using testing::FakeClock;

std::string Text(int tid) { return "NTFY " + std::to_string(tid) + " d1@x MGCP 1.0\r\n"; }
MgcpPacket Message(int tid) { return PacketOf(Text(tid)); }

class MgcpRetransmitTest : public ::testing::Test {
 protected:
  explicit MgcpRetransmitTest(platform::CivilTime start = {2026, 11, 16, 9, 5, 0, 0})
      : clock_(FakeClock::Mode::kManual, start), list_(clock_, [this](const MgcpPacket& packet) {
          EXPECT_EQ(packet.isResend, 1);
          times_.push_back(clock_.ElapsedMs());
          texts_.emplace_back(packet.Text());
          return on_transmit_ ? on_transmit_() : 0;
        }) {}

  // The retransmission pass every 5 ms of simulated time up to `until_ms`.
  void RunUntil(std::int64_t until_ms) {
    while (clock_.ElapsedMs() < until_ms) {
      clock_.AdvanceMs(5);
      list_.ResendDue();
    }
  }

  FakeClock clock_;
  std::function<int()> on_transmit_;
  std::vector<std::int64_t> times_;
  std::vector<std::string> texts_;
  MgcpRetransmitList list_;
};

TEST_F(MgcpRetransmitTest, FifteenResendsThenDroppedAtTheNextDueTime) {
  on_transmit_ = [this] { return static_cast<int>(times_.size() % 2); };  // failures count too
  ASSERT_TRUE(list_.HoldForResend(Message(2)));
  EXPECT_EQ(list_.NextDueMs(), 500u);
  RunUntil(200);
  EXPECT_EQ(list_.NextDueMs(), 300u);
  RunUntil(2000);
  EXPECT_EQ(list_.NextDueMs(), 1500u);
  RunUntil(19'495);
  EXPECT_EQ(times_, (std::vector<std::int64_t>{500, 1500, 3500, 7500, 8500, 9500, 10500, 11500,
                                                12500, 13500, 14500, 15500, 16500, 17500, 18500}));
  EXPECT_EQ(list_.count(), 1);
  RunUntil(25'000);
  EXPECT_EQ(list_.count(), 0);
  EXPECT_EQ(times_.size(), 15u);
  EXPECT_FALSE(list_.NextDueMs().has_value());
}

TEST_F(MgcpRetransmitTest, AnswerFreesTheOldestItemWithThatId) {
  list_.HoldForResend(PacketOf("DLCX 7 d1@x MGCP 1.0\r\nC: first\r\n"));
  RunUntil(100);
  list_.HoldForResend(PacketOf("DLCX 7 d1@x MGCP 1.0\r\nC: second\r\n"));
  list_.HoldForResend(Message(8));
  EXPECT_EQ(list_.FreeBufferItem(7), 0);
  EXPECT_EQ(list_.FreeBufferItem(99), 0);  // no such id: nothing happens
  EXPECT_EQ(list_.count(), 2);
  RunUntil(600);
  EXPECT_EQ(texts_, (std::vector<std::string>{"DLCX 7 d1@x MGCP 1.0\r\nC: second\r\n",
                                              Text(8)}));
  EXPECT_EQ(list_.FreeBufferItem(7), 0);
  EXPECT_EQ(list_.FreeBufferItem(8), 0);
  EXPECT_EQ(list_.FreeBufferItem(8), 1);  // empty list
}

TEST_F(MgcpRetransmitTest, OnlyFiftyOwnMessagesAreHeld) {
  EXPECT_FALSE(list_.HoldForResend(PacketOf("200 5 OK\r\n")));
  MgcpPacket resend = Message(5);
  resend.isResend = 1;
  EXPECT_FALSE(list_.HoldForResend(resend));
  for (int i = 0; i < MgcpRetransmitList::kMaxItems; ++i) {
    EXPECT_TRUE(list_.HoldForResend(Message(100 + i)));
  }
  // The 51st goes out once and is never repeated.
  EXPECT_FALSE(list_.HoldForResend(Message(999)));
  EXPECT_EQ(list_.AddBufferItem(Message(999)), 1);
  RunUntil(500);
  EXPECT_EQ(times_.size(), 50u);
  for (const std::string& text : texts_) EXPECT_EQ(text.find("999"), std::string::npos);
}

TEST_F(MgcpRetransmitTest, AnswersArrivingDuringAPassAndClear) {
  for (int tid : {1, 2, 3}) list_.HoldForResend(Message(tid));
  // Frees items from within the transmit function, as an answer on the socket thread may.
  on_transmit_ = [this] {
    list_.FreeBufferItem(2);
    list_.FreeBufferItem(1);
    return 0;
  };
  RunUntil(500);
  EXPECT_EQ(texts_, (std::vector<std::string>{Text(1), Text(3)}));
  EXPECT_EQ(list_.count(), 1);
  on_transmit_ = nullptr;
  EXPECT_EQ(list_.ClearBufferTable(), 0);
  EXPECT_EQ(list_.ClearBufferTable(), 1);
  RunUntil(5'000);
  EXPECT_EQ(times_.size(), 2u);
}

class MgcpMidnightTest : public MgcpRetransmitTest {
 protected:
  MgcpMidnightTest() : MgcpRetransmitTest({2026, 12, 31, 23, 59, 59, 0}) {}
};

TEST_F(MgcpMidnightTest, PendingAcrossMidnightIsDueAtOnceThenGoesOn) {
  list_.HoldForResend(Message(4));
  RunUntil(9'000);
  // 500 as usual; at midnight (1000) the wrapped difference makes it due at once; then 2000,
  // 4000 and 1000 ms later.
  EXPECT_EQ(times_, (std::vector<std::int64_t>{500, 1000, 3000, 7000, 8000, 9000}));
}

}  // namespace
}  // namespace deskline
