// Every figure of a run: a row of the table, an object in the JSON file.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

/// What a figure is to reach.
struct Target {
  enum class Bound { kAtMost, kAtLeast } bound;
  double value;
};

[[nodiscard]] constexpr Target atMost(double value) {
  return {Target::Bound::kAtMost, value};
}
[[nodiscard]] constexpr Target atLeast(double value) {
  return {Target::Bound::kAtLeast, value};
}

struct Figure {
  std::string name;     ///< what was measured, unique in a run
  std::string against;  ///< its floor or peer; empty for a figure that stands alone
  Spread value;         ///< the ratio, if there is an |against|
  std::string unit;     ///< of |value|; "x" for a ratio
  std::optional<Target> target = std::nullopt;
  std::string detail = {};  ///< the absolute figures behind a ratio, for the reader
};

/// Thread: one.
class Report {
 public:
  /// Prints what the columns are.
  Report();

  /// Prints |figure| as a row and keeps it.
  void add(const Figure& figure);

  /// Prints and remembers that the rest of |subject| could not be measured, and |why|.
  void fail(const std::string& subject, const std::string& why);

  /// Whether everything could be measured.
  [[nodiscard]] bool complete() const { return complete_; }

  /// Prints how many figures have reached and missed their targets, and returns the latter.
  int conclude() const;

  /// Writes everything as JSON, with the machine it was measured on. Throws lab::Error.
  void writeJson(const std::string& path) const;

 private:
  std::vector<Figure> figures_;
  bool complete_ = true;
};

/// 60000 as "60,000"; |number| is less than a million and no less than a thousand.
[[nodiscard]] std::string grouped(std::size_t number);

}  // namespace bench
