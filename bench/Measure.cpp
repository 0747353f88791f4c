#include "bench/Measure.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace bench {
namespace {

/// The value below which the part |part| of the |sorted| ones lie, between two of them if need be.
double quantile(const std::vector<double>& sorted, double part) {
  const double position = part * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, sorted.size() - 1);
  return std::lerp(sorted[below], sorted[above], position - static_cast<double>(below));
}

/// Calls |round| with the number of each round.
template <typename Round>
void spend(const Effort& effort, Round round) {
  const auto start = std::chrono::steady_clock::now();
  const std::chrono::duration<double> length(effort.seconds);
  for (int i = 0; i < effort.rounds || std::chrono::steady_clock::now() - start < length; ++i) {
    round(i);
  }
}

}  // namespace

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return {quantile(values, 0.5), quantile(values, 0.25), quantile(values, 0.75)};
}

Comparison compare(const Effort& effort, const Measurement& subject, const Measurement& peer) {
  std::vector<double> subjects;
  std::vector<double> peers;
  std::vector<double> ratios;
  static_cast<void>(peer());
  static_cast<void>(subject());
  spend(effort, [&](int round) {
    const bool peerFirst = round % 2 == 0;
    if (peerFirst) peers.push_back(peer());
    subjects.push_back(subject());
    if (!peerFirst) peers.push_back(peer());
    ratios.push_back(subjects.back() / peers.back());
  });
  return {spreadOf(std::move(subjects)), spreadOf(std::move(peers)), spreadOf(std::move(ratios))};
}

Spread repeat(const Effort& effort, const Measurement& subject) {
  std::vector<double> results;
  static_cast<void>(subject());
  spend(effort, [&](int /*round*/) { results.push_back(subject()); });
  return spreadOf(std::move(results));
}

}  // namespace bench
