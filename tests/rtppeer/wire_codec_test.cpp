// The peer's own RTP writer and reader, G.711 against the Recommendation's code values, and
// the codecs by payload type.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "tools/rtppeer/peer_analysis.h"
#include "tools/rtppeer/peer_codec.h"
#include "tools/rtppeer/peer_g711.h"
#include "tools/rtppeer/peer_rtp_wire.h"
#include "tools/rtppeer/peer_sound.h"

namespace deskline::sim {
namespace {

std::vector<std::byte> B(std::initializer_list<int> values) {
  std::vector<std::byte> out;
  for (int v : values) out.push_back(static_cast<std::byte>(v));
  return out;
}

TEST(PeerRtpWire, HeaderBytesAreBigEndianWithMarkerAndTypeInByteOne) {
  RtpHeader h;
  h.marker = true;
  h.payload_type = 18;
  h.sequence = 0xFFFE;
  h.timestamp = 0x01020304;
  h.ssrc = 0xA1B2C3D4;
  const auto payload = B({0x11, 0x22});
  EXPECT_EQ(BuildRtp(h, payload), B({0x80, 0x92, 0xFF, 0xFE, 0x01, 0x02, 0x03, 0x04, 0xA1, 0xB2, 0xC3, 0xD4,
                                     0x11, 0x22}));
  h.marker = false;
  h.payload_type = 0xFF;  // only 7 bits reach the wire
  EXPECT_EQ(BuildRtp(h, {})[1], std::byte{0x7F});

  const ParsedRtp p = ParseRtp(BuildRtp(h, payload));
  ASSERT_TRUE(p.ok());
  EXPECT_EQ(p.header.sequence, 0xFFFE);
  EXPECT_EQ(p.header.timestamp, 0x01020304u);
  EXPECT_EQ(p.header.ssrc, 0xA1B2C3D4u);
  EXPECT_EQ(p.payload_offset, 12u);
  EXPECT_EQ(p.payload_size, 2u);
}

TEST(PeerRtpWire, ReaderChecksEveryLengthAgainstTheBytesThere) {
  struct Row {
    std::vector<std::byte> datagram;
    RtpParseError error;
    std::size_t offset;
    std::size_t size;
  };
  const std::vector<std::byte> base = B({0x80, 0x00, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
  auto with = [&](int first, std::initializer_list<int> tail) {
    std::vector<std::byte> d = base;
    d[0] = static_cast<std::byte>(first);
    for (int v : tail) d.push_back(static_cast<std::byte>(v));
    return d;
  };
  const Row rows[] = {
      {B({0x80, 0, 0}), RtpParseError::kShort, 0, 0},
      {with(0x80, {}), RtpParseError::kNone, 12, 0},
      {with(0x80, {0x55}), RtpParseError::kNone, 12, 1},
      {with(0x40, {0x55}), RtpParseError::kVersion, 0, 0},
      {with(0x81, {1, 2, 3}), RtpParseError::kCsrcTruncated, 0, 0},
      {with(0x81, {1, 2, 3, 4, 9}), RtpParseError::kNone, 16, 1},
      {with(0x90, {0xBE, 0xDE, 0x00}), RtpParseError::kExtensionTruncated, 0, 0},
      {with(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3}), RtpParseError::kExtensionTruncated, 0, 0},
      {with(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3, 4, 7, 7}), RtpParseError::kNone, 20, 2},
      {with(0x90, {0xBE, 0xDE, 0xFF, 0xFF}), RtpParseError::kExtensionTruncated, 0, 0},
      {with(0xA0, {}), RtpParseError::kBadPadding, 0, 0},
      {with(0xA0, {7, 0}), RtpParseError::kBadPadding, 0, 0},
      {with(0xA0, {7, 3}), RtpParseError::kBadPadding, 0, 0},
      {with(0xA0, {7, 0, 2}), RtpParseError::kNone, 12, 1},
      {with(0xA0, {0x01}), RtpParseError::kNone, 12, 0},
      {with(0xA0, {0xFF}), RtpParseError::kBadPadding, 0, 0},
  };
  int line = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(line++);
    const ParsedRtp p = ParseRtp(row.datagram);
    EXPECT_EQ(p.error, row.error) << RtpParseErrorText(p.error);
    if (p.ok()) {
      EXPECT_EQ(p.payload_offset, row.offset);
      EXPECT_EQ(p.payload_size, row.size);
      EXPECT_LE(p.payload_offset + p.payload_size, row.datagram.size());
    }
  }
}

TEST(PeerG711, KnownCodeValuesOfBothLaws) {
  EXPECT_EQ(UlawEncode(0), 0xFF);
  EXPECT_EQ(UlawEncode(-1), 0x7E);  // the smallest negative step, -8
  EXPECT_EQ(UlawEncode(32767), 0x80);
  EXPECT_EQ(UlawEncode(-32768), 0x00);
  EXPECT_EQ(UlawDecode(0xFF), 0);
  EXPECT_EQ(UlawDecode(0x7F), 0);
  EXPECT_EQ(UlawDecode(0x80), 32124);
  EXPECT_EQ(UlawDecode(0x00), -32124);
  EXPECT_EQ(UlawDecode(0xEF), 132);  // segment 0, step 1 on the 14-bit scale: 33 * 4
  EXPECT_EQ(UlawDecode(0xFE), 8);

  // The 13-bit A-law of the Recommendation: full scale reaches the top segment.
  EXPECT_EQ(AlawEncode(0), 0xD5);
  EXPECT_EQ(AlawEncode(-1), 0x55);
  EXPECT_EQ(AlawEncode(32767), 0xAA);
  EXPECT_EQ(AlawEncode(-32768), 0x2A);
  EXPECT_EQ(AlawDecode(0xD5), 8);
  EXPECT_EQ(AlawDecode(0x55), -8);
  EXPECT_EQ(AlawDecode(0xAA), 32256);
  EXPECT_EQ(AlawDecode(0x2A), -32256);
  EXPECT_EQ(AlawDecode(0xC5), 264);  // first step of segment 1 (0x108)
}

TEST(PeerG711, EveryCodeSurvivesDecodeThenEncodeAndEverySampleStaysWithinItsStep) {
  for (int code = 0; code < 256; ++code) {
    const auto c = static_cast<std::uint8_t>(code);
    EXPECT_EQ(AlawEncode(AlawDecode(c)), c) << code;
    // 0x7F is mu-law's negative zero, which encodes as positive zero.
    EXPECT_EQ(UlawEncode(UlawDecode(c)), code == 0x7F ? 0xFF : c) << code;
  }
  for (int x = -32768; x <= 32767; ++x) {
    const auto s = static_cast<std::int16_t>(x);
    const int u = UlawDecode(UlawEncode(s));
    const int a = AlawDecode(AlawEncode(s));
    // Half a step of the top segment, plus the clip at the ends.
    ASSERT_LE(std::abs(u - x), 1024 + 644) << x;
    ASSERT_LE(std::abs(a - x), 512 + 512) << x;
    if (std::abs(x) < 64) {
      ASSERT_LE(std::abs(u - x), 8) << x;
      ASSERT_LE(std::abs(a - x), 8) << x;
    }
  }
}

TEST(PeerCodec, G711FramesRoundTripAndG722IsAFixedFill) {
  const auto tone = MakeTone(1000, -10, kFrameSamples);
  PeerEncoder enc;
  PeerDecoder dec;
  std::vector<std::byte> payload;
  for (std::uint8_t pt : {kPtPcmu, kPtPcma}) {
    ASSERT_TRUE(enc.Encode(pt, std::span<const std::int16_t, kFrameSamples>(tone.data(), kFrameSamples), payload));
    ASSERT_EQ(payload.size(), 160u);
    const DecodedPayload d = dec.Decode(pt, payload);
    EXPECT_EQ(d.outcome, DecodeOutcome::kDecoded);
    ASSERT_EQ(d.samples.size(), 160u);
    EXPECT_NEAR(RmsDbfs(d.samples), -10.0, 0.2) << int(pt);
  }
  ASSERT_TRUE(enc.Encode(kPtG722, std::span<const std::int16_t, kFrameSamples>(tone.data(), kFrameSamples), payload));
  EXPECT_EQ(payload, std::vector<std::byte>(160, std::byte{0xFA}));
  EXPECT_TRUE(dec.Decode(kPtG722, payload).g722_fill_ok);
  payload[159] = std::byte{0};
  EXPECT_FALSE(dec.Decode(kPtG722, payload).g722_fill_ok);
  EXPECT_FALSE(dec.Decode(kPtG722, std::span(payload).first(10)).g722_fill_ok);

  EXPECT_FALSE(enc.Encode(96, std::span<const std::int16_t, kFrameSamples>(tone.data(), kFrameSamples), payload));
  EXPECT_TRUE(payload.empty());
  EXPECT_EQ(dec.Decode(96, B({1, 2, 3})).outcome, DecodeOutcome::kUnsupported);
}

TEST(PeerCodec, G729RoundTripKeepsLevelAndFrequency) {
  const auto tone = MakeTone(1000, -12, 50 * kFrameSamples);
  PeerEncoder enc;
  PeerDecoder dec;
  std::vector<std::int16_t> out;
  std::vector<std::byte> payload;
  for (std::size_t f = 0; f < 50; ++f) {
    ASSERT_TRUE(enc.Encode(kPtG729, std::span<const std::int16_t, kFrameSamples>(tone.data() + f * kFrameSamples, kFrameSamples),
                           payload));
    ASSERT_EQ(payload.size(), 20u);
    const DecodedPayload d = dec.Decode(kPtG729, payload);
    ASSERT_EQ(d.outcome, DecodeOutcome::kDecoded);
    ASSERT_EQ(d.samples.size(), 160u);
    out.insert(out.end(), d.samples.begin(), d.samples.end());
  }
  // Past the codec's start-up, the tone comes back at its level and pitch.
  const std::span<const std::int16_t> steady(out.data() + 10 * kFrameSamples, 40 * kFrameSamples);
  EXPECT_NEAR(RmsDbfs(steady), -12.0, 2.0);
  EXPECT_NEAR(ZeroCrossingFrequency(steady), 1000.0, 20.0);

  // A cut packet decodes its whole frames only, and never reads past its end.
  const DecodedPayload cut = dec.Decode(kPtG729, std::span(payload).first(15));
  EXPECT_EQ(cut.outcome, DecodeOutcome::kTruncated);
  EXPECT_EQ(cut.samples.size(), 80u);
  EXPECT_TRUE(dec.Decode(kPtG729, std::span(payload).first(2)).samples.empty());
}

}  // namespace
}  // namespace deskline::sim
