// Costs of the receive path's pieces: G.711, the voice buffer, concealment, and the heap
// allocations per frame once the path has warmed up.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <span>

#include "bench/alloc_counter.h"
#include "voice/buffer.h"
#include "voice/g711.h"
#include "voice/plc.h"


namespace {

using deskline::CBuffer;
using deskline::CG711;
using deskline::CPlc;
using Frame = std::array<std::int16_t, 160>;
using Payload = std::array<std::uint8_t, 160>;

Frame SpeechLikeFrame(unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> level(0.0, 6000.0);
  Frame frame{};
  for (auto& s : frame) s = static_cast<std::int16_t>(std::clamp(level(random), -32768.0, 32767.0));
  return frame;
}

// ---- G.711 -----------------------------------------------------------------------------------

// One loop for every law and direction. kLaw: 0 mu-law, 3 and 4 A-law with that shift (the
// shift matters to decoding only). Template arguments keep the choice out of the timed loop.
template <int kLaw, bool kEncode>
void BM_G711(benchmark::State& state) {
  const CG711 g711;
  const Frame speech = SpeechLikeFrame(kLaw + 1);
  Payload coded{};
  Frame decoded{};
  if constexpr (kLaw == 0) g711.EncodeUlaw(coded, speech); else g711.EncodeAlaw(coded, speech);
  for (auto _ : state) {
    if constexpr (kEncode) {
      if constexpr (kLaw == 0) g711.EncodeUlaw(coded, speech); else g711.EncodeAlaw(coded, speech);
      benchmark::DoNotOptimize(coded.data());
    } else {
      if constexpr (kLaw == 0) g711.DecodeUlaw(coded, decoded); else g711.DecodeAlaw(coded, decoded, kLaw);
      benchmark::DoNotOptimize(decoded.data());
    }
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_G711<0, true>)->Name("BM_G711Encode/ulaw");
BENCHMARK(BM_G711<3, true>)->Name("BM_G711Encode/alaw");
BENCHMARK(BM_G711<0, false>)->Name("BM_G711Decode/ulaw");
BENCHMARK(BM_G711<3, false>)->Name("BM_G711Decode/alaw_shift3");
BENCHMARK(BM_G711<4, false>)->Name("BM_G711Decode/alaw_shift4");

// ---- Voice buffer ------------------------------------------------------------------------------

// A stream that the buffer has measured: frames every 20 ms with 0-60 ms of jitter, so that
// every stored frame takes a delay sample into the window.
class Stream {
 public:
  // The jitter is drawn up front, so that the random generator is not part of the cost.
  explicit Stream(CBuffer& buffer) : buffer_(buffer) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> jitter(0, 60);
    for (auto& ms : jitter_ms_) ms = static_cast<std::uint16_t>(jitter(random));
  }

  int PutNext() {
    const std::int32_t seq = static_cast<std::int32_t>(n_ % 65536);
    const std::uint32_t ts = static_cast<std::uint32_t>(n_) * 160 + 160;
    const std::uint32_t arrival =
        static_cast<std::uint32_t>(n_ * 20 + jitter_ms_[n_ % jitter_ms_.size()]);
    const std::uint32_t size = 320;
    ++n_;
    return buffer_.PutFrame(frame_.data(), &seq, &ts, &size, nullptr, arrival);
  }
  int Get() {
    std::uint32_t size = 0;
    return buffer_.GetFrames(out_, &size);
  }
  // Long enough for the delay window and the depth to settle.
  void Warm() {
    for (int i = 0; i < 5000; ++i) {
      PutNext();
      Get();
    }
  }

 private:
  CBuffer& buffer_;
  std::array<std::uint16_t, 4096> jitter_ms_{};
  std::uint64_t n_ = 1000;
  Frame frame_ = SpeechLikeFrame(6);
  std::array<std::int16_t, 1280> out_{};
};

// PutFrame alone, in CPU time: batches of 1,024 frames, the pulls that empty the buffer again
// between batches untimed. "per_frame" is the figure.
void BM_PutFrame(benchmark::State& state) {
  auto buffer = std::make_unique<CBuffer>();
  buffer->Start();
  Stream stream(*buffer);
  stream.Warm();
  constexpr int kBatch = 1024;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(stream.PutNext());
    state.PauseTiming();
    for (int i = 0; i < kBatch; ++i) stream.Get();
    state.ResumeTiming();
  }
  state.counters["per_frame"] = benchmark::Counter(
      kBatch, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["jitter_frames"] = buffer->GetJitterDepth();
}
BENCHMARK(BM_PutFrame);

// One frame in and one out, at the steady depth: the receive path's buffer work per tick.
void BM_PutFrameAndGetFrames(benchmark::State& state) {
  auto buffer = std::make_unique<CBuffer>();
  buffer->Start();
  Stream stream(*buffer);
  stream.Warm();
  for (auto _ : state) {
    benchmark::DoNotOptimize(stream.PutNext());
    benchmark::DoNotOptimize(stream.Get());
  }
}
BENCHMARK(BM_PutFrameAndGetFrames);

// A burst of 8 frames (2,560 bytes) in one call.
void BM_GetFramesBurst(benchmark::State& state) {
  auto buffer = std::make_unique<CBuffer>();
  buffer->Start();
  Frame frame = SpeechLikeFrame(7);
  // One frame 40 s late sets the target to 1,000 and the upper depth to 1,030.
  std::uint32_t n = 95;
  auto put = [&](std::uint32_t arrival) {
    const std::int32_t seq = static_cast<std::int32_t>(n % 65536);
    const std::uint32_t ts = n * 160;
    const std::uint32_t size = 320;
    ++n;
    return buffer->PutFrame(frame.data(), &seq, &ts, &size, nullptr, arrival);
  };
  for (std::uint32_t i = 0; i < 6; ++i) put(i * 20);
  put(40000);
  std::array<std::int16_t, 1280> out{};
  std::uint32_t size = 0;
  for (auto _ : state) {
    while (true) {  // depth 1,013 gives a burst of 8
      std::int32_t depth = 0;
      if (buffer->GetDepth(&depth) == 0 && depth >= 1013) break;
      put(50000);
    }
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(buffer->GetFrames(out, &size));
    const auto stop = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
  }
  state.counters["bytes"] = size;
}
BENCHMARK(BM_GetFramesBurst)->UseManualTime();

// ---- Concealment -------------------------------------------------------------------------------

void BM_ConcealFirstLostFrame(benchmark::State& state) {
  auto plc = std::make_unique<CPlc>();
  for (unsigned k = 0; k < 8; ++k) {
    Frame frame = SpeechLikeFrame(10 + k);
    plc->AddToHistory(frame);
  }
  Frame good = SpeechLikeFrame(20);
  for (auto _ : state) {
    state.PauseTiming();
    Frame frame = good;
    plc->AddToHistory(frame);
    state.ResumeTiming();
    plc->Conceal(frame);  // pitch search
    benchmark::DoNotOptimize(frame.data());
  }
}
BENCHMARK(BM_ConcealFirstLostFrame);

// Lost frames 2 to 6: the widened replay, the fade.
void BM_ConcealLaterLostFrames(benchmark::State& state) {
  auto plc = std::make_unique<CPlc>();
  for (unsigned k = 0; k < 8; ++k) {
    Frame frame = SpeechLikeFrame(30 + k);
    plc->AddToHistory(frame);
  }
  Frame good = SpeechLikeFrame(40);
  constexpr int kLater = 5;
  for (auto _ : state) {
    state.PauseTiming();
    Frame frame = good;
    plc->AddToHistory(frame);
    plc->Conceal(frame);
    state.ResumeTiming();
    for (int k = 0; k < kLater; ++k) plc->Conceal(frame);
    benchmark::DoNotOptimize(frame.data());
  }
  state.counters["per_frame"] = benchmark::Counter(
      kLater, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ConcealLaterLostFrames);

void BM_AddToHistory(benchmark::State& state) {
  auto plc = std::make_unique<CPlc>();
  const Frame good = SpeechLikeFrame(50);
  for (auto _ : state) {
    Frame frame = good;
    plc->AddToHistory(frame);
    benchmark::DoNotOptimize(frame.data());
  }
}
BENCHMARK(BM_AddToHistory);

// ---- Heap allocations per frame in steady state -------------------------------------------------

// The whole receive path for one frame: decode, store, deliver, conceal or keep history;
// one frame in 50 is lost on the way.
void BM_SteadyStateAllocations(benchmark::State& state) {
  auto buffer = std::make_unique<CBuffer>();
  buffer->Start();
  auto plc = std::make_unique<CPlc>();
  const CG711 g711;
  Payload payload{};
  g711.EncodeUlaw(payload, SpeechLikeFrame(60));
  std::mt19937 random(8);
  std::uniform_int_distribution<int> jitter(0, 60);
  std::array<std::int16_t, 1280> out{};
  std::uint64_t n = 0;
  auto one_frame = [&] {
    Frame frame{};
    g711.DecodeUlaw(payload, frame);
    const std::int32_t seq = static_cast<std::int32_t>(n % 65536);
    const std::uint32_t ts = static_cast<std::uint32_t>(n) * 160 + 160;
    const std::uint32_t size = 320;
    const auto arrival = static_cast<std::uint32_t>(n * 20 + static_cast<std::uint64_t>(jitter(random)));
    if (n % 50 != 17) buffer->PutFrame(frame.data(), &seq, &ts, &size, nullptr, arrival);
    ++n;
    std::uint32_t got = 0;
    const int status = buffer->GetFrames(out, &got);
    std::span<std::int16_t, 160> first(out.data(), 160);
    if (status == CBuffer::kDelivered) {
      for (std::uint32_t k = 0; k < got / 320; ++k) {
        std::span<std::int16_t, 160> f(out.data() + k * 160, 160);
        if (deskline::IsFrameLost(f.data())) {
          std::fill(f.begin(), f.end(), std::int16_t{0});
          plc->Conceal(f);
        } else {
          plc->AddToHistory(f);
        }
      }
    } else if (status == CBuffer::kConceal) {
      std::fill(first.begin(), first.end(), std::int16_t{0});
      plc->Conceal(first);
    } else if (status == CBuffer::kNotPlaying) {
      std::fill(first.begin(), first.end(), std::int16_t{0});
      plc->AddToHistory(first);
    }
  };
  for (int i = 0; i < 20000; ++i) one_frame();  // through the first wrap-free warm-up
  const std::uint64_t before = deskline::bench::Allocations();
  std::uint64_t frames = 0;
  for (auto _ : state) {
    one_frame();
    ++frames;
  }
  const std::uint64_t allocations = deskline::bench::Allocations() - before;
  state.counters["allocs_per_frame"] =
      frames ? static_cast<double>(allocations) / static_cast<double>(frames) : 0.0;
  state.counters["frame_storage"] = static_cast<double>(buffer->GetFrameCapacity());
}
BENCHMARK(BM_SteadyStateAllocations);

}  // namespace
