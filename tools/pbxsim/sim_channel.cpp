#include "tools/pbxsim/sim_channel.h"

#include <thread>

namespace deskline::sim {
namespace {

// Room for any UDP datagram, so that an oversized one is recorded whole, not cut.
constexpr std::size_t kReceiveBytes = 65536;

}  // namespace

SimChannel::SimChannel(SimChannelSetup setup)
    : clock_(setup.clock ? *setup.clock : platform::RealClock()),
      scheduler_(clock_),
      rules_(setup.seed),
      setup_(std::move(setup)) {}

bool SimChannel::Start() {
  std::lock_guard life(life_mutex_);
  if (socket_.is_open()) return false;
  if (!socket_.Open({setup_.ip, setup_.port})) return false;
  const std::optional<platform::UdpEndpoint> local = socket_.LocalEndpoint();
  if (!local || !scheduler_.Start()) {
    socket_.Close();
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    if (!origin_ns_) origin_ns_ = clock_.SteadyNs();
  }
  if (!StartNeighbours()) {
    scheduler_.Stop();
    socket_.Close();
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    running_ = true;
    bound_ = *local;
  }
  if (receive_thread_.Create(setup_.thread_name, [this](platform::ThreadId) { ReceiveLoop(); }) == 0) {
    {
      std::lock_guard lock(mutex_);
      running_ = false;
      bound_ = {};
    }
    StopNeighbours();
    scheduler_.Stop();
    socket_.Close();
    return false;
  }
  receive_thread_.Resume();
  return true;
}

void SimChannel::Stop() {
  std::lock_guard life(life_mutex_);
  if (!socket_.is_open()) return;
  {
    std::lock_guard lock(mutex_);
    running_ = false;
    StoppingLocked();
  }
  // Shutting the socket down releases the blocked receive; the descriptor is closed only
  // once nothing can use it any more.
  socket_.Shutdown();
  receive_thread_.Join();
  scheduler_.Stop();
  socket_.Close();
  StopNeighbours();
  std::lock_guard lock(mutex_);
  bound_ = {};
  ChangedLocked();
}

bool SimChannel::running() const {
  std::lock_guard lock(mutex_);
  return running_;
}

platform::UdpEndpoint SimChannel::endpoint() const {
  std::lock_guard lock(mutex_);
  return bound_;
}

void SimChannel::SetOrigin(std::int64_t origin_ns) {
  std::lock_guard lock(mutex_);
  origin_ns_ = origin_ns;
}

std::int64_t SimChannel::origin_ns() const {
  std::lock_guard lock(mutex_);
  return origin_ns_.value_or(0);
}

void SimChannel::AddRule(const NetRule& rule) {
  std::lock_guard lock(mutex_);
  rules_.Add(rule);
}

void SimChannel::ClearRules() {
  std::lock_guard lock(mutex_);
  rules_.Clear();
}

std::vector<Record> SimChannel::Records() const {
  std::lock_guard lock(mutex_);
  return std::vector<Record>(records_.begin(), records_.end());
}

bool SimChannel::WaitFor(const std::function<bool()>& predicate,
                         std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  for (;;) {
    const std::uint64_t seen = changes_;
    lock.unlock();
    if (predicate()) return true;
    lock.lock();
    if (!changed_.wait_until(lock, deadline, [&] { return changes_ != seen; })) {
      lock.unlock();
      return predicate();
    }
  }
}

void SimChannel::ReceiveLoop() {
  std::vector<std::byte> buffer(kReceiveBytes);
  for (;;) {
    platform::UdpEndpoint from;
    const std::optional<std::size_t> length = socket_.Receive(buffer, &from);
    if (!length) {
      if (!running()) return;
      // A transient socket error: try again, without spinning on it.
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    OnDatagram(std::vector<std::byte>(buffer.begin(),
                                      buffer.begin() + static_cast<std::ptrdiff_t>(*length)),
               from);
  }
}

void SimChannel::OnDatagram(std::vector<std::byte> raw, platform::UdpEndpoint from) {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  const Verdict verdict = rules_.Apply(Direction::kIn, RuleType(raw));
  const Fate fate =
      verdict.drop ? Fate::kDropped : (verdict.delay_ms > 0 ? Fate::kDelayed : Fate::kPassed);
  RecordLocked(Direction::kIn, fate, verdict.delay_ms, from, raw);
  if (verdict.drop) return;
  if (verdict.duplicate) RecordLocked(Direction::kIn, Fate::kDuplicate, verdict.delay_ms, from, raw);
  const int copies = verdict.duplicate ? 2 : 1;
  if (verdict.delay_ms > 0) {
    scheduler_.After(std::chrono::milliseconds(verdict.delay_ms),
                     [this, raw = std::move(raw), from, copies] {
                       std::lock_guard task_lock(mutex_);
                       if (!running_) return;
                       for (int i = 0; i < copies; ++i) HandleLocked(raw, from);
                     });
    return;
  }
  for (int i = 0; i < copies; ++i) HandleLocked(raw, from);
}

bool SimChannel::EmitLocked(std::vector<std::byte> datagram) {
  if (!running_ || !terminal_) return false;
  const platform::UdpEndpoint to = *terminal_;
  const Verdict verdict = rules_.Apply(Direction::kOut, RuleType(datagram));
  if (verdict.drop) {
    RecordLocked(Direction::kOut, Fate::kDropped, 0, to, datagram);
    return true;
  }
  const bool duplicate = verdict.duplicate;
  if (verdict.delay_ms > 0) {
    const int delay_ms = verdict.delay_ms;
    return scheduler_.After(std::chrono::milliseconds(delay_ms),
                            [this, datagram = std::move(datagram), to, duplicate, delay_ms] {
                              std::lock_guard task_lock(mutex_);
                              if (!running_) return;
                              WriteLocked(datagram, to, Fate::kDelayed, delay_ms);
                              if (duplicate) WriteLocked(datagram, to, Fate::kDuplicate, delay_ms);
                            }) != 0;
  }
  WriteLocked(datagram, to, Fate::kPassed, 0);
  if (duplicate) WriteLocked(datagram, to, Fate::kDuplicate, 0);
  return true;
}

void SimChannel::WriteLocked(const std::vector<std::byte>& datagram, platform::UdpEndpoint to,
                             Fate fate, int delay_ms) {
  const bool sent = socket_.SendTo(datagram, to);
  RecordLocked(Direction::kOut, sent ? fate : Fate::kSendFailed, delay_ms, to, datagram);
}

void SimChannel::RecordLocked(Direction direction, Fate fate, int delay_ms,
                              platform::UdpEndpoint peer, const std::vector<std::byte>& raw) {
  Record record;
  record.index = next_record_index_++;
  record.steady_ns = clock_.SteadyNs();
  record.channel = setup_.channel;
  record.direction = direction;
  record.fate = fate;
  record.delay_ms = delay_ms;
  record.peer = peer;
  record.raw = raw;
  Decode(record);
  if (setup_.print) setup_.print(FormatRecord(record, origin_ns_.value_or(0)));
  records_.push_back(std::move(record));
  if (setup_.record_limit != 0) {
    while (records_.size() > setup_.record_limit) records_.pop_front();
    TrimLocked(setup_.record_limit);
  }
  ChangedLocked();
}

void SimChannel::ChangedLocked() {
  ++changes_;
  changed_.notify_all();
}

}  // namespace deskline::sim
