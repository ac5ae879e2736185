// Every export of libdeskline.so against bad arguments and in every state, from one table: a row
// per export with the calls that matter (each pointer null in turn, negative and huge lengths,
// texts at their limit and one past it in heap blocks of exactly that size, so that a read past
// the end is an AddressSanitizer report), made before initialize, while initialize waits for
// the PBX's answer, while the engine runs, from two threads at once where a host may do that,
// and after uninitialize. The table is checked against the linker map: an export without a row
// fails the test.
//
// The engine is the real one where the host can reach it: PTAP against the PBX simulator, the
// Wave session on a free port (its RTP goes to a sink socket of the test), MGCP a fake. Sound
// goes through the virtual sound card.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/ports.h"
#include "integration/engine_fixture.h"
#include "platform/fs.h"
#include "platform/wave/wave_virtual.h"
#include "support/tracer.h"

namespace deskline {
namespace {

// The backend is chosen at its first use; none happens before main.
const bool kVirtualAudio = platform::SetEnvironment("DESKLINE_AUDIO", "virtual");

constexpr std::uint32_t kUntouched = 0xdeadbeefu;

// ---- Memory that reports a read past its end --------------------------------------------------

// A heap block of exactly `count` elements, value-initialised.
template <typename T>
std::unique_ptr<T[]> Exact(std::size_t count) {
  return std::make_unique<T[]>(count);
}

// `length` characters of `fill`, followed by the terminator only when `terminated`: the block
// holds nothing more.
template <typename Char>
std::unique_ptr<Char[]> Text(std::size_t length, Char fill, bool terminated) {
  auto block = Exact<Char>(length + (terminated ? 1 : 0));
  std::fill_n(block.get(), length, fill);
  return block;
}

// ---- The states ---------------------------------------------------------------------------------

enum class Phase { kBefore, kStarting, kRunning, kAfter };

const char* PhaseName(Phase phase) {
  switch (phase) {
    case Phase::kBefore: return "before initialize";
    case Phase::kStarting: return "during the start";
    case Phase::kRunning: return "running";
    case Phase::kAfter: return "after uninitialize";
  }
  return "?";
}

struct Ctx {
  Phase phase = Phase::kBefore;
  bool audio = false;       // the Audio module stands
  bool concurrent = false;  // the same row runs on another thread at this moment
  const testing::TraceCapture* trace = nullptr;
  const NetworkInitData* start_data = nullptr;
  sim::PbxSimulator* pbx = nullptr;

