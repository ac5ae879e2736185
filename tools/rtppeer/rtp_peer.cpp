#include "tools/rtppeer/rtp_peer.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "tools/rtppeer/peer_sound.h"

namespace deskline::sim {
namespace {

constexpr std::size_t kReceiveBytes = 2048;  // above any MTU-sized datagram on loopback
constexpr std::int64_t kMaxGapFrames = 50;   // one second of silence at most per gap

// Turns the current source into consecutive frames; rebuilt when the source changes.
class FrameMaker {
 public:
  void Reset(const SoundSource& source) {
    source_ = source;
    position_ = 0;
    tone_.emplace(source.frequency_hz, source.level_dbfs);
  }
  void Fill(std::span<std::int16_t, kFrameSamples> frame) {
    switch (source_.kind) {
      case SoundSource::Kind::kSilence:
        std::fill(frame.begin(), frame.end(), std::int16_t{0});
        return;
      case SoundSource::Kind::kTone:
        tone_->Fill(frame);
        return;
      case SoundSource::Kind::kSamples:
        for (auto& s : frame) {
          if (position_ >= source_.samples.size() && source_.loop) position_ = 0;
          s = position_ < source_.samples.size() ? source_.samples[position_++] : std::int16_t{0};
        }
        return;
    }
  }

 private:
  SoundSource source_;
  std::size_t position_ = 0;
  std::optional<ToneGenerator> tone_;
};

}  // namespace

RtpPeer::RtpPeer(RtpPeerOptions options)
    : options_(options),
      clock_(options.clock != nullptr ? *options.clock : platform::RealClock()),
      payload_type_(static_cast<std::uint8_t>(options.payload_type & 0x7F)),
      next_sequence_(options.first_sequence),
      next_timestamp_(options.first_timestamp) {}

RtpPeer::~RtpPeer() { Stop(); }

bool RtpPeer::Start() {
  std::lock_guard lock(mutex_);
  if (started_) return false;
  if (!socket_.Open({kRtpPeerLoopbackIp, options_.local_port})) return false;
  const auto local = socket_.LocalEndpoint();
  bound_port_ = local ? local->port : 0;
  if (receiver_.Create("rtppeer-recv", [this](platform::ThreadId) { ReceiveLoop(); }) == 0) {
    socket_.Close();
    bound_port_ = 0;
    return false;
  }
  receiver_.Resume();
  started_ = true;
  return true;
}

void RtpPeer::Stop() {
  StopSending();
  {
    std::lock_guard lock(mutex_);
    if (!started_) return;
    started_ = false;
  }
  // Shut down first to release the blocked receive, and close only after the join, so
  // that the descriptor cannot be reused under the receiver.
  socket_.Shutdown();
  receiver_.Join();
  socket_.Close();
  std::lock_guard lock(mutex_);
  bound_port_ = 0;
}

std::uint16_t RtpPeer::port() const {
  std::lock_guard lock(mutex_);
  return bound_port_;
}

void RtpPeer::SetRemote(platform::UdpEndpoint remote) {
  std::lock_guard lock(mutex_);
  remote_ = remote;
}

bool RtpPeer::SetPayloadType(std::uint8_t payload_type) {
  if (payload_type > 0x7F) return false;
  std::lock_guard lock(mutex_);
  payload_type_ = payload_type;
  return true;
}

void RtpPeer::SetSource(SoundSource source) {
  std::lock_guard lock(mutex_);
  source_ = std::move(source);
  ++source_version_;
}

std::string RtpPeer::LoadWav(const std::string& path) {
  WavReadResult wav = ReadWavAs8kMono(path);
  if (!wav.ok()) return wav.error;
  if (wav.samples.empty()) return "no samples in " + path;
  SetSource(SoundSource::Samples(std::move(wav.samples)));
  return {};
}

void RtpPeer::SetFaults(FaultScript script) {
  std::lock_guard lock(mutex_);
  faults_ = std::move(script);
}

bool RtpPeer::StartSending(std::uint32_t frames) {
  {
    std::lock_guard lock(mutex_);
    if (!started_ || (sending_ && !send_done_) || remote_.ip == 0 || remote_.port == 0) return false;
  }
  // A run that ended by itself leaves a finished thread to collect; joined outside the lock,
  // which that thread takes on its way out.
  sender_.Join();
  std::lock_guard lock(mutex_);
  stop_sending_.Reset();
  send_done_ = false;
  FaultScript script = faults_;
  if (sender_.Create("rtppeer-send", [this, frames, script](platform::ThreadId) { SendLoop(frames, script); }) ==
      0) {
    return false;
  }
  sending_ = true;
  sender_.Resume();
  return true;
}

void RtpPeer::StopSending() {
  stop_sending_.Set();
  sender_.Join();
  std::lock_guard lock(mutex_);
  sending_ = false;
}

bool RtpPeer::WaitSendingDone(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return send_done_; });
}

