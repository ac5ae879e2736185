// The number formatter: the two forms and the rule walk, the vetting of rule texts into the
// working copy, the selector bits both ways, and host values out of range.
#include "support/number/number_formatter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "number/number_test_util.h"
#include "platform/text.h"

namespace deskline {
namespace {

using testing::DialPlan;
using testing::MakeRule;

// Formats from an exact-size copy with no terminator, so that a read past `length` is caught
// under AddressSanitizer; checks the count and the terminator of the result.
std::string Format(CNumberFormatter& f, std::u16string_view number) {
  const std::unique_ptr<char16_t[]> copy(new char16_t[number.size() + 1]);
  std::copy(number.begin(), number.end(), copy.get());
  char16_t* out = nullptr;
  const std::int32_t count =
      f.get_formatted_number(copy.get(), static_cast<std::int32_t>(number.size()), &out);
  if (count < 1 || out == nullptr) {
    ADD_FAILURE() << "refused: " << count;
    return "<refused>";
  }
  EXPECT_EQ(out[count - 1], u'\0');
  EXPECT_EQ(std::char_traits<char16_t>::length(out), static_cast<std::size_t>(count - 1));
  return Utf16ToUtf8(std::u16string_view(out, static_cast<std::size_t>(count - 1)));
}

std::string Format(CNumberFormatter& f, std::string_view number) {
  return Format(f, std::u16string_view(Utf8ToUtf16(number)));
}

std::unique_ptr<CNumberFormatter> Formatter(DialPlan plan) {
  auto f = std::make_unique<CNumberFormatter>();
  ModuleVariables record = plan.Record();
  EXPECT_EQ(f->set_module_variable(&record, 0xffffffffu), 0);
  return f;
}

struct FormatCase {
  const char* what;
  DialPlan plan;
  const char* number;
  const char* expected;
};

TEST(NumberFormat, CasesOfBothForms) {
  const auto r = [](const char* l, const char* a) { return MakeRule(l, a); };
  const FormatCase cases[] = {
      {"length equal to extension_length stays short", {{r("12", "99")}}, "1234", "1234"},
      {"one more takes the long form", {{r("12", "99")}}, "12345", "99345"},
      {"short form drops + and illegal characters", {{r("+4", "0")}, 20}, "+4 (1)-2", "412"},
      {"a country code becomes the trunk zero", {{r("+81", "0")}}, "+81 3 1234 5678",
       "0312345678"},
      {"(0) stripped when asked", {{r("+44", "0")}, 4, "", "", true}, "+44 (0)20 7946 0958",
       "02079460958"},
      {"(0) kept as 0 otherwise", {{r("+44", "0")}}, "+44 (0)20 7946 0958", "002079460958"},
      {"only (0) goes, not (00) or ( 0)", {{}, 4, "", "", true}, "1(00)2( 0)3(0)4", "1002034"},
      {"illegal only, short: empty, result 1", {}, "abc", ""},
      {"illegal only, long", {{r("+44", "0")}, 2, "0", "9"}, "abc ()-x", "09"},
      {"illegal only, long, nothing added", {{r("+44", "0")}, 2}, "abc ()-x", ""},
      {"empty number", {}, "", ""},
      {"W becomes P; leading pauses go, inner stay", {}, "W1W2", "1P2"},
      {"pauses and + at the front all go", {}, "P+W1", "1"},
      {"long form pauses", {}, "WPW0123W45", "0123P45"},
      {"lower-case p and w are not pauses", {}, "1p2w3", "123"},
      {"first matching rule wins", {{r("+4", "1"), r("+44", "2")}}, "+44123456", "14123456"},
      {"in table order", {{r("+44", "2"), r("+4", "1")}}, "+44123456", "2123456"},
      {"a rule not in use is skipped",
       {{MakeRule("+44", "2", false), r("+4", "1")}}, "+44123456", "14123456"},
      {"a rule must match the beginning", {{r("44", "0")}}, "+44123456", "44123456"},
      {"default added when no rule matched", {{r("+44", "0")}, 4, "", "9"}, "123456", "9123456"},
      {"no default added when a rule matched", {{r("+44", "0")}, 4, "", "9"}, "+44123456",
       "0123456"},
      {"dial prefix in front of a rule's result", {{r("+44", "0")}, 4, "0", "9"}, "+44123456",
       "00123456"},
      {"dial prefix in front of the default", {{r("+44", "0")}, 4, "0", "9"}, "123456",
       "09123456"},
      {"dial prefix alone", {{}, 4, "0"}, "123456", "0123456"},
      {"no prefix in the short form", {{}, 4, "0", "9"}, "1234", "1234"},
      {"a pause prefix goes with the other leading pauses", {{}, 4, "P"}, "123456", "123456"},
      {"'+' of an added prefix goes too", {{}, 4, "+0"}, "123456", "0123456"},
      {"an empty added text drops the leading text", {{r("+44", "")}}, "+44123456", "123456"},
      {"'+' alone as a leading text", {{r("+", "00")}}, "+44 20", "004420"},
      {"inner + removed", {}, "12+34+56", "123456"},
      {"* and # are dialable", {}, "*31#0123", "*31#0123"},
      {"extension_length 0: every number is long", {{r("1", "2")}, 0}, "1", "2"},
      // The office PBX of the documentation: outside line 0, own country +44.
      {"office: national", {{r("+44", "0"), r("+", "00")}, 4, "0", "", true},
       "+44 (0)20 7946 0958", "002079460958"},
      {"office: local", {{r("+44", "0"), r("+", "00")}, 4, "0", "", true}, "020 7946 0958",
       "002079460958"},
      {"office: abroad", {{r("+44", "0"), r("+", "00")}, 4, "0", "", true}, "+81 3 1234 5678",
       "00081312345678"},
  };
  for (const FormatCase& c : cases) {
    SCOPED_TRACE(c.what);
    auto f = Formatter(c.plan);
    EXPECT_EQ(Format(*f, std::string_view(c.number)), c.expected);
  }
}

TEST(NumberFormat, CharactersBeyondAsciiAreIllegal) {
  auto f = Formatter({});
  // Arabic-Indic and full-width digits, a lone surrogate, a pair, a NUL-free wide mix.
  EXPECT_EQ(Format(*f, std::u16string_view(u"\u0661\u0662 1\uFF12\xD800" u"2\U0001F4DE3")), "123");
  EXPECT_EQ(Format(*f, std::u16string_view(u"\xDC00\xD800\xDFFF")), "");
}

TEST(NumberFormat, LengthIsTheCallersAndReadsStopThere) {
  auto f = Formatter({{MakeRule("12", "99")}, 4});
  char16_t* out = nullptr;
  // Fewer characters than the string holds: only those are read, and they choose the form.
  ASSERT_EQ(f->get_formatted_number(u"123456789", 3, &out), 4);
  EXPECT_EQ(std::u16string(out), u"123");
  // More than the string holds: reading stops at the terminator of this exact-size buffer,
  // but the length still chooses the long form.
  const std::vector<char16_t> shorter{u'1', u'2', u'3', u'\0'};
  ASSERT_EQ(f->get_formatted_number(shorter.data(), 1000, &out), 4);
  EXPECT_EQ(std::u16string(out), u"993");
  // A terminator inside the length ends the number.
  ASSERT_EQ(f->get_formatted_number(u"12\0 345678", 10, &out), 3);
  EXPECT_EQ(std::u16string(out), u"99");
  // Length 0 reads nothing.
  const char16_t nothing = u'7';
  ASSERT_EQ(f->get_formatted_number(&nothing, 0, &out), 1);
  EXPECT_EQ(out[0], u'\0');
}

TEST(NumberFormat, LongNumbersAreFormattedWhole) {
  auto f = Formatter({{MakeRule("+1", "001")}, 4, "0"});
  std::u16string number = u"+1 ";
  for (int i = 0; i < 20000; ++i) number += static_cast<char16_t>(u'0' + i % 10);
  number += u" (x)";
  const std::string formatted = Format(*f, std::u16string_view(number));
  ASSERT_EQ(formatted.size(), 4u + 20000u);
  EXPECT_EQ(formatted.substr(0, 6), "000101");
  EXPECT_EQ(formatted.substr(formatted.size() - 3), "789");
}

TEST(NumberFormat, RefusalsKeepTheEarlierResult) {
  auto f = Formatter({});
  char16_t* out = nullptr;
  ASSERT_EQ(f->get_formatted_number(u"123", 3, &out), 4);
  char16_t* kept = out;
  char16_t* untouched = nullptr;
  EXPECT_EQ(f->get_formatted_number(nullptr, 3, &untouched), -1);
  EXPECT_EQ(f->get_formatted_number(u"123", -1, &untouched), -1);
  EXPECT_EQ(f->get_formatted_number(u"123", INT32_MIN, &untouched), -1);
  EXPECT_EQ(f->get_formatted_number(u"123", 3, nullptr), -1);
  EXPECT_EQ(untouched, nullptr);
  EXPECT_EQ(std::u16string(kept), u"123") << "still owned and intact";
}

TEST(NumberFormat, HostTableFieldsAreBoundedByTheirArrays) {
  // A full 17-character leading text with no terminator, and lengths past the arrays.
  NumberRule wide = MakeRule("12345678901234567", "987654321");
  wide.leading_length = 1000;
  wide.added_length = 1000;
  auto f = Formatter({{wide}, 4});
  EXPECT_EQ(Format(*f, std::string_view("12345678901234567" "89")), "98765432189");

  // A negative length reads as an empty text: the rule then begins every number.
  NumberRule empty = MakeRule("99", "5");
  empty.leading_length = -5;
  NumberRule no_added = MakeRule("12", "77");
  no_added.added_length = -1;
  auto g = Formatter({{no_added, empty}, 2});
  EXPECT_EQ(Format(*g, std::string_view("12345")), "345");
  EXPECT_EQ(Format(*g, std::string_view("99345")), "599345");

  // A stored length beyond the terminator: the text ends at the terminator.
  NumberRule terminated = MakeRule("44", "0");
  terminated.leading_length = 10;
  terminated.added_length = 5;
  auto h = Formatter({{terminated}, 2});
  EXPECT_EQ(Format(*h, std::string_view("44 20")), "020");
}

// ---- the working copy --------------------------------------------------------------------

class Rules : public ::testing::Test {
 protected:
  Rules() {
    plan_.rules = {MakeRule("+44", "0"), MakeRule("+81", "0"), MakeRule("", "", false)};
    ModuleVariables record = plan_.Record();
    EXPECT_EQ(f_.set_module_variable(&record, 0xffffffffu), 0);
  }
  const NumberRule& Edit(std::size_t i) const { return f_.edit_rules().at(i); }
  std::vector<NumberRule> Committed() {
    ModuleVariables record{};
    EXPECT_EQ(f_.get_module_variable(&record, 1), 0);
    std::vector<NumberRule> table(record.rule_count);
    record.rules = table.data();
    EXPECT_EQ(f_.get_module_variable(&record, 1), 0);
    return table;
  }
  void ExpectEditUnchanged() {
    const std::vector<NumberRule> committed = Committed();
    ASSERT_EQ(f_.edit_rules().size(), committed.size());
    EXPECT_EQ(std::memcmp(f_.edit_rules().data(), committed.data(),
                          committed.size() * sizeof(NumberRule)),
              0);
  }

