// CMgcp over loopback with a scripted PBX socket, in real time: the RSIP gate, answers, resends.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "testing/eventually.h"
#include "mgcp/mgcp.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;
using mgcp_test::kHead;

class FakeParent final : public MgcpParent {
 public:
  struct Event {
    std::uint32_t event;
    SignalBuffer signal{};
    MgcpMediaState media;
    std::string connection;  // the media state's view points into the block: copied
  };

  explicit FakeParent(CMgcp& mgcp) : mgcp_(mgcp) {}

  int OnMgcpEvent(std::uint32_t event, const char* data, bool take_lock) override {
    Event e{event};
    EXPECT_FALSE(take_lock);  // false: the endpoint already holds the event lock
    if (event == MGCP_EVENT_RQNT && data) std::memcpy(e.signal.data(), data, kSignalBufferSize);
    e.media = mgcp_.MediaState();
    e.connection = std::string(e.media.remote_connection);
    EXPECT_TRUE(event_lock_.try_lock());  // held by this thread if by any
    event_lock_.unlock();
    std::lock_guard lock(mutex_);
    events_.push_back(e);
    return 0;
  }
  void OnRsipAcknowledged() override { ++rsip_rings_; }
  int rsip_rings() const { return rsip_rings_.load(); }
  int SetEventLock(bool take) override {
    if (take) event_lock_.lock();
    balance_ += take ? 1 : -1;
    if (!take) event_lock_.unlock();
    return 0;
  }
  std::vector<Event> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::atomic<int> balance_{0};

 private:
  CMgcp& mgcp_;
  std::recursive_mutex event_lock_;
  std::atomic<int> rsip_rings_{0};
  std::mutex mutex_;
  std::vector<Event> events_;
};

using testing::Eventually;

// The answer with the local SDP for the loopback address and media port 8000.
std::string WithSdp(const std::string& first_line, int connection_id) {
  return first_line + "I: " + std::to_string(connection_id) +
         "\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
         "m=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n";
}

class MgcpModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pbx_.Open({kLoopback, 0}));
    data_.local_ip = data_.pbx_ip = kLoopback;
    std::memcpy(data_.mac_address, mgcp_test::kMac, 6);
    mgcp_.SetParent(&parent_);
    mgcp_.SetPorts(0, pbx_.LocalEndpoint()->port);
    ASSERT_EQ(mgcp_.SetNetworkInitData(&data_), 0);
  }
  void TearDown() override {
    mgcp_.Shutdown();
    EXPECT_EQ(parent_.balance_, 0);
  }

  // The PBX's side of the loopback.
  void Send(std::string_view text) {
    EXPECT_TRUE(pbx_.SendTo(std::as_bytes(std::span(text)), {kLoopback, port_}));
  }
  // The next datagram that is not a resend of `skip`.
  std::optional<std::string> Receive(std::string_view skip = {}, int timeout_ms = 3000) {
    for (int i = 0; i < 20; ++i) {
      char buffer[2048];
      bool timed_out = false;
      const auto got = pbx_.ReceiveFor(std::as_writable_bytes(std::span<char>(buffer)), nullptr,
                                       timeout_ms, &timed_out);
      if (!got || timed_out) return std::nullopt;
      if (std::string_view(buffer, *got) != skip) return std::string(buffer, *got);
    }
    return std::nullopt;
  }

  // Start and RSIP; `answer` acknowledges it.
  void Start(const char* answer = "200 1 OK\r\n") {
    ASSERT_EQ(mgcp_.Start(), 0);
    mgcp_.SetLocalMedia(8000);
    port_ = mgcp_.LocalPort();
    ASSERT_NE(port_, 0);
    mgcp_.PostEvent(MGCP_EVENT_SEND_RSIP, nullptr);
    ASSERT_EQ(Receive(), rsip_);
    if (answer == nullptr) return;
    EXPECT_FALSE(mgcp_.IsRsipAcknowledged());
    Send(answer);
    ASSERT_TRUE(Eventually([&] { return mgcp_.IsRsipAcknowledged(); }));
  }

  const std::string rsip_ = "RSIP 1" + kHead + "RM: restart\r\n";
  NetworkInitData data_{};
  platform::UdpSocket pbx_;
  CMgcp mgcp_;
  FakeParent parent_{mgcp_};
  std::uint16_t port_ = 0;
};

