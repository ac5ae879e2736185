// Inbound parsing: classification, the command line, the header scan and the SDP reader.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using namespace mgcp_test;

TEST(MgcpParseTest, Classification) {
  struct Row { std::string_view text; std::uint32_t in, out; };
  const Row rows[] = {
      {"CRCX 1 x", MGCP_EVENT_CRCX, MGCP_EVENT_CRCX},
      {"MDCX 1 x", MGCP_EVENT_MDCX, MGCP_EVENT_MDCX},
      {"RQNT 1 x", MGCP_EVENT_RQNT, MGCP_EVENT_RQNT},
      {"DLCX 1 x", MGCP_EVENT_DLCX, MGCP_EVENT_SEND_DLCX},
      {"RSIP 1 x", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RSIP},
      {"NTFY 1 x", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_NTFY},
      {"AUEP 3 x", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"CRCXX 5", MGCP_EVENT_CRCX, MGCP_EVENT_CRCX},  // only the first four bytes decide
      {"crcx 1", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"CRC", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
      {"", MGCP_EVENT_SEND_RESPONSE, MGCP_EVENT_SEND_RESPONSE},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(ClassifyInbound(row.text), row.in);
    EXPECT_EQ(ClassifyOutbound(row.text), row.out);
  }
}

TEST(MgcpParseTest, CommandLine) {
  struct Row { std::string text; int result; std::uint32_t offset, tid; std::string endpoint; };
  const std::string ep(kEndpoint);
  const Row rows[] = {
      {"CRCX 1234 " + ep + " MGCP 1.0\r\n", 0, 25, 1234, ep},
      {"CRCX 7 " + ep + "@x MGCP", 0, 24, 7, ep + "@x"},  // a longer token is taken over
      {"CRCX 88 d1@001122aabbcd MGCP", 1, 0, 88, ep},    // foreign: the id is kept for the answer
      {"CRCX 88 d1@0011 MGCP", 1, 0, 88, ep},            // a shorter token is no match
      {"CRCXX 5 " + ep + " MGCP", 0, 0, 1, ep},          // verb of five letters: nothing read
      {"CRCX 5", 0, 0, 1, ep},
      {"CRCX 5 " + ep, 0, 0, 5, ep},  // no blank behind the token
      {"CRCX 123456789012 " + ep + " MGCP", 1, 0, 1, ep},  // a word of 12 characters
      {"CRCX 12345678901 " + ep + " MGCP", 1, 0, 1, ep},   // 11 digits above 2^32 - 1
      {"CRCX 4294967295 " + ep + " MGCP", 0, 31, 4294967295u, ep},
      {"CRCX 9 " + ep + "ABCDE MGCP", 1, 0, 9, ep},          // token of 20 characters
      {"CRCX 9 " + ep + "ABCD MGCP", 0, 26, 9, ep + "ABCD"},  // 19 fit
      {"", 1, 0, 1, ep},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    MgcpControlBlock block = StartedBlock();
    std::uint32_t offset = 99;
    EXPECT_EQ(ParseCommandLine(block, row.text, &offset), row.result);
    EXPECT_EQ(offset, row.offset);
    EXPECT_EQ(block.commandTransactionId, row.tid);
    EXPECT_EQ(FieldText(block.endpointName), row.endpoint);
  }
}

TEST(MgcpParseTest, TransactionId) {
  struct Row { std::string_view text; int result; std::uint32_t tid; };
  const Row rows[] = {
      {"200 17 OK\r\n", 0, 17}, {"250 17", 0, 17}, {"AUEP 3 d1@x MGCP 1.0\r\n", 0, 3},
      {"510 12ab\r\n", 0, 12},  // the number ends at the first non-digit
      {"200", 1, 0}, {"200 ", 1, 0}, {"200 123456789012 OK", 1, 0}, {"200 99999999999", 1, 0},
  };
  for (const Row& row : rows) {
    std::uint32_t tid = 0;
    EXPECT_EQ(ParseTransactionId(row.text, &tid), row.result) << row.text;
    EXPECT_EQ(tid, row.tid) << row.text;
  }
}

std::string Command(std::string_view verb, std::string_view rest) {
  return std::string(verb) + " 41" + kHead + std::string(rest);
}

std::string Offer(const std::vector<std::string>& attributes) {
  std::string text = "v=0\r\no=- 1 1 IN IP4 10.0.0.1\r\ns=call\r\nc=IN IP4 10.0.0.9\r\nt=0 0\r\n"
                     "m=audio 49170 RTP/AVP 0 8 18\r\n";
  for (const std::string& a : attributes) text += "a=" + a + "\r\n";
  return text;
}

// What the header scan stored: call id | connection mode | connection id | period.
std::string Headers(const MgcpControlBlock& b) {
  return std::string(FieldText(b.callId)) + "|" + std::to_string(b.connectionMode) + "|" +
         std::to_string(b.connectionId) + "|" + std::to_string(b.packetizationPeriod);
}

// What the SDP reader stored: o= | s= | c= | m= | last a= | RTP port | codec.
std::string Sdp(const MgcpRemoteSdp& s) {
  std::string text;
  for (const auto* field : {&s.remoteOrigin, &s.remoteSessionName, &s.remoteConnection,
                            &s.remoteMedia, &s.remoteAttribute}) {
    text += std::string(FieldText(*field)) + "|";
  }
  return text + std::to_string(s.remoteRtpPort) + "|" + std::to_string(s.codec);
}

TEST(MgcpParseTest, CrcxHeadersAndBody) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet =
      PacketOf(Command("CRCX", "C: A3C47F21456789F0\r\nL: p:20, a:PCMU\r\nM: recvonly\r\n\r\n" +
                                   Offer({"rtpmap:18 G729/8000", "ptime:20"})));
  EXPECT_EQ(ProcessMessage(1, block, &packet), 0);
  EXPECT_EQ(packet.length, 0u);  // a read writes nothing
  EXPECT_EQ(block.commandTransactionId, 41u);
  EXPECT_EQ(Headers(block), "A3C47F21456789F0|3|0|20");  // 3: recvonly
  const std::string offer =
      "- 1 1 IN IP4 10.0.0.1|call|IN IP4 10.0.0.9|audio 49170 RTP/AVP 0 8 18|ptime:20|49170|18";
  EXPECT_EQ(Sdp(block.remoteSdp), offer);

  // An MDCX without SDP leaves the earlier values; a second body restarts the reader.
  packet = PacketOf(Command("MDCX", "M: sendonly\r\n"));
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(Sdp(block.remoteSdp), offer);
  packet = PacketOf(Command("MDCX", "\r\n" + Offer({"rtpmap:8 PCMA/8000"}) +
                                        "v=0\r\nm=audio 5004 RTP/AVP 0\r\n"));
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(Sdp(block.remoteSdp), "|||audio 5004 RTP/AVP 0||5004|0");

  // A foreign endpoint reads nothing but the transaction id.
  block = StartedBlock();
  packet = PacketOf("CRCX 55 d1@ffffffffffff MGCP 1.0\r\nC: abc\r\nM: inactive\r\n\r\nv=0\r\n");
  EXPECT_EQ(ProcessMessage(1, block, &packet), 1);
  EXPECT_EQ(block.commandTransactionId, 55u);
  EXPECT_EQ(Headers(block), "|0|0|0");
}

