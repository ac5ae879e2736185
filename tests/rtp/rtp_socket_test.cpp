// CRtp over real sockets on 127.0.0.1, bound on free ports (never the fixed 8000): packets
// sent and received, numbering across calls, start failures, punching, and the release of a
// blocked receive. These run in real time; every wait is bounded.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/udp_socket.h"
#include "voice/rtp.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kLoopback = 0x7F000001;

template <typename F>
bool Eventually(F condition) {
  const auto until = std::chrono::steady_clock::now() + 2s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// A plain socket playing the far end.
struct Peer {
  Peer() { EXPECT_TRUE(socket.Open({kLoopback, 0})); }
  std::uint16_t port() const { return socket.LocalEndpoint()->port; }

  std::optional<Bytes> Receive(platform::UdpEndpoint* from = nullptr) {
    std::uint8_t buffer[2048];
    bool timed_out = false;
    const auto n =
        socket.ReceiveFor(std::as_writable_bytes(std::span(buffer)), from, 2000, &timed_out);
    if (!n || timed_out) return std::nullopt;
    return Bytes(buffer, buffer + *n);
  }
  // Nothing arrives within a short while.
  bool Quiet() {
    std::uint8_t buffer[2048];
    bool timed_out = false;
    socket.ReceiveFor(std::as_writable_bytes(std::span(buffer)), nullptr, 50, &timed_out);
    return timed_out;
  }
  void Send(const Bytes& d, std::uint16_t to_port) {
    ASSERT_TRUE(socket.SendTo(std::as_bytes(std::span(d)), {kLoopback, to_port}));
  }

  platform::UdpSocket socket;
};

// Starts `rtp` on a free port with the far end at 127.0.0.1:`remote_port`.
void StartOnFreePort(CRtp& rtp, std::uint16_t remote_port, std::uint32_t ssrc = 0x5EED0001) {
  ASSERT_EQ(rtp.Start(), 0);
  const std::uint16_t any = 0;
  const std::uint32_t ip = kLoopback;
  ASSERT_EQ(rtp.rtp_set_local_port(&any), 0);
  ASSERT_EQ(rtp.rtp_set_remote_ip(&ip), 0);
  ASSERT_EQ(rtp.rtp_start(&ssrc), 0);
  const std::int32_t port = remote_port;
  ASSERT_EQ(rtp.rtp_set_remote_port(&port), 0);
}

void SendFrame(CRtp& rtp, std::uint32_t bytes, std::uint8_t fill) {
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(bytes));
  for (std::uint8_t& b : packet.payload()) b = fill;
  std::int32_t sent = 0;
  ASSERT_EQ(rtp.rtp_send(&packet, &bytes, &sent), 0);
  EXPECT_EQ(sent, static_cast<std::int32_t>(kRtpHeaderBytes + bytes));
}

RtpHeaderView Check(const Bytes& d) {
  RtpHeaderView view;
  EXPECT_EQ(CheckRtpDatagram(d, &view), RtpReject::kNone);
  return view;
}

// A receive thread as the Wave session runs one: reads until the socket is shut down.
class Receiver {
 public:
  explicit Receiver(CRtp& rtp) : thread_([this, &rtp] { Loop(rtp); }) {}
  ~Receiver() { Join(); }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }
  struct Result {
    int rc;
    std::int32_t length;
    Bytes payload;
    RtpHeaderView header;
  };
  std::vector<Result> results() {
    std::lock_guard lock(mutex_);
    return results_;
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return results_.size();
  }
  bool ended() const { return ended_; }

 private:
  void Loop(CRtp& rtp) {
    RtpPacket packet;  // one packet for the thread's life: no allocation per datagram
    for (;;) {
      std::int32_t length = 0;
      const int rc = rtp.rtp_receive(&packet, &length);
      if (rc != 0 && length < 0) break;
      std::lock_guard lock(mutex_);
      results_.push_back({rc, length, Bytes(packet.payload().begin(), packet.payload().end()),
                          packet.header()});
    }
    ended_ = true;
  }
  std::mutex mutex_;
  std::vector<Result> results_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

