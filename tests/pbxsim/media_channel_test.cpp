// The media channel against a fake terminal: a raw socket answers the call agent's MGCP, and a
// second RTP peer stands in for the terminal's RTP port. Packets really flow on loopback, so
// these waits are real, each a fraction of a second.
#include "tools/pbxsim/media_channel.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>

#include "pbxsim_test_util.h"

namespace deskline::sim {
namespace {

using std::chrono::milliseconds;
using testing::Eventually;

constexpr milliseconds kWait{3000};

// The transaction id of a command text ("CRCX 1000 d1@... MGCP 1.0").
std::uint32_t TidOf(const std::string& command) {
  const std::size_t blank = command.find(' ');
  return blank == std::string::npos ? 0 : std::stoul(command.substr(blank + 1));
}

std::string Answer(std::uint32_t tid, int port) {
  return "200 " + std::to_string(tid) + " OK\r\nI: 7\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\nm=audio " +
         std::to_string(port) + " RTP/AVP 0\r\n";
}

class MediaChannelTest : public ::testing::Test {
 protected:
  MediaChannelTest()
      : agent_(MgcpAgentOptions{.resend = {.max_resends = 0, .first_period = milliseconds(100)}}) {}

  void SetUp() override {
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(rtp_.Start());
    mgcp_.Send(testing::kRsip, agent_.endpoint());
    ASSERT_EQ(mgcp_.ReceiveText(), "200 1 OK\r\n");
    auto note = [this](std::string_view line) {
      std::lock_guard lock(notes_mutex_);
      notes_ += std::string(line) + "\n";
    };
    channel_.emplace(agent_, MediaOptions{.source = SoundSource::Tone(1000, -10)}, note);
  }
  bool Noted(const std::string& text) {
    std::lock_guard lock(notes_mutex_);
    return notes_.find(text) != std::string::npos;
  }
  // Polls the channel as the program's main loop does, until `condition` holds.
  bool PollUntil(const std::function<bool()>& condition) {
    return Eventually([&] {
      channel_->Poll();
      return condition();
    });
  }
  // The CRCX that Connect sent, answered with `port` as the terminal's RTP port, once the
  // channel has acted on the answer.
  std::string ConnectAndAnswer(int payload_type, int port) {
    EXPECT_TRUE(channel_->Connect(payload_type, 0).ok);
    const std::string crcx = mgcp_.ReceiveText();
    mgcp_.Send(Answer(TidOf(crcx), port), agent_.endpoint());
    EXPECT_TRUE(PollUntil([&] { return channel_->remote().has_value(); }));
    return crcx;
  }
  // Whether the stream to the fake terminal stands still: the channel stops its sender at
  // once, so after what was on the way has landed nothing more comes in 100 ms.
  bool StreamStopped() {
    std::this_thread::sleep_for(milliseconds(50));
    const std::size_t settled = rtp_.ReceivedCount();
    std::this_thread::sleep_for(milliseconds(100));
    return rtp_.ReceivedCount() == settled;
  }

  MgcpAgent agent_;
  testing::RawTerminal mgcp_;
  RtpPeer rtp_;  // the terminal's RTP port
  std::mutex notes_mutex_;
  std::string notes_;
  std::optional<MediaChannel> channel_;
};

TEST_F(MediaChannelTest, TheStreamFollowsTheCallAndAPortZeroAnswerKeepsTheLastPort) {
  const std::string crcx = ConnectAndAnswer(8, rtp_.port());
  // The offer names the port the peer is bound on, and the codec.
  const std::string offer = "m=audio " + std::to_string(channel_->local_port()) + " RTP/AVP 8\r\n";
  EXPECT_NE(crcx.find(offer), std::string::npos) << crcx;
  EXPECT_TRUE(Noted("media: sending PCMA to 127.0.0.1:" + std::to_string(rtp_.port())));
  ASSERT_TRUE(rtp_.WaitForReceived(3, kWait));
  EXPECT_EQ(rtp_.Received().front().header.payload_type, 8);

  EXPECT_TRUE(channel_->Hold().ok);
  EXPECT_NE(mgcp_.ReceiveText().find("M: inactive"), std::string::npos);
  EXPECT_TRUE(StreamStopped()) << "nothing is sent on hold";
  EXPECT_TRUE(channel_->Resume().ok);
  EXPECT_NE(mgcp_.ReceiveText().find("M: sendrecv"), std::string::npos);
  ASSERT_TRUE(rtp_.WaitForReceived(rtp_.ReceivedCount() + 3, kWait));
  const MediaResult release = channel_->Release();
  EXPECT_NE(mgcp_.ReceiveText().find("DLCX"), std::string::npos);
  EXPECT_NE(release.message.find("media: received 0 packets, 0 lost"), std::string::npos)
      << release.message;
  EXPECT_FALSE(channel_->in_call());
  EXPECT_TRUE(StreamStopped()) << "nothing is sent after the release";

  // The terminal answers port 0 after its first call while its socket stays where it was.
  ConnectAndAnswer(0, 0);
  EXPECT_EQ(channel_->remote(), (platform::UdpEndpoint{0x7F000001, rtp_.port()}));
  EXPECT_TRUE(Noted("the answer names no RTP port; using " + std::to_string(rtp_.port())));
  const std::size_t before = rtp_.ReceivedCount();
  ASSERT_TRUE(rtp_.WaitForReceived(before + 2, kWait));
  EXPECT_EQ(rtp_.Received().back().header.payload_type, 0);
}

TEST_F(MediaChannelTest, ATakenPortSendsNothingAndCallsAreOneAtATime) {
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

TEST_F(MediaChannelTest, NoAnswerARefusalOrTheTerminalsDlcxEachEndTheWaitWithANote) {
  // No answer: the agent gives up after one period; a late answer still starts the stream.
  ASSERT_TRUE(channel_->Connect(0, 0).ok);
  const std::uint32_t tid = TidOf(mgcp_.ReceiveText());
  ASSERT_TRUE(PollUntil([&] { return Noted("media: no answer to CRCX " + std::to_string(tid)); }));
  EXPECT_FALSE(channel_->sending());
  mgcp_.Send(Answer(tid, rtp_.port()), agent_.endpoint());
  ASSERT_TRUE(PollUntil([&] { return channel_->sending(); }));

  // The terminal deletes the connection itself.
  mgcp_.Send("DLCX 2 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 7\r\n", agent_.endpoint());
  EXPECT_EQ(mgcp_.ReceiveText(), "250 2 OK\r\n");
  channel_->Poll();
  EXPECT_FALSE(channel_->in_call());
  EXPECT_TRUE(Noted("media: the terminal ended the call\nmedia: received 0 packets"));

  // A refused CRCX ends the call's media.
  ASSERT_TRUE(channel_->Connect(9, 0).ok);
  mgcp_.Send("510 " + std::to_string(TidOf(mgcp_.ReceiveText())) + " Bad\r\n", agent_.endpoint());
  ASSERT_TRUE(PollUntil([&] { return !channel_->in_call(); }));
  EXPECT_TRUE(Noted("refused with 510; no media"));
  EXPECT_EQ(channel_->Totals().payload_type, 9);
}

}  // namespace
}  // namespace deskline::sim
