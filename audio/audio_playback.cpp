// File and tone playback: one WAV in one buffer on an output of its own, repeated by a thread
// that sleeps until the done message marks the sound finished.
#include <cstring>
#include <new>

#include "audio/audio.h"
#include "audio/built_in_sounds.h"
#include "platform/wave/wav_file.h"
#include "support/settings_store.h"
#include "platform/text.h"
#include "support/tracer.h"

namespace deskline {

using platform::kWaveInvalidHandle;
using platform::kWaveNoDriver;
using platform::kWaveOk;
using platform::ThreadId;

namespace {

constexpr std::chrono::milliseconds kRepeatIdleWait{1000};

bool DeviceGone(int result) { return result == kWaveInvalidHandle || result == kWaveNoDriver; }

}  // namespace

int CAudio::PlayFile(const char16_t* path, std::int32_t loop_count) {
  return StartPlayback(file, path, loop_count);
}

int CAudio::PlayTone(const char16_t* path, std::int32_t loop_count) {
  return StartPlayback(tone, path, loop_count);
}

// Device openings and joins run under `lock`, and closing the input waits for the thread that
// runs the capture callback: from inside it, only PlayVoice and the getters are allowed.
bool CAudio::RefusedInCallback(const char* operation) {
  if (!InCaptureCallback()) return false;
  DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] %s refused inside the capture callback", operation);
  return true;
}

int CAudio::StopPlayFile() {
  if (RefusedInCallback("StopPlayFile")) return 0;
  std::lock_guard guard(lock);
  StopPlayback(file);
  return 0;
}

int CAudio::StopPlayTone() {
  if (RefusedInCallback("StopPlayTone")) return 0;
  std::lock_guard guard(lock);
  StopPlayback(tone);
  return 0;
}

int CAudio::GetEngineStatus() const { return engine_busy.load() ? 0 : 1; }

void CAudio::ClearEngineStatus() {
  std::lock_guard guard(status_lock);
  if (file.finished.load() && tone.finished.load() && starting == 0) engine_busy.store(false);
}

int CAudio::StartPlayback(PlayPath& p, const char16_t* wide_path, std::int32_t loop_count) {
  if (wide_path == nullptr || RefusedInCallback(p.is_tone ? "PlayTone" : "PlayFile")) return 1;
  const std::size_t units = U16Length(wide_path, kMaxPathUnits + 1);
  if (units > kMaxPathUnits) {
    DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] Play failed - path longer than %d characters",
             static_cast<int>(kMaxPathUnits));
    return 1;
  }
  if (units == 0) return 1;
  const std::u16string wanted(wide_path, units);

  // A device that vanishes at the write is reopened and the sound started once more.
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::unique_lock guard(lock);
    StopPlayback(p);
    {
      std::lock_guard status(status_lock);
      engine_busy.store(true);
      ++starting;
    }
    bool retry = false;
    int result = 1;
    try {
      result = StartLocked(p, wanted, loop_count, &retry);
    } catch (const std::bad_alloc&) {
      p.name.clear();
      p.finished.store(true);
      result = 1;
    }
    {
      std::lock_guard status(status_lock);
      --starting;
    }
    // A start that failed leaves nothing sounding: the status does not stay busy for it.
    ClearEngineStatus();
    if (!retry) return result;
  }
  return 1;
}

