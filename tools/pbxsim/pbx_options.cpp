#include "tools/pbxsim/pbx_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "tools/pbxsim/agent_script.h"

namespace deskline::sim {
namespace {

// A whole decimal number within [min, max].
std::optional<long long> WholeNumber(const char* text, long long min, long long max) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  const std::string_view view(text);
  if (view.find_first_not_of("-0123456789") != std::string_view::npos) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < min || value > max) return std::nullopt;
  return value;
}

// A plain decimal number (digits, one point, a sign) within [min, max]: no exponent, no hex,
// no inf or nan, which strtod would take.
std::optional<double> DecimalNumber(const char* text, double min, double max) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  const std::string_view view(text);
  if (view.find_first_not_of("+-.0123456789") != std::string_view::npos) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(value) || value < min || value > max) {
    return std::nullopt;
  }
  return value;
}

// The lines of a script file, or nullopt if it cannot be read.
std::optional<std::deque<std::string>> ReadScript(const char* path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::deque<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  if (in.bad()) return std::nullopt;
  return lines;
}

PbxCommandLine Refuse(PbxCommandLine command_line, std::string why, bool with_usage = false) {
  command_line.exit_code = 2;
  command_line.message = "deskline-pbx: " + why + "\n";
  if (with_usage) command_line.message += PbxUsage();
  return command_line;
}

}  // namespace

std::string PbxUsage() {
  return std::string(
             "usage: deskline-pbx [options]\n"
             "  --port N                PTAP server port on 127.0.0.1 (default 9300, 0 = any)\n"
             "  --result CODE           result code in the START answer, 0-255 (default 0)\n"
             "  --keepalive S           keepalive timeout delivered to the terminal, 0-255 s "
             "(default 30)\n"
             "  --keepalive-every MS    send keepalive requests this often, 0 = never (default "
             "10000)\n"
             "  --mgcp-pbx-port N       the call agent's MGCP port, delivered at START (default "
             "2727,\n"
             "                          0 = any)\n"
             "  --mgcp-terminal-port N  MGCP port of the terminal delivered at START (default "
             "2427)\n"
             "  --no-agent              no call agent; START still delivers --mgcp-pbx-port\n"
             "  --rsip-code CODE        answer the terminal's RSIP with this code (default 200)\n"
             "  --rsip-delay MS         answer the RSIP this late (default 0)\n"
             "  --rsip-never            never answer the RSIP\n"
             "  --no-resend             the call agent sends each command once\n"
             "  --script FILE           run the call agent commands in FILE, then read standard "
             "input\n"
             "  --silent                answer and acknowledge nothing on PTAP\n"
             "  --no-stdin              do not read standard input; with --script, end when the "
             "script ends\n"
             "  -v, --verbose           print one line per datagram, PTAP and MGCP\n"
             "  -h, --help              this text\n"
             "media the PBX sends once a call is connected (one packet per 20 ms):\n"
             "  --media-tone HZ         a tone of HZ, 1-3999 (default 425)\n"
             "  --media-level DBFS      the tone's level, -90 to 0 (default -12)\n"
             "  --media-wav FILE        a sound file instead (any rate and channels), looped\n"
             "  --media-silence         silence instead\n"
             "  --record FILE           what the terminal sent, as 8 kHz mono 16-bit WAV, written "
             "at\n"
             "                          release and at exit\n"
             "  --summary FILE          write the summary at exit as key=value lines\n"
             "faults on the media the PBX sends:\n"
             "  --media-loss PCT        drop this share of packets at random, 0-100\n"
             "  --media-jitter MS       hold each packet back 0 to MS ms, 0-1000\n"
             "  --media-reorder N       every Nth packet goes out after the next one (N >= 2)\n"
             "  --media-duplicate N     every Nth packet goes out twice\n"
             "faults on PTAP and MGCP, both ways:\n"
             "  --signal-loss PCT       drop this share of datagrams, 0-100\n"
             "  --signal-jitter MS      delay each datagram 0 to MS ms, 0-10000\n"
             "  --signal-duplicate PCT  deliver this share of datagrams twice, 0-100\n"
             "  --seed N                seed of every random fault, 0-4294967295 (default 0)\n"
             "\n") +
         AgentScript::Help();
}

