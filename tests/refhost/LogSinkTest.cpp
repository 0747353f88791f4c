#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "refhost/LogSink.h"

namespace {

/// Logs through a sink of its own and returns the lines that were written.
template <typename Log>
std::vector<std::string> written(LogSink::Format format, int threshold, Log log) {
  std::FILE* file = std::tmpfile();
  {
    LogSink sink(fileno(file), format, threshold);
    EXPECT_EQ(ZanMsg::zan_log_class_ptr, &sink);
    log(sink);
  }
  EXPECT_EQ(ZanMsg::zan_log_class_ptr, nullptr);
  std::rewind(file);
  std::vector<std::string> lines;
  std::string line;
  for (int c; (c = std::fgetc(file)) != EOF;) {
    if (c != '\n') {
      line.push_back(static_cast<char>(c));
    } else {
      lines.push_back(std::exchange(line, {}));
    }
  }
  EXPECT_EQ(line, "") << "the last line has an end";
  std::fclose(file);
  return lines;
}

TEST(LogSink, TextNamesTimeLevelAndModuleOnOneLine) {
  const auto lines = written(LogSink::Format::kText, 1, [](LogSink& sink) {
    sink.log(0, 10409, "below the threshold");
    sink.log(2, 10409, "Disconnected client Info %s", "02:00:00:00:43:0a");
    sink.log(1, 10401, "forged\n2026 4 HOST line\x1b[1m\n");
    sink.log(4, 77, "%d%%", 5);
    sink.setThreshold(4);
    sink.log(3, 10409, "below the new threshold");
  });
  const std::vector<std::string> expected{"2 CT_MGR Disconnected client Info 02:00:00:00:43:0a",
                                          "1 CT_NET forged\\?2026 4 HOST line\\?\\[1m", "4 77 5%"};
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::regex line("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z " + expected[i]);
    EXPECT_TRUE(std::regex_match(lines[i], line)) << lines[i];
  }
}

TEST(LogSink, JsonKeepsTheTextExactly) {
  const std::string longText(5000, 'x');
  const auto lines = written(LogSink::Format::kJson, 0, [&](LogSink& sink) {
    sink.log(0, 10401, "type = %s\n", "6");
    sink.log(3, 1, "%s", longText.c_str());
    sink.log(3, 1, "%s", "not UTF-8: \xff");
  });
  ASSERT_EQ(lines.size(), 3U);
  const auto first = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(first["level"], 0);
  EXPECT_EQ(first["module"], "CT_NET");
  EXPECT_EQ(first["text"], "type = 6\n");
  EXPECT_EQ(nlohmann::json::parse(lines[1])["text"], longText);
  EXPECT_TRUE(nlohmann::json::accept(lines[2])) << lines[2];
}

TEST(LogSink, AReaderThatStandsStillDoesNotBlockTheCaller) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  constexpr int kLines = 3 * static_cast<int>(LogSink::kQueueLength);
  std::string seen;
  std::thread reader;
  {
    LogSink sink(ends[1], LogSink::Format::kText, 0);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kLines; ++i) sink.log(2, 10409, "line %d", i);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    reader = std::thread([&] {
      std::array<char, 65536> bytes;
      for (ssize_t n; (n = read(ends[0], bytes.data(), bytes.size())) > 0;) {
        seen.append(bytes.data(), static_cast<std::size_t>(n));
      }
    });
  }
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_NE(seen.find("line " + std::to_string(kLines - 1) + "\n"), std::string::npos)
      << "the latest lines survive";
  EXPECT_NE(seen.find(" lines dropped"), std::string::npos) << "the loss is reported";
}

}  // namespace
