// deskline-pbx: the PBX simulator on loopback, for the demo and for trying the terminal by
// hand: PTAP, an MGCP call agent and the call's RTP media, driven by commands typed on
// standard input or read from a script file. Stops on Ctrl-C, SIGTERM, "quit", the end of
// standard input, or (with --no-stdin) the end of the script; then prints a summary.
//
// Exit codes: 0 done, 1 a port cannot be bound or the summary cannot be written, 2 usage,
// 3 the script failed (a wait timed out, a wait command was malformed, or the script was cut
// short by a signal or quit).
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/console_input.h"
#include "platform/host_process.h"
#include "tools/pbxsim/agent_script.h"
#include "tools/pbxsim/media_channel.h"
#include "tools/pbxsim/pbx_options.h"
#include "tools/pbxsim/pbx_simulator.h"
#include "tools/pbxsim/run_summary.h"
#include "tools/pbxsim/terminal_watch.h"
#include "tools/rtppeer/peer_sound.h"

namespace {

// Both protocols, the media notes and the command results print from several threads: one
// line at a time.
std::mutex g_print_mutex;

void PrintLine(std::FILE* out, std::string_view line) {
  std::lock_guard lock(g_print_mutex);
  std::fwrite(line.data(), 1, line.size(), out);
  if (line.empty() || line.back() != '\n') std::fputc('\n', out);
  std::fflush(out);
}

// A "quit" read from standard input while something waits ends the wait: taken out of the
// queue. Only one read after the wait began (number `first` on) counts, so that a script
// piped in whole waits as written and quits at its end.
bool TakeQuitReadSince(deskline::platform::ConsoleInput& input, std::uint64_t first) {
  return input.TakeFirstSince(first, [](const std::string& text) {
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return false;
    const std::size_t end = text.find_first_of(" \t\r", start);
    const std::string word = text.substr(start, end == std::string::npos ? end : end - start);
    return word == "quit" || word == "exit";
  });
}

std::string Seconds(std::chrono::milliseconds duration) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g s", static_cast<double>(duration.count()) / 1000.0);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace deskline::sim;

  const PbxCommandLine cl = ParsePbxCommandLine(argc, argv);
  if (cl.exit_code) {
    std::fputs(cl.message.c_str(), *cl.exit_code == 0 ? stdout : stderr);
    return *cl.exit_code;
  }

  MediaOptions media_options;
  if (!cl.media_wav.empty()) {
    WavReadResult wav = ReadWavAs8kMono(cl.media_wav);
    if (!wav.ok() || wav.samples.empty()) {
      std::fprintf(stderr, "deskline-pbx: --media-wav %s: %s\n", cl.media_wav.c_str(),
                   wav.ok() ? "no samples" : wav.error.c_str());
      return 2;
    }
    media_options.source = SoundSource::Samples(std::move(wav.samples));
  } else if (cl.media_silence) {
    media_options.source = SoundSource::Silence();
  } else {
    media_options.source = SoundSource::Tone(cl.tone_hz, cl.level_dbfs);
  }
  media_options.faults = cl.media_faults;
  media_options.record_path = cl.record_path;

  PbxOptions options = cl.options;
  // A demo runs for hours: keep the recent past only.
  options.record_limit = 1000;
  if (cl.verbose) {
    options.print = [](std::string_view line) { PrintLine(stdout, line); };
  }
  if (cl.with_agent) options.mgcp = cl.agent_options;

  PbxSimulator pbx(options);
  pbx.SetAnswers(cl.answers);
  const std::vector<NetRule> signal_rules = SignalRules(cl);
  for (const NetRule& rule : signal_rules) pbx.AddRule(rule);
  if (!pbx.Start()) {
    std::fprintf(stderr, "deskline-pbx: cannot bind 127.0.0.1:%u%s\n",
                 static_cast<unsigned>(options.port),
                 cl.with_agent ? " or the call agent's port" : "");
    return 1;
  }
  std::fprintf(stderr, "deskline-pbx: PTAP on 127.0.0.1:%u\n", static_cast<unsigned>(pbx.port()));
  MgcpAgent* agent = pbx.mgcp();
  if (agent) {
    agent->SetAnswers(cl.agent_answers);
    for (const NetRule& rule : signal_rules) agent->AddRule(rule);
    std::fprintf(stderr, "deskline-pbx: MGCP call agent on 127.0.0.1:%u\n",
                 static_cast<unsigned>(agent->port()));
  }
  if (cl.keepalive_every_ms > 0) {
    // Keepalives go out once a terminal has made itself known.
    pbx.StartKeepalives(std::chrono::milliseconds(cl.keepalive_every_ms));
  }

  deskline::platform::InstallStopSignals();
  deskline::platform::ConsoleInput input;
  if (cl.watch_stdin && !input.Start()) {
    PrintLine(stderr, "deskline-pbx: cannot read standard input");
    return 1;
  }

