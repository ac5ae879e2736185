// Audio device exports: thin forwards to the one CAudio, with the results of the export table
// (the operations' own results stay inside the library where the table says 0).
//
// The object's life against the exports: every export enters a gate (a count of users) and
// leaves it on return; AudioModuleShutdown first stops the deliveries to the capture callback
// (a callback in flight may still call exports), then closes the gate, waits for the users to
// leave, and only then shuts the module down and deletes it. An export that finds the gate
// closed gives its result for a missing module. Start and Shutdown are serialised by their
// own lock and never run inside the gate.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>

#include "audio/audio.h"
#include "deskline/deskline.h"
#include "platform/clock.h"
#include "platform/wave/wave_device.h"
#include "platform/wave/wave_portaudio.h"
#include "support/tracer.h"

using deskline::CAudio;
using deskline::TRACE_CRITICAL;
using deskline::TRACE_DETAIL;
using deskline::TRACE_ERROR;

namespace {

std::mutex g_life;  // AudioModuleStart and AudioModuleShutdown, one at a time
std::atomic<CAudio*> g_audio{nullptr};
std::atomic<int> g_users{0};
std::atomic<bool> g_closing{false};
std::mutex g_drain_lock;
std::condition_variable g_drained;

// One export's use of the module: null when there is none or it is going.
class Use {
 public:
  Use() {
    g_users.fetch_add(1);
    if (!g_closing.load()) audio_ = g_audio.load();
  }
  ~Use() {
    if (g_users.fetch_sub(1) == 1 && g_closing.load()) {
      std::lock_guard guard(g_drain_lock);
      g_drained.notify_all();
    }
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  CAudio* operator->() const { return audio_; }
  explicit operator bool() const { return audio_ != nullptr; }

 private:
  CAudio* audio_ = nullptr;
};

// What the sound libraries say goes to the trace instead of the host's stderr: their probing
// chatter in detail, real faults as errors.
void TraceWaveMessage(bool error, const char* text) {
  if (error) {
    DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] %s", text);
  } else {
    DL_TRACE(TRACE_DETAIL, "[AUDIO :: Device] %s", text);
  }
}

void DestroyAudio() {
  std::lock_guard life(g_life);
  CAudio* audio = g_audio.load();
  if (audio == nullptr) return;
  audio->StopCapture();
  g_closing.store(true);
  {
    std::unique_lock guard(g_drain_lock);
    g_drained.wait(guard, [] { return g_users.load() == 0; });
  }
  g_audio.store(nullptr);
  g_closing.store(false);
  audio->Shutdown();
  delete audio;
}

}  // namespace

extern "C" {

int32_t AudioModuleStart(void) {
  std::lock_guard life(g_life);
  if (g_audio.load() != nullptr) return 0;
  deskline::platform::SetWaveLogSink(TraceWaveMessage);  // before the backend first probes
  CAudio* audio = nullptr;
  try {
    audio = new CAudio(deskline::platform::DefaultWaveSystem(), deskline::platform::RealClock());
  } catch (...) {
    audio = nullptr;
  }
  if (audio == nullptr) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: Audio");
    return -1;
  }
  if (audio->Start() != 0) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Startup failed: Audio");
    delete audio;  // joins and closes whatever the start left open
    return -1;
  }
  g_audio.store(audio);
  // Process exit: a host that forgot AudioModuleShutdown still gets its threads joined and its
  // devices closed. Made after the backend, this guard is destroyed before it.
  static const struct ExitGuard {
    ~ExitGuard() { DestroyAudio(); }
  } exit_guard;
  (void)exit_guard;
  return 0;
}

int32_t AudioModuleShutdown(void) {
  if (CAudio::InCaptureCallback()) {
    // The input's closing waits for this very thread.
    DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] Shutdown refused inside the capture callback");
    return 0;
  }
  DestroyAudio();
  return 0;
}

int32_t AudioModulePlayVoice(uint16_t* pcm, int32_t length) {
  if (Use audio; audio) audio->PlayVoice(pcm, length);
  return 0;
}

int32_t AudioModuleRecordStart(uint8_t flag) {
  if (Use audio; audio) audio->RecordStart(flag != 0);
  return 0;
}

int32_t AudioModuleRegisterCallback(deskline_capture_callback callback) {
  if (Use audio; audio) audio->RegisterCallback(callback);
  return 0;
}

int32_t AudioModuleGetInDevice(char16_t*** list_out) {
  Use audio;
  return audio ? audio->GetInDevice(list_out) : -1;
}

int32_t AudioModuleGetOutDevice(char16_t*** list_out) {
  Use audio;
  return audio ? audio->GetOutDevice(list_out) : -1;
}

int32_t AudioModuleSetDevice(int32_t output, int32_t file, uint32_t input) {
  // A negative index means "no change"; the input's comes as an unsigned number.
  if (Use audio; audio) audio->SetDevice(output, file, static_cast<int32_t>(input));
  return 0;
}

int32_t AudioModulePlayFile(const char16_t* path, int32_t loop_count) {
  if (Use audio; audio) audio->PlayFile(path, loop_count);
  return 0;
}

int32_t AudioModuleStopPlayFile(void) {
  if (Use audio; audio) audio->StopPlayFile();
  return 0;
}

void AudioModuleSetSpeakerVolume(int32_t level, float slope) {
  if (Use audio; audio) audio->SetSpeakerVolume(level, slope);
}

void AudioModuleSetRingVolume(int32_t level, float slope) {
  if (Use audio; audio) audio->SetRingVolume(level, slope);
}

void AudioModuleSetMicVolume(int32_t level, float slope) {
  if (Use audio; audio) audio->SetMicVolume(level, slope);
}

int32_t AudioModuleGetEngineStatus(void) {
  Use audio;
  return audio ? audio->GetEngineStatus() : -1;
}

void AudioModuleGetDeviceID(uint32_t* output, uint32_t* file, uint32_t* input) {
  if (Use audio; audio) audio->GetDeviceID(output, file, input);
}

void AudioModuleSetWindowHandle(uintptr_t handle) {
  if (Use audio; audio) audio->SetWindowHandle(handle);
}

int32_t AudioModulePlayTone(const char16_t* path, int32_t loop_count) {
  if (Use audio; audio) audio->PlayTone(path, loop_count);
  return 0;
}

int32_t AudioModuleStopPlayTone(void) {
  if (Use audio; audio) audio->StopPlayTone();
  return 0;
}

}  // extern "C"
