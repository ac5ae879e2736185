// A write-only file whose every Write is one system call, so that a line is in the file
// (visible to readers) when the call returns.
#pragma once

#include <string>
#include <string_view>

namespace deskline::platform {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile() { Close(); }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates or truncates `path` (UTF-8). False if it cannot be opened.
  bool OpenTruncate(const std::string& path);
  // Writes all of `bytes` in one call. False on any failure or short write.
  bool Write(std::string_view bytes);
  void Close();
  bool is_open() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace deskline::platform
