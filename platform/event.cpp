#include "platform/event.h"

namespace deskline::platform {

void ManualResetEvent::Set() {
  {
    std::lock_guard lock(mutex_);
    set_ = true;
  }
  cv_.notify_all();
}

void ManualResetEvent::Reset() {
  std::lock_guard lock(mutex_);
  set_ = false;
}

bool ManualResetEvent::IsSet() const {
  std::lock_guard lock(mutex_);
  return set_;
}

bool ManualResetEvent::WaitFor(std::chrono::nanoseconds timeout) {
  std::unique_lock lock(mutex_);
  return cv_.wait_for(lock, timeout, [this] { return set_; });
}

}  // namespace deskline::platform
