#include "lab/DemoReport.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace lab {
namespace {

/// TCP/IPv4, UDP/IPv4, TCP/IPv6, UDP/IPv6.
using Counts = std::array<std::size_t, 4>;

Counts countKinds(const std::vector<ConntrackEntry>& entries,
                  const HotspotNetwork::Client& client) {
  Counts counts{};
  for (const ConntrackEntry& entry : entries) {
    const bool mine = entry.concerns(client.ipv4) || entry.concerns(client.ipv6);
    if (!mine || !entry.isTcpOrUdp()) continue;
    const std::size_t family = entry.family == 4 ? 0 : 2;
    ++counts.at(family + (entry.protocol == "tcp" ? 0 : 1));
  }
  return counts;
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

void DemoReport::table(const HotspotNetwork& network,
                       const std::vector<ConntrackEntry>& entries) const {
  say("   client                TCP/IPv4  UDP/IPv4  TCP/IPv6  UDP/IPv6  total");
  for (std::size_t i = 0; i < network.clientCount(); ++i) {
    const HotspotNetwork::Client& client = network.client(i);
    const Counts counts = countKinds(entries, client);
    std::printf("   %-2s %s  %8zu  %8zu  %8zu  %8zu  %5zu\n", client.name.c_str(),
                client.mac.c_str(), counts[0], counts[1], counts[2], counts[3],
                counts[0] + counts[1] + counts[2] + counts[3]);
  }
  std::fflush(stdout);
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

}  // namespace lab
