// The Audio module's life, its device openings, and the two voice paths: the recording thread
// with the capture callback, and PlayVoice paced by the device.
#include "audio/audio.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <thread>

#include "support/settings_store.h"
#include "support/tracer.h"

namespace deskline {

using platform::kWaveHeaderDone;
using platform::kWaveInvalidHandle;
using platform::kWaveNoDriver;
using platform::kWaveOk;
using platform::ThreadId;
using platform::WaveHeader;
using platform::WaveMessage;

namespace {

// A device that waits longer than this to hand a buffer back is taken as stalled: the caller
// goes on rather than hanging with it.
constexpr std::chrono::milliseconds kBufferWait{1000};
// The open message comes within Open on both backends; this bounds a driver that is slow.
constexpr std::chrono::milliseconds kOpenWait{1000};

thread_local bool t_in_capture_callback = false;

std::int32_t SilentCallback(std::uint16_t*, std::uint32_t) { return 0; }

bool DeviceGone(int result) { return result == kWaveInvalidHandle || result == kWaveNoDriver; }

void ClearHeader(WaveHeader& header) {
  header.data = nullptr;
  header.buffer_length = 0;
  header.bytes_recorded = 0;
  header.flags.store(0);
}

}  // namespace

CAudio::CAudio(platform::WaveSystem& waves, platform::Clock& clock)
    : waves_(waves), clock_(clock) {
  DL_TRACE(TRACE_STATUS, "[AUDIO] Module created");
  running.store(true);
  callback.store(&SilentCallback);
  speaker.slope.store(kSpeakerSlope);
  ring.slope.store(kRingSlope);
  mic.slope.store(kMicSlope);
}

CAudio::~CAudio() {
  // Nothing may outlive the object: a module deleted without Shutdown still joins and closes.
  Shutdown();
  running.store(false);
  DL_TRACE(TRACE_STATUS, "[AUDIO] Module destroyed");
}

int CAudio::Start() {
  stop_recording.store(false);
  capture_enabled.store(true);
  record_index = 0;
  play_index = 0;
  play_count = 0;
  input_id.store(platform::kWaveMapper);
  output_id.store(platform::kWaveMapper);
  file.device_id.store(platform::kWaveMapper);
  tone.device_id.store(platform::kWaveMapper);
  record_enabled.store(false);
  for (Volume* volume : {&speaker, &ring, &mic}) volume->level.store(0);
  speaker.slope.store(kSpeakerSlope);
  ring.slope.store(kRingSlope);
  mic.slope.store(kMicSlope);
  engine_busy.store(false);
  file.finished.store(true);
  tone.finished.store(true);
  window_handle.store(0);  // no foreground window on this platform

  ReadDeviceNames();
  if (OpenWaveOut(16, 8000, 1, kFrameMs) != 0) {
    DL_TRACE(TRACE_CRITICAL, "[AUDIO :: CRITICAL ERROR] Startup failed - Wave_out_open_device");
  }
  if (OpenWaveIn(16, 8000, 1, kFrameMs) != 0) {
    DL_TRACE(TRACE_CRITICAL, "[AUDIO :: CRITICAL ERROR] Startup failed - Wave_in_open_device");
    return 1;
  }
  return StartRecordingThread();
}

int CAudio::Shutdown() {
  if (RefusedInCallback("Shutdown")) return 0;
  StopCapture();
  // The handshake with the recording thread: it sees its id gone and ends; we join it. A
  // PlayVoice waiting for a buffer sees stop_recording and returns.
  record_thread_id.store(0);
  stop_recording.store(true);
  record_wake.Set();
  voice_free.Set();
  record_thread.Join();
  // The thread cleared it on its way out: PlayVoice stays refused, and one that began its wait
  // meanwhile is woken again.
  stop_recording.store(true);
  voice_free.Set();

  std::lock_guard voice_guard(voice_lock);
  std::lock_guard guard(lock);
  StopPlayback(file);
  ReleasePlayHeader(file);
  ReleaseVoiceHeaders();
  ReleaseInHeaders();
  ClosePlay(file);
  CloseVoice();
  CloseIn();

  StopPlayback(tone);
  ReleasePlayHeader(tone);
  ClosePlay(tone);

  for (PlayPath* path : {&file, &tone}) {
    JoinRetired(*path);
    path->name.clear();
    std::vector<std::uint8_t>().swap(path->samples);
    std::vector<std::uint8_t>().swap(path->pristine);
    path->device_opened = false;
  }
  return 0;
}

void CAudio::StopCapture() {
  if (InCaptureCallback()) return;
  std::lock_guard guard(capture_lock);
  capture_enabled.store(false);
}

bool CAudio::InCaptureCallback() { return t_in_capture_callback; }

// ---- Opening and closing ---------------------------------------------------------------------

bool CAudio::WaitOpened(const std::atomic<bool>& flag) {
  const std::int64_t deadline = clock_.SteadyMs() + kOpenWait.count();
  while (!flag.load()) {
    const std::int64_t now = clock_.SteadyMs();
    if (now >= deadline) return false;
    clock_.WaitFor(open_event, std::chrono::milliseconds(deadline - now));
    open_event.Reset();
  }
  return true;
}

int CAudio::OpenWaveOut(int bits, int rate, int channels, int /*milliseconds*/) {
  std::lock_guard guard(lock);
  try {
    out_format.format_tag = 1;
    out_format.channels = static_cast<std::uint16_t>(channels);
    out_format.samples_per_sec = static_cast<std::uint32_t>(rate);
    out_format.bits_per_sample = static_cast<std::uint16_t>(bits);
    out_format.block_align = static_cast<std::uint16_t>(channels * bits / 8);
    out_format.avg_bytes_per_sec = out_format.samples_per_sec * out_format.block_align;
    out_format.cb_size = 0;
    play_count = 0;
    play_index = 0;

    out_names = WithDefault(waves_.OutputDevices());
    ResolveBeforeOpen(output_id, kOutputDeviceValue, out_names);
    open_event.Reset();
    if (waves_.OpenOut(output_id.load(), out_format, &voice_listener, &voice_stream) != kWaveOk) {
      return 1;
    }
    if (!WaitOpened(voice_open)) {
      DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] WaveOut open timeout");
      CloseVoice();
      return 1;
    }
    for (int i = 0; i < kRingSize; ++i) {
      voice_buffers[i].assign(kVoiceBufferSize, 0);
      WaveHeader& header = voice_headers[i];
      ClearHeader(header);
      header.data = voice_buffers[i].data();
      header.buffer_length = kVoiceBufferSize;
      if (voice_stream->Prepare(&header) != kWaveOk) return 1;
    }
    return 0;
  } catch (...) {
    return 1;
  }
}

