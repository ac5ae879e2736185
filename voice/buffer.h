// The adaptive playout buffer between the RTP receive thread and the host's pulls.
//
// Decoded 320-byte frames sit in a table indexed directly by the RTP sequence number, so
// reordering and gaps cost nothing. The buffer measures how late frames arrive against
// reference points of its own, takes the worst delay of the last 2,500 stored frames as its
// target depth (in 20 ms frames) and steers towards it: a frame is held back one tick while
// the buffer is shallow, played one a call near the target, handed out in bursts of up to 8
// when a little too deep, and the oldest frames are dropped when far too deep.
//
// Thread rules: PutFrame runs on the RTP receive thread, GetFrames on the host thread that
// pulls sound, Reset on the call processor's thread. Each holds the buffer's own lock for its
// whole work; the lock is a leaf, and no operation takes it twice (the nested steps are
// the ...Locked helpers), so it need not be recursive.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "core/module.h"
#include "platform/clock.h"

namespace deskline {

// Put in place of a missing frame inside a burst: the first 8 bytes of that frame's place.
inline constexpr std::array<std::uint8_t, 8> FrameLostMarker = {0x0D, 0x0E, 0x0A, 0x0D,
                                                                  0x0B, 0x0E, 0x0E, 0x0F};

// True if the frame's first 8 bytes are FrameLostMarker. `frame` holds at least 4 samples.
bool IsFrameLost(const std::int16_t* frame);

// The maximum over a circular table of 2,500 delay samples in which each stored frame owns
// the entry at its store count modulo 2,500. Entries that a store leaves unwritten keep their
// old value, which the maximum still counts.
//
// A monotonic queue over "ticks" (one per table position visited) keeps the maximum in
// amortised constant time: a position that is skipped is visited again with its old value,
// which leaves the table and therefore the maximum exactly as a full scan would see them.
class DelayWindow {
 public:
  static constexpr std::uint32_t kLength = 2500;

  // Sets the entry at `index` (taken modulo kLength) to `frames`.
  void Write(std::uint32_t index, std::uint32_t frames);
  // The largest entry; 0 while nothing was written.
  std::uint32_t Max() const { return count_ == 0 ? 0 : queue_[head_].value; }
  std::uint32_t At(std::uint32_t index) const { return values_[index % kLength]; }

 private:
  struct Entry {
    std::uint32_t tick;
    std::uint32_t value;
  };
  void Push(std::uint32_t value);

  std::array<std::uint32_t, kLength> values_{};
  // Candidates for the maximum, oldest first, values strictly falling. At most one per tick
  // of the last kLength ticks, so a ring of kLength entries never overflows.
  std::array<Entry, kLength> queue_{};
  std::uint32_t head_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t tick_ = 0;      // the next tick; wraps, only differences count
  std::uint32_t position_ = 0;  // the table position of the next tick
};

// Fixed-size frame storage that grows in chunks and is reused, so that storing and
// delivering frames allocates nothing once the buffer has reached its working depth.
class FramePool {
 public:
  static constexpr std::size_t kFrameSamples = 160;
  static constexpr std::size_t kChunkFrames = 64;
  static constexpr std::size_t kMaxChunks = 65536 / kChunkFrames;  // one frame per slot at most

  FramePool() = default;
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // A frame of 160 samples, or null if no memory is left.
  std::int16_t* Acquire();
  void Release(std::int16_t* frame);
  // Frees every chunk. Only when no frame is in use.
  void Clear();
  std::size_t capacity() const { return chunk_count_ * kChunkFrames; }
  std::size_t in_use() const { return in_use_; }

 private:
  struct Block {
    std::int16_t samples[kFrameSamples];
  };
  void Link(Block* block);
  std::unique_ptr<Block[]> chunks_[kMaxChunks];
  std::size_t chunk_count_ = 0;
  std::size_t in_use_ = 0;
  Block* free_head_ = nullptr;  // the link lives in the free block's first bytes
};

struct BufferSlot {
  std::int16_t* samples = nullptr;  // the 320-byte frame, owned by the slot; null when empty
  std::uint32_t timestamp = 0;      // RTP timestamp
  std::uint32_t size = 0;           // bytes; 0 means empty
  std::uint8_t held = 0;            // held back once already
  std::uint32_t arrival = 0;        // arrival time, ms
};

class CBuffer : public CModule {
 public:
  static constexpr std::int32_t kSlotCount = 65536;
  static constexpr std::uint32_t kFrameBytes = 320;
  static constexpr std::uint32_t kFrameSamples = 160;
  static constexpr std::uint32_t kMaxBurstFrames = 8;
  static constexpr std::uint32_t kMaxOutputBytes = kMaxBurstFrames * kFrameBytes;  // 2,560
  static constexpr std::int32_t kMaxTargetDepth = 1000;
  static constexpr int kCheckpoints = 10;

