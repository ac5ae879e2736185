// The host interface as a GUI uses it: results for missing objects, input checks, the key
// tables, and initialize/uninitialize over fake protocol modules.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/engine.h"
#include "api/key_tables.h"
#include "core/fake_modules.h"
#include "deskline/deskline.h"
#include "support/tracer.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::FakeClock;
using testing::FakeModules;
using testing::HostCallbacks;

class Exports : public ::testing::Test {
 protected:
  // Manual time: the polling thread parks, so the tests read what put_key queued.
  Exports() : clock_(FakeClock::Mode::kManual), fakes_(clock_) {
    api::SetCpDependenciesFactory([this] { return fakes_.Dependencies(); });
    HostCallbacks::log().Clear();
  }
  ~Exports() override {
    uninitialize();
    api::SetCpDependenciesFactory(nullptr);
  }
  void Initialize() {
    const NetworkInitData data = HostCallbacks::Data();
    PtapParameterContainer params;
    ASSERT_EQ(initialize(&data, &params), 0);
    ASSERT_TRUE(clock_.AwaitSleepers(2));
  }
  CCp* Cp() const { return api::engine().cp.load(); }
  // What the mailbox holds, oldest first, as "code:payload".
  std::vector<std::string> Drain() {
    std::vector<std::string> out;
    std::uint32_t code;
    char payload[200];
    std::int32_t length;
    while (Cp()->ReadMailbox(&code, payload, &length) == 0) {
      out.push_back(std::to_string(code) + ":" + std::string(payload, static_cast<std::size_t>(length)));
    }
    return out;
  }

  testing::TraceCapture trace_;
  FakeClock clock_;
  FakeModules fakes_;
};

TEST(KeyTables, HoldTheWholeVocabulary) {
  EXPECT_EQ(api::KeyCodeCount(), 92u);
  EXPECT_EQ(api::DialCharCount(), 14u);
  const std::pair<std::uint32_t, const char*> known[] = {
      {0x0100, "0100"}, {0x0200, "0200"},       {0x0301, "0301"},       {0x0735, "0735"},
      {0x072a, "072a"}, {0x0723, "0723"},       {0x0a05, "0a05"},       {0x0b08, "0b08"},
      {0x0c1f, "0c1f"}, {0x0c2f, "0c2f"},       {0x0d03, "0d03"},       {0x0e00, "0e00"},
      {0x1000, "line(0000)"}, {0x1004, "line(0004)"}, {0x1100, "spkout"},
  };
  for (const auto& [code, text] : known) {
    ASSERT_NE(api::LookupKeyText(code), nullptr) << std::hex << code;
    EXPECT_STREQ(api::LookupKeyText(code), text);
  }
  for (std::uint32_t bad : {0x0b02u, 0x1005u, 0u, 0x0c30u, 0x0a07u, 0x0d04u, 0x0740u, 0x10000u}) {
    EXPECT_EQ(api::LookupKeyText(bad), nullptr) << std::hex << bad;
  }
  for (char c = '0'; c <= '9'; ++c) EXPECT_EQ(api::LookupDialChar(c), 0x0730u + (c - '0'));
  EXPECT_EQ(api::LookupDialChar('*'), 0x072au);
  EXPECT_EQ(api::LookupDialChar('#'), 0x0723u);
  EXPECT_EQ(api::LookupDialChar('P'), api::kPauseKey);
  EXPECT_EQ(api::LookupDialChar('W'), api::kPauseKey);
  for (char c : {'p', 'w', 'A', ' ', '+', '\0'}) EXPECT_FALSE(api::LookupDialChar(c));
}

TEST_F(Exports, MissingObjectsGiveTheirResults) {
  EXPECT_EQ(put_key(0x0200), 0);
  EXPECT_EQ(put_key(0x0b02), 0);
  EXPECT_EQ(make_call("123"), 0);
  EXPECT_EQ(send_error(5, 0, 0), 0);
  EXPECT_EQ(open_voice(), 0);
  EXPECT_EQ(close_voice(), 0);
  std::uint16_t pcm[1280] = {};
  EXPECT_EQ(send_voice(700, pcm), 700);
  EXPECT_EQ(send_voice(700, nullptr), 700);
  std::int32_t length = 320;
  std::uint32_t status = 1234;
  EXPECT_EQ(recv_voice(&length, pcm, &status), 0);
  EXPECT_EQ(status, 1234u);
  EXPECT_EQ(recv_voice(nullptr, nullptr, nullptr), 0);
  set_alaw(0);
  EXPECT_EQ(uninitialize(), 0);

  EXPECT_EQ(ToneModulePlayTone(1, 2, 3), -1);
  EXPECT_EQ(ToneModulePlayDTMF(1, 0), -1);
  EXPECT_EQ(ToneModuleGetKeyPadMode(), -1);
  EXPECT_EQ(ToneModuleSaveCustomTone(3, u"x.wav"), -1);
  EXPECT_EQ(ToneModulePlayServiceTone(128), -1);

  EXPECT_EQ(AudioModuleShutdown(), 0);
  EXPECT_EQ(AudioModuleGetEngineStatus(), -1);
  EXPECT_EQ(AudioModuleGetInDevice(nullptr), -1);
  EXPECT_EQ(AudioModuleGetOutDevice(nullptr), -1);
  EXPECT_EQ(AudioModulePlayVoice(pcm, 320), 0);
  AudioModuleSetMicVolume(3, 1.0f);
  AudioModuleGetDeviceID(nullptr, nullptr, nullptr);

  EXPECT_EQ(get_module_variable(nullptr, -1), -1);
  EXPECT_EQ(check_leading(u"81", 2, 0), -1);
  EXPECT_EQ(check_added(u"0", 1, 0), -1);
  char16_t* out = nullptr;
  EXPECT_EQ(get_formatted_number(u"123", 3, &out), -1);
  EXPECT_EQ(set_module_variable(nullptr, 1), -1);
  discard_changes();
}

