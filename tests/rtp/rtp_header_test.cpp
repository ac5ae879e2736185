// Datagrams live in vectors of their exact size, so that a read past the end shows under ASan.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "voice/rtp.h"

namespace deskline {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(RtpHeader, WritesTheWireBytesAndStepsTheCounters) {
  const struct {
    const char* name;
    std::uint32_t payload_type, ssrc;
    RtpSendCounters before;
    std::array<std::uint8_t, 12> bytes;
    RtpSendCounters after;
  } rows[] = {
      {"SSRC lowest byte first, G.729 mid-stream", 18, 0x11223344, {0x1234, 0x00ABCDEF},
       {0x80, 18, 0x12, 0x34, 0x00, 0xAB, 0xCD, 0xEF, 0x44, 0x33, 0x22, 0x11},
       {0x1235, 0x00ABCDEF + 160}},
      {"sequence 65,535, then 0", 8, 0, {0xFFFF, 0}, {0x80, 8, 0xFF, 0xFF}, {0x10000, 160}},
      {"only the low 16 bits go out", 9, 0, {0x10000, 0}, {0x80, 9, 0, 0}, {0x10001, 160}},
      {"timestamp wraps past 2^32", 0, 0, {7, 0xFFFFFFA0}, {0x80, 0, 0, 7, 0xFF, 0xFF, 0xFF, 0xA0},
       {8, 0x40}},
      {"low 7 bits of the type, marker clear", 0x80 | 18, 0, {0, 0}, {0x80, 18}, {1, 160}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RtpSendCounters counters = row.before;
    std::array<std::uint8_t, kRtpHeaderBytes> out{};
    WriteRtpHeader(out, row.payload_type, row.ssrc, counters);
    EXPECT_EQ(out, row.bytes);
    EXPECT_EQ(counters.sequence, row.after.sequence);
    EXPECT_EQ(counters.timestamp, row.after.timestamp);
  }
}

// The 12-byte header with first byte `first`, then `rest`, then `payload` bytes of 0x55 whose
// last byte, if `last` is not negative, is `last` (a padding count).
Bytes Datagram(std::uint8_t first, Bytes rest = {}, std::size_t payload = 0, int last = -1) {
  Bytes d = {first, 0x12, 0xAB, 0xCD, 0x01, 0x02, 0x03, 0x04, 0x78, 0x56, 0x34, 0x12};
  d.resize(12 + rest.size() + payload, 0x55);
  std::copy(rest.begin(), rest.end(), d.begin() + 12);
  if (last >= 0) d.back() = static_cast<std::uint8_t>(last);
  return d;
}

TEST(RtpHeader, ChecksEachDatagramAndRejectsItForItsReason) {
  using enum RtpReject;
  const Bytes ext1 = {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3, 4};  // an extension of one word
  const struct {
    std::string name;
    Bytes datagram;
    RtpReject result;
    std::size_t offset = 0, length = 0;
  } rows[] = {
      {"empty", {}, kTooShort},
      {"header alone", Datagram(0x80), kTooShort},
      {"13 bytes", Datagram(0x80, {}, 1), kNone, 12, 1},
      {"1,500 bytes", Datagram(0x80, {}, 1488), kNone, 12, 1488},
      {"1,501 bytes", Datagram(0x80, {}, 1489), kTooLong},
      {"version 0", Datagram(0x00, {}, 160), kVersion},
      {"version 1", Datagram(0x40, {}, 160), kVersion},
      {"version 3", Datagram(0xC0, {}, 160), kVersion},
      {"two CSRCs, room for one", Datagram(0x82, {}, 4), kCsrcPastEnd},
      {"fifteen CSRCs", Datagram(0x8F, {}, 20), kCsrcPastEnd},
      {"one CSRC and nothing after it", Datagram(0x81, {}, 4), kEmpty},
      {"one CSRC, then the payload", Datagram(0x81, {}, 24), kNone, 16, 20},
      {"extension header cut", Datagram(0x90, {}, 3), kExtensionPastEnd},
      {"2 extension words, 1 there", Datagram(0x90, {0xBE, 0xDE, 0, 2, 1, 2, 3, 4}), kExtensionPastEnd},
      {"65,535 extension words", Datagram(0x90, {0xBE, 0xDE, 0xFF, 0xFF}, 100), kExtensionPastEnd},
      {"extension that ends the datagram", Datagram(0x90, ext1), kEmpty},
      {"extension, then the payload", Datagram(0x90, ext1, 2), kNone, 20, 2},
      {"CSRC and extension, then the payload", Datagram(0x91, {9, 9, 9, 9, 0xBE, 0xDE, 0, 0}, 1),
       kNone, 20, 1},
      {"padding of 3", Datagram(0xA0, {}, 10, 3), kNone, 12, 7},
      {"padding of 0", Datagram(0xA0, {}, 4, 0), kNone, 12, 4},
      {"padding of everything", Datagram(0xA0, {}, 4, 4), kEmpty},
      {"padding past the payload", Datagram(0xA0, {}, 4, 5), kPaddingPastPayload},
      {"padding of 127", Datagram(0xA0, {}, 300, 127), kNone, 12, 173},
      {"padding of 128 reads as signed", Datagram(0xA0, {}, 300, 128), kPaddingPastPayload},
      {"padding after a CSRC, nothing else", Datagram(0xA1, {}, 4), kEmpty},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RtpHeaderView view;
    view.payload_offset = 999;
    ASSERT_EQ(CheckRtpDatagram(row.datagram, &view), row.result);
    if (row.result != kNone) {
      EXPECT_EQ(view.payload_offset, 999u) << "a refused datagram leaves the view alone";
      continue;
    }
    EXPECT_EQ(view.payload_offset, row.offset);
    EXPECT_EQ(view.payload_length, row.length);
    EXPECT_EQ(view.length, row.offset + row.length);
  }
}

// Every length up to 48, every first byte: what is accepted lies inside and is not empty.
TEST(RtpHeader, NoShortDatagramIsReadPastItsEnd) {
  for (std::size_t length = 0; length <= 48; ++length) {
    for (int first = 0; first < 256; ++first) {
      for (std::uint8_t fill : {0x00, 0x01, 0x04, 0x7F, 0x80, 0xFF}) {
        Bytes d(length, fill);
        if (length > 0) d[0] = static_cast<std::uint8_t>(first);
        RtpHeaderView view;
        if (CheckRtpDatagram(d, &view) != RtpReject::kNone) continue;
        ASSERT_GT(view.payload_length, 0u);
        ASSERT_LE(view.payload_offset + view.payload_length, length);
      }
    }
  }
}

TEST(RtpReceivePath, DropsShortPayloadsAndSendsAReceivedPacketOn) {
  CRtp rtp(1);
  ASSERT_EQ(rtp.Start(), 0);
  RtpPacket packet;
  std::int32_t length = 0;
  const struct { std::uint32_t type; std::size_t payload; int result; } rows[] = {
      {18, 20, 0}, {18, 19, 1}, {18, 40, 0}, {0, 160, 0},
      {0, 159, 1}, {8, 20, 1},   {9, 1, 0},   {96, 1, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.type << ", " << row.payload);
    ASSERT_EQ(rtp.rtp_set_payload_type(row.type), 0);
    const Bytes d = Datagram(0x80, {}, row.payload);
    EXPECT_EQ(rtp.ReceiveDatagram(d, &packet, &length), row.result);
    EXPECT_EQ(length, static_cast<std::int32_t>(d.size()));
    EXPECT_EQ(packet.payload().size(), row.result == 0 ? row.payload : 0u);
  }

  // A CSRC and 3 bytes of padding around 160 bytes: the payload and length leave both out.
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadPcmu), 0);
  ASSERT_EQ(rtp.ReceiveDatagram(Datagram(0xA1, {1, 2, 3, 4}, 163, 3), &packet, &length), 0);
  EXPECT_EQ(length, 16 + 160);
  EXPECT_EQ(packet.payload().size(), 160u);
  EXPECT_EQ(packet.header().sequence, 0xABCD);

