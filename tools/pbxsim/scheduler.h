// Runs tasks at due times on one worker thread, on an injected clock: delayed datagrams and
// periodic keepalives now, MGCP resends and RTP pacing later. With a manual simulated clock a
// test decides when each task runs; with the real clock the thread sleeps until the next due
// time or until new work arrives, never polling.
//
// Thread rules: Schedule and Cancel from any thread, tasks included. Tasks run on the worker
// thread, one at a time, without the scheduler's lock, so a task may schedule the next one.
// Start and Stop belong to the owner; Stop joins the worker.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"

namespace deskline::sim {

class Scheduler {
 public:
  using Task = std::function<void()>;
  using TaskId = std::uint64_t;

  // `clock` must outlive the scheduler.
  explicit Scheduler(platform::Clock& clock) : clock_(clock) {}
  ~Scheduler() { Stop(); }
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Starts the worker. False if it is already running or the thread cannot be made.
  bool Start();
  // Ends the worker and joins it; tasks not yet due are dropped unrun. Safe to repeat.
  void Stop();

  // Runs `task` once the clock reads `due_ns` or later; tasks due at the same time run in the
  // order they were scheduled. Returns its id, or 0 when the scheduler is not running.
  TaskId At(std::int64_t due_ns, Task task);
  TaskId After(std::chrono::milliseconds delay, Task task);
  // True if the task was still waiting and now never runs.
  bool Cancel(TaskId id);
  std::size_t pending() const;

 private:
  void Run();

  platform::Clock& clock_;
  mutable std::mutex mutex_;
  std::map<std::pair<std::int64_t, TaskId>, Task> tasks_;  // by due time, then by order
  TaskId next_id_ = 1;
  bool running_ = false;
  bool stopping_ = false;
  platform::ManualResetEvent wake_{"pbxsim scheduler"};
  platform::Thread thread_;
};

}  // namespace deskline::sim
