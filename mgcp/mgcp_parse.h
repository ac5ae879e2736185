// The inbound half of the MGCP endpoint: what a datagram is, the command line, and the header
// scan of CRCX, MDCX and DLCX. The parser looks only for fixed literals, compared at every byte
// position; it is not a general MGCP parser. Pure functions over pointer+length: every read is
// bounded by the bytes given, and every field by its array. Called on the MGCP socket thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "mgcp/mgcp_types.h"

namespace deskline {

// Two characters to one byte, the first as the high nibble. Accepts both cases and reports
// nothing: any character gives some value. `text` must hold two readable bytes. Returns 0.
int HexByte(const char* text, std::uint8_t* out);

// The class of a received datagram by its first four bytes: MGCP_EVENT_CRCX, _MDCX, _RQNT,
// _DLCX, or MGCP_EVENT_SEND_RESPONSE for anything else (audits, stray text, responses).
std::uint32_t ClassifyInbound(std::string_view text);
// The class of a message about to leave: CRCX 1, MDCX 2, RQNT 6, DLCX 4, RSIP 7, NTFY 5, else 8.
std::uint32_t ClassifyOutbound(std::string_view text);

// Reads "VERB tid endpoint ": stores the transaction id in `commandTransactionId`, checks that
// the endpoint token begins with `endpointName` and then takes the token over. `header_offset`
// gets the position of the blank behind the token, or 0 when the line is not in that form.
// Returns 1 for empty text, a foreign endpoint, a transaction word of more than 11 characters
// (or one above 2^32 - 1) and a token of more than 19; else 0.
int ParseCommandLine(MgcpControlBlock& block, std::string_view text, std::uint32_t* header_offset);

// The second blank-separated word of any datagram as a decimal number (digits up to the first
// non-digit). Returns 1 if no blank stands before the last byte, or the word is longer than
// 11 characters or its number does not fit in 32 bits; else 0 with `transaction_id` set.
int ParseTransactionId(std::string_view text, std::uint32_t* transaction_id);

// Returns 0 and the number of bytes before the next CR LF within `search_length` bytes of
// `text`, or 1 (leaving `count` alone) if there is none.
int FindLineEnd(const char* text, std::size_t search_length, std::size_t* count);

// Operations 1, 2 and 3: the command line, then the header scan of a CRCX, MDCX or DLCX,
// including the SDP body. Returns 1 if the command line was refused (nothing else is read),
// 1 for any other operation, else 0.
int ReadConnectionCommand(std::uint32_t operation, MgcpControlBlock& block, std::string_view text);

}  // namespace deskline
