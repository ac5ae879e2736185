// The Audio module on the virtual sound card, in simulated time: the test moves the clock and
// the streams' threads follow.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "audio/audio.h"
#include "platform/fs.h"
#include "platform/wave/wav_file.h"
#include "platform/wave/wave_virtual.h"
#include "support/settings_store.h"
#include "testing/eventually.h"
#include "testing/fake_clock.h"
#include "testing/temp_dir.h"
#include "testing/trace_capture.h"

namespace deskline::testing {

inline std::vector<std::uint8_t> Pcm(const std::vector<std::int16_t>& samples) {
  std::vector<std::uint8_t> bytes(samples.size() * 2);
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
}

inline std::vector<std::int16_t> Samples(const std::vector<std::uint8_t>& bytes,
                                         std::size_t offset = 0, std::size_t count = SIZE_MAX) {
  std::vector<std::int16_t> out;
  for (std::size_t i = offset; i + 1 < bytes.size() && out.size() < count; i += 2) {
    out.push_back(static_cast<std::int16_t>(bytes[i] | (bytes[i + 1] << 8)));
  }
  return out;
}

class AudioTest : public ::testing::Test {
 protected:
  AudioTest() : clock_(FakeClock::Mode::kManual), waves_(clock_) {
    platform::SetEnvironment("DESKLINE_SETTINGS", dir_.File("settings.ini").c_str());
  }
  ~AudioTest() override {
    if (audio_) {
      audio_->Shutdown();
      audio_.reset();
    }
    platform::SetEnvironment("DESKLINE_SETTINGS", nullptr);
  }

  CAudio& Make() {
    audio_ = std::make_unique<CAudio>(waves_, clock_);
    return *audio_;
  }
  CAudio& Started() {
    Make();
    EXPECT_EQ(audio_->Start(), 0);
    return *audio_;
  }

  // Moves simulated time in 5 ms steps, giving the threads a moment of real time at each.
  void Run(int ms) {
    for (int t = 0; t < ms; t += 5) {
      clock_.AdvanceMs(5);
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }
  // Runs simulated time until `condition` holds, for at most `max_ms` of it.
  template <typename Condition>
  bool RunUntil(Condition condition, int max_ms = 5000) {
    for (int t = 0; t < max_ms; t += 5) {
      if (condition()) return true;
      Run(5);
    }
    return Eventually(condition, std::chrono::milliseconds(200));
  }

  std::vector<platform::VirtualPlayback> On(const std::u16string& device) const {
    std::vector<platform::VirtualPlayback> found;
    for (auto& playback : waves_.Playbacks()) {
      if (playback.device == device) found.push_back(playback);
    }
    return found;
  }

  // A mono 16-bit WAV in the test's folder.
  std::string Wav(const std::string& name, const std::vector<std::int16_t>& samples,
                  std::uint32_t rate = 8000) {
    platform::WaveFormat format;
    format.samples_per_sec = rate;
    format.avg_bytes_per_sec = rate * 2;
    const std::string path = dir_.File(name);
    EXPECT_TRUE(platform::WriteWavFile(path, format, Pcm(samples)));
    return path;
  }
  static std::u16string Wide(const std::string& text) { return {text.begin(), text.end()}; }

  void SetSetting(const char16_t* value, const char16_t* name) {
    ASSERT_TRUE(WriteSettingW(kSettingsKeyW, value, name));
  }
  std::u16string Setting(const char16_t* value) {
    char16_t buffer[128] = {};
    if (!ReadSettingW(kSettingsKeyW, value, buffer, sizeof(buffer))) return u"<missing>";
    return buffer;
  }

  TempDir dir_;
  TraceCapture trace_;
  FakeClock clock_;
  platform::VirtualWaveSystem waves_;
  std::unique_ptr<CAudio> audio_;
};

}  // namespace deskline::testing
