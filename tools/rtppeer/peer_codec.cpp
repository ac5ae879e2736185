#include "tools/rtppeer/peer_codec.h"

#include <algorithm>

#include "tools/rtppeer/peer_g711.h"

extern "C" {
#include <bcg729/decoder.h>
#include <bcg729/encoder.h>
}

namespace deskline::sim {
namespace {

constexpr std::size_t kG729FrameBytes = 10;
constexpr std::size_t kG729FrameSamples = 80;

}  // namespace

bool IsSupportedPayloadType(std::uint8_t payload_type) {
  return PayloadBytesPerFrame(payload_type) != 0;
}

std::size_t PayloadBytesPerFrame(std::uint8_t payload_type) {
  switch (payload_type) {
    case kPtPcmu:
    case kPtPcma:
    case kPtG722: return kFrameSamples;
    case kPtG729: return 2 * kG729FrameBytes;
    default: return 0;
  }
}

struct PeerEncoder::Impl {
  bcg729EncoderChannelContextStruct* g729 = nullptr;
  ~Impl() {
    if (g729 != nullptr) closeBcg729EncoderChannel(g729);
  }
};

PeerEncoder::PeerEncoder() : impl_(std::make_unique<Impl>()) {}
PeerEncoder::~PeerEncoder() = default;

bool PeerEncoder::Encode(std::uint8_t payload_type, std::span<const std::int16_t, kFrameSamples> frame,
                         std::vector<std::byte>& out) {
  out.clear();
  switch (payload_type) {
    case kPtPcmu:
    case kPtPcma: {
      out.resize(kFrameSamples);
      auto* bytes = reinterpret_cast<std::uint8_t*>(out.data());
      if (payload_type == kPtPcmu) {
        UlawEncode(frame, std::span<std::uint8_t>(bytes, kFrameSamples));
      } else {
        AlawEncode(frame, std::span<std::uint8_t>(bytes, kFrameSamples));
      }
      return true;
    }
    case kPtG722:
      out.assign(kFrameSamples, kG722Fill);
      return true;
    case kPtG729: {
      if (impl_->g729 == nullptr) impl_->g729 = initBcg729EncoderChannel(0);
      if (impl_->g729 == nullptr) return false;
      out.resize(2 * kG729FrameBytes);
      for (std::size_t f = 0; f < 2; ++f) {
        std::uint8_t length = 0;
        bcg729Encoder(impl_->g729, frame.data() + f * kG729FrameSamples,
                      reinterpret_cast<std::uint8_t*>(out.data()) + f * kG729FrameBytes, &length);
        if (length != kG729FrameBytes) {
          out.clear();
          return false;
        }
      }
      return true;
    }
    default: return false;
  }
}

struct PeerDecoder::Impl {
  bcg729DecoderChannelContextStruct* g729 = nullptr;
  ~Impl() {
    if (g729 != nullptr) closeBcg729DecoderChannel(g729);
  }
};

PeerDecoder::PeerDecoder() : impl_(std::make_unique<Impl>()) {}
PeerDecoder::~PeerDecoder() = default;

DecodedPayload PeerDecoder::Decode(std::uint8_t payload_type, std::span<const std::byte> payload) {
  DecodedPayload r;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(payload.data());
  switch (payload_type) {
    case kPtPcmu:
    case kPtPcma:
      r.samples.resize(payload.size());
      if (payload_type == kPtPcmu) {
        UlawDecode({bytes, payload.size()}, r.samples);
      } else {
        AlawDecode({bytes, payload.size()}, r.samples);
      }
      r.outcome = DecodeOutcome::kDecoded;
      return r;
    case kPtG722:
      r.outcome = DecodeOutcome::kG722;
      r.g722_fill_ok = payload.size() == kFrameSamples &&
                       std::all_of(payload.begin(), payload.end(), [](std::byte b) { return b == kG722Fill; });
      return r;
    case kPtG729: {
      if (impl_->g729 == nullptr) impl_->g729 = initBcg729DecoderChannel();
      if (impl_->g729 == nullptr) return r;
      const std::size_t frames = payload.size() / kG729FrameBytes;
      r.samples.resize(frames * kG729FrameSamples);
      for (std::size_t f = 0; f < frames; ++f) {
        bcg729Decoder(impl_->g729, bytes + f * kG729FrameBytes, kG729FrameBytes, 0, 0, 0,
                      r.samples.data() + f * kG729FrameSamples);
      }
      // A rest (an SID frame, a cut packet) is not voice at 8 kbit/s: left undecoded.
      r.outcome = (payload.size() % kG729FrameBytes == 0) ? DecodeOutcome::kDecoded : DecodeOutcome::kTruncated;
      return r;
    }
    default: return r;
  }
}

}  // namespace deskline::sim