  // The call processor and the Wave session are the host's to reach only once initialize has
  // returned: during the start the key path and the voice path are not up yet.
  bool engine() const { return phase == Phase::kRunning; }
  // The tone player is made by the first step of initialize, before the start.
  bool tones() const { return phase == Phase::kStarting || phase == Phase::kRunning; }
  // Trace lines are looked at only when no other thread may be resetting the tracer.
  bool Traced(const std::string& message) const { return concurrent || trace->Has(message); }
};

// uninitialize closes the tracer (and so do the tracer probes): the capture file is opened
// afresh, which also empties it.
void ReopenTrace(const Ctx& c) {
  CTracer::Shutdown();
  CTracer::Instance().Startup(c.trace->path().c_str(), TRACE_ALL);
}

// The number formatter lives from the first set_module_variable to the end of the process.
std::atomic<bool> g_formatter_made{false};

std::int32_t WithTones(const Ctx& c, std::int32_t result) { return c.tones() ? result : -1; }
std::int32_t WithFormatter(std::int32_t result) { return g_formatter_made ? result : -1; }

// ---- Life, call control and voice ---------------------------------------------------------------

void Probe_initialize(const Ctx& c) {
  PtapParameterContainer params{};
  // One host thread calls initialize and uninitialize, never at once: not during the start.
  if (c.phase == Phase::kStarting) return;
  if (c.phase == Phase::kRunning) {
    // A second initialize touches nothing, whatever it is given, the container included.
    std::memset(&params, 0x5a, sizeof(params));
    EXPECT_EQ(initialize(nullptr, nullptr), 0);
    EXPECT_EQ(initialize(c.start_data, &params), 0);
    EXPECT_EQ(params.result_code, 0x5a5a5a5a);
    return;
  }
  // No start data: the call processor stays, unstarted and without a mailbox, until
  // uninitialize; a key then finds no mailbox and says so.
  EXPECT_EQ(initialize(nullptr, &params), -1);
  EXPECT_TRUE(c.Traced("[CRITICAL ERROR] PTAP initialization data is invalid"));
  EXPECT_EQ(initialize(nullptr, &params), 0) << "the leftover counts as running";
  EXPECT_EQ(put_key(0x0200), -1);
  EXPECT_TRUE(c.Traced("[API :: ERROR] Failed at put_key. Possible mailbox overflow."));
  EXPECT_EQ(send_voice(320, nullptr), 320) << "no Wave session";
  EXPECT_EQ(uninitialize(), 0);
  ReopenTrace(c);
  EXPECT_EQ(initialize(nullptr, nullptr), -1);
  EXPECT_EQ(uninitialize(), 0);
  ReopenTrace(c);

  // No container: the start runs through and the engine stays up until uninitialize.
  EXPECT_EQ(initialize(c.start_data, nullptr), -1);
  EXPECT_TRUE(
      c.Traced("[CRITICAL ERROR] Startup failed: Application - Invalid parameter container"));
  EXPECT_NE(api::engine().wave.load(), nullptr);
  EXPECT_EQ(uninitialize(), 0);
  ReopenTrace(c);

  // The record and the container in blocks of exactly their size, the unread bytes all set, and
  // every callback null: what the PBX then reports is dropped.
  auto data = Exact<NetworkInitData>(1);
  std::memset(data.get(), 0xff, sizeof(NetworkInitData));
  std::memcpy(&data[0], c.start_data, offsetof(NetworkInitData, reserved_5));
  data[0].start_mode = 0;
  data[0].event_callback = nullptr;
  data[0].led_callback = nullptr;
  data[0].display_callback = nullptr;
  data[0].system_callback = nullptr;
  auto container = Exact<PtapParameterContainer>(1);
  ASSERT_EQ(initialize(data.get(), container.get()), 0) << c.trace->Text();
  EXPECT_EQ(container[0].keepalive_timeout, 30);
  const std::byte event[] = {std::byte{0x20}, std::byte{0x00}, std::byte{0x01}, std::byte{0x55},
                             std::byte{0xff}};
  const std::uint32_t tids[] = {c.pbx->SendEvent(event), c.pbx->SendCompulsionRestart()};
  for (std::uint32_t tid : tids) {
    EXPECT_TRUE(testing::Eventually([&] { return c.pbx->Acknowledged(tid); })) << tid;
  }
  EXPECT_EQ(uninitialize(), 0);
  ReopenTrace(c);
}

void Probe_uninitialize(const Ctx& c) {
  // From the running state, taking the engine down is the test's own step; never during the
  // start, which runs on the one host thread that calls initialize and uninitialize.
  if (c.phase == Phase::kStarting || c.phase == Phase::kRunning) return;
  EXPECT_EQ(uninitialize(), 0);
  EXPECT_EQ(uninitialize(), 0);
}

void Probe_put_key(const Ctx& c) {
  for (std::uint32_t key : {0x0200u, 0x1004u, 0x0c2fu, 0x0b08u}) {
    const std::int32_t result = put_key(key);
    if (c.engine() && c.concurrent) {
      EXPECT_TRUE(result == 0 || result == -1) << result;  // -1: the mailbox is full for now
    } else {
      EXPECT_EQ(result, 0) << std::hex << key;
    }
  }
  for (std::uint32_t key : {0u, 0x0b02u, 0x1005u, 0x0c30u, 0x7fffffffu, 0x80000000u, UINT32_MAX}) {
    EXPECT_EQ(put_key(key), c.engine() ? -1 : 0) << std::hex << key;
  }
  EXPECT_TRUE(!c.engine() ||
              c.Traced("[API :: Warning] Invalid key code in put_key. Key ignored [4294967295]"));
}

void Probe_make_call(const Ctx& c) {
  const auto longest = Text<char>(40, '9', true);
  const auto too_long = Text<char>(41, '7', false);  // nothing past the 41st byte may be read
  const auto empty = Text<char>(0, '\0', true);
  // Without the call processor every number is answered 0 unread. A null number has no length
  // of 1 to 40, so the engine refuses it like an empty one (a host expects an error, not a
  // crash).
  const std::int32_t refused = c.engine() ? -1 : 0;
  EXPECT_EQ(make_call(nullptr), refused);
  EXPECT_EQ(make_call(empty.get()), refused);
  EXPECT_EQ(make_call(too_long.get()), refused);
  EXPECT_EQ(make_call("12a"), refused);
  EXPECT_EQ(make_call("12p"), refused);
  EXPECT_EQ(make_call("1\xff"), refused);
  EXPECT_TRUE(!c.engine() ||
              c.Traced("[API :: Warning] Makecall received no number value at index [2] as [a]"));
  // Accepted: the results of the single keys are not looked at.
  EXPECT_EQ(make_call(longest.get()), 0);
  EXPECT_EQ(make_call("1P2W3*#"), 0);
}

void Probe_send_error(const Ctx& c) {
  for (std::uint32_t code : {0u, 0xffu, 0x100u, UINT32_MAX}) {
    const std::int32_t result = send_error(code, UINT32_MAX, kUntouched);
    if (c.engine() && c.concurrent) {
      EXPECT_TRUE(result == 0 || result == -1) << result;  // -1: the mailbox is full for now
    } else {
      EXPECT_EQ(result, 0);
    }
  }
  EXPECT_TRUE(!c.engine() || c.Traced("[API] Error code transmitted: [4294967295]"));
}

void Probe_open_voice(const Ctx&) {
  EXPECT_EQ(open_voice(), 0);
  EXPECT_EQ(open_voice(), 0);
}

void Probe_close_voice(const Ctx&) {
  EXPECT_EQ(close_voice(), 0);
  EXPECT_EQ(close_voice(), 0);
}

void Probe_send_voice(const Ctx& c) {
  const auto frame = Exact<std::uint16_t>(160);  // one 320-byte block
  const auto blocks = Exact<std::uint16_t>(350);  // 700 bytes: two blocks and a dropped tail
  // Without a session the byte count comes back, unread.
  const bool wave = c.engine();
  EXPECT_EQ(send_voice(0, nullptr), 0);
  EXPECT_EQ(send_voice(319, nullptr), wave ? 0 : 319);
  EXPECT_EQ(send_voice(320, nullptr), wave ? -1 : 320);
  EXPECT_EQ(send_voice(320, frame.get()), 320);
  EXPECT_EQ(send_voice(700, blocks.get()), 700);
  // A count the signed result cannot carry (a host's -1 among them) is refused unread, in every
  // state: the byte count cannot come back, and no caller has four gigabytes of sound.
  EXPECT_EQ(send_voice(UINT32_MAX, frame.get()), -1);
  EXPECT_EQ(send_voice(0x80000000u, frame.get()), -1);
  // INT32_MAX bytes would be read as the host declares them: only without a session.
  if (!wave) {
    EXPECT_EQ(send_voice(INT32_MAX, frame.get()), INT32_MAX);
  }
}

void Probe_recv_voice(const Ctx& c) {
  // The host's area has room for 8 frames, 2560 bytes, and not one sample more.
  const auto pcm = Exact<std::uint16_t>(8 * 160);
  const bool wave = c.engine();
  for (std::int32_t length : {320, 0, -1, INT32_MIN, INT32_MAX}) {
    std::int32_t asked = length;
    std::uint32_t status = kUntouched;
    const std::int32_t placed = recv_voice(&asked, pcm.get(), &status);
    EXPECT_EQ(asked, length) << "read, never written";
    if (wave) {
      EXPECT_TRUE(placed >= 0 && placed <= 2560 && placed % 320 == 0) << placed;
      EXPECT_NE(status, kUntouched);
    } else {
      EXPECT_EQ(placed, 0);
      EXPECT_EQ(status, kUntouched);
    }
  }
  // Each pointer null in turn. The host must give both the length and the area; with a session,
  // a missing one is a clear -1 rather than a crash, and the status is left alone.
  std::int32_t length = 320;
  std::uint32_t status = kUntouched;
  EXPECT_EQ(recv_voice(nullptr, pcm.get(), &status), wave ? -1 : 0);
  EXPECT_EQ(recv_voice(&length, nullptr, &status), wave ? -1 : 0);
  EXPECT_EQ(status, kUntouched);
  const std::int32_t placed = recv_voice(&length, pcm.get(), nullptr);
  EXPECT_TRUE(wave ? placed >= 0 && placed <= 2560 : placed == 0) << placed;
  EXPECT_EQ(recv_voice(nullptr, nullptr, nullptr), wave ? -1 : 0);
}

void Probe_set_alaw(const Ctx&) {
  for (std::uint32_t mode : {0u, 4u, UINT32_MAX, 1u}) set_alaw(mode);
}

// ---- Tracer -------------------------------------------------------------------------------------

void Probe_tracer_startup(const Ctx& c) {
  // A name no file system takes, and a folder that does not exist: the host does not learn it.
  const auto too_long = Text<char>(PATH_MAX + 1, 'x', true);
  CTracer::Shutdown();  // no file open, as uninitialize leaves it
  EXPECT_EQ(tracer_startup(too_long.get()), 0);
  EXPECT_EQ(tracer_startup("/nonexistent-deskline-folder/trace.log"), 0);
  ReopenTrace(c);
  // A file is open: a second start is answered 0 and silences the trace until the next open.
  // (With another thread between its Shutdown and its Startup, no file might be open, and a
  // null name would make "trace.log" in the working folder.)
  if (!c.concurrent) {
    EXPECT_EQ(tracer_startup(nullptr), 0);
  }
  ReopenTrace(c);
}

void Probe_tracer_add_filter(const Ctx& c) {
  EXPECT_EQ(tracer_set_filter(0), 0);
  EXPECT_EQ(tracer_add_filter(DESKLINE_TRACE_ERROR), 0);
  EXPECT_EQ(tracer_add_filter(0x80000000u), 0);
  if (!c.concurrent) {
    EXPECT_EQ(CTracer::Instance().filter(), 0x80000008u);
  }
  EXPECT_EQ(tracer_add_filter(0), 0);  // clears, as a set of 0 would
  if (!c.concurrent) {
    EXPECT_EQ(CTracer::Instance().filter(), 0u);
  }
  EXPECT_EQ(tracer_add_filter(UINT32_MAX), 0);
}

void Probe_tracer_remove_filter(const Ctx& c) {
  EXPECT_EQ(tracer_remove_filter(0), 0);
  EXPECT_EQ(tracer_remove_filter(UINT32_MAX), 0);
  if (!c.concurrent) {
    EXPECT_EQ(CTracer::Instance().filter(), 0u);
  }
  EXPECT_EQ(tracer_remove_filter(0x80000000u), 0);
  EXPECT_EQ(tracer_set_filter(UINT32_MAX), 0);
}

void Probe_tracer_set_filter(const Ctx& c) {
  for (std::uint32_t mask : {0u, 0x80000000u, 0x1fu, UINT32_MAX}) {
    EXPECT_EQ(tracer_set_filter(mask), 0);
    if (!c.concurrent) {
      EXPECT_EQ(CTracer::Instance().filter(), mask);
    }
  }
}

// ---- Audio devices ------------------------------------------------------------------------------

std::atomic<int> g_captured{0};
std::int32_t CountFrames(std::uint16_t*, std::uint32_t) { return ++g_captured, 0; }

void Probe_AudioModuleStart(const Ctx& c) {
  EXPECT_EQ(AudioModuleStart(), 0);
  EXPECT_EQ(AudioModuleStart(), 0) << "standing: nothing happens";
  // Outside the phases with the module, the row leaves the state as it found it.
  if (!c.audio) {
    EXPECT_EQ(AudioModuleShutdown(), 0);
  }
}

void Probe_AudioModuleShutdown(const Ctx& c) {
  // Taking a standing module down is the test's own step, from two threads at once.
  if (c.audio) return;
  EXPECT_EQ(AudioModuleShutdown(), 0);
  EXPECT_EQ(AudioModuleShutdown(), 0);
}

void Probe_AudioModulePlayVoice(const Ctx& c) {
  const auto frame = Exact<std::uint16_t>(160);
  const auto largest = Exact<std::uint16_t>(1600);  // 3200 bytes: the most one call plays
  EXPECT_EQ(AudioModulePlayVoice(nullptr, 320), 0);
  EXPECT_EQ(AudioModulePlayVoice(frame.get(), 0), 0);
  EXPECT_EQ(AudioModulePlayVoice(frame.get(), -1), 0);
  EXPECT_EQ(AudioModulePlayVoice(frame.get(), INT32_MIN), 0);
  EXPECT_EQ(AudioModulePlayVoice(frame.get(), 320), 0);
  EXPECT_EQ(AudioModulePlayVoice(largest.get(), INT32_MAX), 0);
  EXPECT_TRUE(!c.audio || c.Traced("[AUDIO :: Warning] Data length exceeded buffer limits - "
                                   "Expected [3200], Requested [2147483647]"));
}

void Probe_AudioModuleRecordStart(const Ctx&) {
  for (std::uint8_t flag : {1, 255, 0}) EXPECT_EQ(AudioModuleRecordStart(flag), 0);
}

void Probe_AudioModuleRegisterCallback(const Ctx&) {
  EXPECT_EQ(AudioModuleRegisterCallback(nullptr), 0);
  EXPECT_EQ(AudioModuleRegisterCallback(&CountFrames), 0);
  EXPECT_EQ(AudioModuleRecordStart(1), 0);
  EXPECT_EQ(AudioModuleRegisterCallback(nullptr), 0);  // silences the frames
  EXPECT_EQ(AudioModuleRecordStart(0), 0);
}

// A device list: -1 for a null place or without the module; else "System Default" and the
// names, each a 64-byte block with its terminator, which the host frees.
void CheckDeviceList(const Ctx& c, std::int32_t (*get)(char16_t***)) {
  EXPECT_EQ(get(nullptr), -1);
  char16_t** const untouched = reinterpret_cast<char16_t**>(std::uintptr_t{kUntouched});
  char16_t** list = untouched;
  const std::int32_t count = get(&list);
  if (!c.audio) {
    EXPECT_EQ(count, -1);
    EXPECT_EQ(list, untouched);
    return;
  }
  ASSERT_GE(count, 1);
  ASSERT_NE(list, untouched);
  EXPECT_EQ(std::u16string(list[0]), u"System Default");
  for (std::int32_t i = 0; i < count; ++i) {
    EXPECT_LT(std::char_traits<char16_t>::length(list[i]), 32u);
    std::free(list[i]);
  }
  std::free(list);
}

void Probe_AudioModuleGetInDevice(const Ctx& c) { CheckDeviceList(c, AudioModuleGetInDevice); }
void Probe_AudioModuleGetOutDevice(const Ctx& c) { CheckDeviceList(c, AudioModuleGetOutDevice); }

void Probe_AudioModuleSetDevice(const Ctx& c) {
  // Negative indexes (the input's as an unsigned number) change nothing.
  EXPECT_EQ(AudioModuleSetDevice(-1, -1, UINT32_MAX), 0);
  EXPECT_EQ(AudioModuleSetDevice(INT32_MIN, INT32_MIN, 0x80000000u), 0);
  // Indexes past every device are tried as they are and fail without a word to the host; the
  // system default comes back with index 0.
  EXPECT_EQ(AudioModuleSetDevice(INT32_MAX, INT32_MAX, 0x7fffffffu), 0);
  EXPECT_EQ(AudioModuleSetDevice(0, 0, 0), 0);
  if (c.audio && !c.concurrent) {
    std::uint32_t ids[3] = {kUntouched, kUntouched, kUntouched};
    AudioModuleGetDeviceID(&ids[0], &ids[1], &ids[2]);
    EXPECT_EQ(ids[0] | ids[1] | ids[2], 0u);
  }
}

void CheckPlay(const Ctx& c, std::int32_t (*play)(const char16_t*, std::int32_t),
               std::int32_t (*stop)(), const char16_t* sound) {
  const auto longest = Text<char16_t>(519, u'a', true);  // the longest path the module takes
  const auto too_long = Text<char16_t>(520, u'b', false);  // one more, unterminated
  EXPECT_EQ(play(nullptr, 0), 0);
  EXPECT_EQ(play(longest.get(), 0), 0);  // no such file: nothing sounds
  EXPECT_EQ(play(too_long.get(), -1), 0);
  EXPECT_TRUE(!c.audio ||
              c.Traced("[AUDIO :: ERROR] Play failed - path longer than 519 characters"));
  EXPECT_EQ(play(sound, INT32_MIN), 0);  // negative: repeats until stopped
  EXPECT_EQ(play(sound, INT32_MAX), 0);
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(stop(), 0);
}

void Probe_AudioModulePlayFile(const Ctx& c) {
  CheckPlay(c, AudioModulePlayFile, AudioModuleStopPlayFile, u"media/Tone_1.wav");
}

void Probe_AudioModuleStopPlayFile(const Ctx&) {
  EXPECT_EQ(AudioModuleStopPlayFile(), 0);
  EXPECT_EQ(AudioModuleStopPlayFile(), 0);
}

// Negative levels are ignored, levels past 12 give the fixed factor, slopes that are not
// finite or are negative are ignored; 0 and 0.0 restore the defaults.
void CheckVolume(void (*set)(std::int32_t, float)) {
  set(INT32_MIN, NAN);
  set(INT32_MAX, INFINITY);
  set(-1, -INFINITY);
  set(13, -0.0f);
  set(12, FLT_MAX);
  set(1, FLT_MIN);
  set(0, 0.0f);
}

void Probe_AudioModuleSetSpeakerVolume(const Ctx&) { CheckVolume(AudioModuleSetSpeakerVolume); }
void Probe_AudioModuleSetRingVolume(const Ctx&) { CheckVolume(AudioModuleSetRingVolume); }
void Probe_AudioModuleSetMicVolume(const Ctx&) { CheckVolume(AudioModuleSetMicVolume); }

void Probe_AudioModuleGetEngineStatus(const Ctx& c) {
  const std::int32_t status = AudioModuleGetEngineStatus();
  if (c.audio) {
    EXPECT_TRUE(status == 0 || status == 1) << status;
  } else {
    EXPECT_EQ(status, -1);
  }
}

void Probe_AudioModuleGetDeviceID(const Ctx& c) {
  // Each pointer null in turn, then all three: the others are still filled.
  for (int skipped = 0; skipped < 4; ++skipped) {
    std::uint32_t ids[3] = {kUntouched, kUntouched, kUntouched};
    std::uint32_t* places[3] = {&ids[0], &ids[1], &ids[2]};
    if (skipped < 3) places[skipped] = nullptr;
    AudioModuleGetDeviceID(places[0], places[1], places[2]);
    for (int i = 0; i < 3; ++i) {
      const bool filled = c.audio && i != skipped;
      EXPECT_EQ(ids[i] != kUntouched, filled) << "place " << i << " with " << skipped << " null";
    }
  }
  AudioModuleGetDeviceID(nullptr, nullptr, nullptr);
}

void Probe_AudioModuleSetWindowHandle(const Ctx&) {
  AudioModuleSetWindowHandle(UINTPTR_MAX);
  AudioModuleSetWindowHandle(0);
}

void Probe_AudioModulePlayTone(const Ctx& c) {
  CheckPlay(c, AudioModulePlayTone, AudioModuleStopPlayTone, u"media/Tone_Key.wav");
}

void Probe_AudioModuleStopPlayTone(const Ctx&) {
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);
}

// ---- Tone player --------------------------------------------------------------------------------

void Probe_ToneModulePlayTone(const Ctx& c) {
  // Ids outside 1 to 17 stop the ring, unknown melody codes play the row's own file, and after
  // tone 5 (no volume) a call naming a volume is ignored whole: all are answered 0.
  const std::int32_t calls[][3] = {
      {INT32_MIN, INT32_MIN, INT32_MIN}, {INT32_MAX, INT32_MAX, INT32_MAX}, {18, -1, -1},
      {1, 2, 3},  {-1, 4, -1}, {1, INT32_MAX, INT32_MIN}, {5, -1, -1}, {1, 2, 3},
      {1, -1, -1}, {0, -1, -1},
  };
  for (const auto& call : calls) {
    EXPECT_EQ(ToneModulePlayTone(call[0], call[1], call[2]), WithTones(c, 0))
        << call[0] << "," << call[1] << "," << call[2];
  }
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);  // tone 5 repeats on the tone output until stopped
}

