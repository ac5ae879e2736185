// The virtual sound card. Each open stream has one thread that sleeps on the injected clock
// until its next buffer is due or until an operation changes what is due; a buffer's times
// are fixed when it is written (output) or when filling reaches it (input), so the thread
// only has to catch up with the clock when it wakes. Operations catch up too, so a thread
// that wakes late never changes what the owner sees.
//
// Lock order: the system's mutex, then a stream's, then a playback record's (a leaf). The
// listener is called with none of them held.
#include "platform/wave/wave_virtual.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <limits>
#include <utility>

#include "platform/event.h"
#include "platform/fs.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "platform/wave/wav_file.h"

namespace deskline::platform {
namespace {

constexpr std::size_t kDefaultRecordingLimit = 16u * 1024 * 1024;
constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kAwake = -1;                                        // sleep_until_
constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();  // idle sleep
constexpr std::int64_t kNoDeadline = -1;
constexpr std::int64_t kIdleWaitMs = 24LL * 3600 * 1000;  // an idle thread looks once a day
constexpr std::uint32_t kMicRate = 8000;

using Message = std::pair<WaveMessage, WaveHeader*>;


bool FormatSupported(const WaveFormat& f) {
  return f.format_tag == 1 && (f.bits_per_sample == 8 || f.bits_per_sample == 16) &&
         (f.channels == 1 || f.channels == 2) && f.samples_per_sec >= 1000 &&
         f.samples_per_sec <= 192000 && f.block_align == f.channels * f.bits_per_sample / 8 &&
         f.avg_bytes_per_sec == f.samples_per_sec * f.block_align;
}

// ceil(a * b / c) and floor(a * b / c) without overflow, for non-negative a, b and positive c.
std::int64_t MulDivUp(std::int64_t a, std::int64_t b, std::int64_t c) {
  const __int128 p = static_cast<__int128>(a) * b;
  return static_cast<std::int64_t>((p + c - 1) / c);
}
std::int64_t MulDivDown(std::int64_t a, std::int64_t b, std::int64_t c) {
  return static_cast<std::int64_t>(static_cast<__int128>(a) * b / c);
}

struct Record {
  std::mutex mutex;
  VirtualPlayback playback;
};

}  // namespace

class StreamCore;

// What the system and its streams share; streams keep it alive, so a stream may outlive the
// VirtualWaveSystem that opened it (the clock must outlive both).
struct SharedState {
  explicit SharedState(Clock& c) : clock(c) {}
  Clock& clock;
  mutable std::mutex mutex;
  std::vector<std::u16string> inputs{u"Virtual Microphone"};
  std::vector<std::u16string> outputs{u"Virtual Speaker"};
  int fail_inputs = 0, fail_input_result = kWaveError;
  int fail_outputs = 0, fail_output_result = kWaveError;
  std::shared_ptr<const std::vector<std::int16_t>> microphone =
      std::make_shared<const std::vector<std::int16_t>>();
  bool microphone_loop = false;
  std::size_t recording_limit = kDefaultRecordingLimit;
  std::vector<std::shared_ptr<Record>> playbacks;
  std::vector<StreamCore*> streams;  // open ones
  std::uint64_t sequence = 0;
  std::function<void(const VirtualPlayback&)> sink;
  std::atomic<std::uint64_t> wakeups{0};
};

// The thread, the wake-up event, the pending messages and the closing protocol common to
// inputs and outputs. The derived stream keeps the buffers and says what is due when.
class StreamCore {
 public:
  StreamCore(std::shared_ptr<SharedState> shared, bool input, std::u16string device,
             const WaveFormat& format, WaveListener* listener)
      : shared_(std::move(shared)),
        clock_(shared_->clock),
        input_(input),
        device_(std::move(device)),
        format_(format),
        listener_(listener) {}
  virtual ~StreamCore() = default;
  StreamCore(const StreamCore&) = delete;
  StreamCore& operator=(const StreamCore&) = delete;

  bool input() const { return input_; }
  const std::u16string& device() const { return device_; }

  bool Launch() {
    thread_id_ = thread_.Create(input_ ? "vwave-in" : "vwave-out", [this](ThreadId) { Run(); });
    if (thread_id_ == 0) return false;
    launched_ = true;
    thread_.Resume();
    return true;
  }

  // The device has vanished: the stream hands back what it holds and refuses new buffers.
  void MarkGone() {
    std::lock_guard lock(mutex_);
    if (closed_ || gone_) return;
    gone_ = true;
    ResetLocked(clock_.SteadyNs());
    PokeLocked();
  }

  // For WaitingStreams.
  bool Waiting(std::int64_t now) const {
    std::lock_guard lock(mutex_);
    return sleep_until_ != kAwake && sleep_until_ > now && pending_.empty();
  }

 protected:
  // Under mutex_: hand back every buffer due by `now`; the next due time, or kNoDeadline; hand
  // back every buffer at once (Reset).
  virtual void CatchUpLocked(std::int64_t now) = 0;
  virtual std::int64_t DeadlineLocked() const = 0;
  virtual void ResetLocked(std::int64_t now) = 0;
  // After the thread has gone, on the closing thread, no lock held.
  virtual void OnClosed() {}

