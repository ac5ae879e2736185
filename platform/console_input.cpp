#include "platform/console_input.h"

#include "platform/host_process.h"

namespace deskline::platform {

ConsoleInput::ConsoleInput(Read read) : read_(read ? std::move(read) : Read(ReadStandardInput)) {}

ConsoleInput::~ConsoleInput() { Stop(); }

bool ConsoleInput::Start() {
  if (thread_.created()) return true;
  stop_.Reset();
  if (thread_.Create("console input", [this](ThreadId) { Loop(); }) == 0) return false;
  thread_.Resume();
  return true;
}

void ConsoleInput::Stop() {
  stop_.Set();
  thread_.Join();
}

void ConsoleInput::Loop() {
  std::string pending;
  char buffer[512];
  while (!stop_.IsSet()) {
    const long got = read_(buffer, sizeof(buffer), 100);
    if (got < 0) continue;
    if (got == 0) break;
    pending.append(buffer, static_cast<std::size_t>(got));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      Push(pending.substr(0, end));
      pending.erase(0, end + 1);
    }
    if (pending.size() > kMaxLineBytes) {
      Push(std::move(pending));
      pending.clear();
    }
  }
  if (!pending.empty()) Push(std::move(pending));
  std::lock_guard lock(mutex_);
  input_ended_ = true;
}

void ConsoleInput::Push(std::string line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(lines_read_++, std::move(line));
}

bool ConsoleInput::Take(std::string* line) {
  std::lock_guard lock(mutex_);
  if (lines_.empty()) return false;
  *line = std::move(lines_.front().second);
  lines_.pop_front();
  return true;
}

bool ConsoleInput::ended() const {
  std::lock_guard lock(mutex_);
  return input_ended_ && lines_.empty();
}

std::uint64_t ConsoleInput::lines_read() const {
  std::lock_guard lock(mutex_);
  return lines_read_;
}

bool ConsoleInput::TakeFirstSince(std::uint64_t first,
                                  const std::function<bool(const std::string&)>& match) {
  std::lock_guard lock(mutex_);
  for (auto it = lines_.begin(); it != lines_.end(); ++it) {
    if (it->first >= first && match(it->second)) {
      lines_.erase(it);
      return true;
    }
  }
  return false;
}

}  // namespace deskline::platform
