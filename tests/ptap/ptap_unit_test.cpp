// The PTAP client without a socket, on a manual simulated clock: what it puts on the wire, the
// receive path, and both schedules run a pass at a time as the worker threads would.
#include <gtest/gtest.h>

#include <memory>

#include "ptap/ptap_packet.h"
#include "testing/fake_clock.h"
#include "testing/trace_capture.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

using namespace deskline::testing;
using Times = std::vector<std::int64_t>;
using Events = std::vector<int>;

const std::string kStartHead = "50 54 41 50 00 00 00 01 04 20 00 01 07";
const std::string kStartTail = "05 00 0C 44 45 53 4B 4C 49 4E 45 30 30 30 31"
                               "07 00 06 00 1A 2B 3C 4D 5E 06 00 04 C0 A8 0A 05 FF";
const Bytes kBasicStart = Hex(
    kStartHead +
    "01 00 31 01 04 00 06 18 00 02 02 18 04 03 FE DF E0 02 04 04 01 21 01 22 01 23 02 24 04"
    "   02 25 04 02 26 0C 02 27 05 01 28 01 29 04 30 C8 00 00 04 86 40 00 00"
    "02 00 02 01 01" + kStartTail);
const Bytes kExtendedStart = Hex(
    kStartHead +
    "01 00 53 03 04 00 06 18 00 02 02 0C 04 03 FE DF E2 02 04 04 04 05 0C 0C 00 03 07 30 04"
    "   04 08 CF 00 00 01 21 01 23 02 24 04 02 25 04 02 26 0C 02 27 05 01 28 01 29"
    "   04 30 C8 00 00 02 31 04 04 42 00 00 00 02 50 01 04 81 01 00 00 01 82 01 83 01 84"
    "   04 86 40 00 00"
    "02 00 02 03 12" + kStartTail);

// A prepared client whose sends land in a log, with the elapsed time of each send.
class PtapUnitTest : public ::testing::Test {
 protected:
  void SetUp() override { Make(0); }
  void Make(std::uint8_t start_mode, platform::CivilTime start = {2026, 11, 16, 9, 5, 0, 0}) {
    ptap_.reset();
    clock_ = std::make_unique<FakeClock>(FakeClock::Mode::kManual, start);
    sent_.clear(), sent_ms_.clear();
    parent_ = std::make_unique<RecordingParent>();
    observer_ = std::make_unique<RecordingObserver>();
    init_ = MakeInitData(start_mode);
    ptap_ = std::make_unique<CPtap>(*clock_, PtapOptions{"", {}, [this](auto d) {
      sent_.emplace_back(d.begin(), d.end());
      sent_ms_.push_back(clock_->ElapsedMs());
      return transmit_ok_;
    }});
    ASSERT_EQ(ptap_->SetNetworkData(&init_), 0);
    ptap_->SetParent(parent_.get());
    ptap_->AddObserver(observer_.get());
    ASSERT_EQ(ptap_->Prepare(), 0);
  }
  int Receive(const Pbx& d) { return ptap_->ProcessDatagram(d.bytes.data(), d.bytes.size()); }
  int Send(int type) { return ptap_->SendPacket(type, nullptr, 0); }
  Events Got() const { return observer_->Items(); }
  std::vector<std::string> Messages() const { return parent_->Items(); }
  PtapParameterContainer Container() const {
    PtapParameterContainer c{};
    EXPECT_EQ(ptap_->GetParameterContainer(&c), 0);
    return c;
  }
  void ExpectParameters(const std::vector<std::pair<std::uint32_t, int>>& expected) {
    for (const auto& [selector, value] : expected) {
      EXPECT_EQ(ptap_->GetParameter(selector), value) << "selector " << selector;
    }
  }
  // The retransmission thread's passes, one each 5 ms, up to `until_ms` of elapsed time.
  void ScanUntil(std::int64_t until_ms) {
    while (clock_->ElapsedMs() < until_ms) clock_->AdvanceMs(5), ptap_->ScanRetransmissions();
  }
  Times SendTimes(std::uint32_t tid) const {
    Times times;
    for (std::size_t i = 0; i < sent_.size(); ++i) {
      if (sent_[i][8] != PTAP_TYPE_ACK && TidOf(sent_[i]) == tid) times.push_back(sent_ms_[i]);
    }
    return times;
  }
  void ExpectTimeoutAfterMs(std::int64_t ms) {
    clock_->AdvanceMs(ms - 1);
    EXPECT_TRUE(ptap_->PollConnection().has_value()) << "early at " << ms - 1;
    clock_->AdvanceMs(1);
    EXPECT_FALSE(ptap_->PollConnection().has_value()) << "late at " << ms;
  }

