// CRtp: the RTP (RFC 3550) transport of the one voice stream. One bound UDP socket, the
// header builder, the header checker and the two addresses; no RTCP, no CSRC list or header
// extension on sent packets, no statistics.
//
// The header is built and checked by plain functions (WriteRtpHeader, CheckRtpDatagram) that
// need no socket, so that tests and the fuzz target run them alone.
//
// Packets: an RtpPacket holds a whole datagram in place, so that a packet made once and reused
// sends and receives without allocating; the payload is a slice of it.
//
// Thread rules: rtp_send runs on the host's thread (one sender), rtp_receive on the owner's
// receive thread (one receiver), rtp_punch on the punching thread, the setters on the call
// processor's threads; they take no lock. Start, Shutdown, rtp_start, rtp_stop and
// rtp_make_ssrc are serialised by a leaf lock. CRtp has no thread of its own: rtp_stop shuts
// the socket down, which releases a blocked rtp_receive at once, and Shutdown closes it after
// every call in progress has left, so that no thread ever reaches a reused descriptor. The
// owner of the receive thread joins it between the two.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>

#include "core/module.h"
#include "platform/udp_socket.h"

namespace deskline {

inline constexpr std::size_t kRtpHeaderBytes = 12;
// Datagrams above this size are dropped on receipt; sent ones never exceed it.
inline constexpr std::size_t kRtpMaxDatagramBytes = 1500;
inline constexpr std::size_t kRtpMaxPayloadBytes = kRtpMaxDatagramBytes - kRtpHeaderBytes;
// Each packet is one 20 ms frame at 8,000 samples a second, whatever the payload type.
inline constexpr std::uint32_t kRtpTimestampStep = 160;

inline constexpr std::uint32_t kRtpPayloadPcmu = 0;
inline constexpr std::uint32_t kRtpPayloadPcma = 8;
inline constexpr std::uint32_t kRtpPayloadG722 = 9;
inline constexpr std::uint32_t kRtpPayloadG729 = 18;

// Payload bytes that one 20 ms frame of `payload_type` is decoded from: 160 for PCMU and
// PCMA, 20 for G.729 (two 10-byte frames), 1 for G.722 (its payload is not looked at, but an
// empty one carries nothing), 0 for a type the media path does not know (no minimum).
std::uint32_t RtpFramePayloadBytes(std::uint32_t payload_type);

// The send side's numbering. The low 16 bits of `sequence` are the next sequence number.
struct RtpSendCounters {
  std::uint32_t sequence = 0;
  std::uint32_t timestamp = 0;
};

// Writes the 12 header bytes of the next packet into `out` and steps `counters` by 1 and 160
// (both wrap). V is 2; P, X, CC and M are 0; PT is `payload_type` & 0x7F; sequence number and
// timestamp are big-endian. The SSRC goes out in the byte order that the terminal has always
// used, lowest byte first; RtpHeaderView::ssrc reads it back the same way.
void WriteRtpHeader(std::span<std::uint8_t, kRtpHeaderBytes> out, std::uint32_t payload_type,
                    std::uint32_t ssrc, RtpSendCounters& counters);

// Why CheckRtpDatagram refused a datagram.
enum class RtpReject {
  kNone = 0,
  kTooShort,            // 12 bytes or fewer: no payload
  kTooLong,             // above kRtpMaxDatagramBytes
  kVersion,             // V other than 2
  kCsrcPastEnd,         // the CSRC list runs past the end
  kExtensionPastEnd,    // the header extension runs past the end
  kPaddingPastPayload,  // the padding count exceeds the payload
  kEmpty,               // nothing left once the padding is taken off
};

// The fields of a checked datagram. Numbers are in host order.
struct RtpHeaderView {
  std::uint8_t payload_type = 0;
  bool marker = false;
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;  // read lowest byte first, as WriteRtpHeader writes it
  std::size_t payload_offset = kRtpHeaderBytes;  // past the CSRC list and extension
  std::size_t payload_length = 0;                // padding not counted
  std::size_t length = 0;                        // header and payload, padding not counted
};

// Checks one received datagram. kNone with `*view` filled, or the reason it is to be dropped
// (`*view` is then untouched). Reads nothing outside `datagram`. `view` may be null.
RtpReject CheckRtpDatagram(std::span<const std::uint8_t> datagram, RtpHeaderView* view);

// One datagram in memory: the header, then the payload, in one block.
class RtpPacket {
 public:
  // One byte above the largest datagram, so that a longer one is seen and dropped rather than
  // silently cut to size.
  static constexpr std::size_t kCapacity = kRtpMaxDatagramBytes + 1;

  // Makes a packet to be sent with `payload_bytes` of zeroed payload (at most
  // kRtpMaxPayloadBytes). False, and nothing changed, if it is larger.
  bool Resize(std::size_t payload_bytes);

  // Puts the header of the next packet of a stream in front of the first `payload_bytes` of
  // the payload and steps `counters` (WriteRtpHeader). The datagram to send, or an empty span,
  // with nothing changed, if `payload_bytes` is 0 or more than the packet holds.
  std::span<const std::uint8_t> BuildDatagram(std::uint32_t payload_type, std::uint32_t ssrc,
                                              RtpSendCounters& counters,
                                              std::size_t payload_bytes);

  std::span<std::uint8_t> payload() { return {bytes_.data() + offset_, length_}; }
  std::span<const std::uint8_t> payload() const { return {bytes_.data() + offset_, length_}; }
  // The fields of the last packet received into it, or sent from it.
  const RtpHeaderView& header() const { return view_; }