  // GetFrames results.
  static constexpr int kDelivered = 0;
  static constexpr int kEmpty = 1;
  static constexpr int kConceal = 600;      // the due frame is missing or held back
  static constexpr int kNotPlaying = 601;   // playout has not begun

  // Arrival times of the PutFrame form without one are read from `clock`, which must
  // outlive the buffer.
  explicit CBuffer(platform::Clock& clock = platform::RealClock());
  ~CBuffer() override;
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;

  // Makes the slot table, empty, in the idle state. 0, or 1 if the table cannot be made.
  int Start() override;
  // Frees every frame and the table. Always 0.
  int Shutdown() override;

  // Stores a copy of the frame (`*size` bytes, 1 to 320) in the slot of `*seq` (0 to 65,535).
  // 0: taken, or thrown away as one of the first ten frames of a later voice path; 1: refused
  // (late, duplicate, bad argument, no table, or no memory). The caller always keeps
  // `samples`. `sizeOut`, if not null, receives the size on success. RTP receive thread.
  int PutFrame(const std::int16_t* samples, const std::int32_t* seq,
               const std::uint32_t* timestamp, const std::uint32_t* size, std::uint32_t* sizeOut,
               std::uint32_t arrival);
  // The same, stamped with the clock's millisecond tick.
  int PutFrame(const std::int16_t* samples, const std::int32_t* seq,
               const std::uint32_t* timestamp, const std::uint32_t* size,
               std::uint32_t* sizeOut = nullptr);

  // Takes what is due into `out`: kDelivered with the byte count in `*size` (320 a frame, up
  // to 8 frames; a missing frame in a burst is FrameLostMarker), or kEmpty, kConceal,
  // kNotPlaying with `*size` 0. A burst never writes more frames than `out` has room for;
  // an `out` of less than one frame gives kEmpty. `size` may be null. Host thread.
  int GetFrames(std::span<std::int16_t> out, std::uint32_t* size);

  // Empties the slots `from` up to, not including, `to` (wrapping past 65,535 when `to` is
  // below `from`), freeing their frames. `all` empties every slot. `reset` also returns to
  // the idle state. 0, or 1 if `from` or `to` is out of range.
  int ClearRange(std::int32_t from, std::int32_t to, bool reset, bool all);
  // Empties every slot and returns to the idle state; the measured delay stays.
  // Call processor's thread.
  void Reset();

  // Frames from the read position to the newest, both included. 0 with the count in
  // `*out`, or 1 if there is none.
  int GetDepth(std::int32_t* out) const;
  std::int32_t TargetDepth() const;
  std::int32_t UpperDepth() const;

  // Read-outs for diagnostics and tests.
  std::int32_t GetJitterDepth() const;
  std::int32_t GetReadPos() const;
  std::int32_t GetNewest() const;
  bool IsPlaying() const;
  std::uint32_t GetStoredCount() const;
  // Frames stored now, and the frame storage that has been set aside for them.
  std::size_t GetFramesHeld() const;
  std::size_t GetFrameCapacity() const;

 private:
  struct Checkpoint {
    std::uint32_t relTime = 0;  // ms since firstArrival
    std::int32_t seq = 0;
  };

  int GetDepthLocked(std::int32_t* out) const;
  void ClearRangeLocked(std::int32_t from, std::int32_t to, bool reset, bool all);
  std::int32_t TargetDepthLocked() const;
  std::int32_t UpperDepthLocked() const;
  std::optional<std::uint32_t> UpdateJitter(std::int32_t seq, std::uint32_t arrival);
  void Advance(std::int32_t* position) const;
  void EmptySlot(BufferSlot& slot);
  std::uint32_t SlotTimestamp(std::int32_t index) const;

  platform::Clock& clock_;
  mutable std::mutex lock;
  std::unique_ptr<BufferSlot[]> slots;
  FramePool pool_;
  std::int32_t readPos = -1;
  std::uint8_t playing = 0;
  std::int32_t newest = -1;
  std::int32_t firstSeq = -1;
  std::int32_t jitterDepth = 0;
  std::uint8_t everPlayed = 0;
  std::int32_t holdCount = 0;
  std::uint32_t firstArrival = 0;
  std::uint32_t storedCount = 0;
  Checkpoint checkpoints[kCheckpoints];
  DelayWindow delayWindow;
  bool poolExhausted_ = false;
};

}  // namespace deskline
