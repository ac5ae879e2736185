#include <gtest/gtest.h>

#include <sndfile.h>

#include <cmath>
#include <fstream>
#include <thread>

#include "testing/fake_clock.h"
#include "testing/temp_dir.h"
#include "tools/phone/speech_source.h"
#include "tools/phone/voice_pacer.h"
#include "tools/phone/wav_file.h"

namespace deskline::phone {
namespace {

using Frame = std::array<std::int16_t, kFrameSamples>;

TEST(PhoneWavTest, WritesReadsMixesResamplesAndRefuses) {
  testing::TempDir dir;
  std::string error;
  std::vector<std::int16_t> samples;
  for (int i = 0; i < 480; ++i) samples.push_back(static_cast<std::int16_t>(i * 137 - 32768));
  samples.push_back(32767);
  {
    WavWriter writer;
    ASSERT_TRUE(writer.Open(dir.File("rx.wav"), &error)) << error;
    ASSERT_TRUE(writer.Write(std::span(samples).first(160)));
    ASSERT_TRUE(writer.Write(std::span(samples).subspan(160)));
    EXPECT_EQ(writer.samples_written(), 481);
    writer.Close();
    writer.Close();
    EXPECT_FALSE(writer.Write(samples));
  }
  SF_INFO info{};
  SNDFILE* file = sf_open(dir.File("rx.wav").c_str(), SFM_READ, &info);
  ASSERT_NE(file, nullptr);
  sf_close(file);
  EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  EXPECT_EQ(info.samplerate, 8000);
  EXPECT_EQ(info.channels, 1);
  std::vector<std::int16_t> back;
  ASSERT_TRUE(ReadSoundAs8kMono(dir.File("rx.wav"), &back, &error)) << error;
  EXPECT_EQ(back, samples);

  // One second at 16 kHz: left a constant 0.5, right 0; the mix is 0.25 throughout.
  info = SF_INFO{0, 16000, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
  file = sf_open(dir.File("stereo.wav").c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr);
  std::vector<float> frames(2 * 16000);
  for (std::size_t i = 0; i < frames.size(); i += 2) frames[i] = 0.5f;
  sf_writef_float(file, frames.data(), 16000);
  sf_close(file);
  ASSERT_TRUE(ReadSoundAs8kMono(dir.File("stereo.wav"), &back, &error)) << error;
  EXPECT_EQ(back, std::vector<std::int16_t>(8000, 8192));

  EXPECT_FALSE(ReadSoundAs8kMono(dir.File("missing.wav"), &back, &error));
  EXPECT_NE(error.find("missing.wav"), std::string::npos);
  std::ofstream(dir.File("junk.wav")) << "RIFF not really";
  EXPECT_FALSE(ReadSoundAs8kMono(dir.File("junk.wav"), &back, &error));

  // 4 kHz to 8 kHz: the midpoints are interpolated; out of range values clamp.
  const float ramp[] = {0.0f, 0.5f, 2.0f};
  EXPECT_EQ(Resample(ramp, 4000, 8000),
            (std::vector<std::int16_t>{0, 8192, 16384, 32767, 32767, 32767}));
  EXPECT_TRUE(Resample({}, 8000, 8000).empty());
  EXPECT_TRUE(Resample(ramp, 0, 8000).empty());
}

TEST(PhoneSourceTest, LoopToneAndSpeechFrames) {
  Frame frame;
  LoopSource loop({1, 2, 3});
  loop.Next(frame);
  EXPECT_EQ(frame[0], 1);
  EXPECT_EQ(frame[159], 1);  // 159 % 3 == 0
  loop.Next(frame);
  EXPECT_EQ(frame[0], 2);  // the loop goes on where it stopped

  ToneSource tone(1000, 10000);  // eight samples a cycle
  tone.Next(frame);
  EXPECT_EQ((std::vector<std::int16_t>{frame[0], frame[2], frame[6], frame[8], frame[10]}),
            (std::vector<std::int16_t>{0, 10000, -10000, 0, 10000}));

  // The synthetic talker: syllables with pauses, at a speech-like level, the same every run.
  SpeechSource talker(8000, 7);
  SpeechSource again(8000, 7);
  int voiced = 0;
  int silent = 0;
  double energy = 0;
  for (int n = 0; n < 250; ++n) {  // five seconds
    Frame copy;
    talker.Next(frame);
    again.Next(copy);
    ASSERT_EQ(frame, copy);
    double sum = 0;
    for (std::int16_t s : frame) {
      ASSERT_LE(std::abs(s), 8000);
      sum += double(s) * s;
    }
    energy += sum;
    const double rms = std::sqrt(sum / kFrameSamples);
    voiced += rms > 300;
    silent += rms < 1;
  }
  EXPECT_GT(voiced, 100);
  EXPECT_GT(silent, 10) << "pauses between syllables";
  const double dbfs = 10 * std::log10(energy / (250.0 * kFrameSamples) / (32767.0 * 32767.0 / 2));
  EXPECT_GT(dbfs, -30);
  EXPECT_LT(dbfs, -10);
}

// send_voice and recv_voice as a schedule: each send's simulated time, and a script of receive
// results (bytes, status); past the script, nothing is playing. Also the recording.
class FakePort final : public VoicePort, public FrameSink {
 public:
  explicit FakePort(testing::FakeClock& clock) : clock_(clock) {}
  std::uint32_t SendVoice(std::span<const std::int16_t> pcm) override {
    send_ms.push_back(clock_.ElapsedMs());
    if (stall_at_send == send_ms.size()) clock_.AdvanceMs(stall_ms);
    if (send_ms.size() == stop_after) pacer->RequestStop();
    return static_cast<std::uint32_t>(pcm.size_bytes());
  }
  std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) override {
    const std::size_t call = receive_calls++;
    const auto [bytes, code] = call < script.size() ? script[call] : std::pair(0u, 601u);
    *status = code;
    for (std::size_t i = 0; i < bytes / 2 && i < pcm.size(); ++i) pcm[i] = std::int16_t(call);
    return bytes;
  }
  void Write(std::span<const std::int16_t> samples) override {
    written.insert(written.end(), samples.begin(), samples.end());
  }

  testing::FakeClock& clock_;
  VoicePacer* pacer = nullptr;
  std::size_t stop_after = 0;
  std::size_t stall_at_send = 0;
  std::int64_t stall_ms = 0;
  std::vector<std::int64_t> send_ms;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> script;
  std::size_t receive_calls = 0;
  std::vector<std::int16_t> written;
};

// A pacer over the fake port; by default the clock is automatic, so its waits move simulated
// time.
struct PacerRig {
  explicit PacerRig(testing::FakeClock::Mode mode = testing::FakeClock::Mode::kAuto) : clock(mode) {
    port.pacer = &pacer;
  }
  testing::FakeClock clock;
  FakePort port{clock};
  LoopSource source{{7}};
  std::atomic<bool> active{true};
  VoicePacer pacer{port, &source, &port, active, clock};
};

TEST(PhonePacerTest, OneFrameEvery20MsAndCountsByStatus) {
  PacerRig rig;
  rig.port.stop_after = 6;
  rig.port.script = {{0, 601}, {320, 0}, {960, 0}, {320, 600}, {0, 1}, {5000, 0}};
  rig.pacer.Run();
  EXPECT_EQ(rig.port.send_ms, (std::vector<std::int64_t>{0, 20, 40, 60, 80, 100}));
  const VoiceCounts counts = rig.pacer.counts();
  EXPECT_EQ(counts.sent, 6u);
  EXPECT_EQ(counts.received, 1u + 3u + 8u);  // an oversized count is cut to the buffer
  EXPECT_EQ(counts.concealed, 1u);
  EXPECT_EQ(counts.playout_delay_frames, 1) << "one tick passed before the first frame played";
  // What was delivered or concealed is recorded, in order; nothing for 601 and 1.
  EXPECT_EQ(rig.port.written.size(), (1u + 3u + 1u + 8u) * kFrameSamples);
  EXPECT_EQ(rig.port.written.front(), 1);
  EXPECT_EQ(rig.port.written.back(), 5);
}

TEST(PhonePacerTest, StallsUpTo100MsAreCaughtUpLongerOnesRestartTheSchedule) {
  struct Row {
    std::size_t stall_at_send;
    std::int64_t stall_ms;
    std::vector<std::int64_t> send_ms;
    std::uint64_t resyncs;
  };
  const Row rows[] = {
      // The frame due at 40 ms takes 70: those due at 60, 80 and 100 go out at once.
      {3, 70, {0, 20, 40, 110, 110, 110, 120, 140}, 0},
      {3, 120, {0, 20, 40, 160, 160, 160, 160, 160, 160, 180}, 0},  // 100 ms late: still caught up
      {3, 121, {0, 20, 40, 161, 181, 201}, 1},                      // 101 ms: restarted, no burst
      {2, 1000, {0, 20, 1020, 1040, 1060, 1080}, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.stall_ms);
    PacerRig rig;
    rig.port.stall_at_send = row.stall_at_send;
    rig.port.stall_ms = row.stall_ms;
    rig.port.stop_after = row.send_ms.size();
    rig.pacer.Run();
    EXPECT_EQ(rig.port.send_ms, row.send_ms);
    EXPECT_EQ(rig.pacer.counts().resyncs, row.resyncs);
  }
}

TEST(PhonePacerTest, ClosedVoicePathMovesNothing) {
  PacerRig rig;
  rig.active = false;
  std::thread stopper([&] {
    while (rig.clock.ElapsedMs() < 200) std::this_thread::yield();
    rig.pacer.RequestStop();
  });
  rig.pacer.Run();
  stopper.join();
  EXPECT_TRUE(rig.port.send_ms.empty());
  EXPECT_EQ(rig.port.receive_calls, 0u);
}

TEST(PhonePacerTest, StartsOnItsOwnThreadAndStopJoins) {
  PacerRig rig(testing::FakeClock::Mode::kManual);
  ASSERT_TRUE(rig.pacer.Start());
  ASSERT_TRUE(rig.clock.AwaitSleepers(1));
  rig.clock.AdvanceMs(20);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (rig.pacer.counts().sent < 2 && std::chrono::steady_clock::now() < until) {
    std::this_thread::yield();
  }
  rig.pacer.Stop();
  rig.pacer.Stop();
  EXPECT_EQ(rig.pacer.counts().sent, 2u);
}

}  // namespace
}  // namespace deskline::phone
