// Voice end to end: the real PTAP, MGCP and Wave modules behind initialize, the PBX simulator's
// call agent setting up the connection, and the simulator's RTP peer as the far end. A host
// thread plays the GUI: every 20 ms it hands one frame of a tone to send_voice and takes what
// recv_voice gives. The Wave session binds a free port (not 8000) and the peer is pointed at
// it, so these tests need no fixed port. Each call runs a second or a few in real time; the
// checks are on sound, counts and wire bytes, never on timing.
#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "engine_fixture.h"
#include "tools/rtppeer/peer_sound.h"
#include "tools/rtppeer/rtp_peer.h"
#include "voice/wave.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;
using testing::HostCallbacks;

constexpr std::size_t kFrameSamples = 160;
constexpr std::uint32_t kDelivered = 0;
constexpr std::uint32_t kEmpty = 1;
constexpr std::uint32_t kConcealed = 600;
constexpr std::uint32_t kNotPlaying = 601;

// Generous real-time bounds: the suite also runs under the sanitizers on a loaded machine.
constexpr auto kWait = 5s;

// One recv_voice call as the host saw it.
struct Pull {
  std::uint32_t status = 0;
  std::vector<std::int16_t> samples;  // what recv_voice placed
};

// The GUI's voice loop on its own thread, paced at 20 ms on the steady clock (it catches up
// after a late wake-up, as a sound card's callbacks would).
class HostVoice {
 public:
  HostVoice(double tone_hz, double level_dbfs) : tone_(tone_hz, level_dbfs) {}
  ~HostVoice() { Stop(); }

  void Start() {
    stop_ = false;
    thread_ = std::thread([this] { Loop(); });
  }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // While clear, the host still sends but leaves the received sound where it is.
  void SetPulling(bool on) { pulling_ = on; }

  std::size_t pull_count() const {
    std::lock_guard lock(mutex_);
    return pulls_.size();
  }
  std::vector<Pull> Pulls(std::size_t from = 0) const {
    std::lock_guard lock(mutex_);
    if (from >= pulls_.size()) return {};
    return {pulls_.begin() + static_cast<std::ptrdiff_t>(from), pulls_.end()};
  }
  // Until `count` pulls have been made in all (real time).
  bool WaitForPulls(std::size_t count, std::chrono::milliseconds timeout = kWait) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return pulls_.size() >= count; });
  }
  // Until a pull of `status` has come at index `from` or later; its index, or -1.
  std::ptrdiff_t WaitForStatus(std::uint32_t status, std::size_t from,
                               std::chrono::milliseconds timeout = kWait) const {
    std::unique_lock lock(mutex_);
    std::ptrdiff_t found = -1;
    changed_.wait_for(lock, timeout, [&] {
      for (std::size_t i = from; i < pulls_.size(); ++i) {
        if (pulls_[i].status == status) {
          found = static_cast<std::ptrdiff_t>(i);
          return true;
        }
      }
      return false;
    });
    return found;
  }

 private:
  void Loop() {
    std::array<std::int16_t, kFrameSamples> frame{};
    // recv_voice may place up to 8 frames.
    std::array<std::int16_t, 8 * kFrameSamples> room{};
    auto next = std::chrono::steady_clock::now();
    while (!stop_) {
      tone_.Fill(frame);
      send_voice(sizeof(frame), reinterpret_cast<const std::uint16_t*>(frame.data()));
      if (pulling_) {
        std::int32_t length = sizeof(room);
        std::uint32_t status = 0xFFFFFFFF;
        const std::int32_t bytes =
            recv_voice(&length, reinterpret_cast<std::uint16_t*>(room.data()), &status);
        Pull pull;
        pull.status = status;
        const std::size_t samples = bytes > 0 ? static_cast<std::size_t>(bytes) / 2 : 0;
        pull.samples.assign(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(
                                                             std::min(samples, room.size())));
        std::lock_guard lock(mutex_);
        pulls_.push_back(std::move(pull));
        changed_.notify_all();
      }
      next += 20ms;
      std::this_thread::sleep_until(next);
    }
  }

  sim::ToneGenerator tone_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> pulling_{true};
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Pull> pulls_;
};

std::size_t CountStatus(const std::vector<Pull>& pulls, std::uint32_t status) {
  return static_cast<std::size_t>(
      std::count_if(pulls.begin(), pulls.end(), [&](const Pull& p) { return p.status == status; }));
}

