#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <random>

#include "voice/buffer.h"

namespace deskline {
namespace {

constexpr std::uint32_t kLength = DelayWindow::kLength;

// The plain table that the window stands for, scanned whole.
struct ScannedTable {
  std::array<std::uint32_t, kLength> values{};
  void Write(std::uint32_t index, std::uint32_t v) { values[index % kLength] = v; }
  std::uint32_t Max() const { return *std::max_element(values.begin(), values.end()); }
};

TEST(DelayWindow, OldValuesCountUntilTheirPlaceIsWrittenAgain) {
  auto window = std::make_unique<DelayWindow>();
  EXPECT_EQ(window->Max(), 0u);
  window->Write(1, 7);
  window->Write(5, 40);
  // Three laps in which place 5 is skipped (stores without a sample) and place 1 is not.
  for (std::uint32_t i = 2; i < 2 + 3 * kLength; ++i) {
    if (i % kLength != 5) window->Write(i, 3);
  }
  EXPECT_EQ(window->Max(), 40u);
  window->Write(5, 2);
  EXPECT_EQ(window->Max(), 3u);
}

TEST(DelayWindow, MatchesAFullScanAtEveryStep) {
  // Random delays, random runs of stores without a sample, occasional spikes, and the jump
  // of the store counter's modulo where the 32-bit count wraps (1,295 to 0).
  auto window = std::make_unique<DelayWindow>();
  auto table = std::make_unique<ScannedTable>();
  std::mt19937 random(2024);
  std::uniform_int_distribution<int> delay(0, 6);
  std::uniform_int_distribution<int> percent(0, 99);
  // The store count runs through 2^32 halfway: its place jumps from 1,295 to 0.
  std::uint32_t stored = 0xFFFFFFFFu - 20000;
  for (int step = 0; step < 40000; ++step) {
    ++stored;
    if (percent(random) < 20) continue;  // a store that took no sample
    std::uint32_t value = static_cast<std::uint32_t>(delay(random));
    if (percent(random) == 0) value = 30 + static_cast<std::uint32_t>(percent(random));
    window->Write(stored % kLength, value);
    table->Write(stored % kLength, value);
    ASSERT_EQ(window->Max(), table->Max()) << "step " << step;
  }
}

TEST(DelayWindow, FallingSeriesExpiresOneByOne) {
  // The worst case for the queue: every entry is a candidate until it expires.
  auto window = std::make_unique<DelayWindow>();
  auto table = std::make_unique<ScannedTable>();
  std::uint32_t index = 1;
  for (std::uint32_t v = 3 * kLength; v > 0; --v, ++index) {
    window->Write(index, v);
    table->Write(index, v);
    ASSERT_EQ(window->Max(), table->Max()) << v;
  }
}

}  // namespace
}  // namespace deskline
