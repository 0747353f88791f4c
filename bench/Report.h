// Every figure of a run: a row of the table, an object in the JSON file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

/// What a figure is to reach.
struct Target {
  enum class Bound { kAtMost, kAtLeast };
  Bound bound;
  double value;

  [[nodiscard]] bool reachedBy(double figure) const {
    return bound == Bound::kAtMost ? figure <= value : figure >= value;
  }
};

[[nodiscard]] constexpr Target atMost(double value) {
  return {Target::Bound::kAtMost, value};
}
[[nodiscard]] constexpr Target atLeast(double value) {
  return {Target::Bound::kAtLeast, value};
}

/// Where a figure is drawn.
struct Point {
  std::string line;  ///< the name of its line in the drawing
  double at;         ///< its place on the x axis
};

struct Figure {
  std::string name;     ///< what was measured, unique in a run
  std::string against;  ///< its floor or peer; empty for a figure that stands alone
  Spread value;         ///< the ratio, if there is an |against|
  std::string unit;     ///< of |value|; "x" for a ratio
  std::optional<Target> target = std::nullopt;
  std::string detail = {};  ///< the absolute figures behind a ratio, for the reader
  std::optional<Point> point = std::nullopt;
};

/// Thread: one.
class Report {
 public:
  /// Prints what the columns are.
  Report();

  /// Prints |figure| as a row and keeps it.
  void add(Figure figure);

  /// Adds the figures of another run, from the JSON file it wrote; the name of each tells the
  /// kernel it was measured on. Throws lab::Error.
  void merge(const std::string& path);

  /// Prints and keeps that the rest of |subject| could not be measured, and |why|.
  void fail(const std::string& subject, const std::string& why);

  /// Names the figures that miss their targets and what could not be measured. Returns whether
  /// every target is reached.
  bool conclude() const;

  /// Whether everything could be measured.
  [[nodiscard]] bool complete() const { return failures_.empty(); }

  /// Writes everything as JSON, with the machine it was measured on. Throws lab::Error.
  void writeJson(const std::string& path) const;

  /// Writes the figures that have a point, as bench/plot.gnuplot reads them: for each line a block
  /// with its name and then x, median and quartiles of each point. Throws lab::Error.
  void writePlotData(const std::string& path) const;

 private:
  std::vector<Figure> figures_;
  std::vector<std::string> failures_;
};

/// 60000 as "60,000".
[[nodiscard]] std::string grouped(std::size_t number);

}  // namespace bench
