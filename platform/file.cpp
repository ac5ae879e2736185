#include "platform/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace deskline::platform {

bool OutputFile::OpenTruncate(const std::string& path) {
  Close();
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return fd_ >= 0;
}

bool OutputFile::Write(std::string_view bytes) {
  if (fd_ < 0) return false;
  ssize_t written;
  do {
    written = ::write(fd_, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(bytes.size());
}

void OutputFile::Close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

}  // namespace deskline::platform
