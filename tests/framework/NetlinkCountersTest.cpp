// When deletions are over.
#include <gtest/gtest.h>

#include "base/Patience.h"
#include "refhost/framework/NetlinkCounters.h"

namespace framework {
namespace {

TEST(NetlinkCounters, DeletionsAreOverWhenEveryRequestIsAnswered) {
  EXPECT_TRUE(awaitDeletions(base::kPatience));
  ++deletionCounters().requested;
  EXPECT_FALSE(awaitDeletions(std::chrono::milliseconds(100)));
  ++deletionCounters().refused;
  EXPECT_TRUE(awaitDeletions(base::kPatience));
}

}  // namespace
}  // namespace framework
