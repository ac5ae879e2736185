// SDP: the offer reader with its codec rules, the answer writer and the local texts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_sdp.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using mgcp_test::kEndpoint;
using mgcp_test::PacketOf;
using mgcp_test::StartedBlock;
using mgcp_test::TextOf;

std::string Offer(const std::vector<std::string>& attributes,
                  std::string_view media = "audio 49170 RTP/AVP 0 8 18") {
  std::string text = "v=0\r\no=- 1 1 IN IP4 10.0.0.1\r\ns=call\r\nc=IN IP4 10.0.0.9\r\nt=0 0\r\nm=" +
                     std::string(media) + "\r\n";
  for (const std::string& a : attributes) text += "a=" + a + "\r\n";
  return text;
}

TEST(SdpReaderTest, CodecRules) {
  struct Row {
    const char* name;
    std::vector<std::string> attributes;
    std::uint32_t codec;
  };
  const Row rows[] = {
      {"18 then 0 gives 0", {"rtpmap:18 G729/8000", "rtpmap:0 PCMU/8000"}, 0},
      {"0 then 18 gives 18", {"rtpmap:0 PCMU/8000", "rtpmap:18 G729/8000"}, 18},
      {"18 then 101 keeps 18", {"rtpmap:18 G729/8000", "rtpmap:101 telephone-event/8000"}, 18},
      {"101 alone gives 0", {"rtpmap:101 telephone-event/8000"}, 0},
      {"3 is not one of the four", {"rtpmap:3 GSM/8000"}, 0},
      {"8", {"rtpmap:8 PCMA/8000"}, 8},
      {"9", {"rtpmap:9 G722/8000"}, 9},
      {"101 then 8 gives 8", {"rtpmap:101 x/8000", "rtpmap:8 PCMA/8000"}, 8},
      {"other attributes leave it", {"rtpmap:18 G729/8000", "ptime:20", "sendrecv"}, 18},
      {"no attribute at all", {}, 0},
      {"name and rate are not read", {"rtpmap:18 PCMU/16000"}, 18},
  };
  for (const Row& row : rows) {
    MgcpControlBlock block = StartedBlock();
    block.remoteSdp.codec = 77;
    const std::string text = Offer(row.attributes);
    EXPECT_EQ(ReadSdp(block, text, 0), 0);
    EXPECT_EQ(block.remoteSdp.codec, row.codec) << row.name;
    EXPECT_EQ(block.remoteSdp.remoteRtpPort, 49170u) << row.name;
  }
}

TEST(SdpReaderTest, FieldsAndBounds) {
  MgcpControlBlock block = StartedBlock();
  ReadSdp(block, Offer({"rtpmap:0 PCMU/8000", "ptime:20"}), 0);
  EXPECT_EQ(block.remoteSdp.remoteSdpVersion, 0);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteOrigin), "- 1 1 IN IP4 10.0.0.1");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteSessionName), "call");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "IN IP4 10.0.0.9");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteMedia), "audio 49170 RTP/AVP 0 8 18");
  EXPECT_EQ(FieldText(block.remoteSdp.remoteAttribute), "ptime:20");  // the last a=

  // 288 characters fill the field unterminated; 289 are not stored.
  const std::string v288(288, 's');
  ReadSdp(block, "v=0\r\ns=" + v288 + "\r\nc=" + v288 + "x\r\n", 0);
  EXPECT_EQ(std::string_view(block.remoteSdp.remoteSessionName, 288), v288);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteSessionName).size(), 288u);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "");

  // A last line without CR LF is read with the length of the line before, cut to what is there.
  ReadSdp(block, "v=0\r\ns=abcdef\r\nc=IN IP4 1.2.3.4", 0);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "IN IP4");
  ReadSdp(block, "v=0\r\ns=abcdefghijklmnopqrstuvwxyz\r\nc=IN IP4 1.2.3.4", 0);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "IN IP4 1.2.3.4");
  ReadSdp(block, "c=IN IP4 1.2.3.4", 0);  // the first line: length 0
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "");

  // No m= and no c=: port 0 and an empty connection, not an error.
  ReadSdp(block, "v=0\r\ns=-\r\n", 0);
  EXPECT_EQ(block.remoteSdp.remoteRtpPort, 0u);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "");

  // A long a= line is skipped, but the codec is chosen again from the attribute stored before.
  ReadSdp(block, "v=0\r\na=rtpmap:18 G729/8000\r\na=rtpmap:0 " + std::string(300, 'z') + "\r\n", 0);
  EXPECT_EQ(block.remoteSdp.codec, 18u);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteAttribute), "rtpmap:18 G729/8000");
}

