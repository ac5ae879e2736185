// The call state table in full, and the mailbox's limits and order.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/cp.h"
#include "core/mailbox.h"
#include "fake_modules.h"

namespace deskline {
namespace {

// Per event, what Init, Idle, Outgoing, Incoming, Talking do with it: "-" accepted and kept,
// "x" rejected, a letter moves to Idle, Outgoing, iNcoming or Talking.
struct Row {
  std::uint32_t event;
  const char* cells;
};
constexpr Row kTable[] = {
    {1, "-xxII"},  {2, "-NxxT"},  {3, "-OxTx"},  {4, "-xIII"},  {5, "-xxII"},  {6, "-xxTT"},
    {7, "-xxxx"},  {8, "-xTxx"},  {9, "-xIxx"},  {10, "-----"}, {11, "-----"}, {12, "Ixxxx"},
    {13, "-----"}, {14, "-IIxx"}, {15, "-x-xx"}, {0, "-xxxx"},  {16, "-xxxx"},
    {0xffffffff, "-xxxx"},
};

TEST(CallStateTable, EveryEventInEveryState) {
  testing::FakeClock clock;
  testing::FakeModules fakes(clock);
  // Paths of accepted events from Init to each state, indexed by state.
  const std::vector<std::vector<std::uint32_t>> paths = {{}, {12}, {12, 3}, {12, 2}, {12, 2, 3}};
  for (const Row& row : kTable) {
    for (std::uint32_t state = 0; state < 5; ++state) {
      SCOPED_TRACE("event " + std::to_string(row.event) + " in state " + std::to_string(state));
      CCp cp(fakes.Dependencies());
      for (std::uint32_t e : paths[state]) ASSERT_EQ(cp.UpdateState(e), 0);
      ASSERT_EQ(cp.call_state(), state);
      const char cell = row.cells[state];
      EXPECT_EQ(cp.UpdateState(row.event), cell == 'x' ? 1 : 0);
      const std::size_t moved = std::string("?IONT").find(cell);
      EXPECT_EQ(cp.call_state(), moved == std::string::npos ? state : moved);
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
  std::uint32_t code = 0;
  char out[200] = {};
  std::int32_t length = 0;
  for (std::uint32_t i = 0; i < 100; ++i) {
    ASSERT_EQ(mailbox.Read(&code, out, &length), 0);
    EXPECT_EQ(code, i);
    EXPECT_EQ(std::string(out, static_cast<std::size_t>(length)), std::to_string(i));
  }
  // Room again once read; the ring wraps without losing order.
  for (std::uint32_t i = 0; i < 150; ++i) {
    const char byte = static_cast<char>(i);
    ASSERT_EQ(mailbox.Write(i, &byte, 1), 0);
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
  for (std::int32_t bad : {0, -1, 201}) EXPECT_EQ(mailbox.Write(13, big, bad), 1) << bad;
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
  for (; mailbox.Read(&code, out, &length) == 0; ++read) {
    EXPECT_GT(out[1], last[out[0]]);
    last[out[0]] = out[1];
  }
  EXPECT_EQ(read, 100);
}

}  // namespace
}  // namespace deskline
