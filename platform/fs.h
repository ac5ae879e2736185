// Files, folders and the environment: what the settings store and the ini reader need from
// the file system. Paths are UTF-8. No function throws; all may be called from any thread
// (the environment functions with the caveat below).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace deskline::platform {

// Files larger than this are refused by ReadWholeFile: the engine only reads small
// configuration files, and a path pointed at a device must not read forever.
inline constexpr std::size_t kMaxReadFileBytes = 16 * 1024 * 1024;

// The whole content of a regular file, or nullopt if it is missing, unreadable, not a
// regular file, or longer than `max_bytes`. Any thread.
std::optional<std::string> ReadWholeFile(const std::string& path,
                                         std::size_t max_bytes = kMaxReadFileBytes);

// Replaces `path` with `bytes` so that a reader sees the old content or the new, never a
// part: a temporary file in the same folder is written, synced and renamed over `path`.
// An existing file's permission bits are kept. False (and `path` untouched) on any failure.
bool WriteFileAtomically(const std::string& path, std::string_view bytes);

// An exclusive advisory lock held for the object's life, on a lock file that is created when
// missing. Excludes other processes and other FileLock objects of this process alike.
class FileLock {
 public:
  // Waits up to `timeout_ms` for the lock (negative: without limit). See locked().
  explicit FileLock(const std::string& lock_path, int timeout_ms = -1);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // True if the lock is held; false if the file could not be opened or the wait ran out.
  bool locked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_ = false;
};

// True if anything (file, folder, link) is at `path`.
bool PathExists(const std::string& path);

// Creates `path` and its missing parents. True if `path` is a folder afterwards.
bool CreateDirectories(const std::string& path);

// The process's current directory, or "" if it cannot be told (e.g. it was removed).
std::string CurrentDirectory();

// The value of an environment variable; nullopt if it is unset (set but empty gives "").
// Not safe against a concurrent SetEnvironment, like the C library beneath it.
std::optional<std::string> GetEnvironment(const char* name);
// Sets (or, with a null value, removes) an environment variable. For tests and tools that
// point the engine at other files; call it before engine threads start. False on failure.
bool SetEnvironment(const char* name, const char* value);

// The user's home folder: $HOME when set and not empty, else the password database's entry.
std::optional<std::string> HomeDirectory();

}  // namespace deskline::platform
