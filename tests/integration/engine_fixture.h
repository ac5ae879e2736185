// The real engine behind initialize, against the PBX simulator on loopback. PTAP is the real
// client on free ports (its PTAP_Conf in a temporary folder); MGCP and Wave are fakes or the
// real modules, as each test chooses.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "testing/eventually.h"
#include "api/engine.h"
#include "core/fake_modules.h"
#include "deskline/deskline.h"
#include "mgcp/mgcp.h"
#include "platform/udp_socket.h"
#include "ptap/ptap.h"
#include "testing/temp_dir.h"
#include "testing/trace_capture.h"
#include "tools/pbxsim/pbx_simulator.h"
#include "voice/wave.h"

namespace deskline::testing {

// A port that was free a moment ago.
inline std::uint16_t FreeUdpPort() {
  platform::UdpSocket probe;
  if (!probe.Open({0x7f000001, 0})) return 0;
  const auto endpoint = probe.LocalEndpoint();
  return endpoint ? endpoint->port : 0;
}

class EngineFixture : public ::testing::Test {
 protected:
  // Which modules behind the call processor are real. With real MGCP the simulator runs its
  // call agent, and the terminal's MGCP port is a free one; a real Wave session binds a free
  // RTP port (not 8000).
  enum class Real { kPtap, kPtapMgcp, kPtapMgcpWave };

  explicit EngineFixture(Real real = Real::kPtap)
      : real_(real), pbx_(AgentOptions(real != Real::kPtap)), fakes_(cp_clock_) {
    HostCallbacks::log().Clear();
    if (real != Real::kPtap) Answers([](auto& a) { a.start.mgcp_terminal_port = FreeUdpPort(); });
    EXPECT_TRUE(pbx_.Start());
    std::ofstream conf(dir_.File("PTAP_Conf"));
    conf << "[PTAP_PORT]\nClientPort=" << FreeUdpPort() << "\nServerPort=" << pbx_.port()
         << "\n";
  }
  ~EngineFixture() override {
    uninitialize();
    api::SetCpDependenciesFactory(nullptr);
    pbx_.Stop();
  }

  // Changes what the simulated PBX answers from now on.
  template <typename Change>
  void Answers(Change change) {
    sim::PtapAnswers answers = pbx_.answers();
    change(answers);
    pbx_.SetAnswers(answers);
  }

  // initialize with the chosen modules behind it. `cp_clock` paces the call processor's own
  // waits.
  std::int32_t Initialize(std::uint8_t start_mode = 0, platform::Clock* cp_clock = nullptr) {
    api::SetCpDependenciesFactory([this, cp_clock] {
      CpDependencies deps = fakes_.Dependencies();
      deps.clock = cp_clock ? cp_clock : &platform::RealClock();
      const std::string dir = dir_.path().string();
      deps.make_ptap = [dir]() -> std::unique_ptr<IPtap> {
        return std::make_unique<CPtap>(platform::RealClock(),
                                       PtapOptions{dir, std::chrono::milliseconds(0), nullptr});
      };
      if (real_ != Real::kPtap) deps.make_mgcp = [] { return std::make_unique<CMgcp>(); };
      if (real_ == Real::kPtapMgcpWave) {
        deps.make_wave = [this]() -> std::unique_ptr<IWave> {
          auto wave = std::make_unique<CWave>(platform::RealClock(), std::uint16_t{0});
          wave_ = wave.get();
          return wave;
        };
      }
      return deps;
    });
    NetworkInitData data = HostCallbacks::Data();
    data.start_mode = start_mode;
    std::memcpy(data.terminal_identity, "TERMINAL-007", 12);
    return initialize(&data, &params_);
  }

  // The host's callbacks have logged `line` by now, or do so soon.
  static bool HostSaw(const std::string& line,
                      std::chrono::milliseconds timeout = std::chrono::seconds(2)) {
    return Eventually([&] { return HostCallbacks::log().Contains(line); }, timeout);
  }

  sim::MgcpAgent& agent() { return *pbx_.mgcp(); }

  static sim::PbxOptions AgentOptions(bool with_agent) {
    sim::PbxOptions options;
    if (with_agent) options.mgcp = sim::MgcpAgentOptions{};
    return options;
  }

  Real real_;
  TraceCapture trace_;
  TempDir dir_;
  sim::PbxSimulator pbx_;
  FakeClock cp_clock_;
  FakeModules fakes_;
  PtapParameterContainer params_{};
  CWave* wave_ = nullptr;  // the engine's real session, if any; valid until uninitialize
};

}  // namespace deskline::testing
