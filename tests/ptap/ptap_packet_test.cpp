// What the terminal puts on the wire, byte for byte, and the pure parsing pieces beneath the
// receive path: the element walk, the header test and the code tables.
#include <gtest/gtest.h>

#include "ptap/ptap.h"
#include "ptap/ptap_packet.h"
#include "testing/fake_clock.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using testing::Bytes;
using testing::FakeClock;
using testing::Hex;
using testing::PbxDatagram;

const Bytes kMac = Hex("00 1A 2B 3C 4D 5E");

const Bytes kBasicStartBody = Hex(
    "20 00 01 07"
    "01 00 31 01 04 00 06 18 00 02 02 18 04 03 FE DF E0 02 04 04 01 21 01 22 01 23 02 24 04"
    "   02 25 04 02 26 0C 02 27 05 01 28 01 29 04 30 C8 00 00 04 86 40 00 00"
    "02 00 02 01 01"
    "05 00 0C 44 45 53 4B 4C 49 4E 45 30 30 30 31"
    "07 00 06 00 1A 2B 3C 4D 5E"
    "06 00 04 C0 A8 0A 05"
    "FF");

const Bytes kExtendedStartBody = Hex(
    "20 00 01 07"
    "01 00 53 03 04 00 06 18 00 02 02 0C 04 03 FE DF E2 02 04 04 04 05 0C 0C 00 03 07 30 04"
    "   04 08 CF 00 00 01 21 01 23 02 24 04 02 25 04 02 26 0C 02 27 05 01 28 01 29"
    "   04 30 C8 00 00 02 31 04 04 42 00 00 00 02 50 01 04 81 01 00 00 01 82 01 83 01 84"
    "   04 86 40 00 00"
    "02 00 02 03 12"
    "05 00 0C 44 45 53 4B 4C 49 4E 45 30 30 30 31"
    "07 00 06 00 1A 2B 3C 4D 5E"
    "06 00 04 C0 A8 0A 05"
    "FF");

class PtapSendTest : public ::testing::Test {
 protected:
  void Prepare(std::uint8_t start_mode) {
    init_ = testing::MakeInitData(start_mode);
    ASSERT_EQ(ptap_.SetNetworkData(&init_), 0);
    ASSERT_EQ(ptap_.Prepare(), 0);
  }
  Bytes Last() const { return sent_.Sent().back(); }

  FakeClock clock_{FakeClock::Mode::kManual};
  testing::SentLog sent_;
  NetworkInitData init_{};
  CPtap ptap_{clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                  [this](std::span<const std::uint8_t> d) { return sent_.Record(d); }}};
};

TEST_F(PtapSendTest, StartInBothModesMatchesTheFigures) {
  Prepare(0);
  EXPECT_EQ(kBasicStartBody.size(), 93u);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0), 102);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 00 00 01 04"), kBasicStartBody}));

  Prepare(1);
  EXPECT_EQ(kExtendedStartBody.size(), 127u);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0), 136);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 00 00 01 04"), kExtendedStartBody}));

  Prepare(7);  // neither mode: the basic tables
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 00 00 01 04"), kBasicStartBody}));
}

TEST_F(PtapSendTest, TidsCountNonAckPacketsAndAcksEchoTheReceivedTid) {
  Prepare(0);
  ASSERT_EQ(ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0), 102);

  // A keepalive request in between is acknowledged with its own tid, byte for byte.
  const PbxDatagram keepalive = PbxDatagram(PTAP_TYPE_KEEPALIVE, 0x00123456).End();
  ASSERT_EQ(ptap_.ProcessDatagram(keepalive.data(), keepalive.size()), 0);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 12 34 56 00 20 00 01 00 07 00 06"), kMac,
                                     Hex("FF")}));
  EXPECT_EQ(ptap_.last_sent_type(), PTAP_TYPE_START) << "an ACK leaves the last sent type";

  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_OP_BEGIN, nullptr, 0), 19);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 00 00 02 0F 07 00 06"), kMac, Hex("FF")}));

  const std::uint8_t code = 0x2A;
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1), 23);
  EXPECT_EQ(Last(), testing::Concat({Hex("50 54 41 50 00 00 00 03 14 20 00 01 2A 07 00 06"), kMac,
                                     Hex("FF")}));
  EXPECT_EQ(ptap_.last_sent_type(), PTAP_TYPE_ERROR_REPORT);
}

TEST_F(PtapSendTest, RefusedRequestsSendNothingAndKeepTheTid) {
  Prepare(0);
  const std::uint8_t code = 5;
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_ERROR_REPORT, nullptr, 1), 1);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 0), 1);
  EXPECT_EQ(ptap_.SendPacket(33, nullptr, 0), 1);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_KEEPALIVE, nullptr, 0), 1);
  EXPECT_EQ(ptap_.SendPacket(-1, nullptr, 0), 1);
  EXPECT_EQ(ptap_.SendPacket(0x100 + PTAP_TYPE_START, nullptr, 0), 1);
  EXPECT_EQ(sent_.size(), 0u);
  EXPECT_EQ(ptap_.buffer().count(), 0);

  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  const Bytes start = Last();
  EXPECT_EQ(Hex("00 00 00 01"), Bytes(start.begin() + 4, start.begin() + 8));
}

