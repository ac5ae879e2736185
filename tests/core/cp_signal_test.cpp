// Signals and connection commands applied by the call processor, the host's callbacks they
// produce, the line key lamps and the port punching that follows from them.
#include <gtest/gtest.h>

#include <cstring>

#include "core/cp.h"
#include "core/signal_buffer.h"
#include "fake_modules.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::FakeClock;
using testing::FakeModules;
using testing::HostCallbacks;
using Lines = std::vector<std::string>;

class CpSignal : public ::testing::Test {
 protected:
  // Manual time: the punching thread parks after its first pass; the tests step the passes.
  CpSignal() : clock_(FakeClock::Mode::kManual), fakes_(clock_) {
    HostCallbacks::log().Clear();
    cp_ = std::make_unique<CCp>(fakes_.Dependencies());
    const NetworkInitData data = HostCallbacks::Data();
    EXPECT_EQ(cp_->SetInitData(&data), 0);
    EXPECT_EQ(cp_->Start(), 0);
    EXPECT_TRUE(clock_.AwaitSleepers(2));  // the polling and punching threads are parked
    fakes_.log.Clear();
  }
  ~CpSignal() override { cp_->Shutdown(); }

  // A zeroed signal buffer that starts with `marker`, and one value put into it at `offset`.
  static std::vector<char> Buffer(const std::string& marker) {
    std::vector<char> buffer(kSignalBufferSize, 0);
    std::memcpy(buffer.data(), marker.data(), marker.size());
    return buffer;
  }
  static std::vector<char> Put(std::vector<char> b, std::size_t offset, std::uint32_t value) {
    std::memcpy(b.data() + offset, &value, 4);
    return b;
  }
  static std::vector<char> MgcpTone(std::uint32_t pattern) {
    return Put(Buffer("mgcp_tone"), kTonePatternOffset, pattern);
  }
  void Signal(const std::vector<char>& buffer) {
    cp_->OnMgcpEvent(MGCP_EVENT_RQNT, buffer.data(), false);
  }
  void Lamp(std::uint32_t key, std::uint32_t status) {
    Signal(Put(Put(Buffer("ks"), kKsKeyCodeOffset, key), kKsStateOffset, status));
  }
  void Connection(std::uint32_t event, int mode) {
    fakes_.mgcp->media.connection_mode = mode;
    cp_->OnMgcpEvent(event, nullptr, false);
  }
  // Line `key` made active and its call put on hold, the far end at `connection`:`port`.
  void HoldLine(std::uint32_t key, const std::string& connection, std::uint16_t port) {
    Lamp(key, 1);
    fakes_.mgcp->remote_connection = connection;
    fakes_.mgcp->media.remote_rtp_port = port;
    Connection(MGCP_EVENT_CRCX, MGCP_MODE_SENDRECV);
    Connection(MGCP_EVENT_MDCX, MGCP_MODE_INACTIVE);
  }
  // The RTP punches of `passes` punching passes.
  Lines Punches(int passes) {
    fakes_.log.Clear();
    for (int i = 0; i < passes; ++i) cp_->PortPunchPass();
    return fakes_.log.With("wave.Punch");
  }
  Lines Host() const { return HostCallbacks::log().lines(); }
  Lines Events() const { return HostCallbacks::log().With("event"); }
  void ClearHost() { HostCallbacks::log().Clear(); }

  testing::TraceCapture trace_;
  FakeClock clock_;
  FakeModules fakes_;
  std::unique_ptr<CCp> cp_;
};

TEST_F(CpSignal, IncomingCallRingsTalksAndEnds) {
  Connection(MGCP_EVENT_DLCX, MGCP_MODE_SENDRECV);  // while idle: media closed, no "end"
  EXPECT_EQ(Events(), (Lines{"event(17,0)", "event(36,0)"}));
  EXPECT_TRUE(fakes_.log.Contains("wave.SetReceiving(0)"));
  EXPECT_TRUE(fakes_.log.Contains("wave.ClearBuffer"));
  ClearHost();
  fakes_.log.Clear();

  fakes_.mgcp->media.ringer_active = true;
  fakes_.mgcp->media.codec = 8;
  Signal(MgcpTone(2));
  EXPECT_EQ(cp_->call_state(), CP_STATE_INCOMING);
  EXPECT_EQ(Events(), (Lines{"event(2,9,mgcp_tone)"}));
  ClearHost();

  ASSERT_EQ(cp_->UpdateState(CP_EVENT_LOCAL_OFF_HOOK), 0);  // the user answers
  fakes_.wave->remote_ip = 0xc0a80114;
  fakes_.wave->remote_port = 4000;
  fakes_.mgcp->media.remote_rtp_port = 4000;
  fakes_.mgcp->media.local_rtp_port = 8000;
  Connection(MGCP_EVENT_CRCX, MGCP_MODE_SENDRECV);
  EXPECT_EQ(Events(), (Lines{"event(7,0)", "event(18,0)", "event(35,5,G.711)"}));
  EXPECT_EQ(cp_->call_state(), CP_STATE_TALKING);
  EXPECT_EQ(fakes_.log.lines(),
            (Lines{"wave.SetRemotePort(4000)", "wave.SetLocalPort(8000)", "wave.SetPayloadType(8)",
                   "wave.SetRemoteIp(3232235796)", "wave.ClearBuffer", "wave.SetReceiving(1)"}));
  ClearHost();

  Connection(MGCP_EVENT_DLCX, MGCP_MODE_SENDRECV);  // a DLCX is inactive whatever the mode
  EXPECT_EQ(Events(), (Lines{"event(1,3,end)", "event(17,0)", "event(36,0)"}));
  EXPECT_EQ(cp_->call_state(), CP_STATE_IDLE);

  ASSERT_EQ(cp_->UpdateState(CP_EVENT_LOCAL_OFF_HOOK), 0);  // an outgoing call, talking
  ASSERT_EQ(cp_->UpdateState(CP_EVENT_MEDIA_ACTIVE), 0);
  ClearHost();
  fakes_.mgcp->media.ringer_active = false;
  Signal(Buffer("end"));  // the "end" marker alone goes straight to idle
  EXPECT_EQ(Host(), (Lines{"event(1,3,end)"}));
  EXPECT_EQ(cp_->call_state(), CP_STATE_IDLE);
}

