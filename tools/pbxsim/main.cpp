// deskline-pbx: the PBX simulator on loopback, for the demo and for trying the terminal by
// hand: PTAP and an MGCP call agent, driven by commands typed on standard input or read from a
// script file. Stops on Ctrl-C, SIGTERM, "quit" or the end of standard input.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "tools/pbxsim/agent_script.h"
#include "tools/pbxsim/pbx_simulator.h"

namespace {

volatile std::sig_atomic_t g_signalled = 0;
std::atomic<bool> g_input_ended{false};
// Lines typed on standard input, handed from the reader to the main thread.
std::mutex g_input_mutex;
std::deque<std::string> g_input_lines;
// Both protocols and the command results print from several threads: one line at a time.
std::mutex g_print_mutex;

void OnSignal(int) { g_signalled = 1; }

void PrintLine(std::FILE* out, std::string_view line) {
  std::lock_guard lock(g_print_mutex);
  std::fwrite(line.data(), 1, line.size(), out);
  if (line.empty() || line.back() != '\n') std::fputc('\n', out);
  std::fflush(out);
}

bool TakeInputLine(std::string* line) {
  std::lock_guard lock(g_input_mutex);
  if (g_input_lines.empty()) return false;
  *line = std::move(g_input_lines.front());
  g_input_lines.pop_front();
  return true;
}

void Usage(std::FILE* out) {
  std::fputs(
      "usage: deskline-pbx [options]\n"
      "  --port N                PTAP server port on 127.0.0.1 (default 9300, 0 = any)\n"
      "  --result CODE           result code in the START answer, 0-255 (default 0)\n"
      "  --keepalive S           keepalive timeout delivered to the terminal, 0-255 s (default "
      "30)\n"
      "  --keepalive-every MS    send keepalive requests this often, 0 = never (default 10000)\n"
      "  --mgcp-pbx-port N       the call agent's MGCP port, delivered at START (default 2727,\n"
      "                          0 = any)\n"
      "  --mgcp-terminal-port N  MGCP port of the terminal delivered at START (default 2427)\n"
      "  --no-agent              no call agent; START still delivers --mgcp-pbx-port\n"
      "  --rsip-code CODE        answer the terminal's RSIP with this code (default 200)\n"
      "  --rsip-delay MS         answer the RSIP this late (default 0)\n"
      "  --rsip-never            never answer the RSIP\n"
      "  --no-resend             the call agent sends each command once\n"
      "  --script FILE           run the call agent commands in FILE, then read standard input\n"
      "  --silent                answer and acknowledge nothing on PTAP\n"
      "  --no-stdin              do not read commands from standard input, nor stop at its end\n"
      "  -v, --verbose           print one line per datagram, PTAP and MGCP\n"
      "  -h, --help              this text\n"
      "\n",
      out);
  std::fputs(deskline::sim::AgentScript::Help(), out);
}

// The lines of a script file, or false if it cannot be read.
bool ReadScript(const char* path, std::deque<std::string>* lines) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) lines->push_back(line);
  return !in.bad();
}