  // Under mutex_: makes the thread look again (unless it is between passes anyway).
  void PokeLocked() {
    if (sleep_until_ != kAwake) {
      sleep_until_ = kAwake;
      wake_.Set();
    }
  }

  void HandBackLocked(WaveHeader* header, WaveMessage message) {
    header->flags.fetch_and(~kWaveHeaderInQueue);
    header->flags.fetch_or(kWaveHeaderDone);
    pending_.emplace_back(message, header);
  }

  int CheckPrepareLocked(WaveHeader* header) const {
    if (closed_) return kWaveInvalidHandle;
    if (header == nullptr || header->data == nullptr || header->buffer_length == 0) {
      return kWaveInvalidParam;
    }
    if (header->flags.load() & kWaveHeaderInQueue) return kWaveStillPlaying;
    return kWaveOk;
  }
  int PrepareCommon(WaveHeader* header) {
    std::lock_guard lock(mutex_);
    const int result = CheckPrepareLocked(header);
    if (result == kWaveOk) header->flags.fetch_or(kWaveHeaderPrepared);
    return result;
  }
  int UnprepareCommon(WaveHeader* header) {
    std::lock_guard lock(mutex_);
    if (closed_) return kWaveInvalidHandle;
    if (header == nullptr) return kWaveInvalidParam;
    if (header->flags.load() & kWaveHeaderInQueue) return kWaveStillPlaying;
    header->flags.fetch_and(~kWaveHeaderPrepared);
    return kWaveOk;
  }
  // Checks for Write and AddBuffer.
  int CheckLendLocked(WaveHeader* header, std::uint32_t min_length) const {
    if (closed_) return kWaveInvalidHandle;
    if (gone_) return kWaveNoDriver;
    if (header == nullptr || header->data == nullptr || header->buffer_length < min_length ||
        !(header->flags.load() & kWaveHeaderPrepared)) {
      return kWaveInvalidParam;
    }
    if (header->flags.load() & kWaveHeaderInQueue) return kWaveStillPlaying;
    return kWaveOk;
  }
  int ResetCommon() {
    std::lock_guard lock(mutex_);
    if (closed_) return kWaveInvalidHandle;
    ResetLocked(clock_.SteadyNs());
    if (!pending_.empty()) PokeLocked();
    return kWaveOk;
  }

  // Resets, lets the thread deliver what is pending and end, then says kClose. Called by the
  // derived stream's Close and destructor (before its members go).
  int CloseCommon() {
    if (!launched_) return kWaveInvalidHandle;  // never opened: nothing to say
    const ThreadId caller = CurrentThreadId();
    if (caller != 0 && caller == thread_id_) return kWaveError;  // from the listener: refused
    {
      std::lock_guard lock(mutex_);
      if (closed_) return kWaveInvalidHandle;
      ResetLocked(clock_.SteadyNs());
      closed_ = true;
      quitting_ = true;
      sleep_until_ = kAwake;
      wake_.Set();
    }
    thread_.Join();
    {
      std::lock_guard lock(shared_->mutex);
      auto& streams = shared_->streams;
      streams.erase(std::remove(streams.begin(), streams.end(), this), streams.end());
    }
    OnClosed();
    if (listener_ != nullptr) listener_->OnWaveMessage(WaveMessage::kClose, nullptr);
    return kWaveOk;
  }

  std::shared_ptr<SharedState> shared_;
  Clock& clock_;
  const bool input_;
  const std::u16string device_;
  const WaveFormat format_;
  WaveListener* const listener_;

  mutable std::mutex mutex_;
  std::deque<Message> pending_;  // messages for the thread to deliver, in order
  bool closed_ = false;
  bool gone_ = false;

 private:
  void Run() {
    std::vector<Message> batch;
    for (;;) {
      std::int64_t timeout_ms = 0;
      {
        std::lock_guard lock(mutex_);
        sleep_until_ = kAwake;
        wake_.Reset();
        const std::int64_t now = clock_.SteadyNs();
        if (!quitting_) CatchUpLocked(now);
        if (!pending_.empty()) {
          batch.assign(pending_.begin(), pending_.end());
          pending_.clear();
        } else if (quitting_) {
          return;
        } else {
          const std::int64_t deadline = DeadlineLocked();
          if (deadline == kNoDeadline) {
            timeout_ms = kIdleWaitMs;
            sleep_until_ = kForever;
          } else {
            timeout_ms = std::max<std::int64_t>(1, (deadline - now + kNsPerMs - 1) / kNsPerMs);
            sleep_until_ = now + timeout_ms * kNsPerMs;
          }
        }
      }
      if (!batch.empty()) {
        if (listener_ != nullptr) {
          for (const auto& [message, header] : batch) listener_->OnWaveMessage(message, header);
        }
        batch.clear();
        continue;
      }
      clock_.WaitFor(wake_, std::chrono::milliseconds(timeout_ms));
      shared_->wakeups.fetch_add(1);
    }
  }

