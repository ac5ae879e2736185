#include "voice/rtp.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "platform/thread.h"
#include "support/tracer.h"

namespace deskline {

std::uint32_t RtpFramePayloadBytes(std::uint32_t payload_type) {
  switch (payload_type) {
    case kRtpPayloadPcmu:
    case kRtpPayloadPcma:
      return 160;
    case kRtpPayloadG729:
      return 20;
    case kRtpPayloadG722:
      return 1;
    default:
      return 0;
  }
}

void WriteRtpHeader(std::span<std::uint8_t, kRtpHeaderBytes> out, std::uint32_t payload_type,
                    std::uint32_t ssrc, RtpSendCounters& counters) {
  const std::uint32_t sequence = counters.sequence;
  const std::uint32_t timestamp = counters.timestamp;
  out[0] = 0x80;  // V 2, no padding, no extension, no CSRC
  out[1] = static_cast<std::uint8_t>(payload_type & 0x7F);  // M is never set
  out[2] = static_cast<std::uint8_t>(sequence >> 8);
  out[3] = static_cast<std::uint8_t>(sequence);
  out[4] = static_cast<std::uint8_t>(timestamp >> 24);
  out[5] = static_cast<std::uint8_t>(timestamp >> 16);
  out[6] = static_cast<std::uint8_t>(timestamp >> 8);
  out[7] = static_cast<std::uint8_t>(timestamp);
  out[8] = static_cast<std::uint8_t>(ssrc);
  out[9] = static_cast<std::uint8_t>(ssrc >> 8);
  out[10] = static_cast<std::uint8_t>(ssrc >> 16);
  out[11] = static_cast<std::uint8_t>(ssrc >> 24);
  counters.sequence = sequence + 1;
  counters.timestamp = timestamp + kRtpTimestampStep;
}

RtpReject CheckRtpDatagram(std::span<const std::uint8_t> datagram, RtpHeaderView* view) {
  const std::size_t n = datagram.size();
  if (n > kRtpMaxDatagramBytes) return RtpReject::kTooLong;
  if (n <= kRtpHeaderBytes) return RtpReject::kTooShort;
  const std::uint8_t first = datagram[0];
  if ((first >> 6) != 2) return RtpReject::kVersion;

  std::size_t offset = kRtpHeaderBytes + 4u * (first & 0x0Fu);
  if (offset > n) return RtpReject::kCsrcPastEnd;
  if (first & 0x10u) {
    // Extension: a 16-bit profile word and a 16-bit length in 32-bit words, then the words.
    if (offset + 4 > n) return RtpReject::kExtensionPastEnd;
    const std::size_t words = (std::size_t{datagram[offset + 2]} << 8) | datagram[offset + 3];
    offset += 4 + 4 * words;
    if (offset > n) return RtpReject::kExtensionPastEnd;
  }
  // With nothing after the header, a padding octet would be a header byte.
  if (offset == n) return RtpReject::kEmpty;

  std::size_t end = n;
  if (first & 0x20u) {
    // The count octet has always been read as signed here, so that 128 and above, compared
    // as unsigned, never fit.
    const auto count = static_cast<std::uint32_t>(
        static_cast<std::int32_t>(static_cast<std::int8_t>(datagram[n - 1])));
    if (count > n - offset) return RtpReject::kPaddingPastPayload;
    end -= count;
  }
  if (end == offset) return RtpReject::kEmpty;

  if (view) {
    view->payload_type = datagram[1] & 0x7F;
    view->marker = (datagram[1] & 0x80) != 0;
    view->sequence = static_cast<std::uint16_t>((datagram[2] << 8) | datagram[3]);
    view->timestamp = (std::uint32_t{datagram[4]} << 24) | (std::uint32_t{datagram[5]} << 16) |
                      (std::uint32_t{datagram[6]} << 8) | datagram[7];
    view->ssrc = datagram[8] | (std::uint32_t{datagram[9]} << 8) |
                 (std::uint32_t{datagram[10]} << 16) | (std::uint32_t{datagram[11]} << 24);
    view->payload_offset = offset;
    view->payload_length = end - offset;
    view->length = end;
  }
  return RtpReject::kNone;
}

bool RtpPacket::Resize(std::size_t payload_bytes) {
  if (payload_bytes > kRtpMaxPayloadBytes) return false;
  offset_ = kRtpHeaderBytes;
  length_ = payload_bytes;
  std::memset(bytes_.data() + offset_, 0, payload_bytes);
  view_ = RtpHeaderView{};
  return true;
}

std::span<const std::uint8_t> RtpPacket::BuildDatagram(std::uint32_t payload_type,
                                                       std::uint32_t ssrc,
                                                       RtpSendCounters& counters,
                                                       std::size_t payload_bytes) {
  if (payload_bytes == 0 || payload_bytes > length_) return {};
  // A packet that last held a received datagram may have its payload further in.
  if (offset_ != kRtpHeaderBytes) {
    std::memmove(bytes_.data() + kRtpHeaderBytes, bytes_.data() + offset_, length_);
    offset_ = kRtpHeaderBytes;
  }
  view_ = RtpHeaderView{};
  view_.payload_type = static_cast<std::uint8_t>(payload_type & 0x7F);
  view_.sequence = static_cast<std::uint16_t>(counters.sequence);
  view_.timestamp = counters.timestamp;
  view_.ssrc = ssrc;
  view_.payload_length = payload_bytes;
  view_.length = kRtpHeaderBytes + payload_bytes;
  WriteRtpHeader(std::span<std::uint8_t, kRtpHeaderBytes>(bytes_.data(), kRtpHeaderBytes),
                 payload_type, ssrc, counters);
  return {bytes_.data(), view_.length};
}

// ---- CRtp ----------------------------------------------------------------------------------

struct CRtp::RtpState {
  platform::UdpSocket socket0;
  std::atomic<std::uint16_t> localPort{0};  // asked for; used at the next rtp_start
  std::atomic<std::uint16_t> boundPort{0};  // what rtp_start bound; 0 before
  std::atomic<std::uint32_t> remoteIp{0};
  std::atomic<std::uint16_t> remotePort{0};
  std::atomic<std::uint32_t> ssrc{0};
  std::atomic<std::uint32_t> remoteSsrc{0};
  std::atomic<std::uint32_t> lastRemoteSeq{0};
  std::atomic<std::uint32_t> sequence{0};
  std::atomic<std::uint32_t> timestamp{0};
  std::atomic<std::uint32_t> payloadType{0};
};

// Holds the state for the length of one operation. The count goes up before the pointer is
// read, so Shutdown, which withdraws the pointer before it reads the count, either sees this
// use or is seen by it.
class CRtp::Use {
 public:
  explicit Use(const CRtp& rtp) : users_(rtp.users_) {
    users_.fetch_add(1);
    state_ = rtp.state_.load();
  }
  ~Use() { users_.fetch_sub(1); }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  explicit operator bool() const { return state_ != nullptr; }
  RtpState* operator->() const { return state_; }
  RtpState& operator*() const { return *state_; }

