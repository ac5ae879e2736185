#include "platform/fs.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

namespace deskline::platform {
namespace {

int OpenRetrying(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string ParentFolder(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Makes the rename itself durable; a failure here is not worth failing the write for.
void SyncFolder(const std::string& folder) {
  const int fd = OpenRetrying(folder.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

std::atomic<unsigned> g_temp_counter{0};

}  // namespace

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t max_bytes) {
  // Non-blocking open so that a FIFO at `path` cannot stall us; regular files ignore the flag.
  const int fd = OpenRetrying(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return std::nullopt;
  }
  std::string content;
  char chunk[4096];
  for (;;) {
    const ssize_t got = ::read(fd, chunk, sizeof(chunk));
    if (got < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    if (content.size() + static_cast<std::size_t>(got) > max_bytes) {
      ::close(fd);
      return std::nullopt;
    }
    content.append(chunk, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return content;
}

bool WriteFileAtomically(const std::string& path, std::string_view bytes) {
  if (path.empty()) return false;
  // A name of our own per attempt; O_EXCL guards against a leftover of a crashed process.
  std::string temp;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temp = path + ".tmp." + std::to_string(::getpid()) + "." +
           std::to_string(g_temp_counter.fetch_add(1, std::memory_order_relaxed));
    fd = OpenRetrying(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0 && errno != EEXIST) return false;
  }
  if (fd < 0) return false;

  bool ok = true;
  struct stat existing {};
  if (::stat(path.c_str(), &existing) == 0) {
    if (!S_ISREG(existing.st_mode)) ok = false;  // never replace a folder or a device
    if (ok) ::fchmod(fd, existing.st_mode & 07777);
  }
  ok = ok && WriteAll(fd, bytes) && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  ok = ok && ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(temp.c_str());
    return false;
  }
  SyncFolder(ParentFolder(path));
  return true;
}

FileLock::FileLock(const std::string& lock_path, int timeout_ms) {
  fd_ = OpenRetrying(lock_path.c_str(), O_RDWR | O_CREAT, 0666);
  if (fd_ < 0) fd_ = OpenRetrying(lock_path.c_str(), O_RDONLY);  // someone else's lock file
  if (fd_ < 0) return;

  if (timeout_ms < 0) {
    int result;
    do {
      result = ::flock(fd_, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    locked_ = result == 0;
    return;
  }
  // flock has no timed form: poll without blocking, a few milliseconds apart.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
      locked_ = true;
      return;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) return;
    if (std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) {
    if (locked_) ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

bool PathExists(const std::string& path) {
  struct stat info {};
  return !path.empty() && ::lstat(path.c_str(), &info) == 0;
}

bool CreateDirectories(const std::string& path) {
  if (path.empty()) return false;
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path, error);
}

std::string CurrentDirectory() {
  std::error_code error;
  std::filesystem::path current = std::filesystem::current_path(error);
  return error ? std::string() : current.string();
}

std::optional<std::string> GetEnvironment(const char* name) {
  if (!name) return std::nullopt;
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

bool SetEnvironment(const char* name, const char* value) {
  if (!name || !*name) return false;
  return (value ? ::setenv(name, value, 1) : ::unsetenv(name)) == 0;
}

std::optional<std::string> HomeDirectory() {
  if (std::optional<std::string> home = GetEnvironment("HOME"); home && !home->empty()) {
    return home;
  }
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < (1u << 20)) {
    buffer.resize(buffer.size() * 2);
  }
  if (!found || !found->pw_dir || !*found->pw_dir) return std::nullopt;
  return std::string(found->pw_dir);
}

}  // namespace deskline::platform
