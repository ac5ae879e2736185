#include "voice/wave.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <span>

#include "support/tracer.h"

namespace deskline {
namespace {

// The session that was made last and still lives.
std::atomic<CWave*> theWave{nullptr};

// Payload bytes of one 20 ms frame on the wire.
constexpr std::uint32_t kG711FrameBytes = 160;
constexpr std::uint32_t kG722FrameBytes = 160;
constexpr std::uint32_t kG729FrameBytes = 20;

}  // namespace

CWave::CWave(platform::Clock& clock, std::optional<std::uint16_t> local_port)
    : clock_(clock), local_port_override_(local_port) {
  DL_TRACE(TRACE_STATUS, "[WAVE] Module created");
  // Room for the largest frame payload, made once; each send uses its first bytes.
  send_packet_.Resize(kG711FrameBytes);
  theWave.store(this);
}

CWave::~CWave() {
  Shutdown();
  CWave* self = this;
  theWave.compare_exchange_strong(self, nullptr);
  DL_TRACE(TRACE_STATUS, "[WAVE] Module destroyed");
}

CWave* CWave::Current() { return theWave.load(); }

int CWave::Start() {
  DL_TRACE(TRACE_STATUS, "[WAVE] Module starting");
  bool started = false;
  {
    std::lock_guard session(lock);
    started = StartLocked();
  }
  if (!started) {
    // Leave nothing half-built.
    Shutdown();
    return 1;
  }
  return 0;
}

bool CWave::StartLocked() {
  // The voice paths and setters may already be called by a host that raced ahead.
  std::scoped_lock fence(send_lock_, recv_lock_, control_lock_);
  if (!buffer) {
    buffer.reset(new (std::nothrow) CBuffer(clock_));
    if (!buffer || buffer->Start() != 0) {
      DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object creation failed - Buffer");
      return false;
    }
  }
  if (!rtp) {
    rtp.reset(new (std::nothrow) CRtp());
    if (!rtp || rtp->Start() != 0) {
      DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object creation failed - RTP");
      return false;
    }
    // The header's payload type starts where the session's does.
    rtp->rtp_set_payload_type(payloadType.load());
  }
  if (!g711) {
    g711.reset(new (std::nothrow) CG711());
    if (!g711) {
      DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object creation failed - G.711 codec");
      return false;
    }
  }
  if (!plc) {
    plc.reset(new (std::nothrow) CPlc());
    if (!plc) {
      DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object creation failed - PLC");
      return false;
    }
  }
  if (!encoder && codecLibOpen(&encoder, kCodecG729, kCodecEncode, 0) != 0) {
    encoder = nullptr;
    DL_TRACE(TRACE_CRITICAL,
             "[WAVE :: CRITICAL ERROR] Codec Library Open Failed - G.729 codec Encode");
    return false;
  }
  if (!decoder && codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0) != 0) {
    decoder = nullptr;
    DL_TRACE(TRACE_CRITICAL,
             "[WAVE :: CRITICAL ERROR] Codec Library Open Failed - G.729 codec Decode");
    return false;
  }
  return true;
}

int CWave::Shutdown() {
  std::lock_guard session(lock);
  if (threadHandle.created()) {
    StopThreadLocked();
    DL_TRACE(TRACE_STATUS, "[WAVE] Module shutdown");
  }
  // The receive thread is gone; wait for any frame in flight on the host's threads, then
  // free what they use.
  std::scoped_lock fence(send_lock_, recv_lock_, control_lock_);
  if (rtp) {
    rtp->Shutdown();
    rtp.reset();
  }
  if (buffer) {
    buffer->Shutdown();
    buffer.reset();
  }
  g711.reset();
  plc.reset();
  if (encoder) {
    codecLibClose(encoder, 0);
    encoder = nullptr;
  }
  if (decoder) {
    codecLibClose(decoder, 0);
    decoder = nullptr;
  }
  return 0;
}

int CWave::StartSession() {
  std::lock_guard session(lock);
  if (!rtp) return 1;
  const std::uint32_t ssrc = rtp->rtp_make_ssrc();
  if (rtp->rtp_start(&ssrc) != 0) return 1;
  const platform::ThreadId id =
      threadHandle.Create("RtpToWave", [this](platform::ThreadId self) { RtpToWaveThread(self); });
  if (id == 0) return 1;
  // Stored before the body runs: the loop ends as soon as the stored id is no longer its own.
  threadId.store(id);
  if (!threadHandle.SetTimeCritical()) {
    DL_TRACE(TRACE_WARNING,
             "[WAVE :: WARNING] Session start incomplete - RTP to Wave thread priority change "
             "failed");
  }
  threadHandle.Resume();
  return 0;
}

int CWave::StopThread() {
  std::lock_guard session(lock);
  StopThreadLocked();
  return 0;
}

void CWave::StopThreadLocked() {
  if (threadHandle.created()) {
    threadId.store(0);
    DL_TRACE(TRACE_STATUS, "[WAVE] Thread terminated - RTP to Wave");
  }
  // Releases the blocked receive; the thread then sees its id gone at the head of its loop.
  if (rtp) rtp->rtp_stop();
  // The thread must have left the RTP object and the buffer before either can be freed.
  threadHandle.Join();
}

