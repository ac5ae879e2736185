#include "tools/rtppeer/fault_script.h"

#include <algorithm>

namespace deskline::sim {

FaultSchedule::FaultSchedule(FaultScript script)
    : script_(std::move(script)),
      drop_set_(script_.drop_sequences.begin(), script_.drop_sequences.end()),
      rng_(script_.seed) {}

void FaultSchedule::Add(std::uint32_t index, std::uint16_t sequence, std::int64_t made_us,
                        std::vector<std::byte> datagram) {
  // Every random draw happens for every packet, in a fixed order, so that one fault's
  // setting does not change the pattern of another under the same seed.
  std::uniform_real_distribution<double> percent(0.0, 100.0);
  const double loss_draw = percent(rng_);
  std::uniform_int_distribution<std::uint32_t> jitter(0, script_.jitter_max_ms);
  const std::uint32_t jitter_ms = jitter(rng_);

  const bool drop = Every(script_.drop_every_nth, index) || loss_draw < script_.drop_percent ||
                    drop_set_.count(sequence) != 0;
  if (drop) {
    ++dropped_;
    return;
  }
  std::int64_t due = made_us + static_cast<std::int64_t>(jitter_ms) * 1000;
  // Held until just after the next packet is made, so that one overtakes it.
  if (Every(script_.reorder_every_nth, index)) due += kFrameUs + 1;
  const int copies = Every(script_.duplicate_every_nth, index) ? 2 : 1;
  for (int c = 0; c < copies; ++c) {
    Emission e{index, sequence, due, c + 1 < copies ? datagram : std::move(datagram)};
    const Key key{due, order_++};
    const auto at = std::upper_bound(queue_.begin(), queue_.end(), key,
                                     [](const Key& k, const auto& entry) { return k < entry.first; });
    queue_.insert(at, {key, std::move(e)});
  }
}

std::int64_t FaultSchedule::NextDueUs() const { return queue_.empty() ? -1 : queue_.front().first.due_us; }

std::vector<Emission> FaultSchedule::TakeDue(std::int64_t now_us) {
  std::vector<Emission> out;
  auto it = queue_.begin();
  while (it != queue_.end() && it->first.due_us <= now_us) {
    out.push_back(std::move(it->second));
    ++it;
  }
  queue_.erase(queue_.begin(), it);
  return out;
}

std::vector<std::uint16_t> PlannedSendOrder(const FaultScript& script, std::uint16_t first_sequence,
                                            std::uint32_t count) {
  FaultSchedule schedule(script);
  std::vector<std::uint16_t> order;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::int64_t now = static_cast<std::int64_t>(i) * FaultSchedule::kFrameUs;
    schedule.Add(i, static_cast<std::uint16_t>(first_sequence + i), now, {});
    for (const Emission& e : schedule.TakeDue(now)) order.push_back(e.sequence);
  }
  for (const Emission& e : schedule.TakeDue(INT64_MAX)) order.push_back(e.sequence);
  return order;
}

}  // namespace deskline::sim