int CAudio::StartLocked(PlayPath& p, const std::u16string& wanted, std::int32_t loop_count,
                        bool* retry) {
  bool reload = p.name.empty() || p.name != wanted;
  if (reload) p.name = wanted;
  const Volume& volume = PathVolume(p);
  const int level = volume.level.load();
  if (level != p.played_level) {
    p.played_level = level;
    reload = true;
  }

  if (reload) {
    if (!ReadWav(p)) {
      std::vector<std::uint8_t>().swap(p.pristine);
      std::vector<std::uint8_t>().swap(p.samples);
      p.name.clear();
      return 1;
    }
    ReleasePlayHeader(p);
    ClosePlay(p);
    if (OpenPlayDevice(p) != 0) {
      p.name.clear();
      DL_TRACE(TRACE_CRITICAL, "[AUDIO :: CRITICAL ERROR] Device Open Fail - play_file_open_device");
      return 1;
    }
  } else {
    if (p.pristine.empty()) {
      p.name.clear();
      return 1;
    }
    p.samples = p.pristine;  // same size: no allocation
  }

  p.device_opened = true;
  ApplyGain(reinterpret_cast<std::int16_t*>(p.samples.data()),
            static_cast<std::int32_t>(p.samples.size()), level, volume.slope.load());
  if (!p.stream || p.header.data == nullptr || p.samples.empty() ||
      p.buffer.size() < p.samples.size()) {
    p.name.clear();
    return 1;
  }

  std::memcpy(p.header.data, p.samples.data(), p.samples.size());
  p.header.buffer_length = static_cast<std::uint32_t>(p.samples.size());
  // Stored before the write, so that an early done message sees this start's values.
  p.loop_count.store(loop_count);
  p.finished.store(false);
  p.lent.store(true);
  const int result = p.stream->Write(&p.header);
  if (result != kWaveOk) {
    p.lent.store(false);
    p.loop_count.store(0);
    p.finished.store(true);
    if (!DeviceGone(result)) return 1;
    p.device_id.store(platform::kWaveMapper);
    ReleasePlayHeader(p);
    ClosePlay(p);
    if (OpenPlayDevice(p) != 0) {
      p.name.clear();
      DL_TRACE(TRACE_CRITICAL,
               "[AUDIO :: CRITICAL ERROR] No Device Available in system - play_file_open_device");
      return 1;
    }
    *retry = true;
    return 1;
  }

  if (loop_count != 0) {
    auto thread = std::make_unique<platform::Thread>();
    const ThreadId id = thread->Create(p.is_tone ? "audio-tone" : "audio-file",
                                       [this, &p](ThreadId self) { RepeatThread(p, self); });
    if (id == 0) {
      DL_TRACE(TRACE_WARNING, "[AUDIO :: Warning] Startup error - Play File thread creation fail");
    } else {
      p.repeat_id.store(id);
      thread->Resume();
      p.repeat = std::move(thread);
    }
  }
  return 0;
}

// Under `lock`. The repeat thread is joined here, unless it is the caller: then it is kept
// aside and joined by the next stop from another thread, or by Shutdown.
void CAudio::StopPlayback(PlayPath& p) {
  ClearEngineStatus();
  p.loop_count.store(0);
  p.repeat_id.store(0);
  p.wake.Set();
  if (p.repeat) {
    if (p.repeat->id() == platform::CurrentThreadId()) {
      p.retired.push_back(std::move(p.repeat));
    } else {
      p.repeat->Join();
    }
    p.repeat.reset();
  }
  JoinRetired(p);
  // The reset hands the header back with the done message, which marks the path finished.
  if (p.stream) {
    p.stream->Reset();
    WaitPlayReturned(p);
  }
}

void CAudio::WaitPlayReturned(PlayPath& p) {
  const std::int64_t deadline = clock_.SteadyMs() + kRepeatIdleWait.count();
  for (;;) {
    p.returned.Reset();
    if (!p.lent.load()) return;
    const std::int64_t now = clock_.SteadyMs();
    if (now >= deadline) return;
    clock_.WaitFor(p.returned, std::chrono::milliseconds(deadline - now));
  }
}

void CAudio::JoinRetired(PlayPath& p) {
  const ThreadId self = platform::CurrentThreadId();
  for (auto it = p.retired.begin(); it != p.retired.end();) {
    if ((*it)->id() == self) {
      ++it;
      continue;
    }
    (*it)->Join();
    it = p.retired.erase(it);
  }
}

