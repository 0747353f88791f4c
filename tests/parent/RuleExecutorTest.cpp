// What the privileged parent does to the firewall, and what it remembers of it.
#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "refhost/parent/RuleExecutor.h"

namespace parent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kTookTooLong = 124;
constexpr int kNoMatchingRule = 1;

/// Keeps rules as iptables does: the same one may be there twice, and only its own words delete it.
class FakeFirewall : public Firewall {
 public:
  int add(const IdleTimerRule& rule) override {
    if (failure == 0) rules.push_back(rule.text());
    return failure;
  }
  int remove(const IdleTimerRule& rule) override {
    ++removals;
    if (failure != 0) return failure;
    const auto found = std::find(rules.begin(), rules.end(), rule.text());
    if (found == rules.end()) return kNoMatchingRule;
    rules.erase(found);
    return 0;
  }

  int failure = 0;  ///< of every call from now on
  int removals = 0;
  std::vector<std::string> rules;
};

struct Parent {
  std::int32_t add(const std::string& interface, std::uint32_t seconds) {
    return execute(ZAN_CMD_IDLETIMER_ADD_1, interface, seconds);
  }
  std::int32_t remove(const std::string& interface, std::uint32_t seconds) {
    return execute(ZAN_CMD_IDLETIMER_DEL_1, interface, seconds);
  }
  std::int32_t execute(ZAN_COMMANDS command, const std::string& interface, std::uint32_t seconds) {
    IdleTimerRule rule{IdleTimerRule::directionOf(command), seconds, {}};
    interface.copy(rule.interface.data(), rule.interface.size() - 1);
    return executor.execute(command, rule);
  }

  FakeFirewall firewall;
  RuleKeeper keeper{[](int) { return nullptr; }};
  RuleExecutor executor{keeper, firewall};
};

TEST(RuleExecutor, StartsThatRanNoProgramLeaveRoomForLaterOnes) {
  Parent parent;
  parent.firewall.failure = Firewall::kNotRun;
  for (std::size_t i = 0; i < RuleKeeper::kMostRules; ++i) {
    EXPECT_EQ(parent.add("w" + std::to_string(i), 5), Firewall::kNotRun);
  }
  parent.firewall.failure = 0;
  EXPECT_EQ(parent.add("w", 5), 0);
  EXPECT_EQ(parent.remove("w", 5), 0);
}

TEST(RuleExecutor, ARuleThatMayBeThereIsDeletedLater) {
  Parent parent;
  parent.firewall.failure = kTookTooLong;
  EXPECT_EQ(parent.add("w9", 5), kTookTooLong);
  parent.firewall.failure = Firewall::kNotRun;
  EXPECT_EQ(parent.remove("w9", 5), Firewall::kNotRun) << "who ran nothing has deleted nothing";
  parent.firewall.failure = 0;
  parent.remove("w9", 5);
  EXPECT_EQ(parent.firewall.removals, 2);
}

TEST(RuleExecutor, ASecondStartReplacesTheFirstWhateverItsTimeout) {
  for (const std::uint32_t first : {5U, 10U}) {
    Parent parent;
    for (const std::uint32_t seconds : {first, 5U}) {
      parent.execute(ZAN_CMD_IDLETIMER_ADD_1, "w9", seconds);
      parent.execute(ZAN_CMD_IDLETIMER_ADD_2, "w9", seconds);
    }
    EXPECT_THAT(parent.firewall.rules, ElementsAre("CT_w9, outgoing, 5 s", "CT_w9, incoming, 5 s"));
    EXPECT_EQ(parent.execute(ZAN_CMD_IDLETIMER_DEL_1, "w9", 5), 0);
    EXPECT_EQ(parent.execute(ZAN_CMD_IDLETIMER_DEL_2, "w9", 5), 0);
    EXPECT_THAT(parent.firewall.rules, IsEmpty());
  }
}

TEST(RuleExecutor, AddsNothingBesideARuleThatCannotBeReplaced) {
  Parent parent;
  parent.add("w9", 10);
  parent.firewall.failure = kTookTooLong;
  EXPECT_EQ(parent.add("w9", 5), kTookTooLong);
  parent.firewall.failure = 0;
  EXPECT_EQ(parent.remove("w9", 5), 0);
  EXPECT_THAT(parent.firewall.rules, IsEmpty());
}

TEST(RuleExecutor, DeletingARuleThatIsNotThereSucceedsWithoutAskingTheFirewall) {
  Parent parent;
  EXPECT_EQ(parent.remove("w9", 0), 0);
  EXPECT_EQ(parent.firewall.removals, 0);
}

}  // namespace
}  // namespace parent
