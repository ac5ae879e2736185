// The receive path without a socket: header test and ACK, type handling, the element handler
// and the parameter loader, with what reaches CCp through the parent and the observers.
#include <gtest/gtest.h>

#include "ptap/ptap.h"
#include "testing/fake_clock.h"
#include "testing/trace_capture.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using testing::Bytes;
using testing::FakeClock;
using testing::Hex;
using testing::PbxDatagram;

class PtapReceiveTest : public ::testing::Test {
 protected:
  void Prepare(std::uint8_t start_mode = 0) {
    init_ = testing::MakeInitData(start_mode);
    ASSERT_EQ(ptap_.SetNetworkData(&init_), 0);
    ptap_.SetParent(&parent_);
    ptap_.AddObserver(&observer_);
    ASSERT_EQ(ptap_.Prepare(), 0);
  }
  int Receive(const PbxDatagram& d) { return ptap_.ProcessDatagram(d.data(), d.size()); }
  PtapParameterContainer Container() {
    PtapParameterContainer c{};
    EXPECT_EQ(ptap_.GetParameterContainer(&c), 0);
    return c;
  }
  std::size_t AcksSent() const {
    std::size_t n = 0;
    for (const Bytes& d : sent_.Sent()) n += (d.size() > 8 && d[8] == PTAP_TYPE_ACK);
    return n;
  }

  FakeClock clock_{FakeClock::Mode::kManual};
  testing::SentLog sent_;
  testing::RecordingParent parent_;
  testing::RecordingObserver observer_;
  NetworkInitData init_{};
  CPtap ptap_{clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                  [this](std::span<const std::uint8_t> d) { return sent_.Record(d); }}};
};

TEST_F(PtapReceiveTest, MalformedDatagramsAreDroppedWithoutAnAck) {
  Prepare();
  const Bytes cases[] = {
      Bytes{},
      Hex("50 54 41 50"),
      Hex("50 54 41 50 00 00 00 01 10"),        // exactly the header
      Hex("50 54 41 51 00 00 00 01 10 FF"),     // bad magic
      Hex("50 54 41 50 01 00 00 00 10 FF"),     // tid 01 00 00 00
      Hex("50 54 41 50 01 00 00 00 15 20 00 01 55 FF"),
  };
  for (const Bytes& d : cases) EXPECT_EQ(ptap_.ProcessDatagram(d.data(), d.size()), 1);
  EXPECT_EQ(ptap_.ProcessDatagram(nullptr, 20), 1);
  EXPECT_EQ(sent_.size(), 0u);
  EXPECT_TRUE(parent_.Messages().empty());
  EXPECT_FALSE(ptap_.parameters_complete());
}

TEST_F(PtapReceiveTest, EveryTypeButAckIsAcknowledgedBeforeItIsHandled) {
  Prepare();
  EXPECT_EQ(Receive(PbxDatagram(33, 0x00ABCDEF).Byte(0x1B, 9).End()), 0);
  EXPECT_EQ(Receive(PbxDatagram(PTAP_TYPE_KEEPALIVE, 2).End()), 0);
  EXPECT_EQ(Receive(PbxDatagram(PTAP_TYPE_ACK, 3).End()), 0);
  const auto sent = sent_.Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(Bytes(sent[0].begin() + 4, sent[0].begin() + 9), Hex("00 AB CD EF 00"));
  EXPECT_EQ(Bytes(sent[1].begin() + 4, sent[1].begin() + 9), Hex("00 00 00 02 00"));
  EXPECT_EQ(ptap_.GetParameter(0x10), 9) << "a type without meaning still has its elements read";
}

TEST_F(PtapReceiveTest, BasicStartAnswerReleasesTheStartAndDeliversPorts) {
  Prepare(0);
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1)
              .Byte(0x20, 0)
              .Element(0x11, Hex("0A AB"))
              .Element(0x10, Hex("0A AC"))
              .Byte(0x1A, 30)
              .Byte(0xA2, 20)
              .Byte(0xA3, 25)
              .Byte(0xA1, 15)
              .End());
  EXPECT_EQ(observer_.Events(), std::vector<int>{PTAP_EVENT_START_ANSWERED});
  EXPECT_EQ(ptap_.GetErrorCode(), 0);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT), 2731);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_MGCP_PBX_PORT), 2732);
  EXPECT_EQ(ptap_.GetParameter(0x8), 30);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_MGCP_PUNCH_INTERVAL), 20);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_RTP_PUNCH_INTERVAL), 25);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_PTAP_PUNCH_INTERVAL), 0) << "PTAP is not punched";
  EXPECT_EQ(ptap_.GetParameter(0x1), 0);
  EXPECT_EQ(ptap_.GetParameter(0x12345), 0);
  EXPECT_EQ(AcksSent(), 0u) << "an ACK is not acknowledged";
  EXPECT_EQ(ptap_.buffer().count(), 0);
  EXPECT_EQ(Container().keepalive_timeout, 30);

  // Another result 0 before OP_BEGIN releases the start again; after OP_BEGIN it is event 2.
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).End());
  ptap_.SendPacket(PTAP_TYPE_OP_BEGIN, nullptr, 0);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 2).Byte(0x20, 0).End());
  EXPECT_EQ(observer_.Events(), (std::vector<int>{PTAP_EVENT_START_ANSWERED, PTAP_EVENT_START_ANSWERED,
                                                   PTAP_EVENT_OP_BEGIN_ANSWERED}));
}

