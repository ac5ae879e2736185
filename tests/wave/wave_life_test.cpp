#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "wave_fixture.h"

namespace deskline::wavetest {
namespace {

TEST(WaveLife, StartSessionFailures) {
  testing::FakeClock clock;
  Peer holder;  // holds a port
  CWave wave(clock, holder.port());
  EXPECT_EQ(wave.StartSession(), 1) << "nothing to start before Start";
  ASSERT_EQ(wave.Start(), 0);
  wave.SetLocalPort(CWave::kDefaultLocalPort);
  EXPECT_EQ(wave.StartSession(), 1) << "no remote address";
  wave.SetRemoteIp(kLoopback);
  EXPECT_EQ(wave.StartSession(), 1) << "port taken";
  EXPECT_EQ(wave.thread_id(), 0u);
  EXPECT_EQ(wave.Shutdown(), 0);
}

// Exactly one 320-byte frame a call: any other size, or no samples, loses that call alone.
// The punch leaves from the voice socket as an empty datagram.
TEST_F(WaveSession, SendFrameTakesOneWholeFrameAndThePunchIsEmpty) {
  const Samples tone = Tone(2);
  for (std::uint32_t size : {0u, 2u, 319u, 321u, 640u, 0xFFFFFFFFu}) {
    EXPECT_EQ(wave.SendFrame(tone.data(), size), 1) << size;
  }
  EXPECT_EQ(wave.SendFrame(nullptr, kVoiceFrameBytes), 1);
  EXPECT_TRUE(peer.Quiet());
  wave.SendVoiceFrame(tone.data(), kVoiceFrameBytes);
  EXPECT_EQ(peer.Receive()->size(), kRtpHeaderBytes + 160);

  EXPECT_EQ(wave.SendPunch(kLoopback, peer.port()), 0);
  platform::UdpEndpoint from;
  EXPECT_EQ(peer.Receive(2000, &from), Bytes{});
  EXPECT_EQ(from.port, port);
}

// Bad datagrams are read and dropped, a payload short of its codec's frame too; the session
// plays on afterwards.
TEST_F(WaveSession, BadDatagramsAreDroppedAndTheSessionPlaysOn) {
  wave.SetReceiving(true);
  for (const Bytes& d : {Bytes{}, Bytes(12, 0x80), Datagram(0, 7, 7, Bytes(159, 0xFF)),
                         Bytes(1600, 0x80)}) {
    peer.Send(d, port);
  }
  SendFrames(0, 30, std::vector<Bytes>(5, Bytes(160, 0xA0)));
  ASSERT_TRUE(AwaitDecoded(5));
  wave.SetPayloadType(kRtpPayloadG729);
  SendFrames(kRtpPayloadG729, 35, {Bytes(19, 0), Bytes(20, 0)});
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

// Shutdown while packets pour in and the host sends and pulls: the thread is joined before
// anything it uses goes, and the host's later calls are refused cleanly.
TEST_F(WaveSession, ShutdownWhileBothPathsAreBusy) {
  EXPECT_NE(wave.thread_id(), 0u);
  EXPECT_EQ(wave.StartSession(), 1) << "already bound";
  wave.SetReceiving(true);

  std::atomic<bool> stop{false};
  std::thread sender([&] {
    const Bytes payload(160, 0x33);
    for (std::uint16_t seq = 0; !stop; ++seq) {
      peer.Send(Datagram(0, seq, 160u * seq, payload), port);
      if (seq % 16 == 0) std::this_thread::yield();
    }
  });
  std::thread host([&] {
    const Samples tone = Tone(1);
    std::int16_t out[CWave::kMaxFramesPerPull * kFrame];
    while (!stop) {
      wave.SendVoiceFrame(tone.data(), kVoiceFrameBytes);
      std::uint32_t status = 0;
      wave.ReceiveVoice(0, out, &status);
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
  EXPECT_EQ(wave.Shutdown(), 0) << "twice is harmless";
  EXPECT_EQ(wave.SendFrame(Tone(1).data(), kVoiceFrameBytes), 1);
  EXPECT_EQ(Pull(), 0u);
  EXPECT_EQ(status, 1u);
}

}  // namespace
}  // namespace deskline::wavetest
