#include "bench/Measure.h"

#include <algorithm>
#include <cstddef>

namespace bench {

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

Comparison compare(int rounds, const Measurement& subject, const Measurement& peer, int turns) {
  std::vector<double> subjects;
  std::vector<double> peers;
  std::vector<double> ratios;
  static_cast<void>(peer());
  static_cast<void>(subject());
  for (int round = 0; round < rounds; ++round) {
    double ofSubject = 0;
    double ofPeer = 0;
    for (int turn = 0; turn < turns; ++turn) {
      const bool peerFirst = (round + turn) % 2 == 0;
      if (peerFirst) ofPeer += peer();
      ofSubject += subject();
      if (!peerFirst) ofPeer += peer();
    }
    subjects.push_back(ofSubject / turns);
    peers.push_back(ofPeer / turns);
    ratios.push_back(ofSubject / ofPeer);
  }
  return {spreadOf(std::move(subjects)), spreadOf(std::move(peers)), spreadOf(std::move(ratios))};
}

Spread repeat(int rounds, const Measurement& subject) {
  std::vector<double> results;
  results.reserve(static_cast<std::size_t>(rounds));
  static_cast<void>(subject());
  for (int round = 0; round < rounds; ++round) results.push_back(subject());
  return spreadOf(std::move(results));
}

}  // namespace bench
