// The simulator's own PTAP and MGCP readers and writers against bytes and texts spelt out from
// the protocols' figures.
#include <gtest/gtest.h>

#include "pbxsim_test_util.h"
#include "tools/pbxsim/mgcp_wire.h"
#include "tools/pbxsim/ptap_wire.h"

namespace deskline::sim {
namespace {

using testing::Bytes;
using testing::Hex;
using testing::Text;

// Short elements are checked byte for byte in the simulator's answers; here the long ones.
TEST(PtapWire, LongValuesHaveBigEndianLengthsAndOversizedOnesAreRefused) {
  EXPECT_EQ(EncodePtap(0xFFFFFFFF, kTypeKeepalive, {}), Hex("50 54 41 50 FF FF FF FF 10 FF"));
  const WireElement big{0x77, Bytes(300, std::byte{0xAB})};
  const Bytes raw = EncodePtap(9, 3, {&big, 1});
  EXPECT_EQ(Bytes(raw.begin() + 9, raw.begin() + 12), Hex("77 01 2C"));
  ASSERT_TRUE(DecodePtap(raw).ok());
  EXPECT_EQ(DecodePtap(raw).elements.at(0), big);
  WireElement limit{0x77, Bytes(kMaxElementValue)};
  EXPECT_FALSE(EncodePtap(1, 0, {&limit, 1}).empty());
  limit.value.push_back(std::byte{0});
  EXPECT_TRUE(EncodePtap(1, 0, {&limit, 1}).empty());
}

TEST(PtapWire, EveryMalformedShapeIsAStatusAndNoReadGoesPastTheEnd) {
  using S = DecodeStatus;
  const struct {
    const char* hex;  // after the magic and tid 00 00 00 01, unless it starts with '!'
    DecodeStatus status;
    bool has_header;
    std::size_t elements;
  } cases[] = {
      {"!", S::kTooShort, false, 0},
      {"!50 54 41 50 00 00 00 01", S::kTooShort, false, 0},
      {"04", S::kNoPayload, true, 0},
      {"!51 54 41 50 00 00 00 01 04 FF", S::kBadMagic, true, 0},
      {"04 20", S::kTruncatedElement, true, 0},
      {"04 20 00", S::kTruncatedElement, true, 0},
      {"04 20 00 05 01 02", S::kElementPastEnd, true, 0},
      {"04 20 00 01 00 21 FF FF 00", S::kElementPastEnd, true, 1},
      {"04 20 00 01 00", S::kNoEndMark, true, 1},
      {"04 FF 00", S::kTrailingBytes, true, 0},
      {"04 FF", S::kOk, true, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    // Exact size, so that the sanitizer sees any read beyond it.
    const Bytes raw = c.hex[0] == '!' ? Hex(c.hex + 1) : testing::Ptap("00 00 00 01", c.hex);
    const PtapDatagram d = DecodePtap(raw);
    EXPECT_EQ(d.status, c.status) << DecodeStatusName(d.status);
    EXPECT_EQ(d.has_header, c.has_header);
    EXPECT_EQ(d.elements.size(), c.elements);
    // Rules count by the type of whatever has a PTAP header with the magic.
    const bool typed = c.has_header && c.status != S::kBadMagic;
    EXPECT_EQ(PtapType(raw), typed ? std::optional<std::uint8_t>(4) : std::nullopt);
  }
  EXPECT_EQ(DecodePtap(Hex("50 54 41 50 01 00 00 00 10 FF")).tid, 0x01000000u);
}

TEST(MgcpDecode, SdpFaultsAreNamedAndBadNumbersLeftOut) {
  const SdpInfo sdp = ParseSdp(
      "v=x\r\nc=IN IP4 300.1.2.3\r\nm=audio 70000 RTP/AVP 0 abc 18\r\nbroken line\r\n"
      "a=rtpmap:x PCMU/8000\r\na=rtpmap:18 G729/8000\r\nm=audio 5 RTP/AVP 8\r\n");
  EXPECT_EQ(sdp.fault, "not a line of the form x=value: broken line");
  EXPECT_FALSE(sdp.version.has_value());
  EXPECT_FALSE(sdp.ip.has_value());
  EXPECT_FALSE(sdp.port.has_value());
  EXPECT_EQ(sdp.payload_types, (std::vector<int>{0, 18})) << "only the first m= line counts";
  EXPECT_EQ(sdp.rtpmaps, (std::vector<RtpMap>{{18, "G729/8000"}}));
  EXPECT_FALSE(DecodeMgcp(Text("250 3\r\n\r\n")).sdp.has_value()) << "an empty line alone";
}

TEST(MgcpDecode, MalformedTextsHaveAReasonAndNoRuleType) {
  using S = MgcpStatus;
  const std::pair<std::string, MgcpStatus> cases[] = {
      {"", S::kEmpty},
      {std::string("RSIP 1 d1@x MGCP 1.0\r\n\0", 23), S::kNotText},
      {"NTFY 2 d1@x MGCP 1.0\r\nO: X-P/fk\x01\r\n", S::kNotText},
      {"\r\n", S::kBadFirstLine},
      {"RESTART 1 d1@x MGCP 1.0\r\n", S::kBadFirstLine},
      {"RS-P 1 d1@x MGCP 1.0\r\n", S::kBadFirstLine},
      {"RSIP 1 d1@x\r\n", S::kBadFirstLine},
      {"RSIP 1 d1@x SIP 2.0\r\n", S::kBadFirstLine},
      {"20 1\r\n", S::kBadFirstLine},
      {"RSIP\r\n", S::kBadTid},
      {"RSIP x1 d1@x MGCP 1.0\r\n", S::kBadTid},
      {"RSIP 0 d1@x MGCP 1.0\r\n", S::kBadTid},
      {"RSIP 1000000000 d1@x MGCP 1.0\r\n", S::kBadTid},
      {"200 -5 OK\r\n", S::kBadTid},
      {"NTFY 2 d1@x MGCP 1.0\r\nX 1\r\n", S::kBadHeader},
      {"NTFY 2 d1@x MGCP 1.0\r\n: 1\r\n", S::kBadHeader},
  };
  for (const auto& [text, status] : cases) {
    SCOPED_TRACE(text);
    const MgcpStatus got = DecodeMgcp(Text(text)).status;
    EXPECT_EQ(got, status) << MgcpStatusName(got);
    EXPECT_EQ(MgcpRuleType(Text(text)), std::nullopt);
  }
  EXPECT_EQ(DecodeMgcp(Text("RSIP 999999999 d1@x MGCP 1.0\r\n")).status, S::kOk);
  EXPECT_EQ(MgcpRuleType(Text("200 2 OK\r\n")), static_cast<std::uint8_t>(MgcpKind::kResponse));
}

// The X-P signal makers beyond those in the agent's commands.
TEST(MgcpBuild, XpSignals) {
  const std::pair<std::string, const char*> signals[] = {
      {xp::Ring(0, 0xAB, 0x0C), "X-P/ring(00AB0C)"},
      {xp::Lamp(0x0C2F, "r12i"), "X-P/ks(0C2F,r12i)"},
      {xp::RingOff(), "X-P/ring(000000)"},
      {xp::Display(0, 0, std::string("A\x03" "B"), 0x22), "X-P/lcdp(22000003410342)"},
      {xp::Display(0, 0, ""), "X-P/lcdp(21000000)"},
      {xp::DisplayClear(), "X-P/lcdp(300100000000)"},
      {xp::Tone(0x12, true, false, true, 0x34), "X-P/tone(120100010034)"},
      {xp::Signal("hset", "01"), "X-P/hset(01)"},
      {xp::Signal("xyz", ""), "X-P/xyz"},
  };
  for (const auto& [made, expected] : signals) EXPECT_EQ(made, expected);
  const std::string long_write = xp::Display(0, 0, std::string(300, 'x'));
  EXPECT_EQ(long_write.substr(0, 17), "X-P/lcdp(210000FF") << "255 bytes at most";
  EXPECT_EQ(long_write.size(), 17u + 2 * 255 + 1);
}

}  // namespace
}  // namespace deskline::sim
