#include "tone/tone_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "testing/trace_capture.h"

namespace deskline {
namespace {

// The Audio module's five operations, recorded as one line of calls:
// "vol(1,-1) file(media/Tone_1.wav,-1) stopfile tone(media/Tone_5.wav,0) stoptone".
std::mutex g_lock;
std::string g_calls;

std::int32_t Record(const std::string& call) {
  std::lock_guard lock(g_lock);
  g_calls += (g_calls.empty() ? "" : " ") + call;
  return 0;
}
std::string Take() {
  std::lock_guard lock(g_lock);
  return std::exchange(g_calls, {});
}
// ASCII as it is, any other unit as \uXXXX, so that none is lost.
std::string Text(const char16_t* path) {
  std::string text;
  for (char escaped[8]; *path != u'\0'; ++path) {
    std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(*path));
    text += *path < 0x80 ? std::string(1, static_cast<char>(*path)) : escaped;
  }
  return text;
}
std::string Call(const char* name, const std::string& first, int second) {
  return std::string(name) + "(" + first + "," + std::to_string(second) + ")";
}
constexpr ToneAudioInterface kAudio = {
    [](const char16_t* path, std::int32_t loop) { return Record(Call("file", Text(path), loop)); },
    [] { return Record("stopfile"); },
    [](std::int32_t level, float gain) {
      Record(Call("vol", std::to_string(level), static_cast<int>(gain)));
    },
    [](const char16_t* path, std::int32_t loop) { return Record(Call("tone", Text(path), loop)); },
    [] { return Record("stoptone"); }};

std::string Ring(int level, const std::string& file) {
  return "vol(" + std::to_string(level) + ",-1) file(media/" + file + ",-1)";
}

class TonePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetCustomMasks();
    Restart();
  }
  void TearDown() override { ResetCustomMasks(); }
  void Restart() {
    player_->Shutdown();
    ASSERT_EQ(player_->Start(), 0);
    ASSERT_EQ(player_->SetAudioInterface(&kAudio), 0);
    Take();
  }
  std::string Play(std::int32_t tone, std::int32_t volume, std::int32_t melody) {
    EXPECT_EQ(player_->PlayTone(tone, volume, melody), 0);
    return Take();
  }
  // The file a ring tone plays with a melody code.
  std::string RingFile(std::int32_t tone, std::int32_t melody) {
    const std::string calls = Play(tone, -1, melody);
    const auto at = calls.find("file(");
    return at == std::string::npos ? calls : calls.substr(at + 5, calls.rfind(',') - at - 5);
  }
  // What GetCustomTone leaves in a block that holds "unchanged".
  std::string Stored(std::int32_t slot) {
    std::array<char16_t, kTonePathChars> block;
    block.fill(u'#');
    std::u16string(u"unchanged").copy(block.data(), 10);
    block[9] = u'\0';
    char16_t* buffer = block.data();
    EXPECT_EQ(player_->GetCustomTone(slot, &buffer), 0);
    return Text(block.data());
  }
  std::uint32_t Mask(std::int32_t tone) { return FindToneRow(tone)->customMask.load(); }
  std::string Service(std::int32_t code) {
    EXPECT_EQ(player_->PlayServiceTone(code), 0);
    return Take();
  }

  std::unique_ptr<CTonePlayer> player_ = std::make_unique<CTonePlayer>();
};

TEST_F(TonePlayerTest, EveryToneIdFromAFreshStart) {
  // Played without volume or melody; then a named volume shows whether the row takes one.
  const std::pair<int, const char*> rows[] = {
      {1, "R Tone_1.wav"},    {2, "R Tone_2.wav"},    {3, "R Tone_3.wav"},
      {4, "R Tone_4.wav"},    {5, "T Tone_5.wav,-1"}, {6, "T Tone_6.wav,-1"},
      {7, "T Tone_7.wav,0"},  {8, "T Tone_8.wav,0"},  {9, "R Tone_9.wav"},
      {10, "R Tone_A.wav"},   {11, "R Tone_B.wav"},   {12, "T Tone_C.wav,0"},
      {13, "T Tone_D.wav,0"}, {14, "T Tone_E.wav,0"}, {15, "T Tone_F.wav,0"},
      {16, "T Tone_F.wav,0"}, {17, "R Tone_1.wav"}};
  for (const auto& [id, row] : rows) {
    SCOPED_TRACE(id);
    Restart();
    const std::string rest = std::string(row).substr(2);
    const bool ring = row[0] == 'R';
    EXPECT_EQ(Play(id, -1, -1), ring ? Ring(0, rest) : "tone(media/" + rest + ")");
    EXPECT_EQ(Play(id, 2, -1), ring ? Ring(1, rest) : "");
  }
}

