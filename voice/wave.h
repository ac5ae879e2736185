// CWave: the one voice path of the phone. It owns the RTP transport, the playout buffer,
// G.711, the loss concealment and the two G.729 handles, and does three things: it turns the
// host's 20 ms frames into RTP packets (SendVoiceFrame), it decodes received packets into
// the buffer on its own receive thread, and it hands the host what the buffer says is due,
// concealing what is missing (ReceiveVoice). It has no timer: the host's calls set the pace.
//
// Payload types: 0 PCMU and 8 PCMA (160 bytes a frame), 9 G.722 (signalled only: 160 bytes
// of 0xFA go out, a fixed pattern is played), 18 G.729 (20 bytes a frame, two 10 ms codec
// frames). Any other type mutes the path both ways, while the socket is still read.
//
// Thread rules:
// - Start, Shutdown, StartSession, StopThread: the call processor's start-up and shutdown
//   thread; serialised by the session lock.
// - SendVoiceFrame: the host's capture thread, one at a time (it owns the G.729 encoder).
// - ReceiveVoice: the host's playback thread, one at a time (it owns the concealment).
// - The setters, ClearBuffer, GetRemoteAddress, SendPunch: the call processor's threads.
// - The receive thread ("RTP to Wave") owns the G.729 decoder and is the only socket reader.
// The payload type, the receiving flag and the A-law shift are single atomic words; a change
// takes effect at the next frame. The voice paths take a lock of their own only so that
// Shutdown cannot free what a frame in flight is using; the locks are never contended in a
// call.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "codec/codec_lib.h"
#include "core/ports.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "voice/buffer.h"
#include "voice/g711.h"
#include "voice/plc.h"
#include "voice/rtp.h"

namespace deskline {

// What a G.722 frame plays: this block of 20 samples eight times over, a constant pattern
// with a period of 2.5 ms. G.722 carries no voice in this phone.
inline constexpr std::array<std::int16_t, 20> kG722Pattern = {
    -3856, -3856, -3856, -3856, -3856, -3856, -3856, -3856, -3856, -3856,
    -2688, -2560, -2304, -1440, -768,  -376,  -1184, -2112, -2368, -2560};
// Every byte of a sent G.722 payload.
inline constexpr std::uint8_t kG722FillByte = 0xFA;

class CWave final : public IWave {
 public:
  static constexpr std::uint16_t kDefaultLocalPort = 8000;
  // Frames that one ReceiveVoice can place: the room the host's area must have.
  static constexpr std::size_t kMaxFramesPerPull = 8;
  static constexpr std::uint32_t kAlawShiftStart = 3;

  // `clock` stamps the arrival of received packets (the buffer's delay measurement) and must
  // outlive the session. `local_port`, when given, replaces every port that SetLocalPort
  // asks for (0 binds any free port): tests run a whole session without the fixed port 8000.
  explicit CWave(platform::Clock& clock = platform::RealClock(),
                 std::optional<std::uint16_t> local_port = std::nullopt);
  // Shutdown; clears the process-wide pointer if it still names this session.
  ~CWave() override;
  CWave(const CWave&) = delete;
  CWave& operator=(const CWave&) = delete;

  // The session that was made last and still lives, or null. Any thread.
  static CWave* Current();

  // ---- Life (call processor's start-up and shutdown thread) ----
  // Makes what is missing: buffer, RTP, G.711, concealment, G.729 encoder and decoder. 0, or
  // 1 after a critical trace, with everything torn down again.
  int Start() override;
  // Stops the socket, joins the receive thread, then frees the media objects. Always 0; safe
  // to call twice and on a half-started session.
  int Shutdown() override;
  // Binds the RTP socket with a new SSRC and starts the receive thread (time-critical if the
  // system allows). 0; 1 if there is no RTP object, the socket cannot be bound (no remote
  // address set, port taken, already started) or the thread cannot be made.
  int StartSession() override;
  // Ends the receive thread: clears its id, shuts the socket down and joins it. The socket's
  // descriptor goes with Shutdown. Always 0.
  int StopThread();

