// The far end of a call's media path, on 127.0.0.1: it sends a paced RTP stream to the
// terminal (a tone, a WAV file or silence, one packet every 20 ms, with scripted loss,
// reordering, duplicates and jitter), and receives, decodes and records what the terminal
// sends, with the measurements of peer_analysis.h on top.
//
// Thread rules: Start, Stop, StartSending and StopSending belong to the owner's thread; every
// other operation may be called from any thread. The peer runs two
// threads of its own: the receiver (blocking receive, from Start to Stop) and the sender (from
// StartSending until its frames are out or StopSending). Stop and the destructor join both.
// Pacing and arrival times run on the injected clock; the Wait... calls wait in real time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "tools/rtppeer/fault_script.h"
#include "tools/rtppeer/peer_analysis.h"
#include "tools/rtppeer/peer_codec.h"
#include "tools/rtppeer/peer_rtp_wire.h"

namespace deskline::sim {

inline constexpr std::uint32_t kRtpPeerLoopbackIp = 0x7F000001;

struct RtpPeerOptions {
  std::uint16_t local_port = 0;        // 0: any free port
  platform::Clock* clock = nullptr;    // null: the real clock; must outlive the peer
  std::uint32_t ssrc = 0x50454552;     // "PEER"
  std::uint16_t first_sequence = 1000;  // e.g. 65530 to force the wrap early
  std::uint32_t first_timestamp = 0;
  std::uint8_t payload_type = kPtPcmu;
  bool marker_on_first = true;  // M on the first packet of each StartSending, as a talkspurt start
};

// What the sender puts into each frame.
struct SoundSource {
  enum class Kind { kSilence, kTone, kSamples };
  Kind kind = Kind::kSilence;
  double frequency_hz = 0.0;
  double level_dbfs = 0.0;
  std::vector<std::int16_t> samples;  // 8 kHz mono; repeated from the start when used up
  bool loop = true;                   // false: silence after the samples end

  static SoundSource Silence() { return {}; }
  static SoundSource Tone(double frequency_hz, double level_dbfs) {
    return {Kind::kTone, frequency_hz, level_dbfs, {}, true};
  }
  static SoundSource Samples(std::vector<std::int16_t> samples, bool loop = true) {
    return {Kind::kSamples, 0.0, 0.0, std::move(samples), loop};
  }
};

struct SentPacket {
  std::uint32_t index = 0;  // order of making in this run
  RtpHeader header;
  std::size_t payload_size = 0;
  std::int64_t sent_ms = 0;  // clock's steady milliseconds
  bool send_ok = false;
};

struct ReceivedPacket {
  RtpHeader header;
  std::int64_t arrival_ms = 0;  // clock's steady milliseconds
  std::size_t payload_size = 0;
  platform::UdpEndpoint from;
  DecodeOutcome outcome = DecodeOutcome::kUnsupported;
  bool g722_fill_ok = false;
  std::vector<std::int16_t> samples;  // decoded by the packet's own payload type
};

class RtpPeer {
 public:
  explicit RtpPeer(RtpPeerOptions options = {});
  ~RtpPeer();
  RtpPeer(const RtpPeer&) = delete;
  RtpPeer& operator=(const RtpPeer&) = delete;

  // Binds 127.0.0.1 at the configured port and starts the receiver. False if the port is
  // taken, a thread cannot be made, or the peer is already started.
  bool Start();
  // Stops sending, releases and joins the receiver, closes the socket. Safe to repeat.
  void Stop();
  // The bound port; 0 before Start.
  std::uint16_t port() const;

  // Where the stream goes (the terminal's RTP address); takes effect at the next packet.
  void SetRemote(platform::UdpEndpoint remote);
  // Any type 0 to 127; false above. A type the peer has no codec for is sent with a PCMU
  // payload under that number, so that a receiver's handling of unknown types can be tried.
  bool SetPayloadType(std::uint8_t payload_type);
  // Takes effect at the next frame.
  void SetSource(SoundSource source);
  // Reads a WAV file into a looping sample source. Empty on success, else why it failed
  // (the source is then left as it was).
  std::string LoadWav(const std::string& path);
  // Applies to the next StartSending.
  void SetFaults(FaultScript script);

  // Starts the paced stream: `frames` packets made (0: until StopSending). Sequence numbers
  // and timestamps go on from where the last run ended. False if no remote is set, the peer is
  // not started, or a stream is already running.
  bool StartSending(std::uint32_t frames = 0);
  // Ends the stream and joins the sender; packets still held back by the faults are dropped.
  void StopSending();
  // True once a stream of a set number of frames has put out everything (real-time wait).
  bool WaitSendingDone(std::chrono::milliseconds timeout);
  // Sends one datagram as it is, outside the stream. True if the system took it.
  bool SendRaw(std::span<const std::byte> datagram);

  std::vector<SentPacket> Sent() const;
  std::uint32_t DroppedByFaults() const;

  std::vector<ReceivedPacket> Received() const;
  std::size_t ReceivedCount() const;
  // True once `count` packets have been received (real-time wait).
  bool WaitForReceived(std::size_t count, std::chrono::milliseconds timeout) const;
  std::uint32_t malformed() const;        // datagrams that are not RTP
  std::uint32_t empty_datagrams() const;  // zero-length datagrams (port punching)
  SequenceStats ReceivedStats() const;
  // The received sound in sequence order: duplicates once, each missing packet (or one
  // without decodable sound) as 160 samples of silence, gaps capped at one second.
  std::vector<std::int16_t> ReceivedSound() const;
  // ReceivedSound as an 8 kHz 16-bit mono WAV file. Empty on success, else why it failed.
  std::string WriteReceivedWav(const std::string& path) const;
  void ClearReceived();

 private:
  void ReceiveLoop();
  void SendLoop(std::uint32_t frames, FaultScript script);

  RtpPeerOptions options_;
  platform::Clock& clock_;
  platform::UdpSocket socket_;
  platform::Thread receiver_;
  platform::Thread sender_;
  platform::ManualResetEvent stop_sending_{"RtpPeerStopSending"};

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool started_ = false;
  bool sending_ = false;
  bool send_done_ = false;
  std::uint16_t bound_port_ = 0;
  platform::UdpEndpoint remote_;
  std::uint8_t payload_type_;
  SoundSource source_;
  std::uint64_t source_version_ = 0;
  FaultScript faults_;
  std::uint32_t next_sequence_;  // low 16 bits go on the wire
  std::uint32_t next_timestamp_;
  std::vector<SentPacket> sent_;
  std::uint32_t dropped_ = 0;
  std::vector<ReceivedPacket> received_;
  std::uint32_t malformed_ = 0;
  std::uint32_t empty_ = 0;
};

}  // namespace deskline::sim
