// Rounds, and their medians and quartiles.
#include "bench/Measure.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace bench {
namespace {

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t last = values.size() - 1;
  return {values[last / 2], values[last / 4], values[last - last / 4]};
}

}  // namespace

Comparison compare(const Effort& effort, const Measurement& subject, const Measurement& peer) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> subjects;
  std::vector<double> peers;
  std::vector<double> ratios;
  static_cast<void>(peer());
  static_cast<void>(subject());
  const auto end = Clock::now() + std::chrono::duration<double>(effort.seconds);
  for (int round = 0; round < effort.rounds || Clock::now() < end; ++round) {
    const bool peerFirst = round % 2 == 0;
    if (peerFirst) peers.push_back(peer());
    subjects.push_back(subject());
    if (!peerFirst) peers.push_back(peer());
    ratios.push_back(subjects.back() / peers.back());
  }
  return {spreadOf(std::move(subjects)), spreadOf(std::move(peers)), spreadOf(std::move(ratios))};
}

}  // namespace bench
