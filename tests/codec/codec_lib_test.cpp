// The codec library's byte-stream face over row 16: what is kept between calls, what each
// call produces, and every error result. The frames it produces are compared with the same
// input coded by G729Codec directly, so that a sample kept in the wrong place shows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "codec/codec_lib.h"
#include "codec/g729_codec.h"

namespace deskline {
namespace {

using Samples = std::vector<std::int16_t>;
using Bytes = std::vector<std::uint8_t>;

Samples Speechish(std::size_t count, int seed = 0) {
  Samples s(count);
  for (std::size_t i = 0; i < count; ++i) {
    const double t = static_cast<double>(i + 997 * seed) / 8000.0;
    s[i] = static_cast<std::int16_t>(6000 * std::sin(2 * M_PI * 440 * t) +
                                     3000 * std::sin(2 * M_PI * 1230 * t));
  }
  return s;
}

// The frames a fresh encoder gives for `samples`, 80 at a time.
Bytes DirectEncode(const Samples& samples) {
  auto codec = G729Codec::Make(G729Codec::kEncoder);
  Bytes out(samples.size() / 80 * 10);
  for (std::size_t f = 0; f < samples.size() / 80; ++f) {
    EXPECT_EQ(codec->Encode(std::span<const std::int16_t, 80>(samples.data() + 80 * f, 80),
                            std::span<std::uint8_t, 10>(out.data() + 10 * f, 10)),
              0);
  }
  return out;
}

Samples DirectDecode(const Bytes& bytes) {
  auto codec = G729Codec::Make(G729Codec::kDecoder);
  Samples out(bytes.size() / 10 * 80);
  for (std::size_t f = 0; f < bytes.size() / 10; ++f) {
    EXPECT_EQ(codec->Decode(std::span<const std::uint8_t, 10>(bytes.data() + 10 * f, 10),
                            std::span<std::int16_t, 80>(out.data() + 80 * f, 80)),
              0);
  }
  return out;
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

  // Encodes `count` samples from `at` with `room` bytes; the result, and what came out.
  int Encode(const std::int16_t* at, std::uint32_t count, std::uint32_t room, Bytes* out) {
    out->assign(room, 0xEE);
    std::uint32_t in = count;
    std::uint32_t bytes = room;
    const int r = codecLibEncode(encoder_, at, &in, out->data(), &bytes, params_, 0);
    EXPECT_EQ(in, count) << "the input count is left as it was";
    out->resize(bytes);
    return r;
  }
  int Decode(const std::uint8_t* at, std::uint32_t count, std::uint32_t room, Samples* out) {
    out->assign(room, 0x7EEE);
    std::uint32_t in = count;
    std::uint32_t samples = room;
    const int r = codecLibDecode(decoder_, at, &in, out->data(), &samples, params_, 0);
    out->resize(samples);
    return r;
  }

  CodecHandle* encoder_ = nullptr;
  CodecHandle* decoder_ = nullptr;
  std::uint8_t params_[48] = {};
};

TEST_F(CodecLibTest, APacketOf160SamplesIsTwoFramesWithNothingKept) {
  const Samples in = Speechish(160);
  Bytes out;
  ASSERT_EQ(Encode(in.data(), 160, 20, &out), 0);
  EXPECT_EQ(out, DirectEncode(in));
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);

