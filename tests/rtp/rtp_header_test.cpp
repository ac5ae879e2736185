// The RTP header without a socket: the bytes that go out, the numbering from packet to packet,
// and the checks that a received datagram passes or fails. Datagrams live in vectors of their
// exact size, so that a read past the end shows under AddressSanitizer.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "voice/rtp.h"

namespace deskline {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::array<std::uint8_t, kRtpHeaderBytes> Header(std::uint32_t payload_type, std::uint32_t ssrc,
                                                 RtpSendCounters& counters) {
  std::array<std::uint8_t, kRtpHeaderBytes> out{};
  WriteRtpHeader(out, payload_type, ssrc, counters);
  return out;
}

// ---- Building ----------------------------------------------------------------------------

struct BuildRow {
  const char* name;
  std::uint32_t payload_type;
  std::uint32_t ssrc;
  RtpSendCounters before;
  std::array<std::uint8_t, kRtpHeaderBytes> bytes;
  RtpSendCounters after;
};

TEST(RtpHeaderBuild, WritesTheWireBytesAndStepsTheCounters) {
  const BuildRow rows[] = {
      {"PCMU from the start", 0, 0x11223344, {0, 0},
       {0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x44, 0x33, 0x22, 0x11}, {1, 160}},
      {"G.729, mid-stream", 18, 0x00010203, {0x1234, 0x00ABCDEF},
       {0x80, 0x12, 0x12, 0x34, 0x00, 0xAB, 0xCD, 0xEF, 0x03, 0x02, 0x01, 0x00},
       {0x1235, 0x00ABCDEF + 160}},
      {"sequence 65,535 is followed by 0 on the wire", 8, 0xA0B0C0D0, {0xFFFF, 0x1000},
       {0x80, 0x08, 0xFF, 0xFF, 0x00, 0x00, 0x10, 0x00, 0xD0, 0xC0, 0xB0, 0xA0},
       {0x10000, 0x10A0}},
      {"only the low 16 bits of the counter go out", 9, 0, {0x0001FFFE, 0},
       {0x80, 0x09, 0xFF, 0xFE, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
       {0x0001FFFF, 160}},
      {"timestamp wraps past 2^32", 0, 1, {7, 0xFFFFFFA0},
       {0x80, 0x00, 0x00, 0x07, 0xFF, 0xFF, 0xFF, 0xA0, 0x01, 0x00, 0x00, 0x00}, {8, 0x40}},
      {"payload type keeps its low 7 bits, the marker stays clear", 0x80 | 18, 0, {0, 0},
       {0x80, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, {1, 160}},
  };
  for (const BuildRow& row : rows) {
    SCOPED_TRACE(row.name);
    RtpSendCounters counters = row.before;
    EXPECT_EQ(Header(row.payload_type, row.ssrc, counters), row.bytes);
    EXPECT_EQ(counters.sequence, row.after.sequence);
    EXPECT_EQ(counters.timestamp, row.after.timestamp);
  }
}

// ---- Checking ----------------------------------------------------------------------------

// A datagram: the 12-byte header with the given first byte, then `rest`.
Bytes Datagram(std::uint8_t first, std::initializer_list<std::uint8_t> rest = {}) {
  Bytes d = {first, 0x12, 0xAB, 0xCD, 0x01, 0x02, 0x03, 0x04, 0x78, 0x56, 0x34, 0x12};
  for (std::uint8_t b : rest) d.push_back(b);
  return d;
}

Bytes WithPayload(Bytes d, std::size_t bytes, std::uint8_t fill = 0x55) {
  d.resize(d.size() + bytes, fill);
  return d;
}

struct CheckRow {
  std::string name;
  Bytes datagram;
  RtpReject result;
  std::size_t payload_offset = 0;
  std::size_t payload_length = 0;
};

TEST(RtpHeaderCheck, AcceptsOrRejectsEachDatagramForItsReason) {
  Bytes padded = WithPayload(Datagram(0xA0), 10);
  padded.back() = 3;  // 7 bytes of payload, 3 of padding
  Bytes padding_all = WithPayload(Datagram(0xA0), 4);
  padding_all.back() = 4;
  Bytes padding_over = WithPayload(Datagram(0xA0), 4);
  padding_over.back() = 5;
  Bytes padding_zero = WithPayload(Datagram(0xA0), 4);
  padding_zero.back() = 0;
  // A count of 128 or more is read as signed and never fits, even under a long payload.
  Bytes padding_signed = WithPayload(Datagram(0xA0), 300);
  padding_signed.back() = 0x80;
  Bytes padding_127 = WithPayload(Datagram(0xA0), 300);
  padding_127.back() = 127;

  const CheckRow rows[] = {
      {"empty datagram", {}, RtpReject::kTooShort},
      {"one byte", {0x80}, RtpReject::kTooShort},
      {"header alone, 12 bytes", Datagram(0x80), RtpReject::kTooShort},
      {"13 bytes carry one payload byte", WithPayload(Datagram(0x80), 1), RtpReject::kNone, 12, 1},
      {"G.711 frame", WithPayload(Datagram(0x80), 160), RtpReject::kNone, 12, 160},
      {"1,500 bytes", WithPayload(Datagram(0x80), 1488), RtpReject::kNone, 12, 1488},
      {"1,501 bytes", WithPayload(Datagram(0x80), 1489), RtpReject::kTooLong},
      {"version 1", WithPayload(Datagram(0x40), 160), RtpReject::kVersion},
      {"version 0", WithPayload(Datagram(0x00), 160), RtpReject::kVersion},
      {"version 3", WithPayload(Datagram(0xC0), 160), RtpReject::kVersion},
      {"two CSRCs, room for one", WithPayload(Datagram(0x82), 4), RtpReject::kCsrcPastEnd},
      {"fifteen CSRCs in a short datagram", WithPayload(Datagram(0x8F), 20),
       RtpReject::kCsrcPastEnd},
      {"one CSRC and nothing after it", WithPayload(Datagram(0x81), 4), RtpReject::kEmpty},
      {"one CSRC, then the payload", WithPayload(Datagram(0x81), 24), RtpReject::kNone, 16, 20},
      {"extension header cut short", WithPayload(Datagram(0x90), 3),
       RtpReject::kExtensionPastEnd},
      {"extension of 2 words with 1 present",
       Datagram(0x90, {0xBE, 0xDE, 0x00, 0x02, 1, 2, 3, 4}), RtpReject::kExtensionPastEnd},
      {"extension of 65,535 words", WithPayload(Datagram(0x90, {0xBE, 0xDE, 0xFF, 0xFF}), 100),
       RtpReject::kExtensionPastEnd},
      {"extension that ends the datagram", Datagram(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3, 4}),
       RtpReject::kEmpty},
      {"extension, then the payload",
       Datagram(0x90, {0xBE, 0xDE, 0x00, 0x01, 1, 2, 3, 4, 0xAA, 0xBB}), RtpReject::kNone, 20, 2},
      {"CSRC and extension, then the payload",
       Datagram(0x91, {9, 9, 9, 9, 0xBE, 0xDE, 0x00, 0x00, 0xAA}), RtpReject::kNone, 20, 1},
      {"padding of 3", padded, RtpReject::kNone, 12, 7},
      {"padding of the whole payload", padding_all, RtpReject::kEmpty},
      {"padding longer than the payload", padding_over, RtpReject::kPaddingPastPayload},
      {"padding count 0", padding_zero, RtpReject::kNone, 12, 4},
      {"padding count 128", padding_signed, RtpReject::kPaddingPastPayload},
      {"padding count 127", padding_127, RtpReject::kNone, 12, 300 - 127},
      {"padding bit with nothing after the CSRC", WithPayload(Datagram(0xA1), 4),
       RtpReject::kEmpty},
  };
  for (const CheckRow& row : rows) {
    SCOPED_TRACE(row.name);
    RtpHeaderView view;
    view.payload_offset = 999;
    ASSERT_EQ(CheckRtpDatagram(row.datagram, &view), row.result);
    if (row.result != RtpReject::kNone) {
      EXPECT_EQ(view.payload_offset, 999u) << "a refused datagram leaves the view alone";
      continue;
    }
    EXPECT_EQ(view.payload_offset, row.payload_offset);
    EXPECT_EQ(view.payload_length, row.payload_length);
    EXPECT_EQ(view.length, row.payload_offset + row.payload_length);
  }
}

// Every short datagram with every first byte and a spread of the bytes that the CSRC,
// extension and padding checks read: the check never reads out of bounds, and whatever it
// accepts lies inside the datagram and carries something.
TEST(RtpHeaderCheck, NoShortDatagramIsReadPastItsEnd) {
  const std::uint8_t fills[] = {0x00, 0x01, 0x04, 0x7F, 0x80, 0xFF};
  for (std::size_t length = 0; length <= 48; ++length) {
    for (int first = 0; first < 256; ++first) {
      for (std::uint8_t fill : fills) {
        Bytes d(length, fill);
        if (length > 0) d[0] = static_cast<std::uint8_t>(first);
        RtpHeaderView view;
        if (CheckRtpDatagram(d, &view) != RtpReject::kNone) continue;
        ASSERT_GT(view.payload_length, 0u);
        ASSERT_LE(view.payload_offset + view.payload_length, length);
        ASSERT_EQ(view.length, view.payload_offset + view.payload_length);
      }
    }
  }
}

// ---- The receive path without a socket ---------------------------------------------------

TEST(RtpReceivePath, DropsPayloadsShorterThanTheStreamsCodecNeeds) {
  CRtp rtp(1);
  ASSERT_EQ(rtp.Start(), 0);
  RtpPacket packet;
  std::int32_t length = 0;

  struct Row {
    std::uint32_t stream_type;
    std::size_t payload;
    int result;
  };
  const Row rows[] = {
      {kRtpPayloadG729, 20, 0},  {kRtpPayloadG729, 19, 1},  {kRtpPayloadG729, 10, 1},
      {kRtpPayloadG729, 40, 0},  {kRtpPayloadPcmu, 160, 0}, {kRtpPayloadPcmu, 159, 1},
      {kRtpPayloadPcma, 20, 1},  {kRtpPayloadG722, 1, 0},   {96, 1, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "type " << row.stream_type << ", " << row.payload);
    ASSERT_EQ(rtp.rtp_set_payload_type(row.stream_type), 0);
    const Bytes d = WithPayload(Datagram(0x80), row.payload);
    EXPECT_EQ(rtp.ReceiveDatagram(d, &packet, &length), row.result);
    EXPECT_EQ(length, static_cast<std::int32_t>(d.size()));
    EXPECT_EQ(packet.payload().size(), row.result == 0 ? row.payload : 0u);
  }
}

TEST(RtpReceivePath, KeepsTheFirstRemoteSsrcAndTheLastSequence) {
  CRtp rtp(1);
  ASSERT_EQ(rtp.Start(), 0);
  RtpPacket packet;
  std::int32_t length = 0;

  Bytes d = WithPayload(Datagram(0xA1, {1, 2, 3, 4}), 163);
  d.back() = 3;  // a CSRC and 3 bytes of padding around 160 bytes of payload
  d[2] = 0x00;
  d[3] = 0x07;
  ASSERT_EQ(rtp.ReceiveDatagram(d, &packet, &length), 0);
  EXPECT_EQ(length, 16 + 160) << "header and payload, padding not counted";
  EXPECT_EQ(packet.payload().size(), 160u);
  EXPECT_EQ(packet.header().sequence, 7);
  EXPECT_EQ(rtp.remote_ssrc(), 0x12345678u);
  EXPECT_EQ(rtp.last_remote_sequence(), 7u);

  Bytes other = WithPayload(Datagram(0x80), 160);
  other[3] = 0x09;
  other[8] = 0xEE;
  ASSERT_EQ(rtp.ReceiveDatagram(other, &packet, &length), 0);
  EXPECT_EQ(rtp.remote_ssrc(), 0x12345678u) << "a new sender is not compared or kept";
  EXPECT_EQ(rtp.last_remote_sequence(), 0xAB09u);

  // A refused datagram changes neither.
  EXPECT_EQ(rtp.ReceiveDatagram(Datagram(0x80), &packet, &length), 1);
  EXPECT_EQ(length, 12);
  EXPECT_EQ(rtp.last_remote_sequence(), 0xAB09u);
}

// A packet that held a received datagram with a CSRC in front of its payload can be sent:
// the payload moves up behind a plain 12-byte header.
TEST(RtpPackets, AReceivedPacketCanBeSentOnWithAPlainHeader) {
  CRtp rtp(1);
  ASSERT_EQ(rtp.Start(), 0);
  ASSERT_EQ(rtp.rtp_set_payload_type(kRtpPayloadG729), 0);
  RtpPacket packet;
  Bytes d = WithPayload(Datagram(0x81, {9, 9, 9, 9}), 20);
  for (std::size_t i = 0; i < 20; ++i) d[16 + i] = static_cast<std::uint8_t>(i);
  ASSERT_EQ(rtp.ReceiveDatagram(d, &packet, nullptr), 0);

  RtpSendCounters counters{0x10, 0x20};
  const auto datagram = packet.BuildDatagram(18, 0x01020304, counters, 20);
  ASSERT_EQ(datagram.size(), 32u);
  RtpHeaderView view;
  ASSERT_EQ(CheckRtpDatagram(datagram, &view), RtpReject::kNone);
  EXPECT_EQ(view.payload_offset, 12u);
  EXPECT_EQ(view.sequence, 0x10);
  EXPECT_EQ(view.ssrc, 0x01020304u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(datagram[12 + i], i);
  EXPECT_EQ(packet.header().sequence, 0x10) << "the packet shows what it was sent with";
  EXPECT_TRUE(packet.BuildDatagram(18, 0, counters, 21).empty());
  EXPECT_TRUE(packet.BuildDatagram(18, 0, counters, 0).empty());
  EXPECT_EQ(counters.sequence, 0x11u) << "a refused build uses no number";
}

TEST(RtpPackets, CreateBoundsThePayload) {
  for (std::int32_t size : {-1, 0, 20, 1488, 1489}) {
    auto packet = CRtp::rtp_create_packet(&size);
    ASSERT_EQ(packet != nullptr, size >= 0 && size <= 1488) << size;
    if (packet) {
      EXPECT_EQ(packet->payload().size(), static_cast<std::size_t>(size));
    }
    CRtp::rtp_release_packet(&packet);
    EXPECT_EQ(packet, nullptr);
  }
}

}  // namespace
}  // namespace deskline
