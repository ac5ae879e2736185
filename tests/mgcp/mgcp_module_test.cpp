// CMgcp over loopback with a scripted PBX socket, in real time: start, the RSIP gate, commands
// and their answers, resending, life and threads. The schedules themselves are tested in
// simulated time on the list.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mgcp/mgcp.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kLoopback = 0x7F000001;
const std::string kEp = "d1@001122aabbcc";

class FakeParent final : public MgcpParent {
 public:
  struct Event {
    std::uint32_t event;
    bool take_lock;
    SignalBuffer signal{};
    MgcpMediaState media;
    std::string connection;
  };

  explicit FakeParent(CMgcp& mgcp) : mgcp_(mgcp) {}

  int OnMgcpEvent(std::uint32_t event, const char* data, bool take_lock) override {
    Event record{event, take_lock};
    if (event == MGCP_EVENT_RQNT && data != nullptr) {
      std::memcpy(record.signal.data(), data, record.signal.size());
    }
    record.media = mgcp_.MediaState();
    record.connection = std::string(record.media.remote_connection);
    // Holding the event lock here is what the endpoint promised.
    EXPECT_TRUE(event_lock_.try_lock());
    event_lock_.unlock();
    std::lock_guard lock(mutex_);
    events_.push_back(record);
    return 0;
  }
  int SetEventLock(bool take) override {
    if (take) {
      event_lock_.lock();
      ++takes_;
    } else {
      ++releases_;
      event_lock_.unlock();
    }
    return 0;
  }

  std::vector<Event> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  int takes() const { return takes_; }
  int releases() const { return releases_; }

 private:
  CMgcp& mgcp_;
  std::recursive_mutex event_lock_;
  std::mutex mutex_;
  std::vector<Event> events_;
  std::atomic<int> takes_{0};
  std::atomic<int> releases_{0};
};

// The PBX's side: one loopback socket.
class FakePbx {
 public:
  FakePbx() {
    EXPECT_TRUE(socket_.Open({kLoopback, 0}));
    port_ = socket_.LocalEndpoint()->port;
  }
  std::uint16_t port() const { return port_; }

  void Send(std::uint16_t to_port, std::string_view text) {
    EXPECT_TRUE(socket_.SendTo(std::as_bytes(std::span<const char>(text.data(), text.size())),
                               {kLoopback, to_port}));
  }
  std::optional<std::string> Receive(int timeout_ms = 3000) {
    char buffer[2048];
    bool timed_out = false;
    const auto got = socket_.ReceiveFor(std::as_writable_bytes(std::span<char>(buffer)), nullptr,
                                        timeout_ms, &timed_out);
    if (!got || timed_out) return std::nullopt;
    return std::string(buffer, *got);
  }
  // The next datagram that is not a resend of `skip` (RSIP and NTFY resends may interleave).
  std::optional<std::string> ReceiveOther(std::string_view skip, int timeout_ms = 3000) {
    for (int i = 0; i < 20; ++i) {
      auto got = Receive(timeout_ms);
      if (!got || *got != skip) return got;
    }
    return std::nullopt;
  }

 private:
  platform::UdpSocket socket_;
  std::uint16_t port_ = 0;
};

NetworkInitData LoopbackData() {
  NetworkInitData data{};
  data.local_ip = kLoopback;
  data.pbx_ip = kLoopback;
  std::memcpy(data.mac_address, mgcp_test::kMac, 6);
  return data;
}

template <typename Predicate>
bool Eventually(Predicate predicate) {
  for (int i = 0; i < 300; ++i) {
    if (predicate()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return predicate();
}

class MgcpModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mgcp_.SetParent(&parent_);
    mgcp_.SetPorts(0, pbx_.port());
    ASSERT_EQ(mgcp_.SetNetworkInitData(&data_), 0);
  }
  void TearDown() override {
    mgcp_.Shutdown();
    EXPECT_EQ(parent_.takes(), parent_.releases());
  }

  // Start, RSIP, and its answer: the module then accepts commands.
  void StartAndRegister() {
    ASSERT_EQ(mgcp_.Start(), 0);
    mgcp_.SetLocalMedia(8000);
    port_ = mgcp_.LocalPort();
    ASSERT_NE(port_, 0);
    mgcp_.PostEvent(MGCP_EVENT_SEND_RSIP, nullptr);
    ASSERT_EQ(pbx_.Receive(), rsip_);
    EXPECT_FALSE(mgcp_.IsRsipAcknowledged());
    pbx_.Send(port_, "200 1 OK\r\n");
    ASSERT_TRUE(Eventually([&] { return mgcp_.IsRsipAcknowledged(); }));
  }

  const std::string rsip_ = "RSIP 1 " + kEp + " MGCP 1.0\r\nRM: restart\r\n";
  NetworkInitData data_ = LoopbackData();
  FakePbx pbx_;
  CMgcp mgcp_;
  FakeParent parent_{mgcp_};
  std::uint16_t port_ = 0;
};

