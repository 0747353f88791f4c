// How a figure comes about: a subject and its peer take turns.
#pragma once

#include <chrono>
#include <functional>

namespace bench {

/// Half of the rounds lie between the quartiles.
struct Spread {
  double median;
  double low;   ///< first quartile
  double high;  ///< third quartile
};

/// How long to measure.
struct Effort {
  int rounds;      ///< at least
  double seconds;  ///< more rounds, until this long has passed
};

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

/// The seconds that |work| takes.
template <typename Work>
double secondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace bench
