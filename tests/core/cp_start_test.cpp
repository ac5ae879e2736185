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

using testing::FakeModules;
using Lines = std::vector<std::string>;

class CpStart : public ::testing::Test {
 protected:
  CpStart() : fakes_(clock_) {}
  std::unique_ptr<CCp> MakeCp() {
    auto cp = std::make_unique<CCp>(fakes_.Dependencies());
    const NetworkInitData data = testing::HostCallbacks::Data();
    EXPECT_EQ(cp->SetInitData(&data), 0);
    return cp;
  }

  testing::TraceCapture trace_;
  testing::FakeClock clock_;
  FakeModules fakes_;
};

TEST_F(CpStart, BringsTheModulesUpInOrderAndDownInReverse) {
  fakes_.ptap_config.parameters[PTAP_PARAM_MGCP_LOCAL_PORT] = 5000;
  fakes_.ptap_config.parameters[PTAP_PARAM_MGCP_PBX_PORT] = 6000;
  auto cp = MakeCp();
  ASSERT_EQ(cp->Start(), 0);
  EXPECT_EQ(cp->call_state(), CP_STATE_IDLE);
  EXPECT_EQ(fakes_.log.lines(),
            (Lines{"ptap.SetNetworkData", "ptap.Start", "ptap.Send(4)", "mgcp.SetPorts(5000,6000)",
                   "mgcp.SetNetworkInitData", "mgcp.Start", "mgcp.SetLocalMedia(8000)",
                   "mgcp.Post(7,null)", "ptap.Send(15)", "wave.Start", "wave.SetLocalPort(8000)",
                   "wave.SetRemoteIp(2130706433)", "wave.SetRemotePort(8000)",
                   "wave.StartSession", "wave.SetReceiving(0)"}));
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
  EXPECT_EQ(fakes_.log.lines(), (Lines{"wave.Shutdown", "wave.destroyed", "mgcp.Shutdown",
                                       "mgcp.destroyed", "ptap.Shutdown", "ptap.destroyed"}));
  EXPECT_EQ(cp->call_state(), CP_STATE_INIT);
  EXPECT_EQ(FakeModules::Live(), 0);

  fakes_.log.Clear();
  EXPECT_EQ(cp->Shutdown(), 0) << "a second Shutdown is harmless";
  EXPECT_TRUE(fakes_.log.lines().empty());
  cp.reset();
  for (const char* line :
       {"[CP] Module shutdown", "[CP] Port punch thread shutdown", "[CP] Module Destroyed "}) {
    EXPECT_TRUE(trace_.Has(line)) << line;
  }
}

struct FailureCase {
  const char* name;
  std::function<void(FakeModules&)> arrange;
  int result;
  const char* trace;  // after "[CP :: CRITICAL ERROR] "
  bool mgcp_made;
};

class CpStartFailure : public CpStart, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(CpStartFailure, UnwindsEverythingWithItsTraceAndResult) {
  const FailureCase& c = GetParam();
  c.arrange(fakes_);
  auto cp = MakeCp();
  EXPECT_EQ(cp->Start(), c.result);
  EXPECT_TRUE(trace_.Has(std::string("[CP :: CRITICAL ERROR] ") + c.trace)) << trace_.Text();
  EXPECT_EQ(FakeModules::Live(), 0) << "a failed Start leaves no module behind";
  EXPECT_EQ(cp->call_state(), CP_STATE_INIT);
  EXPECT_EQ(fakes_.log.Contains("mgcp.Start"), c.mgcp_made);
  EXPECT_FALSE(trace_.Has("[CP :: STATUS] CP initialization completed."));
}

