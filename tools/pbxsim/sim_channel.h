// What the PBX simulator's two channels share: PTAP on one side, the MGCP call agent on the
// other. Each has one UDP socket on loopback with a receive thread, a scheduler for whatever
// is late, network rules that bend both directions, and the record of every datagram, printed
// as it is kept and trimmed past a limit. A channel says how to type a datagram for its rules,
// how to decode it into a record, and what to do with one that reaches it.
//
// Thread rules: the public operations may be called from any thread. `mutex_` guards this
// class and the derived one; the ...Locked operations run with it held. Delayed datagrams take
// it again on the scheduler thread and do nothing once the channel has stopped. A derived
// class calls Stop in its destructor, while its own overrides still exist.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/record.h"
#include "tools/pbxsim/scheduler.h"

namespace deskline::sim {

struct SimChannelSetup {
  Channel channel = Channel::kPtap;
  const char* thread_name = "pbxsim";
  std::uint32_t ip = 0x7F000001;     // host order
  std::uint16_t port = 0;            // 0: any free port
  platform::Clock* clock = nullptr;  // null: the real clock; not owned
  std::uint64_t seed = 0;            // for rules with a probability
  std::size_t record_limit = 0;      // 0 keeps every record; else the oldest go first
  std::function<void(std::string_view line)> print;  // one line per recorded datagram
};

class SimChannel {
 public:
  SimChannel(const SimChannel&) = delete;
  SimChannel& operator=(const SimChannel&) = delete;

  // Binds the socket and starts the threads. False if the port is taken, the threads cannot
  // be made, or it is already running (then nothing changes).
  bool Start();
  // Ends and joins the threads and closes the socket. Datagrams not yet due are dropped; the
  // records stay. Safe to repeat; Start may follow.
  void Stop();
  bool running() const;
  // The bound address; port 0 while stopped.
  platform::UdpEndpoint endpoint() const;
  std::uint16_t port() const { return endpoint().port; }
  // The steady time that printed lines count from: the first Start unless set.
  void SetOrigin(std::int64_t origin_ns);
  std::int64_t origin_ns() const;

  // Rules whose `type` is the channel's datagram type (nullopt: every datagram, malformed
  // ones too).
  void AddRule(const NetRule& rule);
  void ClearRules();
  std::vector<Record> Records() const;

  // Waits until `predicate` holds, looking again whenever something changes. The predicate
  // runs without the lock, so it may call the accessors. Waits in real time (datagrams arrive
  // in real time); true if it held before `timeout`.
  bool WaitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) const;

 protected:
  explicit SimChannel(SimChannelSetup setup);
  virtual ~SimChannel() = default;

  // The channel's type of a datagram for its rules; nullopt for one it cannot read.
  virtual std::optional<std::uint8_t> RuleType(std::span<const std::byte> datagram) const = 0;
  // Fills the record's decoded view of its raw bytes.
  virtual void Decode(Record& record) const = 0;
  // A datagram that passed the rules. Lock held.
  virtual void HandleLocked(const std::vector<std::byte>& raw, platform::UdpEndpoint from) = 0;
  // After each record is kept, lock held: anything that grows with the records trims too.
  virtual void TrimLocked(std::size_t /*record_limit*/) {}
  // Neighbours that start and stop with the channel, without the lock: after the socket is
  // bound (false unwinds the start) and after it is closed.
  virtual bool StartNeighbours() { return true; }
  virtual void StopNeighbours() {}
  // Lock held, as the channel stops: end series of the derived class's own.
  virtual void StoppingLocked() {}

  // Passes one outgoing datagram to the terminal through the rules and onto the wire. False
  // if nothing went out (stopped, no terminal known).
  bool EmitLocked(std::vector<std::byte> datagram);
  void RecordLocked(Direction direction, Fate fate, int delay_ms, platform::UdpEndpoint peer,
                    const std::vector<std::byte>& raw);
  // Wakes WaitFor.
  void ChangedLocked();

  platform::Clock& clock_;
  Scheduler scheduler_;
  mutable std::mutex mutex_;
  bool running_ = false;
  NetRules rules_;
  std::optional<platform::UdpEndpoint> terminal_;
  std::deque<Record> records_;

 private:
  void ReceiveLoop();
  void OnDatagram(std::vector<std::byte> raw, platform::UdpEndpoint from);
  void WriteLocked(const std::vector<std::byte>& datagram, platform::UdpEndpoint to, Fate fate,
                   int delay_ms);

  const SimChannelSetup setup_;
  platform::UdpSocket socket_;
  platform::Thread receive_thread_;
  std::mutex life_mutex_;  // serialises Start and Stop; never taken under mutex_
  mutable std::condition_variable changed_;
  std::uint64_t changes_ = 0;  // bumped with every change, so waiters know to look again
  platform::UdpEndpoint bound_;
  std::uint64_t next_record_index_ = 0;
  std::optional<std::int64_t> origin_ns_;
};

}  // namespace deskline::sim