// What the host plays, pull after pull: delivered and concealed frames in order.
std::vector<std::int16_t> Played(const std::vector<Pull>& pulls) {
  std::vector<std::int16_t> out;
  for (const Pull& pull : pulls) out.insert(out.end(), pull.samples.begin(), pull.samples.end());
  return out;
}

// The samples of `sound` from frame `skip_frames` on.
std::vector<std::int16_t> From(const std::vector<std::int16_t>& sound, std::size_t skip_frames) {
  const std::size_t skip = std::min(sound.size(), skip_frames * kFrameSamples);
  return {sound.begin() + static_cast<std::ptrdiff_t>(skip), sound.end()};
}

class MediaCall : public ::testing::Test {
 protected:
  // 1004 Hz rather than 1000: a tone locked to the sample rate hits the same few sample
  // values over and over, and its level through a coarse A-law expansion depends on its phase.
  static constexpr double kPeerToneHz = 1004.0;
  static constexpr double kHostToneHz = 600.0;
  static constexpr double kLevelDbfs = -12.0;

  MediaCall() {
    HostCallbacks::log().Clear();
    // The real modules, as the library makes them when no test stands in.
    api::SetCpDependenciesFactory(nullptr);
    real_ = api::DefaultCpDependencies();

    sim::PtapAnswers answers = pbx_.answers();
    answers.start.mgcp_terminal_port = testing::FreeUdpPort();
    pbx_.SetAnswers(answers);
    EXPECT_TRUE(pbx_.Start());
    std::ofstream conf(dir_.File("PTAP_Conf"));
    conf << "[PTAP_PORT]\nClientPort=" << testing::FreeUdpPort() << "\nServerPort=" << pbx_.port()
         << "\n";
    EXPECT_TRUE(peer_.Start());
    peer_.SetSource(sim::SoundSource::Tone(kPeerToneHz, kLevelDbfs));
  }
  ~MediaCall() override {
    // The host's voice loop and the far end stop before the engine goes.
    host_.Stop();
    peer_.Stop();
    uninitialize();
    api::SetCpDependenciesFactory(nullptr);
    pbx_.Stop();
  }

  static sim::PbxOptions Options() {
    sim::PbxOptions options;
    options.mgcp = sim::MgcpAgentOptions{};
    return options;
  }

  sim::MgcpAgent& agent() { return *pbx_.mgcp(); }

  // initialize with the real PTAP (free ports), MGCP and Wave (a free RTP port), then lifts
  // the handset, and points the peer at the session's port.
  void StartEngine() {
    api::SetCpDependenciesFactory([this] {
      CpDependencies deps = real_;
      deps.clock = &platform::RealClock();
      const std::string dir = dir_.path().string();
      deps.make_ptap = [dir]() -> std::unique_ptr<IPtap> {
        return std::make_unique<CPtap>(platform::RealClock(),
                                       PtapOptions{dir, std::chrono::milliseconds(0), nullptr});
      };
      deps.make_wave = [this]() -> std::unique_ptr<IWave> {
        auto wave = std::make_unique<CWave>(platform::RealClock(), std::uint16_t{0});
        wave_ = wave.get();
        return wave;
      };
      return deps;
    });
    NetworkInitData data = HostCallbacks::Data();
    std::memcpy(data.terminal_identity, "TERMINAL-013", 12);
    ASSERT_EQ(initialize(&data, &params_), 0) << trace_.Text();
    ASSERT_NE(wave_, nullptr);
    const std::optional<platform::UdpEndpoint> local = wave_->LocalEndpoint();
    ASSERT_TRUE(local.has_value());
    ASSERT_NE(local->port, 0);
    peer_.SetRemote({sim::kRtpPeerLoopbackIp, local->port});

    ASSERT_EQ(put_key(0x0200), 0);
    ASSERT_TRUE(agent().WaitForEvent("X-P/fk0200", kWait));
  }

  sim::MediaOffer Offer(std::vector<int> payload_types) const {
    return sim::MediaOffer{sim::kLoopbackIp, peer_.port(), std::move(payload_types), 1};
  }

  // The agent's command `tid` has its final response, with `code`.
  void Command(std::uint32_t tid, int code) {
    ASSERT_NE(tid, 0u);
    ASSERT_TRUE(agent().WaitForFinal(tid, kWait)) << trace_.Text();
    ASSERT_EQ(agent().Transaction(tid)->final_response()->code, code);
  }

