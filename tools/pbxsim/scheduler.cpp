#include "tools/pbxsim/scheduler.h"

namespace deskline::sim {
namespace {

// With nothing scheduled the worker waits on the event alone, in real time: simulated time
// must not run on by itself while there is nothing to wait for.
constexpr std::chrono::milliseconds kIdleWait{1000};

}  // namespace

bool Scheduler::Start() {
  std::lock_guard lock(mutex_);
  if (running_) return false;
  stopping_ = false;
  wake_.Reset();
  if (thread_.Create("pbxsim-timer", [this](platform::ThreadId) { Run(); }) == 0) return false;
  running_ = true;
  thread_.Resume();
  return true;
}

void Scheduler::Stop() {
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    stopping_ = true;
  }
  wake_.Set();
  thread_.Join();
  std::lock_guard lock(mutex_);
  tasks_.clear();
  running_ = false;
}

Scheduler::TaskId Scheduler::At(std::int64_t due_ns, Task task) {
  TaskId id;
  {
    std::lock_guard lock(mutex_);
    if (!running_ || stopping_) return 0;
    id = next_id_++;
    tasks_.emplace(std::make_pair(due_ns, id), std::move(task));
  }
  wake_.Set();
  return id;
}

Scheduler::TaskId Scheduler::After(std::chrono::milliseconds delay, Task task) {
  return At(clock_.SteadyNs() + std::chrono::nanoseconds(delay).count(), std::move(task));
}

bool Scheduler::Cancel(TaskId id) {
  std::lock_guard lock(mutex_);
  for (auto it = tasks_.begin(); it != tasks_.end(); ++it) {
    if (it->first.second == id) {
      tasks_.erase(it);
      return true;
    }
  }
  return false;
}

std::size_t Scheduler::pending() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}

void Scheduler::Run() {
  for (;;) {
    // Reset before looking, so that work added after the look sets the event again and the
    // wait below returns at once.
    wake_.Reset();
    Task task;
    std::int64_t wait_ns = -1;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      if (!tasks_.empty()) {
        const auto first = tasks_.begin();
        const std::int64_t now = clock_.SteadyNs();
        if (first->first.first <= now) {
          task = std::move(first->second);
          tasks_.erase(first);
        } else {
          wait_ns = first->first.first - now;
        }
      }
    }
    if (task) {
      task();
      continue;
    }
    if (wait_ns < 0) {
      wake_.WaitFor(kIdleWait);
    } else {
      // Rounded up: waking early would only loop once more.
      const auto wait = std::chrono::milliseconds((wait_ns + 999'999) / 1'000'000);
      clock_.WaitFor(wake_, wait);
    }
  }
}

}  // namespace deskline::sim
