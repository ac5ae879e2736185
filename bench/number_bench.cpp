// get_formatted_number on a dial plan of 50 rules, as a GUI calls it when the user picks a
// contact: the whole rule walk (the last rule matches), no rule (default added text), the
// short form of an extension, and a long pasted text. Reports heap allocations per call.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/alloc_counter.h"
#include "support/number/number_formatter.h"

namespace {

using namespace deskline;

constexpr int kRules = 50;

NumberRule Rule(const std::u16string& leading, const std::u16string& added) {
  NumberRule rule{};
  leading.copy(rule.leading, 17);
  added.copy(rule.added, 9);
  rule.leading_length = static_cast<std::int32_t>(leading.size());
  rule.added_length = static_cast<std::int32_t>(added.size());
  rule.in_use = 1;
  return rule;
}

// Fifty international prefixes "+900" to "+949", each to "00" and its code.
CNumberFormatter& Formatter() {
  static CNumberFormatter* const formatter = [] {
    std::vector<NumberRule> rules;
    for (int i = 0; i < kRules; ++i) {
      const char16_t code[] = {u'9', static_cast<char16_t>(u'0' + i / 10),
                               static_cast<char16_t>(u'0' + i % 10), u'\0'};
      rules.push_back(Rule(std::u16string(u"+").append(code), std::u16string(u"00").append(code)));
    }
    ModuleVariables record{};
    record.rules = rules.data();
    record.rule_count = kRules;
    record.extension_length = 4;
    record.dial_prefix[0] = u'0';
    record.dial_prefix_length = 1;
    record.default_added[0] = u'0';
    record.default_added_length = 1;
    record.strip_zero_in_brackets = 1;
    auto* f = new CNumberFormatter();
    if (f->set_module_variable(&record, 0xffffffffu) != 0) std::abort();
    return f;
  }();
  return *formatter;
}

void Run(benchmark::State& state, const std::u16string& number) {
  CNumberFormatter& f = Formatter();
  char16_t* out = nullptr;
  const auto length = static_cast<std::int32_t>(number.size());
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.get_formatted_number(number.data(), length, &out));
    benchmark::DoNotOptimize(out);
  }
  state.counters["allocs/call"] =
      static_cast<double>(bench::Allocations() - before) / static_cast<double>(state.iterations());
}

void BM_FormatLastOf50Rules(benchmark::State& state) { Run(state, u"+949 (0)30 1234 5678"); }
BENCHMARK(BM_FormatLastOf50Rules);

void BM_FormatNoRuleOf50(benchmark::State& state) { Run(state, u"030 1234-5678"); }
BENCHMARK(BM_FormatNoRuleOf50);

void BM_FormatShortExtension(benchmark::State& state) { Run(state, u"2041"); }
BENCHMARK(BM_FormatShortExtension);

void BM_FormatPasted1000Chars(benchmark::State& state) {
  std::u16string number = u"+925 ";
  while (number.size() < 1000) number += u"(12) 34-";
  Run(state, number);
}
BENCHMARK(BM_FormatPasted1000Chars);

}  // namespace
