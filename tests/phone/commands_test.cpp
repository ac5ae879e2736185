#include <gtest/gtest.h>

#include <cstring>

#include "platform/event.h"
#include "testing/fake_clock.h"
#include "tools/phone/commands.h"
#include "tools/phone/options.h"
#include "tools/phone/script_runner.h"

namespace deskline::phone {
namespace {

using namespace std::chrono_literals;

TEST(PhoneCommandTest, RowsOfCommandsAndTheirKeys) {
  struct Row {
    const char* line;
    CommandKind kind;
    std::uint32_t key;
    const char* text;
    std::int64_t ms;
  };
  const Row rows[] = {
      {"offhook", CommandKind::kKey, 0x0200, "", 0},
      {"  onhook  ", CommandKind::kKey, 0x0100, "", 0},
      {"hold", CommandKind::kKey, kKeyHold, "", 0},
      {"resume", CommandKind::kResume, 0, "", 0},
      {"line 0", CommandKind::kKey, 0x0a05, "", 0},
      {"line 1", CommandKind::kKey, 0x0c00, "", 0},
      {"line 48", CommandKind::kKey, 0x0c2f, "", 0},
      {"key 0x1004", CommandKind::kKey, 0x1004, "", 0},
      {"key 512", CommandKind::kKey, 0x0200, "", 0},
      {"dial 12#*P9W", CommandKind::kDial, 0, "12#*P9W", 0},
      {"5", CommandKind::kDial, 0, "5", 0},
      {"1234567890123456789012345678901234567890", CommandKind::kDial, 0,
       "1234567890123456789012345678901234567890", 0},
      {"wait 3s", CommandKind::kWait, 0, "", 3000},
      {"wait 1.5s", CommandKind::kWait, 0, "", 1500},
      {"wait 250ms", CommandKind::kWait, 0, "", 250},
      {"wait 2m", CommandKind::kWait, 0, "", 120000},
      {"wait-ring", CommandKind::kWaitRing, 0, "", 60000},
      {"wait-media 5s", CommandKind::kWaitMedia, 0, "", 5000},
      {"wait-end 100ms", CommandKind::kWaitEnd, 0, "", 100},
      {"error 0x20", CommandKind::kSendError, 0, "", 0},
      {"# a comment", CommandKind::kNone, 0, "", 0},
      {"", CommandKind::kNone, 0, "", 0},
      {"quit", CommandKind::kQuit, 0, "", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    const ParseResult result = ParseCommand(row.line);
    ASSERT_TRUE(result.command) << result.error;
    EXPECT_EQ(result.command->kind, row.kind);
    EXPECT_EQ(result.command->key, row.key);
    EXPECT_EQ(result.command->text, row.text);
    EXPECT_EQ(result.command->duration.count(), row.ms);
  }
}

TEST(PhoneCommandTest, BadCommandsSayWhy) {
  const char* bad[] = {
      "offhook now",  // no arguments
      "line 49", "line -1", "line", "key 0x10000", "key zz",
      "dial 12a",     // lower-case and letters other than P, W
      "dial p",
      "12345678901234567890123456789012345678901",  // 41 characters
      "wait 3",       // no unit
      "wait -1s", "wait s", "wait 1e3s", "wait 100000h", "wait-ring soon",
      "error 256", "jump",
  };
  for (const char* line : bad) {
    SCOPED_TRACE(line);
    const ParseResult result = ParseCommand(line);
    EXPECT_FALSE(result.command);
    EXPECT_FALSE(result.error.empty());
  }
}

TEST(PhoneCommandTest, ScriptsSplitAtSemicolonsAndNewlines) {
  EXPECT_EQ(SplitScript("wait-ring; offhook;wait 3s\n\n hold ;; resume; onhook"),
            (std::vector<std::string>{"wait-ring", "offhook", "wait 3s", "hold", "resume", "onhook"}));
  EXPECT_TRUE(SplitScript(" ; \n ").empty());
}

TEST(PhoneOptionsTest, OptionsFillTheStartRecord) {
  const std::vector<std::string> args = {"--pbx", "192.0.2.10", "--local", "10.0.0.7", "--mac",
                                         "00:1a:2B:3c:4d:5e", "--identity", "ABCDEFGHIJKL",
                                         "--start-mode", "extended", "--start-code", "7",
                                         "--script", "offhook", "--tone", "440", "--no-stdin"};
  PhoneOptions options;
  std::string error;
  ASSERT_TRUE(ParsePhoneOptions(args, &options, &error)) << error;
  NetworkInitData data;
  std::memset(&data, 0xee, sizeof(data));
  FillInitData(options, &data);
  EXPECT_EQ(data.pbx_ip, 0xC000020Au);
  EXPECT_EQ(data.local_ip, 0x0A000007u);
  const std::uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  EXPECT_EQ(std::memcmp(data.mac_address, mac, 6), 0);
  EXPECT_EQ(std::memcmp(data.terminal_identity, "ABCDEFGHIJKL", 12), 0);
  EXPECT_EQ(data.start_mode, 1);
  EXPECT_EQ(data.start_code, 7);
  EXPECT_EQ(data.event_callback, nullptr);  // all other bytes cleared
  EXPECT_EQ(options.script, "offhook");
  EXPECT_FALSE(options.read_stdin);

  const std::vector<std::vector<std::string>> bad = {
      {"--pbx", "1.2.3"},          {"--pbx", "1.2.3.256"}, {"--pbx", "1.2.3.4.5"},
      {"--mac", "00:11:22:33:44"}, {"--identity", "ABCDEFGHIJKLM"},
      {"--start-mode", "fast"},    {"--tone", "0"},        {"--pbx"},
      {"--mic", "a.wav", "--tone", "440"}, {"--frobnicate", "1"},
      {"--script-file", "/nonexistent/phone-script"}};
  for (const auto& row : bad) {
    PhoneOptions o;
    EXPECT_FALSE(ParsePhoneOptions(row, &o, &error)) << row[0];
    EXPECT_FALSE(error.empty());
  }
}

// Call control as a log of what the runner asked for.
class FakeActions final : public PhoneActions {
 public:
  std::int32_t PutKey(std::uint32_t key) override {
    log.push_back("key " + std::to_string(key));
    return key == 0xdead ? -1 : 0;
  }
  std::int32_t MakeCall(const std::string& number) override {
    log.push_back("dial " + number);
    return 0;
  }
  std::int32_t SendError(std::uint32_t code) override {
    log.push_back("error " + std::to_string(code));
    return 0;
  }
  std::vector<std::string> log;
};

std::vector<std::byte> ToneRecordBytes(std::int32_t pattern) {
  std::vector<std::byte> buffer(1024);
  std::memcpy(buffer.data(), "mgcp_tone", 10);
  const std::int32_t fields[8] = {1, -1, -1, -1, -1, 1, pattern, 3};
  std::memcpy(buffer.data() + 10, fields, sizeof(fields));
  return buffer;
}

struct RunnerFixture : ::testing::Test {
  Command Parse(const char* line) { return *ParseCommand(line).command; }
  FakeActions actions;
  PhoneView view;
  testing::FakeClock clock;  // auto: waits pass in simulated time
  platform::ManualResetEvent stop;
  ScriptRunner runner{actions, view, clock, stop};
};

TEST_F(RunnerFixture, KeysAndWaitsFollowTheSimulatedClock) {
  const std::int64_t start = clock.ElapsedMs();
  EXPECT_EQ(runner.Run(Parse("offhook")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(runner.Run(Parse("wait 3s")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(clock.ElapsedMs() - start, 3000);
  EXPECT_EQ(runner.Run(Parse("dial 12P3")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(runner.Run(Parse("error 7")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(runner.Run(Parse("key 0xdead")).kind, StepOutcome::Kind::kFailed);
  EXPECT_EQ(runner.Run(Parse("quit")).kind, StepOutcome::Kind::kQuit);
  EXPECT_EQ(actions.log, (std::vector<std::string>{"key 512", "dial 12P3", "error 7", "key 57005"}));
}

TEST_F(RunnerFixture, WaitRingTimesOutThenTakesEachRingOnce) {
  const std::int64_t start = clock.ElapsedMs();
  const StepOutcome none = runner.Run(Parse("wait-ring 2s"));
  EXPECT_EQ(none.kind, StepOutcome::Kind::kFailed);
  EXPECT_NE(none.message.find("no ring within 2000 ms"), std::string::npos);
  EXPECT_EQ(clock.ElapsedMs() - start, 2000);

  // A ring that came before the wait still counts, once.
  view.OnEvent(kEventRing, ToneRecordBytes(2));
  EXPECT_EQ(runner.Run(Parse("wait-ring 2s")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(runner.Run(Parse("wait-ring 1s")).kind, StepOutcome::Kind::kFailed);

  const std::string codec = "G.711";
  view.OnEvent(kEventCodec, std::as_bytes(std::span(codec)));
  EXPECT_EQ(runner.Run(Parse("wait-media 1s")).kind, StepOutcome::Kind::kOk);
  EXPECT_TRUE(view.media_active().load());
  view.OnEvent(kEventMediaClosed, {});
  EXPECT_FALSE(view.media_active().load());
  const std::string end = "end";
  view.OnEvent(kEventEnd, std::as_bytes(std::span(end)));
  EXPECT_EQ(runner.Run(Parse("wait-end 1s")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(runner.Run(Parse("wait-end 1s")).kind, StepOutcome::Kind::kFailed)
      << "an end event and media closed together are one ending";

  // A PBX that only closes the voice path (a DLCX after a resumed hold) ends the call too.
  view.OnEvent(kEventCodec, std::as_bytes(std::span(codec)));
  view.OnEvent(kEventMediaClosed, {});
  EXPECT_EQ(runner.Run(Parse("wait-end 1s")).kind, StepOutcome::Kind::kOk);
}

TEST_F(RunnerFixture, StopAndALostPbxEndWaitsEarly) {
  stop.Set();
  EXPECT_EQ(runner.Run(Parse("wait 10m")).kind, StepOutcome::Kind::kStopped);
  EXPECT_EQ(runner.Run(Parse("wait-ring")).kind, StepOutcome::Kind::kStopped);
  stop.Reset();
  view.OnSystem(kSystemConnectionLost);
  const std::int64_t start = clock.ElapsedMs();
  const StepOutcome lost = runner.Run(Parse("wait-ring"));
  EXPECT_EQ(lost.kind, StepOutcome::Kind::kFailed);
  EXPECT_NE(lost.message.find("lost"), std::string::npos);
  EXPECT_EQ(clock.ElapsedMs(), start);
}

TEST_F(RunnerFixture, ResumePressesTheLineThatWentOnHold) {
  EXPECT_EQ(runner.Run(Parse("resume")).kind, StepOutcome::Kind::kOk);  // nothing known: line 0
  view.OnLamp(0x0c02, 1);  // line 3 steady green: the call
  view.OnLamp(0x0c00, 1);
  view.OnLamp(0x0c00, 0);
  view.OnLamp(0x0c02, 4);  // and now flashing: held
  EXPECT_EQ(runner.Run(Parse("resume")).kind, StepOutcome::Kind::kOk);
  view.OnLamp(0x0c02, 1);  // taken back: no longer held, still the active line
  view.OnLamp(0x0c05, 1);
  EXPECT_EQ(runner.Run(Parse("resume")).kind, StepOutcome::Kind::kOk);
  EXPECT_EQ(actions.log, (std::vector<std::string>{"key 2565", "key 3074", "key 3077"}));
}

}  // namespace
}  // namespace deskline::phone