TEST_F(MgcpModuleTest, CommandsBeforeTheRsipAnswerAreDropped) {
  ASSERT_EQ(mgcp_.Start(), 0);
  port_ = mgcp_.LocalPort();
  mgcp_.PostEvent(MGCP_EVENT_SEND_RSIP, nullptr);
  ASSERT_EQ(pbx_.Receive(), rsip_);
  pbx_.Send(port_, "DLCX 5 " + kEp + " MGCP 1.0\r\n");
  // Only resends of the RSIP may arrive; no answer to the DLCX.
  EXPECT_EQ(pbx_.ReceiveOther(rsip_, 700), std::nullopt);
  EXPECT_TRUE(parent_.events().empty());
  // A provisional answer acknowledges the RSIP as well.
  pbx_.Send(port_, "100 1\r\n");
  EXPECT_TRUE(Eventually([&] { return mgcp_.IsRsipAcknowledged(); }));
  EXPECT_TRUE(Eventually([&] { return mgcp_.PendingCount() == 0; }));
}

TEST_F(MgcpModuleTest, ConnectionCommandsAreToldThenAnswered) {
  StartAndRegister();
  pbx_.Send(port_, "CRCX 5 " + kEp +
                       " MGCP 1.0\r\nC: A3C47F21\r\nL: p:20\r\nM: recvonly\r\n\r\nv=0\r\n"
                       "o=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
                       "m=audio 49170 RTP/AVP 0 18\r\na=rtpmap:18 G729/8000\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "100 5\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_),
            "200 5 OK\r\nI: 0\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\n"
            "c=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");
  auto events = parent_.events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].event, MGCP_EVENT_CRCX);
  EXPECT_FALSE(events[0].take_lock);
  EXPECT_EQ(events[0].connection, "IN IP4 127.0.0.1");
  EXPECT_EQ(events[0].media.remote_rtp_port, 49170);
  EXPECT_EQ(events[0].media.local_rtp_port, 8000);
  EXPECT_EQ(events[0].media.codec, 18u);
  EXPECT_EQ(events[0].media.connection_mode, MGCP_MODE_RECVONLY);

  // MDCX: the SDP rides on the provisional answer.
  pbx_.Send(port_, "MDCX 6 " + kEp + " MGCP 1.0\r\nC: A3C47F21\r\nI: 12\r\nM: sendrecv\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_),
            "100 6\r\nI: 12\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\n"
            "c=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "200 6 OK\r\n");

  // A command for another endpoint is answered but not told; a CRCX still gets the SDP.
  pbx_.Send(port_, "DLCX 7 d1@ffffffffffff MGCP 1.0\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "250 7\r\n");
  pbx_.Send(port_, "CRCX 10 d1@ffffffffffff MGCP 1.0\r\nC: x\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "100 10\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_),
            "200 10 OK\r\nI: 12\r\n\r\nv=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\n"
            "c=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");
  pbx_.Send(port_, "DLCX 8 " + kEp + " MGCP 1.0\r\nC: A3C47F21\r\nI: 12\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "250 8\r\n");
  events = parent_.events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1].event, MGCP_EVENT_MDCX);
  EXPECT_EQ(events[1].media.connection_mode, MGCP_MODE_SENDRECV);
  EXPECT_EQ(events[2].event, MGCP_EVENT_DLCX);

  // An audit counts as a response: no answer at all, and the next command is answered next.
  pbx_.Send(port_, "AUEP 3 " + kEp + " MGCP 1.0\r\n");
  pbx_.Send(port_, "");  // a punch: no message
  pbx_.Send(port_, "RQNT 9 " + kEp + " MGCP 1.0\r\nS: X-P/ks(0201,gon),X-P/ring(010203)\r\n");
  EXPECT_EQ(pbx_.ReceiveOther(rsip_), "200 9 OK\r\n");
  events = parent_.events();
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[3].event, MGCP_EVENT_RQNT);
  EXPECT_EQ(std::string(events[3].signal.data(), 2), "ks");
  EXPECT_EQ(std::string(events[4].signal.data()), "mgcp_tone");
  EXPECT_TRUE(events[4].media.ringer_active);
  EXPECT_TRUE(mgcp_.IsRingerActive());
}

