// The phone with the library's sound card: the ring and key tones it asks for, the capture
// callback's gate, the speaker as the voice thread's clock, the device list it frees, and what
// it makes of the virtual sound card's playback log.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <thread>
#include <utility>

#include "platform/fs.h"
#include "support/settings_store.h"
#include "testing/fake_clock.h"
#include "testing/temp_dir.h"
#include "tools/phone/commands.h"
#include "tools/phone/playback_log.h"
#include "tools/phone/records.h"
#include "tools/phone/sound_card.h"

namespace deskline::phone {
namespace {

using namespace std::string_view_literals;
using Kind = ToneCall::Kind;

// A "mgcp_tone" record as the engine leaves it in its signal buffer: kind, four volumes,
// class, pattern, melody behind the 10-byte marker.
// `size` cuts it short.
std::vector<std::byte> ToneRecord(std::initializer_list<std::int32_t> fields, std::size_t size = 1024) {
  std::vector<std::byte> bytes(1024);
  std::memcpy(bytes.data(), "mgcp_tone", 10);
  std::size_t at = 10;
  for (std::int32_t v : fields) std::memcpy(bytes.data() + std::exchange(at, at + 4), &v, 4);
  bytes.resize(size);
  return bytes;
}

TEST(PhoneRingTest, EventsBecomeToneCalls) {
  // The ring plays its pattern (the tone id) and melody; the volume stays as it was.
  EXPECT_EQ(ToneCallForEvent(kEventRing, ToneRecord({1, -1, -1, -1, -1, 1, 2, 3})),
            (ToneCall{Kind::kRing, 2, -1, 3, 0}));
  EXPECT_EQ(ToneCallForEvent(kEventRing, ToneRecord({1, -1, -1, -1, -1, 0, 1, 1})),
            (ToneCall{Kind::kRing, 1, -1, 1, 0}));
  // Ring off, the end of the call and the voice path opening all silence the ringer.
  for (std::uint32_t code : {kEventVoiceOff, kEventEnd, kEventCodec}) {
    EXPECT_EQ(ToneCallForEvent(code, {}), ToneCall{Kind::kStop}) << code;
  }
  // Nothing for a cut-short or foreign record, a volume record, or other events.
  EXPECT_FALSE(ToneCallForEvent(kEventRing, ToneRecord({1, -1, -1, -1, -1, 1, 2, 3}, 41)));
  EXPECT_FALSE(ToneCallForEvent(kEventRing, {}));
  std::vector<std::byte> foreign = ToneRecord({1, -1, -1, -1, -1, 1, 2, 3});
  foreign[0] = std::byte{'x'};
  EXPECT_FALSE(ToneCallForEvent(kEventRing, foreign));
  EXPECT_FALSE(ToneCallForEvent(kEventRing, ToneRecord({2, -1, -1, -1, 5, -1, -1, -1})));
  EXPECT_FALSE(ToneCallForEvent(kEventTone, ToneRecord({1, -1, -1, -1, -1, 1, 5, 0})));
  EXPECT_FALSE(ToneCallForEvent(kEventMediaSendRecv, {}));

  EXPECT_EQ(KeyToneNumber('0'), 0u);
  EXPECT_EQ(KeyToneNumber('9'), 9u);
  EXPECT_EQ(KeyToneNumber('*'), 10u);
  EXPECT_EQ(KeyToneNumber('#'), 11u);
  EXPECT_FALSE(KeyToneNumber('P'));
  EXPECT_FALSE(KeyToneNumber('W'));
}

// The sound exports as a log with simulated times; key 9 has no sound, voice writes can take
// simulated time like a device whose queue holds `queue_frames`.
class FakeSound final : public SoundPort {
 public:
  explicit FakeSound(testing::FakeClock& clock) : clock_(clock) {}
  std::int32_t PlayVoice(std::span<std::int16_t> pcm) override {
    voice_ms.push_back(clock_.ElapsedMs());
    voice_samples.insert(voice_samples.end(), pcm.begin(), pcm.end());
    for (std::int16_t& s : pcm) s = 0x7777;  // the gain works in place
    if (queue_frames > 0) {
      // Frames play back to back from when the queue last ran dry; a write returns once no
      // more than queue_frames - 1 wait behind the one playing.
      const std::int64_t now = clock_.ElapsedMs();
      device_end_ms = std::max(device_end_ms, now) + 20 * static_cast<std::int64_t>(pcm.size() / 160);
      const std::int64_t until = device_end_ms - 20 * (queue_frames - 1);
      if (until > now) clock_.AdvanceMs(until - now);
    }
    return 0;
  }
  std::int32_t PlayTone(std::int32_t tone, std::int32_t volume, std::int32_t melody) override {
    log.push_back("tone " + std::to_string(tone) + " " + std::to_string(volume) + " " +
                  std::to_string(melody) + " at " + std::to_string(clock_.ElapsedMs()));
    Logged();
    return 0;
  }
  std::int32_t PlayKeyTone(std::uint32_t key) override {
    log.push_back("key " + std::to_string(key) + " at " + std::to_string(clock_.ElapsedMs()));
    Logged();
    return key == 9 ? 1 : 0;
  }

