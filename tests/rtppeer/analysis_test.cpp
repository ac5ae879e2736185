// Measurements on synthetic signals and sequence lists, and the sound file round trip.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <vector>

#include "tools/rtppeer/peer_analysis.h"
#include "tools/rtppeer/peer_sound.h"

namespace deskline::sim {
namespace {

TEST(PeerAnalysis, ToneMixtureSilenceAndEmptyBuffers) {
  for (const double level : {0.0, -10.0, -36.0}) {
    const auto tone = MakeTone(1000, level, 8000);
    EXPECT_NEAR(RmsDbfs(tone), level, 0.5) << level;
    EXPECT_NEAR(DominantFrequency(tone), 1000.0, 20.0) << level;
  }
  // One 20 ms frame, and a frequency that does not divide the rate.
  const auto frame = MakeTone(1000, -10, 160);
  EXPECT_NEAR(RmsDbfs(frame), -10.0, 0.5);
  EXPECT_NEAR(ZeroCrossingFrequency(frame), 1000.0, 20.0);
  const auto odd = MakeTone(697, -6, 1600);
  EXPECT_NEAR(ZeroCrossingFrequency(odd), 697.0, 697 * 0.02);
  const double dtmf[] = {697, 770, 852, 941, 1209};
  EXPECT_EQ(DominantFrequency(odd, dtmf), 697.0);

  auto mix = MakeTone(425, -10, 4000);
  const auto high = MakeTone(1400, -20, 4000);
  for (std::size_t i = 0; i < mix.size(); ++i) mix[i] = static_cast<std::int16_t>(mix[i] + high[i]);
  EXPECT_NEAR(DominantFrequency(mix), 425.0, 10.0);
  EXPECT_GT(GoertzelPower(mix, 1400), 50 * GoertzelPower(mix, 2000));

  const std::vector<std::int16_t> silence(800, 0);
  EXPECT_TRUE(std::isinf(RmsDbfs(silence)));
  EXPECT_TRUE(std::isinf(RmsDbfs({})));
  EXPECT_EQ(DominantFrequency(silence), 0.0);
  EXPECT_EQ(ZeroCrossingFrequency(silence), 0.0);
  EXPECT_EQ(ZeroCrossingFrequency({}), 0.0);
  EXPECT_EQ(GoertzelPower({}, 1000), 0.0);
}

TEST(PeerAnalysis, SequenceStatsAcrossTheWrap) {
  const struct {
    std::vector<std::uint16_t> seqs;
    std::uint32_t unique, lost, duplicates, reordered;
    std::int64_t first, last;
  } rows[] = {
      {{}, 0, 0, 0, 0, 0, 0},
      {{65534, 65535, 0, 1}, 4, 0, 0, 0, 65534, 65537},
      {{65534, 0, 1, 3}, 4, 2, 0, 0, 65534, 65539},
      {{10, 11, 11, 12, 12, 12}, 3, 0, 3, 0, 10, 12},
      {{10, 12, 11, 13}, 4, 0, 0, 1, 10, 13},
      {{65535, 1, 0, 2}, 4, 0, 0, 1, 65535, 65538},
      {{5, 4, 3}, 3, 0, 0, 2, 3, 5},
  };
  int line = 0;
  for (const auto& r : rows) {
    SCOPED_TRACE(line++);
    const SequenceStats st = AnalyzeSequence(r.seqs);
    EXPECT_EQ(st.received, r.seqs.size());
    EXPECT_EQ(st.unique, r.unique);
    EXPECT_EQ(st.lost, r.lost);
    EXPECT_EQ(st.duplicates, r.duplicates);
    EXPECT_EQ(st.reordered, r.reordered);
    EXPECT_EQ(st.first, r.first);
    EXPECT_EQ(st.last, r.last);
  }
}

TEST(PeerSound, ToneGeneratorIsContinuousAcrossFrames) {
  ToneGenerator gen(1000, -10);
  std::vector<std::int16_t> pieces(8000);
  for (std::size_t at = 0; at < 8000; at += 160) gen.Fill(std::span(pieces).subspan(at, 160));
  EXPECT_EQ(pieces, MakeTone(1000, -10, 8000));
}

TEST(PeerSound, WavOfAnotherRateAndTwoChannelsReadsAs8kMono) {
  const std::string path = ::testing::TempDir() + "rtppeer_stereo.wav";
  // 1 s of 440 Hz at 44.1 kHz, the left channel at -6 dBFS and the right silent: the mono mix
  // is the average, 6 dB lower.
  const auto tone = MakeTone(440, -6, 44100, 44100);
  std::vector<std::int16_t> interleaved;
  for (const auto s : tone) interleaved.insert(interleaved.end(), {s, 0});
  ASSERT_EQ(WriteWav(path, interleaved, 44100, 2), "");
  const WavReadResult mono = ReadWavAs8kMono(path);
  std::filesystem::remove(path);
  ASSERT_TRUE(mono.ok()) << mono.error;
  EXPECT_EQ(mono.samples.size(), 8000u);
  EXPECT_NEAR(ZeroCrossingFrequency(mono.samples), 440.0, 440 * 0.02);
  EXPECT_NEAR(RmsDbfs(mono.samples), -12.0, 0.5);

  const WavReadResult missing = ReadWavAs8kMono(::testing::TempDir() + "rtppeer_no_such_file.wav");
  EXPECT_NE(missing.error.find("rtppeer_no_such_file.wav"), std::string::npos);
  EXPECT_NE(WriteWav("/nonexistent-dir/x.wav", tone), "");
  EXPECT_TRUE(Resample({}, 16000, 8000).empty());
  EXPECT_TRUE(Resample(tone, 0, 8000).empty());
}

}  // namespace
}  // namespace deskline::sim