TEST_F(MgcpModuleTest, NotifyIsResentUntilAnswered) {
  StartAndRegister();
  mgcp_.PostEvent(MGCP_EVENT_SEND_NTFY, "0200");
  const std::string ntfy = "NTFY 2 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0200\r\nK: 1\r\n";
  EXPECT_EQ(pbx_.Receive(), ntfy);
  EXPECT_EQ(mgcp_.PendingCount(), 1);
  EXPECT_EQ(pbx_.Receive(), ntfy);  // the resend
  pbx_.Send(port_, "200 2 OK\r\n");
  EXPECT_TRUE(Eventually([&] { return mgcp_.PendingCount() == 0; }));
  // Responses from the call processor are sent once and never held.
  mgcp_.PostEvent(MGCP_EVENT_SEND_RESPONSE, "400");
  EXPECT_EQ(pbx_.ReceiveOther(ntfy), "400 1\r\n");
  EXPECT_EQ(mgcp_.PendingCount(), 0);
  mgcp_.PostEvent(MGCP_EVENT_SEND_DLCX, nullptr);
  EXPECT_EQ(pbx_.ReceiveOther(ntfy), "DLCX 1 " + kEp + " MGCP 1.0\r\nC: \r\nI: 0\r\n");
  EXPECT_EQ(mgcp_.SendPunch(), 0);
  EXPECT_EQ(pbx_.ReceiveOther(ntfy), "");
}

TEST_F(MgcpModuleTest, LifeCycle) {
  // Without a parent the start fails and leaves nothing running.
  mgcp_.SetParent(nullptr);
  EXPECT_EQ(mgcp_.Start(), 1);
  mgcp_.SetParent(&parent_);
  // A null pointer keeps the data registered before.
  EXPECT_EQ(mgcp_.SetNetworkInitData(nullptr), 0);

  StartAndRegister();
  EXPECT_EQ(mgcp_.Start(), 1);  // already running
  EXPECT_EQ(mgcp_.Shutdown(), 0);
  EXPECT_EQ(mgcp_.LocalPort(), 0);
  EXPECT_EQ(mgcp_.Shutdown(), 0);
  EXPECT_EQ(mgcp_.PostEvent(MGCP_EVENT_SEND_NTFY, "0200"), 0);  // nothing to send on
  // A start after a shutdown builds everything again: the counters restart at 1.
  StartAndRegister();
}

TEST(MgcpModuleStandaloneTest, TakenPortStillStartsAndNothingIsSent) {
  FakePbx pbx;
  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({0, 0}));
  const std::uint16_t port = taken.LocalEndpoint()->port;
  NetworkInitData data = LoopbackData();
  CMgcp mgcp;
  FakeParent parent(mgcp);
  mgcp.SetParent(&parent);
  mgcp.SetPorts(port, pbx.port());
  EXPECT_EQ(mgcp.SetNetworkInitData(&data), 0);
  EXPECT_EQ(mgcp.Start(), 0);
  mgcp.PostEvent(MGCP_EVENT_SEND_RSIP, nullptr);
  EXPECT_EQ(pbx.Receive(300), std::nullopt);
  EXPECT_FALSE(mgcp.IsRsipAcknowledged());
  EXPECT_EQ(mgcp.SendPunch(), 1);
  EXPECT_EQ(mgcp.Shutdown(), 0);
}

TEST(MgcpModuleStandaloneTest, NoNetworkDataIsRefusedButStillStarts) {
  CMgcp mgcp;
  FakeParent parent(mgcp);
  mgcp.SetParent(&parent);
  EXPECT_EQ(mgcp.SetNetworkInitData(nullptr), 1);
  mgcp.SetPorts(0, 9);
  EXPECT_EQ(mgcp.Start(), 0);
  EXPECT_EQ(mgcp.MediaState().remote_connection, "");
  EXPECT_EQ(mgcp.Shutdown(), 0);
}

}  // namespace
}  // namespace deskline
