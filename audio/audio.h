// The Audio module: one wave input (the microphone) and three wave outputs kept apart (voice,
// played files, tones), over the wave-device interface, so that a test can put the virtual
// backend beneath it.
//
// Threads and who calls what:
// - The host's threads call every public operation (through the AudioModule exports).
//   PlayVoice runs on the host's playback thread and is paced by the device: the first five
//   frames after an opening return at once, each later one waits for the oldest buffer.
// - The recording thread keeps the five input buffers circulating. It sleeps until a buffer
//   comes back (the data message wakes it), never on a timer.
// - The backend's thread delivers done and data messages to the listeners. They touch only
//   atomics, the events they set, the status lock and, for input, the gain and the host's
//   capture callback, which runs there.
// - One repeat thread per playback path (file, tone) while a sound loops; it sleeps until the
//   done message marks the path finished.
// Every thread is joined by Shutdown (or by the stop that retires it) before its object goes.
//
// Locks, always taken in this order, none held while joining a thread that could want it:
//   device_lock (SetDevice, whole: it retires and makes the recording thread, so two device
//     changes at once would each join the other's thread; no thread it joins takes it)
//   -> voice_lock (PlayVoice against a reopening of the voice output)
//   -> lock (recursive; device openings and the start and stop of file and tone playback)
//   -> status_lock (leaf; engine_busy against the done messages)
// capture_lock is held while the host's capture callback runs, so that Shutdown can stop the
// deliveries and know that none is in flight; it comes before all the others (the callback
// may call PlayVoice). The recording and repeat threads take `lock` only on the rare reopening
// of a vanished device, by trying it until it is free or their thread has been retired, so a
// stop that holds `lock` while joining them cannot deadlock.
//
// A reset hands buffers back with messages that come later on the backend's thread: a stop
// or a release waits (on an event, bounded) for them, so that no late message reaches a buffer
// that has been freed or lent again.
//
// From inside the capture callback the host may call PlayVoice and the getters; Shutdown,
// SetDevice and the file and tone operations are refused there with a trace, because they
// take `lock` or close the input, whose closing waits for the thread running the callback.
//
// The object itself is guarded at the exports (api/exports_audio.cpp): each export enters a
// gate that Shutdown closes and drains before it deletes the module, and the exports refuse
// AudioModuleShutdown from inside the capture callback, which runs on the thread that Shutdown
// must wait for.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/module.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "platform/wave/wave_device.h"

namespace deskline {

// The host's capture callback: 16-bit samples and their length in bytes; the result is ignored.
using AudioCaptureCallback = std::int32_t (*)(std::uint16_t* samples, std::uint32_t bytes);

class CAudio final : public CModule {
 public:
  static constexpr int kRingSize = 5;               // headers each way for input and voice
  static constexpr std::uint32_t kVoiceBufferSize = 3200;  // bytes per voice output buffer
  static constexpr int kFrameMs = 20;               // the input buffer's length
  // A path of more units than this does not fit the 1040-byte name buffer with its terminator.
  static constexpr std::size_t kMaxPathUnits = 519;
  // Names handed to the host are 64-byte blocks: 31 units and a terminator.
  static constexpr std::size_t kDeviceNameBytes = 64;
  static constexpr float kSpeakerSlope = 0.6f;
  static constexpr float kRingSlope = 0.6f;
  static constexpr float kMicSlope = 0.25f;

  CAudio(platform::WaveSystem& waves, platform::Clock& clock);
  ~CAudio() override;

  // 0; 1 when the microphone cannot be opened (no recording thread then) or its thread
  // cannot be made. A voice output that does not open alone does not fail the start.
  int Start() override;
  // Joins every thread, releases and closes every device. Always 0.
  int Shutdown() override;

  // --- Voice (host threads; PlayVoice from one thread at a time)
  // 0, or 1 when the frame is lost (stopping, bad arguments, device gone).
  int PlayVoice(std::uint16_t* pcm, std::int32_t length);
  int RecordStart(bool flag);  // 0
  // 0; null installs the do-nothing callback and gives 1.
  int RegisterCallback(AudioCaptureCallback callback);

