// What a play has observed, for a plot.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace demo {

/// How many TCP and UDP entries clients A and B had in the kernel's table, seen once.
struct TableMoment {
  std::chrono::steady_clock::time_point when;
  std::size_t ofA = 0;
  std::size_t ofB = 0;
};

/// A mobile link as it was seen once.
struct LinkMoment {
  std::chrono::steady_clock::time_point when;
  bool connected = false;
  bool dormant = false;
  bool tethering = false;
  bool filters = false;
  bool listenFilters = false;
  /// What the kernel's idle timer shows, in seconds; nothing when there is none.
  std::optional<int> timer;
  /// Frames of any kind, both directions, since the link exists.
  std::uint64_t frames = 0;
};

/// What a play has observed.
class Recording {
 public:
  using Clock = std::chrono::steady_clock;

  /// What a plot makes of an observation.
  enum class Mark { kEvent, kFlush, kIdle };

  /// Something that happened, in any order of time.
  void observe(Clock::time_point when, const std::string& what, Mark mark);
  /// The next moment of the table, of the link. One of the table that shows nothing new, and comes
  /// soon after the last, is left out.
  void add(const TableMoment& moment);
  void add(const LinkMoment& moment) { link_.push_back(moment); }

  /// The moments of the link, in the order of time.
  [[nodiscard]] const std::vector<LinkMoment>& link() const { return link_; }

  /// Everything, in seconds from |zero|, for demo/plot.gnuplot: blocks whose names begin with
  /// |name|.
  [[nodiscard]] std::string plotData(const std::string& name, Clock::time_point zero) const;

 private:
  struct Observation {
    Clock::time_point when;
    std::string what;
    Mark mark;
  };

  std::vector<Observation> observations_;
  std::vector<TableMoment> table_;
  std::vector<LinkMoment> link_;
};

}  // namespace demo
