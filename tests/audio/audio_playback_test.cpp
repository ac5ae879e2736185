// File and tone playback: loop counts, reloads and gain, the engine status, formats, the
// sounds compiled in, and bad files.
#include <fstream>

#include "audio/built_in_sounds.h"
#include "audio_fixture.h"

namespace deskline::testing {
namespace {

using PlaybackTest = AudioTest;

constexpr char16_t kSpeaker[] = u"Virtual Speaker";

// The file device's playbacks after the voice output (opened first by Start).
std::vector<platform::VirtualPlayback> Players(const std::vector<platform::VirtualPlayback>& all) {
  return {all.begin() + (all.empty() ? 0 : 1), all.end()};
}

TEST_F(PlaybackTest, LoopCountsSoundOnceTwiceMoreOrUntilStopped) {
  // 50 ms of sound.
  const std::u16string path = Wide(Wav("beep.wav", std::vector<std::int16_t>(400, 300)));
  struct Case {
    int loop_count, plays;
  };
  for (const Case c : {Case{0, 1}, Case{2, 3}}) {
    SCOPED_TRACE(c.loop_count);
    waves_.ClearPlaybacks();
    CAudio& audio = Started();
    EXPECT_EQ(audio.PlayFile(path.c_str(), c.loop_count), 0);
    EXPECT_EQ(audio.GetEngineStatus(), 0);
    EXPECT_TRUE(RunUntil([&] { return audio.GetEngineStatus() == 1; }));
    Run(300);
    const auto players = Players(On(kSpeaker));
    ASSERT_EQ(players.size(), 1u);
    EXPECT_EQ(players[0].writes, static_cast<std::uint32_t>(c.plays));
    EXPECT_EQ(players[0].bytes_played, static_cast<std::uint64_t>(c.plays) * 800);
    audio.Shutdown();
    audio_.reset();
  }
  // A negative count repeats until stopped.
  waves_.ClearPlaybacks();
  CAudio& audio = Started();
  EXPECT_EQ(audio.PlayTone(path.c_str(), -1), 0);
  EXPECT_TRUE(RunUntil([&] { return Players(On(kSpeaker))[0].writes >= 3; }));
  // Started again while it sounds (the tone player does so for a new volume step): the old
  // sound's done message never ends the new one.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(audio.PlayTone(path.c_str(), -1), 0);
    Run(10);
  }
  const std::uint32_t restarted = Players(On(kSpeaker))[0].writes;
  EXPECT_TRUE(RunUntil([&] { return Players(On(kSpeaker))[0].writes >= restarted + 4; }));
  EXPECT_EQ(Players(On(kSpeaker)).size(), 1u);
  EXPECT_EQ(audio.GetEngineStatus(), 0);
  EXPECT_EQ(audio.StopPlayTone(), 0);
  EXPECT_TRUE(RunUntil([&] { return audio.GetEngineStatus() == 1; }));
  const std::uint32_t writes = Players(On(kSpeaker))[0].writes;
  Run(300);
  EXPECT_EQ(Players(On(kSpeaker))[0].writes, writes);
}

TEST_F(PlaybackTest, TheSameFileReloadsNothingAndAChangedLevelReloads) {
  const std::u16string path = Wide(Wav("ring.wav", std::vector<std::int16_t>(160, 100)));
  CAudio& audio = Started();
  audio.SetRingVolume(1, 0.0f);  // 2.2
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(audio.PlayFile(path.c_str(), 0), 0);
    Run(60);
  }
  auto players = Players(On(kSpeaker));
  ASSERT_EQ(players.size(), 1u) << "the device stays open for the same file";
  ASSERT_EQ(players[0].data.size(), 640u);
  EXPECT_EQ(Samples(players[0].data, 0, 1)[0], 220);
  EXPECT_EQ(Samples(players[0].data, 320, 1)[0], 220) << "the gain is not applied twice";

  audio.SetRingVolume(2, 0.0f);  // 3 * 0.6 + 1 = 2.8
  EXPECT_EQ(audio.PlayFile(path.c_str(), 0), 0);
  Run(60);
  players = Players(On(kSpeaker));
  ASSERT_EQ(players.size(), 2u) << "a new level reopens the device";
  EXPECT_EQ(Samples(players[1].data, 0, 1)[0], 280);
  // The tone path takes the speaker's level, not the ring's.
  audio.SetSpeakerVolume(1, 0.5f);  // 2 * 0.5 + 1 = 2.0
  EXPECT_EQ(audio.PlayTone(path.c_str(), 0), 0);
  Run(60);
  players = Players(On(kSpeaker));
  ASSERT_EQ(players.size(), 3u);
  EXPECT_EQ(Samples(players[2].data, 0, 1)[0], 200);
}

TEST_F(PlaybackTest, FileAndToneKeepTheEngineBusyUntilBothEnd) {
  const std::u16string short_one = Wide(Wav("short.wav", std::vector<std::int16_t>(400, 1)));
  const std::u16string long_one = Wide(Wav("long.wav", std::vector<std::int16_t>(1600, 1)));
  CAudio& audio = Started();
  ASSERT_EQ(audio.PlayFile(short_one.c_str(), 0), 0);  // 50 ms
  ASSERT_EQ(audio.PlayTone(long_one.c_str(), 0), 0);   // 200 ms
  EXPECT_EQ(audio.GetEngineStatus(), 0);
  Run(100);
  EXPECT_EQ(audio.GetEngineStatus(), 0) << "the tone still sounds";
  EXPECT_TRUE(RunUntil([&] { return audio.GetEngineStatus() == 1; }, 300));
  EXPECT_EQ(Players(On(kSpeaker)).size(), 2u) << "two outputs side by side";
}

