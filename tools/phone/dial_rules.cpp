#include "tools/phone/dial_rules.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <set>

#include "platform/fs.h"
#include "platform/ini.h"

namespace deskline::phone {
namespace {

constexpr std::string_view kNumbers = "numbers";
constexpr std::string_view kRules = "rules";

std::string_view Trim(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

bool AllDigits(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// What the formatter's check_leading accepts: digits, or '+' and any digits.
bool IsLeading(std::string_view s) {
  if (s.empty()) return false;
  return s.front() == '+' ? AllDigits(s.substr(1)) : AllDigits(s);
}

template <typename Field>
void Store(std::string_view text, Field& field) {
  std::fill(std::begin(field), std::end(field), u'\0');
  std::copy(text.begin(), text.end(), std::begin(field));
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view s, std::uint64_t max) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (s.empty() || ec != std::errc() || end != s.data() + s.size() || value > max) return std::nullopt;
  return value;
}

// Where each key stands, from a first pass over the lines: the ini reader says only whether
// the whole file is well formed, and a user wants the line.
struct KeyLine {
  std::string section;
  std::string key;
  int line;
};

bool ScanLines(std::string_view text, std::vector<KeyLine>* keys, std::string* error) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  std::string section;
  std::set<std::string> sections;
  std::set<std::pair<std::string, std::string>> seen;
  int number = 0;
  std::size_t pos = 0;
  while (pos < text.size()) {
    ++number;
    const std::size_t end = std::min(text.find('\n', pos), text.size());
    const std::string_view line = Trim(text.substr(pos, end - pos));
    pos = end + 1;
    const std::string where = "line " + std::to_string(number) + ": ";
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[') {
      if (line.size() < 2 || line.back() != ']') {
        *error = where + "a section header needs its closing ']'";
        return false;
      }
      section = std::string(line.substr(1, line.size() - 2));
      if (section != kNumbers && section != kRules) {
        *error = where + "unknown section [" + section + "] (expected [numbers] or [rules])";
        return false;
      }
      if (!sections.insert(section).second) {
        *error = where + "section [" + section + "] appears twice";
        return false;
      }
      continue;
    }
    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) {
      *error = where + "expected key = value, a [section] or a ; comment";
      return false;
    }
    const std::string key(Trim(line.substr(0, eq)));
    if (key.empty()) {
      *error = where + "a key name is missing before '='";
      return false;
    }
    if (section.empty()) {
      *error = where + "'" + key + "' is outside any section";
      return false;
    }
    if (!seen.insert({section, key}).second) {
      *error = where + "'" + key + "' appears twice in [" + section + "]";
      return false;
    }
    keys->push_back({section, key, number});
  }
  return true;
}

bool ParseNumbersKey(const KeyLine& at, std::string_view value, DialRules* out, std::string* error) {
  ModuleVariables& v = out->variables;
  const std::string where = "line " + std::to_string(at.line) + ": " + at.key + ": ";
  if (at.key == "extension_length") {
    const auto n = ParseUnsigned(value, UINT32_MAX);
    if (!n) {
      *error = where + "expected a number of characters, 0 or more";
      return false;
    }
    v.extension_length = static_cast<std::uint32_t>(*n);
  } else if (at.key == "dial_prefix") {
    const bool dialable = std::all_of(value.begin(), value.end(), [](char c) {
      return (c >= '0' && c <= '9') || c == '*' || c == '#' || c == 'P' || c == 'W' || c == '+';
    });
    if (value.size() > 8 || !dialable) {
      *error = where + "expected at most 8 of 0-9 * # P W +";
      return false;
    }
    Store(value, v.dial_prefix);
    v.dial_prefix_length = static_cast<std::int32_t>(value.size());
  } else if (at.key == "default_added") {
    if (value.size() > 9 || !AllDigits(value)) {
      *error = where + "expected at most 9 digits";
      return false;
    }
    Store(value, v.default_added);
    v.default_added_length = static_cast<std::int32_t>(value.size());
  } else if (at.key == "strip_zero_in_brackets") {
    const auto n = ParseUnsigned(value, 1);
    if (!n) {
      *error = where + "expected 0 or 1";
      return false;
    }
    v.strip_zero_in_brackets = static_cast<std::uint8_t>(*n);
  } else if (at.key == "plain_flag") {
    const auto n = ParseUnsigned(value, 255);
    if (!n) {
      *error = where + "expected 0 to 255";
      return false;
    }
    v.plain_flag = static_cast<std::uint8_t>(*n);
  } else {
    *error = "line " + std::to_string(at.line) + ": unknown key '" + at.key +
             "' in [numbers] (extension_length, dial_prefix, default_added, "
             "strip_zero_in_brackets, plain_flag)";
    return false;
  }
  return true;
}

bool ParseRule(const KeyLine& at, std::string_view value, std::map<std::uint32_t, NumberRule>* rules,
               std::string* error) {
  const std::string where = "line " + std::to_string(at.line) + ": ";
  const std::string_view key = at.key;
  const auto row = key.starts_with("rule") && !key.substr(4).starts_with('0')
                       ? ParseUnsigned(key.substr(4), kMaxDialRules)
                       : std::nullopt;
  if (!row || *row == 0) {
    *error = where + "unknown key '" + at.key + "' in [rules] (rule1 to rule1000)";
    return false;
  }
  const std::size_t arrow = value.find("->");
  if (arrow == std::string_view::npos) {
    *error = where + at.key + ": expected LEADING -> ADDED, such as +44 -> 0";
    return false;
  }
  const std::string_view leading = Trim(value.substr(0, arrow));
  const std::string_view added = Trim(value.substr(arrow + 2));
  if (leading.size() > 17 || !IsLeading(leading)) {
    *error = where + at.key + ": leading text '" + std::string(leading) +
             "' must be 1 to 17 characters: digits, or + and digits";
    return false;
  }
  if (added.size() > 9 || !AllDigits(added)) {
    *error = where + at.key + ": added text '" + std::string(added) + "' must be at most 9 digits";
    return false;
  }
  NumberRule rule{};
  Store(leading, rule.leading);
  Store(added, rule.added);
  rule.leading_length = static_cast<std::int32_t>(leading.size());
  rule.added_length = static_cast<std::int32_t>(added.size());
  rule.in_use = 1;
  (*rules)[static_cast<std::uint32_t>(*row)] = rule;
  return true;
}

}  // namespace

