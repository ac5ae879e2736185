// deskline-pbx: the PBX simulator on loopback, for the demo and for trying the terminal by
// hand. Stops on Ctrl-C, SIGTERM or the end of standard input.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>

#include "tools/pbxsim/pbx_simulator.h"

namespace {

volatile std::sig_atomic_t g_signalled = 0;
std::atomic<bool> g_input_ended{false};

void OnSignal(int) { g_signalled = 1; }

void Usage(std::FILE* out) {
  std::fputs(
      "usage: deskline-pbx [options]\n"
      "  --port N                PTAP server port on 127.0.0.1 (default 9300, 0 = any)\n"
      "  --result CODE           result code in the START answer, 0-255 (default 0)\n"
      "  --keepalive S           keepalive timeout delivered to the terminal, 0-255 s (default "
      "30)\n"
      "  --keepalive-every MS    send keepalive requests this often, 0 = never (default 10000)\n"
      "  --mgcp-pbx-port N       MGCP port of the PBX delivered at START (default 2727)\n"
      "  --mgcp-terminal-port N  MGCP port of the terminal delivered at START (default 2427)\n"
      "  --silent                answer and acknowledge nothing\n"
      "  --no-stdin              do not stop at the end of standard input\n"
      "  -v, --verbose           print one line per datagram\n"
      "  -h, --help              this text\n",
      out);
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
  using deskline::sim::PbxOptions;
  using deskline::sim::PbxSimulator;
  using deskline::sim::PtapAnswers;

  PbxOptions options;
  options.port = deskline::sim::kDefaultPtapPort;
  // A demo runs for hours: keep the recent past only.
  options.record_limit = 1000;
  PtapAnswers answers;
  long keepalive_every_ms = 10000;
  bool verbose = false;
  bool watch_stdin = true;

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
    options.print = [](std::string_view line) {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
      std::fflush(stdout);
    };
  }

  PbxSimulator pbx(options);
  pbx.SetAnswers(answers);
  if (!pbx.Start()) {
    std::fprintf(stderr, "deskline-pbx: cannot bind 127.0.0.1:%u\n",
                 static_cast<unsigned>(options.port));
    return 1;
  }
  std::fprintf(stderr, "deskline-pbx: PTAP on 127.0.0.1:%u\n", static_cast<unsigned>(pbx.port()));
  if (keepalive_every_ms > 0) {
    // Keepalives go out once a terminal has made itself known.
    pbx.StartKeepalives(std::chrono::milliseconds(keepalive_every_ms));
  }

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  if (watch_stdin) {
    // A read of standard input cannot be released portably, so this reader is left to end
    // with the process; it touches nothing but a flag of static storage.
    std::thread([] {
      while (std::fgetc(stdin) != EOF) {
      }
      g_input_ended = true;
    }).detach();
  }
  while (!g_signalled && !g_input_ended) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  pbx.Stop();
  std::fprintf(stderr, "deskline-pbx: stopped\n");
  return 0;
}
