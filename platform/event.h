// A manual-reset event: once set it stays set, and every waiter passes, until Reset.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace deskline::platform {

class ManualResetEvent {
 public:
  // The name is kept for traces only; events are process-local.
  explicit ManualResetEvent(std::string name = {}) : name_(std::move(name)) {}
  ManualResetEvent(const ManualResetEvent&) = delete;
  ManualResetEvent& operator=(const ManualResetEvent&) = delete;

  void Set();
  void Reset();
  bool IsSet() const;
  // Real-time wait; true if the event was set within `timeout`. Use Clock::WaitFor in code
  // that must also run in simulated time.
  bool WaitFor(std::chrono::nanoseconds timeout);

  const std::string& name() const { return name_; }

 private:
  std::string name_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  bool set_ = false;
};

}  // namespace deskline::platform