// A whole decimal number within [min, max], or false.
bool ParseNumber(const char* text, long min, long max, long* out) {
  if (!text || !*text) return false;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < min || value > max) return false;
  *out = value;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  using deskline::sim::AgentScript;
  using deskline::sim::MgcpAgentAnswers;
  using deskline::sim::MgcpAgentOptions;
  using deskline::sim::PbxOptions;
  using deskline::sim::PbxSimulator;
  using deskline::sim::PtapAnswers;
  using deskline::sim::ScriptStep;

  PbxOptions options;
  options.port = deskline::sim::kDefaultPtapPort;
  // A demo runs for hours: keep the recent past only.
  options.record_limit = 1000;
  MgcpAgentOptions agent_options;
  agent_options.port = 2727;
  MgcpAgentAnswers agent_answers;
  bool with_agent = true;
  PtapAnswers answers;
  long keepalive_every_ms = 10000;
  bool verbose = false;
  bool watch_stdin = true;
  std::deque<std::string> script;

  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    long number = 0;
    auto take = [&](long min, long max) {
      if (!ParseNumber(value, min, max, &number)) {
        std::fprintf(stderr, "deskline-pbx: %s needs a number from %ld to %ld\n", argv[i], min,
                     max);
        std::exit(2);
      }
      ++i;
    };
    if (arg == "--port") {
      take(0, 65535);
      options.port = static_cast<std::uint16_t>(number);
    } else if (arg == "--result") {
      take(0, 255);
      answers.start.result_code = static_cast<std::uint8_t>(number);
    } else if (arg == "--keepalive") {
      take(0, 255);
      answers.start.keepalive_timeout_s = static_cast<std::uint8_t>(number);
    } else if (arg == "--keepalive-every") {
      take(0, 86'400'000);
      keepalive_every_ms = number;
    } else if (arg == "--mgcp-pbx-port") {
      take(0, 65535);
      answers.start.mgcp_pbx_port = static_cast<std::uint16_t>(number);
      agent_options.port = static_cast<std::uint16_t>(number);
    } else if (arg == "--no-agent") {
      with_agent = false;
    } else if (arg == "--rsip-code") {
      take(0, 999);
      agent_answers.rsip.code = static_cast<int>(number);
    } else if (arg == "--rsip-delay") {
      take(0, 86'400'000);
      agent_answers.rsip.delay = std::chrono::milliseconds(number);
    } else if (arg == "--rsip-never") {
      agent_answers.rsip.answer = false;
    } else if (arg == "--no-resend") {
      agent_options.resend.max_resends = 0;
    } else if (arg == "--script") {
      if (!value) {
        std::fprintf(stderr, "deskline-pbx: --script needs a file\n");
        return 2;
      }
      if (!ReadScript(value, &script)) {
        std::fprintf(stderr, "deskline-pbx: cannot read %s\n", value);
        return 2;
      }
      ++i;
    } else if (arg == "--mgcp-terminal-port") {
      take(0, 65535);
      answers.start.mgcp_terminal_port = static_cast<std::uint16_t>(number);
    } else if (arg == "--silent") {
      answers.silent = true;
    } else if (arg == "--no-stdin") {
      watch_stdin = false;
    } else if (arg == "-v" || arg == "--verbose") {
      verbose = true;
    } else if (arg == "-h" || arg == "--help") {
      Usage(stdout);
      return 0;
    } else {
      std::fprintf(stderr, "deskline-pbx: unknown option %s\n", argv[i]);
      Usage(stderr);
      return 2;
    }
  }

  if (verbose) {
    options.print = [](std::string_view line) { PrintLine(stdout, line); };
  }
  if (with_agent) options.mgcp = agent_options;

  PbxSimulator pbx(options);
  pbx.SetAnswers(answers);
  if (!pbx.Start()) {
    std::fprintf(stderr, "deskline-pbx: cannot bind 127.0.0.1:%u%s\n",
                 static_cast<unsigned>(options.port),
                 with_agent ? " or the call agent's port" : "");
    return 1;
  }
  std::fprintf(stderr, "deskline-pbx: PTAP on 127.0.0.1:%u\n", static_cast<unsigned>(pbx.port()));
  deskline::sim::MgcpAgent* agent = pbx.mgcp();
  if (agent) {
    agent->SetAnswers(agent_answers);
    std::fprintf(stderr, "deskline-pbx: MGCP call agent on 127.0.0.1:%u\n",
                 static_cast<unsigned>(agent->port()));
  }
  if (keepalive_every_ms > 0) {
    // Keepalives go out once a terminal has made itself known.
    pbx.StartKeepalives(std::chrono::milliseconds(keepalive_every_ms));
  }

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  if (watch_stdin) {
    // A read of standard input cannot be released portably, so this reader is left to end
    // with the process; it touches nothing but objects of static storage.
    std::thread([] {
      std::string line;
      for (int c = std::fgetc(stdin); c != EOF; c = std::fgetc(stdin)) {
        if (c != '\n') {
          line += static_cast<char>(c);
          continue;
        }
        std::lock_guard lock(g_input_mutex);
        g_input_lines.push_back(std::move(line));
        line.clear();
      }
      {
        std::lock_guard lock(g_input_mutex);
        if (!line.empty()) g_input_lines.push_back(std::move(line));
      }
      g_input_ended = true;
    }).detach();
  }

  std::optional<AgentScript> commands;
  if (agent) commands.emplace(*agent);
  auto run = [&](std::string_view line) {
    if (!commands) {
      if (line.find_first_not_of(" \t\r") != std::string_view::npos && line[0] != '#') {
        PrintLine(stderr, "deskline-pbx: no call agent (--no-agent); command ignored");
      }
      return ScriptStep{};
    }
    ScriptStep step = commands->Run(line);
    if (!step.message.empty()) PrintLine(step.ok ? stdout : stderr, step.message);
    return step;
  };
  auto pause = [](std::chrono::milliseconds wait) {
    const auto until = std::chrono::steady_clock::now() + wait;
    while (!g_signalled && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  };
  bool quit = false;
  while (!quit && !g_signalled && !script.empty()) {
    const ScriptStep step = run(script.front());
    script.pop_front();
    quit = step.quit;
    pause(step.wait);
  }
  for (;;) {
    if (quit || g_signalled) break;
    // Read before taking a line: the reader queues every line before it sets the flag, so
    // lines that came before the end of input are still run.
    const bool ended = g_input_ended;
    std::string line;
    if (TakeInputLine(&line)) {
      const ScriptStep step = run(line);
      quit = step.quit;
      pause(step.wait);
      continue;
    }
    if (ended) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pbx.Stop();
  std::fprintf(stderr, "deskline-pbx: stopped\n");
  return 0;
}