  std::unique_ptr<FakeClock> clock_;
  std::vector<Bytes> sent_;
  Times sent_ms_;
  bool transmit_ok_ = true;
  std::unique_ptr<RecordingParent> parent_;
  std::unique_ptr<RecordingObserver> observer_;
  NetworkInitData init_{};
  std::unique_ptr<CPtap> ptap_;
};

TEST_F(PtapUnitTest, StartMatchesTheFiguresInEachModeAndTidsCount) {
  const struct { std::uint8_t mode; const Bytes& datagram; } rows[] = {
      {0, kBasicStart}, {1, kExtendedStart}, {7, kBasicStart}};  // neither mode: basic
  for (const auto& row : rows) {
    SCOPED_TRACE(int{row.mode});
    Make(row.mode);
    EXPECT_EQ(Send(PTAP_TYPE_START), row.mode == 1 ? 136 : 102);
    EXPECT_EQ(sent_.back(), row.datagram);
  }
  // Tids count what the terminal sends; an ACK echoes the tid it answers.
  Make(0);
  ASSERT_EQ(Send(PTAP_TYPE_START), 102);
  ASSERT_EQ(Receive(Pbx(PTAP_TYPE_KEEPALIVE, 0x00123456).End()), 0);
  EXPECT_EQ(sent_.back(), Hex("50 54 41 50 00 12 34 56 00 20 00 01 00" + kMacEnd));
  EXPECT_EQ(Send(PTAP_TYPE_OP_BEGIN), 19);
  EXPECT_EQ(sent_.back(), Hex("50 54 41 50 00 00 00 02 0F" + kMacEnd));
  const std::uint8_t code = 0x2A;
  EXPECT_EQ(ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1), 23);
  EXPECT_EQ(sent_.back(), Hex("50 54 41 50 00 00 00 03 14 20 00 01 2A" + kMacEnd));
}

TEST_F(PtapUnitTest, RefusedSendsSendNothingAndUseNoTid) {
  const std::uint8_t code = 5;
  EXPECT_EQ(ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, nullptr, 1), 1);
  EXPECT_EQ(ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 0), 1);
  for (int type : {33, PTAP_TYPE_KEEPALIVE, -1, 0x100 + PTAP_TYPE_START}) {
    EXPECT_EQ(Send(type), 1) << type;
  }
  EXPECT_TRUE(sent_.empty());
  EXPECT_EQ(ptap_->buffer().count(), 0);
  Send(PTAP_TYPE_START);
  EXPECT_EQ(TidOf(sent_.back()), 1u);
  transmit_ok_ = false;  // a failed send reports 1 and is still kept for resending
  EXPECT_EQ(Send(PTAP_TYPE_OP_BEGIN), 1);
  EXPECT_EQ(Send(PTAP_TYPE_ACK), 1);
  EXPECT_EQ(ptap_->buffer().count(), 2) << "an ACK is never kept";
}

TEST_F(PtapUnitTest, ExtendedRequestIsAnsweredInExtendedModeOnly) {
  Make(1);
  ASSERT_EQ(Receive(Pbx(PTAP_TYPE_EXTENDED_REQUEST, 0x77).End()), 0);
  ASSERT_EQ(sent_.size(), 2u);
  EXPECT_EQ(sent_[0][8], PTAP_TYPE_ACK);
  EXPECT_EQ(sent_[1], Hex("50 54 41 50 00 00 00 01 3D 5B 00 05 FF FF FF FF FF" + kMacEnd));
  EXPECT_EQ(ptap_->buffer().count(), 1) << "the reply waits for its ACK";
  Make(0);
  Receive(Pbx(PTAP_TYPE_EXTENDED_REQUEST, 4).End());
  EXPECT_EQ(ptap_->GetErrorCode(), 211);
  EXPECT_EQ(Got(), Events{PTAP_EVENT_WRONG_TERMINAL});
  EXPECT_EQ(sent_.size(), 1u) << "only the ACK";
}

