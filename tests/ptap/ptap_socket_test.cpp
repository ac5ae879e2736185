// CPtap over real sockets on 127.0.0.1, with a fake PBX on a free port named in PTAP_Conf:
// start-up, the three threads, and shutdown joining them. These run in real time.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "platform/udp_socket.h"
#include "ptap/ptap.h"
#include "testing/fake_clock.h"
#include "testing/trace_capture.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;
using testing::Bytes;
using testing::PbxDatagram;

constexpr std::uint32_t kLoopback = 0x7F000001;

// Polls `condition` in real time for up to two seconds.
template <typename F>
bool Eventually(F condition) {
  const auto until = std::chrono::steady_clock::now() + 2s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

int CountPrefix(const testing::TraceCapture& trace, const std::string& prefix) {
  int n = 0;
  for (const std::string& m : trace.Messages()) n += m.rfind(prefix, 0) == 0;
  return n;
}

std::uint32_t TidOf(const Bytes& d) {
  return (std::uint32_t{d[4]} << 24) | (d[5] << 16) | (d[6] << 8) | d[7];
}

class PtapLoopbackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pbx_.Open({kLoopback, 0}));
    pbx_port_ = pbx_.LocalEndpoint()->port;
    dir_.Write(CPtap::kConfigFile,
               "[PTAP_PORT]\nClientPort=0\nServerPort=" + std::to_string(pbx_port_) + "\n");
    init_ = testing::MakeInitData(0);
  }

  std::unique_ptr<CPtap> MakePtap(platform::Clock& clock = platform::RealClock()) {
    auto ptap = std::make_unique<CPtap>(clock, PtapOptions{dir_.path(), 0ms, nullptr});
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
  void PbxSend(const CPtap& ptap, const PbxDatagram& d) {
    ASSERT_TRUE(pbx_.SendTo(std::as_bytes(std::span(d.bytes())),
                            {kLoopback, ptap.LocalEndpoint()->port}));
  }

  testing::PtapTempDir dir_;
  platform::UdpSocket pbx_;
  std::uint16_t pbx_port_ = 0;
  platform::UdpEndpoint from_;
  NetworkInitData init_{};
  testing::RecordingParent parent_;
  testing::RecordingObserver observer_;
};

TEST_F(PtapLoopbackTest, StartRegistersAndShutdownJoinsAllThreeThreads) {
  testing::TraceCapture trace;
  auto ptap = MakePtap();
  ASSERT_EQ(ptap->Start(), 0);
  ASSERT_TRUE(ptap->LocalEndpoint().has_value());
  EXPECT_EQ(ptap->RemoteEndpoint(), (platform::UdpEndpoint{kLoopback, pbx_port_}));

  EXPECT_EQ(ptap->SendPacket(PTAP_TYPE_START, nullptr, 0), 102);
  const Bytes start = PbxReceive().value_or(Bytes{});
  ASSERT_EQ(start.size(), 102u);
  EXPECT_EQ(TidOf(start), 1u);
  EXPECT_EQ(start[8], PTAP_TYPE_START);
  EXPECT_EQ(from_.port, ptap->LocalEndpoint()->port) << "sent from the bound socket";

  PbxSend(*ptap, PbxDatagram(PTAP_TYPE_ACK, 1)
                     .Byte(0x20, 0)
                     .Element(0x11, testing::Hex("0A AB"))
                     .Element(0x10, testing::Hex("0A AC"))
                     .Byte(0x1A, 30)
                     .End());
  ASSERT_TRUE(observer_.WaitForCount(1, 2s));
  EXPECT_EQ(observer_.Events()[0], PTAP_EVENT_START_ANSWERED);
  EXPECT_EQ(ptap->GetErrorCode(), 0);
  EXPECT_TRUE(Eventually([&] { return ptap->parameters_complete(); }));
  EXPECT_EQ(ptap->GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT), 0x0AAB);
  EXPECT_EQ(ptap->GetParameter(PTAP_PARAM_MGCP_PBX_PORT), 0x0AAC);
  EXPECT_TRUE(Eventually([&] { return ptap->buffer().empty(); }));

  PbxSend(*ptap, PbxDatagram(PTAP_TYPE_KEEPALIVE, 0x00123456).End());
  const Bytes ack = PbxReceive().value_or(Bytes{});
  ASSERT_EQ(ack.size(), 23u);
  EXPECT_EQ(TidOf(ack), 0x00123456u);
  EXPECT_EQ(ack[8], PTAP_TYPE_ACK);
  EXPECT_TRUE(Eventually([&] { return ptap->keepalive().armed(); }));

  EXPECT_EQ(ptap->Shutdown(), 0);
  // Each body has ended by the time Shutdown returns: its last line is in the file. (A body
  // that the scheduler had not yet run ends at its entry test, with the entry's line.)
  EXPECT_EQ(CountPrefix(trace, "[PTAP :: Thread] Thread terminated"), 2);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Keepalive Thread terminated") +
                trace.Count("[PTAP :: Thread] Keepalive Thread terminated - Connection timeout polling"),
            1);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - PTAP socket polling"), 1);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - PTAP retransmission"), 1);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - Connection timeout polling"), 1);
  EXPECT_TRUE(parent_.Messages().empty()) << "no loss was reported";

  EXPECT_EQ(ptap->Shutdown(), 0);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - PTAP socket polling"), 1);
  PtapParameterContainer container{};
  EXPECT_EQ(ptap->GetParameterContainer(&container), 1) << "freed by Shutdown";
  ptap.reset();
}

