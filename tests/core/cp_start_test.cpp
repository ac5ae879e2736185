// The call processor's start sequence and shutdown, over fake modules in simulated time.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/cp.h"
#include "fake_modules.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::FakeClock;
using testing::FakeModules;
using testing::HostCallbacks;
using testing::TraceCapture;

class CpStart : public ::testing::Test {
 protected:
  CpStart() : fakes_(clock_) {}
  std::unique_ptr<CCp> MakeCp(bool with_data = true) {
    auto cp = std::make_unique<CCp>(fakes_.Dependencies());
    if (with_data) {
      const NetworkInitData data = HostCallbacks::Data();
      EXPECT_EQ(cp->SetInitData(&data), 0);
    }
    return cp;
  }

  TraceCapture trace_;
  FakeClock clock_;
  FakeModules fakes_;
};

TEST_F(CpStart, BringsTheModulesUpInOrderAndDownInReverse) {
  fakes_.ptap_config.parameters[PTAP_PARAM_MGCP_LOCAL_PORT] = 5000;
  fakes_.ptap_config.parameters[PTAP_PARAM_MGCP_PBX_PORT] = 6000;
  auto cp = MakeCp();
  ASSERT_EQ(cp->Start(), 0);
  EXPECT_EQ(cp->call_state(), CP_STATE_IDLE);
  const std::vector<std::string> expected = {
      "ptap.SetNetworkData", "ptap.Start", "ptap.Send(4)", "mgcp.SetPorts(5000,6000)",
      "mgcp.SetNetworkInitData", "mgcp.Start", "mgcp.SetLocalMedia(8000)", "mgcp.Post(7,null)",
      "ptap.Send(15)", "wave.Start", "wave.SetLocalPort(8000)",
      "wave.SetRemoteIp(2130706433)", "wave.SetRemotePort(8000)", "wave.StartSession",
      "wave.SetReceiving(0)"};
  EXPECT_EQ(fakes_.log.lines(), expected);
  EXPECT_TRUE(trace_.Has("[CP :: STATUS] CP initialization completed."));

  IWave* wave = nullptr;
  EXPECT_EQ(cp->GetWave(&wave), 0);
  EXPECT_EQ(wave, fakes_.wave);
  EXPECT_EQ(cp->GetWave(nullptr), 1);
  PtapParameterContainer params{};
  EXPECT_EQ(cp->GetPtapParameters(&params), 0);
  EXPECT_EQ(params.result_code, 99);

  fakes_.log.Clear();
  EXPECT_EQ(cp->Shutdown(), 0);
  const std::vector<std::string> down = {"wave.Shutdown", "wave.destroyed", "mgcp.Shutdown",
                                         "mgcp.destroyed", "ptap.Shutdown", "ptap.destroyed"};
  EXPECT_EQ(fakes_.log.lines(), down);
  EXPECT_EQ(cp->call_state(), CP_STATE_INIT);
  EXPECT_TRUE(trace_.Has("[CP] Module shutdown"));
  EXPECT_TRUE(trace_.Has("[CP] Port punch thread shutdown"));
  EXPECT_EQ(FakeModules::Live(), 0);

  fakes_.log.Clear();
  EXPECT_EQ(cp->Shutdown(), 0) << "a second Shutdown is harmless";
  EXPECT_TRUE(fakes_.log.lines().empty());
  cp.reset();
  EXPECT_TRUE(trace_.Has("[CP] Module Destroyed "));
}

struct FailureCase {
  const char* name;
  std::function<void(FakeModules&)> arrange;
  int result;
  const char* trace;
  bool mgcp_made;
  friend void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }
};

class CpStartFailure : public CpStart, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(CpStartFailure, UnwindsEverythingWithItsTraceAndResult) {
  const FailureCase& c = GetParam();
  c.arrange(fakes_);
  auto cp = MakeCp();
  EXPECT_EQ(cp->Start(), c.result);
  EXPECT_TRUE(trace_.Has(c.trace)) << trace_.Text();
  EXPECT_EQ(FakeModules::Live(), 0) << "a failed Start leaves no module behind";
  EXPECT_EQ(cp->call_state(), CP_STATE_INIT);
  EXPECT_EQ(fakes_.log.Contains("mgcp.Start"), c.mgcp_made);
  EXPECT_FALSE(trace_.Has("[CP :: STATUS] CP initialization completed."));
}