  // Declared after the simulator, so that they go before the agent they use.
  std::optional<MediaChannel> media;
  std::optional<AgentScript> commands;
  if (agent) {
    media.emplace(*agent, media_options, [](std::string_view line) { PrintLine(stdout, line); });
    commands.emplace(*agent, &*media);
  }
  TerminalWatch watch(&pbx, agent, media ? &*media : nullptr, deskline::platform::RealClock());

  bool quit = false;
  bool typed_quit = false;
  bool script_failed = false;
  std::uint64_t wait_began_at_line = 0;  // lines read from standard input when a wait began
  // Asked by every wait, every few milliseconds: moves the media along and says whether to
  // stop waiting.
  auto interrupted = [&] {
    if (media) media->Poll();
    if (deskline::platform::StopSignalled()) return true;
    if (TakeQuitReadSince(input, wait_began_at_line)) typed_quit = quit = true;
    return quit;
  };
  auto pause = [&](std::chrono::milliseconds wait) {
    wait_began_at_line = input.lines_read();
    const auto until = std::chrono::steady_clock::now() + wait;
    while (!interrupted() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  };
  // Runs one line. Returns why the script cannot go on, or an empty text.
  auto execute = [&](std::string_view line) -> std::string {
    if (!commands) {
      if (line.find_first_not_of(" \t\r") != std::string_view::npos && line[0] != '#') {
        PrintLine(stderr, "deskline-pbx: no call agent (--no-agent); command ignored");
      }
      return {};
    }
    if (media) media->Poll();
    const ScriptStep step = commands->Run(line);
    if (!step.message.empty()) PrintLine(step.ok ? stdout : stderr, step.message);
    if (step.quit) quit = true;
    if (step.bad_wait) return "a wait that cannot be carried out";
    if (step.wait.count() > 0) pause(step.wait);
    if (step.await) {
      const std::string what = TerminalWatch::Describe(*step.await);
      wait_began_at_line = input.lines_read();
      switch (watch.Wait(*step.await, interrupted)) {
        case TerminalWatch::Outcome::kMet:
          PrintLine(stdout, what + ": done");
          break;
        case TerminalWatch::Outcome::kTimedOut:
          script_failed = true;
          PrintLine(stderr, "deskline-pbx: " + what + " timed out after " +
                                Seconds(step.await->timeout));
          return what + " timed out";
        case TerminalWatch::Outcome::kInterrupted:
          return what + " was interrupted";
      }
    }
    return {};
  };

  std::deque<std::string> script = cl.script;
  std::size_t line_number = 0;
  while (!quit && !deskline::platform::StopSignalled() && !script.empty()) {
    const std::string line = std::move(script.front());
    script.pop_front();
    ++line_number;
    const std::string stop = execute(line);
    if (!stop.empty()) {
      script_failed = true;
      PrintLine(stderr, "deskline-pbx: script stopped at line " + std::to_string(line_number) +
                            " of " + *cl.script_path + ": " + stop);
      break;
    }
  }
  // A script cut short by a signal or a typed quit did not do what it meant to; its own quit
  // ends it as planned.
  if (!script.empty() && !script_failed && (deskline::platform::StopSignalled() || typed_quit)) {
    script_failed = true;
    PrintLine(stderr, "deskline-pbx: script stopped at line " + std::to_string(line_number) +
                          " of " + *cl.script_path);
  }
  // With --no-stdin a script is the whole session; without one the PBX serves until a signal.
  const bool end_with_script = !cl.watch_stdin && cl.script_path.has_value();
  while (!quit && !deskline::platform::StopSignalled() && !end_with_script) {
    // Read before taking a line: the reader queues every line before it sets the flag, so
    // lines that came before the end of input are still run.
    const bool ended = input.ended();
    std::string line;
    if (input.Take(&line)) {
      execute(line);
      continue;
    }
    if (cl.watch_stdin && ended) break;
    if (media) media->Poll();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  int exit_code = script_failed ? 3 : 0;
  RunSummary summary;
  summary.registered = watch.Registered();
  summary.script_ok = !script_failed;
  if (media) {
    const std::string lines = media->Finish();
    if (!lines.empty()) PrintLine(stdout, lines);
    summary.media = media->Totals();
  }
  PrintLine(stdout, FormatSummaryLine(summary));
  if (!cl.summary_path.empty()) {
    std::ofstream out(cl.summary_path, std::ios::trunc);
    out << FormatSummaryFile(summary);
    out.close();
    if (!out) {
      PrintLine(stderr, "deskline-pbx: cannot write the summary to " + cl.summary_path);
      if (exit_code == 0) exit_code = 1;
    }
  }
  commands.reset();
  media.reset();
  pbx.Stop();
  std::fprintf(stderr, "deskline-pbx: stopped\n");
  return exit_code;
}
