// UDP on loopback with system-chosen ports, and the strict address parser.
#include "platform/udp_socket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

namespace deskline::platform {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;

std::span<const std::byte> Bytes(std::string_view text) {
  return std::as_bytes(std::span<const char>(text.data(), text.size()));
}

std::string_view Text(std::span<const std::byte> bytes) {
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

class UdpSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a_.Open({kLoopback, 0}));
    ASSERT_TRUE(b_.Open({kLoopback, 0}));
    a_at_ = *a_.LocalEndpoint();
    b_at_ = *b_.LocalEndpoint();
    ASSERT_EQ(a_at_.ip, kLoopback);
    ASSERT_NE(a_at_.port, 0) << "the system's choice is reported";
  }

  UdpSocket a_;
  UdpSocket b_;
  UdpEndpoint a_at_;
  UdpEndpoint b_at_;
};

TEST_F(UdpSocketTest, DatagramArrivesWithItsSender) {
  ASSERT_TRUE(a_.SendTo(Bytes("200 1 OK\r\n"), b_at_));
  std::array<std::byte, 64> buffer{};
  UdpEndpoint from;
  const auto length = b_.Receive(buffer, &from);
  ASSERT_TRUE(length.has_value());
  EXPECT_EQ(Text(std::span(buffer).first(*length)), "200 1 OK\r\n");
  EXPECT_EQ(from, a_at_);
}

TEST_F(UdpSocketTest, EmptyDatagramIsZeroBytesNotEndOfSocket) {
  // Port punching sends exactly these.
  ASSERT_TRUE(a_.SendTo({}, b_at_));
  ASSERT_TRUE(a_.SendTo(Bytes("next"), b_at_));
  std::array<std::byte, 16> buffer{};
  EXPECT_EQ(b_.Receive(buffer, nullptr), std::optional<std::size_t>(0));
  EXPECT_EQ(b_.Receive(buffer, nullptr), std::optional<std::size_t>(4));
}

TEST_F(UdpSocketTest, LongDatagramIsCutToTheBufferAndItsRestDropped) {
  std::vector<std::byte> big(1500);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::byte>(i);
  ASSERT_TRUE(a_.SendTo(big, b_at_));
  ASSERT_TRUE(a_.SendTo(Bytes("after"), b_at_));

  std::array<std::byte, 10> small{};
  ASSERT_EQ(b_.Receive(small, nullptr), std::optional<std::size_t>(10));
  EXPECT_TRUE(std::equal(small.begin(), small.end(), big.begin()));
  std::array<std::byte, 64> buffer{};
  const auto length = b_.Receive(buffer, nullptr);
  ASSERT_TRUE(length.has_value());
  EXPECT_EQ(Text(std::span(buffer).first(*length)), "after");
}

TEST_F(UdpSocketTest, ShutdownReleasesABlockedReceiver) {
  std::optional<std::size_t> result = 99;
  std::atomic<bool> returned{false};
  std::thread receiver([&] {
    std::array<std::byte, 64> buffer{};
    result = b_.Receive(buffer, nullptr);
    returned = true;
  });
  // Let it block (if it has not yet, the shut-down socket must refuse at once all the same).
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned.load());
  b_.Shutdown();
  receiver.join();
  EXPECT_FALSE(result.has_value());

  std::array<std::byte, 8> buffer{};
  EXPECT_FALSE(b_.Receive(buffer, nullptr).has_value()) << "later receives end at once";
  bool timed_out = true;
  EXPECT_FALSE(b_.ReceiveFor(buffer, nullptr, 1000, &timed_out).has_value());
  EXPECT_FALSE(timed_out);
  EXPECT_TRUE(b_.is_open()) << "closing is left until the receiver is joined";
  b_.Close();
  EXPECT_FALSE(b_.is_open());
}

