// Event routing: mailbox messages, the polling thread, PTAP messages and events, and the
// event lock that orders key presses against inbound MGCP work.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "core/cp.h"
#include "fake_modules.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::FakeClock;
using testing::HostCallbacks;
using Lines = std::vector<std::string>;

class CpRouting : public ::testing::Test {
 protected:
  explicit CpRouting(FakeClock::Mode mode = FakeClock::Mode::kAuto)
      : clock_(mode), fakes_(clock_) {
    HostCallbacks::log().Clear();
  }
  void StartCp(NetworkInitData data = HostCallbacks::Data()) {
    cp_ = std::make_unique<CCp>(fakes_.Dependencies());
    ASSERT_EQ(cp_->SetInitData(&data), 0);
    ASSERT_EQ(cp_->Start(), 0);
    fakes_.log.Clear();
  }
  void TearDown() override {
    if (cp_) cp_->Shutdown();
  }
  static Lines Host() { return HostCallbacks::log().lines(); }

  testing::TraceCapture trace_;
  FakeClock clock_;
  testing::FakeModules fakes_;
  std::unique_ptr<CCp> cp_;
};

TEST_F(CpRouting, MailboxMessagesActAfterTheStateUpdate) {
  StartCp();
  struct Step {
    std::uint32_t code;
    std::string payload;
    Lines calls;
    std::uint32_t state_after;
  };
  const std::vector<Step> steps = {
      {13, "0735", {"mgcp.Post(5,0735)"}, CP_STATE_IDLE},
      {4, "", {}, CP_STATE_IDLE},  // on hook while idle: rejected, dropped
      {3, "", {"wave.SetReceiving(1)", "mgcp.Post(5,0200)"}, CP_STATE_OUTGOING},
      {4, "",
       {"mgcp.SetLocalMedia(0)", "wave.SetReceiving(0)", "wave.ClearBuffer", "mgcp.Post(5,0100)"},
       CP_STATE_IDLE},
      {10, "\x07", {"ptap.Send(20,7)"}, CP_STATE_IDLE},
      {7, "x", {}, CP_STATE_IDLE},
      {11, "mute", {}, CP_STATE_IDLE},  // a signal request: no module call for "mute"
      {12, "", {}, CP_STATE_IDLE},      // started again while idle: rejected
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.code);
    fakes_.log.Clear();
    EXPECT_EQ(cp_->HandleMessage(step.code, step.payload.c_str(),
                                 static_cast<std::int32_t>(step.payload.size())),
              0);
    EXPECT_EQ(fakes_.log.lines(), step.calls);
    EXPECT_EQ(cp_->call_state(), step.state_after);
  }
  fakes_.ptap->config().send_error_report_result = 1;  // a failed error report is traced
  EXPECT_EQ(cp_->HandleMessage(10, "\x05", 1), 1);
  EXPECT_TRUE(trace_.Has("[CP :: ERROR] Packet transmission failed: VOXT errorcode via PTAP"));
}

TEST_F(CpRouting, PtapEventTextsReachTheSystemCallback) {
  StartCp();
  const std::vector<std::pair<std::string, Lines>> cases = {
      {"PTAP_NOCONN", {"system(24)"}},
      {"PTAP_COMREST", {"system(26)"}},
      {std::string("\x20\x00\x01\x55", 4), {"system(85)"}},
      {std::string("\x20\x00\x01\xf0", 4), {"system(-16)"}},
      {"PTAP_COMRES", {}},                       // shorter than the text: no match
      {std::string("\x20\x00\x01", 3), {}},      // no value byte
      {std::string("\x21\x00\x01\x55", 4), {}},  // another element
      {"", {}},
  };
  for (const auto& [payload, host] : cases) {
    HostCallbacks::log().Clear();
    EXPECT_EQ(cp_->OnPtapMessage(21, payload.data(), payload.size()), 0);
    EXPECT_EQ(Host(), host) << payload;
  }
  HostCallbacks::log().Clear();
  EXPECT_EQ(cp_->OnPtapMessage(20, "PTAP_NOCONN", 11), 0) << "only type 21 is looked at";
  EXPECT_TRUE(Host().empty());
  EXPECT_EQ(trace_.Count("[CP] Connection lost. Notifying client GUI"), 1);
  EXPECT_EQ(trace_.Count("[CP] Sending Compulsion Restart to GUI"), 1);
}

TEST_F(CpRouting, WithoutSystemCallbackOnlyTheTraceIsWritten) {
  NetworkInitData data = HostCallbacks::Data();
  data.system_callback = nullptr;
  StartCp(data);
  EXPECT_EQ(cp_->OnPtapMessage(21, "PTAP_NOCONN", 11), 0);
  EXPECT_TRUE(Host().empty());
  EXPECT_TRUE(trace_.Has("[CP] Connection lost. Notifying client GUI"));
}

TEST_F(CpRouting, ShuttingDownBlocksBothProtocolEntries) {
  StartCp();
  cp_->Shutdown();
  EXPECT_EQ(cp_->OnPtapMessage(21, "PTAP_NOCONN", 11), 1);
  EXPECT_EQ(cp_->OnMgcpEvent(MGCP_EVENT_SEND_NTFY, "0200", true), 1);
  EXPECT_TRUE(Host().empty());
  EXPECT_TRUE(trace_.Has("[CP] Operation blocked: PTAP event"));
  EXPECT_TRUE(trace_.Has("[CP] Operation blocked: MGCP event"));
}

