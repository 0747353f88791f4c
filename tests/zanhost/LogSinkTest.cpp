// The log's two formats, and a reader who stands still.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "refhost/zanhost/LogSink.h"

namespace zanhost {
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

TEST(LogSink, WritesWhatIsThereWhenItIsFinishedAndDropsWhatComesLater) {
  EXPECT_THAT(written(LogSink::Format::kText, 0,
                      [](LogSink& sink) {
                        sink.log(2, 10409, "before");
                        sink.finish();
                        sink.log(2, 10409, "after");
                      }),
              ElementsAre(HasSubstr("before")));
}

TEST(LogSink, AReaderThatStandsStillDoesNotBlockTheCaller) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  constexpr int kLines = 3 * static_cast<int>(LogSink::kQueueLength);
  const std::string lastLine = "line " + std::to_string(kLines - 1) + "\n";
  std::string seen;
  const auto readOn = [&] {
    std::array<char, 65536> bytes;
    const ssize_t count = read(ends[0], bytes.data(), bytes.size());
    if (count > 0) seen.append(bytes.data(), static_cast<std::size_t>(count));
    return count > 0;
  };
  {
    LogSink sink(ends[1], LogSink::Format::kText, 0);
    for (int i = 0; i < kLines; ++i) sink.log(2, 10409, "line %d", i);  // nobody reads yet
    while (seen.find(lastLine) == std::string::npos && readOn()) continue;
  }
  close(ends[1]);
  while (readOn()) continue;
  close(ends[0]);
  EXPECT_THAT(seen, HasSubstr(lastLine));
  EXPECT_THAT(seen, HasSubstr(" lines dropped"));
}

}  // namespace
}  // namespace zanhost
