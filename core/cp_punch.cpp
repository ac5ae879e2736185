// Port punching: empty datagrams that keep NAT mappings open for the MGCP socket and for the
// far ends of held calls, on intervals that the PBX sets.
#include "core/cp.h"
#include "support/tracer.h"

namespace deskline {

int CCp::port_punch_get_current_key() {
  std::uint32_t ip = 0;
  std::uint32_t port = 0;
  if (wave_) wave_->GetRemoteAddress(&ip, &port);
  DL_TRACE(TRACE_STATUS, "[DEBUG] port_punch_get_current_key: remote connection-> %d / %d",
           static_cast<int>(ip), static_cast<int>(port));
  for (int i = 0; i < kLineKeyCount; ++i) {
    if (line_keys_[i].remote_ip == ip && line_keys_[i].remote_port == port) return i;
  }
  return -1;
}

int CCp::port_punch_set_keyinfo(std::uint32_t code) {
  const int current = port_punch_get_current_key();
  if (code == ALERT_MEDIA_INACTIVE) {
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::port_punch_set_keyinfo :INACTIVE");
    if (current == -1) {
      DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Port punching key not found (INACTIVE)");
      return 0;
    }
    // The far end stays in the entry: that is where the thread keeps punching.
    LineKeyState& entry = line_keys_[current];
    entry.hold = true;
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::port_punch_set_keyinfo: HOLD KeyIndex=%d hold=%d ip=%d port=%d",
             current, entry.hold, static_cast<int>(entry.remote_ip),
             static_cast<int>(entry.remote_port));
    return 0;
  }
  if (code != ALERT_MEDIA_RECVONLY && code != ALERT_MEDIA_SENDRECV) return 0;

  DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::port_punch_set_keyinfo :SENDRECV or RECVONLY");
  if (current != -1) active_line_key_ = current;
  if (active_line_key_ == -1) {
    DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Port punching key not found (SENDRECV)");
    return 0;
  }
  std::uint32_t ip = 0;
  std::uint32_t port = 0;
  if (wave_) wave_->GetRemoteAddress(&ip, &port);
  LineKeyState& entry = line_keys_[active_line_key_];
  if (entry.remote_ip != 0 && (entry.remote_ip != ip || entry.remote_port != port)) {
    // A transfer has moved this line to another far end; the old address stays.
    entry.hold = false;
    DL_TRACE(TRACE_STATUS,
             "[DEBUG] CCp::port_punch_set_keyinfo: Transfer HOLD KeyIndex=%d hold=%d ip=%d port=%d",
             active_line_key_, entry.hold, static_cast<int>(entry.remote_ip),
             static_cast<int>(entry.remote_port));
    return 0;
  }
  entry.remote_ip = ip;
  entry.remote_port = port;
  if (!entry.transfer) entry.hold = false;
  DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::port_punch_set_keyinfo: HOLD KeyIndex=%d hold=%d ip=%d port=%d",
           active_line_key_, entry.hold, static_cast<int>(entry.remote_ip),
           static_cast<int>(entry.remote_port));
  return 0;
}

void CCp::PortPunchPass() {
  DL_TRACE(TRACE_STATUS, "[CP] Port punching interval");
  const int mgcp_interval = ptap_ ? ptap_->GetParameter(PTAP_PARAM_MGCP_PUNCH_INTERVAL) : 0;
  if (mgcp_interval != 0) {
    ++mgcp_punch_count_;
    if (mgcp_punch_count_ >= mgcp_interval) {
      if (mgcp_ && mgcp_->SendPunch() == 0) {
        mgcp_punch_count_ = 0;
      } else {
        DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Port punching packet transmission failed: MGCP");
        --mgcp_punch_count_;  // the next pass tries again
      }
    }
  }
  const int rtp_interval = ptap_ ? ptap_->GetParameter(PTAP_PARAM_RTP_PUNCH_INTERVAL) : 0;
  if (rtp_interval != 0) {
    ++rtp_punch_count_;
    if (rtp_punch_count_ >= rtp_interval) {
      bool failed = false;
      for (const LineKeyState& entry : line_keys_) {
        if (!entry.hold) continue;
        DL_TRACE(TRACE_STATUS, "[---DEBUG] CCp::thread_port_punch: ip=%d port=%d",
                 static_cast<int>(entry.remote_ip), static_cast<int>(entry.remote_port));
        if (!wave_ || wave_->SendPunch(entry.remote_ip, entry.remote_port) != 0) {
          DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Port punching packet transmission failed: RTP");
          failed = true;
          break;
        }
      }
      if (failed) {
        --rtp_punch_count_;
      } else {
        rtp_punch_count_ = 0;
      }
    }
  }
}

void CCp::PunchLoop(platform::ThreadId self) {
  ptap_punch_count_ = 0;
  mgcp_punch_count_ = 0;
  rtp_punch_count_ = 0;
  for (;;) {
    // The id check lets Shutdown stop the thread before the modules it reaches go.
    if (instance_.load() == nullptr || punch_thread_id_.load() != self) {
      DL_TRACE(TRACE_DETAIL, "[CP :: Thread] Thread terminated - ID");
      return;
    }
    PortPunchPass();
    clock().WaitFor(stop_event_, kPunchPeriod);
  }
}

}  // namespace deskline
