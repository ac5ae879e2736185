// A Wave session on 127.0.0.1 with a plain UDP socket as the far end: real sockets and thread,
// simulated arrival times, every wait bounded.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "testing/eventually.h"
#include "platform/udp_socket.h"
#include "testing/fake_clock.h"
#include "voice/wave.h"

namespace deskline::wavetest {

using namespace std::chrono_literals;
using testing::Eventually;
using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

inline constexpr std::uint32_t kLoopback = 0x7F000001;
inline constexpr std::size_t kFrame = kVoiceFrameSamples;

struct Peer {
  Peer() { EXPECT_TRUE(socket.Open({kLoopback, 0})); }
  std::uint16_t port() const { return socket.LocalEndpoint()->port; }
  std::optional<Bytes> Receive(int timeout_ms = 2000, platform::UdpEndpoint* from = nullptr) {
    std::uint8_t buffer[2048];
    bool timed_out = false;
    const auto n = socket.ReceiveFor(std::as_writable_bytes(std::span(buffer)), from, timeout_ms,
                                     &timed_out);
    if (!n || timed_out) return std::nullopt;
    return Bytes(buffer, buffer + *n);
  }
  bool Quiet() { return !Receive(50).has_value(); }
  void Send(const Bytes& d, std::uint16_t to_port) {
    socket.SendTo(std::as_bytes(std::span(d)), {kLoopback, to_port});
  }
  platform::UdpSocket socket;
};

inline Bytes Datagram(std::uint8_t payload_type, std::uint16_t seq, std::uint32_t ts,
                      std::span<const std::uint8_t> payload) {
  Bytes d = {0x80, payload_type, std::uint8_t(seq >> 8), std::uint8_t(seq), std::uint8_t(ts >> 24),
             std::uint8_t(ts >> 16), std::uint8_t(ts >> 8), std::uint8_t(ts), 1, 2, 3, 4};
  d.insert(d.end(), payload.begin(), payload.end());
  return d;
}

// 1 kHz at 8000 of amplitude.
inline Samples Tone(std::size_t frames) {
  Samples s(frames * kFrame);
  for (std::size_t i = 0; i < s.size(); ++i) {
    s[i] = static_cast<std::int16_t>(std::lround(8000.0 * std::sin(2.0 * std::numbers::pi * i / 8.0)));
  }
  return s;
}

inline double Rms(std::span<const std::int16_t> s) {
  double sum = 0;
  for (std::int16_t v : s) sum += double(v) * double(v);
  return s.empty() ? 0.0 : std::sqrt(sum / double(s.size()));
}

inline double ZeroCrossingHz(std::span<const std::int16_t> s) {
  int crossings = 0;
  for (std::size_t i = 1; i < s.size(); ++i) crossings += (s[i - 1] < 0) != (s[i] < 0);
  return crossings * 8000.0 / 2.0 / double(s.size());
}

class WaveSession : public ::testing::Test {
 protected:
  // In the call processor's order: port 8000 (the seam binds a free one), the PBX as remote,
  // then a connection points it at the far end.
  void SetUp() override {
    ASSERT_EQ(wave.Start(), 0);
    wave.SetLocalPort(CWave::kDefaultLocalPort);
    wave.SetRemoteIp(kLoopback);
    wave.SetRemotePort(CWave::kDefaultLocalPort);
    ASSERT_EQ(wave.StartSession(), 0);
    wave.SetReceiving(false);
    wave.SetRemotePort(peer.port());
    port = wave.LocalEndpoint()->port;
  }

  // Numbered from `first_seq`; the timestamp runs on across a sequence wrap, as a sender's does.
  void SendFrames(std::uint8_t payload_type, std::uint32_t first_seq,
                  const std::vector<Bytes>& payloads) {
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      const std::uint32_t count = first_seq + static_cast<std::uint32_t>(i);
      peer.Send(Datagram(payload_type, std::uint16_t(count), 1000u + 160u * count, payloads[i]),
                port);
    }
  }
  bool AwaitDecoded(std::uint64_t n) { return Eventually([&] { return wave.packets_decoded() >= n; }); }
  bool AwaitRead(std::uint64_t n) { return Eventually([&] { return wave.packets_read() >= n; }); }

  std::uint32_t Pull() { return bytes = wave.ReceiveVoice(0, pcm, &status); }
  // The first unbroken run of delivered sound (status 0).
  Samples PlayOut(int max_pulls = 64) {
    Samples out;
    for (int i = 0; i < max_pulls; ++i) {
      Pull();
      if (status == 0) {
        out.insert(out.end(), pcm, pcm + bytes / 2);
      } else if (!out.empty()) {
        break;
      }
    }
    return out;
  }

  testing::FakeClock clock;
  Peer peer;
  CWave wave{clock, std::uint16_t{0}};
  std::uint16_t port = 0;
  std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame] = {};
  std::uint32_t status = 99;
  std::uint32_t bytes = 0;
};

}  // namespace deskline::wavetest
