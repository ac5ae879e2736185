// The one operation behind all parsing and building of MGCP text, selected by number:
// 1 read CRCX, 2 read MDCX, 3 read DLCX, 4 build DLCX, 5 build NTFY, 6 read one RQNT signal,
// 7 build RSIP, 8 build a response. Runs under the endpoint's command lock.
#pragma once

#include <cstdint>

#include "mgcp/mgcp_types.h"

namespace deskline {

// `text` is the key text of operation 5 and the response code of operation 8; `signal` the
// buffer of operation 6. Afterwards the packet's `length` is the number of bytes written, 0
// where nothing was written (so also after reading a CRCX, MDCX or DLCX); operation 6 leaves
// the rest of the RQNT instead. Returns 0, or 1 for a missing packet or buffer, an unknown
// operation, or a read that failed.
int ProcessMessage(std::uint32_t operation, MgcpControlBlock& block, MgcpPacket* packet,
                   const char* text = nullptr, SignalBuffer* signal = nullptr);

}  // namespace deskline
