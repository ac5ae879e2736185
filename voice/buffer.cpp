#include "voice/buffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "support/tracer.h"

namespace deskline {

bool IsFrameLost(const std::int16_t* frame) {
  return frame != nullptr &&
         std::memcmp(frame, FrameLostMarker.data(), FrameLostMarker.size()) == 0;
}

// ---- DelayWindow --------------------------------------------------------------------------

void DelayWindow::Write(std::uint32_t index, std::uint32_t frames) {
  index %= kLength;
  // Positions skipped since the last write keep their values: visit them again with those
  // values, so that every position is visited once in each lap of kLength ticks.
  while (position_ != index) Push(values_[position_]);
  values_[index] = frames;
  Push(frames);
}

void DelayWindow::Push(std::uint32_t value) {
  const std::uint32_t tick = tick_++;
  position_ = position_ + 1 == kLength ? 0 : position_ + 1;
  // An entry older than kLength ticks has been overwritten since: it no longer counts.
  while (count_ > 0 && tick - queue_[head_].tick >= kLength) {
    head_ = head_ + 1 == kLength ? 0 : head_ + 1;
    --count_;
  }
  // Entries not above the new one can never be the maximum again.
  auto at = [this](std::uint32_t offset) {
    const std::uint32_t i = head_ + offset;
    return i >= kLength ? i - kLength : i;
  };
  while (count_ > 0 && queue_[at(count_ - 1)].value <= value) --count_;
  queue_[at(count_)] = Entry{tick, value};
  ++count_;
}

// ---- FramePool ----------------------------------------------------------------------------

std::int16_t* FramePool::Acquire() {
  if (free_head_ == nullptr) {
    if (chunk_count_ == kMaxChunks) return nullptr;
    std::unique_ptr<Block[]> chunk(new (std::nothrow) Block[kChunkFrames]);
    if (!chunk) return nullptr;
    for (std::size_t i = 0; i < kChunkFrames; ++i) Link(&chunk[i]);
    chunks_[chunk_count_++] = std::move(chunk);
  }
  Block* block = free_head_;
  std::memcpy(&free_head_, block->samples, sizeof(free_head_));
  ++in_use_;
  return block->samples;
}

void FramePool::Release(std::int16_t* frame) {
  if (frame == nullptr) return;
  // samples is the block's only member, so the frame's address is the block's.
  Link(reinterpret_cast<Block*>(frame));
  --in_use_;
}

void FramePool::Link(Block* block) {
  std::memcpy(block->samples, &free_head_, sizeof(free_head_));
  free_head_ = block;
}

void FramePool::Clear() {
  for (std::size_t i = 0; i < chunk_count_; ++i) chunks_[i].reset();
  chunk_count_ = 0;
  in_use_ = 0;
  free_head_ = nullptr;
}

// ---- CBuffer ------------------------------------------------------------------------------

CBuffer::CBuffer(platform::Clock& clock) : clock_(clock) {
  DL_TRACE(TRACE_STATUS, "[BUFFER] Module created");
}

CBuffer::~CBuffer() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[BUFFER] Module destroyed");
}

int CBuffer::Start() {
  std::unique_lock guard(lock);
  for (Checkpoint& checkpoint : checkpoints) checkpoint = Checkpoint{};
  DL_TRACE(TRACE_STATUS, "[BUFFER] Module starting");
  readPos = -1;
  newest = -1;
  firstSeq = -1;
  playing = 0;
  jitterDepth = 0;
  if (slots) {
    // Started again without a shutdown: keep the table, free what it holds.
    ClearRangeLocked(0, kSlotCount, false, false);
    return 0;
  }
  slots.reset(new (std::nothrow) BufferSlot[kSlotCount]);
  if (!slots) {
    DL_TRACE(TRACE_CRITICAL, "[BUFFER :: CRITICAL ERROR] Object creation failed - Buffer Container");
    guard.unlock();
    Shutdown();
    return 1;
  }
  ClearRangeLocked(0, kSlotCount, false, true);
  return 0;
}

int CBuffer::Shutdown() {
  std::lock_guard guard(lock);
  if (slots) {
    ClearRangeLocked(0, kSlotCount, true, false);
    slots.reset();
    pool_.Clear();
    DL_TRACE(TRACE_STATUS, "[BUFFER] Module shutdown");
  }
  return 0;
}

