// What the keeper deletes, with a firewall that only tells of it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <utility>

#include "refhost/parent/Firewall.h"
#include "refhost/parent/RuleKeeper.h"

namespace {

using parent::IdleTimerRule;
using parent::RuleKeeper;

int deletions = -1;  ///< where the keeper's process tells which rules it deletes

const IdleTimerRule kLeft{IdleTimerRule::Direction::kOutgoing, 5, {"w9"}};
const IdleTimerRule kGone{IdleTimerRule::Direction::kIncoming, 5, {"w9"}};

/// An owner's life, which ends without a destructor.
void ownTwoRulesAndDie() {
  RuleKeeper keeper([](int) { return nullptr; });
  EXPECT_TRUE(keeper.expect(kGone));
  EXPECT_TRUE(keeper.expect(kLeft));
  keeper.forget(kGone);
  std::raise(SIGKILL);
}

TEST(RuleKeeper, DeletesWhatIsLeftWhenItsOwnerIsKilled) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  deletions = ends[1];
  const pid_t owner = fork();
  if (owner == 0) ownTwoRulesAndDie();
  waitpid(owner, nullptr, 0);
  close(std::exchange(deletions, -1));

  std::array<char, 64> told{};
  EXPECT_GT(read(ends[0], told.data(), told.size() - 1), 0);
  close(ends[0]);
  EXPECT_EQ(told.data(), kLeft.text());
}

}  // namespace

/// In the place of Firewall::remove() for whoever calls it by that name, as the keeper does.
extern "C" int __wrap__ZN6parent8Firewall6removeERKNS_13IdleTimerRuleE(parent::Firewall* /*self*/,
                                                                       const IdleTimerRule& rule) {
  const std::string text = rule.text();
  return write(deletions, text.data(), text.size()) > 0 ? 0 : 1;
}