void CWave::SetLocalPort(std::uint16_t port) {
  const std::uint16_t chosen = local_port_override_.value_or(port);
  std::lock_guard guard(control_lock_);
  if (rtp) rtp->rtp_set_local_port(&chosen);
}

void CWave::SetRemotePort(std::uint32_t port) {
  const auto value = static_cast<std::int32_t>(port & 0xFFFF);
  std::lock_guard guard(control_lock_);
  if (rtp) rtp->rtp_set_remote_port(&value);
}

void CWave::SetRemoteIp(std::uint32_t ip_host_order) {
  std::lock_guard guard(control_lock_);
  if (rtp) rtp->rtp_set_remote_ip(&ip_host_order);
}

void CWave::SetPayloadType(std::uint32_t payload_type) {
  payloadType.store(payload_type);
  std::lock_guard guard(control_lock_);
  if (rtp) rtp->rtp_set_payload_type(payload_type);
}

void CWave::SetReceiving(bool on) { receiving.store(on ? 1 : 0); }

void CWave::ClearBuffer() {
  std::lock_guard guard(control_lock_);
  if (buffer) buffer->Reset();
}

void CWave::GetRemoteAddress(std::uint32_t* ip_host_order, std::uint32_t* port) const {
  std::uint32_t ip = 0;
  std::uint32_t remote_port = 0;
  {
    std::lock_guard guard(control_lock_);
    if (rtp) rtp->rtp_get_remote(&ip, &remote_port);
  }
  if (ip_host_order) *ip_host_order = ip;
  if (port) *port = remote_port;
}

int CWave::SendPunch(std::uint32_t ip_host_order, std::uint32_t port) {
  const auto port16 = static_cast<std::uint16_t>(port);
  std::lock_guard guard(control_lock_);
  if (!rtp) return 1;
  return rtp->rtp_punch(&ip_host_order, &port16) != 0 ? 1 : 0;
}

void CWave::SetAlawShift(std::uint32_t mode) { alawShift.store(mode == 0 ? 4 : 3); }

std::optional<platform::UdpEndpoint> CWave::LocalEndpoint() const {
  std::lock_guard guard(control_lock_);
  if (!rtp) return std::nullopt;
  return rtp->LocalEndpoint();
}

void CWave::SendVoiceFrame(const std::int16_t* pcm, std::uint32_t size) { SendFrame(pcm, size); }

int CWave::SendFrame(const std::int16_t* pcm, std::uint32_t size) {
  std::lock_guard guard(send_lock_);
  if (!rtp) return 1;
  if (!g711) {
    DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object unavailable - G.711 codec");
    return 1;
  }
  // One frame a call: the host export cuts its sound into 320-byte blocks.
  if (pcm == nullptr || size != kVoiceFrameBytes) {
    DL_TRACE(TRACE_ERROR, "[WAVE :: ERROR] Voice frame refused - %u bytes", size);
    return 1;
  }
  const std::span<std::uint8_t> out = send_packet_.payload();
  const std::span<const std::int16_t, kVoiceFrameSamples> samples(pcm, kVoiceFrameSamples);
  std::uint32_t payload_bytes = 0;
  switch (payloadType.load(std::memory_order_relaxed)) {
    case kRtpPayloadPcmu:
      payload_bytes = kG711FrameBytes;
      g711->EncodeUlaw(out.first<kG711FrameBytes>(), samples);
      break;
    case kRtpPayloadPcma:
      payload_bytes = kG711FrameBytes;
      g711->EncodeAlaw(out.first<kG711FrameBytes>(), samples);
      break;
    case kRtpPayloadG722:
      // Signalled only: a constant payload, the samples are not looked at.
      payload_bytes = kG722FrameBytes;
      std::fill_n(out.begin(), kG722FrameBytes, kG722FillByte);
      break;
    case kRtpPayloadG729: {
      std::uint32_t in_samples = kVoiceFrameSamples;
      payload_bytes = kG729FrameBytes;
      const int result = codecLibEncode(encoder, pcm, &in_samples, out.data(), &payload_bytes,
                                        codecParams_.data(), 0);
      // Only a missing encoder fails here; the frame is lost rather than sent as noise.
      if (result != 0 || payload_bytes != kG729FrameBytes) return 1;
      break;
    }
    default:
      // An unknown payload type mutes the path without a message.
      return 1;
  }
  return rtp->rtp_send(&send_packet_, &payload_bytes, nullptr) != 0 ? 1 : 0;
}

