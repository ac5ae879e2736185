// The sound devices beneath the Audio module, in the shape of a classic wave API, because the
// Audio module's algorithms are written in its terms: devices are numbered from 0 and -1 is the
// system default; buffers travel as headers that the device hands back marked done; a listener
// hears open, close, done (output) and data (input) messages.
//
// Two backends: PortAudio for real devices, and a virtual one (deterministic, paced in real
// time on an injected clock, scriptable, recording what was played) for tests and headless
// runs. DefaultWaveSystem() picks one by DESKLINE_AUDIO.
//
// Thread rules: a stream's operations may be called from any thread, one at a time per stream
// (the owner serialises them). Done and data messages arrive on the backend's own thread; open
// and close messages arrive before Open/Close return. The listener must outlive the stream.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace deskline::platform {

// The device id of the system default device.
inline constexpr int kWaveMapper = -1;

// Device names are cut to this many UTF-16 units, as the classic capability record holds them.
inline constexpr std::size_t kMaxWaveDeviceName = 31;

// A device name as the backends list it: cut to kMaxWaveDeviceName units, never inside a
// surrogate pair.
std::u16string WaveDeviceName(std::u16string name);

// Results, numbered as the classic wave API numbers them: the Audio module recognises a device
// that has gone by 5 or 6.
enum WaveResult : int {
  kWaveOk = 0,
  kWaveError = 1,          // unspecified failure
  kWaveBadDeviceId = 2,    // no device with that id (or no device at all for the default)
  kWaveAllocated = 4,      // the device is busy
  kWaveInvalidHandle = 5,  // the stream's device has gone
  kWaveNoDriver = 6,       // the stream's device has gone
  kWaveNoMemory = 7,
  kWaveInvalidParam = 11,  // null header, zero-length buffer, header not prepared
  kWaveBadFormat = 32,     // the device cannot open this format
  kWaveStillPlaying = 33,  // the header is still queued
};

// PCM format, as the classic format record has it. Only format_tag 1 (PCM) with 8 or 16 bits
// is opened by the backends.
struct WaveFormat {
  std::uint16_t format_tag = 1;
  std::uint16_t channels = 1;
  std::uint32_t samples_per_sec = 8000;
  std::uint32_t avg_bytes_per_sec = 16000;
  std::uint16_t block_align = 2;
  std::uint16_t bits_per_sample = 16;
  std::uint16_t cb_size = 0;

  friend bool operator==(const WaveFormat&, const WaveFormat&) = default;
};

// 8 kHz 16-bit mono: the voice format of the microphone and the voice output.
inline constexpr WaveFormat kVoiceFormat{};

// Header flags.
inline constexpr std::uint32_t kWaveHeaderDone = 0x01;      // the device has handed it back
inline constexpr std::uint32_t kWaveHeaderPrepared = 0x02;  // Prepare has accepted it
inline constexpr std::uint32_t kWaveHeaderInQueue = 0x10;   // the device holds it

// A buffer lent to a device. The owner sets data and buffer_length and prepares the header
// once; each Write or AddBuffer lends it to the device, which clears done, and sets done again
// (and, for input, bytes_recorded) when it hands it back. flags is atomic: the device's thread
// sets done while the owner's thread tests it.
struct WaveHeader {
  char* data = nullptr;
  std::uint32_t buffer_length = 0;   // bytes
  std::uint32_t bytes_recorded = 0;  // input: bytes the device filled
  std::atomic<std::uint32_t> flags{0};
};

enum class WaveMessage {
  kOpen,   // header null
  kClose,  // header null
  kDone,   // output: the header has been played, or given back by Reset
  kData,   // input: the header holds bytes_recorded bytes (0 is possible after Reset)
};

class WaveListener {
 public:
  // Must return quickly and must not call the stream that sends the message.
  virtual void OnWaveMessage(WaveMessage message, WaveHeader* header) = 0;

 protected:
  ~WaveListener() = default;
};

class WaveOutStream {
 public:
  virtual ~WaveOutStream() = default;  // closes the stream if it is still open

  virtual int Prepare(WaveHeader* header) = 0;
  // kWaveStillPlaying while the device holds the header.
  virtual int Unprepare(WaveHeader* header) = 0;
  // Queues buffer_length bytes behind what is queued; the header comes back done, with
  // kDone, when they have been played. kWaveNoDriver once the device has gone.
  virtual int Write(WaveHeader* header) = 0;
  // Stops playback at once and hands every queued header back done, each with kDone.
  virtual int Reset() = 0;
  // Resets, sends kClose and releases the device. Calls on a closed stream give
  // kWaveInvalidHandle.
  virtual int Close() = 0;
};

class WaveInStream {
 public:
  virtual ~WaveInStream() = default;  // closes the stream if it is still open

  virtual int Prepare(WaveHeader* header) = 0;
  virtual int Unprepare(WaveHeader* header) = 0;
  // Lends an empty buffer to the device; it comes back done, with kData, when full.
  // kWaveNoDriver once the device has gone.
  virtual int AddBuffer(WaveHeader* header) = 0;
  // Starts filling the lent buffers in order, at the pace of the device.
  virtual int Start() = 0;
  // Stops filling; the buffer being filled comes back with what it holds, the empty ones stay
  // lent.
  virtual int Stop() = 0;
  // Stops and hands every lent buffer back done, each with kData and what it holds.
  virtual int Reset() = 0;
  // Resets, sends kClose and releases the device.
  virtual int Close() = 0;
};

class WaveSystem {
 public:
  virtual ~WaveSystem() = default;

  // Names of the present devices, by device id (entry n is device n), each at most
  // kMaxWaveDeviceName units. Listed afresh at each call.
  virtual std::vector<std::u16string> InputDevices() = 0;
  virtual std::vector<std::u16string> OutputDevices() = 0;

  // Opens device `id` (kWaveMapper: the system default) with `format`. On kWaveOk *stream is
  // set and the listener has heard kOpen; otherwise *stream stays empty. kWaveBadDeviceId for
  // an id that names no device, kWaveBadFormat for a format the device refuses.
  virtual int OpenOut(int id, const WaveFormat& format, WaveListener* listener,
                      std::unique_ptr<WaveOutStream>* stream) = 0;
  virtual int OpenIn(int id, const WaveFormat& format, WaveListener* listener,
                     std::unique_ptr<WaveInStream>* stream) = 0;
};

// The process's backend, chosen at the first call and kept: the virtual one when
// DESKLINE_AUDIO is "virtual", else PortAudio.
WaveSystem& DefaultWaveSystem();

}  // namespace deskline::platform