  ManualResetEvent wake_{"virtual wave stream"};
  bool launched_ = false;
  ThreadId thread_id_ = 0;
  bool quitting_ = false;
  std::int64_t sleep_until_ = kAwake;
  Thread thread_;  // last: joined before the members above go
};

// --- Output: each written header plays for buffer_length / avg_bytes_per_sec, from the end of
// the one before it, or from the Write when the queue had run dry.
class VirtualOutStream final : public WaveOutStream, public StreamCore {
 public:
  VirtualOutStream(std::shared_ptr<SharedState> shared, std::u16string device,
                   const WaveFormat& format, WaveListener* listener,
                   std::shared_ptr<Record> record, std::size_t limit)
      : StreamCore(std::move(shared), false, std::move(device), format, listener),
        record_(std::move(record)),
        limit_(limit) {}
  ~VirtualOutStream() override { CloseCommon(); }

  int Prepare(WaveHeader* header) override { return PrepareCommon(header); }
  int Unprepare(WaveHeader* header) override { return UnprepareCommon(header); }
  int Reset() override { return ResetCommon(); }
  int Close() override { return CloseCommon(); }

  int Write(WaveHeader* header) override {
    std::lock_guard lock(mutex_);
    const int result = CheckLendLocked(header, 1);
    if (result != kWaveOk) return result;
    const std::int64_t now = clock_.SteadyNs();
    CatchUpLocked(now);
    if (queue_.empty()) {
      run_start_ = now;
      run_bytes_ = 0;
    }
    const std::int64_t start = TimeOfLocked(run_bytes_);
    run_bytes_ += header->buffer_length;
    header->flags.fetch_and(~kWaveHeaderDone);
    header->flags.fetch_or(kWaveHeaderInQueue);
    queue_.push_back(Entry{header, start, TimeOfLocked(run_bytes_)});
    {
      std::lock_guard record_lock(record_->mutex);
      ++record_->playback.writes;
    }
    if (queue_.size() == 1 || !pending_.empty()) PokeLocked();
    return kWaveOk;
  }

 private:
  struct Entry {
    WaveHeader* header;
    std::int64_t start, end;
  };

  std::int64_t TimeOfLocked(std::int64_t bytes) const {
    return run_start_ + MulDivUp(bytes, kNsPerSec, format_.avg_bytes_per_sec);
  }

  void RecordLocked(const char* data, std::size_t bytes) {
    std::lock_guard lock(record_->mutex);
    auto& playback = record_->playback;
    playback.bytes_played += bytes;
    const std::size_t room = limit_ - std::min(limit_, playback.data.size());
    const auto* begin = reinterpret_cast<const std::uint8_t*>(data);
    playback.data.insert(playback.data.end(), begin, begin + std::min(room, bytes));
  }

  void CatchUpLocked(std::int64_t now) override {
    while (!queue_.empty() && queue_.front().end <= now) {
      WaveHeader* header = queue_.front().header;
      queue_.pop_front();
      RecordLocked(header->data, header->buffer_length);
      HandBackLocked(header, WaveMessage::kDone);
    }
  }

  std::int64_t DeadlineLocked() const override {
    return queue_.empty() ? kNoDeadline : queue_.front().end;
  }

  // Stops at once: the header that is playing keeps what has been played of it.
  void ResetLocked(std::int64_t now) override {
    CatchUpLocked(now);
    if (!queue_.empty() && queue_.front().start < now) {
      const Entry& e = queue_.front();
      std::int64_t played = MulDivDown(now - e.start, format_.avg_bytes_per_sec, kNsPerSec);
      played -= played % format_.block_align;
      RecordLocked(e.header->data,
                   static_cast<std::size_t>(std::min<std::int64_t>(played, e.header->buffer_length)));
    }
    for (const Entry& e : queue_) HandBackLocked(e.header, WaveMessage::kDone);
    queue_.clear();
  }

  void OnClosed() override {
    VirtualPlayback copy;
    {
      std::lock_guard lock(record_->mutex);
      record_->playback.open = false;
      copy = record_->playback;
    }
    std::function<void(const VirtualPlayback&)> sink;
    {
      std::lock_guard lock(shared_->mutex);
      sink = shared_->sink;
    }
    if (sink) sink(copy);
  }

  std::shared_ptr<Record> record_;
  const std::size_t limit_;
  std::deque<Entry> queue_;
  std::int64_t run_start_ = 0;
  std::int64_t run_bytes_ = 0;
};

// --- Input: after Start the device makes frames at the format's rate; the lent buffers fill
// in order. Frame f of the device is made at base_time + (f - base_frame) / rate.
class VirtualInStream final : public WaveInStream, public StreamCore {
 public:
  VirtualInStream(std::shared_ptr<SharedState> shared, std::u16string device,
                  const WaveFormat& format, WaveListener* listener,
                  std::shared_ptr<const std::vector<std::int16_t>> microphone, bool loop)
      : StreamCore(std::move(shared), true, std::move(device), format, listener),
        microphone_(std::move(microphone)),
        loop_(loop) {}
  ~VirtualInStream() override { CloseCommon(); }

  int Prepare(WaveHeader* header) override { return PrepareCommon(header); }
  int Unprepare(WaveHeader* header) override { return UnprepareCommon(header); }
  int Reset() override { return ResetCommon(); }
  int Close() override { return CloseCommon(); }

