// The six number exports driven as a GUI could drive them, with hostile records: random
// variable records and rule tables (lengths out of range, missing terminators), random
// selectors, rule edits at any index and length, and numbers of any content and length.
// Every text is handed over in an exact-size buffer, so that a read past what the caller
// gave is caught.
//
// Input: a sequence of operations, each an opcode byte (taken modulo 6) and its fields; a
// field past the end reads as 0. Characters are one byte each, mapped by Char() below.
//   0 set:     selector, flags (1 null record, 2 null table), rule count (mod 16),
//              extension_length, plain_flag, strip, dial_prefix_length (signed),
//              default_added_length (signed), 8 + 9 characters, then per rule
//              leading_length, added_length (signed), in_use, 17 + 9 characters
//   1 get:     selector (0xff: -1), flags (1 null record, 2 ask for the table)
//   2 leading: length, index (both signed), flags (1 null text), `length` characters
//   3 added:   the same
//   4 format:  length (2 bytes, cut to what is left), flags (1 null number, 2 negative
//              length, 4 null out, 8 terminator inside), `length` characters
//   5 discard
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "deskline/deskline.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  std::size_t left() const { return at_ < size_ ? size_ - at_ : 0; }
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  std::int8_t Signed() { return static_cast<std::int8_t>(Byte()); }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// Mostly the characters a number is made of, some that are not, and a few hard ones.
char16_t Char(std::uint8_t b) {
  static constexpr char16_t kCommon[] = u"0123456789+*#PW() pwx-";
  static constexpr char16_t kHard[] = {u'\0', u'\n', 0xD800, 0xDC00, 0x0661, 0xFF10,
                                       0x2028, u'$', u'^',  0xFFFF, u'.', u'['};
  if (b < 0xe0) return kCommon[b % (sizeof(kCommon) / sizeof(char16_t) - 1)];
  return kHard[b % (sizeof(kHard) / sizeof(char16_t))];
}

void Fill(Reader& in, char16_t* field, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) field[i] = Char(in.Byte());
}

void Set(Reader& in) {
  const std::uint8_t selector = in.Byte();
  const std::uint8_t flags = in.Byte();
  const std::size_t count = in.Byte() % 16;
  ModuleVariables record{};
  record.extension_length = in.Byte();
  record.plain_flag = in.Byte();
  record.strip_zero_in_brackets = in.Byte();
  record.dial_prefix_length = in.Signed();
  record.default_added_length = in.Signed();
  Fill(in, record.dial_prefix, 8);
  Fill(in, record.default_added, 9);
  std::vector<NumberRule> rules(count);
  for (NumberRule& rule : rules) {
    rule.leading_length = in.Signed();
    rule.added_length = in.Signed();
    rule.in_use = in.Byte() & 1;
    Fill(in, rule.leading, 17);
    Fill(in, rule.added, 9);
  }
  record.rules = (flags & 2) || rules.empty() ? nullptr : rules.data();
  record.rule_count = static_cast<std::uint32_t>(count);
  const std::uint32_t bits = selector == 0xff ? 0xffffffffu : selector;
  const std::int32_t result = set_module_variable((flags & 1) ? nullptr : &record, bits);
  Require(result == 0 || result == 32 || result == -1);
  Require(result != -1 || (flags & 1));
}

void Get(Reader& in) {
  const std::uint8_t selector = in.Byte();
  const std::uint8_t flags = in.Byte();
  ModuleVariables record{};
  const std::int32_t bits = selector == 0xff ? -1 : selector;
  if (flags & 1) {
    Require(get_module_variable(nullptr, bits) == -1);
    return;
  }
  Require(get_module_variable(&record, bits) == 0);
  if ((flags & 2) && (bits & 1) && record.rule_count > 0) {
    Require(record.rule_count <= 15);
    std::vector<NumberRule> table(record.rule_count);
    record.rules = table.data();
    Require(get_module_variable(&record, bits) == 0);
  }
  if (bits & 8) Require(record.dial_prefix_length >= 0 && record.dial_prefix_length <= 8);
  if (bits & 32) Require(record.default_added_length >= 0 && record.default_added_length <= 9);
}

void Check(Reader& in, bool leading) {
  const std::int32_t length = in.Signed();
  const std::int32_t index = in.Signed();
  const std::uint8_t flags = in.Byte();
  const std::int32_t limit = leading ? 17 : 9;
  // A length outside the field must be refused before the text is read: hand over one
  // character.
  const bool outside = length < 0 || length > limit;
  const std::size_t given = outside ? 1 : static_cast<std::size_t>(length);
  const std::unique_ptr<char16_t[]> text(new char16_t[given == 0 ? 1 : given]);
  text[0] = u'9';
  Fill(in, text.get(), given);
  const char16_t* pointer = (flags & 1) ? nullptr : text.get();
  const std::int32_t result =
      leading ? check_leading(pointer, length, index) : check_added(pointer, length, index);
  if (leading) {
    Require(result == 0 || result == 2 || result == -1);
  } else {
    Require(result == 0 || result == 4 || result == 8 || result == -1);
  }
  if (outside || pointer == nullptr) Require(result == -1);
}

void Format(Reader& in) {
  const std::size_t wanted = (std::size_t{in.Byte()} << 8) | in.Byte();
  const std::uint8_t flags = in.Byte();
  // No longer than the input that is left: a number of tens of thousands of padding zeros
  // would only slow the search down.
  const std::size_t length = std::min(wanted, in.left());
  const std::unique_ptr<char16_t[]> number(new char16_t[length == 0 ? 1 : length]);
  number[0] = u'1';
  Fill(in, number.get(), length);
  if ((flags & 8) && length > 0) number[length / 2] = u'\0';
  char16_t* out = nullptr;
  const char16_t* pointer = (flags & 1) ? nullptr : number.get();
  const std::int32_t given = (flags & 2) ? -1 - static_cast<std::int32_t>(length) : static_cast<std::int32_t>(length);
  const std::int32_t count = get_formatted_number(pointer, given, (flags & 4) ? nullptr : &out);
  if (pointer == nullptr || given < 0 || (flags & 4)) {
    Require(count == -1);
    return;
  }
  // Nothing but memory could refuse a number; the tables add at most 8 + 9 characters.
  Require(count >= 1 && out != nullptr);
  Require(static_cast<std::size_t>(count) <= length + 18);
  Require(out[count - 1] == u'\0');
  for (std::int32_t i = 0; i + 1 < count; ++i) {
    Require(out[i] != u'\0' && out[i] != u'+');
  }
  if (count > 1) Require(out[0] != u'P');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The formatter lives as long as the process: every input starts from the same state, a
  // table of one unused rule and all values zero, so that a finding replays alone.
  NumberRule unused{};
  ModuleVariables start{};
  start.rules = &unused;
  start.rule_count = 1;
  Require(set_module_variable(&start, 0xffffffffu) == 0);
  Reader in(data, size);
  while (!in.empty()) {
    switch (in.Byte() % 6) {
      case 0: Set(in); break;
      case 1: Get(in); break;
      case 2: Check(in, true); break;
      case 3: Check(in, false); break;
      case 4: Format(in); break;
      default: discard_changes(); break;
    }
  }
  return 0;
}