// Packets leave the bound port numbered +1 and +160 under one SSRC. A new call only moves
// the remote address: the numbers go on; a local port set after the start changes nothing.
TEST(RtpSocket, SendsNumberedPacketsAcrossCallsFromTheBoundPort) {
  Peer first;
  Peer second;
  CRtp rtp(7);
  StartOnFreePort(rtp, first.port(), 0x0BADF00D);
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  const std::uint16_t bound = rtp.LocalEndpoint()->port;
  const RtpSendCounters start = rtp.counters();
  EXPECT_LT(start.sequence, 65536u);
  EXPECT_LT(start.timestamp, 65536u);

  std::vector<Bytes> got;
  for (std::uint8_t i = 0; i < 3; ++i) {
    if (i == 2) {
      const std::int32_t port = second.port();
      const std::uint16_t other_local = static_cast<std::uint16_t>(bound ^ 1);
      ASSERT_EQ(rtp.rtp_set_remote_port(&port), 0);
      ASSERT_EQ(rtp.rtp_set_local_port(&other_local), 0);
    }
    SendFrame(rtp, 20, i);
    platform::UdpEndpoint from;
    const auto d = (i < 2 ? first : second).Receive(&from);
    ASSERT_TRUE(d);
    EXPECT_EQ(from.port, bound);
    ASSERT_EQ(d->size(), 32u);
    EXPECT_EQ((*d)[0], 0x80);
    EXPECT_EQ((*d)[1], 18);
    EXPECT_EQ((*d)[31], i);
    const RtpHeaderView view = Check(*d);
    EXPECT_EQ(view.sequence, static_cast<std::uint16_t>(start.sequence + i));
    EXPECT_EQ(view.timestamp, start.timestamp + 160u * i);
    EXPECT_EQ(view.ssrc, 0x0BADF00Du);
  }
  EXPECT_TRUE(first.Quiet());
  std::uint32_t ip = 0;
  std::uint32_t remote_port = 0;
  ASSERT_EQ(rtp.rtp_get_remote(&ip, &remote_port), 0);
  EXPECT_EQ(ip, kLoopback);
  EXPECT_EQ(remote_port, second.port());

  // Refused sends go nowhere and use no number.
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(20));
  const std::uint32_t zero = 0;
  const std::uint32_t too_many = 21;
  EXPECT_EQ(rtp.rtp_send(nullptr, &zero, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, nullptr, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, &zero, nullptr), 1);
  EXPECT_EQ(rtp.rtp_send(&packet, &too_many, nullptr), 1);
  EXPECT_EQ(rtp.counters().sequence, start.sequence + 3);
  EXPECT_TRUE(second.Quiet());
}

TEST(RtpSocket, ReceivesGoodPacketsAndReadsOnPastBadOnes) {
  CRtp rtp(9);
  Peer peer;
  StartOnFreePort(rtp, peer.port());
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  const std::uint16_t port = rtp.LocalEndpoint()->port;
  Receiver receiver(rtp);

  Bytes good = {0x80, 18, 0x00, 0x05, 0, 0, 0x01, 0x40, 1, 2, 3, 4};
  good.resize(32, 0x77);
  Bytes version_one = good;
  version_one[0] = 0x40;
  Bytes padded_past = good;
  padded_past[0] = 0xA0;
  padded_past.back() = 21;
  Bytes short_g729 = good;
  short_g729.resize(22);
  Bytes next = good;
  next[3] = 0x06;
  peer.Send(Bytes(12, 0x80), port);
  peer.Send(version_one, port);
  peer.Send(padded_past, port);
  peer.Send(short_g729, port);
  peer.Send(good, port);
  peer.Send(next, port);
  peer.Send({}, port);  // a punch from the far end

  ASSERT_TRUE(Eventually([&] { return receiver.count() == 7; }));
  ASSERT_EQ(rtp.rtp_stop(), 0);
  receiver.Join();
  const auto results = receiver.results();
  const int rcs[] = {1, 1, 1, 1, 0, 0, 1};
  const std::int32_t lengths[] = {12, 32, 32, 22, 32, 32, 0};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(results[i].rc, rcs[i]) << i;
    EXPECT_EQ(results[i].length, lengths[i]) << i;
  }
  EXPECT_EQ(results[4].payload, Bytes(20, 0x77));
  EXPECT_EQ(results[4].header.sequence, 5);
  EXPECT_EQ(results[4].header.timestamp, 320u);
  EXPECT_EQ(results[5].header.sequence, 6);
  EXPECT_EQ(rtp.remote_ssrc(), 0x04030201u);
  EXPECT_EQ(rtp.last_remote_sequence(), 6u);
}

