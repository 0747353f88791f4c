#include <gtest/gtest.h>

#include "lab/Patience.h"
#include "refhost/NetlinkCounters.h"

namespace {

TEST(NetlinkCounters, DeletionsAreOverWhenEveryRequestIsAnswered) {
  EXPECT_TRUE(awaitDeletions(lab::kPatience));
  ++deletionCounters().requested;
  EXPECT_FALSE(awaitDeletions(std::chrono::milliseconds(100)));
  ++deletionCounters().refused;
  EXPECT_TRUE(awaitDeletions(lab::kPatience));
}

}  // namespace