void Probe_ToneModulePlayDTMF(const Ctx& c) {
  // In the default modes: key 11 and the recording key 30 sound; the silent flag, keys without
  // a file (28) and keys past the table's 31 rows do not.
  EXPECT_EQ(ToneModulePlayDTMF(11, 0), WithTones(c, 0));
  EXPECT_EQ(ToneModulePlayDTMF(30, 0), WithTones(c, 0));
  for (std::uint32_t key : {28u, 31u, 0x80000000u, UINT32_MAX}) {
    EXPECT_EQ(ToneModulePlayDTMF(key, 0), WithTones(c, 1)) << key;
  }
  for (std::uint8_t silent : {1, 255}) EXPECT_EQ(ToneModulePlayDTMF(11, silent), WithTones(c, 1));
  EXPECT_EQ(AudioModuleStopPlayTone(), 0);
}

// The modes are plain numbers: any value is kept and given back as a signed word, so
// 0xffffffff reads back as -1, the answer without a tone player too. Nothing bounds them; a
// host stores what the PBX sent.
void CheckMode(const Ctx& c, std::int32_t (*get)(), std::int32_t (*set)(std::uint32_t)) {
  EXPECT_EQ(get(), WithTones(c, 0));
  for (std::uint32_t mode : {1u, 2u, 0x7fffffffu, UINT32_MAX, 0u}) {
    EXPECT_EQ(set(mode), WithTones(c, 0));
    EXPECT_EQ(get(), WithTones(c, static_cast<std::int32_t>(mode)));
  }
}

