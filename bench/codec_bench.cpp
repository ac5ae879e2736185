// The send path of one 20 ms frame for each payload type: encoding the 160 samples and
// building the RTP packet, without the socket. G.729 is also measured against bcg729 called
// alone on the same frames, in both directions, to show what the codec library adds.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

extern "C" {
#include <bcg729/decoder.h>
#include <bcg729/encoder.h>
}

#include "codec/codec_lib.h"
#include "voice/g711.h"
#include "voice/rtp.h"

namespace {

using namespace deskline;

constexpr int kFrames = 50;  // one second of sound, cycled

// One second of a voice-like signal: two tones under a slow envelope.
const std::vector<std::int16_t>& Sound() {
  static const std::vector<std::int16_t> sound = [] {
    std::vector<std::int16_t> s(160 * kFrames);
    for (std::size_t i = 0; i < s.size(); ++i) {
      const double t = i / 8000.0;
      const double envelope = 0.6 + 0.4 * std::sin(2 * M_PI * 3 * t);
      s[i] = static_cast<std::int16_t>(
          envelope * (7000 * std::sin(2 * M_PI * 310 * t) + 2500 * std::sin(2 * M_PI * 1870 * t)));
    }
    return s;
  }();
  return sound;
}

const std::int16_t* Frame(int n) { return Sound().data() + 160 * (n % kFrames); }

template <typename Encode>
void SendPath(benchmark::State& state, std::uint32_t type, std::size_t payload_bytes,
              Encode encode) {
  RtpPacket packet;
  packet.Resize(payload_bytes);
  RtpSendCounters counters;
  int n = 0;
  for (auto _ : state) {
    encode(Frame(n++), packet.payload());
    const auto datagram = packet.BuildDatagram(type, 0x12345678, counters, payload_bytes);
    benchmark::DoNotOptimize(datagram.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_SendPath_Pcmu(benchmark::State& state) {
  const CG711 g711;
  SendPath(state, kRtpPayloadPcmu, 160, [&](const std::int16_t* in, std::span<std::uint8_t> out) {
    g711.EncodeUlaw(out.first<160>(), std::span<const std::int16_t, 160>(in, 160));
  });
}

void BM_SendPath_Pcma(benchmark::State& state) {
  const CG711 g711;
  SendPath(state, kRtpPayloadPcma, 160, [&](const std::int16_t* in, std::span<std::uint8_t> out) {
    g711.EncodeAlaw(out.first<160>(), std::span<const std::int16_t, 160>(in, 160));
  });
}

void BM_SendPath_G722(benchmark::State& state) {
  SendPath(state, kRtpPayloadG722, 160, [](const std::int16_t*, std::span<std::uint8_t> out) {
    std::memset(out.data(), 0xFA, 160);
  });
}

void BM_SendPath_G729(benchmark::State& state) {
  CodecHandle* encoder = nullptr;
  if (codecLibOpen(&encoder, kCodecG729, kCodecEncode, 0) != 0) {
    state.SkipWithError("no G.729 encoder");
    return;
  }
  std::uint8_t params[48] = {};
  SendPath(state, kRtpPayloadG729, 20, [&](const std::int16_t* in, std::span<std::uint8_t> out) {
    std::uint32_t samples = 160;
    std::uint32_t bytes = 20;
    codecLibEncode(encoder, in, &samples, out.data(), &bytes, params, 0);
  });
  codecLibClose(encoder, 0);
}

// The same two frames a packet, straight into bcg729.
void BM_Bcg729Alone_Encode(benchmark::State& state) {
  bcg729EncoderChannelContextStruct* encoder = initBcg729EncoderChannel(0);
  std::uint8_t out[20];
  int n = 0;
  for (auto _ : state) {
    const std::int16_t* in = Frame(n++);
    std::uint8_t length = 0;
    bcg729Encoder(encoder, in, out, &length);
    bcg729Encoder(encoder, in + 80, out + 10, &length);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
  closeBcg729EncoderChannel(encoder);
}

// The receive side's decode of one packet: the library against bcg729 alone.
std::vector<std::uint8_t> EncodedSecond() {
  std::vector<std::uint8_t> bytes(20 * kFrames);
  bcg729EncoderChannelContextStruct* encoder = initBcg729EncoderChannel(0);
  for (int f = 0; f < 2 * kFrames; ++f) {
    std::uint8_t length = 0;
    bcg729Encoder(encoder, Sound().data() + 80 * f, bytes.data() + 10 * f, &length);
  }
  closeBcg729EncoderChannel(encoder);
  return bytes;
}

void BM_ReceiveDecode_G729(benchmark::State& state) {
  const std::vector<std::uint8_t> stream = EncodedSecond();
  CodecHandle* decoder = nullptr;
  if (codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0) != 0) {
    state.SkipWithError("no G.729 decoder");
    return;
  }
  std::int16_t frame[160];
  int n = 0;
  for (auto _ : state) {
    std::uint32_t in = 20;
    std::uint32_t out = 160;
    codecLibDecode(decoder, stream.data() + 20 * (n++ % kFrames), &in, frame, &out, nullptr, 0);
    benchmark::DoNotOptimize(frame);
  }
  state.SetItemsProcessed(state.iterations());
  codecLibClose(decoder, 0);
}

void BM_Bcg729Alone_Decode(benchmark::State& state) {
  const std::vector<std::uint8_t> stream = EncodedSecond();
  bcg729DecoderChannelContextStruct* decoder = initBcg729DecoderChannel();
  std::int16_t frame[160];
  int n = 0;
  for (auto _ : state) {
    const std::uint8_t* in = stream.data() + 20 * (n++ % kFrames);
    bcg729Decoder(decoder, in, 10, 0, 0, 0, frame);
    bcg729Decoder(decoder, in + 10, 10, 0, 0, 0, frame + 80);
    benchmark::DoNotOptimize(frame);
  }
  state.SetItemsProcessed(state.iterations());
  closeBcg729DecoderChannel(decoder);
}

}  // namespace

BENCHMARK(BM_SendPath_Pcmu);
BENCHMARK(BM_SendPath_Pcma);
BENCHMARK(BM_SendPath_G722);
BENCHMARK(BM_SendPath_G729);
BENCHMARK(BM_Bcg729Alone_Encode);
BENCHMARK(BM_ReceiveDecode_G729);
BENCHMARK(BM_Bcg729Alone_Decode);
