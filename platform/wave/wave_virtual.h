// The virtual sound card: deterministic, paced in real time on an injected clock like a
// sound card, with device lists, vanishing devices and failing opens set by the test or the
// host, a microphone that plays given samples or silence, and outputs that record what they
// played. One thread per open stream, which sleeps until the next buffer is due: at most one
// wake-up per buffer.
//
// Thread rules: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/wave/wave_device.h"

namespace deskline::platform {

// What one output stream played, from its open to its close.
struct VirtualPlayback {
  std::uint64_t sequence = 0;  // order of opening, from 1, across inputs and outputs
  std::u16string device;       // the name of the device that was opened
  WaveFormat format;
  std::uint32_t writes = 0;           // buffers written
  std::vector<std::uint8_t> data;     // the bytes played, in order (up to the recording cap)
  std::uint64_t bytes_played = 0;     // all bytes played, recorded or not
  bool open = true;                   // false once closed
};

class VirtualWaveSystem final : public WaveSystem {
 public:
  // One input "Virtual Microphone" and one output "Virtual Speaker", silence at the
  // microphone, every output recorded up to 16 MiB.
  explicit VirtualWaveSystem(Clock& clock = RealClock());
  ~VirtualWaveSystem() override;

  // --- WaveSystem
  std::vector<std::u16string> InputDevices() override;
  std::vector<std::u16string> OutputDevices() override;
  int OpenOut(int id, const WaveFormat& format, WaveListener* listener,
              std::unique_ptr<WaveOutStream>* stream) override;
  int OpenIn(int id, const WaveFormat& format, WaveListener* listener,
             std::unique_ptr<WaveInStream>* stream) override;

  // --- Set by the test or the host
  // Replaces the device lists (present devices, in id order). Open streams keep running.
  void SetInputDevices(std::vector<std::u16string> names);
  void SetOutputDevices(std::vector<std::u16string> names);
  // A device vanishes (leaves the list; its open streams hand back every header they hold
  // and answer Write/AddBuffer/Start with kWaveNoDriver, for good) or comes back (at the end
  // of the list; a new open is needed).
  void SetInputPresent(const std::u16string& name, bool present);
  void SetOutputPresent(const std::u16string& name, bool present);
  // The same, `after` this much time on the clock (applied by a thread of the system's, made
  // at the first call; changes due at once are applied in the order they were scheduled).
  void SchedulePresent(bool input, const std::u16string& name, bool present,
                       std::chrono::milliseconds after);
  // The next `count` opens of inputs (or outputs) fail with `result`; a negative count: every
  // open, until told otherwise (count 0 ends it). Checked after the device id and the format.
  void FailInputOpens(int count, int result = kWaveError);
  void FailOutputOpens(int count, int result = kWaveError);
  // The microphone's sound: 16-bit mono samples at 8 kHz (resampled by repetition/skipping for
  // other rates), played once from the first Start and followed by silence, or looped. Empty:
  // silence. Taken by the inputs opened afterwards.
  void SetMicrophone(std::vector<std::int16_t> samples, bool loop);

  // --- Read back
  std::vector<VirtualPlayback> Playbacks() const;  // every output stream so far, by opening
  void ClearPlaybacks();
  std::uint64_t WakeUps() const;   // stream thread wake-ups so far
  int OpenStreams() const;         // streams open now (inputs and outputs)
  // Called with each output stream's record when the stream closes, on the closing thread.
  void SetPlaybackSink(std::function<void(const VirtualPlayback&)> sink);

  // --- Additions
  // The recording cap of output streams opened from now on (default 16 MiB); bytes played
  // beyond it are counted in bytes_played only.
  void SetRecordingLimit(std::size_t bytes);
  // Open streams whose thread is asleep until a time after the clock's now (or until new
  // work), with nothing left to deliver. A test on a manual FakeClock steps time only when
  // this equals OpenStreams() and the clock has as many sleepers: then every buffer due so
  // far has been handed back, and every stream waits for the right deadline.
  int WaitingStreams() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The process's virtual backend when DESKLINE_AUDIO is "virtual" (configured from the
// environment, see docs/audio.md), else null.
VirtualWaveSystem* DefaultVirtualWaveSystem();

// --- Configuration from the environment (docs/audio.md, "The virtual backend")

// What the DESKLINE_AUDIO_* variables ask for. Parsed without touching the system, so that a
// test can check it with a reader of its own.
struct VirtualWaveSettings {
  bool inputs_set = false;               // DESKLINE_AUDIO_INPUTS was given (maybe empty)
  std::vector<std::u16string> inputs;
  bool outputs_set = false;              // DESKLINE_AUDIO_OUTPUTS was given (maybe empty)
  std::vector<std::u16string> outputs;
  int fail_input_opens = 0;              // DESKLINE_AUDIO_FAIL_OPEN; -1: every open
  int fail_input_result = kWaveError;
  int fail_output_opens = 0;
  int fail_output_result = kWaveError;
  std::string microphone_file;           // DESKLINE_AUDIO_MIC, UTF-8 path of a WAV
  bool microphone_loop = false;          // DESKLINE_AUDIO_MIC_LOOP
  std::string record_folder;             // DESKLINE_AUDIO_RECORD
  struct Unplug {                        // DESKLINE_AUDIO_UNPLUG
    bool input = false;
    std::u16string name;
    int from_ms = 0;                     // after the backend is made
    int back_ms = -1;                    // -1: stays away
  };
  std::vector<Unplug> unplugs;
  std::vector<std::string> problems;     // values that could not be understood (ignored)
};

// Reads a variable: the value, or nullopt when it is unset.
using EnvironmentReader = std::function<std::optional<std::string>(const char* name)>;
VirtualWaveSettings ParseVirtualWaveSettings(const EnvironmentReader& read);

// Applies settings to a system: device lists, failing opens, the microphone (the WAV is read
// and brought to 8 kHz mono) and, with a record folder, a playback sink that calls
// WritePlaybackRecord. False with *problem set when the WAV or the folder is unusable (the rest
// is applied; the microphone stays silent).
bool ApplyVirtualWaveSettings(const VirtualWaveSettings& settings, VirtualWaveSystem& system,
                              std::string* problem = nullptr);

// Writes `playback` as "<folder>/out-NNNN-<device>.wav" and appends its line to
// "<folder>/playback.log" (format in docs/audio.md). False if either failed (the log line is
// written even when the WAV is not, with "-" as the file name).
bool WritePlaybackRecord(const std::string& folder, const VirtualPlayback& playback);
// The WAV's file name, and the log line (without its line feed), for one playback.
std::string PlaybackFileName(const VirtualPlayback& playback);
std::string PlaybackLogLine(const VirtualPlayback& playback, const std::string& file_name);
// The peak of the recorded samples in dBFS with one decimal, "-inf" for silence or nothing.
std::string PeakDbfs(const VirtualPlayback& playback);

}  // namespace deskline::platform
