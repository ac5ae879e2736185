#include "tools/pbxsim/media_channel.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tools/rtppeer/peer_analysis.h"

namespace deskline::sim {
namespace {

std::string Address(platform::UdpEndpoint endpoint) {
  char ip[16];
  platform::FormatIpv4(endpoint.ip, ip);
  return std::string(ip) + ":" + std::to_string(endpoint.port);
}

}  // namespace

std::string MediaCodecName(int payload_type) {
  const char* name = PayloadTypeName(payload_type);
  if (name != nullptr && *name != '\0') return name;
  return "PT " + std::to_string(payload_type);
}

MediaChannel::MediaChannel(MgcpAgent& agent, MediaOptions options,
                           std::function<void(std::string_view line)> note)
    : agent_(agent), options_(std::move(options)), note_(std::move(note)) {}

MediaChannel::~MediaChannel() {
  if (peer_) peer_->Stop();
}

void MediaChannel::Note(const std::string& line) {
  if (note_ && !line.empty()) note_(line);
}

std::size_t MediaChannel::ReceivedCount() const { return peer_ ? peer_->ReceivedCount() : 0; }

std::uint16_t MediaChannel::local_port() const {
  return peer_ && state_ != State::kIdle ? peer_->port() : 0;
}

MediaResult MediaChannel::Connect(int payload_type, std::uint16_t port) {
  if (state_ != State::kIdle) return {false, "connect: a call is up; release it first"};
  RtpPeerOptions peer_options;
  peer_options.local_port = port;
  peer_options.clock = options_.clock;
  auto peer = std::make_unique<RtpPeer>(peer_options);
  // The port is bound before the offer names it, so that nothing the terminal sends is lost.
  if (!peer->Start()) {
    return {false, "connect: cannot bind RTP port 127.0.0.1:" + std::to_string(port) +
                       " (in use?); CRCX not sent"};
  }
  peer->SetPayloadType(static_cast<std::uint8_t>(payload_type & 0x7F));
  peer->SetSource(options_.source);
  peer->SetFaults(options_.faults);
  MediaOffer offer;
  offer.ip = kRtpPeerLoopbackIp;
  offer.port = peer->port();
  offer.payload_types = {payload_type};
  const std::uint32_t tid = agent_.SendCrcx(offer);
  if (tid == 0) {
    peer->Stop();
    return {false, "CRCX not sent: " + NotSentReason(agent_)};
  }
  const std::optional<AgentCall> call = agent_.call();
  peer_ = std::move(peer);
  state_ = State::kAwaitingAnswer;
  crcx_tid_ = tid;
  call_id_ = call ? call->call_id : std::string();
  payload_type_ = payload_type;
  on_hold_ = false;
  sending_ = false;
  timeout_noted_ = false;
  remote_.reset();
  totals_.payload_type = payload_type;
  return {true, "CRCX " + std::to_string(tid) + " sent (" + MediaCodecName(payload_type) +
                    ", RTP on 127.0.0.1:" + std::to_string(offer.port) + ")"};
}

MediaResult MediaChannel::Hold() {
  if (!agent_.call()) return {false, "hold: no call; connect first"};
  const std::uint32_t tid = agent_.SendMdcx(ConnectionMode::kInactive);
  if (tid == 0) return {false, "MDCX not sent: " + NotSentReason(agent_)};
  std::string message = "MDCX " + std::to_string(tid) + " sent";
  if (state_ != State::kIdle) {
    on_hold_ = true;
    if (sending_) {
      peer_->StopSending();
      sending_ = false;
    }
    message += "\nmedia: hold";
  }
  return {true, message};
}

MediaResult MediaChannel::Resume() {
  if (!agent_.call()) return {false, "resume: no call; connect first"};
  const std::uint32_t tid = agent_.SendMdcx(ConnectionMode::kSendRecv);
  if (tid == 0) return {false, "MDCX not sent: " + NotSentReason(agent_)};
  std::string message = "MDCX " + std::to_string(tid) + " sent";
  if (state_ != State::kIdle) {
    on_hold_ = false;
    if (state_ == State::kAwaitingAnswer) {
      message += "\nmedia: waiting for the answer to CRCX " + std::to_string(crcx_tid_);
    } else {
      StartSendingIfDue(&message);
    }
  }
  return {true, message};
}

MediaResult MediaChannel::Release() {
  const std::uint32_t tid = agent_.SendDlcx();
  MediaResult result{tid != 0, tid != 0 ? "DLCX " + std::to_string(tid) + " sent"
                                        : "DLCX not sent: " + NotSentReason(agent_)};
  // The media ends whether or not the DLCX could go: the PBX has let the call go.
  if (state_ != State::kIdle) result.message += "\n" + EndCall();
  return result;
}

std::string MediaChannel::Finish() {
  if (state_ == State::kIdle) return {};
  return EndCall();
}

void MediaChannel::Poll() {
  if (state_ == State::kIdle) return;
  const std::optional<AgentCall> call = agent_.call();
  if (!call || call->call_id != call_id_) {
    // The agent forgets a call when the terminal deletes the connection itself.
    Note("media: the terminal ended the call\n" + EndCall());
    return;
  }
  if (state_ != State::kAwaitingAnswer) return;
  const std::optional<MgcpTransaction> crcx = agent_.Transaction(crcx_tid_);
  const TerminalResponse* final_response = crcx ? crcx->final_response() : nullptr;
  if (final_response == nullptr) {
    if (!timeout_noted_ && (!crcx || crcx->state == TransactionState::kTimedOut)) {
      timeout_noted_ = true;
      Note("media: no answer to CRCX " + std::to_string(crcx_tid_) +
           "; not sending (a late answer still starts the media; release ends the call)");
    }
    return;
  }
  if (final_response->code < 200 || final_response->code > 299) {
    Note("media: CRCX " + std::to_string(crcx_tid_) + " refused with " +
         std::to_string(final_response->code) + "; no media\n" + EndCall());
    return;
  }
  std::string lines;
  const std::optional<SdpInfo>& sdp = final_response->sdp;
  platform::UdpEndpoint remote{kRtpPeerLoopbackIp, last_answered_port_};
  if (sdp && sdp->ip && *sdp->ip != 0) {
    remote.ip = *sdp->ip;
  } else if (const std::optional<platform::UdpEndpoint> terminal = agent_.terminal()) {
    remote.ip = terminal->ip;
  }
  if (sdp && sdp->port && *sdp->port != 0) {
    remote.port = *sdp->port;
    last_answered_port_ = remote.port;
  } else {
    // After its first call the terminal answers with port 0 while its socket stays where it
    // was: keep sending there.
    lines = "media: the answer names no RTP port; using " + std::to_string(remote.port) +
            " as before\n";
  }
  remote_ = remote;
  peer_->SetRemote(remote);
  state_ = State::kAnswered;
  if (on_hold_) lines += "media: answered while on hold; not sending";
  StartSendingIfDue(&lines);
  Note(lines);
}

void MediaChannel::StartSendingIfDue(std::string* lines) {
  if (state_ != State::kAnswered || on_hold_ || sending_ || !remote_) return;
  if (!lines->empty() && lines->back() != '\n') *lines += "\n";
  if (!peer_->StartSending(0)) {
    *lines += "media: cannot start sending to " + Address(*remote_);
    return;
  }
  sending_ = true;
  *lines += "media: sending " + MediaCodecName(payload_type_) + " to " + Address(*remote_);
}

std::string MediaChannel::EndCall() {
  state_ = State::kIdle;
  sending_ = false;
  peer_->StopSending();
  std::uint64_t sent = 0;
  for (const SentPacket& packet : peer_->Sent()) sent += packet.send_ok ? 1 : 0;
  const SequenceStats stats = peer_->ReceivedStats();
  const std::vector<std::int16_t> sound = peer_->ReceivedSound();
  totals_.sent += sent;
  totals_.dropped += peer_->DroppedByFaults();
  totals_.received += stats.received;
  totals_.lost += stats.lost;
  totals_.duplicates += stats.duplicates;
  if (!sound.empty()) {
    // Levels combine by power, weighted by the length of each call's sound.
    const double level = RmsDbfs(sound);
    if (std::isfinite(level)) power_sum_ += std::pow(10.0, level / 10.0) * sound.size();
    samples_sum_ += static_cast<double>(sound.size());
  }
  if (power_sum_ > 0.0 && samples_sum_ > 0.0) {
    totals_.received_level_dbfs =
        std::max(kNoSoundDbfs, 10.0 * std::log10(power_sum_ / samples_sum_));
  }
  std::string lines = "media: received " + std::to_string(stats.received) + " packets, " +
                      std::to_string(stats.lost) + " lost";
  if (!options_.record_path.empty()) {
    const std::string error = peer_->WriteReceivedWav(options_.record_path);
    if (error.empty()) {
      totals_.recording = options_.record_path;
      lines += "\nmedia: recording written to " + options_.record_path;
    } else {
      lines += "\nmedia: cannot write the recording: " + error;
    }
  }
  // The port goes with the call; the record stays for ReceivedCount until the next connect.
  peer_->Stop();
  return lines;
}

}  // namespace deskline::sim
