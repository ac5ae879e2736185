#include "tools/pbxsim/terminal_watch.h"

#include <algorithm>
#include <cstdio>

#include "tools/pbxsim/ptap_wire.h"

namespace deskline::sim {

bool TerminalWatch::Registered() const {
  return agent_ != nullptr && pbx_ != nullptr && agent_->AcceptedRsips() > 0 &&
         pbx_->Handled(kTypeOpBegin) > 0;
}

std::uint64_t TerminalWatch::KeyEvents(std::uint16_t key) const {
  if (agent_ == nullptr) return 0;
  char event[16];
  std::snprintf(event, sizeof(event), "X-P/fk%04x", static_cast<unsigned>(key));
  return agent_->EventCount(event);
}

bool TerminalWatch::Check(const WaitRequest& request) {
  switch (request.kind) {
    case WaitRequest::Kind::kRegister:
      return Registered();
    case WaitRequest::Kind::kKey: {
      const std::uint64_t events = KeyEvents(request.key);
      std::uint64_t& used = keys_used_[request.key];
      if (events <= used) return false;
      used = events;
      return true;
    }
    case WaitRequest::Kind::kMedia:
      return media_ != nullptr && media_->ReceivedCount() >= request.count;
  }
  return false;
}

TerminalWatch::Outcome TerminalWatch::Wait(const WaitRequest& request,
                                           const std::function<bool()>& interrupted) {
  const std::int64_t deadline_ns =
      clock_.SteadyNs() + std::chrono::nanoseconds(request.timeout).count();
  for (;;) {
    if (interrupted && interrupted()) return Outcome::kInterrupted;
    if (Check(request)) return Outcome::kMet;
    const std::int64_t left_ns = deadline_ns - clock_.SteadyNs();
    if (left_ns <= 0) return Outcome::kTimedOut;
    const std::int64_t step_ms = std::min<std::int64_t>(
        kPollInterval.count(), std::max<std::int64_t>(1, (left_ns + 999'999) / 1'000'000));
    clock_.SleepFor(std::chrono::milliseconds(step_ms));
  }
}

std::string TerminalWatch::Describe(const WaitRequest& request) {
  switch (request.kind) {
    case WaitRequest::Kind::kRegister:
      return "wait-register";
    case WaitRequest::Kind::kKey: {
      char key[8];
      std::snprintf(key, sizeof(key), "%04x", static_cast<unsigned>(request.key));
      return std::string("wait-key ") + key;
    }
    case WaitRequest::Kind::kMedia:
      return "wait-media " + std::to_string(request.count);
  }
  return "wait";
}

}  // namespace deskline::sim
