// The media channel against a fake terminal: a raw socket answers the call agent's MGCP, and a
// second RTP peer stands in for the terminal's RTP port. Packets really flow on loopback, so
// these waits are real, each a fraction of a second.
#include "tools/pbxsim/media_channel.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pbxsim_test_util.h"
#include "tools/rtppeer/peer_analysis.h"
#include "tools/rtppeer/peer_sound.h"

namespace deskline::sim {
namespace {

using std::chrono::milliseconds;
using testing::Eventually;
using testing::RawTerminal;

constexpr milliseconds kWait{3000};
const std::string kRsip = "RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n";

// The transaction id of a command text ("CRCX 1000 d1@... MGCP 1.0").
std::uint32_t TidOf(const std::string& command) {
  const std::size_t blank = command.find(' ');
  return blank == std::string::npos ? 0 : static_cast<std::uint32_t>(std::stoul(command.substr(blank + 1)));
}

std::string Answer(std::uint32_t tid, int port) {
  return "200 " + std::to_string(tid) + " OK\r\nI: 7\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\n"
         "s=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio " + std::to_string(port) +
         " RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n";
}

class MediaChannelTest : public ::testing::Test {
 protected:
  MediaChannelTest()
      : agent_(MgcpAgentOptions{.resend = {.max_resends = 0, .first_period = milliseconds(100)}}) {}

  void SetUp() override {
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(rtp_.Start());
    mgcp_.Send(kRsip, agent_.endpoint());
    ASSERT_EQ(mgcp_.ReceiveText(), "200 1 OK\r\n");
  }

  MediaChannel& Channel(MediaOptions options = {}) {
    options.source = SoundSource::Tone(1000, -10);
    channel_.emplace(agent_, std::move(options), [this](std::string_view line) {
      std::lock_guard lock(notes_mutex_);
      notes_ += std::string(line) + "\n";
    });
    return *channel_;
  }
  std::string Notes() {
    std::lock_guard lock(notes_mutex_);
    return notes_;
  }
  // The CRCX that Connect sent, answered with `port` as the terminal's RTP port; then polls
  // until the channel has acted on the answer.
  std::string ConnectAndAnswer(int payload_type, int port) {
    const MediaResult result = channel_->Connect(payload_type, 0);
    EXPECT_TRUE(result.ok) << result.message;
    const std::string crcx = mgcp_.ReceiveText();
    mgcp_.Send(Answer(TidOf(crcx), port), agent_.endpoint());
    EXPECT_TRUE(Eventually([&] {
      channel_->Poll();
      return channel_->remote().has_value();
    }));
    return crcx;
  }
  // Packets that reached the fake terminal once the stream has stood still for 60 ms.
  std::size_t SettledCount() {
    std::size_t count = rtp_.ReceivedCount();
    for (;;) {
      std::this_thread::sleep_for(milliseconds(60));
      const std::size_t now = rtp_.ReceivedCount();
      if (now == count) return count;
      count = now;
    }
  }

  MgcpAgent agent_;
  RawTerminal mgcp_;
  RtpPeer rtp_;  // the terminal's RTP port
  std::mutex notes_mutex_;
  std::string notes_;
  std::optional<MediaChannel> channel_;
};

TEST_F(MediaChannelTest, TheAnswerPointsTheStreamAndHoldResumeReleaseFollowTheCall) {
  const std::string wav = ::testing::TempDir() + "pbxsim_media_record.wav";
  std::remove(wav.c_str());
  Channel(MediaOptions{.record_path = wav});
  const std::string crcx = ConnectAndAnswer(8, rtp_.port());
  // The offer names the port the peer is bound on, and the codec.
  EXPECT_NE(crcx.find("m=audio " + std::to_string(channel_->local_port()) + " RTP/AVP 8\r\n"),
            std::string::npos) << crcx;
  EXPECT_EQ(channel_->remote(), (platform::UdpEndpoint{0x7F000001, rtp_.port()}));
  EXPECT_TRUE(channel_->sending());
  EXPECT_NE(Notes().find("media: sending PCMA to 127.0.0.1:" + std::to_string(rtp_.port())),
            std::string::npos) << Notes();

  ASSERT_TRUE(rtp_.WaitForReceived(5, kWait));
  for (const ReceivedPacket& packet : rtp_.Received()) {
    EXPECT_EQ(packet.header.payload_type, 8);
    EXPECT_EQ(packet.payload_size, 160u);
  }

  // Hold stops the stream at once; resume starts it again.
  const MediaResult hold = channel_->Hold();
  EXPECT_TRUE(hold.ok);
  EXPECT_EQ(hold.message.substr(hold.message.find('\n') + 1), "media: hold");
  EXPECT_NE(mgcp_.ReceiveText().find("M: inactive"), std::string::npos);
  const std::size_t held = SettledCount();
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(rtp_.ReceivedCount(), held) << "nothing is sent on hold";
  const MediaResult resume = channel_->Resume();
  EXPECT_TRUE(resume.ok);
  EXPECT_NE(resume.message.find("media: sending PCMA"), std::string::npos) << resume.message;
  EXPECT_NE(mgcp_.ReceiveText().find("M: sendrecv"), std::string::npos);
  ASSERT_TRUE(rtp_.WaitForReceived(held + 3, kWait));

  // What the terminal sends is recorded until the release, which writes it.
  rtp_.SetRemote({0x7F000001, channel_->local_port()});
  rtp_.SetSource(SoundSource::Tone(440, -20));
  ASSERT_TRUE(rtp_.StartSending(10));
  ASSERT_TRUE(rtp_.WaitSendingDone(kWait));
  ASSERT_TRUE(Eventually([&] { return channel_->ReceivedCount() == 10; }));
  const MediaResult release = channel_->Release();
  EXPECT_TRUE(release.ok);
  EXPECT_NE(mgcp_.ReceiveText().find("DLCX"), std::string::npos);
  EXPECT_NE(release.message.find("media: received 10 packets, 0 lost"), std::string::npos)
      << release.message;
  EXPECT_FALSE(channel_->in_call());
  const std::size_t sent_before = SettledCount();
  std::this_thread::sleep_for(milliseconds(60));
  EXPECT_EQ(rtp_.ReceivedCount(), sent_before) << "nothing is sent after the release";

  const WavReadResult recorded = ReadWavAs8kMono(wav);
  ASSERT_TRUE(recorded.ok()) << recorded.error;
  EXPECT_EQ(recorded.samples.size(), 1600u);
  EXPECT_NEAR(RmsDbfs(recorded.samples), -20.0, 0.5);
  const MediaTotals totals = channel_->Totals();
  EXPECT_EQ(totals.payload_type, 8);
  EXPECT_EQ(totals.received, 10u);
  EXPECT_EQ(totals.lost, 0u);
  EXPECT_NEAR(totals.received_level_dbfs, -20.0, 0.5);
  EXPECT_EQ(totals.recording, wav);
  EXPECT_GE(totals.sent, rtp_.ReceivedCount());
  std::remove(wav.c_str());
}

TEST_F(MediaChannelTest, ATakenPortSendsNothingAndCallsAreOneAtATime) {
  Channel();
  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({0x7F000001, 0}));
  const std::uint16_t port = taken.LocalEndpoint()->port;
  const MediaResult refused = channel_->Connect(0, port);
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(refused.message, "connect: cannot bind RTP port 127.0.0.1:" + std::to_string(port) +
                                 " (in use?); CRCX not sent");
  EXPECT_EQ(agent_.Count(Direction::kOut, MgcpKind::kCrcx), 0u);
  EXPECT_FALSE(channel_->in_call());