  DialPlan plan_;
  CNumberFormatter f_;
};

struct CheckCase {
  const char16_t* text;
  std::int32_t length;
  std::int32_t index;
  std::int32_t expected;
};

TEST_F(Rules, CheckLeadingVetsTheText) {
  const CheckCase cases[] = {
      {u"+81", 3, 2, 0},  {u"0049", 4, 2, 0},   {u"+", 1, 2, 0},      {u"12345678901234567", 17, 2, 0},
      {u"81+", 3, 2, 2},  {u"++1", 3, 2, 2},    {u"8 1", 3, 2, 2},    {u"12a", 3, 2, 2},
      {u"\u0661", 1, 2, 2}, {u"P1", 2, 2, 2},   {u"1\n", 2, 2, 2},    {u"\n1", 2, 2, 2},
      {u"+81", 3, -1, -1}, {u"+81", 3, 3, -1},  {u"+81", 3, INT32_MAX, -1},
      {u"+81", -1, 2, -1}, {u"123456789012345678", 18, 2, -1}, {nullptr, 3, 2, -1},
  };
  for (const CheckCase& c : cases) {
    SCOPED_TRACE("length " + std::to_string(c.length) + " index " + std::to_string(c.index));
    EXPECT_EQ(f_.check_leading(c.text, c.length, c.index), c.expected);
    if (c.expected != 0) ExpectEditUnchanged();
    f_.discard_changes();
  }
}

TEST_F(Rules, CheckLeadingStoresIntoTheWorkingCopyOnly) {
  EXPECT_EQ(f_.check_leading(u"0049", 4, 2), 0);
  EXPECT_EQ(testing::Text(Edit(2).leading, 4), "0049");
  EXPECT_EQ(Edit(2).leading_length, 4);
  EXPECT_EQ(Edit(2).in_use, 1);
  EXPECT_EQ(Committed()[2].in_use, 0) << "only set_module_variable commits";

  // Only the first `length` characters are read and vetted.
  EXPECT_EQ(f_.check_leading(u"81abc", 2, 2), 0);
  EXPECT_EQ(testing::Text(Edit(2).leading, 17), std::string("81") + std::string(15, '\0'));
  // A terminator inside the length ends the text; the stored length is the one given.
  EXPECT_EQ(f_.check_leading(u"7", 5, 2), 0);
  EXPECT_EQ(Edit(2).leading_length, 5);
  EXPECT_EQ(Edit(2).leading[0], u'7');
  EXPECT_EQ(Edit(2).leading[1], u'\0');
}

TEST_F(Rules, EmptyLeadingClearsTheRuleAndAddedThenNeedsOne) {
  EXPECT_EQ(f_.check_added(u"00", 2, 0), 0);
  EXPECT_EQ(f_.check_leading(u"whatever", 0, 0), 0);
  EXPECT_EQ(Edit(0).leading_length, 0);
  EXPECT_EQ(Edit(0).in_use, 0);
  EXPECT_EQ(Edit(0).leading[0], u'\0');
  EXPECT_EQ(f_.check_added(u"00", 2, 0), 8);
  EXPECT_EQ(f_.check_added(u"00", 2, 2), 8) << "a rule that never had a leading text";
  EXPECT_EQ(f_.check_added(u"00", 2, -1), 0) << "a pure check needs no rule";
}

TEST_F(Rules, CheckAddedVetsTheText) {
  const CheckCase cases[] = {
      {u"0", 1, 0, 0},      {u"", 0, 0, 0},      {u"123456789", 9, 0, 0},
      {u"+1", 2, 0, 4},     {u"1a", 2, 0, 4},    {u"1 2", 3, 0, 4},    {u"P", 1, 0, 4},
      {u"1a", 2, -1, 4},    {u"00", 2, -1, 0},   {u"00", 2, 2, 8},
      {u"0", 1, 3, -1},     {u"0", 1, -2, -1},   {u"0", -1, 0, -1},    {u"1234567890", 10, 0, -1},
      {nullptr, 1, 0, -1},  {nullptr, 1, -1, -1},
  };
  for (const CheckCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.length) + " index " + std::to_string(c.index));
    EXPECT_EQ(f_.check_added(c.text, c.length, c.index), c.expected);
    if (c.expected != 0 || c.index == -1) ExpectEditUnchanged();
    f_.discard_changes();
  }
}