  // ---- Addresses, codec and flags (call processor's threads). Host order throughout. ----
  // Takes effect at the next StartSession: a bound socket stays on its port.
  void SetLocalPort(std::uint16_t port) override;
  void SetRemotePort(std::uint32_t port) override;  // the low 16 bits
  void SetRemoteIp(std::uint32_t ip_host_order) override;
  // The codec of both directions from the next frame on; the buffer is not reset.
  void SetPayloadType(std::uint32_t payload_type) override;
  // Set: received frames go to the buffer. Clear: they are read, decoded and thrown away.
  void SetReceiving(bool on) override;
  // Empties the buffer and returns it to waiting for the first frame of a path.
  void ClearBuffer() override;
  // 0 and 0 without an RTP object. Null pointers are skipped.
  void GetRemoteAddress(std::uint32_t* ip_host_order, std::uint32_t* port) const override;
  // One empty datagram from the voice socket. 0, or 1 if it could not be sent.
  int SendPunch(std::uint32_t ip_host_order, std::uint32_t port) override;
  // 0 selects the standard A-law expansion (shift 4), anything else shift 3.
  void SetAlawShift(std::uint32_t mode) override;

  // ---- Voice (host threads) ----
  // Encodes one frame of 160 samples (`size` must be 320 bytes) by the payload type and
  // sends it. A frame that cannot go out is lost alone; see SendFrame.
  void SendVoiceFrame(const std::int16_t* pcm, std::uint32_t size) override;
  // As SendVoiceFrame: 0 sent; 1 dropped (no RTP object, null samples, a size other than
  // 320, an unknown payload type, or a failed encode).
  int SendFrame(const std::int16_t* pcm, std::uint32_t size);
  // Places what is due into `pcm`, which must have room for 8 frames (1,280 samples);
  // `length` is not read. Returns the bytes to play. `*status` (may be null): 0 frames
  // delivered (lost ones concealed), 1 nothing due, 600 one frame concealed (320 bytes),
  // 601 playout not begun (0 bytes; silence goes into the concealment history).
  std::uint32_t ReceiveVoice(std::int32_t length, std::int16_t* pcm,
                             std::uint32_t* status) override;

  // ---- Read-outs (tests, diagnostics; any thread) ----
  std::uint32_t payload_type() const { return payloadType.load(std::memory_order_relaxed); }
  bool is_receiving() const { return receiving.load(std::memory_order_relaxed) != 0; }
  std::uint32_t alaw_shift() const { return alawShift.load(std::memory_order_relaxed); }
  // The bound RTP address once StartSession has succeeded.
  std::optional<platform::UdpEndpoint> LocalEndpoint() const;
  // The receive thread's id, 0 when there is none.
  platform::ThreadId thread_id() const { return threadId.load(); }
  // Packets the receive thread has taken off the socket and decoded whole (tests wait on it).
  std::uint64_t packets_decoded() const { return decoded_.load(std::memory_order_relaxed); }
  // Packets read off the socket, decoded or not.
  std::uint64_t packets_read() const { return read_.load(std::memory_order_relaxed); }

 private:
  bool StartLocked();
  void StopThreadLocked();
  void RtpToWaveThread(platform::ThreadId self);
  // Decodes the payload into `frame` by `payload_type`. False if the packet is to be dropped.
  bool DecodeFrame(std::uint32_t payload_type, std::span<const std::uint8_t> payload,
                   std::span<std::int16_t, kVoiceFrameSamples> frame);

  platform::Clock& clock_;
  const std::optional<std::uint16_t> local_port_override_;

  std::atomic<std::uint8_t> receiving{0};
  std::unique_ptr<CBuffer> buffer;
  std::unique_ptr<CRtp> rtp;
  std::unique_ptr<CG711> g711;
  std::unique_ptr<CPlc> plc;
  platform::Thread threadHandle;
  std::atomic<platform::ThreadId> threadId{0};
  std::mutex lock;  // the session lock: Start, Shutdown, StartSession, StopThread
  std::atomic<std::uint32_t> payloadType{kRtpPayloadPcmu};
  std::atomic<std::uint32_t> alawShift{kAlawShiftStart};
  CodecHandle* encoder = nullptr;
  CodecHandle* decoder = nullptr;
  // Handed to the codec library on every call; nothing on these paths reads it.
  std::array<std::uint8_t, 48> codecParams_{};

  // Fences between the voice paths and the teardown in Shutdown (see the file comment).
  std::mutex send_lock_;    // SendFrame: rtp, g711, encoder, send_packet_
  std::mutex recv_lock_;    // ReceiveVoice: buffer, plc
  mutable std::mutex control_lock_;  // the call processor's setters: rtp, buffer

  // One packet for each direction, reused for every frame: no allocation per frame.
  RtpPacket send_packet_;
  RtpPacket recv_packet_;  // the receive thread's alone

  std::atomic<std::uint64_t> decoded_{0};
  std::atomic<std::uint64_t> read_{0};
};

}  // namespace deskline