  // --- File and tone playback: 0, or 1 on failure.
  int PlayFile(const char16_t* path, std::int32_t loop_count);
  int StopPlayFile();  // 0
  int PlayTone(const char16_t* path, std::int32_t loop_count);
  int StopPlayTone();  // 0
  // 0 while a file or a tone sounds, 1 when both are idle.
  int GetEngineStatus() const;

  // --- Devices and volumes
  // A malloc'ed array of malloc'ed 64-byte names, "System Default" first; the count, or -1
  // (nothing allocated) for a null list_out or when memory runs out.
  int GetInDevice(char16_t*** list_out);
  int GetOutDevice(char16_t*** list_out);
  // Indexes as in the lists (0 the default); a negative one or the present one changes
  // nothing. 0, or 1 if a new recording thread cannot be made.
  int SetDevice(std::int32_t output, std::int32_t file_index, std::int32_t input);
  // The three indexes (id + 1); null pointers are skipped.
  void GetDeviceID(std::uint32_t* output, std::uint32_t* file_out, std::uint32_t* input) const;
  void SetSpeakerVolume(std::int32_t level, float slope);
  void SetRingVolume(std::int32_t level, float slope);
  void SetMicVolume(std::int32_t level, float slope);
  void SetWindowHandle(std::uintptr_t handle) { window_handle.store(handle); }
  std::uintptr_t GetWindowHandle() const { return window_handle.load(); }

  // Stops the deliveries to the host's capture callback and waits for one in flight. Called
  // first by Shutdown, and by the exports before they close their gate.
  void StopCapture();
  // True on a thread that is running the host's capture callback now.
  static bool InCaptureCallback();

  // Software gain in place on 16-bit samples. 1 (nothing done) without samples or with a
  // length that is not positive, else 0.
  static int ApplyGain(std::int16_t* samples, std::int32_t bytes, int level, float slope);
  static float GainFactor(int level, float slope);

 private:
  struct Volume {
    std::atomic<int> level{0};
    std::atomic<float> slope{0.0f};
  };
  class Listener final : public platform::WaveListener {
   public:
    Listener(CAudio* audio, int path) : audio_(audio), path_(path) {}
    void OnWaveMessage(platform::WaveMessage message, platform::WaveHeader* header) override;

   private:
    CAudio* audio_;
    int path_;
  };
  enum PathKind { kInputPath = 0, kVoicePath = 1, kFilePath = 2, kTonePath = 3 };

  // The file path and the tone path: one WAV in one buffer, with repetition.
  struct PlayPath {
    PlayPath(CAudio* audio, int kind) : listener(audio, kind), is_tone(kind == kTonePath) {}
    Listener listener;
    bool is_tone = false;
    std::u16string name;  // the path of the loaded WAV; empty when none is held
    std::vector<std::uint8_t> samples;
    std::vector<std::uint8_t> pristine;
    platform::WaveFormat format;
    int played_level = 0;
    std::atomic<int> loop_count{0};
    std::atomic<bool> finished{true};
    bool device_opened = false;
    std::atomic<bool> open{false};
    std::atomic<int> device_id{platform::kWaveMapper};
    std::unique_ptr<platform::WaveOutStream> stream;
    platform::WaveHeader header;
    std::vector<char> buffer;
    std::unique_ptr<platform::Thread> repeat;
    std::vector<std::unique_ptr<platform::Thread>> retired;  // stopped from their own thread
    std::atomic<platform::ThreadId> repeat_id{0};
    platform::ManualResetEvent wake{"audio-repeat"};
    // Written and not yet through its done message: a stop waits for that message, so that a
    // late one never marks the next start finished.
    std::atomic<bool> lent{false};
    platform::ManualResetEvent returned{"audio-play-returned"};
  };

  // Device paths.
  int OpenWaveOut(int bits, int rate, int channels, int milliseconds);
  int OpenWaveIn(int bits, int rate, int channels, int milliseconds);
  int OpenPlayDevice(PlayPath& path);
  void ReleaseInHeaders();
  void ReleaseVoiceHeaders();
  void ReleasePlayHeader(PlayPath& path);
  int CloseIn();
  int CloseVoice();
  int ClosePlay(PlayPath& path);
  bool WaitOpened(const std::atomic<bool>& flag);
  void WaitInputReturned();

