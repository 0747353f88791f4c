// What a play has observed, and how it looks on a page.
#include "demo/Recording.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <utility>

namespace demo {
namespace {

using Moments = std::vector<LinkMoment>;
using Times = std::vector<Recording::Clock::time_point>;

/// Where moments stand in a row of characters.
class Columns {
 public:
  explicit Columns(const Moments& moments) : moments_(moments) {}

  [[nodiscard]] std::size_t at(Recording::Clock::time_point when) const {
    return static_cast<std::size_t>((when - moments_.front().when) / time_);
  }

  /// "=" while |state| was seen.
  [[nodiscard]] std::string states(bool LinkMoment::*state) const {
    std::string row;
    for (const LinkMoment& moment : moments_) {
      row.resize(at(moment.when), row.empty() ? ' ' : row.back());
      row += moment.*state ? '=' : ' ';
    }
    return row;
  }

  [[nodiscard]] std::string marks(char mark, const Times& times) const {
    std::string row;
    for (const auto when : times) {
      row.resize(std::max(row.size(), at(when) + 1), ' ');
      row[at(when)] = mark;
    }
    return row;
  }

  /// What the timer showed: where it began anew, and then as often as there is room.
  [[nodiscard]] std::string timer() const {
    std::string row;
    std::optional<int> shown;
    for (const LinkMoment& moment : moments_) {
      const std::size_t column = at(moment.when);
      if (moment.timer == shown || !moment.timer) continue;
      if (row.size() > column && moment.timer < shown) continue;
      row.resize(column, ' ');
      row += (moment.timer > shown ? "|" : "") + std::to_string(*moment.timer) + ' ';
      shown = moment.timer;
    }
    return row;
  }

  [[nodiscard]] std::string seconds() const {
    constexpr std::size_t kSpacing = 10;
    std::array<char, 32> text{};
    std::string row;
    for (std::size_t i = 0; i <= at(moments_.back().when); i += kSpacing) {
      row.resize(i, ' ');
      std::snprintf(text.data(), text.size(), "%g",
                    std::chrono::duration<double>(static_cast<int>(i) * time_).count());
      row += text.data();
    }
    return row;
  }

 private:
  static constexpr std::chrono::milliseconds kUnit{50};
  static constexpr std::size_t kMost = 58;

  const Moments& moments_;
  /// That of a column.
  std::chrono::milliseconds time_ =
      kUnit * ((moments_.back().when - moments_.front().when) / (kUnit * kMost) + 1);
};

Times timesOfFrames(const Moments& moments) {
  Times times;
  for (std::size_t i = 1; i < moments.size(); ++i) {
    if (moments[i].frames != moments[i - 1].frames) times.push_back(moments[i].when);
  }
  return times;
}

std::string line(const char* name, std::string row) {
  constexpr std::size_t kRowStart = 19;
  row.erase(row.find_last_not_of(' ') + 1);
  std::string text = std::string("   ") + name;
  text.resize(kRowStart, ' ');
  return text + row + "\n";
}

}  // namespace

void Recording::observe(Clock::time_point when, const std::string& what, Mark mark) {
  observations_.push_back(Observation{when, what, mark});
}

void Recording::add(const TableMoment& moment) {
  constexpr std::chrono::milliseconds kSoon{100};
  const bool news = table_.empty() || moment.ofA != table_.back().ofA ||
                    moment.ofB != table_.back().ofB || moment.when > table_.back().when + kSoon;
  if (news) table_.push_back(moment);
}

Times Recording::timesOf(Mark mark) const {
  Times times;
  for (const Observation& observation : observations_) {
    if (observation.mark == mark) times.push_back(observation.when);
  }
  return times;
}

std::string Recording::timeline(Clock::time_point zero) const {
  std::vector<Observation> sorted = observations_;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Observation& a, const Observation& b) { return a.when < b.when; });
  std::string text;
  for (const Observation& observation : sorted) {
    std::array<char, 32> time{};
    std::snprintf(time.data(), time.size(), "   t %+6lld ms  ",
                  static_cast<long long>(
                      std::chrono::duration_cast<std::chrono::milliseconds>(observation.when - zero)
                          .count()));
    text.append(time.data()).append(observation.what).append("\n");
  }
  return text;
}

std::string Recording::chart() const {
  const Columns columns(link_);
  return line("seconds", columns.seconds()) +
         line("link connected", columns.states(&LinkMoment::connected)) +
         line("frames on it", columns.marks('x', timesOfFrames(link_))) +
         line("modem dormant", columns.states(&LinkMoment::dormant)) +
         line("filters", columns.states(&LinkMoment::filters)) +
         line("timer, seconds", columns.timer()) +
         line("idle reported", columns.marks('!', timesOf(Mark::kIdle))) +
         line("listen filters", columns.states(&LinkMoment::listenFilters)) +
         line("tethering", columns.states(&LinkMoment::tethering));
}

std::string Recording::plotData(const std::string& name, Clock::time_point zero) const {
  std::ostringstream data;
  const auto block = [&](const char* what) { data << "\n\n# " << name << ' ' << what << '\n'; };
  const auto seconds = [&](Clock::time_point when) {
    return std::chrono::duration<double>(when - zero).count();
  };
  block("table");
  for (const TableMoment& now : table_) {
    data << seconds(now.when) << ' ' << now.ofA << ' ' << now.ofB << '\n';
  }
  block("state");
  for (const LinkMoment& now : link_) {
    data << seconds(now.when) << ' ' << now.connected << ' ' << now.dormant << ' ' << now.filters
         << ' ' << now.listenFilters << ' ' << now.tethering << ' ' << now.frames << ' '
         << (now.timer ? std::to_string(*now.timer) : "NaN") << '\n';
  }
  for (const auto& [mark, what] :
       {std::pair(Mark::kEvent, "events"), {Mark::kFlush, "flushes"}, {Mark::kIdle, "reports"}}) {
    block(what);
    for (const Observation& seen : observations_) {
      if (seen.mark == mark) data << seconds(seen.when) << " \"" << seen.what << "\"\n";
    }
  }
  return data.str();
}

}  // namespace demo