ModuleVariables DialRules::Record() {
  ModuleVariables record = variables;
  record.rules = rules.empty() ? nullptr : rules.data();
  record.rule_count = static_cast<std::uint32_t>(rules.size());
  return record;
}

bool ParseDialRules(std::string_view text, DialRules* rules, std::string* error) {
  std::vector<KeyLine> keys;
  if (!ScanLines(text, &keys, error)) return false;
  platform::IniDocument doc;
  if (!doc.Load(text)) {
    *error = "not a well-formed ini file";
    return false;
  }
  DialRules parsed;
  std::map<std::uint32_t, NumberRule> rows;
  for (const KeyLine& at : keys) {
    const std::string value = doc.Get(at.section, at.key).value_or("");
    const bool ok = at.section == kNumbers ? ParseNumbersKey(at, Trim(value), &parsed, error)
                                           : ParseRule(at, Trim(value), &rows, error);
    if (!ok) return false;
  }
  if (!rows.empty()) {
    parsed.rules.resize(rows.rbegin()->first);
    for (const auto& [row, rule] : rows) parsed.rules[row - 1] = rule;
  }
  *rules = std::move(parsed);
  return true;
}

bool LoadDialRules(const std::string& path, DialRules* rules, std::string* error) {
  const std::optional<std::string> text = platform::ReadWholeFile(path, 1024 * 1024);
  if (!text) {
    *error = "cannot read " + path;
    return false;
  }
  if (!ParseDialRules(*text, rules, error)) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

bool NeedsFormatting(std::string_view number) {
  return number.find_first_of(" \t()+") != std::string_view::npos;
}

std::optional<std::string> FormatNumber(GetFormattedNumberFunction get_formatted_number,
                                        std::string_view number) {
  if (get_formatted_number == nullptr || number.size() > static_cast<std::size_t>(INT32_MAX)) {
    return std::nullopt;
  }
  std::u16string wide;
  wide.reserve(number.size());
  for (char c : number) {
    const auto byte = static_cast<unsigned char>(c);
    wide.push_back(byte < 0x80 ? static_cast<char16_t>(byte) : u'\uFFFD');
  }
  char16_t* out = nullptr;
  const std::int32_t count =
      get_formatted_number(wide.c_str(), static_cast<std::int32_t>(wide.size()), &out);
  if (count < 1 || out == nullptr) return std::nullopt;
  std::string result;
  for (std::int32_t i = 0; i + 1 < count; ++i) {
    result.push_back(out[i] < 0x80 ? static_cast<char>(out[i]) : '?');
  }
  return result;
}

}  // namespace deskline::phone