TEST(PtapElementWalk, StopsWhereTheBytesStop) {
  const struct { const char* payload; std::size_t elements; } rows[] = {
      {"FF 1B 00 01 05", 0},                          // end mark first
      {"1B 00 01 05 1C 00 01 06 FF 1D 00 01 07", 2},  // nothing after the end mark
      {"1B 00 01 05 1C 00 01 06", 2},                 // no end mark
      {"1B 00 01 05 1C 00 09 06 07", 1},              // length past the end
      {"1B 00 01 05 1C 00", 1},                       // length field cut
      {"1B 00 01 05 1C", 1},                          // tag alone
      {"1B FF FF 00", 0},                             // length 65535
      {"1B 00 00 1C 00 00 FF", 2},                    // zero-length values
      {"", 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.payload);
    PtapPacket packet;
    packet.payload = Hex(row.payload);
    ParsePtapElements(packet);
    EXPECT_EQ(packet.elements.size(), row.elements);
    for (const PtapElement& e : packet.elements) {
      EXPECT_LE(e.offset + e.length, packet.payload.size());
    }
  }
}

TEST_F(PtapUnitTest, MalformedDatagramsAreDroppedWithoutAnAck) {
  for (const char* d : {"", "50 54 41 50", "50 54 41 50 00 00 00 01 10",  // 9 bytes
                        "50 54 41 51 00 00 00 01 10 FF",                   // magic
                        "50 54 41 50 01 00 00 00 10 FF",                   // tid 0x01000000
                        "50 54 41 50 01 00 00 00 15 20 00 01 55 FF"}) {
    const Bytes bytes = Hex(d);
    EXPECT_EQ(ptap_->ProcessDatagram(bytes.data(), bytes.size()), 1) << d;
  }
  EXPECT_EQ(ptap_->ProcessDatagram(nullptr, 20), 1);
  EXPECT_TRUE(sent_.empty());
  EXPECT_TRUE(Messages().empty());
  EXPECT_FALSE(ptap_->parameters_complete());
}

TEST_F(PtapUnitTest, AllButAnAckIsAcknowledgedAndEventsAndRestartsReachTheParent) {
  EXPECT_EQ(Receive(Pbx(33, 0x00ABCDEF).Byte(0x1B, 9).End()), 0);
  EXPECT_EQ(Receive(Pbx(PTAP_TYPE_KEEPALIVE, 2).End()), 0);
  EXPECT_EQ(Receive(Pbx(PTAP_TYPE_ACK, 3).End()), 0);
  EXPECT_EQ(Receive(Pbx(PTAP_TYPE_EVENT, 0x10).Byte(0x20, 0x55).End()), 0);
  EXPECT_EQ(Receive(Pbx(PTAP_TYPE_COMPULSION_RESTART, 0x11).End()), 0);
  ASSERT_EQ(sent_.size(), 4u);
  const char* echoed[] = {"00 AB CD EF 00", "00 00 00 02 00", "00 00 00 10 00", "00 00 00 11 00"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(Bytes(sent_[i].begin() + 4, sent_[i].begin() + 9), Hex(echoed[i])) << i;
  }
  EXPECT_EQ(ptap_->GetParameter(0x10), 9) << "a type without meaning still has its elements read";
  EXPECT_EQ(Messages(), (std::vector<std::string>{std::string("21:\x20\x00\x01\x55\xFF", 8),
                                                  "21:PTAP_COMREST"}));
}

TEST_F(PtapUnitTest, BasicStartAnswerRaisesItsEventFirstAndDeliversPorts) {
  int port_at_event = -1;
  observer_->on_event = [&] { port_at_event = ptap_->GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT); };
  Send(PTAP_TYPE_START);
  Receive(Pbx(PTAP_TYPE_KEEPALIVE, 7).End());  // the ACK it gets must not count as a request
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).El(0x11, Hex("0A AB")).El(0x10, Hex("0A AC"))
              .Byte(0x1A, 30).Byte(0xA2, 20).Byte(0xA3, 25).Byte(0xA1, 15).End());
  EXPECT_EQ(Got(), Events{PTAP_EVENT_START_ANSWERED});
  EXPECT_EQ(port_at_event, 0) << "the elements behind the result are stored after the event";
  EXPECT_EQ(ptap_->GetErrorCode(), 0);
  EXPECT_EQ(ptap_->buffer().count(), 0);
  ExpectParameters({{PTAP_PARAM_MGCP_LOCAL_PORT, 2731}, {PTAP_PARAM_MGCP_PBX_PORT, 2732},
                    {0x8, 30}, {PTAP_PARAM_MGCP_PUNCH_INTERVAL, 20},
                    {PTAP_PARAM_RTP_PUNCH_INTERVAL, 25},
                    {PTAP_PARAM_PTAP_PUNCH_INTERVAL, 0},  // PTAP itself is not punched
                    {0x1, 0}, {0x12345, 0}});
  EXPECT_EQ(Container().keepalive_timeout, 30);
  // Result 0 again before OP_BEGIN releases the start again; after OP_BEGIN it answers that.
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).End());
  Send(PTAP_TYPE_OP_BEGIN);
  Receive(Pbx(PTAP_TYPE_ACK, 2).Byte(0x20, 0).End());
  EXPECT_EQ(Got(), (Events{PTAP_EVENT_START_ANSWERED, PTAP_EVENT_START_ANSWERED,
                           PTAP_EVENT_OP_BEGIN_ANSWERED}));
}

