// Inbound parsing: classification, the command line, transaction ids and the header scan.
#include <gtest/gtest.h>

#include <string>

#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using mgcp_test::kEndpoint;
using mgcp_test::PacketOf;
using mgcp_test::StartedBlock;

TEST(HexByteTest, BothCasesAndAnyCharacterGiveAValue) {
  struct Row {
    const char* text;
    std::uint8_t value;
  };
  const Row rows[] = {{"0a", 10}, {"0A", 10}, {"00", 0},    {"ff", 255},
                      {"FF", 255}, {"7f", 127}, {"c2", 0xc2}, {"2F", 0x2f}};
  for (const Row& row : rows) {
    std::uint8_t value = 0;
    EXPECT_EQ(HexByte(row.text, &value), 0);
    EXPECT_EQ(value, row.value) << row.text;
  }
  // No error report for a bad character, only some value.
  std::uint8_t value = 0;
  EXPECT_EQ(HexByte(")\r", &value), 0);
  EXPECT_EQ(HexByte("\xff\x80", &value), 0);
}

TEST(ClassifyTest, InboundAndOutboundByFirstFourBytes) {
  struct Row {
    std::string_view text;
    std::uint32_t inbound;
    std::uint32_t outbound;
  };
  const Row rows[] = {
      {"CRCX 1 x MGCP 1.0\r\n", MGCP_EVENT_CRCX, MGCP_EVENT_CRCX},
      {"MDCX 1 x MGCP 1.0\r\n", MGCP_EVENT_MDCX, MGCP_EVENT_MDCX},
      {"RQNT 1 x MGCP 1.0\r\n", MGCP_EVENT_RQNT, MGCP_EVENT_RQNT},
      {"DLCX 1 x MGCP 1.0\r\n", MGCP_EVENT_DLCX, MGCP_EVENT_SEND_DLCX},
      {"RSIP 1 x MGCP 1.0\r\n", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RSIP},
      {"NTFY 1 x MGCP 1.0\r\n", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_NTFY},
      {"AUEP 3 x MGCP 1.0\r\n", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"200 3 OK\r\n", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"CRCXX 5 x", MGCP_EVENT_CRCX, MGCP_EVENT_CRCX},  // the first four bytes decide
      {"crcx 1 x", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"CRC", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(ClassifyInbound(row.text), row.inbound) << row.text;
    EXPECT_EQ(ClassifyOutbound(row.text), row.outbound) << row.text;
  }
}

TEST(ParseCommandLineTest, Rows) {
  struct Row {
    std::string text;
    int result;
    std::uint32_t offset;
    std::uint32_t tid;  // commandTransactionId afterwards (starts at 1)
    std::string endpoint;
  };
  const std::string ep(kEndpoint);
  const Row rows[] = {
      {"CRCX 1234 " + ep + " MGCP 1.0\r\n", 0, 25, 1234, ep},
      // A longer token that starts with the name is taken over.
      {"CRCX 7 " + ep + "@x MGCP 1.0\r\n", 0, 24, 7, ep + "@x"},
      // A foreign endpoint fails, but its transaction id is kept for the answer.
      {"CRCX 88 d1@001122aabbcd MGCP 1.0\r\n", 1, 0, 88, ep},
      {"CRCX 88 d1@0011 MGCP 1.0\r\n", 1, 0, 88, ep},  // a shorter token is no prefix match
      // First word longer than four letters: nothing read, scan from 0.
      {"CRCXX 5 " + ep + " MGCP 1.0\r\n", 0, 0, 1, ep},
      {"CRCX 5", 0, 0, 1, ep},           // no blank behind the id
      {"CRCX 5 " + ep, 0, 0, 5, ep},     // no blank behind the token
      {"CRCX", 0, 0, 1, ep},
      // Words wider than the working buffers fail the parse.
      {"CRCX 123456789012 " + ep + " MGCP 1.0\r\n", 1, 0, 1, ep},
      {"CRCX 12345678901 " + ep + " MGCP 1.0\r\n", 1, 0, 1, ep},  // 11 digits, above 2^32
      {"CRCX 4294967295 " + ep + " MGCP 1.0\r\n", 0, 31, 4294967295u, ep},
      {"CRCX 9 " + ep + "ABCDE MGCP 1.0\r\n", 1, 0, 9, ep},  // token of 20 characters
      {"CRCX 9 " + ep + "ABCD MGCP 1.0\r\n", 0, 26, 9, ep + "ABCD"},  // 19 fits
  };
  for (const Row& row : rows) {
    MgcpControlBlock block = StartedBlock();
    std::uint32_t offset = 99;
    EXPECT_EQ(ParseCommandLine(block, row.text, &offset), row.result) << row.text;
    EXPECT_EQ(offset, row.offset) << row.text;
    EXPECT_EQ(block.commandTransactionId, row.tid) << row.text;
    EXPECT_EQ(FieldText(block.endpointName), row.endpoint) << row.text;
  }
  MgcpControlBlock block = StartedBlock();
  std::uint32_t offset = 99;
  EXPECT_EQ(ParseCommandLine(block, std::string_view(), &offset), 1);
  EXPECT_EQ(offset, 0u);
}

TEST(ParseTransactionIdTest, SecondWordOfAnyDatagram) {
  struct Row {
    std::string_view text;
    int result;
    std::uint32_t tid;
  };
  const Row rows[] = {
      {"200 17 OK\r\n", 0, 17},
      {"200 17\r\n", 0, 17},
      {"250 17", 0, 17},
      {"100 17\r\nI: 3\r\n\r\nv=0\r\n", 0, 17},
      {"AUEP 3 d1@001122aabbcc MGCP 1.0\r\n", 0, 3},
      {"510 12ab\r\n", 0, 12},  // the number ends at the first non-digit
      {"200", 1, 0},            // no blank
      {"200 ", 1, 0},           // the blank is the last byte
      {"200 123456789012 OK\r\n", 1, 0},  // a word of 12 characters
      {"200 99999999999\r\n", 1, 0},      // does not fit 32 bits
  };
  for (const Row& row : rows) {
    std::uint32_t tid = 0;
    EXPECT_EQ(ParseTransactionId(row.text, &tid), row.result) << row.text;
    if (row.result == 0) {
      EXPECT_EQ(tid, row.tid) << row.text;
    }
  }
}

TEST(FindLineEndTest, CountsUpToCrLfWithinTheSearchLength) {
  std::size_t count = 77;
  EXPECT_EQ(FindLineEnd("abc\r\ndef", 8, &count), 0);
  EXPECT_EQ(count, 3u);
  count = 77;
  EXPECT_EQ(FindLineEnd("abc\r\ndef", 4, &count), 1);  // the LF lies beyond the search
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(FindLineEnd("abc\n\r", 5, &count), 1);
  EXPECT_EQ(FindLineEnd("\r\n", 2, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(FindLineEnd(nullptr, 10, &count), 1);
}

std::string Crcx(std::string_view headers, std::string_view tid = "41") {
  return "CRCX " + std::string(tid) + " " + std::string(kEndpoint) + " MGCP 1.0\r\n" +
         std::string(headers);
}

TEST(ConnectionCommandTest, CrcxHeadersAndBody) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet = PacketOf(Crcx(
      "C: A3C47F21456789F0\r\nL: p:20, a:PCMU\r\nM: recvonly\r\nX: 99\r\n\r\n"
      "v=0\r\no=- 25678 753849 IN IP4 10.0.0.1\r\ns=-\r\nc=IN IP4 10.0.0.9\r\nt=0 0\r\n"
      "m=audio 49170 RTP/AVP 0 8 18\r\na=rtpmap:18 G729/8000\r\n"));
  EXPECT_EQ(ProcessMessage(1, block, &packet), 0);
  EXPECT_EQ(packet.length, 0u);  // a read writes nothing
  EXPECT_EQ(block.commandTransactionId, 41u);
  EXPECT_EQ(FieldText(block.callId), "A3C47F21456789F0");
  EXPECT_EQ(block.packetizationPeriod, 20u);
  EXPECT_EQ(block.connectionMode, static_cast<std::uint32_t>(MGCP_MODE_RECVONLY));
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "IN IP4 10.0.0.9");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteOrigin), "- 25678 753849 IN IP4 10.0.0.1");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteSessionName), "-");
  EXPECT_EQ(block.remoteSdp.remoteRtpPort, 49170u);
  EXPECT_EQ(block.remoteSdp.codec, 18u);
}

