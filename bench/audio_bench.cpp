// The Audio module's voice paths: PlayVoice per frame and the capture path per frame (data
// message -> microphone gain -> host callback), both over a device that hands buffers back at
// once, with heap allocations per frame; and the virtual backend's wake-ups per second while a
// call runs (voice out and microphone in, paced in real time).
#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "audio/audio.h"
#include "bench/alloc_counter.h"
#include "platform/clock.h"
#include "platform/fs.h"
#include "platform/wave/wave_virtual.h"

namespace {

using deskline::CAudio;
namespace platform = deskline::platform;

// A device with no pace: a written header is done at once; input is driven by the benchmark,
// which sends data messages to the listener it kept.
class InstantOut final : public platform::WaveOutStream {
 public:
  explicit InstantOut(platform::WaveListener* listener) : listener_(listener) {}
  int Prepare(platform::WaveHeader* h) override {
    h->flags.fetch_or(platform::kWaveHeaderPrepared);
    return platform::kWaveOk;
  }
  int Unprepare(platform::WaveHeader*) override { return platform::kWaveOk; }
  int Write(platform::WaveHeader* h) override {
    h->flags.fetch_or(platform::kWaveHeaderDone);
    listener_->OnWaveMessage(platform::WaveMessage::kDone, h);
    return platform::kWaveOk;
  }
  int Reset() override { return platform::kWaveOk; }
  int Close() override {
    listener_->OnWaveMessage(platform::WaveMessage::kClose, nullptr);
    return platform::kWaveOk;
  }

 private:
  platform::WaveListener* listener_;
};

class QuietIn final : public platform::WaveInStream {
 public:
  explicit QuietIn(platform::WaveListener* listener) : listener_(listener) {}
  int Prepare(platform::WaveHeader*) override { return platform::kWaveOk; }
  int Unprepare(platform::WaveHeader*) override { return platform::kWaveOk; }
  int AddBuffer(platform::WaveHeader*) override { return platform::kWaveOk; }
  int Start() override { return platform::kWaveOk; }
  int Stop() override { return platform::kWaveOk; }
  int Reset() override { return platform::kWaveOk; }
  int Close() override {
    listener_->OnWaveMessage(platform::WaveMessage::kClose, nullptr);
    return platform::kWaveOk;
  }

