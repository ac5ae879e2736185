// The virtual sound card, in simulated time: a manual FakeClock, stepped only when every
// stream thread waits (Settle), so each step shows exactly what a sound card would have done.
#include "platform/wave/wave_virtual.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "platform/fs.h"
#include "platform/wave/wav_file.h"
#include "testing/eventually.h"
#include "testing/fake_clock.h"
#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

using testing::Eventually;
using testing::FakeClock;

struct Heard {
  WaveMessage message;
  WaveHeader* header;
  std::int64_t at_ms;
  std::uint32_t bytes;  // bytes_recorded when it was heard
};

class Listener final : public WaveListener {
 public:
  explicit Listener(const FakeClock& clock) : clock_(clock) {}
  void OnWaveMessage(WaveMessage message, WaveHeader* header) override {
    if (block_) {
      entered_ = true;
      while (block_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::lock_guard lock(mutex_);
    heard_.push_back({message, header, clock_.ElapsedMs(), header ? header->bytes_recorded : 0});
  }
  std::vector<Heard> heard() const {
    std::lock_guard lock(mutex_);
    return heard_;
  }
  int Count(WaveMessage message) const {
    int n = 0;
    for (const auto& h : heard()) n += h.message == message;
    return n;
  }
  std::vector<std::int64_t> Times(WaveMessage message) const {
    std::vector<std::int64_t> times;
    for (const auto& h : heard()) {
      if (h.message == message) times.push_back(h.at_ms);
    }
    return times;
  }
  std::atomic<bool> block_{false}, entered_{false};

 private:
  const FakeClock& clock_;
  mutable std::mutex mutex_;
  std::vector<Heard> heard_;
};

// Buffers with their headers, prepared on a stream; byte i of buffer b holds b * 16 + i.
struct Buffers {
  Buffers(int count, std::uint32_t length) : data(count), headers(count) {
    for (int b = 0; b < count; ++b) {
      data[b].resize(length);
      for (std::uint32_t i = 0; i < length; ++i) data[b][i] = static_cast<char>(b * 16 + i);
      headers[b].data = data[b].data();
      headers[b].buffer_length = length;
    }
  }
  template <typename Stream>
  void PrepareOn(Stream& stream) {
    for (auto& h : headers) ASSERT_EQ(stream.Prepare(&h), kWaveOk);
  }
  std::vector<std::vector<char>> data;
  std::vector<WaveHeader> headers;
};

WaveFormat Pcm(std::uint32_t rate, std::uint16_t channels, std::uint16_t bits) {
  const auto align = static_cast<std::uint16_t>(channels * bits / 8);
  return WaveFormat{1, channels, rate, rate * align, align, bits, 0};
}

// Every open stream's thread waits on the clock, with everything due handed back.
void Settle(const VirtualWaveSystem& system, const FakeClock& clock) {
  ASSERT_TRUE(Eventually([&] {
    const int open = system.OpenStreams();
    return system.WaitingStreams() == open && clock.sleepers() >= open;
  })) << "stream threads did not settle";
}

class VirtualWaveTest : public ::testing::Test {
 protected:
  void Settle() { deskline::platform::Settle(system_, clock_); }
  void Step(std::int64_t ms) {
    Settle();
    clock_.AdvanceMs(ms);
    Settle();
  }
  std::unique_ptr<WaveOutStream> OpenOut(const WaveFormat& format = kVoiceFormat, int id = 0) {
    std::unique_ptr<WaveOutStream> stream;
    EXPECT_EQ(system_.OpenOut(id, format, &listener_, &stream), kWaveOk);
    return stream;
  }
  std::unique_ptr<WaveInStream> OpenIn(const WaveFormat& format = kVoiceFormat, int id = 0) {
    std::unique_ptr<WaveInStream> stream;
    EXPECT_EQ(system_.OpenIn(id, format, &listener_, &stream), kWaveOk);
    return stream;
  }

  FakeClock clock_{FakeClock::Mode::kManual};
  VirtualWaveSystem system_{clock_};
  Listener listener_{clock_};
};

TEST_F(VirtualWaveTest, DefaultsOneMicrophoneAndOneSpeakerAndNamesAreCut) {
  EXPECT_EQ(system_.InputDevices(), std::vector<std::u16string>{u"Virtual Microphone"});
  EXPECT_EQ(system_.OutputDevices(), std::vector<std::u16string>{u"Virtual Speaker"});
  system_.SetOutputDevices({u"A", u"0123456789012345678901234567890123456789"});
  EXPECT_EQ(system_.OutputDevices()[1], u"0123456789012345678901234567890");
}

TEST_F(VirtualWaveTest, OutputPlaysBackToBackThenRestartsAtNowAfterAnUnderrun) {
  auto out = OpenOut();
  Buffers frames(6, 320);  // 20 ms each
  frames.PrepareOn(*out);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(out->Write(&frames.headers[i]), kWaveOk);
  EXPECT_EQ(out->Write(&frames.headers[0]), kWaveStillPlaying);
  EXPECT_EQ(out->Unprepare(&frames.headers[0]), kWaveStillPlaying);
  for (int t = 10; t <= 120; t += 10) {
    Step(10);
    EXPECT_EQ(listener_.Count(WaveMessage::kDone), std::min(t / 20, 5)) << "at " << t << " ms";
  }
  EXPECT_EQ(listener_.Times(WaveMessage::kDone), (std::vector<std::int64_t>{20, 40, 60, 80, 100}));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(frames.headers[i].flags.load(), kWaveHeaderDone | kWaveHeaderPrepared);
    EXPECT_EQ(listener_.heard()[i + 1].header, &frames.headers[i]) << "in order";
  }
  // The queue ran dry at 100 ms; a frame written at 130 ms plays 130..150.
  Step(10);
  ASSERT_EQ(out->Write(&frames.headers[5]), kWaveOk);
  Step(19);
  EXPECT_EQ(listener_.Count(WaveMessage::kDone), 5);
  Step(1);
  EXPECT_EQ(listener_.Times(WaveMessage::kDone).back(), 150);

  ASSERT_EQ(out->Close(), kWaveOk);
  const auto playbacks = system_.Playbacks();
  ASSERT_EQ(playbacks.size(), 1u);
  std::vector<std::uint8_t> written;
  for (const auto& d : frames.data) written.insert(written.end(), d.begin(), d.end());
  EXPECT_EQ(playbacks[0].data, written);
  EXPECT_EQ(playbacks[0].bytes_played, 6u * 320);
  EXPECT_EQ(playbacks[0].writes, 6u);
  EXPECT_EQ(playbacks[0].device, u"Virtual Speaker");
  EXPECT_FALSE(playbacks[0].open);
  EXPECT_EQ(listener_.heard().front().message, WaveMessage::kOpen);
  EXPECT_EQ(listener_.heard().back().message, WaveMessage::kClose);
}

TEST_F(VirtualWaveTest, OneWakeUpPerFrameAndNoneWhileIdle) {
  auto out = OpenOut();
  Buffers frames(5, 320);
  frames.PrepareOn(*out);
  Settle();
  const std::uint64_t before = system_.WakeUps();
  for (auto& h : frames.headers) ASSERT_EQ(out->Write(&h), kWaveOk);
  int written = 5;
  for (int t = 20; t <= 1000; t += 20) {  // 50 frames played, the queue kept at 5
    Step(20);
    for (auto& h : frames.headers) {
      if ((h.flags.load() & kWaveHeaderDone) && written < 50) {
        ASSERT_EQ(out->Write(&h), kWaveOk);
        ++written;
      }
    }
  }
  EXPECT_EQ(listener_.Count(WaveMessage::kDone), 50);
  const std::uint64_t used = system_.WakeUps() - before;
  EXPECT_GE(used, 50u);
  EXPECT_LE(used, 52u) << "one per frame, plus the first write's";
  Step(5000);
  EXPECT_EQ(system_.WakeUps() - before, used) << "idle costs nothing";
}

TEST_F(VirtualWaveTest, InputFillsAtItsPaceAndLosesSoundWhileNothingIsLent) {
  std::vector<std::int16_t> ramp(2000);
  for (int i = 0; i < 2000; ++i) ramp[i] = static_cast<std::int16_t>(i * 3 - 1000);
  system_.SetMicrophone(ramp, false);
  auto in = OpenIn();
  Buffers frames(3, 320);  // 160 samples each
  frames.PrepareOn(*in);
  ASSERT_EQ(in->AddBuffer(&frames.headers[0]), kWaveOk);
  ASSERT_EQ(in->AddBuffer(&frames.headers[1]), kWaveOk);
  Step(50);
  EXPECT_EQ(listener_.Count(WaveMessage::kData), 0) << "nothing before Start";
  ASSERT_EQ(in->Start(), kWaveOk);
  Step(19);
  EXPECT_EQ(listener_.Count(WaveMessage::kData), 0);
  Step(1);
  Step(20);
  Step(20);  // 40..60 ms: nothing lent, the microphone's samples 320..479 are lost
  ASSERT_EQ(in->AddBuffer(&frames.headers[2]), kWaveOk);
  Step(20);
  EXPECT_EQ(listener_.Times(WaveMessage::kData), (std::vector<std::int64_t>{70, 90, 130}));
  const std::int64_t first_sample[] = {0, 160, 480};
  for (int b = 0; b < 3; ++b) {
    const WaveHeader& h = frames.headers[b];
    EXPECT_EQ(h.bytes_recorded, 320u);
    EXPECT_EQ(h.flags.load(), kWaveHeaderDone | kWaveHeaderPrepared);
    for (int i = 0; i < 160; i += 53) {
      std::int16_t s;
      std::memcpy(&s, h.data + 2 * i, 2);
      EXPECT_EQ(s, ramp[first_sample[b] + i]) << "buffer " << b << " sample " << i;
    }
  }
}

TEST_F(VirtualWaveTest, InputFormatsRepeatOrSkipTheMicrophoneAndCopyChannels) {
  system_.SetMicrophone({1000, 2000, 3000, 4000}, /*loop=*/true);
  const struct {
    WaveFormat format;
    std::vector<std::int16_t> first_samples;  // channel 0 of the first frames, as 16 bits
  } cases[] = {
      {Pcm(16000, 2, 16), {1000, 1000, 2000, 2000, 3000, 3000, 4000, 4000, 1000}},
      {Pcm(4000, 1, 16), {1000, 3000, 1000, 3000}},
      {Pcm(8000, 1, 8), {768, 1792, 2816, 3840, 768}},  // 8 bits keep the high byte
  };
  for (const auto& c : cases) {
    auto in = OpenIn(c.format);
    Buffers one(1, c.format.avg_bytes_per_sec / 100);  // 10 ms
    one.PrepareOn(*in);
    ASSERT_EQ(in->AddBuffer(&one.headers[0]), kWaveOk);
    ASSERT_EQ(in->Start(), kWaveOk);
    Step(10);
    ASSERT_EQ(one.headers[0].bytes_recorded, one.headers[0].buffer_length);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(one.headers[0].data);
    for (std::size_t i = 0; i < c.first_samples.size(); ++i) {
      const std::uint8_t* frame = bytes + i * c.format.block_align;
      for (int ch = 0; ch < c.format.channels; ++ch) {
        const int value = c.format.bits_per_sample == 8
                              ? (frame[ch] - 128) * 256
                              : static_cast<std::int16_t>(frame[2 * ch] | frame[2 * ch + 1] << 8);
        EXPECT_EQ(value, c.first_samples[i]) << c.format.samples_per_sec << " Hz, frame " << i;
      }
    }
    ASSERT_EQ(in->Close(), kWaveOk);
  }
}

TEST_F(VirtualWaveTest, ResetAndStopHandBuffersBackWithWhatTheyHold) {
  auto out = OpenOut();
  Buffers played(3, 320);
  played.PrepareOn(*out);
  for (auto& h : played.headers) ASSERT_EQ(out->Write(&h), kWaveOk);
  Step(30);  // the second frame is half played
  ASSERT_EQ(out->Reset(), kWaveOk);
  for (auto& h : played.headers) EXPECT_TRUE(h.flags.load() & kWaveHeaderDone) << "at once";
  Settle();
  EXPECT_EQ(listener_.Count(WaveMessage::kDone), 3);
  EXPECT_EQ(system_.Playbacks()[0].bytes_played, 320u + 160u);
  EXPECT_EQ(out->Unprepare(&played.headers[2]), kWaveOk);

  auto in = OpenIn();
  Buffers lent(4, 320);
  lent.PrepareOn(*in);
  for (auto& h : lent.headers) ASSERT_EQ(in->AddBuffer(&h), kWaveOk);
  ASSERT_EQ(in->Start(), kWaveOk);
  Step(25);
  ASSERT_EQ(in->Stop(), kWaveOk);  // the second comes back with 5 ms; the others stay lent
  Settle();
  EXPECT_EQ(listener_.Count(WaveMessage::kData), 2);
  EXPECT_EQ(lent.headers[1].bytes_recorded, 80u);
  EXPECT_EQ(in->Unprepare(&lent.headers[2]), kWaveStillPlaying);
  Step(100);
  EXPECT_EQ(listener_.Count(WaveMessage::kData), 2) << "stopped";
  ASSERT_EQ(in->Start(), kWaveOk);
  Step(10);
  ASSERT_EQ(in->Reset(), kWaveOk);
  Settle();
  const auto heard = listener_.heard();
  ASSERT_EQ(listener_.Count(WaveMessage::kData), 4);
  EXPECT_EQ(heard[heard.size() - 2].bytes, 160u) << "10 ms since Start";
  EXPECT_EQ(heard.back().bytes, 0u) << "an empty buffer comes back with 0 bytes";
  for (auto& h : lent.headers) EXPECT_EQ(in->Unprepare(&h), kWaveOk);
}

TEST_F(VirtualWaveTest, VanishingDeviceAnswersSixAndComesBackAtTheEnd) {
  system_.SetOutputDevices({u"Headset", u"Speaker"});
  auto out = OpenOut(kVoiceFormat, 0);
  auto in = OpenIn();
  Buffers frames(3, 320);
  frames.PrepareOn(*out);
  Buffers lent(1, 320);
  lent.PrepareOn(*in);
  ASSERT_EQ(out->Write(&frames.headers[0]), kWaveOk);
  ASSERT_EQ(out->Write(&frames.headers[1]), kWaveOk);
  Step(10);

  system_.SetOutputPresent(u"Headset", false);
  EXPECT_EQ(system_.OutputDevices(), std::vector<std::u16string>{u"Speaker"});
  EXPECT_EQ(out->Write(&frames.headers[2]), kWaveNoDriver);
  EXPECT_TRUE(frames.headers[0].flags.load() & kWaveHeaderDone) << "handed back";
  EXPECT_EQ(out->Unprepare(&frames.headers[1]), kWaveOk);
  EXPECT_EQ(out->Reset(), kWaveOk);
  EXPECT_EQ(out->Close(), kWaveOk);
  std::unique_ptr<WaveOutStream> again;
  EXPECT_EQ(system_.OpenOut(1, kVoiceFormat, &listener_, &again), kWaveBadDeviceId);
  EXPECT_EQ(again, nullptr);

  system_.SetOutputPresent(u"Headset", true);
  EXPECT_EQ(system_.OutputDevices(), (std::vector<std::u16string>{u"Speaker", u"Headset"}));
  ASSERT_EQ(system_.OpenOut(kWaveMapper, kVoiceFormat, &listener_, &again), kWaveOk);
  EXPECT_EQ(system_.Playbacks().back().device, u"Speaker") << "the mapper opens the first";

  system_.SetInputPresent(u"Virtual Microphone", false);
  EXPECT_EQ(in->AddBuffer(&lent.headers[0]), kWaveNoDriver);
  EXPECT_EQ(in->Start(), kWaveNoDriver);
  std::unique_ptr<WaveInStream> no_mic;
  EXPECT_EQ(system_.OpenIn(kWaveMapper, kVoiceFormat, &listener_, &no_mic), kWaveBadDeviceId);
  EXPECT_EQ(in->Close(), kWaveOk);
}

TEST_F(VirtualWaveTest, ScheduledUnplugComesAndGoesOnTheClock) {
  auto out = OpenOut();
  Buffers frames(1, 320);
  frames.PrepareOn(*out);
  system_.SchedulePresent(false, u"Virtual Speaker", false, std::chrono::milliseconds(30));
  system_.SchedulePresent(false, u"Virtual Speaker", true, std::chrono::milliseconds(50));
  auto step = [&](std::int64_t ms) {
    ASSERT_TRUE(Eventually([&] { return clock_.sleepers() == 2; })) << "stream and scheduler";
    Step(ms);
  };
  step(29);
  EXPECT_EQ(out->Write(&frames.headers[0]), kWaveOk);
  step(1);
  ASSERT_TRUE(Eventually([&] { return system_.OutputDevices().empty(); }));
  EXPECT_TRUE(frames.headers[0].flags.load() & kWaveHeaderDone);
  EXPECT_EQ(out->Write(&frames.headers[0]), kWaveNoDriver);
  step(19);
  EXPECT_TRUE(system_.OutputDevices().empty());
  step(1);
  ASSERT_TRUE(Eventually([&] { return system_.OutputDevices().size() == 1; }));
  EXPECT_EQ(out->Write(&frames.headers[0]), kWaveNoDriver) << "the old stream stays dead";
  ASSERT_EQ(out->Close(), kWaveOk);
  EXPECT_EQ(system_.Playbacks()[0].bytes_played, 16u) << "1 ms played before the unplug";
}

TEST_F(VirtualWaveTest, OpensFailAsToldAndFormatsAreChecked) {
  system_.FailOutputOpens(2, kWaveAllocated);
  system_.FailInputOpens(-1);
  std::unique_ptr<WaveOutStream> out;
  std::unique_ptr<WaveInStream> in;
  EXPECT_EQ(system_.OpenOut(0, kVoiceFormat, &listener_, &out), kWaveAllocated);
  EXPECT_EQ(system_.OpenOut(0, kVoiceFormat, &listener_, &out), kWaveAllocated);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(system_.OpenIn(0, kVoiceFormat, &listener_, &in), kWaveError);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(in, nullptr);
  EXPECT_EQ(listener_.heard().size(), 0u) << "no kOpen for a failed open";
  EXPECT_EQ(system_.OpenOut(0, kVoiceFormat, &listener_, &out), kWaveOk);
  system_.FailInputOpens(0);
  EXPECT_EQ(system_.OpenIn(0, kVoiceFormat, &listener_, &in), kWaveOk);
  EXPECT_EQ(system_.Playbacks()[0].sequence, 1u);
  EXPECT_EQ(system_.OpenStreams(), 2);
  EXPECT_EQ(system_.OpenIn(1, kVoiceFormat, &listener_, &in), kWaveBadDeviceId);
  EXPECT_EQ(system_.OpenIn(-2, kVoiceFormat, &listener_, &in), kWaveBadDeviceId);

  auto bent = [](auto change) {
    WaveFormat f = kVoiceFormat;
    change(f);
    return f;
  };
  const struct {
    WaveFormat format;
    int result;
  } formats[] = {
      {Pcm(44100, 2, 16), kWaveOk},
      {Pcm(1000, 1, 8), kWaveOk},
      {Pcm(192000, 2, 8), kWaveOk},
      {Pcm(999, 1, 16), kWaveBadFormat},
      {Pcm(192001, 1, 16), kWaveBadFormat},
      {Pcm(8000, 3, 16), kWaveBadFormat},
      {Pcm(8000, 1, 24), kWaveBadFormat},
      {bent([](WaveFormat& f) { f.format_tag = 3; }), kWaveBadFormat},
      {bent([](WaveFormat& f) { f.block_align = 4; }), kWaveBadFormat},
      {bent([](WaveFormat& f) { f.avg_bytes_per_sec = 8000; }), kWaveBadFormat},
  };
  for (const auto& c : formats) {
    std::unique_ptr<WaveOutStream> o;
    std::unique_ptr<WaveInStream> i;
    EXPECT_EQ(system_.OpenOut(0, c.format, nullptr, &o), c.result) << c.format.samples_per_sec;
    EXPECT_EQ(system_.OpenIn(0, c.format, nullptr, &i), c.result) << c.format.samples_per_sec;
  }
}

TEST_F(VirtualWaveTest, HeaderChecksAndAClosedStream) {
  auto out = OpenOut();
  Buffers frames(1, 320);
  WaveHeader empty;
  WaveHeader& h = frames.headers[0];
  EXPECT_EQ(out->Prepare(nullptr), kWaveInvalidParam);
  EXPECT_EQ(out->Prepare(&empty), kWaveInvalidParam);
  EXPECT_EQ(out->Write(&h), kWaveInvalidParam) << "not prepared";
  ASSERT_EQ(out->Close(), kWaveOk);
  EXPECT_EQ(out->Close(), kWaveInvalidHandle);
  EXPECT_EQ(out->Prepare(&h), kWaveInvalidHandle);
  EXPECT_EQ(out->Write(&h), kWaveInvalidHandle);
  EXPECT_EQ(out->Reset(), kWaveInvalidHandle);
  EXPECT_EQ(system_.OpenStreams(), 0);
}

TEST_F(VirtualWaveTest, RecordingIsBoundedAndStreamsShareADevice) {
  system_.SetRecordingLimit(1000);
  auto voice = OpenOut();
  auto tone = OpenOut();
  Buffers frames(5, 320);
  frames.PrepareOn(*voice);
  for (auto& h : frames.headers) ASSERT_EQ(voice->Write(&h), kWaveOk);
  Step(100);
  std::vector<VirtualPlayback> seen;
  system_.SetPlaybackSink([&](const VirtualPlayback& p) { seen.push_back(p); });
  voice.reset();  // the destructor closes
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].data.size(), 1000u);
  EXPECT_EQ(seen[0].bytes_played, 1600u);
  EXPECT_EQ(seen[0].sequence, 1u);
  EXPECT_EQ(system_.Playbacks()[1].sequence, 2u);
  EXPECT_TRUE(system_.Playbacks()[1].open);
  system_.ClearPlaybacks();
  EXPECT_TRUE(system_.Playbacks().empty());
  system_.SetPlaybackSink(nullptr);  // `seen` goes before `tone`
}

