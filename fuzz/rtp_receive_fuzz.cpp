// Random datagrams through the RTP receive path, and every packet it accepts decoded and put
// into the voice buffer at its own sequence number, with pulls in between.
//
// Input: byte 0 picks the stream's payload type. Then records of
//   [flags] [length, 2 bytes big-endian] [datagram, cut to the bytes that remain]
// where flag bit 0 pulls from the buffer after the datagram, and bits 1-7 are the arrival
// step in ms. The whole input is also checked once as a single datagram.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "codec/codec_lib.h"
#include "voice/buffer.h"
#include "voice/g711.h"
#include "voice/rtp.h"

namespace {

using namespace deskline;

constexpr std::uint32_t kTypes[] = {kRtpPayloadPcmu, kRtpPayloadPcma, kRtpPayloadG722,
                                    kRtpPayloadG729, 96};

void Require(bool condition) {
  if (!condition) std::abort();
}

// One frame of the stream's codec from an accepted payload, as the session decodes it.
bool DecodeFrame(std::uint32_t type, std::span<const std::uint8_t> payload, CodecHandle* decoder,
                 std::int16_t (&frame)[160]) {
  static const CG711 g711;
  Require(payload.size() >= RtpFramePayloadBytes(type));
  switch (type) {
    case kRtpPayloadPcmu:
      g711.DecodeUlaw(payload.first<160>(), frame);
      return true;
    case kRtpPayloadPcma:
      g711.DecodeAlaw(payload.first<160>(), frame, 3);
      return true;
    case kRtpPayloadG722:
      for (std::int16_t& s : frame) s = -3856;
      return true;
    case kRtpPayloadG729: {
      std::uint32_t in = 20;
      std::uint32_t out = 160;
      codecLibDecode(decoder, payload.data(), &in, frame, &out, nullptr, 0);
      Require(out <= 160);
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  {
    // An exact-size copy, so that a read past the end is caught.
    const std::vector<std::uint8_t> whole(data, data + size);
    RtpHeaderView view;
    if (CheckRtpDatagram(whole, &view) == RtpReject::kNone) {
      Require(view.payload_length > 0);
      Require(view.payload_offset + view.payload_length == view.length);
      Require(view.length <= size);
    }
  }
  if (size < 1) return 0;
  const std::uint32_t type = kTypes[data[0] % (sizeof(kTypes) / sizeof(kTypes[0]))];

  CRtp rtp(1);
  if (rtp.Start() != 0 || rtp.rtp_set_payload_type(type) != 0) return 0;
  // Made at the first accepted packet: the buffer's slot table is large, and most inputs
  // never get that far.
  // One buffer for the whole run, emptied per input: its slot table is large, and making it
  // afresh for every input would leave the fuzzer a few runs a second.
  static CBuffer* const shared_buffer = [] {
    auto* b = new CBuffer();
    return b->Start() == 0 ? b : nullptr;
  }();
  if (shared_buffer == nullptr) return 0;
  shared_buffer->Reset();
  CBuffer* buffer = nullptr;
  CodecHandle* decoder = nullptr;

  RtpPacket packet;
  std::int16_t out[CBuffer::kMaxOutputBytes / 2];
  std::uint32_t arrival = 0;
  std::size_t at = 1;
  while (at + 3 <= size) {
    const std::uint8_t flags = data[at];
    const std::size_t wanted = (std::size_t{data[at + 1]} << 8) | data[at + 2];
    at += 3;
    const std::size_t length = std::min(wanted, size - at);
    const std::vector<std::uint8_t> datagram(data + at, data + at + length);
    at += length;
    arrival += flags >> 1;

    std::int32_t received = 0;
    if (rtp.ReceiveDatagram(datagram, &packet, &received) == 0) {
      Require(received > 0 && static_cast<std::size_t>(received) <= length);
      Require(!packet.payload().empty());
      if (!buffer) {
        buffer = shared_buffer;
        if (type == kRtpPayloadG729 && codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0) != 0) {
          break;
        }
      }
      std::int16_t frame[160];
      if (DecodeFrame(type, packet.payload(), decoder, frame)) {
        const std::int32_t seq = packet.header().sequence;
        const std::uint32_t timestamp = packet.header().timestamp;
        const std::uint32_t frame_bytes = CBuffer::kFrameBytes;
        buffer->PutFrame(frame, &seq, &timestamp, &frame_bytes, nullptr, arrival);
      }
    }
    if ((flags & 1) && buffer) {
      std::uint32_t got = 0;
      buffer->GetFrames(out, &got);
      Require(got <= sizeof(out));
    }
  }
  if (decoder) codecLibClose(decoder, 0);
  return 0;
}