  Samples decoded;
  ASSERT_EQ(Decode(out.data(), 20, 160, &decoded), 0);
  EXPECT_EQ(decoded, DirectDecode(out));
  EXPECT_EQ(decoder_->InputLeftOverSize, 0);
}

TEST_F(CodecLibTest, EncodingKeepsWhatDoesNotFillAFrame) {
  const Samples in = Speechish(240);
  Bytes out;
  // 40 samples: nothing yet, all kept.
  ASSERT_EQ(Encode(in.data(), 40, 20, &out), 0);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(encoder_->InputLeftOverSize, 80);
  // 40 more: one frame of the 80 in order.
  ASSERT_EQ(Encode(in.data() + 40, 40, 20, &out), 0);
  const Bytes direct = DirectEncode(in);
  EXPECT_EQ(out, Bytes(direct.begin(), direct.begin() + 10));
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
  // 160 with room for 19 bytes: one frame, 80 samples kept and coded at the next call.
  ASSERT_EQ(Encode(in.data() + 80, 160, 19, &out), 0);
  EXPECT_EQ(out, Bytes(direct.begin() + 10, direct.begin() + 20));
  EXPECT_EQ(encoder_->InputLeftOverSize, 160);
  ASSERT_EQ(Encode(nullptr, 0, 20, &out), 0);
  EXPECT_EQ(out, Bytes(direct.begin() + 20, direct.begin() + 30));
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
}

TEST_F(CodecLibTest, DecodingKeepsARestShorterThanAFrame) {
  const Bytes stream = DirectEncode(Speechish(480));  // 60 bytes
  const Samples direct = DirectDecode(stream);
  Samples out;
  // 25 bytes with room for three frames: two frames, the third pass takes nothing, 5 bytes
  // wait.
  ASSERT_EQ(Decode(stream.data(), 25, 240, &out), 0);
  EXPECT_EQ(out, Samples(direct.begin(), direct.begin() + 160));
  EXPECT_EQ(decoder_->InputLeftOverSize, 5);
  // 5 bytes: with the 5 kept, one frame.
  ASSERT_EQ(Decode(stream.data() + 25, 5, 160, &out), 0);
  EXPECT_EQ(out, Samples(direct.begin() + 160, direct.begin() + 240));
  EXPECT_EQ(decoder_->InputLeftOverSize, 0);
  // 3 bytes: nothing yet.
  ASSERT_EQ(Decode(stream.data() + 30, 3, 160, &out), 0);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(decoder_->InputLeftOverSize, 3);
  // 27 bytes with room for two frames: two frames, then out of room with 10 bytes kept.
  ASSERT_EQ(Decode(stream.data() + 33, 27, 160, &out), kCodecLibOutOfRoom);
  EXPECT_EQ(out, Samples(direct.begin() + 240, direct.begin() + 400));
  EXPECT_EQ(decoder_->InputLeftOverSize, 10);
  ASSERT_EQ(Decode(nullptr, 0, 160, &out), 0);
  EXPECT_EQ(out, Samples(direct.begin() + 400, direct.end()));
}

TEST_F(CodecLibTest, ErrorResults) {
  const Samples in = Speechish(160);
  Bytes out;
  Samples decoded;
  EXPECT_EQ(Encode(in.data(), 160, 9, &out), kCodecLibNoEncodeRoom);
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
  EXPECT_EQ(Decode(out.data(), 0, 79, &decoded), kCodecLibNoDecodeRoom);

  // The wrong direction reaches the row, which refuses; the input is not kept.
  std::uint32_t count = 160;
  std::uint32_t room = 20;
  std::uint8_t bytes[20];
  EXPECT_EQ(codecLibEncode(decoder_, in.data(), &count, bytes, &room, nullptr, 0), 1);
  EXPECT_EQ(room, 0u);
  EXPECT_EQ(decoder_->InputLeftOverSize, 0);
  std::int16_t samples[160];
  count = 20;
  std::uint32_t sample_room = 160;
  EXPECT_EQ(codecLibDecode(encoder_, bytes, &count, samples, &sample_room, nullptr, 0), 1);
  EXPECT_EQ(sample_room, 0u);
  // What the refusing row did not take waits as left-over, bounded like any input.
  EXPECT_EQ(encoder_->InputLeftOverSize, 20);

  // Null arguments zero the counts that exist.
  count = 160;
  room = 20;
  EXPECT_EQ(codecLibEncode(encoder_, in.data(), &count, nullptr, &room, nullptr, 0),
            kCodecLibNullArgument);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(room, 0u);
  count = 20;
  sample_room = 160;
  EXPECT_EQ(codecLibDecode(decoder_, nullptr, &count, samples, &sample_room, nullptr, 0),
            kCodecLibNullArgument);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(sample_room, 0u);
  EXPECT_EQ(codecLibClose(nullptr, 0), kCodecLibNullArgument);
  EXPECT_EQ(codecLibOpen(nullptr, kCodecG729, kCodecEncode, 0), kCodecLibNullArgument);
}

TEST_F(CodecLibTest, InputBeyondTheLeftOverAreaIsRefused) {
  // Left-over and input together may not exceed 16,384 bytes, in either direction.
  const Samples big(8192 + 1, 100);
  Bytes out;
  EXPECT_EQ(Encode(big.data(), 8193, 20, &out), kCodecLibInputTooLarge);
  EXPECT_EQ(encoder_->InputLeftOverSize, 0);
  ASSERT_EQ(Encode(big.data(), 40, 20, &out), 0);  // 80 bytes kept
  EXPECT_EQ(Encode(big.data(), 8192 - 39, 20, &out), kCodecLibInputTooLarge);
  // The largest input that fits, with room for one frame: the rest is all kept.
  ASSERT_EQ(Encode(big.data(), 8192 - 40, 10, &out), 0);
  EXPECT_EQ(out.size(), 10u);
  EXPECT_EQ(encoder_->InputLeftOverSize, 16384 - 160);

  const Bytes zeros(16385, 0);
  Samples decoded;
  EXPECT_EQ(Decode(zeros.data(), 16385, 160, &decoded), kCodecLibInputTooLarge);
  ASSERT_EQ(Decode(zeros.data(), 16384, 80, &decoded), kCodecLibOutOfRoom);
  EXPECT_EQ(decoded.size(), 80u);
  EXPECT_EQ(decoder_->InputLeftOverSize, 16384 - 10);
  EXPECT_EQ(Decode(zeros.data(), 11, 80, &decoded), kCodecLibInputTooLarge);
}

TEST(CodecLibOpen, OnlyRow16HasACodec) {
  for (std::int32_t index : {-1, 0, 15, 17, 29, 30, 1000}) {
    CodecHandle* handle = reinterpret_cast<CodecHandle*>(0x1);
    EXPECT_EQ(codecLibOpen(&handle, index, kCodecEncode, 0), kCodecLibNoCodec) << index;
    EXPECT_EQ(handle, nullptr) << index;
  }
  // A direction the codec does not have: the row's open fails and no handle is left.
  CodecHandle* handle = reinterpret_cast<CodecHandle*>(0x1);
  EXPECT_EQ(codecLibOpen(&handle, kCodecG729, 2, 0), 1);
  EXPECT_EQ(handle, nullptr);

  EXPECT_EQ(CodecTableRow(kCodecTableRows), nullptr);
}

}  // namespace
}  // namespace deskline
