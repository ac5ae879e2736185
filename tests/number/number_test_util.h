// Records and numbers for the formatter's tests, written as readable UTF-8.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "deskline/deskline.h"
#include "platform/text.h"

namespace deskline::testing {

inline NumberRule MakeRule(std::string_view leading, std::string_view added, bool in_use = true) {
  NumberRule rule{};
  const std::u16string l = Utf8ToUtf16(leading);
  const std::u16string a = Utf8ToUtf16(added);
  std::copy_n(l.begin(), std::min<std::size_t>(l.size(), 17), rule.leading);
  std::copy_n(a.begin(), std::min<std::size_t>(a.size(), 9), rule.added);
  rule.leading_length = static_cast<std::int32_t>(l.size());
  rule.added_length = static_cast<std::int32_t>(a.size());
  rule.in_use = in_use ? 1 : 0;
  return rule;
}

// What a GUI's settings page holds. Record() points into `rules`, so keep the plan alive.
struct DialPlan {
  std::vector<NumberRule> rules;
  std::uint32_t extension_length = 4;
  std::string dial_prefix;
  std::string default_added;
  bool strip_zero = false;
  std::uint8_t plain_flag = 0;

  ModuleVariables Record() {
    ModuleVariables record{};
    record.rules = rules.empty() ? nullptr : rules.data();
    record.rule_count = static_cast<std::uint32_t>(rules.size());
    record.extension_length = extension_length;
    record.plain_flag = plain_flag;
    const std::u16string prefix = Utf8ToUtf16(dial_prefix);
    std::copy_n(prefix.begin(), std::min<std::size_t>(prefix.size(), 8), record.dial_prefix);
    record.dial_prefix_length = static_cast<std::int32_t>(prefix.size());
    const std::u16string added = Utf8ToUtf16(default_added);
    std::copy_n(added.begin(), std::min<std::size_t>(added.size(), 9), record.default_added);
    record.default_added_length = static_cast<std::int32_t>(added.size());
    record.strip_zero_in_brackets = strip_zero ? 1 : 0;
    return record;
  }
};

inline std::string Text(const char16_t* field, std::size_t count) {
  return Utf16ToUtf8(std::u16string_view(field, count));
}

}  // namespace deskline::testing
