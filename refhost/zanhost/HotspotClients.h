// Who is in the hotspot: the list that event 27 carries.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/Zan.h"
#include "refhost/framework/Netlink.h"
#include "refhost/zanhost/Timer.h"

namespace zanhost {

/// The union of what the command "clients" has named and of the access points' stations.
///
/// A client that comes back while its clean-up runs is forgotten at the end of that, its addresses
/// too. Once that is past the kernel is asked for its neighbours again, so that the next departure
/// finds them.
///
/// Thread: event thread.
class HotspotClients {
 public:
  /// What a clean-up of the plug-in takes, beside its readings of the table, and some.
  static constexpr std::chrono::seconds kCleanUp{11};

  /// |zan| must outlive the object.
  explicit HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp = kCleanUp,
                          std::function<void()> askAgain = framework::askForNeighboursAgain);

  using Names = std::vector<std::string>;

  /// Takes other names for those that were typed before. Returns who departs with that; the caller
  /// dispatches it.
  [[nodiscard]] Names replaceTyped(const Names& typed);

  /// Takes other stations for those of before, and dispatches the list if that changes it.
  void replaceStations(const std::set<std::string>& stations);

  /// Dispatches event 27, with which |departed| leave.
  void dispatch(const Names& departed);

 private:
  using Clock = std::chrono::steady_clock;

  /// Makes the list anew, and returns who is not in it any more.
  Names update();
  void cleanUpPast();

  Zan& zan_;
  std::chrono::milliseconds cleanUp_;
  std::function<void()> askAgain_;
  Timer timer_;  ///< of the first clean-up to be past
  Names typed_;
  std::set<std::string> stations_;
  std::multimap<Clock::time_point, std::string> cleanUps_;  ///< clients, by when theirs is past
};

}  // namespace zanhost