  bool HostSaw(const std::string& line) {
    return testing::Eventually([&] { return HostCallbacks::log().Contains(line); }, kWait);
  }

  // Runs the host for `pulls` more recv_voice calls and gives those pulls.
  std::vector<Pull> RunHost(std::size_t pulls) {
    const std::size_t from = host_.pull_count();
    EXPECT_TRUE(host_.WaitForPulls(from + pulls, kWait + pulls * 40ms));
    return host_.Pulls(from);
  }

  testing::TraceCapture trace_;
  testing::TempDir dir_;
  sim::PbxSimulator pbx_{Options()};
  sim::RtpPeer peer_;
  HostVoice host_{kHostToneHz, kLevelDbfs};
  CpDependencies real_;
  CWave* wave_ = nullptr;  // the engine's session; valid until uninitialize
  PtapParameterContainer params_{};
};

// ---------------------------------------------------------------------------------------
// A tone both ways in each voice codec.

struct CodecCase {
  const char* name;
  int offered_type;           // the only payload type of the CRCX's offer
  std::uint8_t peer_type;     // the payload type in the peer's packets
  std::uint8_t session_type;  // what the terminal runs on, and puts on the wire
  bool standard_alaw;         // set_alaw(0) before the call
  const char* codec_text;     // what ALERT_CODEC tells the host
  std::size_t payload_bytes;
  double host_dbfs;  // the peer's -12 dBFS tone as the host hears it
  double host_tolerance_db;
  double peer_dbfs;  // the host's -12 dBFS tone as the peer decodes it
  double peer_tolerance_db;
};

// Test names in ctest's list, instead of the row's bytes.
void PrintTo(const CodecCase& row, std::ostream* os) { *os << row.name; }

class CodecCall : public MediaCall, public ::testing::WithParamInterface<CodecCase> {};

TEST_P(CodecCall, CarriesAToneBothWays) {
  const CodecCase& c = GetParam();
  ASSERT_NO_FATAL_FAILURE(StartEngine());
  if (c.standard_alaw) set_alaw(0);
  ASSERT_TRUE(peer_.SetPayloadType(c.peer_type));

  ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer({c.offered_type})), 200));
  EXPECT_TRUE(
      HostSaw("event(35," + std::to_string(std::strlen(c.codec_text)) + "," + c.codec_text + ")"));
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  // Past the start of playout; then most of a second of sound each way.
  RunHost(10);
  const std::vector<Pull> pulls = RunHost(40);
  ASSERT_TRUE(peer_.WaitForReceived(50, kWait));
  host_.Stop();
  peer_.StopSending();

  // Host side: the peer's tone at its level.
  const std::vector<std::int16_t> heard = Played(pulls);
  ASSERT_GE(heard.size(), 30 * kFrameSamples) << "delivered " << CountStatus(pulls, kDelivered)
                                              << ", concealed " << CountStatus(pulls, kConcealed);
  EXPECT_NEAR(sim::DominantFrequency(heard), kPeerToneHz, kPeerToneHz * 0.02);
  EXPECT_NEAR(sim::RmsDbfs(heard), c.host_dbfs, c.host_tolerance_db);

  // Peer side: every packet in the session's payload type and size, numbered without gaps,
  // 160 timestamp units apart, one SSRC, no marker; and the host's tone inside.
  const std::vector<sim::ReceivedPacket> packets = peer_.Received();
  ASSERT_GE(packets.size(), 50u);
  std::vector<std::uint16_t> order;
  for (const sim::ReceivedPacket& p : packets) {
    EXPECT_EQ(p.header.payload_type, c.session_type);
    EXPECT_EQ(p.payload_size, c.payload_bytes);
    EXPECT_FALSE(p.header.marker);
    EXPECT_EQ(p.header.ssrc, packets.front().header.ssrc);
    order.push_back(p.header.sequence);
  }
  for (std::size_t i = 1; i < packets.size(); ++i) {
    const auto step =
        static_cast<std::uint16_t>(packets[i].header.sequence - packets[i - 1].header.sequence);
    EXPECT_EQ(packets[i].header.timestamp - packets[i - 1].header.timestamp, 160u * step);
  }
  const sim::SequenceStats stats = sim::AnalyzeSequence(order);
  EXPECT_EQ(stats.lost, 0u);
  EXPECT_EQ(stats.duplicates, 0u);
  // The first frames carry the codec's start-up.
  const std::vector<std::int16_t> sent = From(peer_.ReceivedSound(), 10);
  ASSERT_GE(sent.size(), 35 * kFrameSamples);
  EXPECT_NEAR(sim::DominantFrequency(sent), kHostToneHz, kHostToneHz * 0.02);
  EXPECT_NEAR(sim::RmsDbfs(sent), c.peer_dbfs, c.peer_tolerance_db);
}

