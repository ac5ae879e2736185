// Voice end to end: the real PTAP, MGCP and Wave modules behind initialize, the simulator's call
// agent setting up the connection and its RTP peer as the far end, all on free ports. A host
// thread plays the GUI: every 20 ms one frame of a tone to send_voice, and what recv_voice
// gives. Each call runs a second or a few in real time; the checks are on sound, counts and
// wire bytes, never on timing.
#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "engine_fixture.h"
#include "tools/rtppeer/peer_sound.h"
#include "tools/rtppeer/rtp_peer.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kFrameSamples = 160;
// recv_voice's status words.
constexpr std::uint32_t kDelivered = 0, kEmpty = 1, kConcealed = 600, kNotPlaying = 601;
// Generous real-time bounds: the suite also runs under the sanitizers on a loaded machine.
constexpr auto kWait = 5s;
// 1004 Hz rather than 1000: a tone locked to the sample rate hits the same few sample values
// over and over, and its level through a coarse A-law expansion depends on its phase.
constexpr double kPeerHz = 1004.0, kHostHz = 600.0, kLevelDbfs = -12.0;

struct Pull {  // one recv_voice call as the host saw it
  std::uint32_t status = 0;
  std::vector<std::int16_t> samples;  // what it placed
};

std::size_t Count(const std::vector<Pull>& pulls, std::uint32_t status) {
  return static_cast<std::size_t>(
      std::count_if(pulls.begin(), pulls.end(), [&](const Pull& p) { return p.status == status; }));
}

// What the host plays, pull after pull: delivered and concealed frames in order.
std::vector<std::int16_t> Played(const std::vector<Pull>& pulls) {
  std::vector<std::int16_t> out;
  for (const Pull& pull : pulls) out.insert(out.end(), pull.samples.begin(), pull.samples.end());
  return out;
}

// The GUI's voice loop on its own thread, paced at 20 ms on the steady clock (catching up after
// a late wake-up, as a sound card's callbacks would). While not pulling it still sends, but
// leaves the received sound where it is.
class HostVoice {
 public:
  ~HostVoice() { Stop(); }
  void Start() {
    stop_ = false;
    thread_ = std::thread([this] { Loop(); });
  }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  void SetPulling(bool on) { pulling_ = on; }
  std::vector<Pull> Pulls(std::size_t from = 0) const {
    std::lock_guard lock(mutex_);
    return {pulls_.begin() + static_cast<std::ptrdiff_t>(std::min(from, pulls_.size())), pulls_.end()};
  }
  // Until `done(pulls)` holds; false once `timeout` has passed (real time).
  template <typename Done>
  bool WaitUntil(Done done, std::chrono::milliseconds timeout = kWait) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(pulls_); });
  }

 private:
  void Loop() {
    std::array<std::int16_t, kFrameSamples> frame{};
    std::array<std::int16_t, 8 * kFrameSamples> room{};  // recv_voice may place up to 8 frames
    auto next = std::chrono::steady_clock::now();
    while (!stop_) {
      tone_.Fill(frame);
      send_voice(sizeof(frame), reinterpret_cast<const std::uint16_t*>(frame.data()));
      if (pulling_) {
        std::int32_t length = sizeof(room);
        Pull pull{0xFFFFFFFF, {}};
        const std::int32_t bytes =
            recv_voice(&length, reinterpret_cast<std::uint16_t*>(room.data()), &pull.status);
        const std::size_t samples = std::min(bytes > 0 ? std::size_t(bytes) / 2 : 0, room.size());
        pull.samples.assign(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(samples));
        std::lock_guard lock(mutex_);
        pulls_.push_back(std::move(pull));
        changed_.notify_all();
      }
      next += 20ms;
      std::this_thread::sleep_until(next);
    }
  }

  sim::ToneGenerator tone_{kHostHz, kLevelDbfs};
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> pulling_{true};
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Pull> pulls_;
};

class MediaCall : public testing::EngineFixture {
 protected:
  MediaCall() : EngineFixture(Real::kPtapMgcpWave) {
    EXPECT_TRUE(peer_.Start());
    peer_.SetSource(sim::SoundSource::Tone(kPeerHz, kLevelDbfs));
  }
  // The host's voice loop and the far end stop before the engine goes.
  ~MediaCall() override {
    host_.Stop();
    peer_.Stop();
  }

