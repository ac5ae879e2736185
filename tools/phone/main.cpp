// deskline-phone: a command-line telephone. Loads libdeskline.so as a GUI would, registers
// with the PBX, shows lamps, display and call events as lines, runs typed or scripted
// commands, and plays a sound file or tone as its microphone while recording what it hears.
// Ends on Ctrl-C, the end of its script, "quit" or the end of standard input.
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/console_input.h"
#include "platform/event.h"
#include "platform/host_process.h"
#include "platform/thread.h"
#include "tools/phone/commands.h"
#include "tools/phone/host_library.h"
#include "tools/phone/options.h"
#include "tools/phone/phone_view.h"
#include "tools/phone/script_runner.h"
#include "tools/phone/speech_source.h"
#include "tools/phone/voice_pacer.h"
#include "tools/phone/wav_file.h"

namespace dp = deskline::phone;
namespace pf = deskline::platform;

namespace {

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2, kExitNotRegistered = 3,
                kExitCommandFailed = 4, kExitConnectionLost = 5 };

// Callbacks are plain functions: they reach the phone through these, set before initialize
// and valid until uninitialize has returned.
dp::PhoneView* g_view = nullptr;
std::mutex g_print_mutex;
std::int64_t g_start_ns = 0;

void Print(const std::string& line) {
  const double seconds =
      static_cast<double>(pf::RealClock().SteadyNs() - g_start_ns) / 1e9;
  std::lock_guard lock(g_print_mutex);
  std::printf("[%8.3f] %s\n", seconds, line.c_str());
  std::fflush(stdout);
}

void OnEvent(std::uint32_t code, std::uint32_t length, const char* data) {
  std::span<const std::byte> bytes;
  if (data != nullptr) bytes = {reinterpret_cast<const std::byte*>(data), dp::ReadableEventBytes(code, length)};
  Print(g_view->OnEvent(code, bytes));
}

void OnLamp(std::uint32_t key, std::uint32_t status) { Print(g_view->OnLamp(key, status)); }

void OnDisplay(std::uint32_t, std::uint32_t, const char* text, std::uint32_t) {
  std::span<const std::byte> bytes;
  if (text != nullptr) bytes = {reinterpret_cast<const std::byte*>(text), dp::kDisplayReadableBytes};
  Print(g_view->OnDisplay(bytes));
}

void OnSystem(std::uint32_t code, std::uint32_t, std::uint32_t) { Print(g_view->OnSystem(code)); }

std::string DescribeInitialize(std::int32_t result) {
  switch (result) {
    case 0:
      return "registered";
    case -1:
      return "initialize failed (-1): invalid start data or an engine error, see the trace";
    case 1:
      return "initialize failed (1): the PBX did not answer or start-up failed, see the trace";
    case 201:
      return "initialize failed (201): the PBX refused the registration";
    case 210:
      return "initialize failed (210): the PBX says the connection data is wrong";
    case 211:
      return "initialize failed (211): the PBX says this is the wrong kind of terminal";
    default:
      return "initialize failed (" + std::to_string(result) + "): unexpected result";
  }
}

struct SummaryRow {
  const char* key;    // in the summary file
  const char* label;  // on screen; null: file only
  std::string value;
};