int CAudio::OpenWaveIn(int bits, int rate, int channels, int milliseconds) {
  std::lock_guard guard(lock);
  try {
    in_format.format_tag = 1;
    in_format.channels = static_cast<std::uint16_t>(channels);
    in_format.samples_per_sec = static_cast<std::uint32_t>(rate);
    in_format.bits_per_sample = static_cast<std::uint16_t>(bits);
    in_format.block_align = static_cast<std::uint16_t>(channels * bits / 8);
    in_format.avg_bytes_per_sec = in_format.samples_per_sec * in_format.block_align;
    in_format.cb_size = 0;
    in_buffer_size = static_cast<std::uint32_t>(milliseconds) * in_format.avg_bytes_per_sec / 1000;

    in_names = WithDefault(waves_.InputDevices());
    ResolveBeforeOpen(input_id, kInputDeviceValue, in_names);
    open_event.Reset();
    if (waves_.OpenIn(input_id.load(), in_format, &in_listener, &in_stream) != kWaveOk) return 1;
    if (!WaitOpened(in_open)) {
      DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] WaveIn open timeout");
      CloseIn();
      return 1;
    }
    for (int i = 0; i < kRingSize; ++i) {
      in_lent[i].store(false);
      in_buffers[i].assign(in_buffer_size, 0);
      WaveHeader& header = in_headers[i];
      ClearHeader(header);
      header.data = in_buffers[i].data();
      header.buffer_length = in_buffer_size;
      if (in_stream->Prepare(&header) != kWaveOk) return 1;
    }
    return 0;
  } catch (...) {
    return 1;
  }
}