  // Registers, points the peer at the Wave session's port, lifts the handset and connects on
  // an offer of `payload_type` alone (`standard_alaw`: set_alaw(0) first).
  void StartCall(int payload_type, bool standard_alaw = false) {
      ASSERT_EQ(Initialize(), 0) << trace_.Text();
    ASSERT_NE(wave_, nullptr);
    const std::optional<platform::UdpEndpoint> local = wave_->LocalEndpoint();
    ASSERT_TRUE(local && local->port != 0);
    peer_.SetRemote({sim::kRtpPeerLoopbackIp, local->port});
    ASSERT_EQ(put_key(0x0200), 0);
    ASSERT_TRUE(agent().WaitForEvent("X-P/fk0200", kWait));
    if (standard_alaw) set_alaw(0);
    ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer(payload_type)), 200));
  }

  sim::MediaOffer Offer(int payload_type) const {
    return sim::MediaOffer{sim::kLoopbackIp, peer_.port(), {payload_type}, 1};
  }

  // The agent's command `tid` got its final response, with `code`.
  void Command(std::uint32_t tid, int code) {
    ASSERT_NE(tid, 0u);
    ASSERT_TRUE(agent().WaitForFinal(tid, kWait)) << trace_.Text();
    ASSERT_EQ(agent().Transaction(tid)->final_response()->code, code);
  }

  // Waits for `count` more pulls and gives them.
  std::vector<Pull> NextPulls(std::size_t count) {
    const std::size_t from = host_.Pulls().size();
    EXPECT_TRUE(host_.WaitUntil([&](const auto& p) { return p.size() >= from + count; },
                                kWait + count * 40ms));
    return host_.Pulls(from);
  }

  // From pull `from` on, waits for the first delivered frame and `more` pulls after it; gives
  // the pulls from that frame on, or none if nothing was delivered.
  std::vector<Pull> PlayedFrom(std::size_t from, std::size_t more) {
    std::size_t first = 0;
    const bool played = host_.WaitUntil(
        [&](const std::vector<Pull>& pulls) {
          first = from;
          while (first < pulls.size() && pulls[first].status != kDelivered) ++first;
          return first < pulls.size() && pulls.size() >= first + more;
        },
        kWait + more * 40ms);
    return played ? host_.Pulls(first) : std::vector<Pull>{};
  }

  // Both ends talk: the host past the start of playout (10 pulls), then 40 pulls it gives; the
  // peer until it has received 50 packets.
  std::vector<Pull> Talk() {
    EXPECT_TRUE(peer_.StartSending());
    host_.Start();
    NextPulls(10);
    std::vector<Pull> pulls = NextPulls(40);
    EXPECT_TRUE(peer_.WaitForReceived(50, kWait));
    host_.Stop();
    peer_.StopSending();
    return pulls;
  }

  sim::RtpPeer peer_;
  HostVoice host_;
};

// A tone both ways in each voice codec.
struct CodecCase {
  const char* name;
  std::uint8_t offered_type;  // the only payload type of the offer, and the peer's packets'
  std::uint8_t session_type;  // what the terminal runs on, and puts on the wire
  bool standard_alaw;         // set_alaw(0) before the call
  const char* codec_event;    // what the host is told
  std::size_t payload_bytes;
  double host_dbfs, host_tolerance_db;  // the peer's -12 dBFS tone as the host hears it
  double peer_dbfs, peer_tolerance_db;  // the host's -12 dBFS tone as the peer decodes it
};

// The row's name in ctest's list, rather than its bytes.
void PrintTo(const CodecCase& row, std::ostream* os) { *os << row.name; }

class CodecCall : public MediaCall, public ::testing::WithParamInterface<CodecCase> {};

