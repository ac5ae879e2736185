// deskline-phone: a command-line telephone. Loads libdeskline.so as a GUI would, registers
// with the PBX, shows lamps, display and call events as lines, runs typed or scripted
// commands, and plays a sound file or tone as its microphone while recording what it hears;
// or, with --audio, sounds through the library's Audio module as a telephone GUI does.
// Ends on Ctrl-C, the end of its script, "quit" or the end of standard input.
#include <algorithm>
#include <array>
#include <atomic>
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
#include "platform/fs.h"
#include "platform/host_process.h"
#include "platform/thread.h"
#include "tools/phone/commands.h"
#include "tools/phone/dial_rules.h"
#include "tools/phone/host_library.h"
#include "tools/phone/options.h"
#include "tools/phone/phone_view.h"
#include "tools/phone/playback_log.h"
#include "tools/phone/script_runner.h"
#include "tools/phone/sound_card.h"
#include "tools/phone/speech_source.h"
#include "tools/phone/voice_pacer.h"
#include "tools/phone/wav_file.h"

namespace dp = deskline::phone;
namespace pf = deskline::platform;

namespace {

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2, kExitNotRegistered = 3,
                kExitCommandFailed = 4, kExitConnectionLost = 5, kExitNoSound = 6 };

// Callbacks are plain functions: they reach the phone through these, set before initialize
// and valid until uninitialize has returned.
dp::PhoneView* g_view = nullptr;
// With --audio; set before the sound card or the engine can call, kept to the end of main.
dp::Ringer* g_ringer = nullptr;
dp::CaptureBridge* g_capture = nullptr;
std::atomic<const dp::HostExports*> g_exports{nullptr};  // the sound card's, while it records
std::atomic<dp::VoicePacer*> g_pacer{nullptr};
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
  // The voice thread sleeps while no voice path is open, and the microphone's buffers stay
  // with the sound card: an idle phone costs no wake-ups for sound.
  if (code == dp::kEventCodec) {
    if (dp::VoicePacer* pacer = g_pacer.load()) pacer->Wake();
  }
  const dp::HostExports* exports = g_exports.load();
  if (exports != nullptr && (code == dp::kEventCodec || code == dp::kEventMediaClosed)) {
    exports->AudioModuleRecordStart(g_view->media_active().load() ? 1 : 0);
  }
  if (g_ringer != nullptr) {
    if (const auto call = dp::ToneCallForEvent(code, bytes)) g_ringer->Post(*call);
  }
}

