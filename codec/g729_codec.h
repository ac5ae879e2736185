// G729Codec: ITU-T G.729 at 8 kbit/s for one direction, over bcg729. 10 ms frames of 80
// samples, 10 bytes a frame in the bit order of RFC 3551 (first bit in the top bit of the
// first byte). Voice activity detection is off, so every frame is a voice frame, silence
// included; the decoder is never told of erasures or SID frames, since loss is concealed
// after decoding, on linear sound.
//
// The state runs on through every frame for the object's whole life; nothing resets it.
//
// Thread rules: one thread uses an object (the encoder the host's, the decoder the receive
// thread's); objects share nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace deskline {

class G729Codec {
 public:
  static constexpr std::int32_t kEncoder = 0;
  static constexpr std::int32_t kDecoder = 1;
  static constexpr std::size_t kFrameSamples = 80;
  static constexpr std::size_t kFrameBytes = 10;

  // A new codec for `direction` (kEncoder or kDecoder) with its state set up, or null for
  // another direction or when the library cannot make one.
  static std::unique_ptr<G729Codec> Make(std::int32_t direction);
  ~G729Codec();  // frees the library's state
  G729Codec(const G729Codec&) = delete;
  G729Codec& operator=(const G729Codec&) = delete;

  // One frame of 80 samples into 10 bytes. 0, or 1 if this is a decoder.
  int Encode(std::span<const std::int16_t, kFrameSamples> in,
             std::span<std::uint8_t, kFrameBytes> out);
  // One 10-byte voice frame into 80 samples. 0, or 1 if this is an encoder.
  int Decode(std::span<const std::uint8_t, kFrameBytes> in,
             std::span<std::int16_t, kFrameSamples> out);

  std::int32_t direction() const { return direction_; }

 private:
  struct Library;
  G729Codec(std::int32_t direction, Library* library);

  const std::int32_t direction_;
  Library* const library_;  // the library's encoder or decoder context, owned
};

}  // namespace deskline
