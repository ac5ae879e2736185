// UDP on loopback with system-chosen ports, and the strict address parser.
#include "platform/udp_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

namespace deskline::platform {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;
using Length = std::optional<std::size_t>;

std::span<const std::byte> Bytes(std::string_view text) {
  return std::as_bytes(std::span<const char>(text.data(), text.size()));
}

class UdpSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a_.Open({kLoopback, 0}));
    ASSERT_TRUE(b_.Open({kLoopback, 0}));
    a_at_ = *a_.LocalEndpoint(), b_at_ = *b_.LocalEndpoint();
    ASSERT_NE(a_at_.port, 0) << "the system's choice is reported";
  }

  UdpSocket a_, b_;
  UdpEndpoint a_at_, b_at_;
  std::array<std::byte, 64> buffer_{};
  UdpEndpoint from_;
};

TEST_F(UdpSocketTest, DatagramsKeepTheirBoundariesAndSender) {
  std::vector<std::byte> big(1500);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::byte>(i);
  ASSERT_TRUE(a_.SendTo(Bytes("200 1 OK\r\n"), b_at_));
  ASSERT_TRUE(a_.SendTo({}, b_at_));  // port punching sends exactly these
  ASSERT_TRUE(a_.SendTo(big, b_at_));
  ASSERT_TRUE(a_.SendTo(Bytes("after"), b_at_));

  ASSERT_EQ(b_.Receive(buffer_, &from_), Length(10));
  EXPECT_EQ(std::memcmp(buffer_.data(), "200 1 OK\r\n", 10), 0);
  EXPECT_EQ(from_, a_at_);
  EXPECT_EQ(b_.Receive(buffer_, nullptr), Length(0)) << "empty is not end of socket";
  std::array<std::byte, 10> small{};
  ASSERT_EQ(b_.Receive(small, nullptr), Length(10)) << "cut to the buffer";
  EXPECT_TRUE(std::equal(small.begin(), small.end(), big.begin()));
  ASSERT_EQ(b_.Receive(buffer_, nullptr), Length(5)) << "the rest of the long one is dropped";
  EXPECT_EQ(std::memcmp(buffer_.data(), "after", 5), 0);

  bool timed_out = false;
  EXPECT_EQ(b_.ReceiveFor(buffer_, nullptr, 10, &timed_out), Length(0));
  EXPECT_TRUE(timed_out);
  ASSERT_TRUE(a_.SendTo({}, b_at_));
  EXPECT_EQ(b_.ReceiveFor(buffer_, &from_, 1000, &timed_out), Length(0));
  EXPECT_FALSE(timed_out) << "an empty datagram is not a timeout";
}

TEST_F(UdpSocketTest, ShutdownReleasesBlockedAndTimedReceiversBeforeClosing) {
  Length blocked = 99, timed = 99;
  std::atomic<bool> returned{false};
  std::array<std::byte, 8> one{}, two{};
  std::thread r1([&] { blocked = b_.Receive(one, nullptr), returned = true; });
  std::thread r2([&] { timed = b_.ReceiveFor(two, nullptr, 60'000, nullptr); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned.load());
  b_.Shutdown();
  r1.join(), r2.join();
  EXPECT_EQ(blocked, std::nullopt);
  EXPECT_EQ(timed, std::nullopt);
  bool timed_out = true;
  EXPECT_EQ(b_.ReceiveFor(buffer_, nullptr, 1000, &timed_out), std::nullopt) << "at once";
  EXPECT_FALSE(timed_out);
  EXPECT_TRUE(b_.is_open()) << "closing is left until the receivers are joined";
  b_.Close();
  EXPECT_FALSE(b_.is_open());
}

TEST_F(UdpSocketTest, TakenPortOpenSocketAndMovedFromSocketAreRefused) {
  UdpSocket other;
  EXPECT_FALSE(other.Open(a_at_));
  EXPECT_FALSE(other.is_open());
  EXPECT_FALSE(a_.Open({kLoopback, 0})) << "an open socket is not silently replaced";
  other = std::move(a_);
  EXPECT_FALSE(a_.SendTo(Bytes("x"), b_at_));
  EXPECT_EQ(a_.Receive(buffer_, nullptr), std::nullopt);
  ASSERT_TRUE(other.SendTo(Bytes("x"), b_at_));
  EXPECT_EQ(b_.Receive(buffer_, &from_), Length(1));
  EXPECT_EQ(from_, a_at_);
}

TEST(Ipv4Test, ParseAcceptsOnlyFourDottedDecimalPartsWithinTheLength) {
  const std::pair<std::string_view, std::uint32_t> good[] = {
      {"127.0.0.1", 0x7F000001}, {"0.0.0.0", 0}, {"255.255.255.255", 0xFFFFFFFF},
      {"192.168.100.254", 0xC0A864FE}};
  for (const auto& [text, expected] : good) {
    EXPECT_EQ(ParseIpv4(text.data(), text.size()), expected) << text;
  }
  for (std::string_view text :  // "01": octal to inet_addr
       {"", "1.2.3", "1.2.3.", "1.2.3.4.5", "1..2.3", "256.0.0.1", "1.2.3.1000", "01.2.3.4",
        "0x7f.0.0.1", "127.1", "2130706433", " 1.2.3.4", "1.2.3.4 ", "+1.2.3.4", "1.-2.3.4",
        "99999999999999999999.1.1.1", "000000000000000000000.1.1.1"}) {
    EXPECT_EQ(ParseIpv4(text.data(), text.size()), std::nullopt) << "'" << text << "'";
  }
  // Not terminated: a read past the length is caught by the sanitizer.
  const std::array<char, 7> exact{'1', '.', '2', '.', '3', '.', '4'};
  EXPECT_EQ(ParseIpv4(exact.data(), exact.size()), 0x01020304u);
  EXPECT_EQ(ParseIpv4(exact.data(), 5), std::nullopt);
  const char field[16] = "10.0.0.1";  // a fixed field: stops at the terminator
  EXPECT_EQ(ParseIpv4(field, sizeof(field)), 0x0A000001u);
  EXPECT_EQ(ParseIpv4(nullptr, 7), std::nullopt);

  char text[16];
  FormatIpv4(0xFFFFFFFF, text);  // the longest form and its terminator fill the field
  EXPECT_STREQ(text, "255.255.255.255");
}

}  // namespace
}  // namespace deskline::platform
