// The texts that the terminal sends: NTFY, RSIP, DLCX and the first line of its responses.
// Each writes from the start of the packet, CR LF behind every line and no empty line at the
// end, and sets the packet's `length` to the bytes written. Called under the endpoint's
// command lock, which also guards the transaction counter.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mgcp/mgcp_types.h"

namespace deskline {

// Texts from the call processor (key texts, response codes) are read up to this many bytes,
// the size of a mailbox payload, or their terminator.
inline constexpr std::size_t kMgcpMaxArgumentText = 200;

// NTFY with the transaction id `nextTransactionId`, which then goes up by 1. The observed
// event line is written only for a key text that the terminal knows; "0a03" adds a second K:.
// A null key text counts as unknown. Returns 0.
int BuildNtfy(MgcpControlBlock& block, MgcpPacket& packet, const char* key_text);

// RSIP with `nextTransactionId`, which then goes up by 1. Returns 0; `transaction_id` (may be
// null) gets the id used.
int BuildRsip(MgcpControlBlock& block, MgcpPacket& packet, std::uint32_t* transaction_id);

// DLCX with the last command's transaction id, the call id and the connection id. Returns 0.
int BuildDlcx(const MgcpControlBlock& block, MgcpPacket& packet);

// "200 tid OK" for the code "200", "code tid" for any other code. Returns 1 with `length` 0 for
// a null code, else 0.
int BuildResponse(const MgcpControlBlock& block, MgcpPacket& packet, const char* code);

}  // namespace deskline
