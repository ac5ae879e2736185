// The AudioModule exports over the process's virtual backend, in real time: results with and
// without the module, bad arguments, the object's life against concurrent exports, and the
// tone player reaching a device through them.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "audio/audio.h"
#include "audio/built_in_sounds.h"
#include "deskline/deskline.h"
#include "platform/fs.h"
#include "platform/wave/wav_file.h"
#include "platform/wave/wave_virtual.h"
#include "testing/eventually.h"
#include "testing/temp_dir.h"
#include "testing/trace_capture.h"
#include "tone/tone_player.h"

namespace deskline::testing {
namespace {

// The backend is chosen at its first use; none happens before main.
const bool kVirtualAudio = platform::SetEnvironment("DESKLINE_AUDIO", "virtual");

class AudioExportsTest : public ::testing::Test {
 protected:
  AudioExportsTest() {
    platform::SetEnvironment("DESKLINE_SETTINGS", dir_.File("settings.ini").c_str());
  }
  ~AudioExportsTest() override {
    AudioModuleShutdown();
    platform::SetEnvironment("DESKLINE_SETTINGS", nullptr);
  }
  platform::VirtualWaveSystem& Waves() { return *platform::DefaultVirtualWaveSystem(); }

  TempDir dir_;
  TraceCapture trace_;
};

TEST_F(AudioExportsTest, WithoutTheModule) {
  ASSERT_TRUE(kVirtualAudio);
  std::uint16_t frame[160] = {};
  char16_t** list = nullptr;
  std::uint32_t ids[3] = {7, 7, 7};
  EXPECT_EQ(AudioModuleShutdown(), 0);
  EXPECT_EQ(AudioModulePlayVoice(frame, 320), 0);
  EXPECT_EQ(AudioModuleRecordStart(1), 0);
  EXPECT_EQ(AudioModuleRegisterCallback(nullptr), 0);
  EXPECT_EQ(AudioModuleGetInDevice(&list), -1);
  EXPECT_EQ(AudioModuleGetOutDevice(&list), -1);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(AudioModuleSetDevice(0, 0, 0), 0);
  EXPECT_EQ(AudioModulePlayFile(u"media/Tone_1.wav", 0), 0);
  EXPECT_EQ(AudioModuleStopPlayFile(), 0);
  EXPECT_EQ(AudioModulePlayTone(u"media/Tone_1.wav", 0), 0);
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);
  EXPECT_EQ(AudioModuleGetEngineStatus(), -1);
  AudioModuleSetMicVolume(3, 1.0f);
  AudioModuleGetDeviceID(&ids[0], &ids[1], &ids[2]);
  EXPECT_EQ(ids[0] + ids[1] + ids[2], 21u);
  AudioModuleSetWindowHandle(42);
}

TEST_F(AudioExportsTest, ResultsAndBadArguments) {
  ASSERT_EQ(AudioModuleStart(), 0);
  EXPECT_EQ(AudioModuleStart(), 0);  // standing: nothing happens
  EXPECT_EQ(Waves().OpenStreams(), 2);
  EXPECT_EQ(AudioModuleGetEngineStatus(), 1);

  char16_t** list = nullptr;
  EXPECT_EQ(AudioModuleGetInDevice(nullptr), -1);
  EXPECT_EQ(AudioModuleGetOutDevice(nullptr), -1);
  const int count = AudioModuleGetOutDevice(&list);
  ASSERT_GE(count, 2);
  EXPECT_EQ(std::u16string(list[0]), u"System Default");
  for (int i = 0; i < count; ++i) std::free(list[i]);
  std::free(list);

  std::vector<std::uint16_t> block(2000, 100);
  const std::u16string too_long(2000, u'x');
  // Every one of these gives the table's result, and the module goes on.
  EXPECT_EQ(AudioModulePlayVoice(nullptr, 320), 0);
  EXPECT_EQ(AudioModulePlayVoice(block.data(), -1), 0);
  EXPECT_EQ(AudioModulePlayVoice(block.data(), 4000), 0);
  EXPECT_EQ(AudioModulePlayFile(nullptr, 0), 0);
  EXPECT_EQ(AudioModulePlayFile(too_long.c_str(), -1), 0);
  EXPECT_EQ(AudioModulePlayTone(u"no/such/file.wav", 3), 0);
  EXPECT_EQ(AudioModuleRegisterCallback(nullptr), 0);
  EXPECT_EQ(AudioModuleSetDevice(-7, -7, 0xfffffff0u), 0);
  AudioModuleGetDeviceID(nullptr, nullptr, nullptr);
  AudioModuleSetSpeakerVolume(-100, NAN);
  AudioModuleSetRingVolume(1000, -INFINITY);
  AudioModuleSetMicVolume(2, INFINITY);
  AudioModuleSetWindowHandle(UINTPTR_MAX);
  EXPECT_TRUE(trace_.Has("[AUDIO :: ERROR] Play failed - path longer than 519 characters"));
  EXPECT_EQ(AudioModuleGetEngineStatus(), 1);

  EXPECT_EQ(AudioModuleShutdown(), 0);
  EXPECT_EQ(Waves().OpenStreams(), 0);
  EXPECT_EQ(AudioModuleShutdown(), 0);
  EXPECT_EQ(AudioModuleGetEngineStatus(), -1);
  EXPECT_TRUE(trace_.Has("[AUDIO] Module destroyed"));
}

TEST_F(AudioExportsTest, AFailedStartLeavesNoModule) {
  Waves().FailInputOpens(1);
  EXPECT_EQ(AudioModuleStart(), -1);
  EXPECT_TRUE(trace_.Has("[CRITICAL ERROR] Startup failed: Audio"));
  EXPECT_EQ(AudioModuleGetEngineStatus(), -1);
  EXPECT_EQ(Waves().OpenStreams(), 0);
}

// The capture callback plays what it hears, and tries to shut the module down from inside.
std::atomic<int> g_captured{0};
std::int32_t Echo(std::uint16_t* samples, std::uint32_t bytes) {
  ++g_captured;
  AudioModulePlayVoice(samples, static_cast<std::int32_t>(bytes));
  AudioModuleShutdown();  // refused here: it would wait for this very thread
  AudioModulePlayTone(u"media/Tone_Key.wav", 0);
  return 0;
}

TEST_F(AudioExportsTest, ExportsRaceShutdownWithoutTouchingAFreedModule) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      std::vector<std::uint16_t> frame(160, 10);
      while (!stop) {
        switch (t) {
          case 0: AudioModulePlayVoice(frame.data(), 320); break;
          case 1: AudioModuleGetEngineStatus(); AudioModuleSetSpeakerVolume(2, 0.0f); break;
          default: AudioModulePlayTone(u"media/Tone_Key.wav", 0); AudioModuleStopPlayTone(); break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  for (int cycle = 0; cycle < 4; ++cycle) {
    g_captured = 0;
    ASSERT_EQ(AudioModuleStart(), 0);
    AudioModuleRegisterCallback(&Echo);
    AudioModuleRecordStart(1);
    EXPECT_TRUE(Eventually([] { return g_captured.load() >= 2; }));
    EXPECT_EQ(AudioModuleShutdown(), 0);
  }
  stop = true;
  for (auto& host : hosts) host.join();
  EXPECT_TRUE(trace_.Has("[AUDIO :: ERROR] Shutdown refused inside the capture callback"));
  EXPECT_TRUE(trace_.Has("[AUDIO :: ERROR] PlayTone refused inside the capture callback"));
  EXPECT_EQ(Waves().OpenStreams(), 0);
}

// The library's start-up fills the tone player's table with these exports.
TEST_F(AudioExportsTest, TheTonePlayerReachesTheSpeaker) {
  ASSERT_EQ(AudioModuleStart(), 0);
  CTonePlayer player;
  ASSERT_EQ(player.Start(), 0);
  const ToneAudioInterface table{AudioModulePlayFile, AudioModuleStopPlayFile,
                                 AudioModuleSetRingVolume, AudioModulePlayTone,
                                 AudioModuleStopPlayTone};
  ASSERT_EQ(player.SetAudioInterface(&table), 0);
  Waves().ClearPlaybacks();

  // Tone 1 at volume step 2 (ring level 1, gain 2.2 with the default slope), repeating.
  platform::WavSound ring;
  ASSERT_TRUE(platform::ReadWavMemory(audio::FindBuiltInSound(u"media/Tone_1.wav"), &ring));
  EXPECT_EQ(player.PlayTone(1, 2, 3), 0);
  EXPECT_EQ(AudioModuleGetEngineStatus(), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  // Tone 0 stops it: the reset records what has sounded so far.
  EXPECT_EQ(player.PlayTone(0, -1, -1), 0);
  EXPECT_TRUE(Eventually([] { return AudioModuleGetEngineStatus() == 1; }));
  std::vector<platform::VirtualPlayback> playbacks = Waves().Playbacks();
  ASSERT_EQ(playbacks.size(), 1u);
  ASSERT_GE(playbacks[0].data.size(), 64u);
  EXPECT_EQ(playbacks[0].format, ring.format);
  std::vector<std::uint8_t> expected(ring.data.begin(), ring.data.begin() + 64);
  CAudio::ApplyGain(reinterpret_cast<std::int16_t*>(expected.data()), 64, 1, 0.6f);
  EXPECT_EQ(std::vector<std::uint8_t>(playbacks[0].data.begin(), playbacks[0].data.begin() + 64),
            expected);

  // A key tone goes to the tone output, once.
  EXPECT_EQ(player.PlayDTMF(11, 0), 0);
  EXPECT_TRUE(Eventually([&] {
    playbacks = Waves().Playbacks();
    return playbacks.size() == 2;
  }));
  platform::WavSound key;
  ASSERT_TRUE(
      platform::ReadWavMemory(audio::FindBuiltInSound(u"media/DTMF/Tone_DTMF#.wav"), &key));
  EXPECT_EQ(playbacks[1].format, key.format);
  EXPECT_EQ(playbacks[1].writes, 1u);
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);
  EXPECT_TRUE(Eventually([] { return AudioModuleGetEngineStatus() == 1; }));
  player.Shutdown();
}

}  // namespace
}  // namespace deskline::testing
