// The codec library over row 16: what is kept between calls, every error result, and the
// quality of G.729 in 20 ms packets. Frames are compared with G729Codec driven directly, so that
// a sample kept in the wrong place shows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "codec/codec_lib.h"
#include "codec/g729_codec.h"

namespace deskline {
namespace {

using Samples = std::vector<std::int16_t>;
using Bytes = std::vector<std::uint8_t>;

Samples Tone(std::size_t count, double hz, double amplitude) {
  Samples s(count);
  for (std::size_t i = 0; i < count; ++i) {
    s[i] = static_cast<std::int16_t>(amplitude * std::sin(2 * M_PI * hz * i / 8000));
  }
  return s;
}

Bytes DirectEncode(const Samples& samples) {
  auto codec = G729Codec::Make(G729Codec::kEncoder);
  Bytes out(samples.size() / 80 * 10);
  for (std::size_t f = 0; f < samples.size() / 80; ++f) {
    EXPECT_EQ(codec->Encode(std::span<const std::int16_t, 80>(&samples[80 * f], 80),
                            std::span<std::uint8_t, 10>(&out[10 * f], 10)), 0);
  }
  return out;
}

Samples DirectDecode(const Bytes& bytes) {
  auto codec = G729Codec::Make(G729Codec::kDecoder);
  Samples out(bytes.size() / 10 * 80);
  for (std::size_t f = 0; f < bytes.size() / 10; ++f) {
    EXPECT_EQ(codec->Decode(std::span<const std::uint8_t, 10>(&bytes[10 * f], 10),
                            std::span<std::int16_t, 80>(&out[80 * f], 80)), 0);
  }
  return out;
}

template <typename T>
std::vector<T> Slice(const std::vector<T>& v, std::size_t from, std::size_t to) {
  return std::vector<T>(v.begin() + from, v.begin() + to);
}

class CodecLibTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(codecLibOpen(&encoder_, kCodecG729, kCodecEncode, 0), 0);
    ASSERT_EQ(codecLibOpen(&decoder_, kCodecG729, kCodecDecode, 0), 0);
  }
  void TearDown() override {
    EXPECT_EQ(codecLibClose(encoder_, 0), 0);
    EXPECT_EQ(codecLibClose(decoder_, 0), 0);
  }
  // `count` samples from `at` with `room` bytes of output; the result, and what came out.
  int Encode(const std::int16_t* at, std::uint32_t count, std::uint32_t room, Bytes* out) {
    out->assign(room, 0xEE);
    const int r = codecLibEncode(encoder_, at, &count, out->data(), &room, nullptr, 0);
    out->resize(room);
    return r;
  }
  int Decode(const std::uint8_t* at, std::uint32_t count, std::uint32_t room, Samples* out) {
    out->assign(room, 0x7EEE);
    const int r = codecLibDecode(decoder_, at, &count, out->data(), &room, nullptr, 0);
    out->resize(room);
    return r;
  }

  CodecHandle* encoder_ = nullptr;
  CodecHandle* decoder_ = nullptr;
  Bytes bytes_;
  Samples samples_;
};

TEST_F(CodecLibTest, EncodingKeepsWhatDoesNotFillAFrame) {
  const Samples in = Tone(400, 440, 6000);
  const Bytes direct = DirectEncode(in);
  ASSERT_EQ(Encode(in.data(), 160, 20, &bytes_), 0);  // the session's packet: two frames
  EXPECT_EQ(bytes_, Slice(direct, 0, 20));
  ASSERT_EQ(Encode(in.data() + 160, 40, 20, &bytes_), 0);  // too few: all kept
  EXPECT_TRUE(bytes_.empty());
  EXPECT_EQ(encoder_->InputLeftOverSize, 80);
  // 160 more with room for 19 bytes: one frame, 120 samples kept and coded at the next call.
  ASSERT_EQ(Encode(in.data() + 200, 160, 19, &bytes_), 0);
  EXPECT_EQ(bytes_, Slice(direct, 20, 30));
  EXPECT_EQ(encoder_->InputLeftOverSize, 240);
  ASSERT_EQ(Encode(in.data() + 360, 40, 20, &bytes_), 0);
  EXPECT_EQ(bytes_, Slice(direct, 30, 50));
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
}

