// What a run of deskline-pbx came to, printed at exit and written as key=value lines for the
// scripts that drive a demo.
//
// Thread rules: plain functions; any thread.
#pragma once

#include <optional>
#include <string>

#include "tools/pbxsim/media_channel.h"

namespace deskline::sim {

struct RunSummary {
  bool registered = false;
  MediaTotals media;
  bool script_ok = true;
};

// "pcmu", "pcma", "g722", "g729"; "none" before any call and for other payload types.
std::string SummaryCodec(const std::optional<int>& payload_type);

// Exactly these lines, in this order: registered=0|1, codec=..., media_sent=N,
// media_dropped=N, media_received=N, media_lost=N, media_duplicates=N,
// received_level_dbfs=X (one decimal), recording=PATH, script=ok|failed.
std::string FormatSummaryFile(const RunSummary& summary);

// One readable line for the terminal.
std::string FormatSummaryLine(const RunSummary& summary);

}  // namespace deskline::sim
