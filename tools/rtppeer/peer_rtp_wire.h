// RTP (RFC 3550) datagrams as the peer writes and reads them: the 12-byte fixed header, and on
// reading also CSRC lists, a header extension and padding, each checked against the bytes
// that are really there.
//
// Thread rules: pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace deskline::sim {

inline constexpr std::size_t kRtpHeaderBytes = 12;

struct RtpHeader {
  std::uint8_t version = 2;
  bool padding = false;
  bool extension = false;
  std::uint8_t csrc_count = 0;
  bool marker = false;
  std::uint8_t payload_type = 0;  // 7 bits
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
};

// Writes V=2, no padding, extension or CSRC, then `payload`.
std::vector<std::byte> BuildRtp(const RtpHeader& header, std::span<const std::byte> payload);

enum class RtpParseError {
  kNone,
  kShort,          // fewer than 12 bytes
  kVersion,        // V is not 2
  kCsrcTruncated,  // the CSRC list runs past the end
  kExtensionTruncated,
  kBadPadding,  // a padding count of 0 or beyond the payload
};

struct ParsedRtp {
  RtpParseError error = RtpParseError::kNone;
  RtpHeader header;
  std::size_t payload_offset = 0;  // into the datagram
  std::size_t payload_size = 0;    // padding removed
  bool ok() const { return error == RtpParseError::kNone; }
};

// Decodes the header of `datagram`. The payload is datagram[payload_offset, +payload_size).
ParsedRtp ParseRtp(std::span<const std::byte> datagram);

const char* RtpParseErrorText(RtpParseError error);

}  // namespace deskline::sim