TEST_F(PtapUnitTest, ResultCodesSetTheErrorCodeAndARefusalEndsTheHandler) {
  const struct { std::uint8_t wire; int error; int event; } rows[] = {  // event 0: none
      {0, 0, PTAP_EVENT_START_ANSWERED},    {99, 0, PTAP_EVENT_START_ANSWERED},
      {104, 0, PTAP_EVENT_START_ANSWERED},  {203, 0, PTAP_EVENT_START_ANSWERED},
      {255, 0, PTAP_EVENT_START_ANSWERED},  {100, 200, PTAP_EVENT_RESULT_200},
      {103, 200, PTAP_EVENT_RESULT_200},    {200, 201, PTAP_EVENT_START_REFUSED},
      {201, -1, 0},                         {202, -1, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(int{row.wire});
    Make(0);
    const int untouched = -1;
    ptap_->SetErrorCode(&untouched);
    Send(PTAP_TYPE_START);
    Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, row.wire).Byte(0x1B, 4).End());
    EXPECT_EQ(ptap_->GetErrorCode(), row.error);
    EXPECT_EQ(Got(), row.event ? Events{row.event} : Events{});
    EXPECT_EQ(ptap_->GetParameter(0x10), row.error > 0 ? 0 : 4);
  }
  static const int kClasses[32] = {3, 2, 1, 1, 2, 2, 8, 8, 4, 3, 3, 8, 3, 8, 8, 8,
                                   8, 8, 8, 8, 8, 8, 2, 8, 8, 8, 8, 8, 8, 3, 8, 8};
  for (int v = 0; v < 32; ++v) EXPECT_EQ(MapPbxClass(std::uint16_t(v)), kClasses[v]) << v;
  for (int v : {32, 0x1234, 0xFFFF}) EXPECT_EQ(MapPbxClass(std::uint16_t(v)), 1) << v;
}

TEST_F(PtapUnitTest, HandlerReadsUnsignedAndTheLoaderSignExtendsWithinBounds) {
  Bytes list(40);
  for (std::size_t i = 0; i < list.size(); ++i) list[i] = std::uint8_t(0xF0 + i);
  Receive(Pbx(PTAP_TYPE_EVENT, 5).El(0x5A, Hex("01 02 03 04 05 06 07")).El(0x0F, Hex("1F 40"))
              .El(0x77, Bytes(300, 0x33)).El(0x21, list).Byte(0x1B, 0xC8).Byte(0x18, 0xFF)
              .El(0x23, Hex("81 99")).End());
  const auto value_5a = [&] {
    const auto& v = ptap_->Parameters().value_5a;
    return Bytes(v.begin(), v.end());
  };
  EXPECT_EQ(value_5a(), Hex("01 02 03 04 05"));
  ExpectParameters({{0x100, 8000}, {0x10, 200}, {0x2, 255}, {0x800, 0x81}});
  const PtapParameterContainer c = Container();
  EXPECT_EQ(c.param_0f, 8000);
  EXPECT_EQ(c.param_1b, -56);
  EXPECT_EQ(c.param_18, -1);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(c.param_21[i], std::int8_t(0xF0 + i)) << i;
  EXPECT_EQ(ptap_->parameter_count(), 4u);
  EXPECT_TRUE(ptap_->parameters_complete());
  // A later packet reaches the handler only: the container keeps what the handler stores.
  Receive(Pbx(PTAP_TYPE_EVENT, 6).Byte(0x1B, 0xC8).El(0x5A, Hex("AA")).End());
  EXPECT_EQ(Container().param_1b, 200);
  EXPECT_EQ(ptap_->GetParameter(0x10), 200);
  EXPECT_EQ(value_5a(), Hex("AA 00 00 00 00"));
}

