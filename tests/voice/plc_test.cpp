#include "voice/plc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace deskline {
namespace {

using Frame = std::array<std::int16_t, CPlc::kFrame>;

// A signal that repeats exactly every `period` samples, with harmonics so that only the
// true period correlates fully.
class Periodic {
 public:
  explicit Periodic(int period) : period_(period) {
    constexpr double kPi = 3.14159265358979323846;
    for (int t = 0; t < period; ++t) {
      const double phase = 2.0 * kPi * t / period;
      one_period_.push_back(static_cast<std::int16_t>(
          std::lround(9000.0 * std::sin(phase) + 4000.0 * std::sin(3.0 * phase + 0.7) +
                      2000.0 * std::cos(5.0 * phase))));
    }
  }
  int operator()(long t) const { return one_period_[static_cast<std::size_t>(t % period_)]; }
  Frame FrameAt(long first) const {
    Frame frame{};
    for (int i = 0; i < CPlc::kFrame; ++i) frame[static_cast<std::size_t>(i)] = static_cast<std::int16_t>((*this)(first + i));
    return frame;
  }

 private:
  int period_;
  std::vector<std::int16_t> one_period_;
};

// Gain of concealed sound `u` samples after the start of a loss, as the fade promises: the
// first lost frame at full level, then 0.2 less per frame falling linearly inside each
// frame, silent from the seventh frame.
double FadeGain(long u) {
  const long frame = u / CPlc::kFrame;
  const long m = u % CPlc::kFrame;
  if (frame == 0) return 1.0;
  if (frame > 5) return 0.0;
  return 1.0 - (frame - 1) * 0.2 - m * 0.00125;
}

// Feeds `frames` good frames of `signal`; returns the absolute time of the next sample.
long FeedGood(CPlc& plc, const Periodic& signal, int frames) {
  long t = 0;
  for (int k = 0; k < frames; ++k, t += CPlc::kFrame) {
    Frame frame = signal.FrameAt(t);
    plc.AddToHistory(frame);
  }
  return t;
}

TEST(Plc, SilentHistoryGivesPitch201AndSilence) {
  auto plc = std::make_unique<CPlc>();
  Frame frame;
  frame.fill(1234);  // Conceal must overwrite whatever is there
  plc->Conceal(frame);
  EXPECT_EQ(plc->pitch(), 201);  // all scores 0: coarse ends on offset 100, fine keeps 99
  EXPECT_EQ(plc->poverlap(), 50);
  EXPECT_EQ(plc->erasecnt(), 1);
  EXPECT_TRUE(std::all_of(frame.begin(), frame.end(), [](std::int16_t s) { return s == 0; }));
}

TEST(Plc, FindsThePeriodOfAPeriodicHistory) {
  for (int period : {200, 201, 240, 247, 299, 300}) {
    SCOPED_TRACE(period);
    auto plc = std::make_unique<CPlc>();
    const Periodic signal(period);
    FeedGood(*plc, signal, 8);
    Frame frame{};
    plc->Conceal(frame);
    EXPECT_EQ(plc->pitch(), period);
    EXPECT_EQ(plc->poverlap(), period / 4);
  }
}

TEST(Plc, GoodFramesComeOut75SamplesLate) {
  auto plc = std::make_unique<CPlc>();
  std::mt19937 random(7);
  std::uniform_int_distribution<int> level(-32768, 32767);
  std::vector<std::int16_t> in;
  std::vector<std::int16_t> out;
  for (int k = 0; k < 12; ++k) {
    Frame frame{};
    for (auto& s : frame) s = static_cast<std::int16_t>(level(random));
    in.insert(in.end(), frame.begin(), frame.end());
    plc->AddToHistory(frame);
    out.insert(out.end(), frame.begin(), frame.end());
  }
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int expected = i < 75 ? 0 : in[i - 75];
    ASSERT_EQ(out[i], expected) << i;
  }
}