TEST_F(Rules, CheckAddedStores) {
  EXPECT_EQ(f_.check_added(u"0049", 4, 1), 0);
  EXPECT_EQ(testing::Text(Edit(1).added, 9), std::string("0049") + std::string(5, '\0'));
  EXPECT_EQ(Edit(1).added_length, 4);
  // One character is what a GUI sends for an empty field: stored, with a length of 0.
  EXPECT_EQ(f_.check_added(u"5", 1, 1), 0);
  EXPECT_EQ(Edit(1).added[0], u'5');
  EXPECT_EQ(Edit(1).added[1], u'\0');
  EXPECT_EQ(Edit(1).added_length, 0);
  EXPECT_EQ(f_.check_added(u"", 1, 1), 0);
  EXPECT_EQ(Edit(1).added[0], u'\0');
  EXPECT_EQ(Edit(1).added_length, 0);
}

TEST_F(Rules, EditsTakeEffectOnlyWhenTheTableIsSent) {
  EXPECT_EQ(f_.check_leading(u"+49", 3, 2), 0);
  EXPECT_EQ(f_.check_added(u"0", 1, 2), 0);
  EXPECT_EQ(Format(f_, std::string_view("+49 30 1234")), "49301234") << "committed table walks";

  // The GUI sends the working copy back as the new table.
  std::vector<NumberRule> table = f_.edit_rules();
  ModuleVariables record{};
  record.rules = table.data();
  record.rule_count = static_cast<std::uint32_t>(table.size());
  EXPECT_EQ(f_.set_module_variable(&record, 1), 0);
  EXPECT_EQ(Format(f_, std::string_view("+49 30 1234")), "301234") << "added of length 1 is empty";
}

