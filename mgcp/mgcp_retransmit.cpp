#include "mgcp/mgcp_retransmit.h"

#include <new>

#include "mgcp/mgcp_parse.h"
#include "support/tracer.h"

namespace deskline {

MgcpRetransmitList::MgcpRetransmitList(platform::Clock& clock, TransmitFunction transmit)
    : clock_(clock), transmit_(std::move(transmit)) {}

std::uint32_t MgcpRetransmitList::ResendPeriod(std::int32_t resend_count) {
  switch (resend_count) {
    case 0:
      return 500;
    case 1:
      return 1000;
    case 2:
      return 2000;
    case 3:
      return 4000;
    default:
      // The periods double only up to 4000 ms and then fall back.
      return 1000;
  }
}

std::uint32_t MgcpRetransmitList::NowMs() const {
  const platform::CivilTime now = clock_.UtcNow();
  return static_cast<std::uint32_t>(now.hour) * 3'600'000u +
         static_cast<std::uint32_t>(now.minute) * 60'000u +
         static_cast<std::uint32_t>(now.second) * 1'000u +
         static_cast<std::uint32_t>(now.millisecond);
}

std::uint32_t MgcpRetransmitList::ElapsedMs(const Item& item, std::uint32_t now_ms) const {
  // Unsigned on purpose: across midnight the difference wraps and the item is due at once.
  return now_ms - item.firstSentMs - item.accumulatedMs;
}

bool MgcpRetransmitList::HoldForResend(const MgcpPacket& packet) {
  std::lock_guard lock(bufferLock_);
  const std::uint32_t event = ClassifyOutbound(packet.Text());
  // Responses are never held; when the list is full a message goes out once, unheld.
  if (packet.isResend == 1 || event == MGCP_EVENT_SEND_RESPONSE || count_ >= kMaxItems) {
    return false;
  }
  if (AddBufferItem(packet) != 0) return false;
  std::uint32_t tid = 0;
  ParseTransactionId(packet.Text(), &tid);
  DL_TRACE(TRACE_DETAIL, "[MGCP] Packet transmitted: Event = %d; tID = %d; Buffer size = %d",
           static_cast<int>(event), static_cast<int>(tid), count_);
  return true;
}

int MgcpRetransmitList::AddBufferItem(const MgcpPacket& packet) {
  std::lock_guard lock(bufferLock_);
  if (count_ >= kMaxItems) return 1;
  try {
    items_.emplace_back();
  } catch (const std::bad_alloc&) {
    DL_TRACE(TRACE_CRITICAL,
             "[MGCP :: CRITICAL ERROR] Object creation failed - Retransmission buffer item");
    return 1;
  }
  Item& item = items_.back();
  item.packet.data = packet.data;
  item.packet.length = static_cast<std::uint32_t>(packet.Text().size());
  item.firstSentMs = NowMs();
  ParseTransactionId(item.packet.Text(), &item.transactionId);
  ++count_;
  if (count_ == 1) {
    DL_TRACE(TRACE_STATUS, "[MGCP] Created FIRST node in retransmission buffer");
  } else {
    DL_TRACE(TRACE_STATUS, "[MGCP] Added node to END of retransmission buffer");
  }
  return 0;
}

int MgcpRetransmitList::FreeBufferItem(std::uint32_t transaction_id) {
  std::lock_guard lock(bufferLock_);
  if (count_ <= 0) return 1;
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (it->freed || it->transactionId != transaction_id) continue;
    --count_;
    // A pass that is walking the list removes the item itself when it is done.
    if (pass_depth_ > 0) {
      it->freed = true;
    } else {
      items_.erase(it);
    }
    DL_TRACE(TRACE_DETAIL, "[MGCP] Free buffer operation - Packet tid = %d deleted. Buffer size = %d",
             static_cast<int>(transaction_id), count_);
    return 0;
  }
  return 0;
}

int MgcpRetransmitList::ClearBufferTable() {
  std::lock_guard lock(bufferLock_);
  if (count_ < 1) return 1;
  if (pass_depth_ > 0) {
    for (Item& item : items_) item.freed = true;
  } else {
    items_.clear();
  }
  count_ = 0;
  return 0;
}

void MgcpRetransmitList::Sweep() {
  items_.remove_if([](const Item& item) { return item.freed; });
}

void MgcpRetransmitList::ResendDue() {
  std::lock_guard lock(bufferLock_);
  ++pass_depth_;
  for (Item& item : items_) {
    if (item.freed) continue;
    item.elapsedMs = ElapsedMs(item, NowMs());
    if (item.elapsedMs < ResendPeriod(item.resendCount)) continue;
    if (item.resendCount < kMaxResends) {
      item.packet.isResend = 1;
      if (transmit_) transmit_(item.packet);
      item.packet.isResend = 0;
      item.accumulatedMs += item.elapsedMs;
      ++item.resendCount;
      DL_TRACE(TRACE_DETAIL, "[MGCP] Resend tid = %d. Count = %d. Test period exceeded = %d",
               static_cast<int>(item.transactionId), item.resendCount,
               static_cast<int>(item.elapsedMs));
      item.elapsedMs = 0;
    } else {
      DL_TRACE(TRACE_DETAIL, "[MGCP] MAX %d exceeded. Buffer size = %d. Freed buffer tid = %d",
               item.resendCount, count_, static_cast<int>(item.transactionId));
      item.freed = true;
      --count_;
      DL_TRACE(TRACE_DETAIL,
               "[MGCP] Free buffer operation - Packet tid = %d deleted. Buffer size = %d",
               static_cast<int>(item.transactionId), count_);
    }
  }
  if (--pass_depth_ == 0) Sweep();
}

std::optional<std::uint32_t> MgcpRetransmitList::NextDueMs() const {
  std::lock_guard lock(bufferLock_);
  const std::uint32_t now = NowMs();
  std::optional<std::uint32_t> next;
  for (const Item& item : items_) {
    if (item.freed) continue;
    const std::uint32_t elapsed = ElapsedMs(item, now);
    const std::uint32_t period = ResendPeriod(item.resendCount);
    const std::uint32_t due = elapsed >= period ? 0 : period - elapsed;
    if (!next || due < *next) next = due;
  }
  return next;
}

std::int32_t MgcpRetransmitList::count() const {
  std::lock_guard lock(bufferLock_);
  return count_;
}

}  // namespace deskline
