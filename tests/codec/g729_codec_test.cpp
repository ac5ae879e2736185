// G.729 through bcg729, as the Wave session uses it: 20 ms packets of two frames through the
// codec library. The quality figure is a signal-to-noise ratio on a 1 kHz tone, measured after
// aligning the decoded sound for the codec's delay.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "codec/codec_lib.h"
#include "codec/g729_codec.h"

namespace deskline {
namespace {

using Samples = std::vector<std::int16_t>;

Samples Tone(std::size_t count, double hz, double amplitude) {
  Samples s(count);
  for (std::size_t i = 0; i < count; ++i) {
    s[i] = static_cast<std::int16_t>(amplitude * std::sin(2 * M_PI * hz * i / 8000.0));
  }
  return s;
}

// Signal-to-noise ratio in dB of `decoded` over [from, to) against the input tone of `hz` and
// `amplitude`, delayed to line up with it. The delay comes from the phase of the decoded
// tone (a least-squares fit of sine and cosine), so that it may be a fraction of a sample:
// at 1 kHz one sample is 45 degrees, and a whole-sample alignment would measure mostly the
// rounding. The codec's gain error stays in the noise. `delay_samples` receives the delay
// modulo one period.
double ToneSnrDb(const Samples& decoded, double hz, double amplitude, std::size_t from,
                 std::size_t to, double* delay_samples) {
  const double w = 2 * M_PI * hz / 8000.0;
  double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
  for (std::size_t i = from; i < to; ++i) {
    const double s = std::sin(w * i), c = std::cos(w * i), y = decoded[i];
    ss += s * s;
    cc += c * c;
    sc += s * c;
    ys += y * s;
    yc += y * c;
  }
  const double det = ss * cc - sc * sc;
  const double a = (ys * cc - yc * sc) / det;
  const double b = (yc * ss - ys * sc) / det;
  const double phase = std::atan2(b, a);
  const double period = 8000.0 / hz;
  *delay_samples = std::fmod(-phase / w + period, period);
  double signal = 0, noise = 0;
  for (std::size_t i = from; i < to; ++i) {
    const double reference = amplitude * std::sin(w * i + phase);
    const double e = reference - decoded[i];
    signal += reference * reference;
    noise += e * e;
  }
  return noise == 0 ? 200.0 : 10 * std::log10(signal / noise);
}

// Codes `input` in 20 ms packets through the library as the session does, skipping the
// packets in `lost` at the decoder. Lost packets leave silence in the output.
Samples RoundTrip(const Samples& input, const std::vector<std::size_t>& lost = {}) {
  CodecHandle* encoder = nullptr;
  CodecHandle* decoder = nullptr;
  EXPECT_EQ(codecLibOpen(&encoder, kCodecG729, kCodecEncode, 0), 0);
  EXPECT_EQ(codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0), 0);
  Samples output(input.size(), 0);
  for (std::size_t p = 0; p < input.size() / 160; ++p) {
    std::uint8_t payload[20];
    std::uint32_t samples = 160;
    std::uint32_t bytes = 20;
    EXPECT_EQ(codecLibEncode(encoder, input.data() + 160 * p, &samples, payload, &bytes, nullptr, 0),
              0);
    EXPECT_EQ(bytes, 20u);
    bool skip = false;
    for (std::size_t l : lost) skip = skip || l == p;
    if (skip) continue;
    std::uint32_t in = 20;
    std::uint32_t out = 160;
    EXPECT_EQ(codecLibDecode(decoder, payload, &in, output.data() + 160 * p, &out, nullptr, 0), 0);
    EXPECT_EQ(out, 160u);
  }
  codecLibClose(encoder, 0);
  codecLibClose(decoder, 0);
  return output;
}

TEST(G729Codec, AToneSurvivesTheRoundTrip) {
  const Samples tone = Tone(8000, 1000, 8000);  // one second
  const Samples decoded = RoundTrip(tone);
  double delay = 0;
  // From 200 ms on, when the coder has settled.
  const double snr = ToneSnrDb(decoded, 1000, 8000, 1600, 8000, &delay);
  std::printf("G.729 1 kHz tone: SNR %.1f dB (delay %.2f samples modulo the period)\n", snr,
              delay);
  ::testing::Test::RecordProperty("snr_db_x10", static_cast<int>(snr * 10));
  EXPECT_GT(snr, 15.0);
}

// The decoder is never told of a loss: it simply gets the next frame, and the sound after the
// gap comes back.
TEST(G729Codec, TheDecoderCarriesOnAfterALostPacket) {
  const Samples tone = Tone(8000, 1000, 8000);
  const Samples gapped = RoundTrip(tone, {20});  // 400 to 420 ms missing
  double delay = 0;
  EXPECT_GT(ToneSnrDb(gapped, 1000, 8000, 4800, 8000, &delay), 15.0);
}

TEST(G729Codec, EveryFrameIsTenBytesSilenceIncluded) {
  auto encoder = G729Codec::Make(G729Codec::kEncoder);
  ASSERT_NE(encoder, nullptr);
  const std::int16_t zeros[80] = {};
  for (int i = 0; i < 20; ++i) {
    std::uint8_t out[10];
    ASSERT_EQ(encoder->Encode(zeros, out), 0) << i;
  }
}

TEST(G729Codec, EachObjectWorksOneDirectionOnly) {
  EXPECT_EQ(G729Codec::Make(2), nullptr);
  EXPECT_EQ(G729Codec::Make(-1), nullptr);
  auto encoder = G729Codec::Make(G729Codec::kEncoder);
  auto decoder = G729Codec::Make(G729Codec::kDecoder);
  ASSERT_NE(encoder, nullptr);
  ASSERT_NE(decoder, nullptr);
  std::uint8_t bytes[10] = {};
  std::int16_t samples[80] = {};
  EXPECT_EQ(encoder->Decode(bytes, samples), 1);
  EXPECT_EQ(decoder->Encode(samples, bytes), 1);
  // Any 10 bytes decode as a voice frame.
  std::uint8_t noise[10] = {0xFF, 0x00, 0xA5, 0x5A, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  EXPECT_EQ(decoder->Decode(noise, samples), 0);
}

}  // namespace
}  // namespace deskline