TEST_F(Rules, DiscardChangesRestoresTheCommittedTable) {
  EXPECT_EQ(f_.check_leading(u"", 0, 0), 0);
  EXPECT_EQ(f_.check_leading(u"+1", 2, 2), 0);
  EXPECT_EQ(f_.check_added(u"011", 3, 2), 0);
  f_.discard_changes();
  ExpectEditUnchanged();
  EXPECT_EQ(Edit(0).in_use, 1);
  EXPECT_EQ(Edit(2).in_use, 0);
}

TEST(NumberRules, ChecksNeedATable) {
  CNumberFormatter f;
  EXPECT_EQ(f.check_leading(u"+81", 3, 0), -1);
  EXPECT_EQ(f.check_added(u"0", 1, 0), -1);
  EXPECT_EQ(f.check_added(u"0", 1, -1), 0);
  f.discard_changes();
  char16_t* out = nullptr;
  EXPECT_EQ(f.get_formatted_number(u"+81 3 1234 5678", 15, &out), 12) << "all zero: long form";
  EXPECT_EQ(std::u16string(out), u"8131234567" u"8");
}

// ---- the record both ways ----------------------------------------------------------------

ModuleVariables ReadAll(const CNumberFormatter& f) {
  ModuleVariables record;
  std::memset(&record, 0x55, sizeof(record));
  record.rules = nullptr;
  EXPECT_EQ(f.get_module_variable(&record, -1), 0);
  return record;
}