TEST_F(MgcpModuleTest, CommandsBeforeTheRsipAnswerAreDropped) {
  Start(nullptr);
  Send("DLCX 5" + kHead);
  EXPECT_EQ(Receive(rsip_, 700), std::nullopt);  // only RSIP resends, no answer
  EXPECT_TRUE(parent_.events().empty());
  EXPECT_EQ(parent_.rsip_rings(), 0);
  Send("100 1\r\n");  // a provisional answer acknowledges as well
  EXPECT_TRUE(Eventually([&] { return mgcp_.IsRsipAcknowledged() && mgcp_.PendingCount() == 0; }));
  // The parent's start is woken once, by the first answer only.
  EXPECT_EQ(parent_.rsip_rings(), 1);
  Send("200 1\r\n");
  Send("DLCX 6" + kHead);
  EXPECT_TRUE(Receive({}, 2000).has_value());  // the DLCX answer: the 200 was read before it
  EXPECT_EQ(parent_.rsip_rings(), 1);
}

TEST_F(MgcpModuleTest, CommandsAreToldThenAnswered) {
  Start();
  Send("CRCX 5" + kHead +
                       "C: A3C47F21\r\nM: recvonly\r\n\r\nv=0\r\nc=IN IP4 127.0.0.1\r\n"
                       "m=audio 49170 RTP/AVP 0 18\r\na=rtpmap:18 G729/8000\r\n");
  EXPECT_EQ(Receive(rsip_), "100 5\r\n");
  EXPECT_EQ(Receive(rsip_), WithSdp("200 5 OK\r\n", 0));
  // MDCX: the SDP rides on the provisional answer.
  Send("MDCX 6" + kHead + "C: A3C47F21\r\nI: 12\r\nM: sendrecv\r\n");
  EXPECT_EQ(Receive(rsip_), WithSdp("100 6\r\n", 12));
  EXPECT_EQ(Receive(rsip_), "200 6 OK\r\n");
  // Another endpoint's command is answered but not told; a CRCX still gets the SDP.
  Send("DLCX 7 d1@ffffffffffff MGCP 1.0\r\n");
  EXPECT_EQ(Receive(rsip_), "250 7\r\n");
  Send("CRCX 10 d1@ffffffffffff MGCP 1.0\r\nC: x\r\n");
  EXPECT_EQ(Receive(rsip_), "100 10\r\n");
  EXPECT_EQ(Receive(rsip_), WithSdp("200 10 OK\r\n", 12));
  // An audit counts as a response and an empty datagram is skipped: neither is answered.
  Send("AUEP 3" + kHead);
  Send("");
  Send("RQNT 9" + kHead + "S: X-P/ks(0201,gon),X-P/ring(010203)\r\n");
  EXPECT_EQ(Receive(rsip_), "200 9 OK\r\n");
  Send("DLCX 8" + kHead + "C: A3C47F21\r\nI: 12\r\n");
  EXPECT_EQ(Receive(rsip_), "250 8\r\n");

  const auto events = parent_.events();
  std::vector<std::uint32_t> kinds;
  for (const auto& e : events) kinds.push_back(e.event);
  EXPECT_EQ(kinds, (std::vector<std::uint32_t>{MGCP_EVENT_CRCX, MGCP_EVENT_MDCX, MGCP_EVENT_RQNT,
                                               MGCP_EVENT_RQNT, MGCP_EVENT_DLCX}));
  ASSERT_EQ(events.size(), 5u);
  const MgcpMediaState& crcx = events[0].media;
  EXPECT_EQ(std::tuple(events[0].connection, crcx.remote_rtp_port, crcx.local_rtp_port, crcx.codec,
                       crcx.connection_mode),
            std::tuple(std::string("IN IP4 127.0.0.1"), 49170, 8000, 18u, MGCP_MODE_RECVONLY));
  EXPECT_EQ(events[1].media.connection_mode, MGCP_MODE_SENDRECV);
  EXPECT_EQ(std::string(events[2].signal.data(), 2), "ks");
  EXPECT_EQ(std::string(events[3].signal.data()), "mgcp_tone");
  EXPECT_TRUE(events[3].media.ringer_active);
}

