// The retransmission list: every packet the terminal sends except an ACK stays here until the
// PBX acknowledges its tid, and goes out again after 500, 1000, 2000, 4000 ms and then every
// 1000 ms; after 16 retransmissions (17 sends in all, the last at 19,500 ms) it is dropped at
// 20,500 ms without a word to anyone.
//
// Time is the UTC time of day in milliseconds, as the caller reads it: an item alive across
// midnight sees a negative step, which counted unsigned makes it due at once (one early send).
//
// Thread rules: every operation takes the list lock. Scan holds it while it calls the resend
// function, which transmits and must not change the list; the lock is re-entrant so that a
// resend path that does reach the list again cannot deadlock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>

#include "platform/clock.h"
#include "ptap/ptap_packet.h"

namespace deskline {

struct PtapBufferItem {
  PtapPacket packet;  // header and payload as sent; elements stay empty
  platform::CivilTime sent_at;
  int attempts = 0;  // retransmissions so far
  int elapsed_ms = 0;
  std::uint32_t since_send_ms = 0;
};

class PtapBufferTable {
 public:
  static constexpr int kCapacity = 50;
  static constexpr int kMaxRetransmissions = 16;

  using Resend = std::function<void(PtapPacket& packet)>;

  // Milliseconds before the retransmission that follows `attempts` earlier ones.
  static std::uint32_t RetransmissionDelay(int attempts);
  static int MillisecondOfDay(const platform::CivilTime& t);

  // 0, or 1 when the list is full (the packet is then not tracked) or out of memory.
  int CopyToBuffer(const PtapPacket& packet, const platform::CivilTime& now_utc);
  // Removes the first item with `tid`; an unknown tid changes nothing.
  void RemoveFromBuffer(std::uint32_t tid);
  // Frees all items; 1 if the list was already empty, else 0.
  int ClearBuffer();
  // One pass of the retransmission thread: resends what is due, and drops at most one item
  // whose attempts are spent (the pass ends there).
  void Scan(const platform::CivilTime& now_utc, const Resend& resend);

  int count() const { return count_.load(); }
  bool empty() const { return count_.load() == 0; }
  // Attempts of the item with `tid`, or -1 if it is not in the list.
  int AttemptsOf(std::uint32_t tid) const;

 private:
  mutable std::recursive_mutex lock_;
  std::list<PtapBufferItem> items_;
  // Read without the lock by the retransmission thread's emptiness test.
  std::atomic<int> count_{0};
};

}  // namespace deskline
