#include "support/tracer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace deskline {
namespace {

constexpr char kBeginBanner[] =
    "===============================[ TRACE BEGIN ]================== RELEASE BUILD\r\n";
constexpr char kEndBanner[] =
    "================================[ TRACE END ]=================================\r\n";

std::atomic<platform::Clock*> g_clock{nullptr};

platform::Clock& TraceClock() {
  platform::Clock* clock = g_clock.load(std::memory_order_acquire);
  return clock ? *clock : platform::RealClock();
}

// vsnprintf into `buffer`, keeping room for `reserve` more bytes; returns the length written.
std::size_t FormatInto(char* buffer, std::size_t size, std::size_t reserve, const char* format,
                       va_list args) {
  const int n = std::vsnprintf(buffer, size - reserve, format, args);
  if (n < 0) {
    buffer[0] = '\0';
    return 0;
  }
  return std::min(static_cast<std::size_t>(n), size - reserve - 1);
}

}  // namespace

// The tracer object is never freed: threads of the independent Audio lifetime may trace at
// any moment, so "destroying" it resets it in place, which is what a caller can observe.
CTracer& CTracer::Instance() {
  static CTracer* tracer = new CTracer();
  return *tracer;
}

void CTracer::SetClock(platform::Clock* clock) { g_clock.store(clock, std::memory_order_release); }

void CTracer::ResetLocked() {
  if (fresh_) {
    start_ns_ = TraceClock().SteadyNs();
    fresh_ = false;
  }
}

int CTracer::Startup(const char* filename, std::uint32_t filter) {
  std::lock_guard lock(lock_);
  ResetLocked();
  filter_.store(filter, std::memory_order_relaxed);
  enabled_ = false;
  if (file_.is_open()) return 1;
  if (!file_.OpenTruncate(filename ? filename : kDefaultFile)) return -1;
  enabled_ = true;
  if (filter & TRACE_ALL) WriteLocked(kBeginBanner, sizeof(kBeginBanner) - 1);
  WriteLocked("\r\n", 2);
  return 0;
}

void CTracer::Shutdown() {
  CTracer& self = Instance();
  std::lock_guard lock(self.lock_);
  self.WriteLocked("\r\n", 2);
  if (self.filter() & TRACE_ALL) self.WriteLocked(kEndBanner, sizeof(kEndBanner) - 1);
  self.file_.Close();
  self.enabled_ = false;
  self.filter_.store(0, std::memory_order_relaxed);
  self.fresh_ = true;
}

void CTracer::WriteLocked(const char* bytes, std::size_t length) {
  if (enabled_ && file_.is_open()) file_.Write(std::string_view(bytes, length));
}

void CTracer::Trace(std::uint32_t level, const char* format, ...) {
  if ((level & filter()) == 0) return;
  std::lock_guard lock(lock_);
  ResetLocked();
  if (!format || !enabled_) return;
  va_list args;
  va_start(args, format);
  std::size_t length = FormatInto(message_, kBufferSize, 2, format, args);
  va_end(args);
  std::memcpy(message_ + length, "\r\n", 3);

  platform::Clock& clock = TraceClock();
  const float seconds = static_cast<float>(clock.SteadyNs() - start_ns_) / 1e9f;
  const platform::CivilTime now = clock.LocalNow();
  int n = std::snprintf(line_, kBufferSize, "%d/%d/%d  %d:%02d  %6.2f  %s", now.day, now.month,
                        now.year, now.hour, now.minute, static_cast<double>(seconds), message_);
  std::size_t line_length = n < 0 ? 0 : static_cast<std::size_t>(n);
  if (line_length >= kBufferSize) {
    // Cut, but keep the line end so that the next line starts on a line of its own.
    line_length = kBufferSize - 1;
    line_[line_length - 2] = '\r';
    line_[line_length - 1] = '\n';
    line_[line_length] = '\0';
  }
  WriteLocked(line_, line_length);
}

void CTracer::Print(std::uint32_t level, const char* format, ...) {
  if ((level & filter()) == 0) return;
  std::lock_guard lock(lock_);
  if (!format) return;
  va_list args;
  va_start(args, format);
  const std::size_t length = FormatInto(message_, kBufferSize, 0, format, args);
  va_end(args);
  WriteLocked(message_, length);
}

void CTracer::AddFilter(std::uint32_t mask) {
  if (mask == 0) {
    filter_.store(0, std::memory_order_relaxed);
  } else {
    filter_.fetch_or(mask, std::memory_order_relaxed);
  }
}

void CTracer::RemoveFilter(std::uint32_t mask) {
  filter_.fetch_and(~mask, std::memory_order_relaxed);
}

void CTracer::SetFilter(std::uint32_t mask) { filter_.store(mask, std::memory_order_relaxed); }

}  // namespace deskline