TEST_F(PtapReceiveTest, ResultCodes) {
  struct Row {
    std::uint8_t wire;
    int error_code;
    std::vector<int> events;
    bool later_elements_stored;
  };
  const Row rows[] = {
      {0, 0, {PTAP_EVENT_START_ANSWERED}, true},
      {99, 0, {PTAP_EVENT_START_ANSWERED}, true},
      {203, 0, {PTAP_EVENT_START_ANSWERED}, true},
      {100, 200, {PTAP_EVENT_RESULT_200}, false},
      {103, 200, {PTAP_EVENT_RESULT_200}, false},
      {200, 201, {PTAP_EVENT_START_REFUSED}, false},
      {201, -1, {}, true},  // 202 releases nobody
      {202, -1, {}, true},  // 203 likewise
  };
  for (const Row& row : rows) {
    testing::RecordingObserver observer;
    CPtap ptap(clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                   [](std::span<const std::uint8_t>) { return true; }});
    init_ = testing::MakeInitData(0);
    ptap.SetNetworkData(&init_);
    ptap.AddObserver(&observer);
    ASSERT_EQ(ptap.Prepare(), 0);
    const int sentinel = -1;
    ptap.SetErrorCode(&sentinel);
    ptap.SendPacket(PTAP_TYPE_START, nullptr, 0);
    const PbxDatagram answer = PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, row.wire).Byte(0x1B, 4).End();
    ptap.ProcessDatagram(answer.data(), answer.size());
    EXPECT_EQ(ptap.GetErrorCode(), row.error_code) << int{row.wire};
    EXPECT_EQ(observer.Events(), row.events) << int{row.wire};
    EXPECT_EQ(ptap.GetParameter(0x10), row.later_elements_stored ? 4 : 0) << int{row.wire};
  }
}

TEST_F(PtapReceiveTest, TheEventIsRaisedBeforeTheElementsBehindItAreStored) {
  struct ReadingObserver : PtapObserver {
    CPtap* ptap = nullptr;
    int port_seen = -1;
    int OnPtapEvent(const int*) override {
      port_seen = ptap->GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT);
      return 0;
    }
  } reader;
  reader.ptap = &ptap_;
  Prepare(0);
  ptap_.AddObserver(&reader);
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Element(0x11, Hex("0B B8")).End());
  EXPECT_EQ(reader.port_seen, 0);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT), 3000);
}

TEST_F(PtapReceiveTest, ValuesAreReadByTheirTableEntries) {
  Prepare();
  Bytes unknown(300, 0x33);
  Bytes list(40);
  for (std::size_t i = 0; i < list.size(); ++i) list[i] = static_cast<std::uint8_t>(0xF0 + i);
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 5)
              .Element(0x5A, Hex("01 02 03 04 05 06 07"))
              .Element(0x0F, Hex("1F 40"))
              .Element(0x77, unknown)
              .Element(0x21, list)
              .Byte(0x1B, 0xC8)
              .Byte(0x18, 0xFF)
              .Element(0x23, Hex("81 99"))
              .End());
  const PtapParameters p = ptap_.Parameters();
  EXPECT_EQ(Bytes(p.value_5a.begin(), p.value_5a.end()), Hex("01 02 03 04 05"));
  EXPECT_EQ(ptap_.GetParameter(0x100), 8000);
  EXPECT_EQ(ptap_.GetParameter(0x10), 200);
  EXPECT_EQ(ptap_.GetParameter(0x2), 255);
  EXPECT_EQ(ptap_.GetParameter(0x800), 0x81);

  const PtapParameterContainer& c = Container();
  EXPECT_EQ(c.param_0f, 8000);
  EXPECT_EQ(c.param_1b, -56) << "the loader sign-extends";
  EXPECT_EQ(c.param_18, -1);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(c.param_21[i], static_cast<std::int8_t>(0xF0 + i)) << i;
  EXPECT_EQ(ptap_.parameter_count(), 4u);
  EXPECT_TRUE(ptap_.parameters_complete());

  // A later packet reaches the handler only: the container then holds the unsigned form,
  // and the selector reads the same in both cases.
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 6).Byte(0x1B, 0xC8).Element(0x5A, Hex("AA")).End());
  EXPECT_EQ(Container().param_1b, 200);
  EXPECT_EQ(ptap_.GetParameter(0x10), 200);
  const PtapParameters q = ptap_.Parameters();
  EXPECT_EQ(Bytes(q.value_5a.begin(), q.value_5a.end()), Hex("AA 00 00 00 00"));
}

