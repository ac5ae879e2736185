// The list of messages that the terminal sent of its own accord (NTFY, RSIP, DLCX) and that
// still wait for a response. Each item is sent again after 500, 1000, 2000 and 4000 ms and
// then every 1000 ms: 16 sends in all, and at the next due time it is dropped without further
// notice. Times are milliseconds of the UTC day, subtracted in unsigned 32-bit arithmetic, so a
// message pending across midnight is due at once and then goes on from there.
//
// No thread of its own: the owner calls ResendDue from its retransmission thread and adds and
// frees items from its socket and command paths. Every operation takes `bufferLock`, which is
// re-entrant; the transmit function runs under it and must not block for long.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>

#include "mgcp/mgcp_types.h"
#include "platform/clock.h"

namespace deskline {

class MgcpRetransmitList {
 public:
  // Sends one datagram; its result does not change the schedule.
  using TransmitFunction = std::function<int(const MgcpPacket& packet)>;

  static constexpr std::int32_t kMaxItems = 50;
  static constexpr std::int32_t kMaxResends = 15;

  // `clock` must outlive the list.
  MgcpRetransmitList(platform::Clock& clock, TransmitFunction transmit);
  MgcpRetransmitList(const MgcpRetransmitList&) = delete;
  MgcpRetransmitList& operator=(const MgcpRetransmitList&) = delete;

  // The wait before resend number `resend_count` + 1: 500, 1000, 2000, 4000, then 1000 ms.
  static std::uint32_t ResendPeriod(std::int32_t resend_count);

  // After a first send: holds a copy of `packet` if it is no resend, no response, and the list
  // has room. Returns true if it was held. Any thread.
  bool HoldForResend(const MgcpPacket& packet);

  // Copies the message and notes now as its first send. Returns 1 if the list is full or the
  // item cannot be made (traced), else 0. Any thread.
  int AddBufferItem(const MgcpPacket& packet);
  // Frees the oldest item with `transaction_id`. Returns 1 if the list is empty, else 0 (also
  // when no item has that id). Any thread, also from within the transmit function.
  int FreeBufferItem(std::uint32_t transaction_id);
  // Frees every item. Returns 1 (doing nothing) if there is none, else 0.
  int ClearBufferTable();

  // One pass over the list: resends what is due and drops what has been resent 15 times.
  // Called by the retransmission thread.
  void ResendDue();

  // Milliseconds until the next item is due (0: now), or nothing when the list is empty. Lets
  // the retransmission thread sleep until then instead of polling.
  std::optional<std::uint32_t> NextDueMs() const;

  std::int32_t count() const;

 private:
  struct Item {
    MgcpPacket packet;
    std::int32_t resendCount = 0;
    std::uint32_t accumulatedMs = 0;  // sum of the elapsed times of all resends so far
    std::uint32_t elapsedMs = 0;      // since the last send, as last computed
    std::uint32_t firstSentMs = 0;    // milliseconds of the UTC day when it was added
    std::uint32_t transactionId = 0;
    bool freed = false;  // freed during a pass; removed when the pass ends
  };

  std::uint32_t NowMs() const;
  std::uint32_t ElapsedMs(const Item& item, std::uint32_t now_ms) const;
  void Sweep();

  platform::Clock& clock_;
  TransmitFunction transmit_;
  mutable std::recursive_mutex bufferLock_;
  std::list<Item> items_;
  std::int32_t count_ = 0;  // items not freed
  int pass_depth_ = 0;      // > 0 while ResendDue walks the list
};

}  // namespace deskline
