// What a play has observed, for a plot.
#include "demo/Recording.h"

#include <sstream>
#include <utility>

namespace demo {

void Recording::observe(Clock::time_point when, const std::string& what, Mark mark) {
  observations_.push_back(Observation{when, what, mark});
}

void Recording::add(const TableMoment& moment) {
  constexpr std::chrono::milliseconds kSoon{100};
  const bool news = table_.empty() || moment.ofA != table_.back().ofA ||
                    moment.ofB != table_.back().ofB || moment.when > table_.back().when + kSoon;
  if (news) table_.push_back(moment);
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
