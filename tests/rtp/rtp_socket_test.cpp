// CRtp over real sockets on 127.0.0.1, bound on free ports; every wait is bounded.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "testing/eventually.h"
#include "platform/udp_socket.h"
#include "voice/rtp.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;
using testing::Eventually;
using Bytes = std::vector<std::uint8_t>;
constexpr std::uint32_t kLoopback = 0x7F000001;

struct Peer {  // the far end
  Peer() { EXPECT_TRUE(socket.Open({kLoopback, 0})); }
  std::uint16_t port() const { return socket.LocalEndpoint()->port; }
  std::optional<Bytes> Receive(platform::UdpEndpoint* from = nullptr, int timeout_ms = 2000) {
    std::uint8_t buffer[2048];
    bool timed_out = false;
    const auto n = socket.ReceiveFor(std::as_writable_bytes(std::span(buffer)), from, timeout_ms,
                                     &timed_out);
    if (!n || timed_out) return std::nullopt;
    return Bytes(buffer, buffer + *n);
  }
  platform::UdpSocket socket;
};

void StartOnFreePort(CRtp& rtp, std::int32_t remote_port, std::uint32_t ssrc = 0x0BADF00D) {
  const std::uint16_t any = 0;
  const std::uint32_t ip = kLoopback;
  ASSERT_EQ(rtp.Start(), 0);
  ASSERT_EQ(rtp.rtp_set_local_port(&any), 0);
  ASSERT_EQ(rtp.rtp_set_remote_ip(&ip), 0);
  ASSERT_EQ(rtp.rtp_start(&ssrc), 0);
  ASSERT_EQ(rtp.rtp_set_remote_port(&remote_port), 0);
}

// A receive thread as the Wave session runs one: reads until the socket is shut down.
struct Receiver {
  explicit Receiver(CRtp& rtp) : thread([this, &rtp] {
    RtpPacket packet;
    for (std::int32_t length = 0; rtp.rtp_receive(&packet, &length) == 0 || length >= 0;) {
      results.push_back({length, Bytes(packet.payload().begin(), packet.payload().end())});
      ++count;
    }
    ended = true;
  }) {}
  ~Receiver() { Join(); }
  void Join() { if (thread.joinable()) thread.join(); }
  std::vector<std::pair<std::int32_t, Bytes>> results;  // read after `count` or the join
  std::atomic<int> count{0};
  std::atomic<bool> ended{false};
  std::thread thread;
};

// Numbered +1 and +160 under one SSRC from the bound port; a new call moves only the remote
// address, and a local port set after the start waits for the next start.
TEST(RtpSocket, SendsNumberedPacketsAcrossCallsFromTheBoundPortAndPunches) {
  Peer first, second;
  CRtp rtp(7);
  StartOnFreePort(rtp, first.port());
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  const std::uint16_t bound = rtp.LocalEndpoint()->port;
  const RtpSendCounters start = rtp.counters();
  EXPECT_LT(start.sequence, 65536u);
  EXPECT_LT(start.timestamp, 65536u);
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(20));
  for (std::uint8_t i = 0; i < 3; ++i) {
    if (i == 2) {
      const std::int32_t port = second.port();
      const std::uint16_t other_local = bound ^ 1;
      ASSERT_EQ(rtp.rtp_set_remote_port(&port), 0);
      ASSERT_EQ(rtp.rtp_set_local_port(&other_local), 0);
    }
    packet.payload()[19] = i;
    const std::uint32_t size = 20;
    std::int32_t sent = 0;
    ASSERT_EQ(rtp.rtp_send(&packet, &size, &sent), 0);
    EXPECT_EQ(sent, 32);
    platform::UdpEndpoint from;
    const auto d = (i < 2 ? first : second).Receive(&from);
    ASSERT_TRUE(d && d->size() == 32u);
    EXPECT_EQ(from.port, bound);
    const std::uint16_t sequence = start.sequence + i;
    const std::uint32_t timestamp = start.timestamp + 160u * i;
    EXPECT_EQ(Bytes(d->begin(), d->begin() + 12),
              (Bytes{0x80, 18, std::uint8_t(sequence >> 8), std::uint8_t(sequence), 0,
                     std::uint8_t(timestamp >> 16), std::uint8_t(timestamp >> 8),
                     std::uint8_t(timestamp), 0x0D, 0xF0, 0xAD, 0x0B}));
    EXPECT_EQ(d->back(), i);
  }
  EXPECT_FALSE(first.Receive(nullptr, 50));

  // Refused sends go nowhere and use no number.
  const std::uint32_t zero = 0, too_many = 21;
  EXPECT_EQ(rtp.rtp_send(nullptr, &zero, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, nullptr, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, &zero, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, &too_many, nullptr), 1);
  EXPECT_EQ(rtp.counters().sequence, start.sequence + 3);

  // A punch is an empty datagram from the voice port, wherever the voice goes.
  const std::uint32_t ip = kLoopback;
  const std::uint16_t port = first.port();
  ASSERT_EQ(rtp.rtp_punch(&ip, &port), 0);
  platform::UdpEndpoint from;
  EXPECT_EQ(first.Receive(&from), Bytes{});
  EXPECT_EQ(from.port, bound);
  EXPECT_EQ(rtp.rtp_punch(nullptr, &port), 1);
  EXPECT_FALSE(second.Receive(nullptr, 50));
}

