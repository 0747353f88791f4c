// What the plays print.
#include "demo/DemoReport.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <sstream>
#include <string_view>

namespace demo {
namespace {

constexpr const char* kBold = "1";
constexpr const char* kGreen = "32";

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

std::string_view environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// Whether somebody reads while it is printed.
bool onTerminal() {
  static const bool answer = ::isatty(STDOUT_FILENO) == 1 && environment("TERM") != "dumb";
  return answer;
}

std::string painted(const std::string& text, const char* colour) {
  static const bool wanted = onTerminal() && environment("NO_COLOR").empty();
  return wanted ? std::string("\033[") + colour + "m" + text + "\033[0m" : text;
}

/// |text| in lines that fit behind |indent| characters; what stands before the first is the
/// caller's.
std::string broken(const std::string& text, std::size_t indent) {
  std::string lines;
  std::size_t column = indent;
  std::istringstream words(text);
  for (std::string word; words >> word; column += word.size()) {
    if (column > indent && column + 1 + word.size() > DemoReport::kWidth) {
      lines += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      lines += ' ';
      ++column;
    }
    lines += word;
  }
  return lines;
}

}  // namespace

DemoReport::Pace DemoReport::usualPace() {
  return onTerminal() ? Pace::kForReaders : Pace::kAtOnce;
}

std::chrono::milliseconds DemoReport::moment() const {
  constexpr std::chrono::milliseconds kMoment{1500};
  return pace_ == Pace::kForReaders ? kMoment : kMoment.zero();
}

void DemoReport::say(const std::string& paragraph) const {
  const std::size_t indent = paragraph.find_first_not_of(' ');
  show(std::string(indent, ' ') + broken(paragraph, indent) + "\n");
}

void DemoReport::show(const std::string& lines) const {
  std::fputs(lines.c_str(), stdout);
  std::fflush(stdout);
}

void DemoReport::act(const std::string& title) {
  const std::string number = std::to_string(++act_) + ". ";
  show("\n" + painted(number + broken(title, number.size()), kBold) + "\n");
}

void DemoReport::check(bool holds, const std::string& claim, const std::string& expected,
                       const std::string& seen) {
  if (!holds) throw CheckFailed(claim, expected, seen);
  ++checks_;
  constexpr std::size_t kIndent = 7;
  show("   " + painted("ok", kGreen) + "  " + broken(claim + ": " + seen, kIndent) + "\n");
}

void DemoReport::endHost(lab::HostProcess& host) {
  act("The host is stopped (SIGTERM)");
  const base::ExitStatus status = host.stop(SIGTERM);
  check(status.success(), "it ended in order", "exit code 0", status.text());
}

void DemoReport::end() const {
  show("\n" + painted("All " + std::to_string(checks_) + " claims held.", kGreen) + "\n");
}

void DemoReport::table(const lab::HotspotNetwork& network,
                       const lab::ConntrackEntries& entries) const {
  show("   client                TCP/IPv4  UDP/IPv4  TCP/IPv6  UDP/IPv6  total\n");
  for (std::size_t i = 0; i < network.clientCount(); ++i) {
    const lab::HotspotNetwork::Client& client = network.client(i);
    const Counts counts = countKinds(network.entriesOf(i, entries));
    std::printf("   %-2s %s  %8zu  %8zu  %8zu  %8zu  %5zu\n", client.name.c_str(),
                client.mac.c_str(), counts[0], counts[1], counts[2], counts[3],
                std::accumulate(counts.begin(), counts.end(), std::size_t{0}));
  }
  std::fflush(stdout);
}

}  // namespace demo