void Probe_ToneModuleGetKeyPadMode(const Ctx& c) {
  EXPECT_EQ(ToneModuleGetKeyPadMode(), WithTones(c, 0));
}
void Probe_ToneModuleSetKeyPadMode(const Ctx& c) {
  CheckMode(c, ToneModuleGetKeyPadMode, ToneModuleSetKeyPadMode);
}
void Probe_ToneModuleGetProgramMode(const Ctx& c) {
  EXPECT_EQ(ToneModuleGetProgramMode(), WithTones(c, 0));
}
void Probe_ToneModuleSetProgramMode(const Ctx& c) {
  CheckMode(c, ToneModuleGetProgramMode, ToneModuleSetProgramMode);
}

void Probe_ToneModuleSaveCustomTone(const Ctx& c) {
  const auto longest = Text<char16_t>(255, u'p', true);  // with its terminator, fills the block
  const auto too_long = Text<char16_t>(256, u'q', false);  // refused whole, read no further
  // A null path, like one too long for the block, is an error the host learns of.
  EXPECT_EQ(ToneModuleSaveCustomTone(3, nullptr), -1);
  EXPECT_EQ(ToneModuleSaveCustomTone(3, too_long.get()), -1);
  // Slots outside 0 to 29 store nothing, by design without an error.
  for (std::int32_t slot : {INT32_MIN, -1, 30, INT32_MAX}) {
    EXPECT_EQ(ToneModuleSaveCustomTone(slot, u"media/mine.wav"), WithTones(c, 0)) << slot;
  }
  EXPECT_EQ(ToneModuleSaveCustomTone(3, longest.get()), WithTones(c, 0));
  // The host's buffer holds exactly 256 units: the longest path and its terminator fit.
  auto buffer = Text<char16_t>(256, u'#', false);
  char16_t* place = buffer.get();
  EXPECT_EQ(ToneModuleGetCustomTone(3, &place), WithTones(c, 0));
  if (c.tones()) {
    EXPECT_EQ(std::u16string(buffer.get()), std::u16string(longest.get()));
  }
  EXPECT_EQ(ToneModuleRemoveCustomTone(3), WithTones(c, 0));
}