TEST(RtpSocket, ReceivesGoodPacketsAndReadsOnPastBadOnes) {
  Peer peer;
  CRtp rtp(9);
  StartOnFreePort(rtp, peer.port());
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  Receiver receiver(rtp);
  Bytes good = {0x80, 18, 0x00, 0x05, 0, 0, 0x01, 0x40, 1, 2, 3, 4};
  good.resize(32, 0x77);
  const Bytes short_g729(good.begin(), good.begin() + 22);
  const platform::UdpEndpoint to{kLoopback, rtp.LocalEndpoint()->port};
  // Refused one by one, the punch from the far end included; the receive goes on.
  for (const Bytes& d : {Bytes(12, 0x80), short_g729, good, Bytes{}})
    ASSERT_TRUE(peer.socket.SendTo(std::as_bytes(std::span(d)), to));
  ASSERT_TRUE(Eventually([&] { return receiver.count == 4; }));
  ASSERT_EQ(rtp.rtp_stop(), 0);
  receiver.Join();
  EXPECT_EQ(receiver.results, (std::vector<std::pair<std::int32_t, Bytes>>{
                                  {12, {}}, {22, {}}, {32, Bytes(20, 0x77)}, {0, {}}}));
  EXPECT_EQ(rtp.last_remote_sequence(), 5u);
}

TEST(RtpSocket, StartFailsWithoutStateRemoteAddressOrAFreePort) {
  const std::uint32_t ssrc = 1, ip = kLoopback, size = 20;
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(20));
  std::int32_t result = 0;
  CRtp no_state(1);
  EXPECT_EQ(no_state.rtp_start(&ssrc), 1);
  EXPECT_EQ(no_state.rtp_set_remote_ip(&ip), 1);
  EXPECT_EQ(no_state.rtp_send(&packet, &size, &result), 1);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(no_state.rtp_receive(&packet, &result), 1);
  EXPECT_EQ(result, -1) << "no state reads as a closed socket: the receive loop ends";

  CRtp no_remote(2);
  ASSERT_EQ(no_remote.Start(), 0);
  EXPECT_EQ(no_remote.rtp_start(&ssrc), 1);
  EXPECT_FALSE(no_remote.LocalEndpoint());

  Peer holder;  // holds a port
  CRtp taken(3);
  const std::uint16_t port = holder.port();
  ASSERT_EQ(taken.Start(), 0);
  ASSERT_EQ(taken.rtp_set_local_port(&port), 0);
  ASSERT_EQ(taken.rtp_set_remote_ip(&ip), 0);
  EXPECT_EQ(taken.rtp_start(&ssrc), 1);
  EXPECT_EQ(taken.rtp_start(nullptr), 1);

  CRtp twice(4);
  StartOnFreePort(twice, holder.port());
  EXPECT_EQ(twice.rtp_start(&ssrc), 1);
  ASSERT_EQ(twice.rtp_stop(), 0);
  EXPECT_EQ(twice.rtp_start(&ssrc), 1) << "a stopped stream stays stopped until Shutdown";
}

// rtp_stop releases a blocked receive, and later sends lose only their packet. An owner that
// goes straight to Shutdown, its receiver blocked and a sender running, neither hangs nor
// frees the state under them.
TEST(RtpSocket, StopAndShutdownReleaseCallsInProgress) {
  for (bool stop_first : {true, false}) {
    SCOPED_TRACE(stop_first);
    Peer peer;
    CRtp rtp(12);
    StartOnFreePort(rtp, peer.port());
    std::atomic<bool> stop{false};
    std::atomic<int> lost{0};  // sends that returned 0 with nothing sent
    Receiver receiver(rtp);
    std::thread sender([&] {
      RtpPacket packet;
      packet.Resize(160);
      const std::uint32_t size = 160;
      for (std::int32_t sent = 0; !stop;) {
        lost += rtp.rtp_send(&packet, &size, &sent) == 0 && sent < 0;
      }
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(receiver.ended);
    if (stop_first) {
      ASSERT_EQ(rtp.rtp_stop(), 0);
      ASSERT_TRUE(Eventually([&] { return receiver.ended && lost > 0; }));
    }
    EXPECT_EQ(rtp.Shutdown(), 0);
    EXPECT_TRUE(Eventually([&] { return receiver.ended.load(); }));
    stop = true;
    sender.join();
  }
}

}  // namespace
}  // namespace deskline