INSTANTIATE_TEST_SUITE_P(
    Media, CodecCall,
    ::testing::Values(
        CodecCase{"Pcmu", 0, 0, 0, false, "G.711", 160, -12.0, 0.5, -12.0, 0.5},
        // The terminal's A-law encoder shifts by 4 where the standard shifts by 3: what it
        // sends reads 6 dB low on a standard decoder.
        CodecCase{"PcmaStandardExpansion", 8, 8, 8, true, "G.711", 160, -12.0, 0.5, -18.0, 0.5},
        // At start-up the decoder gives each mantissa step half its weight (shift 3): a
        // -12 dBFS tone plays at about -13.5.
        CodecCase{"PcmaStartupExpansion", 8, 8, 8, false, "G.711", 160, -13.5, 0.5, -18.0, 0.5},
        CodecCase{"G729", 18, 18, 18, false, "G.729", 20, -12.0, 2.0, -12.0, 2.0},
        // An offer without a known rtpmap leaves the codec at 0: the call runs on PCMU. The
        // peer's packets say 96 over PCMU payloads; the type in a received header is not
        // looked at, so they play as PCMU.
        CodecCase{"OfferOfOnlyType96RunsOnPcmu", 96, 96, 0, false, "G.711", 160, -12.0, 0.5, -12.0,
                  0.5}),
    [](const ::testing::TestParamInfo<CodecCase>& row) { return std::string(row.param.name); });

// ---------------------------------------------------------------------------------------
// G.722 is signalled only: a constant payload goes out, a constant pattern plays.

TEST_F(MediaCall, G722SendsTheFillAndPlaysTheFixedPattern) {
  ASSERT_NO_FATAL_FAILURE(StartEngine());
  ASSERT_TRUE(peer_.SetPayloadType(sim::kPtG722));
  ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer({9})), 200));
  EXPECT_TRUE(HostSaw("event(35,5,G.722)"));
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  const std::vector<Pull> pulls = RunHost(50);
  ASSERT_TRUE(peer_.WaitForReceived(50, kWait));
  host_.Stop();
  peer_.StopSending();

  // Every packet: type 9, exactly 160 bytes of 0xFA, whatever the host's sound was.
  const std::vector<sim::ReceivedPacket> packets = peer_.Received();
  ASSERT_GE(packets.size(), 50u);
  for (const sim::ReceivedPacket& p : packets) {
    EXPECT_EQ(p.header.payload_type, sim::kPtG722);
    EXPECT_EQ(p.payload_size, 160u);
    EXPECT_TRUE(p.g722_fill_ok) << "sequence " << p.header.sequence;
  }

  // The host plays the 20-sample block over and over, 75 samples late (the concealment's
  // delay): sample j of a frame is block[(j + 5) % 20]. A frame is exact when it and the frame
  // before it were both real, since a concealed frame is cross-faded into the next one.
  std::array<std::int16_t, kFrameSamples> expected{};
  for (std::size_t j = 0; j < kFrameSamples; ++j) expected[j] = kG722Pattern[(j + 5) % 20];
  std::size_t checked = 0;
  bool previous_real = false;
  for (const Pull& pull : pulls) {
    if (pull.status == kEmpty) continue;  // nothing played, the history is unchanged
    if (pull.status != kDelivered) {
      previous_real = false;
      continue;
    }
    for (std::size_t at = 0; at + kFrameSamples <= pull.samples.size(); at += kFrameSamples) {
      if (previous_real) {
        ++checked;
        for (std::size_t j = 0; j < kFrameSamples; ++j) {
          ASSERT_EQ(pull.samples[at + j], expected[j]) << "pull frame sample " << j;
        }
      }
      previous_real = true;
    }
  }
  EXPECT_GE(checked, 30u);
}

// ---------------------------------------------------------------------------------------
// A payload type the session does not know mutes both directions, while the socket is
// still read. No offer can bring one (an unknown rtpmap leaves the codec at PCMU, see
// above), so the test sets it where the call processor would.