void Probe_ToneModuleRemoveCustomTone(const Ctx& c) {
  // Outside the slots, and a slot without a file: 0. Each clears the bit (slot mod 32) of the
  // ring tones' masks, none of which these had; a slot number of 6 modulo 32 would also hide
  // slot 6's defaults.
  for (std::int32_t slot : {INT32_MIN, -1, 30, INT32_MAX, 4}) {
    EXPECT_EQ(ToneModuleRemoveCustomTone(slot), WithTones(c, 0)) << slot;
  }
}

void Probe_ToneModuleGetCustomTone(const Ctx& c) {
  EXPECT_EQ(ToneModuleGetCustomTone(3, nullptr), -1);
  char16_t* no_buffer = nullptr;
  EXPECT_EQ(ToneModuleGetCustomTone(3, &no_buffer), -1);
  // Empty slots and slots outside 0 to 29 leave the buffer as it was.
  auto buffer = Text<char16_t>(256, u'#', false);
  char16_t* place = buffer.get();
  for (std::int32_t slot : {INT32_MIN, -1, 4, 6, 30, INT32_MAX}) {
    EXPECT_EQ(ToneModuleGetCustomTone(slot, &place), WithTones(c, 0)) << slot;
    EXPECT_EQ(buffer[0], u'#');
    EXPECT_EQ(place, buffer.get());
  }
}

void Probe_ToneModuleSetServiceTonePath(const Ctx& c) {
  for (std::int32_t area : {INT32_MIN, -1, 0, 5, 8, INT32_MAX, 1}) {
    EXPECT_EQ(ToneModuleSetServiceTonePath(area), WithTones(c, 0)) << area;
  }
}

void Probe_ToneModulePlayServiceTone(const Ctx& c) {
  // Unknown codes stop the service tone; 255 stops it too.
  for (std::int32_t code : {INT32_MIN, -1, 0, 128, 144, 144, 0xA5, 256, INT32_MAX, 255}) {
    EXPECT_EQ(ToneModulePlayServiceTone(code), WithTones(c, 0)) << code;
  }
}

// ---- Number formatting --------------------------------------------------------------------------

// A table of `count` plain rules "8<n>" -> "0" (no formatter needed to build it).
std::unique_ptr<NumberRule[]> PlainRules(std::size_t count) {
  auto rules = Exact<NumberRule>(count);
  for (std::size_t i = 0; i < count; ++i) {
    rules[i].leading[0] = u'8';
    rules[i].leading[1] = static_cast<char16_t>(u'1' + i);
    rules[i].leading_length = 2;
    rules[i].added[0] = u'0';
    rules[i].added_length = 1;
    rules[i].in_use = 1;
  }
  return rules;
}

// Commits `count` plain rules, an extension length of 4 and nothing else.
void SetPlainPlan(std::size_t count) {
  auto rules = PlainRules(count);
  auto record = Exact<ModuleVariables>(1);
  record[0].rules = rules.get();
  record[0].rule_count = static_cast<std::uint32_t>(count);
  record[0].extension_length = 4;
  ASSERT_EQ(set_module_variable(record.get(), UINT32_MAX), 0);
}