TEST_F(CodecLibTest, DecodingKeepsARestShorterThanAFrame) {
  const Bytes stream = DirectEncode(Tone(480, 440, 6000));  // 60 bytes
  const Samples direct = DirectDecode(stream);
  // 25 bytes with room for three frames: two frames, 5 bytes wait.
  ASSERT_EQ(Decode(stream.data(), 25, 240, &samples_), 0);
  EXPECT_EQ(samples_, Slice(direct, 0, 160));
  EXPECT_EQ(decoder_->InputLeftOverSize, 5);
  ASSERT_EQ(Decode(stream.data() + 25, 8, 160, &samples_), 0);  // with the 5 kept: one frame
  EXPECT_EQ(samples_, Slice(direct, 160, 240));
  EXPECT_EQ(decoder_->InputLeftOverSize, 3);
  // 27 bytes with room for two frames: two frames, then out of room with 10 bytes kept.
  ASSERT_EQ(Decode(stream.data() + 33, 27, 160, &samples_), kCodecLibOutOfRoom);
  EXPECT_EQ(samples_, Slice(direct, 240, 400));
  EXPECT_EQ(decoder_->InputLeftOverSize, 10);
  ASSERT_EQ(Decode(nullptr, 0, 160, &samples_), 0);
  EXPECT_EQ(samples_, Slice(direct, 400, 480));
}

