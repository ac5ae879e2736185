/* A C host: the public header compiles as C, and the library links and answers from C. */
#include "deskline/deskline.h"

#include <string.h>

/* The number formatter's records as a C compiler lays them out, on this target and on i386. */
#define EXPECT_AT(record, field, i386, x86_64) \
  _Static_assert(offsetof(record, field) == (sizeof(void*) == 8 ? (x86_64) : (i386)), #field)
_Static_assert(sizeof(NumberRule) == 68, "NumberRule");
EXPECT_AT(NumberRule, leading, 0, 0);
EXPECT_AT(NumberRule, leading_length, 36, 36);
EXPECT_AT(NumberRule, added, 40, 40);
EXPECT_AT(NumberRule, added_length, 60, 60);
EXPECT_AT(NumberRule, in_use, 64, 64);
_Static_assert(sizeof(((NumberRule*)0)->leading) == 34, "leading");
_Static_assert(sizeof(((NumberRule*)0)->added) == 18, "added");
EXPECT_AT(ModuleVariables, rules, 0, 0);
EXPECT_AT(ModuleVariables, rule_count, 4, 8);
EXPECT_AT(ModuleVariables, extension_length, 8, 12);
EXPECT_AT(ModuleVariables, plain_flag, 12, 16);
EXPECT_AT(ModuleVariables, dial_prefix, 14, 18);
EXPECT_AT(ModuleVariables, dial_prefix_length, 32, 36);
EXPECT_AT(ModuleVariables, default_added, 36, 40);
EXPECT_AT(ModuleVariables, default_added_length, 56, 60);
EXPECT_AT(ModuleVariables, strip_zero_in_brackets, 60, 64);
_Static_assert(sizeof(ModuleVariables) == (sizeof(void*) == 8 ? 72 : 64), "ModuleVariables");
_Static_assert(sizeof(((ModuleVariables*)0)->dial_prefix) == 16, "dial_prefix");
_Static_assert(sizeof(((ModuleVariables*)0)->default_added) == 18, "default_added");

/* A C host sets a rule table and formats a number. 0 when the library gives what it should. */
static int FormatFromC(void) {
  static const char16_t number[] = u"+81 3 1234 5678";
  static const char16_t expected[] = u"00312345678";
  NumberRule rule;
  ModuleVariables vars;
  ModuleVariables back;
  char16_t* out = NULL;
  memset(&rule, 0, sizeof rule);
  memset(&vars, 0, sizeof vars);
  memset(&back, 0, sizeof back);
  rule.leading[0] = u'+';
  rule.leading[1] = u'8';
  rule.leading[2] = u'1';
  rule.leading_length = 3;
  rule.added[0] = u'0';
  rule.added_length = 1;
  rule.in_use = 1;
  vars.rules = &rule;
  vars.rule_count = 1;
  vars.extension_length = 4;
  vars.dial_prefix[0] = u'0';
  vars.dial_prefix_length = 1;
  vars.strip_zero_in_brackets = 1;
  if (set_module_variable(&vars, 0xffffffffu) != 0) return 1;
  if (get_formatted_number(number, 15, &out) != 12 || out == NULL) return 2;
  if (memcmp(out, expected, sizeof expected) != 0) return 3;
  if (get_module_variable(&back, -1) != 0 || back.rule_count != 1 || back.extension_length != 4 ||
      back.dial_prefix_length != 1 || back.strip_zero_in_brackets != 1) {
    return 4;
  }
  return 0;
}

int main(void) {
  NetworkInitData data = {0};
  PtapParameterContainer params = {0};
  ModuleVariables vars = {0};
  (void)data;
  (void)params;
  (void)vars;
  if (sizeof(NetworkInitData) != (sizeof(void*) == 8 ? 152 : 132)) return 1;
  /* Before initialize every export answers for a missing object. */
  if (put_key(0x0200) != 0 || uninitialize() != 0 || open_voice() != 0) return 2;
  if (ToneModulePlayTone(1, 2, 3) != -1 || AudioModuleGetEngineStatus() != -1) return 3;
  if (check_leading(u"81", 2, 0) != -1 || get_formatted_number(u"1", 1, NULL) != -1) return 4;
  if (FormatFromC() != 0) return 5;
  return 0;
}