TEST_F(TonePlayerTest, VolumeMelodyAndTheAdjustmentRuleOverATimeline) {
  const std::tuple<int, int, int, std::string> steps[] = {
      {1, 2, 3, Ring(1, "Tone_1.wav")},
      {-1, 4, -1, Ring(5, "Tone_1.wav")},  // a new step on the ringing tone
      {-1, 1, -1, Ring(0, "Tone_1.wav")},
      {-1, 3, -1, Ring(3, "Tone_1.wav")},
      {-1, 0, -1, Ring(0, "Tone_1.wav")},
      {-1, 7, -1, Ring(0, "Tone_1.wav")},
      // Tone 5 takes the volume since tone 1 did; afterwards a named volume drops the call.
      {5, 4, -1, "tone(media/Tone_5.wav,-1)"},
      {1, 2, -1, ""},
      {-1, -1, -1, "tone(media/Tone_5.wav,-1)"},  // the dropped call stored no tone id
      {1, -1, -1, Ring(5, "Tone_1.wav")},         // nor a volume: 4 from the tone 5 call
      // A stop keeps the flag of the tone before it, and stores what it is given.
      {0, 3, -1, "stopfile"},
      {1, -1, -1, Ring(3, "Tone_1.wav")},
      {7, -1, -1, "tone(media/Tone_7.wav,0)"},
      {0, -1, -1, "stopfile"},
      {1, 2, -1, ""},  // still the flag of tone 7
      {-1, -1, -1, "stopfile"},
      // Melody slot 6 holds the default ring melodies of tones 1 to 3; the code is kept.
      {1, -1, 6, Ring(3, "Tone_9.wav")},
      {-1, -1, -1, Ring(3, "Tone_9.wav")},
      {2, -1, -1, Ring(3, "Tone_A.wav")},
      {3, -1, -1, Ring(3, "Tone_B.wav")},
      {17, -1, -1, Ring(3, "Tone_1.wav")},  // no entry for 17, no user's file
      {4, -1, -1, Ring(3, "Tone_4.wav")},   // mask 0: slot 6 is not asked
      {1, -1, 99, Ring(3, "Tone_1.wav")},   // unknown code
  };
  for (const auto& [tone, volume, melody, calls] : steps) {
    EXPECT_EQ(Play(tone, volume, melody), calls) << tone << ", " << volume << ", " << melody;
  }
  for (int id : {0, 18, -2, INT_MAX, INT_MIN}) EXPECT_EQ(Play(id, -1, -1), "stopfile") << id;
}

TEST_F(TonePlayerTest, StartForgetsTheLastToneVolumeMelodyAndFlag) {
  Play(1, 4, 6);
  Play(5, -1, -1);  // takes no volume
  Restart();
  EXPECT_EQ(Play(-1, -1, -1), "stopfile");
  EXPECT_EQ(Play(1, 3, -1), Ring(3, "Tone_1.wav"));  // the flag is 1, melody 6 forgotten
  Restart();
  EXPECT_EQ(Play(1, -1, -1), Ring(0, "Tone_1.wav"));
}

