#include <fcntl.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "refhost/LogSink.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

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
  std::ifstream reading("/proc/self/fd/" + std::to_string(fileno(file)));
  std::vector<std::string> lines;
  for (std::string line; std::getline(reading, line);) lines.push_back(line);
  std::fclose(file);
  return lines;
}

TEST(LogSink, TextNamesTimeLevelAndModuleOnOneLine) {
  const std::string time = "....-..-..T..:..:..[.][0-9]{6}Z ";
  EXPECT_THAT(
      written(LogSink::Format::kText, 1,
              [](LogSink& sink) {
                sink.log(0, 10409, "below the threshold");
                sink.log(2, 10409, "Disconnected client Info %s", "02:00:00:00:43:0a");
                sink.log(1, 10401, "forged\n2026 4 HOST line\x1b[1m\n");
                sink.log(4, 77, "%d%%", 5);
                sink.setThreshold(4);
                sink.log(3, 10409, "below the new threshold");
              }),
      ElementsAre(MatchesRegex(time + "2 CT_MGR Disconnected client Info 02:00:00:00:43:0a"),
                  MatchesRegex(time + "1 CT_NET forged[?]2026 4 HOST line[?].1m"),
                  MatchesRegex(time + "4 77 5%")));
}

TEST(LogSink, JsonKeepsTheTextExactly) {
  const std::string longText(5000, 'x');
  const auto lines = written(LogSink::Format::kJson, 0, [&](LogSink& sink) {
    sink.log(0, 10401, "type = %s\n", "6");
    sink.log(3, 1, "%s", longText.c_str());
    sink.log(3, 1, "%s", "not UTF-8: \xff");
  });
  ASSERT_EQ(lines.size(), 3U);
  auto first = nlohmann::json::parse(lines[0]);
  first.erase("time");
  EXPECT_EQ(first, (nlohmann::json{{"level", 0}, {"module", "CT_NET"}, {"text", "type = 6\n"}}));
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
  EXPECT_THAT(seen, HasSubstr("line " + std::to_string(kLines - 1) + "\n"));
  EXPECT_THAT(seen, HasSubstr(" lines dropped"));
}

}  // namespace
