// SDP of the connection commands: the reader of the PBX's offer and the writer of the
// terminal's answer, plus the fixed local texts. Pure functions over the control block.
//
// Codec rule of the reader: the last rtpmap attribute with a known payload type (0, 8, 9, 18)
// wins; an unknown type never pushes out a known one; with none known the codec is 0 (PCMU).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "mgcp/mgcp_types.h"

namespace deskline {

inline constexpr std::uint32_t kSdpClockRate = 8000;

// The rtpmap name of a payload type: PCMU, PCMA, G722, G729; any other type is named PCMU.
std::string_view CodecName(std::uint32_t payload_type);
// True for the four payload types that the terminal knows.
bool IsKnownCodec(std::uint32_t payload_type);

// Reads the SDP body starting at `offset` of `text` into `remoteSdp`, which it zero-fills first.
// Values longer than 288 characters are skipped. Traces the codec choice. Returns 0.
int ReadSdp(MgcpControlBlock& block, std::string_view text, std::size_t offset);

// Writes "I:", an empty line and the local SDP at `offset` of the packet and sets `length` to
// the end of it. Returns 1, with `length` at `offset`, if it does not fit in the packet.
int WriteSdp(const MgcpControlBlock& block, MgcpPacket& packet, std::size_t offset);

// The two directions behind one operation: `read` 1 reads the body at `offset`, 0 appends.
int HandleSdp(MgcpControlBlock& block, MgcpPacket& packet, std::size_t offset, int read);

// Rebuilds the m= and a= texts for `port` and the block's `codec`. A port outside 0..65535
// changes nothing and returns 1; else 0.
int SetLocalMedia(MgcpControlBlock& block, std::int64_t port);

// The fixed parts of the answer for the terminal's own address (host order): o=, s=, c=,
// version and times.
void SetLocalIdentity(MgcpControlBlock& block, std::uint32_t local_ip);

// "d1@" and the six bytes of the hardware address as lower-case hexadecimal.
void SetEndpointName(MgcpControlBlock& block, const std::uint8_t (&mac)[6]);

}  // namespace deskline
