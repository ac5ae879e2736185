// The command language of deskline-pbx for its call agent, one command a line, typed or read
// from a script file: ring, lamp, display, tone, volume, raw signals, connect with a codec,
// hold, resume, release, audit, wait. Blank lines and lines starting with '#' do nothing.
//
// Thread rules: an AgentScript belongs to one thread; the agent it drives may be shared.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "tools/pbxsim/mgcp_agent.h"

namespace deskline::sim {

struct ScriptStep {
  bool ok = true;
  std::string message;                // what went out, or why nothing did; empty for no-ops
  std::chrono::milliseconds wait{0};  // "wait MS": the caller pauses this long
  bool quit = false;                  // "quit"
};

class AgentScript {
 public:
  explicit AgentScript(MgcpAgent& agent) : agent_(agent) {}

  // Runs one line. Bad commands and arguments give ok false and a message; nothing is sent.
  ScriptStep Run(std::string_view line);
  static const char* Help();

 private:
  MgcpAgent& agent_;
};

}  // namespace deskline::sim