TEST_F(UdpSocketTest, ShutdownReleasesATimedReceiver) {
  std::optional<std::size_t> result = 99;
  std::thread receiver([&] {
    std::array<std::byte, 64> buffer{};
    result = b_.ReceiveFor(buffer, nullptr, 60'000, nullptr);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  b_.Shutdown();
  receiver.join();
  EXPECT_FALSE(result.has_value());
}

TEST_F(UdpSocketTest, ReceiveForTimesOutWithZeroBytesOrDeliversWhatCame) {
  std::array<std::byte, 16> buffer{};
  bool timed_out = false;
  EXPECT_EQ(b_.ReceiveFor(buffer, nullptr, 10, &timed_out), std::optional<std::size_t>(0));
  EXPECT_TRUE(timed_out);

  ASSERT_TRUE(a_.SendTo({}, b_at_));
  UdpEndpoint from;
  EXPECT_EQ(b_.ReceiveFor(buffer, &from, 1000, &timed_out), std::optional<std::size_t>(0));
  EXPECT_FALSE(timed_out) << "an empty datagram is not a timeout";
  EXPECT_EQ(from, a_at_);
}

TEST_F(UdpSocketTest, TakenPortFailsOpenAndLeavesTheSocketClosed) {
  UdpSocket other;
  EXPECT_FALSE(other.Open(a_at_));
  EXPECT_FALSE(other.is_open());
  EXPECT_FALSE(other.LocalEndpoint().has_value());
  EXPECT_FALSE(a_.Open({kLoopback, 0})) << "an open socket is not silently replaced";
  EXPECT_EQ(*a_.LocalEndpoint(), a_at_);
}

TEST_F(UdpSocketTest, ClosedOrMovedFromSocketRefusesEverything) {
  UdpSocket moved(std::move(a_));
  EXPECT_FALSE(a_.is_open());
  EXPECT_FALSE(a_.SendTo(Bytes("x"), b_at_));
  std::array<std::byte, 8> buffer{};
  EXPECT_FALSE(a_.Receive(buffer, nullptr).has_value());
  a_.Shutdown();
  a_.Close();

  ASSERT_TRUE(moved.SendTo(Bytes("x"), b_at_));
  UdpEndpoint from;
  EXPECT_EQ(b_.Receive(buffer, &from), std::optional<std::size_t>(1));
  EXPECT_EQ(from, a_at_);

  UdpSocket assigned;
  assigned = std::move(moved);
  EXPECT_FALSE(moved.is_open());
  EXPECT_EQ(*assigned.LocalEndpoint(), a_at_);
  assigned.Close();
  EXPECT_FALSE(assigned.SendTo(Bytes("x"), b_at_));
}

struct ParseCase {
  std::string_view text;
  std::optional<std::uint32_t> expected;
};

TEST(ParseIpv4Test, AcceptsOnlyFourDottedDecimalParts) {
  const ParseCase cases[] = {
      {"127.0.0.1", 0x7F000001},
      {"0.0.0.0", 0},
      {"255.255.255.255", 0xFFFFFFFF},
      {"10.20.30.40", 0x0A141E28},
      {"192.168.100.254", 0xC0A864FE},
      {"", std::nullopt},
      {"1.2.3", std::nullopt},
      {"1.2.3.", std::nullopt},
      {"1.2.3.4.", std::nullopt},
      {"1.2.3.4.5", std::nullopt},
      {".1.2.3", std::nullopt},
      {"1..2.3", std::nullopt},
      {"256.0.0.1", std::nullopt},
      {"1.2.3.1000", std::nullopt},
      {"01.2.3.4", std::nullopt},  // octal to inet_addr
      {"1.2.3.00", std::nullopt},
      {"0x7f.0.0.1", std::nullopt},
      {"127.1", std::nullopt},     // inet_addr's short forms
      {"2130706433", std::nullopt},
      {" 1.2.3.4", std::nullopt},
      {"1.2.3.4 ", std::nullopt},
      {"1.2.3.4\n", std::nullopt},
      {"+1.2.3.4", std::nullopt},
      {"1.-2.3.4", std::nullopt},
      {"1.2.3.4a", std::nullopt},
      {"99999999999999999999.1.1.1", std::nullopt},
      {"000000000000000000000.1.1.1", std::nullopt},
  };
  for (const ParseCase& c : cases) {
    EXPECT_EQ(ParseIpv4(c.text.data(), c.text.size()), c.expected) << "'" << c.text << "'";
  }
}

TEST(ParseIpv4Test, ReadsNoFurtherThanTheLengthOrATerminator) {
  // Not terminated: a read past the length would be caught by the sanitizer.
  const std::array<char, 7> exact{'1', '.', '2', '.', '3', '.', '4'};
  EXPECT_EQ(ParseIpv4(exact.data(), exact.size()), std::optional<std::uint32_t>(0x01020304));
  EXPECT_EQ(ParseIpv4(exact.data(), 5), std::nullopt);
  EXPECT_EQ(ParseIpv4("1.2.3.45", 7), std::optional<std::uint32_t>(0x01020304));
  // A fixed field with its terminator and the rest of the buffer.
  const char field[16] = "10.0.0.1";
  EXPECT_EQ(ParseIpv4(field, sizeof(field)), std::optional<std::uint32_t>(0x0A000001));
  EXPECT_EQ(ParseIpv4(nullptr, 7), std::nullopt);
  EXPECT_EQ(ParseIpv4("1.2.3.4", 0), std::nullopt);
}

TEST(ParseIpv4Test, FormatAndParseAreInverse) {
  for (std::uint32_t ip : {0u, 0x7F000001u, 0xFFFFFFFFu, 0xC0A80001u, 0x0A000102u}) {
    char text[16];
    FormatIpv4(ip, text);
    EXPECT_EQ(ParseIpv4(text, std::strlen(text)), std::optional<std::uint32_t>(ip)) << text;
  }
  char text[16];
  FormatIpv4(0xFFFFFFFF, text);
  EXPECT_STREQ(text, "255.255.255.255");
}

}  // namespace
}  // namespace deskline::platform