 private:
  std::atomic<int>& users_;
  RtpState* state_ = nullptr;
};

CRtp::CRtp(std::optional<std::uint32_t> seed) : seed_(seed) {
  DL_TRACE(TRACE_STATUS, "[RTP] Module created");
}

CRtp::~CRtp() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[RTP] Module destroyed");
}

void CRtp::Seed() {
  if (seed_) {
    random_.seed(*seed_);
    return;
  }
  const auto wall = std::chrono::system_clock::now().time_since_epoch().count();
  const auto steady = std::chrono::steady_clock::now().time_since_epoch().count();
  random_.seed(static_cast<std::uint32_t>(wall ^ (wall >> 32) ^ steady));
}

std::uint32_t CRtp::NextRandom() { return static_cast<std::uint32_t>(random_()); }

int CRtp::Start() {
  {
    std::lock_guard lock(life_lock_);
    DL_TRACE(TRACE_STATUS, "[RTP] Module starting");
    Seed();
    if (state_.load()) return 0;
    auto* state = new (std::nothrow) RtpState();
    if (state) {
      state_.store(state);
      return 0;
    }
    DL_TRACE(TRACE_CRITICAL, "[RTP :: CRITICAL ERROR] Object creation failed - RTP data structure");
  }
  Shutdown();
  return 1;
}