TEST_F(PtapUnitTest, ShortValuesAreIgnoredAndALengthPastTheEndEndsTheWalk) {
  Send(PTAP_TYPE_START);
  Receive(Pbx(PTAP_TYPE_ACK, 1).El(0x20, {}).El(0x0F, Hex("1F")).El(0x10, Hex("12"))
              .El(0x1B, {}).El(0x1A, {}).El(0x5A, {}).El(0xA2, {}).Byte(0x1C, 3)
              .Raw(0x1D, 40, Hex("05 06")));
  EXPECT_TRUE(Got().empty());
  ExpectParameters({{0x100, 0}, {PTAP_PARAM_MGCP_PBX_PORT, 0}, {0x40, 0}});
  EXPECT_EQ(ptap_->keepalive().last_keepalive_ns(), 0);
  EXPECT_EQ(ptap_->GetParameter(0x20), 3) << "what came before the cut still counts";
  EXPECT_EQ(ptap_->parameter_count(), 1u);
}

TEST_F(PtapUnitTest, OnlyThirteenElementsReachTheContainerAndAResultAloneCompletesIt) {
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Byte(0x1A, 10).Byte(0x1B, 1).Byte(0x1C, 2)
              .Byte(0x1D, 3).Byte(0x1E, 4).Byte(0x18, 5).Byte(0x19, 6).Byte(0x24, 7)
              .Byte(0x25, 8).El(0x0F, Hex("00 09")).El(0x21, Hex("0A"))
              .Byte(0x1B, 11).Byte(0x26, 12).End());  // the 13th and the 14th
  EXPECT_EQ(ptap_->parameter_count(), 13u);
  EXPECT_EQ(Container().param_1b, 11);
  EXPECT_EQ(Container().param_26, 0);
  EXPECT_EQ(ptap_->GetParameter(0x4000), 12) << "the handler still takes the 14th";

  Make(0);
  Receive(Pbx(PTAP_TYPE_EVENT, 1).Byte(0x77, 1).End());
  EXPECT_FALSE(ptap_->parameters_complete()) << "no known element: the delivery stays open";
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0xFB).End());
  EXPECT_TRUE(ptap_->parameters_complete());
  PtapParameterContainer expected{};
  expected.result_code = -5;
  const PtapParameterContainer got = Container();
  EXPECT_EQ(std::memcmp(&got, &expected, sizeof(expected)), 0);
}

TEST_F(PtapUnitTest, ExtendedResponseCountsInExtendedModeAndAWrongOneEndsTheHandler) {
  Make(1);
  Send(PTAP_TYPE_START);
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).End());
  EXPECT_TRUE(Got().empty()) << "in extended mode result 0 alone releases nobody";
  Receive(Pbx(PTAP_TYPE_ACK, 1).El(0x22, ExtendedResponse(0x0102, 22)).End());
  EXPECT_EQ(Got(), (Events{PTAP_EVENT_PBX_CLASS, PTAP_EVENT_START_ANSWERED}));
  ExpectParameters({{0x20000, 1}, {0x8000, 0x0102}, {PTAP_PARAM_PBX_CLASS, 2}});

  Bytes wrong_kind = ExtendedResponse(1, 2);
  wrong_kind[18] = 0x43;
  for (const Bytes& value : {wrong_kind, Bytes(31, 0), Bytes{}}) {
    SCOPED_TRACE(value.size());
    Make(1);
    Send(PTAP_TYPE_START);
    Receive(Pbx(PTAP_TYPE_ACK, 1).El(0x22, value).Byte(0x1B, 4).End());
    EXPECT_EQ(ptap_->GetErrorCode(), 211);
    EXPECT_EQ(Got(), Events{PTAP_EVENT_WRONG_TERMINAL});
    EXPECT_EQ(ptap_->GetParameter(0x10), 0);
  }
  Make(0);  // basic mode: the element means nothing, right or wrong
  Send(PTAP_TYPE_START);
  Receive(Pbx(PTAP_TYPE_ACK, 1).El(0x22, ExtendedResponse(1, 2)).El(0x22, wrong_kind).End());
  EXPECT_TRUE(Got().empty());
  ExpectParameters({{0x20000, 0}, {PTAP_PARAM_PBX_CLASS, 0}});
}