  int AddBuffer(WaveHeader* header) override {
    std::lock_guard lock(mutex_);
    const int result = CheckLendLocked(header, format_.block_align);
    if (result != kWaveOk) return result;
    const std::int64_t now = clock_.SteadyNs();
    CatchUpLocked(now);
    // With nothing lent the device's sound has been lost; filling resumes now.
    if (started_ && queue_.empty()) front_start_ = FrameAtLocked(now);
    header->flags.fetch_and(~kWaveHeaderDone);
    header->flags.fetch_or(kWaveHeaderInQueue);
    header->bytes_recorded = 0;
    queue_.push_back(header);
    if ((started_ && queue_.size() == 1) || !pending_.empty()) PokeLocked();
    return kWaveOk;
  }

  int Start() override {
    std::lock_guard lock(mutex_);
    if (closed_) return kWaveInvalidHandle;
    if (gone_) return kWaveNoDriver;
    if (started_) return kWaveOk;
    started_ = true;
    base_time_ = clock_.SteadyNs();
    base_frame_ = paused_frame_;
    front_start_ = base_frame_;
    if (!queue_.empty()) PokeLocked();
    return kWaveOk;
  }

  int Stop() override {
    std::lock_guard lock(mutex_);
    if (closed_) return kWaveInvalidHandle;
    StopLocked(clock_.SteadyNs());
    if (!pending_.empty()) PokeLocked();
    return kWaveOk;
  }

 private:
  std::int64_t FramesOf(const WaveHeader* header) const {
    return header->buffer_length / format_.block_align;
  }
  std::int64_t FrameAtLocked(std::int64_t t) const {
    return base_frame_ + MulDivDown(t - base_time_, format_.samples_per_sec, kNsPerSec);
  }
  std::int64_t TimeOfFrameLocked(std::int64_t frame) const {
    return base_time_ + MulDivUp(frame - base_frame_, kNsPerSec, format_.samples_per_sec);
  }

  // Frames [first, first + count) of the device into `header`: the microphone's 8 kHz mono
  // samples repeated or skipped to the rate, copied to every channel.
  void FillLocked(WaveHeader* header, std::int64_t first, std::int64_t count) {
    const auto& mic = *microphone_;
    auto* out = reinterpret_cast<std::uint8_t*>(header->data);
    for (std::int64_t i = 0; i < count; ++i) {
      const auto index = static_cast<std::uint64_t>(
          MulDivDown(first + i, kMicRate, format_.samples_per_sec));
      std::int16_t sample = 0;
      if (!mic.empty() && (loop_ || index < mic.size())) sample = mic[index % mic.size()];
      for (int c = 0; c < format_.channels; ++c) {
        if (format_.bits_per_sample == 8) {
          *out++ = static_cast<std::uint8_t>((sample >> 8) + 128);
        } else {
          *out++ = static_cast<std::uint8_t>(sample & 0xFF);
          *out++ = static_cast<std::uint8_t>((sample >> 8) & 0xFF);
        }
      }
    }
    header->bytes_recorded = static_cast<std::uint32_t>(count * format_.block_align);
  }

  void CatchUpLocked(std::int64_t now) override {
    if (!started_) return;
    while (!queue_.empty()) {
      WaveHeader* header = queue_.front();
      const std::int64_t end = front_start_ + FramesOf(header);
      if (TimeOfFrameLocked(end) > now) break;
      queue_.pop_front();
      FillLocked(header, front_start_, FramesOf(header));
      HandBackLocked(header, WaveMessage::kData);
      front_start_ = end;
    }
  }

  std::int64_t DeadlineLocked() const override {
    if (!started_ || queue_.empty()) return kNoDeadline;
    return TimeOfFrameLocked(front_start_ + FramesOf(queue_.front()));
  }

  // The buffer being filled comes back with what it holds; the empty ones stay lent.
  void StopLocked(std::int64_t now) {
    if (!started_) return;
    CatchUpLocked(now);
    paused_frame_ = FrameAtLocked(now);
    if (!queue_.empty() && paused_frame_ > front_start_) {
      WaveHeader* header = queue_.front();
      queue_.pop_front();
      FillLocked(header, front_start_, paused_frame_ - front_start_);
      HandBackLocked(header, WaveMessage::kData);
    }
    started_ = false;
  }

  void ResetLocked(std::int64_t now) override {
    StopLocked(now);
    for (WaveHeader* header : queue_) {
      header->bytes_recorded = 0;
      HandBackLocked(header, WaveMessage::kData);
    }
    queue_.clear();
  }

  std::shared_ptr<const std::vector<std::int16_t>> microphone_;
  const bool loop_;
  std::deque<WaveHeader*> queue_;
  bool started_ = false;
  std::int64_t base_time_ = 0;
  std::int64_t base_frame_ = 0;
  std::int64_t paused_frame_ = 0;  // where the microphone stands while stopped
  std::int64_t front_start_ = 0;   // the frame at which the front buffer began to fill
};

// --- The system

struct VirtualWaveSystem::Impl {
  std::shared_ptr<SharedState> shared;

