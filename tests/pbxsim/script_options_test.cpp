// The words of deskline-pbx: the waits of its command language, its command line, and the
// summary it leaves. Tables of lines with what each must give.
#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "tools/pbxsim/agent_script.h"
#include "tools/pbxsim/pbx_options.h"
#include "tools/pbxsim/run_summary.h"

namespace deskline::sim {
namespace {

using std::chrono::milliseconds;

TEST(ParseDuration, UnitsAreRequiredAndBoundedToADay) {
  const std::pair<const char*, std::optional<milliseconds>> rows[] = {
      {"500ms", milliseconds(500)},   {"10s", milliseconds(10'000)},
      {"1.5s", milliseconds(1'500)},  {".25s", milliseconds(250)},
      {"2m", milliseconds(120'000)},  {"0s", milliseconds(0)},
      {"1440m", milliseconds(86'400'000)},
      {"1441m", std::nullopt},        {"60", std::nullopt},
      {"s", std::nullopt},            {"ms", std::nullopt},
      {".s", std::nullopt},           {"-1s", std::nullopt},
      {"1e3ms", std::nullopt},        {"1.2.3s", std::nullopt},
      {"10 s", std::nullopt},         {"10h", std::nullopt},
      {"", std::nullopt},             {"9999999999s", std::nullopt},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(ParseDuration(text), expected) << text;
}

// The agent is never started: parsing needs none, and a wait is only described, not done.
TEST(AgentScript, WaitsBecomeRequestsOrFailTheScriptSayingWhatIsExpected) {
  using Kind = WaitRequest::Kind;
  constexpr milliseconds kDefault{60'000};
  const struct {
    const char* line;
    std::optional<WaitRequest> expected;  // nullopt: malformed
    const char* says;
  } rows[] = {
      {"wait-register", WaitRequest{Kind::kRegister, 0, 0, kDefault}, ""},
      {"wait-register 10s", WaitRequest{Kind::kRegister, 0, 0, milliseconds(10'000)}, ""},
      {"  wait-key 0200", WaitRequest{Kind::kKey, 0x0200, 0, kDefault}, ""},
      {"wait-key 0a03 500ms", WaitRequest{Kind::kKey, 0x0A03, 0, milliseconds(500)}, ""},
      {"wait-key 0C2F 2m", WaitRequest{Kind::kKey, 0x0C2F, 0, milliseconds(120'000)}, ""},
      {"wait-media 250", WaitRequest{Kind::kMedia, 0, 250, kDefault}, ""},
      {"wait-media 1 1.5s", WaitRequest{Kind::kMedia, 0, 1, milliseconds(1'500)}, ""},
      {"wait-key", std::nullopt, "KEY four hex digits"},
      {"wait-key 200", std::nullopt, "KEY four hex digits"},  // the terminal always writes four
      {"wait-key 02000", std::nullopt, "KEY four hex digits"},
      {"wait-key 02g0", std::nullopt, "KEY four hex digits"},
      {"wait-key -200", std::nullopt, "KEY four hex digits"},
      {"wait-key 0200 60", std::nullopt, "TIMEOUT such as 10s"},  // seconds or milliseconds?
      {"wait-key 0200 10s extra", std::nullopt, "TIMEOUT such as 10s"},
      {"wait-register soon", std::nullopt, "TIMEOUT such as 10s"},
      {"wait-media", std::nullopt, "N packets"},
      {"wait-media 0", std::nullopt, "N packets"},
      {"wait-media many", std::nullopt, "N packets"},
      {"wait-media 10 -1s", std::nullopt, "TIMEOUT such as 10s"},
  };
  MgcpAgent agent;
  AgentScript script(agent);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const ScriptStep step = script.Run(row.line);
    EXPECT_EQ(step.ok, row.expected.has_value()) << step.message;
    EXPECT_EQ(step.bad_wait, !row.expected.has_value());
    EXPECT_EQ(step.await, row.expected);
    EXPECT_NE(step.message.find(row.says), std::string::npos) << step.message;
  }
  // A plain pause keeps bare milliseconds, takes units, and is no wait on the terminal.
  EXPECT_EQ(script.Run("wait 250").wait, milliseconds(250));
  EXPECT_EQ(script.Run("wait 1.5s").wait, milliseconds(1'500));
  EXPECT_EQ(script.Run("wait 600000").wait, milliseconds(600'000));
  for (const char* bad : {"wait", "wait 600001", "wait 11m", "wait x", "wait 1 2"}) {
    const ScriptStep step = script.Run(bad);
    EXPECT_FALSE(step.ok) << bad;
    EXPECT_FALSE(step.bad_wait) << bad;
  }
}

PbxCommandLine Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "deskline-pbx");
  return ParsePbxCommandLine(static_cast<int>(args.size()), args.data());
}

// The demo runs the tone, level, record and summary options; here the fault options, which
// are converted and spread.
TEST(PbxCommandLine, FaultOptionsLandWhereTheyAct) {
  const PbxCommandLine c =
      Parse({"--media-loss", "2.5", "--media-jitter", "40", "--media-reorder", "10",
             "--media-duplicate", "7", "--signal-loss", "5", "--signal-jitter", "30",
             "--signal-duplicate", "1", "--seed", "4294967295"});
  ASSERT_FALSE(c.exit_code.has_value()) << c.message;
  EXPECT_EQ(c.media_faults.drop_percent, 2.5);
  EXPECT_EQ(c.media_faults.jitter_max_ms, 40u);
  EXPECT_EQ(c.media_faults.reorder_every_nth, 10u);
  EXPECT_EQ(c.media_faults.duplicate_every_nth, 7u);
  EXPECT_EQ(c.media_faults.seed, 4294967295u);
  EXPECT_EQ(c.options.seed, 4294967295u);
  EXPECT_EQ(c.agent_options.seed, 4294967295u);

  // Each signalling fault once per direction, on every datagram.
  const std::vector<NetRule> rules = SignalRules(c);
  using A = NetRule::Action;
  const A actions[] = {A::kDrop, A::kDelay, A::kDuplicate};
  ASSERT_EQ(rules.size(), 6u);
  for (std::size_t i = 0; i < rules.size(); ++i) {
    EXPECT_EQ(rules[i].direction, i < 3 ? Direction::kIn : Direction::kOut);
    EXPECT_FALSE(rules[i].type.has_value());
    EXPECT_EQ(rules[i].action, actions[i % 3]);
  }
  EXPECT_DOUBLE_EQ(rules[0].probability, 0.05);
  EXPECT_EQ(rules[1].jitter_ms, 30);
  EXPECT_DOUBLE_EQ(rules[2].probability, 0.01);

  const PbxCommandLine plain = Parse({});
  EXPECT_TRUE(SignalRules(plain).empty());
  EXPECT_TRUE(plain.media_faults.empty());
  EXPECT_TRUE(Parse({"--media-silence"}).media_silence);
  EXPECT_EQ(Parse({"--media-wav", "a.wav"}).media_wav, "a.wav");
}

TEST(PbxCommandLine, BadValuesAreUsageErrorsWithExitCodeTwo) {
  const struct {
    std::vector<const char*> args;
    const char* says;
  } rows[] = {
      {{"--media-tone", "0"}, "from 1 to 3999 Hz"},
      {{"--media-tone", "4000"}, "from 1 to 3999 Hz"},
      {{"--media-tone", "nan"}, "from 1 to 3999 Hz"},
      {{"--media-tone", "0x1p9"}, "from 1 to 3999 Hz"},
      {{"--media-level", "3"}, "from -90 to 0 dBFS"},
      {{"--media-level"}, "from -90 to 0 dBFS"},
      {{"--media-loss", "101"}, "percentage"},
      {{"--media-loss", "1e1"}, "percentage"},
      {{"--media-jitter", "-5"}, "from 0 to 1000"},
      {{"--media-jitter", "2.5"}, "from 0 to 1000"},
      {{"--media-reorder", "1"}, "from 2 to 1000000"},
      {{"--media-duplicate", "x"}, "from 0 to 1000000"},
      {{"--signal-loss", "-1"}, "percentage"},
      {{"--signal-jitter", "10001"}, "from 0 to 10000"},
      {{"--signal-duplicate", ""}, "percentage"},
      {{"--seed", "4294967296"}, "from 0 to 4294967295"},
      {{"--record"}, "a file to write"},
      {{"--record", "--summary", "s.txt"}, "a file to write"},
      {{"--media-wav", ""}, "a sound file"},
      {{"--media-wav", "a.wav", "--media-silence"}, "exclude each other"},
      {{"--media-silence", "--media-tone", "440"}, "shape the tone"},
      {{"--media-level", "-3", "--media-wav", "a.wav"}, "shape the tone"},
      {{"--script", "/nonexistent/script.txt"}, "cannot read"},
      {{"--bogus"}, "unknown option --bogus"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.args.front());
    const PbxCommandLine c = Parse(row.args);
    EXPECT_EQ(c.exit_code, 2);
    EXPECT_EQ(c.message.rfind("deskline-pbx: ", 0), 0u) << c.message;
    EXPECT_NE(c.message.find(row.says), std::string::npos) << c.message;
  }
  const PbxCommandLine help = Parse({"--port", "0", "-h"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.message.find("--media-duplicate N"), std::string::npos);
  EXPECT_NE(help.message.find("wait-key KEY [TIMEOUT]"), std::string::npos);

  // A script is read whole at parse time, its last line without a line end too.
  const std::string path = ::testing::TempDir() + "pbxsim_options_script.txt";
  std::ofstream(path) << "wait-register 5s\n# comment\nquit";
  const PbxCommandLine c = Parse({"--no-stdin", "--script", path.c_str()});
  ASSERT_FALSE(c.exit_code.has_value()) << c.message;
  EXPECT_FALSE(c.watch_stdin);
  EXPECT_EQ(c.script, (std::deque<std::string>{"wait-register 5s", "# comment", "quit"}));
}

TEST(RunSummary, KeyValueLinesInTheirFixedOrder) {
  RunSummary summary;
  EXPECT_EQ(FormatSummaryFile(summary),
            "registered=0\ncodec=none\nmedia_sent=0\nmedia_dropped=0\nmedia_received=0\n"
            "media_lost=0\nmedia_duplicates=0\nreceived_level_dbfs=-120.0\nrecording=\n"
            "script=ok\n");
  summary.registered = true;
  summary.script_ok = false;
  summary.media = {.payload_type = 18, .sent = 500, .dropped = 12, .received = 498, .lost = 3,
                   .duplicates = 1, .received_level_dbfs = -12.04, .recording = "out/rec.wav"};
  EXPECT_EQ(FormatSummaryFile(summary),
            "registered=1\ncodec=g729\nmedia_sent=500\nmedia_dropped=12\nmedia_received=498\n"
            "media_lost=3\nmedia_duplicates=1\nreceived_level_dbfs=-12.0\n"
            "recording=out/rec.wav\nscript=failed\n");
  const std::pair<std::optional<int>, const char*> codecs[] = {
      {0, "pcmu"}, {8, "pcma"}, {9, "g722"}, {18, "g729"}, {96, "none"}, {std::nullopt, "none"}};
  for (const auto& [payload_type, codec] : codecs) EXPECT_EQ(SummaryCodec(payload_type), codec);
  // Silence that reads -infinity is written as the floor.
  summary.media.received_level_dbfs = -std::numeric_limits<double>::infinity();
  EXPECT_NE(FormatSummaryFile(summary).find("received_level_dbfs=-120.0\n"), std::string::npos);
}

}  // namespace
}  // namespace deskline::sim
