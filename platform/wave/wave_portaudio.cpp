// The wave-device interface over PortAudio.
//
// Each open device is one PortAudio stream with a callback and a FIFO of lent headers. The
// callback copies bytes out of (output) or into (input) the first header still held and, when
// that header is full or played, counts it finished; a small notifier thread per stream then
// marks it done and tells the listener. The listener is not called from PortAudio's callback
// because the Audio module's listener runs the host's microphone callback, which may encode
// and send a frame or take locks: on JACK, or on ALSA with real-time scheduling, that would
// cost glitches. The price is one extra wake-up per finished header.
//
// PortAudio is initialised once for the process and never terminated at exit: a host may keep
// its own PortAudio or ALSA use going after the engine stops, and PortAudio 19.6 keeps its
// device list from Pa_Initialize, so a fresh list needs Pa_Terminate and Pa_Initialize, which
// close every stream. Listing devices therefore reinitialises PortAudio only while no stream
// of this backend is open; otherwise the list stays as it was at the last initialisation.
#include "platform/wave/wave_portaudio.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <jack/jack.h>
#include <portaudio.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace deskline::platform {
namespace {

// ---------------------------------------------------------------------------------------------
// Messages

std::atomic<WaveLogSink> g_sink{nullptr};

// True on a thread while it runs PortAudio's device probe (Pa_Initialize, Pa_Terminate): what
// ALSA and JACK say then is about devices and servers that are not there, which is normal.
thread_local bool t_probing = false;

void Log(bool error, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Log(bool error, const char* format, ...) {
  WaveLogSink sink = g_sink.load(std::memory_order_acquire);
  if (sink == nullptr) return;
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  sink(error, text);
}

void AlsaMessage(const char* file, int line, const char* function, int err, const char* format,
                 ...) {
  if (g_sink.load(std::memory_order_acquire) == nullptr) return;
  char text[400];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  Log(!t_probing, "ALSA %s:%d (%s) %s%s%s", file ? file : "", line, function ? function : "",
      text, err != 0 ? ": " : "", err != 0 ? snd_strerror(err) : "");
}

void JackError(const char* text) { Log(!t_probing, "JACK %s", text ? text : ""); }
void JackInfo(const char* text) { Log(false, "JACK %s", text ? text : ""); }

// ALSA and JACK print on stderr unless told otherwise; the handlers are process-wide.
void InstallLibraryHandlers() {
  snd_lib_error_set_handler(&AlsaMessage);
  jack_set_error_function(&JackError);
  jack_set_info_function(&JackInfo);
}

// Once the handlers are set (and PortAudio's JACK client may run a thread), unmapping this
// code would leave ALSA and JACK calling into nothing: a host that dlcloses the library keeps
// it mapped.
void PinThisLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&PinThisLibrary), &info) != 0 && info.dli_fname != nullptr) {
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
  }
}

const char* HostErrorText(PaError error) {
  if (error == paUnanticipatedHostError) {
    const PaHostErrorInfo* host = Pa_GetLastHostErrorInfo();
    if (host != nullptr && host->errorText != nullptr) return host->errorText;
  }
  return "";
}

// ---------------------------------------------------------------------------------------------
// The process's PortAudio

struct Runtime {
  std::mutex lock;  // every PortAudio call that reads or changes the device list or stream list
  bool initialised = false;
  bool pinned = false;
  int open_streams = 0;
};

Runtime& TheRuntime() {
  static Runtime* runtime = new Runtime;  // never destroyed: PortAudio outlives static teardown
  return *runtime;
}

bool EnsureUpLocked(Runtime& rt) {
  if (rt.initialised) return true;
  if (!rt.pinned) {
    PinThisLibrary();
    rt.pinned = true;
  }
  InstallLibraryHandlers();
  t_probing = true;
  const PaError error = Pa_Initialize();
  t_probing = false;
  if (error != paNoError) {
    Log(true, "PortAudio: initialisation failed: %s %s", Pa_GetErrorText(error),
        HostErrorText(error));
    return false;
  }
  rt.initialised = true;
  return true;
}

// A fresh device list when nothing is open; else the list of the last initialisation.
void RelistLocked(Runtime& rt) {
  if (rt.initialised && rt.open_streams == 0) {
    t_probing = true;
    Pa_Terminate();
    t_probing = false;
    rt.initialised = false;
  }
  EnsureUpLocked(rt);
}

