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
  RtpHeader h{.marker = true, .payload_type = 18, .sequence = 0xFFFE, .timestamp = 0x01020304,
              .ssrc = 0xA1B2C3D4};
  const auto datagram = BuildRtp(h, B({0x11, 0x22}));
  EXPECT_EQ(datagram, B({0x80, 0x92, 0xFF, 0xFE, 1, 2, 3, 4, 0xA1, 0xB2, 0xC3, 0xD4, 0x11, 0x22}));
  const ParsedRtp p = ParseRtp(datagram);
  ASSERT_TRUE(p.ok());
  EXPECT_TRUE(p.header.marker);
  EXPECT_EQ(p.header.payload_type, 18);
  EXPECT_EQ(p.header.sequence, 0xFFFE);
  EXPECT_EQ(p.header.timestamp, 0x01020304u);
  EXPECT_EQ(p.header.ssrc, 0xA1B2C3D4u);
  h.marker = false;
  h.payload_type = 0xFF;  // only 7 bits reach the wire
  EXPECT_EQ(BuildRtp(h, {})[1], std::byte{0x7F});
}

TEST(PeerRtpWire, ReaderChecksEveryLengthAgainstTheBytesThere) {
  // A 12-byte header with first byte `first`, then `tail`.
  auto with = [](int first, std::initializer_list<int> tail) {
    std::vector<std::byte> d = B({first, 0x00, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
    for (int v : tail) d.push_back(static_cast<std::byte>(v));
    return d;
  };
  using E = RtpParseError;
  const struct {
    std::vector<std::byte> datagram;
    RtpParseError error;
    std::size_t offset, size;
  } rows[] = {
      {B({0x80, 0, 0}), E::kShort, 0, 0},
      {with(0x80, {}), E::kNone, 12, 0},
      {with(0x80, {0x55}), E::kNone, 12, 1},
      {with(0x40, {0x55}), E::kVersion, 0, 0},
      {with(0x81, {1, 2, 3}), E::kCsrcTruncated, 0, 0},
      {with(0x81, {1, 2, 3, 4, 9}), E::kNone, 16, 1},
      {with(0x90, {0xBE, 0xDE, 0x00}), E::kExtensionTruncated, 0, 0},
      {with(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3}), E::kExtensionTruncated, 0, 0},
      {with(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3, 4, 7, 7}), E::kNone, 20, 2},
      {with(0x90, {0xBE, 0xDE, 0xFF, 0xFF}), E::kExtensionTruncated, 0, 0},
      {with(0xA0, {}), E::kBadPadding, 0, 0},
      {with(0xA0, {7, 0}), E::kBadPadding, 0, 0},
      {with(0xA0, {7, 3}), E::kBadPadding, 0, 0},
      {with(0xA0, {7, 0, 2}), E::kNone, 12, 1},
      {with(0xA0, {0x01}), E::kNone, 12, 0},
      {with(0xA0, {0xFF}), E::kBadPadding, 0, 0},
  };
  int line = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(line++);
    const ParsedRtp p = ParseRtp(row.datagram);  // exact size, so that ASan sees any overread
    EXPECT_EQ(p.error, row.error) << RtpParseErrorText(p.error);
    if (p.ok()) {
      EXPECT_EQ(p.payload_offset, row.offset);
      EXPECT_EQ(p.payload_size, row.size);
    }
  }
}

TEST(PeerG711, KnownCodeValuesOfBothLaws) {
  const struct {
    std::int16_t sample;
    int ulaw, alaw;
  } encode[] = {{0, 0xFF, 0xD5}, {-1, 0x7E, 0x55}, {32767, 0x80, 0xAA}, {-32768, 0x00, 0x2A}};
  for (const auto& e : encode) {
    EXPECT_EQ(UlawEncode(e.sample), e.ulaw) << e.sample;
    EXPECT_EQ(AlawEncode(e.sample), e.alaw) << e.sample;  // 13-bit: full scale reaches the top
  }
  // 0x7F is mu-law's negative zero; 0xEF is segment 0, step 1 on the 14-bit scale (33 * 4); A-law
  // 0xC5 is the first step of segment 1 (0x108).
  const std::pair<std::uint8_t, int> ulaw[] = {{0xFF, 0},      {0x7F, 0},   {0x80, 32124},
                                               {0x00, -32124}, {0xEF, 132}, {0xFE, 8}};
  for (const auto& [code, value] : ulaw) EXPECT_EQ(UlawDecode(code), value) << int(code);
  const std::pair<std::uint8_t, int> alaw[] = {{0xD5, 8},      {0x55, -8},  {0xAA, 32256},
                                               {0x2A, -32256}, {0xC5, 264}};
  for (const auto& [code, value] : alaw) EXPECT_EQ(AlawDecode(code), value) << int(code);
}

