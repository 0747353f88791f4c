// What the plays print.
#include "demo/DemoReport.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>

namespace demo {
namespace {

constexpr const char* kTimerFolder = "/sys/class/xt_idletimer/timers";

/// TCP/IPv4, UDP/IPv4, TCP/IPv6, UDP/IPv6.
using Counts = std::array<std::size_t, 4>;

Counts countKinds(const lab::ConntrackEntries& entries) {
  Counts counts{};
  for (const lab::ConntrackEntry& entry : entries) {
    const std::size_t family = entry.family == 4 ? 0 : 2;
    ++counts.at(entry.protocol == "tcp" ? family : family + 1);
  }
  return counts;
}

/// What a picture shows at one place.
struct Column {
  const LinkMoment* last = nullptr;
  std::optional<int> timer;
  bool timerBegins = false;
  bool frame = false;
  bool idle = false;
};

/// The shortest time of a column with which |span| fits into a line.
std::chrono::milliseconds columnTime(DemoReport::Clock::duration span) {
  constexpr std::size_t kMostColumns = 76;
  using std::chrono::milliseconds;
  for (const milliseconds time : {milliseconds(250), milliseconds(500), milliseconds(1000)}) {
    if (span < time * (kMostColumns - 1)) return time;
  }
  return std::max(milliseconds(2500), std::chrono::ceil<milliseconds>(span / (kMostColumns - 1)));
}

std::vector<Column> columnsOf(const std::vector<LinkMoment>& moments,
                              const std::vector<DemoReport::Clock::time_point>& idleReports,
                              std::chrono::milliseconds time) {
  const auto columnAt = [&](DemoReport::Clock::time_point when) {
    return static_cast<std::size_t>((when - moments.front().when) / time);
  };
  std::vector<Column> columns(columnAt(moments.back().when) + 1);
  const LinkMoment* before = nullptr;
  for (const LinkMoment& moment : moments) {
    Column& column = columns[columnAt(moment.when)];
    const bool begins =
        moment.timer && (before == nullptr || !before->timer || *moment.timer > *before->timer);
    if (begins || !column.timerBegins) column.timer = moment.timer;
    column.timerBegins |= begins;
    column.frame |= before != nullptr && moment.frames != before->frames;
    column.last = before = &moment;
  }
  for (std::size_t i = 1; i < columns.size(); ++i) {
    if (columns[i].last != nullptr) continue;
    columns[i].last = columns[i - 1].last;
    columns[i].timer = columns[i - 1].last->timer;
  }
  for (const auto when : idleReports) {
    if (columnAt(when) < columns.size()) columns[columnAt(when)].idle = true;
  }
  return columns;
}

/// "|" where the timer begins anew, its value there, and on its way down as often as there is
/// room.
std::string timerRow(const std::vector<Column>& columns) {
  constexpr std::size_t kSpacing = 3;
  std::string row(columns.size() + kSpacing, ' ');
  std::optional<int> shown;
  std::size_t shownAt = 0;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const Column& column = columns[i];
    if (!column.timer) continue;
    if (row[i] == ' ') row[i] = '.';
    if (!column.timerBegins && (column.timer == shown || i < shownAt + kSpacing)) continue;
    const std::string text = (column.timerBegins ? "|" : "") + std::to_string(*column.timer);
    row.replace(i, text.size(), text);
    shown = column.timer;
    shownAt = i + (column.timerBegins ? 1 : 0);
  }
  return row;
}

std::string scaleRow(std::size_t columns, std::chrono::milliseconds time) {
  constexpr std::size_t kSpacing = 20;
  std::string row;
  for (std::size_t i = 0; i < columns; i += kSpacing) {
    row.resize(i, ' ');
    row += std::to_string(static_cast<std::int64_t>(i) * time.count() / 1000);
  }
  return row;
}

long long millisecondsBetween(DemoReport::Clock::time_point from,
                              DemoReport::Clock::time_point to) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

}  // namespace

