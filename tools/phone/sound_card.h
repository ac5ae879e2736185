// The phone with the library's sound card (--audio): what a telephone GUI does around the
// Audio module and the tone player.
//
// - CaptureBridge: the capture callback's work, on the audio thread: whole frames to
//   send_voice while the voice path is open, nothing else.
// - SpeakerSink: received voice to AudioModulePlayVoice, a silent frame when nothing came, so
//   that the speaker, whose writes block once its queue is full, stays the voice thread's clock.
// - Ringer: the ring and the key tones, on a thread of its own: the engine's callbacks and the
//   script post requests and never wait for a device.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "tools/phone/script_runner.h"
#include "tools/phone/voice_pacer.h"

namespace deskline::phone {

// The library's sound exports as the phone uses them; results as the exports give them.
class SoundPort {
 public:
  virtual ~SoundPort() = default;
  // AudioModulePlayVoice: may block until the device has room. The samples may be changed
  // (the speaker's gain works in place).
  virtual std::int32_t PlayVoice(std::span<std::int16_t> pcm) = 0;
  virtual std::int32_t PlayTone(std::int32_t tone, std::int32_t volume, std::int32_t melody) = 0;
  virtual std::int32_t PlayKeyTone(std::uint32_t key) = 0;
};

class CaptureBridge {
 public:
  CaptureBridge(VoicePort& port, const std::atomic<bool>& voice_open, platform::Clock& clock)
      : port_(port), voice_open_(voice_open), clock_(clock) {}

  // The capture callback's body: every whole 320-byte frame of `bytes` goes to send_voice
  // while enabled and the voice path is open. A null pointer or a short block sends nothing.
  void Deliver(const std::uint16_t* samples, std::uint32_t bytes);
  void Enable() { enabled_ = true; }
  // No delivery sends after this returns: it waits for one in flight. Not from the callback.
  void Disable();

  std::uint64_t frames_sent() const { return sent_.load(); }
  std::uint64_t blocks_captured() const { return captured_.load(); }

 private:
  VoicePort& port_;
  const std::atomic<bool>& voice_open_;
  platform::Clock& clock_;
  std::atomic<bool> enabled_{false};
  std::atomic<int> in_flight_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> captured_{0};
};

// The speaker's queue: AudioModulePlayVoice returns at once while it has a free buffer.
inline constexpr int kSpeakerQueueFrames = 5;

class SpeakerSink final : public FrameSink {
 public:
  explicit SpeakerSink(SoundPort& port) : port_(port) {}
  void Write(std::span<const std::int16_t> samples) override;
  void Gap() override;

  std::uint64_t frames_written() const { return written_.load(); }  // silent ones included
  std::uint64_t silent_frames() const { return silent_.load(); }

 private:
  SoundPort& port_;
  // A copy for the device: the speaker's gain changes what it is given.
  std::vector<std::int16_t> buffer_ = std::vector<std::int16_t>(kFrameSamples * kMaxReceiveFrames);
  std::atomic<std::uint64_t> written_{0};
  std::atomic<std::uint64_t> silent_{0};
};

struct ToneCall {
  enum class Kind { kRing, kStop, kKey };
  Kind kind = Kind::kStop;
  std::int32_t tone = -1;    // kRing: ToneModulePlayTone's arguments
  std::int32_t volume = -1;
  std::int32_t melody = -1;
  std::uint32_t key = 0;     // kKey: ToneModulePlayDTMF's key number

  friend bool operator==(const ToneCall&, const ToneCall&) = default;
};

// What an engine event asks of the ringer: a ring record plays its pattern (the tone id) and
// melody at the volume last set; ring off ("voff"), the call's end and the voice path opening
// stop it. Nullopt for every other event and for a ring without its record.
std::optional<ToneCall> ToneCallForEvent(std::uint32_t code, std::span<const std::byte> data);

// The key number of a dialled character: digits 0-9, '*' 10, '#' 11; nullopt for the pauses
// P and W, which have no key tone.
std::optional<std::uint32_t> KeyToneNumber(char c);

struct RingerCounts {
  int ring_plays = 0;  // ToneModulePlayTone calls for a ring
  int stops = 0;       // a sounding ring stopped
  int key_tones = 0;   // key tones that sounded (ToneModulePlayDTMF gave 0)
};

class Ringer {
 public:
  // Key tones of one dial string follow each other this far apart, so that each (120 ms in
  // the standard sound set) is heard whole.
  static constexpr std::chrono::milliseconds kKeyToneSpacing{150};
  static constexpr std::chrono::milliseconds kIdleWait{60'000};

  Ringer(SoundPort& port, platform::Clock& clock) : port_(port), clock_(clock) {}
  ~Ringer() { Stop(); }
  Ringer(const Ringer&) = delete;
  Ringer& operator=(const Ringer&) = delete;

  // Queues a request; any thread, never waits for the device.
  void Post(const ToneCall& call);
  // A dial string's key tones, in order.
  void PostKeyTones(std::string_view dialled);

  bool Start();
  // Ends the thread (requests still queued are dropped) and joins it. Safe twice.
  void Stop();
  void RequestStop() {
    stop_.Set();
    work_.Set();
  }
  // The loop on the calling thread, until RequestStop.
  void Run();

  RingerCounts counts() const;

 private:
  void Execute(const ToneCall& call);

  SoundPort& port_;
  platform::Clock& clock_;
  platform::ManualResetEvent stop_{"phone ringer stop"};
  platform::ManualResetEvent work_{"phone ringer work"};
  platform::Thread thread_;
  mutable std::mutex mutex_;
  std::deque<ToneCall> queue_;
  RingerCounts counts_;
  bool sounding_ = false;  // the ringer's thread only
};

// Call control that sounds as a telephone does: each dialled key gives its key tone, and
// answering (off hook, or the speaker key) stops the ring at once.
class SoundingActions final : public PhoneActions {
 public:
  SoundingActions(PhoneActions& inner, Ringer& ringer) : inner_(inner), ringer_(ringer) {}
  std::int32_t PutKey(std::uint32_t key) override;
  std::int32_t MakeCall(const std::string& number) override;
  std::int32_t SendError(std::uint32_t code) override { return inner_.SendError(code); }
  std::optional<std::string> FormatNumber(const std::string& number) override {
    return inner_.FormatNumber(number);
  }

 private:
  PhoneActions& inner_;
  Ringer& ringer_;
};

// The devices AudioModuleGetInDevice or AudioModuleGetOutDevice lists (entry 0 is the system
// default), as UTF-8; the library's list is freed, each name and then the array. Nullopt when
// the module gives -1 (not started).
using DeviceListFunction = std::int32_t (*)(char16_t*** list_out);
std::optional<std::vector<std::string>> ListDevices(DeviceListFunction list);

// Writes a device choice ("Input Device" or "Output Device") where the Audio module reads it
// at its start: the settings store. False with `error` set when the store refuses.
bool StoreDeviceChoice(const char* value_name, const std::string& device, std::string* error);

}  // namespace deskline::phone
