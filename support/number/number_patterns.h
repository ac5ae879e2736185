// The formatter's patterns, compiled once. Boost.Regex runs them over a copy of the 16-bit
// text widened to wchar_t: libstdc++ has no ctype<char16_t>, and the widened copy keeps an
// unpaired surrogate an ordinary (illegal) character instead of a decoding error.
//
// This header keeps Boost.Regex out of its users: only number_patterns.cpp instantiates it.
// Not thread-safe; the owner serialises.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace deskline {

class NumberPatterns {
 public:
  // Compiles the patterns. Throws what the regex library or the allocator throws.
  NumberPatterns();
  ~NumberPatterns();
  NumberPatterns(const NumberPatterns&) = delete;
  NumberPatterns& operator=(const NumberPatterns&) = delete;

  // True if the whole text matches "(^[+][0-9]*)$|(^[0-9]+)$": digits, or '+' and digits.
  bool IsLeading(std::u16string_view text) const;
  // True if the whole text matches "(^[0-9]*)$": digits or nothing.
  bool IsAdded(std::u16string_view text) const;
  // The characters of `text` that match "[0-9+*#PW]", each judged alone, in their order.
  std::u16string KeepLegal(std::u16string_view text) const;
  // `text` with every "(0)" removed ("[(][0][)]").
  std::u16string StripZeroInBrackets(std::u16string_view text) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace deskline
