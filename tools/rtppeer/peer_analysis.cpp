#include "tools/rtppeer/peer_analysis.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <set>
#include <vector>

namespace deskline::sim {

double RmsDbfs(std::span<const std::int16_t> samples) {
  if (samples.empty()) return -std::numeric_limits<double>::infinity();
  double sum = 0.0;
  for (const std::int16_t s : samples) sum += static_cast<double>(s) * s;
  const double rms = std::sqrt(sum / static_cast<double>(samples.size()));
  if (rms == 0.0) return -std::numeric_limits<double>::infinity();
  return 20.0 * std::log10(rms * std::numbers::sqrt2 / 32768.0);
}

double GoertzelPower(std::span<const std::int16_t> samples, double frequency_hz, int sample_rate) {
  if (samples.empty() || sample_rate <= 0) return 0.0;
  const double w = 2.0 * std::numbers::pi * frequency_hz / sample_rate;
  const double coeff = 2.0 * std::cos(w);
  double s1 = 0.0;
  double s2 = 0.0;
  for (const std::int16_t x : samples) {
    const double s0 = x + coeff * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  const double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
  const double n = static_cast<double>(samples.size());
  return power / (n * n);
}

double DominantFrequency(std::span<const std::int16_t> samples, std::span<const double> candidates_hz,
                         int sample_rate) {
  double best = 0.0;
  double best_power = 0.0;
  for (const double f : candidates_hz) {
    const double p = GoertzelPower(samples, f, sample_rate);
    if (p > best_power) {
      best_power = p;
      best = f;
    }
  }
  return best;
}

double DominantFrequency(std::span<const std::int16_t> samples, int sample_rate) {
  if (samples.empty() || sample_rate <= 0) return 0.0;
  // Coarse: 50 ms is wide enough in frequency that a 10 Hz grid cannot step over a tone.
  const std::size_t coarse_n = std::min<std::size_t>(samples.size(), static_cast<std::size_t>(sample_rate / 20));
  std::vector<double> grid;
  for (int f = 50; f <= 3950; f += 10) grid.push_back(f);
  const double coarse = DominantFrequency(samples.first(coarse_n), grid, sample_rate);
  if (coarse == 0.0) return 0.0;
  // Fine: the whole buffer around the coarse peak, in half-hertz steps.
  grid.clear();
  for (double f = coarse - 20.0; f <= coarse + 20.0; f += 0.5) grid.push_back(f);
  return DominantFrequency(samples, grid, sample_rate);
}

double ZeroCrossingFrequency(std::span<const std::int16_t> samples, int sample_rate) {
  double first = -1.0;
  double last = -1.0;
  int crossings = 0;
  for (std::size_t i = 1; i < samples.size(); ++i) {
    const double a = samples[i - 1];
    const double b = samples[i];
    if (a < 0.0 && b >= 0.0) {
      const double at = static_cast<double>(i - 1) + (-a) / (b - a);
      if (crossings == 0) first = at;
      last = at;
      ++crossings;
    }
  }
  if (crossings < 2 || last <= first) return 0.0;
  return (crossings - 1) * static_cast<double>(sample_rate) / (last - first);
}

std::vector<std::int64_t> ExtendSequence(std::span<const std::uint16_t> arrival_order) {
  std::vector<std::int64_t> out;
  out.reserve(arrival_order.size());
  std::int64_t highest = 0;
  for (const std::uint16_t seq : arrival_order) {
    std::int64_t ext = seq;
    if (!out.empty()) {
      // The step from the highest so far, read as a signed 16-bit distance.
      const auto delta =
          static_cast<std::int16_t>(static_cast<std::uint16_t>(seq - static_cast<std::uint16_t>(highest)));
      ext = highest + delta;
    }
    if (out.empty() || ext > highest) highest = ext;
    out.push_back(ext);
  }
  return out;
}

SequenceStats AnalyzeSequence(std::span<const std::uint16_t> arrival_order) {
  SequenceStats st;
  std::set<std::int64_t> seen;
  bool any = false;
  std::int64_t highest = 0;
  for (const std::int64_t ext : ExtendSequence(arrival_order)) {
    ++st.received;
    if (!seen.insert(ext).second) {
      ++st.duplicates;
      continue;
    }
    if (any && ext < highest) ++st.reordered;
    if (!any || ext > highest) highest = ext;
    any = true;
  }
  st.unique = static_cast<std::uint32_t>(seen.size());
  if (any) {
    st.first = *seen.begin();
    st.last = *seen.rbegin();
    st.lost = static_cast<std::uint32_t>(st.last - st.first + 1 - static_cast<std::int64_t>(st.unique));
  }
  return st;
}

}  // namespace deskline::sim
