// The real engine behind initialize, against the PBX simulator on loopback. PTAP is the real
// client on free ports (its PTAP_Conf in a temporary folder); each test chooses which of the
// other modules are real and which are fakes.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <thread>

#include "api/engine.h"
#include "core/fake_modules.h"
#include "deskline/deskline.h"
#include "platform/udp_socket.h"
#include "ptap/ptap.h"
#include "testing/temp_dir.h"
#include "testing/trace_capture.h"
#include "tools/pbxsim/pbx_simulator.h"

namespace deskline::testing {

// A port that was free a moment ago.
inline std::uint16_t FreeUdpPort() {
  platform::UdpSocket probe;
  if (!probe.Open({0x7f000001, 0})) return 0;
  const auto endpoint = probe.LocalEndpoint();
  return endpoint ? endpoint->port : 0;
}

// Polls `predicate` every few milliseconds until it holds or `timeout` has passed.
template <typename Predicate>
bool Eventually(Predicate predicate, std::chrono::milliseconds timeout) {
  const auto until = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class EngineFixture : public ::testing::Test {
 protected:
  EngineFixture() : fakes_(cp_clock_) {
    HostCallbacks::log().Clear();
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

  // Real PTAP; fake MGCP and Wave unless a test swaps them. `cp_clock` paces the call
  // processor's own waits.
  void UseEngine(platform::Clock* cp_clock = nullptr) {
    api::SetCpDependenciesFactory([this, cp_clock] {
      CpDependencies deps = fakes_.Dependencies();
      deps.clock = cp_clock ? cp_clock : &platform::RealClock();
      const std::string dir = dir_.path().string();
      deps.make_ptap = [dir]() -> std::unique_ptr<IPtap> {
        return std::make_unique<CPtap>(platform::RealClock(),
                                       PtapOptions{dir, std::chrono::milliseconds(0), nullptr});
      };
      return deps;
    });
  }

  std::int32_t Initialize(std::uint8_t start_mode = 0) {
    NetworkInitData data = HostCallbacks::Data();
    data.start_mode = start_mode;
    std::memcpy(data.terminal_identity, "TERMINAL-007", 12);
    return initialize(&data, &params_);
  }

  TraceCapture trace_;
  TempDir dir_;
  sim::PbxSimulator pbx_;
  FakeClock cp_clock_;
  FakeModules fakes_;
  PtapParameterContainer params_{};
};

}  // namespace deskline::testing
