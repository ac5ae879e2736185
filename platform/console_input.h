// Lines typed on standard input, read on a thread of their own and handed to the program's
// main loop. The reader looks for input a tenth of a second at a time, so Stop ends and joins
// it promptly even while nobody types.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "platform/event.h"
#include "platform/thread.h"

namespace deskline::platform {

class ConsoleInput {
 public:
  // Reads up to `size` bytes within `timeout_ms`: the count, 0 at the end of input, -1 when
  // nothing came. ReadStandardInput unless a test hands in another.
  using Read = std::function<long(char* buffer, std::size_t size, int timeout_ms)>;
  // A line without its end that outgrows this is handed over as it stands, so input cannot
  // grow memory without bound.
  static constexpr std::size_t kMaxLineBytes = 4096;

  explicit ConsoleInput(Read read = {});
  ~ConsoleInput();  // Stop
  ConsoleInput(const ConsoleInput&) = delete;
  ConsoleInput& operator=(const ConsoleInput&) = delete;

  // Starts the reader. False if the thread cannot be made.
  bool Start();
  // Ends and joins the reader; lines already read stay. Safe to repeat.
  void Stop();

  // The oldest line not yet taken; false when none is waiting. Any thread.
  bool Take(std::string* line);
  // True once the input has ended and every line has been taken.
  bool ended() const;
  // Lines read so far, taken or not: a line's number is the count before it was read.
  std::uint64_t lines_read() const;
  // Takes the first waiting line numbered `first` or later for which `match` holds.
  bool TakeFirstSince(std::uint64_t first, const std::function<bool(const std::string&)>& match);

 private:
  void Loop();
  void Push(std::string line);

  Read read_;
  ManualResetEvent stop_{"console input stop"};
  Thread thread_;
  mutable std::mutex mutex_;
  std::deque<std::pair<std::uint64_t, std::string>> lines_;
  std::uint64_t lines_read_ = 0;
  bool input_ended_ = false;
};

}  // namespace deskline::platform