TEST_F(CodecLibTest, ErrorResults) {
  const Samples in = Tone(160, 440, 6000);
  EXPECT_EQ(Encode(in.data(), 160, 9, &bytes_), kCodecLibNoEncodeRoom);
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
  std::uint8_t bytes[20] = {0xFF, 0x00, 0xA5, 0x5A, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  EXPECT_EQ(Decode(bytes, 0, 79, &samples_), kCodecLibNoDecodeRoom);
  // The wrong direction reaches the row, which refuses; encoding input is not kept.
  std::uint32_t count = 160, room = 20;
  EXPECT_EQ(codecLibEncode(decoder_, in.data(), &count, bytes, &room, nullptr, 0), 1);
  EXPECT_EQ(room, 0u);
  EXPECT_EQ(decoder_->InputLeftOverSize, 0);
  std::int16_t samples[160];
  count = 20, room = 160;
  EXPECT_EQ(codecLibDecode(encoder_, bytes, &count, samples, &room, nullptr, 0), 1);
  EXPECT_EQ(room, 0u);
  EXPECT_EQ(encoder_->InputLeftOverSize, 20);  // kept, bounded like any input
  // Any 20 bytes from the network decode as voice.
  EXPECT_EQ(Decode(bytes, 20, 160, &samples_), 0);
  // Null arguments zero the counts that exist.
  count = 160, room = 20;
  EXPECT_EQ(codecLibEncode(encoder_, in.data(), &count, nullptr, &room, nullptr, 0),
            kCodecLibNullArgument);
  EXPECT_EQ(count + room, 0u);
  count = 20, room = 160;
  EXPECT_EQ(codecLibDecode(decoder_, nullptr, &count, samples, &room, nullptr, 0),
            kCodecLibNullArgument);
  EXPECT_EQ(count + room, 0u);
  EXPECT_EQ(codecLibClose(nullptr, 0), kCodecLibNullArgument);
  EXPECT_EQ(codecLibOpen(nullptr, kCodecG729, kCodecEncode, 0), kCodecLibNullArgument);
  // Only row 16 has a codec, and only two directions; a failed open leaves no handle.
  for (int index : {-1, 0, 15, 17, 29, 30, kCodecG729}) {
    // Row 16 is asked for a direction it does not have.
    const int direction = index == kCodecG729 ? 2 : kCodecEncode;
    CodecHandle* handle = reinterpret_cast<CodecHandle*>(0x1);
    EXPECT_EQ(codecLibOpen(&handle, index, direction, 0),
              index == kCodecG729 ? 1 : kCodecLibNoCodec) << index;
    EXPECT_EQ(handle, nullptr) << index;
  }
  EXPECT_EQ(CodecTableRow(kCodecTableRows), nullptr);
}

TEST_F(CodecLibTest, InputAndLeftOverAreBoundedBy16384Bytes) {
  const Samples big(8193, 100);
  EXPECT_EQ(Encode(big.data(), 8193, 20, &bytes_), kCodecLibInputTooLarge);
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
  ASSERT_EQ(Encode(big.data(), 40, 20, &bytes_), 0);  // 80 bytes kept
  EXPECT_EQ(Encode(big.data(), 8192 - 39, 20, &bytes_), kCodecLibInputTooLarge);
  ASSERT_EQ(Encode(big.data(), 8192 - 40, 10, &bytes_), 0);  // the largest that fits
  EXPECT_EQ(bytes_.size(), 10u);
  EXPECT_EQ(encoder_->InputLeftOverSize, 16384 - 160);

  const Bytes zeros(16385, 0);
  EXPECT_EQ(Decode(zeros.data(), 16385, 160, &samples_), kCodecLibInputTooLarge);
  ASSERT_EQ(Decode(zeros.data(), 16384, 80, &samples_), kCodecLibOutOfRoom);
  EXPECT_EQ(samples_.size(), 80u);
  EXPECT_EQ(decoder_->InputLeftOverSize, 16384 - 10);
  EXPECT_EQ(Decode(zeros.data(), 11, 80, &samples_), kCodecLibInputTooLarge);
}

// SNR in dB of `decoded` over [from, to) against a 1 kHz tone of `amplitude` at the phase
// fitted by least squares: the codec's delay is a fraction of a sample (45 degrees each), and
// its gain error stays in the noise.
double ToneSnrDb(const Samples& decoded, double amplitude, std::size_t from, std::size_t to) {
  const double w = 2 * M_PI * 1000 / 8000.0;
  double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
  for (std::size_t i = from; i < to; ++i) {
    const double s = std::sin(w * i), c = std::cos(w * i);
    ss += s * s, cc += c * c, sc += s * c, ys += decoded[i] * s, yc += decoded[i] * c;
  }
  const double phase = std::atan2(yc * ss - ys * sc, ys * cc - yc * sc);
  double signal = 0, noise = 0;
  for (std::size_t i = from; i < to; ++i) {
    const double reference = amplitude * std::sin(w * i + phase);
    signal += reference * reference;
    noise += (reference - decoded[i]) * (reference - decoded[i]);
  }
  return 10 * std::log10(signal / noise);
}

// One second of a 1 kHz tone after 100 ms of silence, in 20 ms packets as the session codes
// it; packet `lost` never reaches the decoder, which is not told (silence stays in its place).
Samples RoundTrip(const Samples& input, std::size_t lost) {
  CodecHandle *encoder = nullptr, *decoder = nullptr;
  EXPECT_EQ(codecLibOpen(&encoder, kCodecG729, kCodecEncode, 0), 0);
  EXPECT_EQ(codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0), 0);
  Samples output(input.size(), 0);
  for (std::size_t p = 0; p < input.size() / 160; ++p) {
    std::uint8_t payload[20];
    std::uint32_t samples = 160, bytes = 20;
    EXPECT_EQ(codecLibEncode(encoder, &input[160 * p], &samples, payload, &bytes, nullptr, 0), 0);
    EXPECT_EQ(bytes, 20u) << p;  // voice frames only, silence included
    if (p == lost) continue;
    bytes = 20, samples = 160;
    EXPECT_EQ(codecLibDecode(decoder, payload, &bytes, &output[160 * p], &samples, nullptr, 0), 0);
    EXPECT_EQ(samples, 160u) << p;
  }
  codecLibClose(encoder, 0);
  codecLibClose(decoder, 0);
  return output;
}

TEST(G729CodecTest, AToneSurvivesTheRoundTripAndALoss) {
  Samples tone = Tone(8800, 1000, 8000);
  std::fill(tone.begin(), tone.begin() + 800, 0);
  const double snr = ToneSnrDb(RoundTrip(tone, 1000), 8000, 2400, 8800);  // from 300 ms, settled
  std::printf("G.729 1 kHz tone: SNR %.1f dB\n", snr);
  ::testing::Test::RecordProperty("snr_db_x10", static_cast<int>(snr * 10));
  EXPECT_GT(snr, 15.0);
  // The sound after a lost packet (500 to 520 ms) comes back.
  EXPECT_GT(ToneSnrDb(RoundTrip(tone, 25), 8000, 5600, 8800), 15.0);
}

}  // namespace
}  // namespace deskline
