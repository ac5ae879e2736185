#include <gtest/gtest.h>

#include <cstring>

#include "platform/event.h"
#include "testing/fake_clock.h"
#include "tools/phone/commands.h"
#include "tools/phone/options.h"
#include "tools/phone/script_runner.h"

namespace deskline::phone {
namespace {

using K = CommandKind;

TEST(PhoneCommandTest, CommandsAndTheirKeys) {
  struct Row {
    const char* line; K kind; std::uint32_t key = 0; const char* text = ""; std::int64_t ms = 0;
  };
  const Row rows[] = {
      {"offhook", K::kKey, 0x0200},       {"  onhook  ", K::kKey, 0x0100},
      {"hold", K::kKey, 0x0b00},          {"resume", K::kResume},
      {"line 0", K::kKey, 0x0a05},        {"line 1", K::kKey, 0x0c00},
      {"line 48", K::kKey, 0x0c2f},       {"key 0x1004", K::kKey, 0x1004},
      {"key 512", K::kKey, 0x0200},       {"dial 12#*P9W", K::kDial, 0, "12#*P9W"},
      {"5", K::kDial, 0, "5"},            {"wait 3s", K::kWait, 0, "", 3000},
      {"wait 1.5s", K::kWait, 0, "", 1500}, {"wait 250ms", K::kWait, 0, "", 250},
      {"wait 2m", K::kWait, 0, "", 120000}, {"wait-ring", K::kWaitRing, 0, "", 60000},
      {"wait-media 5s", K::kWaitMedia, 0, "", 5000}, {"wait-end 100ms", K::kWaitEnd, 0, "", 100},
      {"error 0x20", K::kSendError},      {"# a comment", K::kNone},
      {"", K::kNone},                     {"quit", K::kQuit},
      {"devices", K::kDevices},
      {"format +44 (0)20 7946", K::kFormat, 0, "+44 (0)20 7946"},
      {"dial +81 3 1234 5678", K::kDial, 0, "+81 3 1234 5678"},
      {"1234567890123456789012345678901234567890", K::kDial, 0,
       "1234567890123456789012345678901234567890"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    const ParseResult result = ParseCommand(row.line);
    ASSERT_TRUE(result.command) << result.error;
    EXPECT_EQ(result.command->kind, row.kind);
    EXPECT_EQ(result.command->key, row.key);
    EXPECT_EQ(result.command->text, row.text);
    EXPECT_EQ(result.command->duration.count(), row.ms);
    // Only a contact-list number, never a plain dial string, goes through the formatter.
    EXPECT_EQ(result.command->format, row.kind == K::kDial && row.text[0] == '+');
  }
}

TEST(PhoneCommandTest, BadCommandsSayWhy) {
  for (const char* line : {"offhook now", "line 49", "line -1", "line", "key 0x10000", "key zz",
                           "dial 12a", "dial p", "12345678901234567890123456789012345678901",
                           "wait 3", "wait -1s", "wait s", "wait 1e3s", "wait 100000h",
                           "wait-ring soon", "error 256", "jump", "devices all", "format",
                           "dial", "5 6"}) {
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
  EXPECT_EQ(std::memcmp(data.mac_address, "\x00\x1a\x2b\x3c\x4d\x5e", 6), 0);
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

TEST(PhoneOptionsTest, SoundCardOptions) {
  struct Row {
    std::vector<std::string> args;
    AudioMode mode;
    const char* in;
    const char* out;
  };
  const Row good[] = {
      {{}, AudioMode::kOwn, "", ""},
      {{"--audio", "virtual"}, AudioMode::kVirtual, "", ""},
      {{"--audio", "system", "--in", "USB Headset Mic", "--out", "USB Headset"}, AudioMode::kSystem,
       "USB Headset Mic", "USB Headset"},
      // The virtual card plays a file, a tone or the talker as its microphone.
      {{"--out", "Ringer", "--audio", "virtual", "--speech"}, AudioMode::kVirtual, "", "Ringer"},
      {{"--audio", "virtual", "--mic", "a.wav", "--record", "heard.wav"}, AudioMode::kVirtual, "", ""},
  };
  for (const Row& row : good) {
    SCOPED_TRACE(row.args.empty() ? "" : row.args[1]);
    PhoneOptions options;
    std::string error;
    ASSERT_TRUE(ParsePhoneOptions(row.args, &options, &error)) << error;
    EXPECT_EQ(options.audio, row.mode);
    EXPECT_EQ(options.in_device, row.in);
    EXPECT_EQ(options.out_device, row.out);
  }
  EXPECT_STREQ(AudioModeName(AudioMode::kOwn), "own");
  EXPECT_STREQ(AudioModeName(AudioMode::kVirtual), "virtual");
  EXPECT_STREQ(AudioModeName(AudioMode::kSystem), "system");

  const std::vector<std::vector<std::string>> bad = {
      {"--audio", "alsa"},         {"--audio"},
      {"--in", "Mic"},             {"--out", "Speaker"},  // a device needs a sound card
      {"--audio", "system", "--in", ""},
      {"--audio", "system", "--tone", "440"},  // a person is at the real microphone
      {"--audio", "system", "--mic", "a.wav"}, {"--speech", "--audio", "system"}};
  for (const auto& row : bad) {
    PhoneOptions o;
    std::string error;
    EXPECT_FALSE(ParsePhoneOptions(row, &o, &error)) << row[0] << " " << row.size();
    EXPECT_FALSE(error.empty());
  }
}

// Call control as a log of what the runner asked for; key 0xdead is refused.
class FakeActions final : public PhoneActions {
 public:
  std::int32_t PutKey(std::uint32_t key) override {
    return Log("key " + std::to_string(key), key == 0xdead ? -1 : 0);
  }
  std::int32_t MakeCall(const std::string& number) override { return Log("dial " + number); }
  std::int32_t SendError(std::uint32_t code) override { return Log("error " + std::to_string(code)); }
  // Drops blanks and '+'; "+0" formats to "x", which is no dial string; "refuse" is refused.
  std::optional<std::string> FormatNumber(const std::string& number) override {
    log.push_back("format " + number);
    if (number == "refuse") return std::nullopt;
    if (number == "+0") return "x";
    std::string out;
    for (char c : number) if (c != ' ' && c != '+') out += c;
    return out;
  }
  std::int32_t Log(std::string line, std::int32_t result = 0) {
    log.push_back(std::move(line));
    return result;
  }
  std::vector<std::string> log;
};

using Outcome = StepOutcome::Kind;

struct RunnerFixture : ::testing::Test {
  StepOutcome Run(const char* line) { return runner.Run(*ParseCommand(line).command); }
  FakeActions actions;
  PhoneView view;
  testing::FakeClock clock;  // auto: waits pass in simulated time
  platform::ManualResetEvent stop;
  ScriptRunner runner{actions, view, clock, stop};
};

TEST_F(RunnerFixture, KeysAndWaitsFollowTheSimulatedClock) {
  const std::int64_t start = clock.ElapsedMs();
  EXPECT_EQ(Run("offhook").kind, Outcome::kOk);
  EXPECT_EQ(Run("wait 3s").kind, Outcome::kOk);
  EXPECT_EQ(clock.ElapsedMs() - start, 3000);
  EXPECT_EQ(Run("dial 12P3").kind, Outcome::kOk);
  EXPECT_EQ(Run("error 7").kind, Outcome::kOk);
  EXPECT_EQ(Run("key 0xdead").kind, Outcome::kFailed);
  EXPECT_EQ(Run("quit").kind, Outcome::kQuit);
  EXPECT_EQ(actions.log, (std::vector<std::string>{"key 512", "dial 12P3", "error 7", "key 57005"}));
}

TEST_F(RunnerFixture, ContactNumbersAreFormattedBeforeTheyAreDialled) {
  const StepOutcome dialled = Run("dial +44 20 7946");
  EXPECT_EQ(dialled.kind, Outcome::kOk);
  EXPECT_EQ(dialled.message, "dial +44 20 7946 formatted to 44207946");
  EXPECT_EQ(Run("format 0 12").message, "format 0 12 -> '012'");
  EXPECT_EQ(Run("dial +0").kind, Outcome::kFailed);  // formatted to no dial string: nothing sent
  EXPECT_EQ(Run("format refuse").kind, Outcome::kFailed);
  EXPECT_EQ(actions.log, (std::vector<std::string>{"format +44 20 7946", "dial 44207946",
                                                   "format 0 12", "format +0", "format refuse"}));
}

TEST_F(RunnerFixture, WaitsTimeOutAndTakeEachEventOnce) {
  const std::int64_t start = clock.ElapsedMs();
  const StepOutcome none = Run("wait-ring 2s");
  EXPECT_EQ(none.kind, Outcome::kFailed);
  EXPECT_NE(none.message.find("no ring within 2000 ms"), std::string::npos);
  EXPECT_EQ(clock.ElapsedMs() - start, 2000);

  // A ring that came before the wait still counts, once.
  view.OnEvent(kEventRing, {});
  EXPECT_EQ(Run("wait-ring 2s").kind, Outcome::kOk);
  EXPECT_EQ(Run("wait-ring 1s").kind, Outcome::kFailed);

  const auto codec = std::as_bytes(std::span("G.711", 5));
  view.OnEvent(kEventCodec, codec);
  EXPECT_EQ(Run("wait-media 1s").kind, Outcome::kOk);
  EXPECT_TRUE(view.media_active().load());
  // A PBX may end a call only by closing the voice path (a DLCX after a resumed hold); an end
  // event after it is the same ending.
  view.OnEvent(kEventMediaClosed, {});
  EXPECT_FALSE(view.media_active().load());
  EXPECT_EQ(Run("wait-end 1s").kind, Outcome::kOk);
  const auto end = std::as_bytes(std::span("end", 3));
  view.OnEvent(kEventEnd, end);
  EXPECT_EQ(Run("wait-end 1s").kind, Outcome::kFailed) << "media closed and end: one ending";
  view.OnEvent(kEventCodec, codec);
  view.OnEvent(kEventEnd, end);
  EXPECT_EQ(Run("wait-end 1s").kind, Outcome::kOk);
}

TEST_F(RunnerFixture, StopAndALostPbxEndWaitsEarly) {
  stop.Set();
  EXPECT_EQ(Run("wait 10m").kind, Outcome::kStopped);
  EXPECT_EQ(Run("wait-ring").kind, Outcome::kStopped);
  stop.Reset();
  view.OnSystem(kSystemConnectionLost);
  const std::int64_t start = clock.ElapsedMs();
  const StepOutcome lost = Run("wait-ring");
  EXPECT_EQ(lost.kind, Outcome::kFailed);
  EXPECT_NE(lost.message.find("lost"), std::string::npos);
  EXPECT_EQ(clock.ElapsedMs(), start);
}

TEST_F(RunnerFixture, ResumePressesTheLineThatWentOnHold) {
  EXPECT_EQ(Run("resume").kind, Outcome::kOk);  // nothing known: line 0
  view.OnLamp(0x0c02, 1);  // line 3 steady green: the call
  view.OnLamp(0x0c00, 1);
  view.OnLamp(0x0c00, 0);
  view.OnLamp(0x0c02, 4);  // and now flashing: held
  view.OnLamp(0x0c01, 3);  // flashing without being steady first: ringing, not held
  EXPECT_EQ(Run("resume").kind, Outcome::kOk);
  view.OnLamp(0x0c02, 1);  // taken back: no longer held, still the active line
  view.OnLamp(0x0c05, 1);
  EXPECT_EQ(Run("resume").kind, Outcome::kOk);
  EXPECT_EQ(actions.log, (std::vector<std::string>{"key 2565", "key 3074", "key 3077"}));
}

}  // namespace
}  // namespace deskline::phone
