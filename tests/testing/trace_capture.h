// Sends the tracer to a fresh temporary file for the life of the object, and reads it back.
#pragma once

#include <string>
#include <vector>

namespace deskline::testing {

class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();  // shuts the tracer down and removes the file
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::string Text() const;
  // Message parts of the stamped lines (what follows the stamp), without the line end.
  std::vector<std::string> Messages() const;
  bool Has(const std::string& message) const;
  int Count(const std::string& message) const;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace deskline::testing
