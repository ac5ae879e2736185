#include "testing/trace_capture.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/tracer.h"

namespace deskline::testing {

TraceCapture::TraceCapture() {
  static std::atomic<int> counter{0};
  const auto dir = std::filesystem::temp_directory_path();
  path_ = (dir / ("deskline-trace-" + std::to_string(::getpid()) + "-" +
                  std::to_string(counter++) + ".log"))
              .string();
  CTracer::Shutdown();
  CTracer::Instance().Startup(path_.c_str(), TRACE_ALL);
}

TraceCapture::~TraceCapture() {
  CTracer::Shutdown();
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

std::string TraceCapture::Text() const {
  std::ifstream in(path_, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::vector<std::string> TraceCapture::Messages() const {
  std::vector<std::string> messages;
  std::istringstream in(Text());
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    // "d/m/yyyy  h:mm  seconds  message": the message follows the third double blank.
    std::size_t pos = 0;
    bool stamped = true;
    for (int i = 0; i < 3 && stamped; ++i) {
      pos = line.find("  ", pos);
      if (pos == std::string::npos) {
        stamped = false;
        break;
      }
      pos += 2;
      while (i == 1 && pos < line.size() && line[pos] == ' ') ++pos;  // the %6.2f padding
    }
    if (stamped) messages.push_back(line.substr(pos));
  }
  return messages;
}

bool TraceCapture::Has(const std::string& message) const { return Count(message) > 0; }

int TraceCapture::Count(const std::string& message) const {
  int n = 0;
  for (const auto& m : Messages()) n += (m == message);
  return n;
}

}  // namespace deskline::testing
