#include "ptap/ptap_buffer.h"

#include <new>

#include "support/tracer.h"

namespace deskline {

std::uint32_t PtapBufferTable::RetransmissionDelay(int attempts) {
  switch (attempts) {
    case 0: return 500;
    case 1: return 1000;
    case 2: return 2000;
    case 3: return 4000;
    default: return 1000;
  }
}

int PtapBufferTable::MillisecondOfDay(const platform::CivilTime& t) {
  return t.hour * 3600000 + t.minute * 60000 + t.second * 1000 + t.millisecond;
}

int PtapBufferTable::CopyToBuffer(const PtapPacket& packet, const platform::CivilTime& now_utc) {
  std::lock_guard lock(lock_);
  if (count_.load() >= kCapacity) {
    DL_TRACE(TRACE_ERROR, "[PTAP :: ERROR] Copy to buffer operation - Buffer is full");
    return 1;
  }
  // The item is made aside and linked in only when whole.
  std::list<PtapBufferItem> node;
  try {
    PtapBufferItem& item = node.emplace_back();
    item.packet.magic = packet.magic;
    item.packet.tid = packet.tid;
    item.packet.type = packet.type;
    item.packet.payload = packet.payload;
    item.sent_at = now_utc;
  } catch (const std::bad_alloc&) {
    DL_TRACE(TRACE_ERROR, "[PTAP :: ERROR] Copy to buffer operation - Buffer allocation failed");
    return 1;
  }
  items_.splice(items_.end(), node);
  const int count = count_.fetch_add(1) + 1;
  DL_TRACE(TRACE_DETAIL, "[PTAP] Copy to buffer operation - tID[%d], items[%d]",
           static_cast<int>(packet.tid), count);
  return 0;
}

void PtapBufferTable::RemoveFromBuffer(std::uint32_t tid) {
  std::lock_guard lock(lock_);
  DL_TRACE(TRACE_DETAIL, "[PTAP] Free buffer operation - tID[%d]", static_cast<int>(tid));
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (it->packet.tid == tid) {
      DL_TRACE(TRACE_DETAIL, "[PTAP] Delete item operation - Target tID[%d]",
               static_cast<int>(tid));
      items_.erase(it);
      count_.fetch_sub(1);
      break;
    }
  }
  DL_TRACE(TRACE_DETAIL, "[PTAP] Free buffer operation - Buffer item count: %d", count_.load());
}

int PtapBufferTable::ClearBuffer() {
  std::lock_guard lock(lock_);
  const bool was_empty = items_.empty();
  items_.clear();
  count_.store(0);
  return was_empty ? 1 : 0;
}

void PtapBufferTable::Scan(const platform::CivilTime& now_utc, const Resend& resend) {
  std::lock_guard lock(lock_);
  const int now_ms = MillisecondOfDay(now_utc);
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    PtapBufferItem& item = *it;
    // Negative across midnight; as unsigned it makes the item due at once.
    const int delta = now_ms - MillisecondOfDay(item.sent_at) - item.elapsed_ms;
    item.since_send_ms += static_cast<std::uint32_t>(delta);
    item.elapsed_ms += delta;
    if (item.since_send_ms < RetransmissionDelay(item.attempts)) continue;
    if (item.attempts < kMaxRetransmissions) {
      item.packet.resend = true;
      if (resend) resend(item.packet);
      item.packet.resend = false;
      item.since_send_ms = 0;
      DL_TRACE(TRACE_DETAIL, "[PTAP] Resend packet - Attempt #%d", item.attempts + 1);
      ++item.attempts;
      continue;
    }
    DL_TRACE(TRACE_DETAIL, "[PTAP] Free buffer - Attempted #%d times", item.attempts + 1);
    items_.erase(it);
    count_.fetch_sub(1);
    return;  // one drop per pass; the next one goes on the next pass
  }
}

int PtapBufferTable::AttemptsOf(std::uint32_t tid) const {
  std::lock_guard lock(lock_);
  for (const PtapBufferItem& item : items_) {
    if (item.packet.tid == tid) return item.attempts;
  }
  return -1;
}

}  // namespace deskline
