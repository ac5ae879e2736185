#include "tools/pbxsim/net_rules.h"

#include <algorithm>

namespace deskline::sim {
namespace {

// A day: far beyond any test, and the sum of several rules cannot overflow.
constexpr int kMaxDelayMs = 86'400'000;

}  // namespace

NetRule NetRule::Drop(Direction direction, std::optional<std::uint8_t> type) {
  NetRule rule;
  rule.direction = direction;
  rule.type = type;
  rule.action = Action::kDrop;
  return rule;
}

NetRule NetRule::Delay(Direction direction, std::optional<std::uint8_t> type, int delay_ms) {
  NetRule rule;
  rule.direction = direction;
  rule.type = type;
  rule.action = Action::kDelay;
  rule.delay_ms = std::clamp(delay_ms, 0, kMaxDelayMs);
  return rule;
}

NetRule NetRule::Jitter(Direction direction, std::optional<std::uint8_t> type, int max_ms) {
  NetRule rule = Delay(direction, type, 0);
  rule.jitter_ms = std::clamp(max_ms, 0, kMaxDelayMs);
  return rule;
}

NetRule NetRule::Duplicate(Direction direction, std::optional<std::uint8_t> type) {
  NetRule rule;
  rule.direction = direction;
  rule.type = type;
  rule.action = Action::kDuplicate;
  return rule;
}

NetRule& NetRule::Occurrences(std::uint32_t first_occurrence, std::uint32_t how_many) {
  first = first_occurrence == 0 ? 1 : first_occurrence;
  count = how_many;
  return *this;
}

NetRule& NetRule::WithProbability(double p) {
  probability = p < 0.0 ? 0.0 : (p > 1.0 ? 1.0 : p);
  return *this;
}

void NetRules::Add(const NetRule& rule) { rules_.push_back(Entry{rule, 0}); }

void NetRules::Clear() { rules_.clear(); }

Verdict NetRules::Apply(Direction direction, std::optional<std::uint8_t> type) {
  Verdict verdict;
  for (Entry& entry : rules_) {
    const NetRule& rule = entry.rule;
    if (rule.direction != direction) continue;
    if (rule.type && rule.type != type) continue;
    const std::uint32_t occurrence = ++entry.seen;
    if (occurrence < rule.first) continue;
    // Written as a difference so that first + count cannot overflow.
    if (rule.count != 0 && occurrence - rule.first >= rule.count) continue;
    if (rule.probability < 1.0) {
      // 53 random bits as a fraction in [0, 1): the same on every platform.
      const double draw = static_cast<double>(random_() >> 11) * 0x1.0p-53;
      if (draw >= rule.probability) continue;
    }
    switch (rule.action) {
      case NetRule::Action::kDrop:
        verdict.drop = true;
        break;
      case NetRule::Action::kDelay: {
        // Rules may be filled in by hand: keep the sum within 0 .. a day whatever they say.
        int delay_ms = std::clamp(rule.delay_ms, 0, kMaxDelayMs);
        const int jitter_ms = std::clamp(rule.jitter_ms, 0, kMaxDelayMs);
        if (jitter_ms > 0) {
          // Modulo of 64 random bits: the bias is far below anything a test could see.
          const int drawn = static_cast<int>(random_() % (static_cast<std::uint64_t>(jitter_ms) + 1));
          delay_ms = drawn > kMaxDelayMs - delay_ms ? kMaxDelayMs : delay_ms + drawn;
        }
        verdict.delay_ms =
            delay_ms > kMaxDelayMs - verdict.delay_ms ? kMaxDelayMs : verdict.delay_ms + delay_ms;
        break;
      }
      case NetRule::Action::kDuplicate:
        verdict.duplicate = true;
        break;
    }
  }
  return verdict;
}

}  // namespace deskline::sim