TEST(PtapRegistration, MissingDataIsRefusedAndAnObserverIsListedOnce) {
  TraceCapture trace;
  CPtap ptap(platform::RealClock(), {"", {}, [](auto) { return true; }});
  EXPECT_EQ(ptap.SetNetworkData(nullptr), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: Warning] Reference to invalid network data"));
  EXPECT_EQ(ptap.Prepare(), 1);
  EXPECT_TRUE(trace.Has("[PTAP :: CRITICAL ERROR] Cannot update PTAP initialization data"));
  const NetworkInitData init = MakeInitData(0);
  EXPECT_EQ(ptap.SetNetworkData(&init), 0);
  EXPECT_EQ(ptap.SetNetworkData(nullptr), 0) << "null keeps the earlier record";
  RecordingObserver observer;
  EXPECT_EQ(ptap.AddObserver(nullptr), 1);
  ptap.AddObserver(&observer);
  ptap.AddObserver(&observer);
  ASSERT_EQ(ptap.Prepare(), 0);
  const Pbx request = Pbx(PTAP_TYPE_EXTENDED_REQUEST, 1).End();
  ptap.ProcessDatagram(request.bytes.data(), request.bytes.size());
  EXPECT_EQ(observer.Items().size(), 1u);
}

TEST_F(PtapUnitTest, ResendsBackOffUntil20500AndOnlyOneSpentPacketLeavesInAPass) {
  for (int type : {PTAP_TYPE_START, PTAP_TYPE_OP_BEGIN, PTAP_TYPE_OP_BEGIN, PTAP_TYPE_OP_BEGIN}) {
    Send(type);
  }
  ScanUntil(495);
  Receive(Pbx(PTAP_TYPE_ACK, 1).End());
  ScanUntil(3600);
  Receive(Pbx(PTAP_TYPE_ACK, 2).End());  // an ACK stops only its own packet
  ScanUntil(20495);
  EXPECT_EQ(ptap_->buffer().count(), 2);
  ScanUntil(20500);
  EXPECT_EQ(ptap_->buffer().count(), 1);
  ptap_->ScanRetransmissions();
  EXPECT_EQ(ptap_->buffer().count(), 0);
  ScanUntil(30000);
  EXPECT_EQ(SendTimes(1), Times{0});
  EXPECT_EQ(SendTimes(2), (Times{0, 500, 1500, 3500}));
  EXPECT_EQ(SendTimes(3), (Times{0, 500, 1500, 3500, 7500, 8500, 9500, 10500, 11500, 12500,
                                 13500, 14500, 15500, 16500, 17500, 18500, 19500}));
  EXPECT_EQ(SendTimes(4), SendTimes(3));
  for (const Bytes& d : sent_) {
    if (TidOf(d) == 3) {
      EXPECT_EQ(d, sent_[2]) << "every attempt is the same datagram";
    }
  }
}

TEST_F(PtapUnitTest, TheFiftyFirstPacketIsSentOnceAndNotKept) {
  TraceCapture trace;
  const std::uint8_t code = 1;
  for (int i = 0; i < 50; ++i) ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1);
  EXPECT_FALSE(trace.Has("[PTAP :: ERROR] Copy to buffer operation - Buffer is full"));
  EXPECT_EQ(ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, &code, 1), 23);
  EXPECT_TRUE(trace.Has("[PTAP :: ERROR] Copy to buffer operation - Buffer is full"));
  ScanUntil(25000);
  EXPECT_EQ(SendTimes(51), Times{0});
  EXPECT_EQ(SendTimes(50).size(), 17u);
}

TEST_F(PtapUnitTest, APacketAliveAcrossMidnightGoesOutOnceEarlyAndKeepsItsSchedule) {
  Make(0, {2026, 12, 31, 23, 59, 59, 800});
  Send(PTAP_TYPE_START);
  ScanUntil(25000);
  const Times times = SendTimes(1);
  ASSERT_EQ(times.size(), 17u);
  EXPECT_EQ(Times(times.begin(), times.begin() + 5), (Times{0, 200, 1200, 3200, 7200}));
  EXPECT_EQ(times.back(), 19200);
}