int CBuffer::PutFrame(const std::int16_t* samples, const std::int32_t* seq,
                      const std::uint32_t* timestamp, const std::uint32_t* size,
                      std::uint32_t* sizeOut) {
  return PutFrame(samples, seq, timestamp, size, sizeOut, clock_.TickMs());
}

int CBuffer::PutFrame(const std::int16_t* samples, const std::int32_t* seq,
                      const std::uint32_t* timestamp, const std::uint32_t* size,
                      std::uint32_t* sizeOut, std::uint32_t arrival) {
  if (samples == nullptr || seq == nullptr || timestamp == nullptr || size == nullptr) {
    DL_TRACE(TRACE_ERROR, "[BUFFER :: ERROR] Frame refused - missing argument");
    return 1;
  }
  const std::int32_t number = *seq;
  const std::uint32_t stamp = *timestamp;
  const std::uint32_t bytes = *size;
  if (number < 0 || number >= kSlotCount) {
    DL_TRACE(TRACE_ERROR, "[BUFFER :: ERROR] Frame refused - sequence number %d", number);
    return 1;
  }
  if (bytes == 0 || bytes > kFrameBytes) {
    DL_TRACE(TRACE_ERROR, "[BUFFER :: ERROR] Frame refused - size %u", bytes);
    return 1;
  }

  std::lock_guard guard(lock);
  if (!slots) return 1;

  const bool wasPlaying = playing != 0;
  if (!playing) {
    // Only the start of playout looks at the depth. It is read under the lock, so it is
    // never older than the last delivery.
    std::int32_t depth = 0;
    if (GetDepthLocked(&depth) != 0) depth = 0;
    // Every voice path after the first starts with its eleventh frame.
    if (everPlayed && holdCount < 10) {
      ++holdCount;
      return 0;
    }
    if (!everPlayed) holdCount = 0;
    if (firstSeq == -1) {
      firstArrival = arrival;
      firstSeq = number;
    }
    if (readPos == -1) readPos = firstSeq;
    if (newest != -1 && depth > TargetDepthLocked()) {
      playing = 1;
      everPlayed = 1;
      holdCount = 0;
    }
  }

  if (wasPlaying && number % 100 == 0) {
    checkpoints[(number % 1000) / 100] = Checkpoint{arrival - firstArrival, number};
  }

  // Below the read position: only a number that has wrapped past 65,535 is new, which its
  // timestamp shows against the frame that is due.
  if (number < readPos) {
    const std::uint32_t due = slots[readPos].timestamp;
    if (due == 0 || due > stamp) return 1;
  }

  BufferSlot& slot = slots[number];
  if (slot.size != 0 || slot.samples != nullptr) return 1;

  std::int16_t* frame = pool_.Acquire();
  if (frame == nullptr) {
    if (!poolExhausted_) {
      DL_TRACE(TRACE_ERROR, "[BUFFER :: ERROR] Frame refused - no memory for frames");
      poolExhausted_ = true;
    }
    return 1;
  }
  poolExhausted_ = false;
  std::memcpy(frame, samples, bytes);
  if (bytes < kFrameBytes) {
    std::memset(reinterpret_cast<std::uint8_t*>(frame) + bytes, 0, kFrameBytes - bytes);
  }

  if (newest == -1 || number > newest || stamp > slots[newest].timestamp) newest = number;

  slot.samples = frame;
  slot.size = bytes;
  slot.timestamp = stamp;
  slot.arrival = arrival;
  slot.held = 0;
  ++storedCount;

  const std::uint32_t position = storedCount % DelayWindow::kLength;
  std::optional<std::uint32_t> delay;
  if (number != firstSeq) delay = UpdateJitter(number, arrival);
  delayWindow.Write(position, delay ? *delay : delayWindow.At(position));
  if (delay) {
    jitterDepth = static_cast<std::int32_t>(
        std::min<std::uint32_t>(delayWindow.Max(), std::numeric_limits<std::int32_t>::max()));
  }

  if (sizeOut != nullptr) *sizeOut = bytes;
  return 0;
}

