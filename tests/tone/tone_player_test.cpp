#include "tone/tone_player.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "fake_audio.h"
#include "support/tracer.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::FakeAudio;
using Calls = std::vector<std::string>;

class TonePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetCustomMasks();
    FakeAudio::Reset();
    ASSERT_EQ(player_.Start(), 0);
    const ToneAudioInterface table = FakeAudio::Table();
    ASSERT_EQ(player_.SetAudioInterface(&table), 0);
  }
  void TearDown() override {
    player_.Shutdown();
    ResetCustomMasks();
  }

  Calls Play(std::int32_t tone, std::int32_t volume, std::int32_t melody) {
    EXPECT_EQ(player_.PlayTone(tone, volume, melody), 0);
    return FakeAudio::Take();
  }
  Calls Restart() {
    player_.Shutdown();
    EXPECT_EQ(player_.Start(), 0);
    const ToneAudioInterface table = FakeAudio::Table();
    EXPECT_EQ(player_.SetAudioInterface(&table), 0);
    return FakeAudio::Take();
  }

  CTonePlayer player_;
};

Calls Ring(int level, const std::string& file, int repeat = -1) {
  return {"set_ring_volume(" + std::to_string(level) + ", -1)",
          "play_file(" + file + ", " + std::to_string(repeat) + ")"};
}
Calls Tone(const std::string& file, int repeat) {
  return {"play_tone(" + file + ", " + std::to_string(repeat) + ")"};
}
const Calls kStopFile = {"stop_play_file()"};
const Calls kNothing = {};