TEST_F(MediaCall, UnknownSessionTypeMutesBothWaysWhileTheSocketIsRead) {
  ASSERT_NO_FATAL_FAILURE(StartEngine());
  ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer({0})), 200));
  wave_->SetPayloadType(96);
  ASSERT_TRUE(peer_.SetPayloadType(96));
  const std::uint64_t read_before = wave_->packets_read();
  const std::uint64_t decoded_before = wave_->packets_decoded();
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  const std::vector<Pull> muted = RunHost(25);

  // The host's frames go nowhere; the peer's are read off the socket and dropped.
  EXPECT_EQ(peer_.ReceivedCount(), 0u);
  EXPECT_EQ(CountStatus(muted, kNotPlaying), muted.size());
  EXPECT_TRUE(Played(muted).empty());
  EXPECT_TRUE(testing::Eventually([&] { return wave_->packets_read() >= read_before + 20; }, kWait))
      << "read " << wave_->packets_read() - read_before;
  EXPECT_EQ(wave_->packets_decoded(), decoded_before);

  // A known codec by MDCX: the very packets that were being read now play. The buffer never
  // started playout, so none of them is thrown away as the start of a later path.
  ASSERT_TRUE(peer_.SetPayloadType(0));
  const std::size_t from = host_.pull_count();
  ASSERT_NO_FATAL_FAILURE(
      Command(agent().SendMdcx(sim::ConnectionMode::kSendRecv, Offer({0})), 200));
  const std::ptrdiff_t first = host_.WaitForStatus(kDelivered, from);
  ASSERT_GE(first, 0) << "nothing played after the switch";
  ASSERT_TRUE(host_.WaitForPulls(static_cast<std::size_t>(first) + 30));
  ASSERT_TRUE(peer_.WaitForReceived(20, kWait));
  host_.Stop();
  peer_.StopSending();
  EXPECT_GT(wave_->packets_decoded(), decoded_before);
  const std::vector<std::int16_t> heard = Played(host_.Pulls(static_cast<std::size_t>(first)));
  EXPECT_NEAR(sim::DominantFrequency(heard), kPeerToneHz, kPeerToneHz * 0.02);
  for (const sim::ReceivedPacket& p : peer_.Received()) EXPECT_EQ(p.header.payload_type, 0);
}

// ---------------------------------------------------------------------------------------
// Hold and release stop receiving and empty the buffer: what was waiting is never played.

struct ReceivingCase {
  const char* name;
  std::function<std::uint32_t(sim::MgcpAgent&)> stop;
  int stop_code;
  std::function<std::uint32_t(sim::MgcpAgent&, const sim::MediaOffer&)> resume;
};

void PrintTo(const ReceivingCase& row, std::ostream* os) { *os << row.name; }

class ReceivingCall : public MediaCall, public ::testing::WithParamInterface<ReceivingCase> {};

TEST_P(ReceivingCall, StoppingReceivingDropsWhatWaits) {
  const ReceivingCase& c = GetParam();
  ASSERT_NO_FATAL_FAILURE(StartEngine());
  ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer({0})), 200));
  ASSERT_TRUE(peer_.StartSending());
  host_.Start();
  ASSERT_GE(host_.WaitForStatus(kDelivered, 0), 0) << "the call never played";

  // The host stops taking sound for a while, so frames of the first tone pile up.
  host_.SetPulling(false);
  std::this_thread::sleep_for(160ms);
  ASSERT_NO_FATAL_FAILURE(Command(c.stop(agent()), c.stop_code));
  EXPECT_FALSE(wave_->is_receiving());
  // From here on the peer sends another tone: any 1004 Hz heard later was left behind.
  peer_.SetSource(sim::SoundSource::Tone(400.0, kLevelDbfs));

  const std::uint64_t read_before = wave_->packets_read();
  host_.SetPulling(true);
  const std::vector<Pull> stopped = RunHost(20);
  EXPECT_EQ(CountStatus(stopped, kNotPlaying), stopped.size());
  EXPECT_TRUE(Played(stopped).empty());
  // The stream was still read, and thrown away.
  EXPECT_TRUE(
      testing::Eventually([&] { return wave_->packets_read() >= read_before + 10; }, kWait));

  // Receiving again: the new tone only. A later path also drops its first ten frames.
  const std::size_t from = host_.pull_count();
  ASSERT_NO_FATAL_FAILURE(Command(c.resume(agent(), Offer({0})), 200));
  EXPECT_TRUE(wave_->is_receiving());
  const std::ptrdiff_t first = host_.WaitForStatus(kDelivered, from);
  ASSERT_GE(first, 0) << "nothing played after resuming";
  ASSERT_TRUE(host_.WaitForPulls(static_cast<std::size_t>(first) + 25));
  host_.Stop();
  peer_.StopSending();
  const std::vector<std::int16_t> heard = Played(host_.Pulls(from));
  const double old_tone = sim::GoertzelPower(heard, kPeerToneHz);
  const double new_tone = sim::GoertzelPower(heard, 400.0);
  EXPECT_GT(new_tone, 0.0);
  EXPECT_LT(old_tone, new_tone * 0.001) << "the first tone was played after the buffer was cleared";
}

