// The PBX's side of a call's voice: an RTP peer (tools/rtppeer) bound before the CRCX offers
// its port, pointed at the address the terminal's answer names, sending one packet every 20 ms
// while the call is not on hold, and recording whatever the terminal sends until the release.
// The call's MGCP commands go out through the call agent; the channel watches the agent's
// transactions for the answer (Poll) and never blocks waiting for it.
//
// Thread rules: one thread (the command line's) calls every operation; the peer and the agent
// run threads of their own behind them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "tools/pbxsim/mgcp_agent.h"
#include "tools/rtppeer/fault_script.h"
#include "tools/rtppeer/rtp_peer.h"

namespace deskline::sim {

// The terminal's RTP port, where its media socket stays for every call. Its SDP answer names
// it for the first call only and port 0 after that; the channel then keeps the last port seen.
inline constexpr std::uint16_t kTerminalRtpPort = 8000;
// "no sound" in the summary's level.
inline constexpr double kNoSoundDbfs = -120.0;

struct MediaOptions {
  SoundSource source = SoundSource::Tone(425.0, -12.0);
  FaultScript faults;         // on what the PBX sends
  std::string record_path;    // empty: no recording
  platform::Clock* clock = nullptr;  // the peer's pacing; null: the real clock; not owned
};

// What the media of the calls ended so far came to, over all of them; the recording is the
// file written last.
struct MediaTotals {
  std::optional<int> payload_type;  // of the last call offered; nullopt before any
  std::uint64_t sent = 0;           // packets that went out
  std::uint64_t dropped = 0;        // held back by the loss fault
  std::uint64_t received = 0;       // packets from the terminal, duplicates included
  std::uint64_t lost = 0;           // gaps in the terminal's sequence numbers
  std::uint64_t duplicates = 0;
  double received_level_dbfs = kNoSoundDbfs;  // of all decoded received sound, at least -120
  std::string recording;            // the file last written; empty if none
};

// One command's outcome: ok, and the lines to print (several for a release).
struct MediaResult {
  bool ok = true;
  std::string message;
};

class MediaChannel {
 public:
  // `note` prints the lines that come without a command (the answer arrived, the terminal
  // ended the call); it runs on the caller's thread, inside Poll.
  MediaChannel(MgcpAgent& agent, MediaOptions options,
               std::function<void(std::string_view line)> note = {});
  ~MediaChannel();  // stops the peer; writes nothing (Finish does)
  MediaChannel(const MediaChannel&) = delete;
  MediaChannel& operator=(const MediaChannel&) = delete;

  // Binds the peer on 127.0.0.1:`port` (0: any), then sends a CRCX sendrecv offering that
  // port and `payload_type`. Fails with nothing sent if a call is up, the port is taken, or
  // the agent cannot send yet.
  MediaResult Connect(int payload_type, std::uint16_t port);
  // MDCX inactive: stops sending at once. Fails without a call.
  MediaResult Hold();
  // MDCX sendrecv: sends again (once the answer is in). Fails without a call.
  MediaResult Resume();
  // DLCX (endpoint-wide without a call); stops sending, writes the recording, reports.
  MediaResult Release();
  // Acts on what the agent has seen since the last look: the CRCX answer (start sending),
  // its time-out or refusal, a DLCX from the terminal. Cheap; call it every few tens of ms.
  void Poll();
  // At exit: stops the peer and writes the recording of a call still up; its counts join the
  // totals. Returns the report lines (empty without a call).
  std::string Finish();

  bool in_call() const { return state_ != State::kIdle; }
  bool sending() const { return sending_; }
  // Packets the current (or last) call's peer has received.
  std::size_t ReceivedCount() const;
  // Where the current call sends; nullopt before the answer.
  std::optional<platform::UdpEndpoint> remote() const { return remote_; }
  // The peer's bound port while a call is up, else 0.
  std::uint16_t local_port() const;
  // The calls ended so far; Finish ends the current one.
  MediaTotals Totals() const { return totals_; }

 private:
  enum class State { kIdle, kAwaitingAnswer, kAnswered };

  void StartSendingIfDue(std::string* lines);
  // Stops the peer, folds its counts into the totals, writes the recording; the report line.
  std::string EndCall();
  void Note(const std::string& line);

  MgcpAgent& agent_;
  const MediaOptions options_;
  const std::function<void(std::string_view)> note_;
  std::unique_ptr<RtpPeer> peer_;  // the current or last call's
  State state_ = State::kIdle;
  std::uint32_t crcx_tid_ = 0;
  std::string call_id_;
  int payload_type_ = 0;
  bool on_hold_ = false;
  bool sending_ = false;
  bool timeout_noted_ = false;
  std::optional<platform::UdpEndpoint> remote_;
  std::uint16_t last_answered_port_ = kTerminalRtpPort;
  MediaTotals totals_;
  // For the level over all calls: the sum of each call's power times its samples.
  double power_sum_ = 0.0;
  double samples_sum_ = 0.0;
};

// "PCMU", "PCMA", "G722", "G729", or "PT 96" for a type without a name.
std::string MediaCodecName(int payload_type);

}  // namespace deskline::sim
