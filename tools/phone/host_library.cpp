#include "tools/phone/host_library.h"

#include <cstring>

#include "platform/host_process.h"

namespace deskline::phone {
namespace {

// Resolves `name` into `slot`; the object pointer from dlsym becomes the function's pointer.
template <typename Fn>
bool Resolve(void* library, const char* name, Fn* slot, std::string* missing) {
  void* symbol = platform::FindSymbol(library, name);
  if (symbol == nullptr) {
    if (missing->empty()) *missing = name;
    return false;
  }
  static_assert(sizeof(Fn) == sizeof(void*));
  std::memcpy(slot, &symbol, sizeof(symbol));
  return true;
}

}  // namespace

// The engine keeps objects for the life of the process (the tracer, the key tables, the number
// formatter); unloading it would strand them, so a loaded library stays until the process ends.
HostLibrary::~HostLibrary() = default;

bool HostLibrary::Load(const std::string& path, std::string* error) {
  void* library = platform::OpenLibrary(path, error);
  if (library == nullptr) {
    *error = "cannot load " + path + ": " + *error;
    return false;
  }
  HostExports e;
  std::string missing;
  bool ok = Resolve(library, "tracer_startup", &e.tracer_startup, &missing);
  ok &= Resolve(library, "tracer_set_filter", &e.tracer_set_filter, &missing);
  ok &= Resolve(library, "initialize", &e.initialize, &missing);
  ok &= Resolve(library, "uninitialize", &e.uninitialize, &missing);
  ok &= Resolve(library, "put_key", &e.put_key, &missing);
  ok &= Resolve(library, "make_call", &e.make_call, &missing);
  ok &= Resolve(library, "send_error", &e.send_error, &missing);
  ok &= Resolve(library, "send_voice", &e.send_voice, &missing);
  ok &= Resolve(library, "recv_voice", &e.recv_voice, &missing);
  ok &= Resolve(library, "AudioModuleStart", &e.AudioModuleStart, &missing);
  ok &= Resolve(library, "AudioModuleShutdown", &e.AudioModuleShutdown, &missing);
  ok &= Resolve(library, "AudioModulePlayVoice", &e.AudioModulePlayVoice, &missing);
  ok &= Resolve(library, "AudioModuleRecordStart", &e.AudioModuleRecordStart, &missing);
  ok &= Resolve(library, "AudioModuleRegisterCallback", &e.AudioModuleRegisterCallback, &missing);
  ok &= Resolve(library, "AudioModuleGetInDevice", &e.AudioModuleGetInDevice, &missing);
  ok &= Resolve(library, "AudioModuleGetOutDevice", &e.AudioModuleGetOutDevice, &missing);
  ok &= Resolve(library, "ToneModulePlayTone", &e.ToneModulePlayTone, &missing);
  ok &= Resolve(library, "ToneModulePlayDTMF", &e.ToneModulePlayDTMF, &missing);
  ok &= Resolve(library, "set_module_variable", &e.set_module_variable, &missing);
  ok &= Resolve(library, "get_formatted_number", &e.get_formatted_number, &missing);
  if (!ok) {
    platform::CloseLibrary(library);
    *error = path + " lacks the export " + missing;
    return false;
  }
  library_ = library;
  exports_ = e;
  return true;
}

std::uint32_t LibraryActions::SendVoice(std::span<const std::int16_t> pcm) {
  return static_cast<std::uint32_t>(exports_.send_voice(
      static_cast<std::uint32_t>(pcm.size_bytes()), reinterpret_cast<const uint16_t*>(pcm.data())));
}

std::uint32_t LibraryActions::ReceiveVoice(std::span<std::int16_t> pcm, std::uint32_t* status) {
  // recv_voice reads the length word but takes its room as eight frames; give it that much.
  if (pcm.size() < kFrameSamples * kMaxReceiveFrames) return 0;
  std::int32_t length = static_cast<std::int32_t>(pcm.size_bytes());
  return static_cast<std::uint32_t>(
      exports_.recv_voice(&length, reinterpret_cast<uint16_t*>(pcm.data()), status));
}

}  // namespace deskline::phone