TEST_F(CpRouting, PbxClassAndResponseFlag) {
  fakes_.ptap_config.parameters[PTAP_PARAM_PBX_CLASS] = 0x1203;
  StartCp();
  const int event = PTAP_EVENT_PBX_CLASS;
  cp_->OnPtapEvent(&event);
  EXPECT_EQ(Host(), Lines{"event(34,1,3)"}) << "the class reaches the host as one byte";

  cp_->OnMgcpEvent(MGCP_EVENT_SEND_RESPONSE, "200", false);
  EXPECT_TRUE(fakes_.log.lines().empty()) << "a response is posted only with the lock flag";
  cp_->OnMgcpEvent(MGCP_EVENT_SEND_RESPONSE, "200", true);
  EXPECT_EQ(fakes_.log.lines(), Lines{"mgcp.Post(8,200)"});
}

// A key press while the MGCP socket thread holds the event lock (an inbound command being
// answered) waits, and goes out after the response.
TEST_F(CpRouting, KeyPressWaitsForInboundCommandUnderTheEventLock) {
  StartCp();
  cp_->SetEventLock(true);  // as the socket thread does before its own command lock
  std::atomic<bool> key_done{false};
  std::thread mailbox([&] {
    cp_->HandleMessage(13, "0735", 4);
    key_done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(key_done.load());
  cp_->OnMgcpEvent(MGCP_EVENT_CRCX, nullptr, false);
  fakes_.mgcp->PostEvent(MGCP_EVENT_SEND_RESPONSE, "200");
  cp_->SetEventLock(false);
  mailbox.join();
  EXPECT_EQ(fakes_.log.With("mgcp.Post"), (Lines{"mgcp.Post(8,200)", "mgcp.Post(5,0735)"}));
}

TEST_F(CpRouting, WriteFailsWithoutAMailbox) {
  cp_ = std::make_unique<CCp>(fakes_.Dependencies());
  EXPECT_EQ(cp_->WriteMailbox(13, "0200", 4), 1);
  EXPECT_TRUE(trace_.Has("[CP :: ERROR] Write operation to Mailbox failed"));
}

class CpPolling : public CpRouting {
 protected:
  CpPolling() : CpRouting(FakeClock::Mode::kManual) {}
};

// The polling thread takes one message per 50 ms period, in order.
TEST_F(CpPolling, OneKeyPerPeriod) {
  StartCp();
  ASSERT_TRUE(clock_.AwaitSleepers(2));  // the polling and the punching threads
  for (const char* key : {"0731", "0732", "0733"}) ASSERT_EQ(cp_->WriteMailbox(13, key, 4), 0);
  auto posts = [&] { return fakes_.log.With("mgcp.Post").size(); };
  for (std::size_t period = 1; period <= 3; ++period) {
    clock_.AdvanceMs(50);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (posts() < period && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(posts(), period);
    ASSERT_TRUE(clock_.AwaitSleepers(2));
  }
  EXPECT_EQ(fakes_.log.With("mgcp.Post"),
            (Lines{"mgcp.Post(5,0731)", "mgcp.Post(5,0732)", "mgcp.Post(5,0733)"}));
  cp_->Shutdown();
  int terminated = 0;
  for (const auto& m : trace_.Messages()) {
    terminated += m.rfind("[CP :: Thread] Thread terminated - ID", 0) == 0;
  }
  EXPECT_EQ(terminated, 2) << "both threads saw their id cleared";
}

// Idle, the polling thread sleeps until a write rings it: a key after a long silence leaves
// within one period, and nothing is read while nothing is written.
TEST_F(CpPolling, SleepsUntilAWriteAndAnswersWithinOnePeriod) {
  StartCp();
  ASSERT_TRUE(clock_.AwaitSleepers(2));
  auto posts = [&] { return fakes_.log.With("mgcp.Post").size(); };
  // Ten idle seconds in steps: the punching thread wakes each second, the mailbox never.
  for (int second = 0; second < 10; ++second) {
    clock_.AdvanceMs(1000);
    ASSERT_TRUE(clock_.AwaitSleepers(2));
  }
  EXPECT_EQ(posts(), 0u);
  ASSERT_EQ(cp_->WriteMailbox(13, "0731", 4), 0);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (posts() < 1 && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(posts(), 1u) << "handled at once: the last read was more than a period ago";
  // The next key keeps the pace: not before a period has passed.
  ASSERT_TRUE(clock_.AwaitSleepers(2));
  ASSERT_EQ(cp_->WriteMailbox(13, "0732", 4), 0);
  ASSERT_TRUE(clock_.AwaitSleepers(2));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(posts(), 1u);
  clock_.AdvanceMs(50);
  const auto until2 = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (posts() < 2 && std::chrono::steady_clock::now() < until2) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(posts(), 2u);
}

// Shutdown rings every sleeping thread: with simulated time standing still it still returns.
TEST_F(CpPolling, ShutdownWakesTheSleepingThreadsWithoutTimePassing) {
  StartCp();
  ASSERT_TRUE(clock_.AwaitSleepers(2));
  const std::int64_t before = clock_.ElapsedMs();
  cp_->Shutdown();
  EXPECT_EQ(clock_.sleepers(), 0);
  EXPECT_EQ(clock_.ElapsedMs(), before);
}

}  // namespace
}  // namespace deskline
