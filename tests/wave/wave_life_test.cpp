// The session's life: start-up and shutdown with their traces, start failures, the setters,
// frame sizes on the send side, and shutdown while both voice paths are busy.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "testing/trace_capture.h"
#include "wave_fixture.h"

namespace deskline::wavetest {
namespace {

TEST(WaveLife, StartsStopsAndTracesInOrder) {
  testing::TraceCapture trace;
  testing::FakeClock clock;
  Peer peer;
  platform::ThreadId id = 0;
  {
    CWave wave(clock, std::uint16_t{0});
    EXPECT_EQ(CWave::Current(), &wave);
    EXPECT_EQ(wave.StartSession(), 1) << "nothing to start before Start";
    ASSERT_EQ(wave.Start(), 0);
    EXPECT_EQ(wave.Start(), 0) << "a second Start makes nothing new";
    wave.SetLocalPort(CWave::kDefaultLocalPort);
    wave.SetRemoteIp(kLoopback);
    wave.SetRemotePort(peer.port());
    ASSERT_EQ(wave.StartSession(), 0);
    id = wave.thread_id();
    EXPECT_NE(id, 0u);
    EXPECT_NE(wave.LocalEndpoint()->port, CWave::kDefaultLocalPort) << "the seam chose the port";
    EXPECT_EQ(wave.StartSession(), 1) << "the socket is already bound";
    ASSERT_TRUE(Eventually([&] {
      return trace.Has("[WAVE :: Thread] Thread started - ID [" +
                       std::string(4 - std::min<std::size_t>(4, std::to_string(id).size()), '0') +
                       std::to_string(id) + "]");
    }));
    EXPECT_EQ(wave.Shutdown(), 0);
    EXPECT_EQ(wave.thread_id(), 0u);
    EXPECT_EQ(wave.Shutdown(), 0) << "twice is harmless";
    const Samples tone = Tone(1);
    EXPECT_EQ(wave.SendFrame(tone.data(), kVoiceFrameBytes), 1) << "nothing to send with";
    std::uint32_t status = 0;
    std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
    EXPECT_EQ(wave.ReceiveVoice(0, pcm, &status), 0u);
    EXPECT_EQ(status, 1u);
  }
  EXPECT_EQ(CWave::Current(), nullptr);

  const auto messages = trace.Messages();
  auto at = [&](const std::string& m) {
    for (std::size_t i = 0; i < messages.size(); ++i) {
      if (messages[i] == m) return static_cast<int>(i);
    }
    return -1;
  };
  char ended[64];
  std::snprintf(ended, sizeof ended, "[WAVE :: Thread] Thread terminated - ID [%04u]", id);
  const std::vector<std::string> order = {"[WAVE] Module created",
                                          "[WAVE] Module starting",
                                          "[WAVE] Thread terminated - RTP to Wave",
                                          ended,
                                          "[WAVE] Module shutdown",
                                          "[WAVE] Module destroyed"};
  int last = -1;
  for (const std::string& m : order) {
    const int i = at(m);
    EXPECT_GT(i, last) << m;
    last = i;
  }
  EXPECT_EQ(trace.Count("[WAVE] Module shutdown"), 1) << "only the shutdown that ended a thread";
}

TEST(WaveLife, StartSessionFailsWithoutARemoteAddressOrOnATakenPort) {
  testing::FakeClock clock;
  {
    CWave wave(clock, std::uint16_t{0});
    ASSERT_EQ(wave.Start(), 0);
    EXPECT_EQ(wave.StartSession(), 1) << "no remote address";
    EXPECT_EQ(wave.thread_id(), 0u);
  }
  Peer holder;  // holds a port
  CWave wave(clock, holder.port());
  ASSERT_EQ(wave.Start(), 0);
  wave.SetLocalPort(CWave::kDefaultLocalPort);
  wave.SetRemoteIp(kLoopback);
  EXPECT_EQ(wave.StartSession(), 1);
  EXPECT_EQ(wave.thread_id(), 0u);
  EXPECT_EQ(wave.Shutdown(), 0);
  // Made again from nothing after a shutdown.
  ASSERT_EQ(wave.Start(), 0);
  EXPECT_FALSE(wave.LocalEndpoint().has_value());
}

// Each setter reaches the socket; values are taken in host order.
TEST_F(WaveSession, SettersReachTheTransport) {
  EXPECT_EQ(wave.payload_type(), kRtpPayloadPcmu) << "both start at 0";
  EXPECT_EQ(wave.alaw_shift(), 3u);
  wave.SetAlawShift(0);
  EXPECT_EQ(wave.alaw_shift(), 4u);
  wave.SetAlawShift(5);
  EXPECT_EQ(wave.alaw_shift(), 3u);

  std::uint32_t ip = 0, remote_port = 0;
  wave.GetRemoteAddress(&ip, &remote_port);
  EXPECT_EQ(ip, kLoopback);
  EXPECT_EQ(remote_port, peer.port());
  wave.SetRemotePort(0x10000u | 4000u);
  wave.GetRemoteAddress(nullptr, &remote_port);
  EXPECT_EQ(remote_port, 4000u) << "the low 16 bits";

  // The punch leaves from the voice socket, as an empty datagram.
  EXPECT_EQ(wave.SendPunch(kLoopback, peer.port()), 0);
  platform::UdpEndpoint from;
  std::uint8_t buffer[16];
  bool timed_out = false;
  const auto n = peer.socket.ReceiveFor(std::as_writable_bytes(std::span(buffer)), &from, 2000,
                                        &timed_out);
  ASSERT_TRUE(n && !timed_out);
  EXPECT_EQ(*n, 0u);
  EXPECT_EQ(from.port, port);
  EXPECT_FALSE(wave.is_receiving());
  wave.SetReceiving(true);
  EXPECT_TRUE(wave.is_receiving());
}

// Exactly one 320-byte frame a call; any other size, or no samples, is dropped alone and the
// next frame goes out normally.
TEST_F(WaveSession, SendFrameTakesOneWholeFrame) {
  const Samples tone = Tone(2);
  for (std::uint32_t size : {0u, 2u, 319u, 321u, 640u, 0xFFFFFFFFu}) {
    EXPECT_EQ(wave.SendFrame(tone.data(), size), 1) << size;
  }
  EXPECT_EQ(wave.SendFrame(nullptr, kVoiceFrameBytes), 1);
  EXPECT_TRUE(peer.Quiet());
  wave.SendVoiceFrame(tone.data(), kVoiceFrameBytes);
  const auto d = peer.Receive();
  ASSERT_TRUE(d);
  EXPECT_EQ(d->size(), kRtpHeaderBytes + 160);
}

// Bad datagrams from the network are read and dropped; the session plays on afterwards.
TEST_F(WaveSession, BadDatagramsAreDroppedAndTheSessionPlaysOn) {
  wave.SetPayloadType(kRtpPayloadPcmu);
  wave.SetReceiving(true);
  peer.Send({}, port);                                    // empty
  peer.Send(Bytes(12, 0x80), port);                       // header only
  peer.Send(Datagram(0, 7, 7, Bytes(159, 0xFF)), port);   // a frame short
  peer.Send(Bytes(1600, 0x80), port);                     // too long
  Bytes v1 = Datagram(0, 8, 8, Bytes(160, 0xFF));
  v1[0] = 0x40;
  peer.Send(v1, port);                                    // version 1
  SendFrames(0, 30, std::vector<Bytes>(5, Bytes(160, 0xA0)));
  ASSERT_TRUE(AwaitDecoded(5));
  EXPECT_EQ(wave.packets_decoded(), 5u);
  // Packets come in order, so everything above has been seen by now.
  wave.SetPayloadType(kRtpPayloadG729);
  SendFrames(kRtpPayloadG729, 35, {Bytes(19, 0), Bytes(20, 0)});  // a G.729 frame short
  ASSERT_TRUE(AwaitDecoded(6));
  // A last packet that is read and not decoded: once it is read, all before it were.
  wave.SetPayloadType(96);
  SendFrames(96, 37, {Bytes(20, 0)});
  ASSERT_TRUE(AwaitRead(7));
  EXPECT_EQ(wave.packets_read(), 7u);
  EXPECT_EQ(wave.packets_decoded(), 6u);
  wave.SetPayloadType(kRtpPayloadPcmu);
  EXPECT_GE(PlayOut().size(), 3 * kFrame);
}

// Shutdown while packets pour in and the host is sending and pulling: the thread is joined
// before anything it uses goes, and the host's calls that come later are refused cleanly.
TEST(WaveLife, ShutdownWhileBothPathsAreBusy) {
  testing::FakeClock clock;
  Peer peer;
  CWave wave(clock, std::uint16_t{0});
  ASSERT_EQ(wave.Start(), 0);
  wave.SetRemoteIp(kLoopback);
  ASSERT_EQ(wave.StartSession(), 0);
  wave.SetRemotePort(peer.port());
  wave.SetReceiving(true);
  const std::uint16_t port = wave.LocalEndpoint()->port;

  std::atomic<bool> stop{false};
  std::thread sender([&] {
    const Bytes payload(160, 0x33);
    for (std::uint16_t seq = 0; !stop; ++seq) {
      const Bytes d = Datagram(0, seq, 160u * seq, payload);
      peer.socket.SendTo(std::as_bytes(std::span(d)), {kLoopback, port});
      if (seq % 16 == 0) std::this_thread::yield();
    }
  });
  std::thread host([&] {
    const Samples tone = Tone(1);
    std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
    while (!stop) {
      wave.SendVoiceFrame(tone.data(), kVoiceFrameBytes);
      std::uint32_t status = 0;
      wave.ReceiveVoice(0, pcm, &status);
      wave.ClearBuffer();
      wave.SetPayloadType(wave.payload_type() == 0 ? 18 : 0);
    }
  });
  ASSERT_TRUE(Eventually([&] { return wave.packets_read() > 50; }));
  EXPECT_EQ(wave.Shutdown(), 0);
  EXPECT_EQ(wave.thread_id(), 0u);
  std::this_thread::sleep_for(5ms);  // the host goes on calling into the stopped session
  stop = true;
  sender.join();
  host.join();
}

}  // namespace
}  // namespace deskline::wavetest
