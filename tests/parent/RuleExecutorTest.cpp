// What the privileged parent does to the firewall, and what it remembers of it.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "refhost/parent/RuleExecutor.h"

namespace parent {
namespace {

using testing::ElementsAre;

constexpr int kTookTooLong = 124;

/// Keeps rules as iptables does: only a rule's own words delete it.
class FakeFirewall : public Firewall {
 public:
  int add(const IdleTimerRule& rule) override {
    if (failure == 0) rules.push_back(rule.text());
    return failure;
  }
  int remove(const IdleTimerRule& rule) override {
    ++removals;
    if (failure == 0) std::erase(rules, rule.text());
    return failure;
  }

  int failure = 0;  ///< of every call from now on
  int removals = 0;
  std::vector<std::string> rules;
};

struct RuleExecutorTest : testing::Test {
  std::int32_t add(std::uint32_t seconds) { return execute(ZAN_CMD_IDLETIMER_ADD_1, seconds); }
  std::int32_t remove() { return execute(ZAN_CMD_IDLETIMER_DEL_1, 0); }

  std::int32_t execute(ZAN_COMMANDS command, std::uint32_t seconds) {
    return executor.execute(command, {IdleTimerRule::directionOf(command), seconds, {"w9"}});
  }

  FakeFirewall firewall;
  RuleKeeper keeper{[](int) { return nullptr; }};
  RuleExecutor executor{keeper, firewall};
};

TEST_F(RuleExecutorTest, ASecondStartReplacesTheRuleWhateverItsTimeout) {
  add(5);
  add(10);
  EXPECT_THAT(firewall.rules, ElementsAre("CT_w9, outgoing, 10 s"));
}

TEST_F(RuleExecutorTest, KeepsTheRuleOfTheOtherDirection) {
  add(5);
  execute(ZAN_CMD_IDLETIMER_ADD_2, 5);
  remove();
  EXPECT_THAT(firewall.rules, ElementsAre("CT_w9, incoming, 5 s"));
}

TEST_F(RuleExecutorTest, AStopWithoutARuleSucceedsAndLeavesTheFirewallAlone) {
  add(5);
  EXPECT_EQ(remove(), 0);
  EXPECT_EQ(remove(), 0) << "there is none any more";
  EXPECT_EQ(firewall.removals, 1);
}

TEST_F(RuleExecutorTest, AProgramThatDidNotRunLeavesNoEntry) {
  firewall.failure = Firewall::kNotRun;
  EXPECT_EQ(add(5), Firewall::kNotRun);
  EXPECT_EQ(remove(), 0);
  EXPECT_EQ(firewall.removals, 0);
}

TEST_F(RuleExecutorTest, ARuleThatMayBeThereIsDeletedLater) {
  firewall.failure = kTookTooLong;
  EXPECT_EQ(add(5), kTookTooLong);
  firewall.failure = Firewall::kNotRun;
  EXPECT_EQ(remove(), Firewall::kNotRun);
  firewall.failure = 0;
  remove();
  EXPECT_EQ(firewall.removals, 2) << "who ran nothing has deleted nothing";
}

}  // namespace
}  // namespace parent
