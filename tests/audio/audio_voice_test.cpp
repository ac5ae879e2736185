// Start, shutdown and the two voice paths: PlayVoice paced by the device, and the recording
// thread feeding the capture callback.
#include <atomic>
#include <mutex>
#include <thread>

#include "audio_fixture.h"

namespace deskline::testing {
namespace {

using VoiceTest = AudioTest;

// What the capture callback saw, for the test to read.
std::mutex g_capture_lock;
std::vector<std::uint32_t> g_lengths;
std::vector<std::int16_t> g_first_samples;

std::int32_t Capture(std::uint16_t* samples, std::uint32_t bytes) {
  std::lock_guard guard(g_capture_lock);
  g_lengths.push_back(bytes);
  if (bytes >= 2) g_first_samples.push_back(static_cast<std::int16_t>(samples[0]));
  return 0;
}
void ClearCapture() {
  std::lock_guard guard(g_capture_lock);
  g_lengths.clear();
  g_first_samples.clear();
}
std::vector<std::uint32_t> Lengths() {
  std::lock_guard guard(g_capture_lock);
  return g_lengths;
}
std::size_t Frames(std::uint32_t bytes) {
  std::size_t n = 0;
  for (std::uint32_t length : Lengths()) n += length == bytes;
  return n;
}

TEST_F(VoiceTest, StartOpensVoiceAndMicrophoneAndShutdownClosesAll) {
  CAudio& audio = Started();
  EXPECT_EQ(waves_.OpenStreams(), 2);
  EXPECT_EQ(audio.GetEngineStatus(), 1);
  const auto voice = On(u"Virtual Speaker");
  ASSERT_EQ(voice.size(), 1u);
  EXPECT_EQ(voice[0].format, platform::kVoiceFormat);
  EXPECT_TRUE(trace_.Has("[AUDIO] Module created"));
  EXPECT_TRUE(Eventually([&] {
    return trace_.Text().find("[AUDIO :: Thread] Thread started - ID [") != std::string::npos;
  }));
  // Missing names are written with the default.
  EXPECT_EQ(Setting(kInputDeviceValue), u"System Default");
  EXPECT_EQ(Setting(kOutputDeviceValue), u"System Default");
  EXPECT_EQ(Setting(kPlayFileDeviceValue), u"System Default");

  EXPECT_EQ(audio.Shutdown(), 0);
  EXPECT_EQ(waves_.OpenStreams(), 0);
  // Recording was never enabled: the thread leaves from its idle wait.
  EXPECT_TRUE(trace_.Text().find("[AUDIO :: Thread] Thread terminated - Recording ID ") !=
              std::string::npos);
  EXPECT_EQ(audio.Shutdown(), 0);  // twice is harmless
  audio_.reset();
  EXPECT_TRUE(trace_.Has("[AUDIO] Module destroyed"));
}

TEST_F(VoiceTest, StartFailures) {
  struct Case {
    const char* name;
    bool fail_input, fail_output;
    int result, streams;
    const char* trace;
  };
  const Case cases[] = {
      {"no microphone: 1 and no thread", true, false, 1, 1,
       "[AUDIO :: CRITICAL ERROR] Startup failed - Wave_in_open_device"},
      {"no speaker alone: still 0", false, true, 0, 1,
       "[AUDIO :: CRITICAL ERROR] Startup failed - Wave_out_open_device"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.fail_input) waves_.FailInputOpens(1);
    if (c.fail_output) waves_.FailOutputOpens(1);
    CAudio& audio = Make();
    EXPECT_EQ(audio.Start(), c.result);
    EXPECT_EQ(waves_.OpenStreams(), c.streams);
    EXPECT_TRUE(trace_.Has(c.trace));
    if (c.fail_input) {
      EXPECT_EQ(trace_.Text().find("Thread started"), std::string::npos);
    }
    audio.Shutdown();
    audio_.reset();
  }
  // With the voice output missing, a write tries it again and loses the frame.
  waves_.SetOutputDevices({});
  CAudio& audio = Started();
  std::vector<std::int16_t> frame(160, 100);
  EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320), 1);
  EXPECT_TRUE(trace_.Has(
      "[AUDIO :: CRITICAL ERROR] No Device Available in system - Wave_out_open_device"));
}

TEST_F(VoiceTest, TheSixthFrameWaitsForTheOldestBuffer) {
  CAudio& audio = Started();
  std::vector<std::int16_t> frame(160, 1000);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320), 0);
  }
  std::atomic<bool> returned{false};
  std::thread sixth([&] {
    audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(returned.load()) << "returned before a buffer was free";
  clock_.AdvanceMs(20);  // the first frame has played
  EXPECT_TRUE(Eventually([&] { return returned.load(); }));
  sixth.join();
  Run(200);
  const auto voice = On(u"Virtual Speaker");
  ASSERT_EQ(voice.size(), 1u);
  EXPECT_EQ(voice[0].writes, 6u);
  EXPECT_EQ(voice[0].bytes_played, 6u * 320);
}

TEST_F(VoiceTest, ShutdownReleasesAWaitingPlayer) {
  CAudio& audio = Started();
  std::vector<std::int16_t> frame(160, 1000);
  for (int i = 0; i < 5; ++i) audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
  std::atomic<bool> returned{false};
  std::thread sixth([&] {
    audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(audio.Shutdown(), 0);
  sixth.join();
  EXPECT_TRUE(returned.load());
  EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320), 1);
}

TEST_F(VoiceTest, AnOversizedFramePlays3200BytesWithGain) {
  CAudio& audio = Started();
  audio.SetSpeakerVolume(1, 0.0f);  // 2.2
  std::vector<std::int16_t> block(2000, 1000);
  EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(block.data()), 4000), 0);
  EXPECT_TRUE(trace_.Has(
      "[AUDIO :: Warning] Data length exceeded buffer limits - Expected [3200], Requested [4000]"));
  EXPECT_EQ(block[1599], 2200);  // the gain works in the caller's block, on what is played
  EXPECT_EQ(block[1600], 1000);
  Run(250);
  const auto voice = On(u"Virtual Speaker");
  ASSERT_EQ(voice.size(), 1u);
  EXPECT_EQ(voice[0].bytes_played, 3200u);
  EXPECT_EQ(Samples(voice[0].data, 0, 1)[0], 2200);
  // Bad blocks are refused without a write.
  EXPECT_EQ(audio.PlayVoice(nullptr, 320), 1);
  EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(block.data()), 0), 1);
  EXPECT_EQ(audio.PlayVoice(reinterpret_cast<std::uint16_t*>(block.data()), -320), 1);
  EXPECT_EQ(On(u"Virtual Speaker")[0].writes, 1u);
}

