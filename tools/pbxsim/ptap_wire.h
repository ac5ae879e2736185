// The PBX's own reading and writing of PTAP datagrams. It shares nothing with the terminal's
// codec on purpose: a fault in the terminal's encoder then shows up here as a wrong byte
// instead of being mirrored by the same code on both ends.
//
// Datagram: "PTAP", a 4-byte big-endian tid, a type byte, then elements (tag, 2-byte
// big-endian length, value) closed by the end mark 0xFF, which has no length.
//
// Thread rules: plain functions over caller-owned bytes; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace deskline::sim {

// Packet types.
inline constexpr std::uint8_t kTypeAck = 0x00;
inline constexpr std::uint8_t kTypeCompulsionRestart = 0x03;
inline constexpr std::uint8_t kTypeStart = 0x04;
inline constexpr std::uint8_t kTypeOpBegin = 0x0F;
inline constexpr std::uint8_t kTypeKeepalive = 0x10;
inline constexpr std::uint8_t kTypeErrorReport = 0x14;
inline constexpr std::uint8_t kTypeEvent = 0x15;
inline constexpr std::uint8_t kTypeExtendedRequest = 0x3C;
inline constexpr std::uint8_t kTypeExtendedReply = 0x3D;

// Element tags.
inline constexpr std::uint8_t kTagCapabilities = 0x01;
inline constexpr std::uint8_t kTagVersion = 0x02;
inline constexpr std::uint8_t kTagIdentity = 0x05;
inline constexpr std::uint8_t kTagIp = 0x06;
inline constexpr std::uint8_t kTagMac = 0x07;
inline constexpr std::uint8_t kTagParam0F = 0x0F;
inline constexpr std::uint8_t kTagMgcpPbxPort = 0x10;
inline constexpr std::uint8_t kTagMgcpTerminalPort = 0x11;
inline constexpr std::uint8_t kTagParam18 = 0x18;
inline constexpr std::uint8_t kTagParam19 = 0x19;
inline constexpr std::uint8_t kTagKeepaliveTimeout = 0x1A;
inline constexpr std::uint8_t kTagParam1B = 0x1B;
inline constexpr std::uint8_t kTagParam1C = 0x1C;
inline constexpr std::uint8_t kTagParam1D = 0x1D;
inline constexpr std::uint8_t kTagParam1E = 0x1E;
inline constexpr std::uint8_t kTagResult = 0x20;
inline constexpr std::uint8_t kTagParamList = 0x21;
inline constexpr std::uint8_t kTagExtendedResponse = 0x22;
inline constexpr std::uint8_t kTagParam24 = 0x24;
inline constexpr std::uint8_t kTagParam25 = 0x25;
inline constexpr std::uint8_t kTagParam26 = 0x26;
inline constexpr std::uint8_t kTagExtendedReplyData = 0x5B;
inline constexpr std::uint8_t kTagPtapPunch = 0xA1;
inline constexpr std::uint8_t kTagMgcpPunch = 0xA2;
inline constexpr std::uint8_t kTagRtpPunch = 0xA3;
inline constexpr std::uint8_t kEndMark = 0xFF;

inline constexpr std::size_t kHeaderBytes = 9;
// What the terminal reads at most; the simulator can still send longer datagrams on purpose.
inline constexpr std::size_t kMaxDatagramBytes = 1500;
inline constexpr std::size_t kMaxElementValue = 0xFFFF;

struct WireElement {
  std::uint8_t tag = 0;
  std::vector<std::byte> value;
  friend bool operator==(const WireElement&, const WireElement&) = default;
};

// Element makers: one byte, a big-endian 16-bit number, or the bytes as given.
WireElement ByteElement(std::uint8_t tag, std::uint8_t value);
WireElement U16Element(std::uint8_t tag, std::uint16_t value);
WireElement BytesElement(std::uint8_t tag, std::span<const std::uint8_t> value);

enum class DecodeStatus {
  kOk,
  kTooShort,          // fewer than 9 bytes: not even a header
  kBadMagic,          // the first four bytes are not "PTAP"
  kNoPayload,         // a header alone; a payload has at least the end mark
  kTruncatedElement,  // an element's tag is there but its 2-byte length is not
  kElementPastEnd,    // an element's length runs past the end of the datagram
  kNoEndMark,         // the elements run to the end without the end mark
  kTrailingBytes,     // bytes follow the end mark
};

// A short name for traces and test messages, such as "element past end".
const char* DecodeStatusName(DecodeStatus status);

struct PtapDatagram {
  DecodeStatus status = DecodeStatus::kTooShort;
  bool has_header = false;  // 9 bytes or more: tid and type were read (even with bad magic)
  std::uint32_t tid = 0;    // host order
  std::uint8_t type = 0;
  std::vector<WireElement> elements;  // those read before any fault
  bool ok() const { return status == DecodeStatus::kOk; }
  // The first element with `tag`, or null.
  const WireElement* Find(std::uint8_t tag) const;
};

// Reads one datagram. Never reads past `datagram`; every fault is a status, not a crash.
PtapDatagram DecodePtap(std::span<const std::byte> datagram);

// The type byte of a datagram that starts with a PTAP header ("PTAP", tid, type), else
// nullopt: what network rules and counts go by, whatever the payload holds.
std::optional<std::uint8_t> PtapType(std::span<const std::byte> datagram);

// Header, the elements in order, the end mark. Empty (never a valid datagram) if a value is
// longer than 65535 bytes, since its length would not fit.
std::vector<std::byte> EncodePtap(std::uint32_t tid, std::uint8_t type,
                                  std::span<const WireElement> elements);
// Header followed by `payload` exactly as given (no end mark added), for events and for
// deliberately malformed packets.
std::vector<std::byte> EncodePtapRaw(std::uint32_t tid, std::uint8_t type,
                                     std::span<const std::byte> payload);

// Readable name of a type ("START", "ACK", ...), or "TYPE_<n>" for others.
std::string TypeName(std::uint8_t type);

}  // namespace deskline::sim