TEST(MgcpParseTest, HeaderRows) {
  struct Row { const char* verb; std::string headers, stored; };
  // The block starts with call id "old", mode sendonly (1), connection 5, period 30.
  const Row rows[] = {
      {"CRCX", "C: " + std::string(28, 'x') + "\r\n", std::string(28, 'x') + "|1|5|30"},  // 31 B
      {"CRCX", "C: " + std::string(29, 'y') + "\r\n", "old|1|5|30"},  // 32 bytes: ignored
      {"CRCX", "C: abc", "old|1|5|30"},                                // no CR LF
      {"MDCX", "M: confrnce\r\n", "old|1|5|30"},
      {"MDCX", "M: sendrecvXYZ\r\n", "old|0|5|30"},  // compared for its own length
      {"MDCX", "M: inactive\r\n", "old|2|5|30"},       {"MDCX", "I: 77\r\n", "old|1|77|30"},
      {"DLCX", "C: c9\r\nI: 78\r\n", "c9|1|78|30"},     {"CRCX", "I: 79\r\n", "old|1|5|30"},
      {"DLCX", "M: inactive\r\n", "old|1|5|30"},       {"MDCX", "L: p:20\r\n", "old|1|5|30"},
      {"CRCX", "L: a:PCMU, p:20\r\n", "old|1|5|30"},
      {"MDCX", "X: M: inactive\r\n", "old|2|5|30"},  // a literal inside another line counts
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.verb) + " " + row.headers);
    MgcpControlBlock block = StartedBlock();
    StoreField(block.callId, "old");
    block.connectionMode = MGCP_MODE_SENDONLY;
    block.connectionId = 5;
    block.packetizationPeriod = 30;
    MgcpPacket packet = PacketOf(Command(row.verb, row.headers));
    const std::uint32_t operation = row.verb[0] == 'C' ? 1 : row.verb[0] == 'M' ? 2 : 3;
    EXPECT_EQ(ProcessMessage(operation, block, &packet), 0);
    EXPECT_EQ(Headers(block), row.stored);
  }
}

