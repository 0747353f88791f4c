// The host's log, whose lines carry texts that come from outside.
#include <gmock/gmock.h>

#include <array>
#include <cstdio>

#include "refhost/zanhost/LogSink.h"

namespace zanhost {
namespace {

TEST(LogSink, WhatComesFromOutsideForgesNoLine) {
  std::FILE* file = std::tmpfile();
  {
    LogSink sink(fileno(file), LogSink::Format::kText, 0);
    sink.log(2, 10409, "client %s", "forged\n2026 4 HOST line\x1b[1m");
  }
  std::rewind(file);
  std::array<char, 256> line{};
  ASSERT_NE(std::fgets(line.data(), line.size(), file), nullptr);
  EXPECT_THAT(line.data(), testing::EndsWith(" 2 CT_MGR client forged?2026 4 HOST line?[1m\n"));
  EXPECT_EQ(std::fgets(line.data(), line.size(), file), nullptr) << line.data();
  std::fclose(file);
}

}  // namespace
}  // namespace zanhost