// The reset hands every lent buffer back, but the data messages come on the backend's
// thread: a buffer is freed only once its message has been through.
void CAudio::WaitInputReturned() {
  const std::int64_t deadline = clock_.SteadyMs() + kBufferWait.count();
  for (;;) {
    in_returned.Reset();
    bool lent = false;
    for (const auto& flag : in_lent) lent = lent || flag.load();
    if (!lent) return;
    const std::int64_t now = clock_.SteadyMs();
    if (now >= deadline) return;
    clock_.WaitFor(in_returned, std::chrono::milliseconds(deadline - now));
  }
}

// Releasing resets the device first, so that no header is still lent to it when its buffer
// is freed (an unprepare of a queued header would fail and leave it behind).
void CAudio::ReleaseInHeaders() {
  if (!in_open.load() || !in_stream) return;
  in_stream->Stop();
  in_stream->Reset();
  WaitInputReturned();
  for (int i = 0; i < kRingSize; ++i) {
    if (in_headers[i].data == nullptr) continue;
    if (in_stream->Unprepare(&in_headers[i]) != kWaveOk) {
      DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] Shutdown failed - waveInUnPrepareHeader");
      continue;
    }
    std::vector<char>().swap(in_buffers[i]);
    ClearHeader(in_headers[i]);
  }
}

void CAudio::ReleaseVoiceHeaders() {
  if (!voice_open.load() || !voice_stream) return;
  voice_stream->Reset();
  for (int i = 0; i < kRingSize; ++i) {
    if (voice_headers[i].data == nullptr) continue;
    if (voice_stream->Unprepare(&voice_headers[i]) != kWaveOk) {
      DL_TRACE(TRACE_ERROR, "[AUDIO :: ERROR] Shutdown failed - waveOutUnPrepareHeader");
      continue;
    }
    std::vector<char>().swap(voice_buffers[i]);
    ClearHeader(voice_headers[i]);
  }
}

int CAudio::CloseIn() {
  if (!in_stream) return 0;
  in_stream->Reset();
  const int result = in_stream->Close();
  in_stream.reset();
  return result == kWaveOk ? 0 : 1;
}

int CAudio::CloseVoice() {
  if (!voice_stream) return 0;
  voice_stream->Reset();
  const int result = voice_stream->Close();
  voice_stream.reset();
  return result == kWaveOk ? 0 : 1;
}

// ---- Wave messages ---------------------------------------------------------------------------

void CAudio::Listener::OnWaveMessage(WaveMessage message, WaveHeader* header) {
  audio_->OnMessage(path_, message, header);
}

void CAudio::OnMessage(int path, WaveMessage message, WaveHeader* header) {
  std::atomic<bool>* open_flag = nullptr;
  PlayPath* play = nullptr;
  switch (path) {
    case kInputPath: open_flag = &in_open; break;
    case kVoicePath: open_flag = &voice_open; break;
    case kFilePath: play = &file; open_flag = &file.open; break;
    default: play = &tone; open_flag = &tone.open; break;
  }
  switch (message) {
    case WaveMessage::kOpen:
      open_flag->store(true);
      open_event.Set();
      return;
    case WaveMessage::kClose:
      open_flag->store(false);
      return;
    case WaveMessage::kData: {
      if (path != kInputPath || header == nullptr) return;
      const std::uint32_t bytes = std::min(header->bytes_recorded, header->buffer_length);
      ApplyGain(reinterpret_cast<std::int16_t*>(header->data), static_cast<std::int32_t>(bytes),
                mic.level.load(std::memory_order_relaxed),
                mic.slope.load(std::memory_order_relaxed));
      {
        std::lock_guard guard(capture_lock);
        if (capture_enabled.load(std::memory_order_relaxed)) {
          t_in_capture_callback = true;
          callback.load()(reinterpret_cast<std::uint16_t*>(header->data), bytes);
          t_in_capture_callback = false;
        }
      }
      const std::ptrdiff_t index = header - in_headers.data();
      if (index >= 0 && index < kRingSize) in_lent[static_cast<std::size_t>(index)].store(false);
      in_returned.Set();
      record_wake.Set();
      return;
    }
    case WaveMessage::kDone:
      if (path == kVoicePath) {
        voice_free.Set();
      } else if (play != nullptr) {
        PlayPath& p = *play;
        int loops = p.loop_count.load();
        // The repeat thread looks at its id before `finished`: released first, it cannot
        // sound the buffer once more.
        if (loops == 0) {
          p.repeat_id.store(0);
        } else if (loops > 0) {
          p.loop_count.compare_exchange_strong(loops, loops - 1);  // a stop may have won
        }
        {
          std::lock_guard guard(status_lock);
          p.finished.store(true);
          if (loops == 0) {
            if (file.finished.load() && tone.finished.load() && starting == 0) {
              engine_busy.store(false);
            }
          } else {
            engine_busy.store(true);
          }
        }
        p.lent.store(false);
        p.returned.Set();
        p.wake.Set();
      }
      return;
  }
}