INSTANTIATE_TEST_SUITE_P(
    EveryStage, CpStartFailure,
    ::testing::Values(
        FailureCase{"PtapNotMade", [](FakeModules& f) { f.ptap_creatable = false; }, 1,
                    "[CP :: CRITICAL ERROR] Object creation failed - PTAP", false},
        FailureCase{"PtapDataRefused", [](FakeModules& f) { f.ptap_config.set_network_result = 1; },
                    1, "[CP :: CRITICAL ERROR] Startup failed: PTAP initialization data invalid",
                    false},
        FailureCase{"PtapStart", [](FakeModules& f) { f.ptap_config.start_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Startup failed: PTAP", false},
        FailureCase{"StartNotSent", [](FakeModules& f) { f.ptap_config.send_start_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Startup failed: PTAP START delivery", false},
        FailureCase{"SilentPbx", [](FakeModules& f) { f.ptap_config.answer_start = false; }, 1,
                    "[CP :: CRITICAL ERROR] Operation timeout: PTAP START", false},
        FailureCase{"Result200WakesNobody",
                    [](FakeModules& f) { f.ptap_config.answer_event = PTAP_EVENT_RESULT_200; }, 1,
                    "[CP :: CRITICAL ERROR] Operation timeout: PTAP START", false},
        FailureCase{"Refused201",
                    [](FakeModules& f) {
                      f.ptap_config.answer_event = PTAP_EVENT_START_REFUSED;
                      f.ptap_config.error_code = 201;
                    },
                    201, "[CP :: CRITICAL ERROR] PTAP START - Registration failed/not possible",
                    false},
        FailureCase{"WrongInfo210", [](FakeModules& f) { f.ptap_config.error_code = 210; }, 210,
                    "[CP :: CRITICAL ERROR] PTAP START - User-specified connection info INCORRECT!",
                    false},
        FailureCase{"WrongTerminal211",
                    [](FakeModules& f) {
                      f.ptap_config.answer_event = PTAP_EVENT_WRONG_TERMINAL;
                      f.ptap_config.error_code = 211;
                    },
                    211,
                    "[CP :: CRITICAL ERROR] PTAP START - User-specified connection info INCORRECT!",
                    false},
        FailureCase{"OtherCode", [](FakeModules& f) { f.ptap_config.error_code = 5; }, 1,
                    "[CP :: CRITICAL ERROR] Operation failed: PTAP START", false},
        FailureCase{"MgcpNotMade", [](FakeModules& f) { f.mgcp_creatable = false; }, 1,
                    "[CP :: CRITICAL ERROR] Object creation failed: MGCP", false},
        FailureCase{"MgcpDataRefused", [](FakeModules& f) { f.mgcp_config.set_init_result = 1; },
                    1, "[CP :: CRITICAL ERROR] Startup failed: MGCP initialization data invalid",
                    false},
        FailureCase{"MgcpStart", [](FakeModules& f) { f.mgcp_config.start_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Startup failed: MGCP", true},
        FailureCase{"RsipNotPosted", [](FakeModules& f) { f.mgcp_config.post_rsip_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Startup failed: MGCP RSIP delivery", true},
        FailureCase{"RsipUnanswered", [](FakeModules& f) { f.mgcp_config.rsip_ack_after_ms = -1; },
                    1, "[CP :: CRITICAL ERROR] Operation timeout: MGCP RSIP acknowledgement", true},
        FailureCase{"OpBeginNotSent",
                    [](FakeModules& f) { f.ptap_config.send_op_begin_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Startup failed: PTAP OP_BEGIN delivery", true},
        FailureCase{"WaveNotMade", [](FakeModules& f) { f.wave_creatable = false; }, 1,
                    "[CP :: CRITICAL ERROR] Object creation failed: Wave", true},
        FailureCase{"WaveStart", [](FakeModules& f) { f.wave_config.start_result = 1; }, 1,
                    "[CP :: CRITICAL ERROR] Object creation failed: Wave", true}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(CpStart, SilentPbxIsGivenNineteenSeconds) {
  fakes_.ptap_config.answer_start = false;
  auto cp = MakeCp();
  const std::int64_t before = clock_.ElapsedMs();
  EXPECT_EQ(cp->Start(), 1);
  EXPECT_EQ(clock_.ElapsedMs() - before, 19000);
}

TEST_F(CpStart, NoInitDataFailsAtPtap) {
  auto cp = MakeCp(false);
  EXPECT_EQ(cp->SetInitData(nullptr), 1);
  EXPECT_EQ(cp->Start(), 1);
  EXPECT_TRUE(trace_.Has("[CP :: CRITICAL ERROR] Startup failed: PTAP initialization data invalid"));
}

// The RSIP poll counts 100 ms steps to 19000; an answer seen only at the last step is late.
TEST_F(CpStart, RsipAnswerAtTheEdgeOfTheWait) {
  struct Case {
    std::int64_t ack_after_ms;
    int result;
  };
  for (const Case c : {Case{0, 0}, Case{18800, 0}, Case{18900, 0}, Case{18901, 1}, Case{19000, 1},
                       Case{25000, 1}}) {
    SCOPED_TRACE(c.ack_after_ms);
    fakes_.mgcp_config.rsip_ack_after_ms = c.ack_after_ms;
    auto cp = MakeCp();
    EXPECT_EQ(cp->Start(), c.result);
    cp.reset();
    EXPECT_EQ(FakeModules::Live(), 0);
  }
}

}  // namespace
}  // namespace deskline