std::optional<std::uint32_t> CBuffer::UpdateJitter(std::int32_t seq, std::uint32_t arrival) {
  const int i = (seq % 1000) / 100;
  if (checkpoints[i].relTime == 0) return std::nullopt;  // no reference yet

  // A checkpoint older than its predecessor is a leftover of the previous lap of 1,000
  // numbers; the newer predecessor is the better reference.
  int ref = i;
  if (i == 0) {
    if (checkpoints[0].relTime < checkpoints[9].relTime) ref = 9;
  } else if (checkpoints[i].relTime < checkpoints[i - 1].relTime) {
    ref = i - 1;
    while (ref > 0 && checkpoints[ref].relTime < checkpoints[ref - 1].relTime) --ref;
  }
  Checkpoint& reference = checkpoints[ref];

  std::int32_t d = seq - reference.seq;
  if (d >= 50000 || d <= -50000) d += 65536;
  // Times wrap with the 32-bit millisecond tick; the difference is taken in that ring.
  const std::uint32_t expected =
      firstArrival + reference.relTime + static_cast<std::uint32_t>(d * 20);
  std::int64_t delay = static_cast<std::int32_t>(arrival - expected);
  if (delay < 0) {
    // Earlier than predicted: the reference moves to the fastest path seen.
    reference.relTime += static_cast<std::uint32_t>(static_cast<std::int32_t>(delay));
    delay = 0;
  }
  return static_cast<std::uint32_t>((delay + 5) / 20);
}

int CBuffer::GetFrames(std::span<std::int16_t> out, std::uint32_t* size) {
  if (size != nullptr) *size = 0;
  if (out.size() < kFrameSamples) {
    DL_TRACE(TRACE_ERROR, "[BUFFER :: ERROR] No room for a frame - %zu samples", out.size());
    return kEmpty;
  }
  std::unique_lock guard(lock);
  if (!playing || readPos == -1 || !slots) return kNotPlaying;

  std::int32_t depth = 0;
  if (GetDepthLocked(&depth) != 0) return kEmpty;
  const std::int32_t target = TargetDepthLocked();
  const std::int32_t upper = UpperDepthLocked();

  if (depth > upper) {
    // Far too deep: drop the oldest, one slot beyond the count, without concealment.
    const std::int32_t drop = depth > kMaxTargetDepth ? depth - kMaxTargetDepth : depth - upper;
    const std::int32_t next = (readPos + drop + 1) % kSlotCount;
    ClearRangeLocked(readPos, next, false, false);
    depth -= drop;
    readPos = next;
  }

  const bool shallow = depth <= target;
  BufferSlot& due = slots[readPos];
  if (due.size == 0) {
    EmptySlot(due);
    Advance(&readPos);
    return kConceal;
  }

  std::uint32_t bytes = 0;
  if (shallow && !due.held) {
    // Growing: this frame costs one extra tick of concealment and comes on the next call.
    due.held = 1;
    return kConceal;
  }
  if (!shallow && !due.held && depth > target + 3) {
    std::int32_t n = depth - (target + 3);
    if (n >= 10) n = 10;
    if (n > 2) n -= 2;
    n = std::min<std::int32_t>(n, static_cast<std::int32_t>(out.size() / kFrameSamples));
    std::uint8_t* dest = reinterpret_cast<std::uint8_t*>(out.data());
    for (std::int32_t k = 0; k < n; ++k) {
      BufferSlot& slot = slots[(readPos + k) % kSlotCount];
      std::uint8_t* place = dest + static_cast<std::size_t>(k) * kFrameBytes;
      if (slot.size != 0) {
        std::memcpy(place, slot.samples, kFrameBytes);
      } else {
        std::memset(place, 0, kFrameBytes);
        std::memcpy(place, FrameLostMarker.data(), FrameLostMarker.size());
      }
      EmptySlot(slot);
    }
    readPos = (readPos + n - 1) % kSlotCount;
    bytes = static_cast<std::uint32_t>(n) * kFrameBytes;
  } else {
    std::memcpy(out.data(), due.samples, kFrameBytes);
    bytes = due.size;
  }
  EmptySlot(slots[readPos]);
  Advance(&readPos);
  guard.unlock();

  if (size != nullptr) *size = bytes;
  return kDelivered;
}