// ---- Recording -------------------------------------------------------------------------------

int CAudio::RegisterCallback(AudioCaptureCallback function) {
  if (function == nullptr) {
    callback.store(&SilentCallback);
    return 1;
  }
  callback.store(function);
  return 0;
}

int CAudio::RecordStart(bool flag) {
  record_enabled.store(flag);
  record_wake.Set();
  return 0;
}

int CAudio::StartRecordingThread() {
  record_thread.Join();
  const ThreadId id =
      record_thread.Create("audio-record", [this](ThreadId self) { RecordingThread(self); });
  if (id == 0) return 1;
  record_thread_id.store(id);
  if (!record_thread.SetTimeCritical()) {
    DL_TRACE(TRACE_WARNING, "[AUDIO :: Warning] Startup error - Thread priority change failed");
  }
  record_thread.Resume();
  return 0;
}

void CAudio::StopRecordingThread() {
  record_thread_id.store(0);
  record_wake.Set();
  record_thread.Join();
}

// Only on the reopening of a vanished device, so a short sleep between tries costs nothing in
// the steady state.
bool CAudio::LockUnlessRetired(const std::atomic<ThreadId>& slot, ThreadId self) {
  while (!lock.try_lock()) {
    if (slot.load() != self) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void CAudio::RecordingThread(ThreadId self) {
  if (record_thread_id.load() == 0) {
    DL_TRACE(TRACE_STATUS, "[AUDIO :: Thread] Thread terminated - Recording");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[AUDIO :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  if (in_stream) in_stream->Start();
  int queued = 0;     // buffers lent since the last opening, up to the ring's size
  bool ready = true;  // the header at record_index is ours to lend
  for (;;) {
    if (record_thread_id.load() != self || !running.load()) {
      DL_TRACE(TRACE_STATUS, "[AUDIO :: Thread] Thread terminated - Recording");
      if (in_stream) in_stream->Stop();
      stop_recording.store(false);
      return;
    }
    if (!record_enabled.load()) {
      // Idle until the host enables recording or Shutdown asks us to go.
      record_wake.Reset();
      if (!record_enabled.load() && !stop_recording.load() && record_thread_id.load() == self) {
        clock_.WaitFor(record_wake, kBufferWait);
      }
      if (stop_recording.load()) {
        DL_TRACE(TRACE_STATUS, "[AUDIO :: Thread] Thread terminated - Recording ID %d",
                 static_cast<int>(self));
        stop_recording.store(false);
        return;
      }
      continue;
    }
    if (!ready) {
      // Sleep until a buffer comes back through its data message, which wakes us. The device
      // hands them back in order, so it is the one at record_index, but any will do.
      record_wake.Reset();
      for (int i = 0; i < kRingSize && !ready; ++i) {
        const int index = (record_index + i) % kRingSize;
        if (!in_lent[index].load()) {
          record_index = index;
          ready = true;
        }
      }
      if (!ready) {
        if (record_thread_id.load() == self && running.load() && record_enabled.load() &&
            !stop_recording.load()) {
          clock_.WaitFor(record_wake, kBufferWait);
        }
        continue;
      }
    }

    in_lent[record_index].store(true);
    const int result =
        in_stream ? in_stream->AddBuffer(&in_headers[record_index]) : kWaveInvalidHandle;
    if (result != kWaveOk) in_lent[record_index].store(false);
    if (DeviceGone(result)) {
      if (!LockUnlessRetired(record_thread_id, self)) continue;
      input_id.store(platform::kWaveMapper);
      ReleaseInHeaders();  // stops and resets the input first
      CloseIn();
      const bool reopened = OpenWaveIn(16, 8000, 1, kFrameMs) == 0;
      lock.unlock();
      if (!reopened) {
        record_thread_id.store(0);
        DL_TRACE(TRACE_CRITICAL,
                 "[AUDIO :: CRITICAL ERROR] No Device Available in system - Wave_in_open_device");
        continue;
      }
      in_stream->Start();
      record_index = 0;
      queued = 0;  // the new ring is empty: fill it again
      ready = true;
      continue;
    }
    record_index = (record_index + 1) % kRingSize;
    if (queued < kRingSize) ++queued;
    // While the ring fills, the next header has never been lent.
    ready = queued < kRingSize;
  }
}

// ---- Playing voice ---------------------------------------------------------------------------

int CAudio::PlayVoice(std::uint16_t* pcm, std::int32_t length) {
  if (stop_recording.load()) return 1;
  if (pcm == nullptr || length <= 0) return 1;
  if (length > static_cast<std::int32_t>(kVoiceBufferSize)) {
    DL_TRACE(TRACE_WARNING,
             "[AUDIO :: Warning] Data length exceeded buffer limits - Expected [%d], Requested [%d]",
             static_cast<int>(kVoiceBufferSize), static_cast<int>(length));
    length = kVoiceBufferSize;
  }
  ApplyGain(reinterpret_cast<std::int16_t*>(pcm), length,
            speaker.level.load(std::memory_order_relaxed),
            speaker.slope.load(std::memory_order_relaxed));

  std::lock_guard guard(voice_lock);
  if (stop_recording.load()) return 1;
  WaveHeader& header = voice_headers[play_index];
  if (play_count >= kRingSize) {
    // The ring is full: the device paces the caller. Wait for this header, the oldest, to
    // come back (the done message wakes us).
    const std::int64_t deadline = clock_.SteadyMs() + kBufferWait.count();
    for (;;) {
      voice_free.Reset();
      if ((header.flags.load() & kWaveHeaderDone) != 0 || stop_recording.load()) break;
      const std::int64_t now = clock_.SteadyMs();
      if (now >= deadline) break;
      clock_.WaitFor(voice_free, std::chrono::milliseconds(deadline - now));
    }
    if (stop_recording.load()) return 1;
  }
  int result = kWaveInvalidHandle;
  if (voice_stream && header.data != nullptr &&
      voice_buffers[play_index].size() >= static_cast<std::size_t>(length)) {
    std::memcpy(header.data, pcm, static_cast<std::size_t>(length));
    header.buffer_length = static_cast<std::uint32_t>(length);
    result = voice_stream->Write(&header);
  }
  if (DeviceGone(result)) {
    // Inside the capture callback the reopening is left to the next frame of the host's own
    // playback thread (see RefusedInCallback).
    if (InCaptureCallback()) return 1;
    output_id.store(platform::kWaveMapper);
    ReleaseVoiceHeaders();
    CloseVoice();
    if (OpenWaveOut(16, 8000, 1, kFrameMs) != 0) {
      DL_TRACE(TRACE_CRITICAL,
               "[AUDIO :: CRITICAL ERROR] No Device Available in system - Wave_out_open_device");
    }
    return 1;
  }
  if (result != kWaveOk) return 1;  // the header is still held by a stalled device
  play_index = (play_index + 1) % kRingSize;
  if (play_count < kRingSize) ++play_count;
  return 0;
}

// ---- Gain ------------------------------------------------------------------------------------

float CAudio::GainFactor(int level, float slope) {
  if (level < -1 || level > 12) return 1.25f;
  if (level == 0) return 1.0f;
  return static_cast<float>(level + 1) * slope + 1.0f;
}

int CAudio::ApplyGain(std::int16_t* samples, std::int32_t bytes, int level, float slope) {
  if (samples == nullptr || bytes <= 0) return 1;
  float factor = GainFactor(level, slope);
  if (factor == 1.0f) return 0;
  if (!std::isfinite(factor)) factor = 65536.0f;  // a huge slope saturates; no NaN from 0 * inf
  const std::int32_t count = bytes / 2;
  for (std::int32_t i = 0; i < count; ++i) {
    float value = static_cast<float>(samples[i]) * factor;
    value = value > 0.0f ? std::min(value, 32767.0f) : std::max(value, -32768.0f);
    samples[i] = static_cast<std::int16_t>(value);
  }
  return 0;
}

}  // namespace deskline