TEST(SdpReaderTest, ThroughConnectionCommands) {
  const std::string head = "MDCX 9 " + std::string(kEndpoint) + " MGCP 1.0\r\nC: 1\r\n";
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet = PacketOf(head + "\r\n" + Offer({"rtpmap:8 PCMA/8000"}));
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(block.remoteSdp.codec, 8u);
  // An MDCX without SDP leaves the earlier values.
  packet = PacketOf(head + "M: sendonly\r\n");
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(block.remoteSdp.codec, 8u);
  EXPECT_EQ(block.remoteSdp.remoteRtpPort, 49170u);
  // A second body restarts the reader: what only the first carried is gone.
  packet = PacketOf(head + "\r\n" + Offer({"rtpmap:8 PCMA/8000"}) + "v=0\r\nm=audio 5004 RTP/AVP 0\r\n");
  EXPECT_EQ(ProcessMessage(2, block, &packet), 0);
  EXPECT_EQ(block.remoteSdp.remoteRtpPort, 5004u);
  EXPECT_EQ(block.remoteSdp.codec, 0u);
  EXPECT_EQ(FieldText(block.remoteSdp.remoteConnection), "");
}

TEST(SdpWriterTest, AnswerToCrcxByteForByte) {
  MgcpControlBlock block = StartedBlock();
  block.commandTransactionId = 41;
  MgcpPacket packet;
  ASSERT_EQ(BuildResponse(block, packet, "200"), 0);
  ASSERT_EQ(HandleSdp(block, packet, packet.length, 0), 0);
  // The connection id is never made up: 0 until a command brings one.
  EXPECT_EQ(TextOf(packet),
            "200 41 OK\r\nI: 0\r\n\r\nv=0\r\no=- 0 0 IN IP4 10.0.0.5\r\ns=-\r\n"
            "c=IN IP4 10.0.0.5\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");

  // The offer's codec does not change the answer until SetLocalMedia runs again.
  ReadSdp(block, Offer({"rtpmap:18 G729/8000"}), 0);
  block.connectionId = 12;
  ASSERT_EQ(BuildResponse(block, packet, "100"), 0);
  ASSERT_EQ(WriteSdp(block, packet, packet.length), 0);
  EXPECT_EQ(TextOf(packet),
            "100 41\r\nI: 12\r\n\r\nv=0\r\no=- 0 0 IN IP4 10.0.0.5\r\ns=-\r\n"
            "c=IN IP4 10.0.0.5\r\nt=0 0\r\nm=audio 8000 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n");

  // What does not fit is not written.
  packet.length = kMgcpPacketSize - 10;
  EXPECT_EQ(WriteSdp(block, packet, packet.length), 1);
  EXPECT_EQ(packet.length, kMgcpPacketSize - 10);
}

TEST(SdpLocalTest, LocalMediaIdentityAndEndpoint) {
  MgcpControlBlock block = StartedBlock();
  EXPECT_EQ(FieldText(block.endpointName), "d1@001122aabbcc");
  block.remoteSdp.codec = 18;
  EXPECT_EQ(SetLocalMedia(block, 0), 0);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 0 RTP/AVP 18");
  EXPECT_EQ(FieldText(block.localSdp.localAttribute), "rtpmap:18 G729/8000");
  EXPECT_EQ(block.localRtpPort, 0u);
  // Out of range: nothing changes.
  EXPECT_EQ(SetLocalMedia(block, 70000), 1);
  EXPECT_EQ(SetLocalMedia(block, -1), 1);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 0 RTP/AVP 18");
  // A type outside the table keeps its number and is named PCMU.
  block.remoteSdp.codec = 101;
  EXPECT_EQ(SetLocalMedia(block, 65535), 0);
  EXPECT_EQ(FieldText(block.localSdp.localMedia), "audio 65535 RTP/AVP 101");
  EXPECT_EQ(FieldText(block.localSdp.localAttribute), "rtpmap:101 PCMU/8000");

  SetLocalIdentity(block, 0);
  EXPECT_EQ(FieldText(block.localSdp.localOrigin), "- 0 0 IN IP4 0.0.0.0");
  EXPECT_EQ(FieldText(block.localSdp.localConnection), "IN IP4 0.0.0.0");
  SetLocalIdentity(block, 0xC0A80164);
  EXPECT_EQ(FieldText(block.localSdp.localConnection), "IN IP4 192.168.1.100");
}

}  // namespace
}  // namespace deskline
