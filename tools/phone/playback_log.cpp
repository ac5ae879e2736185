#include "tools/phone/playback_log.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numbers>
#include <optional>

#include "tools/phone/voice_pacer.h"

namespace deskline::phone {
namespace {

constexpr std::size_t kFields = 9;
constexpr double kSoundingDbfs = -45;

template <typename T>
std::optional<T> Number(std::string_view text) {
  T value{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::string_view> SplitTabs(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= line.size(); ++i) {
    if (i == line.size() || line[i] == '\t') {
      fields.push_back(line.substr(start, i - start));
      start = i + 1;
    }
  }
  return fields;
}

double FrameDbfs(std::span<const std::int16_t> frame) {
  double sum = 0;
  for (std::int16_t s : frame) sum += double(s) * s;
  const double rms = std::sqrt(sum / static_cast<double>(frame.size()));
  // A full-scale sine is 0 dBFS, so a tone reads at its peak level.
  return rms <= 0 ? -120.0 : 20 * std::log10(rms * std::numbers::sqrt2 / 32768.0);
}

}  // namespace

double PlaybackStream::seconds() const {
  const std::uint64_t bytes_per_second = std::uint64_t{rate} * channels * (bits / 8);
  return bytes_per_second == 0 ? 0.0 : static_cast<double>(bytes) / static_cast<double>(bytes_per_second);
}

std::vector<PlaybackStream> ParsePlaybackLog(std::string_view text) {
  std::vector<PlaybackStream> streams;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::vector<std::string_view> f = SplitTabs(line);
    if (f.size() < kFields) continue;
    const auto sequence = Number<std::uint64_t>(f[0]);
    const auto rate = Number<std::uint32_t>(f[2]);
    const auto channels = Number<std::uint32_t>(f[3]);
    const auto bits = Number<std::uint32_t>(f[4]);
    const auto writes = Number<std::uint64_t>(f[5]);
    const auto bytes = Number<std::uint64_t>(f[6]);
    if (!sequence || !rate || !channels || !bits || !writes || !bytes) continue;
    streams.push_back(PlaybackStream{*sequence, std::string(f[1]), *rate, *channels, *bits, *writes,
                                     *bytes, std::string(f[7]), std::string(f[8])});
  }
  return streams;
}

PlaybackSummary SummarisePlayback(std::span<const PlaybackStream> streams) {
  PlaybackSummary summary;
  const PlaybackStream* voice = nullptr;
  for (const PlaybackStream& s : streams) {
    const bool voice_format = s.rate == 8000 && s.channels == 1 && s.bits == 16;
    if (voice_format && (voice == nullptr || s.sequence < voice->sequence)) voice = &s;
  }
  if (voice != nullptr) {
    summary.voice_found = true;
    summary.voice_frames = voice->bytes / kFrameBytes;
    summary.voice_file = voice->file;
  }
  for (const PlaybackStream& s : streams) {
    if (&s == voice) continue;
    ++summary.sound_streams;
    summary.sound_plays += s.writes;
    summary.sound_seconds += s.seconds();
    if (s.writes > 0 && !s.silent()) summary.sound_audible = true;
  }
  return summary;
}

SoundMeasure MeasureSound(std::span<const std::int16_t> samples) {
  SoundMeasure measure;
  const std::size_t frames = samples.size() / kFrameSamples;
  std::vector<bool> sounding(frames);
  std::vector<double> levels;
  for (std::size_t f = 0; f < frames; ++f) {
    const double level = FrameDbfs(samples.subspan(f * kFrameSamples, kFrameSamples));
    sounding[f] = level > kSoundingDbfs;
    if (sounding[f]) levels.push_back(level);
  }
  measure.sounding_frames = levels.size();
  if (levels.empty()) return measure;
  std::nth_element(levels.begin(), levels.begin() + static_cast<std::ptrdiff_t>(levels.size() / 2), levels.end());
  measure.level_dbfs = levels[levels.size() / 2];
  // The frequency from frames inside a sounding stretch, so that onsets, fades and the
  // crossings at a stretch's edges do not count; two crossings a cycle.
  std::size_t crossings = 0;
  std::size_t steps = 0;
  for (std::size_t f = 1; f + 1 < frames; ++f) {
    if (!sounding[f - 1] || !sounding[f] || !sounding[f + 1]) continue;
    for (std::size_t i = f * kFrameSamples; i < (f + 1) * kFrameSamples; ++i) {
      crossings += (samples[i - 1] < 0) != (samples[i] < 0);
      ++steps;
    }
  }
  if (steps > 0) measure.frequency_hz = static_cast<double>(crossings) / 2.0 / (static_cast<double>(steps) / 8000.0);
  return measure;
}

}  // namespace deskline::phone
