// Taking turns: a subject and its peer, measured side by side.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace bench {

/// What several rounds gave: half of them lie between the quartiles.
struct Spread {
  double median = 0;
  double low = 0;   ///< first quartile
  double high = 0;  ///< third quartile
};

/// How long to measure.
struct Effort {
  int rounds;      ///< at least
  double seconds;  ///< more rounds, until this long has passed
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

/// Runs |subject| and |peer| in turn, round for round, after one of each that does not count. Who
/// begins changes, so that neither always finds the caches the other left.
[[nodiscard]] Comparison compare(const Effort& effort, const Measurement& subject,
                                 const Measurement& peer);

/// |subject| alone, after one that does not count.
[[nodiscard]] Spread repeat(const Effort& effort, const Measurement& subject);

/// The seconds that |work| takes.
template <typename Work>
double secondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace bench
