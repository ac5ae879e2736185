// Scripted network faults on what the peer sends. Packets are numbered by the order in which
// they are made (index 0, 1, 2, ...), every 20 ms; the script decides for each whether it goes
// out, when, and how often. Sequence numbers and timestamps count every packet made, so a
// dropped packet leaves a gap the receiver can see.
//
// Thread rules: a FaultSchedule belongs to one thread (the peer's sender).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

namespace deskline::sim {

struct FaultScript {
  std::uint32_t drop_every_nth = 0;   // drops the Nth, 2Nth, ... packet made (0: off)
  double drop_percent = 0.0;          // seeded random loss, 0 to 100
  std::vector<std::uint16_t> drop_sequences;  // these sequence numbers never go out
  std::uint32_t reorder_every_nth = 0;  // the Nth, 2Nth, ... packet goes out after the next one
  std::uint32_t duplicate_every_nth = 0;  // the Nth, 2Nth, ... packet goes out twice in a row
  std::uint32_t jitter_max_ms = 0;  // each packet is held back 0 to N ms (seeded, uniform)
  std::uint32_t seed = 1;

  bool empty() const {
    return drop_every_nth == 0 && drop_percent <= 0.0 && drop_sequences.empty() &&
           reorder_every_nth == 0 && duplicate_every_nth == 0 && jitter_max_ms == 0;
  }
};

// One datagram that is due to go out.
struct Emission {
  std::uint32_t index = 0;
  std::uint16_t sequence = 0;
  std::int64_t due_us = 0;
  std::vector<std::byte> datagram;
};

class FaultSchedule {
 public:
  static constexpr std::int64_t kFrameUs = 20'000;

  explicit FaultSchedule(FaultScript script);

  // Hands over packet `index` made at `made_us`. Adds none, one or two emissions.
  void Add(std::uint32_t index, std::uint16_t sequence, std::int64_t made_us, std::vector<std::byte> datagram);
  // The earliest due time waiting, or -1 when nothing waits.
  std::int64_t NextDueUs() const;
  // Takes out everything due at `now_us` or before, in the order it goes on the wire:
  // by due time, then by the order in which it was added.
  std::vector<Emission> TakeDue(std::int64_t now_us);
  std::size_t pending() const { return queue_.size(); }
  std::uint32_t dropped() const { return dropped_; }

 private:
  struct Key {
    std::int64_t due_us;
    std::uint64_t order;
    bool operator<(const Key& o) const { return due_us != o.due_us ? due_us < o.due_us : order < o.order; }
  };
  static bool Every(std::uint32_t n, std::uint32_t index) { return n != 0 && (index + 1) % n == 0; }

  FaultScript script_;
  std::set<std::uint16_t> drop_set_;
  std::mt19937 rng_;
  std::uint64_t order_ = 0;
  std::uint32_t dropped_ = 0;
  std::vector<std::pair<Key, Emission>> queue_;  // small; kept sorted
};

// The sequence numbers that go out, in wire order, for `count` packets from `first_sequence`
// made 20 ms apart. A dry run of the schedule, for tests and for the demo's explanations.
std::vector<std::uint16_t> PlannedSendOrder(const FaultScript& script, std::uint16_t first_sequence,
                                            std::uint32_t count);

}  // namespace deskline::sim