TEST_F(TonePlayerTest, KeyTonesByModesAndSilentFlag) {
  EXPECT_EQ(player_->PlayDTMF(11, 0), 0);  // default modes 0
  EXPECT_EQ(Take(), "tone(media/DTMF/Tone_DTMF#.wav,0)");
  const std::string zero = "tone(media/DTMF/Tone_DTMF0.wav,0)", key = "tone(media/Tone_Key.wav,0)",
                    rec = "tone(media/Tone_Rec.wav,0)";
  // Keypad mode, program mode, silent flag: what keys 0, 23 and 30 play ("": no sound).
  const std::tuple<std::uint32_t, std::uint32_t, std::uint8_t, std::array<std::string, 3>> rows[] =
      {{0, 1, 0, {zero, key, ""}}, {0, 1, 1, {zero, key, ""}}, {0, 0, 0, {zero, "", rec}},
       {0, 0, 1, {"", "", ""}},    {1, 1, 0, {"", "", ""}},    {1, 1, 1, {"", "", ""}},
       {1, 0, 0, {"", "", rec}},   {1, 0, 1, {"", "", ""}},    {5, 1, 0, {"", "", rec}},
       {5, 1, 1, {"", "", ""}}};
  for (const auto& [keypad, program, silent, sounds] : rows) {
    SCOPED_TRACE(::testing::Message() << keypad << " " << program << " " << int{silent});
    player_->SetKeyPadMode(keypad);
    player_->SetProgramMode(program);
    const std::uint32_t keys[] = {0, 23, 30};
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(player_->PlayDTMF(keys[k], silent), sounds[k].empty() ? 1 : 0) << keys[k];
      EXPECT_EQ(Take(), sounds[k]) << keys[k];
    }
  }
  for (std::uint32_t number : {31u, 32u, 1000u, UINT32_MAX}) {
    EXPECT_EQ(player_->PlayDTMF(number, 0), 1) << number;
  }
  EXPECT_EQ(Take(), "");
  EXPECT_EQ(player_->SetKeyPadMode(0xFFFFFFFFu), 0);  // stored whole, kept by a new start
  EXPECT_EQ(player_->SetProgramMode(0x12345678u), 0);
  Restart();
  EXPECT_EQ(player_->GetKeyPadMode(), -1);
  EXPECT_EQ(player_->GetProgramMode(), 0x12345678);
}

TEST_F(TonePlayerTest, AudioTableLifecycle) {
  EXPECT_EQ(player_->SetAudioInterface(nullptr), 1);
  EXPECT_EQ(Play(1, 2, -1), Ring(1, "Tone_1.wav")) << "a refused table keeps the old one";
  // Start empties the table: until one is given, calls change state and sound nothing.
  player_->Shutdown();
  ASSERT_EQ(player_->Start(), 0);
  EXPECT_EQ(Play(5, 2, -1), "");
  EXPECT_EQ(player_->PlayDTMF(1, 0), 0);
  EXPECT_EQ(Service(160), "");
  EXPECT_EQ(Service(255), "");
  // Empty slots of a table are skipped.
  ToneAudioInterface partial = kAudio;
  partial.set_ring_volume = nullptr;
  partial.play_tone = nullptr;
  ASSERT_EQ(player_->SetAudioInterface(&partial), 0);
  EXPECT_EQ(Play(-1, -1, -1), "") << "tone 5 goes to the missing play_tone";
  EXPECT_EQ(Play(1, -1, -1), "file(media/Tone_1.wav,-1)");
  // After Shutdown nothing reaches the Audio module.
  player_->Shutdown();
  EXPECT_EQ(Play(1, -1, -1), "");
  EXPECT_EQ(Play(0, -1, -1), "");
  EXPECT_EQ(player_->PlayDTMF(1, 0), 0);
  EXPECT_EQ(Take(), "");
}

TEST_F(TonePlayerTest, TraceLines) {
  testing::TraceCapture capture;
  Play(1, 2, 3);
  Play(5, -1, 0);
  Play(0, -1, -1);  // a stop traces nothing
  EXPECT_TRUE(capture.Has("iToneID : 1  iMelody : 3   mIsVolAdjustment : 1  iVolume : 2"));
  EXPECT_TRUE(capture.Has("iToneID : 5  iMelody : 0   mIsVolAdjustment : 1  iVolume : 2"));
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

TEST_F(TonePlayerTest, HostThreadsCallingAtOnceStayConsistent) {
  // No call may tear the lists or split another's volume-and-play pair.
  std::thread saver([this] {
    for (int i = 0; i < 2000; ++i) {
      player_->SaveCustomTone(3, u"media/user.wav");
      player_->RemoveCustomTone(3);
    }
  });
  std::thread keys([this] {
    for (int i = 0; i < 2000; ++i) player_->PlayDTMF(static_cast<std::uint32_t>(i % 31), 0);
  });
  for (int i = 0; i < 2000; ++i) player_->PlayTone(1 + i % 3, 1 + i % 4, 3);
  saver.join();
  keys.join();
  std::istringstream in(Take());
  std::vector<std::string> calls;
  for (std::string call; in >> call;) calls.push_back(call);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].rfind("vol(", 0) == 0) {
      ASSERT_LT(i + 1, calls.size());
      EXPECT_EQ(calls[i + 1].rfind("file(", 0), 0u) << i;
    }
  }
}

