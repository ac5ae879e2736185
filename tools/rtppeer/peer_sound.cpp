#include "tools/rtppeer/peer_sound.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

namespace deskline::sim {
namespace {

std::int16_t ToSample(double v) {
  return static_cast<std::int16_t>(std::lround(std::clamp(v, -32768.0, 32767.0)));
}

struct SndCloser {
  void operator()(SNDFILE* f) const { sf_close(f); }
};

}  // namespace

ToneGenerator::ToneGenerator(double frequency_hz, double level_dbfs, int sample_rate)
    : step_(2.0 * std::numbers::pi * frequency_hz / sample_rate),
      amplitude_(32768.0 * std::pow(10.0, level_dbfs / 20.0)) {}

void ToneGenerator::Fill(std::span<std::int16_t> out) {
  for (auto& s : out) {
    s = ToSample(amplitude_ * std::sin(phase_));
    phase_ += step_;
    // Keep the phase small so that long runs stay exact.
    if (phase_ > 2.0 * std::numbers::pi) phase_ -= 2.0 * std::numbers::pi;
  }
}

std::vector<std::int16_t> MakeTone(double frequency_hz, double level_dbfs, std::size_t samples,
                                   int sample_rate) {
  std::vector<std::int16_t> out(samples);
  ToneGenerator(frequency_hz, level_dbfs, sample_rate).Fill(out);
  return out;
}

std::vector<std::int16_t> Resample(std::span<const std::int16_t> in, int from_rate, int to_rate) {
  if (in.empty() || from_rate <= 0 || to_rate <= 0) return {};
  if (from_rate == to_rate) return {in.begin(), in.end()};
  const auto count = static_cast<std::size_t>(
      std::llround(static_cast<double>(in.size()) * to_rate / from_rate));
  std::vector<std::int16_t> out(count);
  const double ratio = static_cast<double>(from_rate) / to_rate;
  for (std::size_t i = 0; i < count; ++i) {
    const double pos = static_cast<double>(i) * ratio;
    const auto j = std::min(static_cast<std::size_t>(pos), in.size() - 1);
    const double frac = pos - static_cast<double>(j);
    const double a = in[j];
    const double b = (j + 1 < in.size()) ? in[j + 1] : a;
    out[i] = ToSample(a + (b - a) * frac);
  }
  return out;
}

WavReadResult ReadWavAs8kMono(const std::string& path) {
  WavReadResult r;
  SF_INFO info{};
  std::unique_ptr<SNDFILE, SndCloser> file(sf_open(path.c_str(), SFM_READ, &info));
  if (!file) {
    r.error = std::string("cannot open ") + path + ": " + sf_strerror(nullptr);
    return r;
  }
  if (info.channels <= 0 || info.samplerate <= 0) {
    r.error = "no sound in " + path;
    return r;
  }
  // Float files must be scaled like integer ones, or they read as near silence.
  sf_command(file.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
  const auto channels = static_cast<std::size_t>(info.channels);
  std::vector<std::int16_t> mono;
  std::vector<std::int16_t> block(4096 * channels);
  for (;;) {
    const sf_count_t got = sf_readf_short(file.get(), block.data(), 4096);
    if (got <= 0) break;
    for (sf_count_t f = 0; f < got; ++f) {
      long sum = 0;
      for (std::size_t c = 0; c < channels; ++c) sum += block[static_cast<std::size_t>(f) * channels + c];
      mono.push_back(static_cast<std::int16_t>(sum / static_cast<long>(channels)));
    }
  }
  r.samples = Resample(mono, info.samplerate, kPeerSampleRate);
  return r;
}

std::string WriteWav(const std::string& path, std::span<const std::int16_t> samples, int sample_rate,
                     int channels) {
  if (channels <= 0 || sample_rate <= 0) return "bad format for " + path;
  SF_INFO info{};
  info.samplerate = sample_rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  std::unique_ptr<SNDFILE, SndCloser> file(sf_open(path.c_str(), SFM_WRITE, &info));
  if (!file) return std::string("cannot create ") + path + ": " + sf_strerror(nullptr);
  const auto n = static_cast<sf_count_t>(samples.size() / static_cast<std::size_t>(channels));
  if (sf_writef_short(file.get(), samples.data(), n) != n) return "short write to " + path;
  return {};
}

}  // namespace deskline::sim