  // Scheduled presence changes, applied by a thread of their own (made at the first one),
  // which sleeps until the next is due: one wake-up per change.
  struct Change {
    std::int64_t at_ns;
    bool input;
    std::u16string name;
    bool present;
  };
  std::mutex schedule_mutex;
  std::vector<Change> schedule;  // sorted by time, then by order of scheduling
  bool stopping = false;
  ManualResetEvent schedule_wake{"virtual wave schedule"};
  Thread scheduler;  // joined in the destructor, before the members above go

  ~Impl() {
    {
      std::lock_guard lock(schedule_mutex);
      stopping = true;
    }
    schedule_wake.Set();
    scheduler.Join();
  }

  void Schedule(Change change) {
    std::lock_guard lock(schedule_mutex);
    const auto at = std::upper_bound(
        schedule.begin(), schedule.end(), change.at_ns,
        [](std::int64_t t, const Change& c) { return t < c.at_ns; });
    schedule.insert(at, std::move(change));
    if (!scheduler.created()) {
      if (scheduler.Create("vwave-plug", [this](ThreadId) { RunSchedule(); }) != 0) {
        scheduler.Resume();
      }
    }
    schedule_wake.Set();
  }

  void RunSchedule() {
    Clock& clock = shared->clock;
    for (;;) {
      std::vector<Change> due;
      std::int64_t timeout_ms = kIdleWaitMs;
      {
        std::lock_guard lock(schedule_mutex);
        if (stopping) return;
        schedule_wake.Reset();
        const std::int64_t now = clock.SteadyNs();
        auto end = schedule.begin();
        while (end != schedule.end() && end->at_ns <= now) ++end;
        due.assign(std::make_move_iterator(schedule.begin()), std::make_move_iterator(end));
        schedule.erase(schedule.begin(), end);
        if (!schedule.empty()) {
          timeout_ms = std::max<std::int64_t>(1, (schedule.front().at_ns - now + kNsPerMs - 1) /
                                                     kNsPerMs);
        }
      }
      for (const Change& c : due) SetPresent(c.input, c.name, c.present);
      if (due.empty()) clock.WaitFor(schedule_wake, std::chrono::milliseconds(timeout_ms));
    }
  }

  // Under shared->mutex: the device that `id` names, or the reason the open fails.
  int CheckOpenLocked(bool input, int id, const WaveFormat& format, std::u16string* device) {
    const auto& list = input ? shared->inputs : shared->outputs;
    if (id == kWaveMapper ? list.empty() : (id < 0 || id >= static_cast<int>(list.size()))) {
      return kWaveBadDeviceId;
    }
    *device = list[id == kWaveMapper ? 0 : id];
    if (!FormatSupported(format)) return kWaveBadFormat;
    int& fails = input ? shared->fail_inputs : shared->fail_outputs;
    if (fails != 0) {
      if (fails > 0) --fails;
      return input ? shared->fail_input_result : shared->fail_output_result;
    }
    return kWaveOk;
  }

  // Under shared->mutex: starts the stream's thread and counts it open.
  bool LaunchLocked(StreamCore* stream) {
    if (!stream->Launch()) return false;
    ++shared->sequence;
    shared->streams.push_back(stream);
    return true;
  }

  int OpenOut(int id, const WaveFormat& format, WaveListener* listener,
              std::unique_ptr<WaveOutStream>* stream) {
    if (stream == nullptr) return kWaveInvalidParam;
    std::unique_ptr<VirtualOutStream> made;
    {
      std::lock_guard lock(shared->mutex);
      std::u16string device;
      if (const int result = CheckOpenLocked(false, id, format, &device); result != kWaveOk) {
        return result;
      }
      auto record = std::make_shared<Record>();
      record->playback.sequence = shared->sequence + 1;
      record->playback.device = device;
      record->playback.format = format;
      made = std::make_unique<VirtualOutStream>(shared, device, format, listener, record,
                                                shared->recording_limit);
      if (!LaunchLocked(made.get())) return kWaveNoMemory;
      shared->playbacks.push_back(std::move(record));
    }
    if (listener != nullptr) listener->OnWaveMessage(WaveMessage::kOpen, nullptr);
    *stream = std::move(made);
    return kWaveOk;
  }

  int OpenIn(int id, const WaveFormat& format, WaveListener* listener,
             std::unique_ptr<WaveInStream>* stream) {
    if (stream == nullptr) return kWaveInvalidParam;
    std::unique_ptr<VirtualInStream> made;
    {
      std::lock_guard lock(shared->mutex);
      std::u16string device;
      if (const int result = CheckOpenLocked(true, id, format, &device); result != kWaveOk) {
        return result;
      }
      made = std::make_unique<VirtualInStream>(shared, device, format, listener,
                                               shared->microphone, shared->microphone_loop);
      if (!LaunchLocked(made.get())) return kWaveNoMemory;
    }
    if (listener != nullptr) listener->OnWaveMessage(WaveMessage::kOpen, nullptr);
    *stream = std::move(made);
    return kWaveOk;
  }

