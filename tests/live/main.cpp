#include <gtest/gtest.h>

#include "tests/live/LiveTest.h"

int main(int argc, char** argv) {
  prepareForLiveTests();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