TEST_F(PtapReceiveTest, ValuesShorterThanTheirTagNeedsAreNotActedUpon) {
  Prepare();
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1)
              .Element(0x20, {})
              .Element(0x0F, Hex("1F"))
              .Element(0x10, Hex("12"))
              .Element(0x1B, {})
              .Element(0x1A, {})
              .Element(0x5A, {})
              .Element(0xA2, {})
              .End());
  EXPECT_TRUE(observer_.Events().empty());
  EXPECT_EQ(ptap_.GetParameter(0x100), 0);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_MGCP_PBX_PORT), 0);
  EXPECT_EQ(ptap_.keepalive().last_keepalive_ns(), 0);
  EXPECT_EQ(ptap_.parameter_count(), 0u);
  EXPECT_FALSE(ptap_.parameters_complete());
}

TEST_F(PtapReceiveTest, ALengthPastTheEndStopsTheWalkAndKeepsWhatCameBefore) {
  Prepare();
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 9).Byte(0x1C, 3).Raw(0x1D, 40, Hex("05 06")));
  EXPECT_EQ(ptap_.GetParameter(0x20), 3);
  EXPECT_EQ(ptap_.GetParameter(0x40), 0);
  EXPECT_EQ(AcksSent(), 1u);
}

TEST_F(PtapReceiveTest, OnlyThirteenElementsOfADeliveryReachTheContainer) {
  Prepare();
  PbxDatagram d(PTAP_TYPE_ACK, 1);
  d.Byte(0x20, 0).Byte(0x1A, 10).Byte(0x1B, 1).Byte(0x1C, 2).Byte(0x1D, 3).Byte(0x1E, 4)
      .Byte(0x18, 5).Byte(0x19, 6).Byte(0x24, 7).Byte(0x25, 8).Element(0x0F, Hex("00 09"))
      .Element(0x21, Hex("0A")).Byte(0x1B, 11)  // 13th: the second 0x1B
      .Byte(0x26, 12)                           // 14th
      .End();
  Receive(d);
  const PtapParameterContainer& c = Container();
  EXPECT_EQ(ptap_.parameter_count(), 13u);
  EXPECT_EQ(c.param_1b, 11);
  EXPECT_EQ(c.param_26, 0);
  EXPECT_EQ(ptap_.GetParameter(0x4000), 12) << "the handler still takes the 14th";
}

TEST_F(PtapReceiveTest, AResultAloneCompletesTheDelivery) {
  Prepare();
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 1).Byte(0x77, 1).End());
  EXPECT_FALSE(ptap_.parameters_complete()) << "no known element: the delivery stays open";
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0xFB).End());
  EXPECT_TRUE(ptap_.parameters_complete());
  PtapParameterContainer expected{};
  expected.result_code = -5;
  const PtapParameterContainer got = Container();
  EXPECT_EQ(std::memcmp(&got, &expected, sizeof(expected)), 0);
}

TEST_F(PtapReceiveTest, EventsAndRestartsReachTheParent) {
  Prepare();
  Receive(PbxDatagram(PTAP_TYPE_EVENT, 0x10).Byte(0x20, 0x55).End());
  Receive(PbxDatagram(PTAP_TYPE_COMPULSION_RESTART, 0x11).End());
  const auto messages = parent_.Messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], std::string("\x20\x00\x01\x55\xFF", 5));
  EXPECT_EQ(messages[1], "PTAP_COMREST");
  EXPECT_EQ(parent_.wrong_types(), 0);
  EXPECT_EQ(AcksSent(), 2u);
}