TEST(ConnectionCommandTest, HeaderRows) {
  struct Row {
    const char* name;
    std::uint32_t operation;
    std::string headers;
    std::string call_id;
    std::uint32_t mode;
    std::uint32_t connection_id;
    std::uint32_t period;
  };
  // The block starts with call id "old", mode sendonly, connection 5, period 30.
  const std::string c31 = "C: " + std::string(28, 'x') + "\r\n";  // 31 bytes from the "C"
  const std::string c32 = "C: " + std::string(29, 'y') + "\r\n";
  const Row rows[] = {
      {"call id of 31 bytes stored", 1, c31, std::string(28, 'x'), 1, 5, 30},
      {"call id of 32 bytes ignored", 1, c32, "old", 1, 5, 30},
      {"C: without CR LF changes nothing", 1, "C: abc", "old", 1, 5, 30},
      {"mode confrnce keeps the old mode", 2, "M: confrnce\r\n", "old", 1, 5, 30},
      {"mode word compared for its length", 2, "M: sendrecvXYZ\r\n", "old", 0, 5, 30},
      {"inactive", 2, "M: inactive\r\n", "old", 2, 5, 30},
      {"sendonly", 2, "M: sendonly\r\n", "old", 1, 5, 30},
      {"I: read by MDCX", 2, "I: 77\r\n", "old", 1, 77, 30},
      {"I: read by DLCX", 3, "C: c9\r\nI: 78\r\n", "c9", 1, 78, 30},
      {"I: not read by CRCX", 1, "I: 79\r\n", "old", 1, 5, 30},
      {"M: not read by DLCX", 3, "M: inactive\r\n", "old", 1, 5, 30},
      {"L: with the codec first sets nothing", 1, "L: a:PCMU, p:20\r\n", "old", 1, 5, 30},
      {"L: not read by MDCX", 2, "L: p:20\r\n", "old", 1, 5, 30},
      {"literal inside another line counts", 2, "X: M: inactive\r\n", "old", 2, 5, 30},
  };
  for (const Row& row : rows) {
    MgcpControlBlock block = StartedBlock();
    StoreField(block.callId, "old");
    block.connectionMode = MGCP_MODE_SENDONLY;
    block.connectionId = 5;
    block.packetizationPeriod = 30;
    const std::string verb = row.operation == 1 ? "CRCX" : row.operation == 2 ? "MDCX" : "DLCX";
    std::string text = Crcx(row.headers);
    text.replace(0, 4, verb);
    MgcpPacket packet = PacketOf(text);
    EXPECT_EQ(ProcessMessage(row.operation, block, &packet), 0) << row.name;
    EXPECT_EQ(FieldText(block.callId), row.call_id) << row.name;
    EXPECT_EQ(block.connectionMode, row.mode) << row.name;
    EXPECT_EQ(block.connectionId, row.connection_id) << row.name;
    EXPECT_EQ(block.packetizationPeriod, row.period) << row.name;
  }
}