TEST_F(PtapLoopbackTest, TheRetransmissionThreadResendsUntilTheAck) {
  auto ptap = MakePtap();
  ASSERT_EQ(ptap->Start(), 0);
  ptap->SendPacket(PTAP_TYPE_START, nullptr, 0);
  const auto first = PbxReceive();
  const auto second = PbxReceive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(*second, *first);
  PbxSend(*ptap, PbxDatagram(PTAP_TYPE_ACK, 1).End());
  EXPECT_FALSE(PbxReceive(1200ms).has_value()) << "nothing after the ACK";
  EXPECT_EQ(ptap->buffer().count(), 0);
}

TEST_F(PtapLoopbackTest, StartAfterShutdownMakesNewThreadsAndCountsFromOne) {
  testing::TraceCapture trace;
  auto ptap = MakePtap();
  for (int run = 0; run < 2; ++run) {
    ASSERT_EQ(ptap->Start(), 0) << run;
    ptap->SendPacket(PTAP_TYPE_START, nullptr, 0);
    const auto start = PbxReceive();
    ASSERT_TRUE(start && start->size() > 8) << run;
    EXPECT_EQ(TidOf(*start), 1u) << run;
    PbxSend(*ptap, PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).End());
    EXPECT_TRUE(Eventually([&] { return observer_.Events().size() == std::size_t(run + 1); }));
    ptap->Shutdown();
  }
  EXPECT_EQ(CountPrefix(trace, "[PTAP :: Thread] Thread terminated"), 4);
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - Connection timeout polling"), 2);
}

TEST_F(PtapLoopbackTest, TheTimerThreadReportsSilenceOnceInSimulatedTime) {
  testing::FakeClock clock(testing::FakeClock::Mode::kManual);
  auto ptap = MakePtap(clock);
  ASSERT_EQ(ptap->Start(), 0);
  PbxSend(*ptap, PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Byte(0x1A, 2).End());
  ASSERT_TRUE(Eventually([&] { return ptap->parameters_complete(); }));
  clock.AdvanceMs(2'999);
  ASSERT_TRUE(clock.AwaitSleepers(2));
  EXPECT_FALSE(parent_.WaitForCount(1, 50ms)) << "2 whole seconds are not more than 2";
  clock.AdvanceMs(1);
  ASSERT_TRUE(parent_.WaitForCount(1, 2s));
  EXPECT_EQ(parent_.Messages(), std::vector<std::string>{"PTAP_NOCONN"});
  clock.AdvanceMs(60'000);
  EXPECT_FALSE(parent_.WaitForCount(2, 50ms));
  EXPECT_EQ(ptap->Shutdown(), 0);
}

TEST_F(PtapLoopbackTest, StartFailuresLeaveNothingRunning) {
  testing::TraceCapture trace;
  {
    CPtap ptap(platform::RealClock(), PtapOptions{dir_.path(), 0ms, nullptr});
    EXPECT_EQ(ptap.Start(), 1);
    EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Startup failed - Error in PTAP initialization data"));
  }
  // A client port that is taken.
  platform::UdpSocket taken;
  ASSERT_TRUE(taken.Open({0, 0}));
  dir_.Write(CPtap::kConfigFile, "[PTAP_PORT]\nClientPort=" +
                                     std::to_string(taken.LocalEndpoint()->port) + "\n");
  auto ptap = MakePtap();
  EXPECT_EQ(ptap->Start(), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Socket creation failed - PTAP"));
  EXPECT_FALSE(ptap->LocalEndpoint().has_value());
  EXPECT_EQ(trace.Count("[PTAP :: Thread] Thread shutdown - PTAP socket polling"), 0);
}

TEST_F(PtapLoopbackTest, PortsComeFromTheCurrentFolderWhenNoneIsNamed) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  CPtap ptap(platform::RealClock(), PtapOptions{"", 0ms, nullptr});
  ptap.SetNetworkData(&init_);
  const int started = ptap.Start();
  std::filesystem::current_path(before);
  ASSERT_EQ(started, 0);
  EXPECT_EQ(ptap.RemoteEndpoint().port, pbx_port_);
  EXPECT_EQ(ptap.SendPunch(), 0);
  const auto punch = PbxReceive();
  ASSERT_TRUE(punch.has_value());
  EXPECT_TRUE(punch->empty()) << "the punch is an empty datagram";
}

TEST(PtapPorts, IniValuesCountOnlyFrom0To65535) {
  testing::PtapTempDir dir;
  const std::string missing = dir.path() + "/none";
  EXPECT_EQ(CPtap::ReadPort(missing, "ClientPort", 9301), 9301);
  const struct {
    const char* text;
    std::uint16_t client;
    std::uint16_t server;
  } rows[] = {
      {"[PTAP_PORT]\nClientPort=70000\nServerPort=0\n", 9301, 0},
      {"[PTAP_PORT]\nClientPort=-1\nServerPort=65535\n", 9301, 65535},
      {"[PTAP_PORT]\nClientPort=abc\nServerPort=65536\n", 9301, 9300},
      {"[PTAP_PORT]\nClientPort=5060\n", 5060, 9300},
      {"[OTHER]\nClientPort=5060\nServerPort=5061\n", 9301, 9300},
      {"not an ini file", 9301, 9300},
  };
  for (const auto& row : rows) {
    const std::string path = dir.Write(CPtap::kConfigFile, row.text);
    EXPECT_EQ(CPtap::ReadPort(path, "ClientPort", 9301), row.client) << row.text;
    EXPECT_EQ(CPtap::ReadPort(path, "ServerPort", 9300), row.server) << row.text;
  }
}

}  // namespace
}  // namespace deskline
