// libdeskline.so as the phone uses it: loaded with dlopen, each export looked up by name, as a
// telephone GUI would. No link against the library.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "deskline/deskline.h"
#include "tools/phone/dial_rules.h"
#include "tools/phone/script_runner.h"
#include "tools/phone/sound_card.h"
#include "tools/phone/voice_pacer.h"

namespace deskline::phone {

struct HostExports {
  int32_t (*tracer_startup)(const char*) = nullptr;
  int32_t (*tracer_set_filter)(uint32_t) = nullptr;
  int32_t (*initialize)(const NetworkInitData*, PtapParameterContainer*) = nullptr;
  int32_t (*uninitialize)() = nullptr;
  int32_t (*put_key)(uint32_t) = nullptr;
  int32_t (*make_call)(const char*) = nullptr;
  int32_t (*send_error)(uint32_t, uint32_t, uint32_t) = nullptr;
  int32_t (*send_voice)(uint32_t, const uint16_t*) = nullptr;
  int32_t (*recv_voice)(int32_t*, uint16_t*, uint32_t*) = nullptr;
  // The sound card and the tone player, as a GUI with sound uses them.
  int32_t (*AudioModuleStart)() = nullptr;
  int32_t (*AudioModuleShutdown)() = nullptr;
  int32_t (*AudioModulePlayVoice)(uint16_t*, int32_t) = nullptr;
  int32_t (*AudioModuleRecordStart)(uint8_t) = nullptr;
  int32_t (*AudioModuleRegisterCallback)(deskline_capture_callback) = nullptr;
  int32_t (*AudioModuleGetInDevice)(char16_t***) = nullptr;
  int32_t (*AudioModuleGetOutDevice)(char16_t***) = nullptr;
  int32_t (*ToneModulePlayTone)(int32_t, int32_t, int32_t) = nullptr;
  int32_t (*ToneModulePlayDTMF)(uint32_t, uint8_t) = nullptr;
  // The number formatter, for contact-list numbers.
  int32_t (*set_module_variable)(ModuleVariables*, uint32_t) = nullptr;
  int32_t (*get_formatted_number)(const char16_t*, int32_t, char16_t**) = nullptr;
};

class HostLibrary {
 public:
  HostLibrary() = default;
  ~HostLibrary();  // Leaves the library loaded: it keeps process-lifetime objects.
  HostLibrary(const HostLibrary&) = delete;
  HostLibrary& operator=(const HostLibrary&) = delete;

  // Loads `path` and resolves every export. False with `error` naming the library's failure
  // or the first missing export; nothing stays loaded then. Call once.
  bool Load(const std::string& path, std::string* error);
  const HostExports& exports() const { return exports_; }

 private:
  void* library_ = nullptr;
  HostExports exports_;
};

// Call control, voice and sound through the loaded exports.
class LibraryActions final : public PhoneActions, public VoicePort, public SoundPort {
 public:
  explicit LibraryActions(const HostExports& exports) : exports_(exports) {}
  std::int32_t PutKey(std::uint32_t key) override { return exports_.put_key(key); }
  std::int32_t MakeCall(const std::string& number) override {
    return exports_.make_call(number.c_str());
  }
  std::int32_t SendError(std::uint32_t code) override { return exports_.send_error(code, 0, 0); }
  std::optional<std::string> FormatNumber(const std::string& number) override {
    return phone::FormatNumber(exports_.get_formatted_number, number);
  }
  std::uint32_t SendVoice(std::span<const std::int16_t> pcm) override;
  std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) override;
  std::int32_t PlayVoice(std::span<std::int16_t> pcm) override {
    return exports_.AudioModulePlayVoice(reinterpret_cast<uint16_t*>(pcm.data()),
                                         static_cast<std::int32_t>(pcm.size_bytes()));
  }
  std::int32_t PlayTone(std::int32_t tone, std::int32_t volume, std::int32_t melody) override {
    return exports_.ToneModulePlayTone(tone, volume, melody);
  }
  std::int32_t PlayKeyTone(std::uint32_t key) override { return exports_.ToneModulePlayDTMF(key, 0); }

 private:
  const HostExports& exports_;
};

}  // namespace deskline::phone