TEST(PeerG711, EveryCodeSurvivesDecodeThenEncodeAndEverySampleStaysWithinItsStep) {
  for (int code = 0; code < 256; ++code) {
    const auto c = static_cast<std::uint8_t>(code);
    EXPECT_EQ(AlawEncode(AlawDecode(c)), c) << code;
    EXPECT_EQ(UlawEncode(UlawDecode(c)), code == 0x7F ? 0xFF : c) << code;
  }
  for (int x = -32768; x <= 32767; ++x) {
    const auto s = static_cast<std::int16_t>(x);
    const int u = std::abs(UlawDecode(UlawEncode(s)) - x);
    const int a = std::abs(AlawDecode(AlawEncode(s)) - x);
    // Half a step of the top segment plus the clip at the ends; small samples within one step.
    ASSERT_LE(u, std::abs(x) < 64 ? 8 : 1024 + 644) << x;
    ASSERT_LE(a, std::abs(x) < 64 ? 8 : 512 + 512) << x;
  }
}

TEST(PeerCodec, EachPayloadTypeRoundTripsAndBadPayloadsAreBounded) {
  const auto tone = MakeTone(1000, -12, 50 * kFrameSamples);
  auto frame = [&](std::size_t f) {
    return std::span<const std::int16_t, kFrameSamples>(&tone[f * kFrameSamples], kFrameSamples);
  };
  PeerEncoder enc;
  PeerDecoder dec;
  std::vector<std::byte> payload;
  for (std::uint8_t pt : {kPtPcmu, kPtPcma, kPtG729}) {
    SCOPED_TRACE(int(pt));
    std::vector<std::int16_t> out;
    for (std::size_t f = 0; f < 50; ++f) {
      ASSERT_TRUE(enc.Encode(pt, frame(f), payload));
      ASSERT_EQ(payload.size(), pt == kPtG729 ? 20u : 160u);
      const DecodedPayload d = dec.Decode(pt, payload);
      ASSERT_EQ(d.outcome, DecodeOutcome::kDecoded);
      ASSERT_EQ(d.samples.size(), 160u);
      out.insert(out.end(), d.samples.begin(), d.samples.end());
    }
    // Past G.729's start-up the tone comes back at its level and pitch.
    const std::span<const std::int16_t> steady(out.data() + 10 * kFrameSamples, 40 * kFrameSamples);
    EXPECT_NEAR(RmsDbfs(steady), -12.0, pt == kPtG729 ? 2.0 : 0.2);
    EXPECT_NEAR(ZeroCrossingFrequency(steady), 1000.0, 20.0);
  }
  // A cut G.729 packet decodes its whole frames only, and never reads past its end.
  const DecodedPayload cut = dec.Decode(kPtG729, std::span(payload).first(15));
  EXPECT_EQ(cut.outcome, DecodeOutcome::kTruncated);
  EXPECT_EQ(cut.samples.size(), 80u);
  EXPECT_TRUE(dec.Decode(kPtG729, std::span(payload).first(2)).samples.empty());

  // G.722 is a fixed fill: exactly 160 bytes of 0xFA.
  ASSERT_TRUE(enc.Encode(kPtG722, frame(0), payload));
  EXPECT_EQ(payload, std::vector<std::byte>(160, kG722Fill));
  EXPECT_TRUE(dec.Decode(kPtG722, payload).g722_fill_ok);
  EXPECT_FALSE(dec.Decode(kPtG722, std::span(payload).first(159)).g722_fill_ok);
  payload[159] = std::byte{0};
  EXPECT_FALSE(dec.Decode(kPtG722, payload).g722_fill_ok);

  EXPECT_FALSE(enc.Encode(96, frame(0), payload));
  EXPECT_TRUE(payload.empty());
  EXPECT_EQ(dec.Decode(96, B({1, 2, 3})).outcome, DecodeOutcome::kUnsupported);
}

}  // namespace
}  // namespace deskline::sim