TEST_F(MgcpModuleTest, NotifyIsResentUntilAnsweredAndResponsesAreNot) {
  Start();
  mgcp_.PostEvent(MGCP_EVENT_SEND_NTFY, "0200");
  const std::string ntfy = "NTFY 2" + kHead + "X: 1\r\nO: X-P/fk0200\r\nK: 1\r\n";
  EXPECT_EQ(Receive(), ntfy);
  EXPECT_EQ(Receive(), ntfy);  // the resend
  Send("200 2 OK\r\n");
  EXPECT_TRUE(Eventually([&] { return mgcp_.PendingCount() == 0; }));
  mgcp_.PostEvent(MGCP_EVENT_SEND_RESPONSE, "400");
  EXPECT_EQ(Receive(ntfy), "400 1\r\n");
  EXPECT_EQ(mgcp_.PendingCount(), 0);
  mgcp_.PostEvent(MGCP_EVENT_SEND_DLCX, nullptr);
  EXPECT_EQ(Receive(ntfy), "DLCX 1" + kHead + "C: \r\nI: 0\r\n");
  EXPECT_EQ(mgcp_.SendPunch(), 0);
  EXPECT_EQ(Receive(ntfy), "");
}

TEST_F(MgcpModuleTest, LifeCycle) {
  mgcp_.SetParent(nullptr);
  EXPECT_EQ(mgcp_.Start(), 1);  // no parent: nothing runs
  mgcp_.SetParent(&parent_);
  EXPECT_EQ(mgcp_.SetNetworkInitData(nullptr), 0);  // keeps the data registered before
  Start();
  EXPECT_EQ(mgcp_.Start(), 1);  // already running
  EXPECT_EQ(mgcp_.Shutdown(), 0);
  EXPECT_EQ(mgcp_.LocalPort(), 0);
  EXPECT_EQ(mgcp_.Shutdown(), 0);
  EXPECT_EQ(mgcp_.PostEvent(MGCP_EVENT_SEND_NTFY, "0200"), 0);  // nothing to send on
  Start();  // everything is built again: the counters restart at 1
}

TEST_F(MgcpModuleTest, TakenPortOrNoNetworkDataStillStarts) {
  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({0, 0}));
  mgcp_.SetPorts(taken.LocalEndpoint()->port, pbx_.LocalEndpoint()->port);
  EXPECT_EQ(mgcp_.Start(), 0);
  mgcp_.PostEvent(MGCP_EVENT_SEND_RSIP, nullptr);
  EXPECT_EQ(Receive({}, 300), std::nullopt);
  EXPECT_FALSE(mgcp_.IsRsipAcknowledged());
  EXPECT_EQ(mgcp_.SendPunch(), 1);
  EXPECT_EQ(mgcp_.Shutdown(), 0);

  CMgcp bare;
  FakeParent bare_parent(bare);
  bare.SetParent(&bare_parent);
  EXPECT_EQ(bare.SetNetworkInitData(nullptr), 1);
  bare.SetPorts(0, 9);
  EXPECT_EQ(bare.Start(), 0);
  EXPECT_EQ(bare.MediaState().remote_connection, "");
  EXPECT_EQ(bare.Shutdown(), 0);
}

}  // namespace
}  // namespace deskline
