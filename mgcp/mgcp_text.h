// Small text tools shared by the MGCP readers and writers: bounded number reading and a writer
// that never passes the end of its buffer. Internal to mgcp/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace deskline::mgcp_text {

// True if `text` holds `literal` at `pos` (false when it would run past the end).
inline bool At(std::string_view text, std::size_t pos, std::string_view literal) {
  return pos <= text.size() && text.size() - pos >= literal.size() &&
         text.compare(pos, literal.size(), literal) == 0;
}

// The decimal number at `pos` in the manner of atoi: leading blanks and tabs skipped, digits up
// to the first non-digit, nothing read gives 0. Wraps modulo 2^32 rather than overflowing.
std::uint32_t ReadDecimal(std::string_view text, std::size_t pos);

// Digits of a transaction id word: as ReadDecimal over `word`, but nullopt if the number does
// not fit in 32 bits.
std::optional<std::uint32_t> ReadTransactionWord(std::string_view word);

// Appends text to a fixed buffer. Once something does not fit, the writer fails and writes no
// more; what it wrote stays within [buffer, buffer + capacity).
class TextWriter {
 public:
  TextWriter(char* buffer, std::size_t capacity, std::size_t start = 0)
      : buffer_(buffer), capacity_(capacity), size_(start <= capacity ? start : capacity),
        ok_(start <= capacity) {}

  bool Append(std::string_view text);
  bool Format(const char* format, ...) __attribute__((format(printf, 2, 3)));

  std::size_t size() const { return size_; }
  bool ok() const { return ok_; }

 private:
  char* buffer_;
  std::size_t capacity_;
  std::size_t size_;
  bool ok_;
};

}  // namespace deskline::mgcp_text
