// The command line of deskline-pbx, read into one record that the program then acts on, so
// that every option and every refusal can be tried without starting the program.
//
// Thread rules: plain functions; any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tools/pbxsim/mgcp_agent.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/pbx_simulator.h"
#include "tools/rtppeer/fault_script.h"

namespace deskline::sim {

struct PbxCommandLine {
  // Set when the program ends at once: 0 after --help, 2 for a usage error. `message` is then
  // what to print (the help on standard output, the error and the usage on standard error).
  std::optional<int> exit_code;
  std::string message;

  PbxOptions options;  // port and seed; record limit and print sink are the program's
  MgcpAgentOptions agent_options;
  MgcpAgentAnswers agent_answers;
  PtapAnswers answers;
  bool with_agent = true;
  long keepalive_every_ms = 10'000;
  bool verbose = false;
  bool watch_stdin = true;
  std::optional<std::string> script_path;
  std::deque<std::string> script;  // the script's lines, read at parse time

  // What the PBX sends as media: a tone by default, or a WAV file, or silence.
  double tone_hz = 425.0;
  double level_dbfs = -12.0;
  std::string media_wav;
  bool media_silence = false;
  FaultScript media_faults;
  std::string record_path;
  std::string summary_path;

  // Signalling faults on PTAP and MGCP, both ways.
  double signal_loss_percent = 0.0;
  int signal_jitter_ms = 0;
  double signal_duplicate_percent = 0.0;
  std::uint64_t seed = 0;
};

PbxCommandLine ParsePbxCommandLine(int argc, const char* const* argv);

// The option summary and the call agent's commands.
std::string PbxUsage();

// The rules that the --signal-... options stand for, for the PTAP side and for the call
// agent alike (each applies them with its own seeded draws): every datagram, both directions.
std::vector<NetRule> SignalRules(const PbxCommandLine& command_line);

}  // namespace deskline::sim
