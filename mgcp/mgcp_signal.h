// The X-P signal package: the S: line of an RQNT, decoded one signal at a time into a
// SignalBuffer that the call processor routes by its marker text. Twelve signal names are
// known (hset, pctl, ks, pgmm, cspc, vctl, ring, tone, slc, las, dtm, lcdp); anything else gives
// an empty buffer. Every hexadecimal read is bounded by the datagram and every write by the
// buffer: a signal cut short by the end of the datagram leaves its buffer empty or incomplete.
// Runs on the MGCP socket thread under the endpoint's command lock.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "mgcp/mgcp_types.h"

namespace deskline {

// Operation 6: decodes the first signal of the RQNT in `packet` into `signal` (which the
// caller has cleared) and cuts it out, so that the next call finds the next signal behind the
// same "S: ". `length` ends at 0 after the last signal. Updates `ringerActive` for ring and
// vctl. Returns 1 for a missing or empty packet, or a command line that is refused (foreign
// endpoint: `length` is then 0), else 0; a packet without any signal gives 0 and an empty buffer.
int ParseSignal(MgcpControlBlock& block, MgcpPacket* packet, SignalBuffer& signal);

// The RQNT walk: clears the buffer and parses, posting each decoded signal in order, until the
// packet is used up; then restores the packet's length (its text has been cut). The receiver
// handles each signal before the next is parsed. `block_lock`, if given, is held around each
// parse and released for the post. Returns the number of posts.
int WalkSignals(MgcpControlBlock& block, MgcpPacket& packet,
                const std::function<void(const SignalBuffer&)>& post,
                std::mutex* block_lock = nullptr);

}  // namespace deskline
