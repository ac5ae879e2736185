#include "audio/built_in_sounds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "platform/wave/wav_file.h"
#include "platform/text.h"
#include "tone/tone_tables.h"

namespace deskline::audio {
namespace {

using platform::WavSound;

// Every path the tone tables can ask for in the first area.
std::set<std::u16string> PathsOfTheToneTables() {
  std::set<std::u16string> paths;
  for (std::int32_t id = kFirstToneId; id <= kLastToneId; ++id) paths.insert(FindToneRow(id)->file);
  for (std::uint32_t key = 0; key < kKeyToneRows; ++key) {
    for (int column = 0; column < kKeyToneColumns; ++column) {
      if (const char16_t* path = KeyTonePath(key, column)) paths.insert(path);
    }
  }
  for (const DefaultCustomTone& tone : kDefaultCustomTones) paths.insert(tone.path);
  for (std::int32_t code = 0; code < 256; ++code) {
    if (const ServiceToneRow* row = FindServiceTone(code)) {
      paths.insert(std::u16string(AreaDirectory(1)) + u"/" + row->file);
    }
  }
  return paths;
}

WavSound Read(std::u16string_view path) {
  WavSound sound;
  EXPECT_TRUE(ReadWavMemory(FindBuiltInSound(path), &sound)) << Utf16ToUtf8(path);
  return sound;
}

std::vector<double> Samples(const WavSound& sound) {
  std::vector<double> out;
  for (std::size_t i = 0; i + 1 < sound.data.size(); i += 2) {
    out.push_back(static_cast<std::int16_t>(sound.data[i] | (sound.data[i + 1] << 8)));
  }
  return out;
}

TEST(BuiltInSounds, EveryFileTheToneTablesNameIsBuiltInAndNothingElse) {
  const std::set<std::u16string> paths = PathsOfTheToneTables();
  std::size_t total_bytes = 0;
  for (const std::u16string& path : paths) {
    SCOPED_TRACE(Utf16ToUtf8(path));
    const auto bytes = FindBuiltInSound(path);
    ASSERT_FALSE(bytes.empty());
    total_bytes += bytes.size();
    const WavSound sound = Read(path);
    EXPECT_EQ(sound.format, platform::kVoiceFormat);
    // Tones sit near -12 dBFS: audible, with room for the gain.
    const std::vector<double> samples = Samples(sound);
    double peak = 0;
    for (double v : samples) peak = std::max(peak, std::abs(v));
    EXPECT_NEAR(20 * std::log10(peak / 32767), -12.0, 0.5);
    EXPECT_EQ(samples.front(), 0.0);  // sound starts from silence, no click
  }
  EXPECT_LT(total_bytes, 1500u * 1024);

  std::set<std::u16string> names;
  for (const std::string& name : BuiltInSoundNames()) names.insert(Utf8ToUtf16(name));
  EXPECT_EQ(names, paths);
}

TEST(BuiltInSounds, LookupFoldsSlashesAndCaseAndRefusesTheRest) {
  const auto hash = FindBuiltInSound(u"media/DTMF/Tone_DTMF#.wav");
  ASSERT_FALSE(hash.empty());
  EXPECT_EQ(FindBuiltInSound(u"media\\DTMF\\Tone_DTMF#.wav").data(), hash.data());
  EXPECT_EQ(FindBuiltInSound(u"MEDIA\\dtmf/tone_dtmf#.WAV").data(), hash.data());
  EXPECT_EQ(FindBuiltInSound(u"media/DTMF/Tone_DTMF#.wav").size(), hash.size());
  EXPECT_NE(FindBuiltInSound(u"media/DTMF/Tone_DTMFx.wav").data(), hash.data());
  for (const char16_t* unknown :
       {u"", u"media/Tone_0.wav", u"media/Tone_1.wav.bak", u"media/Tone_1", u"Tone_1.wav",
        u"/media/Tone_1.wav", u"media/Area2/Progress_90.wav", u"media/Tone_\u00e91.wav"}) {
    EXPECT_TRUE(FindBuiltInSound(unknown).empty()) << Utf16ToUtf8(unknown);
  }
}

// Power of one frequency in a block (Goertzel).
double Power(const std::vector<double>& x, std::size_t from, std::size_t to, double hz) {
  const double w = 2 * M_PI * hz / 8000.0;
  const double coeff = 2 * std::cos(w);
  double s1 = 0, s2 = 0;
  for (std::size_t i = from; i < to; ++i) {
    const double s0 = x[i] + coeff * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  return s1 * s1 + s2 * s2 - coeff * s1 * s2;
}

TEST(BuiltInSounds, DtmfKeysHoldTheirTwoFrequenciesAndNoOther) {
  const double kFrequencies[] = {697, 770, 852, 941, 1209, 1336, 1477};
  const struct {
    const char16_t* path;
    double low, high;
  } keys[] = {
      {u"media/DTMF/Tone_DTMF1.wav", 697, 1209}, {u"media/DTMF/Tone_DTMF2.wav", 697, 1336},
      {u"media/DTMF/Tone_DTMF3.wav", 697, 1477}, {u"media/DTMF/Tone_DTMF4.wav", 770, 1209},
      {u"media/DTMF/Tone_DTMF5.wav", 770, 1336}, {u"media/DTMF/Tone_DTMF6.wav", 770, 1477},
      {u"media/DTMF/Tone_DTMF7.wav", 852, 1209}, {u"media/DTMF/Tone_DTMF8.wav", 852, 1336},
      {u"media/DTMF/Tone_DTMF9.wav", 852, 1477}, {u"media/DTMF/Tone_DTMFx.wav", 941, 1209},
      {u"media/DTMF/Tone_DTMF0.wav", 941, 1336}, {u"media/DTMF/Tone_DTMF#.wav", 941, 1477},
  };
  for (const auto& key : keys) {
    SCOPED_TRACE(Utf16ToUtf8(key.path));
    const std::vector<double> x = Samples(Read(key.path));
    ASSERT_GE(x.size(), 800u);  // at least 100 ms
    const double low = Power(x, 80, 720, key.low);
    const double high = Power(x, 80, 720, key.high);
    EXPECT_LT(std::abs(10 * std::log10(low / high)), 3.0);  // no twist
    for (double f : kFrequencies) {
      if (f == key.low || f == key.high) continue;
      EXPECT_LT(Power(x, 80, 720, f), low / 100) << f << " Hz";
    }
  }
}

TEST(BuiltInSounds, ProgressTonesFollowTheirCadence) {
  // Each row: the file, its length, and where it sounds (start and end in ms); silence
  // elsewhere.
  const struct {
    const char16_t* path;
    int length_ms;
    std::vector<std::pair<int, int>> on;
  } tones[] = {
      {u"media/Area1/Progress_92.wav", 1000, {{0, 500}}},              // busy
      {u"media/Area1/Progress_91.wav", 5000, {{0, 1000}}},             // ring-back
      {u"media/Area1/Progress_93.wav", 500, {{0, 250}}},               // congestion
      {u"media/Area1/Progress_94.wav", 3000, {{0, 200}, {400, 600}}},  // call waiting
      {u"media/Area1/Progress_90.wav", 1000, {{0, 1000}}},             // dial tone
  };
  for (const auto& tone : tones) {
    SCOPED_TRACE(Utf16ToUtf8(tone.path));
    const std::vector<double> x = Samples(Read(tone.path));
    ASSERT_EQ(x.size(), static_cast<std::size_t>(tone.length_ms * 8));
    // 10 ms windows, away from the 5 ms edges.
    for (int ms = 0; ms < tone.length_ms; ms += 10) {
      // Inside a burst by more than one window: sounding; outside every burst: silent.
      bool on = false, inside = false;
      for (const auto& [from, to] : tone.on) {
        on = on || (ms >= from && ms < to);
        inside = inside || (ms >= from + 10 && ms + 20 <= to);
      }
      const std::size_t a = static_cast<std::size_t>(ms * 8);
      double energy = 0;
      for (std::size_t i = a; i < a + 80; ++i) energy += x[i] * x[i];
      const double rms = std::sqrt(energy / 80);
      if (inside) {
        EXPECT_GT(rms, 4000) << "at " << ms << " ms";  // -12 dBFS sine: about 5800
      } else if (!on) {
        EXPECT_EQ(rms, 0) << "at " << ms << " ms";
      }
    }
  }
}

}  // namespace
}  // namespace deskline::audio