TEST(NumberVariables, EachBitCarriesItsFieldsOnly) {
  DialPlan plan{{MakeRule("+44", "0"), MakeRule("+81", "0")}, 7, "0W", "49", true, 3};
  const ModuleVariables full = plan.Record();
  struct Row {
    std::uint32_t bit;
    bool (*changed)(const ModuleVariables&);
  };
  const Row rows[] = {
      {1, [](const ModuleVariables& r) { return r.rule_count == 2; }},
      {2, [](const ModuleVariables& r) { return r.extension_length == 7; }},
      {4, [](const ModuleVariables& r) { return r.plain_flag == 3; }},
      {8, [](const ModuleVariables& r) {
         return r.dial_prefix_length == 2 && r.dial_prefix[0] == u'0' && r.dial_prefix[1] == u'W';
       }},
      {16, [](const ModuleVariables& r) { return r.strip_zero_in_brackets == 1; }},
      {32, [](const ModuleVariables& r) {
         return r.default_added_length == 2 && r.default_added[1] == u'9';
       }},
  };
  for (const Row& set : rows) {
    SCOPED_TRACE("bit " + std::to_string(set.bit));
    CNumberFormatter f;
    EXPECT_EQ(f.set_module_variable(&full, set.bit), 0);
    const ModuleVariables got = ReadAll(f);
    for (const Row& other : rows) EXPECT_EQ(other.changed(got), other.bit == set.bit) << other.bit;
  }
  CNumberFormatter all;
  EXPECT_EQ(all.set_module_variable(&full, 0xffffffffu), 0);
  const ModuleVariables got = ReadAll(all);
  for (const Row& row : rows) EXPECT_TRUE(row.changed(got)) << row.bit;
}