bool CWave::DecodeFrame(std::uint32_t payload_type, std::span<const std::uint8_t> payload,
                        std::span<std::int16_t, kVoiceFrameSamples> frame) {
  // A payload shorter than its codec's frame is dropped, never read past its end; the
  // transport drops such packets already, but the type may have changed since it checked.
  switch (payload_type) {
    case kRtpPayloadPcmu:
      if (payload.size() < kG711FrameBytes) return false;
      g711->DecodeUlaw(payload.first<kG711FrameBytes>(), frame);
      return true;
    case kRtpPayloadPcma:
      if (payload.size() < kG711FrameBytes) return false;
      g711->DecodeAlaw(payload.first<kG711FrameBytes>(), frame,
                       static_cast<std::int32_t>(alawShift.load(std::memory_order_relaxed)));
      return true;
    case kRtpPayloadG722:
      if (payload.empty()) return false;
      for (std::size_t at = 0; at < kVoiceFrameSamples; at += kG722Pattern.size()) {
        std::copy(kG722Pattern.begin(), kG722Pattern.end(), frame.begin() + at);
      }
      return true;
    case kRtpPayloadG729: {
      if (payload.size() < kG729FrameBytes) return false;
      std::uint32_t in_bytes = kG729FrameBytes;
      std::uint32_t out_samples = kVoiceFrameSamples;
      const int result = codecLibDecode(decoder, payload.data(), &in_bytes, frame.data(),
                                        &out_samples, codecParams_.data(), 0);
      return result == 0 && out_samples == kVoiceFrameSamples;
    }
    default:
      return false;
  }
}

void CWave::RtpToWaveThread(platform::ThreadId self) {
  if (threadId.load() == 0) {
    DL_TRACE(TRACE_STATUS, "[WAVE :: Thread] Thread terminated - RTP to Wave");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[WAVE :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  // Decoded into this frame and copied by the buffer: nothing is allocated per packet.
  std::array<std::int16_t, kVoiceFrameSamples> frame{};
  while (threadId.load() == self) {
    std::int32_t length = 0;
    if (rtp->rtp_receive(&recv_packet_, &length) != 0) {
      // A negative length: the socket was shut down or failed, and nothing more will come.
      if (length < 0) break;
      continue;  // a datagram the transport refused
    }
    const std::uint32_t arrival = clock_.TickMs();
    if (!g711) {
      DL_TRACE(TRACE_CRITICAL, "[WAVE :: CRITICAL ERROR] Object unavailable - G.711 codec");
      return;
    }
    // By the session's payload type; the packet's own is not looked at.
    const bool decoded =
        DecodeFrame(payloadType.load(std::memory_order_relaxed), recv_packet_.payload(), frame);
    if (decoded && receiving.load(std::memory_order_relaxed) != 0) {
      const RtpHeaderView& header = recv_packet_.header();
      const std::int32_t seq = header.sequence;
      const std::uint32_t timestamp = header.timestamp;
      const std::uint32_t size = kVoiceFrameBytes;
      // The buffer copies the frame; one it refuses (late, duplicate) is simply not played.
      buffer->PutFrame(frame.data(), &seq, &timestamp, &size, nullptr, arrival);
    }
    if (decoded) decoded_.fetch_add(1, std::memory_order_release);
    read_.fetch_add(1, std::memory_order_release);
  }
  DL_TRACE(TRACE_DETAIL, "[WAVE :: Thread] Thread terminated - ID [%04d]",
           static_cast<int>(self));
}

std::uint32_t CWave::ReceiveVoice(std::int32_t /*length*/, std::int16_t* pcm,
                                  std::uint32_t* status) {
  std::uint32_t ignored = 0;
  if (status == nullptr) status = &ignored;
  std::lock_guard guard(recv_lock_);
  if (!buffer || !plc || pcm == nullptr) {
    *status = CBuffer::kEmpty;
    return 0;
  }
  std::uint32_t bytes = 0;
  const int result =
      buffer->GetFrames(std::span(pcm, kMaxFramesPerPull * kVoiceFrameSamples), &bytes);
  *status = static_cast<std::uint32_t>(result);
  const auto frame_at = [pcm](std::size_t index) {
    return std::span<std::int16_t, kVoiceFrameSamples>(pcm + index * kVoiceFrameSamples,
                                                       kVoiceFrameSamples);
  };
  switch (result) {
    case CBuffer::kDelivered: {
      const std::size_t frames = std::min<std::size_t>(bytes / kVoiceFrameBytes, kMaxFramesPerPull);
      for (std::size_t i = 0; i < frames; ++i) {
        const auto frame = frame_at(i);
        if (IsFrameLost(frame.data())) {
          std::fill(frame.begin(), frame.end(), std::int16_t{0});
          plc->Conceal(frame);
        } else {
          plc->AddToHistory(frame);
        }
      }
      return bytes;
    }
    case CBuffer::kConceal: {
      const auto frame = frame_at(0);
      std::fill(frame.begin(), frame.end(), std::int16_t{0});
      plc->Conceal(frame);
      return kVoiceFrameBytes;
    }
    case CBuffer::kNotPlaying: {
      // Before playout the history fills with silence, so that a first loss fades from it.
      const auto frame = frame_at(0);
      std::fill(frame.begin(), frame.end(), std::int16_t{0});
      plc->AddToHistory(frame);
      return 0;
    }
    default:
      return 0;
  }
}

}  // namespace deskline
