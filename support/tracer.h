// The engine's one diagnostic output: a text file of stamped lines, filtered by level.
//
// Thread rules: Trace and Print may be called from any thread at any time, also before
// Startup and after Shutdown (the line is then dropped). Startup and Shutdown are serialised
// with them by one leaf lock; the filter setters take no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/clock.h"
#include "platform/file.h"

namespace deskline {

inline constexpr std::uint32_t TRACE_STATUS = 0x1;
inline constexpr std::uint32_t TRACE_DETAIL = 0x2;
inline constexpr std::uint32_t TRACE_WARNING = 0x4;
inline constexpr std::uint32_t TRACE_ERROR = 0x8;
inline constexpr std::uint32_t TRACE_CRITICAL = 0x10;
inline constexpr std::uint32_t TRACE_ALL = 0xffffffff;

class CTracer {
 public:
  static constexpr std::size_t kBufferSize = 512;
  static constexpr const char* kDefaultFile = "trace.log";

  // The singleton. After Shutdown the next call gives a fresh tracer: filter 0, no file.
  static CTracer& Instance();
  // Writes the end banner, closes the file and discards the tracer.
  static void Shutdown();

  // 0 opened; 1 a file was already open (tracing is then off until the next Startup after
  // Shutdown); -1 the file cannot be created. A null name means "trace.log".
  int Startup(const char* filename, std::uint32_t filter);

  // A stamped line: "d/m/yyyy  h:mm  seconds  message\r\n". A message that does not fit its
  // 512-byte buffer is cut, and the line keeps its line end.
  void Trace(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  // The formatted text alone, with no stamp and no line end.
  void Print(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  void AddFilter(std::uint32_t mask);  // 0 clears the filter
  void RemoveFilter(std::uint32_t mask);
  void SetFilter(std::uint32_t mask);
  std::uint32_t filter() const { return filter_.load(std::memory_order_relaxed); }

  // Tests run the stamp on a simulated clock. Not owned; must outlive the tracer's use.
  static void SetClock(platform::Clock* clock);

 private:
  CTracer() = default;
  void ResetLocked();
  void WriteLocked(const char* bytes, std::size_t length);

  std::atomic<std::uint32_t> filter_{0};
  std::mutex lock_;
  bool enabled_ = false;
  bool fresh_ = true;  // the start tick is taken at the first use after construction or Shutdown
  std::int64_t start_ns_ = 0;
  platform::OutputFile file_;
  char message_[kBufferSize] = {};
  char line_[kBufferSize] = {};
};

// Shorthand for CTracer::Instance().Trace(...).
#define DL_TRACE(level, ...) ::deskline::CTracer::Instance().Trace((level), __VA_ARGS__)

}  // namespace deskline
