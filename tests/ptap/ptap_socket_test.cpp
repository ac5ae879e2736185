// CPtap over real sockets on 127.0.0.1 with a fake PBX on a free port named in PTAP_Conf:
// start-up, the three threads, and shutdown joining them, in real time.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "testing/eventually.h"
#include "platform/udp_socket.h"
#include "testing/fake_clock.h"
#include "testing/temp_dir.h"
#include "testing/trace_capture.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;
using namespace deskline::testing;

constexpr std::uint32_t kLoopback = 0x7F000001;

// Trace lines that start with "[PTAP :: Thread] " + `text`.
int ThreadLines(const TraceCapture& trace, const std::string& text) {
  int n = 0;
  for (const std::string& m : trace.Messages()) n += m.rfind("[PTAP :: Thread] " + text, 0) == 0;
  return n;
}

class PtapLoopbackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pbx_.Open({kLoopback, 0}));
    pbx_port_ = pbx_.LocalEndpoint()->port;
    WriteConfig("[PTAP_PORT]\nClientPort=0\nServerPort=" + std::to_string(pbx_port_) + "\n");
  }
  void WriteConfig(const std::string& text) {
    std::ofstream(dir_.File(CPtap::kConfigFile)) << text;
  }
  std::unique_ptr<CPtap> MakePtap(platform::Clock& clock = platform::RealClock()) {
    auto ptap = std::make_unique<CPtap>(clock, PtapOptions{dir_.path().string(), 0ms, nullptr});
    ptap->SetNetworkData(&init_);
    ptap->SetParent(&parent_);
    ptap->AddObserver(&observer_);
    return ptap;
  }
  // The next datagram at the PBX, or nullopt after `timeout`.
  std::optional<Bytes> PbxReceive(std::chrono::milliseconds timeout = 2000ms) {
    std::uint8_t buffer[1500];
    bool timed_out = false;
    const auto n = pbx_.ReceiveFor(std::as_writable_bytes(std::span(buffer)), &from_,
                                   static_cast<int>(timeout.count()), &timed_out);
    if (!n || timed_out) return std::nullopt;
    return Bytes(buffer, buffer + *n);
  }
  void PbxSend(const CPtap& ptap, const Pbx& d) {
    const platform::UdpEndpoint to{kLoopback, ptap.LocalEndpoint()->port};
    ASSERT_TRUE(pbx_.SendTo(std::as_bytes(std::span(d.bytes)), to));
  }

  TempDir dir_;
  platform::UdpSocket pbx_;
  std::uint16_t pbx_port_ = 0;
  platform::UdpEndpoint from_;
  NetworkInitData init_ = MakeInitData(0);
  RecordingParent parent_;
  RecordingObserver observer_;
};

TEST_F(PtapLoopbackTest, RegistersResendsAndRestartsWithShutdownJoiningAllThreeThreads) {
  TraceCapture trace;
  auto ptap = MakePtap();
  for (int run = 1; run <= 2; ++run) {
    SCOPED_TRACE(run);
    ASSERT_EQ(ptap->Start(), 0);
    EXPECT_EQ(ptap->Start(), 1) << "refused while running";
    EXPECT_EQ(ptap->RemoteEndpoint(), (platform::UdpEndpoint{kLoopback, pbx_port_}));
    EXPECT_EQ(ptap->SendPacket(PTAP_TYPE_START, nullptr, 0), 102);
    const Bytes start = PbxReceive().value_or(Bytes{});
    ASSERT_EQ(start.size(), 102u);
    EXPECT_EQ(TidOf(start), 1u) << "tids count from 1 after each Start";
    EXPECT_EQ(from_.port, ptap->LocalEndpoint()->port) << "sent from the bound socket";
    EXPECT_EQ(PbxReceive(), start) << "the retransmission thread resends until the ACK";

    PbxSend(*ptap, Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).El(0x11, Hex("0A AB")).Byte(0x1A, 30).End());
    ASSERT_TRUE(observer_.WaitForCount(run, 2s));
    EXPECT_TRUE(Eventually([&] { return ptap->parameters_complete() && ptap->buffer().empty(); }));
    EXPECT_EQ(ptap->GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT), 0x0AAB);
    std::this_thread::sleep_for(1200ms);  // a resend after the ACK would now be waiting
    PbxSend(*ptap, Pbx(PTAP_TYPE_KEEPALIVE, 0x00123456).End());
    const Bytes ack = PbxReceive().value_or(Bytes{});
    ASSERT_EQ(ack.size(), 23u);
    EXPECT_EQ(TidOf(ack), 0x00123456u);
    EXPECT_TRUE(Eventually([&] { return ptap->keepalive().armed(); }));

    EXPECT_EQ(ptap->Shutdown(), 0);
    // Every body has ended (with its last line, or its entry line if it never ran) by now.
    EXPECT_EQ(ThreadLines(trace, "Thread terminated"), 2 * run);
    EXPECT_EQ(trace.Count("[PTAP :: Thread] Keepalive Thread terminated") +
                  ThreadLines(trace, "Keepalive Thread terminated - Connection"),
              run);
    EXPECT_EQ(ThreadLines(trace, "Thread shutdown"), 3 * run);
  }
  EXPECT_EQ(observer_.Items(), std::vector<int>(2, PTAP_EVENT_START_ANSWERED));
  EXPECT_TRUE(parent_.Items().empty()) << "no loss was reported";
  EXPECT_EQ(ptap->Shutdown(), 0);
  EXPECT_EQ(ThreadLines(trace, "Thread shutdown"), 6) << "the second Shutdown has nothing to do";
  PtapParameterContainer container{};
  EXPECT_EQ(ptap->GetParameterContainer(&container), 1) << "freed by Shutdown";
}

