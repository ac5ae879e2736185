// Outbound texts byte for byte: RSIP, NTFY with its key table, DLCX, responses and the answer SDP.
#include <gtest/gtest.h>

#include <string>

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using namespace mgcp_test;

std::string Ntfy(MgcpControlBlock& block, const char* key) {
  MgcpPacket packet;
  EXPECT_EQ(ProcessMessage(5, block, &packet, key), 0);
  return TextOf(packet);
}

TEST(MgcpBuildTest, RsipNtfyAndDlcxShareTheCounter) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet;
  std::uint32_t tid = 0;
  EXPECT_EQ(BuildRsip(block, packet, &tid), 0);
  EXPECT_EQ(TextOf(packet), "RSIP 1" + kHead + "RM: restart\r\n");
  EXPECT_EQ(tid, 1u);
  // K: names the one before, answered or not; "0a03" alone repeats it.
  EXPECT_EQ(Ntfy(block, "0a03"), "NTFY 2" + kHead + "X: 1\r\nO: X-P/fk0a03\r\nK: 1\r\nK: 1\r\n");
  EXPECT_EQ(Ntfy(block, "0100"), "NTFY 3" + kHead + "X: 1\r\nO: X-P/fk0100\r\nK: 2\r\n");
  // DLCX answers the last command: it uses that id and leaves the counter alone.
  block.commandTransactionId = 41;
  StoreField(block.callId, "A3C47F21456789F0");
  block.connectionId = 7;
  EXPECT_EQ(ProcessMessage(4, block, &packet), 0);
  EXPECT_EQ(TextOf(packet), "DLCX 41" + kHead + "C: A3C47F21456789F0\r\nI: 7\r\n");
  EXPECT_EQ(ProcessMessage(7, block, &packet), 0);
  EXPECT_EQ(TextOf(packet), "RSIP 4" + kHead + "RM: restart\r\n");

  // The first NTFY has no predecessor and so no K: at all.
  block = StartedBlock();
  EXPECT_EQ(Ntfy(block, "0a03"), "NTFY 1" + kHead + "X: 1\r\nO: X-P/fk0a03\r\n");
}

TEST(MgcpBuildTest, NtfyKeyTable) {
  struct Row { const char* key; const char* event; };  // event "": no O: line
  const Row rows[] = {
      {"0300", "fk0300"}, {"0723", "fk0723"}, {"072a", "fk072a"}, {"072A", ""},
      {"0730", "fk0730"}, {"0739", "fk0739"}, {"0a00", "fk0a00"}, {"0a06", "fk0a06"},
      {"0a07", ""},       {"0b00", "fk0b00"}, {"0b02", ""},       {"0b0a", "fk0b0a"},
      {"0d03", "fk0d03"}, {"0d04", ""},       {"line(0004)", "line(0004)"}, {"line(0005)", ""},
      // Flexible keys 0c00..0c2f pass through in their own case, first four characters only.
      {"0c00", "fk0c00"}, {"0C2F", "fk0C2F"}, {"0c05xyz", "fk0c05"}, {"0c30", ""}, {"0bff", ""},
      {"0c", ""}, {"", ""}, {nullptr, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key ? row.key : "(null)");
    MgcpControlBlock block = StartedBlock();
    block.nextTransactionId = 5;
    const std::string observed = *row.event ? "O: X-P/" + std::string(row.event) + "\r\n" : "";
    EXPECT_EQ(Ntfy(block, row.key), "NTFY 5" + kHead + "X: 1\r\n" + observed + "K: 4\r\n");
    EXPECT_EQ(block.nextTransactionId, 6u);  // used up with or without an O: line
  }
  // A key text without a terminator is read no further than a mailbox payload.
  std::string long_key(300, '7');
  long_key.replace(0, 4, "0c01");
  MgcpControlBlock block = StartedBlock();
  EXPECT_EQ(Ntfy(block, long_key.c_str()), "NTFY 1" + kHead + "X: 1\r\nO: X-P/fk0c01\r\n");
}

TEST(MgcpBuildTest, ResponseLinesAndAnswerSdp) {
  MgcpControlBlock block = StartedBlock();
  block.commandTransactionId = 41;
  MgcpPacket packet;
  const std::pair<const char*, const char*> responses[] = {
      {"200", "200 41 OK\r\n"}, {"100", "100 41\r\n"}, {"250", "250 41\r\n"},
      {"2000", "2000 41\r\n"}};
  for (auto [code, text] : responses) {
    EXPECT_EQ(ProcessMessage(8, block, &packet, code), 0);
    EXPECT_EQ(TextOf(packet), text);
    EXPECT_EQ(ClassifyOutbound(packet.Text()), MGCP_EVENT_SEND_RESPONSE);
  }
  EXPECT_EQ(ProcessMessage(8, block, &packet, nullptr), 1);
  EXPECT_EQ(packet.length, 0u);

  // The connection id is never made up: 0 until a command brings one. The offer's codec does
  // not change the answer until SetLocalMedia runs again.
  block.remoteSdp.codec = 18;
  ASSERT_EQ(BuildResponse(block, packet, "200"), 0);
  ASSERT_EQ(HandleSdp(block, packet, packet.length, 0), 0);
  EXPECT_EQ(TextOf(packet), "200 41 OK\r\nI: 0\r\n\r\nv=0\r\no=- 0 0 IN IP4 10.0.0.5\r\ns=-\r\n"
                            "c=IN IP4 10.0.0.5\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\n"
                            "a=rtpmap:0 PCMU/8000\r\n");
  packet.length = kMgcpPacketSize - 10;  // what does not fit is not written
  EXPECT_EQ(WriteSdp(block, packet, packet.length), 1);
  EXPECT_EQ(packet.length, kMgcpPacketSize - 10);
}

TEST(MgcpBuildTest, LocalMediaAndIdentity) {
  MgcpControlBlock block = StartedBlock();
  block.remoteSdp.codec = 18;
  EXPECT_EQ(SetLocalMedia(block, 0), 0);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 0 RTP/AVP 18");
  EXPECT_EQ(FieldText(block.localSdp.localAttribute), "rtpmap:18 G729/8000");
  EXPECT_EQ(SetLocalMedia(block, 65536), 1);  // out of range: nothing changes
  EXPECT_EQ(SetLocalMedia(block, -1), 1);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 0 RTP/AVP 18");
  block.remoteSdp.codec = 101;  // outside the table: its number, named PCMU
  EXPECT_EQ(SetLocalMedia(block, 65535), 0);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 65535 RTP/AVP 101");
  EXPECT_EQ(FieldText(block.localSdp.localAttribute), "rtpmap:101 PCMU/8000");
  SetLocalIdentity(block, 0xC0A80164);  // host order
  EXPECT_EQ(FieldText(block.localSdp.localOrigin), "- 0 0 IN IP4 192.168.1.100");
  EXPECT_EQ(FieldText(block.localSdp.localConnection), "IN IP4 192.168.1.100");
}

}  // namespace
}  // namespace deskline