using F = FakeModules;
// The PBX answers START with `event`, and the PTAP client then reports `code`.
std::function<void(F&)> Answer(int event, int code) {
  return [=](F& f) { f.ptap_config.answer_event = event, f.ptap_config.error_code = code; };
}
constexpr const char* kWrongInfo = "PTAP START - User-specified connection info INCORRECT!";
INSTANTIATE_TEST_SUITE_P(
    EveryStage, CpStartFailure,
    ::testing::Values(
        FailureCase{"PtapNotMade", [](F& f) { f.ptap_creatable = false; }, 1,
                    "Object creation failed - PTAP", false},
        FailureCase{"PtapDataRefused", [](F& f) { f.ptap_config.set_network_result = 1; }, 1,
                    "Startup failed: PTAP initialization data invalid", false},
        FailureCase{"PtapStart", [](F& f) { f.ptap_config.start_result = 1; }, 1,
                    "Startup failed: PTAP", false},
        FailureCase{"StartNotSent", [](F& f) { f.ptap_config.send_start_result = 1; }, 1,
                    "Startup failed: PTAP START delivery", false},
        FailureCase{"SilentPbx", [](F& f) { f.ptap_config.answer_start = false; }, 1,
                    "Operation timeout: PTAP START", false},
        FailureCase{"Result200WakesNobody", Answer(PTAP_EVENT_RESULT_200, 0), 1,
                    "Operation timeout: PTAP START", false},
        FailureCase{"Refused201", Answer(PTAP_EVENT_START_REFUSED, 201), 201,
                    "PTAP START - Registration failed/not possible", false},
        FailureCase{"WrongInfo210", Answer(PTAP_EVENT_START_ANSWERED, 210), 210, kWrongInfo, false},
        FailureCase{"WrongTerminal211", Answer(PTAP_EVENT_WRONG_TERMINAL, 211), 211, kWrongInfo,
                    false},
        FailureCase{"OtherCode", Answer(PTAP_EVENT_START_ANSWERED, 5), 1,
                    "Operation failed: PTAP START", false},
        FailureCase{"MgcpNotMade", [](F& f) { f.mgcp_creatable = false; }, 1,
                    "Object creation failed: MGCP", false},
        FailureCase{"MgcpDataRefused", [](F& f) { f.mgcp_config.set_init_result = 1; }, 1,
                    "Startup failed: MGCP initialization data invalid", false},
        FailureCase{"MgcpStart", [](F& f) { f.mgcp_config.start_result = 1; }, 1,
                    "Startup failed: MGCP", true},
        FailureCase{"RsipNotPosted", [](F& f) { f.mgcp_config.post_rsip_result = 1; }, 1,
                    "Startup failed: MGCP RSIP delivery", true},
        FailureCase{"RsipUnanswered", [](F& f) { f.mgcp_config.rsip_ack_after_ms = -1; }, 1,
                    "Operation timeout: MGCP RSIP acknowledgement", true},
        FailureCase{"OpBeginNotSent", [](F& f) { f.ptap_config.send_op_begin_result = 1; }, 1,
                    "Startup failed: PTAP OP_BEGIN delivery", true},
        FailureCase{"WaveNotMade", [](F& f) { f.wave_creatable = false; }, 1,
                    "Object creation failed: Wave", true},
        FailureCase{"WaveStart", [](F& f) { f.wave_config.start_result = 1; }, 1,
                    "Object creation failed: Wave", true}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(CpStart, SilentPbxIsGivenNineteenSeconds) {
  fakes_.ptap_config.answer_start = false;
  auto cp = MakeCp();
  const std::int64_t before = clock_.ElapsedMs();
  EXPECT_EQ(cp->Start(), 1);
  EXPECT_EQ(clock_.ElapsedMs() - before, 19000);
}

TEST_F(CpStart, NoInitDataFailsAtPtap) {
  CCp cp(fakes_.Dependencies());
  EXPECT_EQ(cp.SetInitData(nullptr), 1);
  EXPECT_EQ(cp.Start(), 1);
  EXPECT_TRUE(
      trace_.Has("[CP :: CRITICAL ERROR] Startup failed: PTAP initialization data invalid"));
}

// The RSIP poll counts 100 ms steps to 19000; an answer seen only at the last step is late.
TEST_F(CpStart, RsipAnswerAtTheEdgeOfTheWait) {
  for (const auto& [ack_after_ms, result] : std::vector<std::pair<std::int64_t, int>>{
           {0, 0}, {18800, 0}, {18900, 0}, {18901, 1}, {19000, 1}, {25000, 1}}) {
    SCOPED_TRACE(ack_after_ms);
    fakes_.mgcp_config.rsip_ack_after_ms = ack_after_ms;
    EXPECT_EQ(MakeCp()->Start(), result);
    EXPECT_EQ(FakeModules::Live(), 0);
  }
}

}  // namespace
}  // namespace deskline