TEST(RtpSocket, PunchSendsAnEmptyDatagramFromTheVoicePort) {
  Peer peer;
  CRtp rtp(10);
  StartOnFreePort(rtp, 9);  // the voice far end is elsewhere
  const std::uint32_t ip = kLoopback;
  const std::uint16_t port = peer.port();
  ASSERT_EQ(rtp.rtp_punch(&ip, &port), 0);
  platform::UdpEndpoint from;
  const auto d = peer.Receive(&from);
  ASSERT_TRUE(d);
  EXPECT_TRUE(d->empty());
  EXPECT_EQ(from.port, rtp.LocalEndpoint()->port);
  EXPECT_EQ(rtp.rtp_punch(nullptr, &port), 1);
}

TEST(RtpSocket, StartFailsWithoutStateRemoteAddressOrAFreePort) {
  const std::uint32_t ssrc = 1;
  const std::uint32_t ip = kLoopback;

  CRtp no_state(1);
  EXPECT_EQ(no_state.rtp_start(&ssrc), 1);
  EXPECT_EQ(no_state.rtp_is_ready(), 1);
  EXPECT_EQ(no_state.rtp_set_remote_ip(&ip), 1);
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(20));
  const std::uint32_t size = 20;
  std::int32_t result = 0;
  EXPECT_EQ(no_state.rtp_send(&packet, &size, &result), 1);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(no_state.rtp_receive(&packet, &result), 1);
  EXPECT_EQ(result, -1) << "no state reads as a closed socket: the receive loop ends";

  CRtp no_remote(2);
  ASSERT_EQ(no_remote.Start(), 0);
  EXPECT_EQ(no_remote.rtp_is_ready(), 0);
  EXPECT_EQ(no_remote.rtp_start(&ssrc), 1);
  EXPECT_FALSE(no_remote.LocalEndpoint());

  Peer holder;  // holds a port
  CRtp taken(3);
  ASSERT_EQ(taken.Start(), 0);
  const std::uint16_t port = holder.port();
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

// Stopping releases a receive that is blocked; the owner joins its thread; Shutdown closes.
TEST(RtpSocket, StopReleasesABlockedReceive) {
  Peer peer;
  CRtp rtp(12);
  StartOnFreePort(rtp, peer.port());
  Receiver receiver(rtp);
  std::this_thread::sleep_for(20ms);  // let it block
  EXPECT_FALSE(receiver.ended());
  ASSERT_EQ(rtp.rtp_stop(), 0);
  ASSERT_TRUE(Eventually([&] { return receiver.ended(); }));
  receiver.Join();
  std::int32_t sent = 0;
  RtpPacket packet;
  ASSERT_TRUE(packet.Resize(20));
  const std::uint32_t size = 20;
  EXPECT_EQ(rtp.rtp_send(&packet, &size, &sent), 0) << "a socket failure is not the result";
  EXPECT_EQ(sent, -1);
  EXPECT_EQ(rtp.Shutdown(), 0);
  EXPECT_EQ(rtp.rtp_is_ready(), 1);
}

// An owner that goes straight to Shutdown, with its thread still in the receive and a sender
// still running, neither hangs nor frees the state under them.
TEST(RtpSocket, ShutdownWaitsForCallsInProgress) {
  Peer peer;
  CRtp rtp(13);
  StartOnFreePort(rtp, peer.port());
  Receiver receiver(rtp);
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    RtpPacket packet;
    packet.Resize(160);
    const std::uint32_t size = 160;
    while (!stop) rtp.rtp_send(&packet, &size, nullptr);
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(rtp.Shutdown(), 0);
  ASSERT_TRUE(Eventually([&] { return receiver.ended(); }));
  receiver.Join();
  stop = true;
  sender.join();
}

}  // namespace
}  // namespace deskline
