// Costs of the Wave session per 20 ms frame, over loopback sockets: the send path (encode and
// one datagram out) and the whole receive path (datagram in, the receive thread's decode and
// store, the host's pull with concealment). Heap allocations per frame are counted across
// all threads once the session has warmed up.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <numbers>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <span>
#include <thread>
#include <vector>

#include "platform/udp_socket.h"
#include "bench/alloc_counter.h"
#include "voice/g711.h"
#include "voice/wave.h"


namespace {

using deskline::CWave;
constexpr std::uint32_t kLoopback = 0x7F000001;

std::vector<std::int16_t> ToneFrame() {
  std::vector<std::int16_t> s(160);
  for (std::size_t i = 0; i < s.size(); ++i) {
    s[i] = static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 1000.0 * double(i) / 8000.0));
  }
  return s;
}

// A started session pointed at `peer`.
bool StartSession(CWave& wave, deskline::platform::UdpSocket& peer) {
  if (!peer.Open({kLoopback, 0}) || wave.Start() != 0) return false;
  wave.SetRemoteIp(kLoopback);
  if (wave.StartSession() != 0) return false;
  wave.SetRemotePort(peer.LocalEndpoint()->port);
  return true;
}

// Host thread: one frame encoded and sent. The peer never reads; loopback drops what its
// receive queue cannot hold, which costs the sender nothing extra.
void BM_SendVoiceFrame(benchmark::State& state) {
  deskline::platform::UdpSocket peer;
  CWave wave(deskline::platform::RealClock(), std::uint16_t{0});
  if (!StartSession(wave, peer)) {
    state.SkipWithError("session did not start");
    return;
  }
  wave.SetPayloadType(static_cast<std::uint32_t>(state.range(0)));
  const auto frame = ToneFrame();
  for (int i = 0; i < 50; ++i) wave.SendVoiceFrame(frame.data(), 320);
  const std::uint64_t before = deskline::bench::Allocations();
  for (auto _ : state) {
    wave.SendVoiceFrame(frame.data(), 320);
  }
  state.counters["allocs/frame"] = benchmark::Counter(
      double(deskline::bench::Allocations() - before) / double(state.iterations()));
}
BENCHMARK(BM_SendVoiceFrame)->Arg(0)->Arg(8)->Arg(9)->Arg(18)->ArgName("pt");

// One datagram from the far end, through the receive thread into the buffer, and one pull
// by the host. Includes the loopback send and the wake-up of the receive thread.
void BM_ReceivePath(benchmark::State& state) {
  deskline::platform::UdpSocket peer;
  CWave wave(deskline::platform::RealClock(), std::uint16_t{0});
  if (!StartSession(wave, peer)) {
    state.SkipWithError("session did not start");
    return;
  }
  const auto pt = static_cast<std::uint8_t>(state.range(0));
  wave.SetPayloadType(pt);
  wave.SetReceiving(true);
  const std::uint16_t port = wave.LocalEndpoint()->port;
  // A payload of the right size for the codec; G.729 bytes of any value decode.
  std::vector<std::uint8_t> datagram(12 + (pt == 18 ? 20 : 160), 0x55);
  datagram[0] = 0x80;
  datagram[1] = pt;
  std::uint32_t seq = 0;
  std::int16_t pcm[CWave::kMaxFramesPerPull * 160];
  auto one_frame = [&] {
    datagram[2] = static_cast<std::uint8_t>(seq >> 8);
    datagram[3] = static_cast<std::uint8_t>(seq);
    const std::uint32_t ts = seq * 160;
    datagram[4] = static_cast<std::uint8_t>(ts >> 24);
    datagram[5] = static_cast<std::uint8_t>(ts >> 16);
    datagram[6] = static_cast<std::uint8_t>(ts >> 8);
    datagram[7] = static_cast<std::uint8_t>(ts);
    ++seq;
    const std::uint64_t decoded = wave.packets_decoded();
    peer.SendTo(std::as_bytes(std::span(datagram)), {kLoopback, port});
    while (wave.packets_decoded() == decoded) {
    }
    std::uint32_t status = 0;
    benchmark::DoNotOptimize(wave.ReceiveVoice(0, pcm, &status));
  };
  for (int i = 0; i < 200; ++i) one_frame();
  const std::uint64_t before = deskline::bench::Allocations();
  for (auto _ : state) one_frame();
  state.counters["allocs/frame"] = benchmark::Counter(
      double(deskline::bench::Allocations() - before) / double(state.iterations()));
}
BENCHMARK(BM_ReceivePath)->Arg(0)->Arg(8)->Arg(9)->Arg(18)->ArgName("pt")->UseRealTime();

}  // namespace