TEST_F(VoiceTest, RecordingFeedsTheCallbackWithMicrophoneGain) {
  ClearCapture();
  waves_.SetMicrophone(std::vector<std::int16_t>(8000, 1000), true);
  CAudio& audio = Started();
  EXPECT_EQ(audio.RegisterCallback(&Capture), 0);
  audio.SetMicVolume(1, 0.0f);  // (1 + 1) * 0.25 + 1 = 1.5
  Run(100);
  EXPECT_EQ(Frames(320), 0u) << "recording is off until the host starts it";
  audio.RecordStart(true);
  EXPECT_TRUE(RunUntil([] { return Frames(320) >= 10; }));
  {
    std::lock_guard guard(g_capture_lock);
    for (std::int16_t s : g_first_samples) EXPECT_EQ(s, 1500);
  }
  // Off again: the frames stop; a null callback silences them without error.
  audio.RecordStart(false);
  Run(100);
  const std::size_t frames = Frames(320);
  Run(200);
  EXPECT_LE(Frames(320), frames + 5);
  EXPECT_EQ(audio.RegisterCallback(nullptr), 1);
  audio.RecordStart(true);
  Run(200);
  EXPECT_LE(Frames(320), frames + 5);
}

TEST_F(VoiceTest, ResetBuffersReachTheCallbackEmpty) {
  ClearCapture();
  waves_.SetInputDevices({u"Virtual Microphone", u"USB Mic"});
  CAudio& audio = Started();
  audio.RegisterCallback(&Capture);
  audio.RecordStart(true);
  ASSERT_TRUE(RunUntil([] { return Frames(320) >= 3; }));
  // Choosing another input resets the old one: its lent buffers come back with 0 bytes.
  SetSetting(kInputDeviceValue, u"USB Mic");
  EXPECT_EQ(audio.SetDevice(-1, -1, 2), 0);
  EXPECT_TRUE(Eventually([] { return Frames(0) >= 1; }));
  std::uint32_t output = 9, file = 9, input = 9;
  audio.GetDeviceID(&output, &file, &input);
  EXPECT_EQ(input, 2u);
  EXPECT_EQ(output, 0u);
  const std::size_t before = Frames(320);
  EXPECT_TRUE(RunUntil([&] { return Frames(320) >= before + 5; }));
}

TEST_F(VoiceTest, AVanishingMicrophoneFallsBackToTheDefault) {
  ClearCapture();
  waves_.SetInputDevices({u"Virtual Microphone", u"USB Mic"});
  SetSetting(kInputDeviceValue, u"USB Mic");
  CAudio& audio = Started();
  std::uint32_t input = 0;
  audio.GetDeviceID(nullptr, nullptr, &input);
  EXPECT_EQ(input, 2u);
  audio.RegisterCallback(&Capture);
  audio.RecordStart(true);
  ASSERT_TRUE(RunUntil([] { return Frames(320) >= 3; }));
  waves_.SetInputPresent(u"USB Mic", false);
  EXPECT_TRUE(RunUntil([&] {
    audio.GetDeviceID(nullptr, nullptr, &input);
    return input == 0;
  }));
  const std::size_t before = Frames(320);
  EXPECT_TRUE(RunUntil([&] { return Frames(320) >= before + 5; })) << "recording goes on";

  // With no microphone left the thread ends, saying why.
  waves_.SetInputPresent(u"Virtual Microphone", false);
  EXPECT_TRUE(RunUntil([&] {
    return trace_.Has(
        "[AUDIO :: CRITICAL ERROR] No Device Available in system - Wave_in_open_device");
  }));
  EXPECT_TRUE(Eventually([&] { return trace_.Has("[AUDIO :: Thread] Thread terminated - Recording"); }));
}

TEST_F(VoiceTest, StartAndShutdownCyclesWithTraffic) {
  waves_.SetMicrophone(std::vector<std::int16_t>(800, 500), true);
  std::vector<std::int16_t> frame(160, 100);
  for (int cycle = 0; cycle < 5; ++cycle) {
    CAudio& audio = Started();
    audio.RegisterCallback(&Capture);
    audio.RecordStart(cycle % 2 == 0);
    std::atomic<bool> stop{false};
    std::thread player([&] {
      while (!stop) audio.PlayVoice(reinterpret_cast<std::uint16_t*>(frame.data()), 320);
    });
    Run(60);
    stop = true;
    Run(40);
    player.join();
    EXPECT_EQ(audio.Shutdown(), 0);
    EXPECT_EQ(waves_.OpenStreams(), 0);
    audio_.reset();
  }
}

}  // namespace
}  // namespace deskline::testing
