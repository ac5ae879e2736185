#include "support/number/number_patterns.h"

#include <array>

#include <boost/regex.hpp>

namespace deskline {
namespace {

std::wstring Widen(std::u16string_view text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (char16_t c : text) wide.push_back(static_cast<wchar_t>(c));
  return wide;
}

// Every character of a widened text came from a char16_t, so it narrows back unchanged.
void AppendNarrow(std::u16string& out, std::wstring_view wide) {
  for (wchar_t c : wide) out.push_back(static_cast<char16_t>(c));
}

}  // namespace

struct NumberPatterns::Impl {
  Impl() {
    for (std::size_t c = 0; c < legal_ascii.size(); ++c) {
      const wchar_t one = static_cast<wchar_t>(c);
      legal_ascii[c] = boost::regex_match(&one, &one + 1, legal_pattern);
    }
  }

  boost::wregex leading_pattern{L"(^[+][0-9]*)$|(^[0-9]+)$"};
  boost::wregex added_pattern{L"(^[0-9]*)$"};
  boost::wregex legal_pattern{L"[0-9+*#PW]"};
  boost::wregex zero_in_brackets_pattern{L"[(][0][)]"};
  // The legal pattern's answer for each ASCII character, taken once: a number is judged one
  // character at a time, and a match call per character would be most of the formatting.
  std::array<bool, 128> legal_ascii{};
};

NumberPatterns::NumberPatterns() : impl_(std::make_unique<Impl>()) {}
NumberPatterns::~NumberPatterns() = default;

bool NumberPatterns::IsLeading(std::u16string_view text) const {
  return boost::regex_match(Widen(text), impl_->leading_pattern);
}

bool NumberPatterns::IsAdded(std::u16string_view text) const {
  return boost::regex_match(Widen(text), impl_->added_pattern);
}

std::u16string NumberPatterns::KeepLegal(std::u16string_view text) const {
  std::u16string out;
  out.reserve(text.size());
  for (char16_t c : text) {
    const wchar_t one = static_cast<wchar_t>(c);
    const bool legal = c < impl_->legal_ascii.size()
                           ? impl_->legal_ascii[c]
                           : boost::regex_match(&one, &one + 1, impl_->legal_pattern);
    if (legal) out.push_back(c);
  }
  return out;
}

std::u16string NumberPatterns::StripZeroInBrackets(std::u16string_view text) const {
  const std::wstring stripped =
      boost::regex_replace(Widen(text), impl_->zero_in_brackets_pattern, std::wstring());
  std::u16string out;
  out.reserve(stripped.size());
  AppendNarrow(out, stripped);
  return out;
}

}  // namespace deskline