std::string Fixed(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

// The closing summary: on screen for people, and as key=value lines for scripts and tests.
void PrintSummary(const dp::PhoneOptions& options, std::int32_t init_result, double registration_s,
                  const dp::PhoneView& view, const dp::VoiceCounts& voice,
                  const dp::WavWriter& recording, int exit_code) {
  const std::string codec = view.codec();
  std::string microphone = "silence";
  if (!options.mic_path.empty()) {
    microphone = options.mic_path;
  } else if (options.tone_hz > 0) {
    microphone = "tone " + Fixed(options.tone_hz, 0) + " Hz";
  } else if (options.speech) {
    microphone = "synthetic speech";
  }
  const double recorded_s = static_cast<double>(recording.samples_written()) / dp::kVoiceRateHz;
  std::string depth = "-";
  if (voice.playout_delay_frames >= 0) {
    depth = std::to_string(voice.playout_delay_frames) + " frames (" +
            std::to_string(voice.playout_delay_frames * 20) + " ms) when playout began";
  }
  const std::vector<SummaryRow> rows = {
      {"initialize", nullptr, std::to_string(init_result)},
      {"registration_s", "registration", Fixed(registration_s, 3) + " s with " + dp::FormatIpv4(options.pbx_ip)},
      {"codec", "codec", codec.empty() ? "none" : codec},
      {"frames_sent", "frames sent", std::to_string(voice.sent)},
      {"frames_received", "frames received", std::to_string(voice.received)},
      {"frames_concealed", "frames concealed", std::to_string(voice.concealed)},
      {"buffer_depth_frames", "buffer depth", depth},
      {"pacing_resyncs", nullptr, std::to_string(voice.resyncs)},
      {"trace", "trace", options.trace},
      {"microphone", "microphone", microphone},
      {"recording", "recording", options.record_path.empty() ? "" : options.record_path + " (" + Fixed(recorded_s, 2) + " s)"},
      {"exit_code", nullptr, std::to_string(exit_code)},
  };
  {
    std::lock_guard lock(g_print_mutex);
    std::printf("summary\n");
    for (const SummaryRow& row : rows) {
      if (row.label != nullptr && !row.value.empty()) std::printf("  %-17s %s\n", row.label, row.value.c_str());
    }
    std::fflush(stdout);
  }
  if (options.summary_path.empty()) return;
  std::FILE* file = std::fopen(options.summary_path.c_str(), "w");
  if (file == nullptr) {
    std::fprintf(stderr, "deskline-phone: cannot write the summary to %s\n", options.summary_path.c_str());
    return;
  }
  for (const SummaryRow& row : rows) {
    std::string value = row.value;
    // The file holds plain values: the number of frames, the path alone.
    if (std::string_view(row.key) == "registration_s") value = Fixed(registration_s, 3);
    if (std::string_view(row.key) == "buffer_depth_frames") value = std::to_string(voice.playout_delay_frames);
    if (std::string_view(row.key) == "recording") value = options.record_path;
    std::fprintf(file, "%s=%s\n", row.key, value.c_str());
  }
  std::fclose(file);
}

class WavSink final : public dp::FrameSink {
 public:
  explicit WavSink(dp::WavWriter& writer) : writer_(writer) {}
  void Write(std::span<const std::int16_t> samples) override { writer_.Write(samples); }

 private:
  dp::WavWriter& writer_;
};

}  // namespace