void Probe_set_module_variable(const Ctx&) {
  // The first call makes the formatter, whatever it is given.
  EXPECT_EQ(set_module_variable(nullptr, UINT32_MAX), -1);
  g_formatter_made = true;

  // Every text at its full length, unterminated, with lengths that overstate it: each field is
  // read no further than it is long.
  auto rules = Exact<NumberRule>(2);
  for (int i = 0; i < 2; ++i) {
    std::fill(std::begin(rules[i].leading), std::end(rules[i].leading), u'1');
    rules[i].leading_length = INT32_MAX;
    std::fill(std::begin(rules[i].added), std::end(rules[i].added), u'2');
    rules[i].added_length = INT32_MAX;
    rules[i].in_use = 0xff;
  }
  auto record = Exact<ModuleVariables>(1);
  ModuleVariables& r = record[0];
  r.rules = rules.get();
  r.rule_count = 2;
  r.extension_length = 0;
  r.plain_flag = 0xff;
  std::fill(std::begin(r.dial_prefix), std::end(r.dial_prefix), u'9');
  r.dial_prefix_length = 8;
  std::fill(std::begin(r.default_added), std::end(r.default_added), u'3');
  r.default_added_length = 9;
  r.strip_zero_in_brackets = 0xff;
  EXPECT_EQ(set_module_variable(record.get(), UINT32_MAX), 0);
  char16_t* out = nullptr;
  const auto number = Text<char16_t>(20, u'1', false);
  const std::int32_t count = get_formatted_number(number.get(), 20, &out);
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::u16string(out), u"99999999" + std::u16string(9, u'2') + std::u16string(3, u'1'));

  // One past each field, negative and huge: refused, and the field stays as it was.
  for (std::int32_t length : {9, -1, INT32_MIN, INT32_MAX}) {
    r.dial_prefix_length = length;
    EXPECT_EQ(set_module_variable(record.get(), 8), 0);  // ignored without a word
    r.default_added_length = length == 9 ? 10 : length;
    EXPECT_EQ(set_module_variable(record.get(), 32), 32);
  }
  // A table of more rules than any GUI has is refused whole, before a rule is read; an empty
  // or missing table is ignored.
  for (std::uint32_t rule_count : {1001u, 0x80000000u, UINT32_MAX}) {
    r.rule_count = rule_count;
    EXPECT_EQ(set_module_variable(record.get(), 1), -1) << rule_count;
  }
  r.rule_count = 0;
  EXPECT_EQ(set_module_variable(record.get(), 1), 0);
  r.rules = nullptr;
  r.rule_count = 5;
  EXPECT_EQ(set_module_variable(record.get(), 1), 0);
  EXPECT_EQ(set_module_variable(record.get(), 0), 0);
  EXPECT_EQ(set_module_variable(record.get(), 0xffffffc0u), 0);  // no known bit

  auto back = Exact<ModuleVariables>(1);
  ASSERT_EQ(get_module_variable(back.get(), -1), 0);
  EXPECT_EQ(back[0].rule_count, 2u);
  EXPECT_EQ(back[0].dial_prefix_length, 8);
  EXPECT_EQ(back[0].default_added_length, 9);
}

void Probe_get_module_variable(const Ctx&) {
  auto record = Exact<ModuleVariables>(1);
  EXPECT_EQ(get_module_variable(nullptr, -1), -1);
  EXPECT_EQ(get_module_variable(record.get(), 0), WithFormatter(0));
  if (!g_formatter_made) {
    EXPECT_EQ(get_module_variable(record.get(), -1), -1);
    return;
  }
  SetPlainPlan(3);
  // The host asks for the size with a null table, then gives a block of exactly that size.
  ASSERT_EQ(get_module_variable(record.get(), 1), 0);
  ASSERT_EQ(record[0].rule_count, 3u);
  auto table = Exact<NumberRule>(record[0].rule_count);
  record[0].rules = table.get();
  EXPECT_EQ(get_module_variable(record.get(), -1), 0);
  EXPECT_EQ(table[2].leading[1], u'3');
  EXPECT_EQ(get_module_variable(record.get(), INT32_MIN), 0);  // no known bit
}