TEST(MgcpParseTest, BadDatagramsStayInBounds) {
  const std::string full =
      Command("MDCX", "C: 1234\r\nM: inactive\r\nL: p:20\r\n\r\n" + Offer({"rtpmap:8 PCMA/8000"}));
  // Every cut parses without reading past it: the bytes behind the cut are "X".
  for (std::size_t cut = 0; cut <= full.size(); ++cut) {
    MgcpControlBlock block = StartedBlock();
    MgcpPacket packet = PacketOf(full.substr(0, cut) + std::string(kMgcpPacketSize - cut, 'X'));
    packet.length = static_cast<std::uint32_t>(cut);
    ProcessMessage(2, block, &packet);
    EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection).find('X'), std::string_view::npos) << cut;
  }
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet = PacketOf(full);
  packet.length = 5000;  // read as the whole buffer
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(block.connectionMode, 2u);
  for (std::uint32_t operation : {0u, 9u}) EXPECT_EQ(ProcessMessage(operation, block, &packet), 1);
  EXPECT_EQ(ProcessMessage(1, block, nullptr), 1);
  EXPECT_EQ(ProcessMessage(6, block, &packet, nullptr, nullptr), 1);
}

TEST(MgcpSdpReaderTest, CodecRules) {
  struct Row { std::vector<std::string> attributes; std::uint32_t codec; };
  const Row rows[] = {
      {{"rtpmap:18 G729/8000", "rtpmap:0 PCMU/8000"}, 0},  // the last known one wins
      {{"rtpmap:0 PCMU/8000", "rtpmap:18 G729/8000"}, 18},
      {{"rtpmap:18 G729/8000", "rtpmap:101 telephone-event/8000"}, 18},  // unknown never pushes out
      {{"rtpmap:101 telephone-event/8000"}, 0},
      {{"rtpmap:3 GSM/8000"}, 0},
      {{"rtpmap:101 x/8000", "rtpmap:8 PCMA/8000"}, 8},
      {{"rtpmap:9 G722/8000"}, 9},
      {{"rtpmap:18 PCMU/16000"}, 18},  // name and rate are not read
      {{}, 0},
  };
  for (const Row& row : rows) {
    MgcpControlBlock block = StartedBlock();
    block.remoteSdp.codec = 77;
    ReadSdp(block, Offer(row.attributes), 0);
    EXPECT_EQ(block.remoteSdp.codec, row.codec) << ::testing::PrintToString(row.attributes);
  }
}

TEST(MgcpSdpReaderTest, ValueBoundsAndLastLine) {
  MgcpControlBlock block = StartedBlock();
  const MgcpRemoteSdp& sdp = block.remoteSdp;
  // 288 characters fill the field unterminated; 289 are not stored.
  const std::string v288(288, 's');
  ReadSdp(block, "v=0\r\ns=" + v288 + "\r\nc=" + v288 + "x\r\n", 0);
  EXPECT_EQ(FieldText(sdp.remoteSessionName), v288);
  EXPECT_EQ(FieldText(sdp.remoteConnection), "");
  // A last line without CR LF is read with the length of the line before, cut to what is there.
  ReadSdp(block, "v=0\r\ns=abcdef\r\nc=IN IP4 1.2.3.4", 0);
  EXPECT_EQ(FieldText(sdp.remoteConnection), "IN IP4");
  ReadSdp(block, "v=0\r\ns=abcdefghijklmnopqrstuvwxyz\r\nc=IN IP4 1.2.3.4", 0);
  EXPECT_EQ(FieldText(sdp.remoteConnection), "IN IP4 1.2.3.4");
  ReadSdp(block, "c=IN IP4 1.2.3.4", 0);
  EXPECT_EQ(FieldText(sdp.remoteConnection), "");
  // A long a= line is skipped; the codec comes from the attribute stored before.
  ReadSdp(block, "v=0\r\na=rtpmap:18 G729/8000\r\na=rtpmap:0 " + std::string(300, 'z') + "\r\n", 0);
  EXPECT_EQ(sdp.codec, 18u);
  EXPECT_EQ(sdp.remoteRtpPort, 0u);
}

}  // namespace
}  // namespace deskline