int CRtp::Shutdown() {
  std::lock_guard lock(life_lock_);
  RtpState* state = state_.load();
  if (!state) return 0;
  state->socket0.Shutdown();
  state_.store(nullptr);
  // Every use still in progress returns promptly now: new ones find no state, and a blocked
  // receive or send has been released by the shutdown.
  while (users_.load() != 0) std::this_thread::yield();
  state->socket0.Close();
  delete state;
  DL_TRACE(TRACE_STATUS, "[RTP] Module shutdown");
  return 0;
}

int CRtp::rtp_start(const std::uint32_t* ssrc) {
  std::lock_guard lock(life_lock_);
  Use state(*this);
  if (!state || !ssrc) return 1;
  if (state->remoteIp.load() == 0) {
    DL_TRACE(TRACE_ERROR, "[RTP :: ERROR] Session start failed - no remote address");
    return 1;
  }
  if (state->socket0.is_open()) {
    DL_TRACE(TRACE_ERROR, "[RTP :: ERROR] Session start failed - already started");
    return 1;
  }
  state->ssrc.store(*ssrc);
  const std::uint16_t port = state->localPort.load();
  if (!state->socket0.Open({0, port})) {
    DL_TRACE(TRACE_ERROR, "[RTP :: ERROR] Session start failed - cannot bind port %u",
             static_cast<unsigned>(port));
    return 1;
  }
  const auto bound = state->socket0.LocalEndpoint();
  const std::uint16_t bound_port = bound ? bound->port : port;
  state->boundPort.store(bound_port);
  // The remote port starts as the local one; each call sets it again.
  state->remotePort.store(bound_port);
  Seed();
  state->sequence.store(NextRandom() & 0xFFFF);
  state->timestamp.store(NextRandom() & 0xFFFF);
  return 0;
}

int CRtp::rtp_stop() {
  std::lock_guard lock(life_lock_);
  Use state(*this);
  if (!state) return 1;
  state->socket0.Shutdown();
  return 0;
}

std::uint32_t CRtp::rtp_make_ssrc() {
  std::lock_guard lock(life_lock_);
  return (platform::CurrentThreadId() & 0xFFFF0000u) | (NextRandom() & 0xFFFFu);
}

int CRtp::rtp_is_ready() const {
  Use state(*this);
  return state ? 0 : 1;
}

int CRtp::rtp_set_remote_port(const std::int32_t* port) {
  Use state(*this);
  if (!state || !port) return 1;
  DL_TRACE(TRACE_STATUS, "[DEBUG] rtp_set_remote_port=%d", *port);
  state->remotePort.store(static_cast<std::uint16_t>(*port));
  return 0;
}

int CRtp::rtp_set_local_port(const std::uint16_t* port) {
  Use state(*this);
  if (!state || !port) return 1;
  state->localPort.store(*port);
  return 0;
}

int CRtp::rtp_set_remote_ip(const std::uint32_t* address) {
  Use state(*this);
  if (!state || !address) return 1;
  DL_TRACE(TRACE_STATUS, "[DEBUG] rtp_set_remote_ip=%d", static_cast<int>(*address));
  state->remoteIp.store(*address);
  return 0;
}

int CRtp::rtp_set_payload_type(std::uint32_t type) {
  Use state(*this);
  if (!state) return 1;
  state->payloadType.store(type);
  return 0;
}

int CRtp::rtp_get_remote(std::uint32_t* ip, std::uint32_t* port) const {
  if (!ip || !port) return 1;
  Use state(*this);
  *ip = state ? state->remoteIp.load() : 0;
  *port = state ? state->remotePort.load() : 0;
  return state ? 0 : 1;
}

std::unique_ptr<RtpPacket> CRtp::rtp_create_packet(const std::int32_t* size) {
  if (!size || *size < 0 || static_cast<std::size_t>(*size) > kRtpMaxPayloadBytes) return nullptr;
  std::unique_ptr<RtpPacket> packet(new (std::nothrow) RtpPacket());
  if (packet) packet->Resize(static_cast<std::size_t>(*size));
  return packet;
}

void CRtp::rtp_release_packet(std::unique_ptr<RtpPacket>* packet) {
  if (packet) packet->reset();
}

