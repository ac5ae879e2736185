// Which datagrams the network rules touch, occurrence by occurrence.
#include "tools/pbxsim/net_rules.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/pbxsim/ptap_wire.h"

namespace deskline::sim {
namespace {

// One letter per datagram: D dropped, L delayed, 2 duplicated, . untouched.
std::string Pattern(NetRules& rules, Direction direction, std::optional<std::uint8_t> type, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) {
    const Verdict v = rules.Apply(direction, type);
    out += v.drop ? 'D' : v.delay_ms > 0 ? 'L' : v.duplicate ? '2' : '.';
  }
  return out;
}

TEST(NetRules, OccurrencesCountPerRuleByDirectionAndType) {
  NetRules rules;
  rules.Add(NetRule::Drop(Direction::kIn, kTypeStart).Occurrences(1, 2));
  rules.Add(NetRule::Duplicate(Direction::kOut, kTypeAck));
  rules.Add(NetRule::Delay(Direction::kOut, kTypeKeepalive, 100).Occurrences(3, 1));

  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeOpBegin, 2), "..");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeStart, 2), "..");
  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeStart, 4), "DD..");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeAck, 3), "222");
  EXPECT_EQ(Pattern(rules, Direction::kOut, kTypeKeepalive, 5), "..L..");
  EXPECT_EQ(Pattern(rules, Direction::kIn, std::nullopt, 1), ".");

  rules.Clear();
  EXPECT_TRUE(rules.empty());
  EXPECT_EQ(Pattern(rules, Direction::kIn, kTypeStart, 1), ".");
}

TEST(NetRules, AnyTypeRuleTakesMalformedDatagramsTooAndDelaysAddUp) {
  NetRules rules;
  rules.Add(NetRule::Delay(Direction::kIn, std::nullopt, 100));
  rules.Add(NetRule::Delay(Direction::kIn, kTypeStart, 50));
  rules.Add(NetRule::Drop(Direction::kIn, std::nullopt).Occurrences(3, 0));
  EXPECT_EQ(rules.Apply(Direction::kIn, std::nullopt).delay_ms, 100);
  EXPECT_EQ(rules.Apply(Direction::kIn, kTypeStart).delay_ms, 150);
  const Verdict third = rules.Apply(Direction::kIn, kTypeAck);
  EXPECT_TRUE(third.drop);
  EXPECT_TRUE(rules.Apply(Direction::kIn, kTypeAck).drop);  // count 0: every one from the 3rd
}

TEST(NetRules, ProbabilityIsRepeatableFromItsSeed) {
  auto pattern = [](std::uint64_t seed) {
    NetRules rules(seed);
    rules.Add(NetRule::Drop(Direction::kOut, std::nullopt).WithProbability(0.5));
    return Pattern(rules, Direction::kOut, kTypeAck, 64);
  };
  const std::string a = pattern(7);
  EXPECT_EQ(a, pattern(7));
  EXPECT_NE(a, pattern(8));
  EXPECT_NE(a.find('D'), std::string::npos);
  EXPECT_NE(a.find('.'), std::string::npos);

  NetRules never;
  never.Add(NetRule::Drop(Direction::kOut, std::nullopt).WithProbability(0.0));
  EXPECT_EQ(Pattern(never, Direction::kOut, kTypeAck, 16), std::string(16, '.'));
}

}  // namespace
}  // namespace deskline::sim
