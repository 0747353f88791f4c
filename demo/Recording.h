// What a play has observed, and how it looks on a page.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace demo {

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

/// What a play has observed; it draws that in text, no wider than DemoReport::kWidth.
class Recording {
 public:
  using Clock = std::chrono::steady_clock;

  /// Something that happened, in any order of time.
  void observe(Clock::time_point when, const std::string& what);
  /// The link's next moment.
  void add(const LinkMoment& moment) { link_.push_back(moment); }

  /// The moments of the link, in the order of time.
  [[nodiscard]] const std::vector<LinkMoment>& link() const { return link_; }

  /// A line for each observation, in the order of time, in milliseconds from |zero|.
  [[nodiscard]] std::string timeline(Clock::time_point zero) const;

  /// A row for each property of the link, from left to right, with the times at which it was
  /// |reported| idle. There is at least one moment.
  [[nodiscard]] std::string chart(const std::vector<Clock::time_point>& reported) const;

 private:
  struct Observation {
    Clock::time_point when;
    std::string what;
  };

  std::vector<Observation> observations_;
  std::vector<LinkMoment> link_;
};

}  // namespace demo