  testing::FakeClock& clock_;
  std::vector<std::string> log;
  std::vector<std::int64_t> voice_ms;
  std::vector<std::int16_t> voice_samples;
  int queue_frames = 0;
  std::int64_t device_end_ms = 0;
  // Ends the ringer's loop after this many tone calls.
  std::size_t after_calls = 0;
  Ringer* ringer = nullptr;

 private:
  void Logged() {
    if (ringer != nullptr && log.size() == after_calls) ringer->RequestStop();
  }
};

// Call control as a log; make_call of "0" is refused.
class LogActions final : public PhoneActions {
 public:
  std::int32_t PutKey(std::uint32_t key) override {
    log.push_back("put_key " + std::to_string(key));
    return 0;
  }
  std::int32_t MakeCall(const std::string& number) override {
    log.push_back("make_call " + number);
    return number == "0" ? 1 : 0;
  }
  std::int32_t SendError(std::uint32_t) override { return 0; }
  std::optional<std::string> FormatNumber(const std::string& number) override { return number; }
  std::vector<std::string> log;
};

TEST(PhoneRingTest, RingerPlaysInOrderStopsOnlyWhatSoundsAndSpacesKeyTones) {
  testing::FakeClock clock;  // auto: the spacing passes in simulated time
  FakeSound sound(clock);
  Ringer ringer(sound, clock);
  sound.after_calls = 8;
  sound.ringer = &ringer;
  LogActions inner;
  SoundingActions actions(inner, ringer);

  // Answering before anything rings stops nothing; dialling sounds each key but the pauses,
  // after the dial string went out; a refused dial string sounds nothing.
  EXPECT_EQ(actions.PutKey(kKeyOffHook), 0);
  EXPECT_EQ(actions.MakeCall("19P#"), 0);
  EXPECT_EQ(actions.MakeCall("0"), 1);
  ringer.Post(ToneCall{Kind::kRing, 1, -1, 1, 0});
  ringer.Post(ToneCall{Kind::kRing, 1, -1, 1, 0});  // the PBX rings again: played again
  EXPECT_EQ(actions.PutKey(kKeySpeaker), 0);        // answered hands-free
  ringer.Post(ToneCall{Kind::kStop});               // then the voice path opens: already quiet
  ringer.Post(ToneCall{Kind::kRing, 2, -1, 3, 0});
  EXPECT_EQ(actions.PutKey(kKeyOnHook), 0);  // not an answer
  ringer.Post(ToneCall{Kind::kStop});
  ringer.Run();  // the queue, on this thread, until the eighth call to the exports

  EXPECT_EQ(inner.log, (std::vector<std::string>{"put_key 512", "make_call 19P#", "make_call 0",
                                                 "put_key 4352", "put_key 256"}));
  EXPECT_EQ(sound.log, (std::vector<std::string>{"key 1 at 0", "key 9 at 150", "key 11 at 300",
                                                 "tone 1 -1 1 at 450", "tone 1 -1 1 at 450",
                                                 "tone 0 -1 -1 at 450", "tone 2 -1 3 at 450",
                                                 "tone 0 -1 -1 at 450"}));
  const RingerCounts counts = ringer.counts();
  EXPECT_EQ(counts.ring_plays, 3);
  EXPECT_EQ(counts.stops, 2);
  EXPECT_EQ(counts.key_tones, 2) << "key 9 has no sound";
}

TEST(PhoneRingTest, RingerThreadSleepsUntilPostedAndStopDropsTheRest) {
  testing::FakeClock clock(testing::FakeClock::Mode::kManual);
  FakeSound sound(clock);
  Ringer ringer(sound, clock);
  ASSERT_TRUE(ringer.Start());
  ASSERT_TRUE(clock.AwaitSleepers(1));
  ringer.Post(ToneCall{Kind::kRing, 1, -1, 1, 0});  // wakes it without any time passing
  ringer.PostKeyTones("12");
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (ringer.counts().key_tones < 1 && std::chrono::steady_clock::now() < until) {
    std::this_thread::yield();
  }
  ringer.Stop();  // during the first key tone's spacing: the second never sounds
  ringer.Stop();
  EXPECT_EQ(sound.log, (std::vector<std::string>{"tone 1 -1 1 at 0", "key 1 at 0"}));
}

// The capture callback's body: whole frames, only while enabled and the voice path is open.
class CountingPort final : public VoicePort {
 public:
  std::uint32_t SendVoice(std::span<const std::int16_t> pcm) override {
    sizes.push_back(pcm.size());
    firsts.push_back(pcm[0]);
    return static_cast<std::uint32_t>(pcm.size_bytes());
  }
  std::uint32_t ReceiveVoice(std::span<std::int16_t>, std::uint32_t*) override { return 0; }
  std::vector<std::size_t> sizes;
  std::vector<std::int16_t> firsts;
};

TEST(PhoneCaptureTest, WholeFramesWhileEnabledAndTheVoicePathIsOpen) {
  testing::FakeClock clock;
  CountingPort port;
  std::atomic<bool> open{false};
  CaptureBridge bridge(port, open, clock);
  std::vector<std::uint16_t> block(kFrameSamples * 3);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<std::uint16_t>(i);

  bridge.Deliver(block.data(), kFrameBytes);  // not enabled
  bridge.Enable();
  bridge.Deliver(block.data(), kFrameBytes);  // no voice path
  open = true;
  bridge.Deliver(block.data(), kFrameBytes);
  bridge.Deliver(block.data(), 2 * kFrameBytes + 100);  // two frames; the rest is no frame
  bridge.Deliver(block.data(), kFrameBytes - 2);
  bridge.Deliver(block.data(), 0);
  bridge.Deliver(nullptr, kFrameBytes);
  bridge.Disable();
  bridge.Deliver(block.data(), kFrameBytes);
  EXPECT_EQ(port.sizes, (std::vector<std::size_t>{160, 160, 160}));
  EXPECT_EQ(port.firsts, (std::vector<std::int16_t>{0, 0, 160}));
  EXPECT_EQ(bridge.frames_sent(), 3u);
  EXPECT_EQ(bridge.blocks_captured(), 6u);
}

// Disable while the audio thread delivers: once it returns, nothing more is sent.
TEST(PhoneCaptureTest, DisableWaitsForADeliveryInFlight) {
  class SlowPort final : public VoicePort {
   public:
    std::uint32_t SendVoice(std::span<const std::int16_t>) override {
      inside = true;
      while (!release) std::this_thread::yield();
      ++sent;
      return 320;
    }
    std::uint32_t ReceiveVoice(std::span<std::int16_t>, std::uint32_t*) override { return 0; }
    std::atomic<bool> inside{false}, release{false};
    std::atomic<int> sent{0};
  } port;
  std::atomic<bool> open{true};
  CaptureBridge bridge(port, open, platform::RealClock());
  bridge.Enable();
  std::vector<std::uint16_t> frame(kFrameSamples);
  std::thread audio([&] { bridge.Deliver(frame.data(), kFrameBytes); });
  while (!port.inside) std::this_thread::yield();
  std::atomic<bool> disabled{false};
  std::thread host([&] {
    bridge.Disable();
    disabled = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(disabled) << "returned while a frame was being sent";
  port.release = true;
  host.join();
  audio.join();
  EXPECT_EQ(port.sent, 1);
}

TEST(PhoneSpeakerTest, WritesACopyAndSilenceForAGap) {
  testing::FakeClock clock;
  FakeSound sound(clock);
  SpeakerSink speaker(sound);
  std::vector<std::int16_t> frames(2 * kFrameSamples, 5);
  speaker.Write(frames);
  EXPECT_EQ(frames, std::vector<std::int16_t>(2 * kFrameSamples, 5)) << "the caller's samples are kept";
  speaker.Gap();
  std::vector<std::int16_t> too_many(kFrameSamples * kMaxReceiveFrames + 7, 1);
  speaker.Write(too_many);  // never more than the room of one receive
  ASSERT_EQ(sound.voice_samples.size(), (2 + 1 + kMaxReceiveFrames) * kFrameSamples);
  EXPECT_EQ(sound.voice_samples[0], 5);
  EXPECT_EQ(sound.voice_samples[2 * kFrameSamples], 0);
  EXPECT_EQ(speaker.frames_written(), 2u + 1u + kMaxReceiveFrames);
  EXPECT_EQ(speaker.silent_frames(), 1u);
}

// The voice thread over a speaker: received frames and gaps go to the device, and while the
// device's writes block, the device alone sets the pace.
class ReceivePort final : public VoicePort {
 public:
  explicit ReceivePort(testing::FakeClock& clock) : clock_(clock) {}
  std::uint32_t SendVoice(std::span<const std::int16_t>) override {
    ++sends;
    return 320;
  }
  std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) override {
    receive_ms.push_back(clock_.ElapsedMs());
    if (receive_ms.size() == stop_after) pacer->RequestStop();
    // Playout begins at the third pull; every fourth pull then has nothing due.
    if (receive_ms.size() < 3 || receive_ms.size() % 4 == 0) {
      *status = receive_ms.size() < 3 ? 601 : 1;
      return 0;
    }
    *status = 0;
    std::fill_n(pcm.begin(), kFrameSamples, std::int16_t{100});
    return kFrameBytes;
  }
  testing::FakeClock& clock_;
  VoicePacer* pacer = nullptr;
  std::size_t stop_after = 0;
  int sends = 0;
  std::vector<std::int64_t> receive_ms;
};

TEST(PhoneSpeakerTest, TheDeviceIsTheClockAndAPacerOfItsOwnBacksItUp) {
  struct Row {
    int queue_frames;  // 0: writes return at once
    std::vector<std::int64_t> receive_ms;
  };
  const Row rows[] = {
      // Five buffers fill at once, then each write waits for the oldest: one pull per 20 ms.
      {5, {0, 0, 0, 0, 0, 20, 40, 60, 80, 100}},
      // A speaker that never blocks: the pacer allows the same lead, then keeps 20 ms.
      {0, {0, 0, 0, 0, 0, 0, 20, 40, 60, 80}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.queue_frames);
    testing::FakeClock clock;
    FakeSound sound(clock);
    sound.queue_frames = row.queue_frames;
    ReceivePort port(clock);
    SpeakerSink speaker(sound);
    std::atomic<bool> open{true};
    VoicePacer pacer(port, nullptr, &speaker, open, clock, VoicePacer::kPeriod * kSpeakerQueueFrames);
    port.pacer = &pacer;
    port.stop_after = row.receive_ms.size();
    pacer.Run();
    EXPECT_EQ(port.receive_ms, row.receive_ms);
    EXPECT_EQ(port.sends, 0) << "the sound card's capture sends, not the voice thread";
    EXPECT_EQ(speaker.frames_written(), row.receive_ms.size()) << "one frame a pull, silent or not";
    EXPECT_EQ(speaker.silent_frames(), 4u);  // two before playout, two with nothing due
    EXPECT_EQ(pacer.counts().received, row.receive_ms.size() - 4);
    EXPECT_EQ(pacer.counts().resyncs, 0u);
  }
}

TEST(PhoneSpeakerTest, VoiceThreadSleepsWhileNoPathIsOpen) {
  testing::FakeClock clock(testing::FakeClock::Mode::kManual);
  ReceivePort port(clock);
  std::atomic<bool> open{false};
  VoicePacer pacer(port, nullptr, nullptr, open, clock);
  ASSERT_TRUE(pacer.Start());
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(10'000);  // ten idle seconds: not one pull
  ASSERT_TRUE(clock.AwaitSleepers(1));
  EXPECT_TRUE(port.receive_ms.empty());
  open = true;
  pacer.Wake();  // the codec event: the first pull comes at once, without the clock moving
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (pacer.counts().received + port.receive_ms.size() == 0 && std::chrono::steady_clock::now() < until) {
    std::this_thread::yield();
  }
  ASSERT_TRUE(clock.AwaitSleepers(1));
  EXPECT_EQ(port.receive_ms.size(), 1u);
  open = false;
  clock.AdvanceMs(20);  // the next tick finds the path closed and goes back to sleep
  ASSERT_TRUE(clock.AwaitSleepers(1));
  clock.AdvanceMs(1000);
  ASSERT_TRUE(clock.AwaitSleepers(1));
  pacer.Stop();
  EXPECT_EQ(port.receive_ms.size(), 1u);
}

// A device list as the library hands it over: the array and each 64-byte name from malloc.
std::int32_t TwoDevices(char16_t*** list) {
  const std::u16string names[] = {u"System Default", std::u16string(40, u'x') + u"é"};
  *list = static_cast<char16_t**>(std::malloc(2 * sizeof(char16_t*)));
  for (int i = 0; i < 2; ++i) {
    (*list)[i] = static_cast<char16_t*>(std::calloc(32, sizeof(char16_t)));
    std::memcpy((*list)[i], names[i].data(), std::min<std::size_t>(names[i].size(), 31) * 2);
  }
  (*list)[1][31] = u'y';  // no terminator inside the block: read no further than it
  return 2;
}
std::int32_t NoModule(char16_t***) { return -1; }
std::int32_t NoDevices(char16_t*** list) {
  *list = nullptr;
  return 0;
}

TEST(PhoneDevicesTest, ListsAreReadWithinTheirBlocksAndFreed) {
  const auto devices = ListDevices(TwoDevices);
  ASSERT_TRUE(devices);
  EXPECT_EQ(*devices, (std::vector<std::string>{"System Default", std::string(31, 'x') + "y"}));
  EXPECT_FALSE(ListDevices(NoModule));
  EXPECT_EQ(ListDevices(NoDevices), std::vector<std::string>{});
}

TEST(PhoneDevicesTest, TheChoiceGoesToTheSettingsStore) {
  testing::TempDir dir;
  const std::optional<std::string> before = platform::GetEnvironment("DESKLINE_SETTINGS");
  ASSERT_TRUE(platform::SetEnvironment("DESKLINE_SETTINGS", dir.File("settings.ini").c_str()));
  std::string error;
  EXPECT_TRUE(StoreDeviceChoice("Input Device", "USB Headset Mic", &error)) << error;
  EXPECT_TRUE(StoreDeviceChoice("Output Device", "USB Headset", &error)) << error;
  char value[64] = {};
  ASSERT_TRUE(ReadSetting(kSettingsKey, "Input Device", value, sizeof(value)));
  EXPECT_STREQ(value, "USB Headset Mic");
  ASSERT_TRUE(ReadSetting(kSettingsKey, "Output Device", value, sizeof(value)));
  EXPECT_STREQ(value, "USB Headset");
  EXPECT_FALSE(StoreDeviceChoice("Input Device", "two\nlines", &error));
  EXPECT_NE(error.find("settings.ini"), std::string::npos) << error;
  platform::SetEnvironment("DESKLINE_SETTINGS", before ? before->c_str() : nullptr);
}

TEST(PhonePlaybackTest, TheLogTellsVoiceFromRingAndBadLinesAreSkipped) {
  // The voice output opened first (sequence 1, before the microphone's 2); the ring's file
  // output at the first ring; lines come as streams close.
  const std::string log =
      "3\tVirtual Speaker\t8000\t1\t16\t1\t16000\t-12.0\tout-0003-Virtual_Speaker.wav\n"
      "garbage line\n"
      "4\tVirtual Speaker\t8000\t1\t16\tx\t1920\t-12.0\tout-0004-Virtual_Speaker.wav\n"
      "4\tVirtual Speaker\t8000\t1\t16\t2\t1920\t-inf\tout-0004-Virtual_Speaker.wav\r\n"
      "1\tVirtual Speaker\t8000\t1\t16\t300\t96000\t-11.9\tout-0001-Virtual_Speaker.wav\n"
      "5\tVirtual Speaker\t44100\t2\t16\t1\t176400\t-3.0\t-";  // no line feed at the end
  const std::vector<PlaybackStream> streams = ParsePlaybackLog(log);
  ASSERT_EQ(streams.size(), 4u);
  EXPECT_EQ(streams[0].device, "Virtual Speaker");
  EXPECT_DOUBLE_EQ(streams[0].seconds(), 1.0);
  EXPECT_TRUE(streams[1].silent());
  EXPECT_EQ(streams[1].file, "out-0004-Virtual_Speaker.wav");
  EXPECT_DOUBLE_EQ(streams[3].seconds(), 1.0);

  const PlaybackSummary summary = SummarisePlayback(streams);
  EXPECT_TRUE(summary.voice_found);
  EXPECT_EQ(summary.voice_frames, 300u);
  EXPECT_EQ(summary.voice_file, "out-0001-Virtual_Speaker.wav");
  EXPECT_EQ(summary.sound_streams, 3);
  EXPECT_EQ(summary.sound_plays, 4u);
  EXPECT_NEAR(summary.sound_seconds, 1.0 + 0.12 + 1.0, 1e-9);
  EXPECT_TRUE(summary.sound_audible);

  // Only a silent stream beside the voice: nothing was heard.
  const PlaybackSummary quiet = SummarisePlayback(std::span(streams).subspan(1, 2));
  EXPECT_EQ(quiet.voice_frames, 300u);
  EXPECT_EQ(quiet.sound_streams, 1);
  EXPECT_FALSE(quiet.sound_audible);
  const PlaybackSummary lone = SummarisePlayback(std::span(streams).subspan(1, 1));
  EXPECT_EQ(lone.voice_frames, 6u) << "a lone 8 kHz stream is taken as the voice";
  EXPECT_EQ(lone.sound_streams, 0);
  EXPECT_FALSE(SummarisePlayback({}).voice_found);
}

TEST(PhonePlaybackTest, MeasuresTheSoundingPart) {
  // Half a second of silence, a second of 1000 Hz at -12 dBFS, half a second of silence.
  std::vector<std::int16_t> samples(4000, 0);
  const double peak = 32768.0 * std::pow(10.0, -12.0 / 20);
  for (int i = 0; i < 8000; ++i) {
    samples.push_back(static_cast<std::int16_t>(std::lround(peak * std::sin(2 * std::numbers::pi * 1000 * i / 8000.0 + 0.3))));
  }
  samples.resize(samples.size() + 4000, 0);
  const SoundMeasure measure = MeasureSound(samples);
  EXPECT_EQ(measure.sounding_frames, 50u);
  EXPECT_NEAR(measure.level_dbfs, -12.0, 0.1);
  EXPECT_NEAR(measure.frequency_hz, 1000.0, 2.0);
  EXPECT_EQ(MeasureSound(std::vector<std::int16_t>(8000, 3)).sounding_frames, 0u);
  EXPECT_EQ(MeasureSound({}).level_dbfs, -120.0);
}

}  // namespace
}  // namespace deskline::phone
