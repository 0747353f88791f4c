// Taking turns: a subject and its peer, measured side by side.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace bench {

/// What several rounds gave.
struct Spread {
  double median = 0;
  double least = 0;
  double most = 0;
};

/// |values| is not empty.
[[nodiscard]] Spread spreadOf(std::vector<double> values);

/// One measurement; returns its result, whatever the unit.
using Measurement = std::function<double()>;

struct Comparison {
  Spread subject;
  Spread peer;
  Spread ratio;  ///< subject by peer, of the same round
};

/// Runs |subject| and |peer| by turns, after one of each that does not count. A round is |turns| of
/// both, of which it takes the means: short measurements need several, lest one disturbance decide.
/// Who begins changes from turn to turn, so that neither always finds the caches the other left.
[[nodiscard]] Comparison compare(int rounds, const Measurement& subject, const Measurement& peer,
                                 int turns = 1);

/// |subject| alone, |rounds| times after one that does not count.
[[nodiscard]] Spread repeat(int rounds, const Measurement& subject);

/// The seconds that |work| takes.
template <typename Work>
double secondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace bench