TEST_P(CodecCall, CarriesAToneBothWays) {
  const CodecCase& c = GetParam();
  ASSERT_NO_FATAL_FAILURE(StartCall(c.offered_type, c.standard_alaw));
  EXPECT_TRUE(HostSaw(c.codec_event, kWait));
  ASSERT_TRUE(peer_.SetPayloadType(c.offered_type));
  const std::vector<Pull> pulls = Talk();

  // Host side: the peer's tone at its level.
  const std::vector<std::int16_t> heard = Played(pulls);
  ASSERT_GE(heard.size(), 30 * kFrameSamples)
      << "delivered " << Count(pulls, kDelivered) << ", concealed " << Count(pulls, kConcealed);
  EXPECT_NEAR(sim::DominantFrequency(heard), kPeerHz, kPeerHz * 0.02);
  EXPECT_NEAR(sim::RmsDbfs(heard), c.host_dbfs, c.host_tolerance_db);

  // Peer side: every packet in the session's payload type and size, numbered without gaps,
  // 160 timestamp units apart, one SSRC, no marker; and the host's tone inside.
  const std::vector<sim::ReceivedPacket> packets = peer_.Received();
  ASSERT_GE(packets.size(), 50u);
  std::vector<std::uint16_t> order;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const auto& header = packets[i].header;
    EXPECT_EQ(header.payload_type, c.session_type);
    EXPECT_EQ(packets[i].payload_size, c.payload_bytes);
    EXPECT_FALSE(header.marker);
    EXPECT_EQ(header.ssrc, packets[0].header.ssrc);
    if (i > 0) {
      const auto step = static_cast<std::uint16_t>(header.sequence - order.back());
      EXPECT_EQ(header.timestamp - packets[i - 1].header.timestamp, 160u * step);
    }
    order.push_back(header.sequence);
  }
  const sim::SequenceStats stats = sim::AnalyzeSequence(order);
  EXPECT_EQ(stats.lost, 0u);
  EXPECT_EQ(stats.duplicates, 0u);
  // Past the codec's start-up in the first frames.
  std::vector<std::int16_t> sent = peer_.ReceivedSound();
  sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(
                                              std::min(sent.size(), 10 * kFrameSamples)));
  ASSERT_GE(sent.size(), 35 * kFrameSamples);
  EXPECT_NEAR(sim::DominantFrequency(sent), kHostHz, kHostHz * 0.02);
  EXPECT_NEAR(sim::RmsDbfs(sent), c.peer_dbfs, c.peer_tolerance_db);
}

INSTANTIATE_TEST_SUITE_P(
    Media, CodecCall,
    ::testing::Values(
        CodecCase{"Pcmu", 0, 0, false, "event(35,5,G.711)", 160, -12.0, 0.5, -12.0, 0.5},
        // The terminal's A-law encoder shifts by 4 where the standard shifts by 3: what it
        // sends reads 6 dB low on a standard decoder.
        CodecCase{"PcmaStandardExpansion", 8, 8, true, "event(35,5,G.711)", 160,  //
                  -12.0, 0.5, -18.0, 0.5},
        // At start-up the decoder gives each mantissa step half its weight (shift 3): a
        // -12 dBFS tone plays at about -13.5.
        CodecCase{"PcmaStartupExpansion", 8, 8, false, "event(35,5,G.711)", 160,  //
                  -13.5, 0.5, -18.0, 0.5},
        CodecCase{"G729", 18, 18, false, "event(35,5,G.729)", 20, -12.0, 2.0, -12.0, 2.0},
        // An offer without a known rtpmap leaves the codec at 0: the call runs on PCMU. The
        // peer's packets say 96 over PCMU payloads; a received header's type is not looked
        // at, so they play as PCMU.
        CodecCase{"OfferOfOnlyType96RunsOnPcmu", 96, 0, false, "event(35,5,G.711)", 160,  //
                  -12.0, 0.5, -12.0, 0.5}),
    [](const auto& row) { return std::string(row.param.name); });

// G.722 is signalled only: every packet carries exactly 160 bytes of 0xFA whatever the host's
// sound, and the host plays the fixed 20-sample block over and over, 75 samples late (the
// concealment's delay): sample j of a frame is block[(j + 5) % 20]. A frame is exact when it
// and the frame before it were both real, since a concealed frame is cross-faded into the next.
TEST_F(MediaCall, G722SendsTheFillAndPlaysTheFixedPattern) {
  ASSERT_NO_FATAL_FAILURE(StartCall(9));
  EXPECT_TRUE(HostSaw("event(35,5,G.722)", kWait));
  ASSERT_TRUE(peer_.SetPayloadType(sim::kPtG722));
  const std::vector<Pull> pulls = Talk();

  const std::vector<sim::ReceivedPacket> packets = peer_.Received();
  ASSERT_GE(packets.size(), 50u);
  for (const sim::ReceivedPacket& p : packets) {
    EXPECT_EQ(p.header.payload_type, sim::kPtG722);
    EXPECT_EQ(p.payload_size, 160u);
    EXPECT_TRUE(p.g722_fill_ok) << "sequence " << p.header.sequence;
  }
  std::size_t checked = 0;
  bool previous_real = false;
  for (const Pull& pull : pulls) {
    if (pull.status == kEmpty) continue;  // nothing played, the history is unchanged
    if (pull.status != kDelivered) {
      previous_real = false;
      continue;
    }
    for (std::size_t at = 0; at + kFrameSamples <= pull.samples.size(); at += kFrameSamples) {
      for (std::size_t j = 0; previous_real && j < kFrameSamples; ++j) {
        ASSERT_EQ(pull.samples[at + j], kG722Pattern[(j + 5) % 20]) << "sample " << j;
      }
      checked += previous_real ? 1 : 0;
      previous_real = true;
    }
  }
  EXPECT_GE(checked, 30u);
}