TEST_F(TonePlayerTest, CustomTonesAndTheirMasks) {
  // Saving and removing set and clear bit (slot mod 32) in the masks of tones 1, 2, 3, 17.
  const std::tuple<char, int, std::uint32_t> steps[] = {
      {'S', 0, 0x41},
      {'S', 29, 0x20000041},
      {'S', 29, 0x20000041},
      {'R', 6, 0x20000001},  // no user's file there: the bit goes all the same
      {'R', 13, 0x20000001},
      {'S', 30, 0x20000001},
      {'S', -1, 0x20000001},  // no such slot
      {'S', INT_MAX, 0x20000001},
      {'R', 32, 0x20000000},
      {'R', -3, 0},  // -3: bit 29
      {'S', 6, 0x40},
  };
  for (const auto& [op, slot, mask] : steps) {
    SCOPED_TRACE(::testing::Message() << op << slot);
    EXPECT_EQ(
        op == 'S' ? player_->SaveCustomTone(slot, u"user/a.wav") : player_->RemoveCustomTone(slot),
        0);
    for (std::int32_t id = 1; id <= 17; ++id) {
      EXPECT_EQ(Mask(id), id == 1 || id == 2 || id == 3 || id == 17 ? mask : 0u) << id;
    }
  }
  EXPECT_EQ(Stored(30), "unchanged");
  EXPECT_EQ(Take(), "");
  // A saved file rings for the four tones only, through the melody code of its slot; a
  // second save replaces the first, one removal empties the slot.
  ASSERT_EQ(player_->SaveCustomTone(11, u"user/first.wav"), 0);
  ASSERT_EQ(player_->SaveCustomTone(11, u"user/eleven.wav"), 0);
  for (int tone : {1, 2, 3, 17}) EXPECT_EQ(RingFile(tone, 74), "user/eleven.wav") << tone;
  EXPECT_EQ(RingFile(4, 74), "media/Tone_4.wav");
  EXPECT_EQ(RingFile(1, 69), "media/Tone_1.wav");  // slot 10, empty
  EXPECT_EQ(RingFile(1, 11), "media/Tone_1.wav");  // code 11 is no slot
  EXPECT_EQ(Stored(11), "user/eleven.wav");
  EXPECT_EQ(player_->RemoveCustomTone(11), 0);
  EXPECT_EQ(Stored(11), "unchanged");
  EXPECT_EQ(RingFile(1, 74), "media/Tone_1.wav");
  // In slot 6 the defaults of tones 1 to 3 stand before a user's file; removal hides them.
  ASSERT_EQ(player_->SaveCustomTone(6, u"user/six.wav"), 0);
  EXPECT_EQ(RingFile(2, 6), "media/Tone_A.wav");
  EXPECT_EQ(RingFile(17, 6), "user/six.wav");
  ASSERT_EQ(player_->RemoveCustomTone(6), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_1.wav");
  EXPECT_EQ(Stored(6), "unchanged") << "the defaults are no user's file";
}

TEST_F(TonePlayerTest, CustomPathsAreBoundedAndCopiedExactly) {
  const std::u16string longest(kTonePathChars - 1, u'a'), too_long(kTonePathChars, u'b');
  ASSERT_EQ(player_->SaveCustomTone(2, longest.c_str()), 0);
  EXPECT_EQ(RingFile(1, 2), std::string(255, 'a'));
  // Refused whole: the earlier file stays, the masks do not move; an unterminated text is
  // not read past 256 units.
  const std::uint32_t mask = Mask(1);
  const auto unterminated = std::make_unique<char16_t[]>(kTonePathChars);
  std::fill_n(unterminated.get(), kTonePathChars, u'c');
  for (const char16_t* bad : {too_long.c_str(), static_cast<const char16_t*>(unterminated.get()),
                              static_cast<const char16_t*>(nullptr)}) {
    EXPECT_EQ(player_->SaveCustomTone(2, bad), -1);
    EXPECT_EQ(player_->SaveCustomTone(5, bad), -1);
  }
  EXPECT_EQ(Stored(2), std::string(255, 'a'));
  EXPECT_EQ(Stored(5), "unchanged");
  EXPECT_EQ(Mask(1), mask);
  char16_t* null_block = nullptr;
  EXPECT_EQ(player_->GetCustomTone(2, nullptr), -1);
  EXPECT_EQ(player_->GetCustomTone(2, &null_block), -1);
  EXPECT_EQ(Stored(INT_MIN), "unchanged");
  // UTF-16 as it comes, and only the path and its terminator are written.
  const char16_t* path = u"user/Kl\u00e4nge/\u9234 \U0001F3B5.wav";
  ASSERT_EQ(player_->SaveCustomTone(8, path), 0);
  std::array<char16_t, kTonePathChars> block;
  block.fill(u'#');
  char16_t* buffer = block.data();
  ASSERT_EQ(player_->GetCustomTone(8, &buffer), 0);
  EXPECT_EQ(std::u16string(block.data()), path);
  EXPECT_EQ(block[std::u16string(path).size() + 1], u'#');
  EXPECT_EQ(RingFile(3, 67), Text(path));  // code 67 is slot 8
}

TEST_F(TonePlayerTest, MasksBelongToTheProcessAndEntriesToThePlayer) {
  ASSERT_EQ(player_->SaveCustomTone(5, u"user/five.wav"), 0);
  ASSERT_EQ(player_->RemoveCustomTone(6), 0);
  Restart();
  EXPECT_EQ(Mask(1), 1u << 5);
  EXPECT_EQ(Stored(5), "unchanged");
  EXPECT_EQ(RingFile(1, 5), "media/Tone_1.wav");
  player_ = std::make_unique<CTonePlayer>();  // a new player in the same process
  Restart();
  EXPECT_EQ(Mask(17), 1u << 5);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_1.wav") << "bit 6 stays cleared";
  ASSERT_EQ(player_->SaveCustomTone(6, u"user/six.wav"), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_9.wav") << "the new start put the defaults back";
}

TEST_F(TonePlayerTest, ServiceTonesOverATimeline) {
  // Areas 1, 2, 3, 4, 8 have directories, any other is area 1; a start goes back to area 1.
  const std::pair<int, char> areas[] = {{3, '3'}, {8, '8'}, {5, '1'}, {4, '4'}, {-1, '1'},
                                        {2, '2'}, {7, '1'}, {0, '1'}, {1, '1'}};
  for (const auto& [area, dir] : areas) {
    EXPECT_EQ(player_->SetServiceTonePath(area), 0);
    EXPECT_EQ(Service(0xA5), std::string("tone(media/Area") + dir + "/Progress_A5.wav,-1)") << area;
  }
  EXPECT_EQ(Service(255), "stoptone");
  player_->SetServiceTonePath(3);
  Restart();
  const auto play = [](const char* file, int loop) {
    return "tone(media/Area1/Progress_" + std::string(file) + ".wav," + std::to_string(loop) + ")";
  };
  // 255 stops a playing service tone only; unknown codes stop the tone output. After 128 the
  // next of 144-147, 150, 151 is swallowed once.
  const std::pair<int, std::string> steps[] = {
      {255, ""},
      {200, "stoptone"},
      {255, ""},  // an unknown code sets nothing
      {128, play("80", 0)},
      {144, ""},
      {144, play("90", -1)},
      {128, play("80", 0)},
      {148, play("94", -1)},  // not one of the six: the skip stays
      {129, play("81", 0)},
      {151, ""},
      {151, play("97", -1)},
      {128, play("80", 0)},
      {255, "stoptone"},  // clears the skip
      {145, play("91", -1)},
      {200, "stoptone"},
      {255, "stoptone"},
      {255, ""},
      {134, play("86", 0)},
      {174, play("AE", -1)},
      {175, "stoptone"},
      {-1, "stoptone"},
  };
  for (const auto& [code, calls] : steps) EXPECT_EQ(Service(code), calls) << code;
  for (int code : {145, 146, 147, 150}) {
    EXPECT_NE(Service(128), "");
    EXPECT_EQ(Service(code), "") << code;
    EXPECT_NE(Service(code), "") << code;
  }
}

}  // namespace
}  // namespace deskline
