// The six number exports as a GUI calls them. The formatter that the first
// set_module_variable makes lives to the end of the process, so the first test here is the
// only one that sees the exports without it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "deskline/deskline.h"
#include "number/number_test_util.h"
#include "testing/trace_capture.h"

namespace deskline {
namespace {

using testing::DialPlan;
using testing::MakeRule;

TEST(NumberExports, AFirstSetModuleVariableMakesTheFormatter) {
  char16_t* out = nullptr;
  ModuleVariables record{};
  EXPECT_EQ(get_module_variable(&record, -1), -1);
  EXPECT_EQ(check_leading(u"81", 2, 0), -1);
  EXPECT_EQ(check_added(u"0", 1, -1), -1);
  EXPECT_EQ(get_formatted_number(u"123", 3, &out), -1);
  EXPECT_EQ(out, nullptr);
  discard_changes();

  // Whatever the selector, and even for a null record.
  EXPECT_EQ(set_module_variable(nullptr, 0), -1);
  EXPECT_EQ(get_module_variable(&record, -1), 0);
  EXPECT_EQ(check_added(u"0", 1, -1), 0);
  EXPECT_EQ(get_formatted_number(u"123", 3, &out), 4);
}

// A PBX behind the outside-line code 0: extensions of up to four digits are dialled as
// they are; national numbers get the 0; international ones from Japan and Britain become
// national, every other '+' becomes 00.
TEST(NumberExports, AGuiSessionFromSettingsToDialString) {
  DialPlan plan{{MakeRule("+81", "0"), MakeRule("+44", "0"), MakeRule("+", "00")}, 4, "0", "", true};
  ModuleVariables record = plan.Record();
  ASSERT_EQ(set_module_variable(&record, 0xffffffffu), 0);

  const struct {
    const char16_t* number;
    const char16_t* expected;
  } rows[] = {
      {u"2041", u"2041"},
      {u"+81 3 1234 5678", u"00312345678"},
      {u"+44 (0)20 7946 0958", u"002079460958"},
      {u"+1 (555) 0100", u"00015550100"},
      {u"030 1234-567", u"0030 1234567"},
  };
  for (const auto& row : rows) {
    char16_t* out = nullptr;
    const auto length = static_cast<std::int32_t>(std::char_traits<char16_t>::length(row.number));
    const std::int32_t count = get_formatted_number(row.number, length, &out);
    ASSERT_GT(count, 0);
    std::u16string expected(row.expected);
    std::erase(expected, u' ');
    EXPECT_EQ(std::u16string(out), expected);
    EXPECT_EQ(count, static_cast<std::int32_t>(expected.size() + 1));
  }
  EXPECT_EQ(get_formatted_number(nullptr, 3, nullptr), -1);

  // The settings page edits a rule, then drops the edit.
  EXPECT_EQ(check_leading(u"+49", 3, 2), 0);
  EXPECT_EQ(check_added(u"0", 1, 2), 0);
  EXPECT_EQ(check_leading(u"+49", 3, 3), -1);
  EXPECT_EQ(check_added(u"x", 1, -1), 4);
  discard_changes();
  ModuleVariables back{};
  ASSERT_EQ(get_module_variable(&back, 1), 0);
  std::vector<NumberRule> table(back.rule_count);
  back.rules = table.data();
  ASSERT_EQ(get_module_variable(&back, -1), 0);
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(std::memcmp(table.data(), plan.rules.data(), sizeof(NumberRule) * 3), 0);
  EXPECT_EQ(back.dial_prefix[0], u'0');
  EXPECT_EQ(back.dial_prefix_length, 1);
  EXPECT_EQ(back.strip_zero_in_brackets, 1);
}

TEST(NumberExports, RefusedTablesAndDefaultsAreTraced) {
  testing::TraceCapture trace;
  tracer_set_filter(DESKLINE_TRACE_ALL);
  std::vector<NumberRule> big(1001, MakeRule("1", "2"));
  ModuleVariables record{};
  record.rules = big.data();
  record.rule_count = 1001;
  EXPECT_EQ(set_module_variable(&record, 1), -1);
  EXPECT_TRUE(trace.Has("[NumberFormatter :: Warning] Rule table of 1001 rules refused (at most 1000)"))
      << trace.Text();

  record.rule_count = 1;
  record.default_added_length = 10;
  EXPECT_EQ(set_module_variable(&record, 1 | 32), 32);
  ModuleVariables back{};
  EXPECT_EQ(get_module_variable(&back, 1), 0);
  EXPECT_EQ(back.rule_count, 1u) << "the table of the same call is kept";
}

}  // namespace
}  // namespace deskline