TEST_F(PlaybackTest, AWavOpensItsDeviceAtItsOwnRate) {
  const std::u16string path = Wide(Wav("wide.wav", std::vector<std::int16_t>(320, 5), 16000));
  CAudio& audio = Started();
  ASSERT_EQ(audio.PlayFile(path.c_str(), 0), 0);
  const auto players = Players(On(kSpeaker));
  ASSERT_EQ(players.size(), 1u);
  EXPECT_EQ(players[0].format.samples_per_sec, 16000u);
  EXPECT_EQ(players[0].format.avg_bytes_per_sec, 32000u);
}

TEST_F(PlaybackTest, ANameOnlyInTheSoundSetPlaysFromMemory) {
  const char16_t name[] = u"media/Tone_1.wav";
  const auto bytes = audio::FindBuiltInSound(name);
  ASSERT_FALSE(bytes.empty());
  platform::WavSound sound;
  ASSERT_TRUE(platform::ReadWavMemory(bytes, &sound));
  CAudio& audio = Started();
  ASSERT_EQ(audio.PlayFile(name, 0), 0);
  auto players = Players(On(kSpeaker));
  ASSERT_EQ(players.size(), 1u);
  EXPECT_EQ(players[0].format, sound.format);
  EXPECT_TRUE(RunUntil([&] { return audio.GetEngineStatus() == 1; }, 20000));
  players = Players(On(kSpeaker));
  EXPECT_EQ(players[0].bytes_played, sound.data.size());
}

TEST_F(PlaybackTest, BadFilesFailWithoutSoundAndLeaveTheEngineIdle) {
  // A header that claims 4 GB of data, a truncated file, a format no device opens, garbage.
  const std::string huge = dir_.File("huge.wav");
  {
    std::ofstream out(huge, std::ios::binary);
    const unsigned char header[] = {'R', 'I', 'F', 'F', 0xff, 0xff, 0xff, 0xff, 'W', 'A', 'V',
                                    'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x40,
                                    0x1f, 0, 0, 0x80, 0x3e, 0, 0, 2, 0, 16, 0, 'd', 'a', 't',
                                    'a', 0xf0, 0xff, 0xff, 0xff, 1, 2, 3, 4};
    out.write(reinterpret_cast<const char*>(header), sizeof(header));
  }
  const std::string garbage = dir_.File("garbage.wav");
  std::ofstream(garbage) << "not a wave file at all";
  platform::WaveFormat three;
  three.channels = 3;
  three.block_align = 6;
  three.avg_bytes_per_sec = 48000;
  const std::string surround = dir_.File("three.wav");
  ASSERT_TRUE(platform::WriteWavFile(surround, three, std::vector<std::uint8_t>(600, 0)));
  const std::u16string too_long(2000, u'a');

  struct Case {
    std::u16string path;
    const char* trace;
  };
  const Case cases[] = {
      {Wide(huge), nullptr},
      {Wide(garbage), nullptr},
      {Wide(dir_.File("missing.wav")), nullptr},
      {u"", nullptr},
      {Wide(surround), "[AUDIO :: CRITICAL ERROR] Device Open Fail - play_file_open_device"},
      {too_long, "[AUDIO :: ERROR] Play failed - path longer than 519 characters"},
  };
  CAudio& audio = Started();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path.begin(), c.path.begin() + std::min<std::size_t>(c.path.size(), 80)));
    EXPECT_EQ(audio.PlayFile(c.path.c_str(), -1), 1);
    EXPECT_EQ(audio.PlayTone(c.path.c_str(), 0), 1);
    EXPECT_EQ(audio.GetEngineStatus(), 1);
    if (c.trace != nullptr) {
      EXPECT_TRUE(trace_.Has(c.trace));
    }
  }
  EXPECT_EQ(audio.PlayFile(nullptr, 0), 1);
  Run(100);
  EXPECT_TRUE(Players(On(kSpeaker)).empty() ||
              Players(On(kSpeaker))[0].bytes_played == 0);
  // A good file plays after all that.
  const std::u16string good = Wide(Wav("good.wav", std::vector<std::int16_t>(160, 7)));
  EXPECT_EQ(audio.PlayFile(good.c_str(), 0), 0);
}

TEST_F(PlaybackTest, AVanishingSpeakerMovesTheLoopToTheDefault) {
  waves_.SetOutputDevices({u"Virtual Speaker", u"Headset"});
  SetSetting(kPlayFileDeviceValue, u"Headset");
  const std::u16string path = Wide(Wav("loop.wav", std::vector<std::int16_t>(400, 9)));
  CAudio& audio = Started();
  ASSERT_EQ(audio.PlayFile(path.c_str(), -1), 0);
  ASSERT_EQ(On(u"Headset").size(), 1u);
  ASSERT_TRUE(RunUntil([&] { return On(u"Headset")[0].writes >= 2; }));
  waves_.SetOutputPresent(u"Headset", false);
  EXPECT_TRUE(RunUntil([&] { return Players(On(kSpeaker)).size() == 1 &&
                                    Players(On(kSpeaker))[0].writes >= 2; }));
  EXPECT_EQ(audio.GetEngineStatus(), 0);
  audio.StopPlayFile();
  EXPECT_TRUE(RunUntil([&] { return audio.GetEngineStatus() == 1; }));
}

}  // namespace
}  // namespace deskline::testing
