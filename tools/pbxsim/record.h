// One recorded copy of a datagram at the simulator's edge, and its readable one-line form.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/pbxsim/mgcp_wire.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/ptap_wire.h"

namespace deskline::sim {

// Which of the PBX's conversations a datagram belongs to; RTP will join them.
enum class Channel { kPtap, kMgcp };

// What the simulated network did with this copy.
enum class Fate {
  kPassed,      // went through untouched
  kDropped,     // lost: never handled (in) or never put on the wire (out)
  kDelayed,     // handled (in) or sent (out) `delay_ms` late
  kDuplicate,   // the extra copy made by a duplicate rule
  kSendFailed,  // the socket refused it
};

const char* FateName(Fate fate);

struct Record {
  std::uint64_t index = 0;  // 0, 1, 2, ... in order of recording, never reused
  // Clock time at the socket: when it was received (in), or handed to the socket (out; for a
  // dropped one, when it would have been).
  std::int64_t steady_ns = 0;
  Channel channel = Channel::kPtap;
  Direction direction = Direction::kIn;
  Fate fate = Fate::kPassed;
  int delay_ms = 0;
  platform::UdpEndpoint peer;  // sender (in) or destination (out)
  std::vector<std::byte> raw;
  PtapDatagram decoded;  // kPtap only
  MgcpMessage mgcp;      // kMgcp only
};

// "  1.250 TRM->PBX START tid=1 127.0.0.1:40000 [20]=00 [01]=(49 bytes) 01 04 00 06 .. END"
// followed by the fate unless it passed, and the fault of a malformed datagram. Time is in
// seconds since `origin_ns`. An MGCP datagram shows its first line, its header lines and a
// digest of its SDP, each behind " | ":
// "  1.300 TRM->PBX MGCP NTFY 2 d1@0200aabbccdd MGCP 1.0 127.0.0.1:2427 | X: 1 | O: X-P/fk0200"
std::string FormatRecord(const Record& record, std::int64_t origin_ns);

}  // namespace deskline::sim
