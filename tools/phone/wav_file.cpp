#include "tools/phone/wav_file.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>

namespace deskline::phone {
namespace {

std::int16_t ToSample(double value) {
  const double scaled = std::round(value * 32768.0);
  return static_cast<std::int16_t>(std::clamp(scaled, -32768.0, 32767.0));
}

}  // namespace

std::vector<std::int16_t> Resample(std::span<const float> mono, int from_rate_hz, int to_rate_hz) {
  std::vector<std::int16_t> out;
  if (mono.empty() || from_rate_hz <= 0 || to_rate_hz <= 0) return out;
  const double step = static_cast<double>(from_rate_hz) / to_rate_hz;  // input samples per output
  const auto count = static_cast<std::size_t>(static_cast<double>(mono.size()) / step);
  out.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const double position = static_cast<double>(i) * step;
    if (step > 1.0) {
      const auto begin = static_cast<std::size_t>(position);
      const auto end = std::min(mono.size(), std::max(begin + 1, static_cast<std::size_t>(position + step)));
      double sum = 0;
      for (std::size_t j = begin; j < end; ++j) sum += mono[j];
      out.push_back(ToSample(sum / static_cast<double>(end - begin)));
    } else {
      const auto at = static_cast<std::size_t>(position);
      const double fraction = position - static_cast<double>(at);
      const float next = at + 1 < mono.size() ? mono[at + 1] : mono[at];
      out.push_back(ToSample(mono[at] * (1.0 - fraction) + next * fraction));
    }
  }
  return out;
}

bool ReadSoundAs8kMono(const std::string& path, std::vector<std::int16_t>* samples,
                       std::string* error) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) {
    *error = "cannot read " + path + ": " + sf_strerror(nullptr);
    return false;
  }
  if (info.channels < 1 || info.samplerate <= 0) {
    sf_close(file);
    *error = path + ": no channels or no sample rate";
    return false;
  }
  if (static_cast<double>(info.frames) > kMaxSoundSeconds * info.samplerate) {
    sf_close(file);
    *error = path + ": longer than " + std::to_string(static_cast<int>(kMaxSoundSeconds)) + " s";
    return false;
  }
  // Read in blocks and mix: the frame count of a damaged file may promise more than is there.
  const auto channels = static_cast<std::size_t>(info.channels);
  std::vector<float> block(1024 * channels);
  std::vector<float> mono;
  for (;;) {
    const sf_count_t got = sf_readf_float(file, block.data(), 1024);
    if (got <= 0) break;
    for (sf_count_t f = 0; f < got; ++f) {
      double sum = 0;
      for (std::size_t c = 0; c < channels; ++c) sum += block[static_cast<std::size_t>(f) * channels + c];
      mono.push_back(static_cast<float>(sum / static_cast<double>(channels)));
    }
    if (static_cast<double>(mono.size()) > kMaxSoundSeconds * info.samplerate) break;
  }
  sf_close(file);
  if (mono.empty()) {
    *error = path + ": no sound in the file";
    return false;
  }
  *samples = Resample(mono, info.samplerate, kVoiceRateHz);
  return true;
}

WavWriter::~WavWriter() { Close(); }

bool WavWriter::Open(const std::string& path, std::string* error) {
  Close();
  SF_INFO info{};
  info.samplerate = kVoiceRateHz;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file == nullptr) {
    *error = "cannot write " + path + ": " + sf_strerror(nullptr);
    return false;
  }
  file_ = file;
  samples_written_ = 0;
  return true;
}

bool WavWriter::Write(std::span<const std::int16_t> samples) {
  if (file_ == nullptr) return false;
  const sf_count_t written = sf_write_short(static_cast<SNDFILE*>(file_), samples.data(),
                                            static_cast<sf_count_t>(samples.size()));
  if (written > 0) samples_written_ += written;
  return written == static_cast<sf_count_t>(samples.size());
}

void WavWriter::Close() {
  if (file_ != nullptr) {
    sf_close(static_cast<SNDFILE*>(file_));
    file_ = nullptr;
  }
}

}  // namespace deskline::phone