  void SetPresent(bool input, const std::u16string& full_name, bool present) {
    const std::u16string name = WaveDeviceName(full_name);
    std::lock_guard lock(shared->mutex);
    auto& list = input ? shared->inputs : shared->outputs;
    const bool listed = std::find(list.begin(), list.end(), name) != list.end();
    if (present) {
      if (!listed) list.push_back(name);
      return;
    }
    list.erase(std::remove(list.begin(), list.end(), name), list.end());
    for (StreamCore* stream : shared->streams) {
      if (stream->input() == input && stream->device() == name) stream->MarkGone();
    }
  }
};

VirtualWaveSystem::VirtualWaveSystem(Clock& clock) : impl_(std::make_unique<Impl>()) {
  impl_->shared = std::make_shared<SharedState>(clock);
}

VirtualWaveSystem::~VirtualWaveSystem() = default;

std::vector<std::u16string> VirtualWaveSystem::InputDevices() {
  std::lock_guard lock(impl_->shared->mutex);
  return impl_->shared->inputs;
}

std::vector<std::u16string> VirtualWaveSystem::OutputDevices() {
  std::lock_guard lock(impl_->shared->mutex);
  return impl_->shared->outputs;
}

int VirtualWaveSystem::OpenOut(int id, const WaveFormat& format, WaveListener* listener,
                               std::unique_ptr<WaveOutStream>* stream) {
  return impl_->OpenOut(id, format, listener, stream);
}

int VirtualWaveSystem::OpenIn(int id, const WaveFormat& format, WaveListener* listener,
                              std::unique_ptr<WaveInStream>* stream) {
  return impl_->OpenIn(id, format, listener, stream);
}

void VirtualWaveSystem::SetInputDevices(std::vector<std::u16string> names) {
  for (auto& name : names) name = WaveDeviceName(std::move(name));
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->inputs = std::move(names);
}

void VirtualWaveSystem::SetOutputDevices(std::vector<std::u16string> names) {
  for (auto& name : names) name = WaveDeviceName(std::move(name));
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->outputs = std::move(names);
}

void VirtualWaveSystem::SetInputPresent(const std::u16string& name, bool present) {
  impl_->SetPresent(true, name, present);
}

void VirtualWaveSystem::SetOutputPresent(const std::u16string& name, bool present) {
  impl_->SetPresent(false, name, present);
}

void VirtualWaveSystem::SchedulePresent(bool input, const std::u16string& name, bool present,
                                        std::chrono::milliseconds after) {
  impl_->Schedule(Impl::Change{impl_->shared->clock.SteadyNs() + after.count() * kNsPerMs, input,
                               name, present});
}

void VirtualWaveSystem::FailInputOpens(int count, int result) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->fail_inputs = count;
  impl_->shared->fail_input_result = result;
}

void VirtualWaveSystem::FailOutputOpens(int count, int result) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->fail_outputs = count;
  impl_->shared->fail_output_result = result;
}

void VirtualWaveSystem::SetMicrophone(std::vector<std::int16_t> samples, bool loop) {
  auto shared_samples = std::make_shared<const std::vector<std::int16_t>>(std::move(samples));
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->microphone = std::move(shared_samples);
  impl_->shared->microphone_loop = loop;
}

std::vector<VirtualPlayback> VirtualWaveSystem::Playbacks() const {
  std::vector<std::shared_ptr<Record>> records;
  {
    std::lock_guard lock(impl_->shared->mutex);
    records = impl_->shared->playbacks;
  }
  std::vector<VirtualPlayback> out;
  out.reserve(records.size());
  for (const auto& record : records) {
    std::lock_guard lock(record->mutex);
    out.push_back(record->playback);
  }
  return out;
}

void VirtualWaveSystem::ClearPlaybacks() {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->playbacks.clear();
}

std::uint64_t VirtualWaveSystem::WakeUps() const { return impl_->shared->wakeups.load(); }

int VirtualWaveSystem::OpenStreams() const {
  std::lock_guard lock(impl_->shared->mutex);
  return static_cast<int>(impl_->shared->streams.size());
}

void VirtualWaveSystem::SetPlaybackSink(std::function<void(const VirtualPlayback&)> sink) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->sink = std::move(sink);
}

void VirtualWaveSystem::SetRecordingLimit(std::size_t bytes) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->recording_limit = bytes;
}

int VirtualWaveSystem::WaitingStreams() const {
  std::lock_guard lock(impl_->shared->mutex);
  const std::int64_t now = impl_->shared->clock.SteadyNs();
  int waiting = 0;
  for (const StreamCore* stream : impl_->shared->streams) waiting += stream->Waiting(now);
  return waiting;
}

// --- Configuration from the environment