TEST_F(TonePlayerTest, EveryToneIdFromAFreshStart) {
  // Played with no volume and no melody; then a named volume tells whether the row takes one.
  struct Case {
    std::int32_t id;
    Calls calls;
    bool volume_adjustable;
  };
  const Case cases[] = {
      {1, Ring(0, "media/Tone_1.wav"), true},   {2, Ring(0, "media/Tone_2.wav"), true},
      {3, Ring(0, "media/Tone_3.wav"), true},   {4, Ring(0, "media/Tone_4.wav"), true},
      {5, Tone("media/Tone_5.wav", -1), false}, {6, Tone("media/Tone_6.wav", -1), false},
      {7, Tone("media/Tone_7.wav", 0), false},  {8, Tone("media/Tone_8.wav", 0), false},
      {9, Ring(0, "media/Tone_9.wav"), true},   {10, Ring(0, "media/Tone_A.wav"), true},
      {11, Ring(0, "media/Tone_B.wav"), true},  {12, Tone("media/Tone_C.wav", 0), false},
      {13, Tone("media/Tone_D.wav", 0), false}, {14, Tone("media/Tone_E.wav", 0), false},
      {15, Tone("media/Tone_F.wav", 0), false}, {16, Tone("media/Tone_F.wav", 0), false},
      {17, Ring(0, "media/Tone_1.wav"), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("tone " + std::to_string(c.id));
    Restart();
    EXPECT_EQ(Play(c.id, -1, -1), c.calls);
    Calls again = Play(c.id, 2, -1);
    if (c.volume_adjustable) {
      EXPECT_EQ(again.size(), 2u);
      EXPECT_EQ(again.at(0), "set_ring_volume(1, -1)");
    } else {
      EXPECT_EQ(again, kNothing);
    }
  }
}

TEST_F(TonePlayerTest, VolumeStepsAndTheAdjustmentRuleOverATimeline) {
  struct Step {
    std::int32_t tone, volume, melody;
    Calls calls;
  };
  const Step steps[] = {
      {1, 2, 3, Ring(1, "media/Tone_1.wav")},
      {-1, 4, -1, Ring(5, "media/Tone_1.wav")},  // a new step on the ringing tone
      {-1, 1, -1, Ring(0, "media/Tone_1.wav")},
      {-1, 3, -1, Ring(3, "media/Tone_1.wav")},
      {-1, 0, -1, Ring(0, "media/Tone_1.wav")},
      {-1, 7, -1, Ring(0, "media/Tone_1.wav")},
      {-1, 2, -1, Ring(1, "media/Tone_1.wav")},
      // Tone 5 takes the volume since tone 1 did; afterwards no named volume is taken.
      {5, 4, -1, Tone("media/Tone_5.wav", -1)},
      {1, 2, -1, kNothing},
      {-1, -1, -1, Tone("media/Tone_5.wav", -1)},  // the ignored call stored no tone id
      {1, -1, -1, Ring(5, "media/Tone_1.wav")},    // nor a volume: 4 from the tone 5 call
      {1, 2, -1, Ring(1, "media/Tone_1.wav")},
      // The stop leaves the adjustment flag of tone 1 in place, and stores what it is given.
      {0, 3, -1, kStopFile},
      {1, -1, -1, Ring(3, "media/Tone_1.wav")},
      {7, -1, -1, Tone("media/Tone_7.wav", 0)},
      {0, -1, -1, kStopFile},
      {1, 2, -1, kNothing},  // still the flag of tone 7
  };
  int index = 0;
  for (const Step& s : steps) {
    EXPECT_EQ(Play(s.tone, s.volume, s.melody), s.calls)
        << "step " << index << ": " << s.tone << ", " << s.volume << ", " << s.melody;
    ++index;
  }
}

TEST_F(TonePlayerTest, IdsOutsideTheTableStopFilePlayback) {
  for (std::int32_t id : {0, 18, -2, 100, INT_MAX, INT_MIN}) {
    EXPECT_EQ(Play(id, -1, -1), kStopFile) << id;
    EXPECT_EQ(Play(-1, -1, -1), kStopFile) << "the stored id " << id << " stops again";
  }
  // Right after start there is no tone to repeat.
  Restart();
  EXPECT_EQ(Play(-1, -1, -1), kStopFile);
}

TEST_F(TonePlayerTest, MelodyCodesSelectSlotsAndStay) {
  struct Step {
    std::int32_t tone, melody;
    const char* file;
  };
  const Step steps[] = {
      {1, 6, "media/Tone_9.wav"},   // slot 6's default entries
      {-1, -1, "media/Tone_9.wav"},  // the melody is remembered
      {2, -1, "media/Tone_A.wav"},  {3, -1, "media/Tone_B.wav"},
      {17, -1, "media/Tone_1.wav"},  // no entry for 17 and no user's file in slot 6
      {4, -1, "media/Tone_4.wav"},   // mask 0: slot 6 is never asked
      {1, 5, "media/Tone_1.wav"},   {1, 99, "media/Tone_1.wav"},  // unknown code, slot -2
      {1, 0, "media/Tone_1.wav"},   {1, 6, "media/Tone_9.wav"},
  };
  for (const Step& s : steps) {
    EXPECT_EQ(Play(s.tone, -1, s.melody), Ring(0, s.file)) << s.tone << ", " << s.melody;
  }
}

TEST_F(TonePlayerTest, KeyTonesByModesAndSilentFlag) {
  const std::string rec = "play_tone(media/Tone_Rec.wav, 0)";
  const std::string key = "play_tone(media/Tone_Key.wav, 0)";
  const std::string zero = "play_tone(media/DTMF/Tone_DTMF0.wav, 0)";
  struct Case {
    std::uint32_t keypad, program;
    std::uint8_t silent;
    std::string key0, key23, key30;  // "" for no sound
  };
  const Case cases[] = {
      {0, 1, 0, zero, key, ""},  {0, 1, 1, zero, key, ""},  // sound regardless of the flag
      {0, 0, 0, zero, "", rec},  {0, 0, 1, "", "", ""},
      {1, 1, 0, "", "", ""},     {1, 1, 1, "", "", ""},
      {1, 0, 0, "", "", rec},    {1, 0, 1, "", "", ""},
      {5, 1, 0, "", "", rec},    {5, 1, 1, "", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("keypad " + std::to_string(c.keypad) + " program " + std::to_string(c.program) +
                 " silent " + std::to_string(c.silent));
    player_.SetKeyPadMode(c.keypad);
    player_.SetProgramMode(c.program);
    const std::pair<std::uint32_t, std::string> keys[] = {{0, c.key0}, {23, c.key23}, {30, c.key30}};
    for (const auto& [number, expected] : keys) {
      EXPECT_EQ(player_.PlayDTMF(number, c.silent), expected.empty() ? 1 : 0) << "key " << number;
      EXPECT_EQ(FakeAudio::Take(), expected.empty() ? kNothing : Calls{expected}) << "key " << number;
    }
  }
}

TEST_F(TonePlayerTest, KeyTonesDefaultModesAndKeysOutsideTheTable) {
  EXPECT_EQ(player_.GetKeyPadMode(), 0);
  EXPECT_EQ(player_.GetProgramMode(), 0);
  EXPECT_EQ(player_.PlayDTMF(11, 0), 0);
  EXPECT_EQ(FakeAudio::Take(), Calls{"play_tone(media/DTMF/Tone_DTMF#.wav, 0)"});
  EXPECT_EQ(player_.PlayDTMF(11, 1), 1);
  for (std::uint32_t number : {31u, 32u, 1000u, UINT32_MAX}) {
    EXPECT_EQ(player_.PlayDTMF(number, 0), 1) << number;
  }
  EXPECT_EQ(FakeAudio::Take(), kNothing);
}

TEST_F(TonePlayerTest, ModesAreStoredWholeAndOutliveARestart) {
  EXPECT_EQ(player_.SetKeyPadMode(0xFFFFFFFFu), 0);
  EXPECT_EQ(player_.SetProgramMode(0x12345678u), 0);
  Restart();
  EXPECT_EQ(player_.GetKeyPadMode(), -1);
  EXPECT_EQ(player_.GetProgramMode(), 0x12345678);
}

TEST_F(TonePlayerTest, TraceLines) {
  testing::TraceCapture capture;
  Play(1, 2, 3);
  Play(5, -1, 0);
  Play(0, -1, -1);  // a stop traces nothing
  EXPECT_TRUE(capture.Has("iToneID : 1  iMelody : 3   mIsVolAdjustment : 1  iVolume : 2"))
      << capture.Text();
  EXPECT_TRUE(capture.Has("iToneID : 5  iMelody : 0   mIsVolAdjustment : 1  iVolume : 2"))
      << capture.Text();
  EXPECT_EQ(capture.Text().find("iToneID : 0"), std::string::npos) << capture.Text();

  {
    CTonePlayer other;
    other.Start();
    other.Shutdown();
    other.Shutdown();  // nothing left to shut down
  }
  for (const char* line : {"[TONE] Module created", "[TONE] Module starting",
                           "[TONE] Module shutdown", "[TONE] Module destroyed"}) {
    EXPECT_EQ(capture.Count(line), 1) << line;
  }
}

TEST_F(TonePlayerTest, AudioTableLifecycle) {
  EXPECT_EQ(player_.SetAudioInterface(nullptr), 1);
  EXPECT_EQ(Play(1, 2, -1), Ring(1, "media/Tone_1.wav")) << "a refused table keeps the old one";

  // Start empties the table: until one is given, plays change state and sound nothing.
  player_.Shutdown();
  ASSERT_EQ(player_.Start(), 0);
  EXPECT_EQ(Play(5, 2, -1), kNothing);
  EXPECT_EQ(player_.PlayDTMF(1, 0), 0);
  EXPECT_EQ(player_.PlayServiceTone(160), 0);
  EXPECT_EQ(player_.PlayServiceTone(255), 0);
  EXPECT_EQ(FakeAudio::Take(), kNothing);

  // A table with empty slots: only the given operations are called.
  ToneAudioInterface partial = FakeAudio::Table();
  partial.set_ring_volume = nullptr;
  partial.play_tone = nullptr;
  ASSERT_EQ(player_.SetAudioInterface(&partial), 0);
  EXPECT_EQ(Play(-1, -1, -1), kNothing) << "tone 5 goes to the missing play_tone";
  EXPECT_EQ(Play(1, -1, -1), Calls{"play_file(media/Tone_1.wav, -1)"});

  // After Shutdown nothing reaches the Audio module.
  player_.Shutdown();
  EXPECT_EQ(Play(1, -1, -1), kNothing);
  EXPECT_EQ(Play(0, -1, -1), kNothing);
  EXPECT_EQ(player_.PlayDTMF(1, 0), 0);
  EXPECT_EQ(FakeAudio::Take(), kNothing);
}

TEST_F(TonePlayerTest, StartForgetsTheLastToneVolumeAndFlag) {
  Play(1, 4, 6);
  Play(5, -1, -1);  // takes no volume from now on
  Restart();
  EXPECT_EQ(Play(-1, -1, -1), kStopFile);
  EXPECT_EQ(Play(1, -1, -1), Ring(0, "media/Tone_1.wav")) << "volume and melody are forgotten";
  Play(5, -1, -1);
  Restart();
  EXPECT_EQ(Play(1, 3, -1), Ring(3, "media/Tone_1.wav")) << "the flag is back to 1";
}

TEST_F(TonePlayerTest, HostThreadsCallingAtOnceStayConsistent) {
  // The host is meant to serialise its calls; if it does not, no call may corrupt the lists
  // or interleave another's pair of ring calls.
  std::thread saver([this] {
    for (int i = 0; i < 2000; ++i) {
      player_.SaveCustomTone(3, u"media/user.wav");
      player_.RemoveCustomTone(3);
    }
  });
  std::thread keys([this] {
    for (int i = 0; i < 2000; ++i) player_.PlayDTMF(static_cast<std::uint32_t>(i % 31), 0);
  });
  for (int i = 0; i < 2000; ++i) player_.PlayTone(1 + i % 3, 1 + i % 4, 3);
  saver.join();
  keys.join();
  const Calls calls = FakeAudio::Take();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].rfind("set_ring_volume", 0) == 0) {
      ASSERT_LT(i + 1, calls.size());
      EXPECT_EQ(calls[i + 1].rfind("play_file(", 0), 0u) << i;
    }
  }
}

}  // namespace
}  // namespace deskline
