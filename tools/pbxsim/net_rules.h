// Network faults on demand: drop, delay or duplicate datagrams, chosen by direction, packet
// type and occurrence ("drop the first 2 STARTs", "duplicate every ACK"). Everything is
// deterministic; a rule with a probability below 1 draws from a generator with a fixed,
// settable seed, so a run repeats exactly.
//
// Thread rules: not thread-safe; the owner serialises calls (the simulator holds its lock).
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace deskline::sim {

// As seen from the PBX: kIn is terminal to PBX, kOut is PBX to terminal.
enum class Direction { kIn, kOut };

struct NetRule {
  enum class Action { kDrop, kDelay, kDuplicate };

  Direction direction = Direction::kIn;
  std::optional<std::uint8_t> type;  // nullopt: every datagram, malformed ones too
  Action action = Action::kDrop;
  int delay_ms = 0;          // kDelay only
  int jitter_ms = 0;         // kDelay only: a further 0 to jitter_ms, drawn per datagram
  std::uint32_t first = 1;   // the first matching datagram (counting from 1) acted upon
  std::uint32_t count = 0;   // how many are acted upon from `first`; 0 means all of them
  double probability = 1.0;  // below 1: acted upon only when the seeded draw says so

  static NetRule Drop(Direction direction, std::optional<std::uint8_t> type);
  static NetRule Delay(Direction direction, std::optional<std::uint8_t> type, int delay_ms);
  // A delay drawn uniformly from 0 to `max_ms` for each datagram, from the seeded generator.
  static NetRule Jitter(Direction direction, std::optional<std::uint8_t> type, int max_ms);
  static NetRule Duplicate(Direction direction, std::optional<std::uint8_t> type);
  // Narrows the rule to occurrences first .. first+count-1 (count 0: first and all after).
  NetRule& Occurrences(std::uint32_t first_occurrence, std::uint32_t how_many);
  NetRule& WithProbability(double p);
};

// What the network does to one datagram. Delays of several rules add up (to a day at
// most); a drop wins.
struct Verdict {
  bool drop = false;
  int delay_ms = 0;
  bool duplicate = false;
};

class NetRules {
 public:
  explicit NetRules(std::uint64_t seed = 0) : random_(seed) {}

  void Add(const NetRule& rule);
  // Removes every rule and its occurrence count.
  void Clear();
  void Seed(std::uint64_t seed) { random_.seed(seed); }
  bool empty() const { return rules_.empty(); }

  // Counts the datagram against every rule that matches it and returns what happens to it.
  // `type` is nullopt for a datagram too short to have one.
  Verdict Apply(Direction direction, std::optional<std::uint8_t> type);

 private:
  struct Entry {
    NetRule rule;
    std::uint32_t seen = 0;  // matching datagrams so far
  };
  std::vector<Entry> rules_;
  std::mt19937_64 random_;  // its sequence is fixed by the standard, so seeds repeat anywhere
};

}  // namespace deskline::sim