// The sound card's capture callback, on its audio thread.
std::int32_t OnCapture(std::uint16_t* samples, std::uint32_t bytes) {
  g_capture->Deliver(samples, bytes);
  return 0;
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

// What the sound card did, for the summary (--audio only).
struct SoundReport {
  std::string card;          // "virtual sound card", "system sound devices"
  std::string microphone;    // the device in use: the one asked for, or the system default
  std::string speaker;
  std::uint64_t speaker_frames = 0;  // handed to AudioModulePlayVoice, silence included
  std::uint64_t silent_frames = 0;
  dp::RingerCounts ringer;
  std::string log_path;      // the virtual card's playback log, when it keeps one
  bool log_read = false;
  dp::PlaybackSummary played;
  bool voice_measured = false;
  dp::SoundMeasure voice;    // the speaker's recording
};

std::string Counted(std::uint64_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string DescribePlayed(const SoundReport& sound) {
  std::string text = std::to_string(sound.played.voice_frames) + " voice frames";
  if (sound.voice_measured && sound.voice.sounding_frames > 0) {
    text += ", sounding " + Fixed(sound.voice.frequency_hz, 0) + " Hz at " + Fixed(sound.voice.level_dbfs, 1) +
            " dBFS";
  }
  return text;
}

bool RingHeard(const SoundReport& sound) {
  return sound.ringer.ring_plays > 0 && sound.played.sound_plays > 0 && sound.played.sound_audible;
}

std::vector<SummaryRow> SoundRows(const SoundReport& sound) {
  std::vector<SummaryRow> rows = {
      {"audio", "sound",
       sound.card + ": microphone \"" + sound.microphone + "\", speaker \"" + sound.speaker + "\""},
      {"sound_in", nullptr, sound.microphone},
      {"sound_out", nullptr, sound.speaker},
      {"speaker_frames", "speaker wrote",
       std::to_string(sound.speaker_frames) + " frames (" + std::to_string(sound.silent_frames) + " silent)"},
      {"speaker_silent_frames", nullptr, std::to_string(sound.silent_frames)},
      {"ring_plays", "ringer",
       Counted(sound.ringer.ring_plays, "ring") + ", " + Counted(sound.ringer.stops, "stop") + ", " +
           Counted(sound.ringer.key_tones, "key tone")},
      {"ring_stops", nullptr, std::to_string(sound.ringer.stops)},
      {"key_tones", nullptr, std::to_string(sound.ringer.key_tones)},
      {"playback_log", nullptr, sound.log_read ? sound.log_path : ""},
  };
  if (!sound.log_read) return rows;
  const dp::PlaybackSummary& p = sound.played;
  rows.push_back({"played_voice_frames", "speaker played", DescribePlayed(sound)});
  rows.push_back({"played_voice_level_dbfs", nullptr,
                  sound.voice_measured ? Fixed(sound.voice.level_dbfs, 1) : std::string("-120.0")});
  rows.push_back({"played_voice_hz", nullptr, sound.voice_measured ? Fixed(sound.voice.frequency_hz, 0) : "0"});
  rows.push_back({"played_sound_streams", nullptr, std::to_string(p.sound_streams)});
  rows.push_back({"played_sound_plays", "tones played",
                  Counted(p.sound_plays, "play") + ", " + Fixed(p.sound_seconds, 1) + " s; ring heard: " +
                      (RingHeard(sound) ? "yes" : "no")});
  rows.push_back({"played_sound_seconds", nullptr, Fixed(p.sound_seconds, 1)});
  rows.push_back({"ring_heard", nullptr, RingHeard(sound) ? "yes" : "no"});
  return rows;
}

// The closing summary: on screen for people, and as key=value lines for scripts and tests.
void PrintSummary(const dp::PhoneOptions& options, std::int32_t init_result, double registration_s,
                  const dp::PhoneView& view, const dp::VoiceCounts& voice,
                  const dp::WavWriter& recording, const SoundReport* sound, int exit_code) {
  const std::string codec = view.codec();
  std::string microphone = "silence";
  if (!options.mic_path.empty()) {
    microphone = options.mic_path;
    if (sound != nullptr) microphone += ", played by the virtual sound card";
  } else if (options.tone_hz > 0) {
    microphone = "tone " + Fixed(options.tone_hz, 0) + " Hz";
  } else if (options.speech) {
    microphone = "synthetic speech";
  } else if (sound != nullptr) {
    microphone = "the sound card's";
  }
  if (sound != nullptr && (options.tone_hz > 0 || options.speech)) microphone += ", played by the virtual sound card";
  const double recorded_s = static_cast<double>(recording.samples_written()) / dp::kVoiceRateHz;
  std::string depth = "-";
  if (voice.playout_delay_frames >= 0 && sound == nullptr) {
    depth = std::to_string(voice.playout_delay_frames) + " frames (" +
            std::to_string(voice.playout_delay_frames * 20) + " ms) when playout began";
  } else if (voice.playout_delay_frames >= 0) {
    // The first pulls fill the speaker's queue at once: frames, not 20 ms each.
    depth = std::to_string(voice.playout_delay_frames) + " frames when playout began, " +
            std::to_string(dp::kSpeakerQueueFrames) + " of them at once into the speaker";
  }
  std::vector<SummaryRow> rows = {
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
  };
  if (sound != nullptr) {
    for (SummaryRow& row : SoundRows(*sound)) rows.push_back(std::move(row));
  }
  rows.push_back({"exit_code", nullptr, std::to_string(exit_code)});
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
    if (std::string_view(row.key) == "audio") value = dp::AudioModeName(options.audio);
    if (std::string_view(row.key) == "speaker_frames") value = std::to_string(sound->speaker_frames);
    if (std::string_view(row.key) == "ring_plays") value = std::to_string(sound->ringer.ring_plays);
    if (std::string_view(row.key) == "played_voice_frames") value = std::to_string(sound->played.voice_frames);
    if (std::string_view(row.key) == "played_sound_plays") value = std::to_string(sound->played.sound_plays);
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

// How much of a tone or the talker the virtual sound card's microphone loops.
constexpr int kRenderedMicrophoneSeconds = 20;

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Before the library is loaded: the backend is chosen from the environment at the sound card's
// first start. The virtual card plays a WAV as its microphone; a tone or the talker is rendered
// into one beside the trace.
bool PrepareSoundCard(const dp::PhoneOptions& options, dp::FrameSource& source,
                      std::vector<std::int16_t> samples, std::string* error) {
  if (options.audio == dp::AudioMode::kSystem) {
    if (pf::GetEnvironment("DESKLINE_AUDIO").value_or("") == "virtual") pf::SetEnvironment("DESKLINE_AUDIO", nullptr);
    return true;
  }
  if (!pf::SetEnvironment("DESKLINE_AUDIO", "virtual")) {
    *error = "cannot set DESKLINE_AUDIO for the library";
    return false;
  }
  if (options.mic_path.empty() && options.tone_hz <= 0 && !options.speech) return true;
  if (samples.empty()) {
    std::array<std::int16_t, dp::kFrameSamples> frame;
    for (int i = 0; i < kRenderedMicrophoneSeconds * 50; ++i) {
      source.Next(frame);
      samples.insert(samples.end(), frame.begin(), frame.end());
    }
  }
  const std::string path = FolderOf(options.trace) + "virtual-microphone.wav";
  dp::WavWriter writer;
  if (!writer.Open(path, error) || !writer.Write(samples)) {
    if (error->empty()) *error = "cannot write " + path;
    return false;
  }
  writer.Close();
  if (!pf::SetEnvironment("DESKLINE_AUDIO_MIC", path.c_str()) ||
      !pf::SetEnvironment("DESKLINE_AUDIO_MIC_LOOP", "1")) {
    *error = "cannot set DESKLINE_AUDIO_MIC for the library";
    return false;
  }
  return true;
}

std::string QuotedList(const std::vector<std::string>& names, const std::string& chosen) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(i) + " \"" + names[i] + "\"";
    if (!chosen.empty() && names[i] == chosen) text += " (chosen)";
  }
  return text.empty() ? "none" : text;
}

// The device lists, and a warning when a name asked for is not among them (the Audio module
// then quietly takes the system default). With `sound`, notes the devices in use.
void PrintDevices(const dp::HostExports& exports, const dp::PhoneOptions& options, SoundReport* sound = nullptr) {
  const auto inputs = dp::ListDevices(exports.AudioModuleGetInDevice);
  const auto outputs = dp::ListDevices(exports.AudioModuleGetOutDevice);
  if (!inputs || !outputs) {
    Print("devices: the sound card is not running");
    return;
  }
  Print("devices in:  " + QuotedList(*inputs, options.in_device));
  Print("devices out: " + QuotedList(*outputs, options.out_device));
  auto missing = [](const std::vector<std::string>& names, const std::string& name) {
    return !name.empty() && std::find(names.begin(), names.end(), name) == names.end();
  };
  if (missing(*inputs, options.in_device)) {
    Print("warning: no input device is named \"" + options.in_device + "\"; the system default is used");
    if (sound != nullptr) sound->microphone = "system default";
  }
  if (missing(*outputs, options.out_device)) {
    Print("warning: no output device is named \"" + options.out_device + "\"; the system default is used");
    if (sound != nullptr) sound->speaker = "system default";
  }
}

// What the virtual sound card played in this run: the log's new lines, and the speaker's
// recording measured.
void ReadPlayback(SoundReport* sound, std::size_t offset) {
  const std::optional<std::string> text = pf::ReadWholeFile(sound->log_path);
  if (!text) return;
  const std::vector<dp::PlaybackStream> streams =
      dp::ParsePlaybackLog(std::string_view(*text).substr(offset <= text->size() ? offset : 0));
  sound->log_read = true;
  sound->played = dp::SummarisePlayback(streams);
  if (sound->played.voice_file.empty() || sound->played.voice_file == "-") return;
  std::vector<std::int16_t> samples;
  std::string error;
  if (dp::ReadSoundAs8kMono(FolderOf(sound->log_path) + sound->played.voice_file, &samples, &error)) {
    sound->voice = dp::MeasureSound(samples);
    sound->voice_measured = true;
  }
}

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
  std::vector<std::int16_t> mic_samples;  // a file's sound, for the virtual sound card
  if (!options.mic_path.empty()) {
    if (!dp::ReadSoundAs8kMono(options.mic_path, &mic_samples, &error)) {
      std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
      return kExitFailure;
    }
    microphone = std::make_unique<dp::LoopSource>(mic_samples);
  } else if (options.tone_hz > 0) {
    microphone = std::make_unique<dp::ToneSource>(options.tone_hz, 8000);
  } else if (options.speech) {
    microphone = std::make_unique<dp::SpeechSource>();
  } else {
    microphone = std::make_unique<dp::LoopSource>(std::vector<std::int16_t>{});
  }
  const bool with_sound = options.audio != dp::AudioMode::kOwn;
  if (with_sound && !PrepareSoundCard(options, *microphone, std::move(mic_samples), &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
    return kExitFailure;
  }
  dp::WavWriter recording;
  if (!options.record_path.empty() && !recording.Open(options.record_path, &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
    return kExitFailure;
  }

  dp::DialRules dial_rules;
  if (!options.dial_rules_path.empty() && !dp::LoadDialRules(options.dial_rules_path, &dial_rules, &error)) {
    std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
    return kExitUsage;
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

  // The number formatter gets the rules of --dial-rules, or an empty table, with which it
  // still drops what cannot be dialled.
  ModuleVariables rules_record = dial_rules.Record();
  if (const std::int32_t set = exports.set_module_variable(&rules_record, 0xffffffffu); set != 0) {
    Print(set == 32 ? "warning: dial rules: default_added is not 0 to 9 digits; it is left out"
                    : "warning: the number formatter refused the dial rules (" + std::to_string(set) + ")");
  }

  // The sound card comes up before registration, as a GUI's does, so that the first ring
  // finds it ready.
  dp::LibraryActions library_actions(exports);
  dp::CaptureBridge capture(library_actions, view.media_active(), pf::RealClock());
  dp::Ringer ringer(library_actions, pf::RealClock());
  SoundReport sound;
  std::size_t log_offset = 0;
  if (with_sound) {
    if (!options.in_device.empty() && !dp::StoreDeviceChoice("Input Device", options.in_device, &error)) {
      std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
      return kExitFailure;
    }
    if (!options.out_device.empty() && !dp::StoreDeviceChoice("Output Device", options.out_device, &error)) {
      std::fprintf(stderr, "deskline-phone: %s\n", error.c_str());
      return kExitFailure;
    }
    sound.card = options.audio == dp::AudioMode::kVirtual ? "virtual sound card" : "system sound devices";
    sound.microphone = options.in_device.empty() ? "system default" : options.in_device;
    sound.speaker = options.out_device.empty() ? "system default" : options.out_device;
    if (const auto folder = pf::GetEnvironment("DESKLINE_AUDIO_RECORD");
        options.audio == dp::AudioMode::kVirtual && folder && !folder->empty()) {
      sound.log_path = *folder + "/playback.log";
      // The log may hold earlier runs: only what this run adds counts.
      log_offset = pf::ReadWholeFile(sound.log_path).value_or("").size();
    }
    const std::int32_t started = exports.AudioModuleStart();
    if (started != 0) {
      std::fprintf(stderr,
                   "deskline-phone: the %s did not start (AudioModuleStart gave %d): no microphone, or "
                   "it cannot be opened; see %s%s\n",
                   sound.card.c_str(), started, options.trace.c_str(),
                   options.audio == dp::AudioMode::kSystem ? " (no sound hardware? --audio virtual needs none)" : "");
      return kExitNoSound;
    }
    Print("sound: " + sound.card + " started");
    PrintDevices(exports, options, &sound);
    g_ringer = &ringer;
    if (!ringer.Start()) Print("warning: no ringer thread; the phone will not ring");
    g_capture = &capture;
    capture.Enable();
    exports.AudioModuleRegisterCallback(OnCapture);
    // Recording runs while a voice path is open (see OnEvent).
    g_exports = &exports;
  }
  // Stops the sound card's deliveries and closes it; after uninitialize, as a GUI does.
  auto stop_sound = [&] {
    if (!with_sound) return;
    ringer.Stop();
    g_exports = nullptr;
    exports.AudioModuleRecordStart(0);
    exports.AudioModuleRegisterCallback(nullptr);
    capture.Disable();
  };
  auto close_sound = [&] {
    if (!with_sound) return;
    exports.AudioModuleShutdown();
    sound.ringer = ringer.counts();
    if (!sound.log_path.empty()) ReadPlayback(&sound, log_offset);
  };

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
    stop_sound();
    exports.uninitialize();
    close_sound();
    PrintSummary(options, result, registration_s, view, dp::VoiceCounts{}, recording,
                 with_sound ? &sound : nullptr, kExitNotRegistered);
    return kExitNotRegistered;
  }
  Print("keepalive timeout " + std::to_string(parameters.keepalive_timeout) + " s, result code " +
        std::to_string(parameters.result_code));

  // Without a sound card the phone is its own: a microphone source, a recording, its own
  // 20 ms clock. With one, the capture callback sends and the speaker is the clock.
  WavSink wav_sink(recording);
  dp::SpeakerSink speaker(library_actions);
  dp::TeeSink speaker_and_recording(options.record_path.empty() ? nullptr : &wav_sink, &speaker);
  dp::FrameSink* sink = options.record_path.empty() ? nullptr : &wav_sink;
  if (with_sound) sink = &speaker_and_recording;
  dp::VoicePacer pacer(library_actions, with_sound ? nullptr : microphone.get(), sink, view.media_active(),
                       pf::RealClock(), with_sound ? dp::VoicePacer::kPeriod * dp::kSpeakerQueueFrames
                                                   : std::chrono::milliseconds(0));
  g_pacer = &pacer;
  if (!pacer.Start()) Print("warning: no voice thread; the call will be silent");
  dp::SoundingActions sounding_actions(library_actions, ringer);
  dp::PhoneActions& actions = with_sound ? static_cast<dp::PhoneActions&>(sounding_actions) : library_actions;

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
      dp::VoiceCounts voice = pacer.counts();
      if (with_sound) voice.sent = capture.frames_sent();
      std::string line = "status codec " + (view.codec().empty() ? std::string("-") : view.codec()) +
                         ", frames sent " + std::to_string(voice.sent) + ", received " +
                         std::to_string(voice.received) + ", concealed " + std::to_string(voice.concealed);
      if (with_sound) line += ", to the speaker " + std::to_string(speaker.frames_written());
      Print(line);
      for (const std::string& row : view.Screen()) Print("screen " + row);
      return dp::StepOutcome{};
    }
    if (command.kind == dp::CommandKind::kDevices) {
      if (!with_sound) {
        Print("devices: no sound card in use; start the phone with --audio virtual or --audio system");
      } else {
        PrintDevices(exports, options);
      }
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

  // Threads first: the voice thread and the sound card's callback call into the engine, which
  // uninitialize takes down.
  stop.Set();
  finished.Set();
  input.Stop();
  watcher.Join();
  pacer.Stop();
  g_pacer = nullptr;
  stop_sound();
  exports.uninitialize();
  g_view = nullptr;
  close_sound();
  recording.Close();
  dp::VoiceCounts voice = pacer.counts();
  if (with_sound) {
    voice.sent = capture.frames_sent();
    sound.speaker_frames = speaker.frames_written();
    sound.silent_frames = speaker.silent_frames();
  }
  PrintSummary(options, result, registration_s, view, voice, recording, with_sound ? &sound : nullptr,
               exit_code);
  return exit_code;
}