PbxCommandLine ParsePbxCommandLine(int argc, const char* const* argv) {
  PbxCommandLine c;
  c.options.port = kDefaultPtapPort;
  c.agent_options.port = 2727;
  bool tone_given = false;

  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i] != nullptr ? argv[i] : "";
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    std::optional<long long> whole;
    std::optional<double> decimal;
    // Takes the option's value as a whole number, or says what was wrong.
    auto number = [&](long long min, long long max) {
      whole = WholeNumber(value, min, max);
      if (whole) ++i;
      return whole.has_value();
    };
    auto fraction = [&](double min, double max) {
      decimal = DecimalNumber(value, min, max);
      if (decimal) ++i;
      return decimal.has_value();
    };
    auto needs = [&](const std::string& what) {
      return Refuse(std::move(c), std::string(arg) + " needs " + what +
                                      (value ? std::string(", not '") + value + "'" : ""));
    };
    auto range = [&](long long min, long long max) {
      return needs("a number from " + std::to_string(min) + " to " + std::to_string(max));
    };
    auto text = [&](std::string* out) {
      // "--record --summary s.txt" is a missing value, not a file named "--summary".
      if (value == nullptr || *value == '\0' || std::string_view(value).rfind("--", 0) == 0) {
        return false;
      }
      *out = value;
      ++i;
      return true;
    };

    if (arg == "--port") {
      if (!number(0, 65535)) return range(0, 65535);
      c.options.port = static_cast<std::uint16_t>(*whole);
    } else if (arg == "--result") {
      if (!number(0, 255)) return range(0, 255);
      c.answers.start.result_code = static_cast<std::uint8_t>(*whole);
    } else if (arg == "--keepalive") {
      if (!number(0, 255)) return range(0, 255);
      c.answers.start.keepalive_timeout_s = static_cast<std::uint8_t>(*whole);
    } else if (arg == "--keepalive-every") {
      if (!number(0, 86'400'000)) return range(0, 86'400'000);
      c.keepalive_every_ms = static_cast<long>(*whole);
    } else if (arg == "--mgcp-pbx-port") {
      if (!number(0, 65535)) return range(0, 65535);
      c.answers.start.mgcp_pbx_port = static_cast<std::uint16_t>(*whole);
      c.agent_options.port = static_cast<std::uint16_t>(*whole);
    } else if (arg == "--mgcp-terminal-port") {
      if (!number(0, 65535)) return range(0, 65535);
      c.answers.start.mgcp_terminal_port = static_cast<std::uint16_t>(*whole);
    } else if (arg == "--no-agent") {
      c.with_agent = false;
    } else if (arg == "--rsip-code") {
      if (!number(0, 999)) return range(0, 999);
      c.agent_answers.rsip.code = static_cast<int>(*whole);
    } else if (arg == "--rsip-delay") {
      if (!number(0, 86'400'000)) return range(0, 86'400'000);
      c.agent_answers.rsip.delay = std::chrono::milliseconds(*whole);
    } else if (arg == "--rsip-never") {
      c.agent_answers.rsip.answer = false;
    } else if (arg == "--no-resend") {
      c.agent_options.resend.max_resends = 0;
    } else if (arg == "--script") {
      std::string path;
      if (!text(&path)) return needs("a file");
      std::optional<std::deque<std::string>> lines = ReadScript(path.c_str());
      if (!lines) return Refuse(std::move(c), "cannot read " + path);
      c.script_path = path;
      c.script = std::move(*lines);
    } else if (arg == "--silent") {
      c.answers.silent = true;
    } else if (arg == "--no-stdin") {
      c.watch_stdin = false;
    } else if (arg == "-v" || arg == "--verbose") {
      c.verbose = true;
    } else if (arg == "-h" || arg == "--help") {
      c.exit_code = 0;
      c.message = PbxUsage();
      return c;
    } else if (arg == "--media-tone") {
      if (!fraction(1, 3999)) return needs("a frequency from 1 to 3999 Hz");
      c.tone_hz = *decimal;
      tone_given = true;
    } else if (arg == "--media-level") {
      if (!fraction(-90, 0)) return needs("a level from -90 to 0 dBFS");
      c.level_dbfs = *decimal;
      tone_given = true;
    } else if (arg == "--media-wav") {
      if (!text(&c.media_wav)) return needs("a sound file");
    } else if (arg == "--media-silence") {
      c.media_silence = true;
    } else if (arg == "--record") {
      if (!text(&c.record_path)) return needs("a file to write");
    } else if (arg == "--summary") {
      if (!text(&c.summary_path)) return needs("a file to write");
    } else if (arg == "--media-loss") {
      if (!fraction(0, 100)) return needs("a percentage from 0 to 100");
      c.media_faults.drop_percent = *decimal;
    } else if (arg == "--media-jitter") {
      if (!number(0, 1000)) return range(0, 1000);
      c.media_faults.jitter_max_ms = static_cast<std::uint32_t>(*whole);
    } else if (arg == "--media-reorder") {
      // Every first packet held behind the next one would only delay the stream.
      if (!number(0, 1'000'000) || *whole == 1) return needs("0 (off) or a number from 2 to 1000000");
      c.media_faults.reorder_every_nth = static_cast<std::uint32_t>(*whole);
    } else if (arg == "--media-duplicate") {
      if (!number(0, 1'000'000)) return range(0, 1'000'000);
      c.media_faults.duplicate_every_nth = static_cast<std::uint32_t>(*whole);
    } else if (arg == "--signal-loss") {
      if (!fraction(0, 100)) return needs("a percentage from 0 to 100");
      c.signal_loss_percent = *decimal;
    } else if (arg == "--signal-jitter") {
      if (!number(0, 10'000)) return range(0, 10'000);
      c.signal_jitter_ms = static_cast<int>(*whole);
    } else if (arg == "--signal-duplicate") {
      if (!fraction(0, 100)) return needs("a percentage from 0 to 100");
      c.signal_duplicate_percent = *decimal;
    } else if (arg == "--seed") {
      if (!number(0, 4'294'967'295LL)) return range(0, 4'294'967'295LL);
      c.seed = static_cast<std::uint64_t>(*whole);
    } else {
      return Refuse(std::move(c), "unknown option " + std::string(arg), true);
    }
  }

  if (!c.media_wav.empty() && c.media_silence) {
    return Refuse(std::move(c), "--media-wav and --media-silence exclude each other");
  }
  if (tone_given && (!c.media_wav.empty() || c.media_silence)) {
    return Refuse(std::move(c),
                  "--media-tone and --media-level shape the tone; they do not go with "
                  "--media-wav or --media-silence");
  }
  c.options.seed = c.seed;
  c.agent_options.seed = c.seed;
  c.media_faults.seed = static_cast<std::uint32_t>(c.seed);
  return c;
}

std::vector<NetRule> SignalRules(const PbxCommandLine& c) {
  std::vector<NetRule> rules;
  for (const Direction direction : {Direction::kIn, Direction::kOut}) {
    if (c.signal_loss_percent > 0) {
      rules.push_back(
          NetRule::Drop(direction, std::nullopt).WithProbability(c.signal_loss_percent / 100.0));
    }
    if (c.signal_jitter_ms > 0) {
      rules.push_back(NetRule::Jitter(direction, std::nullopt, c.signal_jitter_ms));
    }
    if (c.signal_duplicate_percent > 0) {
      rules.push_back(NetRule::Duplicate(direction, std::nullopt)
                          .WithProbability(c.signal_duplicate_percent / 100.0));
    }
  }
  return rules;
}

}  // namespace deskline::sim