 private:
  friend class CRtp;
  std::array<std::uint8_t, kCapacity> bytes_{};
  std::size_t offset_ = kRtpHeaderBytes;
  std::size_t length_ = 0;
  RtpHeaderView view_{};
};

class CRtp final : public CModule {
 public:
  // With a `seed`, the SSRC and the starting numbers are reproducible (tests); without one the
  // generator is seeded from the time of day at Start and at rtp_start.
  explicit CRtp(std::optional<std::uint32_t> seed = std::nullopt);
  ~CRtp() override;  // Shutdown
  CRtp(const CRtp&) = delete;
  CRtp& operator=(const CRtp&) = delete;

  // ---- Life (the Wave session's start-up and shutdown thread) ----
  // Makes the zeroed stream state if there is none. 0, or 1 after a critical trace.
  int Start() override;
  // Shuts the socket down, waits for every call in progress to leave, closes the socket and
  // frees the state. Always 0. Join the receive thread first: this only releases it.
  int Shutdown() override;

  // Binds the socket on the local port (any address), takes `*ssrc` as the stream's SSRC,
  // points the remote port at the local port and starts sequence and timestamp at random
  // values below 65,536. 1 if there is no state, `ssrc` is null, no remote address is set,
  // the socket is already open, or the port cannot be bound; else 0.
  int rtp_start(const std::uint32_t* ssrc);
  // Shuts the socket down: a blocked rtp_receive returns at once, later sends fail. The
  // descriptor is closed by Shutdown. 1 if there is no state, else 0.
  int rtp_stop();
  // The upper 16 bits of the calling thread's id joined with 16 random bits.
  std::uint32_t rtp_make_ssrc();
  // 1 if there is no state, else 0.
  int rtp_is_ready() const;

  // ---- Addresses and payload type (call processor's threads). 0, or 1 for a null argument
  // or no state. Addresses and ports are in host order; the socket layer converts. ----
  int rtp_set_remote_port(const std::int32_t* port);  // the low 16 bits
  // Takes effect at the next rtp_start: a bound socket stays on its port.
  int rtp_set_local_port(const std::uint16_t* port);
  int rtp_set_remote_ip(const std::uint32_t* address);
  int rtp_set_payload_type(std::uint32_t type);  // the low 7 bits go into the header
  // The remote address and port (0 and 0 without state). 1 for a null argument or no state.
  int rtp_get_remote(std::uint32_t* ip, std::uint32_t* port) const;

  // ---- Packets ----
  // A packet with `*size` zeroed payload bytes, or null if `size` is null, negative or above
  // kRtpMaxPayloadBytes, or memory is short. Any thread.
  static std::unique_ptr<RtpPacket> rtp_create_packet(const std::int32_t* size);
  // Frees the packet and clears the pointer; a null packet is accepted.
  static void rtp_release_packet(std::unique_ptr<RtpPacket>* packet);

  // Numbers `packet` as the next of the stream and sends its header and first `*size` payload
  // bytes to the remote address. 1 if there is no state, `packet` or `size` is null, or
  // `*size` is 0 or more than the packet holds; else 0, whatever the socket did. `sent`, if
  // not null, receives the bytes the system took, or -1. Host thread, one sender.
  int rtp_send(RtpPacket* packet, const std::uint32_t* size, std::int32_t* sent);

  // Blocks for one datagram from any source and checks it into `packet`, without allocating.
  // 0: a packet, with header and payload bytes (padding not counted) at `length`. 1: nothing
  // for the caller: `*length` is -1 when there is no state or the socket was shut down or
  // failed, else the size of a datagram that was dropped. `length` may be null. Receive
  // thread, one receiver.
  int rtp_receive(RtpPacket* packet, std::int32_t* length);
  // The same check without a socket: `datagram` as if it had just been received (tests and
  // the fuzz target). Results as rtp_receive.
  int ReceiveDatagram(std::span<const std::uint8_t> datagram, RtpPacket* packet,
                      std::int32_t* length);

  // One empty datagram from the voice socket to `*ip`:`*port`, a NAT mapping refresh.
  // 1 if an argument is null, there is no state or the send failed; else 0. Punching thread.
  int rtp_punch(const std::uint32_t* ip, const std::uint16_t* port);

  // ---- Read-outs (tests, tools, diagnostics) ----
  // The bound address once rtp_start has succeeded.
  std::optional<platform::UdpEndpoint> LocalEndpoint() const;
  std::uint32_t ssrc() const;
  // The SSRC of the first packet received (0 until then) and the sequence number of the last.
  std::uint32_t remote_ssrc() const;
  std::uint32_t last_remote_sequence() const;
  RtpSendCounters counters() const;

 private:
  struct RtpState;
  class Use;

  // Checks the `received` bytes at the front of `packet` and records what the stream keeps.
  static int Accept(RtpState& state, RtpPacket* packet, std::size_t received,
                    std::int32_t* length);
  std::uint32_t NextRandom();
  void Seed();

  const std::optional<std::uint32_t> seed_;
  std::mutex life_lock_;  // Start, Shutdown, rtp_start, rtp_stop, the generator
  std::minstd_rand random_;
  // Every operation that reaches the state counts itself in `users_` first, so that Shutdown
  // can withdraw the state and wait for the last of them before it frees it.
  std::atomic<RtpState*> state_{nullptr};
  mutable std::atomic<int> users_{0};
};

}  // namespace deskline
