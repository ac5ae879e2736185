#include <gtest/gtest.h>

#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <thread>

#include "testing/fake_clock.h"
#include "testing/temp_dir.h"
#include "tools/phone/speech_source.h"
#include "tools/phone/voice_pacer.h"
#include "tools/phone/wav_file.h"

namespace deskline::phone {
namespace {

TEST(PhoneWavTest, WrittenFramesReadBackExactly) {
  testing::TempDir dir;
  const std::string path = (dir.path() / "rx.wav").string();
  std::vector<std::int16_t> samples;
  for (int i = 0; i < 480; ++i) samples.push_back(static_cast<std::int16_t>(i * 137 - 32768));
  samples.push_back(32767);
  {
    WavWriter writer;
    std::string error;
    ASSERT_TRUE(writer.Open(path, &error)) << error;
    ASSERT_TRUE(writer.Write(std::span(samples).first(160)));
    ASSERT_TRUE(writer.Write(std::span(samples).subspan(160)));
    EXPECT_EQ(writer.samples_written(), 481);
    writer.Close();
    writer.Close();
    EXPECT_FALSE(writer.Write(samples));
  }
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(info.samplerate, 8000);
  EXPECT_EQ(info.channels, 1);
  EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  sf_close(file);

  std::vector<std::int16_t> back;
  std::string error;
  ASSERT_TRUE(ReadSoundAs8kMono(path, &back, &error)) << error;
  EXPECT_EQ(back, samples);
}

TEST(PhoneWavTest, OtherRatesAndChannelsBecome8kMono) {
  testing::TempDir dir;
  const std::string path = (dir.path() / "stereo.wav").string();
  SF_INFO info{};
  info.samplerate = 16000;
  info.channels = 2;
  info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr);
  // One second: left a constant 0.5, right 0: the mix is 0.25 throughout.
  std::vector<float> frames(2 * 16000);
  for (std::size_t i = 0; i < frames.size(); i += 2) frames[i] = 0.5f;
  sf_writef_float(file, frames.data(), 16000);
  sf_close(file);

  std::vector<std::int16_t> samples;
  std::string error;
  ASSERT_TRUE(ReadSoundAs8kMono(path, &samples, &error)) << error;
  ASSERT_EQ(samples.size(), 8000u);
  for (std::int16_t s : samples) ASSERT_EQ(s, 8192);  // 0.25 of full scale

  EXPECT_FALSE(ReadSoundAs8kMono((dir.path() / "missing.wav").string(), &samples, &error));
  EXPECT_NE(error.find("missing.wav"), std::string::npos);
  const std::string junk = (dir.path() / "junk.wav").string();
  std::FILE* f = std::fopen(junk.c_str(), "wb");
  std::fputs("RIFF not really", f);
  std::fclose(f);
  EXPECT_FALSE(ReadSoundAs8kMono(junk, &samples, &error));
}

TEST(PhoneWavTest, ResampleUpInterpolatesAndClamps) {
  const float ramp[] = {0.0f, 0.5f, 2.0f};
  // 4 kHz to 8 kHz: the midpoints are interpolated; out of range values clamp.
  EXPECT_EQ(Resample(ramp, 4000, 8000),
            (std::vector<std::int16_t>{0, 8192, 16384, 32767, 32767, 32767}));
  EXPECT_TRUE(Resample({}, 8000, 8000).empty());
  EXPECT_TRUE(Resample(ramp, 0, 8000).empty());
}

TEST(PhoneSourceTest, LoopAndToneFrames) {
  LoopSource loop({1, 2, 3});
  std::array<std::int16_t, kFrameSamples> frame;
  loop.Next(frame);
  EXPECT_EQ(frame[0], 1);
  EXPECT_EQ(frame[3], 1);
  EXPECT_EQ(frame[159], 1);  // 159 % 3 == 0
  loop.Next(frame);
  EXPECT_EQ(frame[0], 2);  // the loop goes on where it stopped

  ToneSource tone(1000, 10000);  // eight samples a cycle
  tone.Next(frame);
  EXPECT_EQ(frame[0], 0);
  EXPECT_EQ(frame[2], 10000);
  EXPECT_EQ(frame[6], -10000);
  EXPECT_EQ(frame[8], 0);
  EXPECT_EQ(frame[10], 10000);
}

// The synthetic talker: syllables with pauses between them, at a speech-like level, and the
// same talk for the same seed.
TEST(PhoneSourceTest, SpeechHasSyllablesAndPauses) {
  SpeechSource talker(8000, 7);
  SpeechSource again(8000, 7);
  int voiced = 0;
  int silent = 0;
  double energy = 0;
  std::array<std::int16_t, kFrameSamples> frame;
  std::array<std::int16_t, kFrameSamples> copy;
  for (int n = 0; n < 250; ++n) {  // five seconds
    talker.Next(frame);
    again.Next(copy);
    ASSERT_EQ(frame, copy);
    double sum = 0;
    int peak = 0;
    for (std::int16_t s : frame) {
      sum += double(s) * s;
      peak = std::max(peak, std::abs(int(s)));
    }
    EXPECT_LE(peak, 8000);
    energy += sum;
    const double rms = std::sqrt(sum / kFrameSamples);
    if (rms > 300) ++voiced;
    if (rms < 1) ++silent;
  }
  EXPECT_GT(voiced, 100);
  EXPECT_GT(silent, 10) << "pauses between syllables";
  const double rms_dbfs = 10 * std::log10(energy / (250.0 * kFrameSamples) / (32767.0 * 32767.0 / 2));
  EXPECT_GT(rms_dbfs, -30);
  EXPECT_LT(rms_dbfs, -10);
}

// send_voice and recv_voice as a schedule: every call's simulated time, and a script of
// receive results.
class FakePort final : public VoicePort {
 public:
  explicit FakePort(testing::FakeClock& clock) : clock_(clock) {}
  std::uint32_t SendVoice(std::span<const std::int16_t> pcm) override {
    send_ms.push_back(clock_.ElapsedMs());
    first_samples.push_back(pcm[0]);
    if (stall_at_send == send_ms.size()) clock_.AdvanceMs(stall_ms);
    if (send_ms.size() == stop_after) pacer->RequestStop();
    return static_cast<std::uint32_t>(pcm.size_bytes());
  }
  std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) override {
    const std::size_t call = receive_calls++;
    const auto& [bytes, code] = call < script.size() ? script[call] : std::pair<std::uint32_t, std::uint32_t>{0, 601};
    *status = code;
    for (std::size_t i = 0; i < bytes / 2 && i < pcm.size(); ++i) pcm[i] = static_cast<std::int16_t>(call);
    return bytes;
  }

