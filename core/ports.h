// The seams between the call processor and the modules it owns. CCp sees its PTAP client,
// MGCP endpoint and Wave session only through these interfaces, so that a test can put a fake
// in place of any of them; the modules see CCp only through the parent interfaces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/module.h"
#include "deskline/deskline.h"

namespace deskline {

// ---- PTAP ------------------------------------------------------------------------------

// Observer events that the PTAP client raises (OnPtapEvent).
enum PtapEvent : int {
  PTAP_EVENT_START_ANSWERED = 1,
  PTAP_EVENT_OP_BEGIN_ANSWERED = 2,
  PTAP_EVENT_PBX_CLASS = 3,
  PTAP_EVENT_START_REFUSED = 4,
  PTAP_EVENT_WRONG_TERMINAL = 6,
  PTAP_EVENT_RESULT_200 = 7,
};

// PTAP packet types that CCp sends.
inline constexpr int PTAP_TYPE_START = 4;
inline constexpr int PTAP_TYPE_OP_BEGIN = 15;
inline constexpr int PTAP_TYPE_ERROR_REPORT = 20;
inline constexpr int PTAP_TYPE_EVENT = 21;

// Parameter selectors that CCp reads.
inline constexpr std::uint32_t PTAP_PARAM_MGCP_PBX_PORT = 0x200;
inline constexpr std::uint32_t PTAP_PARAM_MGCP_LOCAL_PORT = 0x400;
inline constexpr std::uint32_t PTAP_PARAM_PBX_CLASS = 0x10000;
inline constexpr std::uint32_t PTAP_PARAM_MGCP_PUNCH_INTERVAL = 0x80000;
inline constexpr std::uint32_t PTAP_PARAM_RTP_PUNCH_INTERVAL = 0x100000;

class PtapObserver {
 public:
  virtual ~PtapObserver() = default;
  virtual int OnPtapEvent(const int* event) = 0;
};

// What the PTAP client calls on its parent: type 21 messages and the internal texts
// "PTAP_NOCONN" and "PTAP_COMREST". `payload` holds `length` bytes.
class PtapParent {
 public:
  virtual ~PtapParent() = default;
  virtual int OnPtapMessage(std::uint32_t type, const char* payload, std::size_t length) = 0;
};

class IPtap : public CModule {
 public:
  // 1 if no data is registered afterwards; null keeps the earlier pointer. Not owned.
  virtual int SetNetworkData(const NetworkInitData* data) = 0;
  virtual int SetParent(PtapParent* parent) = 0;
  virtual int AddObserver(PtapObserver* observer) = 0;
  // 1 on failure, else the number of bytes sent.
  virtual int SendPacket(int type, const std::uint8_t* data, std::size_t count) = 0;
  virtual int GetErrorCode() const = 0;
  virtual int GetParameter(std::uint32_t selector) = 0;
  // Copies what the PBX delivered (taken whole, while packets may still arrive). 1 if `out`
  // is null or there is no container, else 0.
  virtual int GetParameterContainer(PtapParameterContainer* out) const = 0;
};

// ---- MGCP ------------------------------------------------------------------------------

enum MgcpEvent : std::uint32_t {
  MGCP_EVENT_CRCX = 1,
  MGCP_EVENT_MDCX = 2,
  MGCP_EVENT_DLCX = 3,
  MGCP_EVENT_SEND_DLCX = 4,
  MGCP_EVENT_SEND_NTFY = 5,
  MGCP_EVENT_RQNT = 6,
  MGCP_EVENT_SEND_RSIP = 7,
  MGCP_EVENT_SEND_RESPONSE = 8,
};

// Connection modes as the SDP reader stores them.
enum MgcpConnectionMode : int {
  MGCP_MODE_SENDRECV = 0,
  MGCP_MODE_SENDONLY = 1,
  MGCP_MODE_INACTIVE = 2,
  MGCP_MODE_RECVONLY = 3,
};

// What the call processor reads of the endpoint's control block after a connection command.
struct MgcpMediaState {
  std::string_view remote_connection;  // the c= line's value, "IN IP4 a.b.c.d"
  std::uint16_t remote_rtp_port = 0;
  std::uint16_t local_rtp_port = 0;
  std::uint32_t codec = 0;             // RTP payload type
  int connection_mode = MGCP_MODE_SENDRECV;
  bool ringer_active = false;
};

// What the MGCP endpoint calls on its parent.
class MgcpParent {
 public:
  virtual ~MgcpParent() = default;
  // `take_lock` false means the caller already holds the event lock.
  virtual int OnMgcpEvent(std::uint32_t event, const char* data, bool take_lock) = 0;
  // Takes (true) or gives back (false) the parent's locks of call work, which come before
  // every lock of the endpoint.
  virtual int SetEventLock(bool take) = 0;
  // The RSIP has been answered. Called on the endpoint's socket thread with no lock held; it
  // only wakes the start, which may hold the call locks while it waits.
  virtual void OnRsipAcknowledged() {}
};

class IMgcp : public CModule {
 public:
  virtual int SetParent(MgcpParent* parent) = 0;
  virtual void SetPorts(std::uint16_t local_port, std::uint16_t pbx_port) = 0;
  // 1 if no data is registered afterwards; null keeps the earlier pointer. Not owned.
  virtual int SetNetworkInitData(const NetworkInitData* data) = 0;
  virtual void SetLocalMedia(std::uint16_t port) = 0;
  virtual int PostEvent(std::uint32_t event, const char* data) = 0;
  virtual bool IsRsipAcknowledged() const = 0;
  // One empty datagram to the PBX; 0 on success.
  virtual int SendPunch() = 0;
  virtual MgcpMediaState MediaState() const = 0;
  virtual void SetConnectionMode(int mode) = 0;
};

// ---- Wave ------------------------------------------------------------------------------

inline constexpr std::size_t kVoiceFrameSamples = 160;
inline constexpr std::size_t kVoiceFrameBytes = 320;

class IWave : public CModule {
 public:
  virtual int StartSession() = 0;
  virtual void SetLocalPort(std::uint16_t port) = 0;
  virtual void SetRemotePort(std::uint32_t port) = 0;
  virtual void SetRemoteIp(std::uint32_t ip_host_order) = 0;
  virtual void SetReceiving(bool receiving) = 0;
  virtual void ClearBuffer() = 0;
  virtual void SetPayloadType(std::uint32_t payload_type) = 0;
  virtual void GetRemoteAddress(std::uint32_t* ip_host_order, std::uint32_t* port) const = 0;
  // One empty datagram from the RTP socket; 0 on success.
  virtual int SendPunch(std::uint32_t ip_host_order, std::uint32_t port) = 0;

  // The voice path (host threads). `pcm` holds one frame of 160 samples.
  virtual void SendVoiceFrame(const std::int16_t* pcm, std::uint32_t size) = 0;
  // Places up to 8 frames in `pcm` (room for 1280 samples); returns the bytes placed.
  virtual std::uint32_t ReceiveVoice(std::int32_t length, std::int16_t* pcm,
                                     std::uint32_t* status) = 0;
  // 0 selects the A-law shift 4, anything else 3.
  virtual void SetAlawShift(std::uint32_t mode) = 0;
};

}  // namespace deskline
