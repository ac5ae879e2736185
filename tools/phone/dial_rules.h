// The phone's dial rules: the number formatter's variables and rule table, read from a small
// ini file (--dial-rules FILE), and the glue between UTF-8 command lines and the formatter.
//
//   ; A PBX behind the outside-line code 0. Comments stand on lines of their own.
//   [numbers]
//   extension_length = 4
//   dial_prefix = 0
//   default_added =
//   strip_zero_in_brackets = 1
//   plain_flag = 0
//   [rules]
//   rule1 = +44 -> 0
//   rule2 = +81 -> 0
//   rule3 = + -> 00
//
// [numbers]: numbers of at most extension_length characters are dialled as they are; longer
// ones get dial_prefix (at most 8 of 0-9 * # P W +) in front, and default_added (at most 9
// digits) when no rule matched; strip_zero_in_brackets (0 or 1) drops "(0)"; plain_flag
// (0 to 255) is carried along unread. Missing keys are 0 or empty.
//
// [rules]: ruleN is the table's row N (1 to 1000); rows without a line stay unused, and the first row
// whose leading text begins the number wins.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "deskline/deskline.h"

namespace deskline::phone {

inline constexpr std::uint32_t kMaxDialRules = 1000;

struct DialRules {
  // Every field but rules and rule_count, which Record() fills.
  ModuleVariables variables{};
  std::vector<NumberRule> rules;

  // The record for set_module_variable with selector -1. It points into `rules`: use it
  // before this object changes.
  ModuleVariables Record();
};

// Reads a dial-rules text. False with `error` set ("line 7: ...") for a line that is not
// ini, an unknown section or key, or a value out of range; `rules` is then unchanged.
bool ParseDialRules(std::string_view text, DialRules* rules, std::string* error);
// The same from a file (UTF-8 path).
bool LoadDialRules(const std::string& path, DialRules* rules, std::string* error);

// True if `number` holds a blank, a bracket or '+': something to format before dialling.
bool NeedsFormatting(std::string_view number);

using GetFormattedNumberFunction = std::int32_t (*)(const char16_t*, std::int32_t, char16_t**);

// Runs a typed number through the library's get_formatted_number. Non-ASCII bytes go in as
// U+FFFD, which the formatter drops like any character it cannot dial. Nullopt if the
// library refuses.
std::optional<std::string> FormatNumber(GetFormattedNumberFunction get_formatted_number,
                                        std::string_view number);

}  // namespace deskline::phone