void Probe_check_leading(const Ctx&) {
  const auto longest = Text<char16_t>(17, u'8', false);  // the whole field, unterminated
  const auto too_long = Text<char16_t>(18, u'8', false);
  if (!g_formatter_made) {
    EXPECT_EQ(check_leading(u"81", 2, 0), -1);
    EXPECT_EQ(check_leading(nullptr, 2, 0), -1);
    return;
  }
  SetPlainPlan(3);
  EXPECT_EQ(check_leading(nullptr, 2, 0), -1);
  EXPECT_EQ(check_leading(longest.get(), 17, 0), 0);
  // What does not fit the rule or the table is refused with -1.
  EXPECT_EQ(check_leading(too_long.get(), 18, 0), -1);
  for (std::int32_t length : {-1, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(check_leading(longest.get(), length, 0), -1) << length;
  }
  for (std::int32_t index : {-1, 3, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(check_leading(u"81", 2, index), -1) << index;
  }
  EXPECT_EQ(check_leading(u"8x", 2, 1), 2);
  EXPECT_EQ(check_leading(u"+", 1, 1), 0);
  EXPECT_EQ(check_leading(longest.get(), 0, 2), 0);  // clears the rule
  discard_changes();
}

void Probe_check_added(const Ctx&) {
  const auto longest = Text<char16_t>(9, u'0', false);
  const auto too_long = Text<char16_t>(10, u'0', false);
  if (!g_formatter_made) {
    EXPECT_EQ(check_added(u"0", 1, -1), -1);
    EXPECT_EQ(check_added(nullptr, 1, -1), -1);
    return;
  }
  SetPlainPlan(3);
  EXPECT_EQ(check_added(nullptr, 1, -1), -1);
  EXPECT_EQ(check_added(longest.get(), 9, -1), 0);
  EXPECT_EQ(check_added(too_long.get(), 10, -1), -1);
  for (std::int32_t length : {-1, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(check_added(longest.get(), length, 0), -1) << length;
  }
  for (std::int32_t index : {-2, 3, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(check_added(u"0", 1, index), -1) << index;
  }
  EXPECT_EQ(check_added(u"x", 1, -1), 4);
  EXPECT_EQ(check_leading(u"", 0, 1), 0);
  EXPECT_EQ(check_added(u"0", 1, 1), 8) << "the rule has no leading text now";
  EXPECT_EQ(check_added(longest.get(), 9, 0), 0);
  discard_changes();
}

void Probe_get_formatted_number(const Ctx&) {
  char16_t* const untouched = reinterpret_cast<char16_t*>(std::uintptr_t{kUntouched});
  char16_t* out = untouched;
  if (!g_formatter_made) {
    EXPECT_EQ(get_formatted_number(u"123", 3, &out), -1);
    EXPECT_EQ(get_formatted_number(nullptr, 3, &out), -1);
    EXPECT_EQ(out, untouched);
    return;
  }
  SetPlainPlan(3);
  // No number, nowhere to put the result, lengths below zero: -1 with nothing written.
  EXPECT_EQ(get_formatted_number(nullptr, 3, &out), -1);
  EXPECT_EQ(get_formatted_number(u"123", 3, nullptr), -1);
  EXPECT_EQ(get_formatted_number(u"123", -1, &out), -1);
  EXPECT_EQ(get_formatted_number(u"123", INT32_MIN, &out), -1);
  EXPECT_EQ(out, untouched);
  EXPECT_EQ(get_formatted_number(u"123", 3, &out), 4);
  EXPECT_EQ(std::u16string(out), u"123");
  // A length past the text: read up to the terminator, in the long form (the caller's length
  // chooses it), where rule "81" applies.
  EXPECT_EQ(get_formatted_number(u"81 3 (1234)", INT32_MAX, &out), 7);
  EXPECT_EQ(std::u16string(out), u"031234");
  // An unterminated number is read to exactly its length.
  const auto digits = Text<char16_t>(64, u'5', false);
  EXPECT_EQ(get_formatted_number(digits.get(), 64, &out), 65);
  EXPECT_EQ(std::u16string(out), std::u16string(64, u'5'));
  EXPECT_EQ(get_formatted_number(digits.get(), 0, &out), 1);
  EXPECT_EQ(out[0], u'\0');
}

void Probe_discard_changes(const Ctx&) {
  discard_changes();
  discard_changes();
}

// ---- The table ----------------------------------------------------------------------------------

// Whether a host may call the export from two threads at once.
enum class Threads {
  kOne,  // one at a time (the tone player and the number formatter are the host's to
         // serialise; initialize and uninitialize run on one host thread; AudioModulePlayVoice
         // keeps its ring position without a lock)
  kAny,
};

struct Row {
  const char* name;
  void (*probe)(const Ctx&);
  Threads threads;
};

#define ROW(export_name, threads) Row{#export_name, &Probe_##export_name, Threads::threads}

// Map order, but for the number formatter: the rows that find it missing come before the first
// set_module_variable makes it.
const Row kRows[] = {
    ROW(initialize, kOne),
    ROW(uninitialize, kOne),
    ROW(put_key, kAny),
    ROW(make_call, kAny),
    ROW(send_error, kAny),
    ROW(open_voice, kAny),
    ROW(close_voice, kAny),
    ROW(send_voice, kAny),
    ROW(recv_voice, kAny),
    ROW(set_alaw, kAny),
    ROW(tracer_startup, kAny),
    ROW(tracer_add_filter, kAny),
    ROW(tracer_remove_filter, kAny),
    ROW(tracer_set_filter, kAny),
    ROW(AudioModuleStart, kAny),
    ROW(AudioModuleShutdown, kAny),
    ROW(AudioModulePlayVoice, kOne),
    ROW(AudioModuleRecordStart, kAny),
    ROW(AudioModuleRegisterCallback, kAny),
    ROW(AudioModuleGetInDevice, kAny),
    ROW(AudioModuleGetOutDevice, kAny),
    ROW(AudioModuleSetDevice, kAny),
    ROW(AudioModulePlayFile, kAny),
    ROW(AudioModuleStopPlayFile, kAny),
    ROW(AudioModuleSetSpeakerVolume, kAny),
    ROW(AudioModuleSetRingVolume, kAny),
    ROW(AudioModuleSetMicVolume, kAny),
    ROW(AudioModuleGetEngineStatus, kAny),
    ROW(AudioModuleGetDeviceID, kAny),
    ROW(AudioModuleSetWindowHandle, kAny),
    ROW(AudioModulePlayTone, kAny),
    ROW(AudioModuleStopPlayTone, kAny),
    ROW(ToneModulePlayTone, kOne),
    ROW(ToneModulePlayDTMF, kOne),
    ROW(ToneModuleGetKeyPadMode, kOne),
    ROW(ToneModuleSetKeyPadMode, kOne),
    ROW(ToneModuleGetProgramMode, kOne),
    ROW(ToneModuleSetProgramMode, kOne),
    ROW(ToneModuleSaveCustomTone, kOne),
    ROW(ToneModuleRemoveCustomTone, kOne),
    ROW(ToneModuleGetCustomTone, kOne),
    ROW(ToneModuleSetServiceTonePath, kOne),
    ROW(ToneModulePlayServiceTone, kOne),
    ROW(get_module_variable, kOne),
    ROW(check_leading, kOne),
    ROW(check_added, kOne),
    ROW(get_formatted_number, kOne),
    ROW(discard_changes, kOne),
    ROW(set_module_variable, kOne),
};

#undef ROW

// The names between "global:" and "local:" of the linker map.
std::vector<std::string> MapNames() {
  std::ifstream in(DESKLINE_EXPORT_MAP);
  std::stringstream text;
  text << in.rdbuf();
  const std::string map = text.str();
  const std::size_t begin = map.find("global:");
  const std::size_t end = map.find("local:");
  std::vector<std::string> names;
  if (begin == std::string::npos || end == std::string::npos || end < begin) return names;
  const std::regex name("[A-Za-z_][A-Za-z0-9_]*");
  for (auto it = std::sregex_iterator(map.begin() + static_cast<std::ptrdiff_t>(begin + 7),
                                      map.begin() + static_cast<std::ptrdiff_t>(end), name);
       it != std::sregex_iterator(); ++it) {
    names.push_back(it->str());
  }
  return names;
}

TEST(ExportsTable, HasOneRowForEachExportOfTheMap) {
  const std::vector<std::string> exported = MapNames();
  ASSERT_EQ(exported.size(), 49u) << "read from " << DESKLINE_EXPORT_MAP;
  std::multiset<std::string> rows;
  for (const Row& row : kRows) rows.insert(row.name);
  for (const std::string& name : exported) {
    EXPECT_EQ(rows.count(name), 1u) << name << " needs exactly one row";
  }
  const std::set<std::string> in_map(exported.begin(), exported.end());
  for (const Row& row : kRows) EXPECT_TRUE(in_map.contains(row.name)) << row.name;
  EXPECT_EQ(std::size(kRows), exported.size());
}

// ---- Running the table --------------------------------------------------------------------------

// Runs `body` on two threads that begin together.
template <typename Body>
void OnTwoThreads(Body body) {
  std::atomic<int> ready{0};
  auto run = [&] {
    ready.fetch_add(1);
    while (ready.load() < 2) std::this_thread::yield();
    body();
  };
  std::thread first(run);
  std::thread second(run);
  first.join();
  second.join();
}

class ExportsTableTest : public testing::EngineFixture {
 protected:
  ExportsTableTest() {
    platform::SetEnvironment("DESKLINE_SETTINGS", dir_.File("settings.ini").c_str());
    // Real PTAP against the simulator, the fixture's fake MGCP, a real Wave session on a free
    // port; the call processor waits on the real clock.
    api::SetCpDependenciesFactory([this] {
      CpDependencies deps = fakes_.Dependencies();
      deps.clock = &platform::RealClock();
      const std::string dir = dir_.path().string();
      deps.make_ptap = [dir]() -> std::unique_ptr<IPtap> {
        return std::make_unique<CPtap>(platform::RealClock(),
                                       PtapOptions{dir, std::chrono::milliseconds(0), nullptr});
      };
      deps.make_wave = []() -> std::unique_ptr<IWave> {
        return std::make_unique<CWave>(platform::RealClock(), std::uint16_t{0});
      };
      return deps;
    });
    data_ = testing::HostCallbacks::Data();
    std::memcpy(data_.terminal_identity, "TERMINAL-049", 12);
    EXPECT_TRUE(sink_.Open({sim::kLoopbackIp, 0}));
  }
  ~ExportsTableTest() override {
    AudioModuleShutdown();
    uninitialize();
    platform::SetEnvironment("DESKLINE_SETTINGS", nullptr);
  }

  Ctx State(Phase phase, bool audio) {
    Ctx c;
    c.phase = phase;
    c.audio = audio;
    c.trace = &trace_;
    c.start_data = &data_;
    c.pbx = &pbx_;
    return c;
  }

  // Every row, one after the other, on this thread.
  static void RunAll(const Ctx& c) {
    for (const Row& row : kRows) {
      SCOPED_TRACE(std::string(row.name) + ", " + PhaseName(c.phase));
      row.probe(c);
    }
  }

  // Each row that a host may call from two threads at once, on two threads at once.
  static void RunEachOnTwoThreads(Ctx c) {
    c.concurrent = true;
    for (const Row& row : kRows) {
      if (row.threads != Threads::kAny) continue;
      OnTwoThreads([&] {
        SCOPED_TRACE(std::string(row.name) + ", two threads, " + PhaseName(c.phase));
        for (int i = 0; i < 2; ++i) row.probe(c);
      });
    }
  }

  NetworkInitData data_{};
  platform::UdpSocket sink_;  // where the Wave session's RTP goes
};

TEST_F(ExportsTableTest, EveryExportInEveryState) {
  ASSERT_TRUE(kVirtualAudio);
  auto& waves = *platform::DefaultVirtualWaveSystem();

  RunAll(State(Phase::kBefore, false));
  EXPECT_EQ(waves.OpenStreams(), 0);
  EXPECT_EQ(api::engine().tone_player.load(), nullptr);

  // The Audio module comes up first, from two threads at once: one module, one microphone and
  // one voice output.
  OnTwoThreads([] { EXPECT_EQ(AudioModuleStart(), 0); });
  EXPECT_EQ(waves.OpenStreams(), 2);

  // The PBX holds back its answer to START until every row has been called: initialize is
  // blocked in the start all that time.
  Answers([](sim::PtapAnswers& a) { a.start.answer = false; });
  pbx_.ClearRecords();
  std::atomic<bool> started{false};
  std::int32_t start_result = -2;
  std::thread host([&] {
    start_result = initialize(&data_, &params_);
    started = true;
  });
  ASSERT_TRUE(pbx_.WaitForCount(sim::Direction::kIn, PTAP_TYPE_START, 1, std::chrono::seconds(10)))
      << trace_.Text();
  RunAll(State(Phase::kStarting, true));
  EXPECT_FALSE(started) << "the rows ran while initialize waited for the PBX";
  Answers([](sim::PtapAnswers& a) { a.start.answer = true; });  // the resent START is answered
  host.join();
  ASSERT_EQ(start_result, 0) << trace_.Text();

  IWave* wave = api::engine().wave.load();
  ASSERT_NE(wave, nullptr);
  wave->SetRemoteIp(sim::kLoopbackIp);
  wave->SetRemotePort(sink_.LocalEndpoint()->port);
  RunAll(State(Phase::kRunning, true));
  RunEachOnTwoThreads(State(Phase::kRunning, true));

  EXPECT_EQ(uninitialize(), 0);
  ReopenTrace(State(Phase::kAfter, true));
  OnTwoThreads([] { EXPECT_EQ(AudioModuleShutdown(), 0); });
  EXPECT_EQ(waves.OpenStreams(), 0);
  EXPECT_EQ(testing::FakeModules::Live(), 0);

  RunAll(State(Phase::kAfter, false));
  RunEachOnTwoThreads(State(Phase::kAfter, false));
  EXPECT_EQ(waves.OpenStreams(), 0);
  EXPECT_EQ(api::engine().cp.load(), nullptr);
  EXPECT_EQ(api::engine().tone_player.load(), nullptr);
}

// A failed start deletes the call processor: a key sent from another thread meanwhile must not
// find it, before or after.
TEST(ExportsTable, KeysDuringAFailedStartFindNoCallProcessor) {
  testing::FakeClock clock;
  testing::FakeModules fakes(clock);
  fakes.ptap_config.answer_event = PTAP_EVENT_START_REFUSED;
  fakes.ptap_config.error_code = 201;
  api::SetCpDependenciesFactory([&] { return fakes.Dependencies(); });
  const NetworkInitData data = testing::HostCallbacks::Data();
  std::atomic<bool> stop{false};
  std::thread keys([&] {
    while (!stop) EXPECT_EQ(put_key(0x0200), 0);
  });
  PtapParameterContainer params;
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(initialize(&data, &params), 201);
  stop = true;
  keys.join();
  EXPECT_EQ(uninitialize(), 0);
  api::SetCpDependenciesFactory(nullptr);
}

}  // namespace
}  // namespace deskline