int CBuffer::ClearRange(std::int32_t from, std::int32_t to, bool reset, bool all) {
  if (!all && (from < 0 || from >= kSlotCount || to < 0 || to > kSlotCount)) return 1;
  std::lock_guard guard(lock);
  ClearRangeLocked(from, to, reset, all);
  return 0;
}

void CBuffer::ClearRangeLocked(std::int32_t from, std::int32_t to, bool reset, bool all) {
  if (slots) {
    if (all) {
      for (std::int32_t i = 0; i < kSlotCount; ++i) slots[i] = BufferSlot{};
      pool_.Clear();
    } else if (to >= from) {
      for (std::int32_t i = from; i < to; ++i) EmptySlot(slots[i]);
    } else {
      for (std::int32_t i = from; i < kSlotCount; ++i) EmptySlot(slots[i]);
      for (std::int32_t i = 0; i < to; ++i) EmptySlot(slots[i]);
    }
  }
  if (reset) {
    readPos = -1;
    newest = -1;
    firstSeq = -1;
    playing = 0;
    for (Checkpoint& checkpoint : checkpoints) checkpoint = Checkpoint{};
  }
}

void CBuffer::Reset() { ClearRange(0, kSlotCount, true, false); }

void CBuffer::EmptySlot(BufferSlot& slot) {
  pool_.Release(slot.samples);
  slot = BufferSlot{};
}

std::uint32_t CBuffer::SlotTimestamp(std::int32_t index) const {
  return (index >= 0 && index < kSlotCount && slots) ? slots[index].timestamp : 0;
}

void CBuffer::Advance(std::int32_t* position) const {
  const std::int32_t next = *position + 1 >= kSlotCount ? 0 : *position + 1;
  if (next > newest && SlotTimestamp(next) > SlotTimestamp(newest)) return;
  *position = next;
}

int CBuffer::GetDepth(std::int32_t* out) const {
  std::lock_guard guard(lock);
  return GetDepthLocked(out);
}

int CBuffer::GetDepthLocked(std::int32_t* out) const {
  if (readPos < 0 || newest < 0 || !slots) return 1;
  std::int32_t depth = newest - readPos + 1;
  if (depth < 0 && SlotTimestamp(readPos) < SlotTimestamp(newest)) {
    depth = kSlotCount - (readPos - newest) + 1;  // the numbers have wrapped
  }
  // Read position one past the newest frame across the end of the table: counted modulo
  // the table that is 0, not a full table.
  if (depth == kSlotCount && slots[readPos].size == 0) depth = 0;
  if (depth <= 0) return 1;
  if (out != nullptr) *out = depth;
  return 0;
}

std::int32_t CBuffer::TargetDepthLocked() const {
  return std::clamp(jitterDepth, 1, kMaxTargetDepth);
}

std::int32_t CBuffer::UpperDepthLocked() const {
  return TargetDepthLocked() + (jitterDepth <= 35 ? 10 : 30);
}

std::int32_t CBuffer::TargetDepth() const {
  std::lock_guard guard(lock);
  return TargetDepthLocked();
}

std::int32_t CBuffer::UpperDepth() const {
  std::lock_guard guard(lock);
  return UpperDepthLocked();
}

std::int32_t CBuffer::GetJitterDepth() const {
  std::lock_guard guard(lock);
  return jitterDepth;
}

std::int32_t CBuffer::GetReadPos() const {
  std::lock_guard guard(lock);
  return readPos;
}

std::int32_t CBuffer::GetNewest() const {
  std::lock_guard guard(lock);
  return newest;
}

bool CBuffer::IsPlaying() const {
  std::lock_guard guard(lock);
  return playing != 0;
}

std::uint32_t CBuffer::GetStoredCount() const {
  std::lock_guard guard(lock);
  return storedCount;
}

std::size_t CBuffer::GetFramesHeld() const {
  std::lock_guard guard(lock);
  return pool_.in_use();
}

std::size_t CBuffer::GetFrameCapacity() const {
  std::lock_guard guard(lock);
  return pool_.capacity();
}

}  // namespace deskline
