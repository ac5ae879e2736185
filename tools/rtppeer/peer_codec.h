// The peer's voice codecs, one 20 ms frame of 160 samples at a time, by RTP payload type:
// 0 PCMU and 8 PCMA (peer_g711.h), 9 G.722 as this system signals it (160 bytes of 0xFA, no
// voice), 18 G.729 through bcg729 (two 10-byte frames a packet, VAD off).
//
// Thread rules: an encoder or decoder keeps codec state and belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace deskline::sim {

inline constexpr std::size_t kFrameSamples = 160;
inline constexpr std::uint8_t kPtPcmu = 0;
inline constexpr std::uint8_t kPtPcma = 8;
inline constexpr std::uint8_t kPtG722 = 9;
inline constexpr std::uint8_t kPtG729 = 18;
inline constexpr std::byte kG722Fill{0xFA};

bool IsSupportedPayloadType(std::uint8_t payload_type);
// Payload bytes of one frame: 160, or 20 for G.729; 0 for a type the peer does not know.
std::size_t PayloadBytesPerFrame(std::uint8_t payload_type);

class PeerEncoder {
 public:
  PeerEncoder();
  ~PeerEncoder();
  PeerEncoder(const PeerEncoder&) = delete;
  PeerEncoder& operator=(const PeerEncoder&) = delete;

  // Encodes one frame into `out` (replacing its contents). False for an unknown payload type
  // or when the G.729 encoder cannot be made; `out` is then empty.
  bool Encode(std::uint8_t payload_type, std::span<const std::int16_t, kFrameSamples> frame,
              std::vector<std::byte>& out);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

enum class DecodeOutcome {
  kDecoded,      // samples hold the sound of the payload
  kG722,         // nothing decoded; see g722_fill_ok
  kUnsupported,  // a payload type the peer does not decode
  kTruncated,    // decoded what whole frames there were; a rest was left (G.729)
};

struct DecodedPayload {
  DecodeOutcome outcome = DecodeOutcome::kUnsupported;
  std::vector<std::int16_t> samples;
  bool g722_fill_ok = false;  // G.722: exactly 160 bytes, all 0xFA
};

class PeerDecoder {
 public:
  PeerDecoder();
  ~PeerDecoder();
  PeerDecoder(const PeerDecoder&) = delete;
  PeerDecoder& operator=(const PeerDecoder&) = delete;

  // Decodes `payload` by `payload_type`. G.711 gives one sample a byte, whatever the length;
  // G.729 gives 80 samples for each whole 10-byte frame.
  DecodedPayload Decode(std::uint8_t payload_type, std::span<const std::byte> payload);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace deskline::sim
