// The call agent's MGCP texts, read and written, against texts spelt out here in full.
#include "tools/pbxsim/mgcp_wire.h"

#include <gtest/gtest.h>

#include "mgcp_test_util.h"
#include "tools/pbxsim/record.h"

namespace deskline::sim {
namespace {

using testing::Text;

MgcpMessage Decode(std::string_view text) { return DecodeMgcp(Text(text)); }

constexpr std::string_view kTerminalSdp =
    "v=0\r\n"
    "o=- 0 0 IN IP4 127.0.0.1\r\n"
    "s=-\r\n"
    "c=IN IP4 127.0.0.1\r\n"
    "t=0 0\r\n"
    "m=audio 8000 RTP/AVP 0\r\n"
    "a=rtpmap:0 PCMU/8000\r\n";

TEST(MgcpDecode, TerminalCommandsGiveVerbTidEndpointHeadersAndEvents) {
  const MgcpMessage rsip = Decode("RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n");
  ASSERT_TRUE(rsip.ok()) << MgcpStatusName(rsip.status);
  EXPECT_FALSE(rsip.is_response);
  EXPECT_EQ(rsip.verb, "RSIP");
  EXPECT_EQ(rsip.tid, 1u);
  EXPECT_EQ(rsip.endpoint, "d1@0200aabbccdd");
  EXPECT_EQ(rsip.version, "MGCP 1.0");
  EXPECT_EQ(rsip.headers, (std::vector<MgcpHeader>{{"RM", "restart"}}));
  EXPECT_EQ(rsip.kind(), MgcpKind::kRsip);
  EXPECT_FALSE(rsip.sdp.has_value());

  // The "0a03" key: two K: lines, and events of several O: lines are all kept.
  const MgcpMessage ntfy = Decode(
      "NTFY 5 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: X-P/fk0a03\r\nK: 4\r\nK: 4\r\n"
      "O: X-P/fk0200, X-P/fk0100\r\n");
  ASSERT_TRUE(ntfy.ok());
  EXPECT_EQ(ntfy.kind(), MgcpKind::kNtfy);
  EXPECT_EQ(ntfy.observed_events,
            (std::vector<std::string>{"X-P/fk0a03", "X-P/fk0200", "X-P/fk0100"}));
  ASSERT_NE(ntfy.Header("k"), nullptr);
  EXPECT_EQ(*ntfy.Header("K"), "4");
  EXPECT_EQ(ntfy.headers.size(), 5u);

  // Bare LF line ends are allowed; a lower-case verb is read in capitals.
  const MgcpMessage dlcx = Decode("dlcx 7 d1@0200aabbccdd MGCP 1.0\nC: 00000001\nI: 0\n");
  ASSERT_TRUE(dlcx.ok());
  EXPECT_EQ(dlcx.verb, "DLCX");
  EXPECT_EQ(*dlcx.Header("C"), "00000001");
  EXPECT_EQ(*dlcx.Header("I"), "0");

  EXPECT_EQ(Decode("AUCX 9 d1@x MGCP 1.0\r\n").kind(), MgcpKind::kOther);
}

TEST(MgcpDecode, ResponsesGiveCodeTidCommentaryAndSdp) {
  const MgcpMessage answer = Decode(std::string("200 1001 OK\r\nI: 0\r\n\r\n") +
                                    std::string(kTerminalSdp));
  ASSERT_TRUE(answer.ok());
  EXPECT_TRUE(answer.is_response);
  EXPECT_EQ(answer.kind(), MgcpKind::kResponse);
  EXPECT_EQ(answer.code, 200);
  EXPECT_EQ(answer.tid, 1001u);
  EXPECT_EQ(answer.commentary, "OK");
  EXPECT_EQ(*answer.Header("I"), "0");
  ASSERT_TRUE(answer.sdp.has_value());
  const SdpInfo& sdp = *answer.sdp;
  EXPECT_EQ(sdp.fault, "");
  EXPECT_EQ(sdp.version, 0);
  EXPECT_EQ(sdp.origin, "- 0 0 IN IP4 127.0.0.1");
  EXPECT_EQ(sdp.session, "-");
  EXPECT_EQ(sdp.connection, "IN IP4 127.0.0.1");
  EXPECT_EQ(sdp.ip, 0x7F000001u);
  EXPECT_EQ(sdp.port, 8000);
  EXPECT_EQ(sdp.payload_types, std::vector<int>{0});
  EXPECT_EQ(sdp.rtpmaps, (std::vector<RtpMap>{{0, "PCMU/8000"}}));
  EXPECT_EQ(sdp.lines.size(), 7u);

  const MgcpMessage provisional = Decode("100 1001\r\n");
  ASSERT_TRUE(provisional.ok());
  EXPECT_EQ(provisional.code, 100);
  EXPECT_EQ(provisional.commentary, "");
  EXPECT_TRUE(provisional.headers.empty());

  const MgcpMessage refusal = Decode("510 12 protocol error, try again\r\n");
  ASSERT_TRUE(refusal.ok());
  EXPECT_EQ(refusal.commentary, "protocol error, try again");
  // An empty line with nothing behind it is no SDP.
  EXPECT_FALSE(Decode("250 3\r\n\r\n").sdp.has_value());
}

TEST(MgcpDecode, MalformedTextsHaveAReason) {
  const struct {
    std::string text;
    MgcpStatus status;
  } cases[] = {
      {"", MgcpStatus::kEmpty},
      {std::string("RSIP 1 d1@x MGCP 1.0\r\n\0", 23), MgcpStatus::kNotText},
      {"NTFY 2 d1@x MGCP 1.0\r\nO: X-P/fk\x01\r\n", MgcpStatus::kNotText},
      {"\r\n", MgcpStatus::kBadFirstLine},
      {"RESTART 1 d1@x MGCP 1.0\r\n", MgcpStatus::kBadFirstLine},
      {"RS-P 1 d1@x MGCP 1.0\r\n", MgcpStatus::kBadFirstLine},
      {"RSIP 1 d1@x\r\n", MgcpStatus::kBadFirstLine},
      {"RSIP 1 d1@x SIP 2.0\r\n", MgcpStatus::kBadFirstLine},
      {"RSIP 1 d1@x MGCP\r\n", MgcpStatus::kBadFirstLine},
      {"20 1\r\n", MgcpStatus::kBadFirstLine},
      {"RSIP\r\n", MgcpStatus::kBadTid},
      {"RSIP x1 d1@x MGCP 1.0\r\n", MgcpStatus::kBadTid},
      {"RSIP 0 d1@x MGCP 1.0\r\n", MgcpStatus::kBadTid},
      {"RSIP 1000000000 d1@x MGCP 1.0\r\n", MgcpStatus::kBadTid},
      {"200\r\n", MgcpStatus::kBadTid},
      {"200 -5 OK\r\n", MgcpStatus::kBadTid},
      {"NTFY 2 d1@x MGCP 1.0\r\nX 1\r\n", MgcpStatus::kBadHeader},
      {"NTFY 2 d1@x MGCP 1.0\r\n: 1\r\n", MgcpStatus::kBadHeader},
      {"NTFY 2 d1@x MGCP 1.0\r\nO X: 1\r\n", MgcpStatus::kBadHeader},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const MgcpMessage message = Decode(c.text);
    EXPECT_EQ(message.status, c.status) << MgcpStatusName(message.status);
    EXPECT_EQ(MgcpRuleType(Text(c.text)), std::nullopt);
  }
  EXPECT_EQ(MgcpRuleType(Text("NTFY 2 d1@x MGCP 1.0\r\n")),
            static_cast<std::uint8_t>(MgcpKind::kNtfy));
  EXPECT_EQ(MgcpRuleType(Text("200 2 OK\r\n")), static_cast<std::uint8_t>(MgcpKind::kResponse));
}

TEST(MgcpDecode, SdpFaultsAreReportedAndBadNumbersLeftOut) {
  const SdpInfo sdp = ParseSdp(
      "v=x\r\nc=IN IP4 300.1.2.3\r\nm=audio 70000 RTP/AVP 0 abc 18\r\nbroken line\r\n"
      "a=rtpmap:x PCMU/8000\r\na=rtpmap:18 G729/8000\r\nm=audio 5 RTP/AVP 8\r\n");
  EXPECT_EQ(sdp.fault, "not a line of the form x=value: broken line");
  EXPECT_FALSE(sdp.version.has_value());
  EXPECT_FALSE(sdp.ip.has_value());
  EXPECT_FALSE(sdp.port.has_value()) << "70000 is no port";
  EXPECT_EQ(sdp.payload_types, (std::vector<int>{0, 18})) << "only the first m= line counts";
  EXPECT_EQ(sdp.rtpmaps, (std::vector<RtpMap>{{18, "G729/8000"}}));
  EXPECT_EQ(sdp.attributes.size(), 2u);
}

TEST(MgcpBuild, CommandsByteForByte) {
  RqntText rqnt;
  rqnt.tid = 1000;
  rqnt.endpoint = "d1@0200aabbccdd";
  rqnt.request_id = 26;
  rqnt.requested_events = "X-P/fk";
  rqnt.signal_lines = {{xp::Lamp(0x0201, "ron"), xp::Volume(3, 5), xp::Ring(1, 2, 3)},
                       {xp::DisplayClear()}};
  EXPECT_EQ(BuildRqnt(rqnt),
            "RQNT 1000 d1@0200aabbccdd MGCP 1.0\r\n"
            "X: 1a\r\n"
            "R: X-P/fk\r\n"
            "S: X-P/ks(0201,ron),X-P/vctl(0305),X-P/ring(010203)\r\n"
            "S: X-P/lcdp(300100000000)\r\n");

  ConnectionText crcx;
  crcx.tid = 1001;
  crcx.endpoint = "d1@0200aabbccdd";
  crcx.call_id = "00000001";
  crcx.sdp = MediaOffer{0x7F000001, 40002, {18, 0, 101}, 1001};
  EXPECT_EQ(BuildCrcx(crcx),
            "CRCX 1001 d1@0200aabbccdd MGCP 1.0\r\n"
            "C: 00000001\r\n"
            "L: p:20, a:G729\r\n"
            "M: sendrecv\r\n"
            "\r\n"
            "v=0\r\n"
            "o=- 1001 1001 IN IP4 127.0.0.1\r\n"
            "s=-\r\n"
            "c=IN IP4 127.0.0.1\r\n"
            "t=0 0\r\n"
            "m=audio 40002 RTP/AVP 18 0 101\r\n"
            "a=rtpmap:18 G729/8000\r\n"
            "a=rtpmap:0 PCMU/8000\r\n");

  ConnectionText mdcx;
  mdcx.tid = 1002;
  mdcx.endpoint = "d1@0200aabbccdd";
  mdcx.call_id = "00000001";
  mdcx.connection_id = "7";
  mdcx.mode = ConnectionMode::kInactive;
  EXPECT_EQ(BuildMdcx(mdcx),
            "MDCX 1002 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 7\r\nM: inactive\r\n");
  mdcx.mode = ConnectionMode::kRecvOnly;
  mdcx.sdp = MediaOffer{0x0A000002, 5004, {8}, 3};
  EXPECT_EQ(BuildMdcx(mdcx),
            "MDCX 1002 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 7\r\nM: recvonly\r\n"
            "\r\nv=0\r\no=- 3 3 IN IP4 10.0.0.2\r\ns=-\r\nc=IN IP4 10.0.0.2\r\nt=0 0\r\n"
            "m=audio 5004 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n");

  EXPECT_EQ(BuildDlcx(1003, "d1@0200aabbccdd", "00000001", "7"),
            "DLCX 1003 d1@0200aabbccdd MGCP 1.0\r\nC: 00000001\r\nI: 7\r\n");
  EXPECT_EQ(BuildDlcx(1004, "d1@0200aabbccdd", "", ""),
            "DLCX 1004 d1@0200aabbccdd MGCP 1.0\r\n");
  EXPECT_EQ(BuildAuep(1005, "d1@0200aabbccdd", ""), "AUEP 1005 d1@0200aabbccdd MGCP 1.0\r\n");
  EXPECT_EQ(BuildAuep(1006, "d1@0200aabbccdd", "A"),
            "AUEP 1006 d1@0200aabbccdd MGCP 1.0\r\nF: A\r\n");

  EXPECT_EQ(BuildResponse(200, 1, "OK"), "200 1 OK\r\n");
  EXPECT_EQ(BuildResponse(403, 2, ""), "403 2\r\n");
  EXPECT_EQ(BuildResponse(7, 3, ""), "007 3\r\n");
}

TEST(MgcpBuild, SignalsOfTheXpPackage) {
  EXPECT_EQ(xp::Ring(1, 2, 3), "X-P/ring(010203)");
  EXPECT_EQ(xp::Ring(0, 0xAB, 0x0C), "X-P/ring(00AB0C)");
  EXPECT_EQ(xp::RingOff(), "X-P/ring(000000)");
  EXPECT_EQ(xp::Lamp(0x0C2F, "r12i"), "X-P/ks(0C2F,r12i)");
  EXPECT_EQ(xp::Display(1, 5, "AB"), "X-P/lcdp(210105024142)");
  EXPECT_EQ(xp::Display(0, 0, std::string("A\x03" "B"), 0x22), "X-P/lcdp(22000003410342)");
  EXPECT_EQ(xp::Display(0, 0, ""), "X-P/lcdp(21000000)");
  const std::string long_write = xp::Display(0, 0, std::string(300, 'x'));
  EXPECT_EQ(long_write.substr(0, 17), "X-P/lcdp(210000FF") << "255 bytes at most";
  EXPECT_EQ(long_write.size(), 17u + 2 * 255 + 1);
  EXPECT_EQ(xp::DisplayClear(), "X-P/lcdp(300100000000)");
  EXPECT_EQ(xp::Tone(0x12, true, false, true, 0x34), "X-P/tone(120100010034)");
  EXPECT_EQ(xp::Volume(3, 0), "X-P/vctl(0300)");
  EXPECT_EQ(xp::Signal("hset", "01"), "X-P/hset(01)");
  EXPECT_EQ(xp::Signal("xyz", ""), "X-P/xyz");
}

TEST(MgcpRecordLine, ShowsFirstLineHeadersSdpAndFaults) {
  Record record;
  record.channel = Channel::kMgcp;
  record.steady_ns = 1'300'000'000;
  record.peer = {0x7F000001, 2427};
  record.raw = Text("NTFY 2 d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: X-P/fk0200\r\n");
  record.mgcp = DecodeMgcp(record.raw);
  EXPECT_EQ(FormatRecord(record, 0),
            "   1.300 TRM->PBX MGCP NTFY 2 d1@0200aabbccdd MGCP 1.0 127.0.0.1:2427 | X: 1 | O: "
            "X-P/fk0200");

  record.direction = Direction::kIn;
  record.raw = Text(std::string("200 1000 OK\r\nI: 0\r\n\r\n") + std::string(kTerminalSdp));
  record.mgcp = DecodeMgcp(record.raw);
  EXPECT_EQ(FormatRecord(record, 300'000'000),
            "   1.000 TRM->PBX MGCP 200 1000 OK 127.0.0.1:2427 | I: 0 | sdp c=IN IP4 127.0.0.1 "
            "m=audio 8000 RTP/AVP 0 a=rtpmap:0 PCMU/8000");

  record.direction = Direction::kOut;
  record.fate = Fate::kDropped;
  record.raw = Text("RSIP x\r\n\x01");
  record.mgcp = DecodeMgcp(record.raw);
  EXPECT_EQ(FormatRecord(record, 0),
            "   1.300 PBX->TRM MGCP ? 127.0.0.1:2427 MALFORMED (not text, 9 bytes): "
            "RSIP x\\r\\n\\x01 {dropped}");

  record.fate = Fate::kPassed;
  record.direction = Direction::kIn;
  record.raw.clear();
  record.mgcp = DecodeMgcp(record.raw);
  EXPECT_EQ(FormatRecord(record, 0), "   1.300 TRM->PBX MGCP (empty datagram) 127.0.0.1:2427");
}

}  // namespace
}  // namespace deskline::sim