TEST_F(Exports, InitializeBringsUpToneAndCallProcessor) {
  const NetworkInitData data = HostCallbacks::Data();
  PtapParameterContainer params;
  std::memset(&params, 0x5a, sizeof(params));
  ASSERT_EQ(initialize(&data, &params), 0);
  EXPECT_EQ(params.result_code, 99);
  EXPECT_EQ(params.keepalive_timeout, 30);
  EXPECT_EQ(params.param_21[31], 0) << "the rest of the container is cleared";
  EXPECT_EQ(ToneModulePlayTone(1, 2, 3), 0);
  EXPECT_EQ(ToneModuleGetKeyPadMode(), 0);

  fakes_.log.Clear();
  EXPECT_EQ(initialize(&data, &params), 0) << "a second initialize touches nothing";
  EXPECT_TRUE(fakes_.log.lines().empty());

  EXPECT_EQ(uninitialize(), 0);
  EXPECT_EQ(Cp(), nullptr);
  EXPECT_EQ(FakeModules::Live(), 0);
  EXPECT_EQ(ToneModuleGetKeyPadMode(), -1);
}

TEST_F(Exports, RefusedRegistrationLeavesNothingAndTheNextStartsAfresh) {
  fakes_.ptap_config.answer_event = PTAP_EVENT_START_REFUSED;
  fakes_.ptap_config.error_code = 201;
  const NetworkInitData data = HostCallbacks::Data();
  PtapParameterContainer params;
  EXPECT_EQ(initialize(&data, &params), 201);
  EXPECT_EQ(Cp(), nullptr);
  EXPECT_EQ(FakeModules::Live(), 0);
  for (int code : {210, 211}) {
    fakes_.ptap_config.error_code = code;
    EXPECT_EQ(initialize(&data, &params), code);
  }
  fakes_.ptap_config.answer_event = PTAP_EVENT_START_ANSWERED;
  fakes_.ptap_config.error_code = 0;
  EXPECT_EQ(initialize(&data, &params), 0);
  EXPECT_NE(Cp(), nullptr);
}

// Failures after the call processor is made leave it for uninitialize to take down.
TEST_F(Exports, NullStartDataLeavesTheEngine) {
  PtapParameterContainer params;
  EXPECT_EQ(initialize(nullptr, &params), -1);
  EXPECT_TRUE(trace_.Has("[CRITICAL ERROR] PTAP initialization data is invalid"));
  EXPECT_NE(Cp(), nullptr) << "stays until uninitialize";
  EXPECT_EQ(initialize(nullptr, &params), 0) << "the leftover counts as running";
}

TEST_F(Exports, NullContainerLeavesTheEngineRunning) {
  const NetworkInitData data = HostCallbacks::Data();
  EXPECT_EQ(initialize(&data, nullptr), -1);
  EXPECT_TRUE(
      trace_.Has("[CRITICAL ERROR] Startup failed: Application - Invalid parameter container"));
  EXPECT_NE(Cp(), nullptr);
  EXPECT_NE(fakes_.mgcp, nullptr);
}

TEST_F(Exports, MissingParametersLeaveTheEngineRunning) {
  const NetworkInitData data = HostCallbacks::Data();
  PtapParameterContainer params;
  fakes_.ptap_config.has_container = false;
  EXPECT_EQ(initialize(&data, &params), -1);
  EXPECT_TRUE(
      trace_.Has("[CRITICAL ERROR] Startup failed: CallProcessor - PTAP parameter incomplete"));
  EXPECT_NE(Cp(), nullptr);
}

