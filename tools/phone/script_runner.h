// Runs parsed commands against the library's call control: keys and dial strings go out at
// once, waits pass in the injected clock's time and end early when the stop event is set.
//
// Thread rules: one thread runs the commands; the view it reads is filled by callback threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/clock.h"
#include "platform/event.h"
#include "tools/phone/commands.h"
#include "tools/phone/phone_view.h"

namespace deskline::phone {

// The library's call control as the runner uses it; results as the exports give them.
class PhoneActions {
 public:
  virtual ~PhoneActions() = default;
  virtual std::int32_t PutKey(std::uint32_t key) = 0;
  virtual std::int32_t MakeCall(const std::string& number) = 0;
  virtual std::int32_t SendError(std::uint32_t code) = 0;
  // What the number formatter makes of a typed number; nullopt when it refuses.
  virtual std::optional<std::string> FormatNumber(const std::string& number) = 0;
};

struct StepOutcome {
  enum class Kind { kOk, kFailed, kQuit, kStopped };
  Kind kind = Kind::kOk;
  std::string message;  // what happened, for the live view; empty when there is nothing to say
};

class ScriptRunner {
 public:
  // How often a wait looks at the view again.
  static constexpr std::chrono::milliseconds kPollInterval{20};

  ScriptRunner(PhoneActions& actions, const PhoneView& view, platform::Clock& clock,
               platform::ManualResetEvent& stop)
      : actions_(actions), view_(view), clock_(clock), stop_(stop) {}

  // Runs one command; blocks for waits. kStatus, kDevices and kHelp are left to the caller
  // (kOk).
  // A wait-ring, wait-media or wait-end is met by an event that arrived since the last wait of
  // its kind, also one that came before the command, so a script cannot miss a quick event.
  StepOutcome Run(const Command& command);

 private:
  template <typename Predicate>
  StepOutcome WaitUntil(const Command& command, const char* what, Predicate done);

  PhoneActions& actions_;
  const PhoneView& view_;
  platform::Clock& clock_;
  platform::ManualResetEvent& stop_;
  CallCounts seen_;  // the counts that earlier waits have used up
};

}  // namespace deskline::phone