TEST_F(CpSignal, RecvOnlyAndUnusableAddresses) {
  fakes_.mgcp->remote_connection = "IN IP4 0.0.0.0";
  fakes_.mgcp->media.codec = 18;
  Connection(MGCP_EVENT_MDCX, MGCP_MODE_RECVONLY);
  EXPECT_EQ(Events(), (Lines{"event(16,0)", "event(35,5,G.729)"}));
  for (const char* connection : {"IN IP4 0.0.0.0", "IN IP4 300.1.1.1", "IN IP", ""}) {
    fakes_.mgcp->remote_connection = connection;
    fakes_.log.Clear();
    Connection(MGCP_EVENT_MDCX, MGCP_MODE_RECVONLY);
    EXPECT_TRUE(fakes_.log.With("wave.SetRemoteIp").empty()) << connection;
  }
  fakes_.mgcp->media.codec = 101;
  ClearHost();
  Connection(MGCP_EVENT_MDCX, MGCP_MODE_RECVONLY);
  EXPECT_EQ(Events().back(), "event(35,0,)");
}

TEST_F(CpSignal, MarkersReachTheHostByTheirCodes) {
  struct Case {
    bool ringer;
    std::vector<char> buffer;
    Lines host;
  };
  const std::vector<Case> cases = {
      {false, Buffer("mute"), {"event(20,4,mute)"}},
      {false, Buffer("unmute"), {"event(21,6,unmute)"}},
      {false, Buffer("pbx_setting"), {"event(30,11,pbx_setting)"}},
      {false, Buffer("sp_on"), {"event(27,5,sp_on)"}},
      {false, Buffer("sp_off"), {"event(28,6,sp_off)"}},
      {false, Buffer("sp_on_offhook"), {"event(29,13,sp_on_offhook)"}},
      {false, Buffer("bgm_mute"), {"event(31,8,bgm_mute)"}},
      {false, Buffer("tone"), {"event(32,16)"}},
      {false, Buffer("slc"), {"event(33,975)"}},
      {false, Buffer("hset_on"), {"event(37,7,hset_on)"}},
      {false, Buffer("hset_off"), {"event(38,8,hset_off)"}},
      {false, Buffer("voff"), {"event(22,4,voff)"}},
      {true, Buffer("voff"), {}},                    // ringer on: only the general signal
      {false, MgcpTone(2), {}},                      // ringer off: only the general signal
      {true, MgcpTone(7), {"event(23,9,mgcp_tone)"}},
      {false, Buffer("end"), {}},                    // not talking: nothing but the signal
      {false, Buffer(""), {}},
      {false, Buffer("lcd" "\x01\x01" "  hello"), {"display(\x01\x01  hello)"}},
      {false, Buffer("dtms1234"), {"display(dtms1234)"}},
      {false, Buffer("key\x01\x05"), {"display(key\x01\x05)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.buffer.data()));
    fakes_.mgcp->media.ringer_active = c.ringer;
    ClearHost();
    Signal(c.buffer);
    EXPECT_EQ(Host(), c.host);
  }
  EXPECT_EQ(cp_->call_state(), CP_STATE_IDLE);
}

TEST_F(CpSignal, LampsKeepTheLineKeyState) {
  Lamp(0x0c30, 1);  // no line key: the host hears it, nothing is kept
  EXPECT_EQ(Host(), (Lines{"led(3120,1)"}));
  EXPECT_EQ(cp_->active_line_key(), -1);

  Lamp(0x0a05, 1);
  EXPECT_EQ(cp_->active_line_key(), 0);
  Lamp(0x0c00, 1);
  EXPECT_EQ(cp_->active_line_key(), 1);

  struct Step {
    std::uint32_t status;
    bool hold;
    bool transfer;
  };
  // Line 2 (key 0x0c01), lamp by lamp: 5 after 0 does nothing, 5 after 1 is a hold for a
  // transfer, 4 changes nothing, 1 clears both, 2 and red clear the hold only, 5 after red
  // does nothing, off clears everything.
  const std::vector<Step> steps = {
      {5, 0, 0}, {1, 0, 0}, {5, 1, 1}, {4, 1, 1}, {1, 0, 0}, {5, 1, 1},
      {2, 0, 1}, {1, 0, 0}, {5, 1, 1}, {9, 0, 1}, {5, 0, 1}, {0, 0, 0},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.status);
    Lamp(0x0c01, s.status);
    const LineKeyState& entry = cp_->line_key(2);
    EXPECT_EQ(entry.led_status, s.status);
    EXPECT_EQ(entry.hold, s.hold);
    EXPECT_EQ(entry.transfer, s.transfer);
  }
  EXPECT_EQ(cp_->active_line_key(), 2);
}

TEST_F(CpSignal, HeldCallIsPunchedAndResumedAtItsFarEnd) {
  fakes_.ptap->config().parameters[PTAP_PARAM_RTP_PUNCH_INTERVAL] = 1;
  fakes_.ptap->config().parameters[PTAP_PARAM_MGCP_PUNCH_INTERVAL] = 3;
  Lamp(0x0c00, 1);  // line 1 active
  fakes_.mgcp->remote_connection = "IN IP4 10.0.0.5";
  fakes_.mgcp->media.remote_rtp_port = 4002;
  Connection(MGCP_EVENT_CRCX, MGCP_MODE_SENDRECV);
  EXPECT_EQ(cp_->line_key(1).remote_ip, 0x0a000005u);
  EXPECT_FALSE(cp_->line_key(1).hold);
  Connection(MGCP_EVENT_MDCX, MGCP_MODE_INACTIVE);  // put on hold
  EXPECT_TRUE(cp_->line_key(1).hold);

  EXPECT_EQ(Punches(3), Lines(3, "wave.Punch(167772165,4002)")) << "interval 1: every pass";
  EXPECT_EQ(fakes_.log.With("mgcp.Punch").size(), 1u) << "interval 3: every third pass";

  Connection(MGCP_EVENT_MDCX, MGCP_MODE_SENDRECV);  // taken back
  EXPECT_FALSE(cp_->line_key(1).hold);
  EXPECT_TRUE(Punches(1).empty());
}

TEST_F(CpSignal, PunchFailuresRetryAndStopTheWalk) {
  fakes_.ptap->config().parameters[PTAP_PARAM_RTP_PUNCH_INTERVAL] = 2;
  HoldLine(0x0c00, "IN IP4 0.0.12.0", 0x0c01);  // line 1
  HoldLine(0x0c02, "IN IP4 0.0.12.2", 0x0c03);  // line 3
  ASSERT_TRUE(cp_->line_key(1).hold);
  ASSERT_TRUE(cp_->line_key(3).hold);

  EXPECT_TRUE(Punches(1).empty()) << "count 1 of 2";
  EXPECT_EQ(Punches(1), (Lines{"wave.Punch(3072,3073)", "wave.Punch(3074,3075)"}))
      << "lowest index first";

  // A failure on the first line leaves the second out, and the next pass tries again.
  fakes_.wave->config().punch_results = {1};
  EXPECT_EQ(Punches(2), (Lines{"wave.Punch(3072,3073)"}));
  EXPECT_TRUE(trace_.Has("[CP :: ERROR] Port punching packet transmission failed: RTP"));
  EXPECT_EQ(Punches(1).size(), 2u);
}

TEST_F(CpSignal, PunchKeyLookupEdgeCases) {
  // All entries zero and a Wave remote of 0: entry 0 matches.
  fakes_.wave->remote_ip = 0;
  fakes_.wave->remote_port = 0;
  EXPECT_EQ(cp_->port_punch_get_current_key(), 0);

  fakes_.wave->remote_ip = 0x01020304;
  cp_->port_punch_set_keyinfo(ALERT_MEDIA_INACTIVE);
  EXPECT_TRUE(trace_.Has("[CP :: ERROR] Port punching key not found (INACTIVE)"));
  cp_->port_punch_set_keyinfo(ALERT_MEDIA_SENDRECV);
  EXPECT_TRUE(trace_.Has("[CP :: ERROR] Port punching key not found (SENDRECV)"));
  for (int i = 0; i < kLineKeyCount; ++i) EXPECT_FALSE(cp_->line_key(i).hold);
}

TEST_F(CpSignal, NullEventCallbackStillTracksPunching) {
  NetworkInitData data = HostCallbacks::Data();
  data.event_callback = nullptr;
  CCp cp(fakes_.Dependencies());
  ASSERT_EQ(cp.SetInitData(&data), 0);
  EXPECT_EQ(cp.alert(ALERT_MEDIA_RECVONLY, nullptr), 0);
  EXPECT_TRUE(trace_.Has("[DEBUG] CCp::port_punch_set_keyinfo :SENDRECV or RECVONLY"));
  EXPECT_EQ(cp.alert(3, nullptr), 0);
  EXPECT_TRUE(Host().empty());
}

}  // namespace
}  // namespace deskline
