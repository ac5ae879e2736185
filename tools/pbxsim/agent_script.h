// The command language of deskline-pbx for its call agent, one command a line, typed or read
// from a script file: ring, lamp, display, tone, volume, raw signals, connect with a codec,
// hold, resume, release, audit, wait, and the waits on the terminal (wait-register, wait-key,
// wait-media), which the caller carries out (terminal_watch.h). Blank lines and lines starting
// with '#' do nothing.
//
// Thread rules: an AgentScript belongs to one thread; the agent it drives may be shared.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/pbxsim/mgcp_agent.h"

namespace deskline::sim {

class MediaChannel;

inline constexpr std::chrono::milliseconds kDefaultWaitTimeout{60'000};

// Something on the terminal's side that a script waits for.
struct WaitRequest {
  enum class Kind {
    kRegister,  // the RSIP was accepted and the PTAP OP_BEGIN arrived
    kKey,       // an NTFY observed X-P/fk<key> since the last wait-key for that key
    kMedia,     // the current call's RTP peer has received `count` packets
  };
  Kind kind = Kind::kRegister;
  std::uint16_t key = 0;
  std::uint64_t count = 0;
  std::chrono::milliseconds timeout = kDefaultWaitTimeout;
  friend bool operator==(const WaitRequest&, const WaitRequest&) = default;
};

struct ScriptStep {
  bool ok = true;
  std::string message;                // what went out, or why nothing did; empty for no-ops
  std::chrono::milliseconds wait{0};  // "wait MS": the caller pauses this long
  bool quit = false;                  // "quit"
  std::optional<WaitRequest> await;   // a wait on the terminal for the caller to carry out
  // A wait command that cannot be carried out (bad key, count or timeout): a script that
  // relies on it cannot go on.
  bool bad_wait = false;
};

// "500ms", "10s", "1.5s", "2m" (a unit is required), up to a day; nullopt otherwise.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

class AgentScript {
 public:
  // With `media`, connect, hold, resume and release go through it, so that the RTP peer
  // follows the call; without, they are plain MGCP commands.
  explicit AgentScript(MgcpAgent& agent, MediaChannel* media = nullptr)
      : agent_(agent), media_(media) {}

  // Runs one line. Bad commands and arguments give ok false and a message; nothing is sent.
  ScriptStep Run(std::string_view line);
  static const char* Help();

 private:
  MgcpAgent& agent_;
  MediaChannel* media_;
};

}  // namespace deskline::sim
