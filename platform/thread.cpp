#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace deskline::platform {
namespace {

std::atomic<ThreadId> g_next_id{1};
thread_local ThreadId t_current_id = 0;

}  // namespace

struct Thread::State {
  std::mutex mutex;
  std::condition_variable cv;
  bool open = false;      // gate opened by Resume
  bool cancelled = false; // gate opened by Join without Resume
  ThreadId id = 0;
  std::thread thread;
};

Thread::~Thread() { Join(); }

ThreadId Thread::Create(std::string name, Body body) {
  if (state_) return 0;
  auto state = std::make_shared<State>();
  state->id = g_next_id.fetch_add(1, std::memory_order_relaxed);
  try {
    state->thread = std::thread([state, body = std::move(body), name = std::move(name)] {
      if (!name.empty()) {
        // Linux limits thread names to 15 characters.
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
      }
      {
        std::unique_lock lock(state->mutex);
        state->cv.wait(lock, [&] { return state->open || state->cancelled; });
        if (state->cancelled && !state->open) return;
      }
      t_current_id = state->id;
      body(state->id);
    });
  } catch (const std::system_error&) {
    return 0;
  }
  state_ = std::move(state);
  return state_->id;
}

void Thread::Resume() {
  if (!state_) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->open = true;
  }
  state_->cv.notify_all();
}

bool Thread::SetTimeCritical() {
  if (!state_ || !state_->thread.joinable()) return false;
  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO);
  return pthread_setschedparam(state_->thread.native_handle(), SCHED_FIFO, &param) == 0;
}

void Thread::Join() {
  if (!state_) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->cancelled = true;
  }
  state_->cv.notify_all();
  if (state_->thread.joinable()) {
    if (state_->thread.get_id() == std::this_thread::get_id()) {
      // A body that ends its own module: it cannot join itself, so it lets go.
      state_->thread.detach();
    } else {
      state_->thread.join();
    }
  }
  state_.reset();
}

ThreadId Thread::id() const { return state_ ? state_->id : 0; }

ThreadId CurrentThreadId() { return t_current_id; }

}  // namespace deskline::platform