  testing::FakeClock& clock_;
  VoicePacer* pacer = nullptr;
  std::size_t stop_after = 0;
  std::size_t stall_at_send = 0;
  std::int64_t stall_ms = 0;
  std::vector<std::int64_t> send_ms;
  std::vector<std::int16_t> first_samples;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> script;  // bytes, status per call
  std::size_t receive_calls = 0;
};

class RecordingSink final : public FrameSink {
 public:
  void Write(std::span<const std::int16_t> samples) override {
    written.insert(written.end(), samples.begin(), samples.end());
  }
  std::vector<std::int16_t> written;
};

struct PacerFixture : ::testing::Test {
  testing::FakeClock clock;  // auto: the pacer's waits move simulated time
  FakePort port{clock};
  LoopSource source{{7}};
  RecordingSink sink;
  std::atomic<bool> active{true};
  VoicePacer pacer{port, source, &sink, active, clock};
  void SetUp() override { port.pacer = &pacer; }
};

TEST_F(PacerFixture, OneFrameEvery20MsAndCountsByStatus) {
  port.stop_after = 6;
  port.script = {{0, 601}, {320, 0}, {960, 0}, {320, 600}, {0, 1}, {5000, 0}};
  pacer.Run();
  EXPECT_EQ(port.send_ms, (std::vector<std::int64_t>{0, 20, 40, 60, 80, 100}));
  const VoiceCounts counts = pacer.counts();
  EXPECT_EQ(counts.sent, 6u);
  EXPECT_EQ(counts.received, 1u + 3u + 8u);  // an oversized count is cut to the buffer
  EXPECT_EQ(counts.concealed, 1u);
  EXPECT_EQ(counts.resyncs, 0u);
  EXPECT_EQ(counts.playout_delay_frames, 1) << "one tick passed before the first frame played";
  // What was delivered or concealed is recorded, in order; nothing for 601 and 1.
  EXPECT_EQ(sink.written.size(), (1u + 3u + 1u + 8u) * kFrameSamples);
  EXPECT_EQ(sink.written.front(), 1);
  EXPECT_EQ(sink.written.back(), 5);
}

TEST_F(PacerFixture, ShortStallsAreCaughtUpLongOnesRestartTheSchedule) {
  port.stop_after = 12;
  port.stall_at_send = 3;  // the frame due at 40 ms takes 70 ms
  port.stall_ms = 70;
  pacer.Run();
  // The frames due at 60, 80 and 100 go out at once; then the pace holds.
  EXPECT_EQ(port.send_ms, (std::vector<std::int64_t>{0, 20, 40, 110, 110, 110, 120, 140, 160, 180, 200, 220}));
  EXPECT_EQ(pacer.counts().resyncs, 0u);
}

TEST_F(PacerFixture, LongStallRestartsWithoutABurst) {
  port.stop_after = 6;
  port.stall_at_send = 2;
  port.stall_ms = 1000;
  pacer.Run();
  EXPECT_EQ(port.send_ms, (std::vector<std::int64_t>{0, 20, 1020, 1040, 1060, 1080}));
  EXPECT_EQ(pacer.counts().resyncs, 1u);
}

TEST_F(PacerFixture, ClosedVoicePathMovesNothing) {
  active = false;
  std::thread stopper([&] {
    while (clock.ElapsedMs() < 200) std::this_thread::yield();
    pacer.RequestStop();
  });
  pacer.Run();
  stopper.join();
  EXPECT_TRUE(port.send_ms.empty());
  EXPECT_EQ(port.receive_calls, 0u);
}

TEST(PhonePacerThreadTest, StartsOnItsOwnThreadAndStopJoins) {
  testing::FakeClock clock(testing::FakeClock::Mode::kManual);
  FakePort port(clock);
  LoopSource source({});
  std::atomic<bool> active{true};
  VoicePacer pacer(port, source, nullptr, active, clock);
  ASSERT_TRUE(pacer.Start());
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(20);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (pacer.counts().sent < 2 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  pacer.Stop();
  pacer.Stop();
  EXPECT_EQ(pacer.counts().sent, 2u);
}

}  // namespace
}  // namespace deskline::phone