TEST_F(VirtualWaveTest, CloseWaitsForTheListenerAndNothingIsHeardAfterIt) {
  auto out = OpenOut();
  Buffers frames(3, 320);
  frames.PrepareOn(*out);
  for (auto& h : frames.headers) ASSERT_EQ(out->Write(&h), kWaveOk);
  Settle();
  listener_.block_ = true;
  clock_.AdvanceMs(20);
  ASSERT_TRUE(Eventually([&] { return listener_.entered_.load(); }));
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    EXPECT_EQ(out->Close(), kWaveOk);
    closed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(closed) << "Close joins the thread, which is in the listener";
  listener_.block_ = false;
  closer.join();
  const auto heard = listener_.heard();
  EXPECT_EQ(heard.back().message, WaveMessage::kClose);
  EXPECT_EQ(listener_.Count(WaveMessage::kDone), 3) << "the reset ones were said before kClose";
  clock_.AdvanceMs(1000);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(listener_.heard().size(), heard.size());
  EXPECT_EQ(clock_.sleepers(), 0) << "the thread has gone";
}

TEST_F(VirtualWaveTest, StreamsOutliveTheSystemAndRunOnTheRealClock) {
  auto real = std::make_unique<VirtualWaveSystem>();
  Listener listener(clock_);
  std::unique_ptr<WaveOutStream> out;
  ASSERT_EQ(real->OpenOut(0, Pcm(8000, 1, 16), &listener, &out), kWaveOk);
  Buffers frames(4, 32);  // 2 ms each
  frames.PrepareOn(*out);
  real.reset();
  for (auto& h : frames.headers) ASSERT_EQ(out->Write(&h), kWaveOk);
  EXPECT_TRUE(Eventually([&] { return listener.Count(WaveMessage::kDone) == 4; }));
  EXPECT_EQ(out->Close(), kWaveOk);
}

