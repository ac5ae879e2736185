// The phone's voice thread: every 20 ms, while the voice path is open, one microphone frame goes
// to send_voice and what recv_voice gives goes to the sinks (the recording, the speaker). One
// thread does both, paced by the injected clock, so the schedule runs in simulated time under
// test. While no voice path is open the thread sleeps until one opens.
//
// With a sound card beneath it (the Audio module), the microphone's frames reach send_voice
// from the card's capture callback instead, and the speaker is the clock: its writes block once
// its queue is full, so the thread only sleeps when it runs further ahead than that queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"

namespace deskline::phone {

inline constexpr std::size_t kFrameSamples = 160;  // 20 ms at 8000 Hz
inline constexpr std::size_t kFrameBytes = 320;
// recv_voice may deliver up to eight frames at once.
inline constexpr std::size_t kMaxReceiveFrames = 8;
// recv_voice's status for a frame made up by concealment.
inline constexpr std::uint32_t kStatusConcealed = 600;
inline constexpr std::uint32_t kStatusDelivered = 0;

// The microphone.
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  virtual void Next(std::span<std::int16_t, kFrameSamples> frame) = 0;
};

// A recording played round and round; silence when empty.
class LoopSource final : public FrameSource {
 public:
  explicit LoopSource(std::vector<std::int16_t> samples) : samples_(std::move(samples)) {}
  void Next(std::span<std::int16_t, kFrameSamples> frame) override;

 private:
  std::vector<std::int16_t> samples_;
  std::size_t position_ = 0;
};

// A sine tone at `frequency_hz` with peak `amplitude`.
class ToneSource final : public FrameSource {
 public:
  ToneSource(double frequency_hz, std::int16_t amplitude)
      : frequency_hz_(frequency_hz), amplitude_(amplitude) {}
  void Next(std::span<std::int16_t, kFrameSamples> frame) override;

 private:
  double frequency_hz_;
  std::int16_t amplitude_;
  double phase_ = 0;  // in cycles, kept in [0, 1)
};

// Where received sound goes.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  virtual void Write(std::span<const std::int16_t> samples) = 0;
  // A tick of an open voice path that delivered nothing (playout not begun, nothing due).
  virtual void Gap() {}
};

// Both of two sinks, in order; either may be null.
class TeeSink final : public FrameSink {
 public:
  TeeSink(FrameSink* first, FrameSink* second) : first_(first), second_(second) {}
  void Write(std::span<const std::int16_t> samples) override {
    if (first_ != nullptr) first_->Write(samples);
    if (second_ != nullptr) second_->Write(samples);
  }
  void Gap() override {
    if (first_ != nullptr) first_->Gap();
    if (second_ != nullptr) second_->Gap();
  }

 private:
  FrameSink* first_;
  FrameSink* second_;
};

// send_voice and recv_voice, as the pacer uses them.
class VoicePort {
 public:
  virtual ~VoicePort() = default;
  // Returns what send_voice returns.
  virtual std::uint32_t SendVoice(std::span<const std::int16_t> pcm) = 0;
  // `pcm` has room for kMaxReceiveFrames frames. Returns the bytes placed; `status` is
  // recv_voice's status word.
  virtual std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) = 0;
};

struct VoiceCounts {
  std::uint64_t sent = 0;       // frames handed to send_voice
  std::uint64_t received = 0;   // frames delivered from the network
  std::uint64_t concealed = 0;  // frames made up for missing ones
  std::uint64_t resyncs = 0;    // times the schedule fell too far behind and restarted
  // How deep the engine's voice buffer ran when playout began, seen from outside: the 20 ms
  // ticks from the first voice path opening to its first delivered frame (the far end starts
  // sending as the path opens, so frames pile up for that long before the first is played).
  // -1 until a frame has been delivered.
  std::int64_t playout_delay_frames = -1;
};

class VoicePacer {
 public:
  static constexpr std::chrono::milliseconds kPeriod{20};
  // A lag up to this is caught up frame by frame; beyond it the schedule restarts from now,
  // so a stall never turns into a burst of frames.
  static constexpr std::chrono::milliseconds kMaxLag{100};

  // How long the thread sleeps at most while no voice path is open, should a Wake be missed.
  static constexpr std::chrono::milliseconds kIdleWait{60'000};

  // `source` null: the pacer sends nothing (a sound card's capture does). `sink` may be null.
  // `active` gates the voice path: nothing moves while it is false; call Wake when it turns
  // true. `lead`: how far the thread may run ahead of its 20 ms schedule before it sleeps;
  // 0 for a clock of its own, the depth of the device's queue when the sink's writes block.
  VoicePacer(VoicePort& port, FrameSource* source, FrameSink* sink,
             const std::atomic<bool>& active, platform::Clock& clock,
             std::chrono::milliseconds lead = std::chrono::milliseconds(0))
      : port_(port), source_(source), sink_(sink), active_(active), clock_(clock),
        lead_ns_(std::chrono::nanoseconds(lead).count()) {}
  ~VoicePacer() { Stop(); }
  VoicePacer(const VoicePacer&) = delete;
  VoicePacer& operator=(const VoicePacer&) = delete;

  // Runs the loop on a thread of its own. False if the thread could not be made.
  bool Start();
  // Ends the loop and joins the thread; safe to call twice and without Start.
  void Stop();
  // Ends the loop at its next look; any thread.
  void RequestStop() {
    stop_.Set();
    wake_.Set();
  }
  // The voice path has opened: ends the idle sleep. Any thread, cheap.
  void Wake() { wake_.Set(); }
  // The loop itself, on the calling thread, until RequestStop.
  void Run();

  VoiceCounts counts() const;

 private:
  void Tick();

  VoicePort& port_;
  FrameSource* source_;
  FrameSink* sink_;
  const std::atomic<bool>& active_;
  platform::Clock& clock_;
  const std::int64_t lead_ns_;
  platform::ManualResetEvent stop_{"phone voice stop"};
  platform::ManualResetEvent wake_{"phone voice wake"};
  platform::Thread thread_;
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> received_{0};
  std::atomic<std::uint64_t> concealed_{0};
  std::atomic<std::uint64_t> resyncs_{0};
  std::atomic<std::int64_t> playout_delay_frames_{-1};
  std::int64_t path_ticks_ = 0;  // ticks of the current voice path; the pacer's thread only
  bool was_active_ = false;
  std::vector<std::int16_t> receive_buffer_ = std::vector<std::int16_t>(kFrameSamples * kMaxReceiveFrames);
};

}  // namespace deskline::phone
