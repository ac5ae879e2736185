// Carries out a script's waits on the terminal (WaitRequest of agent_script.h): registration,
// a key press reported by NTFY, media packets received. It reads counters that the simulator,
// the call agent and the media channel keep for their whole life, so that a wait never misses
// an event that came before it, however short the record limit.
//
// Thread rules: one thread (the command line's) uses a TerminalWatch; what it reads is
// thread-safe, except the media channel, which belongs to that same thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "platform/clock.h"
#include "tools/pbxsim/agent_script.h"
#include "tools/pbxsim/media_channel.h"
#include "tools/pbxsim/mgcp_agent.h"
#include "tools/pbxsim/pbx_simulator.h"

namespace deskline::sim {

class TerminalWatch {
 public:
  // How often a wait looks again, on the clock.
  static constexpr std::chrono::milliseconds kPollInterval{20};

  enum class Outcome { kMet, kTimedOut, kInterrupted };

  // Any of the three may be null: a wait on what is missing is never met.
  TerminalWatch(const PbxSimulator* pbx, const MgcpAgent* agent, const MediaChannel* media,
                platform::Clock& clock)
      : pbx_(pbx), agent_(agent), media_(media), clock_(clock) {}

  // The terminal's RSIP was accepted (2xx) and its PTAP OP_BEGIN arrived, at any time so far.
  bool Registered() const;
  // Whether `request` is met now. A met wait-key uses up every event of its key so far, so
  // the next wait-key for that key needs a new one.
  bool Check(const WaitRequest& request);
  // Looks at once and then every kPollInterval of the clock until the request is met, its
  // timeout has passed, or `interrupted` (asked before every look; it may do periodic work
  // of the caller's) returns true.
  Outcome Wait(const WaitRequest& request, const std::function<bool()>& interrupted = {});

  // "wait-key 0200", "wait-media 250", "wait-register", for messages.
  static std::string Describe(const WaitRequest& request);

 private:
  std::uint64_t KeyEvents(std::uint16_t key) const;

  const PbxSimulator* pbx_;
  const MgcpAgent* agent_;
  const MediaChannel* media_;
  platform::Clock& clock_;
  std::map<std::uint16_t, std::uint64_t> keys_used_;  // key events the waits have used up
};

}  // namespace deskline::sim