TEST_F(PtapUnitTest, SilenceLongerThanTheTimeoutIsReportedOnceAndReopensTheDelivery) {
  Receive(Pbx(PTAP_TYPE_ACK, 1).Byte(0x20, 0).Byte(0x1A, 30).End());
  ASSERT_TRUE(ptap_->parameters_complete());
  EXPECT_EQ(ptap_->PollConnection(), clock_->SteadyNs() + 31'000'000'000);
  ExpectTimeoutAfterMs(31'000);
  EXPECT_EQ(Messages(), std::vector<std::string>{"21:PTAP_NOCONN"});
  EXPECT_TRUE(ptap_->connection_lost());
  EXPECT_FALSE(ptap_->parameters_complete());
  EXPECT_FALSE(ptap_->keepalive().armed());
  // The timer has ended: a later delivery reports nothing more in this run.
  Receive(Pbx(PTAP_TYPE_KEEPALIVE, 2).Byte(0x1A, 1).End());
  clock_->AdvanceMs(5000);
  ptap_->PollConnection();
  EXPECT_EQ(Messages().size(), 1u);
}

TEST_F(PtapUnitTest, WhatCountsAsASignOfLifeAndWhereTheThresholdLies) {
  using Steps = std::vector<std::pair<std::int64_t, Pbx>>;  // wait, then receive
  const struct { const char* name; Steps steps; std::int64_t expiry_ms; } rows[] = {
      {"keepalive requests push the deadline; an ACK or other packet does not",
       {{0, Pbx(PTAP_TYPE_ACK, 1).Byte(0x1A, 5).End()},
        {5'500, Pbx(PTAP_TYPE_KEEPALIVE, 2).End()}, {5'500, Pbx(PTAP_TYPE_KEEPALIVE, 3).End()},
        {3'000, Pbx(PTAP_TYPE_ACK, 4).End()}, {0, Pbx(33, 5).Byte(0x1C, 1).End()}},
       3'000},
      {"the timeout element stamps the time",
       {{0, Pbx(PTAP_TYPE_KEEPALIVE, 1).End()},
        {10'000, Pbx(PTAP_TYPE_ACK, 2).Byte(0x1A, 3).End()}},
       4'000},
      {"255 is seconds, not -1", {{0, Pbx(PTAP_TYPE_ACK, 1).Byte(0x1A, 0xFF).End()}}, 256'000},
      {"0 after arming: any whole second",
       {{0, Pbx(PTAP_TYPE_ACK, 1).Byte(0x1A, 60).End()}, {0, Pbx(33, 2).Byte(0x1A, 0).End()}},
       1'000},
      {"no timeout: the timer never arms",
       {{0, Pbx(PTAP_TYPE_KEEPALIVE, 1).End()}, {0, Pbx(PTAP_TYPE_KEEPALIVE, 2).End()},
        {0, Pbx(PTAP_TYPE_ACK, 9).Byte(0x20, 0).Byte(0x1A, 0).End()}},
       0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Make(0);
    for (const auto& [wait_ms, datagram] : row.steps) {
      clock_->AdvanceMs(wait_ms);
      Receive(datagram);
      ASSERT_TRUE(ptap_->PollConnection().has_value());
    }
    if (row.expiry_ms == 0) {
      clock_->AdvanceMs(1'000'000);
      EXPECT_TRUE(ptap_->PollConnection().has_value());
      EXPECT_FALSE(ptap_->keepalive().armed());
      continue;
    }
    ExpectTimeoutAfterMs(row.expiry_ms);
    EXPECT_EQ(Messages(), std::vector<std::string>{"21:PTAP_NOCONN"});
  }
}

TEST_F(PtapUnitTest, ATimeoutWhileTheDeliveryIsOpenEndsTheTimerWithoutAReport) {
  // Without init data there is no container: the loader cannot complete the delivery.
  CPtap bare(*clock_, {"", {}, [](auto) { return true; }});
  bare.SetParent(parent_.get());
  const Pbx d = Pbx(PTAP_TYPE_ACK, 1).Byte(0x1A, 2).End();
  bare.ProcessDatagram(d.bytes.data(), d.bytes.size());
  ASSERT_FALSE(bare.parameters_complete());
  bare.PollConnection();
  clock_->AdvanceMs(3'000);
  EXPECT_FALSE(bare.PollConnection().has_value());
  EXPECT_TRUE(Messages().empty());
  EXPECT_FALSE(bare.connection_lost());
}

}  // namespace
}  // namespace deskline
