#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "fake_audio.h"
#include "tone/tone_player.h"

namespace deskline {
namespace {

using testing::FakeAudio;
using testing::ToUtf8;
using Calls = std::vector<std::string>;

const Calls kNothing = {};
const Calls kStopTone = {"stop_play_tone()"};

std::uint32_t Mask(std::int32_t tone_id) { return FindToneRow(tone_id)->customMask.load(); }

class CustomToneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetCustomMasks();
    FakeAudio::Reset();
    player_ = std::make_unique<CTonePlayer>();
    StartPlayer();
  }
  void TearDown() override {
    player_.reset();
    ResetCustomMasks();
  }
  void StartPlayer() {
    ASSERT_EQ(player_->Start(), 0);
    const ToneAudioInterface table = FakeAudio::Table();
    ASSERT_EQ(player_->SetAudioInterface(&table), 0);
  }

  // The file a ring tone plays with a melody code.
  std::string RingFile(std::int32_t tone, std::int32_t melody_code) {
    EXPECT_EQ(player_->PlayTone(tone, -1, melody_code), 0);
    const Calls calls = FakeAudio::Take();
    if (calls.size() != 2) return "unexpected: " + ::testing::PrintToString(calls);
    const std::string& play = calls[1];  // "play_file(<path>, -1)"
    return play.substr(10, play.rfind(", ") - 10);
  }
  // What GetCustomTone leaves in a buffer that starts out as "unchanged".
  std::string Stored(std::int32_t slot) {
    std::array<char16_t, kTonePathChars> block;
    block.fill(u'#');
    const std::u16string before = u"unchanged";
    std::copy(before.begin(), before.end(), block.begin());
    block[before.size()] = u'\0';
    char16_t* buffer = block.data();
    EXPECT_EQ(player_->GetCustomTone(slot, &buffer), 0);
    return ToUtf8(block.data());
  }

  std::unique_ptr<CTonePlayer> player_;
};

TEST_F(CustomToneTest, SavedFileRingsForTheFourTonesOnly) {
  EXPECT_EQ(player_->SaveCustomTone(3, u"user/three.wav"), 0);
  EXPECT_EQ(RingFile(2, 3), "user/three.wav");
  EXPECT_EQ(RingFile(1, 3), "user/three.wav");
  EXPECT_EQ(RingFile(3, 3), "user/three.wav");
  EXPECT_EQ(RingFile(17, 3), "user/three.wav");
  EXPECT_EQ(RingFile(4, 3), "media/Tone_4.wav");
  EXPECT_EQ(RingFile(9, 3), "media/Tone_9.wav");
  EXPECT_EQ(RingFile(2, 2), "media/Tone_2.wav");
  EXPECT_EQ(Stored(3), "user/three.wav");
}

TEST_F(CustomToneTest, MaskBitsFollowSavesAndRemovals) {
  struct Step {
    enum { kSave, kRemove } op;
    std::int32_t slot;
    std::uint32_t mask;  // expected of tones 1, 2, 3 and 17 afterwards
  };
  const Step steps[] = {
      {Step::kSave, 0, 0x41},
      {Step::kSave, 29, 0x20000041},
      {Step::kSave, 29, 0x20000041},
      {Step::kRemove, 6, 0x20000001},   // no user's file there: the bit goes all the same
      {Step::kRemove, 13, 0x20000001},  // nothing there, nothing set
      {Step::kSave, 30, 0x20000001},    // outside the slots: nothing stored, no bit
      {Step::kSave, -1, 0x20000001},
      {Step::kSave, INT_MAX, 0x20000001},
      {Step::kRemove, 32, 0x20000000},  // bit (slot mod 32)
      {Step::kRemove, -3, 0x00000000},  // two's complement: bit 29
      {Step::kSave, 6, 0x00000040},
  };
  int index = 0;
  for (const Step& s : steps) {
    const std::int32_t result = s.op == Step::kSave ? player_->SaveCustomTone(s.slot, u"user/a.wav")
                                                    : player_->RemoveCustomTone(s.slot);
    EXPECT_EQ(result, 0) << "step " << index;
    for (std::int32_t id = 1; id <= 17; ++id) {
      const bool follows = id == 1 || id == 2 || id == 3 || id == 17;
      EXPECT_EQ(Mask(id), follows ? s.mask : 0u) << "step " << index << " tone " << id;
    }
    ++index;
  }
  EXPECT_EQ(Stored(30), "unchanged");
  EXPECT_EQ(Stored(-1), "unchanged");
  EXPECT_EQ(FakeAudio::Take(), kNothing);
}

