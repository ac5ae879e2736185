// The gain, device lists, and the choice of devices by name through the settings store.
#include <cmath>
#include <cstdlib>

#include "audio_fixture.h"
#include "platform/text.h"

namespace deskline::testing {
namespace {

using DevicesTest = AudioTest;

TEST(AudioGain, FactorsAndClipping) {
  struct Case {
    int level;
    float slope;
    std::int16_t in, out;
  };
  const Case cases[] = {
      {1, 0.6f, 20000, 32767},   // 2.2, capped
      {1, 0.6f, -20000, -32768}, // floored
      {1, 0.6f, 1000, 2200},
      {12, 0.6f, 1000, 8800},
      {13, 0.6f, 1000, 1250},    // out of range: 1.25, not 14 times the slope
      {-2, 0.6f, 1000, 1250},
      {-1, 0.6f, 1000, 1000},    // (-1 + 1) * slope + 1
      {0, 5.0f, 1000, 1000},     // level 0 is unity whatever the slope
      {1, 0.25f, -1001, -1501},  // cut towards zero
      {3, 1e38f, 0, 0},          // a huge slope saturates, silence stays silence
      {3, 1e38f, 1, 32767},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.level << " " << c.slope << " " << c.in);
    std::int16_t samples[3] = {c.in, c.in, 77};
    EXPECT_EQ(CAudio::ApplyGain(samples, 5, c.level, c.slope), 0);  // 5 bytes: 2 samples
    EXPECT_EQ(samples[0], c.out);
    EXPECT_EQ(samples[1], c.out);
    EXPECT_EQ(samples[2], 77);
  }
  std::int16_t sample = 100;
  EXPECT_EQ(CAudio::ApplyGain(nullptr, 2, 1, 0.6f), 1);
  EXPECT_EQ(CAudio::ApplyGain(&sample, 0, 1, 0.6f), 1);
  EXPECT_EQ(CAudio::ApplyGain(&sample, -2, 1, 0.6f), 1);
  EXPECT_EQ(sample, 100);
  EXPECT_FLOAT_EQ(CAudio::GainFactor(13, 0.6f), 1.25f);
}

TEST_F(DevicesTest, VolumesTakeLevelsAndSlopesAsTheyAreAllowed) {
  CAudio& audio = Started();
  std::vector<std::int16_t> frame(160, 1000);
  auto played_gain = [&] {
    std::vector<std::int16_t> copy = frame;
    audio.PlayVoice(reinterpret_cast<std::uint16_t*>(copy.data()), 320);
    Run(25);  // played out: the next frame never waits
    return copy[0];
  };
  struct Step {
    int level;
    float slope;
    std::int16_t expected;
  };
  const Step steps[] = {
      {1, 0.0f, 2200},   // default slope 0.6
      {1, 1.0f, 3000},   // a positive slope is taken
      {-1, -3.0f, 3000}, // a negative level and slope change nothing
      {-1, 0.0f, 2200},  // 0.0 restores the default and keeps the level
      {2, NAN, 2800},    // not a number is ignored
      {0, 0.0f, 1000},
  };
  for (const Step& s : steps) {
    audio.SetSpeakerVolume(s.level, s.slope);
    EXPECT_EQ(played_gain(), s.expected) << s.level << " " << s.slope;
  }
}

TEST_F(DevicesTest, ListsStartWithTheDefaultAndBelongToTheCaller) {
  waves_.SetInputDevices({u"Mic A", u"A microphone with a name longer than thirty-one units"});
  waves_.SetOutputDevices({});
  CAudio& audio = Make();
  char16_t** list = nullptr;
  EXPECT_EQ(audio.GetInDevice(nullptr), -1);
  ASSERT_EQ(audio.GetInDevice(&list), 3);
  EXPECT_EQ(std::u16string(list[0]), u"System Default");
  EXPECT_EQ(std::u16string(list[1]), u"Mic A");
  EXPECT_EQ(std::u16string(list[2]).size(), 31u);
  for (int i = 0; i < 3; ++i) std::free(list[i]);
  std::free(list);
  ASSERT_EQ(audio.GetOutDevice(&list), 1);
  EXPECT_EQ(std::u16string(list[0]), u"System Default");
  std::free(list[0]);
  std::free(list);
}

TEST_F(DevicesTest, NamesInTheSettingsChooseTheDevices) {
  waves_.SetInputDevices({u"Virtual Microphone", u"USB Mic"});
  waves_.SetOutputDevices({u"Virtual Speaker", u"Headset", u"Ringer"});
  struct Case {
    const char16_t* output;
    const char16_t* file;
    const char16_t* input;
    std::uint32_t output_index, file_index, input_index;
    const char16_t* voice_device;
  };
  const Case cases[] = {
      {u"Headset", u"Ringer", u"USB Mic", 2, 3, 2, u"Headset"},
      {u"Gone Away", u"System Default", u"Nothing", 0, 0, 0, u"Virtual Speaker"},
      {u"Virtual Speaker", u"Headset", u"Virtual Microphone", 1, 2, 1, u"Virtual Speaker"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.output));
    SetSetting(kOutputDeviceValue, c.output);
    SetSetting(kPlayFileDeviceValue, c.file);
    SetSetting(kInputDeviceValue, c.input);
    waves_.ClearPlaybacks();
    CAudio& audio = Started();
    std::uint32_t output = 99, file = 99, input = 99;
    audio.GetDeviceID(&output, &file, &input);
    EXPECT_EQ(output, c.output_index);
    EXPECT_EQ(file, c.file_index);
    EXPECT_EQ(input, c.input_index);
    ASSERT_FALSE(waves_.Playbacks().empty());
    EXPECT_EQ(waves_.Playbacks()[0].device, c.voice_device);
    audio.Shutdown();
    audio_.reset();
  }
}