TEST_F(PtapReceiveTest, ExtendedRequestOutsideExtendedModeIsAWrongTerminal) {
  Prepare(0);
  Receive(PbxDatagram(PTAP_TYPE_EXTENDED_REQUEST, 4).End());
  EXPECT_EQ(ptap_.GetErrorCode(), 211);
  EXPECT_EQ(observer_.Events(), std::vector<int>{PTAP_EVENT_WRONG_TERMINAL});
  EXPECT_EQ(sent_.size(), 1u) << "only the ACK";
}

TEST_F(PtapReceiveTest, ExtendedResponse) {
  Prepare(1);
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  // In extended mode result 0 alone releases nobody; the extended response does.
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Byte(0x20, 0).End());
  EXPECT_TRUE(observer_.Events().empty());
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Element(0x22, testing::ExtendedResponse(0x0102, 22)).End());
  EXPECT_EQ(observer_.Events(), (std::vector<int>{PTAP_EVENT_PBX_CLASS, PTAP_EVENT_START_ANSWERED}));
  EXPECT_EQ(ptap_.GetParameter(0x20000), 1);
  EXPECT_EQ(ptap_.GetParameter(0x8000), 0x0102);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_PBX_CLASS), 2);
  EXPECT_EQ(ptap_.GetErrorCode(), 0);
}

TEST_F(PtapReceiveTest, ExtendedResponseOfTheWrongKindEndsTheHandler) {
  for (int variant = 0; variant < 3; ++variant) {
    testing::RecordingObserver observer;
    CPtap ptap(clock_, PtapOptions{"", std::chrono::milliseconds(0),
                                   [](std::span<const std::uint8_t>) { return true; }});
    init_ = testing::MakeInitData(1);
    ptap.SetNetworkData(&init_);
    ptap.AddObserver(&observer);
    ASSERT_EQ(ptap.Prepare(), 0);
    ptap.SendPacket(PTAP_TYPE_START, nullptr, 0);
    Bytes value = testing::ExtendedResponse(1, 2);
    if (variant == 0) value[18] = 0x43;
    if (variant == 1) value.resize(31);
    if (variant == 2) value.clear();
    const PbxDatagram d = PbxDatagram(PTAP_TYPE_ACK, 1).Element(0x22, value).Byte(0x1B, 4).End();
    ptap.ProcessDatagram(d.data(), d.size());
    EXPECT_EQ(ptap.GetErrorCode(), 211) << variant;
    EXPECT_EQ(observer.Events(), std::vector<int>{PTAP_EVENT_WRONG_TERMINAL}) << variant;
    EXPECT_EQ(ptap.GetParameter(0x10), 0) << variant;
    EXPECT_EQ(ptap.GetParameter(0x20000), 0) << variant;
  }
}

TEST_F(PtapReceiveTest, ExtendedResponseMeansNothingInBasicMode) {
  Prepare(0);
  ptap_.SendPacket(PTAP_TYPE_START, nullptr, 0);
  Bytes wrong = testing::ExtendedResponse(1, 2);
  wrong[16] = 0;
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Element(0x22, testing::ExtendedResponse(1, 2)).End());
  Receive(PbxDatagram(PTAP_TYPE_ACK, 1).Element(0x22, wrong).End());
  EXPECT_TRUE(observer_.Events().empty());
  EXPECT_EQ(ptap_.GetErrorCode(), 0);
  EXPECT_EQ(ptap_.GetParameter(0x20000), 0);
  EXPECT_EQ(ptap_.GetParameter(PTAP_PARAM_PBX_CLASS), 0);
}

TEST_F(PtapReceiveTest, RegistrationResults) {
  testing::TraceCapture trace;
  EXPECT_EQ(ptap_.SetNetworkData(nullptr), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: Warning] Reference to invalid network data"));
  EXPECT_EQ(ptap_.Prepare(), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Cannot update PTAP initialization data"));
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Startup failed - Error in PTAP initialization data"));
  init_ = testing::MakeInitData();
  EXPECT_EQ(ptap_.SetNetworkData(&init_), 0);
  EXPECT_EQ(ptap_.SetNetworkData(nullptr), 0) << "null keeps the earlier record";
  EXPECT_EQ(ptap_.AddObserver(nullptr), 1);

  // An observer is listed once.
  ptap_.AddObserver(&observer_);
  ptap_.AddObserver(&observer_);
  ASSERT_EQ(ptap_.Prepare(), 0);
  Receive(PbxDatagram(PTAP_TYPE_EXTENDED_REQUEST, 1).End());
  EXPECT_EQ(observer_.Events().size(), 1u);
}

}  // namespace
}  // namespace deskline