  // Recording thread.
  int StartRecordingThread();
  void StopRecordingThread();
  void RecordingThread(platform::ThreadId self);
  bool LockUnlessRetired(const std::atomic<platform::ThreadId>& slot, platform::ThreadId self);

  // Playback.
  int StartPlayback(PlayPath& path, const char16_t* wide_path, std::int32_t loop_count);
  int StartLocked(PlayPath& path, const std::u16string& wanted, std::int32_t loop_count,
                  bool* retry);
  void StopPlayback(PlayPath& path);
  void RepeatThread(PlayPath& path, platform::ThreadId self);
  void JoinRetired(PlayPath& path);
  void WaitPlayReturned(PlayPath& path);
  bool ReadWav(PlayPath& path);
  void ClearEngineStatus();
  static bool RefusedInCallback(const char* operation);
  const Volume& PathVolume(const PlayPath& path) const { return path.is_tone ? speaker : ring; }

  // Devices.
  void ReadDeviceNames();
  static bool ReadDeviceSetting(const char16_t* value, std::u16string* name);
  void ResolveBeforeOpen(std::atomic<int>& id, const char16_t* value,
                         const std::vector<std::u16string>& list);
  static std::vector<std::u16string> WithDefault(std::vector<std::u16string> devices);
  static int ListForHost(const std::vector<std::u16string>& list, char16_t*** list_out);
  static void SetVolume(Volume& volume, std::int32_t level, float slope, float default_slope);

  void OnMessage(int path, platform::WaveMessage message, platform::WaveHeader* header);

  platform::WaveSystem& waves_;
  platform::Clock& clock_;

  std::atomic<bool> running{false};
  std::atomic<bool> record_enabled{false};
  std::atomic<bool> stop_recording{false};
  std::atomic<AudioCaptureCallback> callback;
  int record_index = 0;  // the recording thread's alone
  int play_index = 0;    // PlayVoice's, under voice_lock
  int play_count = 0;
  std::atomic<bool> engine_busy{false};
  std::atomic<std::uintptr_t> window_handle{0};
  std::atomic<bool> capture_enabled{true};
  int starting = 0;  // playback starts in progress, under status_lock

  Volume speaker, ring, mic;

  std::mutex device_lock;
  std::mutex voice_lock;
  std::recursive_mutex lock;
  std::mutex status_lock;
  std::mutex capture_lock;

  // Device names, "System Default" first, rebuilt at each opening (under lock).
  std::vector<std::u16string> in_names, out_names;
  std::atomic<int> input_id{platform::kWaveMapper};
  std::atomic<int> output_id{platform::kWaveMapper};

  platform::WaveFormat in_format, out_format;
  std::uint32_t in_buffer_size = 0;
  Listener in_listener{this, kInputPath};
  Listener voice_listener{this, kVoicePath};
  std::atomic<bool> in_open{false}, voice_open{false};
  std::unique_ptr<platform::WaveInStream> in_stream;
  std::unique_ptr<platform::WaveOutStream> voice_stream;
  std::array<platform::WaveHeader, kRingSize> in_headers;
  // Lent to the input and not yet through the data message: the device's done flag comes
  // before the message, so it alone would let a buffer be lent again while the host reads it.
  std::array<std::atomic<bool>, kRingSize> in_lent{};
  std::array<platform::WaveHeader, kRingSize> voice_headers;
  std::array<std::vector<char>, kRingSize> in_buffers, voice_buffers;

  platform::ManualResetEvent open_event{"audio-open"};
  platform::ManualResetEvent record_wake{"audio-record"};
  platform::ManualResetEvent in_returned{"audio-in-returned"};
  platform::ManualResetEvent voice_free{"audio-voice"};

  platform::Thread record_thread;
  std::atomic<platform::ThreadId> record_thread_id{0};

  PlayPath file{this, kFilePath};
  PlayPath tone{this, kTonePath};
};

}  // namespace deskline