namespace {

std::vector<std::string> Split(const std::string& text, const char* separators) {
  std::vector<std::string> parts;
  std::string part;
  for (char c : text) {
    if (std::string_view(separators).find(c) != std::string_view::npos) {
      parts.push_back(part);
      part.clear();
    } else {
      part.push_back(c);
    }
  }
  parts.push_back(part);
  return parts;
}

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool ParseInt(const std::string& text, int min, int max, int* out) {
  if (text.empty() || text.size() > 9) return false;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  if (value < min || value > max) return false;
  *out = value;
  return true;
}

std::vector<std::u16string> ParseNames(const std::string& text) {
  std::vector<std::u16string> names;
  for (const auto& part : Split(text, ";")) {
    const std::string name = Trim(part);
    if (!name.empty()) names.push_back(WaveDeviceName(Utf8ToUtf16(name)));
  }
  return names;
}

// "in", "out", "in=2", "out=1@4", separated by ',' or ';'.
void ParseFailures(const std::string& text, VirtualWaveSettings* s) {
  for (const auto& raw : Split(text, ",;")) {
    const std::string item = Trim(raw);
    if (item.empty()) continue;
    std::string which = item, count_text, result_text;
    if (const auto eq = item.find('='); eq != std::string::npos) {
      which = Trim(item.substr(0, eq));
      count_text = Trim(item.substr(eq + 1));
      if (const auto at = count_text.find('@'); at != std::string::npos) {
        result_text = Trim(count_text.substr(at + 1));
        count_text = Trim(count_text.substr(0, at));
      }
    }
    int count = -1, result = kWaveError;
    const bool ok = (which == "in" || which == "out") &&
                    (count_text.empty() || ParseInt(count_text, 0, 1'000'000, &count)) &&
                    (result_text.empty() || ParseInt(result_text, 1, 1000, &result));
    if (!ok) {
      s->problems.push_back("DESKLINE_AUDIO_FAIL_OPEN: cannot understand \"" + item + "\"");
      continue;
    }
    (which == "in" ? s->fail_input_opens : s->fail_output_opens) = count;
    (which == "in" ? s->fail_input_result : s->fail_output_result) = result;
  }
}

// "in:NAME@FROM" or "out:NAME@FROM-TO" (milliseconds), separated by ';'.
void ParseUnplugs(const std::string& text, VirtualWaveSettings* s) {
  for (const auto& raw : Split(text, ";")) {
    const std::string item = Trim(raw);
    if (item.empty()) continue;
    const auto colon = item.find(':');
    const auto at = item.rfind('@');
    VirtualWaveSettings::Unplug unplug;
    bool ok = colon != std::string::npos && at != std::string::npos && at > colon;
    if (ok) {
      const std::string which = Trim(item.substr(0, colon));
      const std::string name = Trim(item.substr(colon + 1, at - colon - 1));
      std::string from = Trim(item.substr(at + 1)), to;
      if (const auto dash = from.find('-'); dash != std::string::npos) {
        to = Trim(from.substr(dash + 1));
        from = Trim(from.substr(0, dash));
      }
      int from_ms = 0, to_ms = -1;
      ok = (which == "in" || which == "out") && !name.empty() &&
           ParseInt(from, 0, 100'000'000, &from_ms) &&
           (to.empty() || (ParseInt(to, 0, 100'000'000, &to_ms) && to_ms >= from_ms));
      unplug = {which == "in", WaveDeviceName(Utf8ToUtf16(name)), from_ms, to_ms};
    }
    if (!ok) {
      s->problems.push_back("DESKLINE_AUDIO_UNPLUG: cannot understand \"" + item + "\"");
      continue;
    }
    s->unplugs.push_back(std::move(unplug));
  }
}

// The sound at 8 kHz mono: channels averaged, samples repeated or skipped.
std::vector<std::int16_t> ToMicrophone(const WavSound& sound) {
  const int channels = std::max<int>(1, sound.format.channels);
  const std::size_t frames = sound.data.size() / (2 * channels);
  const std::uint32_t rate = std::max<std::uint32_t>(1, sound.format.samples_per_sec);
  const auto count = static_cast<std::size_t>(MulDivDown(
      static_cast<std::int64_t>(frames), kMicRate, rate));
  std::vector<std::int16_t> out(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto frame = static_cast<std::size_t>(MulDivDown(static_cast<std::int64_t>(i), rate, kMicRate));
    int sum = 0;
    for (int c = 0; c < channels; ++c) {
      const std::size_t at = (frame * channels + c) * 2;
      sum += static_cast<std::int16_t>(sound.data[at] | (sound.data[at + 1] << 8));
    }
    out[i] = static_cast<std::int16_t>(sum / channels);
  }
  return out;
}

// The recorded bytes as 16-bit samples (8-bit outputs are widened).
std::vector<std::uint8_t> As16Bit(const VirtualPlayback& p, WaveFormat* format) {
  *format = p.format;
  if (p.format.bits_per_sample != 8) return p.data;
  std::vector<std::uint8_t> out;
  out.reserve(p.data.size() * 2);
  for (std::uint8_t b : p.data) {
    const auto s = static_cast<std::int16_t>((b - 128) * 256);
    out.push_back(static_cast<std::uint8_t>(s & 0xFF));
    out.push_back(static_cast<std::uint8_t>((s >> 8) & 0xFF));
  }
  format->bits_per_sample = 16;
  format->block_align = static_cast<std::uint16_t>(format->channels * 2);
  format->avg_bytes_per_sec = format->samples_per_sec * format->block_align;
  return out;
}

bool AppendLine(const std::string& path, const std::string& line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string text = line + "\n";
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return ::close(fd) == 0 && ok;
}

}  // namespace