TEST_F(DevicesTest, SetDeviceReopensByTheNameInTheSettings) {
  waves_.SetOutputDevices({u"Virtual Speaker", u"Headset"});
  CAudio& audio = Started();
  ASSERT_EQ(waves_.Playbacks().size(), 1u);
  // The host writes the name first; the index alone is overruled by it.
  SetSetting(kOutputDeviceValue, u"Headset");
  EXPECT_EQ(audio.SetDevice(2, -1, 0xffffffffu), 0);
  auto playbacks = waves_.Playbacks();
  ASSERT_EQ(playbacks.size(), 2u);
  EXPECT_FALSE(playbacks[0].open);
  EXPECT_EQ(playbacks[1].device, u"Headset");
  // The present index and negative ones change nothing.
  EXPECT_EQ(audio.SetDevice(2, -1, -1), 0);
  EXPECT_EQ(waves_.Playbacks().size(), 2u);
  // Index 0: the system default, whatever the settings say.
  EXPECT_EQ(audio.SetDevice(0, -1, -1), 0);
  playbacks = waves_.Playbacks();
  ASSERT_EQ(playbacks.size(), 3u);
  EXPECT_EQ(playbacks[2].device, u"Virtual Speaker");
  std::uint32_t output = 9, file = 9, input = 9;
  audio.GetDeviceID(&output, &file, &input);
  EXPECT_EQ(output, 0u);
  EXPECT_EQ(file, 0u);
  EXPECT_EQ(input, 0u);
}

TEST_F(DevicesTest, NoDevicesAtAll) {
  waves_.SetInputDevices({});
  waves_.SetOutputDevices({});
  CAudio& audio = Make();
  EXPECT_EQ(audio.Start(), 1);
  std::uint32_t output = 9, file = 9, input = 9;
  audio.GetDeviceID(&output, &file, &input);
  EXPECT_EQ(output + file + input, 0u);
  EXPECT_EQ(waves_.OpenStreams(), 0);
}

}  // namespace
}  // namespace deskline::testing
