#include "ptap/ptap_packet.h"

#include <algorithm>
#include <cstring>

namespace deskline {
namespace {

// Capability descriptors: a lead byte, then items of a count byte and that many bytes.
constexpr std::uint8_t kBasicCapabilities[] = {
    0x01,                                      // lead
    0x04, 0x00, 0x06, 0x18, 0x00,              //
    0x02, 0x02, 0x18,                          //
    0x04, 0x03, 0xFE, 0xDF, 0xE0,              //
    0x02, 0x04, 0x04,                          //
    0x01, 0x21, 0x01, 0x22, 0x01, 0x23,        //
    0x02, 0x24, 0x04, 0x02, 0x25, 0x04,        //
    0x02, 0x26, 0x0C, 0x02, 0x27, 0x05,        //
    0x01, 0x28, 0x01, 0x29,                    //
    0x04, 0x30, 0xC8, 0x00, 0x00,              //
    0x04, 0x86, 0x40, 0x00, 0x00,              //
};
static_assert(sizeof(kBasicCapabilities) == 49);

constexpr std::uint8_t kExtendedCapabilities[] = {
    0x03,                                      // lead
    0x04, 0x00, 0x06, 0x18, 0x00,              //
    0x02, 0x02, 0x0C,                          //
    0x04, 0x03, 0xFE, 0xDF, 0xE2,              //
    0x02, 0x04, 0x04,                          //
    0x04, 0x05, 0x0C, 0x0C, 0x00,              //
    0x03, 0x07, 0x30, 0x04,                    //
    0x04, 0x08, 0xCF, 0x00, 0x00,              //
    0x01, 0x21, 0x01, 0x23,                    //
    0x02, 0x24, 0x04, 0x02, 0x25, 0x04,        //
    0x02, 0x26, 0x0C, 0x02, 0x27, 0x05,        //
    0x01, 0x28, 0x01, 0x29,                    //
    0x04, 0x30, 0xC8, 0x00, 0x00,              //
    0x02, 0x31, 0x04,                          //
    0x04, 0x42, 0x00, 0x00, 0x00,              //
    0x02, 0x50, 0x01,                          //
    0x04, 0x81, 0x01, 0x00, 0x00,              //
    0x01, 0x82, 0x01, 0x83, 0x01, 0x84,        //
    0x04, 0x86, 0x40, 0x00, 0x00,              //
};
static_assert(sizeof(kExtendedCapabilities) == 83);

constexpr std::uint8_t kBasicVersion[] = {0x01, 0x01};
constexpr std::uint8_t kExtendedVersion[] = {0x03, 0x12};

void PutElement(std::vector<std::uint8_t>& out, std::uint8_t tag,
                std::span<const std::uint8_t> value) {
  out.push_back(tag);
  out.push_back(static_cast<std::uint8_t>(value.size() >> 8));
  out.push_back(static_cast<std::uint8_t>(value.size() & 0xFF));
  out.insert(out.end(), value.begin(), value.end());
}

void PutByteElement(std::vector<std::uint8_t>& out, std::uint8_t tag, std::uint8_t value) {
  PutElement(out, tag, std::span<const std::uint8_t>(&value, 1));
}

}  // namespace

std::span<const std::uint8_t> PtapPacket::Value(const PtapElement& element) const {
  // Elements come from the walk, which keeps every value inside the payload; the clamp only
  // guards an element that was not made from this packet.
  if (element.offset >= payload.size()) return {};
  const std::size_t length = std::min<std::size_t>(element.length, payload.size() - element.offset);
  return std::span<const std::uint8_t>(payload.data() + element.offset, length);
}

std::span<const std::uint8_t> PtapCapabilities(bool extended) {
  if (extended) return kExtendedCapabilities;
  return kBasicCapabilities;
}

std::span<const std::uint8_t> PtapVersionPair(bool extended) {
  if (extended) return kExtendedVersion;
  return kBasicVersion;
}

bool BuildPtapBody(int type, const PtapTerminalData& terminal, const std::uint8_t* data,
                   std::size_t count, std::vector<std::uint8_t>& payload) {
  payload.clear();
  const std::span<const std::uint8_t> mac(terminal.mac_address);
  switch (type) {
    case PTAP_TYPE_ACK:
      PutByteElement(payload, PTAP_TAG_RESULT, 0x00);
      PutElement(payload, PTAP_TAG_MAC, mac);
      break;
    case PTAP_TYPE_START: {
      const bool extended = terminal.start_mode == 1;
      const std::uint8_t ip[4] = {static_cast<std::uint8_t>(terminal.local_ip >> 24),
                                  static_cast<std::uint8_t>(terminal.local_ip >> 16),
                                  static_cast<std::uint8_t>(terminal.local_ip >> 8),
                                  static_cast<std::uint8_t>(terminal.local_ip)};
      PutByteElement(payload, PTAP_TAG_RESULT, terminal.start_code);
      PutElement(payload, PTAP_TAG_CAPABILITIES, PtapCapabilities(extended));
      PutElement(payload, PTAP_TAG_VERSION, PtapVersionPair(extended));
      PutElement(payload, PTAP_TAG_TERMINAL_IDENTITY, terminal.terminal_identity);
      PutElement(payload, PTAP_TAG_MAC, mac);
      PutElement(payload, PTAP_TAG_IP, ip);
      break;
    }
    case PTAP_TYPE_OP_BEGIN:
      PutElement(payload, PTAP_TAG_MAC, mac);
      break;
    case PTAP_TYPE_ERROR_REPORT:
      if (data == nullptr || count == 0) return false;
      PutByteElement(payload, PTAP_TAG_RESULT, data[0]);
      PutElement(payload, PTAP_TAG_MAC, mac);
      break;
    case PTAP_TYPE_EXTENDED_REPLY: {
      const std::uint8_t filler[5] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
      PutElement(payload, PTAP_TAG_EXTENDED_REPLY, filler);
      PutElement(payload, PTAP_TAG_MAC, mac);
      break;
    }
    default:
      return false;
  }
  payload.push_back(kPtapEndMark);
  return true;
}

std::size_t EncodePtapDatagram(const PtapPacket& packet, std::span<std::uint8_t> out) {
  const std::size_t total = kPtapHeaderLength + packet.payload.size();
  if (out.size() < total) return 0;
  std::memcpy(out.data(), packet.magic.data(), 4);
  out[4] = static_cast<std::uint8_t>(packet.tid >> 24);
  out[5] = static_cast<std::uint8_t>(packet.tid >> 16);
  out[6] = static_cast<std::uint8_t>(packet.tid >> 8);
  out[7] = static_cast<std::uint8_t>(packet.tid);
  out[8] = packet.type;
  if (!packet.payload.empty()) {
    std::memcpy(out.data() + kPtapHeaderLength, packet.payload.data(), packet.payload.size());
  }
  return total;
}

std::unique_ptr<PtapPacket> DecodePtapDatagram(std::span<const std::uint8_t> datagram) {
  if (datagram.size() <= kPtapHeaderLength) return nullptr;
  auto packet = std::make_unique<PtapPacket>();
  std::memcpy(packet->magic.data(), datagram.data(), 4);
  packet->tid = (std::uint32_t{datagram[4]} << 24) | (std::uint32_t{datagram[5]} << 16) |
                (std::uint32_t{datagram[6]} << 8) | std::uint32_t{datagram[7]};
  packet->type = datagram[8];
  packet->payload.assign(datagram.begin() + kPtapHeaderLength, datagram.end());
  ParsePtapElements(*packet);
  return packet;
}

std::size_t ParsePtapElements(PtapPacket& packet) {
  packet.elements.clear();
  const std::vector<std::uint8_t>& p = packet.payload;
  // Offsets are kept in 16 bits; a payload never exceeds one datagram.
  const std::size_t end = std::min<std::size_t>(p.size(), 0xFFFF);
  std::size_t offset = 0;
  while (offset < end && p[offset] != kPtapEndMark) {
    if (end - offset < 3) break;  // tag and length cut by the end
    const std::size_t length = (std::size_t{p[offset + 1]} << 8) | p[offset + 2];
    const std::size_t value_at = offset + 3;
    if (length > end - value_at) break;  // the value would run past the payload
    PtapElement element;
    element.tag = p[offset];
    element.length = static_cast<std::uint16_t>(length);
    element.offset = static_cast<std::uint16_t>(value_at);
    packet.elements.push_back(element);
    offset = value_at + length;
  }
  return packet.elements.size();
}

bool HasPtapHeader(const PtapPacket& packet) {
  return std::memcmp(packet.magic.data(), "PTAP", 4) == 0 && (packet.tid >> 24) == 0;
}

int MapPtapResultCode(std::uint8_t code) {
  switch (code) {
    case 100:
    case 101:
    case 102:
    case 103:
      return 200;
    case 200:
      return 201;
    case 201:
      return 202;
    case 202:
      return 203;
    default:
      return 0;
  }
}

int MapPbxClass(std::uint16_t delivered) {
  switch (delivered) {
    case 0: case 9: case 10: case 12: case 29:
      return 3;
    case 1: case 4: case 5: case 22:
      return 2;
    case 2: case 3:
      return 1;
    case 8:
      return 4;
    default:
      // 6, 7, 11, 13..21, 23..28, 30 and 31 are class 8; anything above 31 is class 1.
      return delivered > 31 ? 1 : 8;
  }
}

}  // namespace deskline
