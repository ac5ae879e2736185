// Polling for what other threads do in real time: sockets, receive threads, processes.
#pragma once

#include <chrono>
#include <thread>

namespace deskline::testing {

// Looks at `condition` every millisecond until it holds (true) or `timeout` has passed
// (false, after one last look).
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
  const auto until = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= until) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace deskline::testing