TEST_F(PtapLoopbackTest, TheTimerThreadReportsSilenceOnceInSimulatedTime) {
  FakeClock clock(FakeClock::Mode::kManual);
  auto ptap = MakePtap(clock);
  ASSERT_EQ(ptap->Start(), 0);
  PbxSend(*ptap, Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Byte(0x1A, 2).End());
  ASSERT_TRUE(Eventually([&] { return ptap->parameters_complete(); }));
  clock.AdvanceMs(2'999);
  ASSERT_TRUE(clock.AwaitSleepers(2));
  EXPECT_FALSE(parent_.WaitForCount(1, 50ms)) << "2 whole seconds are not more than 2";
  clock.AdvanceMs(1);
  ASSERT_TRUE(parent_.WaitForCount(1, 2s));
  clock.AdvanceMs(60'000);
  EXPECT_FALSE(parent_.WaitForCount(2, 50ms));
  EXPECT_EQ(parent_.Items(), std::vector<std::string>{"21:PTAP_NOCONN"});
  EXPECT_EQ(ptap->Shutdown(), 0);
}

TEST_F(PtapLoopbackTest, StartFailuresLeaveNothingRunning) {
  TraceCapture trace;
  CPtap no_data(platform::RealClock(), PtapOptions{dir_.path().string(), 0ms, nullptr});
  EXPECT_EQ(no_data.Start(), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Startup failed - "
                        "Error in PTAP initialization data"));
  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({0, 0}));
  WriteConfig("[PTAP_PORT]\nClientPort=" + std::to_string(taken.LocalEndpoint()->port) + "\n");
  auto ptap = MakePtap();
  EXPECT_EQ(ptap->Start(), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Socket creation failed - PTAP"));
  EXPECT_FALSE(ptap->LocalEndpoint().has_value());
  EXPECT_EQ(ThreadLines(trace, "Thread shutdown"), 0);
}

TEST_F(PtapLoopbackTest, PortsComeFromTheCurrentFolderWhenNoneIsNamedAndPunchIsEmpty) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  CPtap ptap(platform::RealClock(), PtapOptions{"", 0ms, nullptr});
  ptap.SetNetworkData(&init_);
  const int started = ptap.Start();
  std::filesystem::current_path(before);
  ASSERT_EQ(started, 0);
  EXPECT_EQ(ptap.RemoteEndpoint().port, pbx_port_);
  EXPECT_EQ(ptap.SendPunch(), 0);
  EXPECT_EQ(PbxReceive(), Bytes{});
}

TEST(PtapPorts, IniValuesCountOnlyFrom0To65535) {
  TempDir dir;
  const std::string path = dir.File(CPtap::kConfigFile);
  EXPECT_EQ(CPtap::ReadPort(path, "ClientPort", 9301), 9301) << "no file";
  const struct { const char* text; std::uint16_t client, server; } rows[] = {
      {"[PTAP_PORT]\nClientPort=70000\nServerPort=0\n", 9301, 0},
      {"[PTAP_PORT]\nClientPort=-1\nServerPort=65535\n", 9301, 65535},
      {"[PTAP_PORT]\nClientPort=abc\nServerPort=65536\n", 9301, 9300},
      {"[PTAP_PORT]\nClientPort=5060\n", 5060, 9300}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::ofstream(path, std::ios::trunc) << row.text;
    EXPECT_EQ(CPtap::ReadPort(path, "ClientPort", 9301), row.client);
    EXPECT_EQ(CPtap::ReadPort(path, "ServerPort", 9300), row.server);
  }
}

}  // namespace
}  // namespace deskline
