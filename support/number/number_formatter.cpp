#include "support/number/number_formatter.h"

#include <algorithm>
#include <cstring>

#include "platform/text.h"
#include "support/tracer.h"

namespace deskline {
namespace {

// A stored text as the formatter uses it: `length` characters clamped to the field, cut at a
// terminator that comes first.
std::u16string_view FieldText(const char16_t* field, std::int32_t length, std::size_t capacity) {
  const std::size_t bound = static_cast<std::size_t>(std::clamp<std::int64_t>(length, 0, capacity));
  return {field, U16Length(field, bound)};
}

void RemovePlus(std::u16string& s) { std::erase(s, u'+'); }

void PauseForWait(std::u16string& s) { std::replace(s.begin(), s.end(), u'W', u'P'); }

// A pause before the first digit would only delay the dialling.
void RemoveLeadingPauses(std::u16string& s) { s.erase(0, s.find_first_not_of(u'P')); }

}  // namespace

CNumberFormatter::CNumberFormatter() = default;

std::int32_t CNumberFormatter::set_module_variable(const ModuleVariables* record,
                                                   std::uint32_t selector) {
  if (record == nullptr) return -1;
  // Bits go in the order of the record's fields.
  if ((selector & kNumberSelectRules) && record->rules != nullptr && record->rule_count >= 1) {
    if (record->rule_count > kMaxRules) {
      DL_TRACE(TRACE_WARNING, "[NumberFormatter :: Warning] Rule table of %u rules refused (at most %u)",
               record->rule_count, kMaxRules);
      return -1;
    }
    // Both copies are made before either table is replaced, so a failure leaves the old ones.
    std::vector<NumberRule> committed(record->rules, record->rules + record->rule_count);
    std::vector<NumberRule> working(committed);
    rules_.swap(committed);
    edit_rules_.swap(working);
  }
  if (selector & kNumberSelectExtensionLength) extension_length_ = record->extension_length;
  if (selector & kNumberSelectPlainFlag) plain_flag_ = record->plain_flag;
  if (selector & kNumberSelectDialPrefix) {
    const std::int32_t length = record->dial_prefix_length;
    if (length >= 0 && length <= kMaxDialPrefix) {
      std::fill(std::begin(dial_prefix_), std::end(dial_prefix_), u'\0');
      std::copy_n(record->dial_prefix, length, dial_prefix_);
      dial_prefix_length_ = length;
    }
  }
  std::int32_t result = 0;
  if (selector & kNumberSelectDefaultAdded) {
    const std::int32_t length = record->default_added_length;
    if (length < 0 || length > kMaxAdded ||
        !patterns_.IsAdded(FieldText(record->default_added, length, kMaxAdded))) {
      result = 32;
    } else {
      std::fill(std::begin(default_added_), std::end(default_added_), u'\0');
      std::copy_n(record->default_added, length, default_added_);
      default_added_length_ = length;
    }
  }
  if (selector & kNumberSelectStripZero) strip_zero_in_brackets_ = record->strip_zero_in_brackets;
  return result;
}

std::int32_t CNumberFormatter::get_module_variable(ModuleVariables* record,
                                                   std::int32_t selector) const {
  if (record == nullptr) return -1;
  const auto bits = static_cast<std::uint32_t>(selector);
  if (bits & kNumberSelectRules) {
    record->rule_count = static_cast<std::uint32_t>(rules_.size());
    if (record->rules != nullptr) std::copy(rules_.begin(), rules_.end(), record->rules);
  }
  if (bits & kNumberSelectExtensionLength) record->extension_length = extension_length_;
  if (bits & kNumberSelectPlainFlag) record->plain_flag = plain_flag_;
  if (bits & kNumberSelectDialPrefix) {
    std::fill(std::begin(record->dial_prefix), std::end(record->dial_prefix), u'\0');
    std::copy_n(dial_prefix_, dial_prefix_length_, record->dial_prefix);
    record->dial_prefix_length = dial_prefix_length_;
  }
  if (bits & kNumberSelectDefaultAdded) {
    std::fill(std::begin(record->default_added), std::end(record->default_added), u'\0');
    std::copy_n(default_added_, default_added_length_, record->default_added);
    record->default_added_length = default_added_length_;
  }
  if (bits & kNumberSelectStripZero) record->strip_zero_in_brackets = strip_zero_in_brackets_;
  return 0;
}

std::int32_t CNumberFormatter::check_leading(const char16_t* text, std::int32_t length,
                                             std::int32_t index) {
  if (text == nullptr) return -1;
  if (index < 0 || static_cast<std::size_t>(index) >= edit_rules_.size() || length < 0 ||
      length > kMaxLeading) {
    DL_TRACE(TRACE_WARNING, "[NumberFormatter :: Warning] check_leading refused: index %d, length %d",
             index, length);
    return -1;
  }
  NumberRule& rule = edit_rules_[static_cast<std::size_t>(index)];
  if (length == 0) {
    std::fill(std::begin(rule.leading), std::end(rule.leading), u'\0');
    rule.leading_length = 0;
    rule.in_use = 0;
    return 0;
  }
  const std::u16string_view given(text, U16Length(text, static_cast<std::size_t>(length)));
  if (!patterns_.IsLeading(given)) return 2;
  std::fill(std::begin(rule.leading), std::end(rule.leading), u'\0');
  std::copy(given.begin(), given.end(), rule.leading);
  rule.leading_length = length;
  rule.in_use = 1;
  return 0;
}

std::int32_t CNumberFormatter::check_added(const char16_t* text, std::int32_t length,
                                           std::int32_t index) {
  if (text == nullptr) return -1;
  if (length < 0 || length > kMaxAdded ||
      (index != -1 && (index < 0 || static_cast<std::size_t>(index) >= edit_rules_.size()))) {
    DL_TRACE(TRACE_WARNING, "[NumberFormatter :: Warning] check_added refused: index %d, length %d",
             index, length);
    return -1;
  }
  const std::u16string_view given(text, U16Length(text, static_cast<std::size_t>(length)));
  if (!patterns_.IsAdded(given)) return 4;
  if (index == -1) return 0;
  NumberRule& rule = edit_rules_[static_cast<std::size_t>(index)];
  if (!rule.in_use) return 8;
  std::fill(std::begin(rule.added), std::end(rule.added), u'\0');
  std::copy(given.begin(), given.end(), rule.added);
  // A GUI passes a terminator-only string for an empty field, with a length of 1.
  rule.added_length = length == 1 ? 0 : length;
  return 0;
}

std::int32_t CNumberFormatter::get_formatted_number(const char16_t* number, std::int32_t length,
                                                    char16_t** out) {
  if (number == nullptr || length < 0 || out == nullptr) return -1;
  result_ = std::u16string();
  const std::u16string_view given(number, U16Length(number, static_cast<std::size_t>(length)));
  // The caller's length chooses the form, whatever the string holds.
  std::u16string formatted = static_cast<std::uint32_t>(length) > extension_length_
                                 ? LongForm(given)
                                 : ShortForm(given);
  // Rules add at most a few characters, but the count must still fit the result.
  if (formatted.size() >= static_cast<std::size_t>(INT32_MAX)) return -1;
  result_ = std::move(formatted);
  *out = result_.data();
  return static_cast<std::int32_t>(result_.size() + 1);
}

void CNumberFormatter::discard_changes() {
  std::copy(rules_.begin(), rules_.end(), edit_rules_.begin());
}

std::u16string CNumberFormatter::ShortForm(std::u16string_view number) const {
  std::u16string s = patterns_.KeepLegal(number);
  RemovePlus(s);
  PauseForWait(s);
  RemoveLeadingPauses(s);
  return s;
}

std::u16string CNumberFormatter::LongForm(std::u16string_view number) const {
  std::u16string s;
  if (strip_zero_in_brackets_) {
    s = patterns_.KeepLegal(patterns_.StripZeroInBrackets(number));
  } else {
    s = patterns_.KeepLegal(number);
  }
  PauseForWait(s);
  // The walk comes before '+' goes, so that a leading text such as "+81" can match.
  bool matched = false;
  for (const NumberRule& rule : rules_) {
    if (!rule.in_use) continue;
    const std::u16string_view leading = FieldText(rule.leading, rule.leading_length, kMaxLeading);
    if (std::u16string_view(s).starts_with(leading)) {
      s.replace(0, leading.size(), FieldText(rule.added, rule.added_length, kMaxAdded));
      matched = true;
      break;
    }
  }
  if (!matched && default_added_length_ > 0) {
    s.insert(0, FieldText(default_added_, default_added_length_, kMaxAdded));
  }
  if (dial_prefix_length_ > 0) s.insert(0, FieldText(dial_prefix_, dial_prefix_length_, kMaxDialPrefix));
  RemovePlus(s);
  RemoveLeadingPauses(s);
  return s;
}

}  // namespace deskline
