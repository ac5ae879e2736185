#include "mgcp/mgcp_text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mgcp/mgcp_types.h"

namespace deskline {

void MgcpPacket::Assign(std::string_view text) {
  const std::size_t n = text.size() < kMgcpPacketSize ? text.size() : kMgcpPacketSize;
  data.fill('\0');
  if (n > 0) std::memcpy(data.data(), text.data(), n);
  length = static_cast<std::uint32_t>(n);
}


namespace mgcp_text {

std::uint32_t ReadDecimal(std::string_view text, std::size_t pos) {
  while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
  std::uint32_t value = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    value = value * 10u + static_cast<std::uint32_t>(text[pos] - '0');
    ++pos;
  }
  return value;
}

std::optional<std::uint32_t> ReadTransactionWord(std::string_view word) {
  std::size_t pos = 0;
  while (pos < word.size() && (word[pos] == ' ' || word[pos] == '\t')) ++pos;
  std::uint64_t value = 0;
  while (pos < word.size() && word[pos] >= '0' && word[pos] <= '9') {
    value = value * 10u + static_cast<std::uint64_t>(word[pos] - '0');
    if (value > 0xFFFFFFFFu) return std::nullopt;
    ++pos;
  }
  return static_cast<std::uint32_t>(value);
}

bool TextWriter::Append(std::string_view text) {
  if (!ok_) return false;
  if (capacity_ - size_ < text.size()) {
    ok_ = false;
    return false;
  }
  if (!text.empty()) std::memcpy(buffer_ + size_, text.data(), text.size());
  size_ += text.size();
  return true;
}

bool TextWriter::Format(const char* format, ...) {
  if (!ok_) return false;
  // Formatted lines are short; one spare byte takes vsnprintf's terminator.
  char line[kMgcpPacketSize + 1];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (n < 0 || static_cast<std::size_t>(n) >= sizeof(line)) {
    ok_ = false;
    return false;
  }
  return Append(std::string_view(line, static_cast<std::size_t>(n)));
}

}  // namespace mgcp_text
}  // namespace deskline
