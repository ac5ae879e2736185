// The phone's dial-rules file: a full file into the formatter's record, every kind of bad
// line named with its line number, the bounds of each value, and the number glue.
#include "tools/phone/dial_rules.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

#include "testing/temp_dir.h"

namespace deskline::phone {
namespace {

std::string Text(const char16_t* field, std::int32_t length) {
  std::string out;
  for (std::int32_t i = 0; i < length; ++i) out.push_back(static_cast<char>(field[i]));
  return out;
}

constexpr const char* kPbxBehindZero =
    "\xEF\xBB\xBF; A PBX behind the outside-line code 0\r\n"
    "[numbers]\r\n"
    "extension_length = 4\r\n"
    "dial_prefix = 0\r\n"
    "default_added =\r\n"
    "strip_zero_in_brackets = 1\r\n"
    "plain_flag = 7\r\n"
    "\r\n"
    "[rules]\r\n"
    "# rows in table order; row 3 left unused\r\n"
    "rule1 = +44 -> 0\r\n"
    "rule2=+81->0\r\n"
    "rule4 = + -> 00\r\n"
    "rule5 = 0049 ->\r\n";

TEST(DialRules, AFullFileFillsTheRecord) {
  DialRules rules;
  std::string error;
  ASSERT_TRUE(ParseDialRules(kPbxBehindZero, &rules, &error)) << error;
  const ModuleVariables record = rules.Record();
  EXPECT_EQ(record.extension_length, 4u);
  EXPECT_EQ(Text(record.dial_prefix, record.dial_prefix_length), "0");
  EXPECT_EQ(record.default_added_length, 0);
  EXPECT_EQ(record.strip_zero_in_brackets, 1);
  EXPECT_EQ(record.plain_flag, 7);
  ASSERT_EQ(record.rule_count, 5u);
  ASSERT_EQ(record.rules, rules.rules.data());
  const struct {
    const char* leading;
    const char* added;
    bool in_use;
  } rows[] = {{"+44", "0", true}, {"+81", "0", true}, {"", "", false}, {"+", "00", true},
              {"0049", "", true}};
  for (std::size_t i = 0; i < 5; ++i) {
    SCOPED_TRACE(i + 1);
    const NumberRule& rule = record.rules[i];
    EXPECT_EQ(Text(rule.leading, rule.leading_length), rows[i].leading);
    EXPECT_EQ(Text(rule.added, rule.added_length), rows[i].added);
    EXPECT_EQ(rule.in_use, rows[i].in_use ? 1 : 0);
    EXPECT_EQ(rule.leading[rule.leading_length], u'\0');
  }
}

TEST(DialRules, EmptyAndPartialFilesGiveZeros) {
  for (const char* text : {"", "\n\n; nothing\n", "[numbers]\n", "[rules]\n"}) {
    DialRules rules;
    std::string error;
    ASSERT_TRUE(ParseDialRules(text, &rules, &error)) << error;
    const ModuleVariables record = rules.Record();
    EXPECT_EQ(record.rules, nullptr);
    EXPECT_EQ(record.rule_count, 0u);
    EXPECT_EQ(record.extension_length, 0u);
    EXPECT_EQ(record.dial_prefix_length, 0);
  }
}

TEST(DialRules, BadFilesAreNamedByLine) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"[numbers]\nextension_length 4\n", "line 2: expected key = value"},
      {"extension_length = 4\n", "line 1: 'extension_length' is outside any section"},
      {"[numbers\n", "line 1: a section header needs its closing ']'"},
      {"[dialing]\n", "line 1: unknown section [dialing]"},
      {"[ rules ]\n", "line 1: unknown section [ rules ]"},
      {"[rules]\n[numbers]\n[rules]\n", "line 3: section [rules] appears twice"},
      {"[numbers]\n= 4\n", "line 2: a key name is missing"},
      {"[numbers]\nextension_length = 4\nextension_length = 5\n", "line 3: 'extension_length' appears twice"},
      {"[numbers]\nprefix = 0\n", "line 2: unknown key 'prefix' in [numbers]"},
      {"[numbers]\nextension_length = -1\n", "line 2: extension_length: expected a number"},
      {"[numbers]\nextension_length = 4294967296\n", "line 2: extension_length: expected a number"},
      {"[numbers]\nextension_length = 4x\n", "line 2: extension_length: expected a number"},
      {"[numbers]\ndial_prefix = 123456789\n", "line 2: dial_prefix: expected at most 8"},
      {"[numbers]\ndial_prefix = 0,\n", "line 2: dial_prefix: expected at most 8"},
      {"[numbers]\ndefault_added = 1234567890\n", "line 2: default_added: expected at most 9 digits"},
      {"[numbers]\ndefault_added = +1\n", "line 2: default_added: expected at most 9 digits"},
      {"[numbers]\nstrip_zero_in_brackets = 2\n", "line 2: strip_zero_in_brackets: expected 0 or 1"},
      {"[numbers]\nplain_flag = 256\n", "line 2: plain_flag: expected 0 to 255"},
      {"[rules]\nrule0 = 1 -> 2\n", "line 2: unknown key 'rule0'"},
      {"[rules]\nrule01 = 1 -> 2\n", "line 2: unknown key 'rule01'"},
      {"[rules]\nrule1001 = 1 -> 2\n", "line 2: unknown key 'rule1001'"},
      {"[rules]\nrow1 = 1 -> 2\n", "line 2: unknown key 'row1'"},
      {"[rules]\n\n\nrule1 = +44 0\n", "line 4: rule1: expected LEADING -> ADDED"},
      {"[rules]\nrule1 = -> 0\n", "line 2: rule1: leading text '' must be 1 to 17"},
      {"[rules]\nrule1 = 44+ -> 0\n", "line 2: rule1: leading text '44+'"},
      {"[rules]\nrule1 = 123456789012345678 -> 0\n", "line 2: rule1: leading text"},
      {"[rules]\nrule1 = +44 -> 0P\n", "line 2: rule1: added text '0P' must be at most 9 digits"},
      {"[rules]\nrule1 = +44 -> 0123456789\n", "line 2: rule1: added text"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    DialRules rules;
    rules.variables.extension_length = 99;
    std::string error;
    EXPECT_FALSE(ParseDialRules(c.text, &rules, &error));
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    EXPECT_EQ(rules.variables.extension_length, 99u) << "unchanged on failure";
  }
}