// A payload type the session does not know mutes both directions, while the socket is still
// read. No offer can bring one (an unknown rtpmap leaves the codec at PCMU, see above), so the
// test sets it where the call processor would.
TEST_F(MediaCall, UnknownSessionTypeMutesBothWaysWhileTheSocketIsRead) {
  ASSERT_NO_FATAL_FAILURE(StartCall(0));
  wave_->SetPayloadType(96);
  ASSERT_TRUE(peer_.SetPayloadType(96));
  const std::uint64_t read_before = wave_->packets_read();
  const std::uint64_t decoded_before = wave_->packets_decoded();
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  const std::vector<Pull> muted = NextPulls(25);
  EXPECT_EQ(peer_.ReceivedCount(), 0u);
  EXPECT_EQ(Count(muted, kNotPlaying), muted.size());
  EXPECT_TRUE(Played(muted).empty());
  EXPECT_TRUE(testing::Eventually([&] { return wave_->packets_read() >= read_before + 20; }, kWait))
      << "read " << wave_->packets_read() - read_before;
  EXPECT_EQ(wave_->packets_decoded(), decoded_before);

  // A known codec by MDCX: the very packets that were being read now play. The buffer never
  // started playout, so none of them is thrown away as the start of a later path.
  ASSERT_TRUE(peer_.SetPayloadType(0));
  const std::size_t from = host_.Pulls().size();
  ASSERT_NO_FATAL_FAILURE(
      Command(agent().SendMdcx(sim::ConnectionMode::kSendRecv, Offer(0)), 200));
  const std::vector<std::int16_t> heard = Played(PlayedFrom(from, 30));
  ASSERT_FALSE(heard.empty()) << "nothing played after the switch";
  ASSERT_TRUE(peer_.WaitForReceived(20, kWait));
  host_.Stop();
  peer_.StopSending();
  EXPECT_GT(wave_->packets_decoded(), decoded_before);
  EXPECT_NEAR(sim::DominantFrequency(heard), kPeerHz, kPeerHz * 0.02);
  for (const sim::ReceivedPacket& p : peer_.Received()) EXPECT_EQ(p.header.payload_type, 0);
}

// Hold (MDCX inactive) and release (DLCX) stop receiving and empty the buffer: what was
// waiting is never played.
class ReceivingCall : public MediaCall, public ::testing::WithParamInterface<bool> {};

TEST_P(ReceivingCall, StoppingReceivingDropsWhatWaits) {
  const bool release = GetParam();
  ASSERT_NO_FATAL_FAILURE(StartCall(0));
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  ASSERT_FALSE(PlayedFrom(0, 0).empty()) << "the call never played";

  // The host stops taking sound for a while, so frames of the first tone pile up.
  host_.SetPulling(false);
  std::this_thread::sleep_for(160ms);
  ASSERT_NO_FATAL_FAILURE(release ? Command(agent().SendDlcx(), 250)
                                  : Command(agent().SendMdcx(sim::ConnectionMode::kInactive), 200));
  EXPECT_FALSE(wave_->is_receiving());
  // From here on the peer sends another tone: any 1004 Hz heard later was left behind.
  peer_.SetSource(sim::SoundSource::Tone(400.0, kLevelDbfs));
  const std::uint64_t read_before = wave_->packets_read();
  host_.SetPulling(true);
  const std::vector<Pull> stopped = NextPulls(20);
  EXPECT_EQ(Count(stopped, kNotPlaying), stopped.size());
  EXPECT_TRUE(Played(stopped).empty());
  EXPECT_TRUE(testing::Eventually([&] { return wave_->packets_read() >= read_before + 10; }, kWait))
      << "the stream is still read, and thrown away";

  // Receiving again: the new tone only. A later path also drops its first ten frames.
  const std::size_t from = host_.Pulls().size();
  ASSERT_NO_FATAL_FAILURE(release ? Command(agent().SendCrcx(Offer(0)), 200)
                                  : Command(agent().SendMdcx(sim::ConnectionMode::kSendRecv), 200));
  EXPECT_TRUE(wave_->is_receiving());
  const std::vector<std::int16_t> heard = Played(PlayedFrom(from, 25));
  ASSERT_FALSE(heard.empty()) << "nothing played after resuming";
  const double new_tone = sim::GoertzelPower(heard, 400.0);
  EXPECT_GT(new_tone, 0.0);
  EXPECT_LT(sim::GoertzelPower(heard, kPeerHz), new_tone * 0.001)
      << "the first tone was played after the buffer was cleared";
}

