// Shared helpers of the MGCP tests: a control block as it stands after start, and packets.
#pragma once

#include <string>
#include <string_view>

#include "mgcp/mgcp_sdp.h"
#include "mgcp/mgcp_types.h"

namespace deskline::mgcp_test {

inline constexpr std::uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
inline constexpr std::string_view kEndpoint = "d1@001122aabbcc";
// What follows the verb and transaction id on a command line for our endpoint.
inline const std::string kHead = " " + std::string(kEndpoint) + " MGCP 1.0\r\n";

// The block after start with local address 10.0.0.5 and media port 8000.
inline MgcpControlBlock StartedBlock() {
  MgcpControlBlock block;
  SetEndpointName(block, kMac);
  SetLocalIdentity(block, 0x0A000005);
  block.nextTransactionId = 1;
  block.commandTransactionId = 1;
  block.requestId = 1;
  SetLocalMedia(block, 8000);
  return block;
}

inline MgcpPacket PacketOf(std::string_view text) {
  MgcpPacket packet;
  packet.Assign(text);
  return packet;
}

inline std::string TextOf(const MgcpPacket& packet) { return std::string(packet.Text()); }

}  // namespace deskline::mgcp_test
