// Worker threads that are created held at a start gate and then resumed, so that a module can
// store the thread's id before the body runs: a worker loop ends when its stored id no longer
// matches its own. Every thread is joined before its object goes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace deskline::platform {

// Process-unique, never 0, never reused.
using ThreadId = std::uint32_t;

class Thread {
 public:
  using Body = std::function<void(ThreadId self)>;

  Thread() = default;
  ~Thread();  // Joins; a thread that was never resumed ends without running its body.
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Creates the thread held at its start gate. Returns its id, or 0 if the system refused.
  // Only one thread per object; a second Create fails until Join.
  ThreadId Create(std::string name, Body body);
  // Opens the gate; the body runs with the id that Create returned.
  void Resume();
  // Best effort: real-time scheduling for the voice paths. False if the system refused.
  bool SetTimeCritical();
  // Waits for the body to return. A thread held at its gate is released without running.
  // Safe to call twice, and from no thread but the owner's.
  void Join();

  ThreadId id() const;
  bool created() const { return state_ != nullptr; }

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// The id of the calling thread if it was made by Thread, else 0.
ThreadId CurrentThreadId();

}  // namespace deskline::platform
