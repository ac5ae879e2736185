// Measurements on received sound and on received sequence numbers. They take any buffer, so
// that tests of the terminal's own recordings can use them too.
//
// Thread rules: pure functions; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace deskline::sim {

// RMS level in dBFS on the sine scale (a full-scale sine reads 0). -infinity for silence or
// an empty buffer.
double RmsDbfs(std::span<const std::int16_t> samples);

// Goertzel power of one frequency, normalised so that a sine of amplitude A over the whole
// buffer reads about (A/2)^2. 0 for an empty buffer.
double GoertzelPower(std::span<const std::int16_t> samples, double frequency_hz, int sample_rate = 8000);

// The candidate with the most Goertzel power; 0 if there is no candidate or no sound.
double DominantFrequency(std::span<const std::int16_t> samples, std::span<const double> candidates_hz,
                         int sample_rate = 8000);
// Any frequency from 50 Hz to 3950 Hz: a 10 Hz grid over the first 50 ms, then half-hertz
// steps over the whole buffer around the peak.
double DominantFrequency(std::span<const std::int16_t> samples, int sample_rate = 8000);

// Frequency from the rising zero crossings, interpolated between samples: right for a single
// tone, meaningless for a mixture. 0 with fewer than two rising crossings.
double ZeroCrossingFrequency(std::span<const std::int16_t> samples, int sample_rate = 8000);

struct SequenceStats {
  std::uint32_t received = 0;    // packets, duplicates included
  std::uint32_t unique = 0;      // distinct sequence numbers
  std::uint32_t duplicates = 0;  // received - unique
  std::uint32_t lost = 0;        // numbers missing between the lowest and the highest
  std::uint32_t reordered = 0;   // arrivals below the highest number seen before them
  std::int64_t first = 0;        // lowest and highest, extended over the 16-bit wrap
  std::int64_t last = 0;
};

// Sequence numbers in arrival order on the extended scale: each is placed nearest to the
// highest number so far, so 65535 followed by 0 reads as n, n + 1.
std::vector<std::int64_t> ExtendSequence(std::span<const std::uint16_t> arrival_order);

// Sequence numbers in arrival order. Each is placed on the extended scale nearest to the
// highest so far, so a wrap from 65535 to 0 is a step of one.
SequenceStats AnalyzeSequence(std::span<const std::uint16_t> arrival_order);

}  // namespace deskline::sim