 private:
  platform::WaveListener* listener_;
};

class InstantWaves final : public platform::WaveSystem {
 public:
  std::vector<std::u16string> InputDevices() override { return {u"Mic"}; }
  std::vector<std::u16string> OutputDevices() override { return {u"Speaker"}; }
  int OpenOut(int, const platform::WaveFormat&, platform::WaveListener* listener,
              std::unique_ptr<platform::WaveOutStream>* stream) override {
    *stream = std::make_unique<InstantOut>(listener);
    listener->OnWaveMessage(platform::WaveMessage::kOpen, nullptr);
    return platform::kWaveOk;
  }
  int OpenIn(int, const platform::WaveFormat&, platform::WaveListener* listener,
             std::unique_ptr<platform::WaveInStream>* stream) override {
    input_listener = listener;
    *stream = std::make_unique<QuietIn>(listener);
    listener->OnWaveMessage(platform::WaveMessage::kOpen, nullptr);
    return platform::kWaveOk;
  }
  platform::WaveListener* input_listener = nullptr;
};

// The settings store writes its defaults at start: keep them out of the user's file.
void PrivateSettings() {
  static const bool set = [] {
    const auto path = std::filesystem::temp_directory_path() / "deskline-audio-bench.ini";
    return platform::SetEnvironment("DESKLINE_SETTINGS", path.string().c_str());
  }();
  (void)set;
}

std::array<std::int16_t, 160> Speech() {
  std::array<std::int16_t, 160> frame{};
  for (std::size_t i = 0; i < frame.size(); ++i) {
    frame[i] = static_cast<std::int16_t>((static_cast<int>(i) * 397) % 6000 - 3000);
  }
  return frame;
}

void BM_PlayVoicePerFrame(benchmark::State& state) {
  PrivateSettings();
  InstantWaves waves;
  CAudio audio(waves, platform::RealClock());
  if (audio.Start() != 0) state.SkipWithError("start failed");
  audio.SetSpeakerVolume(static_cast<int>(state.range(0)), 0.0f);
  const auto speech = Speech();
  auto frame = speech;
  for (int i = 0; i < 100; ++i) audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
  const std::uint64_t before = deskline::bench::Allocations();
  std::uint64_t frames = 0;
  for (auto _ : state) {
    frame = speech;
    audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
    ++frames;
  }
  state.counters["allocs_per_frame"] =
      static_cast<double>(deskline::bench::Allocations() - before) / static_cast<double>(frames);
  audio.Shutdown();
}
BENCHMARK(BM_PlayVoicePerFrame)->Arg(0)->Arg(3)->ArgName("speaker_level");

std::atomic<std::uint64_t> g_delivered{0};
std::int32_t Consume(std::uint16_t* samples, std::uint32_t bytes) {
  g_delivered.fetch_add(bytes ? samples[0] & 1u : 0u, std::memory_order_relaxed);
  return 0;
}

void BM_CapturePerFrame(benchmark::State& state) {
  PrivateSettings();
  InstantWaves waves;
  CAudio audio(waves, platform::RealClock());
  if (audio.Start() != 0 || waves.input_listener == nullptr) state.SkipWithError("start failed");
  audio.RegisterCallback(&Consume);
  audio.SetMicVolume(static_cast<int>(state.range(0)), 0.0f);
  audio.RecordStart(true);  // the thread waits for buffers that this device never fills
  const auto speech = Speech();
  auto frame = speech;
  platform::WaveHeader header;
  header.data = reinterpret_cast<char*>(frame.data());
  header.buffer_length = 320;
  const std::uint64_t before = deskline::bench::Allocations();
  std::uint64_t frames = 0;
  for (auto _ : state) {
    frame = speech;
    header.bytes_recorded = 320;
    header.flags.store(platform::kWaveHeaderDone);
    waves.input_listener->OnWaveMessage(platform::WaveMessage::kData, &header);
    ++frames;
  }
  state.counters["allocs_per_frame"] =
      static_cast<double>(deskline::bench::Allocations() - before) / static_cast<double>(frames);
  audio.Shutdown();
}
BENCHMARK(BM_CapturePerFrame)->Arg(0)->Arg(3)->ArgName("mic_level");

// A call on the virtual backend in real time: the host plays a frame whenever PlayVoice lets it
// (the device paces it) while recording runs. Wake-ups of the backend's stream threads, per
// second and per open stream; one per 20 ms buffer is the floor.
void BM_VirtualCallWakeUps(benchmark::State& state) {
  PrivateSettings();
  platform::VirtualWaveSystem waves(platform::RealClock());
  waves.SetMicrophone(std::vector<std::int16_t>(8000, 100), true);
  CAudio audio(waves, platform::RealClock());
  if (audio.Start() != 0) state.SkipWithError("start failed");
  audio.RegisterCallback(&Consume);
  audio.RecordStart(true);
  const auto seconds = static_cast<double>(state.range(0));
  double wakeups_per_second = 0;
  for (auto _ : state) {
    std::atomic<bool> stop{false};
    std::thread host([&] {
      auto frame = Speech();
      while (!stop.load()) audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // past the ring's filling
    const std::uint64_t before = waves.WakeUps();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const std::uint64_t wakeups = waves.WakeUps() - before;
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    stop = true;
    host.join();
    wakeups_per_second = static_cast<double>(wakeups) / elapsed;
  }
  state.counters["wakeups_per_s"] = wakeups_per_second;
  state.counters["per_stream_per_20ms"] = wakeups_per_second / 2.0 / 50.0;
  audio.Shutdown();
}
BENCHMARK(BM_VirtualCallWakeUps)->Arg(3)->ArgName("seconds")->Iterations(1)->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