TEST(Plc, LossReplaysThePeriodAndFadesOverSixFrames) {
  constexpr int kPeriod = 240;
  constexpr int kGood = 8;
  auto plc = std::make_unique<CPlc>();
  const Periodic signal(kPeriod);
  const long loss_start = FeedGood(*plc, signal, kGood);

  for (int k = 1; k <= 9; ++k) {
    SCOPED_TRACE(testing::Message() << "lost frame " << k);
    Frame frame{};
    plc->Conceal(frame);
    EXPECT_EQ(plc->erasecnt(), k);
    for (int i = 0; i < CPlc::kFrame; ++i) {
      // What comes out now was made 75 samples ago.
      const long t = loss_start + (k - 1) * CPlc::kFrame + i - CPlc::kDelay;
      const long u = t - loss_start;
      const double gain = u < 0 ? 1.0 : FadeGain(u);
      const double expected = signal(t) * gain;
      ASSERT_NEAR(frame[static_cast<std::size_t>(i)], expected, 3.0) << "sample " << i;
    }
    if (k == 7) {
      // The seventh frame made is silent; only the tail of the sixth is still coming out.
      EXPECT_TRUE(std::all_of(frame.begin() + CPlc::kDelay, frame.end(),
                              [](std::int16_t s) { return s == 0; }));
    }
    if (k >= 8) {
      EXPECT_TRUE(std::all_of(frame.begin(), frame.end(), [](std::int16_t s) { return s == 0; }));
    }
  }
}

TEST(Plc, FirstGoodFrameCrossFadesFromTheReplay) {
  // One row per length of loss: the fade back to real sound is poverlap long, 32 longer
  // for each further lost frame up to a whole frame, and starts from the level the replay
  // had reached.
  constexpr int kPeriod = 240;  // poverlap 60
  struct Row {
    int lost;
    int overlap;
    double gain;
  };
  const Row rows[] = {{1, 60, 1.0}, {2, 92, 0.8}, {3, 124, 0.6}, {4, 156, 0.4},
                      {5, 160, 0.2}, {6, 160, 0.0}, {7, 160, 0.0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.lost << " lost frames");
    auto plc = std::make_unique<CPlc>();
    const Periodic signal(kPeriod);
    const long loss_start = FeedGood(*plc, signal, 8);
    Frame frame{};
    for (int k = 0; k < row.lost; ++k) plc->Conceal(frame);
    ASSERT_EQ(plc->poverlap(), kPeriod / 4);

    // Real sound of silence, so that what is left is the faded replay alone.
    Frame first{};
    plc->AddToHistory(first);
    EXPECT_EQ(plc->erasecnt(), 0);
    Frame second{};
    plc->AddToHistory(second);
    std::array<std::int16_t, CPlc::kFrame> blended{};
    std::copy(first.begin() + CPlc::kDelay, first.end(), blended.begin());
    std::copy(second.begin(), second.begin() + CPlc::kDelay,
              blended.begin() + (CPlc::kFrame - CPlc::kDelay));

    const long resume = loss_start + static_cast<long>(row.lost) * CPlc::kFrame;
    for (int i = 0; i < CPlc::kFrame; ++i) {
      double expected = 0.0;
      if (i < row.overlap) {
        const double weight = row.gain * (1.0 - static_cast<double>(i + 1) / row.overlap);
        expected = signal(resume + i) * weight;
      }
      ASSERT_NEAR(blended[static_cast<std::size_t>(i)], expected, 3.0) << "sample " << i;
    }
  }
}

TEST(Plc, FullScaleSoundStaysInRange) {
  // A full-scale square wave puts every weighted sum at the edge of the 16-bit range; a
  // sum that is not clipped would wrap to the other end.
  auto plc = std::make_unique<CPlc>();
  auto square = [](long t) { return (t / 125) % 2 ? 32767 : -32768; };
  long t = 0;
  for (int k = 0; k < 8; ++k) {
    Frame frame{};
    for (auto& s : frame) s = static_cast<std::int16_t>(square(t++));
    plc->AddToHistory(frame);
  }
  Frame frame{};
  plc->Conceal(frame);
  EXPECT_EQ(plc->pitch(), 250);
  for (int i = 0; i < CPlc::kFrame; ++i) {
    ASSERT_NEAR(frame[static_cast<std::size_t>(i)], square(t - CPlc::kDelay + i), 3.0) << i;
  }
  Frame good{};
  good.fill(32767);
  plc->AddToHistory(good);  // the fade back blends two full-scale signals
  for (int i = 0; i < CPlc::kDelay; ++i) {
    ASSERT_NEAR(good[static_cast<std::size_t>(i)], square(t + CPlc::kFrame - CPlc::kDelay + i), 3.0)
        << i;
  }
}

}  // namespace
}  // namespace deskline