bool RtpPeer::SendRaw(std::span<const std::byte> datagram) {
  platform::UdpEndpoint to;
  {
    std::lock_guard lock(mutex_);
    if (!started_) return false;
    to = remote_;
  }
  return socket_.SendTo(datagram, to);
}

void RtpPeer::SendLoop(std::uint32_t frames, FaultScript script) {
  FaultSchedule schedule(std::move(script));
  PeerEncoder encoder;
  FrameMaker maker;
  std::uint64_t source_version = 0;
  bool have_source = false;
  std::array<std::int16_t, kFrameSamples> frame{};
  std::vector<std::byte> payload;

  const std::int64_t start_us = clock_.SteadyNs() / 1000;
  std::uint32_t made = 0;
  std::uint32_t dropped_seen = 0;
  for (;;) {
    const std::int64_t now_us = clock_.SteadyNs() / 1000;
    // Make every frame whose time has come; after a late wake-up they catch up at once.
    while ((frames == 0 || made < frames) && start_us + made * FaultSchedule::kFrameUs <= now_us) {
      RtpHeader header;
      {
        std::lock_guard lock(mutex_);
        if (!have_source || source_version != source_version_) {
          maker.Reset(source_);
          source_version = source_version_;
          have_source = true;
        }
        header.payload_type = payload_type_;
        header.sequence = static_cast<std::uint16_t>(next_sequence_++);
        header.timestamp = next_timestamp_;
        next_timestamp_ += kFrameSamples;
      }
      header.ssrc = options_.ssrc;
      header.marker = options_.marker_on_first && made == 0;
      maker.Fill(frame);
      const std::uint8_t codec = IsSupportedPayloadType(header.payload_type) ? header.payload_type : kPtPcmu;
      if (!encoder.Encode(codec, frame, payload)) payload.clear();
      schedule.Add(made, header.sequence, start_us + made * FaultSchedule::kFrameUs, BuildRtp(header, payload));
      ++made;
    }
    for (Emission& e : schedule.TakeDue(now_us)) {
      platform::UdpEndpoint to;
      {
        std::lock_guard lock(mutex_);
        to = remote_;
      }
      const bool ok = socket_.SendTo(e.datagram, to);
      const ParsedRtp parsed = ParseRtp(e.datagram);
      std::lock_guard lock(mutex_);
      sent_.push_back({e.index, parsed.header, parsed.payload_size, clock_.SteadyMs(), ok});
    }
    {
      std::lock_guard lock(mutex_);
      dropped_ += schedule.dropped() - std::exchange(dropped_seen, schedule.dropped());
    }
    const bool all_made = frames != 0 && made >= frames;
    if (all_made && schedule.pending() == 0) break;

    std::int64_t next_us = all_made ? INT64_MAX : start_us + made * FaultSchedule::kFrameUs;
    if (schedule.pending() != 0) next_us = std::min(next_us, schedule.NextDueUs());
    const std::int64_t wait_us = next_us - now_us;
    if (wait_us > 0 && clock_.WaitFor(stop_sending_, std::chrono::milliseconds((wait_us + 999) / 1000))) break;
    if (stop_sending_.IsSet()) break;
  }
  std::lock_guard lock(mutex_);
  send_done_ = true;
  changed_.notify_all();
}

