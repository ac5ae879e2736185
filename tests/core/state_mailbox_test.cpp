// The call state table in full, and the mailbox's limits and order.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "core/cp.h"
#include "core/mailbox.h"
#include "fake_modules.h"

namespace deskline {
namespace {

// One row per event: what each state (Init, Idle, Outgoing, Incoming, Talking) does with it.
// "-" accepted, state kept; "x" rejected; a letter: accepted, moving to I, O, N (incoming), T.
struct Row {
  std::uint32_t event;
  const char* cells[5];
};
constexpr Row kTable[] = {
    {1, {"-", "x", "x", "I", "I"}},  {2, {"-", "N", "x", "x", "T"}},
    {3, {"-", "O", "x", "T", "x"}},  {4, {"-", "x", "I", "I", "I"}},
    {5, {"-", "x", "x", "I", "I"}},  {6, {"-", "x", "x", "T", "T"}},
    {7, {"-", "x", "x", "x", "x"}},  {8, {"-", "x", "T", "x", "x"}},
    {9, {"-", "x", "I", "x", "x"}},  {10, {"-", "-", "-", "-", "-"}},
    {11, {"-", "-", "-", "-", "-"}}, {12, {"I", "x", "x", "x", "x"}},
    {13, {"-", "-", "-", "-", "-"}}, {14, {"-", "I", "I", "x", "x"}},
    {15, {"-", "x", "-", "x", "x"}},  {0, {"-", "x", "x", "x", "x"}},
    {16, {"-", "x", "x", "x", "x"}}, {0xffffffff, {"-", "x", "x", "x", "x"}},
};

// Drives a fresh call processor into `state` through events that the table accepts.
void Reach(CCp& cp, std::uint32_t state) {
  const std::vector<std::vector<std::uint32_t>> paths = {
      {}, {12}, {12, 3}, {12, 2}, {12, 2, 3}};
  for (std::uint32_t e : paths[state]) ASSERT_EQ(cp.UpdateState(e), 0);
  ASSERT_EQ(cp.call_state(), state);
}

TEST(CallStateTable, EveryEventInEveryState) {
  testing::FakeClock clock;
  testing::FakeModules fakes(clock);
  for (const Row& row : kTable) {
    for (std::uint32_t state = 0; state < 5; ++state) {
      CCp cp(fakes.Dependencies());
      Reach(cp, state);
      const std::string cell = row.cells[state];
      const int result = cp.UpdateState(row.event);
      SCOPED_TRACE("event " + std::to_string(row.event) + " in state " + std::to_string(state));
      if (cell == "x") {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(cp.call_state(), state);
      } else if (cell == "-") {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(cp.call_state(), state);
      } else {
        EXPECT_EQ(result, 0);
        const std::string names = "?IONT";
        const auto expected = static_cast<std::uint32_t>(
            cell == "I" ? CP_STATE_IDLE
                        : cell == "O" ? CP_STATE_OUTGOING
                                      : cell == "N" ? CP_STATE_INCOMING : CP_STATE_TALKING);
        EXPECT_EQ(cp.call_state(), expected);
      }
    }
  }
}

TEST(Mailbox, KeepsOrderAndRefusesThe101st) {
  CMailbox mailbox;
  ASSERT_EQ(mailbox.Start(), 0);
  for (std::uint32_t i = 0; i < 100; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ(mailbox.Write(i, text.data(), static_cast<std::int32_t>(text.size())), 0);
  }
  EXPECT_EQ(mailbox.Write(100, "x", 1), 1);
  for (std::uint32_t i = 0; i < 100; ++i) {
    std::uint32_t code = 0;
    char payload[200] = {};
    std::int32_t length = 0;
    ASSERT_EQ(mailbox.Read(&code, payload, &length), 0);
    EXPECT_EQ(code, i);
    EXPECT_EQ(std::string(payload, static_cast<std::size_t>(length)), std::to_string(i));
  }
  // Room again once read; the ring wraps without losing order.
  for (std::uint32_t i = 0; i < 150; ++i) {
    const std::uint8_t byte = static_cast<std::uint8_t>(i);
    ASSERT_EQ(mailbox.Write(i, &byte, 1), 0);
    std::uint32_t code = 0;
    std::uint8_t out[200] = {};
    std::int32_t length = 0;
    ASSERT_EQ(mailbox.Read(&code, out, &length), 0);
    EXPECT_EQ(code, i);
    EXPECT_EQ(out[0], byte);
  }
}

TEST(Mailbox, LengthLimitsAndEmptyRead) {
  CMailbox mailbox;
  std::uint8_t big[201];
  for (int i = 0; i < 201; ++i) big[i] = static_cast<std::uint8_t>(i * 7);
  EXPECT_EQ(mailbox.Write(13, big, 1), 1) << "no queue before Start";
  ASSERT_EQ(mailbox.Start(), 0);
  EXPECT_EQ(mailbox.Write(13, big, 0), 1);
  EXPECT_EQ(mailbox.Write(13, big, -1), 1);
  EXPECT_EQ(mailbox.Write(13, big, 201), 1);
  EXPECT_EQ(mailbox.Write(13, nullptr, 4), 1);
  ASSERT_EQ(mailbox.Write(13, big, 200), 0);

  std::uint32_t code = 0;
  std::uint8_t out[200] = {};
  std::int32_t length = 0;
  ASSERT_EQ(mailbox.Read(&code, out, &length), 0);
  EXPECT_EQ(length, 200);
  EXPECT_EQ(std::memcmp(out, big, 200), 0);

  code = 77;
  length = 55;
  EXPECT_EQ(mailbox.Read(&code, out, &length), 1);
  EXPECT_EQ(code, 77u);
  EXPECT_EQ(length, 55);

  mailbox.Write(13, big, 3);
  EXPECT_EQ(mailbox.Shutdown(), 0);
  EXPECT_EQ(mailbox.Write(13, big, 3), 1) << "after Shutdown";
  EXPECT_EQ(mailbox.Read(&code, out, &length), 1);
  EXPECT_EQ(mailbox.Shutdown(), 0);
}

TEST(Mailbox, ManyWritersLoseNothingUpToTheLimit) {
  CMailbox mailbox;
  ASSERT_EQ(mailbox.Start(), 0);
  std::vector<std::thread> writers;
  std::atomic<int> accepted{0};
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        const std::uint8_t tag[2] = {static_cast<std::uint8_t>(t), static_cast<std::uint8_t>(i)};
        if (mailbox.Write(13, tag, 2) == 0) ++accepted;
      }
    });
  }
  for (auto& w : writers) w.join();
  EXPECT_EQ(accepted.load(), 100);
  // Each writer's accepted messages come out in the order it wrote them.
  int last[4] = {-1, -1, -1, -1};
  std::uint32_t code;
  std::uint8_t out[200];
  std::int32_t length;
  int read = 0;
  while (mailbox.Read(&code, out, &length) == 0) {
    EXPECT_GT(out[1], last[out[0]]);
    last[out[0]] = out[1];
    ++read;
  }
  EXPECT_EQ(read, 100);
}

}  // namespace
}  // namespace deskline