int Channels(const PaDeviceInfo* info, bool input) {
  return input ? info->maxInputChannels : info->maxOutputChannels;
}

// PortAudio's index for a wave device id: -1 is the default, n the n-th device with channels
// in that direction.
PaDeviceIndex FindDevice(int id, bool input) {
  if (id == kWaveMapper) return input ? Pa_GetDefaultInputDevice() : Pa_GetDefaultOutputDevice();
  if (id < 0) return paNoDevice;
  const PaDeviceIndex count = Pa_GetDeviceCount();
  int n = 0;
  for (PaDeviceIndex i = 0; i < count; ++i) {
    const PaDeviceInfo* info = Pa_GetDeviceInfo(i);
    if (info == nullptr || Channels(info, input) <= 0) continue;
    if (n == id) return i;
    ++n;
  }
  return paNoDevice;
}

// PortAudio's names are UTF-8; bytes that are not become U+FFFD.
std::u16string DeviceName(const char* utf8) {
  return utf8 == nullptr ? std::u16string() : WaveDeviceName(Utf8ToUtf16(utf8));
}

// The PortAudio sample format for a PCM format, and its bytes per frame; false if the backend
// cannot play it.
bool ToPortAudio(const WaveFormat& format, PaSampleFormat* sample, std::uint32_t* frame_bytes) {
  if (format.format_tag != 1) return false;
  if (format.bits_per_sample != 8 && format.bits_per_sample != 16) return false;
  if (format.channels == 0 || format.samples_per_sec == 0) return false;
  const std::uint32_t bytes = std::uint32_t{format.channels} * format.bits_per_sample / 8;
  if (format.block_align != bytes) return false;
  if (format.avg_bytes_per_sec != std::uint64_t{format.samples_per_sec} * bytes) return false;
  *sample = format.bits_per_sample == 8 ? paUInt8 : paInt16;  // 8-bit WAV is unsigned
  *frame_bytes = bytes;
  return true;
}

int OpenFailure(PaError error, int otherwise) {
  switch (error) {
    case paDeviceUnavailable:
      return kWaveAllocated;
    case paInsufficientMemory:
      return kWaveNoMemory;
    case paInvalidDevice:
      return kWaveBadDeviceId;
    default:
      return otherwise;
  }
}

// ---------------------------------------------------------------------------------------------
// One open device

