// The records of the MGCP endpoint: one datagram, the endpoint's control block and the buffer
// into which one X-P signal is decoded. Plain data; the code that fills them is in the other
// mgcp/ files. None of it takes a lock: the owner (CMgcp) serialises access.
#pragma once

#include "core/signal_buffer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/ports.h"

namespace deskline {

// A datagram is at most this long; longer ones are cut by the receive.
inline constexpr std::size_t kMgcpPacketSize = 1500;

// One MGCP datagram. `length` counts the valid bytes of `data`; the text is not terminated.
struct MgcpPacket {
  std::uint32_t length = kMgcpPacketSize;
  std::array<char, kMgcpPacketSize> data{};
  std::uint8_t isResend = 0;  // 1 while the retransmission list sends it again

  // The valid bytes; a length beyond the buffer is treated as the whole buffer.
  std::string_view Text() const {
    return {data.data(), length < kMgcpPacketSize ? length : kMgcpPacketSize};
  }
  // Copies `text` in (cut at the buffer size) and sets `length`; the rest is zeroed.
  void Assign(std::string_view text);
};

inline constexpr std::size_t kMgcpEndpointNameSize = 20;
inline constexpr std::size_t kMgcpCallIdSize = 32;
inline constexpr std::size_t kMgcpSdpFieldSize = 288;
// The widest endpoint token and transaction id word that a command line may carry.
inline constexpr std::size_t kMgcpMaxEndpointToken = kMgcpEndpointNameSize - 1;  // 19
inline constexpr std::size_t kMgcpMaxTransactionWord = 11;

// What the last SDP body carried. A value of 288 characters fills its field unterminated.
struct MgcpRemoteSdp {
  std::int32_t remoteSdpVersion = 0;
  char remoteOrigin[kMgcpSdpFieldSize] = {};
  char remoteSessionName[kMgcpSdpFieldSize] = {};
  char remoteAttribute[kMgcpSdpFieldSize] = {};  // the last a= line
  char remoteMedia[kMgcpSdpFieldSize] = {};
  char remoteConnection[kMgcpSdpFieldSize] = {};  // "IN IP4 a.b.c.d"
  std::uint32_t remoteRtpPort = 0;
  std::uint32_t codec = 0;  // RTP payload type chosen from the rtpmap attributes
};

// The SDP that the terminal answers with.
struct MgcpLocalSdp {
  std::int32_t localSdpVersion = 0;
  char localOrigin[kMgcpSdpFieldSize] = {};
  char localSessionName[kMgcpSdpFieldSize] = {};
  char localAttribute[kMgcpSdpFieldSize] = {};
  std::int32_t localTimeStart = 0;
  std::int32_t localTimeStop = 0;
  char localMedia[kMgcpSdpFieldSize] = {};
  char localConnection[kMgcpSdpFieldSize] = {};
};

// Endpoint and call state: one endpoint, one connection at a time. Zero-filled at every start.
// Addresses are IPv4 numbers in host order; the socket layer converts them.
struct MgcpControlBlock {
  std::uint32_t nextTransactionId = 0;     // of the next NTFY or RSIP
  std::uint32_t commandTransactionId = 0;  // of the last command read; echoed by responses
  char endpointName[kMgcpEndpointNameSize] = {};
  std::uint32_t requestId = 0;  // X: of every NTFY; stays 1
  char callId[kMgcpCallIdSize] = {};
  std::uint32_t connectionId = 0;
  std::uint32_t localAddress = 0;
  std::uint32_t pbxAddress = 0;
  std::uint8_t ringerActive = 0;
  std::uint32_t connectionMode = MGCP_MODE_SENDRECV;
  std::uint32_t packetizationPeriod = 0;  // from "L: p:"; kept, read by nothing
  MgcpRemoteSdp remoteSdp;
  MgcpLocalSdp localSdp;
  std::uint32_t localRtpPort = 0;
};

// A terminated field may still fill its whole array; these read it within its bounds.
template <std::size_t N>
std::string_view FieldText(const char (&field)[N]) {
  std::size_t n = 0;
  while (n < N && field[n] != '\0') ++n;
  return {field, n};
}

// Replaces a text field whole: zero-filled, then `value` copied if it fits (a value of exactly
// N characters fills it unterminated). Returns false, leaving the field as it was, if not.
template <std::size_t N>
bool StoreField(char (&field)[N], std::string_view value) {
  if (value.size() > N) return false;
  for (std::size_t i = 0; i < N; ++i) field[i] = i < value.size() ? value[i] : '\0';
  return true;
}

// The signal buffer and its record layout are shared with the call processor.

}  // namespace deskline