void CAudio::RepeatThread(PlayPath& p, ThreadId self) {
  for (;;) {
    if (p.repeat_id.load() != self || !running.load()) {
      DL_TRACE(TRACE_STATUS, "[AUDIO :: Thread] Thread terminated - Recording");
      return;
    }
    p.wake.Reset();
    if (!p.finished.load()) {
      if (p.repeat_id.load() == self && !p.finished.load()) clock_.WaitFor(p.wake, kRepeatIdleWait);
      continue;
    }
    p.finished.store(false);
    p.lent.store(true);
    const int result = p.stream ? p.stream->Write(&p.header) : kWaveInvalidHandle;
    if (result == kWaveOk) continue;
    p.lent.store(false);
    if (!DeviceGone(result)) {
      // The device refuses the buffer: the sound ends here.
      p.repeat_id.store(0);
      p.finished.store(true);
      ClearEngineStatus();
      continue;
    }
    if (!LockUnlessRetired(p.repeat_id, self)) continue;
    if (p.repeat_id.load() != self) {
      lock.unlock();
      continue;
    }
    p.device_id.store(platform::kWaveMapper);
    ReleasePlayHeader(p);
    ClosePlay(p);
    if (OpenPlayDevice(p) != 0) {
      p.repeat_id.store(0);
      DL_TRACE(TRACE_CRITICAL,
               "[AUDIO :: CRITICAL ERROR] No Device Available in system - play_file_open_device");
      p.name.clear();
      p.finished.store(true);
      lock.unlock();
      ClearEngineStatus();
      continue;
    }
    // Start afresh on the new device; the new start retires this thread. The lock stays
    // held, so that no stop can join this thread while it waits for the lock.
    const std::u16string name = p.name;
    const std::int32_t loops = p.loop_count.load();
    if (!name.empty()) StartPlayback(p, name.c_str(), loops);
    lock.unlock();
    return;
  }
}

// ---- The path's device -----------------------------------------------------------------------

int CAudio::OpenPlayDevice(PlayPath& p) {
  std::lock_guard guard(lock);
  try {
    out_names = WithDefault(waves_.OutputDevices());
    ResolveBeforeOpen(p.device_id, p.is_tone ? kOutputDeviceValue : kPlayFileDeviceValue,
                      out_names);
    open_event.Reset();
    if (waves_.OpenOut(p.device_id.load(), p.format, &p.listener, &p.stream) != kWaveOk) return 1;
    if (!WaitOpened(p.open)) {
      ClosePlay(p);
      return 1;
    }
    p.buffer.assign(p.samples.size(), 0);
    p.header.data = p.buffer.data();
    p.header.buffer_length = static_cast<std::uint32_t>(p.buffer.size());
    p.header.bytes_recorded = 0;
    p.header.flags.store(0);
    p.lent.store(false);
    return p.stream->Prepare(&p.header) == kWaveOk ? 0 : 1;
  } catch (...) {
    return 1;
  }
}

void CAudio::ReleasePlayHeader(PlayPath& p) {
  if (!p.open.load() || !p.stream) return;
  p.stream->Reset();
  if (p.header.data == nullptr) return;
  if (p.stream->Unprepare(&p.header) != kWaveOk) {
    DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] Shutdown failed - waveOutUnPrepareHeader");
    return;
  }
  std::vector<char>().swap(p.buffer);
  p.header.data = nullptr;
  p.header.buffer_length = 0;
  p.header.flags.store(0);
}

int CAudio::ClosePlay(PlayPath& p) {
  if (!p.stream) return 0;
  p.stream->Reset();
  const int result = p.stream->Close();
  p.stream.reset();
  return result == kWaveOk ? 0 : 1;
}

// The file first; when it does not read, the sound of that name in the set compiled in.
bool CAudio::ReadWav(PlayPath& p) {
  platform::WavSound sound;
  if (!platform::ReadWavFile(Utf16ToUtf8(p.name), &sound)) {
    const std::span<const std::uint8_t> bytes = audio::FindBuiltInSound(p.name);
    if (bytes.empty() || !platform::ReadWavMemory(bytes, &sound)) return false;
  }
  if (sound.data.empty()) return false;
  p.format = sound.format;
  p.samples = std::move(sound.data);
  p.pristine = p.samples;
  return true;
}

}  // namespace deskline
