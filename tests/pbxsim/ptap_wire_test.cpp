// The simulator's own PTAP reader and writer against datagrams written from the byte figures.
#include "tools/pbxsim/ptap_wire.h"

#include <gtest/gtest.h>

#include "pbxsim_test_util.h"

namespace deskline::sim {
namespace {

using testing::Bytes;
using testing::Hex;

TEST(PtapWire, ReadsStartsOfBothModesFromTheByteFigures) {
  for (bool extended : {false, true}) {
    const Bytes raw = testing::StartDatagram(extended);
    ASSERT_EQ(raw.size(), 9u + (extended ? 127u : 93u));
    const PtapDatagram d = DecodePtap(raw);
    ASSERT_EQ(d.status, DecodeStatus::kOk);
    EXPECT_EQ(d.tid, 1u);
    EXPECT_EQ(d.type, kTypeStart);
    ASSERT_EQ(d.elements.size(), 6u);
    const std::uint8_t tags[] = {0x20, 0x01, 0x02, 0x05, 0x07, 0x06};
    const std::size_t lengths[] = {1, extended ? 83u : 49u, 2, 12, 6, 4};
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_EQ(d.elements[i].tag, tags[i]);
      EXPECT_EQ(d.elements[i].value.size(), lengths[i]);
    }
    EXPECT_EQ(d.Find(kTagMac)->value, Hex("02 00 00 AA BB CC"));
    EXPECT_EQ(d.Find(0x33), nullptr);
  }
}

TEST(PtapWire, WritesHeaderElementsInOrderAndTheEndMark) {
  const WireElement elements[] = {ByteElement(kTagResult, 0), U16Element(kTagMgcpPbxPort, 2727),
                                  WireElement{0x40, {}}};
  EXPECT_EQ(EncodePtap(0x00123456, kTypeAck, elements),
            Hex("50 54 41 50 00 12 34 56 00  20 00 01 00  10 00 02 0A A7  40 00 00  FF"));
  EXPECT_EQ(EncodePtap(0xFFFFFFFF, kTypeKeepalive, {}), Hex("50 54 41 50 FF FF FF FF 10 FF"));
  EXPECT_EQ(EncodePtapRaw(2, kTypeEvent, Hex("41 00")), Hex("50 54 41 50 00 00 00 02 15 41 00"));
}

TEST(PtapWire, LongValuesRoundTripAndOversizedOnesAreRefused) {
  WireElement big{0x77, Bytes(300, std::byte{0xAB})};
  const WireElement elements[] = {big, ByteElement(kTagKeepaliveTimeout, 30)};
  const Bytes raw = EncodePtap(9, 3, elements);
  EXPECT_EQ(raw[10], std::byte{0x01});  // 300 = 01 2C, big-endian
  EXPECT_EQ(raw[11], std::byte{0x2C});
  const PtapDatagram d = DecodePtap(raw);
  ASSERT_TRUE(d.ok());
  ASSERT_EQ(d.elements.size(), 2u);
  EXPECT_EQ(d.elements[0], big);
  EXPECT_EQ(d.elements[1].value, Hex("1E"));

  WireElement limit{0x77, Bytes(kMaxElementValue)};
  EXPECT_FALSE(EncodePtap(1, 0, {&limit, 1}).empty());
  limit.value.push_back(std::byte{0});
  EXPECT_TRUE(EncodePtap(1, 0, {&limit, 1}).empty());
}

TEST(PtapWire, EveryMalformedShapeIsAStatusAndNoReadGoesPastTheEnd) {
  struct Case {
    const char* hex;
    DecodeStatus status;
    bool has_header;
    std::size_t elements;
  };
  const Case cases[] = {
      {"", DecodeStatus::kTooShort, false, 0},
      {"50 54 41 50 00 00 00 01", DecodeStatus::kTooShort, false, 0},
      {"50 54 41 50 00 00 00 01 04", DecodeStatus::kNoPayload, true, 0},
      {"51 54 41 50 00 00 00 01 04 FF", DecodeStatus::kBadMagic, true, 0},
      {"50 54 41 50 00 00 00 01 04 20", DecodeStatus::kTruncatedElement, true, 0},
      {"50 54 41 50 00 00 00 01 04 20 00", DecodeStatus::kTruncatedElement, true, 0},
      {"50 54 41 50 00 00 00 01 04 20 00 05 01 02", DecodeStatus::kElementPastEnd, true, 0},
      {"50 54 41 50 00 00 00 01 04 20 00 01 00 21 FF FF 00", DecodeStatus::kElementPastEnd, true,
       1},
      {"50 54 41 50 00 00 00 01 04 20 00 01 00", DecodeStatus::kNoEndMark, true, 1},
      {"50 54 41 50 00 00 00 01 04 FF 00", DecodeStatus::kTrailingBytes, true, 0},
      {"50 54 41 50 01 00 00 00 10 FF", DecodeStatus::kOk, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    // An exact-size copy, so that the sanitizer sees any read beyond it.
    const Bytes raw = Hex(c.hex);
    const PtapDatagram d = DecodePtap(raw);
    EXPECT_EQ(d.status, c.status) << DecodeStatusName(d.status);
    EXPECT_EQ(d.has_header, c.has_header);
    EXPECT_EQ(d.elements.size(), c.elements);
  }
  EXPECT_EQ(DecodePtap(Hex("50 54 41 50 01 00 00 00 10 FF")).tid, 0x01000000u);
  // Rules and counts go by the type of what has a PTAP header, whatever follows it.
  EXPECT_EQ(PtapType(Hex("50 54 41 50 00 00 00 01 04")), std::optional<std::uint8_t>(4));
  EXPECT_EQ(PtapType(Hex("58 54 41 50 00 00 00 01 04 FF")), std::nullopt);
  EXPECT_EQ(PtapType(Hex("50 54 41 50 00 00 00 01")), std::nullopt);
}

TEST(PtapWire, NamesTypes) {
  EXPECT_EQ(TypeName(kTypeStart), "START");
  EXPECT_EQ(TypeName(kTypeExtendedReply), "EXTENDED_REPLY");
  EXPECT_EQ(TypeName(33), "TYPE_33");
}

}  // namespace
}  // namespace deskline::sim
