#include "codec/g729_codec.h"

#include <new>

// The library's headers are plain C without linkage markers.
extern "C" {
#include <bcg729/decoder.h>
#include <bcg729/encoder.h>
}

namespace deskline {

// One of the two contexts, by direction.
struct G729Codec::Library {
  bcg729EncoderChannelContextStruct* encoder = nullptr;
  bcg729DecoderChannelContextStruct* decoder = nullptr;
};

std::unique_ptr<G729Codec> G729Codec::Make(std::int32_t direction) {
  if (direction != kEncoder && direction != kDecoder) return nullptr;
  auto* library = new (std::nothrow) Library();
  if (!library) return nullptr;
  if (direction == kEncoder) {
    library->encoder = initBcg729EncoderChannel(0);  // VAD off: no SID frames, ever
  } else {
    library->decoder = initBcg729DecoderChannel();
  }
  if (!library->encoder && !library->decoder) {
    delete library;
    return nullptr;
  }
  std::unique_ptr<G729Codec> codec(new (std::nothrow) G729Codec(direction, library));
  if (!codec) {
    if (library->encoder) closeBcg729EncoderChannel(library->encoder);
    if (library->decoder) closeBcg729DecoderChannel(library->decoder);
    delete library;
  }
  return codec;
}

G729Codec::G729Codec(std::int32_t direction, Library* library)
    : direction_(direction), library_(library) {}

G729Codec::~G729Codec() {
  if (library_->encoder) closeBcg729EncoderChannel(library_->encoder);
  if (library_->decoder) closeBcg729DecoderChannel(library_->decoder);
  delete library_;
}

int G729Codec::Encode(std::span<const std::int16_t, kFrameSamples> in,
                      std::span<std::uint8_t, kFrameBytes> out) {
  if (!library_->encoder) return 1;
  std::uint8_t length = 0;
  bcg729Encoder(library_->encoder, in.data(), out.data(), &length);
  // With VAD off the library always gives a whole voice frame.
  return length == kFrameBytes ? 0 : 1;
}

int G729Codec::Decode(std::span<const std::uint8_t, kFrameBytes> in,
                      std::span<std::int16_t, kFrameSamples> out) {
  if (!library_->decoder) return 1;
  bcg729Decoder(library_->decoder, in.data(), static_cast<std::uint8_t>(kFrameBytes),
                /*frameErasureFlag=*/0, /*SIDFrameFlag=*/0, /*rfc3389PayloadFlag=*/0, out.data());
  return 0;
}

}  // namespace deskline