TEST(ConnectionCommandTest, ForeignEndpointReadsNothingButTheTransactionId) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet =
      PacketOf("CRCX 55 d1@ffffffffffff MGCP 1.0\r\nC: abc\r\nM: inactive\r\n\r\nv=0\r\n");
  EXPECT_EQ(ProcessMessage(1, block, &packet), 1);
  EXPECT_EQ(packet.length, 0u);
  EXPECT_EQ(block.commandTransactionId, 55u);
  EXPECT_EQ(FieldText(block.callId), "");
  EXPECT_EQ(block.connectionMode, 0u);
}

TEST(ConnectionCommandTest, TruncatedAndOversizedDatagramsStayInBounds) {
  const std::string full = Crcx(
      "C: 1234\r\nM: inactive\r\nL: p:20\r\n\r\nv=0\r\no=- 1 1 IN IP4 1.2.3.4\r\n"
      "c=IN IP4 10.1.1.1\r\nm=audio 4000 RTP/AVP 0\r\na=rtpmap:8 PCMA/8000\r\n");
  // Every cut of the datagram parses without reading past it.
  for (std::size_t cut = 0; cut <= full.size(); ++cut) {
    MgcpControlBlock block = StartedBlock();
    // The bytes behind the cut are not the datagram's: a parser that read them would see "X".
    MgcpPacket packet = PacketOf(std::string(kMgcpPacketSize, 'X'));
    packet.Assign(full.substr(0, cut));
    for (std::size_t i = cut; i < kMgcpPacketSize; ++i) packet.data[i] = 'X';
    ProcessMessage(2, block, &packet);
    EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection).find('X'), std::string_view::npos);
  }
  // A length beyond the buffer is read as the whole buffer.
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet = PacketOf(full);
  packet.length = 5000;
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(block.connectionMode, 2u);
}

TEST(ProcessMessageTest, RejectsUnknownOperationsAndMissingPackets) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet = PacketOf("anything");
  EXPECT_EQ(ProcessMessage(0, block, &packet), 1);
  EXPECT_EQ(packet.length, 0u);
  packet = PacketOf("anything");
  EXPECT_EQ(ProcessMessage(9, block, &packet), 1);
  EXPECT_EQ(ProcessMessage(1, block, nullptr), 1);
  EXPECT_EQ(ProcessMessage(6, block, &packet, nullptr, nullptr), 1);
}

}  // namespace
}  // namespace deskline
