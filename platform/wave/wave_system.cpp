// The process's wave backend: chosen once by DESKLINE_AUDIO and kept for the process.
#include <cstdio>
#include <memory>

#include "platform/fs.h"
#include "platform/text.h"
#include "platform/wave/wave_portaudio.h"
#include "platform/wave/wave_virtual.h"

namespace deskline::platform {
namespace {

bool VirtualChosen() {
  static const bool chosen = GetEnvironment("DESKLINE_AUDIO").value_or("") == "virtual";
  return chosen;
}

// Made at the first call, configured from the environment; problems go to standard error,
// since a host that sets these variables wants to hear about a mistake in them.
VirtualWaveSystem& TheVirtualSystem() {
  static VirtualWaveSystem* const system = [] {
    auto* made = new VirtualWaveSystem(RealClock());
    const VirtualWaveSettings settings = ParseVirtualWaveSettings(
        [](const char* name) { return GetEnvironment(name); });
    for (const auto& problem : settings.problems) {
      std::fprintf(stderr, "deskline: %s (ignored)\n", problem.c_str());
    }
    std::string problem;
    if (!ApplyVirtualWaveSettings(settings, *made, &problem)) {
      std::fprintf(stderr, "deskline: %s\n", problem.c_str());
    }
    return made;
  }();
  return *system;
}

}  // namespace

std::u16string WaveDeviceName(std::u16string name) {
  return CutUtf16(std::move(name), kMaxWaveDeviceName);
}

// Neither backend is ever destroyed: streams and engine threads may still use them while the
// process exits, and their memory goes with the process.
WaveSystem& DefaultWaveSystem() {
  if (VirtualChosen()) return TheVirtualSystem();
  static WaveSystem* const portaudio = MakePortAudioWaveSystem().release();
  return *portaudio;
}

VirtualWaveSystem* DefaultVirtualWaveSystem() {
  return VirtualChosen() ? &TheVirtualSystem() : nullptr;
}

}  // namespace deskline::platform