INSTANTIATE_TEST_SUITE_P(Media, ReceivingCall, ::testing::Bool(), [](const auto& row) {
  return std::string(row.param ? "Release" : "Hold");
});

// A whole call as a user makes it: registered, off hook, connected, talking both ways, held,
// resumed, talking again, hung up by the PBX and the engine stopped. The scenario that the
// ThreadSanitizer build repeats a hundred times (--gtest_repeat), since it crosses every
// engine thread: PTAP, MGCP socket and resend, mailbox, punching, RTP receive and the host's.
TEST_F(MediaCall, WholeCallTalksHoldsResumesAndHangsUp) {
  ASSERT_NO_FATAL_FAILURE(StartCall(0));
  EXPECT_TRUE(HostSaw("event(35,5,G.711)", kWait));
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  ASSERT_FALSE(PlayedFrom(0, 10).empty()) << "the call never played";
  ASSERT_TRUE(peer_.WaitForReceived(25, kWait)) << "the host's voice never reached the far end";

  ASSERT_NO_FATAL_FAILURE(Command(agent().SendMdcx(sim::ConnectionMode::kInactive), 200));
  EXPECT_FALSE(wave_->is_receiving());
  const std::vector<Pull> held = NextPulls(10);
  EXPECT_EQ(Count(held, kNotPlaying), held.size());

  const std::size_t from = host_.Pulls().size();
  ASSERT_NO_FATAL_FAILURE(Command(agent().SendMdcx(sim::ConnectionMode::kSendRecv), 200));
  EXPECT_TRUE(wave_->is_receiving());
  const std::vector<std::int16_t> heard = Played(PlayedFrom(from, 15));
  ASSERT_FALSE(heard.empty()) << "nothing played after resuming";
  EXPECT_NEAR(sim::DominantFrequency(heard), kPeerHz, kPeerHz * 0.02);
  const std::size_t received = peer_.Received().size();
  ASSERT_TRUE(peer_.WaitForReceived(received + 10, kWait)) << "no voice out after resuming";

  ASSERT_NO_FATAL_FAILURE(Command(agent().SendDlcx(), 250));
  EXPECT_TRUE(HostSaw("event(36,0)", kWait));
  host_.Stop();
  peer_.StopSending();
  EXPECT_EQ(uninitialize(), 0);
}

// Each packet the network drops is one concealed frame for the host.
TEST_F(MediaCall, EachLostPacketIsConcealedOnce) {
  constexpr std::uint32_t kFrames = 250;
  ASSERT_NO_FATAL_FAILURE(StartCall(0));
  sim::FaultScript faults;
  faults.drop_percent = 10.0;
  faults.seed = 13;
  peer_.SetFaults(faults);
  ASSERT_TRUE(peer_.StartSending(kFrames));
  host_.Start();
  ASSERT_TRUE(peer_.WaitSendingDone(kWait + kFrames * 40ms));
  // Drained: once the buffer is empty every pull says so.
  ASSERT_TRUE(host_.WaitUntil([](const std::vector<Pull>& p) {
    return p.size() >= 5 &&
           std::all_of(p.end() - 5, p.end(), [](const Pull& x) { return x.status == kEmpty; });
  }));
  host_.Stop();

  // Drops before the first and after the last packet that went out leave no hole the host
  // could reach: count those between.
  const std::vector<sim::SentPacket> sent = peer_.Sent();
  ASSERT_FALSE(sent.empty());
  const std::uint32_t span =
      static_cast<std::uint16_t>(sent.back().header.sequence - sent.front().header.sequence) + 1u;
  const std::uint32_t dropped = span - static_cast<std::uint32_t>(sent.size());
  EXPECT_GE(dropped, 15u);
  EXPECT_LE(dropped, 40u);
  ASSERT_EQ(wave_->packets_decoded(), sent.size()) << "loopback lost packets of its own";

  // A hole at the read position gives one 600; consecutive holes one each. The buffer's own
  // steering moves the count by a frame or two in five seconds: a frame held back as a 600
  // when the depth falls to the target (as the stream drains, and after late wake-ups), a hole
  // concealed inside a burst pull rather than as a 600. Hence 20% or 3, whichever is larger.
  const std::vector<Pull> pulls = host_.Pulls();
  EXPECT_NEAR(double(Count(pulls, kConcealed)), double(dropped), std::max(3.0, 0.2 * dropped))
      << "delivered " << Count(pulls, kDelivered) << ", empty " << Count(pulls, kEmpty);
  // Concealment repeats the pitch: the tone goes on through the gaps.
  EXPECT_NEAR(sim::DominantFrequency(Played(pulls)), kPeerHz, kPeerHz * 0.02);
}

}  // namespace
}  // namespace deskline