TEST(NumberVariables, GetClearsStringsAndWritesOnlySelectedFields) {
  CNumberFormatter f;
  DialPlan plan{{}, 4, "0", "9"};
  ModuleVariables in = plan.Record();
  ASSERT_EQ(f.set_module_variable(&in, 0xffffffffu), 0);
  ModuleVariables out;
  std::memset(&out, 0x55, sizeof(out));
  EXPECT_EQ(f.get_module_variable(&out, 8 | 32), 0);
  EXPECT_EQ(testing::Text(out.dial_prefix, 8), std::string("0") + std::string(7, '\0'));
  EXPECT_EQ(testing::Text(out.default_added, 9), std::string("9") + std::string(8, '\0'));
  EXPECT_EQ(out.extension_length, 0x55555555u) << "not selected";
  EXPECT_EQ(out.strip_zero_in_brackets, 0x55);
  EXPECT_EQ(f.get_module_variable(nullptr, -1), -1);
  EXPECT_EQ(f.set_module_variable(nullptr, 0xffffffffu), -1);
}

TEST(NumberVariables, GetCopiesTheCommittedTableNotTheWorkingCopy) {
  CNumberFormatter f;
  DialPlan plan{{MakeRule("+44", "0"), MakeRule("+81", "0"), MakeRule("00", "")}};
  ModuleVariables in = plan.Record();
  ASSERT_EQ(f.set_module_variable(&in, 1), 0);
  ASSERT_EQ(f.check_leading(u"+1", 2, 0), 0);
  ASSERT_EQ(f.check_added(u"011", 3, 1), 0);

  ModuleVariables out{};
  EXPECT_EQ(f.get_module_variable(&out, 1), 0) << "a null table asks for the count";
  ASSERT_EQ(out.rule_count, 3u);
  std::vector<NumberRule> table(out.rule_count);
  std::memset(table.data(), 0x55, table.size() * sizeof(NumberRule));
  out.rules = table.data();
  EXPECT_EQ(f.get_module_variable(&out, 1), 0);
  EXPECT_EQ(std::memcmp(table.data(), plan.rules.data(), table.size() * sizeof(NumberRule)), 0);
}

TEST(NumberVariables, TableBitIgnoredWithoutATable) {
  CNumberFormatter f;
  DialPlan plan{{MakeRule("+44", "0"), MakeRule("+81", "0")}};
  ModuleVariables in = plan.Record();
  ASSERT_EQ(f.set_module_variable(&in, 1), 0);
  ModuleVariables empty = in;
  empty.rule_count = 0;
  EXPECT_EQ(f.set_module_variable(&empty, 1), 0);
  empty.rules = nullptr;
  empty.rule_count = 5;
  EXPECT_EQ(f.set_module_variable(&empty, 1), 0);
  EXPECT_EQ(ReadAll(f).rule_count, 2u);

  // Another size replaces both tables.
  DialPlan one{{MakeRule("1", "2")}};
  ModuleVariables smaller = one.Record();
  EXPECT_EQ(f.set_module_variable(&smaller, 1), 0);
  EXPECT_EQ(ReadAll(f).rule_count, 1u);
  EXPECT_EQ(f.edit_rules().size(), 1u);
  EXPECT_EQ(f.check_leading(u"3", 1, 1), -1) << "the old second rule is gone";
}