TEST_F(Exports, PutKeyQueuesTheWireText) {
  Initialize();
  EXPECT_EQ(put_key(0x0735), 0);
  EXPECT_EQ(put_key(0x1004), 0);
  EXPECT_EQ(put_key(0x0b02), -1);
  EXPECT_EQ(put_key(0x1005), -1);
  EXPECT_EQ(put_key(0), -1);
  EXPECT_EQ(put_key(0x0c30), -1);
  EXPECT_EQ(Drain(), (std::vector<std::string>{"13:0735", "13:line(0004)"}));
  EXPECT_TRUE(trace_.Has("[API :: Warning] Invalid key code in put_key. Key ignored [2818]"));
  EXPECT_TRUE(trace_.Has("[API] Valid key code received [0735]"));

  for (int i = 0; i < 100; ++i) ASSERT_EQ(put_key(0x0200), 0);
  EXPECT_EQ(put_key(0x0200), -1) << "the 101st waits for no one";
  EXPECT_TRUE(trace_.Has("[API :: ERROR] Failed at put_key. Possible mailbox overflow."));
}

TEST_F(Exports, MakeCallVetsTheWholeNumberFirst) {
  Initialize();
  EXPECT_EQ(make_call(""), -1);
  EXPECT_EQ(make_call(nullptr), -1);
  EXPECT_EQ(make_call(std::string(41, '1').c_str()), -1);
  EXPECT_EQ(make_call("12a"), -1);
  EXPECT_EQ(make_call("12p"), -1);
  EXPECT_TRUE(Drain().empty()) << "nothing of a refused number is sent";
  EXPECT_TRUE(trace_.Has("[API :: Warning] Makecall received no number value at index [2] as [a]"));

  EXPECT_EQ(make_call("1P2W3"), 0);
  EXPECT_EQ(Drain(), (std::vector<std::string>{"13:0731", "13:0b08", "13:0732", "13:0b08",
                                               "13:0733"}));
  EXPECT_EQ(make_call("*#"), 0);
  EXPECT_EQ(Drain(), (std::vector<std::string>{"13:072a", "13:0723"}));
  EXPECT_EQ(make_call(std::string(40, '9').c_str()), 0);
  EXPECT_EQ(Drain().size(), 40u);
}

TEST_F(Exports, SendErrorQueuesTheLowByte) {
  Initialize();
  EXPECT_EQ(send_error(0x1234, 7, 9), 0);
  EXPECT_EQ(Drain(), (std::vector<std::string>{"10:\x34"}));
  EXPECT_TRUE(trace_.Has("[API] Error code transmitted: [4660]"));
}

TEST_F(Exports, VoiceGoesThroughTheWaveSession) {
  Initialize();
  std::vector<std::uint16_t> pcm(1280);
  for (std::size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<std::uint16_t>(i);
  EXPECT_EQ(send_voice(319, pcm.data()), 0);
  EXPECT_TRUE(fakes_.wave->frames_sent.empty());
  EXPECT_EQ(send_voice(700, pcm.data()), 700);
  ASSERT_EQ(fakes_.wave->frames_sent.size(), 2u);
  EXPECT_EQ(fakes_.wave->frames_sent[1][0], 160);
  EXPECT_EQ(send_voice(640, nullptr), -1);

  std::int32_t length = 320;
  std::uint32_t status = 0;
  EXPECT_EQ(recv_voice(&length, pcm.data(), &status), 320);
  EXPECT_EQ(status, 7u);
  EXPECT_EQ(length, 320) << "the length is read, not written";
  EXPECT_EQ(recv_voice(&length, pcm.data(), nullptr), 320);
  EXPECT_EQ(recv_voice(nullptr, pcm.data(), &status), -1);
  EXPECT_EQ(recv_voice(&length, nullptr, &status), -1);

  set_alaw(0);
  set_alaw(5);
  EXPECT_EQ(fakes_.log.With("wave.SetAlawShift"),
            (std::vector<std::string>{"wave.SetAlawShift(0)", "wave.SetAlawShift(5)"}));
}

TEST_F(Exports, PbxEventsReachTheSystemCallback) {
  Initialize();
  PtapParent* parent = fakes_.ptap->parent();
  ASSERT_NE(parent, nullptr);
  parent->OnPtapMessage(21, "\x20\x00\x01\x55", 4);
  parent->OnPtapMessage(21, "\x20\x00\x01\xf0", 4);
  parent->OnPtapMessage(21, "PTAP_NOCONN", 11);
  EXPECT_EQ(HostCallbacks::log().lines(),
            (std::vector<std::string>{"system(85)", "system(-16)", "system(24)"}));
}

TEST_F(Exports, TracerStartsFreshAfterUninitialize) {
  Initialize();
  EXPECT_EQ(uninitialize(), 0);
  EXPECT_EQ(CTracer::Instance().filter(), 0u) << "uninitialize closed the tracer";
  EXPECT_EQ(tracer_add_filter(DESKLINE_TRACE_ERROR), 0);
  EXPECT_EQ(CTracer::Instance().filter(), DESKLINE_TRACE_ERROR);
  EXPECT_EQ(tracer_add_filter(0), 0);
  EXPECT_EQ(CTracer::Instance().filter(), 0u);
  EXPECT_EQ(tracer_set_filter(0x1f), 0);
  EXPECT_EQ(tracer_remove_filter(DESKLINE_TRACE_DETAIL), 0);
  EXPECT_EQ(CTracer::Instance().filter(), 0x1du);
}

}  // namespace
}  // namespace deskline