TEST_F(CustomToneTest, ASecondSaveReplacesTheFirst) {
  EXPECT_EQ(player_->SaveCustomTone(4, u"user/first.wav"), 0);
  EXPECT_EQ(player_->SaveCustomTone(4, u"user/second.wav"), 0);
  EXPECT_EQ(Stored(4), "user/second.wav");
  EXPECT_EQ(RingFile(1, 4), "user/second.wav");
  // One removal empties the slot: the list held a single user's entry.
  EXPECT_EQ(player_->RemoveCustomTone(4), 0);
  EXPECT_EQ(Stored(4), "unchanged");
  EXPECT_EQ(RingFile(1, 4), "media/Tone_1.wav");
  EXPECT_EQ(player_->SaveCustomTone(4, u"user/third.wav"), 0);
  EXPECT_EQ(RingFile(1, 4), "user/third.wav");
}

TEST_F(CustomToneTest, SlotSixDefaultsStandBeforeAUsersFile) {
  EXPECT_EQ(RingFile(1, 6), "media/Tone_9.wav");
  EXPECT_EQ(player_->SaveCustomTone(6, u"user/six.wav"), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_9.wav");
  EXPECT_EQ(RingFile(2, 6), "media/Tone_A.wav");
  EXPECT_EQ(RingFile(3, 6), "media/Tone_B.wav");
  EXPECT_EQ(RingFile(17, 6), "user/six.wav");
  EXPECT_EQ(Stored(6), "user/six.wav");

  // Removal cuts the defaults off too, until something is saved to slot 6 again.
  EXPECT_EQ(player_->RemoveCustomTone(6), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_1.wav");
  EXPECT_EQ(RingFile(17, 6), "media/Tone_1.wav");
  EXPECT_EQ(player_->SaveCustomTone(6, u"user/again.wav"), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_9.wav");
  EXPECT_EQ(RingFile(17, 6), "user/again.wav");
}

TEST_F(CustomToneTest, MelodyCodesReachTheirSlots) {
  ASSERT_EQ(player_->SaveCustomTone(11, u"user/eleven.wav"), 0);
  ASSERT_EQ(player_->SaveCustomTone(12, u"user/twelve.wav"), 0);
  ASSERT_EQ(player_->SaveCustomTone(29, u"user/last.wav"), 0);
  EXPECT_EQ(RingFile(1, 74), "user/eleven.wav");
  EXPECT_EQ(RingFile(1, 64), "user/twelve.wav");
  EXPECT_EQ(RingFile(1, 131), "user/last.wav");
  EXPECT_EQ(RingFile(1, 69), "media/Tone_1.wav");  // slot 10, empty
  EXPECT_EQ(RingFile(1, 11), "media/Tone_1.wav");  // code 11 is no slot at all
}

TEST_F(CustomToneTest, PathLengthLimit) {
  const std::u16string longest(kTonePathChars - 1, u'a');  // 255 and its terminator fit
  const std::u16string too_long(kTonePathChars, u'b');
  ASSERT_EQ(player_->SaveCustomTone(2, longest.c_str()), 0);
  EXPECT_EQ(Stored(2), std::string(255, 'a'));
  EXPECT_EQ(RingFile(1, 2), std::string(255, 'a'));

  // Refused whole: the earlier file stays, the masks do not move.
  const std::uint32_t mask = Mask(1);
  EXPECT_EQ(player_->SaveCustomTone(2, too_long.c_str()), -1);
  EXPECT_EQ(player_->SaveCustomTone(5, too_long.c_str()), -1);
  EXPECT_EQ(Stored(2), std::string(255, 'a'));
  EXPECT_EQ(Stored(5), "unchanged");
  EXPECT_EQ(Mask(1), mask);

  // A text with no terminator in its first 256 characters is never read further.
  const auto unterminated = std::make_unique<char16_t[]>(kTonePathChars);
  std::fill_n(unterminated.get(), kTonePathChars, u'c');
  EXPECT_EQ(player_->SaveCustomTone(7, unterminated.get()), -1);
  EXPECT_EQ(Stored(7), "unchanged");
}

TEST_F(CustomToneTest, NullPointersAndEmptySlots) {
  EXPECT_EQ(player_->SaveCustomTone(1, nullptr), -1);
  EXPECT_EQ(Stored(1), "unchanged");
  EXPECT_EQ(player_->GetCustomTone(1, nullptr), -1);
  char16_t* null_block = nullptr;
  EXPECT_EQ(player_->GetCustomTone(1, &null_block), -1);
  ASSERT_EQ(player_->SaveCustomTone(1, u"user/one.wav"), 0);
  EXPECT_EQ(player_->GetCustomTone(1, nullptr), -1);
  EXPECT_EQ(player_->GetCustomTone(1, &null_block), -1);

  EXPECT_EQ(Stored(0), "unchanged");
  EXPECT_EQ(Stored(6), "unchanged") << "the defaults are no user's file";
  EXPECT_EQ(Stored(INT_MIN), "unchanged");
  EXPECT_EQ(player_->RemoveCustomTone(INT_MAX), 0);
  EXPECT_EQ(player_->RemoveCustomTone(INT_MIN), 0);
}

TEST_F(CustomToneTest, CopyWritesThePathAndTerminatorOnly) {
  // UTF-16 as it comes: letters outside Latin-1 and a pair of surrogates.
  const char16_t* path = u"user/Kl\u00e4nge/\u9234 \U0001F3B5.wav";
  ASSERT_EQ(player_->SaveCustomTone(8, path), 0);
  std::array<char16_t, kTonePathChars> block;
  block.fill(u'#');
  char16_t* buffer = block.data();
  ASSERT_EQ(player_->GetCustomTone(8, &buffer), 0);
  const std::u16string copied(block.data());
  EXPECT_EQ(copied, std::u16string(path));
  EXPECT_EQ(block[copied.size() + 1], u'#');
  EXPECT_EQ(RingFile(3, 67), ToUtf8(path));  // code 67 is slot 8
}

TEST_F(CustomToneTest, MasksBelongToTheProcessAndEntriesToThePlayer) {
  ASSERT_EQ(player_->SaveCustomTone(5, u"user/five.wav"), 0);
  ASSERT_EQ(player_->RemoveCustomTone(6), 0);

  // A shutdown and a new start drop the entries but not the masks.
  player_->Shutdown();
  StartPlayer();
  EXPECT_EQ(Mask(1), 1u << 5);
  EXPECT_EQ(Stored(5), "unchanged");
  EXPECT_EQ(RingFile(1, 5), "media/Tone_1.wav");
  EXPECT_EQ(RingFile(1, 6), "media/Tone_1.wav") << "bit 6 stays cleared";

  // So does a new player in the same process.
  player_ = std::make_unique<CTonePlayer>();
  StartPlayer();
  EXPECT_EQ(Mask(17), 1u << 5);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_1.wav");
  ASSERT_EQ(player_->SaveCustomTone(6, u"user/six.wav"), 0);
  EXPECT_EQ(RingFile(1, 6), "media/Tone_9.wav") << "the new start put the defaults back";
}

class ServiceToneTest : public CustomToneTest {
 protected:
  Calls Service(std::int32_t code) {
    EXPECT_EQ(player_->PlayServiceTone(code), 0);
    return FakeAudio::Take();
  }
};

Calls ServicePlay(const std::string& path, int repeat) {
  return {"play_tone(" + path + ", " + std::to_string(repeat) + ")"};
}

TEST_F(ServiceToneTest, AreaDirectories) {
  EXPECT_EQ(Service(0xA5), ServicePlay("media/Area1/Progress_A5.wav", -1)) << "area at start";
  const std::pair<std::int32_t, const char*> cases[] = {
      {3, "media/Area3/Progress_A5.wav"}, {8, "media/Area8/Progress_A5.wav"},
      {5, "media/Area1/Progress_A5.wav"}, {4, "media/Area4/Progress_A5.wav"},
      {-1, "media/Area1/Progress_A5.wav"}, {2, "media/Area2/Progress_A5.wav"},
      {7, "media/Area1/Progress_A5.wav"},  {6, "media/Area1/Progress_A5.wav"},
      {0, "media/Area1/Progress_A5.wav"},  {1, "media/Area1/Progress_A5.wav"},
  };
  for (const auto& [area, path] : cases) {
    EXPECT_EQ(player_->SetServiceTonePath(area), 0);
    EXPECT_EQ(Service(0xA5), ServicePlay(path, -1)) << "area " << area;
  }
  player_->Shutdown();
  StartPlayer();
  EXPECT_EQ(Service(0x80), ServicePlay("media/Area1/Progress_80.wav", 0)) << "start resets";
}

TEST_F(ServiceToneTest, CodesAndTheSkipRuleOverATimeline) {
  struct Step {
    std::int32_t code;
    Calls calls;
  };
  const std::string dir = "media/Area1/";
  const Step steps[] = {
      {255, kNothing},  // nothing playing
      {200, kStopTone},
      {255, kNothing},  // the unknown code did not set servicePlaying
      {128, ServicePlay(dir + "Progress_80.wav", 0)},
      {144, kNothing},  // swallowed once
      {144, ServicePlay(dir + "Progress_90.wav", -1)},
      {128, ServicePlay(dir + "Progress_80.wav", 0)},
      {148, ServicePlay(dir + "Progress_94.wav", -1)},  // not one of the six: skip stays set
      {129, ServicePlay(dir + "Progress_81.wav", 0)},
      {151, kNothing},
      {151, ServicePlay(dir + "Progress_97.wav", -1)},
      {128, ServicePlay(dir + "Progress_80.wav", 0)},
      {255, kStopTone},  // clears the skip
      {145, ServicePlay(dir + "Progress_91.wav", -1)},
      {200, kStopTone},  // stops, servicePlaying stays set
      {255, kStopTone},
      {255, kNothing},
      {134, ServicePlay(dir + "Progress_86.wav", 0)},
      {174, ServicePlay(dir + "Progress_AE.wav", -1)},
      {175, kStopTone},
      {-1, kStopTone},
  };
  int index = 0;
  for (const Step& s : steps) {
    EXPECT_EQ(Service(s.code), s.calls) << "step " << index << " code " << s.code;
    ++index;
  }
}

TEST_F(ServiceToneTest, EachOfTheSixProgressCodesIsSwallowedOnce) {
  for (std::int32_t code : {144, 145, 146, 147, 150, 151}) {
    SCOPED_TRACE(code);
    EXPECT_EQ(Service(128).size(), 1u);
    EXPECT_EQ(Service(code), kNothing);
    EXPECT_EQ(Service(code).size(), 1u);
  }
  for (std::int32_t code : {148, 149, 160, 130}) {
    SCOPED_TRACE(code);
    EXPECT_EQ(Service(255), kStopTone);
    EXPECT_EQ(Service(128).size(), 1u);
    EXPECT_EQ(Service(code).size(), 1u) << "not swallowed";
  }
}

}  // namespace
}  // namespace deskline