// --- Configuration

TEST(VirtualWaveSettingsTest, EnvironmentIsParsed) {
  const struct {
    std::map<std::string, std::string> env;
    bool inputs_set;
    std::vector<std::u16string> inputs;
    int fail_in, fail_in_result, fail_out, fail_out_result;
    bool loop;
    std::size_t problems;
  } cases[] = {
      {{}, false, {}, 0, kWaveError, 0, kWaveError, false, 0},
      {{{"DESKLINE_AUDIO_INPUTS", ""}}, true, {}, 0, kWaveError, 0, kWaveError, false, 0},
      {{{"DESKLINE_AUDIO_INPUTS", " USB Mic ;;Headset;"}},
       true, {u"USB Mic", u"Headset"}, 0, kWaveError, 0, kWaveError, false, 0},
      {{{"DESKLINE_AUDIO_FAIL_OPEN", "in"}}, false, {}, -1, kWaveError, 0, kWaveError, false, 0},
      {{{"DESKLINE_AUDIO_FAIL_OPEN", "out=2@4, in=1"}}, false, {}, 1, kWaveError, 2, 4, false, 0},
      {{{"DESKLINE_AUDIO_FAIL_OPEN", "both,out=x"}}, false, {}, 0, kWaveError, 0, kWaveError,
       false, 2},
      {{{"DESKLINE_AUDIO_MIC_LOOP", "yes"}}, false, {}, 0, kWaveError, 0, kWaveError, true, 0},
      {{{"DESKLINE_AUDIO_MIC_LOOP", "0"}}, false, {}, 0, kWaveError, 0, kWaveError, false, 0},
      {{{"DESKLINE_AUDIO_MIC_LOOP", "maybe"}}, false, {}, 0, kWaveError, 0, kWaveError, false, 1},
  };
  for (const auto& c : cases) {
    const auto s = ParseVirtualWaveSettings([&](const char* name) -> std::optional<std::string> {
      const auto it = c.env.find(name);
      if (it == c.env.end()) return std::nullopt;
      return it->second;
    });
    const std::string where = c.env.empty() ? "(none)" : c.env.begin()->second;
    EXPECT_EQ(s.inputs_set, c.inputs_set) << where;
    EXPECT_EQ(s.inputs, c.inputs) << where;
    EXPECT_EQ(s.fail_input_opens, c.fail_in) << where;
    EXPECT_EQ(s.fail_input_result, c.fail_in_result) << where;
    EXPECT_EQ(s.fail_output_opens, c.fail_out) << where;
    EXPECT_EQ(s.fail_output_result, c.fail_out_result) << where;
    EXPECT_EQ(s.microphone_loop, c.loop) << where;
    EXPECT_EQ(s.problems.size(), c.problems) << where;
    EXPECT_FALSE(s.outputs_set);
  }
}

