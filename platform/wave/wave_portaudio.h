// Real sound devices through PortAudio.
#pragma once

#include <memory>

#include "platform/wave/wave_device.h"

namespace deskline::platform {

// A backend over PortAudio, initialised on first use. Never null: on a machine with no sound
// card it lists no device and every open gives kWaveBadDeviceId.
std::unique_ptr<WaveSystem> MakePortAudioWaveSystem();

// Where the sound libraries' own messages (ALSA, JACK) and the backend's failures go, as one
// line of text without a line end. `error` is false for chatter (what ALSA and JACK say while
// the devices are probed, JACK's information) and true for a real fault (a device that fails
// to open or stops, a message from the libraries while a stream runs). The platform cannot
// reach the tracer, so the layer that owns it sets this; null (the default) drops everything.
// The sink may be called from any thread, also PortAudio's, and must return quickly.
using WaveLogSink = void (*)(bool error, const char* text);
void SetWaveLogSink(WaveLogSink sink);

}  // namespace deskline::platform