void DemoReport::say(const std::string& line) const {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void DemoReport::act(const std::string& title) {
  say("\n" + std::to_string(++act_) + ". " + title);
}

void DemoReport::check(bool holds, const std::string& claim, const std::string& expected,
                       const std::string& seen) {
  if (!holds) throw CheckFailed(claim, expected, seen);
  ++checks_;
  say("   ok: " + claim + ": " + seen);
}

void DemoReport::endHost(lab::HostProcess& host) {
  act("The host is stopped (SIGTERM)");
  const base::ExitStatus status = host.stop(SIGTERM);
  check(status.success(), "it ended in order", "exit code 0", status.text());
}

void DemoReport::table(const lab::HotspotNetwork& network,
                       const lab::ConntrackEntries& entries) const {
  say("   client                TCP/IPv4  UDP/IPv4  TCP/IPv6  UDP/IPv6  total");
  for (std::size_t i = 0; i < network.clientCount(); ++i) {
    const lab::HotspotNetwork::Client& client = network.client(i);
    const Counts counts = countKinds(network.entriesOf(i, entries));
    std::printf("   %-2s %s  %8zu  %8zu  %8zu  %8zu  %5zu\n", client.name.c_str(),
                client.mac.c_str(), counts[0], counts[1], counts[2], counts[3],
                std::accumulate(counts.begin(), counts.end(), std::size_t{0}));
  }
  std::fflush(stdout);
  if (kernelText_ == KernelText::kLeftOut) return;
  say("   /proc/net/nf_conntrack:");
  for (const lab::ConntrackEntry& entry : entries) say("   | " + entry.line);
}

void DemoReport::timers() const {
  if (kernelText_ == KernelText::kLeftOut) return;
  say(std::string("   ") + kTimerFolder + ":");
  std::error_code error;
  std::string all;
  for (const auto& file : std::filesystem::directory_iterator(kTimerFolder, error)) {
    const std::string name = file.path().filename();
    if (name.rfind("CT_", 0) != 0) continue;
    std::string content;
    std::getline(std::ifstream(file.path()), content);
    all.append("   | ").append(name).append(" reads ").append(content);
  }
  say(all.empty() ? "   | no timer" : all);
}

void DemoReport::observe(Clock::time_point when, const std::string& what) {
  observations_.push_back(Observation{when, what});
}

void DemoReport::timeline(Clock::time_point zero) {
  std::stable_sort(observations_.begin(), observations_.end(),
                   [](const Observation& a, const Observation& b) { return a.when < b.when; });
  for (const Observation& observation : observations_) {
    std::printf("   t%+6lld ms  %s\n", millisecondsBetween(zero, observation.when),
                observation.what.c_str());
  }
  std::fflush(stdout);
}

void DemoReport::picture(const std::vector<LinkMoment>& moments,
                         const std::vector<Clock::time_point>& idleReports) const {
  const auto time = columnTime(moments.back().when - moments.front().when);
  const std::vector<Column> columns = columnsOf(moments, idleReports, time);
  const auto print = [](const char* name, std::string row) {
    row.erase(row.find_last_not_of(' ') + 1);
    std::printf("   %-16s %s\n", name, row.c_str());
  };
  const auto row = [&](char mark, const auto& marked) {
    std::string text;
    for (const Column& column : columns) text += marked(column) ? mark : ' ';
    return text;
  };
  print("seconds", scaleRow(columns.size(), time));
  print("link connected", row('=', [](const Column& c) { return c.last->connected; }));
  print("frames on it", row('x', [](const Column& c) { return c.frame; }));
  print("modem dormant", row('=', [](const Column& c) { return c.last->dormant; }));
  print("filters", row('=', [](const Column& c) { return c.last->filters; }));
  print("timer, seconds", timerRow(columns));
  print("idle reported", row('!', [](const Column& c) { return c.idle; }));
  print("listen filters", row('=', [](const Column& c) { return c.last->listenFilters; }));
  print("tethering", row('=', [](const Column& c) { return c.last->tethering; }));
  std::fflush(stdout);
}

}  // namespace demo