int CRtp::rtp_send(RtpPacket* packet, const std::uint32_t* size, std::int32_t* sent) {
  if (sent) *sent = -1;
  Use state(*this);
  if (!state || !packet || !size || *size == 0 || *size > packet->length_) return 1;
  // One sender: the counters are read and written back by this thread alone.
  RtpSendCounters counters{state->sequence.load(std::memory_order_relaxed),
                           state->timestamp.load(std::memory_order_relaxed)};
  const std::span<const std::uint8_t> datagram =
      packet->BuildDatagram(state->payloadType.load(std::memory_order_relaxed),
                            state->ssrc.load(std::memory_order_relaxed), counters, *size);
  state->sequence.store(counters.sequence, std::memory_order_relaxed);
  state->timestamp.store(counters.timestamp, std::memory_order_relaxed);

  const platform::UdpEndpoint to{state->remoteIp.load(std::memory_order_relaxed),
                                 state->remotePort.load(std::memory_order_relaxed)};
  // A failed send loses this packet only; the number it used stays used.
  if (state->socket0.SendTo(std::as_bytes(datagram), to) && sent) {
    *sent = static_cast<std::int32_t>(datagram.size());
  }
  return 0;
}

int CRtp::rtp_receive(RtpPacket* packet, std::int32_t* length) {
  std::int32_t ignored = 0;
  if (!length) length = &ignored;
  *length = -1;
  if (!packet) return 1;
  packet->length_ = 0;
  Use state(*this);
  if (!state) return 1;
  const auto received =
      state->socket0.Receive(std::as_writable_bytes(std::span(packet->bytes_)), nullptr);
  if (!received) return 1;
  return Accept(*state, packet, *received, length);
}

int CRtp::ReceiveDatagram(std::span<const std::uint8_t> datagram, RtpPacket* packet,
                          std::int32_t* length) {
  std::int32_t ignored = 0;
  if (!length) length = &ignored;
  *length = -1;
  if (!packet) return 1;
  packet->length_ = 0;
  Use state(*this);
  if (!state) return 1;
  // Cut as the socket would cut it: one byte past the limit is enough to refuse it.
  const std::size_t received = std::min(datagram.size(), RtpPacket::kCapacity);
  if (received > 0) std::memcpy(packet->bytes_.data(), datagram.data(), received);
  return Accept(*state, packet, received, length);
}

int CRtp::Accept(RtpState& state, RtpPacket* packet, std::size_t received,
                 std::int32_t* length) {
  *length = static_cast<std::int32_t>(received);
  RtpHeaderView view;
  // Bad datagrams are dropped without a trace: the receive thread simply reads on.
  if (CheckRtpDatagram({packet->bytes_.data(), received}, &view) != RtpReject::kNone) return 1;
  // A payload shorter than one frame of the stream's codec is dropped, not padded: a part
  // frame would play as a click, while a missing one is concealed from the sound before it.
  if (view.payload_length < RtpFramePayloadBytes(state.payloadType.load(std::memory_order_relaxed))) {
    return 1;
  }
  packet->view_ = view;
  packet->offset_ = view.payload_offset;
  packet->length_ = view.payload_length;
  *length = static_cast<std::int32_t>(view.length);
  std::uint32_t none = 0;
  state.remoteSsrc.compare_exchange_strong(none, view.ssrc, std::memory_order_relaxed);
  state.lastRemoteSeq.store(view.sequence, std::memory_order_relaxed);
  return 0;
}

int CRtp::rtp_punch(const std::uint32_t* ip, const std::uint16_t* port) {
  Use state(*this);
  if (!state || !ip || !port) return 1;
  return state->socket0.SendTo({}, {*ip, *port}) ? 0 : 1;
}

std::optional<platform::UdpEndpoint> CRtp::LocalEndpoint() const {
  Use state(*this);
  if (!state || state->boundPort.load() == 0) return std::nullopt;
  return platform::UdpEndpoint{0, state->boundPort.load()};
}

std::uint32_t CRtp::ssrc() const {
  Use state(*this);
  return state ? state->ssrc.load() : 0;
}

std::uint32_t CRtp::remote_ssrc() const {
  Use state(*this);
  return state ? state->remoteSsrc.load() : 0;
}

std::uint32_t CRtp::last_remote_sequence() const {
  Use state(*this);
  return state ? state->lastRemoteSeq.load() : 0;
}

RtpSendCounters CRtp::counters() const {
  Use state(*this);
  if (!state) return {};
  return {state->sequence.load(), state->timestamp.load()};
}

}  // namespace deskline
