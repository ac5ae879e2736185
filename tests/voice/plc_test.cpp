#include "voice/plc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace deskline {
namespace {

using Frame = std::array<std::int16_t, CPlc::kFrame>;
using Signal = std::function<int(long)>;
constexpr long kN = CPlc::kFrame;

// Repeats exactly every `period` samples; the harmonics let only the true period correlate.
Signal Periodic(int period) {
  return [period](long t) {
    const double phase = 2.0 * std::numbers::pi * static_cast<double>(t % period) / period;
    return static_cast<int>(std::lround(9000.0 * std::sin(phase) + 2000.0 * std::cos(5.0 * phase) +
                                        4000.0 * std::sin(3.0 * phase + 0.7)));
  };
}

Frame FrameAt(const Signal& signal, long first) {
  Frame frame{};
  for (long i = 0; i < kN; ++i) frame[i] = static_cast<std::int16_t>(signal(first + i));
  return frame;
}

// A new concealer that has had `frames` good frames of `signal`, from time 0.
std::unique_ptr<CPlc> Fed(const Signal& signal, long frames) {
  auto plc = std::make_unique<CPlc>();
  for (long k = 0; k < frames; ++k) {
    Frame frame = FrameAt(signal, k * kN);
    plc->AddToHistory(frame);
  }
  return plc;
}

bool Silent(const std::int16_t* from, const std::int16_t* to) {
  return std::all_of(from, to, [](std::int16_t s) { return s == 0; });
}

TEST(Plc, PitchOfTheHistory) {
  // A silent history scores 0 everywhere: the coarse search ends on 201.
  const std::pair<int, Signal> rows[] = {{201, [](long) { return 0; }}, {200, Periodic(200)},
                                         {201, Periodic(201)},          {247, Periodic(247)},
                                         {299, Periodic(299)},          {300, Periodic(300)}};
  for (const auto& [pitch, signal] : rows) {
    SCOPED_TRACE(pitch);
    auto plc = Fed(signal, 8);
    Frame frame;
    frame.fill(1234);  // Conceal overwrites whatever is there
    plc->Conceal(frame);
    EXPECT_EQ(plc->pitch(), pitch);
    EXPECT_EQ(plc->erasecnt(), 1);
    EXPECT_EQ(Silent(frame.begin(), frame.end()), &signal == &rows[0].second);
  }
}

TEST(Plc, GoodFramesComeOut75SamplesLate) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> level(-32768, 32767);
  std::vector<int> in(12 * kN);
  for (int& s : in) s = level(random);
  CPlc plc;
  for (long k = 0; k < 12; ++k) {
    Frame frame = FrameAt([&](long t) { return in[t]; }, k * kN);
    plc.AddToHistory(frame);
    for (long i = 0; i < kN; ++i) {
      const long t = k * kN + i - CPlc::kDelay;
      ASSERT_EQ(frame[i], t < 0 ? 0 : in[t]) << t;
    }
  }
}

TEST(Plc, LossReplaysThePeriodAndFadesOverSixFrames) {
  // From the second lost frame the level falls 0.2 a frame, linearly inside each frame.
  auto gain = [](long u) {  // u samples into the loss
    const long frame = u < 0 ? 0 : u / kN;
    return frame == 0 ? 1.0 : frame > 5 ? 0.0 : 1.0 - (frame - 1) * 0.2 - (u % kN) * 0.00125;
  };
  const Signal signal = Periodic(240);
  auto plc = Fed(signal, 8);
  for (long k = 0; k < 9; ++k) {
    SCOPED_TRACE(::testing::Message() << "lost frame " << k + 1);
    Frame frame{};
    plc->Conceal(frame);
    EXPECT_EQ(plc->erasecnt(), k + 1);
    for (long i = 0; i < kN; ++i) {
      const long u = k * kN + i - CPlc::kDelay;  // made 75 samples ago
      ASSERT_NEAR(frame[i], signal(8 * kN + u) * gain(u), 3.0) << i;
    }
    // The seventh frame made is silent (120 ms); only the sixth's tail still comes out.
    EXPECT_EQ(Silent(frame.begin() + CPlc::kDelay, frame.end()), k >= 6);
    EXPECT_EQ(Silent(frame.begin(), frame.end()), k >= 7);
  }
}

TEST(Plc, FirstGoodFrameCrossFadesFromTheReplay) {
  // The fade back is poverlap (60) long, 32 longer per further lost frame up to a whole
  // frame, and starts from the level the replay had reached.
  const Signal signal = Periodic(240);
  const std::array<double, 3> rows[] = {{1, 60, 1.0},  {2, 92, 0.8},  {3, 124, 0.6}, {4, 156, 0.4},
                                        {5, 160, 0.2}, {6, 160, 0.0}, {7, 160, 0.0}};
  for (const auto& [lost, overlap, level] : rows) {
    SCOPED_TRACE(::testing::Message() << lost << " lost frames");
    auto plc = Fed(signal, 8);
    Frame out{}, next{};
    for (int k = 0; k < lost; ++k) plc->Conceal(out);
    // Real sound of silence, so that what comes out is the faded replay alone.
    out.fill(0);
    plc->AddToHistory(out);
    EXPECT_EQ(plc->erasecnt(), 0);
    plc->AddToHistory(next);
    const long resume = (8 + static_cast<long>(lost)) * kN;
    for (long i = 0; i < kN; ++i) {
      const double weight = i < overlap ? level * (1.0 - (i + 1) / overlap) : 0.0;
      const int got = i < kN - CPlc::kDelay ? out[i + CPlc::kDelay] : next[i - (kN - CPlc::kDelay)];
      ASSERT_NEAR(got, signal(resume + i) * weight, 3.0) << i;
    }
  }
}

TEST(Plc, FullScaleSoundStaysInRange) {
  // A full-scale square wave puts every weighted sum at the edge of the 16-bit range; a sum
  // that is not clipped would wrap to the other end.
  const Signal square = [](long t) { return (t / 125) % 2 ? 32767 : -32768; };
  auto plc = Fed(square, 8);
  Frame frame{};
  plc->Conceal(frame);
  EXPECT_EQ(plc->pitch(), 250);
  for (long i = 0; i < kN; ++i) ASSERT_NEAR(frame[i], square(8 * kN - CPlc::kDelay + i), 3.0) << i;
  frame.fill(32767);
  plc->AddToHistory(frame);  // the fade back blends two full-scale signals
  for (long i = 0; i < CPlc::kDelay; ++i) {
    ASSERT_NEAR(frame[i], square(9 * kN - CPlc::kDelay + i), 3.0) << i;
  }
}

}  // namespace
}  // namespace deskline