VirtualWaveSettings ParseVirtualWaveSettings(const EnvironmentReader& read) {
  VirtualWaveSettings s;
  if (auto v = read("DESKLINE_AUDIO_INPUTS")) {
    s.inputs_set = true;
    s.inputs = ParseNames(*v);
  }
  if (auto v = read("DESKLINE_AUDIO_OUTPUTS")) {
    s.outputs_set = true;
    s.outputs = ParseNames(*v);
  }
  if (auto v = read("DESKLINE_AUDIO_FAIL_OPEN")) ParseFailures(*v, &s);
  if (auto v = read("DESKLINE_AUDIO_MIC")) s.microphone_file = *v;
  if (auto v = read("DESKLINE_AUDIO_MIC_LOOP")) {
    const std::string flag = Trim(*v);
    if (flag == "1" || flag == "yes" || flag == "true" || flag == "on") {
      s.microphone_loop = true;
    } else if (!(flag.empty() || flag == "0" || flag == "no" || flag == "false" || flag == "off")) {
      s.problems.push_back("DESKLINE_AUDIO_MIC_LOOP: cannot understand \"" + flag + "\"");
    }
  }
  if (auto v = read("DESKLINE_AUDIO_RECORD")) s.record_folder = *v;
  if (auto v = read("DESKLINE_AUDIO_UNPLUG")) ParseUnplugs(*v, &s);
  return s;
}

bool ApplyVirtualWaveSettings(const VirtualWaveSettings& settings, VirtualWaveSystem& system,
                              std::string* problem) {
  bool ok = true;
  auto fail = [&](std::string text) {
    ok = false;
    if (problem != nullptr) *problem = std::move(text);
  };
  if (settings.inputs_set) system.SetInputDevices(settings.inputs);
  if (settings.outputs_set) system.SetOutputDevices(settings.outputs);
  system.FailInputOpens(settings.fail_input_opens, settings.fail_input_result);
  system.FailOutputOpens(settings.fail_output_opens, settings.fail_output_result);
  if (!settings.microphone_file.empty()) {
    WavSound sound;
    if (ReadWavFile(settings.microphone_file, &sound)) {
      system.SetMicrophone(ToMicrophone(sound), settings.microphone_loop);
    } else {
      fail("DESKLINE_AUDIO_MIC: cannot read " + settings.microphone_file);
    }
  }
  for (const auto& u : settings.unplugs) {
    system.SchedulePresent(u.input, u.name, false, std::chrono::milliseconds(u.from_ms));
    if (u.back_ms >= 0) {
      system.SchedulePresent(u.input, u.name, true, std::chrono::milliseconds(u.back_ms));
    }
  }
  if (!settings.record_folder.empty()) {
    if (!CreateDirectories(settings.record_folder)) {
      fail("DESKLINE_AUDIO_RECORD: cannot make the folder " + settings.record_folder);
    } else {
      system.SetPlaybackSink([folder = settings.record_folder](const VirtualPlayback& p) {
        WritePlaybackRecord(folder, p);
      });
    }
  }
  return ok;
}

std::string PeakDbfs(const VirtualPlayback& p) {
  WaveFormat format;
  const std::vector<std::uint8_t> data = As16Bit(p, &format);
  int peak = 0;
  for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
    const int s = static_cast<std::int16_t>(data[i] | (data[i + 1] << 8));
    peak = std::max(peak, s < 0 ? -s : s);
  }
  if (peak == 0) return "-inf";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", 20.0 * std::log10(peak / 32768.0));
  return std::string(text) == "-0.0" ? "0.0" : text;
}

std::string PlaybackFileName(const VirtualPlayback& p) {
  std::string device;
  for (char16_t c : p.device) {
    const bool plain = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
                       (c >= u'0' && c <= u'9') || c == u'-' || c == u'.';
    if (c >= 0xDC00 && c < 0xE000) continue;  // the second half of a pair: one '_' in all
    device.push_back(plain ? static_cast<char>(c) : '_');
  }
  char prefix[40];
  std::snprintf(prefix, sizeof prefix, "out-%04llu-", static_cast<unsigned long long>(p.sequence));
  return prefix + device + ".wav";
}

std::string PlaybackLogLine(const VirtualPlayback& p, const std::string& file_name) {
  std::string device = Utf16ToUtf8(p.device);
  for (char& c : device) {
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  }
  return std::to_string(p.sequence) + '\t' + device + '\t' +
         std::to_string(p.format.samples_per_sec) + '\t' + std::to_string(p.format.channels) +
         '\t' + std::to_string(p.format.bits_per_sample) + '\t' + std::to_string(p.writes) +
         '\t' + std::to_string(p.bytes_played) + '\t' + PeakDbfs(p) + '\t' + file_name;
}

bool WritePlaybackRecord(const std::string& folder, const VirtualPlayback& p) {
  WaveFormat format;
  std::vector<std::uint8_t> data = As16Bit(p, &format);
  data.resize(data.size() - data.size() % format.block_align);  // whole frames only
  std::string name = PlaybackFileName(p);
  const bool wav_ok = WriteWavFile(folder + "/" + name, format, data);
  if (!wav_ok) name = "-";
  const bool log_ok = AppendLine(folder + "/playback.log", PlaybackLogLine(p, name));
  return wav_ok && log_ok;
}

}  // namespace deskline::platform