  EXPECT_FALSE(channel_->Hold().ok) << "no call to hold";
  ConnectAndAnswer(0, rtp_.port());
  EXPECT_FALSE(channel_->Connect(0, 0).ok) << "a call is up";
  EXPECT_EQ(agent_.Count(Direction::kOut, MgcpKind::kCrcx), 1u);
}

TEST_F(MediaChannelTest, AfterTheFirstCallTheAnswersPortZeroKeepsTheLastPort) {
  Channel();
  ConnectAndAnswer(18, rtp_.port());
  ASSERT_TRUE(rtp_.WaitForReceived(2, kWait));
  EXPECT_EQ(rtp_.Received().front().header.payload_type, 18);
  EXPECT_EQ(rtp_.Received().front().payload_size, 20u);
  channel_->Release();
  mgcp_.ReceiveText();
  ConnectAndAnswer(0, 0);
  EXPECT_EQ(channel_->remote(), (platform::UdpEndpoint{0x7F000001, rtp_.port()}));
  EXPECT_NE(Notes().find("the answer names no RTP port; using " + std::to_string(rtp_.port())),
            std::string::npos) << Notes();
  const std::size_t before = rtp_.ReceivedCount();
  ASSERT_TRUE(rtp_.WaitForReceived(before + 2, kWait));
  EXPECT_EQ(rtp_.Received().back().header.payload_type, 0);
}

TEST_F(MediaChannelTest, NoAnswerARefusalOrTheTerminalsDlcxEachEndTheWaitWithANote) {
  Channel();
  // No answer: the agent gives up after one period; a late answer still starts the stream.
  ASSERT_TRUE(channel_->Connect(0, 0).ok);
  const std::uint32_t tid = TidOf(mgcp_.ReceiveText());
  ASSERT_TRUE(Eventually([&] {
    channel_->Poll();
    return Notes().find("media: no answer to CRCX " + std::to_string(tid)) != std::string::npos;
  }));
  EXPECT_FALSE(channel_->sending());
  mgcp_.Send(Answer(tid, rtp_.port()), agent_.endpoint());
  ASSERT_TRUE(Eventually([&] {
    channel_->Poll();
    return channel_->sending();
  }));

  // The terminal deletes the connection itself.
  mgcp_.Send("DLCX 2 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 7\r\n", agent_.endpoint());
  EXPECT_EQ(mgcp_.ReceiveText(), "250 2 OK\r\n");
  channel_->Poll();
  EXPECT_FALSE(channel_->in_call());
  EXPECT_NE(Notes().find("media: the terminal ended the call\nmedia: received 0 packets"),
            std::string::npos) << Notes();

  // A refused CRCX ends the call's media.
  ASSERT_TRUE(channel_->Connect(9, 0).ok);
  mgcp_.Send("510 " + std::to_string(TidOf(mgcp_.ReceiveText())) + " Bad\r\n", agent_.endpoint());
  ASSERT_TRUE(Eventually([&] {
    channel_->Poll();
    return !channel_->in_call();
  }));
  EXPECT_NE(Notes().find("refused with 510; no media"), std::string::npos) << Notes();
  EXPECT_EQ(channel_->Totals().payload_type, 9);
}

}  // namespace
}  // namespace deskline::sim
