// Outbound texts byte for byte: RSIP, NTFY with its key table, DLCX and responses.
#include <gtest/gtest.h>

#include <string>

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using mgcp_test::StartedBlock;
using mgcp_test::TextOf;

const std::string kEp = "d1@001122aabbcc";

std::string Ntfy(MgcpControlBlock& block, const char* key) {
  MgcpPacket packet;
  EXPECT_EQ(ProcessMessage(5, block, &packet, key), 0);
  return TextOf(packet);
}

TEST(OutboundTest, RsipThenFirstNtfy) {
  MgcpControlBlock block = StartedBlock();
  MgcpPacket packet;
  std::uint32_t tid = 0;
  EXPECT_EQ(BuildRsip(block, packet, &tid), 0);
  EXPECT_EQ(TextOf(packet), "RSIP 1 " + kEp + " MGCP 1.0\r\nRM: restart\r\n");
  EXPECT_EQ(tid, 1u);
  EXPECT_EQ(ClassifyOutbound(packet.Text()), MGCP_EVENT_SEND_RSIP);
  EXPECT_EQ(Ntfy(block, "0200"),
            "NTFY 2 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0200\r\nK: 1\r\n");
  // K: names the one before, answered or not; X: stays 1.
  EXPECT_EQ(Ntfy(block, "0100"),
            "NTFY 3 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0100\r\nK: 2\r\n");
  EXPECT_EQ(ProcessMessage(7, block, &packet), 0);
  EXPECT_EQ(TextOf(packet), "RSIP 4 " + kEp + " MGCP 1.0\r\nRM: restart\r\n");
  EXPECT_EQ(block.nextTransactionId, 5u);
}

TEST(OutboundTest, NtfyKeyTable) {
  struct Row {
    const char* key;
    std::string event_lines;  // between X: and the K: of line 4
  };
  const Row rows[] = {
      {"0100", "O: X-P/fk0100\r\n"},
      {"0300", "O: X-P/fk0300\r\n"},
      {"0301", "O: X-P/fk0301\r\n"},
      {"0723", "O: X-P/fk0723\r\n"},
      {"072a", "O: X-P/fk072a\r\n"},
      {"072A", ""},  // table rows are exact texts
      {"0730", "O: X-P/fk0730\r\n"},
      {"0739", "O: X-P/fk0739\r\n"},
      {"0a00", "O: X-P/fk0a00\r\n"},
      {"0a06", "O: X-P/fk0a06\r\n"},
      {"0a03", "O: X-P/fk0a03\r\nK: 4\r\n"},  // the one key with a second K:
      {"0a07", ""},
      {"0b00", "O: X-P/fk0b00\r\n"},
      {"0b02", ""},  // there is no 0b02
      {"0b0a", "O: X-P/fk0b0a\r\n"},
      {"0d03", "O: X-P/fk0d03\r\n"},
      {"0d04", ""},
      {"line(0000)", "O: X-P/line(0000)\r\n"},
      {"line(0004)", "O: X-P/line(0004)\r\n"},
      {"line(0005)", ""},
      // Flexible keys pass through in their own case, first four characters only.
      {"0c00", "O: X-P/fk0c00\r\n"},
      {"0c2f", "O: X-P/fk0c2f\r\n"},
      {"0C2F", "O: X-P/fk0C2F\r\n"},
      {"0c2F", "O: X-P/fk0c2F\r\n"},
      {"0c05xyz", "O: X-P/fk0c05\r\n"},
      {"0c30", ""},
      {"0bff", ""},
      {"0c", ""},
      {"", ""},
      {nullptr, ""},
  };
  for (const Row& row : rows) {
    MgcpControlBlock block = StartedBlock();
    block.nextTransactionId = 5;
    EXPECT_EQ(Ntfy(block, row.key),
              "NTFY 5 " + kEp + " MGCP 1.0\r\nX: 1\r\n" + row.event_lines + "K: 4\r\n")
        << (row.key ? row.key : "(null)");
    EXPECT_EQ(block.nextTransactionId, 6u);  // used up with or without an O: line
  }
}

TEST(OutboundTest, NtfyWithoutPredecessorHasNoKLines) {
  MgcpControlBlock block = StartedBlock();
  EXPECT_EQ(Ntfy(block, "0a03"), "NTFY 1 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0a03\r\n");
  EXPECT_EQ(Ntfy(block, "0a03"),
            "NTFY 2 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0a03\r\nK: 1\r\nK: 1\r\n");
  // A key text without a terminator is read no further than a mailbox payload.
  std::string long_key(300, '7');
  long_key.replace(0, 4, "0c01");
  EXPECT_EQ(Ntfy(block, long_key.c_str()),
            "NTFY 3 " + kEp + " MGCP 1.0\r\nX: 1\r\nO: X-P/fk0c01\r\nK: 2\r\n");
}

TEST(OutboundTest, DlcxUsesTheCommandTransactionId) {
  MgcpControlBlock block = StartedBlock();
  block.commandTransactionId = 41;
  StoreField(block.callId, "A3C47F21456789F0");
  block.connectionId = 7;
  MgcpPacket packet;
  EXPECT_EQ(ProcessMessage(4, block, &packet), 0);
  EXPECT_EQ(TextOf(packet),
            "DLCX 41 " + kEp + " MGCP 1.0\r\nC: A3C47F21456789F0\r\nI: 7\r\n");
  EXPECT_EQ(block.nextTransactionId, 1u);
}

TEST(OutboundTest, ResponseLines) {
  struct Row {
    const char* code;
    std::string text;
  };
  const Row rows[] = {
      {"200", "200 41 OK\r\n"}, {"100", "100 41\r\n"}, {"250", "250 41\r\n"},
      {"400", "400 41\r\n"},    {"2000", "2000 41\r\n"},
  };
  MgcpControlBlock block = StartedBlock();
  block.commandTransactionId = 41;
  for (const Row& row : rows) {
    MgcpPacket packet;
    EXPECT_EQ(ProcessMessage(8, block, &packet, row.code), 0);
    EXPECT_EQ(TextOf(packet), row.text) << row.code;
    EXPECT_EQ(ClassifyOutbound(packet.Text()), MGCP_EVENT_SEND_RESPONSE);
  }
  MgcpPacket packet;
  EXPECT_EQ(ProcessMessage(8, block, &packet, nullptr), 1);
  EXPECT_EQ(packet.length, 0u);
}

}  // namespace
}  // namespace deskline