class Stream {
 public:
  Stream(bool input, WaveListener* listener, std::uint32_t frame_bytes, unsigned char silence,
         std::uint32_t rate)
      : input_(input),
        listener_(listener),
        frame_bytes_(frame_bytes),
        silence_(silence),
        idle_limit_(std::uint64_t{rate} * frame_bytes),
        ring_(8) {}
  ~Stream() { Close(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  PaStream** pa_slot() { return &pa_; }

  // Starts the notifier; the PortAudio stream is open. Throws std::system_error if no thread.
  void Begin() {
    notifier_ = std::thread([this] { NotifierLoop(); });
    open_ = true;
  }

  static int OnPortAudio(const void* in, void* out, unsigned long frames,
                         const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags, void* self) {
    return static_cast<Stream*>(self)->Process(in, out, frames);
  }
  static void OnPortAudioFinished(void* self) { static_cast<Stream*>(self)->Ended(); }

  int Prepare(WaveHeader* header) {
    if (!open_) return kWaveInvalidHandle;
    if (header == nullptr || header->data == nullptr || header->buffer_length == 0) {
      return kWaveInvalidParam;
    }
    header->flags.fetch_or(kWaveHeaderPrepared);
    return kWaveOk;
  }

  int Unprepare(WaveHeader* header) {
    if (!open_) return kWaveInvalidHandle;
    if (header == nullptr) return kWaveInvalidParam;
    if ((header->flags.load() & kWaveHeaderInQueue) != 0) return kWaveStillPlaying;
    header->flags.fetch_and(~kWaveHeaderPrepared);
    return kWaveOk;
  }

  // Write (output) and AddBuffer (input).
  int Lend(WaveHeader* header) {
    if (!open_) return kWaveInvalidHandle;
    if (header == nullptr) return kWaveInvalidParam;
    const std::uint32_t flags = header->flags.load();
    if ((flags & kWaveHeaderPrepared) == 0) return kWaveInvalidParam;
    if ((flags & kWaveHeaderInQueue) != 0) return kWaveStillPlaying;
    if (gone_.load() || EndedUnexpectedly()) return kWaveNoDriver;
    if (!Reserve()) return kWaveNoMemory;
    bool start = false;
    {
      std::lock_guard lock(m_);
      if (input_) header->bytes_recorded = 0;
      header->flags.fetch_and(~kWaveHeaderDone);
      header->flags.fetch_or(kWaveHeaderInQueue);
      ring_[(head_ + count_) % ring_.size()] = header;
      ++count_;
      start = !input_ && (!started_ || idle_ended_);
    }
    if (start && !StartDevice()) {
      std::lock_guard lock(m_);
      // Nothing ran the stream, so the header is still last and unfinished, unless the end of
      // the stream handed everything back meanwhile.
      if (count_ > finished_ && ring_[(head_ + count_ - 1) % ring_.size()] == header) {
        --count_;
        header->flags.fetch_and(~kWaveHeaderInQueue);
        header->flags.fetch_or(flags & kWaveHeaderDone);
      }
      return kWaveNoDriver;
    }
    return kWaveOk;
  }

  int Start() {
    if (!open_) return kWaveInvalidHandle;
    if (gone_.load() || EndedUnexpectedly()) return kWaveNoDriver;
    if (started_) return kWaveOk;
    return StartDevice() ? kWaveOk : kWaveNoDriver;
  }

  // Input: the buffer being filled comes back with what it holds; empty ones stay lent.
  int Stop() {
    if (!open_) return kWaveInvalidHandle;
    StopDevice();
    std::unique_lock lock(m_);
    if (count_ > finished_ && offset_ > 0) {
      ring_[(head_ + finished_) % ring_.size()]->bytes_recorded = offset_;
      offset_ = 0;
      ++finished_;
      wake_.notify_one();
    }
    WaitDelivered(lock);
    return kWaveOk;
  }

  int Reset() {
    if (!open_) return kWaveInvalidHandle;
    StopDevice();
    std::unique_lock lock(m_);
    if (HandBackAllLocked()) wake_.notify_one();
    WaitDelivered(lock);
    return kWaveOk;
  }

  int Close() {
    if (!open_) return kWaveInvalidHandle;
    Reset();
    {
      Runtime& rt = TheRuntime();
      std::lock_guard lock(rt.lock);
      const PaError error = Pa_CloseStream(pa_);
      if (error != paNoError) {
        Log(true, "PortAudio: closing a stream failed: %s", Pa_GetErrorText(error));
      }
      --rt.open_streams;
    }
    pa_ = nullptr;
    {
      std::lock_guard lock(m_);
      quit_ = true;
    }
    wake_.notify_one();
    if (notifier_.joinable()) notifier_.join();
    open_ = false;
    listener_->OnWaveMessage(WaveMessage::kClose, nullptr);
    return kWaveOk;
  }

 private:
  // --- PortAudio's thread

  int Process(const void* in, void* out, unsigned long frames) {
    const std::size_t bytes = frames * frame_bytes_;
    bool wake = false;
    int result = paContinue;
    {
      std::lock_guard lock(m_);
      if (input_) {
        wake = Capture(static_cast<const char*>(in), bytes);
      } else {
        auto* to = static_cast<char*>(out);
        const std::size_t played = Play(to, bytes, &wake);
        std::memset(to + played, silence_, bytes - played);  // underrun: silence
        if (count_ == finished_) {
          // Nothing left to play: after a second of silence the stream stops, so that an idle
          // output costs no wake-ups; the next Write starts it again.
          idle_played_ += bytes - played;
          if (idle_played_ >= idle_limit_) {
            idle_ended_ = true;
            result = paComplete;
          }
        } else {
          idle_played_ = 0;
        }
      }
    }
    if (wake) wake_.notify_one();
    return result;
  }

  std::size_t Play(char* to, std::size_t bytes, bool* wake) {
    std::size_t done = 0;
    while (done < bytes && count_ > finished_) {
      WaveHeader* header = ring_[(head_ + finished_) % ring_.size()];
      const std::size_t n = std::min<std::size_t>(bytes - done, header->buffer_length - offset_);
      std::memcpy(to + done, header->data + offset_, n);
      done += n;
      offset_ += static_cast<std::uint32_t>(n);
      if (offset_ == header->buffer_length) {
        offset_ = 0;
        ++finished_;
        *wake = true;
      }
    }
    return done;
  }

  bool Capture(const char* from, std::size_t bytes) {
    bool wake = false;
    std::size_t done = 0;
    while (done < bytes && count_ > finished_) {
      WaveHeader* header = ring_[(head_ + finished_) % ring_.size()];
      const std::size_t n = std::min<std::size_t>(bytes - done, header->buffer_length - offset_);
      if (from != nullptr) {
        std::memcpy(header->data + offset_, from + done, n);
      } else {
        std::memset(header->data + offset_, silence_, n);
      }
      done += n;
      offset_ += static_cast<std::uint32_t>(n);
      if (offset_ == header->buffer_length) {
        header->bytes_recorded = offset_;
        offset_ = 0;
        ++finished_;
        wake = true;
      }
    }
    return wake;  // with no header lent, the sound is dropped
  }

  // The stream has ended: by our stop, after a long silence, or because the device failed.
  void Ended() {
    bool wake = false;
    {
      std::lock_guard lock(m_);
      if (expect_end_ || idle_ended_) return;
      gone_.store(true);
      wake = HandBackAllLocked();
    }
    if (wake) wake_.notify_one();
    Log(true, "PortAudio: the %s device stopped", input_ ? "input" : "output");
  }

  // --- The notifier's thread

  void NotifierLoop() {
    const WaveMessage message = input_ ? WaveMessage::kData : WaveMessage::kDone;
    std::unique_lock lock(m_);
    for (;;) {
      wake_.wait(lock, [this] { return finished_ > 0 || quit_; });
      if (finished_ == 0) return;
      WaveHeader* header = ring_[head_];
      head_ = (head_ + 1) % ring_.size();
      --count_;
      --finished_;
      ++delivering_;
      lock.unlock();
      // In-queue goes first, so that an owner who sees done may lend the header again at once.
      header->flags.fetch_and(~kWaveHeaderInQueue);
      header->flags.fetch_or(kWaveHeaderDone);
      listener_->OnWaveMessage(message, header);
      lock.lock();
      --delivering_;
      if (finished_ == 0 && delivering_ == 0) delivered_.notify_all();
    }
  }

  // --- The owner's thread

  // Room for one more header, grown outside the lock so that the callback never waits on an
  // allocation. Only the owner adds headers, so the room cannot shrink meanwhile.
  bool Reserve() {
    std::size_t size = 0;
    {
      std::lock_guard lock(m_);
      if (count_ < ring_.size()) return true;
      size = ring_.size();
    }
    std::vector<WaveHeader*> bigger;
    try {
      bigger.resize(size * 2);
    } catch (const std::bad_alloc&) {
      return false;
    }
    {
      std::lock_guard lock(m_);
      for (std::size_t i = 0; i < count_; ++i) bigger[i] = ring_[(head_ + i) % ring_.size()];
      head_ = 0;
      ring_.swap(bigger);
    }
    return true;
  }

  bool StartDevice() {
    if (started_) Pa_StopStream(pa_);  // it ended after a silence: finish that before a restart
    {
      std::lock_guard lock(m_);
      expect_end_ = false;
      idle_ended_ = false;
      idle_played_ = 0;
    }
    const PaError error = Pa_StartStream(pa_);
    if (error != paNoError) {
      started_ = false;
      {
        std::lock_guard lock(m_);
        expect_end_ = true;
      }
      gone_.store(true);
      Log(true, "PortAudio: starting the %s device failed: %s %s", input_ ? "input" : "output",
          Pa_GetErrorText(error), HostErrorText(error));
      return false;
    }
    started_ = true;
    return true;
  }

  void StopDevice() {
    if (!started_) return;
    {
      std::lock_guard lock(m_);
      expect_end_ = true;
    }
    Pa_AbortStream(pa_);  // at once; an error here means it had stopped already
    started_ = false;
    std::lock_guard lock(m_);
    idle_ended_ = false;
    idle_played_ = 0;
  }

  // A started stream that is no longer active, and was not stopped by us or by a silence, has
  // lost its device; the end callback usually says so first.
  bool EndedUnexpectedly() {
    if (!started_) return false;
    {
      std::lock_guard lock(m_);
      if (expect_end_ || idle_ended_) return false;
    }
    if (Pa_IsStreamActive(pa_) == 1) return false;
    bool wake = false;
    {
      std::lock_guard lock(m_);
      if (expect_end_ || idle_ended_) return false;  // a silence ended it meanwhile
      gone_.store(true);
      wake = HandBackAllLocked();
    }
    if (wake) wake_.notify_one();
    Log(true, "PortAudio: the %s device is no longer active", input_ ? "input" : "output");
    return true;
  }

  // Every held header counts as finished; an input header keeps what it holds.
  bool HandBackAllLocked() {
    if (count_ == finished_) return false;
    if (input_) {
      for (std::size_t i = finished_; i < count_; ++i) {
        ring_[(head_ + i) % ring_.size()]->bytes_recorded = i == finished_ ? offset_ : 0;
      }
    }
    finished_ = count_;
    offset_ = 0;
    return true;
  }

  void WaitDelivered(std::unique_lock<std::mutex>& lock) {
    if (std::this_thread::get_id() == notifier_.get_id()) return;  // a listener broke the rules
    delivered_.wait(lock, [this] { return finished_ == 0 && delivering_ == 0; });
  }

  const bool input_;
  WaveListener* const listener_;
  const std::uint32_t frame_bytes_;
  const unsigned char silence_;
  const std::uint64_t idle_limit_;  // bytes of silence after which an output stops
  PaStream* pa_ = nullptr;

  // The owner's alone: operations on a stream are serialised by its owner.
  bool open_ = false;
  bool started_ = false;  // started by us and not yet stopped by us

  std::mutex m_;  // the queue, between owner, PortAudio callback and notifier; held briefly
  std::condition_variable wake_;       // the notifier: headers finished, or quit
  std::condition_variable delivered_;  // the owner: every finished header handed back
  std::vector<WaveHeader*> ring_;      // lent headers in order, from head_
  std::size_t head_ = 0;
  std::size_t count_ = 0;       // headers held
  std::size_t finished_ = 0;    // of those, the first ones that are played, filled or reset
  std::size_t delivering_ = 0;  // taken by the notifier, listener not yet returned
  std::uint32_t offset_ = 0;    // bytes of the first unfinished header already played or filled
  std::uint64_t idle_played_ = 0;
  // Guarded by m_, and atomic as well. ThreadSanitizer once reported the end callback's read
  // against StopDevice's write although both hold m_; the callback runs on PortAudio's own
  // thread, which an abort cancels, and the cause was not pinned down. Atomic keeps every read
  // well defined whatever it was.
  std::atomic<bool> expect_end_{false};  // we stop the stream, so its end is no failure
  std::atomic<bool> idle_ended_{false};  // the callback ended it after a long silence
  bool quit_ = false;
  std::atomic<bool> gone_{false};
  std::thread notifier_;
};

class OutStream final : public WaveOutStream {
 public:
  explicit OutStream(std::unique_ptr<Stream> stream) : stream_(std::move(stream)) {}
  int Prepare(WaveHeader* header) override { return stream_->Prepare(header); }
  int Unprepare(WaveHeader* header) override { return stream_->Unprepare(header); }
  int Write(WaveHeader* header) override { return stream_->Lend(header); }
  int Reset() override { return stream_->Reset(); }
  int Close() override { return stream_->Close(); }

 private:
  std::unique_ptr<Stream> stream_;
};

class InStream final : public WaveInStream {
 public:
  explicit InStream(std::unique_ptr<Stream> stream) : stream_(std::move(stream)) {}
  int Prepare(WaveHeader* header) override { return stream_->Prepare(header); }
  int Unprepare(WaveHeader* header) override { return stream_->Unprepare(header); }
  int AddBuffer(WaveHeader* header) override { return stream_->Lend(header); }
  int Start() override { return stream_->Start(); }
  int Stop() override { return stream_->Stop(); }
  int Reset() override { return stream_->Reset(); }
  int Close() override { return stream_->Close(); }

 private:
  std::unique_ptr<Stream> stream_;
};

// ---------------------------------------------------------------------------------------------
// The system

class PortAudioWaveSystem final : public WaveSystem {
 public:
  std::vector<std::u16string> InputDevices() override { return List(true); }
  std::vector<std::u16string> OutputDevices() override { return List(false); }

  int OpenOut(int id, const WaveFormat& format, WaveListener* listener,
              std::unique_ptr<WaveOutStream>* stream) override {
    if (stream == nullptr) return kWaveInvalidParam;
    std::unique_ptr<Stream> opened;
    const int result = Open(false, id, format, listener, &opened);
    if (result == kWaveOk) *stream = std::make_unique<OutStream>(std::move(opened));
    return result;
  }

  int OpenIn(int id, const WaveFormat& format, WaveListener* listener,
             std::unique_ptr<WaveInStream>* stream) override {
    if (stream == nullptr) return kWaveInvalidParam;
    std::unique_ptr<Stream> opened;
    const int result = Open(true, id, format, listener, &opened);
    if (result == kWaveOk) *stream = std::make_unique<InStream>(std::move(opened));
    return result;
  }

 private:
  static std::vector<std::u16string> List(bool input) {
    std::vector<std::u16string> names;
    Runtime& rt = TheRuntime();
    std::lock_guard lock(rt.lock);
    RelistLocked(rt);
    if (!rt.initialised) return names;
    const PaDeviceIndex count = Pa_GetDeviceCount();
    for (PaDeviceIndex i = 0; i < count; ++i) {
      const PaDeviceInfo* info = Pa_GetDeviceInfo(i);
      if (info != nullptr && Channels(info, input) > 0) names.push_back(DeviceName(info->name));
    }
    return names;
  }

  static int Open(bool input, int id, const WaveFormat& format, WaveListener* listener,
                  std::unique_ptr<Stream>* opened) {
    if (listener == nullptr) return kWaveInvalidParam;
    const char* direction = input ? "input" : "output";
    {
      Runtime& rt = TheRuntime();
      std::lock_guard lock(rt.lock);
      if (!EnsureUpLocked(rt)) return kWaveBadDeviceId;
      const PaDeviceIndex device = FindDevice(id, input);
      const PaDeviceInfo* info = device == paNoDevice ? nullptr : Pa_GetDeviceInfo(device);
      if (info == nullptr) return kWaveBadDeviceId;
      PaSampleFormat sample = 0;
      std::uint32_t frame_bytes = 0;
      if (!ToPortAudio(format, &sample, &frame_bytes)) return kWaveBadFormat;
      // Refused here rather than by PortAudio, which says why on stderr.
      if (format.channels > Channels(info, input)) {
        Log(true, "PortAudio: %s device \"%s\" refuses %u channels: it has %d", direction,
            info->name, unsigned{format.channels}, Channels(info, input));
        return kWaveBadFormat;
      }

      PaStreamParameters parameters{};
      parameters.device = device;
      parameters.channelCount = format.channels;
      parameters.sampleFormat = sample;
      parameters.suggestedLatency =
          input ? info->defaultLowInputLatency : info->defaultLowOutputLatency;
      const PaStreamParameters* in = input ? &parameters : nullptr;
      const PaStreamParameters* out = input ? nullptr : &parameters;
      const double rate = format.samples_per_sec;

      PaError error = Pa_IsFormatSupported(in, out, rate);
      if (error != paFormatIsSupported) {
        Log(true, "PortAudio: %s device \"%s\" refuses %u Hz, %u bits, %u channels: %s %s",
            direction, info->name, unsigned{format.samples_per_sec},
            unsigned{format.bits_per_sample}, unsigned{format.channels},
            Pa_GetErrorText(error), HostErrorText(error));
        return OpenFailure(error, kWaveBadFormat);
      }

      auto stream = std::make_unique<Stream>(input, listener, frame_bytes,
                                             format.bits_per_sample == 8 ? 0x80 : 0,
                                             format.samples_per_sec);
      // 20 ms a callback: the pace of the voice frames, and one wake-up per frame.
      const unsigned long frames = std::max<std::uint32_t>(1, format.samples_per_sec / 50);
      error = Pa_OpenStream(stream->pa_slot(), in, out, rate, frames, paNoFlag,
                            &Stream::OnPortAudio, stream.get());
      if (error != paNoError) {
        Log(true, "PortAudio: opening %s device \"%s\" failed: %s %s", direction, info->name,
            Pa_GetErrorText(error), HostErrorText(error));
        return OpenFailure(error, kWaveError);
      }
      ++rt.open_streams;
      Pa_SetStreamFinishedCallback(*stream->pa_slot(), &Stream::OnPortAudioFinished);
      try {
        stream->Begin();
      } catch (const std::system_error&) {
        Pa_CloseStream(*stream->pa_slot());
        --rt.open_streams;
        Log(true, "PortAudio: no thread for the %s device", direction);
        return kWaveNoMemory;
      }
      *opened = std::move(stream);
    }
    listener->OnWaveMessage(WaveMessage::kOpen, nullptr);
    return kWaveOk;
  }
};

}  // namespace

std::unique_ptr<WaveSystem> MakePortAudioWaveSystem() {
  return std::make_unique<PortAudioWaveSystem>();
}

void SetWaveLogSink(WaveLogSink sink) { g_sink.store(sink, std::memory_order_release); }

}  // namespace deskline::platform
