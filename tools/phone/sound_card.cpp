#include "tools/phone/sound_card.h"

#include <algorithm>
#include <cstdlib>

#include "support/settings_store.h"
#include "platform/text.h"
#include "tools/phone/commands.h"
#include "tools/phone/records.h"

namespace deskline::phone {
namespace {

// A device name is a 64-byte block: 31 units and a terminator. Never read past it.
constexpr std::size_t kDeviceNameUnits = 32;

}  // namespace

void CaptureBridge::Deliver(const std::uint16_t* samples, std::uint32_t bytes) {
  // Counted first: Disable waits while any delivery is in here.
  ++in_flight_;
  if (samples != nullptr && bytes > 0) {
    ++captured_;
    if (enabled_.load() && voice_open_.load()) {
      // int16_t and uint16_t may alias each other.
      const auto* pcm = reinterpret_cast<const std::int16_t*>(samples);
      for (std::uint32_t at = 0; at + kFrameBytes <= bytes; at += kFrameBytes) {
        port_.SendVoice(std::span<const std::int16_t>(pcm + at / 2, kFrameSamples));
        ++sent_;
      }
    }
  }
  --in_flight_;
}

void CaptureBridge::Disable() {
  enabled_ = false;
  // A delivery that counted itself before the flag fell may still send; one that counts
  // itself later sees the flag. The callback is short, so this wait is too.
  while (in_flight_.load() > 0) clock_.SleepFor(std::chrono::milliseconds(1));
}

void SpeakerSink::Write(std::span<const std::int16_t> samples) {
  const std::size_t count = std::min(samples.size(), buffer_.size());
  std::copy_n(samples.begin(), count, buffer_.begin());
  port_.PlayVoice(std::span<std::int16_t>(buffer_.data(), count));
  written_ += count / kFrameSamples;
}

void SpeakerSink::Gap() {
  std::fill_n(buffer_.begin(), kFrameSamples, std::int16_t{0});
  port_.PlayVoice(std::span<std::int16_t>(buffer_.data(), kFrameSamples));
  ++written_;
  ++silent_;
}

std::optional<ToneCall> ToneCallForEvent(std::uint32_t code, std::span<const std::byte> data) {
  switch (code) {
    case kEventRing: {
      const std::optional<ToneRequest> request = DecodeToneRequest(data);
      if (!request || request->kind != 1) return std::nullopt;
      // The volume stays as last set: naming one after a tone that takes none would make the
      // tone player ignore the whole call.
      return ToneCall{ToneCall::Kind::kRing, request->pattern, -1, request->melody, 0};
    }
    case kEventVoiceOff:
    case kEventEnd:
    case kEventCodec:
      return ToneCall{ToneCall::Kind::kStop};
    default:
      return std::nullopt;
  }
}

std::optional<std::uint32_t> KeyToneNumber(char c) {
  if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0');
  if (c == '*') return 10u;
  if (c == '#') return 11u;
  return std::nullopt;
}

void Ringer::Post(const ToneCall& call) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(call);
  }
  work_.Set();
}

void Ringer::PostKeyTones(std::string_view dialled) {
  for (char c : dialled) {
    if (const auto key = KeyToneNumber(c)) Post(ToneCall{ToneCall::Kind::kKey, -1, -1, -1, *key});
  }
}

bool Ringer::Start() {
  if (thread_.created()) return true;
  stop_.Reset();
  if (thread_.Create("phone ringer", [this](platform::ThreadId) { Run(); }) == 0) return false;
  thread_.Resume();
  return true;
}

void Ringer::Stop() {
  RequestStop();
  thread_.Join();
}

void Ringer::Run() {
  while (!stop_.IsSet()) {
    std::deque<ToneCall> calls;
    {
      std::lock_guard lock(mutex_);
      calls.swap(queue_);
      // Under the lock: a Post after the swap sets the event again.
      work_.Reset();
    }
    for (const ToneCall& call : calls) {
      if (stop_.IsSet()) return;
      Execute(call);
      if (call.kind == ToneCall::Kind::kKey && clock_.WaitFor(stop_, kKeyToneSpacing)) return;
    }
    if (calls.empty()) clock_.WaitFor(work_, kIdleWait);
  }
}

void Ringer::Execute(const ToneCall& call) {
  switch (call.kind) {
    case ToneCall::Kind::kRing: {
      port_.PlayTone(call.tone, call.volume, call.melody);
      sounding_ = true;
      std::lock_guard lock(mutex_);
      ++counts_.ring_plays;
      return;
    }
    case ToneCall::Kind::kStop: {
      if (!sounding_) return;  // answer, ring off and the voice path often come together
      // Tone 0 is no tone: the tone player stops the file playback that rings.
      port_.PlayTone(0, -1, -1);
      sounding_ = false;
      std::lock_guard lock(mutex_);
      ++counts_.stops;
      return;
    }
    case ToneCall::Kind::kKey: {
      const bool sounded = port_.PlayKeyTone(call.key) == 0;
      std::lock_guard lock(mutex_);
      if (sounded) ++counts_.key_tones;
      return;
    }
  }
}

RingerCounts Ringer::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

std::int32_t SoundingActions::PutKey(std::uint32_t key) {
  if (key == kKeyOffHook || key == kKeySpeaker) ringer_.Post(ToneCall{ToneCall::Kind::kStop});
  return inner_.PutKey(key);
}

std::int32_t SoundingActions::MakeCall(const std::string& number) {
  const std::int32_t result = inner_.MakeCall(number);
  if (result == 0) ringer_.PostKeyTones(number);
  return result;
}

std::optional<std::vector<std::string>> ListDevices(DeviceListFunction list) {
  char16_t** names = nullptr;
  const std::int32_t count = list(&names);
  if (count < 0) return std::nullopt;
  std::vector<std::string> devices;
  if (names == nullptr) return devices;
  for (std::int32_t i = 0; i < count; ++i) {
    char16_t* name = names[i];
    if (name != nullptr) {
      devices.push_back(Utf16ToUtf8(std::u16string_view(name, U16Length(name, kDeviceNameUnits))));
    }
    std::free(name);
  }
  std::free(names);
  return devices;
}

bool StoreDeviceChoice(const char* value_name, const std::string& device, std::string* error) {
  if (WriteSetting(kSettingsKey, value_name, device.c_str())) return true;
  const std::optional<std::string> file = SettingsFilePath();
  *error = std::string("cannot write \"") + value_name + "\" to the settings store " +
           (file ? *file : std::string("(no home folder)"));
  return false;
}

}  // namespace deskline::phone
