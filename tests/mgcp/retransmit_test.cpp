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

struct Sent {
  std::int64_t at_ms;
  std::string text;
  std::uint8_t is_resend;
};

class RetransmitTest : public ::testing::Test {
 protected:
  explicit RetransmitTest(platform::CivilTime start = {2026, 11, 16, 9, 5, 0, 0})
      : clock_(FakeClock::Mode::kManual, start),
        list_(clock_, [this](const MgcpPacket& packet) {
          sent_.push_back({clock_.ElapsedMs(), std::string(packet.Text()), packet.isResend});
          return on_transmit_ ? on_transmit_(packet) : 0;
        }) {}

  // Runs the retransmission pass every 5 ms of simulated time up to `until_ms`.
  void RunUntil(std::int64_t until_ms) {
    while (clock_.ElapsedMs() < until_ms) {
      clock_.AdvanceMs(5);
      list_.ResendDue();
    }
  }

  std::vector<std::int64_t> SendTimes() const {
    std::vector<std::int64_t> times;
    for (const Sent& s : sent_) times.push_back(s.at_ms);
    return times;
  }

  FakeClock clock_;
  std::function<int(const MgcpPacket&)> on_transmit_;
  std::vector<Sent> sent_;
  MgcpRetransmitList list_;
};

TEST_F(RetransmitTest, UnansweredMessageIsResentFifteenTimesThenDropped) {
  ASSERT_TRUE(list_.HoldForResend(PacketOf("NTFY 2 d1@x MGCP 1.0\r\nX: 1\r\n")));
  RunUntil(25'000);
  const std::vector<std::int64_t> expected = {500,   1500,  3500,  7500,  8500,
                                              9500,  10500, 11500, 12500, 13500,
                                              14500, 15500, 16500, 17500, 18500};
  EXPECT_EQ(SendTimes(), expected);
  for (const Sent& s : sent_) {
    EXPECT_EQ(s.text, "NTFY 2 d1@x MGCP 1.0\r\nX: 1\r\n");
    EXPECT_EQ(s.is_resend, 1);
  }
  EXPECT_EQ(list_.count(), 0);
}

TEST_F(RetransmitTest, DroppedAtTheNextDueTimeAfterTheFifteenthResend) {
  list_.HoldForResend(PacketOf("RSIP 1 d1@x MGCP 1.0\r\n"));
  RunUntil(19'495);
  EXPECT_EQ(list_.count(), 1);
  RunUntil(19'500);
  EXPECT_EQ(list_.count(), 0);
  EXPECT_EQ(sent_.size(), 15u);
}

TEST_F(RetransmitTest, AFailedResendStillCounts) {
  on_transmit_ = [](const MgcpPacket&) { return 1; };
  list_.HoldForResend(PacketOf("NTFY 3 d1@x MGCP 1.0\r\n"));
  RunUntil(4'000);
  EXPECT_EQ(SendTimes(), (std::vector<std::int64_t>{500, 1500, 3500}));
}

TEST_F(RetransmitTest, AnswerFreesTheOldestItemWithThatId) {
  list_.HoldForResend(PacketOf("DLCX 7 d1@x MGCP 1.0\r\nC: first\r\n"));
  RunUntil(100);
  list_.HoldForResend(PacketOf("DLCX 7 d1@x MGCP 1.0\r\nC: second\r\n"));
  list_.HoldForResend(PacketOf("NTFY 8 d1@x MGCP 1.0\r\n"));
  EXPECT_EQ(list_.count(), 3);
  EXPECT_EQ(list_.FreeBufferItem(7), 0);
  EXPECT_EQ(list_.count(), 2);
  EXPECT_EQ(list_.FreeBufferItem(99), 0);  // no item with that id: nothing happens
  EXPECT_EQ(list_.count(), 2);
  RunUntil(600);
  ASSERT_EQ(sent_.size(), 2u);
  EXPECT_EQ(sent_[0].text, "DLCX 7 d1@x MGCP 1.0\r\nC: second\r\n");
  EXPECT_EQ(sent_[1].text, "NTFY 8 d1@x MGCP 1.0\r\n");
  EXPECT_EQ(list_.FreeBufferItem(7), 0);
  EXPECT_EQ(list_.FreeBufferItem(8), 0);
  EXPECT_EQ(list_.count(), 0);
  EXPECT_EQ(list_.FreeBufferItem(8), 1);  // empty list
}

TEST_F(RetransmitTest, WhatIsHeld) {
  // Responses and resends are never held.
  EXPECT_FALSE(list_.HoldForResend(PacketOf("200 5 OK\r\n")));
  MgcpPacket resend = PacketOf("NTFY 5 d1@x MGCP 1.0\r\n");
  resend.isResend = 1;
  EXPECT_FALSE(list_.HoldForResend(resend));
  EXPECT_TRUE(list_.HoldForResend(PacketOf("DLCX 5 d1@x MGCP 1.0\r\n")));
  // Fifty wait at most; the 51st goes out once and is never repeated.
  for (int i = 1; i < MgcpRetransmitList::kMaxItems; ++i) {
    EXPECT_TRUE(list_.HoldForResend(PacketOf("NTFY " + std::to_string(100 + i) + " d1@x MGCP 1.0\r\n")));
  }
  EXPECT_EQ(list_.count(), 50);
  EXPECT_FALSE(list_.HoldForResend(PacketOf("NTFY 999 d1@x MGCP 1.0\r\n")));
  EXPECT_EQ(list_.AddBufferItem(PacketOf("NTFY 999 d1@x MGCP 1.0\r\n")), 1);
  RunUntil(500);
  EXPECT_EQ(sent_.size(), 50u);
  for (const Sent& s : sent_) EXPECT_EQ(s.text.find("999"), std::string::npos);
}

TEST_F(RetransmitTest, ClearAndFreeFromWithinTheTransmitFunction) {
  list_.HoldForResend(PacketOf("NTFY 1 d1@x MGCP 1.0\r\n"));
  list_.HoldForResend(PacketOf("NTFY 2 d1@x MGCP 1.0\r\n"));
  list_.HoldForResend(PacketOf("NTFY 3 d1@x MGCP 1.0\r\n"));
  // An answer that arrives while the list is being walked frees items safely.
  on_transmit_ = [this](const MgcpPacket&) {
    list_.FreeBufferItem(2);
    list_.FreeBufferItem(1);
    return 0;
  };
  RunUntil(500);
  EXPECT_EQ(sent_.size(), 2u);  // 1, then 3; 2 was freed before its turn
  EXPECT_EQ(list_.count(), 1);
  on_transmit_ = nullptr;
  EXPECT_EQ(list_.ClearBufferTable(), 0);
  EXPECT_EQ(list_.count(), 0);
  EXPECT_EQ(list_.ClearBufferTable(), 1);
  RunUntil(5'000);
  EXPECT_EQ(sent_.size(), 2u);
}

TEST_F(RetransmitTest, NextDueTime) {
  EXPECT_FALSE(list_.NextDueMs().has_value());
  list_.HoldForResend(PacketOf("NTFY 1 d1@x MGCP 1.0\r\n"));
  EXPECT_EQ(list_.NextDueMs(), 500u);
  RunUntil(200);
  EXPECT_EQ(list_.NextDueMs(), 300u);
  RunUntil(500);
  EXPECT_EQ(list_.NextDueMs(), 1000u);
  RunUntil(2000);
  EXPECT_EQ(list_.NextDueMs(), 1500u);  // the third resend is due at 3500
}

class MidnightTest : public RetransmitTest {
 protected:
  MidnightTest() : RetransmitTest({2026, 12, 31, 23, 59, 59, 0}) {}
};

TEST_F(MidnightTest, PendingAcrossMidnightIsDueAtOnceThenGoesOn) {
  list_.HoldForResend(PacketOf("NTFY 4 d1@x MGCP 1.0\r\n"));
  RunUntil(9'000);
  // 500 as usual; at midnight (1000) the wrapped difference makes it due at once; from there
  // the schedule goes on: 2000 ms later, then 4000, then 1000.
  const std::vector<std::int64_t> expected = {500, 1000, 3000, 7000, 8000, 9000};
  EXPECT_EQ(SendTimes(), expected);
}

}  // namespace
}  // namespace deskline
