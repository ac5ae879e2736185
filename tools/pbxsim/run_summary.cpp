#include "tools/pbxsim/run_summary.h"

#include <cmath>
#include <cstdio>

namespace deskline::sim {
namespace {

std::string Level(double dbfs) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f",
                std::isfinite(dbfs) && dbfs > kNoSoundDbfs ? dbfs : kNoSoundDbfs);
  return text;
}

}  // namespace

std::string SummaryCodec(const std::optional<int>& payload_type) {
  if (!payload_type) return "none";
  switch (*payload_type) {
    case 0:
      return "pcmu";
    case 8:
      return "pcma";
    case 9:
      return "g722";
    case 18:
      return "g729";
    default:
      return "none";
  }
}

std::string FormatSummaryFile(const RunSummary& s) {
  const MediaTotals& m = s.media;
  return "registered=" + std::string(s.registered ? "1" : "0") + "\n" +
         "codec=" + SummaryCodec(m.payload_type) + "\n" +
         "media_sent=" + std::to_string(m.sent) + "\n" +
         "media_dropped=" + std::to_string(m.dropped) + "\n" +
         "media_received=" + std::to_string(m.received) + "\n" +
         "media_lost=" + std::to_string(m.lost) + "\n" +
         "media_duplicates=" + std::to_string(m.duplicates) + "\n" +
         "received_level_dbfs=" + Level(m.received_level_dbfs) + "\n" +
         "recording=" + m.recording + "\n" +
         "script=" + (s.script_ok ? "ok" : "failed") + "\n";
}

std::string FormatSummaryLine(const RunSummary& s) {
  const MediaTotals& m = s.media;
  std::string line = "summary: ";
  line += s.registered ? "registered" : "not registered";
  line += ", codec " + (m.payload_type ? MediaCodecName(*m.payload_type) : std::string("none"));
  line += ", media sent " + std::to_string(m.sent) + " (" + std::to_string(m.dropped) +
          " dropped), received " + std::to_string(m.received) + " (" + std::to_string(m.lost) +
          " lost, " + std::to_string(m.duplicates) + " duplicates) at " +
          Level(m.received_level_dbfs) + " dBFS";
  if (!m.recording.empty()) line += ", recording " + m.recording;
  line += s.script_ok ? ", script ok" : ", script failed";
  return line;
}

}  // namespace deskline::sim