int main(int argc, char** argv) {
  g_start_ns = pf::RealClock().SteadyNs();
  const std::vector<std::string> args(argv + 1, argv + argc);
  dp::PhoneOptions options;
  std::string error;
  if (!dp::ParsePhoneOptions(args, &options, &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n%s", error.c_str(), dp::PhoneUsage());
    return kExitUsage;
  }
  if (options.help) {
    std::printf("%s\n%s", dp::PhoneUsage(), dp::CommandHelp());
    return kExitOk;
  }
  // The whole script is checked before anything goes to the PBX.
  std::vector<dp::Command> script;
  for (const std::string& piece : dp::SplitScript(options.script)) {
    dp::ParseResult parsed = dp::ParseCommand(piece);
    if (!parsed.command) {
      std::fprintf(stderr, "deskline-phone: script: %s\n", parsed.error.c_str());
      return kExitUsage;
    }
    script.push_back(std::move(*parsed.command));
  }
  const bool scripted = !options.script.empty();

  std::unique_ptr<dp::FrameSource> microphone;
  if (!options.mic_path.empty()) {
    std::vector<std::int16_t> samples;
    if (!dp::ReadSoundAs8kMono(options.mic_path, &samples, &error)) {
      std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
      return kExitFailure;
    }
    microphone = std::make_unique<dp::LoopSource>(std::move(samples));
  } else if (options.tone_hz > 0) {
    microphone = std::make_unique<dp::ToneSource>(options.tone_hz, 8000);
  } else if (options.speech) {
    microphone = std::make_unique<dp::SpeechSource>();
  } else {
    microphone = std::make_unique<dp::LoopSource>(std::vector<std::int16_t>{});
  }
  dp::WavWriter recording;
  if (!options.record_path.empty() && !recording.Open(options.record_path, &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
    return kExitFailure;
  }

  dp::HostLibrary library;
  if (!library.Load(options.library, &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
    return kExitFailure;
  }
  const dp::HostExports& exports = library.exports();
  pf::InstallStopSignals();

  dp::PhoneView view;
  g_view = &view;
  exports.tracer_startup(options.trace.c_str());
  NetworkInitData data;
  dp::FillInitData(options, &data);
  data.event_callback = OnEvent;
  data.led_callback = OnLamp;
  data.display_callback = OnDisplay;
  data.system_callback = OnSystem;
  PtapParameterContainer parameters{};
  Print("registering with the PBX at " + dp::FormatIpv4(options.pbx_ip) + " ...");
  const std::int64_t before_ns = pf::RealClock().SteadyNs();
  const std::int32_t result = exports.initialize(&data, &parameters);
  const double registration_s = static_cast<double>(pf::RealClock().SteadyNs() - before_ns) / 1e9;
  Print(DescribeInitialize(result) + " after " + std::to_string(registration_s).substr(0, 5) + " s");
  if (result != 0) {
    // A failure after start-up leaves the engine running until uninitialize; harmless otherwise.
    exports.uninitialize();
    PrintSummary(options, result, registration_s, view, dp::VoiceCounts{}, recording, kExitNotRegistered);
    return kExitNotRegistered;
  }
  Print("keepalive timeout " + std::to_string(parameters.keepalive_timeout) + " s, result code " +
        std::to_string(parameters.result_code));

  dp::LibraryActions actions(exports);
  WavSink sink(recording);
  dp::VoicePacer pacer(actions, *microphone, options.record_path.empty() ? nullptr : &sink,
                       view.media_active(), pf::RealClock());
  if (!pacer.Start()) Print("warning: no voice thread; the call will be silent");

  // Ctrl-C and a lost PBX both end whatever the main thread is waiting for.
  pf::ManualResetEvent stop("phone stop");
  pf::ManualResetEvent finished("phone finished");
  pf::Thread watcher;
  if (watcher.Create("phone watch", [&](pf::ThreadId) {
        while (!pf::RealClock().WaitFor(finished, std::chrono::milliseconds(50))) {
          if (pf::StopSignalled() || view.connection_lost() || view.restart_demanded()) stop.Set();
        }
      }) != 0) {
    watcher.Resume();
  }
  pf::ConsoleInput input;
  if (!scripted && options.read_stdin && input.Start()) Print("ready: type commands (help lists them)");

  dp::ScriptRunner runner(actions, view, pf::RealClock(), stop);
  int exit_code = kExitOk;
  auto run = [&](const dp::Command& command) {
    if (command.kind == dp::CommandKind::kHelp) {
      std::lock_guard lock(g_print_mutex);
      std::fputs(dp::CommandHelp(), stdout);
      std::fflush(stdout);
      return dp::StepOutcome{};
    }
    if (command.kind == dp::CommandKind::kStatus) {
      const dp::VoiceCounts voice = pacer.counts();
      Print("status codec " + (view.codec().empty() ? std::string("-") : view.codec()) + ", frames sent " +
            std::to_string(voice.sent) + ", received " + std::to_string(voice.received) +
            ", concealed " + std::to_string(voice.concealed));
      for (const std::string& row : view.Screen()) Print("screen " + row);
      return dp::StepOutcome{};
    }
    dp::StepOutcome outcome = runner.Run(command);
    if (!outcome.message.empty()) {
      Print((outcome.kind == dp::StepOutcome::Kind::kFailed ? "failed " : "> ") + outcome.message);
    }
    return outcome;
  };

  if (scripted) {
    for (const dp::Command& command : script) {
      const dp::StepOutcome outcome = run(command);
      if (outcome.kind == dp::StepOutcome::Kind::kFailed) exit_code = kExitCommandFailed;
      if (outcome.kind != dp::StepOutcome::Kind::kOk) break;
    }
  } else {
    while (!stop.IsSet()) {
      const bool ended = input.ended();  // before Take: lines read before the end still run
      std::string line;
      if (!input.Take(&line)) {
        if (ended) break;
        pf::RealClock().WaitFor(stop, std::chrono::milliseconds(50));
        continue;
      }
      dp::ParseResult parsed = dp::ParseCommand(line);
      if (!parsed.command) {
        Print("error " + parsed.error);
        continue;
      }
      if (run(*parsed.command).kind == dp::StepOutcome::Kind::kQuit) break;
    }
  }
  if (view.connection_lost() || view.restart_demanded()) exit_code = kExitConnectionLost;
  if (pf::StopSignalled()) Print("interrupted");

  // Threads first: the voice thread calls into the engine, which uninitialize takes down.
  stop.Set();
  finished.Set();
  input.Stop();
  watcher.Join();
  pacer.Stop();
  exports.uninitialize();
  g_view = nullptr;
  recording.Close();
  PrintSummary(options, result, registration_s, view, pacer.counts(), recording, exit_code);
  return exit_code;
}
