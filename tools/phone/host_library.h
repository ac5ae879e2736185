// libdeskline.so as the phone uses it: loaded with dlopen, each export looked up by name, as a
// telephone GUI would. No link against the library.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "deskline/deskline.h"
#include "tools/phone/script_runner.h"
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

// Call control and voice through the loaded exports.
class LibraryActions final : public PhoneActions, public VoicePort {
 public:
  explicit LibraryActions(const HostExports& exports) : exports_(exports) {}
  std::int32_t PutKey(std::uint32_t key) override { return exports_.put_key(key); }
  std::int32_t MakeCall(const std::string& number) override {
    return exports_.make_call(number.c_str());
  }
  std::int32_t SendError(std::uint32_t code) override { return exports_.send_error(code, 0, 0); }
  std::uint32_t SendVoice(std::span<const std::int16_t> pcm) override;
  std::uint32_t ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) override;

 private:
  const HostExports& exports_;
};

}  // namespace deskline::phone