TEST(DialRules, BoundsAreInclusive) {
  DialRules rules;
  std::string error;
  ASSERT_TRUE(ParseDialRules("[numbers]\n"
                             "extension_length = 4294967295\n"
                             "dial_prefix = 0*#PW+12\n"
                             "default_added = \"123456789\"\n"
                             "[rules]\n"
                             "rule1000 = 12345678901234567 -> 987654321\n",
                             &rules, &error))
      << error;
  const ModuleVariables record = rules.Record();
  EXPECT_EQ(record.extension_length, 4294967295u);
  EXPECT_EQ(Text(record.dial_prefix, record.dial_prefix_length), "0*#PW+12");
  EXPECT_EQ(Text(record.default_added, record.default_added_length), "123456789");
  ASSERT_EQ(record.rule_count, 1000u);
  EXPECT_EQ(record.rules[998].in_use, 0);
  EXPECT_EQ(Text(record.rules[999].leading, 17), "12345678901234567");
  EXPECT_EQ(record.rules[999].added_length, 9);
}

TEST(DialRules, LoadsFromAFile) {
  testing::TempDir dir;
  const std::string path = dir.File("rules.ini");
  std::ofstream(path) << kPbxBehindZero;
  DialRules rules;
  std::string error;
  ASSERT_TRUE(LoadDialRules(path, &rules, &error)) << error;
  EXPECT_EQ(rules.rules.size(), 5u);

  std::ofstream(path) << "[numbers]\nextension_length = x\n";
  EXPECT_FALSE(LoadDialRules(path, &rules, &error));
  EXPECT_EQ(error, path + ": line 2: extension_length: expected a number of characters, 0 or more");
  EXPECT_FALSE(LoadDialRules(dir.File("missing.ini"), &rules, &error));
  EXPECT_EQ(error, "cannot read " + dir.File("missing.ini"));
  EXPECT_EQ(rules.rules.size(), 5u);
}

TEST(DialRules, WhatNeedsFormatting) {
  for (const char* n : {"+4420", "0 20", "(0)20", "020)", "1\t2"}) EXPECT_TRUE(NeedsFormatting(n)) << n;
  for (const char* n : {"", "02079460958", "*31#", "1P2W3", "12-34"}) EXPECT_FALSE(NeedsFormatting(n)) << n;
}

// Stands in for the library: records what it was given and answers with a fixed text.
std::u16string given;
char16_t answer[] = u"0012";
std::int32_t FakeFormat(const char16_t* number, std::int32_t length, char16_t** out) {
  given.assign(number, static_cast<std::size_t>(length));
  *out = answer;
  return 5;
}
std::int32_t RefusingFormat(const char16_t*, std::int32_t, char16_t**) { return -1; }

TEST(DialRules, FormatNumberConvertsBothWays) {
  EXPECT_EQ(FormatNumber(FakeFormat, "+44 (0)2\xC3\xA9"), "0012");
  EXPECT_EQ(given, u"+44 (0)2\uFFFD\uFFFD");
  EXPECT_EQ(FormatNumber(RefusingFormat, "1"), std::nullopt);
  EXPECT_EQ(FormatNumber(nullptr, "1"), std::nullopt);
}

}  // namespace
}  // namespace deskline::phone