TEST(NumberVariables, TablesAboveTheMaximumAreRefusedWhole) {
  CNumberFormatter f;
  DialPlan plan{{MakeRule("+44", "0")}, 4, "0"};
  ModuleVariables in = plan.Record();
  ASSERT_EQ(f.set_module_variable(&in, 0xffffffffu), 0);

  std::vector<NumberRule> big(CNumberFormatter::kMaxRules + 1, MakeRule("9", "1"));
  DialPlan other{{}, 99, "8", "7"};
  ModuleVariables huge = other.Record();
  huge.rules = big.data();
  huge.rule_count = static_cast<std::uint32_t>(big.size());
  EXPECT_EQ(f.set_module_variable(&huge, 0xffffffffu), -1);
  const ModuleVariables kept = ReadAll(f);
  EXPECT_EQ(kept.rule_count, 1u);
  EXPECT_EQ(kept.extension_length, 4u) << "nothing of a refused call is taken";
  EXPECT_EQ(kept.dial_prefix[0], u'0');

  huge.rule_count = CNumberFormatter::kMaxRules;
  EXPECT_EQ(f.set_module_variable(&huge, 1), 0);
  EXPECT_EQ(ReadAll(f).rule_count, CNumberFormatter::kMaxRules);
}

TEST(NumberVariables, RefusedDefaultAddedKeepsTheOtherBits) {
  struct Row {
    const char16_t* text;
    std::int32_t length;
  };
  const Row refused[] = {{u"12a", 3}, {u"+1", 2}, {u"1", -1}, {u"123456789", 10}, {u"1 2", 3}};
  for (const Row& row : refused) {
    SCOPED_TRACE(row.length);
    CNumberFormatter f;
    DialPlan first{{}, 4, "", "55"};
    ModuleVariables in = first.Record();
    ASSERT_EQ(f.set_module_variable(&in, 0xffffffffu), 0);

    DialPlan second{{MakeRule("+44", "0")}, 6, "0", "", true};
    ModuleVariables bad = second.Record();
    std::copy_n(row.text, std::char_traits<char16_t>::length(row.text), bad.default_added);
    bad.default_added_length = row.length;
    EXPECT_EQ(f.set_module_variable(&bad, 0xffffffffu), 32);
    const ModuleVariables got = ReadAll(f);
    EXPECT_EQ(got.default_added_length, 2) << "refused value leaves the field";
    EXPECT_EQ(testing::Text(got.default_added, 2), "55");
    EXPECT_EQ(got.rule_count, 1u);
    EXPECT_EQ(got.extension_length, 6u);
    EXPECT_EQ(got.dial_prefix_length, 1);
    EXPECT_EQ(got.strip_zero_in_brackets, 1);
  }
}

TEST(NumberVariables, DialPrefixOutOfRangeIsIgnored) {
  CNumberFormatter f;
  DialPlan plan{{}, 4, "0"};
  ModuleVariables in = plan.Record();
  ASSERT_EQ(f.set_module_variable(&in, 8), 0);
  for (std::int32_t length : {9, -1, INT32_MAX, INT32_MIN}) {
    ModuleVariables bad = in;
    std::fill(std::begin(bad.dial_prefix), std::end(bad.dial_prefix), u'7');
    bad.dial_prefix_length = length;
    EXPECT_EQ(f.set_module_variable(&bad, 8), 0);
    EXPECT_EQ(ReadAll(f).dial_prefix_length, 1);
    EXPECT_EQ(ReadAll(f).dial_prefix[0], u'0');
  }
  ModuleVariables full = in;
  std::fill(std::begin(full.dial_prefix), std::end(full.dial_prefix), u'7');
  full.dial_prefix_length = 8;
  EXPECT_EQ(f.set_module_variable(&full, 8), 0);
  EXPECT_EQ(testing::Text(ReadAll(f).dial_prefix, 8), "77777777");
}

TEST(NumberVariables, ExtensionLengthUsesTheWholeUnsignedRange) {
  DialPlan plan{{MakeRule("1", "2")}, 0xffffffffu, "0"};
  auto f = Formatter(plan);
  EXPECT_EQ(Format(*f, std::string_view("1234567890123")), "1234567890123") << "always short";
}

}  // namespace
}  // namespace deskline
