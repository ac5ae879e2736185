// What the call processor does with connection commands and signals from the PBX, and how
// it tells the host: ApplyMgcpEvent and alert.
#include <cstring>

#include "core/cp.h"
#include "core/signal_buffer.h"
#include "platform/udp_socket.h"
#include "support/tracer.h"

namespace deskline {
namespace {

bool StartsWith(const char* data, const char* prefix) {
  return std::strncmp(data, prefix, std::strlen(prefix)) == 0;
}

// Line key index of a lamp's key code: 0x0a05 is line 0, 0x0c00 to 0x0c2f lines 1 to 48.
int LineKeyIndex(std::uint32_t key) {
  if (key == 0x0a05) return 0;
  if (key >= 0x0c00 && key <= 0x0c2f) return static_cast<int>(key - 0x0bff);
  return -1;
}

const char* CodecName(std::uint32_t payload_type) {
  switch (payload_type) {
    case 0:
    case 8:
      return "G.711";
    case 9:
      return "G.722";
    case 18:
      return "G.729";
    default:
      return "";
  }
}

}  // namespace

int CCp::ApplyMgcpEvent(std::uint32_t event, const char* data) {
  switch (event) {
    case MGCP_EVENT_CRCX:
      data = nullptr;
      break;
    case MGCP_EVENT_DLCX:
      // A deleted connection is an inactive one to what follows.
      if (mgcp_) mgcp_->SetConnectionMode(MGCP_MODE_INACTIVE);
      break;
    case MGCP_EVENT_MDCX:
      break;
    case MGCP_EVENT_RQNT: {
      if (data == nullptr) return 0;
      struct Marker {
        const char* text;
        std::uint32_t alert;
      };
      // Compared whole: the record behind a marker follows its terminator.
      static constexpr Marker kWhole[] = {
          {"unmute", ALERT_UNMUTE},     {"mute", ALERT_MUTE},
          {"pbx_setting", ALERT_PBX_SETTING}, {"sp_on", ALERT_SPEAKER_ON},
          {"sp_off", ALERT_SPEAKER_OFF}, {"sp_on_offhook", ALERT_SPEAKER_ON_OFFHOOK},
          {"bgm_mute", ALERT_BGM_MUTE},
      };
      // Compared for the marker's length; these end the signal's handling.
      static constexpr Marker kPrefix[] = {
          {"tone", ALERT_TONE_RECORD},
          {"slc", ALERT_SLC_RECORD},
          {"hset_on", ALERT_HEADSET_ON},
          {"hset_off", ALERT_HEADSET_OFF},
      };
      bool matched = false;
      for (const Marker& m : kWhole) {
        if (std::strcmp(data, m.text) == 0) {
          alert(m.alert, data);
          matched = true;
          break;
        }
      }
      if (!matched) {
        for (const Marker& m : kPrefix) {
          if (StartsWith(data, m.text)) {
            alert(m.alert, data);
            return 0;
          }
        }
      }
      const bool ringer_active = mgcp_ && mgcp_->MediaState().ringer_active;
      if (ringer_active) {
        if (std::strcmp(data, kMarkerMgcpTone) == 0) {
          const std::int32_t pattern = LoadSignalI32(data, kTonePatternOffset);
          if (pattern >= 1 && pattern <= 3) {
            UpdateState(CP_EVENT_RING_OR_CONNECTED);
            alert(ALERT_RING, data);
          } else {
            alert(ALERT_TONE, data);
          }
        }
      } else {
        if (std::strcmp(data, "end") == 0) {
          if (call_state_.load() == CP_STATE_TALKING) {
            alert(ALERT_END, data);
            call_state_.store(CP_STATE_IDLE);
            return 0;
          }
        } else if (StartsWith(data, "voff")) {
          alert(ALERT_VOICE_OFF, data);
        }
      }
      if (data[0] != '\0') alert(ALERT_SIGNAL, data);
      return 0;
    }
    default:
      return 0;
  }

  // CRCX, MDCX and DLCX: point the Wave session at the far end, then open or close it.
  if (!mgcp_) return 0;
  const MgcpMediaState media = mgcp_->MediaState();
  const std::string connection(media.remote_connection);
  DL_TRACE(TRACE_STATUS, "[DEBUG] CRCX SDP Connection info.=%s", connection.c_str());
  if (wave_) {
    wave_->SetRemotePort(media.remote_rtp_port);
    wave_->SetLocalPort(media.local_rtp_port);
    wave_->SetPayloadType(media.codec);
    if (connection.size() > 7) {
      const std::string address = connection.substr(7);
      const auto ip = platform::ParseIpv4(address.c_str(), address.size());
      // An unusable or all-zero address keeps the one we had.
      if (ip && *ip != 0) wave_->SetRemoteIp(*ip);
    }
  }
  switch (media.connection_mode) {
    case MGCP_MODE_RECVONLY:
      alert(ALERT_MEDIA_RECVONLY, nullptr);
      if (wave_) {
        wave_->ClearBuffer();
        wave_->SetReceiving(true);
      }
      alert(ALERT_CODEC, nullptr);
      break;
    case MGCP_MODE_SENDRECV:
    case MGCP_MODE_SENDONLY:
      if (wave_) {
        wave_->ClearBuffer();
        wave_->SetReceiving(true);
      }
      if (call_state_.load() == CP_STATE_TALKING) alert(ALERT_CONNECTED, data);
      alert(ALERT_MEDIA_SENDRECV, nullptr);
      UpdateState(CP_EVENT_MEDIA_ACTIVE);
      alert(ALERT_CODEC, nullptr);
      break;
    case MGCP_MODE_INACTIVE:
      if (wave_) {
        wave_->ClearBuffer();
        wave_->SetReceiving(false);
      }
      {
        const std::uint32_t state = call_state_.load();
        if (state == CP_STATE_INCOMING || state == CP_STATE_TALKING) {
          UpdateState(CP_EVENT_CONNECTION_ENDED);
          alert(ALERT_END, "end");
        }
      }
      alert(ALERT_MEDIA_INACTIVE, nullptr);
      alert(ALERT_MEDIA_CLOSED, nullptr);
      break;
    default:
      break;
  }
  return 0;
}

int CCp::alert(std::uint32_t code, const char* data) {
  if (!init_data_) return 0;
  const NetworkInitData& host = *init_data_;
  switch (code) {
    case ALERT_END:
    case ALERT_RING:
    case ALERT_CONNECTED:
    case 8:
    case 9:
    case 13:
    case ALERT_MEDIA_RECVONLY:
    case ALERT_MEDIA_INACTIVE:
    case ALERT_MEDIA_SENDRECV:
    case 19:
    case ALERT_MUTE:
    case ALERT_UNMUTE:
    case ALERT_VOICE_OFF:
    case ALERT_TONE:
    case ALERT_SPEAKER_ON:
    case ALERT_SPEAKER_OFF:
    case ALERT_SPEAKER_ON_OFFHOOK:
    case ALERT_PBX_SETTING:
    case ALERT_BGM_MUTE:
    case ALERT_HEADSET_ON:
    case ALERT_HEADSET_OFF:
      if (host.event_callback) {
        host.event_callback(code, data ? static_cast<std::uint32_t>(std::strlen(data)) : 0, data);
      }
      port_punch_set_keyinfo(code);
      return 0;
    case ALERT_TONE_RECORD:
      if (host.event_callback) host.event_callback(code, kToneRecordDataLength, data);
      return 0;
    case ALERT_SLC_RECORD:
      if (host.event_callback) host.event_callback(code, kSlcRecordDataLength, data);
      return 0;
    case ALERT_CODEC:
      if (host.event_callback) {
        const char* name = CodecName(mgcp_ ? mgcp_->MediaState().codec : ~0u);
        host.event_callback(code, static_cast<std::uint32_t>(std::strlen(name)), name);
      }
      return 0;
    case ALERT_MEDIA_CLOSED:
      if (host.event_callback) host.event_callback(code, 0, nullptr);
      return 0;
    case ALERT_SIGNAL:
      break;
    default:
      return 0;
  }

  // A general signal: lamps and display writes.
  if (data == nullptr) return 0;
  if (StartsWith(data, "ks")) {
    if (!host.led_callback) return 0;
    const std::uint32_t key = LoadSignalU32(data, kKsKeyCodeOffset);
    const std::uint32_t status = LoadSignalU32(data, kKsStateOffset);
    host.led_callback(key, status);
    const int index = LineKeyIndex(key);
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::alert led_index = %d key = 0x%04x", index, key);
    if (index < 0) return 0;
    LineKeyState& entry = line_keys_[index];
    const std::uint32_t old_status = entry.led_status;
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::alert hold(old)=%d transfer=%d", entry.hold,
             entry.transfer);
    if (status == 0) {
      entry.remote_ip = 0;
      entry.remote_port = 0;
      entry.transfer = false;
      entry.hold = false;
    } else if (status == 1) {
      entry.transfer = false;
      if (old_status == 4 || old_status == 5 || old_status == 7) entry.hold = false;
    } else if (status == 2 || status == 3 || status == 6) {
      entry.hold = false;
    } else if (status == 5) {
      if (old_status == 1) {
        entry.hold = true;
        entry.transfer = true;
      }
    } else if (status > 7) {
      entry.hold = false;
    }
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::alert ip change %d / %d LED status %d ->%d",
             static_cast<int>(entry.remote_ip), static_cast<int>(entry.remote_port),
             static_cast<int>(old_status), static_cast<int>(status));
    DL_TRACE(TRACE_STATUS, "[DEBUG] CCp::alert hold(new)=%d transfer=%d", entry.hold,
             entry.transfer);
    if (status == 1) active_line_key_ = index;
    entry.led_status = status;
  } else if (StartsWith(data, "lcd")) {
    if (host.display_callback) host.display_callback(0, 0, data + 3, 0);
  } else if (StartsWith(data, "dtm") || StartsWith(data, "key")) {
    if (host.display_callback) host.display_callback(0, 0, data, 0);
  }
  return 0;
}

}  // namespace deskline