TEST(VirtualWaveSettingsTest, UnplugsAreParsed) {
  const auto s = ParseVirtualWaveSettings([](const char* name) -> std::optional<std::string> {
    if (std::string(name) != "DESKLINE_AUDIO_UNPLUG") return std::nullopt;
    return "in:Virtual Microphone@5000-8000; out: Mail@Home @ 100 ;out:x@9-8;up:x@1;in:x@;in:@1";
  });
  ASSERT_EQ(s.unplugs.size(), 2u);
  EXPECT_TRUE(s.unplugs[0].input);
  EXPECT_EQ(s.unplugs[0].name, u"Virtual Microphone");
  EXPECT_EQ(s.unplugs[0].from_ms, 5000);
  EXPECT_EQ(s.unplugs[0].back_ms, 8000);
  EXPECT_FALSE(s.unplugs[1].input);
  EXPECT_EQ(s.unplugs[1].name, u"Mail@Home") << "the last @ starts the time";
  EXPECT_EQ(s.unplugs[1].from_ms, 100);
  EXPECT_EQ(s.unplugs[1].back_ms, -1);
  EXPECT_EQ(s.problems.size(), 4u);
}

TEST(VirtualWaveSettingsTest, AppliedSettingsGiveDevicesMicrophoneAndRecordFolder) {
  testing::TempDir dir;
  // A 16 kHz stereo WAV: the microphone takes every second frame, channels averaged.
  std::vector<std::uint8_t> wav;
  for (int i = 0; i < 8; ++i) {
    for (int s : {i * 100, i * 100 + 50}) {
      wav.push_back(static_cast<std::uint8_t>(s & 0xFF));
      wav.push_back(static_cast<std::uint8_t>(s >> 8));
    }
  }
  ASSERT_TRUE(WriteWavFile(dir.File("mic.wav"), Pcm(16000, 2, 16), wav));

  VirtualWaveSettings settings;
  settings.outputs_set = true;
  settings.outputs = {u"Ringer", u"Handset"};
  settings.microphone_file = dir.File("mic.wav");
  settings.record_folder = dir.File("rec");
  settings.fail_output_opens = 1;
  FakeClock clock(FakeClock::Mode::kManual);
  VirtualWaveSystem system(clock);
  ASSERT_TRUE(ApplyVirtualWaveSettings(settings, system));
  EXPECT_EQ(system.OutputDevices(), settings.outputs);
  EXPECT_EQ(system.InputDevices(), std::vector<std::u16string>{u"Virtual Microphone"});

  std::unique_ptr<WaveInStream> in;
  ASSERT_EQ(system.OpenIn(0, kVoiceFormat, nullptr, &in), kWaveOk);
  Buffers one(1, 8);
  one.PrepareOn(*in);
  ASSERT_EQ(in->AddBuffer(&one.headers[0]), kWaveOk);
  ASSERT_EQ(in->Start(), kWaveOk);
  Settle(system, clock);
  clock.AdvanceMs(1);
  ASSERT_TRUE(Eventually([&] { return one.headers[0].flags.load() & kWaveHeaderDone; }));
  std::int16_t samples[4];
  std::memcpy(samples, one.headers[0].data, 8);
  EXPECT_EQ(samples[0], 25);
  EXPECT_EQ(samples[1], 225);
  EXPECT_EQ(samples[3], 625);

  std::unique_ptr<WaveOutStream> out;
  EXPECT_EQ(system.OpenOut(1, kVoiceFormat, nullptr, &out), kWaveError) << "one failing open";
  ASSERT_EQ(system.OpenOut(1, Pcm(8000, 1, 8), nullptr, &out), kWaveOk);
  Buffers frame(1, 80);
  std::memset(frame.data[0].data(), 128 + 64, 80);  // half scale: -6.0 dBFS
  frame.PrepareOn(*out);
  ASSERT_EQ(out->Write(&frame.headers[0]), kWaveOk);
  Settle(system, clock);
  clock.AdvanceMs(10);
  ASSERT_TRUE(Eventually([&] { return frame.headers[0].flags.load() & kWaveHeaderDone; }));
  ASSERT_EQ(out->Close(), kWaveOk);

  std::ifstream log(dir.File("rec/playback.log"));
  std::string line;
  ASSERT_TRUE(std::getline(log, line));
  EXPECT_EQ(line, "2\tHandset\t8000\t1\t8\t1\t80\t-6.0\tout-0002-Handset.wav");
  WavSound sound;
  ASSERT_TRUE(ReadWavFile(dir.File("rec/out-0002-Handset.wav"), &sound));
  EXPECT_EQ(sound.format.samples_per_sec, 8000u);
  ASSERT_EQ(sound.data.size(), 160u) << "8-bit widened to 16";
  EXPECT_EQ(sound.data[1], 0x40);

  settings.microphone_file = dir.File("missing.wav");
  std::string problem;
  EXPECT_FALSE(ApplyVirtualWaveSettings(settings, system, &problem));
  EXPECT_NE(problem.find("missing.wav"), std::string::npos);
}