  // A received packet with a CSRC in front of its payload is sent on behind a plain header.
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  Bytes d = Datagram(0x81, {9, 9, 9, 9}, 20);
  for (std::size_t i = 0; i < 20; ++i) d[16 + i] = static_cast<std::uint8_t>(i);
  ASSERT_EQ(rtp.ReceiveDatagram(d, &packet, nullptr), 0);
  RtpSendCounters counters{0x10, 0x20};
  const auto datagram = packet.BuildDatagram(18, 0x01020304, counters, 20);
  ASSERT_EQ(datagram.size(), 32u);
  EXPECT_EQ(Bytes(datagram.begin(), datagram.begin() + 4), (Bytes{0x80, 18, 0x00, 0x10}));
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(datagram[12 + i], i);
  EXPECT_TRUE(packet.BuildDatagram(18, 0, counters, 21).empty());
  EXPECT_TRUE(packet.BuildDatagram(18, 0, counters, 0).empty());
  EXPECT_EQ(counters.sequence, 0x11u) << "a refused build uses no number";
}

TEST(RtpPackets, CreateBoundsThePayload) {
  for (std::int32_t size : {-1, 0, 1488, 1489}) {
    auto created = CRtp::rtp_create_packet(&size);
    ASSERT_EQ(created != nullptr, size >= 0 && size <= 1488) << size;
    if (created) {
      EXPECT_EQ(created->payload().size(), static_cast<std::size_t>(size));
    }
    CRtp::rtp_release_packet(&created);
    EXPECT_EQ(created, nullptr);
  }
}

}  // namespace
}  // namespace deskline