TEST_F(PtapSendTest, ExtendedRequestIsAnsweredWithTheExtendedReply) {
  Prepare(1);
  const PbxDatagram request = PbxDatagram(PTAP_TYPE_EXTENDED_REQUEST, 0x77).End();
  ASSERT_EQ(ptap_.ProcessDatagram(request.data(), request.size()), 0);
  const auto sent = sent_.Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0][8], PTAP_TYPE_ACK);
  EXPECT_EQ(sent[1], testing::Concat({Hex("50 54 41 50 00 00 00 01 3D 5B 00 05 FF FF FF FF FF"
                                          "07 00 06"),
                                      kMac, Hex("FF")}));
  EXPECT_EQ(ptap_.buffer().count(), 1) << "the reply waits for its ACK like any other packet";
}

TEST_F(PtapSendTest, FailedSendReportsOneAndStillEntersTheList) {
  Prepare(0);
  sent_.set_succeed(false);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0), 1);
  EXPECT_EQ(ptap_.buffer().count(), 1);
  EXPECT_EQ(ptap_.SendPacket(PTAP_TYPE_ACK, nullptr, 0), 1);
  EXPECT_EQ(ptap_.buffer().count(), 1) << "an ACK is never kept";
}

// ---- Element walk --------------------------------------------------------------------------

PtapPacket PacketWithPayload(const Bytes& payload) {
  PtapPacket packet;
  packet.payload = payload;
  ParsePtapElements(packet);
  return packet;
}

TEST(PtapElementWalk, StopsWhereTheBytesStop) {
  struct Row {
    const char* name;
    Bytes payload;
    std::size_t elements;
  };
  const Row rows[] = {
      {"end mark first", Hex("FF 1B 00 01 05"), 0},
      {"two and the end mark", Hex("1B 00 01 05 1C 00 01 06 FF 1D 00 01 07"), 2},
      {"no end mark", Hex("1B 00 01 05 1C 00 01 06"), 2},
      {"length past the end", Hex("1B 00 01 05 1C 00 09 06 07"), 1},
      {"length field cut", Hex("1B 00 01 05 1C 00"), 1},
      {"tag alone", Hex("1B 00 01 05 1C"), 1},
      {"length 65535", Hex("1B FF FF 00"), 0},
      {"zero-length values", Hex("1B 00 00 1C 00 00 FF"), 2},
      {"empty", Bytes{}, 0},
  };
  for (const Row& row : rows) {
    const PtapPacket packet = PacketWithPayload(row.payload);
    EXPECT_EQ(packet.elements.size(), row.elements) << row.name;
    for (const PtapElement& e : packet.elements) {
      EXPECT_LE(std::size_t{e.offset} + e.length, packet.payload.size()) << row.name;
    }
  }
}

TEST(PtapElementWalk, UnknownTagOfLength300IsSteppedOver) {
  Bytes payload = Hex("77 01 2C");
  payload.insert(payload.end(), 300, 0xAB);
  const Bytes tail = Hex("0F 00 02 1F 40 FF");
  payload.insert(payload.end(), tail.begin(), tail.end());
  const PtapPacket packet = PacketWithPayload(payload);
  ASSERT_EQ(packet.elements.size(), 2u);
  EXPECT_EQ(packet.elements[0].length, 300);
  EXPECT_EQ(packet.elements[1].tag, 0x0F);
  const auto value = packet.Value(packet.elements[1]);
  ASSERT_EQ(value.size(), 2u);
  EXPECT_EQ(value[0], 0x1F);
  EXPECT_EQ(value[1], 0x40);
}

TEST(PtapCodes, ResultCodeMapping) {
  const struct {
    int wire;
    int result;
  } rows[] = {{0, 0},     {99, 0},    {100, 200}, {101, 200}, {102, 200}, {103, 200},
              {104, 0},   {199, 0},   {200, 201}, {201, 202}, {202, 203}, {203, 0},
              {255, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(MapPtapResultCode(static_cast<std::uint8_t>(row.wire)), row.result) << row.wire;
  }
}

TEST(PtapCodes, PbxClassMapping) {
  // Index = delivered value 0..31.
  const int expected[32] = {3, 2, 1, 1, 2, 2, 8, 8, 4, 3, 3, 8, 3, 8, 8, 8,
                            8, 8, 8, 8, 8, 8, 2, 8, 8, 8, 8, 8, 8, 3, 8, 8};
  for (int v = 0; v < 32; ++v) {
    EXPECT_EQ(MapPbxClass(static_cast<std::uint16_t>(v)), expected[v]) << v;
  }
  EXPECT_EQ(MapPbxClass(32), 1);
  EXPECT_EQ(MapPbxClass(0x1234), 1);
  EXPECT_EQ(MapPbxClass(0xFFFF), 1);
}

}  // namespace
}  // namespace deskline