void RtpPeer::ReceiveLoop() {
  PeerDecoder decoder;
  std::array<std::byte, kReceiveBytes> buffer{};
  for (;;) {
    platform::UdpEndpoint from;
    const auto got = socket_.Receive(buffer, &from);
    if (!got) return;  // shut down
    const std::int64_t arrival_ms = clock_.SteadyMs();
    const std::span<const std::byte> datagram(buffer.data(), *got);
    if (datagram.empty()) {
      std::lock_guard lock(mutex_);
      ++empty_;
      continue;
    }
    const ParsedRtp parsed = ParseRtp(datagram);
    if (!parsed.ok()) {
      std::lock_guard lock(mutex_);
      ++malformed_;
      continue;
    }
    ReceivedPacket packet;
    packet.header = parsed.header;
    packet.arrival_ms = arrival_ms;
    packet.payload_size = parsed.payload_size;
    packet.from = from;
    DecodedPayload decoded =
        decoder.Decode(parsed.header.payload_type, datagram.subspan(parsed.payload_offset, parsed.payload_size));
    packet.outcome = decoded.outcome;
    packet.g722_fill_ok = decoded.g722_fill_ok;
    packet.samples = std::move(decoded.samples);
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(packet));
    changed_.notify_all();
  }
}

std::vector<SentPacket> RtpPeer::Sent() const {
  std::lock_guard lock(mutex_);
  return sent_;
}

std::uint32_t RtpPeer::DroppedByFaults() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

std::vector<ReceivedPacket> RtpPeer::Received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

std::size_t RtpPeer::ReceivedCount() const {
  std::lock_guard lock(mutex_);
  return received_.size();
}

bool RtpPeer::WaitForReceived(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
}

std::uint32_t RtpPeer::malformed() const {
  std::lock_guard lock(mutex_);
  return malformed_;
}

std::uint32_t RtpPeer::empty_datagrams() const {
  std::lock_guard lock(mutex_);
  return empty_;
}

SequenceStats RtpPeer::ReceivedStats() const {
  std::vector<std::uint16_t> seqs;
  {
    std::lock_guard lock(mutex_);
    seqs.reserve(received_.size());
    for (const auto& p : received_) seqs.push_back(p.header.sequence);
  }
  return AnalyzeSequence(seqs);
}

std::vector<std::int16_t> RtpPeer::ReceivedSound() const {
  std::vector<ReceivedPacket> packets = Received();
  std::vector<std::uint16_t> seqs;
  seqs.reserve(packets.size());
  for (const auto& p : packets) seqs.push_back(p.header.sequence);
  const std::vector<std::int64_t> ext = ExtendSequence(seqs);
  std::vector<std::size_t> order(packets.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return ext[a] < ext[b]; });

  std::vector<std::int16_t> sound;
  std::optional<std::int64_t> previous;
  for (const std::size_t i : order) {
    if (previous && ext[i] == *previous) continue;  // a duplicate: the first copy stands
    if (previous) {
      const std::int64_t gap = std::min(ext[i] - *previous - 1, kMaxGapFrames);
      sound.insert(sound.end(), static_cast<std::size_t>(gap) * kFrameSamples, std::int16_t{0});
    }
    const auto& samples = packets[i].samples;
    if (samples.empty()) {
      sound.insert(sound.end(), kFrameSamples, std::int16_t{0});
    } else {
      sound.insert(sound.end(), samples.begin(), samples.end());
    }
    previous = ext[i];
  }
  return sound;
}

std::string RtpPeer::WriteReceivedWav(const std::string& path) const { return WriteWav(path, ReceivedSound()); }

void RtpPeer::ClearReceived() {
  std::lock_guard lock(mutex_);
  received_.clear();
  malformed_ = 0;
  empty_ = 0;
}

}  // namespace deskline::sim
