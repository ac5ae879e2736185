#include "core/mailbox.h"

#include <cstring>
#include <new>

#include "support/tracer.h"

namespace deskline {

CMailbox::CMailbox() { DL_TRACE(TRACE_STATUS, "[MAILBOX] Module created"); }

CMailbox::~CMailbox() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[MAILBOX] Module destroyed");
}

int CMailbox::Start() {
  std::lock_guard lock(lock_);
  DL_TRACE(TRACE_STATUS, "[MAILBOX] Module starting");
  queue_.reset(new (std::nothrow) Queue());
  if (!queue_) {
    DL_TRACE(TRACE_CRITICAL, "[MAILBOX ::  CRITICAL ERROR] Object creation failed - Mailbox queue");
    return 1;
  }
  return 0;
}

int CMailbox::Shutdown() {
  std::lock_guard lock(lock_);
  if (!queue_) return 0;
  queue_.reset();
  DL_TRACE(TRACE_STATUS, "[MAILBOX] Module shutdown");
  return 0;
}

int CMailbox::Write(std::uint32_t code, const void* payload, std::int32_t length) {
  std::lock_guard lock(lock_);
  if (!queue_ || queue_->count >= kMaxItems) return 1;
  if (length < 1 || length > kMaxPayload || payload == nullptr) return 1;
  Item& item = queue_->items[(queue_->head + queue_->count) % kMaxItems];
  item.code = code;
  item.length = length;
  std::memset(item.payload, 0, sizeof(item.payload));
  std::memcpy(item.payload, payload, static_cast<std::size_t>(length));
  ++queue_->count;
  return 0;
}

int CMailbox::Read(std::uint32_t* code, void* payload, std::int32_t* length) {
  std::lock_guard lock(lock_);
  if (!queue_ || queue_->count == 0) return 1;
  if (code == nullptr || payload == nullptr || length == nullptr) return 1;
  const Item& item = queue_->items[queue_->head];
  *code = item.code;
  *length = item.length;
  std::memcpy(payload, item.payload, static_cast<std::size_t>(item.length));
  queue_->head = (queue_->head + 1) % kMaxItems;
  --queue_->count;
  return 0;
}

}  // namespace deskline
