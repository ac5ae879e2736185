// CNumberFormatter: turns a number as a contact list holds it ("+44 (0)20 7946 0958") into a
// string the terminal can dial (digits, '*', '#', 'P'), by a table of rules that the GUI
// configures: a number that begins with a rule's leading text gets the rule's added text in
// its place, and an outside-line prefix goes in front.
//
// The GUI edits rules one at a time through check_leading and check_added, which vet the text
// and write a working copy (edit_rules); only set_module_variable writes the committed table
// (rules) that formatting walks, and discard_changes throws the working copy's edits away.
//
// Everything the host hands in is bounded before it is read: indexes by the table, lengths by
// their fields, texts by the length given and their terminator, whichever comes first.
//
// Thread rules: none inside. The GUI calls from one thread at a time; no engine thread comes
// here. Memory and regex failures surface as exceptions; the exports catch them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "deskline/deskline.h"
#include "support/number/number_patterns.h"

namespace deskline {

// Selector bits of set_module_variable and get_module_variable; -1 selects all.
inline constexpr std::uint32_t kNumberSelectRules = 1;
inline constexpr std::uint32_t kNumberSelectExtensionLength = 2;
inline constexpr std::uint32_t kNumberSelectPlainFlag = 4;
inline constexpr std::uint32_t kNumberSelectDialPrefix = 8;
inline constexpr std::uint32_t kNumberSelectStripZero = 16;
inline constexpr std::uint32_t kNumberSelectDefaultAdded = 32;

class CNumberFormatter {
 public:
  // A table above this size is refused whole: the host's rule_count is only a number, and a
  // dial plan of a thousand prefixes is already far beyond any GUI's rule editor.
  static constexpr std::uint32_t kMaxRules = 1000;
  static constexpr std::int32_t kMaxLeading = 17;
  static constexpr std::int32_t kMaxAdded = 9;
  static constexpr std::int32_t kMaxDialPrefix = 8;

  // Empty table, all values zero, the patterns compiled. Throws on failure.
  CNumberFormatter();
  CNumberFormatter(const CNumberFormatter&) = delete;
  CNumberFormatter& operator=(const CNumberFormatter&) = delete;

  // Takes the selected fields of the host's record. 0; 32 if default_added was refused (the
  // other bits of the call are kept); -1 for a null record or a table of more than kMaxRules
  // rules (then nothing changes).
  std::int32_t set_module_variable(const ModuleVariables* record, std::uint32_t selector);
  // Writes the selected committed values into the host's record; bit 1 writes rule_count and,
  // if record->rules is not null, copies the table there (the host sizes it by asking first
  // with a null pointer). 0; -1 for a null record.
  std::int32_t get_module_variable(ModuleVariables* record, std::int32_t selector) const;

  // Vets a leading text for edit_rules[index] and stores it. 0 stored (length 0 clears the
  // rule); 2 not digits or '+' and digits; -1 for a null text, an index outside the table or a
  // length outside 0..17.
  std::int32_t check_leading(const char16_t* text, std::int32_t length, std::int32_t index);
  // Vets an added text (digits or nothing). 0 valid, stored unless index is -1 (a length of 1
  // stores an added_length of 0); 4 not valid; 8 the rule has no leading text; -1 for a null
  // text, an index outside the table other than -1, or a length outside 0..9.
  std::int32_t check_added(const char16_t* text, std::int32_t length, std::int32_t index);

  // Formats `number` (at most `length` characters, fewer if a terminator comes first). The
  // long form applies when `length` exceeds extension_length. *out receives the terminated
  // result, which this object owns until the next call. The character count with the
  // terminator; -1 for a null number or out, or a negative length (earlier result kept).
  std::int32_t get_formatted_number(const char16_t* number, std::int32_t length, char16_t** out);

  // The working copy becomes the committed table again.
  void discard_changes();

  // For tests: the working copy.
  const std::vector<NumberRule>& edit_rules() const { return edit_rules_; }

 private:
  std::u16string ShortForm(std::u16string_view number) const;
  std::u16string LongForm(std::u16string_view number) const;

  NumberPatterns patterns_;
  std::vector<NumberRule> rules_;       // committed; only set_module_variable writes it
  std::vector<NumberRule> edit_rules_;  // same size as rules_
  std::uint32_t extension_length_ = 0;
  std::uint8_t plain_flag_ = 0;  // stored and given back, read by nothing else
  char16_t dial_prefix_[kMaxDialPrefix] = {};
  std::int32_t dial_prefix_length_ = 0;  // 0..8
  std::uint8_t strip_zero_in_brackets_ = 0;
  char16_t default_added_[kMaxAdded] = {};
  std::int32_t default_added_length_ = 0;  // 0..9
  std::u16string result_;
};

}  // namespace deskline
