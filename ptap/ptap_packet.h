// PTAP packets: the in-memory form, the bodies the terminal sends, the header test and the
// element walk of what it receives. Pure functions: no socket, no clock, no thread.
//
// Wire form: "PTAP", a 32-bit big-endian tid, a type byte, then elements of a tag byte, a
// 16-bit big-endian length and the value; what the terminal builds ends with the end mark 0xFF.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/ports.h"

namespace deskline {

inline constexpr std::size_t kPtapMaxDatagram = 1500;
inline constexpr std::size_t kPtapHeaderLength = 9;
inline constexpr std::uint8_t kPtapEndMark = 0xFF;

// Types besides the ones the call processor sends (core/ports.h).
inline constexpr int PTAP_TYPE_ACK = 0;
inline constexpr int PTAP_TYPE_COMPULSION_RESTART = 3;
inline constexpr int PTAP_TYPE_KEEPALIVE = 16;
inline constexpr int PTAP_TYPE_EXTENDED_REQUEST = 60;
inline constexpr int PTAP_TYPE_EXTENDED_REPLY = 61;

// Tags of elements, as the terminal sends them and as it reads them from the PBX.
enum PtapTag : std::uint8_t {
  PTAP_TAG_CAPABILITIES = 0x01,
  PTAP_TAG_VERSION = 0x02,
  PTAP_TAG_TERMINAL_IDENTITY = 0x05,
  PTAP_TAG_IP = 0x06,
  PTAP_TAG_MAC = 0x07,
  PTAP_TAG_PARAM_0F = 0x0F,
  PTAP_TAG_MGCP_PBX_PORT = 0x10,
  PTAP_TAG_MGCP_LOCAL_PORT = 0x11,
  PTAP_TAG_PARAM_18 = 0x18,
  PTAP_TAG_PARAM_19 = 0x19,
  PTAP_TAG_KEEPALIVE_TIMEOUT = 0x1A,
  PTAP_TAG_PARAM_1B = 0x1B,
  PTAP_TAG_PARAM_1C = 0x1C,
  PTAP_TAG_PARAM_1D = 0x1D,
  PTAP_TAG_PARAM_1E = 0x1E,
  PTAP_TAG_RESULT = 0x20,
  PTAP_TAG_PARAM_21 = 0x21,
  PTAP_TAG_EXTENDED_RESPONSE = 0x22,
  PTAP_TAG_PARAM_23 = 0x23,
  PTAP_TAG_PARAM_24 = 0x24,
  PTAP_TAG_PARAM_25 = 0x25,
  PTAP_TAG_PARAM_26 = 0x26,
  PTAP_TAG_VALUE_5A = 0x5A,
  PTAP_TAG_EXTENDED_REPLY = 0x5B,
  PTAP_TAG_PTAP_PUNCH = 0xA1,
  PTAP_TAG_MGCP_PUNCH = 0xA2,
  PTAP_TAG_RTP_PUNCH = 0xA3,
};

// One element of a received payload. The value is not copied: it is `length` bytes of the
// packet's payload from `offset`, read through PtapPacket::Value.
struct PtapElement {
  std::uint8_t tag = 0;
  std::uint16_t length = 0;
  std::uint16_t offset = 0;
};

struct PtapPacket {
  std::array<char, 4> magic{};
  std::uint32_t tid = 0;  // the number; on the wire it is big-endian
  std::uint8_t type = 0;
  std::vector<std::uint8_t> payload;
  bool resend = false;  // true only while the retransmission list sends it again
  std::vector<PtapElement> elements;

  std::size_t payload_length() const { return payload.size(); }
  std::size_t header_length() const { return kPtapHeaderLength; }
  // The value bytes of an element of this packet.
  std::span<const std::uint8_t> Value(const PtapElement& element) const;
};

// What the terminal says about itself in what it sends.
struct PtapTerminalData {
  std::uint8_t start_code = 0;
  std::array<std::uint8_t, 12> terminal_identity{};
  std::array<std::uint8_t, 6> mac_address{};
  std::uint32_t local_ip = 0;  // host order; sent big-endian
  std::uint8_t start_mode = 0;  // 1 extended, anything else acts as basic for the tables
};

// The capability descriptor and version pair of START, fixed per start mode.
std::span<const std::uint8_t> PtapCapabilities(bool extended);
std::span<const std::uint8_t> PtapVersionPair(bool extended);

// Writes the body (elements and end mark) of a packet of `type` into `payload`. False, with
// `payload` empty, for a type the terminal does not send, or for an error report whose code
// is missing (`data` null or `count` 0). `data`/`count` are read only for the error report.
bool BuildPtapBody(int type, const PtapTerminalData& terminal, const std::uint8_t* data,
                   std::size_t count, std::vector<std::uint8_t>& payload);

// The datagram of `packet`: the 9 header bytes, then the payload. Returns the bytes written,
// or 0 if `out` is too small.
std::size_t EncodePtapDatagram(const PtapPacket& packet, std::span<std::uint8_t> out);

// Reads one received datagram into a packet and walks its elements. Null for 9 bytes or
// fewer: such a datagram is dropped whatever its header says.
std::unique_ptr<PtapPacket> DecodePtapDatagram(std::span<const std::uint8_t> datagram);

// The element walk: from offset 0 up to the end mark or the end of the payload. A tag or
// length field cut by the end, or a value that runs past it, stops the walk; the elements
// before it stay. Returns the number of elements found.
std::size_t ParsePtapElements(PtapPacket& packet);

// The header test's first step: "PTAP" and a zero top byte of the tid.
bool HasPtapHeader(const PtapPacket& packet);

// Result codes of element 0x20: 100..103 -> 200, 200 -> 201, 201 -> 202, 202 -> 203, others 0.
int MapPtapResultCode(std::uint8_t code);
// The PBX class of the extended response's second value.
int MapPbxClass(std::uint16_t delivered);

}  // namespace deskline
