#include "tools/rtppeer/peer_rtp_wire.h"

namespace deskline::sim {
namespace {

std::uint8_t At(std::span<const std::byte> d, std::size_t i) { return std::to_integer<std::uint8_t>(d[i]); }

std::uint16_t Be16(std::span<const std::byte> d, std::size_t i) {
  return static_cast<std::uint16_t>((At(d, i) << 8) | At(d, i + 1));
}

std::uint32_t Be32(std::span<const std::byte> d, std::size_t i) {
  return (static_cast<std::uint32_t>(At(d, i)) << 24) | (static_cast<std::uint32_t>(At(d, i + 1)) << 16) |
         (static_cast<std::uint32_t>(At(d, i + 2)) << 8) | At(d, i + 3);
}

void PutBe32(std::vector<std::byte>& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::byte>((v >> shift) & 0xFF));
}

}  // namespace

std::vector<std::byte> BuildRtp(const RtpHeader& header, std::span<const std::byte> payload) {
  std::vector<std::byte> out;
  out.reserve(kRtpHeaderBytes + payload.size());
  out.push_back(std::byte{0x80});
  out.push_back(static_cast<std::byte>((header.marker ? 0x80 : 0x00) | (header.payload_type & 0x7F)));
  out.push_back(static_cast<std::byte>(header.sequence >> 8));
  out.push_back(static_cast<std::byte>(header.sequence & 0xFF));
  PutBe32(out, header.timestamp);
  PutBe32(out, header.ssrc);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

ParsedRtp ParseRtp(std::span<const std::byte> d) {
  ParsedRtp r;
  if (d.size() < kRtpHeaderBytes) {
    r.error = RtpParseError::kShort;
    return r;
  }
  const std::uint8_t b0 = At(d, 0);
  const std::uint8_t b1 = At(d, 1);
  r.header.version = static_cast<std::uint8_t>(b0 >> 6);
  r.header.padding = (b0 & 0x20) != 0;
  r.header.extension = (b0 & 0x10) != 0;
  r.header.csrc_count = static_cast<std::uint8_t>(b0 & 0x0F);
  r.header.marker = (b1 & 0x80) != 0;
  r.header.payload_type = static_cast<std::uint8_t>(b1 & 0x7F);
  r.header.sequence = Be16(d, 2);
  r.header.timestamp = Be32(d, 4);
  r.header.ssrc = Be32(d, 8);
  if (r.header.version != 2) {
    r.error = RtpParseError::kVersion;
    return r;
  }
  std::size_t offset = kRtpHeaderBytes + 4u * r.header.csrc_count;
  if (offset > d.size()) {
    r.error = RtpParseError::kCsrcTruncated;
    return r;
  }
  if (r.header.extension) {
    if (d.size() - offset < 4) {
      r.error = RtpParseError::kExtensionTruncated;
      return r;
    }
    const std::size_t words = Be16(d, offset + 2);
    if (d.size() - offset - 4 < 4 * words) {
      r.error = RtpParseError::kExtensionTruncated;
      return r;
    }
    offset += 4 + 4 * words;
  }
  std::size_t size = d.size() - offset;
  if (r.header.padding) {
    // The count includes its own octet, so 0 is malformed.
    const std::size_t pad = size == 0 ? 0 : At(d, d.size() - 1);
    if (pad == 0 || pad > size) {
      r.error = RtpParseError::kBadPadding;
      return r;
    }
    size -= pad;
  }
  r.payload_offset = offset;
  r.payload_size = size;
  return r;
}

const char* RtpParseErrorText(RtpParseError error) {
  switch (error) {
    case RtpParseError::kNone: return "ok";
    case RtpParseError::kShort: return "shorter than the fixed header";
    case RtpParseError::kVersion: return "version is not 2";
    case RtpParseError::kCsrcTruncated: return "CSRC list truncated";
    case RtpParseError::kExtensionTruncated: return "header extension truncated";
    case RtpParseError::kBadPadding: return "bad padding count";
  }
  return "unknown";
}

}  // namespace deskline::sim
