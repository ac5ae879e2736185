#include "tools/pbxsim/ptap_wire.h"

#include <cstdio>

namespace deskline::sim {
namespace {

constexpr std::uint8_t kMagic[4] = {'P', 'T', 'A', 'P'};

std::uint8_t At(std::span<const std::byte> bytes, std::size_t index) {
  return static_cast<std::uint8_t>(bytes[index]);
}

void PutHeader(std::vector<std::byte>& out, std::uint32_t tid, std::uint8_t type) {
  for (std::uint8_t m : kMagic) out.push_back(std::byte{m});
  out.push_back(static_cast<std::byte>(tid >> 24));
  out.push_back(static_cast<std::byte>(tid >> 16));
  out.push_back(static_cast<std::byte>(tid >> 8));
  out.push_back(static_cast<std::byte>(tid));
  out.push_back(static_cast<std::byte>(type));
}

}  // namespace

WireElement ByteElement(std::uint8_t tag, std::uint8_t value) {
  return WireElement{tag, {std::byte{value}}};
}

WireElement U16Element(std::uint8_t tag, std::uint16_t value) {
  return WireElement{tag, {static_cast<std::byte>(value >> 8), static_cast<std::byte>(value)}};
}

WireElement BytesElement(std::uint8_t tag, std::span<const std::uint8_t> value) {
  WireElement element{tag, {}};
  element.value.reserve(value.size());
  for (std::uint8_t b : value) element.value.push_back(std::byte{b});
  return element;
}

const char* DecodeStatusName(DecodeStatus status) {
  switch (status) {
    case DecodeStatus::kOk:
      return "ok";
    case DecodeStatus::kTooShort:
      return "too short";
    case DecodeStatus::kBadMagic:
      return "bad magic";
    case DecodeStatus::kNoPayload:
      return "no payload";
    case DecodeStatus::kTruncatedElement:
      return "truncated element";
    case DecodeStatus::kElementPastEnd:
      return "element past end";
    case DecodeStatus::kNoEndMark:
      return "no end mark";
    case DecodeStatus::kTrailingBytes:
      return "bytes after end mark";
  }
  return "unknown";
}

const WireElement* PtapDatagram::Find(std::uint8_t tag) const {
  for (const WireElement& element : elements) {
    if (element.tag == tag) return &element;
  }
  return nullptr;
}

PtapDatagram DecodePtap(std::span<const std::byte> datagram) {
  PtapDatagram out;
  if (datagram.size() < kHeaderBytes) {
    out.status = DecodeStatus::kTooShort;
    return out;
  }
  out.has_header = true;
  out.tid = (std::uint32_t{At(datagram, 4)} << 24) | (std::uint32_t{At(datagram, 5)} << 16) |
            (std::uint32_t{At(datagram, 6)} << 8) | std::uint32_t{At(datagram, 7)};
  out.type = At(datagram, 8);
  for (std::size_t i = 0; i < 4; ++i) {
    if (At(datagram, i) != kMagic[i]) {
      out.status = DecodeStatus::kBadMagic;
      return out;
    }
  }
  if (datagram.size() == kHeaderBytes) {
    out.status = DecodeStatus::kNoPayload;
    return out;
  }

  std::size_t pos = kHeaderBytes;
  const std::size_t end = datagram.size();
  while (pos < end) {
    const std::uint8_t tag = At(datagram, pos);
    if (tag == kEndMark) {
      out.status = pos + 1 == end ? DecodeStatus::kOk : DecodeStatus::kTrailingBytes;
      return out;
    }
    if (end - pos < 3) {
      out.status = DecodeStatus::kTruncatedElement;
      return out;
    }
    const std::size_t length =
        (std::size_t{At(datagram, pos + 1)} << 8) | std::size_t{At(datagram, pos + 2)};
    pos += 3;
    if (length > end - pos) {
      out.status = DecodeStatus::kElementPastEnd;
      return out;
    }
    WireElement element{tag, {}};
    element.value.assign(datagram.begin() + static_cast<std::ptrdiff_t>(pos),
                         datagram.begin() + static_cast<std::ptrdiff_t>(pos + length));
    out.elements.push_back(std::move(element));
    pos += length;
  }
  out.status = DecodeStatus::kNoEndMark;
  return out;
}

std::optional<std::uint8_t> PtapType(std::span<const std::byte> datagram) {
  if (datagram.size() < kHeaderBytes) return std::nullopt;
  for (std::size_t i = 0; i < 4; ++i) {
    if (At(datagram, i) != kMagic[i]) return std::nullopt;
  }
  return At(datagram, 8);
}

std::vector<std::byte> EncodePtap(std::uint32_t tid, std::uint8_t type,
                                  std::span<const WireElement> elements) {
  std::size_t size = kHeaderBytes + 1;
  for (const WireElement& element : elements) {
    if (element.value.size() > kMaxElementValue) return {};
    size += 3 + element.value.size();
  }
  std::vector<std::byte> out;
  out.reserve(size);
  PutHeader(out, tid, type);
  for (const WireElement& element : elements) {
    const std::size_t length = element.value.size();
    out.push_back(std::byte{element.tag});
    out.push_back(static_cast<std::byte>(length >> 8));
    out.push_back(static_cast<std::byte>(length));
    out.insert(out.end(), element.value.begin(), element.value.end());
  }
  out.push_back(std::byte{kEndMark});
  return out;
}

std::vector<std::byte> EncodePtapRaw(std::uint32_t tid, std::uint8_t type,
                                     std::span<const std::byte> payload) {
  std::vector<std::byte> out;
  out.reserve(kHeaderBytes + payload.size());
  PutHeader(out, tid, type);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

std::string TypeName(std::uint8_t type) {
  switch (type) {
    case kTypeAck:
      return "ACK";
    case kTypeCompulsionRestart:
      return "COMPULSION_RESTART";
    case kTypeStart:
      return "START";
    case kTypeOpBegin:
      return "OP_BEGIN";
    case kTypeKeepalive:
      return "KEEPALIVE";
    case kTypeErrorReport:
      return "ERROR_REPORT";
    case kTypeEvent:
      return "EVENT";
    case kTypeExtendedRequest:
      return "EXTENDED_REQUEST";
    case kTypeExtendedReply:
      return "EXTENDED_REPLY";
    default:
      break;
  }
  char name[16];
  std::snprintf(name, sizeof(name), "TYPE_%u", static_cast<unsigned>(type));
  return name;
}

}  // namespace deskline::sim