// The process's backend. ctest runs each test in a process of its own; run by hand, this test
// must come before anything else asks for DefaultWaveSystem().
TEST(VirtualWaveSettingsTest, DefaultBackendIsTheVirtualOneWhenAskedFor) {
  ASSERT_TRUE(SetEnvironment("DESKLINE_AUDIO", "virtual"));
  ASSERT_TRUE(SetEnvironment("DESKLINE_AUDIO_OUTPUTS", "Handset;Ringer"));
  VirtualWaveSystem* virtual_system = DefaultVirtualWaveSystem();
  ASSERT_NE(virtual_system, nullptr);
  EXPECT_EQ(&DefaultWaveSystem(), virtual_system);
  EXPECT_EQ(DefaultVirtualWaveSystem(), virtual_system) << "made once";
  EXPECT_EQ(DefaultWaveSystem().OutputDevices(),
            (std::vector<std::u16string>{u"Handset", u"Ringer"}));
  EXPECT_EQ(DefaultWaveSystem().InputDevices(),
            std::vector<std::u16string>{u"Virtual Microphone"});
  SetEnvironment("DESKLINE_AUDIO", nullptr);
  SetEnvironment("DESKLINE_AUDIO_OUTPUTS", nullptr);
}

TEST(VirtualWaveSettingsTest, PlaybackNamesAndPeaks) {
  VirtualPlayback p;
  p.sequence = 3;
  p.device = u"Lautsprecher (USB) \u00e4";
  EXPECT_EQ(PlaybackFileName(p), "out-0003-Lautsprecher__USB___.wav");
  const struct {
    std::vector<std::uint8_t> data;
    const char* peak;
  } peaks[] = {
      {{}, "-inf"},
      {{0, 0, 0, 0}, "-inf"},
      {{0x00, 0x80}, "0.0"},   // -32768
      {{0xFF, 0x7F}, "0.0"},   // 32767
      {{0x00, 0x40}, "-6.0"},  // 16384
      {{0x01, 0x00}, "-90.3"},
  };
  for (const auto& c : peaks) {
    p.data = c.data;
    EXPECT_EQ(PeakDbfs(p), c.peak);
  }
  p.device = u"A\tB";
  p.writes = 2;
  p.bytes_played = 640;
  EXPECT_EQ(PlaybackLogLine(p, "x.wav"), "3\tA B\t8000\t1\t16\t2\t640\t-90.3\tx.wav");
}

}  // namespace
}  // namespace deskline::platform