INSTANTIATE_TEST_SUITE_P(
    Media, ReceivingCall,
    ::testing::Values(ReceivingCase{"Hold",
                                    [](sim::MgcpAgent& a) {
                                      return a.SendMdcx(sim::ConnectionMode::kInactive);
                                    },
                                    200,
                                    [](sim::MgcpAgent& a, const sim::MediaOffer&) {
                                      return a.SendMdcx(sim::ConnectionMode::kSendRecv);
                                    }},
                      ReceivingCase{"Release", [](sim::MgcpAgent& a) { return a.SendDlcx(); }, 250,
                                    [](sim::MgcpAgent& a, const sim::MediaOffer& offer) {
                                      return a.SendCrcx(offer);
                                    }}),
    [](const ::testing::TestParamInfo<ReceivingCase>& row) { return std::string(row.param.name); });

// ---------------------------------------------------------------------------------------
// Loss: each packet the network drops is one concealed frame for the host.

TEST_F(MediaCall, EachLostPacketIsConcealedOnce) {
  constexpr std::uint32_t kFrames = 250;
  ASSERT_NO_FATAL_FAILURE(StartEngine());
  ASSERT_NO_FATAL_FAILURE(Command(agent().SendCrcx(Offer({0})), 200));
  sim::FaultScript faults;
  faults.drop_percent = 10.0;
  faults.seed = 13;
  peer_.SetFaults(faults);
  ASSERT_TRUE(peer_.StartSending(kFrames));
  host_.Start();
  ASSERT_TRUE(peer_.WaitSendingDone(kWait + kFrames * 40ms));
  // Drain: once the buffer is empty every pull says so.
  ASSERT_TRUE(testing::Eventually(
      [&] {
        const std::vector<Pull> pulls = host_.Pulls();
        return pulls.size() >= 5 && std::all_of(pulls.end() - 5, pulls.end(),
                                                [](const Pull& p) { return p.status == kEmpty; });
      },
      kWait));
  host_.Stop();

  // Drops before the first and after the last packet that went out leave no hole that the
  // host could reach: count those between.
  const std::vector<sim::SentPacket> sent = peer_.Sent();
  ASSERT_FALSE(sent.empty());
  const std::uint32_t span =
      static_cast<std::uint16_t>(sent.back().header.sequence - sent.front().header.sequence) + 1u;
  const std::uint32_t dropped = span - static_cast<std::uint32_t>(sent.size());
  EXPECT_GE(dropped, 15u);
  EXPECT_LE(dropped, 40u);
  ASSERT_EQ(wave_->packets_decoded(), sent.size()) << "loopback lost packets of its own";

  // A hole at the read position gives one 600, one concealed frame, consecutive holes one
  // each. The count differs from the drops only by the buffer's own steering: a frame is held
  // back once, as a 600, whenever the depth falls to the target (once as the stream drains at
  // the end, and after late wake-ups on a loaded machine), and a hole that leaves inside a
  // burst (depth above target + 3) is concealed within a delivered pull, not as a 600. Frames
  // dropped above the upper depth would take holes with them, but the depth stays far below
  // it here. Each effect is a frame or two in five seconds: 20% or 3, whichever is larger.
  const std::vector<Pull> pulls = host_.Pulls();
  const std::size_t concealed = CountStatus(pulls, kConcealed);
  const double bound = std::max(3.0, 0.2 * dropped);
  EXPECT_NEAR(static_cast<double>(concealed), static_cast<double>(dropped), bound)
      << "delivered pulls " << CountStatus(pulls, kDelivered) << ", empty "
      << CountStatus(pulls, kEmpty);
  // Concealment repeats the pitch: the tone goes on through the gaps.
  EXPECT_NEAR(sim::DominantFrequency(Played(pulls)), kPeerToneHz, kPeerToneHz * 0.02);
}

}  // namespace
}  // namespace deskline
