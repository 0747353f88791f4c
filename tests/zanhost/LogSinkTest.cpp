// The host's log, whose lines carry texts that come from outside.
#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <string>

#include "host/Agreement.h"
#include "refhost/zanhost/LogSink.h"

namespace zanhost {
namespace {

/// All that a sink writes of one text.
std::string written(LogSink::Format format, const char* text) {
  std::FILE* file = std::tmpfile();
  {
    LogSink sink(fileno(file), format, 0);
    sink.log(kLogNotice, ZAN_LOG_MODULE_CT_MGR, "client %s", text);
  }
  std::rewind(file);
  std::array<char, 256> all{};
  static_cast<void>(std::fread(all.data(), 1, all.size() - 1, file));
  std::fclose(file);
  return all.data();
}

TEST(LogSink, WhatComesFromOutsideForgesNoLine) {
  EXPECT_THAT(written(LogSink::Format::kText, "forged\n2026 4 HOST line\x1b[1m"),
              testing::EndsWith(" 2 CT_MGR client forged?2026 4 HOST line?[1m\n"));
  EXPECT_EQ(written(LogSink::Format::kJournal, "forged\n<0>HOST line"),
            "<5>CT_MGR client forged?<0>HOST line\n");
}

}  // namespace
}  // namespace zanhost
